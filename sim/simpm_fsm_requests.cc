// The stand-in FSM's answers to admin requests, always in the newest form the FSM admits.
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>

#include "adminlib/fsm_requests.h"
#include "adminlib/sock46.h"
#include "adminlib/wire.h"
#include "platform/paths.h"
#include "sim/simpm_config.h"
#include "sim/simpm_fsm_state.h"
#include "sim/simpm_protocol.h"

namespace velm::sim {
namespace {

// The largest reply here (a device record) with room to spare.
constexpr std::size_t kReplyRoom = 1200;

std::size_t frame(std::uint8_t* msg, std::size_t len, std::uint8_t status, std::uint16_t error) {
  std::memcpy(msg, kFrameMagic, sizeof kFrameMagic);
  put_be24(msg + kFhLength, static_cast<std::uint32_t>(len));
  msg[kFhStatus] = status;
  put_be16(msg + kFhError, error);
  return len;
}

std::size_t failed(std::uint8_t* msg, int error) {
  return frame(msg, kFrameHeaderLen, 1, static_cast<std::uint16_t>(error));
}

void putText(std::uint8_t* at, const std::string& text, std::size_t room) {
  std::size_t n = text.size() < room - 1 ? text.size() : room - 1;
  std::memcpy(at, text.data(), n);
  at[n] = 0;
}

// The end of a text field put at off: the reply length that carries it.
std::size_t textReply(std::uint8_t* msg, std::size_t off, const std::string& text) {
  putText(msg + off, text, 256);
  return frame(msg, off + std::strlen(reinterpret_cast<char*>(msg + off)) + 1, 0, 0);
}

void putAddress(std::uint8_t* at, const std::string& text) {
  struct in6_addr a {};
  if (!text.empty()) parseAddress(text, &a);
  std::memcpy(at, a.s6_addr, 16);
}

std::uint16_t statFlags(const SimFsmState& s) {
  std::uint16_t flags = s.flags & static_cast<std::uint16_t>(~kFsStatQuotas);
  if (s.quotasOn) flags |= kFsStatQuotas;
  if (s.unknownTypes.count(kFsmTypeGetPartition))
    flags &= static_cast<std::uint16_t>(~kFsStatNewPartition);
  return flags;
}

// The apparent size of the files under dir, in blocks rounded up; nothing when dir isn't there.
std::optional<std::uint64_t> blocksUsedIn(const std::string& dir, std::uint32_t blockSize) {
  std::error_code ec;
  if (!std::filesystem::is_directory(dir, ec)) return std::nullopt;
  std::uint64_t bytes = 0;
  for (std::filesystem::recursive_directory_iterator it(dir, ec), end; !ec && it != end;
       it.increment(ec)) {
    std::error_code e;
    if (it->is_regular_file(e)) bytes += it->file_size(e);
  }
  std::uint64_t block = blockSize ? blockSize : 1;
  return bytes / block + (bytes % block ? 1 : 0);
}

std::size_t fsStat(const SimFsm& fsm, SimFsmState& s, std::uint8_t* m) {
  std::string dir = fsm.contentDir.empty() ? hostPath("/Volumes/" + fsm.name) : fsm.contentDir;
  std::uint64_t freeBlocks = s.freeBlocks;
  if (std::optional<std::uint64_t> used = blocksUsedIn(dir, s.blockSize))
    freeBlocks = *used >= s.totalBlocks ? 0 : s.totalBlocks - *used;
  std::uint16_t inUse = 0;
  for (const auto& [index, c] : s.clients)
    if (c.flags & 3) ++inUse;
  put_be16(m + 24, statFlags(s));
  put_be16(m + 26, inUse);
  put_be16(m + 28, static_cast<std::uint16_t>(s.stripeGroups.size()));
  put_be16(m + 30, static_cast<std::uint16_t>(s.devices.size()));
  put_be32(m + 32, s.blockSize);
  put_be32(m + 44, s.msgBufSize);
  put_be64(m + 56, s.createTimeUs);
  put_be64(m + 80, s.totalBlocks);
  put_be64(m + 88, freeBlocks);
  return frame(m, 96, 0, 0);
}

std::size_t partition(SimFsmState& s, std::uint8_t* m, bool newer) {
  std::uint32_t index = get_be32(m + 24);
  if (index >= s.stripeGroups.size()) return failed(m, ENOENT);
  const SimStripeGroup& g = s.stripeGroups[index];
  std::size_t shift = newer ? 0 : 8;
  put_be32(m + 24, g.flags);
  put_be64(m + 32, g.totalBlocks);
  if (newer) put_be64(m + 40, g.reservedBlocks);
  put_be64(m + 48 - shift, g.freeBlocks);
  put_be64(m + 56 - shift, g.affinity);
  put_be32(m + 80 - shift, g.devices);
  put_be32(m + 88 - shift, g.setting);
  put_be16(m + 92 - shift, g.multipath);
  put_be32(m + 96 - shift, g.breadth);
  put_be32(m + 100 - shift, g.nativeKey);
  return textReply(m, 112 - shift, g.name);
}

std::size_t nativeKeys(SimFsmState& s, std::uint8_t* m) {
  std::uint32_t index = get_be32(m + 24);
  if (index >= s.stripeGroups.size()) return failed(m, ENOENT);
  const auto& keys = s.stripeGroups[index].nativeKeys;
  put_be32(m + 24, static_cast<std::uint32_t>(keys.size() / 2));
  // Pairs go as they stand: the host's own byte order.
  for (std::size_t i = 0; i < keys.size(); ++i) std::memcpy(m + 32 + 4 * i, &keys[i], 4);
  return frame(m, 32 + 4 * keys.size(), 0, 0);
}

std::size_t modifyPartition(SimFsmState& s, const SimFsm& fsm, std::uint8_t* m) {
  std::uint32_t index = get_be32(m + 24), op = get_be32(m + 28);
  if (index >= s.stripeGroups.size()) return failed(m, ENOENT);
  if (op != 1 && op != 2) return failed(m, EINVAL);
  SimStripeGroup& g = s.stripeGroups[index];
  g.flags &= ~(kPartUp | kPartDown);
  g.flags |= op == 1 ? kPartUp : kPartDown;
  g.setting = get_be32(m + 32);
  g.multipath = get_be16(m + 36);
  simLog("fsm '%s': stripe group %u '%s' %s", fsm.name.c_str(), index, g.name.c_str(),
         op == 1 ? "up" : "down");
  return frame(m, kFrameHeaderLen, 0, 0);
}

std::size_t device(SimFsmState& s, std::uint8_t* m) {
  std::uint32_t index = get_be32(m + 24);
  if (index >= s.devices.size()) return failed(m, ENOENT);
  const SimFsmDevice& d = s.devices[index];
  put_be64(m + 24, d.values[0]);
  put_be64(m + 32, d.values[1]);
  for (int i = 0; i < 4; ++i) put_be32(m + 40 + 4 * i, d.words[i]);
  putText(m + 56, d.texts[0], 256);
  putText(m + 312, d.texts[1], 256);
  putText(m + 568, d.texts[2], 256);
  return frame(m, 824, 0, 0);
}

std::size_t who(SimFsmState& s, std::uint8_t* m, bool newer) {
  std::uint32_t index = get_be32(m + 24);
  if (s.clients.empty() || index > s.clients.rbegin()->first) return failed(m, ENOENT);
  SimFsmClient c;
  auto it = s.clients.find(index);
  if (it != s.clients.end())
    c = it->second;
  else
    c.flags = 0;  // a free slot inside the table
  std::uint8_t* r = m + 24;
  std::memset(r, 0, kWhoWireLen);
  if (newer) {
    put_be32(r + 0, index);
    put_be32(r + 4, c.flags);
    put_be32(r + 8, c.type);
    put_be32(r + 20, c.uptime);
    putAddress(r + 48, c.address);
    putText(r + 96, c.text, 1024);
    return frame(m, kFrameHeaderLen + kWhoWireLen, 0, 0);
  }
  put_be32(r + 0, index);
  put_be32(r + 4, c.flags);
  put_be32(r + 8, c.type);
  put_be32(r + 20, c.uptime);
  struct in6_addr a {};
  if (!c.address.empty()) parseAddress(c.address, &a);
  if (AddrIsMapped(&a)) std::memcpy(r + 32, a.s6_addr + 12, 4);
  return frame(m, kFrameHeaderLen + 36, 0, 0);
}

std::size_t quotaRec(SimFsmState& s, const SimFsm& fsm, std::uint8_t* m) {
  std::uint32_t op = get_be32(m + 24);
  char name[kQuotaNameLen];
  std::memcpy(name, m + 48, kQuotaNameLen);
  name[kQuotaNameLen - 1] = '\0';
  if (op > 5) return failed(m, EINVAL);
  auto& table = (op % 2 == 0) ? s.userQuotas : s.groupQuotas;
  std::uint32_t timeLimit = get_be32(m + 28);
  std::uint64_t hard = get_be64(m + 32), soft = get_be64(m + 40);
  std::memset(m + 24, 0, 320 - 24);
  auto entry = table.end();
  if (s.quotasOn) {
    if (op == kQuotaGetUser || op == kQuotaGetGroup) {
      entry = table.find(name);
    } else if (op == kQuotaSetUser || op == kQuotaSetGroup) {
      SimQuota& q = table[name];
      q.hard = hard;
      q.soft = soft;
      q.timeLimit = timeLimit;
      entry = table.find(name);
      simLog("fsm '%s': %s quota '%s' set to hard %llu soft %llu", fsm.name.c_str(),
             op == kQuotaSetUser ? "user" : "group", name, static_cast<unsigned long long>(hard),
             static_cast<unsigned long long>(soft));
    } else {
      // The walk goes in byte order of names; an empty cursor starts it, so an entry without a
      // name can only come first.
      entry = name[0] ? table.upper_bound(name) : table.begin();
    }
  }
  if (entry == table.end()) return frame(m, 320, 0, 0);
  const SimQuota& q = entry->second;
  put_be32(m + 24, 1);
  put_be32(m + 28, q.timeLimit);
  put_be64(m + 32, q.hard);
  put_be64(m + 40, q.soft);
  put_be64(m + 48, q.used);
  put_be32(m + 56, q.status);
  put_be32(m + 60, q.remaining);
  putText(m + 64, entry->first, kQuotaNameLen);
  return frame(m, 320, 0, 0);
}

std::size_t qosStat(SimFsmState& s, std::uint8_t* m) {
  std::uint32_t first = get_be32(m + 24);
  std::uint32_t count = static_cast<std::uint32_t>(s.qosClients.size());
  put_be32(m + 24, count);
  std::size_t len = 32;
  for (std::uint32_t i = first; i < count && i < first + 32; ++i) {
    for (int w = 0; w < 5; ++w) put_be32(m + len + 4 * w, s.qosClients[i][w]);
    len += 20;
  }
  return frame(m, len, 0, 0);
}

std::size_t proxyServer(SimFsmState& s, std::uint8_t* m) {
  std::uint32_t index = get_be32(m + 24), generation = get_be32(m + 28);
  bool stale = index != 0 && generation != s.proxyGeneration;
  if (index >= s.proxyServers.size() && !stale) return failed(m, ENOENT);
  std::memset(m + 24, 0, 104 - 24);
  if (stale || (index == 1 && s.proxyListChanges > 0)) {
    // Tell the walker that the list changed: no second address, a new generation.
    if (!stale) {
      --s.proxyListChanges;
      ++s.proxyGeneration;
    }
    put_be32(m + 28, s.proxyGeneration);
    return frame(m, 104, 0, 0);
  }
  const SimProxyServer& p = s.proxyServers[index];
  put_be32(m + 24, index + 1);
  put_be32(m + 28, s.proxyGeneration);
  putAddress(m + 32, p.address1);
  putAddress(m + 48, p.address2);
  static constexpr std::size_t kOffsets[9] = {64, 68, 72, 76, 80, 84, 92, 96, 100};
  for (int i = 0; i < 9; ++i) put_be32(m + kOffsets[i], p.words[i]);
  return frame(m, 104, 0, 0);
}

}  // namespace

std::uint32_t simFsmCapabilities(const SimFsm& fsm) {
  SimFsmState& s = *fsm.fsmState;
  std::scoped_lock lock(s.mutex);
  std::uint32_t caps = fsm.capabilities;
  if (s.unknownTypes.count(kFsmTypeWho)) caps &= ~kFsmCapNewWho;
  if (s.unknownTypes.count(kFsmTypeStartIoTest)) caps &= ~kFsmCapIoTest;
  if (s.unknownTypes.count(kFsmTypeProxySrv)) caps &= ~kFsmCapProxyServers;
  return caps;
}

std::size_t simFsmRequest(const SimFsm& fsm, std::uint8_t* m, std::size_t len, std::size_t cap) {
  if (cap < kReplyRoom || len < kFrameHeaderLen) return failed(m, EINVAL);
  // Short requests read as zero-filled, like the FSM's own fixed-size buffers.
  if (len < kReplyRoom) std::memset(m + len, 0, kReplyRoom - len);
  std::uint8_t type = m[kFhType];
  SimFsmState& s = *fsm.fsmState;
  std::scoped_lock lock(s.mutex);
  if (m[kFhClass] != kFsmAdminClass || s.unknownTypes.count(type)) {
    simLog("fsm '%s': request type %u answered as unknown", fsm.name.c_str(), type);
    return frame(m, len, kStatusUnknownRequest, 1);
  }
  switch (type) {
    case kFsmTypeFsStat:
      return fsStat(fsm, s, m);
    case kFsmTypeGetPartition:
    case kFsmTypeGetPartitionOld:
      return partition(s, m, type == kFsmTypeGetPartition);
    case kFsmTypeNativeKeys:
      return nativeKeys(s, m);
    case kFsmTypeModifyPartition:
      return modifyPartition(s, fsm, m);
    case kFsmTypeGetDevice:
      return device(s, m);
    case kFsmTypeOpenFileReport:
      return textReply(m, 24, s.openFileReport);
    case kFsmTypeGenReport:
      return textReply(m, 24, s.report + " " + std::to_string(get_be32(m + 24)));
    case kFsmTypeDebug: {
      if (get_be32(m + 24) == 1 && !s.debugReadOnly) s.debug = get_be32(m + 28);
      put_be32(m + 24, s.debug);
      std::memset(m + 28, 0, 4);
      return textReply(m, 32, "debug " + std::to_string(s.debug));
    }
    case kFsmTypeBrls:
      if (get_be32(m + 24) == 1) s.brls = get_be32(m + 28);
      put_be32(m + 24, s.brls);
      return frame(m, 32, 0, 0);
    case kFsmTypeQuotas:
      if (get_be32(m + 24) == 1) {
        s.quotasOn = get_be32(m + 28) != 0;
        simLog("fsm '%s': quotas %s", fsm.name.c_str(), s.quotasOn ? "on" : "off");
      }
      put_be32(m + 24, s.quotasOn ? 1 : 0);
      std::memset(m + 28, 0, 4);
      return textReply(m, 32, s.quotasOn ? "Quotas are enabled" : "Quotas are disabled");
    case kFsmTypeQuotaCmd: {
      std::uint32_t op = get_be32(m + 24);
      bool ok = op == kQuotaCmdRebuild && s.quotasOn;
      if (ok) ++s.rebuildCount;
      put_be32(m + 24, ok ? 0 : 1);
      put_be32(m + 28, ok ? 0 : EINVAL);
      return textReply(m, 32, ok ? "Quota database rebuilt" : "Quota command refused");
    }
    case kFsmTypeQuotaRec:
      return quotaRec(s, fsm, m);
    case kFsmTypeLockMeter:
      put_be32(m + 28, s.lockMeter[0]);
      put_be32(m + 24, s.lockMeter[1]);
      return textReply(m, 32, "lock meter");
    case kFsmTypeGetQos: {
      std::uint32_t index = get_be32(m + 24);
      if (index >= s.qos.size()) return failed(m, ENOENT);
      static constexpr std::size_t kOffsets[10] = {24, 28, 32, 40, 44, 48, 52, 56, 60, 64};
      for (int i = 0; i < 10; ++i) put_be32(m + kOffsets[i], s.qos[index][i]);
      return frame(m, 68, 0, 0);
    }
    case kFsmTypeQosStat:
      return qosStat(s, m);
    case kFsmTypeRollRJ:
      put_be32(m + 24, ++s.rollCount);
      return frame(m, 28, 0, 0);
    case kFsmTypeStopRJ:
      simLog("fsm '%s': restore journal stopped", fsm.name.c_str());
      return frame(m, kFrameHeaderLen, 0, 0);
    case kFsmTypeSuspendCreates:
      s.suspendWord = get_be16(m + kFhArg);
      simLog("fsm '%s': suspend creates %u", fsm.name.c_str(), s.suspendWord);
      return frame(m, kFrameHeaderLen, 0, 0);
    case kFsmTypeResetRPL:
      ++s.resetCount;
      simLog("fsm '%s': RPL reset", fsm.name.c_str());
      return frame(m, kFrameHeaderLen, 0, 0);
    case kFsmTypeWho:
    case kFsmTypeWhoOld:
      return who(s, m, type == kFsmTypeWho);
    case kFsmTypeStartIoTest:
      simLog("fsm '%s': I/O test word %u count %u", fsm.name.c_str(), get_be32(m + 24),
             get_be32(m + 28));
      return frame(m, kFrameHeaderLen, 0, 0);
    case kFsmTypeProxySrv:
      return proxyServer(s, m);
    default:
      simLog("fsm '%s': request class %u type %u not known here", fsm.name.c_str(), m[kFhClass],
             type);
      return frame(m, len, kStatusUnknownRequest, 1);
  }
}

}  // namespace velm::sim
