// doIdle, the host event sources it attaches at count 0, and the service advertisement. Every
// callback but the power one takes the plugin lock, so events and commands never run at once; an
// event that comes while a command runs waits in its descriptor until the lock is free.
#include "core/host_events.h"

#include <mutex>

#include "core/san_computer.h"
#include "core/velm_plugin.h"
#include "fabric/device_manager.h"
#include "gateway/san_filesystem.h"
#include "platform/clock.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "platform/volume_events.h"
#include "plist/format.h"

namespace velm {
namespace {

constexpr std::string_view kVolumeKind = "qufs";
constexpr std::uint16_t kServicePort = 311;
constexpr std::string_view kDisksChanged = "com.orvane.velm.disksChanged";
constexpr std::string_view kSanConfigChanged = "com.orvane.velm.sanConfigChanged";
constexpr std::string_view kSearchPolicyKey =
    "com.orvane.RosterService.NotifyTypeStandard:SearchPolicyChanged";

const char* serviceTypeForRole(const PropertyList& role) {
  const std::string* r = role.asString();
  if (r && *r == "CONTROLLER") return "_velm2server._tcp";
  if (r && *r == "CLIENT") return "_velm2client._tcp";
  return "_velm2unconfig._tcp";
}

void invalidate(CachedObject& object, std::initializer_list<std::string_view> keys) {
  for (std::string_view key : keys) object.invalidateObjectValueForKey(key);
}

}  // namespace

// The nics text of the TXT record: "name:address" per interface, ";" between.
std::string nicsText(const PropertyList& interfaces) {
  std::string nics;
  const PlistArray* list = interfaces.asArray();
  if (!list) return nics;
  for (size_t i = 0; i < list->size(); ++i) {
    const PropertyList* name = (*list)[i].get("name");
    const PropertyList* address = (*list)[i].get("ipAddress");
    // Deliberate: a skipped last entry leaves the one before it with its semicolon.
    if (!name || !address) continue;
    nics += format("%@:%@%@", *name, *address, i + 1 < list->size() ? ";" : "");
  }
  return nics;
}

HostEvents::~HostEvents() {
  loop.stop();
  // The fabric's events and timers are on this loop: they go with it.
  if (fabricStarted) SANDeviceManager::defaultManager().stopNotifications();
  if (advertiser && netService) advertiser->stop(netService);
}

void HostEvents::serviceWillPublish(std::uint64_t) { NLog("Net service will publish!"); }

void HostEvents::serviceDidNotPublish(std::uint64_t id, int error, const std::string& text) {
  std::scoped_lock lock(plugin.pluginLock());
  if (error == kServiceNameCollision)
    NError(
        "%s: A name collision occurred. A service is already running with that name someplace "
        "else.",
        "netService:didNotPublish");
  else
    NError("%s: Some unknown netservice error occurred (%d) (%@).", "netService:didNotPublish",
           error, text);
  // A late event of an old service leaves the current one alone.
  if (netService == id) netService = 0;
}

void HostEvents::serviceDidStop(std::uint64_t id) {
  std::scoped_lock lock(plugin.pluginLock());
  NLog("Net service did stop");
  if (netService == id) netService = 0;
}

HostEvents& VelmPlugin::hostEvents() {
  if (!events_) events_ = std::make_unique<HostEvents>(*this);
  return *events_;
}

std::optional<PropertyList> VelmPlugin::doIdleWithRequest(const PropertyList& request) {
  const PropertyList* count = request.get("count");
  long long n = count ? count->int64Value().value_or(0) : 0;
  PropertyList response = PropertyList::dict();
  response.set("result", doIdleAtCount(n));
  return response;
}

int VelmPlugin::doIdleAtCount(long long count) {
  if (count == 0) {
    // Deliberate: a second count 0 registers everything again.
    registerForNetworkChangeNotifications();
    registerForSearchPolicyChangeNotifications();
    registerForPowerEventNotifications();
    registerForVolumeEventNotifications();
    registerForFileSystemNotifications();
    registerForConfigChangeNotifications();
    advertiseZeroConfPresense();
    prereadLUNs();
    NLog("Plugin init, self '%@'", format("VelmPlugin %p", static_cast<const void*>(this)));
    startFabricNotifications();
    initHistorySystem();
    // From here on the sources' callbacks run, each under the plugin lock.
    hostEvents().loop.startThread();
  }
  NLog("DoIdle at count %d", static_cast<int>(count));
  if (events_) {
    events_->controller = SANComputer::thisComputer().isController();
    for (auto& source : events_->power) source->reevaluate();
  }
  int history = updateHistoryData();
  int notifications = processNotifications();
  return history != 0 ? history : notifications;
}

void VelmPlugin::startFabricNotifications() {
  hostEvents().fabricStarted = true;
  SANDeviceManager::defaultManager().startNotifications(hostEvents().loop);
}

void VelmPlugin::prereadLUNs() {
  std::uint64_t start = clock().monotonicMicros();
  PropertyList luns = SANFilesystem::localFilesystem().visibleLUNs();
  double seconds = static_cast<double>(clock().monotonicMicros() - start) / 1000000.0;
  NLog("%s: Read %d LUNs at startup, took %.2f seconds", __func__, static_cast<int>(luns.size()),
       seconds);
}

void VelmPlugin::registerForNetworkChangeNotifications() {
  HostEvents& events = hostEvents();
  // Deliberate: attached again, the work runs once more per event.
  if (!events.network.empty()) {
    ++events.networkTimes;
    return;
  }
  auto watch = std::make_unique<NetworkChangeWatch>();
  if (!watch->start(events.loop, [this, &events] {
        std::scoped_lock lock(ourLock_);
        for (int i = 0; i < events.networkTimes; ++i) {
          invalidate(SANComputer::thisComputer(),
                     {"networkInterfaces", "availableNetworkInterfaceNames", "multicastDNSName"});
          advertiseZeroConfPresense();
        }
      })) {
    NError("HostConfigPrefsManager.startNotifications: HostConfigStoreCreate() failed");
    return;
  }
  events.network.push_back(std::move(watch));
  events.networkTimes = 1;
}

void VelmPlugin::registerForSearchPolicyChangeNotifications() {
  HostEvents& events = hostEvents();
  if (!events.searchPolicy.empty()) {
    ++events.searchPolicyTimes;
    return;
  }
  auto watch = std::make_unique<InotifyWatch>();
  if (!watch->start(events.loop, [this, &events](const std::vector<std::string>&) {
        std::scoped_lock lock(ourLock_);
        for (int i = 0; i < events.searchPolicyTimes; ++i)
          invalidate(SANComputer::thisComputer(), {"searchPolicy"});
      })) {
    NError("HostConfigPrefsManager.startNotifications: HostConfigStoreCreate() failed");
    return;
  }
  // On Linux the search policy is the passwd sources of nsswitch.conf.
  if (!watch->watchDirectory(hostPath("/etc"), {"nsswitch.conf"})) {
    NError(
        "HostConfigPrefsManager.startNotifications: "
        "HostConfigStoreKeyCreate(kRosterStdNotifySearchPolicyChanged) failed");
    return;
  }
  NLog("%s: watching %@", __func__, kSearchPolicyKey);
  events.searchPolicy.push_back(std::move(watch));
  events.searchPolicyTimes = 1;
}

void VelmPlugin::registerForPowerEventNotifications() {
  HostEvents& events = hostEvents();
  if (!events.power.empty()) {
    ++events.powerTimes;
    return;
  }
  std::unique_ptr<PowerEventSource> source = makePowerEventSource();
  // The power callback takes no lock: it reads the role as the last idle tick or configuration
  // change saw it, not the cache itself, which only the lock's holder may touch.
  events.controller = SANComputer::thisComputer().isController();
  if (!source || !source->start(events.loop, [&events] { return events.controller.load(); })) {
    NError("WARNING: DevRegisterForSystemPower failed!");
    return;
  }
  events.power.push_back(std::move(source));
  events.powerTimes = 1;
}

void VelmPlugin::registerForVolumeEventNotifications() {
  namespace d = disk_description;
  HostEvents& events = hostEvents();
  if (!events.disks.empty()) {
    ++events.diskTimes;
    return;
  }
  auto kindOf = [](const PropertyList& desc) {
    const std::string* kind = desc.getString(d::kVolumeKind);
    return kind ? std::string_view(*kind) : std::string_view();
  };
  auto appearedOrGone = [this, kindOf, &events](const PropertyList& desc, bool appeared) {
    std::scoped_lock lock(ourLock_);
    for (int i = 0; i < events.diskTimes; ++i) {
      if (kindOf(desc) != kVolumeKind) {
        if (appeared)
          NLog("%s: clearing cache due to appearance of: %@", "diskAppeared", desc);
        else
          NLog("%s: clearing cache due to disappearance of: %@", "diskDisappeared", desc);
        SANFilesystem::localFilesystem().clearCache();
        continue;
      }
      // A SAN volume coming or going is no change in the visible LUNs.
      if (const PropertyList* name = desc.get(d::kVolumeName)) {
        if (appeared)
          NLog("%s: Volume '%@' Appeared: %@", "diskAppeared", *name, desc);
        else
          NLog("%s: Volume '%@' Disappeared", "diskDisappeared", *name);
      }
    }
  };
  DiskEventWatch::Callbacks callbacks;
  callbacks.appeared = [appearedOrGone](const PropertyList& desc) { appearedOrGone(desc, true); };
  callbacks.disappeared = [appearedOrGone](const PropertyList& desc) {
    appearedOrGone(desc, false);
  };
  callbacks.changed = [this, kindOf, &events](const PropertyList& desc,
                                              const std::vector<std::string>& keys) {
    const char* fn = "diskDescriptionChanged";
    std::scoped_lock lock(ourLock_);
    for (int i = 0; i < events.diskTimes; ++i) {
      for (const std::string& key : keys) {
        if (key != d::kMediaContent) continue;
        NLog("%s: clearing cache due to content change of: %@", fn, desc);
        SANFilesystem::localFilesystem().clearCache();
      }
      const PropertyList* name = desc.get(d::kVolumeName);
      if (kindOf(desc) != kVolumeKind || !name) continue;
      PlistArray changed;
      for (const std::string& key : keys) changed.emplace_back(key);
      if (desc.get(d::kVolumePath))
        NLog("%s: Volume '%@' description changed (%@): %@", fn, *name, PropertyList(changed),
             desc);
      else
        NLog("%s: Volume '%@' was unmounted", fn, *name);
    }
  };
  auto watch = std::make_unique<DiskEventWatch>();
  if (!watch->start(events.loop, std::move(callbacks))) {
    NError("%s: unable to watch disks and mounts", __func__);
    return;
  }
  events.disks.push_back(std::move(watch));
  events.diskTimes = 1;
}

void VelmPlugin::registerForFileSystemNotifications() {
  HostEvents& events = hostEvents();
  std::string dir = hostPath("/var/run/velm/notify");
  for (std::string_view name : {kDisksChanged, kSanConfigChanged}) {
    bool disks = name == kDisksChanged;
    int& times = disks ? events.disksChangedTimes : events.sanConfigChangedTimes;
    if (times > 0) {
      ++times;
      continue;
    }
    auto watch = std::make_unique<InotifyWatch>();
    bool started =
        watch->start(events.loop, [this, disks, &times](const std::vector<std::string>&) {
          std::scoped_lock lock(ourLock_);
          for (int i = 0; i < times; ++i) {
            if (disks)
              NLog("%s: received com.orvane.velm.disksChanged notification",
                   "receiveDisksChangedNotification");
            else
              NLog("%s: received com.orvane.velm.sanConfigChanged notification",
                   "receiveSanConfigChangedNotification");
            SANFilesystem::localFilesystem().clearCache();
            if (!disks) SANComputer::thisComputer().clearCache();
          }
        });
    if (!started || !watch->watchDirectory(dir, {std::string(name)}, true)) {
      unsigned err = static_cast<unsigned>(errno);
      if (disks)
        NError("%s: unable to register for com.orvane.velm.disksChanged notification (%u)",
               __func__, err);
      else
        NError("%s: unable to register for com.orvane.velm.sanConfigChanged notification (%u)",
               __func__, err);
      continue;
    }
    events.notifications.push_back(std::move(watch));
    times = 1;
  }
}

void VelmPlugin::registerForConfigChangeNotifications() {
  HostEvents& events = hostEvents();
  if (!events.config.empty()) {
    ++events.configTimes;
    return;
  }
  auto watch = std::make_unique<ConfigTreeWatch>();
  // Which path changed doesn't matter.
  if (!watch->start(events.loop, [this, &events] {
        std::scoped_lock lock(ourLock_);
        for (int i = 0; i < events.configTimes; ++i) {
          invalidate(SANComputer::thisComputer(),
                     {"uuid", "nameServers", "role", "sanName", "authSecret", "serverAssistantRole",
                      "serverAssistantDSType"});
          SANFilesystem::localFilesystem().invalidateObjectValueForKey("volumes");
        }
        events.controller = SANComputer::thisComputer().isController();
      })) {
    NError("%s: unable to watch the configuration files", __func__);
    return;
  }
  events.config.push_back(std::move(watch));
  events.configTimes = 1;
}

void VelmPlugin::advertiseZeroConfPresense() {
  const char* fn = "advertiseZeroConfPresense";
  HostEvents& events = hostEvents();
  // The advertiser belongs to the event thread once it runs: from elsewhere the work is posted
  // there, and runs as soon as the caller gives the plugin lock back.
  if (events.loop.running() && !events.loop.onLoopThread()) {
    events.loop.post([this] {
      std::scoped_lock lock(ourLock_);
      advertiseZeroConfPresense();
    });
    return;
  }
  if (!events.advertiser) events.advertiser = makeServiceAdvertiser(events.loop);
  if (events.netService) {
    NLog("stopping netService %@",
         PropertyList(static_cast<unsigned long long>(events.netService)));
    // The old service's stop event comes later and finds another service current.
    events.advertiser->stop(events.netService);
    events.netService = 0;
  }
  SANComputer& computer = SANComputer::thisComputer();
  PropertyList role = computer.role();
  ServiceSpec spec;
  spec.type = serviceTypeForRole(role);
  spec.port = kServicePort;
  PropertyList assistantRole;
  if (const std::string* r = role.asString(); r && *r == "CONTROLLER")
    assistantRole = computer.objectValueForKey("serverAssistantRole");

  PropertyList interfaces = computer.networkInterfaces();
  PropertyList txt = PropertyList::dict();
  txt.set("uuid", computer.uuid());
  txt.set("nics", nicsText(interfaces));
  txt.set("time", format("%.0f", static_cast<double>(clock().wallMicros()) / 1e6));
  if (!assistantRole.isNull()) txt.set("role", assistantRole);
  NLog("%s: Service %@ TXT record dictionary: %@", fn, spec.type, txt);

  TxtEntries entries;
  for (const auto& [key, value] : *txt.asDict())
    entries.emplace_back(key, value.isString() ? *value.asString() : describe(value));
  spec.txt = encodeTxtRecord(entries);
  if (!spec.txt) {
    NError("%s: unable to create TXT record from dictionary", fn);
  } else if (std::optional<TxtEntries> back = decodeTxtRecord(*spec.txt)) {
    PropertyList after = PropertyList::dict();
    for (auto& [key, value] : *back) after.set(key, value);
    NLog("%s: dictionary after conversion: %@", fn, after);
  }
  events.netService = events.advertiser->publish(spec, &events);
  NLog("Advertising zeroconf with %d nics", static_cast<int>(interfaces.size()));
}

}  // namespace velm
