// The .cfg writer: exact text, the journal and affinity rules, files on disk, and round trips.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "config/config_parser.h"
#include "config_test_util.h"
#include "support/log_capture.h"
#include "support/sandbox.h"

namespace velm {
namespace {

using test::makeDisk;
using test::makeDiskType;
using test::makeGroup;
using test::makeNode;
using test::makeVolume;

#define STARS "****************************************************************************"
#define BANNER(title) "\n\n# " STARS "\n# " title "\n# " STARS "\n"

constexpr const char* kCfg = "/Library/Filesystems/Velm/config/vol1.cfg";
constexpr const char* kAux = "/Library/Filesystems/Velm/config/vol1-auxdata.plist";

PropertyList smallGlobals() {
  PropertyList g = PropertyList::dict();
  g.set("Quotas", PropertyList(true));
  g.set("FileLocks", PropertyList(false));
  g.set("Debug", PropertyList("0x0"));
  g.set("AllocationStrategy", PropertyList("Round"));
  g.set("InodeExpandMin", PropertyList(8));
  g.set("AttrTokenSize", PropertyList(0));
  g.set("JournalSize", PropertyList(16777216));
  g.set("FsBlockSize", PropertyList(4096));
  g.set("MaxLogSize", PropertyList(0));
  g.set("UnixFileCreationModeOnWindows", PropertyList(420));
  g.set("UnixDirectoryCreationModeOnWindows", PropertyList(0));
  return g;
}

PropertyList smallVolume() {
  PropertyList meta = makeGroup("MetaFiles", {makeNode("LUN1", 0)});
  meta.set("Exclusive", PropertyList(true));
  meta.set("Metadata", PropertyList(true));
  meta.set("Journal", PropertyList(true));
  meta.set("StripeBreadth", PropertyList(16));
  PropertyList data = makeGroup("Data", {makeNode("LUN2", 0), makeNode("LUN3", 1)});
  data.set("Journal", PropertyList(true));
  data.set("Write", PropertyList(false));
  data.set("MultiPathMethod", PropertyList("Static"));
  data.set("StripeBreadth", PropertyList(65536));
  data.set("RtiosReserve", PropertyList(5));
  data.set("Rtios", PropertyList(100));
  PropertyList excl = makeGroup("Excl", {});
  excl.set("Status", PropertyList(false));
  excl.set("Exclusive", PropertyList(true));
  excl.set("Read", PropertyList(false));
  return makeVolume("vol1", smallGlobals(), {makeDiskType("MetaType", 1099511627776LL, 512)},
                    {makeDisk("LUN1", true, "MetaType"), makeDisk("LUN2", false, "DataType")},
                    {meta, data, excl});
}

constexpr std::string_view kSmallVolumeText =
    BANNER("A global section for defining file system-wide parameters.")
    "FileLocks\t\tNo\n"
    "Quotas\t\t\tYes\n"
    "Debug\t\t\t0x0\n"
    "AllocationStrategy\tRound\n"
    "AttrTokenSize\t\t0\n"
    "InodeExpandMin\t\t8\n"
    "JournalSize\t\t16M\n"
    "FsBlockSize\t\t4K\n"
    "MaxLogSize\t\t0T\n"
    "UnixFileCreationModeOnWindows\t0644\n"
    "UnixDirectoryCreationModeOnWindows\t00\n"
    BANNER("A disktype section for defining disk hardware parameters.")
    "\n[DiskType \"MetaType\"]\nSectors 1T\nSectorSize 512\n"
    BANNER("A disk section for defining disks in the hardware configuration.")
    "\n[Disk \"LUN1\"]\nStatus Up\nType \"MetaType\"\n"
    "\n[Disk \"LUN2\"]\nStatus Down\nType \"DataType\"\n"
    BANNER("A stripe section for defining stripe groups.")
    "\n[StripeGroup \"MetaFiles\"]\nStatus Up\nExclusive Yes\nMetadata Yes\nJournal Yes\n"
    "Read Enabled\nWrite Enabled\nMultiPathMethod Rotate\nStripeBreadth 16\nNode \"LUN1\" 0\n"
    "\n[StripeGroup \"Data\"]\nStatus Up\nExclusive No\nJournal No\nAffinity \"AffData\"\n"
    "Read Enabled\nWrite Disabled\nMultiPathMethod Static\nStripeBreadth 65536\nRtios 100\nRtiosReserve 5\n"
    "Node \"LUN2\" 0\nNode \"LUN3\" 1\n"
    "\n[StripeGroup \"Excl\"]\nStatus Down\nExclusive Yes\nJournal No\nAffinity \"AffExcl\"\n"
    "Read Disabled\nWrite Enabled\nMultiPathMethod Rotate\n";

class ConfigWriterTest : public test::SandboxTest {
 protected:
  test::LogCapture log_;
};

TEST_F(ConfigWriterTest, SmallVolumePrintsExactly) {
  auto parser = SANConfigParser::parserWithDict(smallVolume());
  std::optional<std::string> text = parser->configFileRepresentation();
  ASSERT_TRUE(text);
  EXPECT_EQ(*text, kSmallVolumeText);
  EXPECT_FALSE(parser->error());
}

TEST(ConvertNumberToByteFormTest, LargestWholeUnitWins) {
  const std::pair<std::uint64_t, const char*> rows[] = {
      {0, "0T"},           {512, "512"},  {1000, "1000"},          {1024, "1K"},
      {4096, "4K"},        {1536, "1536"}, {16777216, "16M"},      {3u << 30, "3G"},
      {1ULL << 40, "1T"},  {(1ULL << 40) + (1ULL << 30), "1025G"}, {UINT64_MAX, "18446744073709551615"},
      {UINT64_MAX - 1023, "18014398509481983K"}};
  for (auto [value, text] : rows) EXPECT_EQ(SANConfigParser::convertNumberToByteForm(value), text) << value;
}

TEST_F(ConfigWriterTest, TwoExclusiveJournalGroupsKeepOneJournalAndNoAffinity) {
  PropertyList first = makeGroup("J1", {makeNode("L1", 0)});
  first.set("Exclusive", PropertyList(true));
  first.set("Journal", PropertyList(true));
  PropertyList second = makeGroup("J2", {makeNode("L2", 0)});
  second.set("Exclusive", PropertyList(true));
  second.set("Journal", PropertyList(true));
  auto parser = SANConfigParser::parserWithDict(
      makeVolume("v", PropertyList::dict(), {}, {}, {first, second}));
  std::string text = parser->configFileRepresentation().value();
  EXPECT_NE(text.find("[StripeGroup \"J1\"]\nStatus Up\nExclusive Yes\nJournal Yes\nRead Enabled\n"),
            std::string::npos);
  EXPECT_NE(text.find("[StripeGroup \"J2\"]\nStatus Up\nExclusive Yes\nJournal No\nRead Enabled\n"),
            std::string::npos);
  EXPECT_EQ(text.find("Affinity"), std::string::npos);
}

TEST_F(ConfigWriterTest, EmptyVolumeIsFourBanners) {
  auto parser = SANConfigParser::parserWithDict(makeVolume("v", PropertyList::dict(), {}, {}, {}));
  EXPECT_EQ(parser->configFileRepresentation(),
            BANNER("A global section for defining file system-wide parameters.")
            BANNER("A disktype section for defining disk hardware parameters.")
            BANNER("A disk section for defining disks in the hardware configuration.")
            BANNER("A stripe section for defining stripe groups."));
}

TEST_F(ConfigWriterTest, MissingPiecesRefuseTheWholeText) {
  // No Globals: every global line builder complains.
  PropertyList noGlobals = smallVolume();
  noGlobals.erase("Globals");
  SANConfigParser parser("vol1");
  parser.dictionary() = noGlobals;
  EXPECT_FALSE(parser.configFileRepresentation());
  EXPECT_TRUE(parser.error());
  EXPECT_EQ(log_.count("ERROR: boolLineForKey: key Quotas or dict 0x0 (0 items) is missing"), 1u);

  // A disk without a name: the tag builder complains.
  PropertyList noName = smallVolume();
  noName.get("Disks")->asArray()->at(0).erase("Disk");
  auto unnamed = SANConfigParser::parserWithDict(noName);
  EXPECT_FALSE(unnamed->configFileRepresentation());
  EXPECT_TRUE(log_.contains("ERROR: tagForKey: Disk inDict: "));

  // A data group without Affinity.
  PropertyList noAffinity = smallVolume();
  noAffinity.get("StripeGroups")->asArray()->at(1).erase("Affinity");
  auto partial = SANConfigParser::parserWithDict(noAffinity);
  EXPECT_FALSE(partial->configFileRepresentation());

  // The flag is cleared for each representation.
  partial->dictionary() = smallVolume();
  EXPECT_TRUE(partial->configFileRepresentation());
}

TEST_F(ConfigWriterTest, WriteConfigurationWritesBothFiles) {
  PropertyList volume = smallVolume();
  volume.get("AuxData")->set("FailoverPriorities", PropertyList::array());
  sandbox_.write("/Library/Filesystems/Velm/config/.keep", "");
  auto parser = SANConfigParser::parserWithDict(volume);
  ASSERT_TRUE(parser->writeConfiguration());
  EXPECT_EQ(sandbox_.read(kCfg), kSmallVolumeText);
  std::optional<PropertyList> aux = readDictionaryFile(sandbox_.path(kAux));
  ASSERT_TRUE(aux);
  EXPECT_EQ(*aux, *volume.get("AuxData"));
  EXPECT_TRUE(parser->configFileExists());

  ASSERT_TRUE(parser->deleteConfiguration());
  EXPECT_FALSE(sandbox_.exists(kCfg));
  EXPECT_FALSE(sandbox_.exists(kAux));
}

TEST_F(ConfigWriterTest, BadConfigTouchesNoFile) {
  sandbox_.write(kCfg, "old text");
  PropertyList volume = smallVolume();
  volume.get("DiskTypes")->asArray()->at(0).erase("SectorSize");
  auto parser = SANConfigParser::parserWithDict(volume);
  EXPECT_FALSE(parser->writeConfiguration());
  EXPECT_EQ(sandbox_.read(kCfg), "old text");
  EXPECT_FALSE(sandbox_.exists(kAux));
  // Deliberate in the writer: the message names a file that is never made.
  EXPECT_EQ(log_.count("ERROR: writeConfiguration: Attempting to create bad config.  Wrote to /tmp/badconfig.cfg"),
            1u);
  EXPECT_FALSE(sandbox_.exists("/tmp/badconfig.cfg"));
}

TEST_F(ConfigWriterTest, NamelessDictionaryCannotBeWritten) {
  PropertyList volume = smallVolume();
  volume.erase("Name");
  auto parser = SANConfigParser::parserWithDict(volume);
  EXPECT_FALSE(parser->volumeName());
  EXPECT_FALSE(parser->writeConfiguration());
  EXPECT_FALSE(sandbox_.exists(kCfg));
}

TEST_F(ConfigWriterTest, DeleteNeedsTheCfgFile) {
  sandbox_.write(kAux, "<plist><dict/></plist>");
  SANConfigParser parser("vol1");
  EXPECT_FALSE(parser.deleteConfiguration());
  EXPECT_TRUE(sandbox_.exists(kAux));
}

// parse -> write -> parse keeps everything the writer keeps, and a second round changes nothing.
TEST_F(ConfigWriterTest, RealisticVolumeRoundTrips) {
  sandbox_.write(kCfg, test::kRealisticConfig);
  auto parser = SANConfigParser::parserForVolume("vol1");
  ASSERT_TRUE(parser);
  ASSERT_TRUE(parser->parse());
  PropertyList first = parser->dictionary();
  std::optional<std::string> written = parser->configFileRepresentation();
  ASSERT_TRUE(written);
  sandbox_.write(kCfg, *written);
  ASSERT_TRUE(parser->parse());

  // The only change: a group without a Journal key gets "Journal No".
  PropertyList expected = first;
  expected.get("StripeGroups")->asArray()->at(2).set("Journal", PropertyList(false));
  EXPECT_EQ(parser->dictionary(), expected);
  EXPECT_EQ(parser->configFileRepresentation(), written);
}

TEST_F(ConfigWriterTest, WhatTheWriterDropsStaysDropped) {
  PropertyList volume = smallVolume();
  volume.get("Globals")->set("InodeCacheSize", PropertyList(1ULL << 40));  // prints 1T, reads 1
  auto writer = SANConfigParser::parserWithDict(volume);
  sandbox_.write(kCfg, writer->configFileRepresentation().value());
  auto reader = SANConfigParser::parserForVolume("vol1");
  ASSERT_TRUE(reader);
  EXPECT_FALSE(reader->parse());  // group Excl has no nodes
  const PropertyList& dict = reader->dictionary();
  EXPECT_EQ(dict.get("Globals")->get("InodeCacheSize")->int64Value(), 1);
  EXPECT_EQ(dict.get("Globals")->get("MaxLogSize")->int64Value(), 0);
  EXPECT_EQ(dict.get("DiskTypes")->asArray()->at(0).get("Sectors")->int64Value(), 1);
  const PlistArray& groups = *dict.get("StripeGroups")->asArray();
  EXPECT_FALSE(groups[0].get("Affinity"));              // exclusive metadata group
  EXPECT_EQ(groups[1].get("Journal")->asBool(), false);  // the second journal
  EXPECT_EQ(dict.get("Globals")->get("UnixFileCreationModeOnWindows")->int64Value(), 420);
}

}  // namespace
}  // namespace velm
