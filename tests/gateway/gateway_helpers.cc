#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "gateway/san_filesystem.h"
#include "gateway/velmd_rpc.h"
#include "gateway_test_helpers.h"
#include "platform/files.h"
#include "platform/paths.h"

namespace velm::test {

void GatewayTest::SetUp() {
  ::setenv("VELM_PROCFS", sandbox_.path("/proc").c_str(), 1);
  resetPathsForTest();
  SANFilesystem::resetForTest();
}

void GatewayTest::TearDown() {
  SANFilesystem::resetForTest();
  ::unsetenv("VELM_PROCFS");
  resetPathsForTest();
}

void GatewayTest::writeMountInfo(const std::string& text) {
  sandbox_.write("/proc/self/mountinfo", text);
}

void GatewayTest::writeTool(const std::string& name, const std::string& body) {
  sandbox_.write("/Library/Filesystems/Velm/bin/" + name, "#!/bin/sh\n" + body, 0755);
}

ScriptedVelmd::ScriptedVelmd(std::vector<std::string> pieces, bool holdOpen) {
  std::string path = velmdSocketPath();
  makeDirectories(path.substr(0, path.rfind('/')));
  listenFd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un a{};
  a.sun_family = AF_UNIX;
  std::strncpy(a.sun_path, path.c_str(), sizeof a.sun_path - 1);
  ::unlink(path.c_str());
  if (::bind(listenFd_, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
      ::listen(listenFd_, 4) != 0) {
    ADD_FAILURE() << "cannot listen on " << path << ": " << std::strerror(errno);
    return;
  }
  thread_ = std::thread([this, pieces = std::move(pieces), holdOpen] {
    int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) return;
    char buf[512];
    while (!velmdReplyIsComplete(request_)) {
      ssize_t n = ::read(fd, buf, sizeof buf);
      if (n <= 0) break;
      request_.append(buf, static_cast<size_t>(n));
    }
    for (const std::string& p : pieces) {
      if (::send(fd, p.data(), p.size(), MSG_NOSIGNAL) < 0) break;
    }
    if (holdOpen) {
      while (::read(fd, buf, sizeof buf) > 0) {
      }
    }
    ::close(fd);
  });
}

ScriptedVelmd::~ScriptedVelmd() {
  // A client that never came: shutting the listener down ends the accept.
  ::shutdown(listenFd_, SHUT_RDWR);
  if (thread_.joinable()) thread_.join();
  ::close(listenFd_);
}

const std::string& ScriptedVelmd::request() {
  if (thread_.joinable()) thread_.join();
  return request_;
}

}  // namespace velm::test
