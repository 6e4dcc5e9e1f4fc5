// Address form, loopback names, look-ups, the local address cache and socket helpers.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "adminlib/adminlib.h"
#include "adminlib/adminlib_test_helpers.h"
#include "platform/clock.h"
#include "platform/unique_fd.h"

namespace velm::test {
namespace {

in6_addr addr(const char* text) {
  in6_addr a{};
  std::uint8_t v4[4];
  if (::inet_pton(AF_INET, text, v4) == 1)
    AddrSetMapped(&a, v4);
  else
    EXPECT_EQ(::inet_pton(AF_INET6, text, &a), 1) << text;
  return a;
}

std::string raw(const in6_addr& a) {
  char out[kRawIpLen];
  return RawIp(&a, out, sizeof out);
}

class Sock46Test : public AdminlibTest {};

TEST_F(Sock46Test, MappedFormIsTheWireLayout) {
  in6_addr a = addr("10.1.2.3");
  const std::uint8_t expected[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff, 10, 1, 2, 3};
  EXPECT_EQ(std::memcmp(a.s6_addr, expected, 16), 0);
  EXPECT_TRUE(AddrIsMapped(&a));
  EXPECT_FALSE(AddrIsMapped(&in6addr_loopback));
  EXPECT_EQ(raw(a), "10.1.2.3");
  EXPECT_EQ(raw(addr("fd00::2")), "fd00::2");
}

TEST_F(Sock46Test, LoopbackNames) {
  struct Case {
    const char* name;
    const char* result;  // null: not a loopback name
  };
  for (const Case& c :
       {Case{"LOCALHOST", "127.0.0.1"}, Case{"localhost.localdomain", "127.0.0.1"},
        Case{"127.1", "127.0.0.1"}, Case{"127.0.0.1", "127.0.0.1"}, Case{"Localhost6", "::1"},
        Case{"localhost6.x", "::1"}, Case{"::1", "::1"}, Case{"127.0.0.2", nullptr},
        Case{"localhostx", nullptr}, Case{"0:0::1", nullptr}}) {
    in6_addr a{};
    EXPECT_EQ(IsLoopbackHostname(c.name, &a), c.result != nullptr) << c.name;
    if (c.result) {
      EXPECT_EQ(raw(a), c.result) << c.name;
    }
  }
}

TEST_F(Sock46Test, LookupOfLoopbackNameNeedsNoResolver) {
  in6_addr a{};
  EXPECT_EQ(GetHostByName("LOCALHOST", &a), 0);
  EXPECT_EQ(raw(a), "127.0.0.1");
}

TEST_F(Sock46Test, LookupReplacesUnusableResults) {
  ScopedEnv env("VELM_HOST_ADDRESSES", "192.0.2.77,10.9.8.7");
  in6_addr a{};
  EXPECT_EQ(_HostLookupR("10.1.1.1", &a, 1), 0);
  EXPECT_EQ(raw(a), "10.1.1.1");
  // A name that comes back as the unspecified address stands for this machine.
  EXPECT_EQ(_HostLookupR("::", &a, 1), 0);
  EXPECT_EQ(raw(a), "192.0.2.77");
  EXPECT_EQ(_HostLookupR("fe80::1", &a, 1), 0);
  EXPECT_EQ(raw(a), "192.0.2.77");
  // Without preferring local addresses there is nothing to replace it with.
  EXPECT_EQ(_HostLookupR("::", &a, 0), ENOENT);
  EXPECT_EQ(_HostLookupR("ff02::1", &a, 0), ENOENT);
  int rc = _HostLookupR("no-such-host.invalid", &a, 0);
  EXPECT_TRUE(rc == ENOENT || rc == EAGAIN) << rc;  // EAGAIN where no resolver answers
  errno = 0;
  EXPECT_EQ(GetHostByName("no-such-host.invalid", &a), -1);
  EXPECT_TRUE(errno == ENOENT || errno == EAGAIN);
}

TEST_F(Sock46Test, HostAddressesOverrideTheInterfaceList) {
  ScopedEnv env("VELM_HOST_ADDRESSES", "192.0.2.77, 127.0.0.2,bogus");
  in6_addr list[kLocalAddrMax];
  ASSERT_EQ(enumerate_ip_addrs(list), 2);
  EXPECT_EQ(raw(list[0]), "192.0.2.77");
  EXPECT_EQ(raw(list[1]), "127.0.0.2");
  EXPECT_EQ(raw(list[2]), "::");
  NicBinding nics[kLocalAddrMax];
  ASSERT_EQ(GetAllNicBindings(nics), 1);
  EXPECT_STREQ(nics[0].name, "velm0");
  EXPECT_EQ(nics[0].naddrs, 2);

  in6_addr mine = addr("192.0.2.77"), other = addr("192.0.2.78"), loop2 = addr("127.0.0.2");
  EXPECT_TRUE(IsLocalHost(&mine));
  EXPECT_FALSE(IsLocalHost(&other));
  RemapLocalHost(&mine);
  EXPECT_EQ(raw(mine), "127.0.0.1");
  RemapLocalHost(&other);
  EXPECT_EQ(raw(other), "192.0.2.78");
  RemapLocalHost(&loop2);  // already loopback: side-by-side controllers stay apart
  EXPECT_EQ(raw(loop2), "127.0.0.2");
}

TEST_F(Sock46Test, LocalAddressesAreCachedForFiveSeconds) {
  ScopedFakeClock clock;
  ScopedEnv env("VELM_HOST_ADDRESSES", "192.0.2.1");
  in6_addr a1 = addr("192.0.2.1"), a2 = addr("192.0.2.2");
  clock->advanceMicros(1);
  EXPECT_TRUE(IsLocalHost(&a1));
  ::setenv("VELM_HOST_ADDRESSES", "192.0.2.2", 1);
  clock->advanceMicros(4999999);
  EXPECT_TRUE(IsLocalHost(&a1));  // still the old fill
  clock->advanceMicros(1);
  EXPECT_TRUE(IsLocalHost(&a2));  // five seconds: filled again
  EXPECT_FALSE(IsLocalHost(&a1));
  ::setenv("VELM_HOST_ADDRESSES", "192.0.2.1", 1);
  clock->advanceMicros(1);
  ResetAddrLists();
  EXPECT_TRUE(IsLocalHost(&a1));
}

TEST_F(Sock46Test, RealInterfacesLeaveOutLoopbackAndLinkLocal) {
  in6_addr list[kLocalAddrMax];
  int n = enumerate_ip_addrs(list);
  for (int i = 0; i < n; ++i) {
    std::string t = raw(list[i]);
    EXPECT_NE(t.rfind("127.", 0), 0u) << t;
    EXPECT_NE(t, "::1");
    EXPECT_NE(t.rfind("fe80:", 0), 0u) << t;
  }
  NicBinding nics[kLocalAddrMax];
  int m = GetAllNicBindings(nics);
  for (int i = 0; i < m; ++i) {
    EXPECT_NE(std::string(nics[i].name).rfind("lo", 0), 0u);
    if (nics[i].hwaddr[0]) {
      EXPECT_EQ(std::strlen(nics[i].hwaddr), 14u);
    }
  }
}

TEST_F(Sock46Test, SockConnectReportsRefusal) {
  in6_addr lo = addr("127.0.0.1");
  int err = 0;
  EXPECT_EQ(SockConnect(&lo, freeLoopbackPort(), &err), -1);
  EXPECT_EQ(err, ECONNREFUSED);
  LoopbackPeer peer([](int) {});
  int fd = SockConnect(&lo, peer.port(), &err);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(err, 0);
  in6_addr a;
  int port = 0;
  EXPECT_EQ(GetPeerName(fd, &a, &port), 0);
  EXPECT_EQ(port, peer.port());
  EXPECT_EQ(raw(a), "127.0.0.1");
  ::close(fd);
}

TEST_F(Sock46Test, BindSameGivesOnePortToBothFamilies) {
  UniqueFd s6(::socket(AF_INET6, SOCK_STREAM, 0));
  int on = 1;
  ::setsockopt(s6.get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
  int s4 = ::socket(AF_INET, SOCK_STREAM, 0);
  int port = BindSame(&s4, s6.get(), 0, 0);
  ASSERT_GE(port, 49152);
  int p4 = 0, p6 = 0;
  GetSockName(s4, nullptr, &p4);
  GetSockName(s6.get(), nullptr, &p6);
  EXPECT_EQ(p4, port);
  EXPECT_EQ(p6, port);

  // The same single-port range again: the IPv4 socket binds, the IPv6 one can't, so the IPv4
  // socket is made anew and the range is used up.
  UniqueFd t6(::socket(AF_INET6, SOCK_STREAM, 0));
  ::setsockopt(t6.get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
  int t4 = ::socket(AF_INET, SOCK_STREAM, 0);
  ::close(s4);
  EXPECT_EQ(BindSame(&t4, t6.get(), port, port), 0);
  EXPECT_GE(t4, 0);
  int bound = -1;
  GetSockName(t4, nullptr, &bound);
  EXPECT_EQ(bound, 0);  // the replacement is unbound
  ::close(t4);

  int one = ::socket(AF_INET, SOCK_DGRAM, 0);
  int any = BindSame(&one, -1, 0, 0);  // one socket, no bounds: any port, read back
  EXPECT_GT(any, 0);
  ::close(one);
  int none = -1;
  EXPECT_EQ(BindSame(&none, -1, 0, 0), 0);
}

}  // namespace
}  // namespace velm::test
