// The process runner: starts a program (no shell), feeds its standard input, collects its
// standard output and error, and always reaps it. Safe to call from several threads at once.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace velm {

struct ProcessResult {
  int status = -1;     // exit code; 128 + signal when killed; -1 when it could not be started
  int spawnError = 0;  // errno value of the failed start (status -1), else 0
  std::string output;  // everything written to standard output
  std::string error;   // everything written to standard error
  bool timedOut = false;  // the deadline passed: the group was stopped, the output may be cut
};

struct ProcessLimits {
  // Microseconds on the clock seam's monotonic clock from the start; 0: none. The child then runs
  // in a process group of its own; at the deadline the group gets SIGTERM, 2 s later SIGKILL,
  // and the pipes are let go (a grandchild may hold them). The child is always reaped.
  std::uint64_t deadlineMicros = 0;
};

// Runs path with argv = {path, args...} to its end. input goes to standard input, which is then
// closed (a child that stops reading early just loses the rest). env entries are added to or
// replace the inherited environment. The child starts with default signal handling and mask and
// no descriptors beyond 0, 1 and 2.
ProcessResult runProcess(const std::string& path, const std::vector<std::string>& args,
                         std::string_view input = {},
                         const std::map<std::string, std::string>& env = {},
                         const ProcessLimits& limits = {});

}  // namespace velm
