#include "core/san_computer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>

#include "config/config_parser.h"
#include "core/velm_plugin.h"
#include "platform/host_config.h"
#include "platform/paths.h"
#include "support/log_capture.h"
#include "support/sandbox.h"

namespace velm {
namespace {

const std::string kConfig = "/Library/Filesystems/Velm/config/";

class StubHostConfig : public HostConfig {
 public:
  std::optional<std::string> computerName() override { return name; }
  std::optional<std::string> localHostName() override { return local; }
  std::optional<std::vector<NetworkPort>> networkPorts() override { return ports; }
  MediaStatus mediaStatus(const std::string& device) override {
    auto it = media.find(device);
    return it == media.end() ? MediaStatus{} : it->second;
  }
  std::optional<std::vector<std::string>> devicesOfDisabledServices() override { return disabled; }

  std::optional<std::string> name = "Demo Controller";
  std::optional<std::string> local = "demo.local";
  std::optional<std::vector<NetworkPort>> ports = std::vector<NetworkPort>{};
  std::map<std::string, MediaStatus> media;
  std::optional<std::vector<std::string>> disabled = std::vector<std::string>{};
};

class SANComputerTest : public test::SandboxTest {
 protected:
  void SetUp() override {
    ::setenv("VELM_HOST_ADDRESSES", "127.0.0.2", 1);
    setHostConfigForTest(&host_);
    SANComputer::resetForTest();
  }
  void TearDown() override {
    SANComputer::resetForTest();
    setHostConfigForTest(nullptr);
    ::unsetenv("VELM_HOST_ADDRESSES");
  }
  SANComputer& computer() { return SANComputer::thisComputer(); }
  PropertyList property(std::string_view key) {
    const PropertyList* v = computer().properties().get(key);
    return v ? *v : PropertyList();
  }
  void writePlist(const std::string& path, const PropertyList& value) {
    sandbox_.write(path, writeXmlPlist(value));
  }
  static PropertyList dict(std::initializer_list<std::pair<const char*, PropertyList>> items) {
    PropertyList d = PropertyList::dict();
    for (const auto& [k, v] : items) d.set(k, v);
    return d;
  }
  void installVersionTool(const std::string& body) {
    sandbox_.write("/Library/Filesystems/Velm/bin/drversions", "#!/bin/sh\n" + body, 0755);
  }

  test::LogCapture log_;
  StubHostConfig host_;
};

TEST_F(SANComputerTest, IdentityKeepsTheFirst36CharactersOrMakesANewOne) {
  std::string id37 = "0123456789ABCDEF0123456789ABCDEF0123X";
  sandbox_.write(kConfig + "uuid", id37);
  EXPECT_EQ(*computer().uuid().asString(), id37.substr(0, 36));
  EXPECT_EQ(sandbox_.read(kConfig + "uuid"), id37);

  SANComputer::resetForTest();
  sandbox_.write(kConfig + "uuid", id37.substr(0, 35));
  std::string fresh = *computer().uuid().asString();
  EXPECT_EQ(fresh.size(), 36u);
  EXPECT_NE(fresh, id37.substr(0, 36));
  EXPECT_EQ(sandbox_.read(kConfig + "uuid"), fresh);

  // Characters, not bytes: 36 two-byte characters are an identity, 35 are not.
  SANComputer::resetForTest();
  std::string wide;
  for (int i = 0; i < 37; ++i) wide += "\xC3\xA9";
  sandbox_.write(kConfig + "uuid", wide);
  EXPECT_EQ(*computer().uuid().asString(), wide.substr(0, 72));
  SANComputer::resetForTest();
  sandbox_.write(kConfig + "uuid", wide.substr(0, 70));
  EXPECT_EQ(computer().uuid().asString()->size(), 36u);
}

TEST_F(SANComputerTest, PluginStartCreatesTheIdentityFile) {
  sandbox_.write(kConfig + "fsnameservers", "");
  VelmPlugin plugin;
  EXPECT_EQ(sandbox_.read(kConfig + "uuid").size(), 36u);
}

TEST_F(SANComputerTest, RoleFallsBackToRolePlistOnlyForAMissingKey) {
  writePlist(kConfig + "role.plist", dict({{"role", "CLIENT"}}));
  EXPECT_EQ(*computer().role().asString(), "CLIENT");

  SANComputer::resetForTest();
  writePlist(kConfig + "config.plist", dict({{"role", ""}}));
  EXPECT_EQ(*computer().role().asString(), "UNCONFIGURED");

  SANComputer::resetForTest();
  writePlist(kConfig + "config.plist", dict({{"role", "CONTROLLER"}}));
  EXPECT_TRUE(computer().isController());

  SANComputer::resetForTest();
  std::remove(sandbox_.path(kConfig + "config.plist").c_str());
  std::remove(sandbox_.path(kConfig + "role.plist").c_str());
  EXPECT_EQ(*computer().role().asString(), "UNCONFIGURED");
}

TEST_F(SANComputerTest, NeedsUpdateOnlyForAnOldConfiguration) {
  writePlist(kConfig + "role.plist", dict({{"role", "CONTROLLER"}, {"interfaceName", "eth1"}, {"interfaceIP", "10.1.1.1"}}));
  EXPECT_FALSE(property("needsUpdate").boolValue());
  EXPECT_FALSE(computer().properties().get("legacyMetadataNIC"));
  EXPECT_EQ(log_.count("configurtaion unable to update due to lack of saninfo.plist"), 1u);
  // A false answer caches: no second line until the cache is cleared.
  computer().objectValueForKey("needsUpdate");
  EXPECT_EQ(log_.count("configurtaion unable to update due to lack of saninfo.plist"), 1u);
  computer().clearCache();
  computer().objectValueForKey("needsUpdate");
  EXPECT_EQ(log_.count("configurtaion unable to update due to lack of saninfo.plist"), 2u);

  SANComputer::resetForTest();
  writePlist(kConfig + "saninfo.plist", dict({{"name", "OldSAN"}}));
  EXPECT_TRUE(property("needsUpdate").boolValue());
  EXPECT_EQ(*property("legacyMetadataNIC").asString(), "eth1");
  EXPECT_EQ(*property("legacyMetadataIP").asString(), "10.1.1.1");
  EXPECT_EQ(*property("legacySanName").asString(), "OldSAN");

  SANComputer::resetForTest();
  writePlist(kConfig + "config.plist", dict({{"role", "CONTROLLER"}}));
  EXPECT_FALSE(property("needsUpdate").boolValue());
  EXPECT_FALSE(computer().properties().get("legacySanName"));
}

TEST_F(SANComputerTest, FileSystemVersionsComeFromTheVersionTool) {
  installVersionTool(
      "echo \"$0 run\" >> \"$(dirname \"$0\")/runs\"\n"
      "printf 'Server Revision 5.2.1 Build 77\\nBuilt for x86_64\\nClient Revision  5.2.0 \\n Built today\\n'\n");
  EXPECT_EQ(*property("serverFSVersion").asString(), "5.2.1 Build 77");
  EXPECT_EQ(*property("clientFSVersion").asString(), "5.2.0");
  computer().clearCache();
  computer().objectValueForKey("serverFSVersion");
  // The tool's output is kept for the life of the object.
  std::string runs = sandbox_.read("/Library/Filesystems/Velm/bin/runs");
  EXPECT_EQ(std::count(runs.begin(), runs.end(), '\n'), 1);
}

TEST_F(SANComputerTest, AFailingVersionToolIsRunAgainAndLeavesTheKeysOut) {
  installVersionTool("echo \"run\" >> \"$(dirname \"$0\")/runs\"\necho oops >&2\nexit 3\n");
  EXPECT_FALSE(computer().properties().get("serverFSVersion"));
  EXPECT_FALSE(computer().properties().get("clientFSVersion"));
  EXPECT_TRUE(log_.contains("status 3 (output '', error 'oops"));
  EXPECT_TRUE(log_.contains("Could not read server revision (output '(null)', error '(null)')"));
  computer().objectValueForKey("serverFSVersion");
  EXPECT_EQ(sandbox_.read("/Library/Filesystems/Velm/bin/runs"), "run\nrun\nrun\n");
}

TEST_F(SANComputerTest, OperatingSystemVersionDropsABuildWithoutAVersion) {
  sandbox_.write("/etc/os-release", "NAME=\"Debian GNU/Linux\"\nBUILD_ID=rolling\n");
  PropertyList os = property("hostOSVersion");
  EXPECT_EQ(*os.getString("ProductName"), "Debian GNU/Linux");
  EXPECT_FALSE(os.get("ProductBuildVersion"));
  SANComputer::resetForTest();
  sandbox_.write("/etc/os-release", "NAME=Debian\nVERSION_ID=\"12\"\nBUILD_ID=b1\n");
  os = property("hostOSVersion");
  EXPECT_EQ(*os.getString("ProductVersion"), "12");
  EXPECT_EQ(*os.getString("ProductBuildVersion"), "b1");
}

TEST_F(SANComputerTest, VelmVersionHasDefaults) {
  PropertyList v = computer().velmVersion();
  EXPECT_EQ(*v.getString("ProductVersion"), "2.2");
  EXPECT_EQ(*v.getString("ProductName"), "Velm");
  SANComputer::resetForTest();
  writePlist("/Library/Filesystems/Velm/version.plist",
             dict({{"ProductVersion", ""}, {"ProductName", "Velm SAN"}, {"ProductBuildVersion", "9A1"}}));
  v = computer().velmVersion();
  EXPECT_EQ(*v.getString("ProductVersion"), "2.2");
  EXPECT_EQ(*v.getString("ProductName"), "Velm SAN");
  EXPECT_EQ(*v.getString("ProductBuildVersion"), "9A1");
}

TEST_F(SANComputerTest, ControllerPreferencesGiveAssistantRoleAndDirectoryType) {
  EXPECT_TRUE(property("serverAssistantRole").isNull());
  std::string prefs = "/Library/Preferences/com.orvane.velm.controller.plist";
  writePlist(prefs, dict({{"IsPrimaryController", true}, {"DSType", "LDAP"}}));
  SANComputer::resetForTest();
  EXPECT_EQ(*property("serverAssistantRole").asString(), "PRIMARY_CONTROLLER");
  EXPECT_EQ(*property("serverAssistantDSType").asString(), "LDAP");
  writePlist(prefs, dict({{"IsPrimaryController", false}, {"DSType", "LDAP"}}));
  SANComputer::resetForTest();
  EXPECT_EQ(*property("serverAssistantRole").asString(), "BACKUP_CONTROLLER");
  EXPECT_TRUE(property("serverAssistantDSType").isNull());
}

TEST_F(SANComputerTest, NamesSecretAndNameServers) {
  sandbox_.write(kConfig + "fsnameservers", "10.0.0.1\n10.0.0.2\n");
  sandbox_.write(kConfig + ".auth_secret", "s3cret", 0600);
  EXPECT_EQ(*property("name").asString(), "Demo Controller");
  EXPECT_EQ(*property("multicastDNSName").asString(), "demo.local");
  EXPECT_EQ(property("nameServers").size(), 2u);
  EXPECT_EQ(*property("authSecret").asString(), "s3cret");

  host_.name.reset();
  host_.local.reset();
  std::remove(sandbox_.path(kConfig + ".auth_secret").c_str());
  SANComputer::resetForTest();
  EXPECT_TRUE(property("name").isNull());
  EXPECT_TRUE(log_.contains("ERROR: readName: Could not fetch computer name"));
  EXPECT_TRUE(property("multicastDNSName").isNull());
  EXPECT_EQ(*property("authSecret").asString(), "");
}

TEST_F(SANComputerTest, NetworkInterfacesAndFreeWiredPorts) {
  PropertyList interfaces = property("networkInterfaces");
  ASSERT_EQ(interfaces.size(), 1u);
  EXPECT_EQ(*(*interfaces.asArray())[0].getString("ipAddress"), "127.0.0.2");
  EXPECT_EQ(computer().ipAddresses(), std::set<std::string>{"127.0.0.2"});

  host_.ports = std::vector<NetworkPort>{{"eth1", true}, {"eth2", true}, {"wlan0", false}, {"velm0", true}, {"", true}};
  host_.media["eth1"] = {true, 1, 3};
  host_.media["eth2"] = {true, 1, 1};  // valid, not active
  host_.media["wlan0"] = {true, 1, 3};
  host_.media["velm0"] = {true, 1, 3};  // carries a real address: in use
  SANComputer::resetForTest();
  std::vector<std::string> names;
  PropertyList available = property("availableNetworkInterfaceNames");
  for (const auto& n : *available.asArray()) names.push_back(*n.asString());
  EXPECT_EQ(names, std::vector<std::string>{"eth1"});

  host_.ports.reset();
  SANComputer::resetForTest();
  EXPECT_EQ(property("availableNetworkInterfaceNames").size(), 0u);
  EXPECT_TRUE(log_.contains("ERROR: Cannot access network configuration."));
}

TEST_F(SANComputerTest, HostnameMatchingWalksTheResolvedAddresses) {
  EXPECT_TRUE(computer().hasIpAddressOrHostname("127.0.0.2"));
  EXPECT_TRUE(log_.contains("127.0.0.2 (127.0.0.2) is one of this computer's addresses"));
  EXPECT_FALSE(computer().hasIpAddressOrHostname("127.0.0.3"));
  EXPECT_TRUE(log_.contains("127.0.0.3 (127.0.0.3) is not one of this computer's addresses"));
  EXPECT_FALSE(computer().hasIpAddressOrHostname("no such host.invalid"));
  EXPECT_TRUE(log_.contains("unable to get address info for 'no such host.invalid'"));
}

TEST_F(SANComputerTest, GetComputerPropertiesClearsOrAnswersProperties) {
  VelmPlugin plugin;
  PropertyList ctx = PropertyList::dict();
  std::int32_t fd = -1;
  PropertyList request = dict({{"command", "getComputerProperties"}, {"clearCache", true}, {"includeLUNs", true}});
  auto r = plugin.doProcessInputWithRequest(request, &ctx, &fd);
  ASSERT_TRUE(r);
  EXPECT_EQ(r->size(), 2u);  // the timing keys only

  request = dict({{"command", "getComputerProperties"}});
  r = plugin.doProcessInputWithRequest(request, &ctx, &fd);
  ASSERT_TRUE(r);
  const PropertyList* props = r->get("properties");
  ASSERT_TRUE(props);
  EXPECT_TRUE(props->get("uuid"));
  EXPECT_EQ(*props->getString("role"), "UNCONFIGURED");
  EXPECT_FALSE(r->get("visibleLUNs"));
  // Nothing on disk here: no automount.plist is in order, no notifications.plist isn't.
  const PropertyList* health = r->get("clientHealth");
  ASSERT_TRUE(health);
  EXPECT_FALSE(health->get("fsmpmRunning")->boolValue());
  EXPECT_TRUE(health->get("configParsable_automount.plist")->boolValue());
  EXPECT_FALSE(health->get("configParsable_notifications.plist")->boolValue());
}

TEST_F(SANComputerTest, GetComputerPropertiesAfterAClearingRequestAnswersAFreshPicture) {
  VelmPlugin plugin;
  PropertyList ctx = PropertyList::dict();
  std::int32_t fd = -1;
  PropertyList ask = dict({{"command", "getComputerProperties"}});
  ASSERT_TRUE(plugin.doProcessInputWithRequest(ask, &ctx, &fd));
  writePlist(kConfig + "config.plist", dict({{"role", "CLIENT"}}));
  ASSERT_TRUE(plugin.doProcessInputWithRequest(dict({{"command", "getComputerProperties"}, {"clearCache", true}}),
                                               &ctx, &fd));
  auto r = plugin.doProcessInputWithRequest(ask, &ctx, &fd);
  ASSERT_TRUE(r);
  const PropertyList* props = r->get("properties");
  ASSERT_TRUE(props);
  EXPECT_TRUE(props->get("uuid"));
  ASSERT_TRUE(props->getString("role"));
  EXPECT_EQ(*props->getString("role"), "CLIENT");
}

TEST_F(SANComputerTest, VolumeConfigurationSeesThisComputerThroughThePlugin) {
  VelmPlugin plugin;
  std::string id = *computer().uuid().asString();
  PropertyList config = dict({{"metadataNetwork", "127.0.0.0/8"}, {"computers", PropertyList::array()}});
  writePlist(kConfig + "config.plist", config);
  std::optional<PropertyList> byUuid = SANConfigParser::sanIPsByUuid();
  ASSERT_TRUE(byUuid);
  ASSERT_TRUE(byUuid->getString(id));
  EXPECT_EQ(*byUuid->getString(id), "127.0.0.2");
}

TEST_F(SANComputerTest, EveryValidKeyHasAReader) {
  computer().properties();
  EXPECT_FALSE(log_.contains("Invalid command"));
  EXPECT_FALSE(log_.contains("Invalid key"));
}

TEST_F(SANComputerTest, VelmVersionFallsBackToTheDriverFileAndFailsTheRequestWhenBothAreBad) {
  sandbox_.write("/Library/Filesystems/Velm/version.plist", "not a plist");
  writePlist("/Library/Filesystems/Velm/driver-version.plist",
             dict({{"ProductVersion", "5.1"}, {"ProductBuildVersion", "D7"}}));
  PropertyList v = computer().velmVersion();
  EXPECT_EQ(*v.getString("ProductVersion"), "5.1");
  EXPECT_EQ(*v.getString("ProductBuildVersion"), "D7");
  EXPECT_EQ(*v.getString("ProductName"), "Velm");

  SANComputer::resetForTest();
  sandbox_.write("/Library/Filesystems/Velm/driver-version.plist", "<plist><array/></plist>");
  VelmPlugin plugin;
  PropertyList ctx = PropertyList::dict();
  std::int32_t fd = -1;
  PropertyList ask = dict({{"command", "getComputerProperties"}});
  EXPECT_FALSE(plugin.doProcessInputWithRequest(ask, &ctx, &fd).has_value());
  EXPECT_TRUE(log_.contains("raised an exception"));
  // The failure doesn't keep the plugin lock.
  EXPECT_TRUE(plugin.doProcessInputWithRequest(dict({{"command", "getState"}}), &ctx, &fd).has_value());
}

}  // namespace
}  // namespace velm
