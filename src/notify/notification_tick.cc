#include "notify/notification_tick.h"

#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <ctime>

#include "adminhost/host_common.h"
#include "fabric/device_manager.h"
#include "gateway/san_filesystem.h"
#include "notify/localization.h"
#include "notify/mail_delivery.h"
#include "notify/notification_config.h"
#include "platform/clock.h"
#include "platform/host_config.h"
#include "platform/log.h"
#include "volumes/quotas.h"
#include "volumes/volume_inspection.h"
#include "volumes/volume_state.h"

namespace velm {
namespace {

constexpr double kUnixOf2001 = 978307200.0;
constexpr double kDaySeconds = 86400.0;
constexpr const char* kStateKey = "notificationStateLookup";

double nowSeconds() { return static_cast<double>(clock().wallMicros()) / 1e6; }

PropertyList nowAsDate() { return PropertyList(PlistDate{nowSeconds() - kUnixOf2001}); }

std::string lowered(std::string s) {
  std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return std::tolower(c); });
  return s;
}

std::optional<std::uint64_t> unsignedAt(const PropertyList* dict, std::string_view key) {
  const PropertyList* v = dict ? dict->get(key) : nullptr;
  if (!v || !v->isNumber()) return std::nullopt;
  if (std::optional<std::uint64_t> u = v->uint64Value()) return u;
  // A negative or fractional number reads as C reads it into an unsigned 64-bit word.
  if (std::optional<std::int64_t> i = v->int64Value()) return static_cast<std::uint64_t>(*i);
  double d = v->doubleValue().value_or(0);
  if (!(d >= 0)) return 0;
  return d >= 18446744073709551615.0 ? UINT64_MAX : static_cast<std::uint64_t>(d);
}

long long signedAt(const PropertyList* dict, std::string_view key) {
  const PropertyList* v = dict ? dict->get(key) : nullptr;
  if (!v || !v->isNumber()) return 0;
  if (std::optional<std::int64_t> i = v->int64Value()) return *i;
  return 0;
}

// One tick's view of the settings and its state.
struct Tick {
  PropertyList configuration;
  NotificationConditions conditions;
  PropertyList state;
  bool changed = false;
  const PropertyList& sanName;
  MailRound round;
};

void mail(Tick& t, int type, const std::string& subject, const std::string& body) {
  sendNotification(type, subject, body, t.configuration, t.sanName, t.round);
}

// Mails for key unless one went out in the last 24 hours.
void notifyOnce(Tick& t, const std::string& key, int type, const std::string& subject,
                const std::string& body) {
  const char* fn = "processNotifications";
  if (!is_time_to_notify(t.state, key)) {
    NLog("%s: Not time to send e-mail for %@.  Waiting for 24 hours after initial e-mail.", fn,
         key);
    return;
  }
  NLog("%s: Time to send e-mail for %@", fn, key);
  mail(t, type, subject, body);
  // Deliberate: dated whether or not the mail got through; a failed one waits 24 hours too.
  t.state.set(key, nowAsDate());
  t.changed = true;
}

void reset(Tick& t, const std::string& key) {
  if (t.state.get(key))
    NLog("%s: Condition %@ no longer met.  Resetting notification information.",
         "processNotifications", key);
  t.state.erase(key);
  // Deliberate: marked as changed even when there was no entry to remove.
  t.changed = true;
}

void testFreeSpace(Tick& t, const std::string& volume, const PropertyList* stats) {
  const char* fn = "is_volume_over_space_threshold";
  std::string key = volume + "-FreeSpaceThreshold";
  std::optional<std::uint64_t> total = unsignedAt(stats, "TotalSize");
  if (!total) {
    NLog("%s: Total Size unknown. Is the volume on standby?", fn);
    return;
  }
  std::uint64_t remainingWord = unsignedAt(stats, "RemainingSize").value_or(0);
  // Deliberate: single-precision sizes, the percentage narrowed to a float.
  float totalF = static_cast<float>(*total), remaining = static_cast<float>(remainingWord);
  float percentLeft = static_cast<float>(static_cast<double>(remaining) * 100.0 /
                                         static_cast<double>(totalF));
  int threshold = t.conditions.freeSpaceThreshold;
  NLog("%s: %@ on %@, percentLeft = %f, freeSpaceThreshold = %d", fn,
       stats ? stats->get("Name") : nullptr, stats ? stats->get("Host") : nullptr,
       static_cast<double>(percentLeft), threshold);
  // NaN (a total of 0) is not below: the state resets.
  if (percentLeft < static_cast<float>(threshold)) {
    NLog("%s: Volume %@ has less than %d%% available", "processNotifications", volume, threshold);
    notifyOnce(t, key, 0, localized("%@: Volume %@ low on space", t.sanName, volume),
               localized("Volume %@ in SAN %@ has less than %d%% available space.", volume,
                         t.sanName, threshold));
  } else {
    reset(t, key);
  }
}

void testQuotas(Tick& t, int handle, const std::string& volume) {
  const char* fn = "processNotifications";
  const char* region = "is_quota_in_soft_region";
  std::optional<PropertyList> quotas = get_quotas_for_fsmvol_named(handle, &volume, false);
  const PlistArray* list = quotas ? quotas->asArray() : nullptr;
  if (!list) return;
  for (const PropertyList& record : *list) {
    if (!record.isDict()) continue;
    const PropertyList* name = record.get("name");
    const PropertyList* type = record.get("type");
    const std::string* typeText = type ? type->asString() : nullptr;
    std::string translatedType = typeText ? getLocalizedString(*typeText) : std::string();
    std::string key = format("%@-%@-%@-%@", volume, type, name, "ExceededSoftQuota");
    if (signedAt(&record, "timeRemaining") < 0) {
      // The grace period has run out.
      NLog("%s: %@ %@ quota is in hard quota", region, type, name);
    } else {
      std::uint64_t used = unsignedAt(&record, "amountUsed").value_or(0);
      std::uint64_t hard = unsignedAt(&record, "hardLimit").value_or(0);
      std::uint64_t soft = unsignedAt(&record, "softLimit").value_or(0);
      if (used < soft) {
        NLog("%s: %@ %@ quota is below soft", region, type, name);
        reset(t, key);
        continue;
      }
      if (used < hard)
        NLog("%s: %@ %@ quota is above soft quota", region, type, name);
      else
        NLog("%s: %@ %@ quota is above hard quota!", region, type, name);
    }
    NLog("%s: %@ %@ is above their soft quota on %@", fn, type, name, volume);
    notifyOnce(t, key, 1, localized("%@: %@ is above quota", t.sanName, name),
               localized("%@ %@ is above their soft quota on volume %@ in SAN %@.",
                         translatedType, name, volume, t.sanName));
  }
}

void mailFibreLog(Tick& t) {
  PropertyList log = SANDeviceManager::defaultManager().readRecentFibreLog();
  std::string body = fibreMailBody(log);
  if (body.empty()) return;
  std::string host = get_ascii_name_or_ip();
  mail(t, 2, localized("%@: Fibre Channel activity log for %s", t.sanName, host.c_str()), body);
}

std::string fibreTime(const PropertyList* time) {
  if (!time) return "<Date Error>";
  if (std::optional<PlistDate> date = time->asDate()) {
    double seconds = date->secondsSince2001 + kUnixOf2001;
    if (std::isfinite(seconds) && std::fabs(seconds) < 1e15) {
      std::time_t when = static_cast<std::time_t>(std::floor(seconds));
      struct tm local {};
      char text[16];
      if (::localtime_r(&when, &local) && std::strftime(text, sizeof text, "%H:%M:%S", &local))
        return text;
    }
    return "<Date Error>";
  }
  if (const std::string* s = time->asString()) return *s;
  return describe(*time);
}

}  // namespace

bool is_time_to_notify(const PropertyList& state, const std::string& key) {
  const PropertyList* entry = state.get(key);
  std::optional<PlistDate> date = entry ? entry->asDate() : std::nullopt;
  if (!date) return true;
  double since = nowSeconds() - (date->secondsSince2001 + kUnixOf2001);
  // A clock set back would leave a date ahead; more than a day ahead counts as none.
  if (since < -kDaySeconds) {
    NLog("is_time_to_notify: the date for %@ lies ahead; taking it as none", key);
    return true;
  }
  return since > kDaySeconds;
}

std::string fibreMailBody(const PropertyList& log) {
  const PlistArray* entries = log.asArray();
  if (!entries || entries->empty()) return {};
  std::string body = getLocalizedString("Fibre channel activity and failures: ") + "\n";
  std::string available = getLocalizedString("is now available.");
  std::string gone = getLocalizedString("is no longer available.");
  std::string line = localizedFormatText("%@: %@ %@%@ %@\n");
  for (const PropertyList& entry : *entries) {
    const PropertyList* type = entry.isDict() ? entry.get("type") : nullptr;
    const std::string* typeText = type ? type->asString() : nullptr;
    std::string translatedType =
        typeText && !typeText->empty() ? getLocalizedString(*typeText) : std::string();
    if (translatedType.empty()) translatedType = "<Type Error>";
    const PropertyList* wwnn = entry.isDict() ? entry.get("wwnn") : nullptr;
    const PropertyList* lun = entry.isDict() ? entry.get("lun") : nullptr;
    const PropertyList* event = entry.isDict() ? entry.get("event") : nullptr;
    const std::string* eventText = event ? event->asString() : nullptr;
    std::string what = eventText && *eventText == "Addition" ? available
                       : eventText && *eventText == "Loss"   ? gone
                                                             : std::string();
    if (what.empty()) what = "<Event Error>";
    std::string name = wwnn ? (wwnn->asString() ? *wwnn->asString() : describe(*wwnn))
                            : std::string("<WWNN Error>");
    std::string unit = lun ? (lun->asString() ? *lun->asString() : describe(*lun)) : std::string();
    // The arguments only view their texts: each is kept in a local first.
    std::string when = fibreTime(entry.isDict() ? entry.get("time") : nullptr);
    const FormatArg args[] = {FormatArg(when), FormatArg(translatedType), FormatArg(name),
                              FormatArg(unit), FormatArg(what)};
    // Deliberate: the unit follows the name with no space between.
    body += vformat(line, args);
  }
  return body;
}

int processNotifications(PropertyList* context, const PropertyList& sanName) {
  const char* fn = "processNotifications";
  std::optional<PropertyList> configuration = getNotificationDictionary();
  if (!configuration) {
    NLog("%s: No notifications to process.  Exiting.", fn);
    return 0;
  }
  if (!isNotificationsDictValid(&*configuration)) {
    NError("%s: Notifications Dictionary is invalid", fn);
    return 0;
  }
  const PropertyList* addresses = configuration->get("Addresses");
  if (!addresses || addresses->size() == 0) return 0;
  if (!context || !context->isDict()) return 0;

  Tick t{*configuration, readConditions(*configuration), PropertyList::dict(), false, sanName, {}};
  if (const PropertyList* state = context->get(kStateKey)) {
    if (state->isDict())
      t.state = *state;
    else
      NError("%s: %s in the context is not a dictionary; starting it afresh", fn, kStateKey);
  }
  if (!context->get(kStateKey) || !context->get(kStateKey)->isDict()) {
    context->set(kStateKey, t.state);
    context->set("contextDirty", true);
  }
  SANFilesystem& fs = SANFilesystem::localFilesystem();
  PropertyList volumes = fs.volumes();

  int handle = open_fs_connection();
  if (handle < 0) {
    NError("process_notifications: Cannot connect to FS");
    return 0;
  }
  // Deliberate: the tick's connection is never closed. Connections to one host share a slot by
  // reference count, so each tick only adds a reference.
  if (t.conditions.freeSpaceThreshold != 0 || t.conditions.exceededSoftQuota) {
    const PlistArray* list = volumes.asArray();
    for (const PropertyList& volume : list ? *list : PlistArray{}) {
      const std::string* name = volume.getString("Name");
      if (!name) continue;
      std::optional<PropertyList> record = get_fsmvol_named(handle, name);
      PropertyList r = record ? *record : PropertyList::dict();
      const PropertyList* stats = r.get("VolumeStats");
      if (stats && !stats->isDict()) stats = nullptr;
      if (!fs.areWePrimaryControllerWithDict(r)) {
        NLog("process_notifications: Skipping %@, it is hosted by '%@' which is not this machine",
             *name, stats ? stats->get("Host") : nullptr);
        continue;
      }
      if (t.conditions.freeSpaceThreshold != 0) testFreeSpace(t, *name, stats);
      if (t.conditions.exceededSoftQuota) testQuotas(t, handle, *name);
    }
  }
  if (t.conditions.fibreFailure) mailFibreLog(t);
  // Deliberate: cleared at every tick that gets this far, mailed or not.
  SANDeviceManager::defaultManager().clearRecentFibreLog();
  if (t.changed) {
    context->set(kStateKey, t.state);
    context->set("contextDirty", true);
  }
  return 0;
}

void sendNotification(int type, const std::string& subject, const std::string& body,
                      const PropertyList& configuration, const PropertyList& sanName,
                      MailRound& round) {
  (void)type;  // accepted, not read further
  if (subject.empty() && body.empty()) {
    sendEmailNotificationWithSubject(
        localized("%@: Test notification", sanName),
        localized("Please do not be alarmed. This is only a test for SAN %@.", sanName),
        configuration, round);
    return;
  }
  sendEmailNotificationWithSubject(subject, body, configuration, round);
}

void sendFailoverNotificationForVolume(const std::string& volume, const std::string& host,
                                       const PropertyList& sanName) {
  const char* fn = "sendFailoverNotificationForVolume";
  std::optional<PropertyList> configuration = getNotificationDictionary();
  if (!configuration) {
    NLog("%s: No notifications to process.  Exiting.", fn);
    return;
  }
  if (!isNotificationsDictValid(&*configuration)) {
    NError("%s: Notifications Dictionary is invalid", fn);
    return;
  }
  const PropertyList* addresses = configuration->get("Addresses");
  if (!addresses || addresses->size() == 0) return;
  if (!readConditions(*configuration).controllerFailover) {
    NLog("%s: Failover of volume %@ onto controller %@.  Admin has not specified e-mail "
         "notification for this event.  Ignoring.",
         fn, volume, host);
    return;
  }
  NLog("%s: Failover of volume %@ onto controller %@.  Attempting to send e-mail.", fn, volume,
       host);
  std::string subject, body;
  if (isThisHost(host)) {
    subject = localized("%@: Volume %s has restarted", sanName, volume.c_str());
    body = localized("The volume %s in SAN %@ is back online and running on %s.", volume.c_str(),
                     sanName, host.c_str());
  } else {
    subject = localized("%@: Volume %s has failed over", sanName, volume.c_str());
    body = localized("Volume %s in SAN %@ has failed over.  It is now being hosted by %s.",
                     volume.c_str(), sanName, host.c_str());
  }
  MailRound round;
  sendNotification(getNotificationTypeWithName("failover"), subject, body, *configuration,
                   sanName, round);
}

bool isThisHost(const std::string& host) {
  if (host.empty()) return false;
  std::string wanted = lowered(host);
  char name[256] = {};
  if (::gethostname(name, sizeof name - 1) == 0 && name[0]) {
    if (lowered(name) == wanted) return true;
    struct addrinfo hints {};
    hints.ai_flags = AI_CANONNAME;
    hints.ai_family = AF_UNSPEC;
    struct addrinfo* found = nullptr;
    if (::getaddrinfo(name, nullptr, &hints, &found) == 0 && found) {
      bool same = found->ai_canonname && lowered(found->ai_canonname) == wanted;
      ::freeaddrinfo(found);
      if (same) return true;
    }
  }
  if (std::optional<std::string> computer = hostConfig().computerName())
    if (lowered(*computer) == wanted) return true;
  PropertyList ips = get_host_ips();
  for (const PropertyList& ip : ips.asArray() ? *ips.asArray() : PlistArray{})
    if (const std::string* s = ip.asString(); s && *s == host) return true;
  return false;
}

std::string get_ascii_name_or_ip() {
  if (std::optional<std::string> computer = hostConfig().computerName(); computer && !computer->empty())
    return *computer;
  char name[256] = {};
  if (::gethostname(name, sizeof name - 1) == 0 && name[0]) return name;
  return "localhost";
}

}  // namespace velm
