// configureNetworkInterface: a fixed IPv4 address on a port, through NetworkManager when it runs,
// else through a systemd-networkd file of our own. Tests put another configurator in place.
#pragma once

#include <optional>
#include <string>

namespace velm {

inline constexpr const char* kNmcli = "/usr/bin/nmcli";
inline constexpr const char* kNetworkctl = "/usr/bin/networkctl";

class PortConfigurator {
 public:
  virtual ~PortConfigurator() = default;
  // 0 or 1; *userDefinedName gets the port's display name when the port was found.
  virtual int configPortNamed(const std::string& port, const std::string& address,
                              const std::string& subnetMask, const std::string& router,
                              const std::string& family,
                              std::optional<std::string>* userDefinedName) = 0;
};

// The one in force: the Linux one unless a test installed another (nullptr restores it).
PortConfigurator& portConfigurator();
void setPortConfiguratorForTest(PortConfigurator* configurator);

// The kernel's name of the port called name (case aside) under $VELM_SYSFS/class/net.
std::optional<std::string> kernelPortName(const std::string& name);
// The prefix length of a contiguous IPv4 mask, or nothing.
std::optional<int> prefixOfMask(const std::string& mask);

}  // namespace velm
