// One resolver for every host path, so the whole system runs inside a sandbox root.
// VELM_ROOT prefixes the system's absolute paths; VELM_SYSFS and VELM_PROCFS move the kernel trees.
// Values are read once; resetPathsForTest() reads the environment again.
#pragma once

#include <string>
#include <string_view>

namespace velm {

// VELM_ROOT without a trailing slash; empty for the real root.
std::string velmRoot();
// An absolute host path of the system ("/Library/...", "/var/run/...", "/etc/hostname") under the
// root. "/dev/null" stays as it is.
std::string hostPath(std::string_view absolutePath);
// The plugin's file-system root: VELM_ROOT + /Library/Filesystems/Velm.
std::string velmFsPath(std::string_view relative = {});
// The plugin's config directory and a file in it.
std::string configDir();
std::string configPath(std::string_view name);
// DRFSROOT as is when set, else VELM_ROOT + /Library/Filesystems/Velm (the admin library's root).
std::string drfsRootPath();
std::string sysfsPath(std::string_view relative = {});
std::string procfsPath(std::string_view relative = {});

void resetPathsForTest();

}  // namespace velm
