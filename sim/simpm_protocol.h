// The stand-in port mapper's answers, one function per kind of message, apart from the sockets
// so that new requests are added here alone.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

#include "sim/simpm_config.h"
#include "sim/simpm_fsm_process.h"

namespace velm::sim {

// Writes one line to stderr ("velm-simpm: ..."); callable from any thread.
void simLog(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// What one port-mapper connection has shown so far.
struct PmConnection {
  int fd = -1;
  std::string peer;
  bool authRequired = false;  // the secret file exists in the stand-in's root
  bool authenticated = false;
};

class SimPmProtocol {
 public:
  SimPmProtocol(SimPmConfig config, const struct in6_addr& listenAddr, int servicePort)
      : config_(std::move(config)), listen_(listenAddr), servicePort_(servicePort) {}

  const SimPmConfig& config() const { return config_; }
  SimPmConfig& config() { return config_; }
  void setServicePort(int port) { servicePort_ = port; }

  // The 32-byte hello sent on every discovery connection.
  void discoveryHello(std::uint8_t out[32]) const;
  // Answers a 32-byte discovery request; false when it is not one.
  bool discoveryReply(const std::uint8_t req[32], std::uint8_t out[32]) const;

  // A framed port-mapper request of len bytes in msg (room: cap). Fills the reply in place and
  // returns its length.
  std::size_t framedRequest(PmConnection& conn, std::uint8_t* msg, std::size_t len,
                            std::size_t cap);

  // An unframed 1024-byte message (authentication, activation). Writes what it answers to
  // conn.fd itself; false drops the connection.
  bool unframedRequest(PmConnection& conn, std::uint8_t* msg);

  // A framed request on the admin connection of an FSM. Fills the reply in place; its length.
  std::size_t fsmRequest(const SimFsm& fsm, std::uint8_t* msg, std::size_t len, std::size_t cap);

  // A copy of FSM i of the table, taken under the lock that guards its flags.
  SimFsm fsmSnapshot(std::size_t i);

  // The address an FSM is reached at.
  struct in6_addr fsmAddress(const SimFsm& fsm) const;

  // Binds an admin listener for FSM slot i at addr; its port, 0 when none could be had.
  using FsmListenerFactory = std::function<int(std::size_t i, const struct in6_addr& addr)>;
  // Follow the machine's fsmlist (path) from now on; listen makes the new FSMs' listeners.
  void followFsmList(std::string path, FsmListenerFactory listen) {
    fsmListPath_ = std::move(path);
    listenFsm_ = std::move(listen);
  }
  // Follow the sandbox's LUN table (path) from now on: each rescan of the disks lists the
  // configured disks and then the labelled LUNs of the table, as drlabel left them.
  void followLunTable(std::string path) {
    lunTablePath_ = std::move(path);
    configuredDisks_ = config_.disks;
  }
  // Companion processes run as program (empty: none); syncProcesses() brings them in line with
  // the table, before and after each request.
  void setFsmProcessProgram(std::string program) {
    std::scoped_lock lock(pmMutex_);
    processes_.setProgram(std::move(program));
  }
  void syncProcesses();
  // The configuration's failoverHook, run with host as this machine's address.
  void setFailoverHook(std::string host) {
    std::scoped_lock lock(pmMutex_);
    processes_.setFailoverHook(config_.failoverHook, std::move(host));
  }

  // Drops stopped FSMs that came from fsmlist and are no longer listed there; then, when
  // startName is listed but not in the table, adds it, stopped, for the start to run.
  void syncFsmList(const std::string& startName);

 private:
  friend struct PmSide;
  // Port-mapper requests besides the FSM socket (simpm_pm_*.cc): name service, start and stop,
  // disks, clients, cluster controls, RAS events. Fills the reply; its length.
  std::size_t pmRequest(PmConnection& conn, std::uint8_t* msg, std::size_t cap, std::uint16_t type);
  // Unframed activation (simpm_pm_*.cc); false when msg is not one.
  bool pmUnframed(PmConnection& conn, std::uint8_t* msg, bool* keep);

  std::size_t unknownReply(std::uint8_t* msg, std::size_t len);
  std::size_t getSocket(std::uint8_t* msg, std::uint16_t type);

  SimPmConfig config_;
  struct in6_addr listen_;
  int servicePort_;
  // Guards the FSM table's running and active flags and the port-mapper side's counters; leaf,
  // never held while talking to a peer.
  std::mutex pmMutex_;
  bool proxyChangeTold_ = false;
  std::string fsmListPath_;
  std::string lunTablePath_;
  std::vector<SimDisk> configuredDisks_;
  FsmListenerFactory listenFsm_;
  SimFsmProcesses processes_;  // guarded by pmMutex_
  // Serializes syncFsmList (taken before pmMutex_), so one name is added once.
  std::mutex fsmListMutex_;
};

}  // namespace velm::sim
