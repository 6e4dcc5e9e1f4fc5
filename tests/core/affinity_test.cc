// getAffinity and setAffinity on real files under a SAN volume mounted in the sandbox's mount
// table, with a fake driver that keeps each file's key.
#include <gtest/gtest.h>

#include <cstdlib>

#include "core/san_computer.h"
#include "core/velm_plugin.h"
#include "gateway/san_filesystem.h"
#include "platform/fake_fs_driver.h"
#include "platform/paths.h"
#include "support/log_capture.h"
#include "support/plugin_command.h"
#include "support/sandbox.h"

namespace velm {
namespace {

class AffinityTest : public test::SandboxTest {
 protected:
  void SetUp() override {
    ::setenv("VELM_PROCFS", sandbox_.path("/proc").c_str(), 1);
    resetPathsForTest();
    SANFilesystem::resetForTest();
    sandbox_.write("/Volumes/Projects/clip.mov", "frames");
    sandbox_.write("/Volumes/Projects/other/elsewhere.txt", "x");
    sandbox_.write("/outside.txt", "x");
    mount("rw");
  }
  void TearDown() override {
    SANFilesystem::resetForTest();
    ::unsetenv("VELM_PROCFS");
    resetPathsForTest();
  }
  // Projects mounted (rw or ro), with a foreign file system mounted inside it.
  void mount(const char* access) {
    std::string root = sandbox_.path("/Volumes/Projects");
    sandbox_.write("/proc/self/mountinfo",
                   "90 1 0:90 / " + root + " " + access + " - qufs Projects " + access + "\n" +
                       "91 90 8:1 / " + root + "/other rw - ext4 /dev/sdb1 rw\n");
    SANFilesystem::localFilesystem().clearCache();
  }
  PropertyList run(const char* command, test::CommandKeys keys) {
    return test::runCommand(plugin_, context_, command, std::move(keys));
  }
  PropertyList set(const char* path, std::optional<const char*> affinity) {
    std::vector<std::pair<std::string, PropertyList>> keys = {{"volume", PropertyList("Projects")},
                                                              {"path", PropertyList(path)}};
    if (affinity) keys.emplace_back("affinity", PropertyList(*affinity));
    return run("setAffinity", keys);
  }
  PropertyList get(const char* path, const char* volume = "Projects") {
    return run("getAffinity", {{"volume", PropertyList(volume)}, {"path", PropertyList(path)}});
  }
  static std::string error(const PropertyList& r) {
    const std::string* e = r.getString("error");
    return e ? *e : "(none)";
  }

  test::LogCapture log_;
  FakeFsDriver driver_;
  VelmPlugin plugin_;
  PropertyList context_ = PropertyList::dict();
};

TEST_F(AffinityTest, EightCharactersGoInAndComeBackWithoutATrailingByte) {
  EXPECT_EQ(*get("clip.mov").getString("affinity"), "");
  PropertyList r = set("clip.mov", "Archive8");
  EXPECT_EQ(error(r), "(none)");
  EXPECT_EQ(*r.getString("affinity"), "Archive8");
  PropertyList back = get("clip.mov");
  EXPECT_EQ(*back.getString("affinity"), "Archive8");
  EXPECT_EQ(*back.getString("volume"), "Projects");
  EXPECT_EQ(*back.getString("path"), "clip.mov");
  // Nine characters don't fit a key: the conversion fails inside.
  EXPECT_EQ(error(set("clip.mov", "Archive89")), "Error setting affinity");
  EXPECT_TRUE(log_.contains("setAffinity: Unable to convert 'Archive89' to an affinity key"));
  EXPECT_EQ(SANFilesystem::stringForAffinityKey(SANFilesystem::affinityKeyForString("Cold")),
            "Cold");
  EXPECT_EQ(SANFilesystem::affinityKeyForString("caf\xc3\xa9"), ~std::uint64_t{0});
}

TEST_F(AffinityTest, EachRefusalHasItsOwnWords) {
  EXPECT_EQ(error(run("getAffinity", {})), "volume required but missing");
  EXPECT_EQ(error(get("clip.mov", "Nowhere")), "volume not mounted");
  EXPECT_EQ(error(run("getAffinity", {{"volume", PropertyList("Projects")}})),
            "path required but missing");
  EXPECT_EQ(error(get("missing.mov")), "File not found");
  // The affinity missing reads as a missing path.
  EXPECT_EQ(error(set("clip.mov", std::nullopt)), "path required but missing");
  // A file on another file system mounted inside the volume.
  EXPECT_EQ(error(get("other/elsewhere.txt")), "Error reading affinity");
  EXPECT_TRUE(log_.contains("does not reside on an Velm volume"));
  // A driver that fails.
  driver_.failFileRequestsWith(EIO);
  EXPECT_EQ(error(get("clip.mov")), "Error reading affinity");
  EXPECT_TRUE(log_.contains("ERROR: affinityForFileAtPath: F_GETAFFINITY on"));
}

TEST_F(AffinityTest, AReadOnlyVolumeRefusesBeforeLookingAtThePath) {
  mount("ro");
  EXPECT_EQ(error(run("setAffinity", {{"volume", PropertyList("Projects")}})),
            "volume is mounted read-only");
  EXPECT_EQ(*get("clip.mov").getString("affinity"), "");
}

TEST_F(AffinityTest, APathThatLeavesTheVolumeIsRefused) {
  for (const char* path : {"../../outside.txt", "/etc/passwd", "a/../../outside.txt"}) {
    SCOPED_TRACE(path);
    EXPECT_EQ(error(get(path)), "File not found");
    EXPECT_EQ(error(set(path, "Cold")), "File not found");
  }
  EXPECT_TRUE(log_.contains("ERROR: getAffinity: refusing the path"));
  EXPECT_TRUE(driver_.calls().empty());
}

}  // namespace
}  // namespace velm
