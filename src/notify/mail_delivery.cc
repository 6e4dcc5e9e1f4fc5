#include "notify/mail_delivery.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>

#include "adminhost/host_common.h"
#include "notify/notification_config.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "platform/resources.h"

namespace velm {
namespace {

constexpr std::size_t kUnsentKept = 1000;
constexpr const char* kSendmail = "/usr/sbin/sendmail";

// VELM_MAIL_TIMEOUT (seconds, for tests), else 30 s: how long each program of the mail path
// may take.
std::uint64_t mailDeadlineMicros() {
  double seconds = 30;
  if (const char* env = std::getenv("VELM_MAIL_TIMEOUT"); env && *env) {
    char* end = nullptr;
    double v = std::strtod(env, &end);
    if (end != env && v > 0 && v < 86400) seconds = v;
  }
  return static_cast<std::uint64_t>(seconds * 1e6);
}

std::string errorText(const LaunchResult& r) {
  if (r.spawnError) return std::strerror(r.spawnError);
  return r.error;
}

void pruneUnsent(const std::string& dir) {
  std::vector<std::string> names;
  std::error_code ec;
  for (std::filesystem::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec))
    if (it->path().extension() == ".eml") names.push_back(it->path().filename().string());
  if (names.size() <= kUnsentKept) return;
  // Names sort by time: the oldest go.
  std::sort(names.begin(), names.end());
  for (std::size_t i = 0; i + kUnsentKept < names.size(); ++i)
    std::filesystem::remove(dir + "/" + names[i], ec);
}

}  // namespace

std::string unsentMailDirectory() { return hostPath("/var/spool/velm/unsent"); }

std::string spoolUnsentMail(const std::string& raw) {
  std::string dir = unsentMailDirectory();
  if (makeDirectories(dir, 0700) != 0) return {};
  std::time_t now = static_cast<std::time_t>(clock().wallMicros() / 1000000);
  struct tm utc {};
  ::gmtime_r(&now, &utc);
  char stamp[32];
  std::strftime(stamp, sizeof stamp, "%Y%m%dT%H%M%SZ", &utc);
  for (int n = 1; n < 100000; ++n) {
    char name[64];
    std::snprintf(name, sizeof name, "%s-%05d.eml", stamp, n);
    std::string path = dir + "/" + name;
    if (pathExists(path)) continue;
    if (writeFileAtomically(path, raw, 0600) != 0) return {};
    pruneUnsent(dir);
    return path;
  }
  return {};
}

std::optional<std::string> rawSendmailMessageStringWithOptions(
    const std::vector<std::pair<std::string, PropertyList>>& options, MailRound& round,
    int* status) {
  const char* fn = "rawSendmailMessageStringWithOptions";
  std::string script = resourcePath("create_velm_email.py").value_or("");
  std::vector<std::string> args;
  for (const auto& [key, value] : options) {
    if (value.isNumber()) {
      if (value.boolValue()) args.push_back(key);
      continue;
    }
    args.push_back(key);
    const std::string* text = value.asString();
    args.push_back(text ? *text : describe(value));
  }
  LaunchResult r = launch_task(script, args, {}, mailDeadlineMicros());
  if (r.timedOut) round.timedOut = true;
  // A message that isn't there can't be sent: say why rather than mail nothing.
  if (r.status != 0 || r.output.empty()) {
    *status = r.status != 0 ? r.status : 1;
    NError("%s: the mail script %@ %@ (status %d): %@", fn, script.empty() ? "(missing)" : script,
           r.timedOut ? "ran out of time" : r.status != 0 ? "failed" : "printed nothing",
           r.status, escapedForLog(errorText(r)));
    return std::nullopt;
  }
  *status = 0;
  return std::move(r.output);
}

int sendRawSendmailMessage(const std::string& raw, const std::string& address,
                           const std::string& relay, MailRound& round) {
  const char* fn = "sendRawSendmailMessage";
  (void)address;  // -t: the recipients come from the message's headers
  if (round.timedOut) {
    std::string kept = spoolUnsentMail(raw);
    NError("%s: a mail program of this round ran out of time; message kept as %@ (resend: "
           "sendmail -t < %@)",
           fn, kept, kept);
    return 75;
  }
  LaunchResult r;
  if (!relay.empty()) {
    r = launch_task_with_input_and_environment(resourcePath("femail").value_or(""), {"-t"}, raw,
                                               {{"SMTPHOST", relay}}, mailDeadlineMicros());
  } else {
    r = launch_task_with_input(hostPath(kSendmail), {"-t"}, raw, {}, mailDeadlineMicros());
  }
  std::string error = errorText(r);
  // Deliberate: the line names sendmail whichever program ran.
  NLog("%s: %@ output: (%@) error: (%@) status: %d", fn, kSendmail, r.output, error, r.status);
  if (r.timedOut || r.status != 0) {
    if (r.timedOut) round.timedOut = true;
    std::string kept = spoolUnsentMail(raw);
    NError("%s: %@ %@ (status %d%@%@); message kept as %@ (resend: sendmail -t < %@)", fn,
           relay.empty() ? kSendmail : "femail",
           r.timedOut ? "ran out of time and was stopped" : "failed", r.status,
           error.empty() ? "" : ": ", escapedForLog(error), kept, kept);
    return r.timedOut && r.status == 0 ? 75 : r.status;
  }
  if (!r.error.empty()) return 2;
  return 0;
}

int doSendNotificationEmail(const std::string& message, const std::string& subject,
                            const std::string& sender, const std::string& recipient,
                            const std::string& relay, MailRound& round) {
  std::vector<std::pair<std::string, PropertyList>> options = {
      {"--subject", PropertyList(subject)},
      {"--message", PropertyList(message)},
      {"--recipient", PropertyList(recipient)}};
  if (!sender.empty()) options.emplace_back("--admin_email", PropertyList(sender));
  int status = 0;
  std::optional<std::string> raw = rawSendmailMessageStringWithOptions(options, round, &status);
  if (!raw) return status;
  return sendRawSendmailMessage(*raw, recipient, relay, round);
}

void sendEmailNotificationWithSubject(const std::string& subject, const std::string& body,
                                      const PropertyList& configuration, MailRound& round) {
  const char* fn = "sendEmailNotificationWithSubject";
  std::string relay = relayOf(configuration);
  std::string sender = senderOf(configuration);
  NLog("%s: got server address '%@', email from Address '%@'", fn, relay, sender);
  if (!sender.empty()) {
    if (std::optional<std::string> why = unsafeMailAddress(sender)) {
      // The mail goes out without a sender of ours; the mail system names one.
      NError("%s: the sender address '%@' is refused (%@); sending without it", fn,
             escapedForLog(sender), *why);
      sender.clear();
    }
  }
  std::string pager = pagerText(body);
  const PropertyList* addresses = configuration.get("Addresses");
  const PlistArray* list = addresses ? addresses->asArray() : nullptr;
  if (!list || list->empty()) {
    NError("%s: No e-mail addresses?", fn);
    return;
  }
  for (const PropertyList& entry : *list) {
    const std::string* email = entry.isDict() ? entry.getString("email") : nullptr;
    if (!email) {
      NLog("%s: No email address, skipping.  Must be blank uid only entry", fn);
      continue;
    }
    if (std::optional<std::string> why = unsafeMailAddress(*email)) {
      NError("%s: the recipient address '%@' is refused (%@); skipping it", fn,
             escapedForLog(*email), *why);
      continue;
    }
    const std::string& message = isPager(entry) ? pager : body;
    int result = doSendNotificationEmail(message, subject, sender, *email, relay, round);
    if (result != 0)
      NLog("%s: Error %d sending e-mail notification '%@' to '%@'", fn, result, subject, *email);
  }
}

}  // namespace velm
