// Mail: one message per recipient, composed by the create_velm_email script of the resources
// and handed to /usr/sbin/sendmail -t, or with a relay to the resources' femail. The plugin
// writes no headers itself.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "plist/plist.h"

namespace velm {

// The mails of one round (a tick or a command). Once a mail program ran out of time, the rest of
// the round goes straight to the spool rather than waiting out the deadline again.
struct MailRound {
  bool timedOut = false;
};

// To every recipient of the settings; failures are logged, never returned.
void sendEmailNotificationWithSubject(const std::string& subject, const std::string& body,
                                      const PropertyList& configuration, MailRound& round);
// One mail: 0 or an error code.
int doSendNotificationEmail(const std::string& message, const std::string& subject,
                            const std::string& sender, const std::string& recipient,
                            const std::string& relay, MailRound& round);
// The script's raw message for the options (in order), or nothing when it failed or printed
// nothing (logged, with *status set to why).
std::optional<std::string> rawSendmailMessageStringWithOptions(
    const std::vector<std::pair<std::string, PropertyList>>& options, MailRound& round,
    int* status);
// Hands the raw message to the mail program: 0, its status, or 2 when it wrote on its error
// stream. A failed or timed-out delivery is kept in the spool.
int sendRawSendmailMessage(const std::string& raw, const std::string& address,
                           const std::string& relay, MailRound& round);

// $VELM_ROOT/var/spool/velm/unsent: the messages that could not be handed on.
std::string unsentMailDirectory();
// Keeps a message there (0600, the newest 1,000 kept); its path, or empty when it couldn't be.
std::string spoolUnsentMail(const std::string& raw);

}  // namespace velm
