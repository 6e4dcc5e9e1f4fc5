#include "sim/simpm_fsm_process.h"

#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <optional>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <vector>

#include "platform/clock.h"
#include "sim/sim_common.h"
#include "sim/simpm_config.h"
#include "sim/simpm_protocol.h"

extern char** environ;

namespace velm::sim {
namespace {

// The sandbox's process table shows a companion through a link to the real entry.
void linkIntoSandbox(pid_t pid) {
  std::optional<std::string> procfs = sandboxProcfsFromEnvironment();
  if (!procfs) return;
  std::error_code ec;
  std::filesystem::create_directory_symlink("/proc/" + std::to_string(pid),
                                            *procfs + "/" + std::to_string(pid), ec);
}

void unlinkFromSandbox(pid_t pid) {
  std::optional<std::string> procfs = sandboxProcfsFromEnvironment();
  if (!procfs) return;
  std::error_code ec;
  std::filesystem::path entry = *procfs + "/" + std::to_string(pid);
  // Only our link: a directory there is another stand-in's own entry.
  if (std::filesystem::is_symlink(std::filesystem::symlink_status(entry, ec)))
    std::filesystem::remove(entry, ec);
}

pid_t spawnCompanion(const std::string& program, const SimFsm& fsm) {
  std::string load = std::to_string(fsm.cpuLoad), bytes = std::to_string(fsm.residentBytes),
              parent = std::to_string(::getpid());
  std::vector<char*> argv{const_cast<char*>(program.c_str()),
                          const_cast<char*>("--fsm-process"),
                          const_cast<char*>(fsm.name.c_str()),
                          load.data(),
                          bytes.data(),
                          parent.data(),
                          nullptr};
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  sigset_t none, defaults;
  sigemptyset(&none);
  sigemptyset(&defaults);
  sigaddset(&defaults, SIGPIPE);  // we ignore it; the companion needn't
  posix_spawnattr_setsigmask(&attr, &none);
  posix_spawnattr_setsigdefault(&attr, &defaults);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  pid_t pid = 0;
  int e = ::posix_spawn(&pid, program.c_str(), nullptr, &attr, argv.data(), environ);
  posix_spawnattr_destroy(&attr);
  if (e != 0) {
    simLog("fsm '%s': no process: %s", fsm.name.c_str(), std::strerror(e));
    return 0;
  }
  linkIntoSandbox(pid);
  return pid;
}

}  // namespace

SimFsmProcesses::~SimFsmProcesses() { endAll(); }

void SimFsmProcesses::setProgram(std::string program) {
  program_ = std::move(program);
  std::optional<std::string> procfs = sandboxProcfsFromEnvironment();
  if (program_.empty() || !procfs) return;
  // The machine's CPU counters, for the samplers that read the sandbox's table; one a test
  // wrote stays.
  std::error_code ec;
  std::filesystem::create_directories(*procfs, ec);
  std::filesystem::path stat = std::filesystem::path(*procfs) / "stat";
  if (!std::filesystem::exists(std::filesystem::symlink_status(stat, ec)))
    std::filesystem::create_symlink("/proc/stat", stat, ec);
}

void SimFsmProcesses::end(Child& child) {
  if (child.pid <= 0) return;
  ::kill(child.pid, SIGKILL);
  while (::waitpid(child.pid, nullptr, 0) < 0 && errno == EINTR) {
  }
  unlinkFromSandbox(child.pid);
  child.pid = 0;
}

void SimFsmProcesses::endAll() {
  for (auto& [slot, child] : children_) end(child);
  children_.clear();
  for (pid_t pid : hooks_)
    while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
  hooks_.clear();
}

void SimFsmProcesses::runHook(const std::string& volume) {
  if (hook_.empty()) return;
  std::vector<std::string> words;
  for (std::string w : hook_) {
    for (auto [from, to] : {std::pair<std::string, std::string>{"%v", volume}, {"%h", hookHost_}})
      for (std::size_t at = w.find(from); at != std::string::npos; at = w.find(from, at + to.size()))
        w.replace(at, from.size(), to);
    words.push_back(std::move(w));
  }
  std::vector<char*> argv;
  for (std::string& w : words) argv.push_back(w.data());
  argv.push_back(nullptr);
  pid_t pid = 0;
  int e = ::posix_spawnp(&pid, argv[0], nullptr, nullptr, argv.data(), environ);
  if (e != 0) {
    simLog("'%s': failover hook %s: %s", volume.c_str(), argv[0], std::strerror(e));
    return;
  }
  simLog("'%s': took over; failover hook is process %d", volume.c_str(), static_cast<int>(pid));
  hooks_.push_back(pid);
}

void SimFsmProcesses::reconcile(std::deque<SimFsm>& fsms,
                                const std::function<bool(const SimFsm&)>& isLocal) {
  if (program_.empty()) return;
  std::erase_if(hooks_, [](pid_t pid) { return ::waitpid(pid, nullptr, WNOHANG) == pid; });
  for (std::size_t i = 0; i < fsms.size(); ++i) {
    SimFsm& f = fsms[i];
    bool wanted = f.running && !f.dropped && f.pid == 0 && isLocal(f);
    auto it = children_.find(i);
    // One that ended by itself is reaped and, when still wanted, started again.
    if (it != children_.end() && ::waitpid(it->second.pid, nullptr, WNOHANG) == it->second.pid) {
      simLog("fsm '%s': process %d ended", f.name.c_str(), static_cast<int>(it->second.pid));
      unlinkFromSandbox(it->second.pid);
      children_.erase(it);
      it = children_.end();
    }
    if (it != children_.end() && (!wanted || it->second.active != f.active)) {
      if (wanted && f.active) runHook(f.name);  // a standby here took over
      end(it->second);
      children_.erase(it);
      it = children_.end();
    }
    if (wanted && it == children_.end()) {
      Child child;
      child.pid = spawnCompanion(program_, f);
      child.active = f.active;
      if (child.pid > 0) {
        children_[i] = child;
        simLog("fsm '%s': %s process %d", f.name.c_str(), f.active ? "active" : "standby",
               static_cast<int>(child.pid));
      }
    }
    auto now = children_.find(i);
    f.processPid = now == children_.end() ? 0 : now->second.pid;
  }
}

void runFsmProcess(const std::string& name, int cpuLoad, std::uint64_t residentBytes,
                   pid_t parent) {
  ::prctl(PR_SET_NAME, "fsm", 0, 0, 0);
  // No PR_SET_PDEATHSIG: it fires when the spawning thread ends, and connection threads do.
  // The port mapper's end is seen at each period instead.
  (void)name;
  if (residentBytes > 0) {
    void* memory = ::mmap(nullptr, residentBytes, PROT_READ | PROT_WRITE,
                          MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory != MAP_FAILED) {
      long page = ::sysconf(_SC_PAGESIZE);
      auto* bytes = static_cast<volatile unsigned char*>(memory);
      for (std::uint64_t at = 0; at < residentBytes; at += static_cast<std::uint64_t>(page))
        bytes[at] = 1;
    }
  }
  // Busy for cpuLoad percent of each 100 ms, asleep for the rest.
  const std::uint64_t period = 100000;
  const std::uint64_t busy = period * static_cast<std::uint64_t>(std::clamp(cpuLoad, 0, 100)) / 100;
  Clock& c = clock();
  while (::getppid() == parent) {
    std::uint64_t start = c.monotonicMicros();
    while (c.monotonicMicros() - start < busy) {
    }
    std::uint64_t spent = c.monotonicMicros() - start;
    if (spent < period) c.sleepMicros(period - spent);
  }
  std::_Exit(0);
}

}  // namespace velm::sim
