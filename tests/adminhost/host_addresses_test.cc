#include <gtest/gtest.h>
#include <net/if.h>
#include <sys/socket.h>

#include <cstdlib>

#include "adminhost/host_common.h"
#include "platform/interfaces.h"
#include "platform/paths.h"
#include "support/sandbox.h"

namespace velm {
namespace {

class HostAddressesTest : public test::SandboxTest {
 protected:
  void SetUp() override {
    ::unsetenv("VELM_HOST_ADDRESSES");
    ::setenv("VELM_SYSFS", sandbox_.path("/sys").c_str(), 1);
    resetPathsForTest();
    setInterfaceListerForTest(&lister_);
    lister_.list = {
        {"lo", IFF_UP | IFF_LOOPBACK, "", {{AF_INET, "127.0.0.1", "255.0.0.0"}}},
        {"eth0", IFF_UP, "52:54:00:12:34:56",
         {{AF_INET, "192.168.1.10", "255.255.255.0"},
          {AF_INET, "10.0.0.5", "255.0.0.0"},
          {AF_INET6, "fe80::1", "ffff:ffff:ffff:ffff::"}}},
        {"dummy0", IFF_UP, "", {{AF_INET, "10.9.9.9", "255.255.255.255"}}},
        {"lan", IFF_UP | IFF_LOOPBACK, "", {{AF_INET, "127.0.0.9", "255.0.0.0"}}},
        {"eth1", IFF_UP, "52:54:00:aa:bb:cc", {}},
    };
  }
  void TearDown() override {
    setInterfaceListerForTest(nullptr);
    ::unsetenv("VELM_HOST_ADDRESSES");
    ::unsetenv("VELM_SYSFS");
    resetPathsForTest();
  }

  static std::vector<std::string> field(const PropertyList& entries, const char* key) {
    std::vector<std::string> out;
    for (const auto& e : *entries.asArray()) out.push_back(e.getString(key) ? *e.getString(key) : "?");
    return out;
  }

  FakeInterfaceLister lister_;
};

using Strings = std::vector<std::string>;

TEST_F(HostAddressesTest, ListsAddressesOfRealInterfacesOnly) {
  sandbox_.write("/sys/class/net/eth0/ifalias", "Storage network\n");
  PropertyList info = get_interfaces_info();
  EXPECT_EQ(field(info, "ipAddress"), (Strings{"192.168.1.10", "10.0.0.5", "fe80::1"}));
  EXPECT_EQ(field(info, "family"), (Strings{"AF_INET", "AF_INET", "AF_INET6"}));
  EXPECT_EQ(field(info, "name"), (Strings{"eth0", "eth0", "eth0"}));
  EXPECT_EQ(field(info, "subnetMask"), (Strings{"255.255.255.0", "255.0.0.0", "ffff:ffff:ffff:ffff::"}));
  EXPECT_EQ(field(info, "userDefinedName"), (Strings{"Storage network", "Storage network", "Storage network"}));
  EXPECT_EQ(field(info, "macAddress")[0], "52:54:00:12:34:56");
}

TEST_F(HostAddressesTest, MissingAliasIsEmptyAndFailedListIsEmpty) {
  EXPECT_EQ(field(get_interfaces_info(), "userDefinedName"), (Strings{"", "", ""}));
  lister_.fail = true;
  EXPECT_EQ(get_interfaces_info().size(), 0u);
  EXPECT_EQ(get_host_ips().size(), 0u);
}

TEST_F(HostAddressesTest, HostIpsAreTheIPv4Addresses) {
  PropertyList ips = get_host_ips();
  ASSERT_EQ(ips.size(), 2u);
  EXPECT_EQ(*(*ips.asArray())[0].asString(), "192.168.1.10");
  EXPECT_EQ(*(*ips.asArray())[1].asString(), "10.0.0.5");
}

TEST_F(HostAddressesTest, StandInAddressesReplaceTheRealIPv4Ones) {
  ::setenv("VELM_HOST_ADDRESSES", "127.0.0.2, 127.0.0.3,bogus,,10.1.2.3", 1);
  PropertyList info = get_interfaces_info();
  EXPECT_EQ(field(info, "ipAddress"), (Strings{"127.0.0.2", "127.0.0.3", "10.1.2.3", "fe80::1"}));
  EXPECT_EQ(field(info, "name"), (Strings{"velm0", "velm0", "velm0", "eth0"}));
  EXPECT_EQ(field(info, "subnetMask")[0], "255.0.0.0");
  EXPECT_EQ(field(info, "userDefinedName")[0], "");

  PropertyList ips = get_host_ips();
  ASSERT_EQ(ips.size(), 3u);
  EXPECT_EQ(*(*ips.asArray())[2].asString(), "10.1.2.3");
}

// The real lister, on whatever machine runs the tests: aliases are folded and loopback dropped.
TEST_F(HostAddressesTest, RealInterfacesHaveNoLabelsAndNoLoopback) {
  setInterfaceListerForTest(nullptr);
  auto list = interfaceLister().interfaces();
  ASSERT_TRUE(list.has_value());
  for (const auto& i : *list) EXPECT_EQ(i.name.find(':'), std::string::npos) << i.name;
  for (const auto& name : field(get_interfaces_info(), "name")) {
    EXPECT_NE(name.rfind("lo", 0), 0u) << name;
  }
}

}  // namespace
}  // namespace velm
