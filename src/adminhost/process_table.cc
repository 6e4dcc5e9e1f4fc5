// Process look-ups by name and pid on the process table ($VELM_PROCFS).
#include <dirent.h>
#include <signal.h>

#include <cerrno>
#include <charconv>
#include <memory>

#include "adminhost/host_common.h"
#include "platform/files.h"
#include "platform/paths.h"

namespace velm {
namespace {

std::string_view baseName(std::string_view path) {
  size_t slash = path.find_last_of('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

std::string pidPath(int pid, std::string_view file) {
  return procfsPath(std::to_string(pid) + "/" + std::string(file));
}

// The state letter of /proc/<pid>/stat (after the last ')'), or 0 when unreadable.
char processState(int pid) {
  std::optional<std::string> stat = readFile(pidPath(pid, "stat"));
  if (!stat) return 0;
  size_t close = stat->rfind(')');
  if (close == std::string::npos || close + 2 >= stat->size()) return 0;
  return (*stat)[close + 2];
}

// argv[0]'s base name, then comm: a shebang script shows its interpreter in argv[0] and its own
// name (cut to 15 characters) in comm.
bool processHasName(int pid, std::string_view name) {
  if (name.empty()) return false;
  if (std::optional<std::string> cmdline = readFile(pidPath(pid, "cmdline"));
      cmdline && !cmdline->empty()) {
    std::string_view argv0(cmdline->c_str());
    if (baseName(argv0) == name) return true;
  }
  if (std::optional<std::string> comm = readFile(pidPath(pid, "comm"))) {
    std::string_view c = *comm;
    if (!c.empty() && c.back() == '\n') c.remove_suffix(1);
    if (c == name) return true;
  }
  return false;
}

struct DirCloser {
  void operator()(DIR* d) const { ::closedir(d); }
};

}  // namespace

bool ec_check_process_by_pid(int pid) {
  if (pid <= 0) return false;
  if (::kill(pid, 0) != 0 && errno != EPERM) return false;
  char state = processState(pid);
  return state != 0 && state != 'Z';
}

int ec_check_pid_for_process_named(const std::string& name, int pid) {
  if (!ec_check_process_by_pid(pid) || !processHasName(pid, name)) return -1;
  return pid;
}

int ec_pid_for_process_named(const std::string& name) {
  std::unique_ptr<DIR, DirCloser> dir(::opendir(procfsPath().c_str()));
  if (!dir) return -1;
  while (dirent* e = ::readdir(dir.get())) {
    std::string_view entry = e->d_name;
    int pid = 0;
    auto [p, ec] = std::from_chars(entry.data(), entry.data() + entry.size(), pid);
    if (ec != std::errc() || p != entry.data() + entry.size() || pid <= 0) continue;
    if (processHasName(pid, name) && ec_check_process_by_pid(pid)) return pid;
  }
  return -1;
}

}  // namespace velm
