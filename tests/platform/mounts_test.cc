#include "platform/mounts.h"

#include <gtest/gtest.h>

#include "platform/entry_name.h"

namespace velm {
namespace {

TEST(MountInfo, ReadsFieldsAroundOptionalTagsAndUnescapesPaths) {
  std::vector<MountEntry> m = parseMountInfo(
      "36 35 98:0 /mnt1 /mnt/My\\040Vol\\011x rw,noatime master:1 shared:2 - qufs /dev/Vol\\134a "
      "rw,x=1\n"
      "37 35 98:1 / /ro ro - ext4 /dev/sdb rw\n");
  ASSERT_EQ(m.size(), 2u);
  EXPECT_EQ(m[0].mountId, 36);
  EXPECT_EQ(m[0].parentId, 35);
  EXPECT_EQ(m[0].majorMinor, "98:0");
  EXPECT_EQ(m[0].root, "/mnt1");
  EXPECT_EQ(m[0].mountPoint, "/mnt/My Vol\tx");
  EXPECT_EQ(m[0].fsType, "qufs");
  EXPECT_EQ(m[0].source, "/dev/Vol\\a");
  EXPECT_EQ(m[0].superOptions, "rw,x=1");
  EXPECT_FALSE(m[0].readOnly());
  EXPECT_TRUE(m[1].readOnly());
}

TEST(MountInfo, SkipsMalformedLinesAndKeepsTheRest) {
  std::vector<MountEntry> m = parseMountInfo(
      "\n"
      "x 35 98:0 / /a rw - ext4 src rw\n"          // id not a number
      "36 35 98:0 / /b rw shared:1 ext4 src rw\n"  // no separator
      "36 35 98:0 / /c rw -\n"                     // nothing after it
      "40 35 98:0 / /d rw - ext4 src\n"            // no super options: still a mount
      "41 1 0:1 / /e\\0 rw - tmpfs t rw");         // a broken escape stays as it is
  ASSERT_EQ(m.size(), 2u);
  EXPECT_EQ(m[0].mountPoint, "/d");
  EXPECT_EQ(m[1].mountPoint, "/e\\0");
}

TEST(MountInfo, EscapingRoundTripsAndTheLongestMountPointContainsAPath) {
  std::string odd = "a b\tc\nd\\e";
  EXPECT_EQ(escapeMountField(odd), "a\\040b\\011c\\012d\\134e");
  EXPECT_EQ(unescapeMountField(escapeMountField(odd)), odd);
  std::vector<MountEntry> m = parseMountInfo(
      "1 0 0:1 / / rw - ext4 a rw\n2 1 0:2 / /Volumes rw - ext4 b rw\n3 2 0:3 / /Volumes/P rw - "
      "qufs P rw\n");
  EXPECT_EQ(mountContaining(m, "/Volumes/P/dir/file")->mountId, 3);
  EXPECT_EQ(mountContaining(m, "/Volumes/P")->mountId, 3);
  EXPECT_EQ(mountContaining(m, "/Volumes/Px")->mountId, 2);
  EXPECT_EQ(mountContaining(m, "/etc")->mountId, 1);
}

TEST(FileURL, PathsRoundTripAndOtherSchemesAreRefused) {
  EXPECT_EQ(fileURLForPath("/Volumes/My Projects"), "file:///Volumes/My%20Projects/");
  EXPECT_EQ(pathFromFileURL("file:///Volumes/My%20Projects/"), "/Volumes/My Projects");
  EXPECT_EQ(pathFromFileURL("file://localhost/x/"), "/x");
  EXPECT_EQ(pathFromFileURL("file:///"), "/");
  for (const char* bad : {"http://h/x", "/plain/path", "file://", "file://host/x", "file:///a%2",
                          "file:///a%zz", "file:///a%00b"}) {
    EXPECT_EQ(pathFromFileURL(bad), std::nullopt) << bad;
  }
}

TEST(EntryName, RefusesWhatWouldLeaveTheDirectory) {
  for (std::string ok : {"Projects", "My Vol", ".hidden", "a..b"})
    EXPECT_TRUE(isSafeEntryName(ok)) << ok;
  for (std::string bad : {std::string(), std::string("."), std::string(".."), std::string("a/b"),
                          std::string("/a"), std::string("a\0b", 3)}) {
    EXPECT_FALSE(isSafeEntryName(bad)) << bad;
  }
  for (std::string ok : {"a", "a/b/c", "./a", "a..b/c"}) EXPECT_TRUE(isSafeRelativePath(ok)) << ok;
  for (std::string bad : {std::string(), std::string("/a"), std::string(".."),
                          std::string("a/../b"), std::string("a/.."), std::string("a\0", 2)}) {
    EXPECT_FALSE(isSafeRelativePath(bad)) << bad;
  }
}

}  // namespace
}  // namespace velm
