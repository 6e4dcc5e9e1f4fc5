// The message layer to the port mapper and FSMs: port discovery, connections, framing and
// replies. All connections are TCP; addresses are in the 16-byte form of sock46.h.
// Text outs are caller buffers of ADMIN_ERRBUF_LEN bytes and may be null.
#pragma once

#include <netinet/in.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>

// ---- FrameHeader: the 24 bytes in front of every framed message ----

inline constexpr std::size_t kFrameHeaderLen = 24;
inline constexpr std::uint8_t kFrameMagic[5] = {0xC0, 0xC1, 0xC2, 0xC3, 0xC4};
inline constexpr std::uint32_t kFrameMaxLen = 0xFFFFFF;  // the length field has 24 bits

inline constexpr std::size_t kFhLength = 5;      // 3 bytes, big-endian, header included
inline constexpr std::size_t kFhClass = 8;       // 2 for FSM admin requests, 0 for the port mapper
inline constexpr std::size_t kFhType = 9;        // FSM request type
inline constexpr std::size_t kFhStatus = 11;     // reply status; 255 with error 1: unknown request
inline constexpr std::size_t kFhArg = 12;        // 2 bytes, big-endian
inline constexpr std::size_t kFhError = 14;      // 2 bytes, big-endian: the peer's errno
inline constexpr std::size_t kFhMsgNumber = 16;  // 4 bytes, host order

inline constexpr std::uint8_t kFsmAdminClass = 2;
inline constexpr std::uint8_t kStatusUnknownRequest = 255;

// ---- PortMapperMessage: 1024 bytes, zero-filled before use ----

inline constexpr std::size_t kPmMsgLen = 1024;
inline constexpr std::size_t kPmType = 24;    // 2 bytes: request type (service type in a list)
inline constexpr std::size_t kPmPort = 26;    // 2 bytes
inline constexpr std::size_t kPmStatus = 28;  // 2 bytes: reply status of the request
inline constexpr std::size_t kPmIndex = 30;   // 2 bytes: list index, or service flags
inline constexpr std::size_t kPmIpv4 = 32;    // 4 bytes, network order (older forms)
inline constexpr std::size_t kPmWord = 36;    // 4 bytes
inline constexpr std::size_t kPmName = 40;    // 256 bytes, NUL-terminated
inline constexpr std::size_t kPmNameLen = 256;
inline constexpr std::size_t kPmAddr = 296;  // 16 bytes: address in the 16-byte form
inline constexpr std::size_t kPmBody = 312;  // request-specific from here

inline constexpr std::size_t kFsmMsgLen = 4096;  // buffer of an FSM request and its reply

// Port-mapper request types used here.
inline constexpr std::uint16_t kPmGetSocketWait = 0x0082;    // form 2; form 1 is 0x0002
inline constexpr std::uint16_t kPmGetSocketNoWait = 0x008C;  // form 2; form 1 is 0x000C
inline constexpr std::uint16_t kPmGetSocketWaitOld = 0x0002;
inline constexpr std::uint16_t kPmGetSocketNoWaitOld = 0x000C;
inline constexpr std::uint16_t kPmActivate = 0x080A;  // older: 0x000A
inline constexpr std::uint16_t kPmActivateOld = 0x000A;
inline constexpr std::uint16_t kPmActivateTarget = 0x0822;  // older: 0x0022
inline constexpr std::uint16_t kPmActivateTargetOld = 0x0022;
inline constexpr std::uint16_t kPmStatusStandby = 5;

inline constexpr std::uint8_t kFsmOpenAdmin = 7;  // FSM type that opens an admin connection
inline constexpr std::size_t kFsmOpenAdminLen = 32;

// ---- Port-mapper discovery: 32 bytes, big-endian words, no frame header ----

inline constexpr std::size_t kDiscoveryLen = 32;
inline constexpr std::uint32_t kDiscoveryHello = 0x61700001;
inline constexpr std::uint32_t kDiscoveryRequest = 0x61700002;
inline constexpr std::uint32_t kDiscoveryReply = 0x61700003;
inline constexpr int kDefaultPmapPort = 5164;
inline constexpr std::uint32_t kDrfsProgram = 0x44524653;  // "DRFS"
inline constexpr std::uint32_t kDrfsVersion = 47;
inline constexpr std::uint32_t kDrfsProtocol = 6;  // TCP

// ---- Buffer helpers ----

// Copies name into the 256-byte field at kPmName (truncated, always terminated).
void PmSetName(std::uint8_t* msg, const char* name);
// Copies the field at kPmName out (at most size - 1 bytes, terminated even if the wire's isn't).
void PmGetName(const std::uint8_t* msg, char* out, std::size_t size);
// The next message number (the counter goes up before use).
std::uint32_t FsmNextMsgNumber();
// Writes a message number at kFhMsgNumber in host order.
void FrameSetMsgNumber(std::uint8_t* msg, std::uint32_t number);

// ---- Exchange ----

// Frames msg (magic, len, cleared status and error), writes it, waits for the reply (timed:
// TIMEDWAIT_VALUE seconds or 30 s; untimed: forever) and reads it into msg, whose capacity is
// bufsize. 0, or -1 with *err: a local errno (ETIMEDOUT, ECONNRESET, EINVAL for a bad magic,
// EMSGSIZE for a reply longer than bufsize) or the peer's error from a failed reply.
// A reply status of 255 with *err 1 means the peer doesn't know the request.
int _sendrcvmsg_buf(int sock, void* msg, std::size_t len, std::size_t bufsize, int* err, int timed);
// As above with the reply's room equal to len.
int _sendrcvmsg(int sock, void* msg, std::size_t len, int* err, int timed);
int SendRcvMsg(int sock, void* msg, std::size_t len, int* err);
// The reply wait of _sendrcvmsg in milliseconds: -1 (none) untimed, else TIMEDWAIT_VALUE seconds
// when that is a number of at least 1, else 30000. Read anew on each call.
int TimedWaitMs(int timed);

// Reads until len bytes or the peer closes; the count, or -1 with errno.
ssize_t rerecv(int sock, void* buf, std::size_t len, int retryOnInterrupt);
// Reads for at most seconds. Returns len when the buffer filled or the deadline passed, the count
// when the peer closed, 0 when a wait found nothing, -1 on failure.
ssize_t timed_reread(int sock, int seconds, void* buf, std::size_t len);

// ---- Connections ----

// The port of program/version/protocol at addr: discovery on the altpmap port (or 5164), then
// the Sun RPC port mapper for an IPv4 address. 0 when unknown.
int alt_getport(const struct in6_addr* addr, std::uint32_t program, std::uint32_t version,
                std::uint32_t protocol);
// Forgets the port-mapper port that alt_getport keeps for the life of the process.
void AltGetportResetForTest();
// The Sun RPC look-up alt_getport falls back to (pmap_getport by default); the port or 0.
using PmapGetportFunc = unsigned short (*)(const struct sockaddr_in* addr, unsigned long program,
                                           unsigned long version, unsigned int protocol);
extern PmapGetportFunc PmapGetportHook;

// Whether addr:port accepts a connection within half a second. 0, or -1 with a reason. With
// sock set, a success hands the (blocking) socket over; a failure sets it to -1.
int TestLink(const struct in6_addr* addr, int port, int* sock, char* errbuf);

// A socket to the port mapper of host (null: this machine by loopback), authenticated when the
// secret file is present. -1 with the reason.
int FsmPMConnect(const char* host, char* errbuf);

// A socket to the FSM of fsname on host, with its admin connection opened when admin is set.
// Waits out a standby FSM for up to 30 one-second passes when wait is set. On success errbuf
// holds the FSM's port as text and *capabilities the FSM's capability word. -1 with the reason.
int FsmGetSocket(const char* host, const char* fsname, int wait, char* errbuf, int admin,
                 std::uint32_t* capabilities);

// Asks the port mapper on pmsock to activate fsname, with work (1024 bytes) as the message.
// 0 activated, 2 not found, 5 internal use only, -1 failure; errbuf says which.
int FsmActivateFsm(int pmsock, const char* fsname, int target, std::uint8_t* work, char* errbuf);

// This machine's host name (empty on failure). 0 or -1.
int FsmGetHostName(std::size_t len, char* buf);

// ---- FSM client record (who) ----

inline constexpr std::size_t kWhoWireLen = 1132;  // wire record, from offset 24 of the reply

// The host form of a client record: 1144 bytes, integers in host order.
struct WhoRD {
  std::uint32_t index;
  std::uint32_t flags;  // bits 0 and 1 together: slot in use
  std::uint32_t type;
  std::uint32_t word12;
  std::uint32_t word16;
  std::uint32_t uptime;
  std::uint64_t value24;
  std::uint8_t addr1[16];
  std::uint8_t addr2[16];  // the client's IP
  std::uint8_t addr3[16];
  std::uint32_t word80;
  std::uint32_t pad84;
  std::uint64_t value88;
  char text[1024];
  std::uint64_t value1120;
  std::uint32_t word1128;
  std::uint8_t zero[12];
};
static_assert(sizeof(WhoRD) == 1144, "client record host form");

// Converts one wire record (kWhoWireLen bytes) into host form.
void unnetwork_WhoRD(WhoRD* host, const std::uint8_t* wire);
