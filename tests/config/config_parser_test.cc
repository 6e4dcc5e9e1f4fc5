// Reading .cfg files from a sandbox config directory.
#include "config/config_parser.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "config_test_util.h"
#include "platform/paths.h"
#include "support/log_capture.h"
#include "support/sandbox.h"

namespace velm {
namespace {

constexpr const char* kCfg = "/Library/Filesystems/Velm/config/vol1.cfg";
constexpr const char* kAux = "/Library/Filesystems/Velm/config/vol1-auxdata.plist";

class ConfigParserTest : public test::SandboxTest {
 protected:
  // Writes vol1.cfg and parses it; the parser stays for inspection.
  bool parseText(std::string_view text) {
    sandbox_.write(kCfg, text);
    parser_ = SANConfigParser::parserForVolume("vol1");
    if (!parser_) {
      ADD_FAILURE() << "no parser";
      return false;
    }
    return parser_->parse();
  }
  const PropertyList& dict() { return parser_->dictionary(); }
  const PropertyList& globals() { return *dict().get("Globals"); }
  const PlistArray& array(std::string_view key) { return *dict().get(key)->asArray(); }

  test::LogCapture log_;
  std::unique_ptr<SANConfigParser> parser_;
};

// A small complete volume around one varying piece.
std::string minimalVolume(std::string_view extra = "") {
  std::string text = "[DiskType \"T\"]\nSectors 100\nSectorSize 512\n[Disk \"D1\"]\nStatus Up\nType \"T\"\n"
                     "[StripeGroup \"G\"]\nStatus Up\nNode \"D1\" 0\n";
  text += extra;
  return text;
}

TEST_F(ConfigParserTest, RealisticVolumeReadsEveryKeywordList) {
  ASSERT_TRUE(parseText(test::kRealisticConfig));
  EXPECT_EQ(dict().size(), 7u);
  EXPECT_EQ(*dict().getString("_id_"), "Volume_vol1");
  EXPECT_EQ(*dict().getString("Name"), "vol1");

  const std::pair<const char*, bool> booleans[] = {
      {"DataMigration", false}, {"ABMFreeLimit", false},        {"DirWarp", true},
      {"ForcePerfectFit", false}, {"FileLocks", true},          {"GlobalSuperUser", true},
      {"Quotas", true},         {"Brls", false},                {"WindowsSecurity", true},
      {"EnforceACLs", false},   {"EnableLumex", true},          {"NamedStreams", false},
      {"ForceStripeAlignment", true}, {"UnixIdFabricationOnWindows", false}};
  for (auto [key, value] : booleans) {
    ASSERT_TRUE(globals().get(key)) << key;
    EXPECT_EQ(globals().get(key)->asBool(), value) << key;
  }
  const std::pair<const char*, long long> numbers[] = {
      {"AttrTokenSize", 1},       {"InodeExpandMin", 2},       {"InodeExpandInc", 3},
      {"InodeExpandMax", 4},      {"InodeDeleteMax", 5},       {"StaticInodes", 6},
      {"DataMigrationThreadPoolSize", 7}, {"BufferCacheSize", 32 << 20}, {"BufferPoolSize", 9},
      {"DirCacheSize", 10},       {"DirFDCacheSize", 11},      {"StripeAlignSize", 12},
      {"JournalSize", 16 << 20},  {"FsBlockSize", 4096},       {"InodeCacheSize", 1 << 30},
      {"IoHangLimitSecs", 180},   {"MaxConnections", 138},     {"MaxLogSize", 4 << 20},
      {"MaxLogs", 4},             {"OpHangLimitSecs", 300},    {"PosixStyleLinkCount", 21},
      {"TrimOnClose", 22},        {"BrlTime", 23},             {"ThreadPoolSize", 256},
      {"MaxMBPerClientReserve", 25}, {"UnixNobodyUidOnWindows", -2}, {"UnixNobodyGidOnWindows", -2},
      {"UnixFileCreationModeOnWindows", 0644}, {"UnixDirectoryCreationModeOnWindows", 0755}};
  for (auto [key, value] : numbers) {
    ASSERT_TRUE(globals().get(key)) << key;
    EXPECT_EQ(globals().get(key)->int64Value(), value) << key;
  }
  EXPECT_EQ(*globals().getString("Debug"), "0x0");
  EXPECT_EQ(*globals().getString("AllocationStrategy"), "Round");
  EXPECT_EQ(*globals().getString("LumexSearchLevel"), "3");
  EXPECT_EQ(globals().size(), 14u + 29u + 3u);

  const PlistArray& types = array("DiskTypes");
  ASSERT_EQ(types.size(), 2u);
  EXPECT_EQ(types[1], test::makeDiskType("DataType", 2147483648LL, 512));
  const PlistArray& disks = array("Disks");
  ASSERT_EQ(disks.size(), 4u);
  EXPECT_EQ(disks[0], test::makeDisk("Meta1", true, "MetaType"));
  EXPECT_EQ(disks[1], test::makeDisk("Data1", true, "DataType"));
  EXPECT_EQ(disks[2], test::makeDisk("Data2", false, "DataType"));

  const PlistArray& groups = array("StripeGroups");
  ASSERT_EQ(groups.size(), 3u);
  const PropertyList& meta = groups[0];
  EXPECT_EQ(*meta.getString("_id_"), "StripeGroup_MetadataAndJournal");
  EXPECT_EQ(meta.get("Metadata")->asBool(), true);
  EXPECT_EQ(meta.get("Journal")->asBool(), true);
  EXPECT_FALSE(meta.get("Affinity"));
  const PropertyList& data = groups[1];
  const std::pair<const char*, long long> stripeNumbers[] = {
      {"StripeClusters", 1}, {"BWMFields", 2},   {"StripeBreadth", 64}, {"Rtios", 100},
      {"Rtmb", 6},           {"RtiosReserve", 5}, {"RtmbReserve", 7},  {"RtTokenTimeout", 8}};
  for (auto [key, value] : stripeNumbers) EXPECT_EQ(data.get(key)->int64Value(), value) << key;
  EXPECT_EQ(*data.getString("StripeGroup"), "DataFiles");
  EXPECT_EQ(*data.getString("Affinity"), "Media");
  EXPECT_EQ(*data.getString("MultiPathMethod"), "Static");
  EXPECT_EQ(data.get("Write")->asBool(), true);
  PlistArray nodes = {test::makeNode("Data1", 0), test::makeNode("Data2", 1)};
  EXPECT_EQ(*data.get("Nodes")->asArray(), nodes);
  // 6 booleans, 8 numbers, 3 strings, Nodes, _id_.
  EXPECT_EQ(data.size(), 19u);
  EXPECT_EQ(groups[2].get("Read")->asBool(), false);
  EXPECT_FALSE(groups[2].get("Journal"));

  EXPECT_EQ(*dict().get("AuxData"), PropertyList::dict());
  EXPECT_FALSE(log_.contains("ERROR"));
}

TEST_F(ConfigParserTest, CommentsOnlyIsFalseWithNoMessage) {
  EXPECT_FALSE(parseText("# nothing here\n  # nor here\n\n"));
  EXPECT_EQ(dict(), PropertyList::dict());
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(ConfigParserTest, InvalidUtf8ReadsAsNothing) {
  EXPECT_FALSE(parseText(minimalVolume() + "Debug \xff\xfe\n"));
  EXPECT_EQ(dict(), PropertyList::dict());
}

TEST_F(ConfigParserTest, CrLfReadsLikeLf) {
  std::string lf(test::kRealisticConfig);
  std::string crlf;
  for (char c : lf) {
    if (c == '\n') crlf += '\r';
    crlf += c;
  }
  ASSERT_TRUE(parseText(lf));
  PropertyList first = dict();
  ASSERT_TRUE(parseText(crlf));
  EXPECT_EQ(dict(), first);
}

TEST_F(ConfigParserTest, HashInsideQuotesStartsAComment) {
  ASSERT_TRUE(parseText(minimalVolume("Affinity \"a#b\"\nMultiPathMethod Rotate\n")));
  const PropertyList& group = array("StripeGroups")[0];
  EXPECT_EQ(*group.getString("Affinity"), "a");
  EXPECT_EQ(*group.getString("MultiPathMethod"), "Rotate");
}

TEST_F(ConfigParserTest, NodeInsideAGroupNameLeavesTheGroupWithoutNodes) {
  EXPECT_FALSE(parseText(
      "[DiskType \"T\"]\nSectors 100\nSectorSize 512\n[Disk \"D1\"]\nStatus Up\nType \"T\"\n"
      "[StripeGroup \"StorageNodes\"]\nStatus Up\nNode \"D1\" 0\n"));
  const PlistArray& groups = array("StripeGroups");
  ASSERT_EQ(groups.size(), 1u);
  EXPECT_EQ(groups[0].get("Nodes")->size(), 0u);
  EXPECT_EQ(log_.count("ERROR: parse: No disks in storage pool StorageNodes volume vol1"), 1u);
}

TEST_F(ConfigParserTest, DiskTypeWithoutSectorSizeVanishesQuietly) {
  ASSERT_TRUE(parseText(minimalVolume("[DiskType \"Old\"]\nSectors 5\n[Disk \"D2\"]\nStatus Up\nType Old\n")));
  EXPECT_EQ(array("DiskTypes").size(), 1u);
  // The disk that refers to it stays.
  EXPECT_EQ(array("Disks").size(), 2u);
}

TEST_F(ConfigParserTest, DiskTypeMissingAnythingElseFailsTheParse) {
  EXPECT_FALSE(parseText(minimalVolume("[DiskType \"Odd\"]\nSectorSize 512\n")));
  EXPECT_EQ(array("DiskTypes").size(), 1u);
}

TEST_F(ConfigParserTest, DiskWithoutStatusVanishesQuietly) {
  ASSERT_TRUE(parseText(minimalVolume("[Disk \"D2\"]\nType \"T\"\n[Disk \"D3\"]\nStatus Sideways\nType T\n")));
  EXPECT_EQ(array("Disks").size(), 1u);
}

TEST_F(ConfigParserTest, SectionKeysIgnoreCaseGlobalKeysDoNot) {
  ASSERT_TRUE(parseText(minimalVolume("quotas Yes\nFileLocks yes\n[Disk \"D2\"]\nSTATUS down\ntype T\n")));
  EXPECT_FALSE(globals().get("Quotas"));
  EXPECT_EQ(globals().get("FileLocks")->asBool(), true);
  EXPECT_EQ(array("Disks")[1], test::makeDisk("D2", false, "T"));
}

TEST_F(ConfigParserTest, TypeInsideADiskNameIsScannedPast) {
  ASSERT_TRUE(parseText(minimalVolume("[Disk \"DiskType2\"]\nStatus Up\nType \"T\"\n")));
  EXPECT_EQ(array("Disks")[1], test::makeDisk("DiskType2", true, "T"));
  EXPECT_EQ(log_.count("Scanned past Type, it had 'k' before it.  Trying again."), 1u);
}

TEST_F(ConfigParserTest, GlobalKeysAreFoundInsideSections) {
  ASSERT_TRUE(parseText(minimalVolume("FsBlockSize 16K\n")));
  EXPECT_EQ(globals().get("FsBlockSize")->int64Value(), 16384);
}

TEST_F(ConfigParserTest, QuotedBooleanHasNoValue) {
  ASSERT_TRUE(parseText(minimalVolume("Quotas \"Yes\"\n")));
  EXPECT_FALSE(globals().get("Quotas"));
}

TEST_F(ConfigParserTest, EveryEmptySectionKindIsLoggedAndTheRestKept) {
  EXPECT_FALSE(parseText("Quotas Yes\nMaxLogSize 1KM\n"));
  EXPECT_EQ(dict().size(), 7u);
  EXPECT_EQ(globals().get("Quotas")->asBool(), true);
  EXPECT_FALSE(globals().get("MaxLogSize"));
  EXPECT_EQ(log_.count("ERROR: parse: No disk types for volume vol1"), 1u);
  EXPECT_EQ(log_.count("ERROR: parse: No disks for volume vol1"), 1u);
  EXPECT_EQ(log_.count("ERROR: parse: No stripe groups in volume vol1"), 1u);
}

TEST_F(ConfigParserTest, AuxDataComesFromTheFileBeside) {
  sandbox_.write(kAux,
                 "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
                 "<key>FailoverPriorities</key><array/><key>note</key><string>kept</string></dict></plist>\n");
  ASSERT_TRUE(parseText(minimalVolume()));
  EXPECT_EQ(*dict().get("AuxData")->getString("note"), "kept");

  sandbox_.write(kAux, "not a plist");
  ASSERT_TRUE(parseText(minimalVolume()));
  EXPECT_EQ(*dict().get("AuxData"), PropertyList::dict());
}

TEST_F(ConfigParserTest, SecondParseReplacesTheDictionary) {
  ASSERT_TRUE(parseText(minimalVolume("Quotas Yes\n")));
  sandbox_.write(kCfg, minimalVolume());
  ASSERT_TRUE(parser_->parse());
  EXPECT_FALSE(globals().get("Quotas"));
}

TEST_F(ConfigParserTest, ConstructorsStripPrefixAndExtension) {
  sandbox_.write(kCfg, minimalVolume());
  auto byFile = SANConfigParser::parserForFile("Volume_vol1.cfg");
  ASSERT_TRUE(byFile);
  EXPECT_EQ(byFile->volumeName(), "vol1");
  EXPECT_EQ(byFile->volumeID(), "Volume_vol1");
  auto byVolume = SANConfigParser::parserForVolume("Volume_vol1");
  ASSERT_TRUE(byVolume);
  EXPECT_EQ(byVolume->volumeName(), "vol1");
  // The volume form keeps an extension, so this names vol1.cfg.cfg.
  EXPECT_FALSE(SANConfigParser::parserForVolume("vol1.cfg"));
  EXPECT_FALSE(SANConfigParser::parserForVolume("missing"));

  EXPECT_FALSE(SANConfigParser::parserForFile(static_cast<const std::string*>(nullptr)));
  EXPECT_FALSE(SANConfigParser::parserForVolume(static_cast<const std::string*>(nullptr)));
  EXPECT_EQ(log_.count("ERROR: parserForFile: fileName is nil"), 1u);
  EXPECT_EQ(log_.count("ERROR: parserForVolume: volumeName is nil"), 1u);
}

TEST_F(ConfigParserTest, ParseWithoutANameReadsNothing) {
  SANConfigParser parser;
  EXPECT_FALSE(parser.parse());
  EXPECT_EQ(log_.count("ERROR: pathToConfigFile: Volume name is nil"), 1u);
}

}  // namespace
}  // namespace velm
