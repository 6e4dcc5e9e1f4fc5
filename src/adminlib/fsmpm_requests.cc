#include "adminlib/fsmpm_requests.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <mutex>

#include "adminlib/adminlib_internal.h"
#include "adminlib/alloc.h"
#include "adminlib/fsmcomm.h"
#include "adminlib/sock46.h"
#include "adminlib/subr2.h"
#include "adminlib/wire.h"
#include "platform/unique_fd.h"

using adminlib::setError;

const char* const QMServiceType[kPmServiceTypeCount] = {
    "Empty", "FSM", "FSD", "DMIG", "drmkfs", "drfsck", "drupdatefs", "qmmetadump"};

namespace {

constexpr std::uint64_t kIdCacheLifeUs = 300000000;  // five minutes
constexpr std::size_t kIdNameLen = 256;
constexpr std::size_t kQueryIdNameMax = 254;
constexpr std::size_t kCctlWireRecords = 328;
constexpr std::size_t kCctlWireRecordLen = 80;
constexpr std::size_t kRasText = 312;
constexpr std::size_t kRasTextLen = 512;
constexpr std::size_t kRasEvent = 824;
constexpr std::size_t kRasEventLen = 64;
constexpr std::size_t kRasNumber1 = 888;
constexpr std::size_t kRasNumber2 = 892;
constexpr std::size_t kRasFlag = 897;
constexpr std::uint16_t kDiskRefresh = 0x8000;

enum class Sent { Ok, Unknown, Failed };

// One exchange. An answer of "unknown request" is told apart from a failure; a failure leaves
// its text in err.
Sent exchange(int sock, std::uint8_t* msg, std::size_t len, std::size_t bufsize, char* err) {
  int e = 0;
  if (_sendrcvmsg_buf(sock, msg, len, bufsize, &e, 1) == 0) return Sent::Ok;
  if (msg[kFhStatus] == kStatusUnknownRequest && e == 1) return Sent::Unknown;
  if (err) _FormatSysError(e, err, ADMIN_ERRBUF_LEN);
  return Sent::Failed;
}

// An exchange for a request with no older form: an unknown request is a failure too.
bool exchangeOnly(int sock, std::uint8_t* msg, char* err) {
  Sent s = exchange(sock, msg, kPmMsgLen, kPmMsgLen, err);
  if (s == Sent::Unknown) setError(err, "unsupported message");
  return s == Sent::Ok;
}

// In-place conversion to host order: after a request returns, these fields are host integers.
void toHost16(std::uint8_t* msg, std::size_t off) {
  std::uint16_t v = get_be16(msg + off);
  std::memcpy(msg + off, &v, sizeof v);
}

void toHost32(std::uint8_t* msg, std::size_t off) {
  std::uint32_t v = get_be32(msg + off);
  std::memcpy(msg + off, &v, sizeof v);
}

void serviceHeadToHost(std::uint8_t* msg) {
  for (std::size_t off : {kPmType, kPmPort, kPmStatus, kPmIndex}) toHost16(msg, off);
  toHost32(msg, kPmIpv4);
  toHost32(msg, kPmWord);
}

std::uint16_t host16(const std::uint8_t* msg, std::size_t off) { return PmHost16(msg, off); }

void clearError(char* err) {
  if (err) err[0] = '\0';
}

// Copies the NUL-terminated string at *pos (not beyond end) into out of size bytes, keeping a
// NUL and dropping the excess; moves *pos past the string's NUL.
void takeString(const std::uint8_t** pos, const std::uint8_t* end, char* out, std::size_t size) {
  const std::uint8_t* p = *pos;
  std::size_t avail = p < end ? static_cast<std::size_t>(end - p) : 0;
  const void* nul = std::memchr(p, 0, avail);
  std::size_t len =
      nul ? static_cast<std::size_t>(static_cast<const std::uint8_t*>(nul) - p) : avail;
  std::size_t n = len < size - 1 ? len : size - 1;
  std::memcpy(out, p, n);
  out[n] = '\0';
  *pos = nul ? p + len + 1 : end;
}

// A fixed-width string field that may lack its NUL.
void takeField(const std::uint8_t* field, std::size_t width, char* out, std::size_t size) {
  const std::uint8_t* p = field;
  takeString(&p, field + width, out, size);
}

void recordFromWire(PmDiskRecord* d, const std::uint8_t* rec, std::size_t len) {
  std::memset(d, 0, sizeof *d);
  d->word1 = get_be32(rec + 4);
  d->word2 = get_be32(rec + 8);
  d->pathState = get_be32(rec + 12);
  d->size = get_be64(rec + 16);
  d->quantityHi = get_be32(rec + 24);
  d->quantityLo = get_be32(rec + 28);
  d->byte1 = rec[32];
  d->lunId = rec[33];
  d->byte3 = rec[34];
  d->sectorSize = get_be32(rec + 36);
  const std::uint8_t* p = rec + kPmDiskRecordHead;
  const std::uint8_t* end = rec + len;
  takeString(&p, end, d->label, sizeof d->label);
  takeString(&p, end, d->serial, sizeof d->serial);
  takeString(&p, end, d->device, sizeof d->device);
  takeString(&p, end, d->string4, sizeof d->string4);
  takeString(&p, end, d->string5, sizeof d->string5);
  takeString(&p, end, d->string6, sizeof d->string6);
  takeString(&p, end, d->inquiry, sizeof d->inquiry);
  takeString(&p, end, d->string8, sizeof d->string8);
}

// The oldest form answers one disk at fixed offsets.
void recordFromForm0(PmDiskRecord* d, const std::uint8_t* buf) {
  std::memset(d, 0, sizeof *d);
  d->word1 = get_be32(buf + 1024);
  d->word2 = get_be32(buf + 1028);
  d->size = get_be64(buf + 1032);
  d->quantityHi = get_be32(buf + 1040);
  d->quantityLo = get_be32(buf + 1044);
  takeField(buf + 1048, 256, d->label, sizeof d->label);
  takeField(buf + 1304, 32, d->inquiry, sizeof d->inquiry);
  takeField(buf + 1336, 64, d->string8, sizeof d->string8);
  takeField(buf + 1400, 64, d->serial, sizeof d->serial);
  takeField(buf + 1464, 256, d->device, sizeof d->device);
  takeField(buf + 1720, 256, d->string4, sizeof d->string4);
  d->pathState = get_be32(buf + 1976);
  d->byte1 = buf[1980];
  d->lunId = buf[1981];
  d->sectorSize = get_be32(buf + 1984);
}

struct IdCacheRecord {
  IdCacheRecord* next;
  struct in6_addr client;
  char name[kIdNameLen];
  std::uint64_t stamp;
};

// Newest first; nothing removes a record but the test reset. The lock is a leaf and is not held
// across the query to the port mapper.
std::mutex gIdCacheMutex;
IdCacheRecord* gIdCache = nullptr;

// Sends the 1024-byte request in buf, whose reply may fill bufsize bytes. The reply's length,
// or 0 for a failed or unknown exchange (told by *sent).
std::size_t exchangeLong(int sock, std::uint8_t* buf, std::size_t bufsize, char* err, Sent* sent) {
  *sent = exchange(sock, buf, kPmMsgLen, bufsize, err);
  if (*sent != Sent::Ok) return 0;
  std::size_t len = get_be24(buf + kFhLength);
  return len < kFrameHeaderLen ? kFrameHeaderLen : len;
}

}  // namespace

int FsmPMListFsm(int sock, int index, std::uint8_t* msg, char* err) {
  static constexpr std::uint16_t kForms[] = {kPmListFsm, kPmListFsmForm2, kPmListFsmForm1};
  std::memset(msg, 0, kPmMsgLen);
  put_be16(msg + kPmIndex, static_cast<std::uint16_t>(index));
  std::uint16_t answered = 0;
  for (std::uint16_t type : kForms) {
    put_be16(msg + kPmType, type);
    std::memset(msg + kPmStatus, 0, 2);
    Sent s = exchange(sock, msg, kPmMsgLen, kPmMsgLen, err);
    if (s == Sent::Failed) return -1;
    if (s == Sent::Ok) {
      answered = type;
      break;
    }
  }
  if (answered == 0) {
    setError(err, "unsupported message");
    return -1;
  }
  serviceHeadToHost(msg);
  if (answered != kPmListFsm) {
    // An older peer knows only FSMs.
    std::uint16_t fsm = kPmServiceFsm;
    std::memcpy(msg + kPmType, &fsm, sizeof fsm);
  }
  if (answered == kPmListFsmForm1) {
    std::memset(msg + kPmAddr, 0, 16);
    msg[kPmAddr + 10] = msg[kPmAddr + 11] = 0xff;
    // Deliberate: the converted (host-order) word goes in as it stands, without a swap back;
    // callers have always seen the address this way.
    std::memcpy(msg + kPmAddr + 12, msg + kPmIpv4, 4);
  }
  clearError(err);
  return host16(msg, kPmStatus) != 0 ? 2 : 0;
}

int FsmPMStartStopFsm(int sock, int op, const char* fsname, std::uint8_t* msg, char* err) {
  std::uint16_t newest;
  switch (op) {
    case kPmOpStart:
      newest = kPmStartFsm;
      break;
    case kPmOpStop:
      newest = kPmStopFsm;
      break;
    case kPmOpFailover:
      newest = kPmFailFsm;
      break;
    case kPmOp3:
      newest = kPmStartStopOp3;
      break;
    default:
      setError(err, "unsupported message");
      return -1;
  }
  const auto base = static_cast<std::uint16_t>(newest & 0x00ff & ~kPmFormFlag2);
  // Operation 3 has no older forms.
  const std::uint16_t forms[3] = {newest, static_cast<std::uint16_t>(base | kPmFormFlag2), base};
  const int formCount = op == kPmOp3 ? 1 : 3;

  std::uint16_t port = host16(msg, kPmPort);
  put_be16(msg + kPmType, newest);
  put_be16(msg + kPmPort, port);
  std::memset(msg + kPmStatus, 0, 2);
  std::memset(msg + kPmIndex, 0, 2);
  std::memset(msg + kPmWord, 0, 4);
  struct in6_addr loop;
  AddrSetLoopback4(&loop);
  std::memcpy(msg + kPmAddr, loop.s6_addr, 16);
  PmSetName(msg, fsname ? fsname : "");

  int form = 0;
  while (true) {
    Sent s = exchange(sock, msg, kPmMsgLen, kPmMsgLen, err);
    if (s == Sent::Failed) return -1;
    if (s == Sent::Ok) break;
    if (++form >= formCount) {
      setError(err, "unsupported message");
      return -1;
    }
    std::memcpy(msg + kPmIpv4, loop.s6_addr + 12, 4);
    std::memset(msg + kPmStatus, 0, 2);
    put_be16(msg + kPmType, forms[form]);
  }

  for (std::size_t off : {kPmType, kPmPort, kPmStatus, kPmIndex}) toHost16(msg, off);
  toHost32(msg, kPmWord);
  if (form != 2) {
    // Deliberate: the address goes from offset 32 to 296 and 32 is cleared, the reverse of what
    // the field names suggest; nobody reads it.
    struct in6_addr a;
    std::uint8_t v4[4];
    std::memcpy(v4, msg + kPmIpv4, 4);
    AddrSetMapped(&a, v4);
    std::memcpy(msg + kPmAddr, a.s6_addr, 16);
    std::memset(msg + kPmIpv4, 0, 4);
  }
  switch (host16(msg, kPmStatus)) {
    case 1:
      setError(err, "No FSM found");
      return 2;
    case 2:
      setError(err, "FSM already exists");
      return 1;
    case 3:
      setError(err, "FSM not configured");
      return 3;
    case 4:
      setError(err, "FSM not local");
      return 4;
    default:
      setError(err, "Success");
      return 0;
  }
}

int FsmPMQueryID(int sock, const struct in6_addr* client, char* name, std::size_t size, char* err) {
  if (name && size > 0) name[0] = '\0';
  std::uint8_t msg[kPmMsgLen] = {};
  put_be16(msg + kPmType, kPmQueryID);
  if (client) std::memcpy(msg + kPmAddr, client->s6_addr, 16);
  if (!exchangeOnly(sock, msg, err)) return -1;
  clearError(err);
  if (get_be16(msg + kPmStatus) != 0) return 1;
  if (name && size > 0) {
    std::size_t limit = size - 1 < kQueryIdNameMax ? size - 1 : kQueryIdNameMax;
    takeField(msg + kPmName, kPmNameLen, name, limit + 1);
  }
  return 0;
}

char* FsmPMDecodeID(const struct in6_addr* client, const struct in6_addr* pmAddr, char* name,
                    std::size_t size) {
  if (!name || size == 0 || !client) return name;
  name[0] = '\0';
  auto findRecord = [client]() -> IdCacheRecord* {
    for (IdCacheRecord* r = gIdCache; r; r = r->next)
      if (std::memcmp(&r->client, client, sizeof *client) == 0) return r;
    return nullptr;
  };
  std::uint64_t now = MicroTime();
  {
    std::scoped_lock lock(gIdCacheMutex);
    IdCacheRecord* r = findRecord();
    // Deliberate: a stale record keeps its first stamp, so once five minutes old the name is
    // asked for anew on every call.
    if (r && r->stamp <= now && now - r->stamp <= kIdCacheLifeUs) {
      adminlib::copyText(name, size, r->name);
      return name;
    }
  }

  char found[kIdNameLen] = {};
  char ip[kRawIpLen];
  char err[ADMIN_ERRBUF_LEN];
  int rc = -1;
  if (pmAddr) {
    velm::UniqueFd pm(FsmPMConnect(RawIp(pmAddr, ip, sizeof ip), err));
    if (pm) rc = FsmPMQueryID(pm.get(), client, found, sizeof found, err);
  }
  if (rc != 0) GetHostFromIp(client, found, sizeof found);
  {
    // A new record is linked only with its name in it, so no other thread reads it empty.
    std::scoped_lock lock(gIdCacheMutex);
    IdCacheRecord* rec = findRecord();
    if (!rec) {
      rec = static_cast<IdCacheRecord*>(AllocAndPinMemory(sizeof(IdCacheRecord)));
      if (rec) {
        rec->client = *client;
        rec->stamp = now;
        adminlib::copyText(rec->name, sizeof rec->name, found);
        rec->next = gIdCache;
        gIdCache = rec;
      }
    } else {
      adminlib::copyText(rec->name, sizeof rec->name, found);
    }
  }
  adminlib::copyText(name, size, found);
  return name;
}

void FsmPMDecodeIDResetForTest() {
  std::scoped_lock lock(gIdCacheMutex);
  while (gIdCache) {
    IdCacheRecord* next = gIdCache->next;
    FreeMemory(gIdCache);
    gIdCache = next;
  }
}

int FsmPMListProxyConnection(int sock, int index, std::uint8_t* msg, char* err) {
  std::memset(msg, 0, kPmMsgLen);
  put_be16(msg + kPmType, kPmListProxyConnection);
  put_be16(msg + kPmIndex, static_cast<std::uint16_t>(index));
  if (!exchangeOnly(sock, msg, err)) return -1;
  std::uint16_t status = get_be16(msg + kPmStatus);
  switch (status) {
    case 0:
      clearError(err);
      return 0;
    case kPmProxyEnd:
      clearError(err);
      return 2;
    case kPmProxyChanged:
      clearError(err);
      return 1;
    default:
      setError(err, "Unknown status %d", status);
      return -1;
  }
}

int FsmPMListLocalFsm(int sock, int index, std::uint8_t* msg, char* err) {
  std::memset(msg, 0, kPmMsgLen);
  put_be16(msg + kPmType, kPmListLocalFsm);
  put_be16(msg + kPmIndex, static_cast<std::uint16_t>(index));
  if (!exchangeOnly(sock, msg, err)) return -1;
  serviceHeadToHost(msg);
  for (std::size_t off : {312, 314, 320, 340}) toHost16(msg, off);
  for (std::size_t off : {316, 324, 328, 332, 336, 344}) toHost32(msg, off);
  clearError(err);
  return host16(msg, kPmStatus) != 0 ? 2 : 0;
}

int FsmPMGetDisks(int sock, int index, int count, int refresh, PmDiskRecord* out,
                  std::uint32_t* generation, char* err) {
  struct Form {
    std::uint16_t type;
    std::size_t bufsize;
    bool sizes;  // the request tells the reply's room and the count
  };
  static constexpr Form kForms[] = {{kPmGetDisks, kPmDisksReplyLen, true},
                                    {kPmGetDisksForm1, kPmDisksReplyLen, true},
                                    {kPmGetDisksForm0, kPmDisksReplyLenForm0, false}};
  std::uint16_t indexWord = static_cast<std::uint16_t>(index);
  // A refresh sets the bit on every form, the oldest too.
  if (refresh) indexWord |= kDiskRefresh;
  for (const Form& form : kForms) {
    auto* buf = static_cast<std::uint8_t*>(AllocAndPinMemory(form.bufsize));
    if (!buf) {
      _FormatSysError(ENOMEM, err, ADMIN_ERRBUF_LEN);
      return -1;
    }
    struct Freer {
      std::uint8_t* p;
      ~Freer() { FreeMemory(p); }
    } freer{buf};
    put_be16(buf + kPmType, form.type);
    put_be16(buf + kPmIndex, indexWord);
    if (form.sizes) {
      put_be16(buf + kPmPort, static_cast<std::uint16_t>(form.bufsize - 40));
      put_be32(buf + kPmWord, static_cast<std::uint32_t>(count < 0 ? 0 : count));
    }
    Sent s;
    std::size_t replyLen = exchangeLong(sock, buf, form.bufsize, err, &s);
    if (s == Sent::Failed) return -1;
    if (s == Sent::Unknown) continue;
    if (get_be16(buf + kPmStatus) != 0) {
      clearError(err);
      return 0;
    }
    if (!form.sizes) {
      if (generation) *generation = 0;
      if (out && count > 0) recordFromForm0(out, buf);
      clearError(err);
      return 1;
    }
    std::uint32_t gen = get_be32(buf + kPmIpv4);
    std::uint32_t disks = get_be16(buf + kPmPort);
    if (generation && index != 0 && *generation != gen) {
      *generation = gen;
      setError(err, "disk list changed");
      return -2;
    }
    if (generation) *generation = gen;
    int copied = 0;
    std::size_t off = kPmDiskRecords;
    while (out && copied < count && static_cast<std::uint32_t>(copied) < disks) {
      if (off + kPmDiskRecordHead > replyLen) break;
      std::uint32_t recLen = get_be32(buf + off);
      // A record that runs past the reply or can't hold its own head ends the walk.
      if (recLen < kPmDiskRecordHead || recLen > replyLen - off) break;
      recordFromWire(&out[copied], buf + off, recLen);
      ++copied;
      off += recLen;
    }
    clearError(err);
    return copied;
  }
  // Deliberate: this request's text differs from the others' "unsupported message".
  setError(err, "message not supported");
  return -1;
}

int FsmPMGetLocalCctls(int sock, const char* name, std::uint64_t* value, std::uint32_t* word,
                       char* err) {
  std::uint8_t msg[kPmMsgLen] = {};
  put_be16(msg + kPmType, kPmGetLocalCctls);
  PmSetName(msg, name ? name : "");
  if (!exchangeOnly(sock, msg, err)) return -1;
  clearError(err);
  std::uint16_t status = get_be16(msg + kPmStatus);
  if (status != 0) return status;
  if (value) *value = get_be64(msg + 312);
  if (word) *word = get_be32(msg + 320);
  return 0;
}

void FreeCctlList(CctlList* list) {
  if (!list) return;
  FreeMemory(list->entries);
  list->entries = nullptr;
  list->count = 0;
  list->generation = 0;
  list->state = 0;
}

namespace {

void emptyCctlList(CctlList* list, int state) {
  FreeCctlList(list);
  list->state = state;
}

}  // namespace

int FsmPMGetCctlsFromNss(int sock, CctlList* list, const struct in6_addr* nss, char* err) {
  std::uint8_t msg[kPmMsgLen] = {};
  put_be16(msg + kPmType, kPmGetCctlsFromNss);
  if (nss) std::memcpy(msg + kPmAddr, nss->s6_addr, 16);
  put_be32(msg + 312, 1);
  put_be32(msg + 316, list->generation);
  Sent s = exchange(sock, msg, sizeof msg, sizeof msg, err);
  if (s == Sent::Failed) return -1;
  if (s == Sent::Unknown) {
    setError(err, "unsupported message");
    emptyCctlList(list, kCctlStateUnchanged);
    return 1;
  }
  clearError(err);
  std::uint16_t status = get_be16(msg + kPmStatus);
  if (status != 0) return status;
  std::uint32_t total = get_be32(msg + 312);
  std::uint32_t gen = get_be32(msg + 320);
  int state = get_be16(msg + 324);
  if (state == kCctlStateEmpty || state == kCctlStateUnchanged) {
    // The mapper promises zeros here. A peer that breaks it is reported, not trusted, and does
    // not end this process.
    const char* broken = total != 0 ? "ntohl(preply->total_num_filesystems) == 0"
                         : gen != 0 ? "ntohl(preply->generation) == 0"
                                    : nullptr;
    if (broken) {
      adminlib::syslogLine(3, "FsmPMGetCctlsFromNss: reply breaks %s", broken);
      setError(err, "%s", broken);
      return -1;
    }
    // Deliberate: "unchanged" empties the holder too, so the next call starts from generation 0.
    emptyCctlList(list, state);
    return 0;
  }
  if (state == kCctlStateNew) {
    constexpr std::uint32_t kFits = (kPmMsgLen - kCctlWireRecords) / kCctlWireRecordLen;
    if (total > kFits) {
      setError(err, "reply holds %u entries, room for %u", total, kFits);
      return -1;
    }
    list->generation = gen;
    if (static_cast<std::uint32_t>(list->count) != total || (!list->entries && total > 0)) {
      FreeMemory(list->entries);
      list->entries = nullptr;
      list->count = 0;
      if (total > 0) {
        list->entries = static_cast<CctlEntry*>(AllocAndPinMemory(total * sizeof(CctlEntry)));
        if (!list->entries) {
          _FormatSysError(ENOMEM, err, ADMIN_ERRBUF_LEN);
          return -1;
        }
      }
      list->count = static_cast<int>(total);
    }
    if (total > 0) std::memset(list->entries, 0, total * sizeof(CctlEntry));
    for (std::uint32_t i = 0; i < total; ++i) {
      const std::uint8_t* rec = msg + kCctlWireRecords + i * kCctlWireRecordLen;
      takeField(rec, kCctlNameLen, list->entries[i].name, sizeof list->entries[i].name);
      list->entries[i].value = get_be64(rec + 64);
    }
    list->state = kCctlStateFilled;
    return 0;
  }
  list->state = state;
  return 0;
}

int FsmPmRasEvent(int sock, const char* event, const char* text, int n1, int n2) {
  std::uint8_t msg[kPmMsgLen] = {};
  put_be16(msg + kPmType, kPmRasEvent);
  if (text) std::strncpy(reinterpret_cast<char*>(msg + kRasText), text, kRasTextLen);
  msg[kRasText + kRasTextLen - 1] = 0;
  if (event) std::strncpy(reinterpret_cast<char*>(msg + kRasEvent), event, kRasEventLen);
  msg[kRasEvent + kRasEventLen - 1] = 0;
  put_be32(msg + kRasNumber1, static_cast<std::uint32_t>(n1));
  put_be32(msg + kRasNumber2, static_cast<std::uint32_t>(n2));
  msg[kRasFlag] = 1;
  int e = 0;
  int rc = _sendrcvmsg(sock, msg, sizeof msg, &e, 1);
  return e != 0 ? e : rc;
}

int SendPmRasEvent(const char* event, const char* text, int n1, int n2) {
  char host[kIdNameLen];
  if (FsmGetHostName(sizeof host, host) != 0 || host[0] == '\0') {
    adminlib::writeLogLine(2, "Cannot get local host name\n");
    return -1;
  }
  char err[ADMIN_ERRBUF_LEN] = {};
  velm::UniqueFd pm(FsmPMConnect(host, err));
  if (!pm) {
    if (WriteLog)
      adminlib::writeLogLine(2, "FsmPmConnect failed: %s\n", err);
    else
      std::fprintf(stderr, "FsmPmConnect failed: %s\n", err);
    return -1;
  }
  return FsmPmRasEvent(pm.get(), event, text, n1, n2) == 0 ? 0 : -1;
}
