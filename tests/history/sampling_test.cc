// The tick's samplers on a fake /proc/stat and /sys/class/net, timed by a fake clock.
#include "history/sampling.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <array>

#include "adminhost/history_store.h"
#include "history/history_system.h"
#include "platform/clock.h"
#include "platform/paths.h"
#include "support/log_capture.h"
#include "support/sandbox.h"

namespace velm {
namespace {

class SamplingTest : public test::SandboxTest {
 protected:
  void SetUp() override {
    ::setenv("VELM_PROCFS", sandbox_.path("/proc").c_str(), 1);
    ::setenv("VELM_SYSFS", sandbox_.path("/sys").c_str(), 1);
    resetPathsForTest();
    nic("eth0", 2, 1000, 500, 10, 5);
  }
  void TearDown() override {
    ::unsetenv("VELM_PROCFS");
    ::unsetenv("VELM_SYSFS");
    resetPathsForTest();
  }
  void nic(const std::string& name, int index, std::uint64_t rx, std::uint64_t tx,
           std::uint64_t rxp, std::uint64_t txp) {
    std::string d = "/sys/class/net/" + name;
    sandbox_.write(d + "/ifindex", std::to_string(index) + "\n");
    sandbox_.write(d + "/address", "52:54:00:00:00:0" + std::to_string(index) + "\n");
    sandbox_.write(d + "/statistics/rx_bytes", std::to_string(rx) + "\n");
    sandbox_.write(d + "/statistics/tx_bytes", std::to_string(tx) + "\n");
    sandbox_.write(d + "/statistics/rx_packets", std::to_string(rxp) + "\n");
    sandbox_.write(d + "/statistics/tx_packets", std::to_string(txp) + "\n");
  }
  // cpuN user nice system idle iowait irq softirq, for the online processors given.
  void cpus(std::vector<std::pair<int, std::array<std::uint64_t, 7>>> lines) {
    std::string text = "cpu  1 2 3 4 5 6 7 0 0 0\n";
    for (auto& [n, f] : lines) {
      text += "cpu" + std::to_string(n);
      for (std::uint64_t v : f) text += " " + std::to_string(v);
      text += " 0 0 0\n";
    }
    sandbox_.write("/proc/stat", text + "intr 1\n");
  }
  PropertyList tick(double seconds) {
    clock_->advanceMicros(static_cast<std::uint64_t>(seconds * 1e6));
    updateHistoryData(&context_, false, {});
    PropertyList samples;
    do_get_named_history_data("history", nullptr, nullptr, &samples, context_);
    return samples.asArray()->back();
  }

  test::LogCapture log_;
  ScopedFakeClock clock_;
  PropertyList context_ = PropertyList::dict();
};

TEST_F(SamplingTest, FirstTickGivesZerosThenRatesOverTheWholeInterval) {
  cpus({{0, {100, 0, 100, 800, 0, 0, 0}}, {2, {0, 0, 0, 1000, 0, 0, 0}}});
  initHistorySystem(&context_, {});
  PropertyList first = tick(60);
  EXPECT_EQ(first.get("v1")->int64Value(), 0);  // a number, not an empty cell
  EXPECT_EQ(first.get("v3")->int64Value(), 0);

  // cpu0: 100 busy of 200 more ticks; cpu2 (cpu1 is offline): 50 of 100. Mean 50%.
  cpus({{0, {150, 0, 150, 900, 0, 0, 0}}, {2, {25, 0, 25, 1050, 0, 0, 0}}});
  nic("eth0", 2, 1000 + 15 * 300, 500 + 15 * 100, 10 + 15 * 3, 5 + 15);
  PropertyList second = tick(15.9);
  EXPECT_EQ(second.get("v1")->int64Value(), 5000);
  EXPECT_EQ(second.get("v3")->int64Value(), 400);  // bytes a second, over 15 whole seconds
  EXPECT_EQ(second.get("v5")->int64Value(), 300);
  EXPECT_EQ(second.get("v8")->int64Value(), 1);
  EXPECT_EQ(second.get("v9")->int64Value(), 400);  // the interface's own column

  // 10 s later: under 15 s, the row repeats the cached values.
  cpus({{0, {1000, 0, 1000, 900, 0, 0, 0}}, {2, {1000, 0, 1000, 1050, 0, 0, 0}}});
  PropertyList third = tick(10);
  EXPECT_EQ(third.get("v1")->int64Value(), 5000);
  EXPECT_EQ(third.get("v3")->int64Value(), 400);
}

TEST_F(SamplingTest, CountersThatWrapAndNoProcessorLines) {
  sandbox_.write("/proc/stat", "intr 1\n");
  initHistorySystem(&context_, {});
  nic("eth0", 2, 4294967000ull, 0, 0, 0);
  tick(60);
  // The counter went back: one 32-bit wrap is assumed.
  nic("eth0", 2, 296 + 60 * 10, 0, 0, 0);
  PropertyList row = tick(60);
  EXPECT_EQ(row.get("v5")->int64Value(), (4294967296ll + 896 - 4294967000ll) / 60);
  // No processor lines: the CPU column stays empty, the row keeps its length.
  EXPECT_FALSE(row.get("v1"));
  EXPECT_TRUE(row.get("v10"));
}

TEST_F(SamplingTest, AVolumeWithoutItsFsmIsALineOfZeros) {
  cpus({{0, {1, 0, 1, 1, 0, 0, 0}}});
  EXPECT_TRUE(update_named_history_data("Projects", &context_));
  EXPECT_FALSE(context_.get("FSMStore_Projects")->get("proc_running")->boolValue());
  EXPECT_TRUE(log_.contains("ERROR: get_fsm_process_stats(Projects): Unable to find pid of fsm"));
  PropertyList samples;
  ASSERT_FALSE(do_get_named_history_data("history_Projects", nullptr, nullptr, &samples, context_));
  const PropertyList& row = samples.asArray()->back();
  for (const char* c : {"v1", "v2", "v3"}) EXPECT_EQ(row.get(c)->int64Value(), 0) << c;
}

}  // namespace
}  // namespace velm
