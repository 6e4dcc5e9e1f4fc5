// The commands that make this machine a member of a SAN, take it out again, and help set it up:
// writeConfiguration, checkClientConfiguration, finishClientConfiguration, clearConfiguration,
// configureNetworkInterface, getDirbaseRecords, preflightReplica.
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "adminhost/host_common.h"
#include "core/san_computer.h"
#include "core/velm_plugin.h"
#include "gateway/san_filesystem.h"
#include "node/directory.h"
#include "node/network_port.h"
#include "node/search_policy.h"
#include "node/teardown.h"
#include "node/upgrade.h"
#include "notify/notification_config.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "plist/key_list.h"

namespace velm {
namespace {

constexpr const char* kWrite = "writeConfiguration";
constexpr const char* kControllerPreferences =
    "/Library/Preferences/com.orvane.velm.controller.plist";

// Each key's kind; a value of another kind stops the command before any step.
struct KeyKind {
  const char* key;
  enum { String, Array, Number, Flag, Dictionary } kind;
};
constexpr KeyKind kKeyKinds[] = {
    {"searchPolicy", KeyKind::Array},       {"removedSearchPolicy", KeyKind::Array},
    {"authSecret", KeyKind::String},        {"nameservers", KeyKind::Array},
    {"doUpgrade", KeyKind::Flag},           {"role", KeyKind::String},
    {"sanName", KeyKind::String},           {"ownerName", KeyKind::String},
    {"ownerEmail", KeyKind::String},        {"metadataNetwork", KeyKind::String},
    {"primaryController", KeyKind::String}, {"managePrivateNetwork", KeyKind::Flag},
    {"dsType", KeyKind::Number},            {"computers", KeyKind::Array},
    {"desiredSearchPolicy", KeyKind::Array}, {"notifications", KeyKind::Dictionary},
};

const char* wrongKey(const PropertyList& request) {
  for (const KeyKind& k : kKeyKinds) {
    const PropertyList* v = request.get(k.key);
    if (!v) continue;
    bool ok = false;
    switch (k.kind) {
      case KeyKind::String: ok = v->isString(); break;
      case KeyKind::Array: ok = v->isArray(); break;
      case KeyKind::Number: ok = v->isNumber(); break;
      case KeyKind::Flag: ok = v->isBool() || v->isNumber(); break;
      case KeyKind::Dictionary: ok = v->isDict(); break;
    }
    if (!ok) return k.key;
  }
  return nullptr;
}

PropertyList statusOnly(int status) {
  PropertyList r = PropertyList::dict();
  r.set("status", status);
  return r;
}

bool isAscii(const std::string& s) {
  for (char c : s)
    if (static_cast<unsigned char>(c) > 127) return false;
  return true;
}

// DSType of the controller preferences, or nothing.
std::optional<std::string> dsTypeFor(const PropertyList& request, const PropertyList& config) {
  const PropertyList* type = request.get("dsType");
  if (!type) type = config.get("dsType");
  // Absent everywhere reads as a standalone machine.
  long long value = type && type->isNumber() ? type->int64Value().value_or(-1) : 0;
  if (value == 2) return std::string("Master");
  if (value == 0) return std::string("Standalone");
  if (value != 1) return std::nullopt;
  const PropertyList* desired = request.get("desiredSearchPolicy");
  const PlistArray* list = desired ? desired->asArray() : nullptr;
  if (!list) return std::string("Standalone");
  const std::string* last = list->empty() ? nullptr : list->back().asString();
  std::string node = last ? *last : std::string();
  // Less the length of "/LDAPv3/".
  return "Client:" + (node.size() > 8 ? node.substr(8) : std::string());
}

}  // namespace

std::optional<PropertyList> VelmPlugin::writeConfigurationWithRequest(const PropertyList& request) {
  SANComputer& computer = SANComputer::thisComputer();
  SANFilesystem& fs = SANFilesystem::localFilesystem();
  if (const char* key = wrongKey(request)) {
    NError("%s: '%s' is not of the kind it must be; nothing was changed", kWrite, key);
    return statusOnly(1);
  }
  bool failed = false, restart = false, roleChanged = false;
  // What a killed run left half written goes first: a repeat ends where a whole run does.
  removeLeftoverTemporaries(configDir());
  removeLeftoverTemporaries(hostPath("/Library/Preferences"));

  const PropertyList* searchPolicy = request.get("searchPolicy");
  const PropertyList* removed = request.get("removedSearchPolicy");
  bool policyRan = searchPolicy || removed;
  auto answer = [&](int status) {
    PropertyList r = statusOnly(status);
    if (policyRan) {
      PropertyList now = computer.objectValueForKey("searchPolicy");
      r.set("searchPolicy", now.isNull() ? PropertyList::array() : now);
    }
    return r;
  };
  if (policyRan) {
    PropertyList current = computer.objectValueForKey("searchPolicy");
    bool ownDirectory = false;
    if (const PlistArray* a = current.asArray())
      for (const PropertyList& n : *a) ownDirectory = ownDirectory || n == PropertyList("/LDAPv3/127.0.0.1");
    bool policyFailed =
        applySearchPolicy(searchPolicy, removed, computer.ipAddresses(), ownDirectory);
    computer.invalidateObjectValueForKey("searchPolicy");
    if (policyFailed) return answer(1);
  }

  if (const std::string* secret = request.getString("authSecret"); secret && !secret->empty()) {
    std::string path = configPath(".auth_secret");
    // The file is 0600 from the start: a secret is never readable by others, not even briefly.
    int err = isAscii(*secret) ? writeFileAtomically(path, *secret, 0600) : EILSEQ;
    if (err == 0) {
      computer.invalidateObjectValueForKey("authSecret");
      restart = true;
    } else {
      NError("%s: Could not write .auth_secret to file '%@' because of error: %@", kWrite, path,
             std::string(std::strerror(err)));
      failed = true;
    }
  }

  if (const PlistArray* servers = request.get("nameservers") ? request.get("nameservers")->asArray()
                                                             : nullptr;
      servers && !servers->empty()) {
    std::string text;
    for (const PropertyList& s : *servers) {
      if (!text.empty()) text += "\n";
      text += s.asString() ? *s.asString() : describe(s);
    }
    text += "\n";
    std::string path = configPath("fsnameservers");
    if (int err = writeFileAtomically(path, text); err == 0) {
      computer.invalidateObjectValueForKey("nameServers");
      restart = true;
    } else {
      NError("%s: Could not write fsnameservers '%@' to file '%@' because of error: %@", kWrite,
             text, path, std::string(std::strerror(err)));
      failed = true;
    }
  }

  bool writesConfig = false;
  for (const char* key : {"role", "sanName", "ownerName", "ownerEmail", "computers",
                          "desiredSearchPolicy"})
    writesConfig = writesConfig || request.get(key);

  std::optional<PropertyList> upgraded;
  if (const PropertyList* upgrade = request.get("doUpgrade"); upgrade && upgrade->boolValue()) {
    // config.plist is written once, below, when this command changes it too.
    UpgradeOutcome outcome = doUpgradeToVelm2(computer.isController(), !writesConfig);
    restart = restart || outcome.restart;
    if (outcome.error) {
      if (restart) fs.sanConfigChanged();
      return outcome.error;
    }
    upgraded = std::move(outcome.mergedConfig);
  }

  bool becomesPrimary = false, wasPrimary = false;
  PropertyList config = PropertyList::dict();
  if (writesConfig) {
    std::string path = configPath("config.plist");
    std::optional<PropertyList> stored = upgraded ? upgraded : readDictionaryFile(path);
    bool fresh = !pathExists(path);
    config = stored.value_or(PropertyList::dict());
    if (const PropertyList* role = request.get("role")) {
      const PropertyList* old = config.get("role");
      if (!old || *old != *role) roleChanged = true;
      config.set("role", *role);
    }
    for (const char* key : {"sanName", "ownerName", "ownerEmail", "metadataNetwork", "computers"})
      if (const PropertyList* v = request.get(key)) config.set(key, *v);
    if (const PropertyList* primary = request.get("primaryController")) {
      becomesPrimary = *primary == computer.uuid();
      wasPrimary = computer.objectValueForKey("serverAssistantRole") ==
                   PropertyList("PRIMARY_CONTROLLER");
      config.set("primaryController", *primary);
    }
    for (const char* key : {"managePrivateNetwork", "dsType", "desiredSearchPolicy"})
      if (const PropertyList* v = request.get(key)) config.set(key, *v);
    if (fresh) restart = true;
    if (writeFileAtomically(path, writeXmlPlist(config)) != 0) {
      NError("%s: Could not write config dict '%@' to file '%@'", kWrite, config, path);
      failed = true;
    }
    // Their keys are in config.plist now, or would be had the write worked.
    if (upgraded) removeLegacyPlists();

    if (becomesPrimary || wasPrimary) {
      PropertyList prefs = PropertyList::dict();
      prefs.set("IsPrimaryController", becomesPrimary);
      if (becomesPrimary)
        if (std::optional<std::string> type = dsTypeFor(request, config)) prefs.set("DSType", *type);
      std::string prefsPath = hostPath(kControllerPreferences);
      makeDirectories(hostPath("/Library/Preferences"));
      if (writeFileAtomically(prefsPath, writeXmlPlist(prefs)) != 0) {
        NError("%s: Could not write server assistant dict '%@' to file '%@'", kWrite, prefs,
               prefsPath);
        failed = true;
      }
      computer.invalidateObjectValueForKey("serverAssistantRole");
      computer.invalidateObjectValueForKey("serverAssistantDSType");
    }

    if (request.get("role")) {
      computer.reloadObjectValueForKey("role");
      computer.reloadObjectValueForKey("needsUpdate");
      advertiseZeroConfPresense();
    }
  }

  if (const PropertyList* notifications = request.get("notifications"))
    setNotificationDictionary(notifications);

  // Deliberate: a kill between config.plist and here leaves velmd untold, and a repeat sets no
  // role flag.
  if (roleChanged)
    fs.roleChanged();
  else if (restart)
    fs.sanConfigChanged();
  return answer(failed ? 1 : 0);
}

std::optional<PropertyList> VelmPlugin::checkClientConfigurationWithRequest(
    const PropertyList& request) {
  PropertyList reachable = PropertyList::array(), unreachable = PropertyList::array();
  const PropertyList* ips = request.get("ips");
  int port = 311;
  if (const char* p = std::getenv("VELM_PROBE_PORT"); p && *p) port = std::atoi(p);
  if (const PlistArray* list = ips ? ips->asArray() : nullptr) {
    for (const PropertyList& ip : *list) {
      const std::string* text = ip.asString();
      // Deliberate: this caller's time-out is 5, in the host library's unit (ms on Linux).
      if (text && is_host_reachable(*text, port, 5))
        reachable.push(ip);
      else
        unreachable.push(ip);
    }
  }
  PropertyList r = PropertyList::dict();
  r.set("reachableIPs", reachable);
  r.set("unreachableIPs", unreachable);
  return r;
}

std::optional<PropertyList> VelmPlugin::finishClientConfigurationWithRequest(const PropertyList&) {
  SANFilesystem& fs = SANFilesystem::localFilesystem();
  SANComputer& computer = SANComputer::thisComputer();
  bool running = fs.isFsmpmRunning();
  bool hupped = false;
  if (!running)
    NError("%s: fsmpm isn't running!", "finishClientConfiguration");
  else
    hupped = fs.sanConfigChanged();
  PropertyList luns;
  if (computer.role() == PropertyList("CONTROLLER")) luns = fs.visibleLUNs();
  PropertyList fsmpmRunning(running), fsmpmHupped(hupped);
  PropertyList properties = computer.propertiesCopy();
  return dictionaryWithValuesAndKeys({{&fsmpmRunning, "fsmpmRunning"},
                                      {&fsmpmHupped, "fsmpmHupped"},
                                      {&properties, "properties"},
                                      {&luns, "visibleLUNs"}});
}

std::optional<PropertyList> VelmPlugin::clearConfigurationWithRequest(const PropertyList& request) {
  if (countLongTasks() >= 1) return responseForError("Long running tasks still in progress");
  runServiceLoader("unload");
  waitForDaemonGone();
  removeLeftoverTemporaries(configDir());
  removeConfigurationFiles();
  if (const PropertyList* removed = request.get("removedSearchPolicy")) {
    if (removed->isArray()) {
      PropertyList write = PropertyList::dict();
      write.set("command", "writeConfiguration");
      write.set("removedSearchPolicy", *removed);
      // The plugin lock is held already: the handler, not the dispatcher.
      writeConfigurationWithRequest(write);
    } else {
      NError("%s: removedSearchPolicy is not an array; the directory stays as it is",
             "clearConfiguration");
    }
  }
  SANComputer::thisComputer().clearCache();
  SANFilesystem::localFilesystem().clearCache();
  runServiceLoader("load");
  clock().sleepSeconds(2);
  advertiseZeroConfPresense();
  return getComputerPropertiesWithRequest(request);
}

std::optional<PropertyList> VelmPlugin::configureNetworkInterfaceWithRequest(
    const PropertyList& request) {
  auto text = [&](const char* key) {
    const std::string* s = request.getString(key);
    return s ? *s : std::string();
  };
  std::optional<std::string> name;
  int status = portConfigurator().configPortNamed(text("port"), text("address"),
                                                  text("subnetMask"), text("router"),
                                                  text("addressFamily"), &name);
  PropertyList r = PropertyList::dict();
  r.set("status", status);
  if (name) r.set("userDefinedName", *name);
  return r;
}

std::optional<PropertyList> VelmPlugin::getDirbaseRecordsWithRequest(const PropertyList& request) {
  auto of = [&](const char* key, bool (PropertyList::*is)() const) -> const PropertyList* {
    const PropertyList* v = request.get(key);
    return v && (v->*is)() ? v : nullptr;
  };
  const PropertyList* node = of("nodePath", &PropertyList::isString);
  const PropertyList* key = of("patternKey", &PropertyList::isString);
  const PropertyList* text = of("patternText", &PropertyList::isString);
  std::optional<PropertyList> records = directory().valueMatchedListOfRecords(
      node ? *node->asString() : std::string("/Search"), of("recordTypesArray", &PropertyList::isArray),
      of("attributeTypesArray", &PropertyList::isArray), key ? key->asString() : nullptr,
      text ? text->asString() : nullptr, of("maxRecords", &PropertyList::isNumber),
      of("optionalArguments", &PropertyList::isDict));
  PropertyList r = records && records->isDict() ? *records : PropertyList::dict();
  r.set("status", records && records->isDict() ? 0 : 100055);
  return r;
}

std::optional<PropertyList> VelmPlugin::preflightReplicaWithRequest(const PropertyList& request) {
  const std::string* master = request.getString("masterAddress");
  const std::string* rootPassword = request.getString("masterRootPassword");
  const std::string* admin = request.getString("dirAdminName");
  const std::string* adminPassword = request.getString("dirAdminPassword");
  if (!master || !rootPassword || !admin || !adminPassword) {
    PropertyList r = PropertyList::dict();
    r.set("authStatus", -1);
    r.set("status", -1);
    return r;
  }
  SANComputer& computer = SANComputer::thisComputer();
  bool isMaster = computer.ipAddresses().count(*master) ||
                  computer.objectValueForKey("legacyHostName") == PropertyList(*master);
  return preflightReplica(*master, *rootPassword, *admin, *adminPassword, isMaster);
}

}  // namespace velm
