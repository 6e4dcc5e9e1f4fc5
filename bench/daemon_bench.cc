// getState through adminhostd over loopback with keep-alive, beside a bare cpp-httplib server
// that echoes the same body, in the same run: first with client and server on one CPU, then on
// two. Prints requests/s and p50/p99 latency of both and the ratios against the targets
// (p50 at most 1.10x the bare server's, requests/s at least 0.90x).
// Then a second adminhostd, on a controller's SAN of 100 volumes served by velm-simpm, its context
// holding a few minutes of history per volume and eight fibre ports: getState and getVolumes, each
// asked and answered in XML and in JSON (p50 and server CPU per request), and a scrape of
// /metrics beside one getState round trip (target: no slower).
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
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "adminhost/context_store.h"
#include "adminhost/history_store.h"
#include "core/velm_plugin.h"
#include "daemon_support.h"
#include "host/command_router.h"
#include "host/host_metrics.h"
#include "host/hosted_plugin.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "platform/paths.h"
#include "plist/plist.h"
#include "plist/plist_json.h"
#include "san_of_100.h"

#ifndef VELM_BINARY_DIR
#define VELM_BINARY_DIR "build"
#endif

namespace {

using velm::bench::kSanVolumes;
using velm::bench::pinTo;
using velm::bench::readPort;

constexpr int kServerCpu = 0;
constexpr int kIterations = 20000;
constexpr int kWarmup = 1000;
constexpr int kRepetitions = 3;
constexpr size_t kThreads = 16;
constexpr size_t kKeepAliveMax = 1000;  // as adminhostd sets it
constexpr int kSanWarmup = 100;
// Requests in a run of each: a few hundred milliseconds at its pace.
constexpr int kStateRequests = 5000, kVolumesRequests = 500, kScrapeRequests = 2000;
constexpr int kSeedRows = 5;      // a minute apart
constexpr int kFibreTargets = 4;  // two domains each: eight ports

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

// The daemon on the SAN of 100 volumes, and what it is asked.
Server gSanDaemon;
velm::bench::SanOf100 gSan;
std::string gSanToken;
std::size_t gScrapeBytes = 0;

struct SanRequest {
  std::string name;     // "getState/xml", ..., "metrics": the key of gSanResults
  const char* command;  // nullptr: GET /metrics
  bool json;            // body and answer as JSON
  int iterations;
  std::string body;
  httplib::Headers headers;
};
std::vector<SanRequest> gSanRequests;  // fixed before the benchmarks are registered
std::map<std::string, std::vector<Figures>> gSanResults;  // name -> figures of each repetition
velm::PropertyList gSanContext;                           // what the daemon on the SAN loads
// The scrape's parts in this process ("families", "text") -> microseconds, each repetition.
std::map<std::string, std::vector<double>> gScrapeParts;

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

// Sends warmup requests untimed, then one per iteration of state, one after the other on the
// caller's keep-alive connection; the figures, and the server's CPU (server: its pid) for them.
// Nothing when no request was timed.
std::optional<Figures> timeRequests(benchmark::State& state, pid_t server, int warmup,
                                    const std::function<httplib::Result()>& send) {
  for (int i = 0; i < warmup; ++i) send();

  std::vector<std::uint64_t> latencies;
  latencies.reserve(static_cast<size_t>(state.max_iterations));
  velm::Clock& clock = velm::clock();
  double cpuBefore = serverCpuMicros(server);
  std::uint64_t start = clock.monotonicMicros();
  for (auto _ : state) {
    std::uint64_t t0 = clock.monotonicMicros();
    httplib::Result r = send();
    latencies.push_back(clock.monotonicMicros() - t0);
    if (!r || r->status != 200) {
      state.SkipWithError("request failed");
      break;
    }
    benchmark::DoNotOptimize(r->body.data());
  }
  std::uint64_t elapsed = clock.monotonicMicros() - start;
  double cpuUsed = serverCpuMicros(server) - cpuBefore;
  if (latencies.empty() || elapsed == 0) return std::nullopt;
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
  return f;
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
  std::optional<Figures> f = timeRequests(state, server->pid, kWarmup, [&] {
    return client.Post(server->path, headers, gRequestBody, "application/x-plist");
  });
  sched_setaffinity(0, sizeof saved, &saved);
  if (f) gResults[sameCpu ? "same CPU" : "two CPUs"][serverName].push_back(*f);
}

httplib::Result sendSan(httplib::Client& client, const SanRequest& r) {
  if (!r.command) return client.Get("/metrics", r.headers);
  return client.Post(gSanDaemon.path, r.headers, r.body,
                     r.json ? velm::kJsonContentType : velm::kPlistContentType);
}

// Neither end pinned: the figures are those of the daemon as it runs.
void BM_SanRequest(benchmark::State& state, const SanRequest* request) {
  httplib::Client client("127.0.0.1", gSanDaemon.port);
  client.set_keep_alive(true);
  client.set_tcp_nodelay(true);
  std::optional<Figures> f =
      timeRequests(state, gSanDaemon.pid, kSanWarmup, [&] { return sendSan(client, *request); });
  if (f) gSanResults[request->name].push_back(*f);
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

// The page's own work without the network: the plugin's families from the SAN's context, then
// the host's figures and the families as text.
void BM_ScrapeInProcess(benchmark::State& state, bool text) {
  static velm::VelmPlugin plugin;
  std::optional<velm::PropertyList> families = plugin.metricsFromContext(gSanContext);
  if (!families) {
    state.SkipWithError("no families");
    return;
  }
  // The commands the daemon's page counts by then.
  velm::HostMetrics host;
  for (const char* command : {"getState", "getVolumes"})
    host.recordCommand("velm", command, false, 100);
  velm::Clock& clock = velm::clock();
  std::uint64_t start = clock.monotonicMicros();
  for (auto _ : state) {
    if (text) {
      std::string out;
      out.reserve(16384);
      host.render(out);
      velm::appendPluginFamilies(out, "velm", *families);
      benchmark::DoNotOptimize(out.data());
    } else {
      std::optional<velm::PropertyList> f = plugin.metricsFromContext(gSanContext);
      benchmark::DoNotOptimize(f);
    }
  }
  double us = static_cast<double>(clock.monotonicMicros() - start) /
              static_cast<double>(state.iterations());
  gScrapeParts[text ? "text" : "families"].push_back(us);
}

double median(std::vector<double> x) {
  std::sort(x.begin(), x.end());
  return x.empty() ? 0.0 : x[x.size() / 2];
}

Figures median(std::vector<Figures> v) {
  Figures m;
  auto mid = [&](auto field) {
    std::vector<double> x;
    for (const Figures& f : v) x.push_back(f.*field);
    return median(std::move(x));
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
      std::printf("%-9s ratios: req/s %.2fx (target >= 0.90x) %s, p50 %.2fx (target <= 1.10x) %s\n",
                  mode, rpsRatio, rpsRatio >= 0.9 ? "met" : "MISSED", p50Ratio,
                  p50Ratio <= 1.10 ? "met" : "MISSED");
    }
  }
}

void printSanTable() {
  std::printf(
      "\nadminhostd on a SAN of %d volumes: XML against JSON (p50 round trip, median of "
      "repetitions)\n",
      kSanVolumes);
  std::printf("%-11s %8s %8s %9s %15s %15s\n", "command", "XML us", "JSON us", "JSON/XML",
              "server CPU XML", "server CPU JSON");
  for (std::string command : {"getState", "getVolumes"}) {
    Figures xml = median(gSanResults[command + "/xml"]);
    Figures json = median(gSanResults[command + "/json"]);
    if (xml.p50 <= 0 || json.p50 <= 0) continue;
    std::printf("%-11s %8.0f %8.0f %9.2f %15.1f %15.1f\n", command.c_str(), xml.p50, json.p50,
                json.p50 / xml.p50, xml.serverCpu, json.serverCpu);
  }
  Figures scrape = median(gSanResults["metrics"]), state = median(gSanResults["getState/xml"]);
  if (scrape.p50 > 0 && state.p50 > 0) {
    double ratio = scrape.p50 / state.p50;
    std::printf(
        "scrape of /metrics: %.0f us vs one getState round trip %.0f us: ratio %.2f (target <= "
        "1.00) %s\n",
        scrape.p50, state.p50, ratio, ratio <= 1.0 ? "met" : "MISSED");
    std::printf("  the page: %zu bytes; server CPU per scrape %.1f us, per getState %.1f us\n",
                gScrapeBytes, scrape.serverCpu, state.serverCpu);
    std::printf(
        "  in process: the plugin's families from the context %.1f us, the page's text %.1f us\n",
        median(gScrapeParts["families"]), median(gScrapeParts["text"]));
  }
}

// A few minutes of history for every volume and counters of eight fibre ports, as the idle tick
// would have left them, so that a scrape has every family to write. Saved where the daemon loads
// it; false when it could not be.
bool seedSanContext() {
  velm::FakeClock clock(velm::systemClock().wallMicros() - kSeedRows * 60'000'000ull);
  velm::setClockForTest(&clock);
  velm::PropertyList context = velm::PropertyList::dict();
  for (int row = 0; row < kSeedRows; ++row) {
    clock.advanceMicros(60'000'000);
    for (int i = 0; i < kSanVolumes; ++i) {
      long long cpu = 1200 + 10 * row + i;  // hundredths of a percent
      long long resident = (256ll << 20) + 4096ll * (i + row), virt = 2ll << 30;
      velm::PlistArray values = {velm::PropertyList(cpu), velm::PropertyList(resident),
                                 velm::PropertyList(virt)};
      velm::do_update_named_history_data(velm::historyNameForVolume(velm::bench::volumeName(i)),
                                         values, &context);
    }
  }
  velm::setClockForTest(nullptr);
  velm::PropertyList store = velm::PropertyList::dict();
  velm::PropertyList rates = velm::PropertyList::array();
  for (int t = 0; t < kFibreTargets; ++t) {
    for (int domain = 1; domain <= 2; ++domain) {
      char port[32];
      std::snprintf(port, sizeof port, "50060e8000c3a1%02x-%d", t, domain);
      store.set(port, 1'000'000'000'000ull * static_cast<unsigned long long>(t + domain));
      velm::PropertyList rate = velm::PropertyList::dict();
      rate.set(port, 200'000'000ull + static_cast<unsigned long long>(t));
      rates.push(std::move(rate));
    }
  }
  context.set("fibreThroughputStore", std::move(store));
  context.set("fibreThroughputsArray", std::move(rates));
  // Else the daemon's first request would write the whole context back.
  velm::takeContextDirty(&context);
  gSanContext = context;
  return velm::savePluginContext("velm", context) == 0;
}

// What makeControllerRoot points at the SAN; this process wants them back afterwards, for the
// in-process figure's root and the servers' CPU from the real /proc.
constexpr const char* kSanEnvironment[] = {"VELM_ROOT",       "VELM_LOG",    "VELM_HOST_ADDRESSES",
                                           "VELM_PROBE_PORT", "VELM_PROCFS", "DRFSROOT"};

// The SAN, velm-simpm and the daemon on them; this process's environment as it was afterwards.
bool startSanDaemon() {
  std::vector<std::pair<const char*, std::optional<std::string>>> saved;
  for (const char* name : kSanEnvironment) {
    const char* value = std::getenv(name);
    saved.emplace_back(name, value ? std::optional<std::string>(value) : std::nullopt);
  }
  bool ok = velm::bench::prepareSanOf100("velm-daemon-bench-san", &gSan) && seedSanContext();
  if (ok) {
    velm::bench::initAdminLibrary();
    ok = velm::bench::startSanSim("daemon_bench", std::string(VELM_BINARY_DIR) + "/bin/velm-simpm",
                                  &gSan);
  }
  if (ok) {
    velm::bench::DaemonOptions options;
    options.binaryDir = VELM_BINARY_DIR;
    options.root = gSan.root;
    options.idleSeconds = "0";
    options.log = gSan.root + "/daemon.log";
    velm::bench::Daemon daemon = velm::bench::startDaemon(options);
    gSanDaemon = Server{daemon.pid, daemon.port, "/commands/velm"};
    gSanToken = daemon.token;
    ok = daemon.port > 0 && !gSanToken.empty();
  }
  for (const auto& [name, value] : saved) {
    if (value)
      ::setenv(name, value->c_str(), 1);
    else
      ::unsetenv(name);
  }
  velm::resetPathsForTest();
  return ok;
}

// In the order they run: the scrape just after the getState it is held against.
void makeSanRequests() {
  httplib::Headers authorization = {{"Authorization", "Bearer " + gSanToken}};
  auto add = [&](const char* command, bool json, int iterations) {
    SanRequest r{"metrics", command, json, iterations, "", authorization};
    if (command) {
      r.name = std::string(command) + (json ? "/json" : "/xml");
      velm::PropertyList request = velm::PropertyList::dict();
      request.set("command", command);
      r.body =
          json ? velm::writeJson(request, velm::JsonLayout::Compact) : velm::writeXmlPlist(request);
    }
    if (json) r.headers.emplace("Accept", velm::kJsonContentType);
    gSanRequests.push_back(std::move(r));
  };
  add("getState", false, kStateRequests);
  add(nullptr, false, kScrapeRequests);
  add("getState", true, kStateRequests);
  add("getVolumes", false, kVolumesRequests);
  add("getVolumes", true, kVolumesRequests);
}

std::size_t countLinesStartingWith(const std::string& text, std::string_view prefix) {
  std::size_t n = 0;
  for (std::size_t at = 0; at < text.size();) {
    if (text.compare(at, prefix.size(), prefix) == 0) ++n;
    std::size_t next = text.find('\n', at);
    if (next == std::string::npos) break;
    at = next + 1;
  }
  return n;
}

// Every answer as the figures assume it: 200 in the format asked, getVolumes with every volume,
// and a page with every volume's and port's samples. Nothing, or what was wrong.
std::optional<std::string> checkSanAnswers() {
  httplib::Client client("127.0.0.1", gSanDaemon.port);
  for (const SanRequest& r : gSanRequests) {
    httplib::Result answer = sendSan(client, r);
    if (!answer) return r.name + ": no answer";
    if (answer->status != 200) return r.name + ": status " + std::to_string(answer->status);
    if (!r.command) {
      gScrapeBytes = answer->body.size();
      for (auto [family, want] : {std::pair{"velm_fsm_resident_bytes", kSanVolumes},
                                  std::pair{"velm_fibre_bytes_total", 2 * kFibreTargets},
                                  std::pair{"velm_fibre_bytes_per_second", 2 * kFibreTargets}}) {
        std::size_t got = countLinesStartingWith(answer->body, std::string(family) + "{");
        if (got != static_cast<std::size_t>(want))
          return "metrics: " + std::to_string(got) + " samples of " + family + ", not " +
                 std::to_string(want);
      }
      continue;
    }
    std::string type = velm::mediaType(answer->get_header_value("Content-Type"));
    if (type != (r.json ? velm::kJsonContentType : velm::kPlistContentType))
      return r.name + ": answered as " + type;
    velm::PlistReadResult read =
        r.json ? velm::readJson(answer->body) : velm::readXmlPlist(answer->body);
    if (!read) return r.name + ": " + read.error;
    const velm::PropertyList* volumes = read.value->get("volumes");
    const std::string* state = read.value->getString("state");
    bool right = std::string_view(r.command) == "getVolumes"
                     ? volumes && volumes->size() == static_cast<std::size_t>(kSanVolumes)
                     : state && *state == "RUNNING";
    if (!right) return r.name + ": not the answer wanted: " + velm::writeJson(*read.value);
  }
  return std::nullopt;
}

void stopAll() {
  stop(gDaemon);
  stop(gBare);
  stop(gSanDaemon);
  QMAdmin_Teardown();
  velm::bench::stopSanOf100(&gSan);
  std::error_code ec;
  std::filesystem::remove_all(gRoot, ec);
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
  // Only now: the two above fork before this process has a thread, and this one is not pinned.
  if (!startSanDaemon()) {
    std::fprintf(stderr, "daemon_bench: the daemon on the SAN of %d volumes did not start\n",
                 kSanVolumes);
    stopAll();
    return 1;
  }
  makeSanRequests();
  if (std::optional<std::string> wrong = checkSanAnswers()) {
    std::fprintf(stderr, "daemon_bench: the daemon on the SAN answers wrongly: %s\n",
                 wrong->c_str());
    stopAll();
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
  // The formats alternate, repetition by repetition, as above.
  for (int rep = 0; rep < kRepetitions; ++rep) {
    for (const SanRequest& r : gSanRequests) {
      benchmark::RegisterBenchmark(("San100/" + r.name).c_str(), BM_SanRequest, &r)
          ->Iterations(r.iterations)
          ->UseRealTime();
    }
    benchmark::RegisterBenchmark("San100/ScrapeInProcess/families", BM_ScrapeInProcess, false)
        ->Iterations(kScrapeRequests);
    benchmark::RegisterBenchmark("San100/ScrapeInProcess/text", BM_ScrapeInProcess, true)
        ->Iterations(kScrapeRequests);
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  printSummary();
  printSanTable();

  stopAll();
  return 0;
}
