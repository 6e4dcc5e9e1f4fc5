#include "adminlib/fsm_requests.h"

#include <cerrno>
#include <cstring>
#include <new>

#include "adminlib/adminlib_internal.h"
#include "adminlib/alloc.h"
#include "adminlib/sock46.h"
#include "adminlib/wire.h"

namespace {

using adminlib::setError;
using adminlib::kWalkLimit;

constexpr int kTimed = 1;
constexpr int kUntimed = 0;

// One FSM message buffer: taken, framed as class 2 with the next message number, freed.
class FsmMessage {
 public:
  explicit FsmMessage(std::uint8_t type) {
    m_ = static_cast<std::uint8_t*>(AllocMemory(MY_MINALIGN, kFsmMsgLen, __FILE__, __LINE__));
    if (!m_) return;
    // The whole buffer is cleared, not just the header's reserved bytes: nothing of an earlier
    // use of this memory goes out on the wire, and a short reply reads as zero.
    std::memset(m_, 0, kFsmMsgLen);
    m_[kFhClass] = kFsmAdminClass;
    m_[kFhType] = type;
    FrameSetMsgNumber(m_, FsmNextMsgNumber());
  }
  ~FsmMessage() {
    if (m_) FreeMemory(m_);
  }
  FsmMessage(const FsmMessage&) = delete;
  FsmMessage& operator=(const FsmMessage&) = delete;

  bool ok() const { return m_ != nullptr; }
  std::uint8_t* p() { return m_; }
  std::size_t replyLen() const { return replyLen_; }

  // Sends len bytes and reads the reply in place. A reply shorter than minReply (the end of the
  // last fixed field the caller reads) is refused with EINVAL.
  int exchange(int sock, std::size_t len, int* err, int timed, std::size_t minReply) {
    if (_sendrcvmsg_buf(sock, m_, len, kFsmMsgLen, err, timed) != 0) return -1;
    replyLen_ = get_be24(m_ + kFhLength);
    if (replyLen_ < kFrameHeaderLen) replyLen_ = kFrameHeaderLen;
    // Bytes past the reply still hold the request; they must not read as answer.
    std::memset(m_ + replyLen_, 0, kFsmMsgLen - replyLen_);
    if (replyLen_ < minReply) {
      *err = EINVAL;
      return -1;
    }
    return 0;
  }

  std::uint32_t u32(std::size_t off) const { return get_be32(m_ + off); }
  std::uint64_t u64(std::size_t off) const { return get_be64(m_ + off); }
  std::uint16_t u16(std::size_t off) const { return get_be16(m_ + off); }

  // The NUL-terminated text at off, bounded by the reply and by size.
  void text(std::size_t off, char* out, std::size_t size) const {
    if (!out || size == 0) return;
    std::size_t room = off < replyLen_ ? replyLen_ - off : 0;
    if (room > size - 1) room = size - 1;
    std::size_t n = ::strnlen(reinterpret_cast<const char*>(m_ + off), room);
    std::memcpy(out, m_ + off, n);
    out[n] = '\0';
  }

 private:
  std::uint8_t* m_ = nullptr;
  std::size_t replyLen_ = 0;
};

// Every request's error out may be null.
int* errOut(int* err, int* local) {
  int* e = err ? err : local;
  *e = 0;
  return e;
}

// The common case: a buffer, a body from fill, the exchange. -1 with ENOMEM when memory is short.
template <typename Fill>
int simpleRequest(FsmMessage& msg, int sock, std::size_t len, int* err, int timed,
                  std::size_t minReply, Fill fill) {
  if (!msg.ok()) {
    *err = ENOMEM;
    return -1;
  }
  fill(msg.p());
  return msg.exchange(sock, len, err, timed, minReply);
}

void noBody(std::uint8_t*) {}

}  // namespace

// ---- Proxy server nodes ----

FsmProxySrv* AllocSrvAddr() {
  void* block = AllocMemory(MY_MINALIGN, sizeof(FsmProxySrv), __FILE__, __LINE__);
  if (!block) return nullptr;
  std::memset(block, 0, sizeof(FsmProxySrv));
  auto* srv = new (block) FsmProxySrv;
  InitNode(&srv->node, srv);
  return srv;
}

void FreeSrvAddr(FsmProxySrv* srv) {
  if (srv) FreeMemory(srv);
}

void FreeAllSrvAddr(ListHdr* list) {
  while (void* owner = RemoveFirstNode(list)) FreeSrvAddr(static_cast<FsmProxySrv*>(owner));
}

// ---- Requests ----

int FsmFsStat(int sock, FsmFsStatRec* stat, int* err) {
  int local;
  err = errOut(err, &local);
  FsmMessage msg(kFsmTypeFsStat);
  if (simpleRequest(msg, sock, kFrameHeaderLen, err, kTimed, 96, noBody) != 0) return -1;
  FsmFsStatRec r{};
  r.flags = msg.u16(24);
  r.clients = msg.u16(26);
  r.stripeGroups = msg.u16(28);
  r.devices = msg.u16(30);
  r.blockSize = msg.u32(32);
  r.count36 = msg.u16(36);
  r.count38 = msg.u16(38);
  r.count40 = msg.u16(40);
  r.count42 = msg.u16(42);
  r.msgBufSize = msg.u32(44);
  r.createTimeUs = msg.u64(56);
  r.value72 = msg.u64(72);
  r.totalBlocks = msg.u64(80);
  r.freeBlocks = msg.u64(88);
  if (stat) *stat = r;
  return 0;
}

int FsmGetPartition(int sock, int index, FsmPartitionRec* rec, const FsmFsStatRec* stat, int* err) {
  int local;
  err = errOut(err, &local);
  if (!stat) {
    *err = EINVAL;
    return -1;
  }
  bool newer = (stat->flags & kFsStatNewPartition) != 0;
  FsmMessage msg(newer ? kFsmTypeGetPartition : kFsmTypeGetPartitionOld);
  // The older record lacks the reserved count, so every later field sits 8 bytes lower.
  std::size_t shift = newer ? 0 : 8;
  if (simpleRequest(msg, sock, 32, err, kTimed, 112 - shift, [&](std::uint8_t* m) {
        put_be32(m + 24, static_cast<std::uint32_t>(index));
      }) != 0)
    return -1;
  FsmPartitionRec r{};
  r.flags = msg.u32(24);
  r.word28 = msg.u32(28);
  r.totalBlocks = msg.u64(32);
  r.reservedBlocks = newer ? msg.u64(40) : 0;
  r.freeBlocks = msg.u64(48 - shift);
  r.affinity = msg.u64(56 - shift);
  r.value64 = msg.u64(64 - shift);
  r.value72 = msg.u64(72 - shift);
  r.devices = msg.u32(80 - shift);
  r.setting = msg.u32(88 - shift);
  r.multipath = msg.u16(92 - shift);
  r.breadth = msg.u32(96 - shift);
  r.nativeKey = msg.u32(100 - shift);
  r.word104 = msg.u32(104 - shift);
  msg.text(112 - shift, r.name, sizeof r.name);
  if (rec) *rec = r;
  return 0;
}

int FsmGetPartitionNativeKeys(int sock, int index, FsmNativeKeyPair** keys, int* err) {
  int local;
  err = errOut(err, &local);
  if (keys) *keys = nullptr;
  FsmMessage msg(kFsmTypeNativeKeys);
  if (simpleRequest(msg, sock, 32, err, kTimed, 32, [&](std::uint8_t* m) {
        put_be32(m + 24, static_cast<std::uint32_t>(index));
      }) != 0)
    return -1;
  std::uint32_t count = msg.u32(24);
  if (count > (msg.replyLen() - 32) / sizeof(FsmNativeKeyPair)) {
    *err = EINVAL;  // more pairs announced than the reply carries
    return -1;
  }
  if (count == 0 || !keys) return static_cast<int>(count);
  auto* out = static_cast<FsmNativeKeyPair*>(
      AllocMemory(MY_MINALIGN, count * sizeof(FsmNativeKeyPair), __FILE__, __LINE__));
  if (!out) {
    *err = ENOMEM;
    return -1;
  }
  std::memcpy(out, msg.p() + 32, count * sizeof(FsmNativeKeyPair));
  *keys = out;
  return static_cast<int>(count);
}

int FSMModifyPartition(int sock, int index, int operation, std::uint32_t setting, int method,
                       int* err) {
  int local;
  err = errOut(err, &local);
  FsmMessage msg(kFsmTypeModifyPartition);
  return simpleRequest(msg, sock, 40, err, kTimed, kFrameHeaderLen, [&](std::uint8_t* m) {
    put_be32(m + 24, static_cast<std::uint32_t>(index));
    put_be32(m + 28, static_cast<std::uint32_t>(operation));
    put_be32(m + 32, setting);
    put_be16(m + 36, static_cast<std::uint16_t>(method));
  });
}

int FsmGetDevice(int sock, int index, FsmDeviceRec* rec, int* err) {
  int local;
  err = errOut(err, &local);
  FsmMessage msg(kFsmTypeGetDevice);
  if (simpleRequest(msg, sock, 32, err, kTimed, 568, [&](std::uint8_t* m) {
        put_be32(m + 24, static_cast<std::uint32_t>(index));
      }) != 0)
    return -1;
  FsmDeviceRec r{};
  r.value24 = msg.u64(24);
  r.value32 = msg.u64(32);
  r.word40 = msg.u32(40);
  r.word44 = msg.u32(44);
  r.word48 = msg.u32(48);
  r.word52 = msg.u32(52);
  msg.text(56, r.text56, sizeof r.text56);
  msg.text(312, r.text312, sizeof r.text312);
  msg.text(568, r.text568, sizeof r.text568);
  if (rec) *rec = r;
  return 0;
}

namespace {

// The two report requests: a failed reply without an error number still has to read as a
// failure to the caller.
int reportRequest(std::uint8_t type, std::size_t len, std::uint32_t word, int sock, char* text,
                  int* err) {
  FsmMessage msg(type);
  int rc = simpleRequest(msg, sock, len, err, kTimed, kFrameHeaderLen, [&](std::uint8_t* m) {
    if (len > kFrameHeaderLen) put_be32(m + 24, word);
  });
  if (rc != 0) {
    if (*err == 0) *err = EIO;
    return -1;
  }
  msg.text(24, text, ADMIN_ERRBUF_LEN);
  return 0;
}

}  // namespace

int FsmGenOpenFileReport(int sock, char* text, int* err) {
  int local;
  err = errOut(err, &local);
  return reportRequest(kFsmTypeOpenFileReport, kFrameHeaderLen, 0, sock, text, err);
}

int FsmGenReport(int sock, std::uint32_t word, char* text, int* err) {
  int local;
  err = errOut(err, &local);
  return reportRequest(kFsmTypeGenReport, 40, word, sock, text, err);
}

namespace {

// Operation and value at 24 and 28, a word back at 24 and a text at 32.
int wordRequest(std::uint8_t type, int timed, int sock, int operation, std::uint32_t value,
                std::uint32_t* word, char* text, int* err, std::size_t minReply) {
  FsmMessage msg(type);
  if (simpleRequest(msg, sock, 32, err, timed, minReply, [&](std::uint8_t* m) {
        put_be32(m + 24, static_cast<std::uint32_t>(operation));
        put_be32(m + 28, value);
      }) != 0)
    return -1;
  if (word) *word = msg.u32(24);
  msg.text(32, text, ADMIN_ERRBUF_LEN);
  return 0;
}

}  // namespace

int FsmDebug(int sock, int operation, std::uint32_t value, std::uint32_t* word, char* text,
             int* err) {
  int local;
  err = errOut(err, &local);
  std::uint32_t got = 0;
  if (wordRequest(kFsmTypeDebug, kTimed, sock, operation, value, &got, text, err, 32) != 0)
    return -1;
  if (word) *word = got;
  if (operation == 1 && got != value) {
    *err = ENOSYS;  // the FSM kept another value than the one set
    return -1;
  }
  return 0;
}

int FsmBrls(int sock, int operation, std::uint32_t value, std::uint32_t* word, int* err) {
  int local;
  err = errOut(err, &local);
  return wordRequest(kFsmTypeBrls, kTimed, sock, operation, value, word, nullptr, err, 28);
}

int FsmQuotas(int sock, int operation, std::uint32_t value, std::uint32_t* word, char* text,
              int* err) {
  int local;
  err = errOut(err, &local);
  return wordRequest(kFsmTypeQuotas, kUntimed, sock, operation, value, word, text, err, 32);
}

int FsmQuotaCmd(int sock, int operation, std::uint32_t* word, char* text, int* err) {
  int local;
  err = errOut(err, &local);
  FsmMessage msg(kFsmTypeQuotaCmd);
  if (simpleRequest(msg, sock, 32, err, kUntimed, 32, [&](std::uint8_t* m) {
        put_be32(m + 24, static_cast<std::uint32_t>(operation));
      }) != 0)
    return -1;
  if (word) *word = msg.u32(24);
  *err = static_cast<int>(msg.u32(28));
  msg.text(32, text, ADMIN_ERRBUF_LEN);
  return 0;
}

int FsmQuotaRec(int sock, int operation, char* name, std::uint64_t* hard, std::uint64_t* soft,
                std::uint32_t* timeLimit, std::uint32_t* remaining, std::uint64_t* used, int* found,
                int* err) {
  int local;
  err = errOut(err, &local);
  if (found) *found = 0;
  FsmMessage msg(kFsmTypeQuotaRec);
  bool set = operation == kQuotaSetUser || operation == kQuotaSetGroup;
  if (simpleRequest(msg, sock, kQuotaReqLen, err, kTimed, 28, [&](std::uint8_t* m) {
        put_be32(m + 24, static_cast<std::uint32_t>(operation));
        if (set) {
          put_be32(m + 28, timeLimit ? *timeLimit : 0);
          put_be64(m + 32, hard ? *hard : 0);
          put_be64(m + 40, soft ? *soft : 0);
        }
        if (name) adminlib::copyText(reinterpret_cast<char*>(m + 48), kQuotaNameLen, name);
      }) != 0)
    return -1;
  // Deliberate: without an entry nothing is touched, the name included, so a walk's cursor
  // stays where it was.
  if (msg.u32(24) != 1) return 0;
  if (msg.replyLen() < 64) {
    *err = EINVAL;
    return -1;
  }
  if (found) *found = 1;
  if (timeLimit) *timeLimit = msg.u32(28);
  if (hard) *hard = msg.u64(32);
  if (soft) *soft = msg.u64(40);
  if (used) *used = msg.u64(48);
  *err = static_cast<int>(msg.u32(56));
  if (remaining) *remaining = msg.u32(60);
  if (name) msg.text(64, name, kQuotaNameLen);
  return 0;
}

int FsmLockMeter(int sock, int operation, std::uint32_t value, std::uint32_t* word1,
                 std::uint32_t* word2, char* text, int* err) {
  int local;
  err = errOut(err, &local);
  FsmMessage msg(kFsmTypeLockMeter);
  if (simpleRequest(msg, sock, 32, err, kTimed, 32, [&](std::uint8_t* m) {
        put_be32(m + 24, static_cast<std::uint32_t>(operation));
        put_be32(m + 28, value);
      }) != 0)
    return -1;
  // Deliberate: the first word out is the one at 28, the second the one at 24.
  if (word1) *word1 = msg.u32(28);
  if (word2) *word2 = msg.u32(24);
  msg.text(32, text, ADMIN_ERRBUF_LEN);
  return 0;
}

int FsmGetQos(int sock, int index, FsmQosRec* rec, int* err) {
  int local;
  err = errOut(err, &local);
  FsmMessage msg(kFsmTypeGetQos);
  if (simpleRequest(msg, sock, 40, err, kTimed, 68, [&](std::uint8_t* m) {
        put_be32(m + 24, static_cast<std::uint32_t>(index));
        put_be32(m + 28, 2);
        put_be32(m + 32, 1);
      }) != 0)
    return -1;
  static constexpr std::size_t kOffsets[10] = {24, 28, 32, 40, 44, 48, 52, 56, 60, 64};
  FsmQosRec r{};
  for (int i = 0; i < 10; ++i) r.word[i] = msg.u32(kOffsets[i]);
  if (rec) *rec = r;
  return 0;
}

int FsmRollRJCmd(int sock, std::uint32_t* word, int* err) {
  int local;
  err = errOut(err, &local);
  FsmMessage msg(kFsmTypeRollRJ);
  if (simpleRequest(msg, sock, kFrameHeaderLen, err, kUntimed, 28, noBody) != 0) return -1;
  if (word) *word = msg.u32(24);
  return 0;
}

int FsmStopRJCmd(int sock, int* err) {
  int local;
  err = errOut(err, &local);
  FsmMessage msg(kFsmTypeStopRJ);
  return simpleRequest(msg, sock, kFrameHeaderLen, err, kUntimed, kFrameHeaderLen, noBody);
}

int FsmSuspendCreates(int sock, int word) {
  int err = 0;
  FsmMessage msg(kFsmTypeSuspendCreates);
  return simpleRequest(
             msg, sock, kFrameHeaderLen, &err, kUntimed, kFrameHeaderLen,
             [&](std::uint8_t* m) { put_be16(m + kFhArg, static_cast<std::uint16_t>(word)); }) == 0
             ? 0
             : -1;
}

int FsmResetRPL(int sock) {
  int err = 0;
  FsmMessage msg(kFsmTypeResetRPL);
  return simpleRequest(msg, sock, kFrameHeaderLen, &err, kUntimed, kFrameHeaderLen, noBody) == 0
             ? 0
             : -1;
}

int FsmStartIoTest(int sock, std::uint32_t capabilities, std::uint32_t word, int count,
                   char* text) {
  if (!(capabilities & kFsmCapIoTest)) {
    setError(text, "FSM does not support I/O testing");
    return -1;
  }
  // Deliberate: nonsense counts are mended, not refused.
  if (count <= 0) count = 2;
  if (count > 10) count = 10;
  FsmMessage msg(kFsmTypeStartIoTest);
  if (!msg.ok()) {
    setError(text, "StartIoTest failed - out of memory");
    return -1;
  }
  put_be32(msg.p() + 24, word);
  put_be32(msg.p() + 28, static_cast<std::uint32_t>(count));
  int err = 0;
  if (msg.exchange(sock, 40, &err, kTimed, kFrameHeaderLen) != 0) {
    char sys[ADMIN_ERRBUF_LEN];
    setError(text, "StartIoTest failed - %s", _FormatSysError(err, sys, sizeof sys));
    return -1;
  }
  return 0;
}

// ---- Clients ----

namespace {

constexpr std::size_t kWhoOldLen = 36;  // the older wire record, from offset 24
constexpr int kWhoGrow = 20;

bool slotInUse(std::uint32_t flags) { return (flags & 3u) != 0; }

// The older record as gathered during the walk.
struct WhoShort {
  std::uint32_t index;
  std::uint8_t wire[kWhoOldLen];
};

void whoFromOld(WhoRD* host, const WhoShort& s) {
  std::memset(host, 0, sizeof *host);
  host->index = s.index;
  host->flags = get_be32(s.wire + 4);
  host->type = get_be32(s.wire + 8);
  host->word12 = get_be32(s.wire + 12);
  host->word16 = get_be32(s.wire + 16);
  host->uptime = get_be32(s.wire + 20);
  host->value24 = get_be64(s.wire + 24);
  std::uint8_t v4[4];
  std::memcpy(v4, s.wire + 32, 4);
  if (v4[0] | v4[1] | v4[2] | v4[3]) {
    struct in6_addr a;
    AddrSetMapped(&a, v4);
    std::memcpy(host->addr2, a.s6_addr, 16);
  }
}

// Grows *array (of elemSize records, *cap of them) by kWhoGrow. False when memory is short.
bool growArray(void** array, int* cap, int used, std::size_t elemSize) {
  int newCap = *cap + kWhoGrow;
  void* bigger =
      AllocMemory(MY_MINALIGN, static_cast<std::size_t>(newCap) * elemSize, __FILE__, __LINE__);
  if (!bigger) return false;
  if (*array) {
    std::memcpy(bigger, *array, static_cast<std::size_t>(used) * elemSize);
    FreeMemory(*array);
  }
  *array = bigger;
  *cap = newCap;
  return true;
}

// One client request of either form; the raw record lands in msg.
int whoRequest(FsmMessage& msg, int sock, bool newer, int index, int* err) {
  return simpleRequest(
      msg, sock, 32, err, kTimed, kFrameHeaderLen + (newer ? kWhoWireLen : kWhoOldLen),
      [&](std::uint8_t* m) { put_be32(m + 24, static_cast<std::uint32_t>(index)); });
}

void whoFailed(char* text, int err) {
  char sys[ADMIN_ERRBUF_LEN];
  setError(text, "Who failed - %s", _FormatSysError(err, sys, sizeof sys));
}

}  // namespace

int FsmWho(int sock, std::uint32_t capabilities, WhoRD** records, char* text) {
  if (records) *records = nullptr;
  bool newer = (capabilities & kFsmCapNewWho) != 0;
  std::size_t elemSize = newer ? sizeof(WhoRD) : sizeof(WhoShort);
  void* array = nullptr;
  int cap = 0, count = 0;
  auto fail = [&]() {
    if (array) FreeMemory(array);
    return -1;
  };
  for (int index = 0;; ++index) {
    if (index >= kWalkLimit) {
      whoFailed(text, E2BIG);
      return fail();
    }
    FsmMessage msg(newer ? kFsmTypeWho : kFsmTypeWhoOld);
    int err = 0;
    if (whoRequest(msg, sock, newer, index, &err) != 0) {
      if (err == ENOENT) break;  // the end of the table
      whoFailed(text, err);
      return fail();
    }
    const std::uint8_t* wire = msg.p() + kFrameHeaderLen;
    // Deliberate: slot 0 is always taken, in use or not.
    if (index != 0 && !slotInUse(get_be32(wire + 4))) continue;
    if (count == cap && !growArray(&array, &cap, count, elemSize)) {
      // Deliberate: only the first buffer of the newer form says it with a newline.
      if (newer && cap == 0)
        setError(text, "Who failed - out of memory\n");
      else
        setError(text, "Who failed - out of memory");
      return fail();
    }
    if (newer) {
      WhoRD* rec = static_cast<WhoRD*>(array) + count;
      unnetwork_WhoRD(rec, wire);
      rec->index = static_cast<std::uint32_t>(index);
    } else {
      WhoShort* s = static_cast<WhoShort*>(array) + count;
      s->index = static_cast<std::uint32_t>(index);
      std::memcpy(s->wire, wire, kWhoOldLen);
    }
    ++count;
  }
  if (!newer && count > 0) {
    auto* full = static_cast<WhoRD*>(AllocMemory(
        MY_MINALIGN, static_cast<std::size_t>(count) * sizeof(WhoRD), __FILE__, __LINE__));
    if (!full) {
      setError(text, "Who failed - out of memory");
      return fail();
    }
    const auto* shorts = static_cast<const WhoShort*>(array);
    for (int i = 0; i < count; ++i) whoFromOld(&full[i], shorts[i]);
    FreeMemory(array);
    array = full;
  }
  if (records)
    *records = static_cast<WhoRD*>(array);
  else if (array)
    FreeMemory(array);
  return count;
}

int FsmOneWho(int sock, std::uint32_t capabilities, int index, WhoRD* rec, char* text) {
  if (capabilities & kFsmCapNewWho) {
    FsmMessage msg(kFsmTypeWho);
    int err = 0;
    if (!msg.ok()) {
      setError(text, "Who failed - out of memory");
      return -1;
    }
    if (whoRequest(msg, sock, true, index, &err) != 0) {
      whoFailed(text, err);
      return -1;
    }
    const std::uint8_t* wire = msg.p() + kFrameHeaderLen;
    if (index != 0 && !slotInUse(get_be32(wire + 4))) {
      setError(text, "Who failed - no such client");
      return -1;
    }
    if (rec) {
      unnetwork_WhoRD(rec, wire);
      rec->index = static_cast<std::uint32_t>(index);
    }
    return 0;
  }
  WhoRD* all = nullptr;
  int n = FsmWho(sock, capabilities, &all, text);
  if (n < 0) return -1;
  int rc = -1;
  for (int i = 0; i < n; ++i) {
    if (all[i].index == static_cast<std::uint32_t>(index)) {
      if (rec) *rec = all[i];
      rc = 0;
      break;
    }
  }
  if (all) FreeMemory(all);
  if (rc != 0) setError(text, "Who failed - no such client");
  return rc;
}

// ---- Bandwidth per client ----

int FsmGetQosStat(int sock, std::uint32_t word, FsmQosStatRec** records, int* count, int* err) {
  int local;
  err = errOut(err, &local);
  if (records) *records = nullptr;
  if (count) *count = 0;
  constexpr std::size_t kRecLen = 20;
  constexpr std::uint32_t kPage = 32;
  std::uint32_t clients = 0;
  {
    FsmMessage msg(kFsmTypeQosStat);
    if (simpleRequest(msg, sock, 32, err, kTimed, 28, [&](std::uint8_t* m) {
          put_be32(m + 24, 0);
          put_be32(m + 28, word);
        }) != 0)
      return -1;
    clients = msg.u32(24);
  }
  if (clients > static_cast<std::uint32_t>(kWalkLimit)) {
    *err = EINVAL;
    return -1;
  }
  FsmQosStatRec* out = nullptr;
  if (clients > 0) {
    out = static_cast<FsmQosStatRec*>(
        AllocMemory(MY_MINALIGN, clients * sizeof(FsmQosStatRec), __FILE__, __LINE__));
    if (!out) {
      *err = ENOMEM;
      return -2;
    }
  }
  int rc = 0, kept = 0;
  for (std::uint32_t first = 0; first < clients; first += kPage) {
    std::uint32_t n = clients - first < kPage ? clients - first : kPage;
    FsmMessage msg(kFsmTypeQosStat);
    int pageErr = 0;
    // Deliberate: a failed page is remembered and the walk goes on with the next one.
    if (simpleRequest(msg, sock, 32, &pageErr, kTimed, 32 + n * kRecLen, [&](std::uint8_t* m) {
          put_be32(m + 24, first);
          put_be32(m + 28, word);
        }) != 0) {
      rc = -3;
      *err = pageErr;
      continue;
    }
    for (std::uint32_t i = 0; i < n; ++i) {
      std::size_t off = 32 + i * kRecLen;
      FsmQosStatRec r{msg.u32(off), msg.u32(off + 4), msg.u32(off + 8), msg.u32(off + 12),
                      msg.u32(off + 16)};
      if (r.flags & kQosStatKeep) out[kept++] = r;
    }
  }
  if (rc != 0 || !records) {
    if (out) FreeMemory(out);
    if (rc == 0 && count) *count = kept;
    return rc;
  }
  if (kept == 0 && out) {
    FreeMemory(out);
    out = nullptr;
  }
  *records = out;
  if (count) *count = kept;
  return 0;
}

// ---- Proxy servers ----

int FsmGetProxySrvAt(int sock, ListHdr* list) {
  FreeAllSrvAddr(list);
  std::uint32_t index = 0, generation = 0;
  for (int steps = 0;; ++steps) {
    if (steps >= kWalkLimit) {
      FreeAllSrvAddr(list);
      return E2BIG;
    }
    FsmMessage msg(kFsmTypeProxySrv);
    int err = 0;
    if (simpleRequest(msg, sock, 32, &err, kTimed, 104, [&](std::uint8_t* m) {
          put_be32(m + 24, index);
          put_be32(m + 28, generation);
        }) != 0) {
      if (err == ENOENT) return 0;  // the end of the list
      FreeAllSrvAddr(list);
      return err;
    }
    if (index == 0) generation = msg.u32(28);
    const std::uint8_t* m = msg.p();
    static constexpr std::uint8_t kZero[16] = {};
    if (std::memcmp(m + 48, kZero, 16) == 0) {
      // The server's list changed under the walk: start again from nothing.
      generation = msg.u32(28);
      FreeAllSrvAddr(list);
      index = 0;
      continue;
    }
    FsmProxySrv* srv = AllocSrvAddr();
    if (!srv) {
      FreeAllSrvAddr(list);
      return ENOTDIR;  // Deliberate: this is the number callers have always seen for it
    }
    std::memcpy(srv->addr1.s6_addr, m + 32, 16);
    std::memcpy(srv->addr2.s6_addr, m + 48, 16);
    srv->word[0] = msg.u32(64);
    srv->word[1] = msg.u32(68);
    srv->word[2] = msg.u32(72);
    srv->word2[0] = msg.u32(76);
    srv->word2[1] = msg.u32(80);
    srv->word2[2] = msg.u32(84);
    srv->word2[3] = msg.u32(92);
    srv->word2[4] = msg.u32(96);
    srv->word2[5] = msg.u32(100);
    FsmProxySrv* before = nullptr;
    int pair = FpSetMarker(list);
    while (void* owner = FpIterate(list, pair)) {
      auto* other = static_cast<FsmProxySrv*>(owner);
      if (IN6_CMP(&other->addr1, &srv->addr1) > 0) {
        before = other;
        break;
      }
    }
    FpClearMarker(list, pair);
    if (before)
      InsertBeforeNode(&before->node, &srv->node);
    else
      AppendNode(list, &srv->node);
    index = msg.u32(24);
  }
}
