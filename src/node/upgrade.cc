#include "node/upgrade.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "adminhost/host_log.h"
#include "config/config_parser.h"
#include "gateway/san_filesystem.h"
#include "platform/files.h"
#include "platform/log.h"
#include "platform/paths.h"

namespace velm {
namespace {

bool isNewline(char c) { return c == '\n' || c == '\r'; }
bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v'; }

// Deliberate: a field is whatever runs up to white space, with nothing skipped before it.
std::size_t skipField(std::string_view s, std::size_t at) {
  while (at < s.size() && !isBlank(s[at])) ++at;
  return at;
}
std::size_t skipBlanks(std::string_view s, std::size_t at) {
  while (at < s.size() && isBlank(s[at])) ++at;
  return at;
}

// Raises one global limit; true when it changed the dictionary.
bool raise(PropertyList& globals, const char* key, long long highestRefused, long long to) {
  const PropertyList* v = globals.get(key);
  if (!v || !v->isNumber()) return false;
  if (v->int64Value().value_or(to) > highestRefused) return false;
  globals.set(key, to);
  return true;
}

std::optional<PropertyList> failWith(const std::string& text) {
  NError("%@", text);
  PropertyList r = PropertyList::dict();
  r.set("error", text);
  return r;
}

// Stage 2: each volume's limits, old file back when the new one doesn't read.
std::optional<PropertyList> raiseLimits() {
  SANFilesystem& fs = SANFilesystem::localFilesystem();
  PropertyList volumes = fs.volumes();
  for (const PropertyList& volume : volumes.asArray() ? *volumes.asArray() : PlistArray{}) {
    const std::string* name = volume.getString("Name");
    if (!name) continue;
    std::unique_ptr<SANConfigParser> old = SANConfigParser::parserForVolume(name);
    std::unique_ptr<SANConfigParser> changed = SANConfigParser::parserForVolume(name);
    if (!old || !changed || !old->parse() || !changed->parse())
      return failWith(format("upgradeToVelm2: unable to parse config for volume '%@'", *name));
    PropertyList* g = nullptr;
    if (PlistDict* d = changed->dictionary().asDict())
      if (PropertyList* found = d->find("Globals"); found && found->isDict()) g = found;
    if (!g) continue;
    bool set = raise(*g, "MaxConnections", 138, 139);
    set = raise(*g, "ThreadPoolSize", 255, 256) || set;
    if (!set) continue;
    changed->writeConfiguration();
    if (!changed->parse()) {
      old->writeConfiguration();
      return failWith(format("upgradeToVelm2: unable to re-parse config for volume '%@'", *name));
    }
  }
  fs.clearCache();
  return std::nullopt;
}

}  // namespace

std::string upgradedFsmList(std::string_view text) {
  std::string out;
  out.reserve(100);
  std::size_t at = 0;
  while (at < text.size()) {
    std::size_t end = at;
    while (end < text.size() && !isNewline(text[end])) ++end;
    std::size_t after = end;
    while (after < text.size() && isNewline(text[after])) ++after;
    std::string_view line = text.substr(at, end - at);
    std::string ending(text.substr(end, after - end));
    at = after;
    // A blank line went with the ending of the one before.
    if (line.empty()) continue;
    if (ending.empty()) ending.push_back('\n');
    if (line.front() == '#') {
      out.append(line).append(ending);
      continue;
    }
    std::size_t nameEnd = skipField(line, 0);
    std::size_t rest = skipBlanks(line, skipField(line, skipBlanks(line, nameEnd)));
    out.append(line.substr(0, nameEnd)).append(" . ").append(line.substr(rest)).append(ending);
  }
  return out;
}

void removeLegacyPlists() {
  std::remove(configPath("saninfo.plist").c_str());
  std::remove(configPath("role.plist").c_str());
}

UpgradeOutcome doUpgradeToVelm2(bool controller, bool writeConfig) {
  UpgradeOutcome outcome;
  std::string fsmlist = configPath("fsmlist");
  if (std::optional<std::string> text = readFile(fsmlist)) {
    if (int err = writeFileAtomically(fsmlist, upgradedFsmList(*text)); err != 0) {
      std::string why = std::strerror(err);
      HostLog("Unable to write new fsmlist file: %@", why);
      PropertyList r = PropertyList::dict();
      r.set("error", why);
      outcome.error = r;
      return outcome;
    }
  }
  if (controller) {
    outcome.error = raiseLimits();
    if (outcome.error) return outcome;
  }
  std::string sanInfo = configPath("saninfo.plist"), role = configPath("role.plist");
  std::string configFile = configPath("config.plist");
  PropertyList config = readDictionaryFile(configFile).value_or(PropertyList::dict());
  if (std::optional<PropertyList> info = readDictionaryFile(sanInfo))
    if (const PropertyList* name = info->get("name")) config.set("sanName", *name);
  if (std::optional<PropertyList> r = readDictionaryFile(role))
    if (const PropertyList* value = r->get("role")) config.set("role", *value);
  outcome.restart = true;
  if (!writeConfig) {
    outcome.mergedConfig = std::move(config);
    return outcome;
  }
  if (writeFileAtomically(configFile, writeXmlPlist(config)) != 0)
    NError("%s: Could not write config dict '%@' to file '%@'", "doUpgradeToVelm2", config,
           configFile);
  removeLegacyPlists();
  return outcome;
}

}  // namespace velm
