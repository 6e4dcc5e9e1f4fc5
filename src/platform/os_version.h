// The host's release: the "server version" and "system version" dictionaries, with the keys
// ProductName, ProductVersion and ProductBuildVersion (each only when the host names it).
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "plist/plist.h"

namespace velm {

// A server edition of the operating system has no counterpart on Linux: this answers only when an
// installer put a property-list dictionary at /etc/velm/server-version.plist (under the root);
// otherwise nothing, and callers go on to the system version.
std::optional<PropertyList> serverVersionDictionary();

// /etc/os-release, else /usr/lib/os-release (under the root): NAME is ProductName, VERSION_ID
// ProductVersion, BUILD_ID ProductBuildVersion. Nothing when neither file can be read.
std::optional<PropertyList> systemVersionDictionary();

// The KEY=value lines of os-release and machine-info, in file order: comments and malformed lines
// skipped, quotes and backslash escapes of the value undone. Never fails.
std::vector<std::pair<std::string, std::string>> parseShellAssignments(std::string_view text);

}  // namespace velm
