// The admin facade: the one door to the port mapper and the FSMs. A table of ten connection
// slots, small integer handles into it, and one set of statuses for every result:
// 0 success, -1 generic, 1 not privileged, 2 no entry, 3 exists (or already in that state),
// 4 not configured, 5 not local, 6 end of list. Text outs are caller buffers of
// ADMIN_ERRBUF_LEN bytes. The table is guarded by con_list_lock during connect, disconnect,
// look-up, init and teardown only: callers serialise requests on a handle (the QMAdmin lock).
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>

inline constexpr int QMADMIN_MAX_CONNECTIONS = 10;
inline constexpr std::size_t QMADMIN_NAME_LEN = 256;
inline constexpr std::size_t QMADMIN_SIZESTR_LEN = 32;  // room for QMAdmin_SizeStr's number

// Statuses.
inline constexpr int QMFS_OK = 0;
inline constexpr int QMFS_ERROR = -1;
inline constexpr int QMFS_EPERM = 1;
inline constexpr int QMFS_ENOENT = 2;
inline constexpr int QMFS_EEXIST = 3;
inline constexpr int QMFS_ENOCONFIG = 4;
inline constexpr int QMFS_ENOTLOCAL = 5;
inline constexpr int QMFS_EOF = 6;
inline constexpr int QMFS_ECHANGED = 7;  // the disk list changed during a walk

// Slot types.
inline constexpr int QMADMIN_FREE = 0;
inline constexpr int QMADMIN_NS = 1;
inline constexpr int QMADMIN_FSM = 2;

// Volume states of a list record.
inline constexpr int QMADMIN_STATE_STANDBY = 1;
inline constexpr int QMADMIN_STATE_ACTIVE = 2;

// One entry of the port mapper's service list, as an FSM.
struct QMAdminFsmRecord {
  int index;
  int state;     // 2 active, 1 standby
  int priority;  // the low 15 bits of the entry's flags
  struct in6_addr address;
  int port;
  int pid;
  char name[QMADMIN_NAME_LEN];
};

// Any service of the list: for one that is no FSM, state is 0 and priority the raw flags.
struct QMAdminServiceRecord {
  int type;  // index into the service names (QMAdmin_NSTypeName)
  int index;
  int state;
  int priority;
  struct in6_addr address;
  int port;
  int pid;
  char name[QMADMIN_NAME_LEN];
};

// A visible disk, as QMAdmin_NSGetDisks gives it: 1576 bytes.
struct QMAdminDisk {
  std::uint32_t word1;
  std::uint32_t word2;
  std::uint64_t size;
  std::uint32_t quantityHi;
  std::uint32_t quantityLo;
  char label[256];
  char inquiry[32];
  char string8[64];
  char serial[64];
  char device[256];
  char string4[256];
  char string5[256];
  char string6[256];
  std::uint32_t pathState;
  std::uint8_t byte1;
  std::uint8_t lunId;
  std::uint8_t byte3;
  std::uint8_t pad;
  std::uint32_t sectorSize;
  std::uint8_t reserved[100];
};
static_assert(sizeof(QMAdminDisk) == 1576, "disk record");

struct QMAdminProxyConnection {
  struct in6_addr addr1;
  struct in6_addr addr2;
  int port;
  std::uint32_t word;
  std::uint64_t counter1;
  std::uint64_t counter2;
  char name[QMADMIN_NAME_LEN];
};

struct QMAdminProxyServer {
  struct in6_addr addr1;
  struct in6_addr addr2;
  std::uint32_t word[9];  // the node's three words, then its six
};

// File-system statistics; sizes in blocks, time in microseconds since the epoch.
struct QMAdminFsStat {
  int globalSuperUser;
  int windowsSecurity;
  int bandwidthManagement;
  int qos;
  int quotas;
  int clients;
  int stripeGroups;
  int devices;
  int flag11;
  std::uint32_t msgBufSize;
  std::uint32_t blockSize;
  std::uint64_t createTime;
  std::uint64_t totalBlocks;
  std::uint64_t freeBlocks;
};

// Multipath methods of a stripe group.
inline constexpr int QMADMIN_MP_ROTATE = 1;
inline constexpr int QMADMIN_MP_STICKY = 2;
inline constexpr int QMADMIN_MP_STATIC = 3;

struct QMAdminStripeGroup {
  char name[QMADMIN_NAME_LEN];
  int number;  // index + 1
  int index;
  int up;
  int metadata;
  int journal;
  int realtime;
  int exclusive;
  int multipathMethod;
  int devices;
  std::uint32_t breadth;
  std::uint32_t affinity;
  std::uint32_t nativeKey;
  int one;  // always 1
  std::uint64_t totalBlocks;
  std::uint64_t freeBlocks;
  std::uint64_t reservedBlocks;
};

struct QMAdminQos {
  std::uint32_t word[10];
};

inline constexpr int QMADMIN_QUOTA_USER = 1;
inline constexpr int QMADMIN_QUOTA_GROUP = 2;

// Limits and usage in bytes; times in minutes.
struct QMAdminQuota {
  char name[QMADMIN_NAME_LEN];  // for the list walks: the cursor, empty at the start
  int type;
  std::uint64_t hardLimit;
  std::uint64_t softLimit;
  std::uint64_t used;
  std::uint32_t timeLimit;
  std::uint32_t timeRemaining;
};

// A client of the FSM: the wire record with its first two addresses exchanged, 1132 bytes.
#pragma pack(push, 4)
struct QMAdminClient {
  std::uint32_t index;
  std::uint32_t flags;
  std::uint32_t type;
  std::uint32_t word12;
  std::uint32_t word16;
  std::uint32_t uptime;
  std::uint64_t value24;
  std::uint8_t addr[16];   // the client's IP
  std::uint8_t addr1[16];  // the wire's first address
  std::uint8_t addr3[16];
  std::uint32_t word80;
  std::uint32_t pad84;
  std::uint64_t value88;
  char text[1024];
  std::uint64_t value1120;
  std::uint32_t word1128;
};
#pragma pack(pop)
static_assert(sizeof(QMAdminClient) == 1132, "client record");

// ---- Lifecycle and connections ----

// Both always 0. Init makes the library ready (again, after a teardown); teardown closes every
// connection, so handles held across it are invalid.
int QMAdmin_Init();
int QMAdmin_Teardown();

// A name-service handle for host's port mapper, shared with an earlier connect to the same host.
// -1 not ready, -2 table full, -3 connect failed (err says why).
int QMAdmin_NSConnect(const char* host, char* err);
// 0; -1 not ready or negative handle; -2 out of range; -3 not a name-service handle.
int QMAdmin_NSDisconnect(int handle);
// An FSM handle for rec's volume (shared per volume name), or -1 with err.
int QMAdmin_FSMConnect(int nsHandle, const QMAdminFsmRecord* rec, char* err);
int QMAdmin_FSMDisconnect(int handle);

// A handle, or -1. The underscored forms expect con_list_lock held.
int QMAdmin_NSName2Handle(const char* host);
int QMAdmin_FSMName2Handle(const char* fsname);
int _QMAdmin_NSName2Handle(const char* host);
int _QMAdmin_FSMName2Handle(const char* fsname);
// Copies the FSM slot's volume or host name into out (QMADMIN_NAME_LEN bytes). 0, or -1.
int QMAdmin_FSMHandle2Name(int handle, char* out);
int QMAdmin_FSMHostname(int handle, char* out);

// ---- Name-service handle ----

// The FSM at index: 0; 6 at the end; 2 for a service that is no FSM; -1 failure.
int QMAdmin_NSListFsm(int handle, int index, QMAdminFsmRecord* rec, char* err);
// Any service at index: 0, 6 at the end, -1 failure.
int QMAdmin_NSListService(int handle, int index, QMAdminServiceRecord* rec, char* err);
// The entry of fsname with that priority, or the active one for priority -1. 0, or -1.
int QMAdmin_NSFsmLocate(int handle, const char* fsname, int priority, QMAdminFsmRecord* rec);
// Asks the port mapper to rescan its disks. 0 or -1.
int QMAdmin_NSRefreshDisks(int handle);
// Up to count disks from index into out. 0 with *countOut; 6 no more; 7 the list changed since
// *generation (may be null); -1 failure.
int QMAdmin_NSGetDisks(int handle, int index, int count, QMAdminDisk* out, int* countOut,
                       std::uint32_t* generation, char* err);
int QMAdmin_NSGetDisk(int handle, int index, QMAdminDisk* out, char* err);
// The number of proxy connections with *out a new array (free with QMAdmin_NSFreeProxyConnections),
// or -1.
int QMAdmin_NSGetProxyConnections(int handle, QMAdminProxyConnection** out);
void QMAdmin_NSFreeProxyConnections(QMAdminProxyConnection* array);

// Privileged. Start fsname on host; activate it on host; stop (or with flag 1 fail over) its
// active FSM; stop it on host. The statuses above; a failed exchange reads as 0, so callers
// poll the state to judge success.
int QMAdmin_FSMStart(int handle, const char* fsname, const char* host, char* err);
int QMAdmin_FSMActivate(int handle, const char* fsname, const char* host, char* err);
int QMAdmin_FSMStop(int handle, const char* fsname, int flag, char* err);
int QMAdmin_FSMStopByHost(int handle, const char* fsname, const char* host, char* err);

// ---- FSM handle ----

int QMAdmin_FSMStat(int handle, QMAdminFsStat* out);
int QMAdmin_StripeGroupStat(int handle, int index, QMAdminStripeGroup* out);
// Privileged. 3 when the stripe group is already in that state.
int QMAdmin_UpStripeGroup(int handle, int index);
int QMAdmin_DownStripeGroup(int handle, int index);
int QMAdmin_FSMGetDebug(int handle, std::uint32_t* word);
int QMAdmin_FSMSetDebug(int handle, std::uint32_t word);
int QMAdmin_QosStat(int handle, int index, QMAdminQos* out);
// 1 on, 0 off, -1 failure.
int QMAdmin_GetQuotasState(int handle);
int QMAdmin_SetQuotasState(int handle, int on);  // privileged
int QMAdmin_RebuildQuotaDatabase(int handle);    // privileged
int QMAdmin_GetBrlsState(int handle);
// The number of clients with *out a new array (free with QMAdmin_FreeClientList), or -1.
int QMAdmin_GetClientList(int handle, QMAdminClient** out);
void QMAdmin_FreeClientList(QMAdminClient* array);
int QMAdmin_FSMSuspendCreates(int handle, int word);
int QMAdmin_FsmResetRPL(int handle);
// The number of proxy servers with *out a new array (null for none), or -1.
int QMAdmin_FSGetProxyServers(int handle, QMAdminProxyServer** out);
void QMAdmin_FSFreeProxyServers(QMAdminProxyServer* array);

// Privileged walks: rec->name is the cursor (empty to start); each call gives the next entry.
// 0; 6 at the end; 22 for an entry without a name ("????"); another reply status as it stands.
int QMAdmin_ListUserQuotas(int handle, QMAdminQuota* rec);
int QMAdmin_ListGroupQuotas(int handle, QMAdminQuota* rec);
// 0, 2 when there is none, or the FSM's error number.
int QMAdmin_GetUserQuota(int handle, const char* name, QMAdminQuota* out);
int QMAdmin_GetGroupQuota(int handle, const char* name, QMAdminQuota* out);
// Privileged. Limits are rounded down to whole blocks; on success rec holds what the FSM kept.
int QMAdmin_SetUserQuota(int handle, const char* name, QMAdminQuota* rec);
int QMAdmin_SetGroupQuota(int handle, const char* name, QMAdminQuota* rec);

// ---- Others ----

int QMAdmin_MultiPathMethod(int a, int b, int c);
char* QMAdmin_GetHostFromIp(const struct in6_addr* addr, char* out, std::size_t size);
char* QMAdmin_DecodeID(const struct in6_addr* client, const struct in6_addr* pmAddr, char* name,
                       std::size_t size);
// The service type's name ("Unknown" out of range) into out (at least 16 bytes). Returns out.
char* QMAdmin_NSTypeName(int type, char* out);
// The size scaled to a binary unit: number "%2.2f" into num (QMADMIN_SIZESTR_LEN bytes), the
// unit ("EB" ... "KB", "B") into unit (at least 3 bytes). Returns unit.
char* QMAdmin_SizeStr(std::uint64_t size, char* num, char* unit);

// One syslog line for a non-zero status, with context (usually the caller's name).
void log_qmfs_error(int status, const char* context);

// ---- Tests ----

// Overrides the privilege taken at init.
void QMAdmin_SetPrivilegedForTest(int privileged);
int QMAdmin_ReadyForTest();
// The slot's type, references and socket; -1 for a handle out of range.
int QMAdmin_SlotTypeForTest(int handle);
int QMAdmin_SlotReferencesForTest(int handle);
int QMAdmin_SlotSocketForTest(int handle);
