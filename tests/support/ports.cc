#include "support/ports.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace velm::test {

int freeLoopbackPort() {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return 0;
  sockaddr_in sin{};
  sin.sin_family = AF_INET;
  sin.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof sin;
  int port = 0;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&sin), sizeof sin) == 0 &&
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&sin), &len) == 0)
    port = ntohs(sin.sin_port);
  ::close(fd);
  return port;
}

}  // namespace velm::test
