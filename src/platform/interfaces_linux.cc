#include "platform/interfaces.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <atomic>
#include <cstdio>

namespace velm {
namespace {

std::string numericText(const struct sockaddr* sa) {
  if (!sa) return {};
  char buf[INET6_ADDRSTRLEN] = {};
  if (sa->sa_family == AF_INET) {
    auto* in = reinterpret_cast<const struct sockaddr_in*>(sa);
    if (!::inet_ntop(AF_INET, &in->sin_addr, buf, sizeof buf)) return {};
  } else if (sa->sa_family == AF_INET6) {
    auto* in6 = reinterpret_cast<const struct sockaddr_in6*>(sa);
    if (!::inet_ntop(AF_INET6, &in6->sin6_addr, buf, sizeof buf)) return {};
  } else {
    return {};
  }
  return buf;
}

std::string macText(const struct sockaddr* sa) {
  auto* ll = reinterpret_cast<const struct sockaddr_ll*>(sa);
  if (ll->sll_halen == 0 || ll->sll_halen > sizeof ll->sll_addr) return {};
  std::string out;
  for (unsigned i = 0; i < ll->sll_halen; ++i) {
    char part[4];
    std::snprintf(part, sizeof part, i ? ":%02x" : "%02x", ll->sll_addr[i]);
    out += part;
  }
  return out;
}

class LinuxInterfaceLister : public InterfaceLister {
 public:
  std::optional<std::vector<NetworkInterface>> interfaces() override {
    struct ifaddrs* head = nullptr;
    if (::getifaddrs(&head) != 0) return std::nullopt;
    std::vector<NetworkInterface> out;
    for (struct ifaddrs* ifa = head; ifa; ifa = ifa->ifa_next) {
      if (!ifa->ifa_name) continue;
      std::string name(ifa->ifa_name);
      // getifaddrs gives one entry per address, grouped by family; an IPv4 alias carries its
      // label ("eth0:1") but belongs to eth0.
      if (auto colon = name.find(':'); colon != std::string::npos) name.resize(colon);
      NetworkInterface* entry = nullptr;
      for (auto& i : out)
        if (i.name == name) entry = &i;
      if (!entry) {
        out.push_back(NetworkInterface{name, 0, {}, {}});
        entry = &out.back();
      }
      if (!ifa->ifa_addr) continue;
      int family = ifa->ifa_addr->sa_family;
      if (family == AF_PACKET) {
        entry->flags |= ifa->ifa_flags;
        entry->macAddress = macText(ifa->ifa_addr);
      } else if (family == AF_INET || family == AF_INET6) {
        entry->flags |= ifa->ifa_flags;
        InterfaceAddress a{family, numericText(ifa->ifa_addr), numericText(ifa->ifa_netmask)};
        if (!a.address.empty()) entry->addresses.push_back(std::move(a));
      }
    }
    ::freeifaddrs(head);
    return out;
  }
};

LinuxInterfaceLister gLinuxLister;
std::atomic<InterfaceLister*> gTestLister{nullptr};

}  // namespace

InterfaceLister& interfaceLister() {
  InterfaceLister* l = gTestLister.load();
  return l ? *l : gLinuxLister;
}

void setInterfaceListerForTest(InterfaceLister* lister) { gTestLister.store(lister); }

}  // namespace velm
