// The host watches on real files and a real inotify, turned by hand on the event loop, with the
// coalescing timer on a fake clock.
#include "platform/host_watches.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "platform/clock.h"
#include "platform/files.h"
#include "platform/paths.h"
#include "support/sandbox.h"

namespace velm {
namespace {

class HostWatchesTest : public test::SandboxTest {
 protected:
  void SetUp() override {
    ::setenv("VELM_PROCFS", sandbox_.path("/proc").c_str(), 1);
    resetPathsForTest();
  }
  void TearDown() override {
    ::unsetenv("VELM_PROCFS");
    resetPathsForTest();
  }
  // Turns the loop until nothing is ready.
  void settle() {
    for (int i = 0; i < 5; ++i) loop_.runOnce(20'000);
  }
  void advance(std::uint64_t micros) { clock_->advanceMicros(micros); }

  ScopedFakeClock clock_;
  EventLoop loop_;
};

TEST_F(HostWatchesTest, InotifyWatchReportsOnlyTheNamesAsked) {
  std::vector<std::string> seen;
  InotifyWatch watch;
  ASSERT_TRUE(watch.start(loop_, [&](const std::vector<std::string>& names) {
    seen.insert(seen.end(), names.begin(), names.end());
  }));
  ASSERT_TRUE(watch.watchDirectory(sandbox_.path("/notify"), {"wanted"}, true));
  sandbox_.write("/notify/other", "x");
  settle();
  EXPECT_TRUE(seen.empty());
  sandbox_.write("/notify/wanted", "x");
  settle();
  ASSERT_FALSE(seen.empty());
  EXPECT_EQ(seen.front(), "wanted");
  // A directory that can't be watched fails alone.
  EXPECT_FALSE(watch.watchDirectory(sandbox_.path("/missing"), {}));
}

TEST_F(HostWatchesTest, ABurstOfConfigChangesGivesOneCallbackAfterTheLatency) {
  sandbox_.write("/Library/Filesystems/Velm/config/fsmlist", "");
  int calls = 0;
  ConfigTreeWatch watch;
  ASSERT_TRUE(watch.start(loop_, [&] { ++calls; }));
  for (int i = 0; i < 20; ++i)
    sandbox_.write("/Library/Filesystems/Velm/config/V" + std::to_string(i) + ".cfg", "x");
  std::filesystem::create_directories(sandbox_.path("/Library/Filesystems/Velm/config/sub"));
  settle();
  EXPECT_EQ(calls, 0);
  advance(999'999);
  settle();
  EXPECT_EQ(calls, 0);
  advance(1);
  settle();
  EXPECT_EQ(calls, 1);

  // The new subdirectory is watched too; other preferences files are not the controller's.
  sandbox_.write("/Library/Filesystems/Velm/config/sub/deep.plist", "x");
  settle();
  advance(1'000'000);
  settle();
  EXPECT_EQ(calls, 2);
  sandbox_.write("/Library/Preferences/com.example.other.plist", "x");
  settle();
  advance(1'000'000);
  settle();
  EXPECT_EQ(calls, 2);
  sandbox_.write("/Library/Preferences/com.orvane.velm.controller.plist", "x");
  settle();
  advance(1'000'000);
  settle();
  EXPECT_EQ(calls, 3);
}

TEST_F(HostWatchesTest, AConfigDirectoryMadeLaterIsWatchedFromThen) {
  int calls = 0;
  ConfigTreeWatch watch;
  ASSERT_TRUE(watch.start(loop_, [&] { ++calls; }));
  sandbox_.write("/Library/Filesystems/Velm/config/V.cfg", "x");
  settle();
  advance(1'000'000);
  settle();
  EXPECT_EQ(calls, 1);
  sandbox_.write("/Library/Filesystems/Velm/config/W.cfg", "x");
  settle();
  advance(1'000'000);
  settle();
  EXPECT_EQ(calls, 2);
}

TEST_F(HostWatchesTest, MountsComeChangeAndGo) {
  std::string mountinfo = "/proc/self/mountinfo";
  sandbox_.write(mountinfo, "");
  std::vector<std::string> events;
  DiskEventWatch::Callbacks callbacks;
  callbacks.appeared = [&](const PropertyList& d) {
    events.push_back("appeared " + *d.getString("VolumeName"));
  };
  callbacks.disappeared = [&](const PropertyList& d) {
    events.push_back("disappeared " + *d.getString("VolumeName"));
  };
  callbacks.changed = [&](const PropertyList& d, const std::vector<std::string>& keys) {
    std::string k;
    for (const std::string& key : keys) k += " " + key;
    events.push_back("changed " + *d.getString("VolumeName") + k);
  };
  DiskEventWatch watch;
  ASSERT_TRUE(watch.start(loop_, callbacks));
  writeFileAtomically(sandbox_.path(mountinfo),
                      "90 1 0:90 / /Volumes/Projects rw - qufs Projects rw\n");
  settle();
  writeFileAtomically(sandbox_.path(mountinfo),
                      "90 1 0:90 / /Volumes/Projects ro - qufs Projects ro\n");
  settle();
  writeFileAtomically(sandbox_.path(mountinfo), "");
  settle();
  EXPECT_EQ(events,
            (std::vector<std::string>{"appeared Projects", "changed Projects VolumeWritable",
                                      "disappeared Projects"}));
}

TEST_F(HostWatchesTest, NameFilesAndAddressChangesAreNetworkChanges) {
  std::filesystem::create_directories(sandbox_.path("/etc"));
  int calls = 0;
  NetworkChangeWatch watch;
  ASSERT_TRUE(watch.start(loop_, [&] { ++calls; }));
  sandbox_.write("/etc/hostname", "renamed\n");
  settle();
  EXPECT_GE(calls, 1);

  // A real address change, where this machine lets the test make one.
  if (::geteuid() != 0 || std::system("ip -4 addr add 127.45.67.89/32 dev lo 2>/dev/null") != 0)
    GTEST_SKIP() << "no address can be added here (needs root and ip); the name files were checked";
  int before = calls;
  settle();
  std::system("ip -4 addr del 127.45.67.89/32 dev lo 2>/dev/null");
  settle();
  EXPECT_GT(calls, before);
}

}  // namespace
}  // namespace velm
