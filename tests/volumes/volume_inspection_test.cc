#include <gtest/gtest.h>
#include <signal.h>

#include "config/config_test_util.h"
#include "controller_helpers.h"
#include "core/velm_plugin.h"
#include "support/sim_process.h"

namespace velm {
namespace {

using test::fsmEntry;

class VolumeCommandsTest : public test::ControllerTest {
 protected:
  PropertyList mount(long long show, bool forget = false) {
    return run("mountVolume", {{"name", PropertyList("Projects")},
                               {"showVolume", PropertyList(show)},
                               {"forgetVolume", PropertyList(forget)}});
  }
  long long number(const PropertyList& r, const char* key) {
    return r.get(key)->int64Value().value_or(-99);
  }
};

TEST_F(VolumeCommandsTest, MountVolumeGoesThroughVelmd) {
  test::SimProcess velmd;
  ASSERT_TRUE(velmd.start("velm-simd", {"--root", sandbox_.root()}, "listening on"))
      << velmd.stderrText();
  PropertyList rw = mount(2);
  EXPECT_EQ(number(rw, "access"), 2);
  EXPECT_EQ(number(rw, "errorCode"), 0);
  EXPECT_EQ(*rw.getString("name"), "Projects");
  EXPECT_TRUE(rw.getString("computerUUID"));

  // Read-only over read-write: unmounted first, then mounted again.
  PropertyList ro = mount(1);
  EXPECT_EQ(number(ro, "access"), 1);
  std::string log = velmd.stderrText();
  size_t unmount = log.find("unmount volume=Projects -> ok");
  ASSERT_NE(unmount, std::string::npos) << log;
  EXPECT_NE(log.find("mount volume=Projects -> ok", unmount + 1), std::string::npos) << log;

  // Nothing to do: velmd isn't asked.
  size_t before = velmd.stderrText().size();
  EXPECT_EQ(number(mount(1), "access"), 1);
  EXPECT_EQ(velmd.stderrText().size(), before);

  EXPECT_EQ(number(mount(0), "access"), 0);
  // Forgetting an unmounted volume still tells velmd.
  PropertyList forgotten = mount(0, true);
  EXPECT_EQ(number(forgotten, "errorCode"), 100008);
  EXPECT_TRUE(velmd.waitForText("unmount volume=Projects -> error: 'Projects' is not mounted"));

  // No name, or a state past read-write: no answer at all (the timing keys only).
  EXPECT_EQ(mount(3).size(), 2u);
  EXPECT_EQ(run("mountVolume", {{"showVolume", PropertyList(1)}}).size(), 2u);
  EXPECT_EQ(
      number(run("mountVolume", {{"name", PropertyList("../x")}, {"showVolume", PropertyList(2)}}),
             "errorCode"),
      100007);
}

TEST_F(VolumeCommandsTest, MountOptionsAndLogPaths) {
  sandbox_.write(
      "/Library/Filesystems/Velm/config/automount.plist",
      "<plist version=\"1.0\"><dict><key>Projects</key><dict><key>MountOptions</key><dict>"
      "<key>cachebufs</key><integer>64</integer></dict></dict></dict></plist>\n");
  PropertyList options = run("getMountOptions", {{"name", PropertyList("Projects")}});
  EXPECT_EQ(options.get("MountOptions")->get("cachebufs")->int64Value(), 64);
  EXPECT_EQ(run("getMountOptions", {{"name", PropertyList("Other")}}).get("MountOptions")->size(),
            0u);
  EXPECT_EQ(run("getMountOptions").size(), 2u);
  EXPECT_TRUE(log_.contains("ERROR: No name passed to getMountOptions"));

  // A client has only the two fixed paths.
  PropertyList client = run("getLogPaths");
  EXPECT_EQ(client.size(), 4u);
  EXPECT_EQ(*client.getString("fsmpmDebugLog"),
            sandbox_.path("/Library/Filesystems/Velm/debug/nssdbg.out"));

  sandbox_.write(
      "/Library/Filesystems/Velm/config/config.plist",
      "<plist version=\"1.0\"><dict><key>role</key><string>CONTROLLER</string></dict></plist>\n");
  sandbox_.write("/Library/Filesystems/Velm/config/Projects.cfg", test::kRealisticConfig);
  sandbox_.write("/Library/Filesystems/Velm/data/Projects/log/drlog", "log\n");
  run("getComputerProperties", {{"clearCache", PropertyList(true)}});
  PropertyList controller = run("getLogPaths");
  const std::string* volumeLog = controller.getString("volumeLog:Projects");
  ASSERT_TRUE(volumeLog) << describe(controller);
  EXPECT_EQ(*volumeLog, sandbox_.path("/Library/Filesystems/Velm/data/Projects/log/drlog"));
}

TEST_F(VolumeCommandsTest, APortMapperThatDiesLeavesThePluginServing) {
  ASSERT_TRUE(startSan(fsmEntry("Projects", true), fsmEntry("Projects", false)));
  EXPECT_EQ(*run("getVolumeState", {{"name", PropertyList("Projects")}}).getString("state"),
            "RUNNING");
  ::kill(portMapper('A').pid(), SIGKILL);
  PropertyList after = run("getVolumeState", {{"name", PropertyList("Projects")},
                                              {"variant", PropertyList("withDetails")}});
  EXPECT_EQ(*after.getString("state"), "STOPPED");
  PropertyList mounts = run("getMounts", {{"name", PropertyList("Projects")}});
  EXPECT_EQ(mounts.get("mounts")->size(), 0u);
  EXPECT_EQ(*run("getState").getString("state"), "RUNNING");
  // The killed stand-in ends with its signal.
  EXPECT_EQ(portMapper('A').stop(), 128 + SIGKILL);
}

}  // namespace
}  // namespace velm
