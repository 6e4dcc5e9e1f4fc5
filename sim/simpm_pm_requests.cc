// The stand-in port mapper's name service and the rest of its port-mapper requests: the service
// list (its own FSMs and, as name server, those of its peers), start, stop and fail-over, client
// names, proxy connections, disks with their generation, cluster controls and RAS events.
// Requests are answered in the form they come in; unknownTypes was checked before.
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include "adminlib/auth.h"
#include "adminlib/fsmcomm.h"
#include "adminlib/fsmpm_requests.h"
#include "adminlib/sock46.h"
#include "adminlib/subr2.h"
#include "adminlib/wire.h"
#include "platform/unique_fd.h"
#include "sim/simpm_protocol.h"

namespace velm::sim {
namespace {

constexpr std::uint16_t kStatusEnd = 1;
constexpr std::uint16_t kStatusNotFound = 1;
constexpr std::uint16_t kStatusExists = 2;
constexpr std::uint16_t kStatusNotConfigured = 3;
constexpr std::uint16_t kStatusNotLocal = 4;
constexpr std::uint16_t kDiskRefreshBit = 0x8000;
constexpr int kPeerListMax = 256;

void frame(std::uint8_t* msg, std::size_t len) {
  std::memcpy(msg, kFrameMagic, sizeof kFrameMagic);
  put_be24(msg + kFhLength, static_cast<std::uint32_t>(len));
  msg[kFhStatus] = 0;
  put_be16(msg + kFhError, 0);
}

// One entry of the SAN's FSM table as the name service lists it.
struct Listed {
  std::string name;
  int port = 0;
  int priority = 0;
  bool active = false;
  int pid = 0;
  int serviceType = 1;
  struct in6_addr addr {};
};

// The service list head, in the form of the request's type.
void putListed(std::uint8_t* msg, const Listed& l, bool withType, bool addrAt296) {
  put_be16(msg + kPmType, static_cast<std::uint16_t>(withType ? l.serviceType : 1));
  put_be16(msg + kPmPort, static_cast<std::uint16_t>(l.port));
  put_be16(msg + kPmStatus, 0);
  put_be16(msg + kPmIndex, static_cast<std::uint16_t>((l.active ? kPmServiceActive : 0) |
                                                      (l.priority & kPmServicePriorityMask)));
  put_be32(msg + kPmWord, static_cast<std::uint32_t>(l.pid));
  PmSetName(msg, l.name.c_str());
  if (addrAt296)
    std::memcpy(msg + kPmAddr, l.addr.s6_addr, 16);
  else if (AddrIsMapped(&l.addr))
    std::memcpy(msg + kPmIpv4, l.addr.s6_addr + 12, 4);
}

// A connection to another port mapper of the SAN: discovery, then its service port, with
// authentication when this root has a secret.
int connectPeer(const std::string& peer, std::string* why) {
  std::string host = peer;
  int port = 0;
  std::size_t colon = peer.rfind(':');
  if (colon != std::string::npos && peer.find(':') == colon) {
    host = peer.substr(0, colon);
    port = std::atoi(peer.c_str() + colon + 1);
  }
  if (port == 0) {
    genportrange(nullptr, nullptr, &port, 0);
    if (port == 0) port = kDefaultPmapPort;
  }
  struct in6_addr addr;
  if (!parseAddress(host, &addr)) {
    *why = "bad peer address";
    return -1;
  }
  char err[ADMIN_ERRBUF_LEN] = {};
  int raw = -1;
  if (TestLink(&addr, port, &raw, err) != 0) {
    *why = err;
    return -1;
  }
  UniqueFd disc(raw);
  std::uint8_t buf[kDiscoveryLen] = {};
  if (timed_reread(disc.get(), 5, buf, sizeof buf) < static_cast<ssize_t>(sizeof buf) ||
      get_be32(buf) != kDiscoveryHello) {
    *why = "no discovery hello";
    return -1;
  }
  std::memset(buf, 0, sizeof buf);
  put_be32(buf, kDiscoveryRequest);
  put_be32(buf + 4, kDrfsProgram);
  put_be32(buf + 8, kDrfsVersion);
  put_be32(buf + 12, kDrfsProtocol);
  if (::send(disc.get(), buf, sizeof buf, MSG_NOSIGNAL) != static_cast<ssize_t>(sizeof buf)) {
    *why = "discovery request not sent";
    return -1;
  }
  std::memset(buf, 0, sizeof buf);
  if (timed_reread(disc.get(), 5, buf, sizeof buf) < static_cast<ssize_t>(sizeof buf) ||
      get_be32(buf) != kDiscoveryReply || (get_be32(buf + 4) & 0xffff) == 0) {
    *why = "no discovery reply";
    return -1;
  }
  int service = static_cast<int>(get_be32(buf + 4) & 0xffff);
  if (TestLink(&addr, service, &raw, err) != 0) {
    *why = err;
    return -1;
  }
  UniqueFd fd(raw);
  if (authentication_check() && send_pm_auth(fd.get()) < 1) {
    *why = "authentication failed";
    return -1;
  }
  return fd.release();
}

// The FSMs a peer runs itself, by its local list.
std::vector<Listed> peerLocalFsms(const std::string& peer) {
  std::vector<Listed> out;
  std::string why;
  UniqueFd fd(connectPeer(peer, &why));
  if (!fd) {
    simLog("peer %s: %s", peer.c_str(), why.c_str());
    return out;
  }
  for (int i = 0; i < kPeerListMax; ++i) {
    std::uint8_t msg[kPmMsgLen] = {};
    put_be16(msg + kPmType, kPmListLocalFsm);
    put_be16(msg + kPmIndex, static_cast<std::uint16_t>(i));
    int e = 0;
    if (_sendrcvmsg(fd.get(), msg, sizeof msg, &e, 1) != 0) {
      simLog("peer %s: local list failed (error %d)", peer.c_str(), e);
      break;
    }
    if (get_be16(msg + kPmStatus) != 0) break;
    Listed l;
    char name[kPmNameLen];
    PmGetName(msg, name, sizeof name);
    l.name = name;
    l.serviceType = get_be16(msg + kPmType);
    l.port = get_be16(msg + kPmPort);
    std::uint16_t flags = get_be16(msg + kPmIndex);
    l.active = (flags & kPmServiceActive) != 0;
    l.priority = flags & kPmServicePriorityMask;
    l.pid = static_cast<int>(get_be32(msg + kPmWord));
    std::memcpy(l.addr.s6_addr, msg + kPmAddr, 16);
    out.push_back(l);
  }
  return out;
}

// Asks a peer to make its standby of name active. True when it did.
bool activateOnPeer(const std::string& peer, const std::string& name) {
  std::string why;
  UniqueFd fd(connectPeer(peer, &why));
  if (!fd) {
    simLog("peer %s: %s", peer.c_str(), why.c_str());
    return false;
  }
  std::uint8_t msg[kPmMsgLen] = {};
  put_be16(msg + kPmType, kPmActivate);
  PmSetName(msg, name.c_str());
  if (::send(fd.get(), msg, sizeof msg, MSG_NOSIGNAL) != static_cast<ssize_t>(sizeof msg))
    return false;
  if (rerecv(fd.get(), msg, sizeof msg, 1) != static_cast<ssize_t>(sizeof msg)) return false;
  return msg[kFhStatus] == 0 && get_be16(msg + kPmStatus) == 0;
}

}  // namespace

// The port-mapper side's request handlers; a friend of SimPmProtocol.
struct PmSide {
  SimPmProtocol& p;

  bool isLocal(const SimFsm& f) const {
    struct in6_addr a = p.fsmAddress(f);
    return IN6_CMP(&a, &p.listen_) == 0;
  }

  Listed listed(const SimFsm& f) const {
    Listed l;
    l.name = f.name;
    l.port = f.port;
    l.priority = f.priority;
    l.active = f.active;
    l.pid = reportedPid(f);
    l.serviceType = f.serviceType;
    l.addr = p.fsmAddress(f);
    return l;
  }

  // This machine's running FSMs (local only) or the SAN's as the name server sees them.
  std::vector<Listed> table(bool localOnly) {
    std::vector<Listed> out;
    std::vector<std::string> peers;
    {
      std::scoped_lock lock(p.pmMutex_);
      for (const SimFsm& f : p.config_.fsms)
        if (f.running && (!localOnly || isLocal(f))) out.push_back(listed(f));
      if (!localOnly) peers = p.config_.peers;
    }
    for (const std::string& peer : peers) {
      std::vector<Listed> theirs = peerLocalFsms(peer);
      out.insert(out.end(), theirs.begin(), theirs.end());
    }
    return out;
  }

  std::size_t list(std::uint8_t* msg, std::uint16_t type, bool localOnly) {
    int index = get_be16(msg + kPmIndex);
    p.syncFsmList({});
    std::vector<Listed> all = table(localOnly);
    std::memset(msg + kPmType, 0, kPmMsgLen - kPmType);
    if (index < static_cast<int>(all.size())) {
      const Listed& l = all[static_cast<std::size_t>(index)];
      bool newest = type == kPmListFsm || type == kPmListLocalFsm;
      putListed(msg, l, newest, type != kPmListFsmForm1);
      simLog("list 0x%04x index %d -> '%s' port %d %s priority %d", type, index, l.name.c_str(),
             l.port, l.active ? "active" : "standby", l.priority);
    } else {
      put_be16(msg + kPmStatus, kStatusEnd);
      simLog("list 0x%04x index %d -> end", type, index);
    }
    frame(msg, kPmMsgLen);
    return kPmMsgLen;
  }

  // Whether name is active anywhere in the SAN besides the entry skip of this table.
  bool activeElsewhere(const std::string& name, const SimFsm* skip) {
    std::vector<std::string> peers;
    {
      std::scoped_lock lock(p.pmMutex_);
      for (const SimFsm& f : p.config_.fsms)
        if (&f != skip && f.name == name && f.running && f.active) return true;
      peers = p.config_.peers;
    }
    for (const std::string& peer : peers)
      for (const Listed& l : peerLocalFsms(peer))
        if (l.name == name && l.active) return true;
    return false;
  }

  // After the active FSM of name went away: a standby here, else one on a peer, takes over.
  // Without any, the FSM given comes back as active (it restarts and wins the election alone).
  void promoteStandby(const std::string& name, SimFsm* fallback) {
    std::vector<std::string> peers;
    {
      std::scoped_lock lock(p.pmMutex_);
      for (SimFsm& f : p.config_.fsms) {
        if (&f != fallback && f.name == name && f.running && !f.active) {
          f.active = true;
          simLog("'%s': standby at port %d is active now", name.c_str(), f.port);
          return;
        }
      }
      peers = p.config_.peers;
    }
    for (const std::string& peer : peers) {
      if (activateOnPeer(peer, name)) {
        simLog("'%s': the standby on peer %s is active now", name.c_str(), peer.c_str());
        return;
      }
    }
    std::scoped_lock lock(p.pmMutex_);
    if (fallback && fallback->running) {
      fallback->active = true;
      simLog("'%s': no standby; it stays active here", name.c_str());
    }
  }

  std::uint16_t startStop(int op, const std::string& name) {
    SimFsm* local = nullptr;
    bool known = false;
    {
      std::scoped_lock lock(p.pmMutex_);
      for (SimFsm& f : p.config_.fsms) {
        if (f.dropped || f.name != name) continue;
        known = true;
        if (!isLocal(f)) continue;
        // A fail-over or stop goes to the active one of this name, else a running one.
        auto rank = [](const SimFsm& x) { return (x.running ? 1 : 0) + (x.active ? 2 : 0); };
        if (!local || rank(f) > rank(*local)) local = &f;
      }
    }
    if (!local)
      return known ? kStatusNotLocal : (op == kPmOpStart ? kStatusNotConfigured : kStatusNotFound);
    switch (op) {
      case kPmOpStart: {
        {
          std::scoped_lock lock(p.pmMutex_);
          if (local->running) return kStatusExists;
        }
        bool standby = activeElsewhere(name, local);
        std::scoped_lock lock(p.pmMutex_);
        local->running = true;
        local->active = !standby;
        simLog("'%s': started as %s", name.c_str(), standby ? "standby" : "active");
        return 0;
      }
      case kPmOpStop: {
        bool wasActive;
        {
          std::scoped_lock lock(p.pmMutex_);
          if (!local->running) return kStatusNotFound;
          wasActive = local->active;
          local->running = false;
          local->active = false;
        }
        simLog("'%s': stopped", name.c_str());
        if (wasActive) promoteStandby(name, nullptr);
        return 0;
      }
      case kPmOpFailover: {
        {
          std::scoped_lock lock(p.pmMutex_);
          if (!local->running || !local->active) return kStatusNotFound;
          local->active = false;
        }
        simLog("'%s': failing over", name.c_str());
        promoteStandby(name, local);
        return 0;
      }
      default:
        simLog("'%s': operation 3", name.c_str());
        return 0;
    }
  }

  std::size_t startStopRequest(std::uint8_t* msg, std::uint16_t type) {
    int op;
    switch (type & 0x00ff & ~kPmFormFlag2) {
      case 0x04:
        op = kPmOpStart;
        break;
      case 0x05:
        op = kPmOpStop;
        break;
      case 0x0D:
        op = kPmOpFailover;
        break;
      default:
        op = kPmOp3;
    }
    char name[kPmNameLen];
    PmGetName(msg, name, sizeof name);
    p.syncFsmList(op == kPmOpStart ? name : "");
    std::uint16_t status = startStop(op, name);
    simLog("start/stop 0x%04x op %d '%s' -> status %u", type, op, name, status);
    put_be16(msg + kPmStatus, status);
    frame(msg, kPmMsgLen);
    return kPmMsgLen;
  }

  std::size_t queryId(std::uint8_t* msg) {
    struct in6_addr who;
    std::memcpy(who.s6_addr, msg + kPmAddr, 16);
    char ip[kRawIpLen];
    RawIp(&who, ip, sizeof ip);
    std::string name;
    {
      std::scoped_lock lock(p.pmMutex_);
      for (const SimClient& c : p.config_.clients) {
        struct in6_addr a;
        if (parseAddress(c.address, &a) && IN6_CMP(&a, &who) == 0) name = c.name;
      }
    }
    put_be16(msg + kPmStatus, name.empty() ? 1 : 0);
    PmSetName(msg, name.c_str());
    simLog("query id %s -> '%s'", ip, name.c_str());
    frame(msg, kPmMsgLen);
    return kPmMsgLen;
  }

  std::size_t proxies(std::uint8_t* msg) {
    int index = get_be16(msg + kPmIndex);
    std::memset(msg + kPmStatus, 0, kPmMsgLen - kPmStatus);
    std::scoped_lock lock(p.pmMutex_);
    const auto& list = p.config_.proxies;
    if (index > 0 && p.config_.proxyListChangesOnce && !p.proxyChangeTold_) {
      p.proxyChangeTold_ = true;
      put_be16(msg + kPmStatus, kPmProxyChanged);
      simLog("proxy connection %d -> list changed", index);
    } else if (index < static_cast<int>(list.size())) {
      const SimProxy& x = list[static_cast<std::size_t>(index)];
      struct in6_addr a {};
      if (parseAddress(x.address1, &a)) std::memcpy(msg + kPmProxyAddr1, a.s6_addr, 16);
      a = in6_addr{};
      if (parseAddress(x.address2, &a)) std::memcpy(msg + kPmProxyAddr2, a.s6_addr, 16);
      put_be16(msg + kPmProxyPort, static_cast<std::uint16_t>(x.port));
      put_be64(msg + kPmProxyCounter1, x.counter1);
      put_be64(msg + kPmProxyCounter2, x.counter2);
      std::size_t n = x.name.size() < kPmNameLen - 1 ? x.name.size() : kPmNameLen - 1;
      std::memcpy(msg + kPmProxyName, x.name.data(), n);
      simLog("proxy connection %d -> '%s'", index, x.name.c_str());
    } else {
      put_be16(msg + kPmStatus, kPmProxyEnd);
      simLog("proxy connection %d -> end", index);
    }
    frame(msg, kPmMsgLen);
    return kPmMsgLen;
  }

  static std::size_t putString(std::uint8_t* at, const std::string& s, std::size_t limit) {
    std::size_t n = s.size() < limit - 1 ? s.size() : limit - 1;
    std::memcpy(at, s.data(), n);
    at[n] = 0;
    return n + 1;
  }

  std::size_t disks(std::uint8_t* msg, std::size_t cap, std::uint16_t type) {
    std::uint16_t indexWord = get_be16(msg + kPmIndex);
    int index = indexWord & ~kDiskRefreshBit;
    bool refresh = (indexWord & kDiskRefreshBit) != 0;
    std::uint32_t count = get_be32(msg + kPmWord);
    std::size_t room = get_be16(msg + kPmPort);
    std::scoped_lock lock(p.pmMutex_);
    SimPmConfig& c = p.config_;
    // A rescan makes a new disk-list generation, and sees what the label tool did since.
    if (refresh) {
      ++c.diskGeneration;
      if (!p.lunTablePath_.empty()) {
        std::vector<SimDisk> disks = p.configuredDisks_;
        std::string why;
        if (lunTableDisks(p.lunTablePath_, &disks, &why))
          c.disks = std::move(disks);
        else
          simLog("disks: %s; the list stays as it was", why.c_str());
      }
    }
    std::memset(msg + kPmType, 0, kPmMsgLen - kPmType);
    put_be16(msg + kPmType, type);
    if (index >= static_cast<int>(c.disks.size()) && !(refresh && index == 0)) {
      put_be16(msg + kPmStatus, kStatusEnd);
      simLog("disks 0x%04x index %d%s -> end (generation %u)", type, index,
             refresh ? " refresh" : "", c.diskGeneration);
      frame(msg, kPmMsgLen);
      return kPmMsgLen;
    }
    if (type == kPmGetDisksForm0) {
      if (cap < kPmDisksReplyLenForm0) return p.unknownReply(msg, kPmMsgLen);
      std::memset(msg + kPmMsgLen, 0, kPmDisksReplyLenForm0 - kPmMsgLen);
      if (index < static_cast<int>(c.disks.size())) {
        const SimDisk& d = c.disks[static_cast<std::size_t>(index)];
        put_be64(msg + 1032, d.size);
        putString(msg + 1048, d.label, 256);
        putString(msg + 1304, d.inquiry, 32);
        putString(msg + 1400, d.serial, 64);
        putString(msg + 1464, d.device, 256);
        put_be32(msg + 1976, d.pathState);
        msg[1981] = static_cast<std::uint8_t>(d.lunId);
        put_be32(msg + 1984, d.sectorSize);
      }
      simLog("disks 0x%04x index %d%s -> one disk", type, index, refresh ? " refresh" : "");
      frame(msg, kPmDisksReplyLenForm0);
      return kPmDisksReplyLenForm0;
    }
    std::size_t limit = room + kPmDiskRecords;
    if (limit > cap) limit = cap;
    std::size_t off = kPmDiskRecords;
    std::uint32_t n = 0;
    for (std::size_t i = static_cast<std::size_t>(index); i < c.disks.size() && n < count; ++i) {
      const SimDisk& d = c.disks[i];
      std::uint8_t rec[kPmDiskRecordHead + 1200] = {};
      put_be32(rec + 12, d.pathState);
      put_be64(rec + 16, d.size);
      rec[33] = static_cast<std::uint8_t>(d.lunId);
      put_be32(rec + 36, d.sectorSize);
      std::size_t len = kPmDiskRecordHead;
      for (const std::string* s : {&d.label, &d.serial, &d.device})
        len += putString(rec + len, *s, 256);
      for (int k = 0; k < 3; ++k) rec[len++] = 0;  // fourth to sixth strings
      len += putString(rec + len, d.inquiry, 32);
      len += putString(rec + len, std::string(), 64);
      len = (len + 7) & ~std::size_t{7};
      if (off + len > limit) break;
      put_be32(rec, static_cast<std::uint32_t>(len));
      std::memcpy(msg + off, rec, len);
      off += len;
      ++n;
    }
    put_be16(msg + kPmPort, static_cast<std::uint16_t>(n));
    put_be32(msg + kPmIpv4, c.diskGeneration);
    simLog("disks 0x%04x index %d count %u%s -> %u disks (generation %u)", type, index, count,
           refresh ? " refresh" : "", n, c.diskGeneration);
    std::size_t total = off < kPmMsgLen ? kPmMsgLen : off;
    frame(msg, total);
    return total;
  }

  std::size_t localCctls(std::uint8_t* msg) {
    char name[kPmNameLen];
    PmGetName(msg, name, sizeof name);
    std::scoped_lock lock(p.pmMutex_);
    std::uint16_t status = 2;
    for (const SimCctl& c : p.config_.cctls) {
      if (c.name != name) continue;
      status = 0;
      put_be64(msg + 312, c.value);
      put_be32(msg + 320, 0);
    }
    put_be16(msg + kPmStatus, status);
    simLog("local cctls '%s' -> status %u", name, status);
    frame(msg, kPmMsgLen);
    return kPmMsgLen;
  }

  std::size_t cctlsFromNss(std::uint8_t* msg) {
    std::uint32_t held = get_be32(msg + 316);
    std::memset(msg + 312, 0, kPmMsgLen - 312);
    put_be16(msg + kPmStatus, 0);
    std::scoped_lock lock(p.pmMutex_);
    const SimPmConfig& c = p.config_;
    constexpr std::size_t kFits = (kPmMsgLen - 328) / 80;
    int state;
    if (c.cctls.empty()) {
      state = kCctlStateEmpty;
    } else if (held == c.cctlGeneration) {
      state = kCctlStateUnchanged;
    } else {
      state = kCctlStateNew;
      std::size_t n = c.cctls.size() < kFits ? c.cctls.size() : kFits;
      put_be32(msg + 312, static_cast<std::uint32_t>(n));
      put_be32(msg + 320, c.cctlGeneration);
      for (std::size_t i = 0; i < n; ++i) {
        std::uint8_t* rec = msg + 328 + i * 80;
        std::size_t len = c.cctls[i].name.size() < 64 ? c.cctls[i].name.size() : 64;
        std::memcpy(rec, c.cctls[i].name.data(), len);
        put_be64(rec + 64, c.cctls[i].value);
      }
    }
    put_be16(msg + 324, static_cast<std::uint16_t>(state));
    simLog("cctls from name server (held generation %u) -> state %d", held, state);
    frame(msg, kPmMsgLen);
    return kPmMsgLen;
  }

  std::size_t rasEvent(std::uint8_t* msg) {
    char text[512], event[64];
    std::memcpy(text, msg + 312, sizeof text);
    text[sizeof text - 1] = 0;
    std::memcpy(event, msg + 824, sizeof event);
    event[sizeof event - 1] = 0;
    simLog("ras event '%s' '%s' %d %d", event, text, static_cast<int>(get_be32(msg + 888)),
           static_cast<int>(get_be32(msg + 892)));
    put_be16(msg + kPmStatus, 0);
    frame(msg, kPmMsgLen);
    return kPmMsgLen;
  }

  // Unframed activation, asked by the library or a peer that fails an FSM over.
  bool activate(PmConnection& conn, std::uint8_t* msg, std::uint16_t type) {
    char name[kPmNameLen];
    PmGetName(msg, name, sizeof name);
    std::uint16_t status = kStatusNotFound;
    SimFsm* local = nullptr;
    {
      std::scoped_lock lock(p.pmMutex_);
      for (SimFsm& f : p.config_.fsms) {
        if (f.name == name && f.running && isLocal(f)) {
          local = &f;
          break;
        }
      }
    }
    if (local) {
      // While another copy serves the volume, the election keeps this one on standby: the
      // request is taken, and the state tells the outcome.
      bool elsewhere = activeElsewhere(name, local);
      std::scoped_lock lock(p.pmMutex_);
      if (!elsewhere) local->active = true;
      status = 0;
    }
    simLog("%s: activate 0x%04x '%s' -> status %u", conn.peer.c_str(), type, name, status);
    msg[kFhStatus] = 0;
    put_be16(msg + kPmStatus, status);
    std::size_t off = 0;
    while (off < kPmMsgLen) {
      ssize_t n = ::send(conn.fd, msg + off, kPmMsgLen - off, MSG_NOSIGNAL);
      if (n <= 0) return false;
      off += static_cast<std::size_t>(n);
    }
    return true;
  }
};

std::size_t SimPmProtocol::pmRequest(PmConnection& conn, std::uint8_t* msg, std::size_t cap,
                                     std::uint16_t type) {
  PmSide side{*this};
  switch (type) {
    case kPmListFsm:
    case kPmListFsmForm2:
    case kPmListFsmForm1:
      return side.list(msg, type, false);
    case kPmListLocalFsm:
      return side.list(msg, type, true);
    case 0x0804:
    case 0x0084:
    case 0x0004:
    case 0x0805:
    case 0x0085:
    case 0x0005:
    case 0x080D:
    case 0x008D:
    case 0x000D:
    case kPmStartStopOp3:
      return side.startStopRequest(msg, type);
    case kPmQueryID:
      return side.queryId(msg);
    case kPmListProxyConnection:
      return side.proxies(msg);
    case kPmGetDisks:
    case kPmGetDisksForm1:
    case kPmGetDisksForm0:
      return side.disks(msg, cap, type);
    case kPmGetLocalCctls:
      return side.localCctls(msg);
    case kPmGetCctlsFromNss:
      return side.cctlsFromNss(msg);
    case kPmRasEvent:
      return side.rasEvent(msg);
    default:
      simLog("%s: request 0x%04x not known here", conn.peer.c_str(), type);
      return unknownReply(msg, kPmMsgLen);
  }
}

bool SimPmProtocol::pmUnframed(PmConnection& conn, std::uint8_t* msg, bool* keep) {
  std::uint16_t type = get_be16(msg + kPmType);
  if (type != kPmActivate && type != kPmActivateOld && type != kPmActivateTarget &&
      type != kPmActivateTargetOld)
    return false;
  if (conn.authRequired && !conn.authenticated) {
    simLog("%s: activation before authentication; closing", conn.peer.c_str());
    *keep = false;
    return true;
  }
  if (config_.unknownTypes.count(type)) {
    simLog("%s: request 0x%04x answered as unknown (configured)", conn.peer.c_str(), type);
    msg[kFhStatus] = kStatusUnknownRequest;
    // The library reads this word in its own byte order.
    std::uint16_t one = 1;
    std::memcpy(msg + kFhError, &one, sizeof one);
    *keep = ::send(conn.fd, msg, kPmMsgLen, MSG_NOSIGNAL) == static_cast<ssize_t>(kPmMsgLen);
    return true;
  }
  *keep = PmSide{*this}.activate(conn, msg, type);
  return true;
}

}  // namespace velm::sim
