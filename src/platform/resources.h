// The plugin's resources directory ("the bundle"): VELM_RESOURCES, else resources/ beside the
// plugin, or for a program linked with the library, the plugin folder of the build tree or of
// the installation.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "plist/plist.h"

namespace velm {

// Nothing when there is none.
std::optional<std::string> resourcesDirectory();
// A file of the resources directory, when it exists.
std::optional<std::string> resourcePath(std::string_view fileName);
// A dictionary file of the resources directory; nothing when absent or unreadable.
std::optional<PropertyList> resourceTable(std::string_view fileName);

}  // namespace velm
