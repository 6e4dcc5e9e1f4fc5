// The time-series store on context dictionaries, timed by a fake clock.
#include "adminhost/history_store.h"

#include <gtest/gtest.h>

#include "platform/clock.h"
#include "support/log_capture.h"
#include "support/sandbox.h"

namespace velm {
namespace {

PropertyList row(std::vector<PropertyList> values) {
  return PlistArray(values.begin(), values.end());
}

class HistoryStoreTest : public test::SandboxTest {
 protected:
  PropertyList samples(const PropertyList* timeScale = nullptr, const char* table = "history") {
    PropertyList out;
    std::optional<std::string> error =
        do_get_named_history_data(table, nullptr, timeScale, &out, context_);
    EXPECT_FALSE(error) << *error;
    return out;
  }
  void tick(std::vector<PropertyList> values, std::uint64_t seconds = 60) {
    clock_->advanceMicros(seconds * 1'000'000);
    ASSERT_TRUE(do_update_history_data(row(std::move(values)), &context_));
  }
  std::uint64_t now() { return clock_->wallMicros() / 1'000'000; }

  test::LogCapture log_;
  ScopedFakeClock clock_;
  PropertyList context_ = PropertyList::dict();
};

TEST_F(HistoryStoreTest, RowsGoInWithTheirTimeAndEmptyValuesStayOut) {
  tick({PropertyList(1250), PropertyList(""), PropertyList(2.6)});
  const PlistData* block = context_.get("history")->asData();
  ASSERT_TRUE(block);
  EXPECT_EQ(historyTableColumns(*block), 3u);
  PropertyList s = samples();
  ASSERT_EQ(s.size(), 1u);
  const PropertyList& first = s.asArray()->front();
  EXPECT_EQ(first.get("time")->uint64Value(), now());
  EXPECT_EQ(first.get("v1")->int64Value(), 1250);
  EXPECT_FALSE(first.get("v2"));
  EXPECT_EQ(first.get("v3")->int64Value(), 3);

  // Longer rows lose their extra values, shorter ones leave empty cells; the block is the same.
  const std::uint8_t* where = block->data();
  tick({PropertyList(1), PropertyList(2), PropertyList(3), PropertyList(4)});
  tick({PropertyList(7)});
  EXPECT_EQ(context_.get("history")->asData()->data(), where);
  s = samples();
  ASSERT_EQ(s.size(), 3u);
  EXPECT_FALSE(s.asArray()->at(1).get("v4"));
  EXPECT_EQ(s.asArray()->at(2).get("v1")->int64Value(), 7);
  EXPECT_FALSE(s.asArray()->at(2).get("v2"));
}

TEST_F(HistoryStoreTest, TheFirstRingWrapsAndTheSecondTakesMeansEveryFiveMinutes) {
  for (int i = 0; i < 1441; ++i) tick({PropertyList(i)});
  PropertyList s = samples();
  ASSERT_EQ(s.size(), 1440u);
  // The oldest row went; the rest come oldest first.
  EXPECT_EQ(s.asArray()->front().get("v1")->int64Value(), 1);
  EXPECT_EQ(s.asArray()->back().get("v1")->int64Value(), 1440);

  // Asking further back than the first ring spans gives the second: one row per 300 s.
  PropertyList week(7 * 86400);
  PropertyList longer = samples(&week);
  ASSERT_GT(longer.size(), 280u);
  const PlistArray& rows = *longer.asArray();
  EXPECT_EQ(rows[1].get("time")->uint64Value().value() - rows[0].get("time")->uint64Value().value(),
            300u);
  // Rows 1 to 5 (60 s apart) make the second ring's second row: their mean is 3.
  EXPECT_EQ(rows[1].get("v1")->int64Value(), 3);

  PropertyList twoMinutes(120);
  EXPECT_EQ(samples(&twoMinutes).size(), 3u);
  PropertyList nonsense("soon");
  EXPECT_EQ(samples(&nonsense).size(), 1440u);
}

TEST_F(HistoryStoreTest, ABrokenTableIsStartedAfreshAndAnotherVersionSilently) {
  context_.set("history", "not a table");
  tick({PropertyList(5)});
  EXPECT_TRUE(log_.contains("ERROR: history store: the table 'history' is damaged"));
  EXPECT_EQ(samples().size(), 1u);

  PlistData cut = newHistoryTable(2);
  cut.resize(cut.size() - 8);
  context_.set("history", PropertyList(cut));
  log_.clear();
  tick({PropertyList(5), PropertyList(6)});
  EXPECT_TRUE(log_.contains("is damaged"));

  PlistData old = newHistoryTable(2);
  old[0] = 2;
  context_.set("history", PropertyList(old));
  log_.clear();
  tick({PropertyList(5), PropertyList(6)});
  EXPECT_FALSE(log_.contains("is damaged"));
  EXPECT_EQ(samples().size(), 1u);

  // Named tables; a table that isn't there is an error text.
  EXPECT_EQ(do_update_named_history_data("history_Projects", row({PropertyList(1)}), &context_), 1);
  EXPECT_EQ(samples(nullptr, "history_Projects").size(), 1u);
  PropertyList none;
  EXPECT_TRUE(do_get_named_history_data("history_Gone", nullptr, nullptr, &none, context_));
  EXPECT_EQ(do_update_named_history_data("x", PropertyList("not a row"), &context_), 0);
}

}  // namespace
}  // namespace velm
