// The directory part of joining a SAN: binding to LDAP servers with rosterbind and setting the
// search path with rosterctl.
#pragma once

#include <set>
#include <string>

#include "plist/plist.h"

namespace velm {

inline constexpr const char* kRosterbind = "/usr/sbin/rosterbind";
inline constexpr const char* kRosterctl = "/usr/bin/rosterctl";

// Binds to each "/LDAPv3/<server>" node of searchPolicy (up to 5 tries, 17 counting as bound),
// removes the removed ones, and appends what was bound to /Search and /Search/Contacts. The
// arrays may be null. ipAddresses and servesOwnDirectory keep this machine from binding to
// itself. True when a step failed that stops the command.
bool applySearchPolicy(const PropertyList* searchPolicy, const PropertyList* removedSearchPolicy,
                       const std::set<std::string>& ipAddresses, bool servesOwnDirectory);

}  // namespace velm
