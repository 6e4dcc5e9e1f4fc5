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

int freeLoopbackPort() {
  int port = 0;
  int fd = listenLoopback(0, &port);
  if (fd >= 0) ::close(fd);
  return port;
}

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

std::string SimPmProcess::path() { return std::string(VELM_BINARY_DIR) + "/bin/velm-simpm"; }

bool SimPmProcess::start(const std::vector<std::string>& args) {
  int pipefd[2];
  if (::pipe2(pipefd, O_CLOEXEC) != 0) return false;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipefd[1], 2);
  std::vector<std::string> argv0 = {path()};
  argv0.insert(argv0.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& a : argv0) argv.push_back(a.data());
  argv.push_back(nullptr);
  int rc = ::posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(pipefd[1]);
  if (rc != 0) {
    ::close(pipefd[0]);
    pid_ = -1;
    text_ = "spawn failed: " + std::string(std::strerror(rc));
    return false;
  }
  errFd_ = pipefd[0];
  reader_ = std::thread([this] {
    char buf[4096];
    ssize_t n;
    while ((n = ::read(errFd_, buf, sizeof buf)) > 0) {
      std::scoped_lock lock(mutex_);
      text_.append(buf, static_cast<std::size_t>(n));
      cv_.notify_all();
    }
    std::scoped_lock lock(mutex_);
    done_ = true;
    cv_.notify_all();
  });
  return waitForText("listening on");
}

bool SimPmProcess::waitForText(const std::string& text) {
  std::unique_lock lock(mutex_);
  // A guard against a child that hangs, not a timing assertion.
  cv_.wait_for(lock, std::chrono::seconds(30),
               [&] { return done_ || text_.find(text) != std::string::npos; });
  return text_.find(text) != std::string::npos;
}

int SimPmProcess::stop() {
  int status = -1;
  if (pid_ > 0) {
    ::kill(pid_, SIGTERM);
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
  }
  if (reader_.joinable()) reader_.join();
  if (errFd_ >= 0) ::close(errFd_);
  errFd_ = -1;
  return status;
}

SimPmProcess::~SimPmProcess() { stop(); }

std::string SimPmProcess::stderrText() {
  std::scoped_lock lock(mutex_);
  return text_;
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
