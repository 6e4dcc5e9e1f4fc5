#include "gateway/san_filesystem.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <future>
#include <thread>

#include "adminlib/fsmcomm.h"
#include "config/config_test_util.h"
#include "gateway/qmadmin.h"
#include "gateway_test_helpers.h"
#include "platform/fake_fs_driver.h"
#include "platform/volume_events.h"

namespace velm {
namespace {

constexpr std::string_view kLabelOutput = R"(<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><dict>
  <key>sdb</key><dict><key>Label</key><string>ProjMeta</string><key>LabelType</key><string>QMFS-EFI</string>
    <key>connectionType</key><string>Fibre Channel Interface</string><key>serialNumber</key><string>600A0B8</string></dict>
  <key>sdc</key><dict><key>Label</key><string>Old</string><key>LabelType</key><string>QMFS-VTOC</string></dict>
  <key>sdd</key><dict><key>serialNumber</key><string>unlabelled</string></dict>
  <key>sde</key><dict><key>LabelType</key><string>qmfs-efi</string></dict>
  <key>sdf</key><dict><key>LabelType</key><string>GPT</string></dict>
  <key>sdg</key><string>not a record</string>
</dict></plist>
)";

class SANFilesystemTest : public test::GatewayTest {
 protected:
  SANFilesystem& fs() { return SANFilesystem::localFilesystem(); }
  void mountLine(const std::string& volume, const std::string& escapedPoint,
                 const char* options = "rw,relatime") {
    mountInfo_ +=
        "1001 23 0:77 / " + escapedPoint + " " + options + " shared:9 - qufs " + volume + " rw\n";
    writeMountInfo(mountInfo_);
  }
  std::string mountInfo_ = "22 1 8:1 / / rw,relatime shared:1 - ext4 /dev/sda1 rw\n";
};

TEST(LabelOutput, KeepsOnlyTheFileSystemsLabelTypesOrNone) {
  PropertyList luns = visibleLUNsFromLabelOutput(kLabelOutput);
  ASSERT_TRUE(luns.isDict());
  EXPECT_EQ(luns.size(), 3u);
  EXPECT_TRUE(luns.get("sdb"));
  EXPECT_TRUE(luns.get("sdc"));
  EXPECT_TRUE(luns.get("sdd"));
  // The records pass as they are.
  EXPECT_EQ(*luns.get("sdb")->getString("serialNumber"), "600A0B8");
  EXPECT_EQ(visibleLUNsFromLabelOutput("not xml"), PropertyList::dict());
  EXPECT_EQ(visibleLUNsFromLabelOutput("<plist version=\"1.0\"><array/></plist>"),
            PropertyList::dict());
}

TEST_F(SANFilesystemTest, VisibleLUNsComeFromTheLabelToolAndAreCached) {
  sandbox_.write("/lun-output.plist", kLabelOutput);
  writeTool("drlabel", "echo \"$@\" >> " + sandbox_.path("/drlabel.calls") + "\ncat " +
                           sandbox_.path("/lun-output.plist") + "\n");
  EXPECT_EQ(fs().visibleLUNs().size(), 3u);
  EXPECT_EQ(fs().visibleLUNs().size(), 3u);
  EXPECT_EQ(sandbox_.read("/drlabel.calls"), "-x\n");
  fs().clearCache();
  EXPECT_EQ(fs().visibleLUNs().size(), 3u);
  EXPECT_EQ(sandbox_.read("/drlabel.calls"), "-x\n-x\n");
}

TEST_F(SANFilesystemTest, FailingOrSilentLabelToolGivesAnEmptyCachedDictionary) {
  writeTool("drlabel", "echo oops >&2\nexit 3\n");
  EXPECT_EQ(fs().visibleLUNs(), PropertyList::dict());
  EXPECT_EQ(log_.count("ERROR: readVisibleLUNs: launch_task failed with error 3"), 1u);
  // The empty answer is a value: it stays until the cache is dropped.
  writeTool("drlabel", "exit 0\n");
  EXPECT_EQ(fs().visibleLUNs(), PropertyList::dict());
  EXPECT_EQ(log_.count("ERROR: readVisibleLUNs: launch_task failed with error 3"), 1u);
  fs().clearCache();
  EXPECT_EQ(fs().visibleLUNs(), PropertyList::dict());
  std::string tool = sandbox_.path("/Library/Filesystems/Velm/bin/drlabel");
  EXPECT_EQ(log_.count("ERROR: readVisibleLUNs: No output from " + tool), 1u);
}

TEST_F(SANFilesystemTest, UnparsableConfigIsLeftOutButStillExists) {
  sandbox_.write("/Library/Filesystems/Velm/config/Good.cfg", test::kRealisticConfig);
  sandbox_.write("/Library/Filesystems/Velm/config/bad.cfg", "[StripeGroup \"x\"\nNode\n");
  sandbox_.write("/Library/Filesystems/Velm/config/notes.cfg.txt", "x");
  PropertyList volumes = fs().volumes();
  ASSERT_EQ(volumes.size(), 1u);
  EXPECT_EQ(*(*volumes.asArray())[0].getString("Name"), "Good");
  EXPECT_TRUE(fs().volumeNamed("Good"));
  EXPECT_FALSE(fs().volumeNamed("bad"));
  EXPECT_TRUE(fs().doesExistVolumeNamed("bad"));
  EXPECT_TRUE(fs().doesExistVolumeNamed("Good"));
  EXPECT_FALSE(fs().doesExistVolumeNamed("good"));
  EXPECT_FALSE(fs().doesExistVolumeNamed("notes"));
  EXPECT_FALSE(fs().doesExistVolumeNamed("../config/Good"));
}

TEST_F(SANFilesystemTest, MountPointsComeFromTheMountTableUnescaped) {
  std::string point = sandbox_.path("/Volumes/My Projects");
  std::string escaped = sandbox_.path("/Volumes/My\\040Projects");
  std::filesystem::create_directories(point);
  mountLine("Projects", escaped);
  EXPECT_EQ(fs().pathForVolume("Projects"), point);
  EXPECT_EQ(fs().volumeMountState("Projects"), 2);
  EXPECT_EQ(fs().pathForVolume("Other"), std::nullopt);
  EXPECT_EQ(fs().volumeMountState("Other"), 0);
  EXPECT_EQ(log_.count("volumeMountState: 'Other' is not mounted"), 1u);
  EXPECT_TRUE(log_.contains("updateDiskDescriptionTable: got volume 'Projects': "));
}

TEST_F(SANFilesystemTest, ReadOnlyMountAndVanishedMountPoint) {
  std::filesystem::create_directories(sandbox_.path("/Volumes/Archive"));
  mountLine("Archive", sandbox_.path("/Volumes/Archive"), "ro,relatime");
  mountLine("Gone", sandbox_.path("/Volumes/Gone"));
  EXPECT_EQ(fs().volumeMountState("Archive"), 1);
  EXPECT_EQ(fs().volumeMountState("Gone"), 0);
  EXPECT_TRUE(log_.contains("volumeMountState: statfs('" + sandbox_.path("/Volumes/Gone") +
                            "') returned errno 2"));
}

TEST_F(SANFilesystemTest, DescriptionWithoutAFileURLHasNoPath) {
  class OneDisk : public VolumeEventService {
   public:
    std::vector<PropertyList> presentDisks() override {
      PropertyList d = PropertyList::dict();
      d.set("VolumeName", "Web");
      d.set("VolumeKind", "qufs");
      d.set("VolumePath", "http://example.invalid/Web/");
      PropertyList other = PropertyList::dict();
      other.set("VolumeName", "Web2");
      other.set("VolumeKind", "ext4");
      other.set("VolumePath", "file:///mnt/");
      return {d, other};
    }
  } service;
  setVolumeEventServiceForTest(&service);
  EXPECT_EQ(fs().pathForVolume("Web"), std::nullopt);
  EXPECT_EQ(fs().pathForVolume("Web2"), std::nullopt);
  setVolumeEventServiceForTest(nullptr);
}

TEST_F(SANFilesystemTest, LumexSearchLevelAsksTheDriverOfAnEnabledMountedVolume) {
  sandbox_.write("/Library/Filesystems/Velm/config/Good.cfg", test::kRealisticConfig);
  FakeFsDriver driver;
  std::uint32_t answerLength = 8;
  driver.setHandler([&](const std::string&, unsigned long request, void* arg) {
    auto* r = static_cast<LumexRpcRecord*>(arg);
    const auto* cmd = reinterpret_cast<const unsigned char*>(r->commandAddress);
    unsigned char expected[20] = {};
    expected[11] = 5;
    EXPECT_EQ(request, 0xC0205800ul);
    EXPECT_EQ(r->commandLength, 20u);
    EXPECT_EQ(std::memcmp(cmd, expected, 20), 0);
    EXPECT_EQ(r->maxReplyLength, 8u);
    unsigned char reply[8] = {0, 0, 0, 0, 0, 0, 0x01, 0x02};
    std::memcpy(reinterpret_cast<void*>(r->replyAddress), reply, 8);
    r->replyLength = answerLength;
    return 0;
  });
  // Not mounted: status 2, silently.
  EXPECT_EQ(fs().lumexSearchLevelForVolume("Good"), -1);
  EXPECT_TRUE(driver.calls().empty());
  EXPECT_FALSE(log_.contains("doLumexRpcForVolume failed"));

  std::filesystem::create_directories(sandbox_.path("/Volumes/Good"));
  mountLine("Good", sandbox_.path("/Volumes/Good"));
  EXPECT_EQ(fs().lumexSearchLevelForVolume("Good"), 0x102);
  ASSERT_EQ(driver.calls().size(), 1u);
  EXPECT_EQ(driver.calls()[0].path, sandbox_.path("/Volumes/Good"));

  answerLength = 4;
  EXPECT_EQ(fs().lumexSearchLevelForVolume("Good"), -1);
  EXPECT_EQ(log_.count("ERROR: lumexSearchLevelForVolume: 'Good': expected reply size 8, got 4"),
            1u);

  driver.setHandler([](const std::string&, unsigned long, void*) { return ENOTTY; });
  EXPECT_EQ(fs().lumexSearchLevelForVolume("Good"), -1);
  EXPECT_EQ(log_.count("ERROR: doLumexRpcForVolume: 'Good': VELMFS_FSCTL_LumexRPC failed (25)"),
            1u);
  EXPECT_EQ(
      log_.count("ERROR: lumexSearchLevelForVolume: 'Good': -doLumexRpcForVolume failed (25)"), 1u);
  driver.setHandler([](const std::string&, unsigned long, void*) { return EAGAIN; });
  EXPECT_EQ(fs().lumexSearchLevelForVolume("Good"), -1);
  EXPECT_FALSE(log_.contains("-doLumexRpcForVolume failed (11)"));
  // A volume without the feature is never asked.
  EXPECT_EQ(fs().lumexSearchLevelForVolume("Missing"), 0);
}

TEST_F(SANFilesystemTest, RunningVolumeWithoutAPortMapperIsFalseAndReleasesTheLock) {
  PmapGetportFunc old = PmapGetportHook;
  PmapGetportHook = [](const struct sockaddr_in*, unsigned long, unsigned long,
                       unsigned int) -> unsigned short { return 0; };
  sandbox_.write("/Library/Filesystems/Velm/config/fsports", "altpmap 1\n");
  EXPECT_FALSE(fs().isRunningVolumeNamed("Projects"));
  PmapGetportHook = old;
  EXPECT_TRUE(log_.contains("ERROR: isRunningVolumeNamed: Unable to connect to local FSMPM ("));
  // Another thread can take the lock at once.
  auto taken = std::async(std::launch::async, [] {
    QMAdminLock lock("test");
    return true;
  });
  ASSERT_EQ(taken.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_TRUE(taken.get());
}

TEST_F(SANFilesystemTest, FsmpmIsFoundByNameInTheProcessTable) {
  EXPECT_FALSE(fs().isFsmpmRunning());
  std::string pid = std::to_string(::getpid());
  sandbox_.write("/proc/" + pid + "/cmdline", std::string("/usr/sbin/fsmpm\0-f\0", 19));
  sandbox_.write("/proc/" + pid + "/stat", pid + " (fsmpm) S 1 1 1");
  EXPECT_TRUE(fs().isFsmpmRunning());
  sandbox_.write("/proc/" + pid + "/stat", pid + " (fsmpm) Z 1 1 1");
  EXPECT_FALSE(fs().isFsmpmRunning());
}

TEST_F(SANFilesystemTest, PrimaryControllerTestComparesTheRecordsHostWithThisMachine) {
  ::setenv("VELM_HOST_ADDRESSES", "127.0.0.2", 1);
  auto record = [](const char* host) {
    PropertyList stats = PropertyList::dict();
    if (host) stats.set("Host", host);
    PropertyList r = PropertyList::dict();
    r.set("VolumeStats", stats);
    return r;
  };
  EXPECT_TRUE(fs().areWePrimaryControllerWithDict(record("127.0.0.2")));
  EXPECT_FALSE(fs().areWePrimaryControllerWithDict(record("127.0.0.3")));
  EXPECT_FALSE(fs().areWePrimaryControllerWithDict(record(nullptr)));
  EXPECT_FALSE(fs().areWePrimaryControllerWithDict(record("no-such-host.invalid")));
  ::unsetenv("VELM_HOST_ADDRESSES");
}

}  // namespace
}  // namespace velm
