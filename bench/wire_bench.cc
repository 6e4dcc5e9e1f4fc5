// The admin facade over loopback against velm-simpm: one QMAdmin_NSListFsm walk of 100 FSMs and
// one QMAdmin_FSMStat, beside the floor measured in the same run, a plain 1024-byte echo over a
// loopback TCP socket. Prints each figure per request and its ratio to the floor (target: 3x).
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <thread>

#include "adminlib/adminlib.h"
#include "adminlib/qmadminlib.h"
#include "bench_support.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "platform/paths.h"
#include "platform/socket_io.h"

extern char** environ;

namespace {

using velm::bench::binDir;
using velm::bench::freePort;
using velm::bench::writeFile;

constexpr int kFsms = 100;
constexpr std::size_t kEchoLen = 1024;

std::string gRoot;
pid_t gSim = -1;
int gNs = -1;   // name-service handle
int gFsm = -1;  // FSM handle

// A sandbox root with the client's fsports, and a sim root beside it with 100 FSMs.
bool prepareRoot() {
  char tmpl[] = "velm-wire-bench-XXXXXX";
  std::string base = (std::filesystem::temp_directory_path() / tmpl).string();
  if (!::mkdtemp(base.data())) return false;
  gRoot = base;
  std::string fsports = "altpmap " + std::to_string(freePort()) + "\n";
  std::string config =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n"
      "<key>fsms</key><array>\n";
  for (int i = 0; i < kFsms; ++i)
    config += "<dict><key>name</key><string>vol" + std::to_string(i) +
              "</string><key>priority</key><integer>" + std::to_string(i % 2) +
              "</integer><key>pid</key><integer>" + std::to_string(1000 + i) +
              "</integer></dict>\n";
  config += "</array>\n</dict>\n</plist>\n";
  ::setenv("VELM_ROOT", (gRoot + "/client").c_str(), 1);
  ::unsetenv("DRFSROOT");
  return writeFile(gRoot + "/client/Library/Filesystems/Velm/config/fsports", fsports) &&
         writeFile(gRoot + "/sim/Library/Filesystems/Velm/config/fsports", fsports) &&
         writeFile(gRoot + "/sim/simpm.plist", config);
}

bool startSim() {
  std::string path = binDir() + "/velm-simpm";
  std::string log = gRoot + "/simpm.log";
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  // Its per-request log goes to a file: nobody drains a pipe during the run.
  posix_spawn_file_actions_addopen(&actions, 2, log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  std::string root = gRoot + "/sim";
  const char* argv[] = {path.c_str(), "--root", root.c_str(), "--listen", "127.0.0.1", nullptr};
  int rc = ::posix_spawn(&gSim, path.c_str(), &actions, nullptr, const_cast<char**>(argv), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) {
    std::fprintf(stderr, "wire_bench: cannot start %s: %s\n", path.c_str(), std::strerror(rc));
    gSim = -1;
    return false;
  }
  char err[ADMIN_ERRBUF_LEN] = {};
  for (int tries = 0; tries < 200; ++tries) {
    int status = 0;
    if (::waitpid(gSim, &status, WNOHANG) == gSim) {
      std::fprintf(stderr, "wire_bench: velm-simpm ended (see %s)\n", log.c_str());
      gSim = -1;
      return false;
    }
    gNs = QMAdmin_NSConnect("127.0.0.1", err);
    if (gNs >= 0) return true;
    AltGetportResetForTest();
    velm::clock().sleepMicros(50000);
  }
  std::fprintf(stderr, "wire_bench: no port mapper: %s\n", err);
  return false;
}

void stopSim() {
  QMAdmin_Teardown();
  if (gSim > 0) {
    ::kill(gSim, SIGTERM);
    ::waitpid(gSim, nullptr, 0);
  }
  std::error_code ec;
  if (!gRoot.empty()) std::filesystem::remove_all(gRoot, ec);
}

// ---- The floor: a 1024-byte echo over loopback TCP ----

void BM_LoopbackEcho1024(benchmark::State& state) { velm::bench::runLoopbackEcho(state, kEchoLen); }

// ---- The facade ----

void BM_NSListFsmWalk100(benchmark::State& state) {
  char err[ADMIN_ERRBUF_LEN] = {};
  QMAdminFsmRecord rec{};
  for (auto _ : state) {
    int n = 0;
    for (int i = 0;; ++i) {
      int s = QMAdmin_NSListFsm(gNs, i, &rec, err);
      if (s == QMFS_EOF) break;
      if (s != 0) {
        state.SkipWithError(err);
        return;
      }
      ++n;
    }
    if (n != kFsms) {
      state.SkipWithError("the walk did not see 100 FSMs");
      return;
    }
    benchmark::DoNotOptimize(rec);
  }
  // 100 entries and the end of the list: 101 exchanges per walk.
  state.counters["requests"] = kFsms + 1;
}

void BM_FSMStat(benchmark::State& state) {
  QMAdminFsStat st{};
  for (auto _ : state) {
    if (QMAdmin_FSMStat(gFsm, &st) != 0) {
      state.SkipWithError("QMAdmin_FSMStat failed");
      return;
    }
    benchmark::DoNotOptimize(st);
  }
}

BENCHMARK(BM_LoopbackEcho1024)->MinTime(1.0);
BENCHMARK(BM_NSListFsmWalk100)->MinTime(1.0);
BENCHMARK(BM_FSMStat)->MinTime(1.0);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (!prepareRoot()) {
    std::fprintf(stderr, "wire_bench: cannot prepare a sandbox root\n");
    return 1;
  }
  QMAdmin_Init();
  AltGetportResetForTest();
  if (!startSim()) {
    stopSim();
    return 1;
  }
  char err[ADMIN_ERRBUF_LEN] = {};
  QMAdminFsmRecord rec{};
  if (QMAdmin_NSFsmLocate(gNs, "vol0", -1, &rec) != 0 ||
      (gFsm = QMAdmin_FSMConnect(gNs, &rec, err)) < 0) {
    std::fprintf(stderr, "wire_bench: no FSM connection: %s\n", err);
    stopSim();
    return 1;
  }

  velm::bench::CapturingReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);

  if (double floorNs = reporter.ns("BM_LoopbackEcho1024"); floorNs > 0) {
    double floorUs = floorNs / 1000.0;
    std::printf("\nper request (microseconds)          ours     floor   ratio  (target <= 3.00)\n");
    if (double walk = reporter.ns("BM_NSListFsmWalk100"); walk > 0) {
      double us = walk / 1000.0 / (kFsms + 1);
      std::printf("QMAdmin_NSListFsm (walk of %d)  %8.2f  %8.2f  %6.2f\n", kFsms, us, floorUs,
                  us / floorUs);
      std::printf("  whole walk: %.1f us\n", walk / 1000.0);
    }
    if (double stat = reporter.ns("BM_FSMStat"); stat > 0) {
      double us = stat / 1000.0;
      std::printf("QMAdmin_FSMStat                 %8.2f  %8.2f  %6.2f\n", us, floorUs,
                  us / floorUs);
    }
  }
  QMAdmin_FSMDisconnect(gFsm);
  QMAdmin_NSDisconnect(gNs);
  stopSim();
  benchmark::Shutdown();
  return 0;
}
