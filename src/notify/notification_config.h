// The notification settings (config/notifications.plist): reading, validating and writing them,
// the notification types, and the checks every recipient passes before a mail is made.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "plist/plist.h"

namespace velm {

// freeSpace, quota, fibre, failover: a type travels as its index in this list.
PropertyList getNotificationTypes();
// The index of a type's name, or -1.
int getNotificationTypeWithName(std::string_view name);

// The settings file as a dictionary; nothing (logged) when missing or unreadable.
std::optional<PropertyList> getNotificationDictionary();
// Writes the dictionary atomically, or with nullptr removes the file. True on success.
bool setNotificationDictionary(const PropertyList* dictionary);
// The nine tests in their fixed order; the first failure is logged and answers false.
bool isNotificationsDictValid(const PropertyList* dictionary);

// The four conditions of a valid dictionary.
struct NotificationConditions {
  int freeSpaceThreshold = 0;  // percent; 0: off
  bool exceededSoftQuota = false;
  bool fibreFailure = false;
  bool controllerFailover = false;
};
NotificationConditions readConditions(const PropertyList& dictionary);

// ServerSettings' ServerAddress (the relay; empty: the local mail system) and EmailAddress.
std::string relayOf(const PropertyList& dictionary);
std::string senderOf(const PropertyList& dictionary);

// An entry of Addresses that is a pager: page is "YES" or a number that is true.
bool isPager(const PropertyList& entry);
// The body whole when shorter than 161 code points, else its first 157 and "...". A UTF-8
// sequence is never split.
std::string pagerText(std::string_view body);

// Why an address from the settings can't go into a mail (a control character, "," or ";", no
// "@", nothing at all), or nothing when it can. The one check for recipients and senders.
std::optional<std::string> unsafeMailAddress(std::string_view address);
// The text with control characters and backslashes escaped, for a log line.
std::string escapedForLog(std::string_view text);

}  // namespace velm
