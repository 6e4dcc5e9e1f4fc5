// The node tool stand-ins of sim/ for tests (rosterbind, rosterctl, replicacfg, svcload, ps,
// nmcli, networkctl): linked into a sandbox where the plugin runs them, their behaviour and
// state files, and the sandbox's velm-simd that svcload stops and starts.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "adminhost/host_common.h"
#include "plist/plist.h"
#include "support/sandbox.h"

namespace velm::test {

// Where the plugin runs each tool, under the sandbox root.
inline constexpr const char* kSandboxRosterbind = "/usr/sbin/rosterbind";
inline constexpr const char* kSandboxRosterctl = "/usr/bin/rosterctl";
inline constexpr const char* kSandboxReplicacfg = "/usr/sbin/replicacfg";
inline constexpr const char* kSandboxSvcload = "/bin/svcload";
inline constexpr const char* kSandboxPs = "/bin/ps";
inline constexpr const char* kSandboxNmcli = "/usr/bin/nmcli";
inline constexpr const char* kSandboxNetworkctl = "/usr/bin/networkctl";

// The stand-ins' own files, under the sandbox root.
inline constexpr const char* kDirectoryBinds = "/sim/directory/binds.plist";          // rosterbind
inline constexpr const char* kDirectoryPasswords = "/sim/directory/passwords.plist";  // user -> pw
inline constexpr const char* kDirectorySearchNodes = "/sim/directory/search.plist";   // rosterctl
inline constexpr const char* kNmcliTable = "/sim/network/nmcli.plist";
inline constexpr const char* kPsExtraLines = "/sim/tools/ps.lines";
inline constexpr const char* kSimdLog = "/sim/velm-simd.log";  // of a velm-simd svcload started
// What svcload unload and load take (only the file name counts).
inline constexpr const char* kVelmdServiceDefinition = "/etc/svcload.d/com.orvane.velm.plist";

// Each tool's name and its path in a sandbox, in one list so a new one is installed everywhere.
const std::vector<std::pair<std::string, std::string>>& nodeToolPaths();
// Symlinks each built stand-in to its path under the sandbox root; a failure fails the test.
void installNodeTools(const SandboxRoot& sandbox);

// Runs the tool (a name of nodeToolPaths) through its sandbox link, as the plugin does: input on
// standard input, env added to this process's environment (VELM_ROOT is the sandbox's already).
LaunchResult runNodeTool(const SandboxRoot& sandbox, const std::string& name,
                         const std::vector<std::string>& args, const std::string& input = "",
                         const std::map<std::string, std::string>& env = {},
                         std::uint64_t deadlineMicros = 0);

// Writes <root>/sim/tools/<name>.plist (exitStatus, output, error, failTimes, failStatus, hang,
// sleepSeconds, and the tool's own keys).
void writeToolBehaviour(const SandboxRoot& sandbox, const std::string& name,
                        const PropertyList& behaviour);
// The lines of <root>/sim/tools/<name>.calls: each run's arguments, quoted as a shell needs.
std::vector<std::string> toolCalls(const SandboxRoot& sandbox, const std::string& name);
// Writes the passwords the directory stand-ins check (user -> password).
void writeDirectoryPasswords(const SandboxRoot& sandbox,
                             const std::map<std::string, std::string>& passwords);

// The living velm-simd processes whose --root is this sandbox's root (zombies are gone), by pid:
// what svcload stops and ps lists as velmd.
std::vector<pid_t> simdPidsServing(const SandboxRoot& sandbox);
// SIGTERM to each of them, SIGKILL after 10 s, and reaps those that are this process's
// children (as a daemon that svcload started is, under a child subreaper): stop a SimProcess
// of the same root first, or it finds its child reaped. True when none needed SIGKILL.
bool stopSimdServing(const SandboxRoot& sandbox);

}  // namespace velm::test
