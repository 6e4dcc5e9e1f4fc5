#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "platform/fake_host_config.h"
#include "platform/host_config.h"
#include "platform/paths.h"
#include "support/sandbox.h"

namespace velm {
namespace {

class HostConfigTest : public test::SandboxTest {
 protected:
  void SetUp() override {
    ::setenv("VELM_SYSFS", sandbox_.path("/sys").c_str(), 1);
    resetPathsForTest();
  }
  void TearDown() override {
    ::unsetenv("VELM_SYSFS");
    resetPathsForTest();
  }

  // One interface directory under class/net.
  void netdev(const std::string& name, const std::string& type, std::initializer_list<const char*> extras,
              const char* carrier = nullptr) {
    std::string dir = "/sys/class/net/" + name;
    sandbox_.write(dir + "/type", type + "\n");
    for (const char* e : extras) std::filesystem::create_directories(sandbox_.path(dir + "/" + e));
    if (carrier) sandbox_.write(dir + "/carrier", carrier);
  }

  HostConfig& config() { return hostConfig(); }
};

TEST_F(HostConfigTest, PrettyHostnameWinsOverStaticName) {
  sandbox_.write("/etc/hostname", "# set by installer\n\n  box-01  \n");
  sandbox_.write("/etc/machine-info", "CHASSIS=server\nPRETTY_HOSTNAME=\"Rack \\\"A\\\" Controller\"\n");
  EXPECT_EQ(config().computerName(), "Rack \"A\" Controller");
}

TEST_F(HostConfigTest, StaticNameWhenNoPrettyOne) {
  sandbox_.write("/etc/hostname", "# set by installer\n\n  box-01  \n");
  sandbox_.write("/etc/machine-info", "PRETTY_HOSTNAME=\nCHASSIS=server\n");
  EXPECT_EQ(config().computerName(), "box-01");
}

TEST_F(HostConfigTest, KernelNameWhenNoFiles) {
  char buf[256] = {};
  ASSERT_EQ(::gethostname(buf, sizeof buf - 1), 0);
  sandbox_.write("/etc/hostname", "# only a comment\n");
  EXPECT_EQ(config().computerName(), std::string(buf));
}

TEST_F(HostConfigTest, LocalHostNameWithoutDaemonReturns) {
  auto name = config().localHostName();
  if (name) {
    EXPECT_FALSE(name->empty());
  }
}

TEST_F(HostConfigTest, OnlyWiredPhysicalPortsAreEthernet) {
  netdev("eth0", "1", {"device"});
  netdev("wlan0", "1", {"device", "wireless"});
  netdev("br0", "1", {"bridge"});
  netdev("bond0", "1", {"bonding"});
  netdev("veth1", "1", {});
  netdev("lo", "772", {});
  netdev("ib0", "32", {"device"});
  auto ports = config().networkPorts();
  ASSERT_TRUE(ports.has_value());
  std::vector<std::string> names, ethernet;
  for (const auto& p : *ports) {
    names.push_back(p.deviceName);
    if (p.ethernet) ethernet.push_back(p.deviceName);
  }
  EXPECT_EQ(names, (std::vector<std::string>{"bond0", "br0", "eth0", "ib0", "lo", "veth1", "wlan0"}));
  EXPECT_EQ(ethernet, std::vector<std::string>{"eth0"});
}

TEST_F(HostConfigTest, NoNetClassMeansNoPorts) { EXPECT_FALSE(config().networkPorts().has_value()); }

TEST_F(HostConfigTest, CarrierGivesMediaStatus) {
  netdev("up", "1", {"device"}, "1\n");
  netdev("nocable", "1", {"device"}, "0\n");
  netdev("down", "1", {"device"});  // the kernel refuses to read carrier while down
  netdev("odd", "1", {"device"}, "yes\n");
  MediaStatus up = config().mediaStatus("up");
  EXPECT_TRUE(up.ok);
  EXPECT_EQ(up.count, 1);
  EXPECT_EQ(up.status, 3);
  MediaStatus nocable = config().mediaStatus("nocable");
  EXPECT_TRUE(nocable.ok);
  EXPECT_EQ(nocable.status, 1);
  EXPECT_FALSE(config().mediaStatus("down").ok);
  EXPECT_FALSE(config().mediaStatus("odd").ok);
  EXPECT_FALSE(config().mediaStatus("missing").ok);
}

TEST_F(HostConfigTest, DeviceNamesCannotLeaveTheNetClass) {
  sandbox_.write("/sys/class/carrier", "1\n");
  sandbox_.write("/sys/class/net/carrier", "1\n");
  EXPECT_FALSE(config().mediaStatus("../").ok);
  EXPECT_FALSE(config().mediaStatus("..").ok);
  EXPECT_FALSE(config().mediaStatus("").ok);
}

TEST_F(HostConfigTest, FakeIsInstalledAndRecordsCalls) {
  ScopedFakeHostConfig fake;
  fake->media["en0"] = {true, 1, 3};
  fake->localName.reset();
  EXPECT_EQ(hostConfig().computerName(), "Velm Test");
  EXPECT_FALSE(hostConfig().localHostName().has_value());
  EXPECT_EQ(hostConfig().mediaStatus("en0").status, 3);
  EXPECT_FALSE(hostConfig().mediaStatus("en1").ok);
  EXPECT_EQ(fake->callCount("mediaStatus"), 2);
  EXPECT_EQ(fake->mediaQueries(), (std::vector<std::string>{"en0", "en1"}));
}

}  // namespace
}  // namespace velm
