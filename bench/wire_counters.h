// What the admin library puts on the wire, counted: every request leaves in one send() call (the
// C library's resolver doesn't come through here), and reverse look-ups, counted and timed, since
// the FSM's host name comes from one that may ask the resolver. Include in one file of a
// benchmark program only: it defines send and getnameinfo for the whole program.
#pragma once

#include <dlfcn.h>
#include <netdb.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>

namespace velm::bench {
inline std::atomic<long> gSends{0};
inline std::atomic<long> gLookups{0};
inline std::atomic<long long> gLookupNs{0};
}  // namespace velm::bench

extern "C" ssize_t send(int fd, const void* buf, size_t len, int flags) {
  velm::bench::gSends.fetch_add(1, std::memory_order_relaxed);
  return ::sendto(fd, buf, len, flags, nullptr, 0);
}

extern "C" int getnameinfo(const struct sockaddr* sa, socklen_t salen, char* host,
                           socklen_t hostlen, char* serv, socklen_t servlen, int flags) {
  using Fn = int (*)(const struct sockaddr*, socklen_t, char*, socklen_t, char*, socklen_t, int);
  static const Fn real = reinterpret_cast<Fn>(::dlsym(RTLD_NEXT, "getnameinfo"));
  if (!real) return EAI_SYSTEM;
  if (flags & NI_NUMERICHOST) return real(sa, salen, host, hostlen, serv, servlen, flags);
  auto start = std::chrono::steady_clock::now();
  int rc = real(sa, salen, host, hostlen, serv, servlen, flags);
  velm::bench::gLookupNs.fetch_add(
      std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() - start)
          .count(),
      std::memory_order_relaxed);
  velm::bench::gLookups.fetch_add(1, std::memory_order_relaxed);
  return rc;
}
