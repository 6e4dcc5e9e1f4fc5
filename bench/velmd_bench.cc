// The velmd exchange against velm-simd: one sanConfigChanged request and its reply, beside the
// floor measured in the same run, a bare UNIX-socket echo of the same bytes (connect, send the
// request, read the same reply to its end, close). Prints both and their ratio (target: 2x).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>

#include "bench_support.h"
#include "gateway/san_filesystem.h"
#include "gateway/velmd_rpc.h"
#include "platform/clock.h"
#include "platform/paths.h"
#include "platform/socket_io.h"

extern char** environ;

namespace {

using velm::bench::binDir;

std::string gRoot;
pid_t gSim = -1;
std::string gRequest;  // the bytes the plugin sends
std::string gReply;    // the bytes velm-simd answers
std::string gEchoPath;
int gEchoListen = -1;
std::thread gEchoThread;

velm::PropertyList command() {
  velm::PropertyList c = velm::PropertyList::dict();
  c.set("command", "sanConfigChanged");
  return c;
}

int connectTo(const std::string& path) {
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un a{};
  a.sun_family = AF_UNIX;
  std::strncpy(a.sun_path, path.c_str(), sizeof a.sun_path - 1);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

// Reads to the reply's end (or EOF) with plain blocking reads.
std::string readReply(int fd) {
  std::string got;
  char buf[1024];
  while (!velm::velmdReplyIsComplete(got)) {
    ssize_t n = ::read(fd, buf, sizeof buf);
    if (n <= 0) break;
    got.append(buf, static_cast<size_t>(n));
  }
  return got;
}

bool startSim() {
  // Before the sandbox's procfs takes the place of the real one.
  std::string path = binDir() + "/velm-simd";
  char tmpl[] = "/tmp/velmd-bench-XXXXXX";
  if (!::mkdtemp(tmpl)) return false;
  gRoot = tmpl;
  ::setenv("VELM_ROOT", gRoot.c_str(), 1);
  ::setenv("VELM_PROCFS", (gRoot + "/proc").c_str(), 1);
  ::setenv("VELM_LOG", "/dev/null", 1);
  velm::resetPathsForTest();
  std::string log = gRoot + "/simd.log";
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 2, log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  const char* argv[] = {path.c_str(), "--root", gRoot.c_str(), nullptr};
  int rc = ::posix_spawn(&gSim, path.c_str(), &actions, nullptr, const_cast<char**>(argv), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) {
    std::fprintf(stderr, "velmd_bench: cannot start %s: %s\n", path.c_str(), std::strerror(rc));
    gSim = -1;
    return false;
  }
  gRequest = velm::writeXmlPlist(command());
  for (int tries = 0; tries < 200; ++tries) {
    int fd = connectTo(velm::velmdSocketPath());
    if (fd >= 0) {
      velm::sendAll(fd, gRequest.data(), gRequest.size());
      gReply = readReply(fd);
      ::close(fd);
      return velm::velmdReplyIsComplete(gReply);
    }
    velm::clock().sleepMicros(50000);
  }
  std::fprintf(stderr, "velmd_bench: velm-simd did not listen (see %s)\n", log.c_str());
  return false;
}

void stopSim() {
  if (gSim > 0) {
    ::kill(gSim, SIGTERM);
    ::waitpid(gSim, nullptr, 0);
  }
  if (gEchoListen >= 0) ::shutdown(gEchoListen, SHUT_RDWR);
  if (gEchoThread.joinable()) gEchoThread.join();
  std::error_code ec;
  std::filesystem::remove_all(gRoot, ec);
}

// The floor: reads each request to its end and answers the recorded reply.
bool startEcho() {
  gEchoPath = gRoot + "/echo.socket";
  gEchoListen = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un a{};
  a.sun_family = AF_UNIX;
  std::strncpy(a.sun_path, gEchoPath.c_str(), sizeof a.sun_path - 1);
  if (::bind(gEchoListen, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
      ::listen(gEchoListen, 64) != 0)
    return false;
  gEchoThread = std::thread([] {
    while (true) {
      int fd = ::accept4(gEchoListen, nullptr, nullptr, SOCK_CLOEXEC);
      if (fd < 0) return;
      readReply(fd);
      velm::sendAll(fd, gReply.data(), gReply.size());
      ::close(fd);
    }
  });
  return true;
}

void BM_UnixSocketEcho(benchmark::State& state) {
  for (auto _ : state) {
    int fd = connectTo(gEchoPath);
    velm::sendAll(fd, gRequest.data(), gRequest.size());
    std::string reply = readReply(fd);
    ::close(fd);
    if (reply.size() != gReply.size()) state.SkipWithError("short echo");
    benchmark::DoNotOptimize(reply);
  }
}

void BM_VelmdSanConfigChanged(benchmark::State& state) {
  velm::SANFilesystem& fs = velm::SANFilesystem::localFilesystem();
  for (auto _ : state) {
    std::optional<velm::PropertyList> reply = fs.doVelmdManagementRpcWithCommand(command());
    if (!reply || reply->get("error")) state.SkipWithError("velm-simd refused");
    benchmark::DoNotOptimize(reply);
  }
}

BENCHMARK(BM_UnixSocketEcho)->MinTime(1.0);
BENCHMARK(BM_VelmdSanConfigChanged)->MinTime(1.0);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  std::signal(SIGPIPE, SIG_IGN);
  if (!startSim() || !startEcho()) {
    stopSim();
    return 1;
  }
  velm::bench::CapturingReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  double floor = reporter.ns("BM_UnixSocketEcho"), ours = reporter.ns("BM_VelmdSanConfigChanged");
  if (floor > 0 && ours > 0) {
    std::printf(
        "\nper request (microseconds)           ours     floor   ratio  (target <= 2.00)\n");
    std::printf("sanConfigChanged via velm-simd  %8.2f  %8.2f  %6.2f\n", ours / 1000.0,
                floor / 1000.0, ours / floor);
  }
  stopSim();
  benchmark::Shutdown();
  return 0;
}
