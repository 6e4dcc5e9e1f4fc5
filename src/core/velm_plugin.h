// VelmPlugin: the one object the host sees. Checks each request's command against the command
// table, runs its handler under the plugin lock and adds the two timing keys.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "adminhost/plugin_request_handler.h"
#include "plist/plist.h"

namespace velm {

struct HostEvents;

class VelmPlugin : public PluginRequestHandler {
 public:
  // A handler answers a dictionary, or nothing (the response then holds only the timing keys).
  using Handler = std::optional<PropertyList> (VelmPlugin::*)(const PropertyList& request);

  VelmPlugin();
  ~VelmPlugin() override;

  std::optional<PropertyList> doProcessInputWithRequest(const PropertyList& request, PropertyList* context,
                                                        std::int32_t* lockFileFD) override;
  // Each volume's FSM figures from its table's newest row, and each fibre port's bytes.
  std::optional<PropertyList> metricsFromContext(const PropertyList& context) const override;

  // The command table, in order.
  static std::span<const std::string_view> allDispatchStrings();
  // The handler named "<command>WithRequest:", if the plugin has one.
  static Handler handlerNamed(std::string_view name);
  // { error = text }
  static PropertyList responseForError(const char* text);

  void lockPlugin() { ourLock_.lock(); }
  void unlockPlugin() { ourLock_.unlock(); }
  std::mutex& pluginLock() { return ourLock_; }

  // Handlers.
  std::optional<PropertyList> getStateWithRequest(const PropertyList& request);
  std::optional<PropertyList> readSettingsWithRequest(const PropertyList& request);
  std::optional<PropertyList> testPerformanceWithRequest(const PropertyList& request);
  std::optional<PropertyList> getComputerPropertiesWithRequest(const PropertyList& request);
  std::optional<PropertyList> getLUNsWithRequest(const PropertyList& request);
  std::optional<PropertyList> refreshLUNsWithRequest(const PropertyList& request);
  std::optional<PropertyList> identifyLUNsWithRequest(const PropertyList& request);
  std::optional<PropertyList> labelLUNsWithRequest(const PropertyList& request);
  // Volume state and inspection.
  std::optional<PropertyList> getVolumeStateWithRequest(const PropertyList& request);
  std::optional<PropertyList> setVolumeStateWithRequest(const PropertyList& request);
  std::optional<PropertyList> getVolumesWithRequest(const PropertyList& request);
  std::optional<PropertyList> getMountsWithRequest(const PropertyList& request);
  std::optional<PropertyList> mountVolumeWithRequest(const PropertyList& request);
  std::optional<PropertyList> getLogPathsWithRequest(const PropertyList& request);
  std::optional<PropertyList> getMountOptionsWithRequest(const PropertyList& request);
  // Volume creation and deletion.
  std::optional<PropertyList> addVolumesWithRequest(const PropertyList& request);
  std::optional<PropertyList> deleteVolumesWithRequest(const PropertyList& request);
  std::optional<PropertyList> reinitializeVolumesWithRequest(const PropertyList& request);
  // History.
  std::optional<PropertyList> getHistoryInfoWithRequest(const PropertyList& request);
  std::optional<PropertyList> getHistoryWithRequest(const PropertyList& request);
  // Quotas.
  std::optional<PropertyList> getQuotasWithRequest(const PropertyList& request);
  std::optional<PropertyList> setQuotasWithRequest(const PropertyList& request);
  std::optional<PropertyList> deleteQuotasWithRequest(const PropertyList& request);
  // File affinity.
  std::optional<PropertyList> getAffinityWithRequest(const PropertyList& request);
  std::optional<PropertyList> setAffinityWithRequest(const PropertyList& request);
  // Asset notes.
  std::optional<PropertyList> getNotesWithRequest(const PropertyList& request);
  std::optional<PropertyList> setNotesWithRequest(const PropertyList& request);
  std::optional<PropertyList> getAllNotesWithRequest(const PropertyList& request);
  std::optional<PropertyList> renameNotesWithRequest(const PropertyList& request);
  // Volume reconfiguration and rename.
  std::optional<PropertyList> expandVolumeWithRequest(const PropertyList& request);
  std::optional<PropertyList> changeVolumeSettingsWithRequest(const PropertyList& request);
  std::optional<PropertyList> changeStripeGroupSettingsWithRequest(const PropertyList& request);
  std::optional<PropertyList> renameVolumeWithRequest(const PropertyList& request);
  // Node configuration.
  std::optional<PropertyList> writeConfigurationWithRequest(const PropertyList& request);
  std::optional<PropertyList> checkClientConfigurationWithRequest(const PropertyList& request);
  std::optional<PropertyList> finishClientConfigurationWithRequest(const PropertyList& request);
  std::optional<PropertyList> clearConfigurationWithRequest(const PropertyList& request);
  std::optional<PropertyList> configureNetworkInterfaceWithRequest(const PropertyList& request);
  std::optional<PropertyList> getDirbaseRecordsWithRequest(const PropertyList& request);
  std::optional<PropertyList> preflightReplicaWithRequest(const PropertyList& request);
  // Notifications.
  std::optional<PropertyList> getNotificationsConfigurationWithRequest(const PropertyList& request);
  std::optional<PropertyList> setNotificationsConfigurationWithRequest(const PropertyList& request);
  std::optional<PropertyList> getNotificationsTypesWithRequest(const PropertyList& request);
  std::optional<PropertyList> sendNotificationWithRequest(const PropertyList& request);
  std::optional<PropertyList> sendFailoverWithRequest(const PropertyList& request);
  // Long tasks.
  std::optional<PropertyList> readProgressWithRequest(const PropertyList& request);
  std::optional<PropertyList> runDotCleanWithRequest(const PropertyList& request);

  // Idle ticks and host events.
  std::optional<PropertyList> doIdleWithRequest(const PropertyList& request);
  // Count 0 attaches every host event source first. The first non-zero of history sampling and
  // notifications.
  int doIdleAtCount(long long count);
  // Replaces the DNS-SD publication by one of this machine as it is now.
  void advertiseZeroConfPresense();
  // The event loop, its sources and the advertiser; made on first use.
  HostEvents& hostEvents();

  // ---- long tasks: one child process per volume, known from its status file ----
  // Stores the description, or with nullptr removes the volume's entry.
  void noteLongTask(const PropertyList* description, std::string_view volume);
  std::optional<PropertyList> getLongTask(std::string_view volume) const;
  size_t countLongTasks() const;
  // True while a task of the volume is on record; asking may notice its end and reap it.
  bool checkForLongTask(std::string_view volume);
  // The task's state in the keys of a readProgress response; may end the task.
  PropertyList processUpdateStatus(const PropertyList& description, std::string_view volume);

 private:
  std::optional<PropertyList> refuse(const char* text);
  std::optional<PropertyList> buildClientHealth();
  // 1 when the file reads as a property-list dictionary; cached in the context by time and size.
  int testConfigFile(const std::string& path);

  void registerForNetworkChangeNotifications();
  void registerForSearchPolicyChangeNotifications();
  void registerForPowerEventNotifications();
  void registerForVolumeEventNotifications();
  void registerForFileSystemNotifications();
  void registerForConfigChangeNotifications();
  void prereadLUNs();
  // The idle work of history sampling, the fabric monitor and notifications.
  void startFabricNotifications();
  void initHistorySystem();
  int updateHistoryData();
  int processNotifications();

  PropertyList clientHealth_;
  PropertyList longTasks_ = PropertyList::dict();
  // The plugin lock: held for the whole of every handler and event callback; first in the lock
  // order, never taken recursively.
  std::mutex ourLock_;
  // After the lock: destroyed first, so the event thread ends before the lock goes.
  std::unique_ptr<HostEvents> events_;
};

}  // namespace velm
