// The commands that belong to the plugin itself: getState, readSettings, testPerformance,
// getComputerProperties.
#include <sys/stat.h>

#include <stdexcept>

#include "core/san_computer.h"
#include "core/velm_plugin.h"
#include "gateway/san_filesystem.h"
#include "notify/notification_config.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "platform/string_additions.h"
#include "plist/key_list.h"
#include "volumes/volume_inspection.h"
#include "volumes/volume_state.h"

namespace velm {

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
    if (!servers)
      throw std::runtime_error("readSettings: no fsnameservers to store under nameservers");
    PropertyList lines = PropertyList::array();
    for (std::string& line : splitLinesDroppingLastEmpty(*servers)) lines.push(std::move(line));
    configuration->set("nameservers", std::move(lines));
  }
  std::optional<PropertyList> notifications = getNotificationDictionary();
  PropertyList setting = PropertyList::dict();
  return dictionaryWithValuesAndKeys(
      {{&setting, "setting"},
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

int VelmPlugin::testConfigFile(const std::string& path) {
  const char* fn = "testConfigFile";
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) {
    // A machine without automounted volumes has no such file.
    if (path.ends_with("/automount.plist")) return 1;
    NError("%s: Trouble with stat of '%s'", fn, path.c_str());
    return 0;
  }
  PropertyList* ctx = context();
  std::string key = "configStatus_" + path;
  const PropertyList* cached = ctx ? ctx->get(key) : nullptr;
  auto number = [&](const char* k) -> std::optional<long long> {
    const PropertyList* v = cached ? cached->get(k) : nullptr;
    return v && v->isNumber() ? v->int64Value() : std::nullopt;
  };
  if (!cached) {
    NLog("%s: No cache info found for '%@'", fn, path);
  } else if (number("MTime") == static_cast<long long>(st.st_mtime) &&
             number("size") == static_cast<long long>(st.st_size)) {
    // Deliberate: a file changed within the same second at the same size keeps its result.
    NLog("%s: Found cache info for '%@'", fn, path);
    return static_cast<int>(number("result").value_or(0));
  }
  PlistReadResult read = readXmlPlistFile(path);
  int result = read && read.value->isDict() ? 1 : 0;
  if (ctx && ctx->isDict()) {
    // A cache: it doesn't make the context dirty.
    PropertyList entry = PropertyList::dict();
    entry.set("result", result);
    entry.set("MTime", static_cast<long long>(st.st_mtime));
    entry.set("size", static_cast<long long>(st.st_size));
    ctx->set(key, std::move(entry));
  }
  return result;
}

std::optional<PropertyList> VelmPlugin::buildClientHealth() {
  PropertyList health = PropertyList::dict();
  SANFilesystem& fs = SANFilesystem::localFilesystem();
  bool fsmpm = fs.isFsmpmRunning();
  health.set("fsmpmRunning", fsmpm);
  for (const char* file : {"automount.plist", "config.plist", "notifications.plist"})
    health.set(std::string("configParsable_") + file, testConfigFile(configPath(file)) != 0);
  if (!SANComputer::thisComputer().isController()) return health;
  PropertyList* ctx = context();
  const PropertyList* volumes = fs.cachedValueForKey("volumes");
  PlistArray list = volumes && volumes->asArray() ? *volumes->asArray() : PlistArray{};
  for (const PropertyList& volume : list) {
    const std::string* name = volume.getString("Name");
    if (!name) continue;
    const PropertyList* store = ctx ? ctx->get("FSMStore_" + *name) : nullptr;
    const PropertyList* running = store && store->isDict() ? store->get("proc_running") : nullptr;
    bool on;
    if (running) {
      on = running->boolValue();
    } else {
      // No sample yet (a start, a new volume): ask the port mapper.
      long long pid = -1;
      // Without a port mapper there is nobody to ask, and no FSM runs.
      int handle = fsmpm ? open_fs_connection() : -1;
      if (handle >= 0) {
        std::optional<PropertyList> fsm = get_local_fsmvol_named(handle, name);
        const PropertyList* stats = fsm ? fsm->get("VolumeStats") : nullptr;
        const PropertyList* id = stats && stats->isDict() ? stats->get("ProcessID") : nullptr;
        if (id && id->isNumber()) pid = id->int64Value().value_or(-1);
        close_fs_connection(handle);
      }
      on = pid != -1;
    }
    health.set("fsmRunning_" + *name, on);
  }
  return health;
}

std::optional<PropertyList> VelmPlugin::getComputerPropertiesWithRequest(
    const PropertyList& request) {
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
