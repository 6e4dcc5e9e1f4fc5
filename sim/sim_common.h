// What the stand-ins share: their command lines, their stop signals, and the connections they
// serve, one thread each.
#pragma once

#include <atomic>
#include <cstdarg>
#include <functional>
#include <initializer_list>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "platform/unique_fd.h"

namespace velm::sim {

struct SimFlag {
  std::string_view name;  // "--root"
  std::string* value;
};

// Reads --help and "--name VALUE" flags into their strings; --root is required. Returns -1 to go
// on, else the exit code (0 after --help, 2 after a usage error, with the usage printed).
int parseSimFlags(const char* program, const char* usage, int argc, char** argv,
                  std::initializer_list<SimFlag> flags);

// SIGTERM and SIGINT call stop(context) (which must be async-signal-safe); SIGPIPE is ignored.
void installSimStopHandler(void (*stop)(void*), void* context);

// Writes "<program>: <formatted text>" as one whole line on stderr, even from many threads.
void simLogLine(const char* program, const char* fmt, va_list args)
    __attribute__((format(printf, 2, 0)));

// VELM_PROCFS when it names a sandbox; nullopt for the real /proc (never written, whatever the
// environment says) or none.
std::optional<std::string> sandboxProcfsFromEnvironment();

// The process table the plugin reads in a sandbox: VELM_PROCFS when it is set and not the real
// /proc (which is never written), else <root>/proc.
std::string sandboxProcfs(const std::string& root);

// Lists this process under a name of its choice in the sandbox's process table (<procfs>/<pid>/
// cmdline, comm and stat), as the real program would show in /proc, while it lives. Only when
// VELM_PROCFS names a sandbox: with the real /proc the plugin sees the real process table.
class SandboxProcessEntry {
 public:
  explicit SandboxProcessEntry(const std::string& name);
  ~SandboxProcessEntry();
  SandboxProcessEntry(const SandboxProcessEntry&) = delete;
  SandboxProcessEntry& operator=(const SandboxProcessEntry&) = delete;

 private:
  std::string dir_;
};

// The connections being served. The accept loop adds each one and reaps the finished ones.
class SimConnections {
 public:
  ~SimConnections() { reap(true); }
  // Runs body(fd) on a thread of its own; fd is closed once that thread is reaped.
  void serve(int fd, std::function<void(int fd)> body);
  // Joins the finished threads; with all, first wakes every blocked one and joins them all.
  void reap(bool all);

 private:
  struct Connection {
    std::thread thread;
    UniqueFd fd;
    std::atomic<bool> done{false};
  };
  std::mutex mutex_;  // guards connections_; leaf
  std::list<std::unique_ptr<Connection>> connections_;
};

}  // namespace velm::sim
