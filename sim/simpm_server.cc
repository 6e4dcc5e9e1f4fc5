#include "sim/simpm_server.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "adminlib/auth.h"
#include "adminlib/fsmcomm.h"
#include "adminlib/sock46.h"
#include "adminlib/subr2.h"
#include "adminlib/wire.h"
#include "platform/files.h"
#include "platform/paths.h"
#include "platform/socket_io.h"

namespace velm::sim {
namespace {

constexpr std::size_t kMaxFramedLen = 1 << 20;
constexpr int kDiscoveryRequestWaitMs = 10000;

std::string peerText(const struct in6_addr& addr, int port) {
  char ip[kRawIpLen];
  RawIp(&addr, ip, sizeof ip);
  return std::string(ip) + ":" + std::to_string(port);
}

}  // namespace

SimPortMapper::~SimPortMapper() {
  stopping_ = true;
  listeners_.clear();
  connections_.reap(true);
}

UniqueFd SimPortMapper::bindListener(const struct in6_addr& addr, int port, int* boundPort,
                                     std::string* error) {
  struct sockaddr_storage ss;
  socklen_t len = AddrToSockaddr(&addr, port, &ss);
  UniqueFd fd(::socket(ss.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
  int on = 1;
  if (!fd || ::setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
      ::bind(fd.get(), reinterpret_cast<struct sockaddr*>(&ss), len) != 0 ||
      ::listen(fd.get(), 64) != 0) {
    *error = "cannot listen on " + peerText(addr, port) + ": " + std::strerror(errno);
    return UniqueFd();
  }
  GetSockName(fd.get(), nullptr, boundPort);
  return fd;
}

bool SimPortMapper::listenOn(const struct in6_addr& addr, int port, Listener::Kind kind,
                             std::size_t fsmIndex, int* boundPort, std::string* error) {
  UniqueFd fd = bindListener(addr, port, boundPort, error);
  if (!fd) return false;
  listeners_.push_back(Listener{std::move(fd), kind, fsmIndex});
  return true;
}

int SimPortMapper::addFsmListener(std::size_t fsmIndex, const struct in6_addr& addr) {
  int port = 0;
  std::string error;
  UniqueFd fd = bindListener(addr, 0, &port, &error);
  if (!fd) {
    simLog("%s", error.c_str());
    return 0;
  }
  {
    std::scoped_lock lock(addedMutex_);
    added_.push_back(Listener{std::move(fd), Listener::Fsm, fsmIndex});
  }
  // Until run() polls it, connections wait in the backlog.
  wake();
  return port;
}

bool SimPortMapper::start(const SimPmOptions& options, std::string* error) {
  if (options.root.empty()) {
    *error = "--root DIR is required";
    return false;
  }
  std::string drfs = options.root + "/Library/Filesystems/Velm";
  ::setenv("VELM_ROOT", options.root.c_str(), 1);
  ::setenv("DRFSROOT", drfs.c_str(), 1);
  resetPathsForTest();

  struct in6_addr listenAddr;
  if (!parseAddress(options.listen, &listenAddr)) {
    *error = "bad --listen address '" + options.listen + "'";
    return false;
  }
  SimPmConfig config;
  std::string configPath = options.configPath;
  if (configPath.empty() && pathExists(options.root + "/simpm.plist"))
    configPath = options.root + "/simpm.plist";
  if (!configPath.empty() && !loadSimPmConfig(configPath, &config, error)) return false;

  int altpmap = 0;
  genportrange(nullptr, nullptr, &altpmap, 0);
  if (!listenOn(listenAddr, altpmap ? altpmap : kDefaultPmapPort, Listener::Discovery, 0,
                &discoveryPort_, error) ||
      !listenOn(listenAddr, config.pmPort, Listener::Service, 0, &servicePort_, error))
    return false;
  protocol_ = std::make_unique<SimPmProtocol>(std::move(config), listenAddr, servicePort_);
  protocol_->followLunTable(options.root + "/sim/luns.plist");
  protocol_->followFsmList(drfs + "/config/fsmlist", [this](std::size_t i, const in6_addr& a) {
    return addFsmListener(i, a);
  });

  // Every FSM of this machine answers on its own port, standby and stopped ones too: a fail-over
  // or a start may make any of them active later.
  SimPmConfig& cfg = protocol_->config();
  for (std::size_t i = 0; i < cfg.fsms.size(); ++i) {
    SimFsm& fsm = cfg.fsms[i];
    struct in6_addr a = protocol_->fsmAddress(fsm);
    if (IN6_CMP(&a, &listenAddr) != 0) continue;
    if (!listenOn(a, fsm.port, Listener::Fsm, i, &fsm.port, error)) return false;
  }

  protocol_->setFsmProcessProgram(options.fsmProcessProgram);
  protocol_->setFailoverHook(options.listen);
  protocol_->syncProcesses();

  int pipefd[2];
  if (::pipe2(pipefd, O_CLOEXEC | O_NONBLOCK) != 0) {
    *error = std::string("pipe: ") + std::strerror(errno);
    return false;
  }
  wakeRead_.reset(pipefd[0]);
  wakeWrite_.reset(pipefd[1]);
  simLog("listening on %s (port mapper port %d, authentication %s)",
         peerText(listenAddr, discoveryPort_).c_str(), servicePort_,
         authentication_check() ? "on" : "off");
  return true;
}

void SimPortMapper::stop() {
  stopping_ = true;
  wake();
}

void SimPortMapper::wake() {
  if (wakeWrite_) {
    char b = 1;
    ssize_t r = ::write(wakeWrite_.get(), &b, 1);
    (void)r;
  }
}

void SimPortMapper::run() {
  while (!stopping_) {
    {
      std::scoped_lock lock(addedMutex_);
      for (Listener& l : added_) listeners_.push_back(std::move(l));
      added_.clear();
    }
    std::vector<struct pollfd> fds;
    fds.push_back({wakeRead_.get(), POLLIN, 0});
    for (const Listener& l : listeners_) fds.push_back({l.fd.get(), POLLIN, 0});
    int r = ::poll(fds.data(), fds.size(), 1000);
    connections_.reap(false);
    if (r < 0 && errno != EINTR) break;
    if (r <= 0) continue;
    if (fds[0].revents & POLLIN) {
      // Emptied, or a wake for an added listener would keep poll from ever waiting.
      char drain[64];
      while (::read(wakeRead_.get(), drain, sizeof drain) > 0) {
      }
      continue;
    }
    for (std::size_t i = 0; i < listeners_.size(); ++i) {
      if (!(fds[i + 1].revents & POLLIN)) continue;
      struct in6_addr peer;
      int port = 0;
      int fd = Accept(listeners_[i].fd.get(), &peer, &port);
      if (fd < 0) continue;
      Listener::Kind kind = listeners_[i].kind;
      std::size_t fsmIndex = listeners_[i].fsmIndex;
      std::string text = peerText(peer, port);
      connections_.serve(
          fd, [this, kind, fsmIndex, text](int client) { serve(kind, fsmIndex, client, text); });
    }
  }
  simLog("stopping");
  listeners_.clear();
  connections_.reap(true);
}

void SimPortMapper::serve(Listener::Kind kind, std::size_t fsmIndex, int fd, std::string peer) {
  switch (kind) {
    case Listener::Discovery:
      serveDiscovery(fd);
      break;
    case Listener::Service:
      servePortMapper(fd, peer);
      break;
    case Listener::Fsm:
      serveFsm(fsmIndex, fd);
      break;
  }
  // The socket is closed when the thread is reaped, so shutdown() never meets a reused number.
  ::shutdown(fd, SHUT_RDWR);
}

void SimPortMapper::serveDiscovery(int fd) {
  std::uint8_t buf[kDiscoveryLen];
  protocol_->discoveryHello(buf);
  if (!sendAll(fd, buf, sizeof buf)) return;
  struct pollfd p = {fd, POLLIN, 0};
  if (::poll(&p, 1, kDiscoveryRequestWaitMs) <= 0) return;
  if (recvAll(fd, buf, sizeof buf) != static_cast<ssize_t>(sizeof buf)) return;
  std::uint8_t reply[kDiscoveryLen];
  if (protocol_->discoveryReply(buf, reply)) sendAll(fd, reply, sizeof reply);
}

void SimPortMapper::servePortMapper(int fd, const std::string& peer) {
  PmConnection conn;
  conn.fd = fd;
  conn.peer = peer;
  conn.authRequired = authentication_check() != 0;
  std::vector<std::uint8_t> buf(kMaxFramedLen);
  while (!stopping_) {
    ssize_t n = recvAll(fd, buf.data(), kFrameHeaderLen);
    if (n != static_cast<ssize_t>(kFrameHeaderLen)) return;
    bool framed = std::memcmp(buf.data(), kFrameMagic, sizeof kFrameMagic) == 0;
    std::size_t len = framed ? get_be24(buf.data() + kFhLength) : kPmMsgLen;
    if (len < kFrameHeaderLen || len > kMaxFramedLen) {
      simLog("%s: framed message announces %zu bytes; closing", peer.c_str(), len);
      return;
    }
    if (recvAll(fd, buf.data() + kFrameHeaderLen, len - kFrameHeaderLen) !=
        static_cast<ssize_t>(len - kFrameHeaderLen))
      return;
    if (!framed) {
      bool keep = protocol_->unframedRequest(conn, buf.data());
      protocol_->syncProcesses();
      if (!keep) return;
      continue;
    }
    if (conn.authRequired && !conn.authenticated) {
      simLog("%s: request before authentication; closing", peer.c_str());
      return;
    }
    std::size_t replyLen = protocol_->framedRequest(conn, buf.data(), len, buf.size());
    // A stopped FSM's process is gone before its caller hears so.
    protocol_->syncProcesses();
    if (!sendAll(fd, buf.data(), replyLen)) return;
  }
}

void SimPortMapper::serveFsm(std::size_t fsmIndex, int fd) {
  std::vector<std::uint8_t> buf(kMaxFramedLen);
  while (!stopping_) {
    if (recvAll(fd, buf.data(), kFrameHeaderLen) != static_cast<ssize_t>(kFrameHeaderLen)) return;
    // A stopped FSM has no process to answer, and a standby one serves no file system yet: their
    // connections end as the real ones do.
    const SimFsm fsm = protocol_->fsmSnapshot(fsmIndex);
    if (!fsm.running || !fsm.active) {
      simLog("fsm '%s' is %s; closing its connection", fsm.name.c_str(),
             fsm.running ? "on standby" : "not running");
      return;
    }
    if (std::memcmp(buf.data(), kFrameMagic, sizeof kFrameMagic) != 0) {
      simLog("fsm '%s': message without frame; closing", fsm.name.c_str());
      return;
    }
    std::size_t len = get_be24(buf.data() + kFhLength);
    if (len < kFrameHeaderLen || len > kMaxFramedLen) return;
    if (recvAll(fd, buf.data() + kFrameHeaderLen, len - kFrameHeaderLen) !=
        static_cast<ssize_t>(len - kFrameHeaderLen))
      return;
    std::size_t replyLen = protocol_->fsmRequest(fsm, buf.data(), len, buf.size());
    if (!sendAll(fd, buf.data(), replyLen)) return;
  }
}

}  // namespace velm::sim
