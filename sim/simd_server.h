// velm-simd's socket: one request per connection, each connection on its own thread, the answer
// shaped by the behaviour file. stop() may be called from a signal handler.
#pragma once

#include <atomic>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "platform/unique_fd.h"
#include "plist/plist.h"
#include "sim/sim_common.h"
#include "sim/simd_commands.h"
#include "sim/simd_config.h"

namespace velm::sim {

inline constexpr std::string_view kSimdSocketName = "/var/run/com.orvane.velmd.socket";

struct SimdOptions {
  std::string root;        // sandbox root (made absolute by start())
  std::string configPath;  // empty: <root>/simd.plist
};

// The mountinfo file for root: $VELM_PROCFS/self/mountinfo, or <root>/proc/self/mountinfo when
// VELM_PROCFS is unset, empty or the real /proc.
std::string simdMountInfoPath(const std::string& root);

class SimDaemon {
 public:
  SimDaemon() = default;
  ~SimDaemon();
  SimDaemon(const SimDaemon&) = delete;
  SimDaemon& operator=(const SimDaemon&) = delete;

  // Binds the socket (replacing a stale one) and runs the first automount pass. false with a
  // reason.
  bool start(const SimdOptions& options, std::string* error);
  // Serves until stop(), then removes the socket and ends every connection.
  void run();
  // Async-signal-safe.
  void stop();

 private:
  void serve(int fd);
  // Answers one well-formed request as the behaviour file says.
  void answer(int fd, const PropertyList& request);
  // The request text, or nothing when the connection ended before a request or we are stopping.
  std::optional<std::string> readRequest(int fd, bool* tooLarge);
  // Waits ms milliseconds; false when stop() came first.
  bool pause(int ms);
  void sendReply(int fd, std::string_view bytes, const SimdBehaviour& behaviour);
  // Holds the connection without answering until the peer closes it or we stop.
  void holdSilently(int fd);

  std::string socketPath_;
  std::unique_ptr<SimdConfig> config_;
  std::unique_ptr<SimdCommands> commands_;
  UniqueFd listener_;
  UniqueFd wakeRead_, wakeWrite_;
  std::atomic<bool> stopping_{false};
  SimConnections connections_;
};

}  // namespace velm::sim
