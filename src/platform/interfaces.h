// The interface lister: this machine's network interfaces with their addresses, as the kernel
// reports them (loopback and virtual ones included; callers filter).
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace velm {

struct InterfaceAddress {
  int family = 0;           // AF_INET or AF_INET6
  std::string address;      // numeric text
  std::string netmask;      // numeric text: dotted for IPv4; empty when unknown
};

struct NetworkInterface {
  std::string name;          // "eth0"; an alias label ("eth0:1") is folded into its interface
  unsigned flags = 0;        // IFF_* bits
  std::string macAddress;    // "aa:bb:cc:dd:ee:ff"; empty when the link has none
  std::vector<InterfaceAddress> addresses;  // in the order the kernel gave them
};

class InterfaceLister {
 public:
  virtual ~InterfaceLister() = default;
  // Interfaces in the order of their first appearance; nothing when the list can't be had.
  virtual std::optional<std::vector<NetworkInterface>> interfaces() = 0;
};

// The lister in force: getifaddrs unless a test installed another (caller keeps it).
InterfaceLister& interfaceLister();
void setInterfaceListerForTest(InterfaceLister* lister);

// A fixed list, for tests; fails when told to.
class FakeInterfaceLister : public InterfaceLister {
 public:
  std::optional<std::vector<NetworkInterface>> interfaces() override {
    ++calls;
    if (fail) return std::nullopt;
    return list;
  }
  std::vector<NetworkInterface> list;
  bool fail = false;
  int calls = 0;
};

}  // namespace velm
