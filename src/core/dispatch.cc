#include <exception>
#include <map>

#include "config/config_parser.h"
#include "core/san_computer.h"
#include "core/host_events.h"
#include "core/velm_plugin.h"
#include "platform/clock.h"
#include "platform/log.h"
#include "platform/string_additions.h"

namespace velm {
namespace {

constexpr std::string_view kCommands[] = {
    "getState", "getComputerProperties", "readSettings", "getLUNs", "refreshLUNs", "getVolumes",
    "getVolumeState", "setVolumeState", "addVolumes", "expandVolume", "deleteVolumes", "renameVolume",
    "reinitializeVolumes", "changeStripeGroupSettings", "changeVolumeSettings", "doIdle",
    "preflightReplica", "writeConfiguration", "clearConfiguration", "checkClientConfiguration",
    "finishClientConfiguration", "labelLUNs", "identifyLUNs", "mountVolume", "getQuotas", "setQuotas",
    "deleteQuotas", "getMounts", "getMountOptions", "getDirbaseRecords", "getLogPaths",
    // Deliberate: tailFile has no handler; it is refused with "Does not respond to".
    "tailFile", "getHistoryInfo", "getHistory", "getAffinity", "setAffinity", "sendNotification",
    "getNotificationsConfiguration", "setNotificationsConfiguration", "getNotificationsTypes",
    "configureNetworkInterface", "getNotes", "setNotes", "getAllNotes", "renameNotes", "sendFailover",
    "readProgress", "runDotClean"};

// Handler names as the run-time lookup knows them.
// Deliberate: testPerformance has a handler but no table row, so the dispatcher refuses it.
const std::map<std::string_view, VelmPlugin::Handler>& handlers() {
  static const std::map<std::string_view, VelmPlugin::Handler> table = {
      {"getStateWithRequest:", &VelmPlugin::getStateWithRequest},
      {"getNotificationsConfigurationWithRequest:",
       &VelmPlugin::getNotificationsConfigurationWithRequest},
      {"setNotificationsConfigurationWithRequest:",
       &VelmPlugin::setNotificationsConfigurationWithRequest},
      {"getNotificationsTypesWithRequest:", &VelmPlugin::getNotificationsTypesWithRequest},
      {"sendNotificationWithRequest:", &VelmPlugin::sendNotificationWithRequest},
      {"sendFailoverWithRequest:", &VelmPlugin::sendFailoverWithRequest},
      {"writeConfigurationWithRequest:", &VelmPlugin::writeConfigurationWithRequest},
      {"checkClientConfigurationWithRequest:", &VelmPlugin::checkClientConfigurationWithRequest},
      {"finishClientConfigurationWithRequest:",
       &VelmPlugin::finishClientConfigurationWithRequest},
      {"clearConfigurationWithRequest:", &VelmPlugin::clearConfigurationWithRequest},
      {"configureNetworkInterfaceWithRequest:",
       &VelmPlugin::configureNetworkInterfaceWithRequest},
      {"getDirbaseRecordsWithRequest:", &VelmPlugin::getDirbaseRecordsWithRequest},
      {"preflightReplicaWithRequest:", &VelmPlugin::preflightReplicaWithRequest},
      {"doIdleWithRequest:", &VelmPlugin::doIdleWithRequest},
      {"getComputerPropertiesWithRequest:", &VelmPlugin::getComputerPropertiesWithRequest},
      {"readSettingsWithRequest:", &VelmPlugin::readSettingsWithRequest},
      {"getLUNsWithRequest:", &VelmPlugin::getLUNsWithRequest},
      {"refreshLUNsWithRequest:", &VelmPlugin::refreshLUNsWithRequest},
      {"identifyLUNsWithRequest:", &VelmPlugin::identifyLUNsWithRequest},
      {"labelLUNsWithRequest:", &VelmPlugin::labelLUNsWithRequest},
      {"getVolumeStateWithRequest:", &VelmPlugin::getVolumeStateWithRequest},
      {"setVolumeStateWithRequest:", &VelmPlugin::setVolumeStateWithRequest},
      {"getVolumesWithRequest:", &VelmPlugin::getVolumesWithRequest},
      {"getMountsWithRequest:", &VelmPlugin::getMountsWithRequest},
      {"mountVolumeWithRequest:", &VelmPlugin::mountVolumeWithRequest},
      {"getLogPathsWithRequest:", &VelmPlugin::getLogPathsWithRequest},
      {"getMountOptionsWithRequest:", &VelmPlugin::getMountOptionsWithRequest},
      {"addVolumesWithRequest:", &VelmPlugin::addVolumesWithRequest},
      {"deleteVolumesWithRequest:", &VelmPlugin::deleteVolumesWithRequest},
      {"reinitializeVolumesWithRequest:", &VelmPlugin::reinitializeVolumesWithRequest},
      {"expandVolumeWithRequest:", &VelmPlugin::expandVolumeWithRequest},
      {"changeVolumeSettingsWithRequest:", &VelmPlugin::changeVolumeSettingsWithRequest},
      {"changeStripeGroupSettingsWithRequest:", &VelmPlugin::changeStripeGroupSettingsWithRequest},
      {"renameVolumeWithRequest:", &VelmPlugin::renameVolumeWithRequest},
      {"getQuotasWithRequest:", &VelmPlugin::getQuotasWithRequest},
      {"getHistoryInfoWithRequest:", &VelmPlugin::getHistoryInfoWithRequest},
      {"getHistoryWithRequest:", &VelmPlugin::getHistoryWithRequest},
      {"setQuotasWithRequest:", &VelmPlugin::setQuotasWithRequest},
      {"deleteQuotasWithRequest:", &VelmPlugin::deleteQuotasWithRequest},
      {"getAffinityWithRequest:", &VelmPlugin::getAffinityWithRequest},
      {"setAffinityWithRequest:", &VelmPlugin::setAffinityWithRequest},
      {"getNotesWithRequest:", &VelmPlugin::getNotesWithRequest},
      {"setNotesWithRequest:", &VelmPlugin::setNotesWithRequest},
      {"getAllNotesWithRequest:", &VelmPlugin::getAllNotesWithRequest},
      {"renameNotesWithRequest:", &VelmPlugin::renameNotesWithRequest},
      {"readProgressWithRequest:", &VelmPlugin::readProgressWithRequest},
      {"runDotCleanWithRequest:", &VelmPlugin::runDotCleanWithRequest},
      {"testPerformanceWithRequest:", &VelmPlugin::testPerformanceWithRequest},
  };
  return table;
}

}  // namespace

VelmPlugin::VelmPlugin() {
  // Volume configuration asks which controller addresses are this machine's; it sits below the
  // computer model, so the model is handed down as a provider.
  setThisComputerProvider([] {
    SANComputer& computer = SANComputer::thisComputer();
    ThisComputerAddresses mine;
    PropertyList uuid = computer.uuid();
    if (const std::string* id = uuid.asString()) mine.uuid = *id;
    PropertyList interfaces = computer.networkInterfaces();
    if (const PlistArray* list = interfaces.asArray()) {
      for (const PropertyList& entry : *list) {
        if (const std::string* ip = entry.getString("ipAddress")) mine.ipAddresses.push_back(*ip);
      }
    }
    return mine;
  });
  NLog("%s: Starting up plugin, computer UUID = %@", __func__, SANComputer::thisComputer().uuid());
}

VelmPlugin::~VelmPlugin() {
  // The event thread ends before anything its callbacks use goes away.
  events_.reset();
  setThisComputerProvider(nullptr);
}

std::span<const std::string_view> VelmPlugin::allDispatchStrings() { return kCommands; }

VelmPlugin::Handler VelmPlugin::handlerNamed(std::string_view name) {
  auto it = handlers().find(name);
  return it == handlers().end() ? nullptr : it->second;
}

PropertyList VelmPlugin::responseForError(const char* text) {
  PropertyList r = PropertyList::dict();
  r.set("error", text ? text : "");
  return r;
}

std::optional<PropertyList> VelmPlugin::refuse(const char* text) {
  NError("%s", text);
  return std::nullopt;
}

std::optional<PropertyList> VelmPlugin::doProcessInputWithRequest(const PropertyList& request,
                                                                  PropertyList* context,
                                                                  std::int32_t* lockFileFD) {
  std::uint64_t t0 = perf_timestamp();
  const std::string* command = request.getString("command");
  if (!command) return refuse("Command is not a string");
  if (characterCount(*command) < 2) return refuse("Command is too short");
  bool known = false;
  for (std::string_view c : kCommands) known = known || c == *command;
  if (!known) return refuse("Command to dispatch is unknown");
  std::string handlerName = format("%@WithRequest:", *command);
  Handler handler = handlerNamed(handlerName);
  if (!handler) {
    NError("Does not respond to %@", handlerName);
    return std::nullopt;
  }

  storeContext(context, request, lockFileFD);
  std::optional<PropertyList> result;
  std::uint64_t t1, t2;
  bool failed = false;
  {
    // Unlike the host's original contract, an exception must not leave the lock held: the
    // guard releases it, the request gets no response, and the plugin keeps serving.
    std::scoped_lock lock(ourLock_);
    t1 = perf_timestamp();
    try {
      result = (this->*handler)(request);
    } catch (const std::exception& e) {
      NError("%s: %@ raised an exception: %s", __func__, handlerName, e.what());
      failed = true;
    } catch (...) {
      NError("%s: %@ raised an exception", __func__, handlerName);
      failed = true;
    }
    t2 = perf_timestamp();
  }
  std::int32_t fd = cleanupFromRequest();
  if (lockFileFD) *lockFileFD = fd;
  std::uint64_t t3 = perf_timestamp();
  if (failed) return std::nullopt;

  PropertyList response = result && result->isDict() ? std::move(*result) : PropertyList::dict();
  // Deliberate: differences are reported as they are, also when a timestamp failed and is 0.
  response.set("perfDispatchMicroseconds", static_cast<unsigned long long>(t2 - t1));
  response.set("perfFunctionMicroseconds", static_cast<unsigned long long>(t3 - t0));
  return response;
}

}  // namespace velm

extern "C" __attribute__((visibility("default"))) velm::PluginRequestHandler* adminhost_plugin_create() {
  return new velm::VelmPlugin();
}
