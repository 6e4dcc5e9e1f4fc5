// doIdle and the host events it attaches: each source on real files in a sandbox root, the
// advertiser and the power source as fakes, the coalescing timer on a fake clock.
#include "core/host_events.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <set>
#include <thread>

#include "core/san_computer.h"
#include "core/velm_plugin.h"
#include "fabric/device_manager.h"
#include "gateway/san_filesystem.h"
#include "platform/clock.h"
#include "platform/fake_power_events.h"
#include "platform/fake_service_advertiser.h"
#include "platform/files.h"
#include "platform/paths.h"
#include "platform/volume_events.h"
#include "support/log_capture.h"
#include "support/plugin_command.h"
#include "support/sandbox.h"

namespace velm {
namespace {

constexpr const char* kConfigPlist = "/Library/Filesystems/Velm/config/config.plist";

bool eventually(const std::function<bool()>& cond) {
  for (int i = 0; i < 500; ++i) {
    if (cond()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return cond();
}

std::string configWithRole(const char* role) {
  return std::string("<plist version=\"1.0\"><dict><key>role</key><string>") + role +
         "</string></dict></plist>\n";
}

std::map<std::string, std::string> txtOf(const ServiceSpec& spec) {
  std::map<std::string, std::string> out;
  if (!spec.txt) return out;
  for (auto& [k, v] : decodeTxtRecord(*spec.txt).value_or(TxtEntries{})) out[k] = v;
  return out;
}

// The sandbox's mounts and no real disk: a disk of the machine the tests run on could come, go or
// change at any time.
class SandboxVolumes : public VolumeEventService {
 public:
  SandboxVolumes() { setVolumeEventServiceForTest(this); }
  ~SandboxVolumes() override { setVolumeEventServiceForTest(nullptr); }
  std::vector<PropertyList> presentDisks() override { return mountedVolumeDescriptions(); }
};

class HostEventsTest : public test::SandboxTest {
 protected:
  void SetUp() override {
    ::setenv("VELM_PROCFS", sandbox_.path("/proc").c_str(), 1);
    ::setenv("VELM_HOST_ADDRESSES", "127.0.0.2", 1);
    // No fabric: the machine's own /sys is none of the tests' business.
    ::setenv("VELM_SYSFS", sandbox_.path("/sys").c_str(), 1);
    resetPathsForTest();
    sandbox_.write("/proc/self/mountinfo", "");
    sandbox_.write(kConfigPlist, configWithRole("UNCONFIGURED"));
    std::filesystem::create_directories(sandbox_.path("/etc"));
    SANFilesystem::resetForTest();
    SANComputer::resetForTest();
    plugin_ = std::make_unique<VelmPlugin>();
  }
  void TearDown() override {
    plugin_.reset();
    SANDeviceManager::resetForTest();
    SANFilesystem::resetForTest();
    SANComputer::resetForTest();
    ::unsetenv("VELM_PROCFS");
    ::unsetenv("VELM_HOST_ADDRESSES");
    ::unsetenv("VELM_SYSFS");
    resetPathsForTest();
  }
  PropertyList run(const char* command, test::CommandKeys keys = {}) {
    return test::runCommand(*plugin_, context_, command, std::move(keys));
  }
  long long idle(long long count) {
    PropertyList r = run("doIdle", {{"count", PropertyList(count)}});
    return r.get("result") ? r.get("result")->int64Value().value_or(-99) : -99;
  }
  std::string role() {
    std::scoped_lock lock(plugin_->pluginLock());
    PropertyList value = SANComputer::thisComputer().role();
    const std::string* r = value.asString();
    return r ? *r : "";
  }
  // The config files' timer is the one due a second from now (the fake clock stands still).
  bool configTimerArmed() {
    return plugin_->hostEvents().loop.nextTimerDue() == clock_->monotonicMicros() + 1'000'000;
  }
  // The mount table replaced whole, as the kernel's changes at once.
  void mountTable(const std::string& text) {
    writeFileAtomically(sandbox_.path("/proc/self/mountinfo"), text);
  }
  // Moves the fake clock and lets the event thread see it.
  void advance(std::uint64_t micros) {
    clock_->advanceMicros(micros);
    plugin_->hostEvents().loop.wake();
  }

  test::LogCapture log_;
  ScopedFakeClock clock_;
  SandboxVolumes volumes_;
  ScopedFakeServiceAdvertiserFactory advertisers_;
  std::optional<ScopedFakePowerEventSources> power_{std::in_place};
  std::unique_ptr<VelmPlugin> plugin_;
  PropertyList context_ = PropertyList::dict();
};

TEST_F(HostEventsTest, TicksBeforeTheFirstCountZeroAttachNothing) {
  EXPECT_EQ(idle(1), 0);
  EXPECT_TRUE(log_.contains("DoIdle at count 1"));
  EXPECT_EQ(advertisers_.made().size(), 0u);
  EXPECT_EQ(power_->made(), 0);
  EXPECT_FALSE(log_.contains("Plugin init"));
}

TEST_F(HostEventsTest, CountZeroAttachesEverySourceAndAdvertisesTheMachine) {
  EXPECT_EQ(idle(0), 0);
  EXPECT_EQ(power_->made(), 1);
  ASSERT_TRUE(advertisers_.last());
  std::vector<FakeServiceAdvertiser::Publication> live = advertisers_.last()->live();
  ASSERT_EQ(live.size(), 1u);
  EXPECT_EQ(live[0].spec.type, "_velm2unconfig._tcp");
  EXPECT_EQ(live[0].spec.port, 311);
  EXPECT_EQ(live[0].spec.name, "");
  std::map<std::string, std::string> txt = txtOf(live[0].spec);
  EXPECT_FALSE(txt["uuid"].empty());
  EXPECT_EQ(txt["time"], std::to_string(clock_->wallMicros() / 1000000));
  EXPECT_EQ(txt.count("role"), 0u);
  EXPECT_TRUE(log_.contains("Plugin init, self"));
  EXPECT_TRUE(log_.contains("prereadLUNs: Read 0 LUNs at startup"));

  // A second count 0 attaches everything again: each event does its work twice, through the
  // same descriptors.
  idle(0);
  EXPECT_EQ(power_->made(), 1);
  // One post, one event: the file replaced whole.
  writeFileAtomically(sandbox_.path("/var/run/velm/notify/com.orvane.velm.disksChanged"), "");
  const char* line =
      "receiveDisksChangedNotification: received com.orvane.velm.disksChanged notification";
  EXPECT_TRUE(eventually([&] { return log_.count(line) == 2; })) << log_.count(line);
}

TEST_F(HostEventsTest, JoiningASanReadvertisesOnTheEventThreadWithTheNewRole) {
  idle(0);
  sandbox_.write("/Library/Filesystems/Velm/config/fsnameservers", "127.0.0.1\n");
  // The command holds the plugin lock: the advertisement waits for the next turn of the loop.
  EXPECT_EQ(run("writeConfiguration", {{"role", PropertyList("CONTROLLER")}})
                .get("status")
                ->int64Value(),
            0);
  EXPECT_TRUE(eventually([&] {
    std::vector<FakeServiceAdvertiser::Publication> live = advertisers_.last()->live();
    return live.size() == 1 && live[0].spec.type == "_velm2server._tcp";
  }));
}

TEST_F(HostEventsTest, ABurstOfConfigChangesDropsTheConfigKeysOnceAfterOneSecond) {
  idle(0);
  EXPECT_EQ(role(), "UNCONFIGURED");
  for (int i = 0; i < 10; ++i) sandbox_.write(kConfigPlist, configWithRole(i % 2 ? "CLIENT" : "X"));
  sandbox_.write(kConfigPlist, configWithRole("CLIENT"));
  ASSERT_TRUE(eventually([&] { return configTimerArmed(); }));
  EXPECT_EQ(role(), "UNCONFIGURED");
  advance(1'000'000);
  EXPECT_TRUE(eventually([&] { return role() == "CLIENT"; }));
  EXPECT_FALSE(configTimerArmed());
}

TEST_F(HostEventsTest, DaemonNotificationsClearTheirCaches) {
  idle(0);
  {
    std::scoped_lock lock(plugin_->pluginLock());
    SANComputer::thisComputer().role();
  }
  sandbox_.write(kConfigPlist, configWithRole("CONTROLLER"));
  // The config watch would see this too, but only after its second: sanConfigChanged is at once.
  sandbox_.write("/var/run/velm/notify/com.orvane.velm.sanConfigChanged", "");
  EXPECT_TRUE(eventually([&] { return role() == "CONTROLLER"; }));
  EXPECT_TRUE(
      log_.contains("receiveSanConfigChangedNotification: received "
                    "com.orvane.velm.sanConfigChanged notification"));
  sandbox_.write("/var/run/velm/notify/com.orvane.velm.disksChanged", "");
  EXPECT_TRUE(eventually([&] {
    return log_.contains(
        "receiveDisksChangedNotification: received com.orvane.velm.disksChanged notification");
  }));
}

TEST_F(HostEventsTest, MountsOfSanVolumesKeepTheCacheAndOtherDisksClearIt) {
  idle(0);
  mountTable("90 1 0:90 / /Volumes/Projects rw - qufs Projects rw\n");
  EXPECT_TRUE(
      eventually([&] { return log_.contains("diskAppeared: Volume 'Projects' Appeared"); }));
  mountTable("90 1 0:90 / /Volumes/Projects ro - qufs Projects ro\n");
  EXPECT_TRUE(eventually([&] {
    return log_.contains("diskDescriptionChanged: Volume 'Projects' description changed");
  }));
  mountTable("");
  EXPECT_TRUE(
      eventually([&] { return log_.contains("diskDisappeared: Volume 'Projects' Disappeared"); }));
  EXPECT_FALSE(log_.contains("clearing cache"));
}

TEST_F(HostEventsTest, SourcesThatFailAloneLeaveTheOthersWorking) {
  // No /etc to watch, and no power service.
  std::filesystem::remove_all(sandbox_.path("/etc"));
  sandbox_.write("/etc", "not a directory");
  power_.reset();
  power_.emplace(false);
  idle(0);
  EXPECT_TRUE(log_.contains("ERROR: WARNING: DevRegisterForSystemPower failed!"));
  EXPECT_TRUE(
      log_.contains("ERROR: HostConfigPrefsManager.startNotifications: "
                    "HostConfigStoreKeyCreate(kRosterStdNotifySearchPolicyChanged) failed"));
  sandbox_.write(kConfigPlist, configWithRole("CLIENT"));
  ASSERT_TRUE(eventually([&] { return configTimerArmed(); }));
  advance(1'000'000);
  EXPECT_TRUE(eventually([&] { return role() == "CLIENT"; }));
}

TEST_F(HostEventsTest, ARoleChangeReplacesThePublicationAndLateEventsKeepTheNewOne) {
  idle(0);
  std::shared_ptr<FakeServiceAdvertiser> fake = advertisers_.last();
  std::uint64_t first = fake->live().at(0).id;
  std::string uuid = txtOf(fake->live().at(0).spec)["uuid"];
  EXPECT_TRUE(fake->fireWillPublish(first));
  EXPECT_TRUE(log_.contains("Net service will publish!"));

  sandbox_.write(kConfigPlist, configWithRole("CLIENT"));
  sandbox_.write("/var/run/velm/notify/com.orvane.velm.sanConfigChanged", "");
  ASSERT_TRUE(eventually([&] { return role() == "CLIENT"; }));
  {
    std::scoped_lock lock(plugin_->pluginLock());
    plugin_->advertiseZeroConfPresense();
  }
  // Posted to the event thread, which runs it once the lock is free.
  ASSERT_TRUE(eventually([&] { return fake->stops().size() == 1; }));
  EXPECT_EQ(fake->stops(), std::vector<std::uint64_t>{first});
  ASSERT_EQ(fake->live().size(), 1u);
  std::uint64_t second = fake->live()[0].id;
  EXPECT_EQ(fake->live()[0].spec.type, "_velm2client._tcp");
  EXPECT_EQ(txtOf(fake->live()[0].spec)["uuid"], uuid);

  // The old service's stop arrives late: the new one stays current, and is the one stopped next.
  fake->fireDidStop(first);
  EXPECT_TRUE(log_.contains("Net service did stop"));
  fake->fireDidNotPublish(first, kServiceNameCollision);
  EXPECT_TRUE(log_.contains("A name collision occurred. A service is already running"));
  {
    std::scoped_lock lock(plugin_->pluginLock());
    plugin_->advertiseZeroConfPresense();
  }
  ASSERT_TRUE(eventually([&] { return fake->stops().size() == 2; }));
  EXPECT_EQ(fake->stops(), (std::vector<std::uint64_t>{first, second}));
  fake->fireDidNotPublish(fake->live()[0].id, -65540, "bad");
  EXPECT_TRUE(log_.contains("Some unknown netservice error occurred (-65540) (bad)."));
}

// Each source drops exactly its keys: every key holds a mark, and the ones re-read lost it.
TEST_F(HostEventsTest, EachSourceDropsExactlyItsKeys) {
  idle(0);
  auto marked = [&] {
    std::scoped_lock lock(plugin_->pluginLock());
    for (CachedObject* o : {static_cast<CachedObject*>(&SANComputer::thisComputer()),
                            static_cast<CachedObject*>(&SANFilesystem::localFilesystem())}) {
      for (const PropertyList& key : o->validKeys())
        o->setObjectValue(PropertyList("mark"), *key.asString());
    }
  };
  auto dropped = [&] {
    std::scoped_lock lock(plugin_->pluginLock());
    std::set<std::string> keys;
    for (CachedObject* o : {static_cast<CachedObject*>(&SANComputer::thisComputer()),
                            static_cast<CachedObject*>(&SANFilesystem::localFilesystem())}) {
      for (const PropertyList& key : o->validKeys()) {
        const PropertyList* v = o->cachedValueForKey(*key.asString());
        if (!v || !v->asString() || *v->asString() != "mark") keys.insert(*key.asString());
      }
    }
    return keys;
  };
  using Keys = std::set<std::string>;

  marked();
  // Each file replaced whole, so one change is one event.
  writeFileAtomically(sandbox_.path("/etc/hostname"), "renamed\n");
  Keys network = {"networkInterfaces", "availableNetworkInterfaceNames", "multicastDNSName"};
  EXPECT_TRUE(eventually([&] { return dropped() == network; })) << dropped().size();

  marked();
  writeFileAtomically(sandbox_.path("/etc/nsswitch.conf"), "passwd: files\n");
  EXPECT_TRUE(eventually([&] { return dropped() == Keys{"searchPolicy"}; }));

  marked();
  writeFileAtomically(sandbox_.path("/Library/Filesystems/Velm/config/fsnameservers"),
                      "127.0.0.2\n");
  ASSERT_TRUE(eventually([&] { return configTimerArmed(); }));
  EXPECT_EQ(dropped(), Keys{});
  advance(1'000'000);
  Keys config = {"uuid",
                 "nameServers",
                 "role",
                 "sanName",
                 "authSecret",
                 "serverAssistantRole",
                 "serverAssistantDSType",
                 "volumes"};
  EXPECT_TRUE(eventually([&] { return dropped() == config; }));
}

TEST(NicsText, JoinsInterfacesAndKeepsTheSemicolonOfASkippedLastEntry) {
  auto nic = [](const char* name, const char* ip) {
    PropertyList n = PropertyList::dict();
    if (name) n.set("name", name);
    if (ip) n.set("ipAddress", ip);
    return n;
  };
  EXPECT_EQ(nicsText(PropertyList::array()), "");
  EXPECT_EQ(nicsText(PlistArray{nic("eth0", "10.0.0.1"), nic("eth1", "10.0.1.1")}),
            "eth0:10.0.0.1;eth1:10.0.1.1");
  EXPECT_EQ(nicsText(PlistArray{nic("eth0", "10.0.0.1"), nic("eth1", nullptr)}), "eth0:10.0.0.1;");
}

}  // namespace
}  // namespace velm
