// SANDeviceManager: the Fibre Channel fabric as this machine sees it. Which targets and logical
// units are there, how many paths lead to each target, how many bytes have passed; lost paths and
// lost units go to the recent fibre activity log, which notifications mail out and empty.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/device_registry.h"
#include "plist/plist.h"

namespace velm {

class EventLoop;

// The class-wide lock: every accessor, event, timer call and log operation holds it. A leaf under
// the plugin lock; recursive, so handlers may use the accessors.
std::recursive_mutex& deviceManagerLock();

// The WWNN text of the node's Node World Wide Name: eight bytes, zero-filled.
std::string wwnStringFromData(const PlistData& data);
PlistData nodeWorldWideNameForService(const DeviceRegistry& registry, const DeviceNode& node);
std::string nodeWorldWideNameStringForService(const DeviceRegistry& registry,
                                              const DeviceNode& node);

class SANSCSITargetDevice {
 public:
  // Nothing when node is null.
  static std::unique_ptr<SANSCSITargetDevice> initWithService(const DeviceRegistry& registry,
                                                              DeviceNodeRef node);
  static std::optional<std::string> nodePhysicalInterconnectForService(
      const DeviceRegistry& registry, const DeviceNode& node);

  // 0, or an error number.
  int addGeneralInterestNotification(DeviceRegistry& registry,
                                     DeviceRegistry::MessageCallback callback);
  // SCSI domain id ("%d") -> bytes received and transmitted over its up paths.
  PropertyList totalBytes(const DeviceRegistry& registry) const;
  std::string nodeWorldWideNameString() const { return wwnStringFromData(nodeWorldWideName); }

  PlistData nodeWorldWideName;
  DeviceNodeRef service;
  std::set<long long> SCSIDomainIDs;  // the domains through which a path is up
};

class SANSCSILogicalUnit {
 public:
  static std::unique_ptr<SANSCSILogicalUnit> initWithService(const DeviceRegistry& registry,
                                                             const DeviceNodeRef& node);
  static unsigned long long logicalUnitNumberForService(const DeviceRegistry& registry,
                                                        const DeviceNode& node);
  std::string nodeWorldWideNameString() const { return wwnStringFromData(nodeWorldWideName); }

  unsigned long long logicalUnitNumber = 0;
  PlistData nodeWorldWideName;
  std::string serviceId;  // the registry node, by which its leaving is known
};

class SANDeviceManager {
 public:
  static constexpr std::uint64_t kStatsIntervalMicros = 60'000'000;

  static SANDeviceManager& defaultManager();
  // Drops the instance (tests); the next defaultManager() makes a fresh one.
  static void resetForTest();
  ~SANDeviceManager();

  // Follows targets and units from now on, with the registry's events on loop.
  void startNotifications(EventLoop& loop);
  void stopNotifications();

  std::size_t targetCount();
  std::size_t logicalUnitCount();
  // WWNN text -> totalBytes of that target, as the last updateStats left it; nothing before one.
  std::optional<PropertyList> recentStats();
  void setRecentStats(std::optional<PropertyList> stats);
  // The domains of the target's up paths; nothing for an unknown target.
  std::optional<std::set<long long>> pathDomainsOf(const PlistData& wwnn);

  SANSCSITargetDevice* targetDeviceWithWorldWideName(const PlistData& wwnn);
  bool haveTargetWithWorldWideName(const PlistData& wwnn) {
    return targetDeviceWithWorldWideName(wwnn) != nullptr;
  }
  SANSCSILogicalUnit* logicalUnitWithWorldWideName(const PlistData& wwnn, unsigned long long lun);

  // The timer's work: every target's totalBytes, replacing recentStats whole. False when no
  // target is left: the timer that called it then stops.
  bool updateStats();
  DeviceRegistry& registry() { return registry_; }

  void appearedNotification(const std::vector<DeviceNodeRef>& nodes);
  void disappearedNotification(const std::vector<DeviceNodeRef>& nodes);
  void messageNotification(const DeviceNodeRef& node, std::uint32_t type);

  // The recent fibre activity log.
  void logAdditionOfPathsToWWNN(const std::string& wwnn);
  void logLossOfPathsFromWWNN(const std::string& wwnn);
  void logAppearanceOfLUN(const SANSCSILogicalUnit& unit);
  void logDisappearanceOfLUN(const SANSCSILogicalUnit& unit);
  PropertyList readRecentFibreLog();
  void writeRecentFibreLog(const PropertyList& entries);
  void clearRecentFibreLog();
  static std::string recentFibreLogPath();

 private:
  SANDeviceManager() = default;
  void appendToLog(PropertyList entry);
  void startStatsTimer();
  void scheduleStats(std::shared_ptr<std::uint64_t> id);

  std::vector<std::unique_ptr<SANSCSITargetDevice>> targets_;
  std::vector<std::unique_ptr<SANSCSILogicalUnit>> luns_;
  DeviceRegistry registry_;
  EventLoop* loop_ = nullptr;  // the notification port's loop; null while deaf
  std::set<std::uint64_t> statsTimers_;
  std::optional<PropertyList> recentStats_;
};

}  // namespace velm
