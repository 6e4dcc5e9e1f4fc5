// Making this machine a member of a SAN and taking it out again, with the directory, service,
// process and network tools played by the stand-ins in a sandbox, on a fake clock.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <thread>

#include "node/directory.h"
#include "node/node_fixture.h"
#include "node/network_port.h"
#include "node/teardown.h"
#include "node/upgrade.h"
#include "platform/clock.h"
#include "platform/paths.h"
#include "support/log_capture.h"
#include "support/plugin_command.h"
#include "support/sandbox.h"
#include "support/sim_node.h"
#include "support/sim_process.h"

namespace velm::test {
namespace {

namespace fs = std::filesystem;

TEST(FsmListUpgradeTest, SecondFieldsBecomeAFullStopAndEndingsStay) {
  struct Row {
    const char* before;
    const char* after;
  } rows[] = {
      {"vol1 host1 5\n", "vol1 . 5\n"},
      {"vol1 . 5\n", "vol1 . 5\n"},
      {"vol1\n", "vol1 . \n"},
      {"# volumes\nvol1 host1 5", "# volumes\nvol1 . 5\n"},
      {"vol1 host1 5\n\nvol2 host2\r\n", "vol1 . 5\n\nvol2 . \r\n"},
      {"\n\n\n", ""},
      {"vol1\thost1   7 extra words\n", "vol1 . 7 extra words\n"},
  };
  for (const Row& r : rows) EXPECT_EQ(upgradedFsmList(r.before), r.after) << r.before;
}

TEST(ProcessCountTest, OnlyTheCommandsBaseNameCounts) {
  EXPECT_EQ(countProcessesNamed("COMMAND\n"
                                "/usr/sbin/velmd -f\n"
                                "velmd\n"
                                "/usr/sbin/velmd2\n"
                                "/bin/sh -c velmd\n"
                                "xvelmd\n"
                                "vel\n"
                                "/opt/x/velmd",
                                "velmd"),
            3);
  EXPECT_EQ(countProcessesNamed("/usr/sbin/velmd\n", "velmd"), 0) << "the first line is a heading";
}

using NodeConfigurationTest = NodeTest;

TEST_F(NodeConfigurationTest, AnEmptyRequestTouchesNothing) {
  auto before = sandbox_.listing();
  PropertyList r = run("writeConfiguration");
  EXPECT_EQ(status(r), 0);
  EXPECT_FALSE(r.get("searchPolicy"));
  EXPECT_EQ(sandbox_.listing(), before);
  // Only fields that config.plist keeps with others write nothing on their own.
  run("writeConfiguration", {{"primaryController", PropertyList(kUuid)}, {"dsType", PropertyList(2)}});
  EXPECT_EQ(sandbox_.listing(), before);
}

TEST_F(NodeConfigurationTest, AWrongTypedKeyStopsEverythingBeforeAStep) {
  auto before = sandbox_.listing();
  PropertyList r = run("writeConfiguration", {{"authSecret", PropertyList("s3cret")},
                                              {"nameservers", PropertyList("10.0.0.1")}});
  EXPECT_EQ(status(r), 1);
  EXPECT_TRUE(log_.contains("'nameservers' is not of the kind it must be"));
  EXPECT_EQ(sandbox_.listing(), before);
}

TEST_F(NodeConfigurationTest, BindsAreTriedFiveTimesAndAFailureStopsBeforeAnyFile) {
  writeToolBehaviour(sandbox_, "rosterbind", [] {
    PropertyList b = PropertyList::dict();
    b.set("exitStatus", 1);
    return b;
  }());
  auto before = sandbox_.listing();
  PropertyList r = run("writeConfiguration",
                       {{"searchPolicy", PlistArray{PropertyList("/LDAPv3/10.9.9.9")}},
                        {"authSecret", PropertyList("s3cret")}});
  EXPECT_EQ(status(r), 1);
  EXPECT_TRUE(r.get("searchPolicy"));
  EXPECT_EQ(toolCalls(sandbox_, "rosterbind").size(), 5u);
  EXPECT_EQ(clock_->sleeps(), (std::vector<std::uint64_t>(4, 1000000)));
  EXPECT_TRUE(toolCalls(sandbox_, "rosterctl").empty());
  EXPECT_FALSE(sandbox_.exists("/Library/Filesystems/Velm/config/.auth_secret"));
  (void)before;
}

TEST_F(NodeConfigurationTest, VelmdHearsOfARoleChangeOrElseOfARestart) {
  sandbox_.write("/proc/self/mountinfo", "");
  SimProcess velmd;
  ASSERT_TRUE(velmd.start("velm-simd", {"--root", sandbox_.root()}, "listening on",
                          {{"VELM_PROCFS", sandbox_.path("/proc")}}))
      << velmd.stderrText();
  auto count = [&](const std::string& what) {
    std::string text = velmd.stderrText();
    int n = 0;
    for (std::size_t at = text.find(what + " ->"); at != std::string::npos;
         at = text.find(what + " ->", at + 1))
      ++n;
    return n;
  };
  struct Row {
    const char* what;
    std::vector<std::pair<std::string, PropertyList>> keys;
    int roleChanged, sanConfigChanged;  // heard so far
  } rows[] = {
      {"a role on a fresh machine", {{"role", PropertyList("CONTROLLER")}}, 1, 0},
      {"the same role again", {{"role", PropertyList("CONTROLLER")}}, 1, 0},
      {"the same role and a secret",
       {{"role", PropertyList("CONTROLLER")}, {"authSecret", PropertyList("s")}}, 1, 1},
      {"name servers alone", {{"nameservers", PlistArray{PropertyList("10.0.0.1")}}}, 1, 2},
      {"another role and a secret",
       {{"role", PropertyList("CLIENT")}, {"authSecret", PropertyList("t")}}, 2, 2},
  };
  for (Row& row : rows) {
    EXPECT_EQ(status(run("writeConfiguration", row.keys)), 0) << row.what;
    for (int i = 0; i < 100 && (count("roleChanged") < row.roleChanged ||
                                count("sanConfigChanged") < row.sanConfigChanged);
         ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(count("roleChanged"), row.roleChanged) << row.what;
    EXPECT_EQ(count("sanConfigChanged"), row.sanConfigChanged) << row.what;
  }
}

TEST_F(NodeConfigurationTest, AnExistingBindCountsAndTheSearchPathIsSet) {
  runNodeTool(sandbox_, "rosterbind", {"-v", "-a", "10.9.9.9"});
  PropertyList r = run("writeConfiguration",
                       {{"searchPolicy", PlistArray{PropertyList("/Local/Default"),
                                                    PropertyList("/LDAPv3/10.9.9.9")}}});
  EXPECT_EQ(status(r), 0);
  EXPECT_EQ(toolCalls(sandbox_, "rosterbind"),
            (std::vector<std::string>{"-v -a 10.9.9.9", "-v -a 10.9.9.9"}));
  EXPECT_TRUE(clock_->sleeps().empty()) << "17 needs no second try";
  EXPECT_TRUE(log_.contains("ERROR: writeConfiguration: Could not add /LDAPv3/10.9.9.9, status 17, tries 1"));
  EXPECT_EQ(toolCalls(sandbox_, "rosterctl"),
            (std::vector<std::string>{
                "/Search -append / rosterAttrStandard:CSPSearchPath /LDAPv3/10.9.9.9",
                "/Search/Contacts -append / rosterAttrStandard:CSPSearchPath /LDAPv3/10.9.9.9",
                "/Search -create / rosterAttrStandard:SearchPolicy rosterAttrStandard:CSPSearchPath",
                "/Search/Contacts -create / rosterAttrStandard:SearchPolicy "
                "rosterAttrStandard:CSPSearchPath"}));
  // The answered policy is what the directory reads back.
  const PlistArray* policy = r.get("searchPolicy")->asArray();
  ASSERT_TRUE(policy);
  EXPECT_NE(std::find(policy->begin(), policy->end(), PropertyList("/LDAPv3/10.9.9.9")),
            policy->end())
      << describe(r);
}

TEST_F(NodeConfigurationTest, AControllerJoinsWithItsFilesAndPreferences) {
  PlistArray computers{[] {
    PropertyList c = PropertyList::dict();
    c.set("uuid", kUuid);
    c.set("ipAddresses", PlistArray{PropertyList("10.0.0.5")});
    return c;
  }()};
  PropertyList r = run(
      "writeConfiguration",
      {{"authSecret", PropertyList("s3cret")},
       {"nameservers", PlistArray{PropertyList("10.0.0.5"), PropertyList("10.0.0.6")}},
       {"role", PropertyList("CONTROLLER")},
       {"sanName", PropertyList("DemoSAN")},
       {"computers", PropertyList(computers)},
       {"primaryController", PropertyList(kUuid)},
       {"dsType", PropertyList(1)},
       {"desiredSearchPolicy", PlistArray{PropertyList("/LDAPv3/ldap.example.com")}}});
  EXPECT_EQ(status(r), 0) << describe(r);
  struct stat st {};
  ASSERT_EQ(::stat(sandbox_.path("/Library/Filesystems/Velm/config/.auth_secret").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_EQ(sandbox_.read("/Library/Filesystems/Velm/config/fsnameservers"),
            "10.0.0.5\n10.0.0.6\n");
  PropertyList config = *readXmlPlistFile(sandbox_.path("/Library/Filesystems/Velm/config/config.plist")).value;
  EXPECT_EQ(*config.getString("role"), "CONTROLLER");
  EXPECT_EQ(*config.getString("primaryController"), kUuid);
  PlistReadResult prefsFile =
      readXmlPlistFile(sandbox_.path("/Library/Preferences/com.orvane.velm.controller.plist"));
  ASSERT_TRUE(prefsFile) << prefsFile.error;
  const PropertyList& prefs = *prefsFile.value;
  EXPECT_TRUE(prefs.get("IsPrimaryController")->boolValue());
  EXPECT_EQ(*prefs.getString("DSType"), "Client:ldap.example.com");
  EXPECT_EQ(*run("getComputerProperties").get("properties")->getString("role"), "CONTROLLER");
}

TEST_F(NodeConfigurationTest, TeardownRemovesTheNodesFilesAndKeepsItsIdentity) {
  for (const char* f : {"v1.cfg", "v1.cfg-old", "v1-auxdata.plist", "v1-auxdata.plist-old",
                        "fsmlist", "config.plist", ".auth_secret", "fsnameservers", "other"})
    sandbox_.write(std::string("/Library/Filesystems/Velm/config/") + f, "x");
  PropertyList r = run("clearConfiguration");
  EXPECT_FALSE(r.get("error"));
  std::vector<std::string> left;
  for (const auto& e : fs::directory_iterator(sandbox_.path("/Library/Filesystems/Velm/config")))
    left.push_back(e.path().filename().string());
  std::sort(left.begin(), left.end());
  EXPECT_EQ(left, (std::vector<std::string>{"fsports", "other", "uuid"}));
  EXPECT_EQ(toolCalls(sandbox_, "svcload").size(), 2u);
  EXPECT_EQ(toolCalls(sandbox_, "ps"), (std::vector<std::string>{"-ax -o command"}));
  EXPECT_EQ(clock_->sleeps(), (std::vector<std::uint64_t>{2000000}));
  EXPECT_EQ(*run("getComputerProperties").get("properties")->getString("role"), "UNCONFIGURED");
}

TEST_F(NodeConfigurationTest, ALongTaskRefusesTeardownWithEveryFileIntact) {
  sandbox_.write("/Library/Filesystems/Velm/config/config.plist", "<plist><dict/></plist>");
  PropertyList task = PropertyList::dict();
  task.set("pid", 1);
  plugin_.noteLongTask(&task, "Projects");
  auto before = sandbox_.listing();
  EXPECT_EQ(*run("clearConfiguration").getString("error"), "Long running tasks still in progress");
  EXPECT_EQ(sandbox_.listing(), before);
  EXPECT_TRUE(toolCalls(sandbox_, "svcload").empty());
}

TEST_F(NodeConfigurationTest, PortsAreConfiguredThroughNetworkdWhenNetworkManagerIsAway) {
  writeToolBehaviour(sandbox_, "nmcli", [] {
    PropertyList b = PropertyList::dict();
    b.set("notRunning", true);
    return b;
  }());
  auto configure = [&](const char* port, const char* address, const char* mask,
                       const char* family = "IPv4", const char* router = "") {
    return run("configureNetworkInterface",
               {{"port", PropertyList(port)}, {"address", PropertyList(address)},
                {"subnetMask", PropertyList(mask)}, {"router", PropertyList(router)},
                {"addressFamily", PropertyList(family)}});
  };
  EXPECT_EQ(status(configure("eth0", "10.0.0.9", "255.255.255.0", "IPv6")), 1);
  PropertyList unknown = configure("../../etc", "10.0.0.9", "255.255.255.0");
  EXPECT_EQ(status(unknown), 0);
  EXPECT_FALSE(unknown.get("userDefinedName"));
  EXPECT_EQ(status(configure("ETH0", "10.0.0.300", "255.255.255.0")), 1);
  EXPECT_EQ(status(configure("eth0", "10.0.0.9", "255.0.255.0")), 1);
  EXPECT_FALSE(sandbox_.exists("/etc/systemd/network/10-velm-eth0.network"));

  PropertyList r = configure("ETH0", "10.0.0.9", "255.255.255.0", "IPv4", "10.0.0.1");
  EXPECT_EQ(status(r), 0);
  EXPECT_EQ(*r.getString("userDefinedName"), "eth0");
  std::string file = sandbox_.read("/etc/systemd/network/10-velm-eth0.network");
  EXPECT_NE(file.find("Name=eth0\n"), std::string::npos) << file;
  EXPECT_NE(file.find("Address=10.0.0.9/24\n"), std::string::npos) << file;
  EXPECT_NE(file.find("Gateway=10.0.0.1\n"), std::string::npos) << file;
  // An empty router keeps the stored one.
  configure("eth0", "10.0.0.10", "255.255.0.0");
  file = sandbox_.read("/etc/systemd/network/10-velm-eth0.network");
  EXPECT_NE(file.find("Address=10.0.0.10/16\n"), std::string::npos) << file;
  EXPECT_NE(file.find("Gateway=10.0.0.1\n"), std::string::npos) << file;
  EXPECT_EQ(toolCalls(sandbox_, "networkctl"),
            (std::vector<std::string>{"reload", "reconfigure eth0", "reload", "reconfigure eth0"}));
}

TEST_F(NodeConfigurationTest, PortsAreConfiguredThroughNetworkManagerWhenItRuns) {
  // Two profiles for eth0: the inactive one is bound by its interface name, the active one wins.
  sandbox_.write("/sim/network/nmcli.plist",
                 "<plist version=\"1.0\"><dict><key>connections</key><array>"
                 "<dict><key>uuid</key><string>u-spare</string><key>name</key><string>spare</string>"
                 "<key>device</key><string>eth0</string><key>active</key><false/></dict>"
                 "<dict><key>uuid</key><string>u-wired</string><key>name</key><string>Wired 1"
                 "</string><key>device</key><string>eth0</string><key>active</key><true/></dict>"
                 "</array></dict></plist>\n");
  PropertyList r = run("configureNetworkInterface",
                       {{"port", PropertyList("eth0")}, {"address", PropertyList("10.0.0.9")},
                        {"subnetMask", PropertyList("255.255.255.0")},
                        {"router", PropertyList("10.0.0.1")},
                        {"addressFamily", PropertyList("IPv4")}});
  EXPECT_EQ(status(r), 0) << describe(r);
  EXPECT_EQ(*r.getString("userDefinedName"), "Wired 1");
  std::vector<std::string> calls = toolCalls(sandbox_, "nmcli");
  ASSERT_GE(calls.size(), 3u);
  EXPECT_EQ(calls[calls.size() - 2],
            "connection modify u-wired ipv4.method manual ipv4.addresses 10.0.0.9/24 ipv4.gateway "
            "10.0.0.1");
  EXPECT_EQ(calls.back(), "connection up u-wired");
  EXPECT_TRUE(toolCalls(sandbox_, "networkctl").empty());
  EXPECT_FALSE(sandbox_.exists("/etc/systemd/network/10-velm-eth0.network"));
}

class RecordingDirectory : public Directory {
 public:
  std::optional<PropertyList> valueMatchedListOfRecords(const std::string& node,
                                                        const PropertyList*, const PropertyList*,
                                                        const std::string*, const std::string*,
                                                        const PropertyList*,
                                                        const PropertyList*) override {
    PropertyList r = PropertyList::dict();
    r.set("node", node);
    return r;
  }
};

TEST_F(NodeConfigurationTest, DirectoryQueriesAndTheReplicaPreflight) {
  EXPECT_EQ(status(run("getDirbaseRecords")), 100055);
  RecordingDirectory d;
  setDirectoryForTest(&d);
  PropertyList r = run("getDirbaseRecords", {{"nodePath", PropertyList(5)}});
  setDirectoryForTest(nullptr);
  EXPECT_EQ(status(r), 0);
  EXPECT_EQ(*r.getString("node"), "/Search");

  PropertyList missing = run("preflightReplica", {{"masterAddress", PropertyList("10.0.0.1")}});
  EXPECT_EQ(status(missing, "authStatus"), -1);
  EXPECT_EQ(status(missing), -1);
  EXPECT_TRUE(toolCalls(sandbox_, "replicacfg").empty());

  writeDirectoryPasswords(sandbox_, {{"root", "rootpw"}, {"diradmin", "adminpw"}});
  auto preflight = [&](const char* rootPw, const char* adminPw) {
    return run("preflightReplica", {{"masterAddress", PropertyList("10.0.0.1")},
                                    {"masterRootPassword", PropertyList(rootPw)},
                                    {"dirAdminName", PropertyList("diradmin")},
                                    {"dirAdminPassword", PropertyList(adminPw)}});
  };
  PropertyList ok = preflight("rootpw", "adminpw");
  EXPECT_EQ(status(ok, "authStatus"), 0) << describe(ok);
  EXPECT_TRUE(ok.get("dirAdminAuthSucceeded")->boolValue());
  EXPECT_EQ(status(preflight("nope", "adminpw"), "authStatus"), 255);
  EXPECT_EQ(status(preflight("rootpw", "nope"), "authStatus"), 77);
  for (const std::string& call : toolCalls(sandbox_, "replicacfg")) {
    EXPECT_EQ(call.find("rootpw"), std::string::npos);
    EXPECT_EQ(call.find("adminpw"), std::string::npos);
  }
  EXPECT_FALSE(log_.contains("rootpw"));
  EXPECT_FALSE(log_.contains("adminpw"));
}

}  // namespace
}  // namespace velm::test
