// What gets mailed: at each idle tick the volumes' free space and soft quotas and the fibre
// activity log, a failover when told of one, and any text an administrator sends.
#pragma once

#include <string>

#include "plist/plist.h"

namespace velm {

struct MailRound;

// The tick's work; always 0. context holds notificationStateLookup; sanName names the SAN in
// the mails.
int processNotifications(PropertyList* context, const PropertyList& sanName);
// True when key has no date in state, or more than 86400.0 s have passed since it.
bool is_time_to_notify(const PropertyList& state, const std::string& key);
// The fibre mail's body for the log's entries; empty when there are none.
std::string fibreMailBody(const PropertyList& log);
// Mails that volume came up on host ("restarted" when host is this machine).
void sendFailoverNotificationForVolume(const std::string& volume, const std::string& host,
                                       const PropertyList& sanName);
// Mails subject and body (the test texts when both are empty) under configuration.
void sendNotification(int type, const std::string& subject, const std::string& body,
                      const PropertyList& configuration, const PropertyList& sanName,
                      MailRound& round);
// Whether a host name or address is this machine: its host name, FQDN or computer name (case
// aside), or one of its addresses.
bool isThisHost(const std::string& host);
// The machine's name for a mail: the computer name, else the host name, else "localhost".
std::string get_ascii_name_or_ip();

}  // namespace velm
