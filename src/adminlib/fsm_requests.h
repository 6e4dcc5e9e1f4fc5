// Requests on an FSM admin connection (a socket from FsmGetSocket): statistics, stripe groups,
// devices, clients, quotas, bandwidth figures, and a few commands.
// Plain functions: results 0 or -1 unless told otherwise; `err` outs get a system error number
// (local, or the FSM's from a failed reply); text outs are caller buffers of ADMIN_ERRBUF_LEN
// bytes and may be null. The caller serialises requests on a socket (the QMAdmin lock).
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>

#include "adminlib/fsmcomm.h"
#include "adminlib/subr2.h"

// ---- FSM request types (offset 9 of the frame header, class 2) ----

inline constexpr std::uint8_t kFsmTypeGetDevice = 1;
inline constexpr std::uint8_t kFsmTypeFsStat = 2;
inline constexpr std::uint8_t kFsmTypeGetPartitionOld = 3;
inline constexpr std::uint8_t kFsmTypeModifyPartition = 5;
inline constexpr std::uint8_t kFsmTypeDebug = 6;
inline constexpr std::uint8_t kFsmTypeNativeKeys = 8;
inline constexpr std::uint8_t kFsmTypeLockMeter = 9;
inline constexpr std::uint8_t kFsmTypeWhoOld = 10;
inline constexpr std::uint8_t kFsmTypeGetQos = 11;
inline constexpr std::uint8_t kFsmTypeQuotas = 12;
inline constexpr std::uint8_t kFsmTypeQuotaRec = 13;
inline constexpr std::uint8_t kFsmTypeQuotaCmd = 14;
inline constexpr std::uint8_t kFsmTypeBrls = 15;
inline constexpr std::uint8_t kFsmTypeOpenFileReport = 16;
inline constexpr std::uint8_t kFsmTypeQosStat = 17;
inline constexpr std::uint8_t kFsmTypeGetPartition = 18;
inline constexpr std::uint8_t kFsmTypeRollRJ = 19;
inline constexpr std::uint8_t kFsmTypeSuspendCreates = 20;
inline constexpr std::uint8_t kFsmTypeGenReport = 21;
inline constexpr std::uint8_t kFsmTypeWho = 22;
inline constexpr std::uint8_t kFsmTypeStopRJ = 23;
inline constexpr std::uint8_t kFsmTypeStartIoTest = 24;
inline constexpr std::uint8_t kFsmTypeProxySrv = 25;
inline constexpr std::uint8_t kFsmTypeResetRPL = 28;

// Capability word of an FSM (from FsmGetSocket).
inline constexpr std::uint32_t kFsmCapNewWho = 1;        // knows type 22 client records
inline constexpr std::uint32_t kFsmCapIoTest = 2;        // does I/O tests
inline constexpr std::uint32_t kFsmCapProxyServers = 4;  // knows proxy server lists

// ---- File-system statistics (reply of FsmFsStat) ----

inline constexpr std::uint16_t kFsStatGlobalSuperUser = 1u << 0;
inline constexpr std::uint16_t kFsStatWindowsSecurity = 1u << 2;
inline constexpr std::uint16_t kFsStatBandwidthMgmt = 1u << 3;
inline constexpr std::uint16_t kFsStatQos = 1u << 6;
inline constexpr std::uint16_t kFsStatQuotas = 1u << 7;
inline constexpr std::uint16_t kFsStatBit11 = 1u << 11;         // passed up unread
inline constexpr std::uint16_t kFsStatNewPartition = 1u << 12;  // FSM knows type 18

struct FsmFsStatRec {
  std::uint16_t flags;
  std::uint16_t clients;
  std::uint16_t stripeGroups;
  std::uint16_t devices;
  std::uint32_t blockSize;                           // bytes
  std::uint16_t count36, count38, count40, count42;  // kept, not read
  std::uint32_t msgBufSize;
  std::uint64_t createTimeUs;  // microseconds since the epoch
  std::uint64_t value72;       // kept, not read
  std::uint64_t totalBlocks;
  std::uint64_t freeBlocks;
};

// ---- Stripe-group record (reply of FsmGetPartition) ----

inline constexpr std::uint32_t kPartUp = 1u << 0;
inline constexpr std::uint32_t kPartDown = 1u << 1;
inline constexpr std::uint32_t kPartMetadata = 1u << 2;
inline constexpr std::uint32_t kPartJournal = 1u << 3;
inline constexpr std::uint32_t kPartRealtime = 1u << 8;
inline constexpr std::uint32_t kPartExclusive = 1u << 10;
inline constexpr std::size_t kPartNameLen = 256;

struct FsmPartitionRec {
  std::uint32_t flags;
  std::uint32_t word28;  // kept, not read
  std::uint64_t totalBlocks;
  std::uint64_t reservedBlocks;  // 0 in the older form
  std::uint64_t freeBlocks;
  std::uint64_t affinity;  // only the low word is used
  std::uint64_t value64;   // kept, not read (newer offset 64, older 56)
  std::uint64_t value72;   // kept, not read
  std::uint32_t devices;
  std::uint32_t setting;    // handed back to FSMModifyPartition
  std::uint16_t multipath;  // 0 rotate, 1 static, 2 sticky, 3 and 4 unnamed
  std::uint32_t breadth;    // stripe breadth
  std::uint32_t nativeKey;
  std::uint32_t word104;  // kept, not read
  char name[kPartNameLen];
};

// A native-key pair as it stands on the wire (not byte-swapped).
struct FsmNativeKeyPair {
  std::uint32_t word[2];
};

// ---- Device record (reply of FsmGetDevice) ----

inline constexpr std::size_t kDeviceTextLen = 256;

struct FsmDeviceRec {
  std::uint64_t value24;
  std::uint64_t value32;
  std::uint32_t word40, word44, word48, word52;
  char text56[kDeviceTextLen];
  char text312[kDeviceTextLen];
  char text568[kDeviceTextLen];
};

// ---- Bandwidth figures ----

// Reply of FsmGetQos: the words at 24, 28, 32, 40, 44, 48, 52, 56, 60, 64 in that order.
struct FsmQosRec {
  std::uint32_t word[10];
};

// One client of FsmGetQosStat: three words, a flags word, a word.
inline constexpr std::uint32_t kQosStatKeep = 4;  // flags value that keeps a record
struct FsmQosStatRec {
  std::uint32_t word0, word1, word2;
  std::uint32_t flags;
  std::uint32_t word4;
};

// ---- Quotas ----

inline constexpr int kQuotaGetUser = 0;
inline constexpr int kQuotaGetGroup = 1;
inline constexpr int kQuotaSetUser = 2;
inline constexpr int kQuotaSetGroup = 3;
inline constexpr int kQuotaNextUser = 4;
inline constexpr int kQuotaNextGroup = 5;
inline constexpr std::size_t kQuotaNameLen = 256;
inline constexpr std::size_t kQuotaReqLen = 304;
inline constexpr int kQuotaCmdRebuild = 2;

// ---- Proxy servers ----

// A node of FsmGetProxySrvAt's list: 192 bytes, the list node at its end.
struct FsmProxySrv {
  struct in6_addr addr1;
  struct in6_addr addr2;
  std::uint32_t word[3];  // reply words at 64, 68, 72
  std::uint32_t gap;
  std::uint32_t word2[6];  // reply words at 76, 80, 84, 92, 96, 100
  std::uint8_t reserved[88];
  ListNode node;
};
static_assert(sizeof(FsmProxySrv) == 192, "proxy server node");

// A zeroed node, or null when memory is short.
FsmProxySrv* AllocSrvAddr();
void FreeSrvAddr(FsmProxySrv* srv);
// Removes and frees every node of the list.
void FreeAllSrvAddr(ListHdr* list);

// ---- Requests ----

int FsmFsStat(int sock, FsmFsStatRec* stat, int* err);
// The form follows stat: kFsStatNewPartition means type 18 and the newer record, else type 3.
int FsmGetPartition(int sock, int index, FsmPartitionRec* rec, const FsmFsStatRec* stat, int* err);
// The number of pairs, or -1. *keys gets an AllocMemory block (free with FreeMemory; null for 0).
int FsmGetPartitionNativeKeys(int sock, int index, FsmNativeKeyPair** keys, int* err);
// operation 1 up, 2 down; setting and method as FsmGetPartition gave them.
int FSMModifyPartition(int sock, int index, int operation, std::uint32_t setting, int method,
                       int* err);
int FsmGetDevice(int sock, int index, FsmDeviceRec* rec, int* err);
int FsmGenOpenFileReport(int sock, char* text, int* err);
int FsmGenReport(int sock, std::uint32_t word, char* text, int* err);
// operation 0 get, 1 set.
int FsmDebug(int sock, int operation, std::uint32_t value, std::uint32_t* word, char* text,
             int* err);
int FsmBrls(int sock, int operation, std::uint32_t value, std::uint32_t* word, int* err);
// Untimed. operation 0 get, 1 set.
int FsmQuotas(int sock, int operation, std::uint32_t value, std::uint32_t* word, char* text,
              int* err);
// Untimed. On success *err gets the reply's error word. text may be null.
int FsmQuotaCmd(int sock, int operation, std::uint32_t* word, char* text, int* err);
// name (kQuotaNameLen bytes) names the entry, or the last one returned for the walks 4 and 5.
// Limits in blocks, times in minutes. Only when *found comes back 1 are the outs (and name)
// written, and *err then holds the entry's status; otherwise they stay as they were.
int FsmQuotaRec(int sock, int operation, char* name, std::uint64_t* hard, std::uint64_t* soft,
                std::uint32_t* timeLimit, std::uint32_t* remaining, std::uint64_t* used, int* found,
                int* err);
int FsmLockMeter(int sock, int operation, std::uint32_t value, std::uint32_t* word1,
                 std::uint32_t* word2, char* text, int* err);
int FsmGetQos(int sock, int index, FsmQosRec* rec, int* err);
// Untimed.
int FsmRollRJCmd(int sock, std::uint32_t* word, int* err);
int FsmStopRJCmd(int sock, int* err);
// Untimed; 0 or -1 only.
int FsmSuspendCreates(int sock, int word);
int FsmResetRPL(int sock);

// The text tells why on -1.
int FsmStartIoTest(int sock, std::uint32_t capabilities, std::uint32_t word, int count, char* text);
// The number of clients, or -1 with the text. *records gets an AllocMemory array of host
// records (free with FreeMemory).
int FsmWho(int sock, std::uint32_t capabilities, WhoRD** records, char* text);
int FsmOneWho(int sock, std::uint32_t capabilities, int index, WhoRD* rec, char* text);
// 0; -1 the first request failed; -2 no memory; -3 a page failed. On 0 *records is an
// AllocMemory array of *count records (null for none); on failure nothing is handed over.
int FsmGetQosStat(int sock, std::uint32_t word, FsmQosStatRec** records, int* count, int* err);
// 0 or an error number. list (initialised by the caller) gets the servers sorted by addr1.
int FsmGetProxySrvAt(int sock, ListHdr* list);
