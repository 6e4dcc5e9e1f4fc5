// The sampler's hash tables: order, chains, growing and shrinking in their steps, the wipe of a
// deleted table, and the assertions that name their file.
#include "history/ch.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "adminlib/subr2.h"

namespace velm {
namespace {

TEST(ChTest, DirectHashShiftsTrailingZerosAway) {
  EXPECT_EQ(ch_direct_hash(0, 1024), 0u);
  EXPECT_EQ(ch_direct_hash(4, 1024), 0u);
  EXPECT_EQ(ch_direct_hash(6, 1024), 1u);
  EXPECT_EQ(ch_direct_hash(0x30000, 1024), ch_direct_hash(3, 1024));
  // h = h * 33 + c from 5381.
  EXPECT_EQ(ch_string_hash(reinterpret_cast<ch_key_t>("a"), 0xFFFFFFFFu), 5381u * 33 + 'a');
}

TEST(ChTest, TheListKeepsInsertionOrderAndAChainFindsTheNewestFirst) {
  std::vector<unsigned char> block(ch_size(4));
  cw_ch_t* ch =
      ch_new(reinterpret_cast<cw_ch_t*>(block.data()), 4, ch_direct_hash, ch_direct_key_comp);
  cw_chi_t items[3];
  ch_insert(ch, 10, 100, &items[0]);
  ch_insert(ch, 20, 200, &items[1]);
  ch_insert(ch, 10, 101, &items[2]);  // a double key: not tested for
  EXPECT_EQ(ch_count(ch), 3u);
  ch_data_t data = 0;
  EXPECT_EQ(ch_search(ch, 10, &data), 0);
  EXPECT_EQ(data, 101u);
  EXPECT_EQ(ch_search(ch, 30, &data), 1);
  ch_key_t key;
  for (ch_data_t want : {100u, 200u, 101u, 100u}) {
    ASSERT_EQ(ch_get_iterate(ch, &key, &data), 0);
    EXPECT_EQ(data, want);
  }
  cw_chi_t* chi = nullptr;
  EXPECT_EQ(ch_remove(ch, 10, &key, &data, &chi), 0);
  EXPECT_EQ(chi, &items[2]);
  EXPECT_EQ(ch_remove_iterate(ch, &key, &data, &chi), 0);
  EXPECT_EQ(ch_count(ch), 1u);
  ch_delete(ch);
  // The remaining item and the record are wiped with 0x5A.
  unsigned char z[sizeof(cw_chi_t)];
  std::memset(z, 0x5A, sizeof z);
  int wiped = 0;
  for (const cw_chi_t& item : items) wiped += std::memcmp(&item, z, sizeof z) == 0;
  EXPECT_EQ(wiped, 1);
  EXPECT_EQ(block[0], 0x5A);
}

TEST(DchTest, GrowsInDoublingSteps) {
  cw_dch_t* dch = dch_new(nullptr, 32, 24, 0, ch_direct_hash, ch_direct_key_comp);
  ASSERT_TRUE(dch);
  std::vector<cw_chi_t> items(60);
  for (std::size_t i = 0; i < items.size(); ++i) {
    dch_insert(dch, i + 1, i, &items[i]);
    std::uint32_t size = dch_table_size(dch);
    if (i + 1 <= 24)
      EXPECT_EQ(size, 32u) << i;
    else if (i + 1 <= 48)
      EXPECT_EQ(size, 64u) << i;
    else
      EXPECT_EQ(size, 128u) << i;
  }
  // Base shrink 0: it never shrinks.
  for (std::size_t i = 0; i < items.size(); ++i)
    EXPECT_EQ(dch_remove(dch, i + 1, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(dch_table_size(dch), 128u);
  EXPECT_EQ(dch_remove(dch, 1, nullptr, nullptr, nullptr), 1);
  dch_delete(dch);
}

TEST(DchTest, ShrinksBackToTheSmallestFactorThatHoldsWhatIsLeft) {
  cw_dch_t record;
  cw_dch_t* dch = dch_new(&record, 4, 3, 1, ch_direct_hash, ch_direct_key_comp);
  std::vector<cw_chi_t> items(12);
  for (std::size_t i = 0; i < 12; ++i) dch_insert(dch, i + 1, i, &items[i]);
  EXPECT_EQ(dch_table_size(dch), 16u);  // factor 4
  for (std::size_t i = 0; i < 10; ++i) dch_remove(dch, i + 1, nullptr, nullptr, nullptr);
  EXPECT_EQ(dch_count(dch), 2u);
  // On the way down, 4 items at factor 4 went to factor 2; 2 items at factor 2 don't shrink yet.
  EXPECT_EQ(dch_table_size(dch), 8u);
  // n - 1 = 1 is below factor 2 x shrink 1: down to factor 1.
  dch_remove(dch, 11, nullptr, nullptr, nullptr);
  EXPECT_EQ(dch_table_size(dch), 4u);
  ch_data_t data;
  EXPECT_EQ(dch_search(dch, 12, &data), 0);
  EXPECT_EQ(data, 11u);
  dch_delete(dch);
}

TEST(ChAssertions, NameTheirFile) {
  static std::string seen;
  PanicFunc saved = PanicHook;
  PanicHook = [](const char* prefix, const char* text, int, const char* file, int) {
    seen = std::string(prefix) + text + " in " + file;
    throw 1;  // back to the test instead of ending the process
  };
  std::vector<unsigned char> block(ch_size(2));
  auto* ch = reinterpret_cast<cw_ch_t*>(block.data());
  EXPECT_ANY_THROW(ch_count(ch));
  EXPECT_EQ(seen, "ASSERT failed a_ch->magic == LIBTOP_CH_MAGIC in ch.c");
  cw_dch_t bad{};
  EXPECT_ANY_THROW(dch_count(&bad));
  EXPECT_EQ(seen, "ASSERT failed a_dch->magic == LIBTOP_DCH_MAGIC in dch.c");
  EXPECT_ANY_THROW(dch_new(nullptr, 4, 3, 3, ch_direct_hash, ch_direct_key_comp));
  EXPECT_EQ(seen, "ASSERT failed a_base_grow > a_base_shrink in dch.c");
  PanicHook = saved;
}

}  // namespace
}  // namespace velm
