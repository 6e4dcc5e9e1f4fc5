// What the benchmarks on a SAN of velm-simpm share: the admin library pointed at the stand-in,
// and the stand-in started for a root and waited for.
#pragma once

#include <fcntl.h>
#include <stdlib.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "adminlib/adminlib.h"
#include "adminlib/fsmcomm.h"
#include "adminlib/qmadminlib.h"
#include "adminlib/sock46.h"
#include "platform/clock.h"
#include "platform/paths.h"

extern char** environ;

namespace velm::bench {

inline unsigned short noRpcbind(const struct sockaddr_in*, unsigned long, unsigned long,
                                unsigned int) {
  return 0;
}

// No rpcbind, fresh address look-ups, a privileged caller, the library started.
inline void initAdminLibrary() {
  PmapGetportHook = noRpcbind;
  AltGetportResetForTest();
  ResetAddrLists();
  QMAdmin_SetPrivilegedForTest(1);
  QMAdmin_Init();
}

// A fresh root for the plugin and the stand-in, as on a controller at address whose daemons
// listen on port (the probe port: the controller counts as reachable), with a process table of
// its own; the environment and the path resolver point at it. Empty when none could be made.
inline std::string makeControllerRoot(const char* prefix, const char* address, int port) {
  std::string tmpl = std::string("/tmp/") + prefix + "-XXXXXX";
  if (!::mkdtemp(tmpl.data())) return {};
  ::setenv("VELM_ROOT", tmpl.c_str(), 1);
  ::setenv("VELM_LOG", "/dev/null", 1);
  ::setenv("VELM_HOST_ADDRESSES", address, 1);
  ::setenv("VELM_PROBE_PORT", std::to_string(port).c_str(), 1);
  ::setenv("VELM_PROCFS", (tmpl + "/proc").c_str(), 1);
  ::unsetenv("DRFSROOT");
  resetPathsForTest();
  return tmpl;
}

// Starts program as velm-simpm for root on listen (argv[0] as given: the process table name),
// its per-request log to log so nobody need drain a pipe, and waits until the library reaches
// it. The pid, or -1 with the reason on stderr under who's name.
inline pid_t startSimPortMapper(const char* who, const std::string& program,
                                const std::string& root, const char* listen,
                                const std::string& log, const char* argv0 = nullptr) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 2, log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  const char* argv[] = {argv0 ? argv0 : program.c_str(), "--root", root.c_str(), "--listen",
                        listen, nullptr};
  pid_t pid = -1;
  int rc = ::posix_spawn(&pid, program.c_str(), &actions, nullptr, const_cast<char**>(argv),
                         environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) {
    std::fprintf(stderr, "%s: cannot start %s: %s\n", who, program.c_str(), std::strerror(rc));
    return -1;
  }
  char err[ADMIN_ERRBUF_LEN] = {};
  for (int tries = 0; tries < 200; ++tries) {
    if (::waitpid(pid, nullptr, WNOHANG) == pid) {
      std::fprintf(stderr, "%s: velm-simpm ended (see %s)\n", who, log.c_str());
      return -1;
    }
    if (int ns = QMAdmin_NSConnect("127.0.0.1", err); ns >= 0) {
      QMAdmin_NSDisconnect(ns);
      return pid;
    }
    AltGetportResetForTest();
    systemClock().sleepMicros(50000);
  }
  std::fprintf(stderr, "%s: no port mapper: %s\n", who, err);
  return pid;
}

}  // namespace velm::bench
