// The fabric device manager on generated sysfs trees: build, change, rescan, and the stats timer
// fired on a fake clock.
#include "fabric/device_manager.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "platform/clock.h"
#include "platform/event_loop.h"
#include "platform/files.h"
#include "platform/paths.h"
#include "sim/simfabric/fabric_tree.h"
#include "support/log_capture.h"
#include "support/sandbox.h"

namespace velm {
namespace {

using sim::FabricTree;
using sim::PathState;

constexpr std::uint64_t kArray = 0x50060e8000c3a100;
constexpr std::uint64_t kOther = 0x50060e8000c3b200;
constexpr const char* kArrayText = "50:06:0E:80:00:C3:A1:00";

// A set of domain ids as the log lines print it.
std::string ids(std::initializer_list<long long> values) {
  PlistArray list;
  for (long long v : values) list.emplace_back(v);
  return describe(PropertyList(std::move(list)));
}

class DeviceManagerTest : public test::SandboxTest {
 protected:
  void SetUp() override {
    ::setenv("VELM_SYSFS", sandbox_.path("/sys").c_str(), 1);
    resetPathsForTest();
    ASSERT_TRUE(tree_.init(2)) << tree_.error();
    SANDeviceManager::resetForTest();
  }
  void TearDown() override {
    SANDeviceManager::resetForTest();
    ::unsetenv("VELM_SYSFS");
    resetPathsForTest();
  }
  SANDeviceManager& manager() { return SANDeviceManager::defaultManager(); }
  void start() { manager().startNotifications(loop_); }
  void rescan() { manager().registry().rescanForTest(); }
  PropertyList fibreLog() { return manager().readRecentFibreLog(); }
  // The entries of the log as "Path Loss <wwnn>" / "LUN Loss <wwnn> <lun>".
  std::vector<std::string> logLines() {
    std::vector<std::string> out;
    PropertyList log = fibreLog();
    for (const PropertyList& e : *log.asArray()) {
      std::string line =
          *e.getString("type") + " " + *e.getString("event") + " " + *e.getString("wwnn");
      if (const PropertyList* lun = e.get("lun")) line += " " + std::to_string(*lun->int64Value());
      out.push_back(line);
    }
    return out;
  }
  std::set<long long> domains(std::uint64_t wwnn) {
    PlistData name(8);
    for (int i = 0; i < 8; ++i) name[i] = static_cast<std::uint8_t>(wwnn >> (56 - 8 * i));
    return manager().pathDomainsOf(name).value_or(std::set<long long>{-1});
  }
  unsigned long long bytesOf(const char* wwnn, int host) {
    std::optional<PropertyList> stats = manager().recentStats();
    const PropertyList* t = stats ? stats->get(wwnn) : nullptr;
    const PropertyList* d = t ? t->get(std::to_string(host)) : nullptr;
    return d ? d->uint64Value().value_or(0) : 0;
  }
  // Fires every timer due after moving the fake clock.
  void advance(std::uint64_t micros) {
    clock_->advanceMicros(micros);
    loop_.runOnce(0);
  }

  test::LogCapture log_;
  ScopedFakeClock clock_;
  EventLoop loop_;
  FabricTree tree_{sandbox_.path("/sys")};
};

TEST_F(DeviceManagerTest, FollowsFibreTargetsAndTheirUnitsButNotSas) {
  ASSERT_TRUE(tree_.addTarget(kArray, {}, {0, 1}));
  ASSERT_TRUE(tree_.addTarget(kOther, {}, {0}, true)) << tree_.error();
  start();
  EXPECT_EQ(manager().targetCount(), 1u);
  EXPECT_EQ(manager().logicalUnitCount(), 2u);
  EXPECT_TRUE(log_.contains(std::string("SANDeviceManager: Added target ") + kArrayText));
  EXPECT_TRUE(log_.contains(std::string("SANDeviceManager: Added LUN ") + kArrayText + " (1)"));
  // The first message takes the paths as added, and writes nothing to the log file.
  EXPECT_TRUE(
      log_.contains("SANDeviceManager: Added (" + ids({1, 2}) + ") paths to " + kArrayText));
  EXPECT_EQ(fibreLog().size(), 0u);
  EXPECT_EQ(domains(kArray), (std::set<long long>{1, 2}));
}

TEST_F(DeviceManagerTest, AVanishingTargetLosesItsPathsOnceAndEachUnit) {
  ASSERT_TRUE(tree_.addTarget(kArray, {}, {0, 1}));
  start();
  ASSERT_TRUE(tree_.removeTarget(kArray));
  rescan();
  EXPECT_EQ(manager().targetCount(), 0u);
  EXPECT_EQ(manager().logicalUnitCount(), 0u);
  EXPECT_EQ(logLines(), (std::vector<std::string>{"LUN Loss " + std::string(kArrayText) + " 0",
                                                  "LUN Loss " + std::string(kArrayText) + " 1",
                                                  "Path Loss " + std::string(kArrayText)}));
  EXPECT_TRUE(log_.contains(std::string("SANDeviceManager: Removed target ") + kArrayText));
}

TEST_F(DeviceManagerTest, PathStatesAndTheirTraces) {
  ASSERT_TRUE(tree_.addTarget(kArray, {}, {0}));
  start();
  // Marginal counts as up; Blocked and back between two scans leaves no trace.
  ASSERT_TRUE(tree_.setPathState(kArray, 1, PathState::Marginal));
  ASSERT_TRUE(tree_.setPathState(kArray, 2, PathState::Blocked));
  ASSERT_TRUE(tree_.setPathState(kArray, 2, PathState::Online));
  rescan();
  EXPECT_EQ(domains(kArray), (std::set<long long>{1, 2}));
  EXPECT_EQ(fibreLog().size(), 0u);

  ASSERT_TRUE(tree_.setPathState(kArray, 2, PathState::Blocked));
  rescan();
  EXPECT_EQ(domains(kArray), (std::set<long long>{1}));
  EXPECT_TRUE(
      log_.contains("SANDeviceManager: Removed (" + ids({2}) + ") paths from " + kArrayText));
  EXPECT_EQ(logLines(), std::vector<std::string>{"Path Loss " + std::string(kArrayText)});

  // Back: seen in the log lines only.
  ASSERT_TRUE(tree_.setPathState(kArray, 2, PathState::NotPresent));
  rescan();
  ASSERT_TRUE(tree_.setPathState(kArray, 2, PathState::Online));
  rescan();
  EXPECT_EQ(domains(kArray), (std::set<long long>{1, 2}));
  EXPECT_EQ(fibreLog().size(), 1u);
}

TEST_F(DeviceManagerTest, BytesPerDomainFallWhenAPathGoesDown) {
  ASSERT_TRUE(tree_.addTarget(kArray, {}, {0, 1}));
  start();
  ASSERT_TRUE(tree_.addIo(kArray, 1, 512 * 100, 512 * 20));
  ASSERT_TRUE(tree_.addIo(kArray, 2, 512 * 7, 0));
  ASSERT_TRUE(manager().updateStats());
  EXPECT_EQ(bytesOf(kArrayText, 1), 512u * 120);
  EXPECT_EQ(bytesOf(kArrayText, 2), 512u * 7);
  ASSERT_TRUE(tree_.setPathState(kArray, 2, PathState::Blocked));
  ASSERT_TRUE(manager().updateStats());
  EXPECT_EQ(bytesOf(kArrayText, 2), 0u);
  EXPECT_EQ(bytesOf(kArrayText, 1), 512u * 120);
}

TEST_F(DeviceManagerTest, TheStatsTimerStopsAfterTheLastTargetAndASecondMayStart) {
  ASSERT_TRUE(tree_.addTarget(kArray, {}, {0}));
  start();
  EXPECT_FALSE(manager().recentStats());
  advance(SANDeviceManager::kStatsIntervalMicros);
  ASSERT_TRUE(manager().recentStats());
  EXPECT_EQ(manager().recentStats()->size(), 1u);

  ASSERT_TRUE(tree_.removeTarget(kArray));
  rescan();
  // Back before the first timer's tick: the count was zero, so a second timer starts.
  ASSERT_TRUE(tree_.addTarget(kArray, {}, {0}));
  rescan();
  advance(SANDeviceManager::kStatsIntervalMicros);
  ASSERT_TRUE(tree_.removeTarget(kArray));
  rescan();
  advance(SANDeviceManager::kStatsIntervalMicros);
  EXPECT_EQ(manager().recentStats()->size(), 0u);
  // Both timers stopped: nothing is due any more but the registry's own rescan.
  std::uint64_t due = loop_.nextTimerDue();
  EXPECT_TRUE(due == 0 || due - clock_->monotonicMicros() <= kDeviceRescanMicros);
}

TEST_F(DeviceManagerTest, WwnTextsAndABadTree) {
  EXPECT_EQ(wwnStringFromData(PlistData{0x50, 0x06}), "50:06:00:00:00:00:00:00");
  EXPECT_EQ(wwnStringFromData(PlistData{}), "00:00:00:00:00:00:00:00");

  ASSERT_TRUE(tree_.addTarget(kArray, {}, {0}));
  start();
  // A node name that isn't hex and a stat file that is cut short: skipped, known things kept.
  std::string sys = sandbox_.path("/sys");
  for (const auto& e : std::filesystem::directory_iterator(sys + "/class/fc_transport"))
    writeFileAtomically(e.path().string() + "/node_name", "0xnothex\n");
  for (const std::string& disk : tree_.disksOf(kArray, 2))
    writeFileAtomically(sys + "/block/" + disk + "/stat", "1 2\n");
  rescan();
  EXPECT_EQ(manager().targetCount(), 1u);
  EXPECT_TRUE(manager().updateStats());
  EXPECT_TRUE(log_.contains("DeviceRegistry: skipping"));
}

TEST_F(DeviceManagerTest, ACorruptLogIsKeptAside) {
  sandbox_.write("/var/run/velm2_recent_fibre_activity.plist", "not a plist");
  EXPECT_EQ(fibreLog().size(), 0u);
  manager().logLossOfPathsFromWWNN(kArrayText);
  EXPECT_EQ(logLines(), std::vector<std::string>{"Path Loss " + std::string(kArrayText)});
  EXPECT_TRUE(log_.contains("was not a list of fibre events; kept as"));
  manager().clearRecentFibreLog();
  EXPECT_FALSE(sandbox_.exists("/var/run/velm2_recent_fibre_activity.plist"));
}

TEST_F(DeviceManagerTest, RescansBesideReadersOfStatsAndLog) {
  ASSERT_TRUE(tree_.addTarget(kArray, {}, {0, 1}));
  start();
  loop_.startThread();
  std::atomic<bool> stop{false};
  std::vector<std::thread> readers;
  for (int i = 0; i < 8; ++i) {
    readers.emplace_back([&] {
      while (!stop) {
        manager().recentStats();
        manager().readRecentFibreLog();
      }
    });
  }
  for (int i = 0; i < 20; ++i) {
    tree_.setPathState(kArray, 1 + i % 2, i % 4 < 2 ? PathState::Blocked : PathState::Online);
    loop_.post([&] { manager().registry().rescanForTest(); });
    loop_.post([&] { manager().updateStats(); });
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  stop = true;
  for (std::thread& t : readers) t.join();
  loop_.stop();
  SUCCEED();
}

}  // namespace
}  // namespace velm
