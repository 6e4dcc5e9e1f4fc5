#include "support/ports.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <random>

namespace velm::test {
namespace {

// Below the kernel's ephemeral range (32768 up): ports the stand-ins and daemons take with port 0
// never land here, so a port chosen now is not taken by one of them a moment later.
constexpr int kFirstPort = 20000;
constexpr int kLastPort = 32767;

bool bindable(const char* address, int port) {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  sockaddr_in sin{};
  sin.sin_family = AF_INET;
  sin.sin_port = htons(static_cast<std::uint16_t>(port));
  ::inet_pton(AF_INET, address, &sin.sin_addr);
  bool ok = ::bind(fd, reinterpret_cast<sockaddr*>(&sin), sizeof sin) == 0;
  ::close(fd);
  return ok;
}

}  // namespace

int freeLoopbackPort() {
  static std::mt19937 random(std::random_device{}() ^ static_cast<unsigned>(::getpid()));
  std::uniform_int_distribution<int> pick(kFirstPort, kLastPort);
  for (int attempt = 0; attempt < 200; ++attempt) {
    int port = pick(random);
    // The addresses the tests' controllers use.
    if (bindable("127.0.0.1", port) && bindable("127.0.0.2", port) && bindable("127.0.0.3", port))
      return port;
  }
  return 0;
}

}  // namespace velm::test
