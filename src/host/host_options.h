// adminhostd's command line.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace velm {

struct HostOptions {
  std::string root;                               // --root; empty: VELM_ROOT as inherited
  std::string listenHost = "127.0.0.1";           // --listen HOST:PORT ([v6]:PORT): the first
  int listenPort = 3110;                          // 0: any free port
  struct Listen {
    std::string host;
    int port = 0;
  };
  // Every --listen, in order; the default address alone when none was given.
  std::vector<Listen> listens;
  std::string pluginsDir;                         // --plugins; empty: beside the binary
  std::uint64_t idleIntervalMicros = 60'000'000;  // --idle-interval seconds; 0: no idle ticks
  // --context-save-interval seconds: how long changes made by idle ticks alone may wait.
  std::uint64_t contextSaveIntervalMicros = 300'000'000;
  std::string tlsCert, tlsKey;           // --tls-cert, --tls-key: serve HTTPS
  std::size_t maxBodyBytes = 16u << 20;  // --max-body: larger request bodies get 413
  std::size_t threads = 16;              // --threads: the request pool
  std::string wwwDir;                    // --www; empty: beside the binary, then installed
  bool metricsOpen = false;              // --metrics-open: /metrics on loopback needs no token
  bool help = false;
};

struct HostOptionsResult {
  int status = 0;  // 0, or the exit status for a usage error
  HostOptions options;
  std::string error;  // the usage error, for stderr
};

HostOptionsResult parseHostOptions(const std::vector<std::string>& args);

// True for 127.0.0.0/8, ::1, ::ffff:127.x.y.z and "localhost".
bool isLoopbackHost(const std::string& host);
// Whether a listening address serves HTTPS: with a certificate, every address does, except a
// loopback one beside one that isn't (local tools keep plain HTTP there).
bool listenUsesTls(const HostOptions& options, const HostOptions::Listen& listen);

extern const char kHostUsage[];

}  // namespace velm
