#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "adminlib/adminlib.h"
#include "adminlib/adminlib_test_helpers.h"
#include "platform/paths.h"
#include "platform/socket_io.h"

extern char** environ;

namespace velm::test {

ScopedEnv::ScopedEnv(const char* name, const char* value) : name_(name) {
  if (const char* old = std::getenv(name)) {
    had_ = true;
    old_ = old;
  }
  if (value)
    ::setenv(name, value, 1);
  else
    ::unsetenv(name);
}

ScopedEnv::~ScopedEnv() {
  if (had_)
    ::setenv(name_.c_str(), old_.c_str(), 1);
  else
    ::unsetenv(name_.c_str());
}

namespace {

int listenLoopback(int port, int* bound) {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  int on = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in sin{};
  sin.sin_family = AF_INET;
  sin.sin_port = htons(static_cast<uint16_t>(port));
  sin.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::bind(fd, reinterpret_cast<sockaddr*>(&sin), sizeof sin) != 0 || ::listen(fd, 8) != 0) {
    ::close(fd);
    return -1;
  }
  socklen_t len = sizeof sin;
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&sin), &len);
  *bound = ntohs(sin.sin_port);
  return fd;
}

}  // namespace

Bytes readBytes(int fd, std::size_t n) {
  Bytes out(n);
  std::size_t got = 0;
  while (got < n) {
    ssize_t r = ::recv(fd, out.data() + got, n - got, 0);
    if (r <= 0) break;
    got += static_cast<std::size_t>(r);
  }
  out.resize(got);
  return out;
}

bool writeBytes(int fd, const Bytes& bytes) { return sendAll(fd, bytes.data(), bytes.size()); }

LoopbackPeer::LoopbackPeer(std::function<void(int fd)> handler, int connections, int port) {
  listenFd_ = listenLoopback(port, &port_);
  if (listenFd_ < 0 || ::pipe2(wake_, O_CLOEXEC) != 0) return;
  thread_ = std::thread([this, handler, connections] {
    for (int i = 0; i < connections; ++i) {
      pollfd p[2] = {{listenFd_, POLLIN, 0}, {wake_[0], POLLIN, 0}};
      if (::poll(p, 2, -1) <= 0 || p[1].revents) return;
      int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
      if (fd < 0) return;
      handler(fd);
      ::close(fd);
    }
  });
}

LoopbackPeer::~LoopbackPeer() {
  if (wake_[1] >= 0) {
    char b = 1;
    ssize_t r = ::write(wake_[1], &b, 1);
    (void)r;
  }
  if (thread_.joinable()) thread_.join();
  for (int fd : {listenFd_, wake_[0], wake_[1]})
    if (fd >= 0) ::close(fd);
}

void AdminlibTest::SetUp() {
  logPath_ = sandbox_.path("/log.txt");
  if (const char* old = std::getenv("VELM_LOG")) {
    hadLog_ = true;
    oldLog_ = old;
  }
  ::setenv("VELM_LOG", logPath_.c_str(), 1);
  ::unsetenv("VELM_HOST_ADDRESSES");
  ::unsetenv("TIMEDWAIT_VALUE");
  AltGetportResetForTest();
  ResetAddrLists();
  SetAuthenticateConnection(0);
  authentication_check();
}

void AdminlibTest::TearDown() {
  WriteLog = nullptr;
  RasHook = nullptr;
  SetAuthenticateConnection(0);
  authentication_check();
  AltGetportResetForTest();
  ResetAddrLists();
  ::unsetenv("VELM_HOST_ADDRESSES");
  if (hadLog_)
    ::setenv("VELM_LOG", oldLog_.c_str(), 1);
  else
    ::unsetenv("VELM_LOG");
}

std::vector<std::string> AdminlibTest::logLines() const {
  std::vector<std::string> lines;
  std::ifstream in(logPath_);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

bool AdminlibTest::logContains(const std::string& text) const {
  for (const std::string& l : logLines())
    if (l.find(text) != std::string::npos) return true;
  return false;
}

std::string AdminlibTest::writeDrfs(const std::string& relative, const std::string& content,
                                    unsigned mode) {
  return sandbox_.write("/Library/Filesystems/Velm/" + relative, content, mode);
}

}  // namespace velm::test
