#include "sim/simpm_config.h"

#include <arpa/inet.h>

#include "adminlib/sock46.h"
#include "plist/plist.h"

namespace velm::sim {
std::string keyError(std::string_view key, std::string_view what) {
  std::string text;
  text.reserve(key.size() + what.size() + 3);
  text.append("'").append(key).append("' ").append(what);
  return text;
}

bool readConfigNumber(const PropertyList& dict, std::string_view key, std::int64_t* out,
                      std::string* error) {
  const PropertyList* v = dict.get(key);
  if (!v) return true;
  auto n = v->int64Value();
  if (!n) {
    *error = keyError(key, "is not a number");
    return false;
  }
  *out = *n;
  return true;
}

bool parseAddress(const std::string& text, struct in6_addr* addr) {
  std::uint8_t v4[4];
  if (::inet_pton(AF_INET, text.c_str(), v4) == 1) {
    AddrSetMapped(addr, v4);
    return true;
  }
  return ::inet_pton(AF_INET6, text.c_str(), addr) == 1;
}

bool loadSimPmConfig(const std::string& path, SimPmConfig* config, std::string* error) {
  PlistReadOptions options;
  options.requireDictionary = true;
  PlistReadResult read = readXmlPlistFile(path, options);
  if (!read) {
    *error = path + ": " + read.error;
    return false;
  }
  const PropertyList& top = *read.value;
  *config = SimPmConfig{};
  if (!readConfigNumber(top, "pmPort", &config->pmPort, error)) return false;
  if (const PropertyList* fsms = top.get("fsms")) {
    if (!fsms->isArray()) {
      *error = "'fsms' is not an array";
      return false;
    }
    for (const PropertyList& entry : *fsms->asArray()) {
      SimFsm fsm;
      const std::string* name = entry.getString("name");
      if (!name || name->empty()) {
        *error = "an entry of 'fsms' has no 'name'";
        return false;
      }
      fsm.name = *name;
      int caps = static_cast<int>(fsm.capabilities);
      if (!readConfigNumber(entry, "port", &fsm.port, error) ||
          !readConfigNumber(entry, "priority", &fsm.priority, error) ||
          !readConfigNumber(entry, "pid", &fsm.pid, error) ||
          !readConfigNumber(entry, "cpuLoad", &fsm.cpuLoad, error) ||
          !readConfigNumber(entry, "residentBytes", &fsm.residentBytes, error) ||
          !readConfigNumber(entry, "capabilities", &caps, error))
        return false;
      fsm.capabilities = static_cast<std::uint32_t>(caps);
      if (const PropertyList* active = entry.get("active")) fsm.active = active->boolValue();
      if (const std::string* dir = entry.getString("contentDir")) fsm.contentDir = *dir;
      if (const std::string* address = entry.getString("address")) {
        struct in6_addr a;
        if (!parseAddress(*address, &a)) {
          *error = "fsm '" + fsm.name + "': bad address '" + *address + "'";
          return false;
        }
        fsm.address = *address;
      }
      if (fsm.cpuLoad < 0 || fsm.cpuLoad > 100) {
        *error = "fsm '" + fsm.name + "': 'cpuLoad' is not a percentage from 0 to 100";
        return false;
      }
      if (fsm.port < 0 || fsm.port > 65535) {
        *error = "fsm '" + fsm.name + "': bad port";
        return false;
      }
      config->fsms.push_back(fsm);
    }
  }
  if (const PropertyList* hook = top.get("failoverHook")) {
    const PlistArray* words = hook->asArray();
    if (!words || words->empty()) {
      *error = "'failoverHook' is not a non-empty array of strings";
      return false;
    }
    for (const PropertyList& w : *words) {
      const std::string* s = w.asString();
      if (!s) {
        *error = "'failoverHook' holds a value that is not a string";
        return false;
      }
      config->failoverHook.push_back(*s);
    }
  }
  if (const PropertyList* unknown = top.get("unknownTypes")) {
    if (!unknown->isArray()) {
      *error = "'unknownTypes' is not an array";
      return false;
    }
    for (const PropertyList& t : *unknown->asArray()) {
      auto n = t.int64Value();
      if (!n) {
        *error = "'unknownTypes' holds a value that is not a number";
        return false;
      }
      config->unknownTypes.insert(static_cast<int>(*n));
    }
  }
  return loadSimPmPortMapperKeys(top, config, error) && loadSimFsmKeys(top, config, error);
}

}  // namespace velm::sim
