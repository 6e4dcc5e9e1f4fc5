#include "adminlib/sock46.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <netpacket/packet.h>
#include <pthread.h>
#include <strings.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "adminlib/adminlib_internal.h"
#include "adminlib/subr2.h"
#include "platform/clock.h"
#include "platform/unique_fd.h"

// ---- Address form ----

int AddrIsMapped(const struct in6_addr* a) {
  static const std::uint8_t kPrefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
  return std::memcmp(a->s6_addr, kPrefix, 12) == 0;
}

void AddrSetMapped(struct in6_addr* a, const std::uint8_t ipv4[4]) {
  std::memset(a, 0, sizeof *a);
  a->s6_addr[10] = 0xff;
  a->s6_addr[11] = 0xff;
  std::memcpy(a->s6_addr + 12, ipv4, 4);
}

void AddrSetLoopback4(struct in6_addr* a) {
  static const std::uint8_t kLoop[4] = {127, 0, 0, 1};
  AddrSetMapped(a, kLoop);
}

int IN6_CMP(const struct in6_addr* a, const struct in6_addr* b) {
  int c = std::memcmp(a->s6_addr, b->s6_addr, 16);
  return c < 0 ? -1 : (c > 0 ? 1 : 0);
}

void IN6_XOR(struct in6_addr* out, const struct in6_addr* a, const struct in6_addr* b) {
  for (int i = 0; i < 16; ++i) out->s6_addr[i] = a->s6_addr[i] ^ b->s6_addr[i];
}

socklen_t AddrToSockaddr(const struct in6_addr* addr, int port, struct sockaddr_storage* ss) {
  std::memset(ss, 0, sizeof *ss);
  if (AddrIsMapped(addr)) {
    auto* sin = reinterpret_cast<struct sockaddr_in*>(ss);
    sin->sin_family = AF_INET;
    sin->sin_port = htons(static_cast<std::uint16_t>(port));
    std::memcpy(&sin->sin_addr, addr->s6_addr + 12, 4);
    return sizeof(struct sockaddr_in);
  }
  auto* sin6 = reinterpret_cast<struct sockaddr_in6*>(ss);
  sin6->sin6_family = AF_INET6;
  sin6->sin6_port = htons(static_cast<std::uint16_t>(port));
  sin6->sin6_addr = *addr;
  return sizeof(struct sockaddr_in6);
}

void SockaddrToAddr(const struct sockaddr* sa, struct in6_addr* addr, int* port) {
  struct in6_addr a {};
  int p = 0;
  if (sa && sa->sa_family == AF_INET) {
    struct sockaddr_in sin;
    std::memcpy(&sin, sa, sizeof sin);
    std::uint8_t b[4];
    std::memcpy(b, &sin.sin_addr, 4);
    AddrSetMapped(&a, b);
    p = ntohs(sin.sin_port);
  } else if (sa && sa->sa_family == AF_INET6) {
    struct sockaddr_in6 sin6;
    std::memcpy(&sin6, sa, sizeof sin6);
    a = sin6.sin6_addr;
    p = ntohs(sin6.sin6_port);
  }
  if (addr) *addr = a;
  if (port) *port = p;
}

char* RawIp(const struct in6_addr* addr, char* out, std::size_t size) {
  if (!out || size == 0) return out;
  const std::uint8_t* b = addr->s6_addr;
  if (AddrIsMapped(addr)) {
    std::snprintf(out, size, "%d.%d.%d.%d", b[12], b[13], b[14], b[15]);
    return out;
  }
  char text[INET6_ADDRSTRLEN];
  if (::inet_ntop(AF_INET6, addr, text, sizeof text)) {
    adminlib::copyText(out, size, text);
  } else {
    std::snprintf(out, size, "%x:%x:%x:%x:%x:%x:%x:%x", (b[0] << 8) | b[1], (b[2] << 8) | b[3],
                  (b[4] << 8) | b[5], (b[6] << 8) | b[7], (b[8] << 8) | b[9], (b[10] << 8) | b[11],
                  (b[12] << 8) | b[13], (b[14] << 8) | b[15]);
  }
  return out;
}

namespace {
// Serialises reverse look-ups and guards gNameCache; a leaf.
pthread_mutex_t host_lock = PTHREAD_MUTEX_INITIALIZER;

// Reverse look-ups that were answered, or not, lately. A name server that is slow or away
// would otherwise cost every volume read its time-out, twice.
struct CachedName {
  std::string text;  // the name, or empty when there was none
  std::uint64_t expiresMicros;
};
constexpr std::uint64_t kNameLifeMicros = 60ull * 1000000;
constexpr std::size_t kNameCacheMax = 256;
std::map<std::string, CachedName> gNameCache;
}  // namespace

char* GetHostFromIp(const struct in6_addr* addr, char* out, std::size_t size) {
  if (!out || size == 0) return out;
  std::string key(reinterpret_cast<const char*>(addr->s6_addr), sizeof addr->s6_addr);
  std::uint64_t now = velm::clock().monotonicMicros();
  std::string name;
  bool known = false;
  QM_ASSERT(pthread_mutex_lock(&host_lock) == 0);
  if (auto it = gNameCache.find(key); it != gNameCache.end() && it->second.expiresMicros > now) {
    name = it->second.text;
    known = true;
  }
  QM_ASSERT(pthread_mutex_unlock(&host_lock) == 0);
  if (!known) {
    struct sockaddr_storage ss;
    socklen_t len = AddrToSockaddr(addr, 0, &ss);
    char host[NI_MAXHOST];
    int rc = ::getnameinfo(reinterpret_cast<struct sockaddr*>(&ss), len, host, sizeof host, nullptr,
                           0, NI_NAMEREQD);
    if (rc == 0) name = host;
    QM_ASSERT(pthread_mutex_lock(&host_lock) == 0);
    if (gNameCache.size() >= kNameCacheMax) gNameCache.clear();
    gNameCache[key] = CachedName{name, now + kNameLifeMicros};
    QM_ASSERT(pthread_mutex_unlock(&host_lock) == 0);
  }
  if (!name.empty())
    adminlib::copyText(out, size, name.c_str());
  else
    RawIp(addr, out, size);
  return out;
}

// ---- Sockets ----

namespace {

// Every exchange is a whole request and then a wait for its reply: holding back a message's
// last piece for an acknowledgement (Nagle) only costs a delayed-ACK period.
void noDelay(int fd) {
  int one = 1;
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

}  // namespace

int SockConnect(const struct in6_addr* addr, int port, int* err) {
  if (err) *err = 0;
  struct sockaddr_storage ss;
  socklen_t len = AddrToSockaddr(addr, port, &ss);
  velm::UniqueFd fd(::socket(ss.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!fd) {
    if (err) *err = errno;
    return -1;
  }
  if (::connect(fd.get(), reinterpret_cast<struct sockaddr*>(&ss), len) != 0) {
    if (err) *err = errno;
    return -1;
  }
  noDelay(fd.get());
  return fd.release();
}

int Accept(int sock, struct in6_addr* addr, int* port) {
  struct sockaddr_storage ss {};
  socklen_t len = sizeof ss;
  int fd = ::accept4(sock, reinterpret_cast<struct sockaddr*>(&ss), &len, SOCK_CLOEXEC);
  if (fd >= 0) {
    SockaddrToAddr(reinterpret_cast<struct sockaddr*>(&ss), addr, port);
    noDelay(fd);
  }
  return fd;
}

int GetSockName(int sock, struct in6_addr* addr, int* port) {
  struct sockaddr_storage ss {};
  socklen_t len = sizeof ss;
  if (::getsockname(sock, reinterpret_cast<struct sockaddr*>(&ss), &len) != 0) return -1;
  SockaddrToAddr(reinterpret_cast<struct sockaddr*>(&ss), addr, port);
  return 0;
}

int GetPeerName(int sock, struct in6_addr* addr, int* port) {
  struct sockaddr_storage ss {};
  socklen_t len = sizeof ss;
  if (::getpeername(sock, reinterpret_cast<struct sockaddr*>(&ss), &len) != 0) return -1;
  SockaddrToAddr(reinterpret_cast<struct sockaddr*>(&ss), addr, port);
  return 0;
}

ssize_t RecvFrom(int sock, void* buf, std::size_t len, int flags, struct in6_addr* addr,
                 int* port) {
  struct sockaddr_storage ss {};
  socklen_t slen = sizeof ss;
  ssize_t n = ::recvfrom(sock, buf, len, flags, reinterpret_cast<struct sockaddr*>(&ss), &slen);
  if (n >= 0) SockaddrToAddr(reinterpret_cast<struct sockaddr*>(&ss), addr, port);
  return n;
}

ssize_t SendTo(int sock4, int sock6, const void* buf, std::size_t len, int flags,
               const struct in6_addr* addr, int port) {
  bool mapped = AddrIsMapped(addr);
  int sock = -1;
  if (sock6 >= 0 && (!mapped || sock4 < 0))
    sock = sock6;
  else if (sock4 >= 0 && mapped)
    sock = sock4;
  if (sock < 0) {
    errno = EAFNOSUPPORT;
    return -1;
  }
  struct sockaddr_storage ss {};
  socklen_t slen;
  if (sock == sock6 && mapped) {
    // An IPv6 socket reaches an IPv4 peer by its mapped address.
    auto* sin6 = reinterpret_cast<struct sockaddr_in6*>(&ss);
    sin6->sin6_family = AF_INET6;
    sin6->sin6_port = htons(static_cast<std::uint16_t>(port));
    sin6->sin6_addr = *addr;
    slen = sizeof *sin6;
  } else {
    slen = AddrToSockaddr(addr, port, &ss);
  }
  return ::sendto(sock, buf, len, flags | MSG_NOSIGNAL, reinterpret_cast<struct sockaddr*>(&ss),
                  slen);
}

namespace {

int bindPort(int sock, int family, int port) {
  struct sockaddr_storage ss {};
  socklen_t len;
  if (family == AF_INET) {
    auto* sin = reinterpret_cast<struct sockaddr_in*>(&ss);
    sin->sin_family = AF_INET;
    sin->sin_port = htons(static_cast<std::uint16_t>(port));
    sin->sin_addr.s_addr = htonl(INADDR_ANY);
    len = sizeof *sin;
  } else {
    auto* sin6 = reinterpret_cast<struct sockaddr_in6*>(&ss);
    sin6->sin6_family = AF_INET6;
    sin6->sin6_port = htons(static_cast<std::uint16_t>(port));
    sin6->sin6_addr = in6addr_any;
    len = sizeof *sin6;
  }
  return ::bind(sock, reinterpret_cast<struct sockaddr*>(&ss), len);
}

int socketType(int sock) {
  int type = SOCK_STREAM;
  socklen_t len = sizeof type;
  if (::getsockopt(sock, SOL_SOCKET, SO_TYPE, &type, &len) != 0) return SOCK_STREAM;
  return type;
}

}  // namespace

int BindSame(int* sock4, int sock6, int lowPort, int highPort) {
  int s4 = sock4 ? *sock4 : -1;
  bool both = s4 >= 0 && sock6 >= 0;
  if (s4 < 0 && sock6 < 0) return 0;
  if (both) {
    if (lowPort == 0) lowPort = 49152;
    if (highPort == 0) highPort = 65535;
  } else if (lowPort == 0) {
    lowPort = highPort = 0;
  }
  for (int port = lowPort; port <= highPort; ++port) {
    if (!both) {
      int s = s4 >= 0 ? s4 : sock6;
      if (bindPort(s, s4 >= 0 ? AF_INET : AF_INET6, port) != 0) continue;
      if (port == 0 && GetSockName(s, nullptr, &port) != 0) return -1;
      return port;
    }
    if (bindPort(s4, AF_INET, port) != 0) continue;
    if (bindPort(sock6, AF_INET6, port) == 0) return port;
    // The IPv4 socket is now bound to a port the pair can't share: start it over.
    int type = socketType(s4);
    ::close(s4);
    s4 = ::socket(AF_INET, type | SOCK_CLOEXEC, 0);
    *sock4 = s4;
    if (s4 < 0) return -1;
  }
  return 0;
}

// ---- Names ----

int IsLoopbackHostname(const char* name, struct in6_addr* addr) {
  if (!name) return 0;
  struct in6_addr a {};
  if (::strcasecmp(name, "localhost") == 0 || ::strncasecmp(name, "localhost.", 10) == 0 ||
      std::strcmp(name, "127.1") == 0 || std::strcmp(name, "127.0.0.1") == 0) {
    AddrSetLoopback4(&a);
  } else if (::strcasecmp(name, "localhost6") == 0 || ::strncasecmp(name, "localhost6.", 11) == 0 ||
             std::strcmp(name, "::1") == 0) {
    a = in6addr_loopback;
  } else {
    return 0;
  }
  if (addr) *addr = a;
  return 1;
}

namespace {

bool isV4Loopback127001(const struct in6_addr* a) {
  return AddrIsMapped(a) && a->s6_addr[12] == 127 && a->s6_addr[13] == 0 && a->s6_addr[14] == 0 &&
         a->s6_addr[15] == 1;
}

bool isUnspecified(const struct in6_addr* a) {
  static const struct in6_addr kZero {};
  return std::memcmp(a, &kZero, sizeof kZero) == 0;
}

bool isLinkLocal6(const struct in6_addr* a) {
  return a->s6_addr[0] == 0xfe && (a->s6_addr[1] & 0xc0) == 0x80;
}

bool isLoopbackAny(const struct in6_addr* a) {
  if (AddrIsMapped(a)) return a->s6_addr[12] == 127;
  return std::memcmp(a, &in6addr_loopback, sizeof *a) == 0;
}

// Unusable as an address that others reach this machine by.
bool isUnusableResult(const struct in6_addr* a) {
  return isUnspecified(a) || std::memcmp(a, &in6addr_loopback, sizeof *a) == 0 ||
         a->s6_addr[0] == 0xff || isLinkLocal6(a);
}

bool containsAddr(const struct in6_addr* list, int n, const struct in6_addr* a) {
  for (int i = 0; i < n; ++i)
    if (std::memcmp(&list[i], a, sizeof *a) == 0) return true;
  return false;
}

bool ownHostName(char* out, std::size_t size) {
  if (::gethostname(out, size) != 0) return false;
  out[size - 1] = '\0';
  return out[0] != '\0';
}

}  // namespace

int _HostLookupR(const char* name, struct in6_addr* addr, int preferLocal) {
  if (!name || !addr) return EINVAL;
  if (IsLoopbackHostname(name, addr)) {
    // Side-by-side test controllers (VELM_HOST_ADDRESSES) are each "this machine" at an address
    // of their own: the IPv4 loopback names lead there, not to whoever owns 127.0.0.1.
    if (AddrIsMapped(addr) && std::getenv("VELM_HOST_ADDRESSES")) {
      struct in6_addr own[kLocalAddrMax];
      if (_enumerate_ip_addrs(own, 1) > 0) *addr = own[0];
    }
    return 0;
  }

  struct in6_addr local[kLocalAddrMax];
  int nlocal = 0;
  bool ownName = false;
  if (preferLocal) {
    nlocal = _enumerate_ip_addrs(local, 1);
    char host[256];
    ownName = ownHostName(host, sizeof host) && ::strcasecmp(host, name) == 0;
  }

  struct addrinfo hints {};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  struct addrinfo* res = nullptr;
  int rc = ::getaddrinfo(name, nullptr, &hints, &res);
  if (rc != 0) {
    if (ownName && nlocal > 0) {
      *addr = local[0];
      return 0;
    }
    return rc == EAI_AGAIN ? EAGAIN : (rc == EAI_NONAME ? ENOENT : EINVAL);
  }
  bool found = false;
  struct in6_addr result {};
  for (struct addrinfo* ai = res; ai && !found; ai = ai->ai_next) {
    if (ai->ai_family != AF_INET && ai->ai_family != AF_INET6) continue;
    struct in6_addr a;
    SockaddrToAddr(ai->ai_addr, &a, nullptr);
    if (ownName && !containsAddr(local, nlocal, &a)) continue;
    result = a;
    found = true;
  }
  ::freeaddrinfo(res);
  if (!found) return ENOENT;

  auto firstMapped = [&](struct in6_addr* out) {
    for (int i = 0; i < nlocal; ++i) {
      if (AddrIsMapped(&local[i])) {
        *out = local[i];
        return true;
      }
    }
    return false;
  };
  // 127.0.0.1 means this machine, and others can't reach it by that: use a real address.
  if (isV4Loopback127001(&result)) {
    if (!firstMapped(&result)) return ENOENT;
  }
  if (isUnusableResult(&result)) {
    bool replaced = false;
    for (int i = 0; i < nlocal && !replaced; ++i) {
      if (!isUnusableResult(&local[i])) {
        result = local[i];
        replaced = true;
      }
    }
    if (!replaced && !firstMapped(&result)) return ENOENT;
  }
  *addr = result;
  return 0;
}

int GetHostByName(const char* name, struct in6_addr* addr) {
  ResetAddrLists();
  int rc = _HostLookupR(name, addr, 1);
  if (rc != 0) {
    errno = rc;
    return -1;
  }
  return 0;
}

// ---- Local address cache ----

namespace {

struct AddrCache {
  bool valid = false;
  struct in6_addr addrs[kLocalAddrMax] = {};
  int naddrs = 0;
  NicBinding nics[kLocalAddrMax] = {};
  int nnics = 0;
  std::uint64_t filled = 0;
};

// Guards gCache; a leaf.
pthread_mutex_t ipaddrs_lock = PTHREAD_MUTEX_INITIALIZER;
AddrCache gCache;

constexpr std::uint64_t kCacheLifeMicros = 5000000;
constexpr int kMaxInterfaces = 128;

struct IfEntry {
  std::string name;
  unsigned flags = 0;
  std::string hw;
  bool alias = false;
  bool hasV4 = false, hasV6 = false;
  struct in6_addr v4 {
  }, v6{};
};

bool usableLocal(const struct in6_addr* a) {
  return !isLoopbackAny(a) && !isLinkLocal6(a) && !isUnspecified(a);
}

void addTo(NicBinding& nic, const struct in6_addr& a) {
  if (nic.naddrs < kLocalAddrMax) nic.addrs[nic.naddrs++] = a;
}

// VELM_HOST_ADDRESSES stands for the whole interface list: one interface, velm0.
bool fillFromOverride(AddrCache& c) {
  const char* env = std::getenv("VELM_HOST_ADDRESSES");
  if (!env) return false;
  NicBinding& nic = c.nics[0];
  adminlib::copyText(nic.name, sizeof nic.name, "velm0");
  adminlib::copyText(nic.hwaddr, sizeof nic.hwaddr, "0x000000000000");
  nic.flags = IFF_UP | IFF_RUNNING;
  c.nnics = 1;
  std::string_view rest(env);
  while (!rest.empty() && c.naddrs < kLocalAddrMax) {
    std::size_t comma = rest.find(',');
    std::string item(rest.substr(0, comma));
    rest = comma == std::string_view::npos ? std::string_view() : rest.substr(comma + 1);
    std::size_t b = item.find_first_not_of(" \t"), e = item.find_last_not_of(" \t");
    if (b == std::string::npos) continue;
    item = item.substr(b, e - b + 1);
    std::uint8_t v4[4];
    if (::inet_pton(AF_INET, item.c_str(), v4) != 1) continue;
    struct in6_addr a;
    AddrSetMapped(&a, v4);
    c.addrs[c.naddrs++] = a;
    addTo(nic, a);
  }
  return true;
}

int fillFromInterfaces(AddrCache& c, int flag) {
  struct ifaddrs* ifs = nullptr;
  if (::getifaddrs(&ifs) != 0) return -1;
  std::vector<IfEntry> main;
  std::vector<IfEntry> aliases;
  for (struct ifaddrs* i = ifs; i; i = i->ifa_next) {
    if (!i->ifa_name) continue;
    std::string name(i->ifa_name);
    if (std::size_t colon = name.find(':'); colon != std::string::npos) name.resize(colon);
    IfEntry* e = nullptr;
    for (IfEntry& m : main)
      if (m.name == name) e = &m;
    if (!e) {
      if (main.size() >= static_cast<std::size_t>(kMaxInterfaces)) continue;
      main.push_back(IfEntry{});
      e = &main.back();
      e->name = name;
    }
    e->flags |= i->ifa_flags;
    if (!i->ifa_addr) continue;
    int family = i->ifa_addr->sa_family;
    if (family == AF_PACKET) {
      struct sockaddr_ll ll;
      std::memcpy(&ll, i->ifa_addr, sizeof ll);
      if (ll.sll_halen == 6) {
        char hw[kNicHwLen];
        std::snprintf(hw, sizeof hw, "0x%2.2x%2.2x%2.2x%2.2x%2.2x%2.2x", ll.sll_addr[0],
                      ll.sll_addr[1], ll.sll_addr[2], ll.sll_addr[3], ll.sll_addr[4],
                      ll.sll_addr[5]);
        e->hw = hw;
      }
      continue;
    }
    if (family != AF_INET && family != AF_INET6) continue;
    struct in6_addr a;
    SockaddrToAddr(i->ifa_addr, &a, nullptr);
    bool& has = family == AF_INET ? e->hasV4 : e->hasV6;
    if (!has) {
      has = true;
      (family == AF_INET ? e->v4 : e->v6) = a;
    } else {
      IfEntry alias;
      alias.name = name;
      alias.alias = true;
      (family == AF_INET ? alias.hasV4 : alias.hasV6) = true;
      (family == AF_INET ? alias.v4 : alias.v6) = a;
      aliases.push_back(alias);
    }
  }
  ::freeifaddrs(ifs);

  std::vector<IfEntry> entries;
  for (IfEntry& e : main) {
    if (e.name.rfind("dummy", 0) == 0 || e.name.rfind("lo", 0) == 0) continue;
    if (e.flags & IFF_LOOPBACK) continue;
    if (e.hw.empty() && !e.hasV4 && !e.hasV6) continue;
    entries.push_back(e);
  }
  for (IfEntry& a : aliases) {
    bool kept = false;
    for (const IfEntry& e : entries) kept = kept || e.name == a.name;
    if (kept) entries.push_back(a);
  }

  // Plain entries first, then aliases; each gives its IPv4 then its IPv6 address.
  for (const IfEntry& e : entries) {
    if (c.naddrs >= kLocalAddrMax) break;
    const struct in6_addr* cand[2] = {e.hasV4 ? &e.v4 : nullptr, e.hasV6 ? &e.v6 : nullptr};
    NicBinding* nic = nullptr;
    for (int i = 0; i < c.nnics; ++i)
      if (e.name == c.nics[i].name) nic = &c.nics[i];
    if (!nic && !e.alias && c.nnics < kLocalAddrMax) {
      nic = &c.nics[c.nnics++];
      adminlib::copyText(nic->name, sizeof nic->name, e.name.c_str());
      adminlib::copyText(nic->hwaddr, sizeof nic->hwaddr, e.hw.c_str());
      nic->flags = e.flags;
    }
    for (const struct in6_addr* a : cand) {
      if (!a || !usableLocal(a) || c.naddrs >= kLocalAddrMax) continue;
      c.addrs[c.naddrs++] = *a;
      if (nic) addTo(*nic, *a);
    }
  }

  if (flag) {
    char host[256];
    struct addrinfo* res = nullptr;
    struct addrinfo hints {};
    hints.ai_socktype = SOCK_STREAM;
    if (ownHostName(host, sizeof host) && ::getaddrinfo(host, nullptr, &hints, &res) == 0) {
      for (struct addrinfo* ai = res; ai; ai = ai->ai_next) {
        if (ai->ai_family != AF_INET && ai->ai_family != AF_INET6) continue;
        struct in6_addr a;
        SockaddrToAddr(ai->ai_addr, &a, nullptr);
        int at = -1;
        for (int i = 0; i < c.naddrs; ++i)
          if (std::memcmp(&c.addrs[i], &a, sizeof a) == 0) at = i;
        if (at < 0) continue;
        for (int i = at; i > 0; --i) c.addrs[i] = c.addrs[i - 1];
        c.addrs[0] = a;
        break;
      }
      ::freeaddrinfo(res);
    }
  }
  return 0;
}

int buildLocked(int flag) {
  gCache = AddrCache{};
  if (fillFromOverride(gCache)) {
    gCache.valid = true;
  } else if (fillFromInterfaces(gCache, flag) != 0) {
    gCache = AddrCache{};
    return -1;
  } else {
    gCache.valid = true;
  }
  gCache.filled = MicroTime();
  return 0;
}

// Call with ipaddrs_lock held.
void refreshLocked(int flag) {
  std::uint64_t now = MicroTime();
  // Deliberate: a fill stamped at or after now counts as stale too, so a clock that stepped
  // back never keeps an old list.
  if (now - gCache.filled >= kCacheLifeMicros || gCache.filled >= now) gCache = AddrCache{};
  if (!gCache.valid) buildLocked(flag);
}

}  // namespace

int _enumerate_ip_addrs(struct in6_addr addrs[kLocalAddrMax], int flag) {
  QM_ASSERT(pthread_mutex_lock(&ipaddrs_lock) == 0);
  refreshLocked(flag);
  int n = gCache.naddrs;
  for (int i = 0; i < kLocalAddrMax; ++i) addrs[i] = i < n ? gCache.addrs[i] : in6_addr{};
  QM_ASSERT(pthread_mutex_unlock(&ipaddrs_lock) == 0);
  return n;
}

int enumerate_ip_addrs(struct in6_addr addrs[kLocalAddrMax]) {
  return _enumerate_ip_addrs(addrs, 1);
}

int GetAllNicBindings(NicBinding nics[kLocalAddrMax]) {
  QM_ASSERT(pthread_mutex_lock(&ipaddrs_lock) == 0);
  refreshLocked(1);
  int n = gCache.nnics;
  for (int i = 0; i < n; ++i) nics[i] = gCache.nics[i];
  QM_ASSERT(pthread_mutex_unlock(&ipaddrs_lock) == 0);
  return n;
}

void ResetAddrLists() {
  QM_ASSERT(pthread_mutex_lock(&ipaddrs_lock) == 0);
  gCache = AddrCache{};
  QM_ASSERT(pthread_mutex_unlock(&ipaddrs_lock) == 0);
}

void md_reset_addr_lists() { ResetAddrLists(); }

int BuildAddrLists(int flag) {
  QM_ASSERT(pthread_mutex_lock(&ipaddrs_lock) == 0);
  int rc = buildLocked(flag);
  QM_ASSERT(pthread_mutex_unlock(&ipaddrs_lock) == 0);
  return rc;
}

int IsLocalHost(const struct in6_addr* addr) {
  struct in6_addr local[kLocalAddrMax];
  int n = _enumerate_ip_addrs(local, 1);
  return containsAddr(local, n, addr);
}

void RemapLocalHost(struct in6_addr* addr) {
  if (!IsLocalHost(addr)) return;
  // A local address in the loopback range already goes by loopback; keeping it keeps
  // side-by-side test controllers (VELM_HOST_ADDRESSES=127.0.0.x) apart.
  if (isLoopbackAny(addr)) return;
  if (AddrIsMapped(addr))
    AddrSetLoopback4(addr);
  else
    *addr = in6addr_loopback;
}
