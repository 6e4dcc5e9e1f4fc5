// What a request can't make the node commands do: write or remove outside the configuration
// tree, follow a planted link out, put request text into a path or a tool's options, or crash on
// keys of the wrong kind. The upgrade puts a volume's file back byte for byte when the new one
// doesn't read.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>

#include "config/config_test_util.h"
#include "node/network_port.h"
#include "node/node_fixture.h"
#include "node/upgrade.h"
#include "platform/clock.h"
#include "platform/paths.h"
#include "support/log_capture.h"
#include "support/plugin_command.h"
#include "support/sandbox.h"
#include "support/sim_node.h"

namespace velm::test {
namespace {

namespace fs = std::filesystem;

class NodeSafetyTest : public NodeTest {
 protected:
  void SetUp() override {
    NodeTest::SetUp();
    outside_ = sandbox_.write("/outside/target", "keep me");
  }
  std::string outside_;
};

TEST_F(NodeSafetyTest, PlantedLinksAreReplacedOrLeftButNeverFollowed) {
  std::string config = sandbox_.path("/Library/Filesystems/Velm/config");
  for (const char* name : {"config.plist", ".auth_secret", "fsnameservers"})
    fs::create_symlink(outside_, config + "/" + name);
  fs::create_directories(sandbox_.path("/outside/notes"));
  sandbox_.write("/outside/notes/volume-Projects", "a note");
  fs::create_symlink(sandbox_.path("/outside/notes"), config + "/notes");

  PropertyList r = run("writeConfiguration", {{"role", PropertyList("CLIENT")},
                                              {"authSecret", PropertyList("s")},
                                              {"nameservers", PlistArray{PropertyList("10.0.0.1")}}});
  EXPECT_EQ(r.get("status")->int64Value(), 0) << describe(r);
  for (const char* name : {"config.plist", ".auth_secret", "fsnameservers"})
    EXPECT_FALSE(fs::is_symlink(config + "/" + name)) << name;
  EXPECT_EQ(sandbox_.read("/outside/target"), "keep me");

  run("clearConfiguration");
  EXPECT_EQ(sandbox_.read("/outside/target"), "keep me");
  EXPECT_EQ(sandbox_.read("/outside/notes/volume-Projects"), "a note");
}

TEST_F(NodeSafetyTest, PortNamesAndAddressesFromRequestsReachNoPathOrOption) {
  auto configure = [&](const std::string& port, const char* address = "10.0.0.9",
                       const char* mask = "255.255.255.0", const char* router = "") {
    return run("configureNetworkInterface",
               {{"port", PropertyList(port)}, {"address", PropertyList(address)},
                {"subnetMask", PropertyList(mask)}, {"router", PropertyList(router)},
                {"addressFamily", PropertyList("IPv4")}});
  };
  for (const std::string& port : {std::string("../eth0"), std::string("eth0/.."),
                                   std::string("-eth0"), std::string("eth0\0x", 6),
                                   std::string(""), std::string(4096, 'e')}) {
    PropertyList r = configure(port);
    EXPECT_EQ(r.get("status")->int64Value(), 0) << "an unknown port";
    EXPECT_FALSE(r.get("userDefinedName"));
  }
  for (const char* address : {"10.0.0.9; reboot", "-x", "10.0.0", ""})
    EXPECT_EQ(configure("eth0", address).get("status")->int64Value(), 1) << address;
  EXPECT_EQ(configure("eth0", "10.0.0.9", "255.255.255.0", "--help").get("status")->int64Value(), 1);
  EXPECT_TRUE(toolCalls(sandbox_, "nmcli").size() <= 1u);
  EXPECT_TRUE(toolCalls(sandbox_, "networkctl").empty());
  std::error_code ec;
  for (fs::recursive_directory_iterator it(sandbox_.path("/etc"), ec), end; !ec && it != end;
       it.increment(ec))
    EXPECT_EQ(it->path().string().find(".network"), std::string::npos) << it->path();
}

TEST_F(NodeSafetyTest, KeysOfTheWrongKindGetTheirAnswersNeverACrash) {
  PropertyList big(std::string(1 << 20, 'x'));
  PlistArray mixed{PropertyList(1), PropertyList::dict(), PropertyList("10.0.0.1")};
  for (const char* key : {"searchPolicy", "removedSearchPolicy", "authSecret", "nameservers",
                          "doUpgrade", "role", "sanName", "computers", "dsType", "notifications",
                          "primaryController", "desiredSearchPolicy"}) {
    for (const PropertyList& value :
         {PropertyList(7), PropertyList("text"), PropertyList(mixed), PropertyList::dict(), big}) {
      PropertyList r = run("writeConfiguration", {{key, value}});
      ASSERT_TRUE(r.get("status")) << key << " " << describe(value).substr(0, 40);
    }
  }
  // A checked list: not an array reads as none, a non-text entry as unreachable.
  PropertyList check = run("checkClientConfiguration", {{"ips", PropertyList("10.0.0.1")}});
  EXPECT_EQ(check.get("reachableIPs")->size() + check.get("unreachableIPs")->size(), 0u);
  check = run("checkClientConfiguration", {{"ips", PropertyList(mixed)}});
  const PlistArray& unreachable = *check.get("unreachableIPs")->asArray();
  ASSERT_GE(unreachable.size(), 2u);
  EXPECT_EQ(unreachable[0], PropertyList(1));
  EXPECT_TRUE(unreachable[1].isDict());
  PropertyList gone = run("clearConfiguration", {{"removedSearchPolicy", PropertyList("x")}});
  EXPECT_TRUE(gone.get("properties"));
  EXPECT_TRUE(log_.contains("removedSearchPolicy is not an array"));
  EXPECT_TRUE(toolCalls(sandbox_, "rosterbind").empty());
  PropertyList dir = run("getDirbaseRecords", {{"recordTypesArray", PropertyList("x")},
                                               {"maxRecords", PropertyList("9")}});
  EXPECT_EQ(dir.get("status")->int64Value(), 100055);
}

TEST_F(NodeSafetyTest, UpgradedLimitsAreRaisedOnlyWhereLowAndOnlyOnAController) {
  std::string low(kRealisticConfig), fine(kRealisticConfig);
  fine.replace(fine.find("MaxConnections           138"), 28, "MaxConnections           139");
  std::string config = "/Library/Filesystems/Velm/config/";
  sandbox_.write(config + "Low.cfg", low);
  sandbox_.write(config + "Fine.cfg", fine);
  EXPECT_FALSE(doUpgradeToVelm2(false).error);
  EXPECT_EQ(sandbox_.read(config + "Low.cfg"), low) << "a client touches no volume";
  UpgradeOutcome out = doUpgradeToVelm2(true);
  EXPECT_FALSE(out.error);
  EXPECT_TRUE(out.restart);
  EXPECT_NE(sandbox_.read(config + "Low.cfg").find("139"), std::string::npos);
  EXPECT_EQ(sandbox_.read(config + "Fine.cfg"), fine) << "nothing to raise, no write";
}

}  // namespace
}  // namespace velm::test
