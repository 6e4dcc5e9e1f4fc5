// The gateway against the stand-ins that play this machine's peers: velm-simd for velmd,
// velm-simpm for the port mapper, drlabel for the label tool.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "adminlib/fsmcomm.h"
#include "adminlib/qmadminlib.h"
#include "gateway/san_filesystem.h"
#include "gateway_test_helpers.h"
#include "platform/files.h"
#include "support/ports.h"
#include "support/sim_process.h"

namespace velm {
namespace {

class StandInsTest : public test::GatewayTest {
 protected:
  SANFilesystem& fs() { return SANFilesystem::localFilesystem(); }
  void startVelmd() {
    ASSERT_TRUE(velmd_.start("velm-simd", {"--root", sandbox_.root()}, "listening on"))
        << velmd_.stderrText();
  }
  test::SimProcess velmd_;
};

TEST_F(StandInsTest, MountsThroughVelmdShowInTheMountTable) {
  startVelmd();
  PropertyList options = PropertyList::dict();
  options.set("cachebufs", 64);
  EXPECT_EQ(fs().mountVolumeNamed("My Projects", false, &options), 0);
  std::string point = sandbox_.path("/Volumes/My Projects");
  EXPECT_EQ(fs().pathForVolume("My Projects"), point);
  EXPECT_EQ(fs().volumeMountState("My Projects"), 1);
  EXPECT_NE(sandbox_.read("/proc/self/mountinfo").find("My\\040Projects"), std::string::npos);

  EXPECT_EQ(fs().mountVolumeNamed("My Projects", true, nullptr), 0);
  EXPECT_EQ(fs().volumeMountState("My Projects"), 2);

  EXPECT_EQ(fs().unmountVolumeNamed("My Projects", true), 0);
  EXPECT_EQ(fs().pathForVolume("My Projects"), std::nullopt);
  EXPECT_EQ(fs().unmountVolumeNamed("My Projects", false), 100008);
  EXPECT_EQ(log_.count("ERROR: unmountVolumeNamed: unmount of 'My Projects' failed: 'My Projects' "
                       "is not mounted"),
            1u);
}

TEST_F(StandInsTest, ConfigChangesReachVelmdWhoseRepliesMayComeInPieces) {
  sandbox_.write(
      "/simd.plist",
      "<plist version=\"1.0\"><dict><key>commands</key><dict><key>sanConfigChanged</key>"
      "<dict><key>chunkSize</key><integer>5</integer><key>chunkDelayMs</key><integer>0</integer>"
      "<key>ending</key><string>newline-nul</string></dict></dict></dict></plist>\n");
  startVelmd();
  EXPECT_TRUE(fs().sanConfigChanged());
  EXPECT_TRUE(fs().disksChanged());
  EXPECT_TRUE(sandbox_.exists("/var/run/velm/notify/com.orvane.velm.sanConfigChanged"));
  EXPECT_TRUE(sandbox_.exists("/var/run/velm/notify/com.orvane.velm.disksChanged"));
  EXPECT_TRUE(fs().roleChanged());
}

TEST_F(StandInsTest, RunningVolumesAreThoseTheLocalPortMapperLists) {
  int port = test::freeLoopbackPort();
  sandbox_.write("/Library/Filesystems/Velm/config/fsports",
                 "altpmap " + std::to_string(port) + "\n");
  sandbox_.write(
      "/simpm.plist",
      "<plist version=\"1.0\"><dict><key>fsms</key><array>"
      "<dict><key>name</key><string>Archive</string><key>priority</key><integer>1</integer></dict>"
      "<dict><key>name</key><string>Projects</string><key>priority</key><integer>1</integer></dict>"
      "</array></dict></plist>\n");
  PmapGetportFunc old = PmapGetportHook;
  PmapGetportHook = [](const struct sockaddr_in*, unsigned long, unsigned long,
                       unsigned int) -> unsigned short { return 0; };
  AltGetportResetForTest();
  // The plugin's first connection readies the library; this test starts after that.
  QMAdmin_Init();
  test::SimProcess pm;
  ASSERT_TRUE(pm.start("velm-simpm", {"--root", sandbox_.root()}, "listening on"))
      << pm.stderrText();
  EXPECT_TRUE(fs().isRunningVolumeNamed("Projects"));
  EXPECT_EQ(log_.count("isRunningVolumeNamed: found it!"), 1u);
  EXPECT_FALSE(fs().isRunningVolumeNamed("projects"));
  EXPECT_EQ(pm.stop(), 0);
  QMAdmin_Teardown();
  QMAdmin_Init();
  AltGetportResetForTest();
  PmapGetportHook = old;
}

TEST_F(StandInsTest, LabelToolStandInFeedsTheVisibleLUNs) {
  test::installSimTools(sandbox_);
  sandbox_.write("/sim/luns.plist",
                 "<plist version=\"1.0\"><dict>"
                 "<key>sdb</key><dict><key>Label</key><string>ProjMeta</string><key>LabelType</key>"
                 "<string>QMFS-EFI</string></dict>"
                 "<key>sdc</key><dict><key>LabelType</key><string>MBR</string></dict>"
                 "</dict></plist>\n");
  PropertyList luns = fs().visibleLUNs();
  ASSERT_EQ(luns.size(), 1u);
  EXPECT_EQ(*luns.get("sdb")->getString("Label"), "ProjMeta");
  EXPECT_EQ(sandbox_.read("/sim/tools/drlabel.calls"), "-x\n");
}

}  // namespace
}  // namespace velm
