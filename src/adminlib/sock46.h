// One address form for every socket family: 16 bytes in network order, IPv4 held mapped
// (::ffff:a.b.c.d). Sockets, name look-up, and the cache of this machine's own addresses.
// Ports are host-order integers. Sockets are made close-on-exec.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>

inline constexpr std::size_t kRawIpLen = 64;  // room for any RawIp text
inline constexpr int kLocalAddrMax = 10;      // addresses in the local cache
inline constexpr int kNicNameLen = 32;
inline constexpr int kNicHwLen = 16;  // "0x" and twelve hex digits

// ---- Address form ----

// First eight bytes 0, then 00 00 FF FF.
int AddrIsMapped(const struct in6_addr* a);
// The mapped form of four network-order bytes.
void AddrSetMapped(struct in6_addr* a, const std::uint8_t ipv4[4]);
// Mapped 127.0.0.1.
void AddrSetLoopback4(struct in6_addr* a);
// Compares as 128-bit big-endian unsigned numbers: -1, 0 or 1.
int IN6_CMP(const struct in6_addr* a, const struct in6_addr* b);
void IN6_XOR(struct in6_addr* out, const struct in6_addr* a, const struct in6_addr* b);

// A socket address for addr and port: IPv4 for a mapped address, IPv6 otherwise. Its length.
socklen_t AddrToSockaddr(const struct in6_addr* addr, int port, struct sockaddr_storage* ss);
// The address form and host-order port of a socket address; zeros for another family.
void SockaddrToAddr(const struct sockaddr* sa, struct in6_addr* addr, int* port);

// "a.b.c.d" for a mapped address, otherwise the IPv6 text. out needs kRawIpLen bytes. Returns out.
char* RawIp(const struct in6_addr* addr, char* out, std::size_t size);
// The reverse look-up of addr (never cached), or RawIp. Returns out.
char* GetHostFromIp(const struct in6_addr* addr, char* out, std::size_t size);

// ---- Sockets ----

// A blocking TCP connect. The socket, or -1 with *err set to errno (*err is 0 on success).
int SockConnect(const struct in6_addr* addr, int port, int* err);
int Accept(int sock, struct in6_addr* addr, int* port);
int GetSockName(int sock, struct in6_addr* addr, int* port);
int GetPeerName(int sock, struct in6_addr* addr, int* port);
ssize_t RecvFrom(int sock, void* buf, std::size_t len, int flags, struct in6_addr* addr, int* port);
// Sends by the IPv6 socket unless the address is mapped and an IPv4 socket is there; neither
// possible: -1 with EAFNOSUPPORT.
ssize_t SendTo(int sock4, int sock6, const void* buf, std::size_t len, int flags,
               const struct in6_addr* addr, int port);
// Binds an IPv4 and an IPv6 socket (-1: absent) to one port in [low, high]. Returns the port,
// 0 when the range is used up or no socket was given, -1 when a replacement socket can't be made.
// *sock4 may be replaced by a new socket.
int BindSame(int* sock4, int sock6, int lowPort, int highPort);

// ---- Names ----

// localhost, localhost.*, 127.1, 127.0.0.1 (mapped 127.0.0.1); localhost6, localhost6.*, ::1.
int IsLoopbackHostname(const char* name, struct in6_addr* addr);
// Refreshes the local addresses, then looks the name up preferring this machine's addresses.
// 0, or -1 with errno set.
int GetHostByName(const char* name, struct in6_addr* addr);
// 0, or an errno value: EAGAIN (try later), ENOENT (no usable address), EINVAL.
int _HostLookupR(const char* name, struct in6_addr* addr, int preferLocal);

// ---- This machine's addresses (cached for five seconds) ----

struct NicBinding {
  char name[kNicNameLen];
  char hwaddr[kNicHwLen];  // "0x%2.2x..." over six bytes, empty without one
  unsigned flags;
  int naddrs;
  struct in6_addr addrs[kLocalAddrMax];
};

// Copies up to ten addresses (the rest zeroed) and returns how many there are.
int enumerate_ip_addrs(struct in6_addr addrs[kLocalAddrMax]);
// With flag set, a fresh fill puts the address of this machine's own name first.
int _enumerate_ip_addrs(struct in6_addr addrs[kLocalAddrMax], int flag);
// Copies up to ten interface records; their count.
int GetAllNicBindings(NicBinding nics[kLocalAddrMax]);
// Drops the cache now.
void ResetAddrLists();
void md_reset_addr_lists();
// Fills the cache from the interface list (or VELM_HOST_ADDRESSES). 0, or -1 when the list
// can't be read, leaving the cache empty.
int BuildAddrLists(int flag);
// True when addr is exactly one of the local addresses.
int IsLocalHost(const struct in6_addr* addr);
// A local address becomes the loopback of its kind, so this machine is reached by loopback.
void RemapLocalHost(struct in6_addr* addr);
