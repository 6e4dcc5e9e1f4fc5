// The commands that belong to the plugin itself: getState, readSettings, testPerformance,
// getComputerProperties.
#include <stdexcept>

#include "core/san_computer.h"
#include "gateway/san_filesystem.h"
#include "core/velm_plugin.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "platform/string_additions.h"
#include "plist/key_list.h"

namespace velm {

std::optional<PropertyList> getNotificationDictionary() {
  std::optional<PropertyList> dict = readDictionaryFile(configPath("notifications.plist"));
  if (!dict) NLog("getNotificationDictionary: No notifications dictionary.");
  return dict;
}

std::optional<PropertyList> VelmPlugin::getStateWithRequest(const PropertyList&) {
  PropertyList r = PropertyList::dict();
  r.set("state", "RUNNING");
  return r;
}

std::optional<PropertyList> VelmPlugin::readSettingsWithRequest(const PropertyList&) {
  std::optional<PropertyList> configuration = readDictionaryFile(configPath("config.plist"));
  if (configuration) {
    std::optional<std::string> servers = readFile(configPath("fsnameservers"));
    // Deliberate: a missing fsnameservers beside a readable config.plist is not guarded; the
    // request fails (the dispatcher logs it and answers nothing).
    if (!servers) throw std::runtime_error("readSettings: no fsnameservers to store under nameservers");
    PropertyList lines = PropertyList::array();
    for (std::string& line : splitLinesDroppingLastEmpty(*servers)) lines.push(std::move(line));
    configuration->set("nameservers", std::move(lines));
  }
  std::optional<PropertyList> notifications = getNotificationDictionary();
  PropertyList setting = PropertyList::dict();
  return dictionaryWithValuesAndKeys({{&setting, "setting"},
                                      {configuration ? &*configuration : nullptr, "configuration"},
                                      {notifications ? &*notifications : nullptr, "notifications"}});
}

std::optional<PropertyList> VelmPlugin::testPerformanceWithRequest(const PropertyList& request) {
  std::uint64_t iterations = 100;
  if (const PropertyList* n = request.get("iterations")) {
    std::optional<std::uint64_t> v = n->uint64Value();
    if (v && *v >= 1 && *v <= 10000) iterations = *v;
  }
  PropertyList clearOnly = PropertyList::dict();
  clearOnly.set("clearCache", true);
  PropertyList out = PropertyList::dict();
  for (std::string_view command : allDispatchStrings()) {
    std::string handlerName = std::string(command) + "WithRequest:";
    Handler handler = handlerNamed(handlerName);
    if (!handler) {
      logRawLine(format("Does not respond to %s", handlerName));
      continue;
    }
    (this->*handler)(clearOnly);
    std::uint64_t start = perf_timestamp();
    (this->*handler)(request);
    std::uint64_t cold = perf_timestamp() - start;
    start = perf_timestamp();
    for (std::uint64_t i = 0; i < iterations; ++i) (this->*handler)(request);
    // Deliberate: the total of all runs, undivided, despite the key's name.
    std::uint64_t hot = perf_timestamp() - start;
    PropertyList entry = PropertyList::dict();
    entry.set("coldRunTime", static_cast<unsigned long long>(cold));
    entry.set("hotAverageTime", static_cast<unsigned long long>(hot));
    entry.set("iterations", static_cast<unsigned long long>(iterations));
    out.set(std::string(command), std::move(entry));
  }
  return out;
}

std::optional<PropertyList> VelmPlugin::buildClientHealth() {
  // The health record always asks for the role, and that read is what raises the computer's
  // dirty flag again after a clearCache; without it the next properties() answers the emptied
  // cache. Keep the read while the record itself is still missing.
  SANComputer::thisComputer().isController();
  // Client health arrives with history sampling; until then there is none, and the response's
  // key list stops before it.
  return std::nullopt;
}

std::optional<PropertyList> VelmPlugin::getComputerPropertiesWithRequest(const PropertyList& request) {
  SANComputer& computer = SANComputer::thisComputer();
  const PropertyList* clear = request.get("clearCache");
  if (clear && clear->boolValue()) {
    // Deliberate: a clearing request answers nothing at all, includeLUNs notwithstanding.
    computer.clearCache();
    return std::nullopt;
  }
  PropertyList luns;
  const PropertyList* include = request.get("includeLUNs");
  if (include && include->boolValue()) luns = SANFilesystem::localFilesystem().visibleLUNs();
  std::optional<PropertyList> health = buildClientHealth();
  PropertyList properties = computer.propertiesCopy();
  return dictionaryWithValuesAndKeys({{&properties, "properties"},
                                      {health ? &*health : nullptr, "clientHealth"},
                                      {&luns, "visibleLUNs"}});
}

}  // namespace velm
