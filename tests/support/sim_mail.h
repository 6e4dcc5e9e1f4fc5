// The mail stand-ins of sim/ for tests: sendmail in a sandbox, velm-simsmtp on a free port, the
// sandbox Maildir they file messages into, and the file that makes them fail.
#pragma once

#include <string>
#include <vector>

#include "plist/plist.h"
#include "support/sandbox.h"
#include "support/sim_process.h"

namespace velm::test {

// Where the plugin finds the local mail system; a symlink to the built stand-in.
inline constexpr const char* kSandboxSendmail = "/usr/sbin/sendmail";
// The Maildir both stand-ins deliver to (new/, tmp/, cur/ below it).
inline constexpr const char* kSandboxMaildir = "/var/mail";

// Links the sendmail stand-in to <root>/usr/sbin/sendmail; a failure fails the test.
void installSendmail(const SandboxRoot& sandbox);

// Starts velm-simsmtp on 127.0.0.1 with a port of its choosing, filing into the sandbox's
// Maildir; extraArgs go after the others (--tls-cert ...). The port, or 0 when it did not start
// (the reason in smtp.stderrText()).
int startSimSmtp(SimProcess& smtp, const SandboxRoot& sandbox,
                 const std::vector<std::string>& extraArgs = {});

// The messages in <root>/var/mail/new/, in the order of their file names, each as filed.
std::vector<std::string> maildirMessages(const SandboxRoot& sandbox);

// Writes <root>/sim/mail.plist: {mode: mode} plus the settings given (status, smtpCode).
void writeMailMode(const SandboxRoot& sandbox, const std::string& mode,
                   const PropertyList& settings = PropertyList::dict());

// Notification settings that pass every check: mail to emails through relay (empty: the local
// mail system) from sender (empty: none), on the conditions given.
PropertyList notificationSettings(const std::vector<std::string>& emails, int threshold,
                                  bool quota, bool fibre, bool failover,
                                  const std::string& relay = "", const std::string& sender = "");

}  // namespace velm::test
