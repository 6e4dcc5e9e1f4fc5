// An in-memory HostConfig for tests: answers what it was given, counts calls, fails when told to.
#pragma once

#include <map>
#include <mutex>

#include "platform/host_config.h"

namespace velm {

class FakeHostConfig : public HostConfig {
 public:
  std::optional<std::string> computerName() override;
  std::optional<std::string> localHostName() override;
  std::optional<std::vector<NetworkPort>> networkPorts() override;
  MediaStatus mediaStatus(const std::string& deviceName) override;
  std::optional<std::vector<std::string>> devicesOfDisabledServices() override;

  // What the calls answer; a nothing value is a failure. A device without media is a failed
  // media request.
  std::optional<std::string> name = "Velm Test";
  std::optional<std::string> localName = "velm-test.local";
  std::optional<std::vector<NetworkPort>> ports = std::vector<NetworkPort>{};
  std::map<std::string, MediaStatus> media;
  std::optional<std::vector<std::string>> disabledServiceDevices = std::vector<std::string>{};

  // Number of calls per operation name ("computerName", "mediaStatus", ...).
  int callCount(const std::string& operation) const;
  // Device names asked for by mediaStatus, in order.
  std::vector<std::string> mediaQueries() const;

 private:
  void record(const std::string& operation);
  mutable std::mutex mutex_;  // guards calls_ and mediaQueries_; leaf
  std::map<std::string, int> calls_;
  std::vector<std::string> mediaQueries_;
};

// Installs a FakeHostConfig for the life of a test scope.
class ScopedFakeHostConfig {
 public:
  ScopedFakeHostConfig() { setHostConfigForTest(&config_); }
  ~ScopedFakeHostConfig() { setHostConfigForTest(nullptr); }
  FakeHostConfig& operator*() { return config_; }
  FakeHostConfig* operator->() { return &config_; }

 private:
  FakeHostConfig config_;
};

}  // namespace velm
