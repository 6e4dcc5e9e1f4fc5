#include "adminlib/qmadminlib.h"

#include <netdb.h>
#include <pthread.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "adminlib/adminlib_internal.h"
#include "adminlib/alloc.h"
#include "adminlib/auth.h"
#include "adminlib/fsm_requests.h"
#include "adminlib/fsmcomm.h"
#include "adminlib/fsmpm_requests.h"
#include "adminlib/sock46.h"
#include "adminlib/subr2.h"
#include "adminlib/wire.h"

using adminlib::copyText;
using adminlib::setError;
using adminlib::kWalkLimit;

namespace {

struct QMAdminConnection {
  int type;
  int socket;
  char host[QMADMIN_NAME_LEN];
  char name[QMADMIN_NAME_LEN];
  int priority;
  int references;
  std::uint32_t capabilities;
};

QMAdminConnection gConnections[QMADMIN_MAX_CONNECTIONS];

int QMAdmin_ready = 0;
int QMAdmin_mutex_ready = 0;
int QMAdmin_privileged = 0;

// Guards gConnections and QMAdmin_ready. Not held during requests, and never while taking another
// lock of this library; the QMAdmin lock of the callers nests outside it.
pthread_mutex_t con_list_lock;
pthread_once_t gInitOnce = PTHREAD_ONCE_INIT;

void _QMAdmin_Init_threads() {
  if (::pthread_mutex_init(&con_list_lock, nullptr) != 0)
    DoPanic("", "qmadminlib: failed to initialize con_list_lock mutex", 1, QM_ASSERT_FILE,
            __LINE__);
  QMAdmin_mutex_ready = 1;
}

class ConListLock {
 public:
  ConListLock() { QM_ASSERT(pthread_mutex_lock(&con_list_lock) == 0); }
  ~ConListLock() { QM_ASSERT(pthread_mutex_unlock(&con_list_lock) == 0); }
  ConListLock(const ConListLock&) = delete;
  ConListLock& operator=(const ConListLock&) = delete;
};

void clearSlot(QMAdminConnection* c) {
  std::memset(c, 0, sizeof *c);
  c->socket = -1;
}

void closeSlot(QMAdminConnection* c) {
  if (c->socket >= 0) ::close(c->socket);
  clearSlot(c);
}

bool inRange(int handle) { return handle >= 0 && handle < QMADMIN_MAX_CONNECTIONS; }

// The socket of a slot of that type, or -1. Read without the lock: the caller's QMAdmin lock
// keeps the slot stable during a request.
int slotSocket(int handle, int type) {
  if (!QMAdmin_ready || !inRange(handle) || gConnections[handle].type != type) return -1;
  return gConnections[handle].socket;
}

int fsmSocket(int handle) { return slotSocket(handle, QMADMIN_FSM); }

// Start, stop and activate speak one language to callers.
int mapStartStop(int result) {
  switch (result) {
    case 2:
      return QMFS_ENOENT;
    case 1:
      return QMFS_EEXIST;
    case 3:
      return QMFS_ENOCONFIG;
    case 4:
      return QMFS_ENOTLOCAL;
    default:
      // Deliberate: -1 from the exchange reads as success too; callers poll the volume's state.
      return QMFS_OK;
  }
}

std::uint16_t hostU16(const std::uint8_t* p) {
  std::uint16_t v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

std::uint32_t hostU32(const std::uint8_t* p) {
  std::uint32_t v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

void putHostU16(std::uint8_t* p, std::uint16_t v) { std::memcpy(p, &v, sizeof v); }

// One list entry (already in host order) into a record.
void fillFsmRecord(const std::uint8_t* msg, int index, QMAdminFsmRecord* rec) {
  std::uint16_t flags = hostU16(msg + kPmIndex);
  rec->index = index;
  rec->state = (flags & kPmServiceActive) ? QMADMIN_STATE_ACTIVE : QMADMIN_STATE_STANDBY;
  rec->priority = flags & kPmServicePriorityMask;
  std::memcpy(&rec->address, msg + kPmAddr, sizeof rec->address);
  rec->port = hostU16(msg + kPmPort);
  rec->pid = static_cast<int>(hostU32(msg + kPmWord));
  PmGetName(msg, rec->name, sizeof rec->name);
}

// The list entry at index on a name-service socket: 0, 2 not an FSM, 6 end, -1 failure.
int listFsmAt(int sock, int index, QMAdminFsmRecord* rec, char* err) {
  std::uint8_t msg[kPmMsgLen] = {};
  int r = FsmPMListFsm(sock, index, msg, err);
  if (r < 0) return QMFS_ERROR;
  if (r == 2) return QMFS_EOF;
  if (hostU16(msg + kPmType) != kPmServiceFsm) return QMFS_ENOENT;
  fillFsmRecord(msg, index, rec);
  return QMFS_OK;
}

// Sends a start, stop or fail-over for fsname to host's port mapper.
int startStopOnHost(const char* host, int op, const char* fsname, int port, char* err) {
  int h = QMAdmin_NSConnect(host, err);
  if (h < 0) return QMFS_ERROR;
  std::uint8_t msg[kPmMsgLen] = {};
  putHostU16(msg + kPmPort, static_cast<std::uint16_t>(port));
  int r = FsmPMStartStopFsm(gConnections[h].socket, op, fsname, msg, err);
  QMAdmin_NSDisconnect(h);
  return mapStartStop(r);
}

int checkNsPrivileged(int handle, char* err) {
  if (!QMAdmin_ready) {
    setError(err, "Library not initialized");
    return QMFS_ERROR;
  }
  if (!inRange(handle) || gConnections[handle].type != QMADMIN_NS) {
    setError(err, "Connection type mismatch");
    return QMFS_ERROR;
  }
  if (!QMAdmin_privileged) {
    setError(err, "Permission denied");
    return QMFS_EPERM;
  }
  return QMFS_OK;
}

// Call with con_list_lock held.
int disconnectLocked(int handle) {
  QMAdminConnection* c = &gConnections[handle];
  if (c->references > 1) {
    --c->references;
  } else {
    // A count below 1 counts as 1: the slot is closed.
    closeSlot(c);
  }
  return QMFS_OK;
}

int disconnect(int handle) {
  ConListLock lock;
  return disconnectLocked(handle);
}

int blockSizeOf(int sock, std::uint32_t* blockSize) {
  FsmFsStatRec stat{};
  int e = 0;
  if (FsmFsStat(sock, &stat, &e) != 0) return QMFS_ERROR;
  // A zero block size would make every conversion meaningless (and divide by zero on a set).
  if (stat.blockSize == 0) return QMFS_ERROR;
  *blockSize = stat.blockSize;
  return QMFS_OK;
}

int listQuotas(int handle, QMAdminQuota* rec, int op, int type) {
  int sock = fsmSocket(handle);
  if (sock < 0 || !rec) return QMFS_ERROR;
  if (!QMAdmin_privileged) return QMFS_EPERM;
  std::uint32_t bs = 0;
  if (blockSizeOf(sock, &bs) != 0) return QMFS_ERROR;
  char name[kQuotaNameLen];
  copyText(name, sizeof name, rec->name);
  std::uint64_t hard = 0, soft = 0, used = 0;
  std::uint32_t limit = 0, remaining = 0;
  int found = 0, e = 0;
  if (FsmQuotaRec(sock, op, name, &hard, &soft, &limit, &remaining, &used, &found, &e) != 0)
    return e == ENOENT || e == 0 ? QMFS_EOF : e;
  if (!found || e == ENOENT) return QMFS_EOF;
  if (e != 0) return e;
  rec->hardLimit = hard * bs;
  rec->softLimit = soft * bs;
  rec->used = used * bs;
  rec->timeLimit = limit;
  rec->timeRemaining = remaining;
  rec->type = type;
  name[sizeof name - 1] = '\0';
  if (name[0] == '\0') {
    // Deliberate: a nameless entry surfaces as "????" with EINVAL.
    copyText(rec->name, sizeof rec->name, "????");
    return EINVAL;
  }
  copyText(rec->name, sizeof rec->name, name);
  return QMFS_OK;
}

int getQuota(int handle, const char* who, QMAdminQuota* out, int op, int type) {
  int sock = fsmSocket(handle);
  if (sock < 0 || !out || !who) return QMFS_ERROR;
  std::uint32_t bs = 0;
  if (blockSizeOf(sock, &bs) != 0) return QMFS_ERROR;
  char name[kQuotaNameLen];
  copyText(name, sizeof name, who);
  std::uint64_t hard = 0, soft = 0, used = 0;
  std::uint32_t limit = 0, remaining = 0;
  int found = 0, e = 0;
  if (FsmQuotaRec(sock, op, name, &hard, &soft, &limit, &remaining, &used, &found, &e) != 0)
    return e ? e : QMFS_ERROR;
  if (!found || e == ENOENT || e == EINVAL) return QMFS_ENOENT;
  if (e != 0) return e;
  out->hardLimit = hard * bs;
  out->softLimit = soft * bs;
  out->used = used * bs;
  out->timeLimit = limit;
  out->timeRemaining = remaining;
  out->type = type;
  copyText(out->name, sizeof out->name, who);
  return QMFS_OK;
}

int setQuota(int handle, const char* who, QMAdminQuota* rec, int op, int type) {
  int sock = fsmSocket(handle);
  if (sock < 0 || !rec || !who) return QMFS_ERROR;
  if (!QMAdmin_privileged) return QMFS_EPERM;
  std::uint32_t bs = 0;
  if (blockSizeOf(sock, &bs) != 0) return QMFS_ERROR;
  char name[kQuotaNameLen];
  copyText(name, sizeof name, who);
  std::uint64_t hard = rec->hardLimit / bs;
  std::uint64_t soft = rec->softLimit / bs;
  std::uint64_t used = 0;
  std::uint32_t limit = rec->timeLimit, remaining = 0;
  int found = 0, e = 0;
  if (FsmQuotaRec(sock, op, name, &hard, &soft, &limit, &remaining, &used, &found, &e) != 0)
    return e ? e : QMFS_ERROR;
  if (!found || e == ENOENT || e == EINVAL) return QMFS_ENOENT;
  if (e != 0) return e;
  rec->hardLimit = hard * bs;
  rec->softLimit = soft * bs;
  rec->used = used * bs;
  rec->timeLimit = limit;
  rec->timeRemaining = remaining;
  rec->type = type;
  return QMFS_OK;
}

int readStripeGroup(int sock, int index, FsmFsStatRec* stat, FsmPartitionRec* part) {
  int e = 0;
  if (FsmFsStat(sock, stat, &e) != 0) return QMFS_ERROR;
  if (FsmGetPartition(sock, index, part, stat, &e) != 0) return QMFS_ERROR;
  return QMFS_OK;
}

int multipathMethod(int wire) {
  switch (wire) {
    case 0:
      return QMADMIN_MP_ROTATE;
    case 1:
      return QMADMIN_MP_STATIC;
    case 2:
      return QMADMIN_MP_STICKY;
    case 3:
      return 4;
    case 4:
      return 5;
    default:
      return 0;
  }
}

}  // namespace

// ---- Lifecycle ----

int QMAdmin_Init() {
  LibraryInit();
  ::pthread_once(&gInitOnce, _QMAdmin_Init_threads);
  if (!QMAdmin_mutex_ready) return QMFS_OK;
  ConListLock lock;
  if (!QMAdmin_ready) {
    for (QMAdminConnection& c : gConnections) clearSlot(&c);
    QMAdmin_privileged = PrivCheck();
    configure_branding();
    QMAdmin_ready = 1;
  } else {
    AuthenticationInit();
  }
  return QMFS_OK;
}

int QMAdmin_Teardown() {
  if (!QMAdmin_mutex_ready) return QMFS_OK;
  ConListLock lock;
  if (!QMAdmin_ready) return QMFS_OK;
  for (QMAdminConnection& c : gConnections)
    if (c.type == QMADMIN_NS || c.type == QMADMIN_FSM) closeSlot(&c);
  QMAdmin_ready = 0;
  return QMFS_OK;
}

int QMAdmin_NSConnect(const char* host, char* err) {
  if (!QMAdmin_mutex_ready) return -1;
  ConListLock lock;
  if (!QMAdmin_ready) {
    setError(err, "Library not initialized");
    return -1;
  }
  int h = _QMAdmin_NSName2Handle(host);
  if (h >= 0) {
    ++gConnections[h].references;
    return h;
  }
  for (h = 0; h < QMADMIN_MAX_CONNECTIONS; ++h)
    if (gConnections[h].type == QMADMIN_FREE) break;
  if (h == QMADMIN_MAX_CONNECTIONS) {
    setError(err, "Too many connections");
    return -2;
  }
  // The whole connect, port discovery and authentication included, runs under the lock.
  int sock = FsmPMConnect(host, err);
  if (sock < 0) return -3;
  QMAdminConnection* c = &gConnections[h];
  clearSlot(c);
  c->socket = sock;
  c->type = QMADMIN_NS;
  copyText(c->host, sizeof c->host, host);
  c->references = 1;
  return h;
}

int QMAdmin_NSDisconnect(int handle) {
  if (!QMAdmin_mutex_ready) return -1;
  ConListLock lock;
  if (!QMAdmin_ready || handle < 0) return -1;
  if (handle >= QMADMIN_MAX_CONNECTIONS) return -2;
  if (gConnections[handle].type != QMADMIN_NS) return -3;
  return disconnectLocked(handle);
}

int QMAdmin_FSMConnect(int nsHandle, const QMAdminFsmRecord* rec, char* err) {
  if (!QMAdmin_mutex_ready || !rec) return -1;
  ConListLock lock;
  // Deliberate: the name-service handle must not be negative but is not otherwise used.
  if (!QMAdmin_ready || nsHandle < 0) {
    setError(err, "Library not initialized");
    return -1;
  }
  // Deliberate: the host is not compared, so one volume has one FSM connection even when the
  // record names its standby.
  int h = _QMAdmin_FSMName2Handle(rec->name);
  if (h >= 0) {
    ++gConnections[h].references;
    return h;
  }
  for (h = 0; h < QMADMIN_MAX_CONNECTIONS; ++h)
    if (gConnections[h].type == QMADMIN_FREE) break;
  if (h == QMADMIN_MAX_CONNECTIONS) {
    setError(err, "Too many connections");
    return -1;
  }
  QMAdminConnection* c = &gConnections[h];
  char host[QMADMIN_NAME_LEN];
  GetHostFromIp(&rec->address, host, sizeof host);
  char name[QMADMIN_NAME_LEN];
  copyText(name, sizeof name, rec->name);
  std::uint32_t caps = 0;
  int sock = FsmGetSocket(host, name, 0, err, 1, &caps);
  if (sock < 0) {
    clearSlot(c);
    return -1;
  }
  c->socket = sock;
  c->capabilities = caps;
  c->type = QMADMIN_FSM;
  copyText(c->host, sizeof c->host, host);
  copyText(c->name, sizeof c->name, name);
  c->priority = rec->priority;
  ++c->references;
  return h;
}

int QMAdmin_FSMDisconnect(int handle) {
  if (!QMAdmin_ready || !inRange(handle)) return -1;
  // Deliberate: the slot's type is not checked here, unlike the name-service disconnect.
  return disconnect(handle);
}

int _QMAdmin_NSName2Handle(const char* host) {
  if (!host) return -1;
  for (int h = 0; h < QMADMIN_MAX_CONNECTIONS; ++h)
    if (gConnections[h].type == QMADMIN_NS &&
        std::strncmp(gConnections[h].host, host, QMADMIN_NAME_LEN - 1) == 0)
      return h;
  return -1;
}

int _QMAdmin_FSMName2Handle(const char* fsname) {
  if (!fsname) return -1;
  for (int h = 0; h < QMADMIN_MAX_CONNECTIONS; ++h)
    if (gConnections[h].type == QMADMIN_FSM &&
        std::strncmp(gConnections[h].name, fsname, QMADMIN_NAME_LEN - 1) == 0)
      return h;
  return -1;
}

int QMAdmin_NSName2Handle(const char* host) {
  if (!QMAdmin_mutex_ready) return -1;
  ConListLock lock;
  return _QMAdmin_NSName2Handle(host);
}

int QMAdmin_FSMName2Handle(const char* fsname) {
  if (!QMAdmin_mutex_ready) return -1;
  ConListLock lock;
  return _QMAdmin_FSMName2Handle(fsname);
}

int QMAdmin_FSMHandle2Name(int handle, char* out) {
  if (!out || fsmSocket(handle) < 0) return -1;
  copyText(out, QMADMIN_NAME_LEN, gConnections[handle].name);
  return 0;
}

int QMAdmin_FSMHostname(int handle, char* out) {
  if (!out || fsmSocket(handle) < 0) return -1;
  copyText(out, QMADMIN_NAME_LEN, gConnections[handle].host);
  return 0;
}

// ---- Name-service handle ----

int QMAdmin_NSListFsm(int handle, int index, QMAdminFsmRecord* rec, char* err) {
  int sock = slotSocket(handle, QMADMIN_NS);
  if (sock < 0 || !rec) return QMFS_ERROR;
  // Deliberate: a service that is no FSM gives 2 and so ends every walk built on this call.
  return listFsmAt(sock, index, rec, err);
}

int QMAdmin_NSListService(int handle, int index, QMAdminServiceRecord* rec, char* err) {
  int sock = slotSocket(handle, QMADMIN_NS);
  if (sock < 0 || !rec) return QMFS_ERROR;
  std::uint8_t msg[kPmMsgLen] = {};
  int r = FsmPMListFsm(sock, index, msg, err);
  if (r < 0) return QMFS_ERROR;
  if (r == 2) return QMFS_EOF;
  std::uint16_t type = hostU16(msg + kPmType);
  QMAdminFsmRecord fsm{};
  fillFsmRecord(msg, index, &fsm);
  rec->type = type;
  rec->index = index;
  if (type == kPmServiceFsm) {
    rec->state = fsm.state;
    rec->priority = fsm.priority;
  } else {
    rec->state = 0;
    rec->priority = hostU16(msg + kPmIndex);
  }
  rec->address = fsm.address;
  rec->port = fsm.port;
  rec->pid = fsm.pid;
  std::memcpy(rec->name, fsm.name, sizeof rec->name);
  return QMFS_OK;
}

int QMAdmin_NSFsmLocate(int handle, const char* fsname, int priority, QMAdminFsmRecord* rec) {
  int sock = slotSocket(handle, QMADMIN_NS);
  if (sock < 0 || !rec || !fsname) return QMFS_ERROR;
  for (int index = 0, steps = 0;; ++steps) {
    if (steps >= kWalkLimit) return QMFS_ERROR;
    QMAdminFsmRecord r{};
    int s = listFsmAt(sock, index, &r, nullptr);
    // Deliberate: a service that is no FSM is asked for again at the same index.
    if (s == QMFS_ENOENT) continue;
    if (s != QMFS_OK) return QMFS_ERROR;
    bool nameMatches = std::strncmp(r.name, fsname, QMADMIN_NAME_LEN) == 0;
    if (nameMatches && ((priority >= 0 && r.priority == priority) ||
                        (priority == -1 && r.state == QMADMIN_STATE_ACTIVE))) {
      *rec = r;
      return QMFS_OK;
    }
    ++index;
  }
}

int QMAdmin_NSRefreshDisks(int handle) {
  int sock = slotSocket(handle, QMADMIN_NS);
  if (sock < 0) return QMFS_ERROR;
  char err[ADMIN_ERRBUF_LEN];
  return FsmPMGetDisks(sock, 0, 0, 1, nullptr, nullptr, err) < 0 ? QMFS_ERROR : QMFS_OK;
}

int QMAdmin_NSGetDisks(int handle, int index, int count, QMAdminDisk* out, int* countOut,
                       std::uint32_t* generation, char* err) {
  if (!countOut) return QMFS_ERROR;
  int sock = slotSocket(handle, QMADMIN_NS);
  if (sock < 0 || count < 0 || (count > 0 && !out)) return QMFS_ERROR;
  std::vector<PmDiskRecord> disks(static_cast<std::size_t>(std::max(count, 1)));
  int r = FsmPMGetDisks(sock, index, count, 0, disks.data(), generation, err);
  if (r == 0) return QMFS_EOF;
  if (r == -2) return QMFS_ECHANGED;
  if (r < 0) return QMFS_ERROR;
  r = std::min(r, count);
  for (int i = 0; i < r; ++i) {
    const PmDiskRecord& d = disks[static_cast<std::size_t>(i)];
    QMAdminDisk& o = out[i];
    std::memset(&o, 0, sizeof o);
    o.word1 = d.word1;
    o.word2 = d.word2;
    o.size = d.size;
    o.quantityHi = d.quantityHi;
    o.quantityLo = d.quantityLo;
    copyText(o.label, sizeof o.label, d.label);
    copyText(o.inquiry, sizeof o.inquiry, d.inquiry);
    copyText(o.string8, sizeof o.string8, d.string8);
    copyText(o.serial, sizeof o.serial, d.serial);
    copyText(o.device, sizeof o.device, d.device);
    copyText(o.string4, sizeof o.string4, d.string4);
    copyText(o.string5, sizeof o.string5, d.string5);
    copyText(o.string6, sizeof o.string6, d.string6);
    o.pathState = d.pathState;
    o.byte1 = d.byte1;
    o.lunId = d.lunId;
    o.byte3 = d.byte3;
    o.sectorSize = d.sectorSize;
  }
  *countOut = r;
  return QMFS_OK;
}

int QMAdmin_NSGetDisk(int handle, int index, QMAdminDisk* out, char* err) {
  int n = 0;
  return QMAdmin_NSGetDisks(handle, index, 1, out, &n, nullptr, err);
}

int QMAdmin_NSGetProxyConnections(int handle, QMAdminProxyConnection** out) {
  int sock = slotSocket(handle, QMADMIN_NS);
  if (sock < 0 || !out) return QMFS_ERROR;
  *out = nullptr;
  std::vector<QMAdminProxyConnection> list;
  char err[ADMIN_ERRBUF_LEN];
  for (int index = 0, steps = 0;; ++steps) {
    if (steps >= kWalkLimit) return QMFS_ERROR;
    std::uint8_t msg[kPmMsgLen] = {};
    int r = FsmPMListProxyConnection(sock, index, msg, err);
    if (r == 2) break;
    if (r < 0) return QMFS_ERROR;
    if (r == 1) {
      // The list changed under the walk: start over rather than mix two lists.
      list.clear();
      index = 0;
      continue;
    }
    QMAdminProxyConnection p{};
    std::memcpy(&p.addr1, msg + kPmProxyAddr1, sizeof p.addr1);
    std::memcpy(&p.addr2, msg + kPmProxyAddr2, sizeof p.addr2);
    p.port = get_be16(msg + kPmProxyPort);
    p.word = get_be32(msg + kPmProxyWord);
    p.counter1 = get_be64(msg + kPmProxyCounter1);
    p.counter2 = get_be64(msg + kPmProxyCounter2);
    std::memcpy(p.name, msg + kPmProxyName, sizeof p.name);
    p.name[sizeof p.name - 1] = '\0';
    list.push_back(p);
    ++index;
  }
  if (list.empty()) return 0;
  auto* array = static_cast<QMAdminProxyConnection*>(
      std::malloc(list.size() * sizeof(QMAdminProxyConnection)));
  if (!array) return QMFS_ERROR;
  std::memcpy(array, list.data(), list.size() * sizeof(QMAdminProxyConnection));
  *out = array;
  return static_cast<int>(list.size());
}

void QMAdmin_NSFreeProxyConnections(QMAdminProxyConnection* array) { std::free(array); }

int QMAdmin_FSMStart(int handle, const char* fsname, const char* host, char* err) {
  if (int s = checkNsPrivileged(handle, err); s != QMFS_OK) return s;
  if (!fsname) return QMFS_ERROR;
  // May share the handle's own slot through its reference count.
  int h = QMAdmin_NSConnect(host, err);
  if (h < 0) return QMFS_ERROR;
  std::uint8_t msg[kPmMsgLen] = {};
  int r = FsmPMStartStopFsm(gConnections[h].socket, kPmOpStart, fsname, msg, err);
  QMAdmin_NSDisconnect(h);
  return mapStartStop(r);
}

int QMAdmin_FSMActivate(int handle, const char* fsname, const char* host, char* err) {
  if (int s = checkNsPrivileged(handle, err); s != QMFS_OK) return s;
  if (!fsname) return QMFS_ERROR;
  int h = QMAdmin_NSConnect(host, err);
  if (h < 0) return QMFS_ERROR;
  std::uint8_t msg[kPmMsgLen] = {};
  int r = FsmActivateFsm(gConnections[h].socket, fsname, 0, msg, err);
  QMAdmin_NSDisconnect(h);
  // Deliberate: activation's "internal use only" (5) falls through the mapping to 0.
  return mapStartStop(r);
}

int QMAdmin_FSMStop(int handle, const char* fsname, int flag, char* err) {
  if (int s = checkNsPrivileged(handle, err); s != QMFS_OK) return s;
  if (!fsname) return QMFS_ERROR;
  int sock = gConnections[handle].socket;
  QMAdminFsmRecord rec{};
  for (int index = 0, steps = 0;; ++steps) {
    int s = steps < kWalkLimit ? listFsmAt(sock, index, &rec, err) : QMFS_ERROR;
    // Deliberate: a service that is no FSM is asked for again at the same index.
    if (s == QMFS_ENOENT) continue;
    if (s != QMFS_OK) {
      setError(err, "FSM not found");
      return QMFS_ENOENT;
    }
    if (rec.state == QMADMIN_STATE_ACTIVE && std::strncmp(rec.name, fsname, QMADMIN_NAME_LEN) == 0)
      break;
    ++index;
  }
  char host[QMADMIN_NAME_LEN];
  GetHostFromIp(&rec.address, host, sizeof host);
  return startStopOnHost(host, flag == 1 ? kPmOpFailover : kPmOpStop, fsname, rec.port, err);
}

int QMAdmin_FSMStopByHost(int handle, const char* fsname, const char* host, char* err) {
  if (int s = checkNsPrivileged(handle, err); s != QMFS_OK) return s;
  if (!fsname || !host) return QMFS_ERROR;
  struct hostent hbuf;
  struct hostent* my_hostent = nullptr;
  std::vector<char> work(8192);
  int herr = 0;
  if (::gethostbyname_r(host, &hbuf, work.data(), work.size(), &my_hostent, &herr) != 0 ||
      !my_hostent) {
    setError(err, "Unknown Host");
    return QMFS_ENOENT;
  }
  QM_ASSERT(my_hostent->h_length == 4);
  std::vector<struct in6_addr> addrs;
  for (char** a = my_hostent->h_addr_list; a && *a && addrs.size() < 32; ++a) {
    struct in6_addr mapped;
    AddrSetMapped(&mapped, reinterpret_cast<const std::uint8_t*>(*a));
    addrs.push_back(mapped);
  }
  int sock = gConnections[handle].socket;
  for (int index = 0; index < kWalkLimit; ++index) {
    QMAdminFsmRecord rec{};
    if (listFsmAt(sock, index, &rec, err) != QMFS_OK) break;
    if (std::strncmp(rec.name, fsname, QMADMIN_NAME_LEN) != 0) continue;
    for (const struct in6_addr& a : addrs)
      if (std::memcmp(&a, &rec.address, sizeof a) == 0)
        return startStopOnHost(host, kPmOpStop, fsname, rec.port, err);
  }
  setError(err, "FSM not found");
  return QMFS_ENOENT;
}

// ---- FSM handle ----

int QMAdmin_FSMStat(int handle, QMAdminFsStat* out) {
  int sock = fsmSocket(handle);
  if (sock < 0 || !out) return QMFS_ERROR;
  FsmFsStatRec s{};
  int e = 0;
  if (FsmFsStat(sock, &s, &e) != 0) return QMFS_ERROR;
  out->globalSuperUser = (s.flags & kFsStatGlobalSuperUser) != 0;
  out->windowsSecurity = (s.flags & kFsStatWindowsSecurity) != 0;
  out->bandwidthManagement = (s.flags & kFsStatBandwidthMgmt) != 0;
  out->qos = (s.flags & kFsStatQos) != 0;
  out->quotas = (s.flags & kFsStatQuotas) != 0;
  out->clients = s.clients;
  out->stripeGroups = s.stripeGroups;
  out->devices = s.devices;
  out->flag11 = (s.flags & kFsStatBit11) != 0;
  out->msgBufSize = s.msgBufSize;
  out->blockSize = s.blockSize;
  out->createTime = s.createTimeUs;
  out->totalBlocks = s.totalBlocks;
  out->freeBlocks = s.freeBlocks;
  return QMFS_OK;
}

int QMAdmin_StripeGroupStat(int handle, int index, QMAdminStripeGroup* out) {
  int sock = fsmSocket(handle);
  if (sock < 0 || !out) return QMFS_ERROR;
  std::memset(out, 0, sizeof *out);
  FsmFsStatRec stat{};
  FsmPartitionRec p{};
  if (readStripeGroup(sock, index, &stat, &p) != 0) return QMFS_ERROR;
  copyText(out->name, sizeof out->name, p.name);
  out->number = index + 1;
  out->index = index;
  out->up = (p.flags & kPartUp) != 0;
  out->metadata = (p.flags & kPartMetadata) != 0;
  out->journal = (p.flags & kPartJournal) != 0;
  out->realtime = (p.flags & kPartRealtime) != 0;
  out->exclusive = (p.flags & kPartExclusive) != 0;
  out->multipathMethod = multipathMethod(p.multipath);
  out->devices = static_cast<int>(p.devices);
  out->breadth = p.breadth;
  out->affinity = static_cast<std::uint32_t>(p.affinity);
  out->nativeKey = p.nativeKey;
  out->one = 1;
  out->totalBlocks = p.totalBlocks;
  out->freeBlocks = p.freeBlocks;
  out->reservedBlocks = p.reservedBlocks;
  return QMFS_OK;
}

int QMAdmin_UpStripeGroup(int handle, int index) {
  int sock = fsmSocket(handle);
  if (sock < 0) return QMFS_ERROR;
  FsmFsStatRec stat{};
  int e = 0;
  if (FsmFsStat(sock, &stat, &e) != 0) return QMFS_ERROR;
  // Deliberate: Up asks about privilege only after reading the statistics; Down asks first.
  if (!QMAdmin_privileged) return QMFS_EPERM;
  FsmPartitionRec p{};
  if (FsmGetPartition(sock, index, &p, &stat, &e) != 0) return QMFS_ERROR;
  if (p.flags & kPartUp) return QMFS_EEXIST;
  return FSMModifyPartition(sock, index, 1, p.setting, p.multipath, &e) == 0 ? QMFS_OK : QMFS_ERROR;
}

int QMAdmin_DownStripeGroup(int handle, int index) {
  if (!QMAdmin_privileged) return QMFS_EPERM;
  int sock = fsmSocket(handle);
  if (sock < 0) return QMFS_ERROR;
  FsmFsStatRec stat{};
  FsmPartitionRec p{};
  if (readStripeGroup(sock, index, &stat, &p) != 0) return QMFS_ERROR;
  if (p.flags & kPartDown) return QMFS_EEXIST;
  int e = 0;
  return FSMModifyPartition(sock, index, 2, p.setting, p.multipath, &e) == 0 ? QMFS_OK : QMFS_ERROR;
}

int QMAdmin_FSMGetDebug(int handle, std::uint32_t* word) {
  int sock = fsmSocket(handle);
  if (sock < 0 || !word) return QMFS_ERROR;
  char text[ADMIN_ERRBUF_LEN];
  int e = 0;
  return FsmDebug(sock, 0, 0, word, text, &e) == 0 ? QMFS_OK : QMFS_ERROR;
}

int QMAdmin_FSMSetDebug(int handle, std::uint32_t word) {
  int sock = fsmSocket(handle);
  if (sock < 0) return QMFS_ERROR;
  char text[ADMIN_ERRBUF_LEN];
  std::uint32_t got = 0;
  int e = 0;
  return FsmDebug(sock, 1, word, &got, text, &e) == 0 ? QMFS_OK : QMFS_ERROR;
}

int QMAdmin_QosStat(int handle, int index, QMAdminQos* out) {
  int sock = fsmSocket(handle);
  if (sock < 0 || !out) return QMFS_ERROR;
  FsmQosRec rec{};
  int e = 0;
  if (FsmGetQos(sock, index, &rec, &e) != 0) return QMFS_ERROR;
  std::memcpy(out->word, rec.word, sizeof out->word);
  return QMFS_OK;
}

int QMAdmin_GetQuotasState(int handle) {
  int sock = fsmSocket(handle);
  if (sock < 0) return QMFS_ERROR;
  std::uint32_t word = 0;
  char text[ADMIN_ERRBUF_LEN];
  int e = 0;
  if (FsmQuotas(sock, 0, 0, &word, text, &e) != 0) return QMFS_ERROR;
  return word ? 1 : 0;
}

int QMAdmin_SetQuotasState(int handle, int on) {
  int sock = fsmSocket(handle);
  if (sock < 0) return QMFS_ERROR;
  if (!QMAdmin_privileged) return QMFS_EPERM;
  std::uint32_t word = 0;
  char text[ADMIN_ERRBUF_LEN];
  int e = 0;
  return FsmQuotas(sock, 1, on ? 1u : 0u, &word, text, &e) == 0 ? QMFS_OK : QMFS_ERROR;
}

int QMAdmin_RebuildQuotaDatabase(int handle) {
  int sock = fsmSocket(handle);
  if (sock < 0) return QMFS_ERROR;
  if (!QMAdmin_privileged) return QMFS_EPERM;
  std::uint32_t word = 0;
  int e = 0;
  return FsmQuotaCmd(sock, kQuotaCmdRebuild, &word, nullptr, &e) == 0 ? QMFS_OK : QMFS_ERROR;
}

int QMAdmin_GetBrlsState(int handle) {
  int sock = fsmSocket(handle);
  if (sock < 0) return QMFS_ERROR;
  std::uint32_t word = 0;
  int e = 0;
  if (FsmBrls(sock, 0, 0, &word, &e) != 0) return QMFS_ERROR;
  return word ? 1 : 0;
}

int QMAdmin_GetClientList(int handle, QMAdminClient** out) {
  if (!out) return QMFS_ERROR;
  *out = nullptr;
  // Deliberate: the only FSM call that does not check the slot's type.
  if (!QMAdmin_ready || !inRange(handle) || gConnections[handle].socket < 0) return QMFS_ERROR;
  const QMAdminConnection& c = gConnections[handle];
  WhoRD* who = nullptr;
  char text[ADMIN_ERRBUF_LEN];
  int n = FsmWho(c.socket, c.capabilities, &who, text);
  if (n < 0) return QMFS_ERROR;
  if (n == 0) {
    FreeMemory(who);
    return 0;
  }
  auto* array =
      static_cast<QMAdminClient*>(std::calloc(static_cast<std::size_t>(n), sizeof(QMAdminClient)));
  if (!array) {
    FreeMemory(who);
    return QMFS_ERROR;
  }
  for (int i = 0; i < n; ++i) {
    const WhoRD& w = who[i];
    QMAdminClient& o = array[i];
    o.index = w.index;
    o.flags = w.flags;
    o.type = w.type;
    o.word12 = w.word12;
    o.word16 = w.word16;
    o.uptime = w.uptime;
    o.value24 = w.value24;
    // The client's own address leads in the facade's record.
    std::memcpy(o.addr, w.addr2, sizeof o.addr);
    std::memcpy(o.addr1, w.addr1, sizeof o.addr1);
    std::memcpy(o.addr3, w.addr3, sizeof o.addr3);
    o.word80 = w.word80;
    o.pad84 = w.pad84;
    o.value88 = w.value88;
    std::memcpy(o.text, w.text, sizeof o.text);
    o.value1120 = w.value1120;
    o.word1128 = w.word1128;
  }
  FreeMemory(who);
  *out = array;
  return n;
}

void QMAdmin_FreeClientList(QMAdminClient* array) { std::free(array); }

int QMAdmin_FSMSuspendCreates(int handle, int word) {
  int sock = fsmSocket(handle);
  if (sock < 0) return QMFS_ERROR;
  return FsmSuspendCreates(sock, word) == 0 ? QMFS_OK : QMFS_ERROR;
}

int QMAdmin_FsmResetRPL(int handle) {
  int sock = fsmSocket(handle);
  if (sock < 0) return QMFS_ERROR;
  return FsmResetRPL(sock) == 0 ? QMFS_OK : QMFS_ERROR;
}

int QMAdmin_FSGetProxyServers(int handle, QMAdminProxyServer** out) {
  int sock = fsmSocket(handle);
  if (sock < 0 || !out) return QMFS_ERROR;
  *out = nullptr;
  if (!(gConnections[handle].capabilities & kFsmCapProxyServers)) return 0;
  ListHdr list;
  InitHdr(&list);
  if (FsmGetProxySrvAt(sock, &list) != 0) {
    FreeAllSrvAddr(&list);
    return QMFS_ERROR;
  }
  std::vector<QMAdminProxyServer> servers;
  for (ListNode* n = list.first; n; n = n->next) {
    if (!n->owner) continue;  // a walk marker
    const auto* s = static_cast<const FsmProxySrv*>(n->owner);
    QMAdminProxyServer p{};
    p.addr1 = s->addr1;
    p.addr2 = s->addr2;
    std::memcpy(p.word, s->word, sizeof s->word);
    std::memcpy(p.word + 3, s->word2, sizeof s->word2);
    servers.push_back(p);
  }
  FreeAllSrvAddr(&list);
  if (servers.empty()) return 0;
  auto* array =
      static_cast<QMAdminProxyServer*>(std::malloc(servers.size() * sizeof(QMAdminProxyServer)));
  if (!array) return QMFS_ERROR;
  std::memcpy(array, servers.data(), servers.size() * sizeof(QMAdminProxyServer));
  *out = array;
  return static_cast<int>(servers.size());
}

void QMAdmin_FSFreeProxyServers(QMAdminProxyServer* array) { std::free(array); }

int QMAdmin_ListUserQuotas(int handle, QMAdminQuota* rec) {
  return listQuotas(handle, rec, kQuotaNextUser, QMADMIN_QUOTA_USER);
}

int QMAdmin_ListGroupQuotas(int handle, QMAdminQuota* rec) {
  return listQuotas(handle, rec, kQuotaNextGroup, QMADMIN_QUOTA_GROUP);
}

int QMAdmin_GetUserQuota(int handle, const char* name, QMAdminQuota* out) {
  return getQuota(handle, name, out, kQuotaGetUser, QMADMIN_QUOTA_USER);
}

int QMAdmin_GetGroupQuota(int handle, const char* name, QMAdminQuota* out) {
  return getQuota(handle, name, out, kQuotaGetGroup, QMADMIN_QUOTA_GROUP);
}

int QMAdmin_SetUserQuota(int handle, const char* name, QMAdminQuota* rec) {
  return setQuota(handle, name, rec, kQuotaSetUser, QMADMIN_QUOTA_USER);
}

int QMAdmin_SetGroupQuota(int handle, const char* name, QMAdminQuota* rec) {
  return setQuota(handle, name, rec, kQuotaSetGroup, QMADMIN_QUOTA_GROUP);
}

// ---- Others ----

int QMAdmin_MultiPathMethod(int a, int b, int c) {
  if (a < 0 || b < 0 || c < 0) return QMFS_ERROR;
  if (!QMAdmin_privileged) return QMFS_EPERM;
  // Deliberate: the call does nothing and reports failure.
  return QMFS_ERROR;
}

char* QMAdmin_GetHostFromIp(const struct in6_addr* addr, char* out, std::size_t size) {
  return GetHostFromIp(addr, out, size);
}

char* QMAdmin_DecodeID(const struct in6_addr* client, const struct in6_addr* pmAddr, char* name,
                       std::size_t size) {
  return FsmPMDecodeID(client, pmAddr, name, size);
}

char* QMAdmin_NSTypeName(int type, char* out) {
  if (!out) return out;
  const char* name = type >= 0 && type < kPmServiceTypeCount ? QMServiceType[type] : "Unknown";
  std::strcpy(out, name);
  return out;
}

char* QMAdmin_SizeStr(std::uint64_t size, char* num, char* unit) {
  struct Step {
    std::uint64_t divisor;
    const char* unit;
  };
  static constexpr Step kSteps[] = {{1ull << 60, "EB"}, {1ull << 50, "PB"}, {1ull << 40, "TB"},
                                    {1ull << 30, "GB"}, {1ull << 20, "MB"}, {1ull << 10, "KB"}};
  double value;
  const char* u = "B";
  if (size >> 63) {
    // Deliberate: a size with the top bit set is a negative number, shown in bytes.
    value = static_cast<double>(static_cast<std::int64_t>(size));
  } else {
    value = static_cast<double>(size);
    for (const Step& s : kSteps) {
      if (size > s.divisor) {
        value = static_cast<double>(size) / static_cast<double>(s.divisor);
        u = s.unit;
        break;
      }
    }
  }
  if (num)
    std::snprintf(num, QMADMIN_SIZESTR_LEN, "%2.2f",
                  static_cast<double>(static_cast<float>(value)));
  if (unit) std::strcpy(unit, u);
  return unit;
}

void log_qmfs_error(int status, const char* context) {
  const char* ctx = context ? context : "";
  const char* what = nullptr;
  switch (status) {
    case QMFS_OK:
      return;
    case QMFS_ERROR:
      what = "Generic";
      break;
    case QMFS_EPERM:
      what = "Permission";
      break;
    case QMFS_ENOENT:
      what = "No Entry Found";
      break;
    case QMFS_EEXIST:
      what = "Object Exists";
      break;
    case QMFS_ENOCONFIG:
      what = "No Configuration";
      break;
    case QMFS_ENOTLOCAL:
      what = "Object Not Local";
      break;
    case QMFS_EOF:
      what = "End Of File";
      break;
  }
  if (what)
    adminlib::syslogLine(LOG_NOTICE, "velm: %s: QMFS %s Error", ctx, what);
  else
    adminlib::syslogLine(LOG_NOTICE, "velm: %s: QMFS UNKNOWN Error (%d)", ctx, status);
}

// ---- Tests ----

void QMAdmin_SetPrivilegedForTest(int privileged) { QMAdmin_privileged = privileged; }
int QMAdmin_ReadyForTest() { return QMAdmin_ready; }
int QMAdmin_SlotTypeForTest(int handle) { return inRange(handle) ? gConnections[handle].type : -1; }
int QMAdmin_SlotReferencesForTest(int handle) {
  return inRange(handle) ? gConnections[handle].references : -1;
}
int QMAdmin_SlotSocketForTest(int handle) {
  return inRange(handle) ? gConnections[handle].socket : -1;
}
