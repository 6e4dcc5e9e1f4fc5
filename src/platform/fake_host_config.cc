#include "platform/fake_host_config.h"

namespace velm {

void FakeHostConfig::record(const std::string& operation) {
  std::scoped_lock lock(mutex_);
  ++calls_[operation];
}

int FakeHostConfig::callCount(const std::string& operation) const {
  std::scoped_lock lock(mutex_);
  auto it = calls_.find(operation);
  return it == calls_.end() ? 0 : it->second;
}

std::vector<std::string> FakeHostConfig::mediaQueries() const {
  std::scoped_lock lock(mutex_);
  return mediaQueries_;
}

std::optional<std::string> FakeHostConfig::computerName() {
  record("computerName");
  return name;
}

std::optional<std::string> FakeHostConfig::localHostName() {
  record("localHostName");
  return localName;
}

std::optional<std::vector<NetworkPort>> FakeHostConfig::networkPorts() {
  record("networkPorts");
  return ports;
}

MediaStatus FakeHostConfig::mediaStatus(const std::string& deviceName) {
  record("mediaStatus");
  {
    std::scoped_lock lock(mutex_);
    mediaQueries_.push_back(deviceName);
  }
  auto it = media.find(deviceName);
  return it == media.end() ? MediaStatus{} : it->second;
}

std::optional<std::vector<std::string>> FakeHostConfig::devicesOfDisabledServices() {
  record("devicesOfDisabledServices");
  return disabledServiceDevices;
}

}  // namespace velm
