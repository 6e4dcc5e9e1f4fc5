#include "notify/notification_config.h"

#include <array>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>

#include "platform/files.h"
#include "platform/log.h"
#include "platform/paths.h"

namespace velm {
namespace {

constexpr std::array<std::string_view, 4> kTypes = {"freeSpace", "quota", "fibre", "failover"};

std::string settingsPath() { return configPath("notifications.plist"); }

// A boolean of the file is a number too, as the settings' writers have always stored them.
bool numberLike(const PropertyList* v) { return v && (v->isNumber() || v->isBool()); }

const PropertyList* dictAt(const PropertyList& d, std::string_view key) {
  const PropertyList* v = d.get(key);
  return v && v->isDict() ? v : nullptr;
}

std::string stringAt(const PropertyList* d, std::string_view key) {
  const std::string* s = d ? d->getString(key) : nullptr;
  return s ? *s : std::string();
}

// "Read as an integer", saturated: 1e300 is the largest int, NaN is 0.
int saturatedInt(const PropertyList* v) {
  if (!numberLike(v)) return 0;
  if (v->isBool()) return v->boolValue() ? 1 : 0;
  if (std::optional<std::int64_t> i = v->int64Value(); i && v->isInteger()) {
    if (*i > std::numeric_limits<int>::max()) return std::numeric_limits<int>::max();
    if (*i < std::numeric_limits<int>::min()) return std::numeric_limits<int>::min();
    return static_cast<int>(*i);
  }
  if (std::optional<std::uint64_t> u = v->uint64Value(); u && v->isInteger())
    return std::numeric_limits<int>::max();
  double d = v->doubleValue().value_or(0);
  if (std::isnan(d)) return 0;
  if (d >= static_cast<double>(std::numeric_limits<int>::max()))
    return std::numeric_limits<int>::max();
  if (d <= static_cast<double>(std::numeric_limits<int>::min()))
    return std::numeric_limits<int>::min();
  return static_cast<int>(d);
}

bool flagAt(const PropertyList& conditions, std::string_view key) {
  const PropertyList* v = conditions.get(key);
  return numberLike(v) && v->boolValue();
}

}  // namespace

PropertyList getNotificationTypes() {
  PropertyList types = PropertyList::array();
  for (std::string_view t : kTypes) types.push(std::string(t));
  return types;
}

int getNotificationTypeWithName(std::string_view name) {
  for (std::size_t i = 0; i < kTypes.size(); ++i)
    if (kTypes[i] == name) return static_cast<int>(i);
  return -1;
}

std::optional<PropertyList> getNotificationDictionary() {
  std::string path = settingsPath();
  PlistReadResult read = readXmlPlistFile(path);
  if (read && read.value->isDict()) return *read.value;
  // A file that is there but unreadable says why; a missing one is an ordinary state.
  if (pathExists(path))
    NError("getNotificationDictionary: %@: %@", path,
           read ? std::string("not a dictionary") : read.error);
  NLog("getNotificationDictionary: No notifications dictionary.");
  return std::nullopt;
}

bool setNotificationDictionary(const PropertyList* dictionary) {
  std::string path = settingsPath();
  if (dictionary) return writeFileAtomically(path, writeXmlPlist(*dictionary)) == 0;
  if (std::remove(path.c_str()) != 0 && errno != ENOENT) {
    NError("setNotificationDictionary: Could not delete file at %@", path);
    return false;
  }
  return true;
}

bool isNotificationsDictValid(const PropertyList* dictionary) {
  const char* fn = "isNotificationsDictValid";
  if (!dictionary) {
    NLog("%s: No notifications file.  This is OK if there are no settings, otherwise it's an "
         "error.",
         fn);
    return false;
  }
  const PropertyList* server = dictAt(*dictionary, "ServerSettings");
  if (!server) {
    NError("%s: ServerSettings is not a dictionary in the notifications config file", fn);
    return false;
  }
  const PropertyList* addresses = dictionary->get("Addresses");
  if (!addresses || !addresses->isArray()) {
    NError("%s: Addresses is not an array in the notifications config file", fn);
    return false;
  }
  const PropertyList* conditions = dictAt(*dictionary, "Conditions");
  if (!conditions) {
    NError("%s: Conditions is not a dictionary in the notifications config file", fn);
    return false;
  }
  for (const char* key :
       {"FreeSpaceThreshold", "ExceededSoftQuota", "FibreFailure", "ControllerFailover"}) {
    const PropertyList* v = conditions->get(key);
    if (!numberLike(v)) {
      NError("%s: %s is not a number in the notifications config file", fn, key);
      return false;
    }
  }
  for (const char* key : {"ServerAddress", "EmailAddress"}) {
    if (!server->getString(key)) {
      NError("%s: %s is not a string in the notifications config file", fn, key);
      return false;
    }
  }
  return true;
}

NotificationConditions readConditions(const PropertyList& dictionary) {
  NotificationConditions c;
  const PropertyList* conditions = dictAt(dictionary, "Conditions");
  if (!conditions) return c;
  c.freeSpaceThreshold = saturatedInt(conditions->get("FreeSpaceThreshold"));
  c.exceededSoftQuota = flagAt(*conditions, "ExceededSoftQuota");
  c.fibreFailure = flagAt(*conditions, "FibreFailure");
  c.controllerFailover = flagAt(*conditions, "ControllerFailover");
  return c;
}

std::string relayOf(const PropertyList& dictionary) {
  return stringAt(dictAt(dictionary, "ServerSettings"), "ServerAddress");
}

std::string senderOf(const PropertyList& dictionary) {
  return stringAt(dictAt(dictionary, "ServerSettings"), "EmailAddress");
}

bool isPager(const PropertyList& entry) {
  const PropertyList* page = entry.get("page");
  if (!page) return false;
  if (const std::string* s = page->asString()) return *s == "YES";
  return numberLike(page) && page->boolValue();
}

std::string pagerText(std::string_view body) {
  // Code points start at every byte that isn't a continuation byte.
  auto starts = [](unsigned char c) { return (c & 0xC0) != 0x80; };
  std::size_t points = 0, cut = body.size();
  for (std::size_t i = 0; i < body.size(); ++i) {
    if (!starts(static_cast<unsigned char>(body[i]))) continue;
    if (points == 157) cut = i;
    ++points;
  }
  if (points < 161) return std::string(body);
  return std::string(body.substr(0, cut)) + "...";
}

std::optional<std::string> unsafeMailAddress(std::string_view address) {
  if (address.empty()) return "it is empty";
  for (char ch : address) {
    unsigned char c = static_cast<unsigned char>(ch);
    if (c < 0x20 || c == 0x7F) return "it holds a control character";
    if (c == ',' || c == ';') return "it names more than one address";
  }
  if (address.find('@') == std::string_view::npos) return "it has no '@'";
  return std::nullopt;
}

std::string escapedForLog(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (char ch : text) {
    unsigned char c = static_cast<unsigned char>(ch);
    if (c == '\\') {
      out += "\\\\";
    } else if (c < 0x20 || c == 0x7F) {
      char hex[8];
      std::snprintf(hex, sizeof hex, "\\x%02X", c);
      out += hex;
    } else {
      out += ch;
    }
  }
  return out;
}

}  // namespace velm
