// Shared between the hardware queries and the display texts.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/resources.h"
#include "plist/plist.h"

namespace velm::hwinfo {

using velm::resourcesDirectory;
using velm::resourceTable;
// The HostHardwareInfo translation of key, or its built-in default.
std::string translated(std::string_view key);
void resetTextsForTest();

}  // namespace velm::hwinfo
