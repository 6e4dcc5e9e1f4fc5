// Shared between the hardware queries and the display texts.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "plist/plist.h"

namespace velm::hwinfo {

// The resources directory ("the bundle"); nothing when there is none.
std::optional<std::string> resourcesDirectory();
// A dictionary file of the resources directory; nothing when absent or unreadable.
std::optional<PropertyList> resourceTable(std::string_view fileName);
// The HostHardwareInfo translation of key, or its built-in default.
std::string translated(std::string_view key);
void resetTextsForTest();

}  // namespace velm::hwinfo
