#include "adminhost/context_store.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "adminhost/host_log.h"
#include "platform/clock.h"
#include "platform/entry_name.h"
#include "platform/files.h"
#include "platform/paths.h"

namespace velm {
namespace {

constexpr std::string_view kContextDirty = "contextDirty";

std::string contextDirectory() { return hostPath("/var/adminhostd/context"); }

// <path>.corrupt-20240102T030405Z, with -2, -3, ... when that name is taken. link() never
// replaces an existing file, so an earlier corrupt copy is never overwritten.
int keepAside(const std::string& path, std::string* aside) {
  std::time_t now = static_cast<std::time_t>(clock().wallMicros() / 1000000);
  std::tm tm{};
  gmtime_r(&now, &tm);
  char stamp[32];
  std::strftime(stamp, sizeof stamp, "%Y%m%dT%H%M%SZ", &tm);
  std::string base = path + ".corrupt-" + stamp;
  for (int n = 1; n <= 1000; ++n) {
    std::string candidate = n == 1 ? base : base + "-" + std::to_string(n);
    if (::link(path.c_str(), candidate.c_str()) == 0) {
      ::unlink(path.c_str());
      *aside = candidate;
      return 0;
    }
    int err = errno;
    if (err == EEXIST) continue;
    // A file system without hard links: rename, having checked the name is free.
    if (pathExists(candidate)) continue;
    if (::rename(path.c_str(), candidate.c_str()) != 0) return errno;
    *aside = candidate;
    return 0;
  }
  return EEXIST;
}

}  // namespace

std::string pluginContextPath(const std::string& plugin) {
  if (!isSafeEntryName(plugin)) return {};
  return contextDirectory() + "/" + plugin + ".plist";
}

PropertyList loadPluginContext(const std::string& plugin) {
  std::string path = pluginContextPath(plugin);
  if (path.empty()) {
    HostLog("bad plugin name '%s', its context starts empty", plugin);
    return PropertyList::dict();
  }
  if (!pathExists(path)) {
    // Always logged, as the corrupt case is: a first start is worth a line, logging on or off.
    HostLog("no saved context for plugin %s at %s, starting empty", plugin, path);
    return PropertyList::dict();
  }
  PlistReadOptions options;
  options.requireDictionary = true;
  PlistReadResult r = readXmlPlistFile(path, options);
  if (r && r.value->isDict()) {
    PropertyList context = std::move(*r.value);
    context.erase(kContextDirty);
    return context;
  }
  std::string aside;
  if (int err = keepAside(path, &aside); err != 0) {
    HostLog(
        "context of plugin %s at %s is unreadable (%s) and could not be kept aside: %s; starting "
        "empty",
        plugin, path, r.error, std::strerror(err));
  } else {
    HostLog("context of plugin %s at %s is unreadable (%s); kept as %s, starting empty", plugin,
            path, r.error, aside);
  }
  return PropertyList::dict();
}

int savePluginContext(const std::string& plugin, const PropertyList& context) {
  std::string path = pluginContextPath(plugin);
  if (path.empty() || !context.isDict()) return EINVAL;
  if (int err = makeDirectories(contextDirectory()); err != 0) return err;
  // The context holds history and notification state: keep it from other users.
  return writeXmlPlistFile(path, context, 0600);
}

bool takeContextDirty(PropertyList* context) {
  const PropertyList* flag = context->get(kContextDirty);
  if (!flag) return false;
  bool dirty = flag->boolValue();
  context->erase(kContextDirty);
  return dirty;
}

}  // namespace velm
