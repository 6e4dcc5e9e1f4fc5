#include "fabric/device_manager.h"

#include <cstdio>
#include <ctime>

#include "platform/clock.h"
#include "platform/event_loop.h"
#include "platform/files.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "plist/format.h"

namespace velm {
namespace {

constexpr std::string_view kFibreChannel = "Fibre Channel Interface";
constexpr std::string_view kLinkEstablished = "Link Established";
constexpr double kUnixOf2001 = 978307200.0;

std::unique_ptr<SANDeviceManager>& instance() {
  static std::unique_ptr<SANDeviceManager> manager;
  return manager;
}

// The domains of the node's paths whose link is up: a path without a Port Status counts as up.
std::set<long long> upDomains(const std::optional<PropertyList>& stats) {
  std::set<long long> domains;
  const PlistArray* paths = stats ? stats->asArray() : nullptr;
  if (!paths) return domains;
  for (const PropertyList& path : *paths) {
    const std::string* status = path.getString(kPortStatus);
    if (status && *status != kLinkEstablished) continue;
    const PropertyList* domain = path.get(kScsiDomainIdentifier);
    if (domain && domain->isNumber()) domains.insert(domain->int64Value().value_or(0));
  }
  return domains;
}

// "(1, 2)": a set of domain ids as the log lines show it.
PropertyList domainList(const std::set<long long>& ids) {
  PlistArray list;
  for (long long id : ids) list.emplace_back(id);
  return PropertyList(std::move(list));
}

PropertyList nowAsDate() {
  return PropertyList(PlistDate{static_cast<double>(clock().wallMicros()) / 1e6 - kUnixOf2001});
}

}  // namespace

std::recursive_mutex& deviceManagerLock() {
  static std::recursive_mutex lock;
  return lock;
}

std::string wwnStringFromData(const PlistData& data) {
  std::uint8_t b[8] = {};
  for (std::size_t i = 0; i < data.size() && i < 8; ++i) b[i] = data[i];
  char text[24];
  std::snprintf(text, sizeof text, "%02X:%02X:%02X:%02X:%02X:%02X:%02X:%02X", b[0], b[1], b[2],
                b[3], b[4], b[5], b[6], b[7]);
  return text;
}

PlistData nodeWorldWideNameForService(const DeviceRegistry& registry, const DeviceNode& node) {
  std::optional<PropertyList> pc = registry.property(node, kProtocolCharacteristics);
  const PropertyList* name = pc ? pc->get(kNodeWorldWideName) : nullptr;
  const PlistData* data = name ? name->asData() : nullptr;
  return data ? *data : PlistData{};
}

std::string nodeWorldWideNameStringForService(const DeviceRegistry& registry,
                                              const DeviceNode& node) {
  return wwnStringFromData(nodeWorldWideNameForService(registry, node));
}

// ---- SANSCSITargetDevice ----

std::unique_ptr<SANSCSITargetDevice> SANSCSITargetDevice::initWithService(
    const DeviceRegistry& registry, DeviceNodeRef node) {
  if (!node) return nullptr;
  auto target = std::make_unique<SANSCSITargetDevice>();
  target->nodeWorldWideName = nodeWorldWideNameForService(registry, *node);
  target->service = std::move(node);
  return target;
}

std::optional<std::string> SANSCSITargetDevice::nodePhysicalInterconnectForService(
    const DeviceRegistry& registry, const DeviceNode& node) {
  std::optional<PropertyList> pc = registry.property(node, kProtocolCharacteristics);
  const std::string* text = pc ? pc->getString(kPhysicalInterconnect) : nullptr;
  return text ? std::optional<std::string>(*text) : std::nullopt;
}

int SANSCSITargetDevice::addGeneralInterestNotification(DeviceRegistry& registry,
                                                        DeviceRegistry::MessageCallback callback) {
  return registry.addInterestNotification(service, std::move(callback)) ? 0 : -1;
}

PropertyList SANSCSITargetDevice::totalBytes(const DeviceRegistry& registry) const {
  PropertyList totals = PropertyList::dict();
  std::optional<PropertyList> stats = registry.property(*service, kPathStatistics);
  const PlistArray* paths = stats ? stats->asArray() : nullptr;
  if (!paths) return totals;
  auto count = [](const PropertyList& path, std::string_view key) -> unsigned long long {
    const PropertyList* v = path.get(key);
    return v && v->isNumber() ? v->uint64Value().value_or(0) : 0;
  };
  for (const PropertyList& path : *paths) {
    const std::string* status = path.getString(kPortStatus);
    if (status && *status != kLinkEstablished) continue;
    const PropertyList* domain = path.get(kScsiDomainIdentifier);
    long long id = domain && domain->isNumber() ? domain->int64Value().value_or(0) : 0;
    std::string key = format("%d", static_cast<int>(id));
    unsigned long long sum = count(path, kBytesReceived) + count(path, kBytesTransmitted);
    // Two paths in one domain add up in one entry.
    const PropertyList* before = totals.get(key);
    if (before) sum += before->uint64Value().value_or(0);
    totals.set(key, sum);
  }
  return totals;
}

// ---- SANSCSILogicalUnit ----

std::unique_ptr<SANSCSILogicalUnit> SANSCSILogicalUnit::initWithService(
    const DeviceRegistry& registry, const DeviceNodeRef& node) {
  if (!node) return nullptr;
  auto unit = std::make_unique<SANSCSILogicalUnit>();
  unit->logicalUnitNumber = logicalUnitNumberForService(registry, *node);
  unit->nodeWorldWideName = nodeWorldWideNameForService(registry, *node);
  unit->serviceId = node->id();
  return unit;
}

unsigned long long SANSCSILogicalUnit::logicalUnitNumberForService(const DeviceRegistry& registry,
                                                                   const DeviceNode& node) {
  std::optional<PropertyList> lun = registry.property(node, kScsiLogicalUnitNumber);
  return lun ? lun->uint64Value().value_or(0) : 0;
}

// ---- SANDeviceManager ----

SANDeviceManager& SANDeviceManager::defaultManager() {
  std::scoped_lock lock(deviceManagerLock());
  if (!instance()) instance().reset(new SANDeviceManager());
  return *instance();
}

void SANDeviceManager::resetForTest() {
  std::scoped_lock lock(deviceManagerLock());
  instance().reset();
}

SANDeviceManager::~SANDeviceManager() { stopNotifications(); }

void SANDeviceManager::startNotifications(EventLoop& loop) {
  std::scoped_lock lock(deviceManagerLock());
  // One port per manager: a second start would hand every event over twice.
  if (loop_) return;
  auto appeared = [this](const std::vector<DeviceNodeRef>& nodes) {
    std::scoped_lock lock(deviceManagerLock());
    appearedNotification(nodes);
  };
  auto disappeared = [this](const std::vector<DeviceNodeRef>& nodes) {
    std::scoped_lock lock(deviceManagerLock());
    disappearedNotification(nodes);
  };
  // The events are the loop's from here on; what exists now is drained at once.
  loop_ = &loop;
  appearedNotification(registry_.addFirstMatchNotification(kDevScsiTargetDevice, appeared));
  disappearedNotification(registry_.addTerminateNotification(kDevScsiTargetDevice, disappeared));
  appearedNotification(registry_.addFirstMatchNotification(kDevScsiLogicalUnitNub, appeared));
  disappearedNotification(registry_.addTerminateNotification(kDevScsiLogicalUnitNub, disappeared));
  if (!registry_.attach(loop)) {
    // Deaf, without a word to anyone.
    registry_.detach();
    loop_ = nullptr;
  }
}

void SANDeviceManager::stopNotifications() {
  std::scoped_lock lock(deviceManagerLock());
  registry_.detach();
  if (loop_)
    for (std::uint64_t timer : statsTimers_) loop_->cancelTimer(timer);
  statsTimers_.clear();
  loop_ = nullptr;
}

std::size_t SANDeviceManager::targetCount() {
  std::scoped_lock lock(deviceManagerLock());
  return targets_.size();
}

std::size_t SANDeviceManager::logicalUnitCount() {
  std::scoped_lock lock(deviceManagerLock());
  return luns_.size();
}

std::optional<PropertyList> SANDeviceManager::recentStats() {
  std::scoped_lock lock(deviceManagerLock());
  return recentStats_;
}

void SANDeviceManager::setRecentStats(std::optional<PropertyList> stats) {
  std::scoped_lock lock(deviceManagerLock());
  recentStats_ = std::move(stats);
}

std::optional<std::set<long long>> SANDeviceManager::pathDomainsOf(const PlistData& wwnn) {
  std::scoped_lock lock(deviceManagerLock());
  SANSCSITargetDevice* target = targetDeviceWithWorldWideName(wwnn);
  return target ? std::optional<std::set<long long>>(target->SCSIDomainIDs) : std::nullopt;
}

SANSCSITargetDevice* SANDeviceManager::targetDeviceWithWorldWideName(const PlistData& wwnn) {
  std::scoped_lock lock(deviceManagerLock());
  for (auto& t : targets_)
    if (t->nodeWorldWideName == wwnn) return t.get();
  return nullptr;
}

SANSCSILogicalUnit* SANDeviceManager::logicalUnitWithWorldWideName(const PlistData& wwnn,
                                                                   unsigned long long lun) {
  std::scoped_lock lock(deviceManagerLock());
  for (auto& u : luns_)
    if (u->nodeWorldWideName == wwnn && u->logicalUnitNumber == lun) return u.get();
  return nullptr;
}

void SANDeviceManager::startStatsTimer() {
  if (loop_) scheduleStats(std::make_shared<std::uint64_t>(0));
}

void SANDeviceManager::scheduleStats(std::shared_ptr<std::uint64_t> id) {
  // Each timer repeats on its own until a tick finds no target; a second may run beside a first.
  *id = loop_->addTimer(clock().monotonicMicros() + kStatsIntervalMicros, [this, id] {
    std::scoped_lock lock(deviceManagerLock());
    statsTimers_.erase(*id);
    if (updateStats() && loop_) scheduleStats(id);
  });
  statsTimers_.insert(*id);
}

bool SANDeviceManager::updateStats() {
  std::scoped_lock lock(deviceManagerLock());
  PropertyList stats = PropertyList::dict();
  for (auto& t : targets_) stats.set(t->nodeWorldWideNameString(), t->totalBytes(registry_));
  // Replaced whole, so a reader never sees half an update.
  recentStats_ = std::move(stats);
  // With none left the timer stops; the next target to come starts one anew.
  return !targets_.empty();
}

void SANDeviceManager::appearedNotification(const std::vector<DeviceNodeRef>& nodes) {
  std::scoped_lock lock(deviceManagerLock());
  for (const DeviceNodeRef& node : nodes) {
    if (DeviceRegistry::conformsTo(*node, kDevScsiTargetDevice) &&
        SANSCSITargetDevice::nodePhysicalInterconnectForService(registry_, *node) ==
            kFibreChannel) {
      std::unique_ptr<SANSCSITargetDevice> target =
          SANSCSITargetDevice::initWithService(registry_, node);
      if (!target) continue;
      std::size_t before = targets_.size();
      SANSCSITargetDevice& t = *target;
      targets_.push_back(std::move(target));
      NLog("SANDeviceManager: Added target %@", t.nodeWorldWideNameString());
      std::string wwnn = t.nodeWorldWideNameString();
      int status = t.addGeneralInterestNotification(
          registry_, [this, wwnn](const DeviceNodeRef& n, std::uint32_t type) {
            NLog("SANDeviceManager: MessageHandler called for %@", wwnn);
            std::scoped_lock lock(deviceManagerLock());
            messageNotification(n, type);
          });
      if (status != 0)
        NError("SANSCSITargetDevice(%@): addGeneralInterestNotification failed with %d", wwnn,
               status);
      // The first set of paths.
      messageNotification(node, kDevMessageServicePropertyChange);
      if (before == 0) startStatsTimer();
    }
    if (DeviceRegistry::conformsTo(*node, kDevScsiLogicalUnitNub)) {
      PlistData wwnn = nodeWorldWideNameForService(registry_, *node);
      // A unit whose target isn't followed (another kind of bus) is ignored.
      if (!haveTargetWithWorldWideName(wwnn)) continue;
      std::unique_ptr<SANSCSILogicalUnit> unit =
          SANSCSILogicalUnit::initWithService(registry_, node);
      if (!unit) continue;
      NLog("SANDeviceManager: Added LUN %@ (%@)", unit->nodeWorldWideNameString(),
           PropertyList(unit->logicalUnitNumber));
      luns_.push_back(std::move(unit));
    }
  }
}

void SANDeviceManager::disappearedNotification(const std::vector<DeviceNodeRef>& nodes) {
  std::scoped_lock lock(deviceManagerLock());
  for (const DeviceNodeRef& node : nodes) {
    if (DeviceRegistry::conformsTo(*node, kDevScsiTargetDevice)) {
      for (auto it = targets_.begin(); it != targets_.end(); ++it) {
        if ((*it)->service->id() != node->id()) continue;
        // A terminated node has no paths: every one it had is noted as lost.
        messageNotification((*it)->service, kDevMessageServicePropertyChange);
        NLog("SANDeviceManager: Removed target %@", (*it)->nodeWorldWideNameString());
        targets_.erase(it);
        break;
      }
    }
    if (DeviceRegistry::conformsTo(*node, kDevScsiLogicalUnitNub)) {
      for (auto it = luns_.begin(); it != luns_.end(); ++it) {
        if ((*it)->serviceId != node->id()) continue;
        NLog("SANDeviceManager: Removed LUN %@ (%@)", (*it)->nodeWorldWideNameString(),
             PropertyList((*it)->logicalUnitNumber));
        logDisappearanceOfLUN(**it);
        luns_.erase(it);
        break;
      }
    }
  }
}

void SANDeviceManager::messageNotification(const DeviceNodeRef& node, std::uint32_t type) {
  std::scoped_lock lock(deviceManagerLock());
  SANSCSITargetDevice* target = nullptr;
  for (auto& t : targets_)
    if (t->service->id() == node->id()) target = t.get();
  std::string wwnn = target ? target->nodeWorldWideNameString()
                            : nodeWorldWideNameStringForService(registry_, *node);
  NLog("SANDeviceManager: Message got for %@", wwnn);
  if (type != kDevMessageServicePropertyChange || !target) return;
  std::set<long long> now = upDomains(registry_.property(*node, kPathStatistics));
  std::set<long long> added, lost;
  for (long long id : now)
    if (!target->SCSIDomainIDs.count(id)) added.insert(id);
  for (long long id : target->SCSIDomainIDs)
    if (!now.count(id)) lost.insert(id);
  if (!added.empty()) NLog("SANDeviceManager: Added (%@) paths to %@", domainList(added), wwnn);
  if (!lost.empty()) {
    NLog("SANDeviceManager: Removed (%@) paths from %@", domainList(lost), wwnn);
    logLossOfPathsFromWWNN(wwnn);
  }
  target->SCSIDomainIDs = std::move(now);
}

// ---- the recent fibre activity log ----

std::string SANDeviceManager::recentFibreLogPath() {
  return hostPath("/var/run/velm2_recent_fibre_activity.plist");
}

PropertyList SANDeviceManager::readRecentFibreLog() {
  std::scoped_lock lock(deviceManagerLock());
  std::optional<std::string> text = readFile(recentFibreLogPath());
  PlistReadResult read = text ? readXmlPlist(*text) : PlistReadResult{};
  if (!text || !read || !read.value->isArray()) return PropertyList::array();
  return *read.value;
}

void SANDeviceManager::writeRecentFibreLog(const PropertyList& entries) {
  std::scoped_lock lock(deviceManagerLock());
  std::string path = recentFibreLogPath();
  makeDirectories(hostPath("/var/run"));
  // A failed write is dropped without a word.
  writeXmlPlistFile(path, entries, 0644);
}

void SANDeviceManager::clearRecentFibreLog() {
  std::scoped_lock lock(deviceManagerLock());
  ::unlink(recentFibreLogPath().c_str());
}

void SANDeviceManager::appendToLog(PropertyList entry) {
  std::scoped_lock lock(deviceManagerLock());
  std::string path = recentFibreLogPath();
  std::optional<std::string> text = readFile(path);
  PlistReadResult read = text ? readXmlPlist(*text) : PlistReadResult{};
  PropertyList entries = PropertyList::array();
  if (text && read && read.value->isArray()) {
    entries = *read.value;
  } else if (text) {
    // Not ours to throw away: kept aside before it is replaced.
    std::string aside =
        format("%@.corrupt-%d", path, static_cast<int>(clock().wallMicros() / 1000000));
    std::rename(path.c_str(), aside.c_str());
    NError("SANDeviceManager: %@ was not a list of fibre events; kept as %@", path, aside);
  }
  entry.set("time", nowAsDate());
  entries.push(std::move(entry));
  writeRecentFibreLog(entries);
}

namespace {

PropertyList fibreEvent(const char* type, const char* event, const std::string& wwnn) {
  PropertyList e = PropertyList::dict();
  e.set("type", type);
  e.set("event", event);
  e.set("wwnn", wwnn);
  return e;
}

PropertyList unitEvent(const char* event, const SANSCSILogicalUnit& unit) {
  PropertyList e = fibreEvent("LUN", event, unit.nodeWorldWideNameString());
  e.set("lun", unit.logicalUnitNumber);
  return e;
}

}  // namespace

void SANDeviceManager::logAdditionOfPathsToWWNN(const std::string& wwnn) {
  appendToLog(fibreEvent("Path", "Addition", wwnn));
}

void SANDeviceManager::logLossOfPathsFromWWNN(const std::string& wwnn) {
  appendToLog(fibreEvent("Path", "Loss", wwnn));
}

void SANDeviceManager::logAppearanceOfLUN(const SANSCSILogicalUnit& unit) {
  appendToLog(unitEvent("Addition", unit));
}

void SANDeviceManager::logDisappearanceOfLUN(const SANSCSILogicalUnit& unit) {
  appendToLog(unitEvent("Loss", unit));
}

}  // namespace velm
