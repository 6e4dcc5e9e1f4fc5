// Building from a client's dictionary, paths, queries, and the failover address lookup.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "config/config_parser.h"
#include "config_test_util.h"
#include "support/log_capture.h"
#include "support/sandbox.h"

namespace velm {
namespace {

using test::makeGroup;
using test::makeNode;
using test::makeVolume;

constexpr const char* kConfigDir = "/Library/Filesystems/Velm/config";

class ConfigPathsTest : public test::SandboxTest {
 protected:
  void TearDown() override { setThisComputerProvider(nullptr); }

  PropertyList volume() {
    return makeVolume("vol1", PropertyList::dict(), {}, {},
                      {makeGroup("A", {makeNode("L1", 0), makeNode("L2", 1)}),
                       makeGroup("B", {makeNode("L2", 0), makeNode("L3", 1)})});
  }

  void writeSanConfig(std::string_view computers, std::string_view network = "10.1.0.0/16") {
    sandbox_.write(std::string(kConfigDir) + "/config.plist",
                   std::string("<plist version=\"1.0\"><dict><key>metadataNetwork</key><string>") +
                       std::string(network) + "</string><key>computers</key><array>" + std::string(computers) +
                       "</array></dict></plist>");
  }

  static std::string computer(std::string_view uuid, std::string_view addresses) {
    return std::string("<dict><key>uuid</key><string>") + std::string(uuid) +
           "</string><key>ipAddresses</key><array>" + std::string(addresses) + "</array></dict>";
  }

  void writeFailover(std::string_view entries) {
    sandbox_.write(std::string(kConfigDir) + "/vol1-auxdata.plist",
                   std::string("<plist version=\"1.0\"><dict><key>FailoverPriorities</key><array>") +
                       std::string(entries) + "</array></dict></plist>");
  }

  static std::string entry(std::string_view uuid, std::string_view enabled) {
    std::string e = std::string("<dict><key>controllerUUID</key><string>") + std::string(uuid) + "</string>";
    if (!enabled.empty()) e += "<key>enabled</key><" + std::string(enabled) + "/>";
    return e + "</dict>";
  }

  test::LogCapture log_;
};

TEST_F(ConfigPathsTest, InitWithDictKeepsOnlyTheVolumeKeys) {
  PropertyList in = volume();
  in.set("_id_", PropertyList("stale id"));
  in.set("Name", PropertyList("Volume_x"));
  in.set("extra", PropertyList(1));
  in.set("AuxData", PropertyList::array());
  auto parser = SANConfigParser::parserWithDict(in);
  const PropertyList& dict = parser->dictionary();
  EXPECT_EQ(parser->volumeName(), "Volume_x");  // no prefix taken off here
  EXPECT_EQ(*dict.getString("_id_"), "Volume_Volume_x");
  EXPECT_FALSE(dict.get("extra"));
  EXPECT_EQ(*dict.get("AuxData"), PropertyList::dict());
  EXPECT_EQ(*dict.get("StripeGroups"), *in.get("StripeGroups"));
  EXPECT_EQ(dict.size(), 7u);
}

TEST_F(ConfigPathsTest, InitWithDictOfTheWrongShapeGivesAnEmptyParser) {
  const char* keys[] = {"Name", "_id_", "Globals", "DiskTypes", "Disks", "StripeGroups"};
  for (const char* key : keys) {
    PropertyList in = volume();
    in.set(key, PropertyList(7));  // a number, as a string _id_ would be one
    auto parser = SANConfigParser::parserWithDict(in);
    EXPECT_FALSE(parser->volumeName()) << key;
    EXPECT_EQ(parser->dictionary(), PropertyList::dict()) << key;
  }
}

TEST_F(ConfigPathsTest, PathsLiveInTheConfigDirectory) {
  SANConfigParser parser("vol1");
  EXPECT_EQ(parser.pathToConfigFile(), sandbox_.path("/Library/Filesystems/Velm/config/vol1.cfg"));
  EXPECT_EQ(parser.pathToAuxData(), sandbox_.path("/Library/Filesystems/Velm/config/vol1-auxdata.plist"));

  SANConfigParser empty{std::string()};
  EXPECT_FALSE(empty.pathToConfigFile());
  EXPECT_FALSE(empty.pathToAuxData());
  SANConfigParser nameless;
  EXPECT_FALSE(nameless.pathToConfigFile());
  EXPECT_FALSE(nameless.pathToAuxData());
  EXPECT_EQ(log_.count("ERROR: pathToConfigFile: Volume name is zero length"), 1u);
  EXPECT_EQ(log_.count("ERROR: pathToAuxData: Volume name is zero length"), 1u);
  EXPECT_EQ(log_.count("ERROR: pathToConfigFile: Volume name is nil"), 1u);
  EXPECT_EQ(log_.count("ERROR: pathToAuxData: Volume name is nil"), 1u);
}

TEST_F(ConfigPathsTest, ADirectoryIsNoConfigFile) {
  sandbox_.write(std::string(kConfigDir) + "/dir.cfg/inside", "");
  sandbox_.write(std::string(kConfigDir) + "/.cfg", "");
  EXPECT_FALSE(SANConfigParser("dir").configFileExists());
  EXPECT_FALSE(SANConfigParser::configFileExistsForVolume("dir"));
  EXPECT_EQ(log_.count("ERROR: configFileExists: Config file path is a directory!"), 1u);
  EXPECT_EQ(log_.count("ERROR: configFileExistsForVolume: Config file path for volume 'dir' is a directory!"), 1u);
  // The class form takes the empty name as it stands.
  EXPECT_TRUE(SANConfigParser::configFileExistsForVolume(""));
  EXPECT_FALSE(SANConfigParser::parserForVolume("dir"));
}

TEST_F(ConfigPathsTest, LunNamesAndPools) {
  auto parser = SANConfigParser::parserWithDict(volume());
  EXPECT_EQ(parser->lunNames(), (std::vector<std::string>{"L1", "L2", "L2", "L3"}));
  PropertyList* pool = parser->storagePoolNamed("B");
  ASSERT_TRUE(pool);
  pool->set("Affinity", PropertyList("edited"));
  EXPECT_EQ(*parser->dictionary().get("StripeGroups")->asArray()->at(1).getString("Affinity"), "edited");
  EXPECT_FALSE(parser->storagePoolNamed("b"));
}

TEST_F(ConfigPathsTest, SanIPsByUuidPrefersConfigPlistOverLiveAddresses) {
  setThisComputerProvider([] {
    return ThisComputerAddresses{"SELF", {"192.168.1.5", "10.1.2.3", "10.1.9.9"}};
  });
  writeSanConfig(computer("OTHER", "<string>192.168.1.7</string><string>10.1.0.7</string>") +
                 computer("NONE", "<string>172.16.0.1</string>"));
  std::optional<PropertyList> ips = SANConfigParser::sanIPsByUuid();
  ASSERT_TRUE(ips);
  EXPECT_EQ(ips->size(), 2u);
  EXPECT_EQ(*ips->getString("SELF"), "10.1.2.3");
  EXPECT_EQ(*ips->getString("OTHER"), "10.1.0.7");

  writeSanConfig(computer("SELF", "<string>10.1.4.4</string>") + computer("OTHER", "<string>10.1.0.7</string>"));
  EXPECT_EQ(*SANConfigParser::sanIPsByUuid()->getString("SELF"), "10.1.4.4");
}

TEST_F(ConfigPathsTest, SanIPsByUuidNeedsBothKeys) {
  EXPECT_FALSE(SANConfigParser::sanIPsByUuid());
  sandbox_.write(std::string(kConfigDir) + "/config.plist",
                 "<plist version=\"1.0\"><dict><key>computers</key><array/></dict></plist>");
  EXPECT_FALSE(SANConfigParser::sanIPsByUuid());
  EXPECT_EQ(log_.count("ERROR: sanIPsByUuid: Error getting information"), 2u);
}

TEST_F(ConfigPathsTest, SanIPsForVolumeFollowsFailoverOrder) {
  setThisComputerProvider([] { return ThisComputerAddresses{"SELF", {"10.1.0.1"}}; });
  writeSanConfig(computer("B", "<string>10.1.0.2</string>") + computer("C", "<string>10.1.0.3</string>") +
                 computer("FAR", "<string>192.168.0.4</string>"));
  writeFailover(entry("C", "true") + entry("FAR", "true") + entry("B", "false") + entry("SELF", "") +
                entry("SELF", "true"));
  std::optional<std::vector<std::string>> ips = SANConfigParser::sanIPsForVolume("vol1");
  ASSERT_TRUE(ips);
  EXPECT_EQ(*ips, (std::vector<std::string>{"10.1.0.3", "10.1.0.1"}));
  EXPECT_TRUE(log_.contains("No ip found in IPs '"));
  EXPECT_TRUE(log_.contains("' for uuid 'FAR'"));

  writeFailover(entry("C", "false"));
  EXPECT_EQ(SANConfigParser::sanIPsForVolume("vol1"), std::vector<std::string>{});
}

TEST_F(ConfigPathsTest, SanIPsForVolumeWithoutFailoverMatrix) {
  setThisComputerProvider([] { return ThisComputerAddresses{std::nullopt, {}}; });
  writeSanConfig(computer("B", "<string>10.1.0.2</string>"));
  EXPECT_FALSE(SANConfigParser::sanIPsForVolume("vol1"));
  EXPECT_EQ(log_.count("ERROR: sanIPsForVolume: No failover matrix for volume vol1"), 1u);
}

}  // namespace
}  // namespace velm
