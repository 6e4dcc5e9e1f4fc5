// The host's common library (libadminhostcommon): running tools, this machine's addresses, and
// the directory service.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "plist/plist.h"

namespace velm {

struct LaunchResult {
  int status = -1;     // exit code; 128 + signal when killed; -1 when it could not be started
  std::string output;  // standard output
  std::string error;   // standard error
  int spawnError = 0;  // errno of a start that failed (status -1)
  bool timedOut = false;  // stopped at its deadline
};

// Runs path with args (args[0] is not the program name: it is added) to its end; no shell.
// env entries are added to (or replace) the inherited environment. A deadline (microseconds,
// 0: none) stops the tool and whatever it started (ProcessLimits of platform/process.h).
LaunchResult launch_task(const std::string& path, const std::vector<std::string>& args,
                         const std::map<std::string, std::string>& env = {},
                         std::uint64_t deadlineMicros = 0);
// The same, feeding input on standard input.
LaunchResult launch_task_with_input(const std::string& path, const std::vector<std::string>& args,
                                    std::string_view input,
                                    const std::map<std::string, std::string>& env = {},
                                    std::uint64_t deadlineMicros = 0);
// The same, with environment entries for the tool.
LaunchResult launch_task_with_input_and_environment(const std::string& path,
                                                    const std::vector<std::string>& args,
                                                    std::string_view input,
                                                    const std::map<std::string, std::string>& env,
                                                    std::uint64_t deadlineMicros = 0);

// The process table ($VELM_PROCFS): a process's name is the base name of its argv[0], else its
// comm. A process lives while it can be signalled and is no zombie.
// The pid of a living process of that name, or -1.
int ec_pid_for_process_named(const std::string& name);
// pid when a living process of that number has that name, else -1.
int ec_check_pid_for_process_named(const std::string& name, int pid);
bool ec_check_process_by_pid(int pid);

// True when a TCP connection to address:port (a name or an address text) opens within timeoutMs
// milliseconds.
bool is_host_reachable(const std::string& address, int port, int timeoutMs);

// One dictionary per interface address: family ("AF_INET", "AF_INET6"), ipAddress, name,
// subnetMask, userDefinedName, plus macAddress and flags where known.
PropertyList get_interfaces_info();
// This machine's IPv4 addresses as strings (VELM_HOST_ADDRESSES when set).
PropertyList get_host_ips();
// The address texts a host name (or address text) resolves to; empty when it resolves to none.
std::set<std::string> addresses_of_host(const std::string& host);
// Every address this machine answers to, as the platform lists its own host: the stand-ins when
// VELM_HOST_ADDRESSES is set, else every interface address and the loopback ones.
PropertyList current_host_addresses();
// Directory node information: attribute name to array of values; node 0 is the search node.
PropertyList DSGetNodeInfo(int node, const std::vector<std::string>& attributes);

}  // namespace velm
