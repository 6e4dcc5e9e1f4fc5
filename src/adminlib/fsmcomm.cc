#include "adminlib/fsmcomm.h"

#include <rpc/pmap_clnt.h>
#include <rpc/rpc.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "adminlib/adminlib_internal.h"
#include "adminlib/auth.h"
#include "adminlib/pollutil.h"
#include "adminlib/sock46.h"
#include "adminlib/subr2.h"
#include "adminlib/wire.h"
#include "platform/clock.h"
#include "platform/unique_fd.h"

using adminlib::setError;

namespace {

std::atomic<std::uint32_t> MsgNumber{0};

// The port-mapper port: found once per process.
std::atomic<int> gPmapPort{0};
std::atomic<bool> gPmapPortKnown{false};

constexpr int kDefaultWaitMs = 30000;
constexpr int kConnectWaitMs = 5000;
constexpr int kHelloWaitSeconds = 5;
constexpr int kPortReplyWaitSeconds = 1;
constexpr int kTestLinkWaitMs = 500;
constexpr int kStandbyPasses = 30;

unsigned short systemPmapGetport(const struct sockaddr_in* addr, unsigned long program,
                                 unsigned long version, unsigned int protocol) {
  struct sockaddr_in copy = *addr;
  return ::pmap_getport(&copy, program, version, protocol);
}

}  // namespace

int TimedWaitMs(int timed) {
  if (!timed) return -1;
  const char* v = std::getenv("TIMEDWAIT_VALUE");
  if (!v) return kDefaultWaitMs;
  long seconds = std::strtol(v, nullptr, 10);
  if (seconds < 1) return kDefaultWaitMs;
  if (seconds > INT_MAX / 1000) return INT_MAX;
  return static_cast<int>(seconds * 1000);
}

namespace {

// Waits for one event on one socket through the fixed poll set: the poll result.
int pollOne(int sock, short events, int ms, short* revents) {
  QPoll q;
  QPollInit(&q);
  QPollSet(&q, sock, events);
  int r = DPoll(&q.d, ms);
  if (revents) *revents = r > 0 ? DPollQRevents(&q.d, sock) : 0;
  return r;
}

int setNonBlocking(int fd, int on) { return ::ioctl(fd, FIONBIO, &on); }

const char* hostText(const char* host) { return host ? host : "localhost"; }

}  // namespace

PmapGetportFunc PmapGetportHook = systemPmapGetport;

// ---- Buffer helpers ----

void PmSetName(std::uint8_t* msg, const char* name) {
  std::memset(msg + kPmName, 0, kPmNameLen);
  adminlib::copyText(reinterpret_cast<char*>(msg + kPmName), kPmNameLen, name);
}

void PmGetName(const std::uint8_t* msg, char* out, std::size_t size) {
  if (!out || size == 0) return;
  std::size_t n = ::strnlen(reinterpret_cast<const char*>(msg + kPmName), kPmNameLen);
  if (n > size - 1) n = size - 1;
  std::memcpy(out, msg + kPmName, n);
  out[n] = '\0';
}

std::uint32_t FsmNextMsgNumber() { return ++MsgNumber; }

void FrameSetMsgNumber(std::uint8_t* msg, std::uint32_t number) {
  std::memcpy(msg + kFhMsgNumber, &number, sizeof number);
}

// ---- Exchange ----

ssize_t rerecv(int sock, void* buf, std::size_t len, int retryOnInterrupt) {
  if (len < 1) return 0;
  auto* p = static_cast<std::uint8_t*>(buf);
  std::size_t got = 0;
  while (got < len) {
    ssize_t n = ::read(sock, p + got, len - got);
    if (n > 0) {
      got += static_cast<std::size_t>(n);
      continue;
    }
    if (n == 0) break;
    if (errno == EINTR && retryOnInterrupt) continue;
    if (errno != EAGAIN && errno != EWOULDBLOCK) return -1;
    while (true) {
      short rev = 0;
      int r = pollOne(sock, POLLIN, -1, &rev);
      if (r < 0) {
        if (errno == EINTR && retryOnInterrupt) continue;
        return -1;
      }
      if (!(rev & POLLIN)) {
        if (rev) errno = ENOTCONN;
        return -1;
      }
      break;
    }
  }
  return static_cast<ssize_t>(got);
}

ssize_t timed_reread(int sock, int seconds, void* buf, std::size_t len) {
  auto* p = static_cast<std::uint8_t*>(buf);
  std::int64_t now = static_cast<std::int64_t>(MicroTime());
  std::int64_t deadline = now + static_cast<std::int64_t>(seconds) * 1000000;
  if (len < 1 || deadline <= now) return static_cast<ssize_t>(len);
  std::size_t got = 0;
  while (got < len) {
    now = static_cast<std::int64_t>(MicroTime());
    if (now >= deadline) break;
    std::int64_t leftMs = (deadline - now + 999) / 1000;
    int r = pollOne(sock, POLLIN, leftMs > INT_MAX ? INT_MAX : static_cast<int>(leftMs), nullptr);
    // Deliberate: a wait that ends empty answers 0 even after some bytes came.
    if (r == 0) return 0;
    if (r < 0) {
      if (errno == EINTR) continue;
      return r;
    }
    ssize_t n = ::read(sock, p + got, len - got);
    if (n == 0) return static_cast<ssize_t>(got);
    if (n < 0) {
      if (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK) continue;
      return n;
    }
    got += static_cast<std::size_t>(n);
  }
  // Deliberate: the deadline answers the full length too; callers zero the buffer and check its
  // content, not the count.
  return static_cast<ssize_t>(len);
}

int _sendrcvmsg_buf(int sock, void* buf, std::size_t len, std::size_t bufsize, int* err,
                    int timed) {
  int ignored = 0;
  if (!err) err = &ignored;
  *err = 0;
  QM_ASSERT(len >= kFrameHeaderLen && len <= kFrameMaxLen && bufsize >= len);
  auto* msg = static_cast<std::uint8_t*>(buf);
  std::memcpy(msg, kFrameMagic, sizeof kFrameMagic);
  put_be24(msg + kFhLength, static_cast<std::uint32_t>(len));
  msg[kFhStatus] = 0;
  msg[kFhError] = msg[kFhError + 1] = 0;

  for (std::size_t off = 0; off < len;) {
    ssize_t n = ::send(sock, msg + off, len - off, MSG_NOSIGNAL);
    if (n < 0) {
      *err = errno;
      return -1;
    }
    off += static_cast<std::size_t>(n);
  }

  while (true) {
    short rev = 0;
    int r = pollOne(sock, POLLIN, TimedWaitMs(timed), &rev);
    if (r < 0) {
      if (errno == EINTR) continue;  // a full wait again
      *err = errno;
      return -1;
    }
    // A hang-up or error counts as readable: the read below tells what happened.
    if (r == 0 || !(rev & (POLLIN | POLLHUP | POLLERR))) {
      *err = ETIMEDOUT;
      return -1;
    }
    break;
  }

  ssize_t n = rerecv(sock, msg, kFrameHeaderLen, 0);
  if (n < static_cast<ssize_t>(kFrameHeaderLen)) {
    *err = n < 0 ? errno : ECONNRESET;
    return -1;
  }
  if (std::memcmp(msg, kFrameMagic, sizeof kFrameMagic) != 0) {
    *err = EINVAL;
    return -1;
  }
  std::uint32_t replyLen = get_be24(msg + kFhLength);
  // The peer's length is not trusted with the caller's buffer.
  if (replyLen > bufsize) {
    *err = EMSGSIZE;
    return -1;
  }
  // Deliberate: a reply that announces less than a header is taken as the header alone.
  if (replyLen > kFrameHeaderLen) {
    std::size_t rest = replyLen - kFrameHeaderLen;
    n = rerecv(sock, msg + kFrameHeaderLen, rest, 0);
    if (n < 0) {
      *err = errno;
      return -1;
    }
    if (static_cast<std::size_t>(n) < rest) {
      *err = ECONNRESET;
      return -1;
    }
  }
  if (msg[kFhStatus] == 0) return 0;
  *err = get_be16(msg + kFhError);
  return -1;
}

int _sendrcvmsg(int sock, void* msg, std::size_t len, int* err, int timed) {
  return _sendrcvmsg_buf(sock, msg, len, len, err, timed);
}

int SendRcvMsg(int sock, void* msg, std::size_t len, int* err) {
  return _sendrcvmsg(sock, msg, len, err, 1);
}

// ---- Connections ----

void AltGetportResetForTest() {
  gPmapPortKnown.store(false);
  gPmapPort.store(0);
}

namespace {

// Deliberate: found once; a changed fsports takes effect in a new process.
int pmapPort() {
  if (!gPmapPortKnown.load()) {
    int alt = 0;
    genportrange(nullptr, nullptr, &alt, 0);
    gPmapPort.store(alt ? alt : kDefaultPmapPort);
    gPmapPortKnown.store(true);
  }
  return gPmapPort.load();
}

// The discovery exchange on a connected socket: the port, or -1 to fall back.
int discover(int fd, std::uint32_t program, std::uint32_t version, std::uint32_t protocol) {
  std::uint8_t buf[kDiscoveryLen] = {};
  ssize_t n = timed_reread(fd, kHelloWaitSeconds, buf, sizeof buf);
  if (n < static_cast<ssize_t>(kDiscoveryLen) || get_be32(buf) != kDiscoveryHello ||
      get_be32(buf + 4) == 0)
    return -1;
  std::memset(buf, 0, sizeof buf);
  put_be32(buf, kDiscoveryRequest);
  put_be32(buf + 4, program);
  put_be32(buf + 8, version);
  put_be32(buf + 12, protocol);
  if (::send(fd, buf, sizeof buf, MSG_NOSIGNAL) < 0) return -1;
  std::memset(buf, 0, sizeof buf);
  n = timed_reread(fd, kPortReplyWaitSeconds, buf, sizeof buf);
  if (n < static_cast<ssize_t>(kDiscoveryLen)) return -1;
  if (get_be32(buf) != kDiscoveryReply) return 0;
  return static_cast<int>(get_be32(buf + 4) & 0xffff);
}

}  // namespace

int alt_getport(const struct in6_addr* addr, std::uint32_t program, std::uint32_t version,
                std::uint32_t protocol) {
  int port = pmapPort();
  struct sockaddr_storage ss;
  socklen_t len = AddrToSockaddr(addr, port, &ss);
  {
    velm::UniqueFd fd(::socket(ss.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd || setNonBlocking(fd.get(), 1) != 0) return 0;
    bool reached = true;
    if (::connect(fd.get(), reinterpret_cast<struct sockaddr*>(&ss), len) != 0) {
      if (errno == ECONNREFUSED) {
        reached = false;
      } else if (errno != EINPROGRESS) {
        return 0;
      } else {
        // Deliberate: waits for readability, that is for the hello, not only for the connect.
        int r;
        do {
          r = pollOne(fd.get(), POLLIN, kConnectWaitMs, nullptr);
        } while (r < 0 && errno == EINTR);
        reached = r > 0;
      }
    }
    if (reached) {
      int found = discover(fd.get(), program, version, protocol);
      if (found >= 0) return found;
    }
  }
  if (!AddrIsMapped(addr)) return 0;
  struct sockaddr_in sin {};
  sin.sin_family = AF_INET;
  std::memcpy(&sin.sin_addr, addr->s6_addr + 12, 4);
  PmapGetportFunc hook = PmapGetportHook ? PmapGetportHook : systemPmapGetport;
  return hook(&sin, program, version, protocol) & 0xffff;
}

int TestLink(const struct in6_addr* addr, int port, int* sock, char* errbuf) {
  if (sock) *sock = -1;
  struct sockaddr_storage ss;
  socklen_t len = AddrToSockaddr(addr, port, &ss);
  velm::UniqueFd fd(::socket(ss.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!fd) {
    setError(errbuf, "Cannot open socket: %s", std::strerror(errno));
    return -1;
  }
  if (setNonBlocking(fd.get(), 1) != 0) {
    setError(errbuf, "Cannot ioctl FIONBIO: %s", std::strerror(errno));
    return -1;
  }
  if (::connect(fd.get(), reinterpret_cast<struct sockaddr*>(&ss), len) != 0) {
    if (errno != EINPROGRESS) {
      setError(errbuf, "Connect failed: %s", std::strerror(errno));
      return -1;
    }
    int r = pollOne(fd.get(), POLLOUT, kTestLinkWaitMs, nullptr);
    if (r == 0) {
      setError(errbuf, "Connect timed out");
      return -1;
    }
    if (r < 0) {
      setError(errbuf, "Connect error: %s", std::strerror(errno));
      return -1;
    }
    int soerr = 0;
    socklen_t slen = sizeof soerr;
    if (::getsockopt(fd.get(), SOL_SOCKET, SO_ERROR, &soerr, &slen) != 0) {
      setError(errbuf, "Could not getsockopt(SO_ERROR) %s", std::strerror(errno));
      return -1;
    }
    if (soerr != 0) {
      setError(errbuf, "getsockopt(SO_ERROR) returned error %d %s", soerr, std::strerror(soerr));
      return -1;
    }
  }
  if (!sock) return 0;
  if (setNonBlocking(fd.get(), 0) != 0) {
    setError(errbuf, "Cannot ioctl FIONBIO: %s", std::strerror(errno));
    return -1;
  }
  *sock = fd.release();
  return 0;
}

int FsmPMConnect(const char* host, char* errbuf) {
  struct in6_addr addr;
  if (host) {
    if (GetHostByName(host, &addr) != 0) {
      setError(errbuf, "%s - %s", "Cannot get host by name", std::strerror(errno));
      return -1;
    }
    RemapLocalHost(&addr);
  } else {
    AddrSetLoopback4(&addr);
  }
  int port = alt_getport(&addr, kDrfsProgram, kDrfsVersion, kDrfsProtocol);
  if (port == 0) {
    char ip[kRawIpLen];
    setError(errbuf, "The %s File System Services on %s may be stopped.", BrandName,
             RawIp(&addr, ip, sizeof ip));
    return -1;
  }
  int err = 0;
  velm::UniqueFd fd(SockConnect(&addr, port, &err));
  if (!fd) {
    setError(errbuf, "Cannot open socket: %s", std::strerror(err));
    return -1;
  }
  if (GetAuthenticateConnection() && send_pm_auth(fd.get()) < 1) {
    setError(errbuf, "Authentication Failed");
    return -1;
  }
  return fd.release();
}

int FsmGetSocket(const char* host, const char* fsname, int wait, char* errbuf, int admin,
                 std::uint32_t* capabilities) {
  velm::UniqueFd pm(FsmPMConnect(host, errbuf));
  if (!pm) return -1;
  char sysText[ADMIN_ERRBUF_LEN];
  std::uint8_t msg[kPmMsgLen] = {};
  std::uint16_t type = wait ? kPmGetSocketWait : kPmGetSocketNoWait;
  bool newest = true;
  PmSetName(msg, fsname);
  for (int pass = 1;; ++pass) {
    put_be16(msg + kPmType, type);
    put_be16(msg + kPmStatus, 0);
    int err = 0;
    if (SendRcvMsg(pm.get(), msg, sizeof msg, &err) != 0) {
      if (msg[kFhStatus] == kStatusUnknownRequest && err == 1) {
        if (newest) {
          newest = false;
          type = wait ? kPmGetSocketWaitOld : kPmGetSocketNoWaitOld;
          --pass;  // the older form is the same pass
          continue;
        }
        setError(errbuf, "unsupported request");
        return -1;
      }
      setError(errbuf, "fsmportmapper request failed: %s",
               _FormatSysError(err, sysText, sizeof sysText));
      return -1;
    }
    std::uint16_t status = get_be16(msg + kPmStatus);
    // Deliberate: the standby and not-found texts end in a newline; callers show them as they are.
    if (status == kPmStatusStandby) {
      if (!wait || pass >= kStandbyPasses) {
        setError(errbuf, "File System Manager \"%s\" on %s is on standby.\n", fsname ? fsname : "",
                 hostText(host));
        return -1;
      }
      velm::clock().sleepSeconds(1);
      continue;
    }
    if (status != 0) {
      setError(errbuf, "Could not find File System Manager for \"%s\" on %s.\n",
               fsname ? fsname : "", hostText(host));
      return -1;
    }
    break;
  }
  pm.reset();

  struct in6_addr fsmAddr;
  if (newest)
    std::memcpy(fsmAddr.s6_addr, msg + kPmAddr, 16);
  else
    AddrSetMapped(&fsmAddr, msg + kPmIpv4);
  int port = get_be16(msg + kPmPort);
  int err = 0;
  velm::UniqueFd fsm(SockConnect(&fsmAddr, port, &err));
  if (!fsm) {
    setError(errbuf, "Connect to FSM failed: %s", std::strerror(err));
    return -1;
  }
  setError(errbuf, "%d", port);
  if (!admin) return fsm.release();

  // The opening is 32 bytes, but an FSM may answer with more: give the reply the full room.
  std::uint8_t open[kFsmMsgLen] = {};
  open[kFhClass] = kFsmAdminClass;
  open[kFhType] = kFsmOpenAdmin;
  FrameSetMsgNumber(open, FsmNextMsgNumber());
  if (_sendrcvmsg_buf(fsm.get(), open, kFsmOpenAdminLen, sizeof open, &err, 1) != 0) {
    setError(errbuf, "Admin Tap Connection to FSM failed: %s%s",
             _FormatSysError(err, sysText, sizeof sysText),
             err == ECONNRESET ? "\nFSM may have too many connections active.\n" : "");
    return -1;
  }
  if (capabilities) *capabilities = get_be32(open + kFrameHeaderLen);
  return fsm.release();
}

int FsmActivateFsm(int pmsock, const char* fsname, int target, std::uint8_t* work, char* errbuf) {
  std::uint16_t type = target == 0 ? kPmActivate : kPmActivateTarget;
  bool firstTry = true;
  while (true) {
    put_be16(work + kPmType, type);
    if (target != 0) put_be32(work + kPmIpv4, static_cast<std::uint32_t>(target));
    std::memset(work + kPmPort, 0, 2);
    std::memset(work + kPmStatus, 0, 2);
    std::memset(work + kPmIndex, 0, 2);
    std::memset(work + kPmWord, 0, 4);
    std::memset(work + kPmAddr, 0, 16);
    PmSetName(work, fsname);
    // Unframed: the head goes out as the caller (or the last reply) left it.
    ssize_t n = ::send(pmsock, work, kPmMsgLen, MSG_NOSIGNAL);
    if (n != static_cast<ssize_t>(kPmMsgLen)) {
      if (n < 0)
        setError(errbuf, "%s", std::strerror(errno));
      else
        setError(errbuf, "Unexpected short write");
      return -1;
    }
    n = rerecv(pmsock, work, kPmMsgLen, 0);
    if (n < 0) {
      setError(errbuf, "%s", std::strerror(errno));
      return -1;
    }
    if (n < static_cast<ssize_t>(kPmMsgLen)) {
      setError(errbuf, "Connection reset");
      return -1;
    }
    // Deliberate: the error word is compared in host order, unlike after _sendrcvmsg.
    std::uint16_t hostError;
    std::memcpy(&hostError, work + kFhError, sizeof hostError);
    if (work[kFhStatus] == kStatusUnknownRequest && hostError == 1 && firstTry) {
      firstTry = false;
      type = target == 0 ? kPmActivateOld : kPmActivateTargetOld;
      continue;
    }
    break;
  }
  for (std::size_t off : {kPmType, kPmPort, kPmStatus, kPmIndex}) {
    std::uint16_t v = get_be16(work + off);
    std::memcpy(work + off, &v, sizeof v);
  }
  std::uint32_t word = get_be32(work + kPmWord);
  std::memcpy(work + kPmWord, &word, sizeof word);
  std::uint16_t status;
  std::memcpy(&status, work + kPmStatus, sizeof status);
  if (status == 1) {
    setError(errbuf, "FSM Not found");
    return 2;
  }
  if (status == 6) {
    setError(errbuf, "Internal use only");
    return 5;
  }
  setError(errbuf, "FSM Activated");
  return 0;
}

int FsmGetHostName(std::size_t len, char* buf) {
  if (!buf || len == 0) return -1;
  buf[0] = '\0';
  if (::gethostname(buf, len) != 0) {
    buf[0] = '\0';
    return -1;
  }
  buf[len - 1] = '\0';
  return 0;
}

void unnetwork_WhoRD(WhoRD* host, const std::uint8_t* wire) {
  std::memset(host, 0, sizeof *host);
  host->flags = get_be32(wire + 4);
  host->type = get_be32(wire + 8);
  host->word12 = get_be32(wire + 12);
  host->word16 = get_be32(wire + 16);
  host->uptime = get_be32(wire + 20);
  host->value24 = get_be64(wire + 24);
  std::memcpy(host->addr1, wire + 32, 16);
  std::memcpy(host->addr2, wire + 48, 16);
  std::memcpy(host->addr3, wire + 64, 16);
  host->word80 = get_be32(wire + 80);
  host->value88 = get_be64(wire + 88);
  std::memcpy(host->text, wire + 96, sizeof host->text);
  host->value1120 = get_be64(wire + 1120);
  host->word1128 = get_be32(wire + 1128);
}
