// adminhostd: serves plugin commands over HTTP(S); see kHostUsage.
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "host/admin_host.h"
#include "host/host_log.h"
#include "host/host_options.h"

// cpp-httplib accepts connections without SOCK_CLOEXEC, so every child that a plugin starts
// (volume tools, long tasks that outlive the request) would inherit the open client connections
// and hold them open after we close them. The library calls accept() through the dynamic linker,
// which finds this definition first.
extern "C" int accept(int fd, sockaddr* __restrict address, socklen_t* __restrict length) {
  return ::accept4(fd, address, length, SOCK_CLOEXEC);
}

namespace {

int gSignalPipe[2] = {-1, -1};

// Only async-signal-safe work here: the watcher thread does the rest.
void onSignal(int signo) {
  int saved = errno;
  unsigned char byte = static_cast<unsigned char>(signo);
  ssize_t r = ::write(gSignalPipe[1], &byte, 1);
  (void)r;
  errno = saved;
}

}  // namespace

int main(int argc, char** argv) {
  velm::setHostLogName("adminhostd");
  velm::HostOptionsResult parsed = velm::parseHostOptions(std::vector<std::string>(argv + 1, argv + argc));
  if (parsed.status != 0) {
    std::fprintf(stderr, "adminhostd: %s\n%s", parsed.error.c_str(), velm::kHostUsage);
    return parsed.status;
  }
  const velm::HostOptions& options = parsed.options;
  if (options.help) {
    std::fputs(velm::kHostUsage, stdout);
    return 0;
  }
  // Before anything resolves a path: the root is read once, at first use.
  if (!options.root.empty()) {
    std::error_code ec;
    std::filesystem::path root = std::filesystem::absolute(options.root, ec);
    if (ec || !std::filesystem::is_directory(root, ec)) {
      std::fprintf(stderr, "adminhostd: --root %s is not a directory\n", options.root.c_str());
      return 2;
    }
    ::setenv("VELM_ROOT", root.lexically_normal().c_str(), 1);
  }

  // A client that goes away mid-answer must cost a failed write, not the process.
  ::signal(SIGPIPE, SIG_IGN);
  if (::pipe2(gSignalPipe, O_CLOEXEC) != 0) {
    std::perror("adminhostd: pipe2");
    return 1;
  }
  struct sigaction sa {};
  sa.sa_handler = onSignal;
  sigemptyset(&sa.sa_mask);
  sa.sa_flags = SA_RESTART;
  ::sigaction(SIGTERM, &sa, nullptr);
  ::sigaction(SIGINT, &sa, nullptr);
  // A closed terminal too: the contexts must be saved, not lost to the default action.
  ::sigaction(SIGHUP, &sa, nullptr);

  velm::AdminHost host(options);
  std::thread watcher([&host] {
    unsigned char byte = 0;
    for (;;) {
      ssize_t n = ::read(gSignalPipe[0], &byte, 1);
      if (n < 0 && errno == EINTR) continue;
      if (n != 1 || byte == 0) return;  // run() is over
      HostLog("received %s, stopping", byte == SIGTERM ? "SIGTERM" : byte == SIGINT ? "SIGINT" : "SIGHUP");
      host.requestStop();
    }
  });
  int status = host.run();
  unsigned char done = 0;
  ssize_t r = ::write(gSignalPipe[1], &done, 1);
  (void)r;
  watcher.join();
  return status;
}
