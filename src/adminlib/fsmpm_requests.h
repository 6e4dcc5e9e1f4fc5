// Port-mapper and name-service requests: the bodies carried in a PortMapperMessage over an open
// port-mapper socket (FsmPMConnect). Each request fills a zeroed message, sends it timed, falls
// back to older forms when the peer doesn't know the newer one, and reads its answer in place.
// Text outs are caller buffers of ADMIN_ERRBUF_LEN bytes (may be null), empty on success.
// The socket is the caller's and carries one request at a time; nothing here reconnects.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

// ---- Service list entry (reply to FsmPMListFsm), in the PortMapperMessage ----
//   kPmType    service type (index into the service names; 1 is an FSM)
//   kPmPort    TCP port of the service
//   kPmStatus  0: an entry; anything else: the end of the list
//   kPmIndex   flags: bit 15 active, bits 0..14 priority
//   kPmIpv4    IPv4 address, oldest form only
//   kPmWord    process id
//   kPmName    file-system name
//   kPmAddr    address of the service's host
//   FsmPMListFsm, FsmPMListLocalFsm and FsmPMStartStopFsm leave these integers in host order in
//   the message: read them with PmHost16/PmHost32, not get_be16/get_be32.
inline std::uint16_t PmHost16(const std::uint8_t* msg, std::size_t off) {
  std::uint16_t v;
  std::memcpy(&v, msg + off, sizeof v);
  return v;
}
inline std::uint32_t PmHost32(const std::uint8_t* msg, std::size_t off) {
  std::uint32_t v;
  std::memcpy(&v, msg + off, sizeof v);
  return v;
}
inline constexpr std::uint16_t kPmServiceActive = 0x8000;
inline constexpr std::uint16_t kPmServicePriorityMask = 0x7fff;
inline constexpr std::uint16_t kPmServiceFsm = 1;
inline constexpr int kPmServiceTypeCount = 8;
// "Empty", "FSM", "FSD", "DMIG", "drmkfs", "drfsck", "drupdatefs", "qmmetadump".
extern const char* const QMServiceType[kPmServiceTypeCount];

// Port-mapper request types of this unit (newest form first where there are several).
inline constexpr std::uint16_t kPmListFsm = 0x0024;
inline constexpr std::uint16_t kPmListFsmForm2 = 0x0083;
inline constexpr std::uint16_t kPmListFsmForm1 = 0x0003;
inline constexpr std::uint16_t kPmStartFsm = 0x0804;  // 0x0084, 0x0004
inline constexpr std::uint16_t kPmStopFsm = 0x0805;   // 0x0085, 0x0005
inline constexpr std::uint16_t kPmFailFsm = 0x080D;   // 0x008D, 0x000D
inline constexpr std::uint16_t kPmStartStopOp3 = 0x081B;
inline constexpr std::uint16_t kPmFormFlag3 = 0x0800;
inline constexpr std::uint16_t kPmFormFlag2 = 0x0080;
inline constexpr std::uint16_t kPmGetDisks = 0x080E;
inline constexpr std::uint16_t kPmGetDisksForm1 = 0x0017;
inline constexpr std::uint16_t kPmGetDisksForm0 = 0x0015;
inline constexpr std::uint16_t kPmListLocalFsm = 0x001C;
inline constexpr std::uint16_t kPmListProxyConnection = 0x001E;
inline constexpr std::uint16_t kPmRasEvent = 0x001F;
inline constexpr std::uint16_t kPmQueryID = 0x0025;
inline constexpr std::uint16_t kPmGetLocalCctls = 0x0026;
inline constexpr std::uint16_t kPmGetCctlsFromNss = 0x0027;

// FsmPMStartStopFsm operations.
inline constexpr int kPmOpStop = 0;
inline constexpr int kPmOpStart = 1;
inline constexpr int kPmOpFailover = 2;
inline constexpr int kPmOp3 = 3;

// ---- Proxy connection entry (reply to FsmPMListProxyConnection), from kPmBody ----
// Left in wire order (big-endian): read with get_be16/get_be32/get_be64.
inline constexpr std::size_t kPmProxyAddr1 = 312;     // 16 bytes
inline constexpr std::size_t kPmProxyAddr2 = 328;     // 16 bytes
inline constexpr std::size_t kPmProxyPort = 344;      // 2 bytes
inline constexpr std::size_t kPmProxyWord = 348;      // 4 bytes
inline constexpr std::size_t kPmProxyCounter1 = 360;  // 8 bytes
inline constexpr std::size_t kPmProxyCounter2 = 368;  // 8 bytes
inline constexpr std::size_t kPmProxyName = 376;      // 256 bytes
// Reply statuses of FsmPMListProxyConnection.
inline constexpr std::uint16_t kPmProxyEnd = 1;
inline constexpr std::uint16_t kPmProxyChanged = 8;

// ---- FsmPMGetDisks ----

// Host disk record: one element of FsmPMGetDisks' output array, integers in host order.
struct PmDiskRecord {
  std::uint32_t word1;       // first disk word
  std::uint32_t word2;       // second disk word
  std::uint64_t size;        // size of the disk
  std::uint32_t quantityHi;  // the second 64-bit quantity, split in two words
  std::uint32_t quantityLo;
  char label[256];   // label name
  char inquiry[32];  // inquiry string
  char string8[64];  // eighth string
  char serial[64];   // disk serial
  char device[256];  // block device name
  char string4[256];
  char string5[256];
  char string6[256];
  std::uint32_t pathState;
  std::uint8_t byte1;  // first byte field
  std::uint8_t lunId;
  std::uint8_t byte3;  // third byte field
  std::uint32_t sectorSize;
};

inline constexpr std::size_t kPmDisksReplyLen = 8192;       // forms 2 and 1
inline constexpr std::size_t kPmDisksReplyLenForm0 = 1992;  // form 0: one disk at fixed offsets
inline constexpr std::size_t kPmDiskRecords = 40;           // first variable record
inline constexpr std::size_t kPmDiskRecordHead = 40;        // fixed part of a record

// ---- Cluster control lists ----

inline constexpr std::size_t kCctlNameLen = 64;
struct CctlEntry {
  char name[kCctlNameLen + 1];  // at most 64 bytes and a NUL
  std::uint64_t value;
  std::uint32_t word;  // stays 0
};

// Reply states of FsmPMGetCctlsFromNss, and the state a filled list gets.
inline constexpr int kCctlStateFilled = 2;
inline constexpr int kCctlStateEmpty = 4;
inline constexpr int kCctlStateUnchanged = 8;
inline constexpr int kCctlStateNew = 16;

// The caller owns the holder; entries come from AllocMemory and go with FreeCctlList.
struct CctlList {
  std::uint32_t generation;
  int count;
  int state;
  CctlEntry* entries;
};

// ---- Requests ----

// One entry of the service list at index into msg (1024 bytes), integers converted to host
// order. 0 an entry, 2 the end of the list, -1 failure. An older peer's entries are all FSMs.
int FsmPMListFsm(int sock, int index, std::uint8_t* msg, char* err);

// Starts (1), stops (0), fails over (2) an FSM, or operation 3. The caller puts the FSM's
// host-order port at kPmPort of msg (1024 bytes, otherwise zeroed). 0 success, 1 already exists,
// 2 not found, 3 not configured, 4 not local, -1 failure; err says which.
int FsmPMStartStopFsm(int sock, int op, const char* fsname, std::uint8_t* msg, char* err);

// The name the port mapper knows the client at addr by. 0 with the name, 1 unknown (empty
// name), -1 failure.
int FsmPMQueryID(int sock, const struct in6_addr* client, char* name, std::size_t size, char* err);

// The name of a client, kept five minutes in the process's identity cache: asked of the port
// mapper at pmAddr, else a reverse look-up, else the raw address. Returns name.
char* FsmPMDecodeID(const struct in6_addr* client, const struct in6_addr* pmAddr, char* name,
                    std::size_t size);
// Empties the identity cache.
void FsmPMDecodeIDResetForTest();

// One proxy connection at index into msg (1024 bytes). 0 an entry, 2 the end, 1 the list
// changed (start again at 0), -1 failure.
int FsmPMListProxyConnection(int sock, int index, std::uint8_t* msg, char* err);

// One local FSM at index into msg (1024 bytes). 0 an entry, 2 the end, -1 failure.
int FsmPMListLocalFsm(int sock, int index, std::uint8_t* msg, char* err);

// Up to count disks from index into out. With refresh the port mapper rescans first. generation
// (may be null) holds the caller's disk-list generation and gets the port mapper's. The number
// delivered; 0 when there are no more; -1 failure; -2 the list changed since *generation (which
// now holds the new one).
int FsmPMGetDisks(int sock, int index, int count, int refresh, PmDiskRecord* out,
                  std::uint32_t* generation, char* err);

// The local cluster control value of name. 0 with *value (and *word when given), a non-zero
// reply status as it stands, or -1.
int FsmPMGetLocalCctls(int sock, const char* name, std::uint64_t* value, std::uint32_t* word,
                       char* err);

// Refreshes list from the name server at nss. 0 (list->state tells what happened), a non-zero
// reply status, 1 when the peer doesn't know the request (list emptied, state 8), -1 failure.
int FsmPMGetCctlsFromNss(int sock, CctlList* list, const struct in6_addr* nss, char* err);
// Frees the entries and zeroes the holder.
void FreeCctlList(CctlList* list);

// Posts a RAS event to the port mapper. 0, or the error number of the exchange.
int FsmPmRasEvent(int sock, const char* event, const char* text, int n1, int n2);

// Posts a RAS event to this machine's port mapper (by host name) on a connection of its own.
// 0 or -1.
int SendPmRasEvent(const char* event, const char* text, int n1, int n2);
