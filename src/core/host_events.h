// What the plugin attaches at its real start (the first doIdle with count 0): the event loop on a
// thread of its own, the host's event sources, the power source and the service advertiser.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/event_loop.h"
#include "platform/host_watches.h"
#include "platform/power_events.h"
#include "platform/service_advertiser.h"
#include "plist/plist.h"

namespace velm {

class VelmPlugin;

// The nics entry of the TXT record: "name:address" for each interface that has both, ";" after
// every entry but the last of the list.
std::string nicsText(const PropertyList& interfaces);

struct HostEvents : ServiceDelegate {
  explicit HostEvents(VelmPlugin& plugin) : plugin(plugin) {}
  // The loop goes first, so no callback runs while the sources are taken apart.
  ~HostEvents() override;

  void serviceWillPublish(std::uint64_t id) override;
  void serviceDidNotPublish(std::uint64_t id, int error, const std::string& text) override;
  void serviceDidStop(std::uint64_t id) override;

  VelmPlugin& plugin;
  EventLoop loop;
  // How many times each source is attached. A second doIdle with count 0 attaches everything
  // again, and each event then does its work once per attachment; the host facility itself is
  // opened once, so repeated starts can't use up the machine's descriptors.
  int networkTimes = 0, searchPolicyTimes = 0, powerTimes = 0, diskTimes = 0, configTimes = 0;
  int disksChangedTimes = 0, sanConfigChangedTimes = 0;
  std::vector<std::unique_ptr<NetworkChangeWatch>> network;
  std::vector<std::unique_ptr<InotifyWatch>> searchPolicy;
  std::vector<std::unique_ptr<PowerEventSource>> power;
  std::vector<std::unique_ptr<DiskEventWatch>> disks;
  std::vector<std::unique_ptr<InotifyWatch>> notifications;
  std::vector<std::unique_ptr<ConfigTreeWatch>> config;
  std::unique_ptr<ServiceAdvertiser> advertiser;
  std::uint64_t netService = 0;  // the current publication; 0 for none
  // The role as last read under the plugin lock, for the power source, which takes no lock.
  std::atomic<bool> controller{false};
  bool fabricStarted = false;
};

}  // namespace velm
