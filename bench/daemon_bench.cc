// getState through adminhostd over loopback with keep-alive, beside a bare cpp-httplib server
// that echoes the same body, in the same run: first with client and server on one CPU, then on
// two. Prints requests/s and p50/p99 latency of both and the ratios against the targets
// (p50 at most 1.25x the bare server's, requests/s at least 0.8x).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <httplib.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "daemon_support.h"
#include "host/command_router.h"
#include "host/hosted_plugin.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "platform/paths.h"
#include "plist/plist.h"

#ifndef VELM_BINARY_DIR
#define VELM_BINARY_DIR "build"
#endif

namespace {

using velm::bench::pinTo;
using velm::bench::readPort;

constexpr int kServerCpu = 0;
constexpr int kIterations = 20000;
constexpr int kWarmup = 1000;
constexpr int kRepetitions = 3;
constexpr size_t kThreads = 16;
constexpr size_t kKeepAliveMax = 1000;  // as adminhostd sets it

struct Server {
  pid_t pid = -1;
  int port = 0;
  std::string path;  // what to POST to
};

Server gDaemon, gBare;
std::string gToken, gRequestBody, gRoot;
int gCpus = 1;

struct Figures {
  double rps = 0, p50 = 0, p99 = 0, serverCpu = 0;  // serverCpu: microseconds per request
};
// mode ("same CPU", "two CPUs") -> server ("bare", "adminhostd") -> figures of each repetition
std::map<std::string, std::map<std::string, std::vector<Figures>>> gResults;

// Both servers start before any thread of this process exists, pinned before their own
// threads do, so every one of their threads stays on kServerCpu.
Server startDaemon() {
  std::string log = gRoot + "/daemon.log";
  ::setenv("VELM_LOG", log.c_str(), 1);
  velm::bench::DaemonOptions options;
  options.binaryDir = VELM_BINARY_DIR;
  options.root = gRoot;
  options.cpu = kServerCpu;
  // No idle ticks: the figure is the request path's.
  velm::bench::Daemon daemon = velm::bench::startDaemon(options);
  return Server{daemon.pid, daemon.port, "/commands/velm"};
}

Server startBare() {
  Server s;
  int out[2];
  if (::pipe(out) != 0) return s;
  s.pid = ::fork();
  if (s.pid == 0) {
    pinTo(0, kServerCpu);
    ::close(out[0]);
    httplib::Server server;
    server.set_tcp_nodelay(true);
    server.set_keep_alive_max_count(kKeepAliveMax);
    server.new_task_queue = [] { return new httplib::ThreadPool(kThreads); };
    server.Post("/echo", [](const httplib::Request& req, httplib::Response& res) {
      res.set_content(req.body, "application/x-plist");
    });
    int port = server.bind_to_any_port("127.0.0.1");
    std::string line = "port:" + std::to_string(port) + "\n";
    if (::write(out[1], line.data(), line.size()) < 0) ::_exit(1);
    ::close(out[1]);
    server.listen_after_bind();
    ::_exit(0);
  }
  ::close(out[1]);
  s.port = readPort(out[0]);
  ::close(out[0]);
  s.path = "/echo";
  return s;
}

void stop(Server& s) {
  if (s.pid <= 0) return;
  ::kill(s.pid, SIGTERM);
  int status = 0;
  ::waitpid(s.pid, &status, 0);
  s.pid = -1;
}

// CPU time the server process has used so far (all its threads), in microseconds.
double serverCpuMicros(pid_t pid) {
  std::optional<std::string> stat = velm::readFile(velm::procfsPath(std::to_string(pid) + "/stat"));
  if (!stat) return 0;
  size_t close = stat->rfind(')');
  if (close == std::string::npos) return 0;
  // After the command name: state is field 3; utime and stime are fields 14 and 15.
  std::vector<std::string> fields;
  size_t at = close + 2;
  while (at < stat->size() && fields.size() < 13) {
    size_t space = stat->find(' ', at);
    fields.push_back(stat->substr(at, space - at));
    if (space == std::string::npos) break;
    at = space + 1;
  }
  if (fields.size() < 13) return 0;
  double ticks = std::atof(fields[11].c_str()) + std::atof(fields[12].c_str());
  return ticks * 1e6 / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

void BM_Request(benchmark::State& state, const Server* server, const char* serverName,
                bool sameCpu) {
  cpu_set_t saved;
  sched_getaffinity(0, sizeof saved, &saved);
  pinTo(0, sameCpu ? kServerCpu : kServerCpu + 1);
  httplib::Client client("127.0.0.1", server->port);
  client.set_keep_alive(true);
  client.set_tcp_nodelay(true);
  httplib::Headers headers = {{"Authorization", "Bearer " + gToken}};
  for (int i = 0; i < kWarmup; ++i)
    client.Post(server->path, headers, gRequestBody, "application/x-plist");

  std::vector<std::uint64_t> latencies;
  latencies.reserve(kIterations);
  velm::Clock& clock = velm::clock();
  double cpuBefore = serverCpuMicros(server->pid);
  std::uint64_t start = clock.monotonicMicros();
  for (auto _ : state) {
    std::uint64_t t0 = clock.monotonicMicros();
    httplib::Result r = client.Post(server->path, headers, gRequestBody, "application/x-plist");
    latencies.push_back(clock.monotonicMicros() - t0);
    if (!r || r->status != 200) {
      state.SkipWithError("request failed");
      break;
    }
    benchmark::DoNotOptimize(r->body.data());
  }
  std::uint64_t elapsed = clock.monotonicMicros() - start;
  double cpuUsed = serverCpuMicros(server->pid) - cpuBefore;
  sched_setaffinity(0, sizeof saved, &saved);
  if (latencies.empty() || elapsed == 0) return;
  std::sort(latencies.begin(), latencies.end());
  Figures f;
  f.rps = static_cast<double>(latencies.size()) * 1e6 / static_cast<double>(elapsed);
  f.p50 = static_cast<double>(latencies[latencies.size() / 2]);
  f.p99 = static_cast<double>(latencies[latencies.size() * 99 / 100]);
  state.counters["req/s"] = f.rps;
  state.counters["p50_us"] = f.p50;
  state.counters["p99_us"] = f.p99;
  f.serverCpu = cpuUsed / static_cast<double>(latencies.size());
  state.counters["server_cpu_us"] = f.serverCpu;
  state.SetItemsProcessed(static_cast<int64_t>(latencies.size()));
  gResults[sameCpu ? "same CPU" : "two CPUs"][serverName].push_back(f);
}

// The daemon's own work for one request, without the network: token check, plist parse, the
// plugin's getState, plist write.
void BM_RequestPathInProcess(benchmark::State& state) {
  static std::vector<std::unique_ptr<velm::HostedPlugin>> plugins =
      velm::loadPluginsFromDirectory(gRoot + "/plugins");
  if (plugins.empty()) {
    state.SkipWithError("no velm plugin");
    return;
  }
  velm::CommandRouter router(gToken, {{"velm", plugins.front().get()}});
  std::string authorization = "Bearer " + gToken;
  velm::CommandRequest request;
  request.plugin = "velm";
  request.authorization = authorization;
  request.body = gRequestBody;
  for (auto _ : state) {
    velm::CommandAnswer answer = router.handle(request);
    benchmark::DoNotOptimize(answer.body.data());
  }
  state.SetItemsProcessed(state.iterations());
}

Figures median(std::vector<Figures> v) {
  Figures m;
  auto mid = [&](auto field) {
    std::vector<double> x;
    for (const Figures& f : v) x.push_back(f.*field);
    std::sort(x.begin(), x.end());
    return x.empty() ? 0.0 : x[x.size() / 2];
  };
  m.rps = mid(&Figures::rps);
  m.p50 = mid(&Figures::p50);
  m.p99 = mid(&Figures::p99);
  m.serverCpu = mid(&Figures::serverCpu);
  return m;
}

void printSummary() {
  std::printf("\nadminhostd getState vs a bare cpp-httplib echo server (median of repetitions)\n");
  std::printf("%-9s %-11s %10s %8s %8s %14s\n", "mode", "server", "req/s", "p50 us", "p99 us",
              "server CPU us");
  for (const char* mode : {"same CPU", "two CPUs"}) {
    auto it = gResults.find(mode);
    if (it == gResults.end()) continue;
    Figures bare = median(it->second["bare"]), daemon = median(it->second["adminhostd"]);
    std::printf("%-9s %-11s %10.0f %8.0f %8.0f %14.1f\n", mode, "bare", bare.rps, bare.p50,
                bare.p99, bare.serverCpu);
    std::printf("%-9s %-11s %10.0f %8.0f %8.0f %14.1f\n", mode, "adminhostd", daemon.rps,
                daemon.p50, daemon.p99, daemon.serverCpu);
    if (bare.rps > 0 && bare.p50 > 0) {
      double rpsRatio = daemon.rps / bare.rps, p50Ratio = daemon.p50 / bare.p50;
      std::printf("%-9s ratios: req/s %.2fx (target >= 0.80x) %s, p50 %.2fx (target <= 1.25x) %s\n",
                  mode, rpsRatio, rpsRatio >= 0.8 ? "met" : "MISSED", p50Ratio,
                  p50Ratio <= 1.25 ? "met" : "MISSED");
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  ::signal(SIGPIPE, SIG_IGN);
  char tmpl[] = "/tmp/velm-daemon-bench-XXXXXX";
  if (!::mkdtemp(tmpl)) return 1;
  gRoot = tmpl;
  ::setenv("VELM_ROOT", gRoot.c_str(), 1);
  cpu_set_t mine;
  sched_getaffinity(0, sizeof mine, &mine);
  gCpus = CPU_COUNT(&mine);

  velm::PropertyList request = velm::PropertyList::dict();
  request.set("command", "getState");
  gRequestBody = velm::writeXmlPlist(request);
  gDaemon = startDaemon();
  gBare = startBare();
  gToken = velm::readFile(gRoot + "/var/adminhostd/admin.token").value_or("");
  if (gDaemon.port <= 0 || gBare.port <= 0 || gToken.empty()) {
    std::fprintf(stderr, "daemon_bench: a server did not start (daemon port %d, bare port %d)\n",
                 gDaemon.port, gBare.port);
    stop(gDaemon);
    stop(gBare);
    return 1;
  }

  benchmark::RegisterBenchmark("RequestPath/InProcess", BM_RequestPathInProcess);
  // Bare and daemon alternate, repetition by repetition, so that a noisy neighbour on this
  // shared machine hits both alike.
  for (bool sameCpu : {true, false}) {
    if (!sameCpu && gCpus < 2) break;
    const char* mode = sameCpu ? "SameCpu" : "TwoCpus";
    for (int rep = 0; rep < kRepetitions; ++rep) {
      for (auto [server, name] : {std::pair{&gBare, "bare"}, std::pair{&gDaemon, "adminhostd"}}) {
        benchmark::RegisterBenchmark((std::string("Loopback/") + mode + "/" + name).c_str(),
                                     BM_Request, server, name, sameCpu)
            ->Iterations(kIterations)
            ->UseRealTime();
      }
    }
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  printSummary();

  stop(gDaemon);
  stop(gBare);
  std::error_code ec;
  std::filesystem::remove_all(gRoot, ec);
  return 0;
}
