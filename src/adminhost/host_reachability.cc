// is_host_reachable: a TCP connect that is given up after a time-out.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>

#include "adminhost/host_common.h"
#include "platform/clock.h"
#include "platform/unique_fd.h"

namespace velm {

bool is_host_reachable(const std::string& address, int port, int timeoutMs) {
  if (address.empty() || port <= 0 || port > 65535) return false;
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* list = nullptr;
  std::string service = std::to_string(port);
  if (::getaddrinfo(address.c_str(), service.c_str(), &hints, &list) != 0 || !list) return false;
  bool reached = false;
  std::uint64_t deadline =
      clock().monotonicMicros() + static_cast<std::uint64_t>(timeoutMs < 0 ? 0 : timeoutMs) * 1000;
  for (addrinfo* a = list; a && !reached; a = a->ai_next) {
    UniqueFd fd(::socket(a->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd) continue;
    if (::connect(fd.get(), a->ai_addr, a->ai_addrlen) == 0) {
      reached = true;
      break;
    }
    if (errno != EINPROGRESS) continue;
    while (true) {
      std::uint64_t now = clock().monotonicMicros();
      if (now >= deadline) break;
      pollfd p{fd.get(), POLLOUT, 0};
      int r = ::poll(&p, 1, static_cast<int>((deadline - now + 999) / 1000));
      if (r < 0 && errno == EINTR) continue;
      if (r <= 0) break;
      int error = 0;
      socklen_t len = sizeof error;
      reached = ::getsockopt(fd.get(), SOL_SOCKET, SO_ERROR, &error, &len) == 0 && error == 0;
      break;
    }
  }
  ::freeaddrinfo(list);
  return reached;
}

std::set<std::string> addresses_of_host(const std::string& host) {
  std::set<std::string> out;
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* list = nullptr;
  if (host.empty() || ::getaddrinfo(host.c_str(), nullptr, &hints, &list) != 0) return out;
  for (addrinfo* a = list; a; a = a->ai_next) {
    char text[INET6_ADDRSTRLEN] = {};
    const void* src =
        a->ai_family == AF_INET
            ? static_cast<const void*>(&reinterpret_cast<sockaddr_in*>(a->ai_addr)->sin_addr)
            : static_cast<const void*>(&reinterpret_cast<sockaddr_in6*>(a->ai_addr)->sin6_addr);
    if (::inet_ntop(a->ai_family, src, text, sizeof text)) out.insert(text);
  }
  ::freeaddrinfo(list);
  return out;
}

}  // namespace velm
