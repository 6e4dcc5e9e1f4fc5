// Whole-process test helpers: the real adminhostd started in a sandbox root on a free loopback
// port, and a small HTTP client for it.
#pragma once

#include <sys/types.h>

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "plist/plist.h"
#include "support/sandbox.h"

namespace velm::test {

// The build tree's binaries (VELM_BINARY_DIR from the environment, else the compile-time one).
std::string binaryDir();
std::string adminhostdPath();
std::string velmadminPath();
std::string velmPluginPath();
std::string echoPluginPath();

// A directory <root>/plugins holding links adminhost_<name>.so -> file, one per entry.
std::string makePluginDir(const SandboxRoot& sandbox,
                          const std::vector<std::pair<std::string, std::string>>& nameToFile);

// Waits for a child to end: its exit status, 128 + signal when killed, nothing on timeout.
std::optional<int> waitForExit(pid_t pid, int timeoutMs);

class Daemon {
 public:
  // --root is the sandbox; --listen 127.0.0.1:0 unless extraArgs names --listen.
  Daemon(const SandboxRoot& sandbox, std::string pluginsDir, std::vector<std::string> extraArgs = {});
  ~Daemon();  // SIGKILL when still running
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  // True once the daemon printed that it listens (within a bounded wait).
  bool start();
  const std::string& url() const { return url_; }
  // Every address it said it listens on, the first being url().
  const std::vector<std::string>& urls() const { return urls_; }
  int port() const { return port_; }
  pid_t pid() const { return pid_; }
  void signal(int signo);
  // Exit status once the process ended (see waitForExit).
  std::optional<int> waitExit(int timeoutMs = 60000);
  // What the daemon wrote to stderr and to its log (VELM_LOG).
  std::string stderrText() const;
  std::string logText() const;

 private:
  const SandboxRoot& sandbox_;
  std::string pluginsDir_;
  std::vector<std::string> extraArgs_;
  pid_t pid_ = -1;
  bool exited_ = false;
  std::string url_;
  std::vector<std::string> urls_;
  int port_ = 0;
};

struct Reply {
  int status = 0;  // 0: no HTTP answer
  std::string body;
  std::string contentType;
  std::map<std::string, std::string> headers;
  std::optional<PropertyList> plist;  // the body read as a plist dictionary (XML, or JSON by its type)
};

// A keep-alive client for one daemon.
class Client {
 public:
  explicit Client(const std::string& url);
  ~Client();
  // POSTs body to path; token: the Authorization bearer token, none when empty.
  Reply post(const std::string& path, const std::string& body, const std::string& token);
  // Any request, with the token (when not empty) and these headers.
  Reply send(const std::string& method, const std::string& path, const std::string& body, const std::string& token,
             const std::vector<std::pair<std::string, std::string>>& headers = {});
  // POSTs the request as an XML plist to /commands/<plugin>.
  Reply command(const std::string& plugin, const PropertyList& request, const std::string& token);

 private:
  struct Impl;
  Impl* impl_;
};

// {command = name} plus the given entries.
PropertyList request(const std::string& command, std::vector<std::pair<std::string, PropertyList>> entries = {});
std::string readToken(const SandboxRoot& sandbox);

}  // namespace velm::test
