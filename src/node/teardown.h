// Taking a machine out of its SAN: the daemon stopped and started around the removal of the
// configuration files.
#pragma once

#include <string>
#include <string_view>

namespace velm {

inline constexpr const char* kServiceLoader = "/bin/svcload";
inline constexpr const char* kProcessList = "/bin/ps";
// The service definition svcload takes.
std::string velmServiceDefinition();

// The lines of `ps -ax -o command` output (heading first) whose command's base name is name.
int countProcessesNamed(std::string_view psOutput, std::string_view name);
// Runs svcload with verb ("unload" or "load") and the service definition; its status.
int runServiceLoader(const char* verb);
// Waits, a second at a time on the clock seam and without limit, until no velmd runs.
void waitForDaemonGone();
// Removes the volumes' files, the lists, the notes and the node's configuration from the config
// directory; uuid stays. Errors are ignored.
void removeConfigurationFiles();

}  // namespace velm
