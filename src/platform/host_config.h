// HostConfigStore and HostConfigPrefs: this machine's names and network ports.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace velm {

struct NetworkPort {
  std::string deviceName;  // "eth0"
  bool ethernet = false;   // a wired Ethernet port
};

// The media request's answer: ok is false when the request failed; status bit 1 = valid,
// bit 2 = active.
struct MediaStatus {
  bool ok = false;
  int count = 0;
  int status = 0;
};

class HostConfig {
 public:
  virtual ~HostConfig() = default;
  // The computer name; nothing when the store can't be reached.
  virtual std::optional<std::string> computerName() = 0;
  // The local (multicast DNS) host name; nothing on any failure.
  virtual std::optional<std::string> localHostName() = 0;
  // All network ports; nothing when the configuration can't be read.
  virtual std::optional<std::vector<NetworkPort>> networkPorts() = 0;
  virtual MediaStatus mediaStatus(const std::string& deviceName) = 0;
  // Device names of Ethernet ports whose network service is switched off; nothing when the list
  // of services can't be read.
  virtual std::optional<std::vector<std::string>> devicesOfDisabledServices() = 0;
};

// The configuration in force: the Linux one unless a test installed another (caller keeps it).
HostConfig& hostConfig();
void setHostConfigForTest(HostConfig* config);

}  // namespace velm
