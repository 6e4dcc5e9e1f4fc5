// The history's columns and their upkeep across starts, on a generated /sys/class/net.
#include "history/history_system.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstring>
#include <filesystem>

#include "adminhost/history_store.h"
#include "platform/clock.h"
#include "platform/paths.h"
#include "support/log_capture.h"
#include "support/sandbox.h"

namespace velm {
namespace {

class HistorySystemTest : public test::SandboxTest {
 protected:
  void SetUp() override {
    ::setenv("VELM_SYSFS", sandbox_.path("/sys").c_str(), 1);
    resetPathsForTest();
    nic("lo", 1, "00:00:00:00:00:00");
  }
  void TearDown() override {
    ::unsetenv("VELM_SYSFS");
    resetPathsForTest();
  }
  void nic(const std::string& name, int index, const std::string& mac) {
    sandbox_.write("/sys/class/net/" + name + "/ifindex", std::to_string(index) + "\n");
    sandbox_.write("/sys/class/net/" + name + "/address", mac + "\n");
  }
  void dropNic(const std::string& name) {
    std::filesystem::remove_all(sandbox_.path("/sys/class/net/" + name));
  }
  void start() { initHistorySystem(&context_, {}); }
  // A row of the machine's table with each column's number as its value.
  void row(std::uint32_t columns) {
    clock_->advanceMicros(60'000'000);
    PlistArray values;
    for (std::uint32_t c = 1; c <= columns; ++c) values.emplace_back(static_cast<long long>(c));
    ASSERT_TRUE(do_update_history_data(PropertyList(values), &context_));
  }
  PropertyList lastSample() {
    PropertyList samples;
    EXPECT_FALSE(do_get_named_history_data("history", nullptr, nullptr, &samples, context_));
    return samples.size() ? samples.asArray()->back() : PropertyList();
  }
  std::uint32_t cursor(int ring) {
    const PlistData& b = *context_.get("history")->asData();
    std::uint32_t v;
    std::memcpy(&v, b.data() + (ring == 1 ? 16 : 20), 4);
    return v;
  }

  test::LogCapture log_;
  ScopedFakeClock clock_;
  PropertyList context_ = PropertyList::dict();
};

TEST_F(HistorySystemTest, OneInterfaceHasItsColumnsButNoKeysOfItsOwn) {
  nic("eth0", 2, "52:54:00:12:34:56");
  start();
  EXPECT_EQ(context_.get("historyKeys")->size(), 8u);
  const PlistArray& nics = *context_.get("NICs")->asArray();
  ASSERT_EQ(nics.size(), 1u);
  EXPECT_EQ(*nics[0].getString("key"), "v9");
  EXPECT_EQ(*nics[0].getString("MAC"), "52:54:00:12:34:56");
  // The CPU factor is the single float 0.01 widened, not the double.
  double factor = *context_.get("historyFactors")->get("v1")->doubleValue();
  float narrow = static_cast<float>(factor);
  std::uint32_t bits;
  std::memcpy(&bits, &narrow, 4);
  EXPECT_EQ(bits, 0x3C23D70Au);
  EXPECT_NE(factor, 0.01);
  EXPECT_NE(
      writeXmlPlist(*context_.get("historyFactors")).find("<real>0.009999999776482582</real>"),
      std::string::npos);
}

TEST_F(HistorySystemTest, ReshapingKeepsMatchingInterfacesAndBothCursors) {
  nic("eth0", 2, "52:54:00:00:00:01");
  nic("eth1", 3, "52:54:00:00:00:02");
  nic("eth2", 4, "52:54:00:00:00:03");
  start();
  EXPECT_EQ(context_.get("historyKeys")->size(), 14u);
  row(14);
  std::uint32_t r1 = cursor(1), r2 = cursor(2);

  // eth2 goes, eth1 changes its MAC: 12 columns; eth0's and the fixed ones carry over.
  dropNic("eth2");
  nic("eth1", 3, "52:54:00:00:00:99");
  start();
  EXPECT_EQ(historyTableColumns(*context_.get("history")->asData()), 12u);
  EXPECT_EQ(cursor(1), r1);
  EXPECT_EQ(cursor(2), r2);
  PropertyList s = lastSample();
  for (int c : {1, 8, 9, 10}) EXPECT_EQ(s.get("v" + std::to_string(c))->int64Value(), c) << c;
  EXPECT_FALSE(s.get("v11"));
  EXPECT_FALSE(s.get("v12"));
  EXPECT_TRUE(log_.contains("loadPreviousData: Copied over info for NIC index 0"));
  EXPECT_TRUE(log_.contains("loadPreviousData: Skipping transfer of NIC info index 1"));
}

TEST_F(HistorySystemTest, AStartCleansTheContext) {
  nic("eth0", 2, "52:54:00:00:00:01");
  context_.set("configStatus_automount.plist", "x");
  context_.set("fsmpmStatus", "x");
  context_.set("history_Gone", PropertyList(newHistoryTable(3)));
  context_.set("FSMStore_Gone", PropertyList::dict());
  context_.set("history_Kept", PropertyList(newHistoryTable(3)));
  initHistorySystem(&context_, {"history_Kept"});
  for (const char* gone :
       {"configStatus_automount.plist", "fsmpmStatus", "history_Gone", "FSMStore_Gone"})
    EXPECT_FALSE(context_.get(gone)) << gone;
  EXPECT_TRUE(context_.get("history_Kept"));
  EXPECT_TRUE(log_.contains("purgeVolumeHistory: Zapping history for now-gone volume 'Gone'"));
  EXPECT_TRUE(context_.get("contextDirty")->boolValue());

  // A table of another version is started afresh with zero cells, quietly.
  PlistData other = newHistoryTable(10);
  other[0] = 7;
  context_.set("history", PropertyList(other));
  start();
  EXPECT_EQ(historyTableColumns(*context_.get("history")->asData()), 10u);
}

TEST_F(HistorySystemTest, DescriptorsAndData) {
  nic("eth0", 2, "52:54:00:00:00:01");
  start();
  PropertyList system = getHistorySystemKeys(context_);
  EXPECT_EQ(*system.getString("identifier"), "system");
  EXPECT_EQ(*getHistoryVolKeys("Projects").getString("identifier"), "volumeHistory:Projects");
  PropertyList result;
  EXPECT_TRUE(getHistoryData("history", nullptr, nullptr, &result, context_));
  row(10);
  EXPECT_FALSE(getHistoryData("history", nullptr, nullptr, &result, context_));
  EXPECT_EQ(result.get("nbSamples")->uint64Value(), 1u);
  EXPECT_EQ(result.get("currentServerTime")->uint64Value(), clock_->wallMicros() / 1'000'000);
}

}  // namespace
}  // namespace velm
