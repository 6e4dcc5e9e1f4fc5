#include "sim/simpm_protocol.h"

#include <sys/socket.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "adminlib/auth.h"
#include "adminlib/fsmcomm.h"
#include "adminlib/sock46.h"
#include "adminlib/wire.h"
#include "platform/socket_io.h"
#include "sim/sim_common.h"

namespace velm::sim {
namespace {

void frameReply(std::uint8_t* msg, std::size_t len, std::uint8_t status, std::uint16_t error) {
  std::memcpy(msg, kFrameMagic, sizeof kFrameMagic);
  put_be24(msg + kFhLength, static_cast<std::uint32_t>(len));
  msg[kFhStatus] = status;
  put_be16(msg + kFhError, error);
}

}  // namespace

void simLog(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  simLogLine("velm-simpm", fmt, ap);
  va_end(ap);
}

void SimPmProtocol::discoveryHello(std::uint8_t out[32]) const {
  std::memset(out, 0, 32);
  put_be32(out, kDiscoveryHello);
  put_be32(out + 4, kDrfsVersion);
}

bool SimPmProtocol::discoveryReply(const std::uint8_t req[32], std::uint8_t out[32]) const {
  if (get_be32(req) != kDiscoveryRequest) return false;
  std::uint32_t program = get_be32(req + 4), version = get_be32(req + 8),
                protocol = get_be32(req + 12);
  bool ours = program == kDrfsProgram && version == kDrfsVersion && protocol == kDrfsProtocol;
  std::memset(out, 0, 32);
  put_be32(out, kDiscoveryReply);
  put_be32(out + 4, ours ? static_cast<std::uint32_t>(servicePort_) : 0);
  simLog("discovery: program 0x%08x version %u protocol %u -> port %d", program, version, protocol,
         ours ? servicePort_ : 0);
  return true;
}

std::size_t SimPmProtocol::unknownReply(std::uint8_t* msg, std::size_t len) {
  frameReply(msg, len, kStatusUnknownRequest, 1);
  return len;
}

SimFsm SimPmProtocol::fsmSnapshot(std::size_t i) {
  std::scoped_lock lock(pmMutex_);
  return config_.fsms[i];
}

struct in6_addr SimPmProtocol::fsmAddress(const SimFsm& fsm) const {
  struct in6_addr a = listen_;
  if (!fsm.address.empty()) parseAddress(fsm.address, &a);
  return a;
}

std::size_t SimPmProtocol::getSocket(std::uint8_t* msg, std::uint16_t type) {
  char name[kPmNameLen];
  PmGetName(msg, name, sizeof name);
  std::scoped_lock lock(pmMutex_);
  const SimFsm* found = nullptr;
  bool known = false;
  for (const SimFsm& f : config_.fsms) {
    if (f.name != name || !f.running) continue;
    known = true;
    if (f.active) {
      found = &f;
      break;
    }
  }
  std::uint16_t status = found ? 0 : (known ? kPmStatusStandby : 1);
  put_be16(msg + kPmStatus, status);
  if (found) {
    put_be16(msg + kPmPort, static_cast<std::uint16_t>(found->port));
    struct in6_addr a = fsmAddress(*found);
    bool newer = (type & 0x0080) != 0;
    if (newer)
      std::memcpy(msg + kPmAddr, a.s6_addr, 16);
    else if (AddrIsMapped(&a))
      std::memcpy(msg + kPmIpv4, a.s6_addr + 12, 4);
    put_be32(msg + kPmWord, static_cast<std::uint32_t>(reportedPid(*found)));
  }
  simLog("get socket 0x%04x '%s' -> status %u port %d", type, name, status,
         found ? found->port : 0);
  frameReply(msg, kPmMsgLen, 0, 0);
  return kPmMsgLen;
}

void SimPmProtocol::syncProcesses() {
  std::scoped_lock lock(pmMutex_);
  processes_.reconcile(config_.fsms, [this](const SimFsm& f) {
    struct in6_addr a = fsmAddress(f);
    return IN6_CMP(&a, &listen_) == 0;
  });
}

std::size_t SimPmProtocol::framedRequest(PmConnection& conn, std::uint8_t* msg, std::size_t len,
                                         std::size_t cap) {
  // What a list shows is what runs.
  syncProcesses();
  if (len < kPmType + 2 || cap < kPmMsgLen) {
    simLog("%s: framed message of %zu bytes is too short for a request", conn.peer.c_str(), len);
    return unknownReply(msg, len < kFrameHeaderLen ? kFrameHeaderLen : len);
  }
  if (len < kPmMsgLen) std::memset(msg + len, 0, kPmMsgLen - len);
  std::uint16_t type = get_be16(msg + kPmType);
  if (config_.unknownTypes.count(type)) {
    simLog("%s: request 0x%04x answered as unknown (configured)", conn.peer.c_str(), type);
    return unknownReply(msg, kPmMsgLen);
  }
  switch (type) {
    case kPmGetSocketWait:
    case kPmGetSocketNoWait:
    case kPmGetSocketWaitOld:
    case kPmGetSocketNoWaitOld:
      return getSocket(msg, type);
    default:
      return pmRequest(conn, msg, cap, type);
  }
}

bool SimPmProtocol::unframedRequest(PmConnection& conn, std::uint8_t* msg) {
  std::uint16_t type = get_be16(msg + kPmType);
  if (type == kPmAuthRequest) {
    std::memset(msg + kPmStatus, 0, 2);
    if (!conn.authRequired) {
      put_be16(msg + kPmStatus, 2);
      simLog("%s: authentication request: not wanted", conn.peer.c_str());
      return sendAll(conn.fd, msg, kPmMsgLen);
    }
    if (!sendAll(conn.fd, msg, kPmMsgLen)) return false;
    if (server_send_challenge(conn.fd) < 0) return false;
    conn.authenticated = server_authenticate_response(conn.fd) == 1;
    simLog("%s: authentication %s", conn.peer.c_str(), conn.authenticated ? "accepted" : "refused");
    return conn.authenticated;
  }
  bool keep = true;
  if (pmUnframed(conn, msg, &keep)) return keep;
  // Anything else: answer as an older peer would.
  simLog("%s: unframed request 0x%04x not known here", conn.peer.c_str(), type);
  msg[kFhStatus] = kStatusUnknownRequest;
  std::uint16_t one = 1;
  std::memcpy(msg + kFhError, &one, sizeof one);
  return sendAll(conn.fd, msg, kPmMsgLen);
}

std::size_t SimPmProtocol::fsmRequest(const SimFsm& fsm, std::uint8_t* msg, std::size_t len,
                                      std::size_t cap) {
  if (len >= kFsmOpenAdminLen && cap >= kFsmOpenAdminLen && msg[kFhClass] == kFsmAdminClass &&
      msg[kFhType] == kFsmOpenAdmin) {
    std::memset(msg + kFrameHeaderLen, 0, kFsmOpenAdminLen - kFrameHeaderLen);
    put_be32(msg + kFrameHeaderLen, simFsmCapabilities(fsm));
    frameReply(msg, kFsmOpenAdminLen, 0, 0);
    simLog("fsm '%s': admin connection opened", fsm.name.c_str());
    return kFsmOpenAdminLen;
  }
  // Everything else an FSM answers lives in simpm_fsm_requests.cc.
  return simFsmRequest(fsm, msg, len, cap);
}

}  // namespace velm::sim
