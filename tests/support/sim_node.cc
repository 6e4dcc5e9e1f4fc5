#include "support/sim_node.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <thread>

#include "platform/files.h"
#include "support/run_program.h"

namespace velm::test {
namespace {

// The real process table: the daemons are real processes, whatever VELM_PROCFS says.
std::optional<std::string> procText(pid_t pid, const char* name) {
  return readFile("/proc/" + std::to_string(pid) + "/" + name);
}

// State and parent from /proc/<pid>/stat; state 0 when the process is gone.
std::pair<char, pid_t> stateAndParent(pid_t pid) {
  std::optional<std::string> stat = procText(pid, "stat");
  if (!stat) return {0, 0};
  std::size_t paren = stat->rfind(')');
  if (paren == std::string::npos || paren + 2 >= stat->size()) return {0, 0};
  char state = (*stat)[paren + 2];
  pid_t parent = static_cast<pid_t>(std::atol(stat->c_str() + paren + 4));
  return {state, parent};
}

bool alive(pid_t pid) {
  char state = stateAndParent(pid).first;
  return state != 0 && state != 'Z' && state != 'X';
}

std::string canonical(const std::string& path) {
  std::error_code ec;
  std::filesystem::path p = std::filesystem::weakly_canonical(path, ec);
  return ec ? path : p.string();
}

}  // namespace

const std::vector<std::pair<std::string, std::string>>& nodeToolPaths() {
  static const std::vector<std::pair<std::string, std::string>> tools = {
      {"rosterbind", kSandboxRosterbind},
      {"rosterctl", kSandboxRosterctl},
      {"replicacfg", kSandboxReplicacfg},
      {"svcload", kSandboxSvcload},
      {"ps", kSandboxPs},
      {"nmcli", kSandboxNmcli},
      {"networkctl", kSandboxNetworkctl},
  };
  return tools;
}

void installNodeTools(const SandboxRoot& sandbox) {
  for (const auto& [name, path] : nodeToolPaths()) {
    std::string link = sandbox.path(path);
    std::string dir = std::filesystem::path(link).parent_path();
    if (int err = makeDirectories(dir); err != 0) {
      ADD_FAILURE() << "cannot make " << dir << ": " << std::strerror(err);
      continue;
    }
    ::unlink(link.c_str());
    if (::symlink(binaryPath(name).c_str(), link.c_str()) != 0)
      ADD_FAILURE() << "cannot link " << link << ": " << std::strerror(errno);
  }
}

LaunchResult runNodeTool(const SandboxRoot& sandbox, const std::string& name,
                         const std::vector<std::string>& args, const std::string& input,
                         const std::map<std::string, std::string>& env,
                         std::uint64_t deadlineMicros) {
  for (const auto& [tool, path] : nodeToolPaths())
    if (tool == name)
      return launch_task_with_input(sandbox.path(path), args, input, env, deadlineMicros);
  ADD_FAILURE() << name << " is no node tool";
  return {};
}

void writeToolBehaviour(const SandboxRoot& sandbox, const std::string& name,
                        const PropertyList& behaviour) {
  sandbox.write("/sim/tools/" + name + ".plist", writeXmlPlist(behaviour));
}

std::vector<std::string> toolCalls(const SandboxRoot& sandbox, const std::string& name) {
  std::string text = sandbox.read("/sim/tools/" + name + ".calls");
  std::vector<std::string> lines;
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

void writeDirectoryPasswords(const SandboxRoot& sandbox,
                             const std::map<std::string, std::string>& passwords) {
  PropertyList dict = PropertyList::dict();
  for (const auto& [user, password] : passwords) dict.set(user, password);
  sandbox.write(kDirectoryPasswords, writeXmlPlist(dict));
}

std::vector<pid_t> simdPidsServing(const SandboxRoot& sandbox) {
  std::vector<pid_t> pids;
  std::string root = canonical(sandbox.root());
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator("/proc", ec)) {
    std::string name = entry.path().filename();
    if (name.empty() ||
        !std::all_of(name.begin(), name.end(), [](char c) { return c >= '0' && c <= '9'; }))
      continue;
    pid_t pid = static_cast<pid_t>(std::stol(name));
    std::optional<std::string> cmdline = procText(pid, "cmdline");
    if (!cmdline) continue;
    std::vector<std::string> argv;
    for (std::size_t at = 0; at < cmdline->size();) {
      std::size_t end = cmdline->find('\0', at);
      if (end == std::string::npos) end = cmdline->size();
      argv.push_back(cmdline->substr(at, end - at));
      at = end + 1;
    }
    if (argv.empty() || std::filesystem::path(argv[0]).filename() != "velm-simd") continue;
    auto flag = std::find(argv.begin(), argv.end(), "--root");
    if (flag == argv.end() || flag + 1 == argv.end()) continue;
    std::error_code linkError;
    std::filesystem::path cwd = std::filesystem::read_symlink("/proc/" + name + "/cwd", linkError);
    if (canonical((cwd / *(flag + 1)).string()) == root && alive(pid)) pids.push_back(pid);
  }
  std::sort(pids.begin(), pids.end());
  return pids;
}

bool stopSimdServing(const SandboxRoot& sandbox) {
  std::vector<pid_t> pids = simdPidsServing(sandbox);
  for (pid_t pid : pids) ::kill(pid, SIGTERM);
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  bool clean = true;
  for (pid_t pid : pids) {
    while (alive(pid) && std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    if (alive(pid)) {
      clean = false;
      ::kill(pid, SIGKILL);
    }
    if (stateAndParent(pid).second == ::getpid()) {
      while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
      }
    }
  }
  return clean;
}

}  // namespace velm::test
