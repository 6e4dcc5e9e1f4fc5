// What the benchmarks that drive the real adminhostd share: starting it with the velm plugin on a
// sandbox root, and reading the port it listens on.
#pragma once

#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/files.h"

extern char** environ;

namespace velm::bench {

inline void pinTo(pid_t pid, int cpu) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(cpu, &set);
  sched_setaffinity(pid, sizeof set, &set);
}

// Reads "...:PORT\n" (the daemon's "listening on" line, or a bare server's port) from fd; 0 when
// none came within 30 s.
inline int readPort(int fd) {
  std::string text;
  char buf[256];
  while (text.find('\n') == std::string::npos) {
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, 30000) <= 0) return 0;
    ssize_t n = ::read(fd, buf, sizeof buf);
    if (n <= 0) return 0;
    text.append(buf, static_cast<size_t>(n));
  }
  text.resize(text.find('\n'));
  return std::atoi(text.substr(text.rfind(':') + 1).c_str());
}

struct DaemonOptions {
  std::string binaryDir;  // the build tree: bin/adminhostd, lib/adminhost_velm.so
  std::string root;       // --root; the plugin is linked into root/plugins
  std::string idleSeconds = "0";
  std::string log;  // the daemon's VELM_LOG; empty: this process's
  int cpu = -1;     // >= 0: pinned there before any thread of the daemon starts
};

struct Daemon {
  pid_t pid = -1;
  int port = 0;  // 0 when it did not come up
  std::string token;
};

// Between fork and exec only async-signal-safe calls: the caller may have threads by now.
inline Daemon startDaemon(const DaemonOptions& o) {
  Daemon d;
  std::string plugins = o.root + "/plugins";
  std::error_code ec;
  std::filesystem::create_directories(plugins, ec);
  std::filesystem::create_symlink(o.binaryDir + "/lib/adminhost_velm.so",
                                  plugins + "/adminhost_velm.so", ec);
  std::string exe = o.binaryDir + "/bin/adminhostd";
  std::vector<std::string> args = {exe,           "--root",          o.root,
                                   "--plugins",   plugins,           "--listen",
                                   "127.0.0.1:0", "--idle-interval", o.idleSeconds};
  std::vector<std::string> env;
  for (char** e = environ; *e; ++e)
    if (o.log.empty() || std::strncmp(*e, "VELM_LOG=", 9) != 0) env.emplace_back(*e);
  if (!o.log.empty()) env.push_back("VELM_LOG=" + o.log);
  std::vector<char*> argv, envp;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  for (auto& e : env) envp.push_back(e.data());
  envp.push_back(nullptr);
  int out[2];
  if (::pipe(out) != 0) return d;
  d.pid = ::fork();
  if (d.pid == 0) {
    if (o.cpu >= 0) pinTo(0, o.cpu);
    ::dup2(out[1], STDOUT_FILENO);
    ::close(out[0]);
    ::execve(exe.c_str(), argv.data(), envp.data());
    ::_exit(127);
  }
  ::close(out[1]);
  d.port = d.pid > 0 ? readPort(out[0]) : 0;
  ::close(out[0]);
  // Made before the daemon says it listens.
  d.token = velm::readFile(o.root + "/var/adminhostd/admin.token").value_or("");
  return d;
}

inline void stopProcess(pid_t* pid) {
  if (*pid <= 0) return;
  ::kill(*pid, SIGTERM);
  ::waitpid(*pid, nullptr, 0);
  *pid = -1;
}

}  // namespace velm::bench
