// The stand-in port mapper's sockets: discovery on the altpmap port (5164 without one), the
// port-mapper service on its own port, and the admin port of each local active FSM. One thread
// per connection; stop() may be called from a signal handler.
#pragma once

#include <netinet/in.h>

#include <atomic>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/unique_fd.h"
#include "sim/sim_common.h"
#include "sim/simpm_protocol.h"

namespace velm::sim {

struct SimPmOptions {
  std::string root;  // sandbox root: its DRFS root holds fsports and .auth_secret
  std::string listen = "127.0.0.1";
  std::string configPath;  // empty: <root>/simpm.plist when it exists
  std::string fsmProcessProgram;  // what FSM processes run as (simpm_fsm_process.h); empty: none
};

class SimPortMapper {
 public:
  SimPortMapper() = default;
  ~SimPortMapper();
  SimPortMapper(const SimPortMapper&) = delete;
  SimPortMapper& operator=(const SimPortMapper&) = delete;

  // Points the library's root at options.root, reads the configuration and binds every socket.
  // false with a reason.
  bool start(const SimPmOptions& options, std::string* error);
  // Serves until stop().
  void run();
  // Async-signal-safe.
  void stop();

  int discoveryPort() const { return discoveryPort_; }
  int servicePort() const { return servicePort_; }

 private:
  struct Listener {
    UniqueFd fd;
    enum Kind { Discovery, Service, Fsm } kind;
    std::size_t fsmIndex = 0;
  };
  UniqueFd bindListener(const struct in6_addr& addr, int port, int* boundPort, std::string* error);
  bool listenOn(const struct in6_addr& addr, int port, Listener::Kind kind, std::size_t fsmIndex,
                int* boundPort, std::string* error);
  // For an FSM added while serving (any thread): binds, hands the socket to run() and wakes it.
  // The port, 0 on failure.
  int addFsmListener(std::size_t fsmIndex, const struct in6_addr& addr);
  void serve(Listener::Kind kind, std::size_t fsmIndex, int fd, std::string peer);
  void wake();  // async-signal-safe
  void serveDiscovery(int fd);
  void servePortMapper(int fd, const std::string& peer);
  void serveFsm(std::size_t fsmIndex, int fd);

  std::unique_ptr<SimPmProtocol> protocol_;
  std::vector<Listener> listeners_;  // run()'s own once it runs
  std::mutex addedMutex_;            // guards added_
  std::vector<Listener> added_;      // bound by addFsmListener, for run() to take
  UniqueFd wakeRead_, wakeWrite_;
  std::atomic<bool> stopping_{false};
  int discoveryPort_ = 0;
  int servicePort_ = 0;
  SimConnections connections_;
};

}  // namespace velm::sim
