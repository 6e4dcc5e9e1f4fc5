// The processes of the stand-in's local FSMs: each running local FSM without a configured pid is
// a child process ("fsm" in the process table) that burns its share of a CPU and touches its
// resident memory, so the plugin's process sampler has something real to read.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <vector>
#include <utility>

namespace velm::sim {

struct SimFsm;

class SimFsmProcesses {
 public:
  SimFsmProcesses() = default;
  ~SimFsmProcesses();
  SimFsmProcesses(const SimFsmProcesses&) = delete;
  SimFsmProcesses& operator=(const SimFsmProcesses&) = delete;

  // The program a companion runs as ("PROGRAM --fsm-process ..."); empty: no companions. With
  // companions, a sandbox process table gets a link to the machine's stat file.
  void setProgram(std::string program);

  // Starts a process for every slot that should have one and ends the others; an FSM that
  // changed between active and standby gets a new one (the old one failed away). Sets each
  // slot's processPid. The caller holds the lock that guards fsms.
  void reconcile(std::deque<SimFsm>& fsms, const std::function<bool(const SimFsm&)>& isLocal);

  // Runs argv ("%v" the volume, "%h" host) whenever a standby here becomes active.
  void setFailoverHook(std::vector<std::string> argv, std::string host) {
    hook_ = std::move(argv);
    hookHost_ = std::move(host);
  }

  // Ends every process; waits for the hooks still running.
  void endAll();

 private:
  struct Child {
    pid_t pid = 0;
    bool active = false;
  };
  void end(Child& child);
  void runHook(const std::string& volume);
  std::string program_;
  std::vector<std::string> hook_;
  std::string hookHost_;
  std::vector<pid_t> hooks_;  // running, reaped as they end
  std::map<std::size_t, Child> children_;  // by slot
};

// The body of a companion process (velm-simpm --fsm-process NAME LOAD BYTES PARENT); never
// returns.
[[noreturn]] void runFsmProcess(const std::string& name, int cpuLoad, std::uint64_t residentBytes,
                                pid_t parent);

}  // namespace velm::sim
