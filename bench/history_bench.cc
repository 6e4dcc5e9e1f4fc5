// The history the idle tick keeps, each figure beside its anchor in the same run:
//  1. a controller's doIdle tick with 20 volumes on velm-simpm, CPU of this process (the
//     stand-in's work is its own), against the floor of the work: 20 bare walks of the process
//     table, a loopback connect per connection and a small echo per wire request the tick makes
//     (both counted). Target: within 1.25x.
//  2. a client's tick (the machine's row only) beside bare reads of /proc/stat and the sampled
//     interfaces' counters. Target: under 200 us CPU.
//  3. getHistory of a full machine table, answered and written as XML, against the XML writing of
//     the same response alone. Target: within 1.5x.
//  4. getState p99 through adminhostd on a 20-volume controller ticking every second, against the
//     same daemon without ticks. Target: within 1.5x.
// The in-process plugin runs on a fake clock moved 60 s a tick, so every sampler reads each time;
// its process table is the real /proc, where velm-simpm runs as "fsmpm".
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <httplib.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

#include "adminhost/history_store.h"
#include "adminhost/host_common.h"
#include "adminlib/adminlib.h"
#include "adminlib/fsmcomm.h"
#include "adminlib/qmadminlib.h"
#include "adminlib/sock46.h"
#include "bench_support.h"
#include "wire_counters.h"
#include "sim_port_mapper.h"
#include "config/config_test_util.h"
#include "core/san_computer.h"
#include "core/velm_plugin.h"
#include "daemon_support.h"
#include "gateway/san_filesystem.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "platform/paths.h"
#include "platform/socket_io.h"

namespace {
std::atomic<long> gConnects{0};
using velm::bench::gLookupNs;
using velm::bench::gSends;
using velm::bench::gLookups;
}  // namespace

// Every connection the admin library opens is one connect(): counted beside the sends.
extern "C" int connect(int fd, const struct sockaddr* addr, socklen_t len) {
  using Fn = int (*)(int, const struct sockaddr*, socklen_t);
  static const Fn real = reinterpret_cast<Fn>(::dlsym(RTLD_NEXT, "connect"));
  if (!real) {
    errno = ENOSYS;
    return -1;
  }
  if (addr && (addr->sa_family == AF_INET || addr->sa_family == AF_INET6))
    gConnects.fetch_add(1, std::memory_order_relaxed);
  return real(fd, addr, len);
}


namespace {

using velm::PropertyList;
using velm::bench::writeFile;

constexpr int kVolumes = 20;
constexpr const char* kController = "127.0.0.2";
constexpr std::size_t kEchoLen = 256;
constexpr int kCountTicks = 5;
constexpr std::uint64_t kTickMicros = 60'000'000;
constexpr int kDaemonRequests = 60000;
constexpr int kRepetitions = 3;
constexpr int kConnects = 4000;

std::string gRoot, gSimLog, gPluginLog;
pid_t gSim = -1, gEcho = -1;
int gPmPort = 0;
sockaddr_in gEchoAddress{};
velm::FakeClock gClock;
std::unique_ptr<velm::VelmPlugin> gPlugin;
PropertyList gContext = PropertyList::dict();
long long gCount = 0;
bool gClient = false;
std::size_t gProcesses = 0;  // in the table when it was walked

// What one controller tick does, counted over kCountTicks ticks.
struct TickCounts {
  double connects = 0, requests = 0, simLogLines = 0, lookups = 0, lookupUs = 0;
  long pluginLogLines = 0;  // over all kCountTicks: NLog is off, NError is not
} gCounts;

std::string volumeName(int i) {
  char name[16];
  std::snprintf(name, sizeof name, "vol%02d", i);
  return name;
}

std::string configDirOf(const std::string& root) {
  return root + "/Library/Filesystems/Velm/config";
}

long countLines(const std::string& path) {
  std::optional<std::string> text = velm::readFile(path);
  return text ? static_cast<long>(std::count(text->begin(), text->end(), '\n')) : 0;
}

// A controller's root: its role, its volumes' files, the port mapper's port.
bool writeControllerRoot(const std::string& root, int pmPort) {
  std::string dir = configDirOf(root);
  bool ok = writeFile(dir + "/config.plist",
                      "<plist version=\"1.0\"><dict><key>role</key><string>CONTROLLER</string>"
                      "</dict></plist>\n") &&
            writeFile(dir + "/fsports", "altpmap " + std::to_string(pmPort) + "\n");
  for (int i = 0; ok && i < kVolumes; ++i)
    ok = writeFile(dir + "/" + volumeName(i) + ".cfg", std::string(velm::test::kRealisticConfig));
  return ok;
}

// Every FSM names this process as its own, so the process walk has a real entry to find.
std::string simConfig() {
  std::string fsms;
  for (int i = 0; i < kVolumes; ++i)
    fsms += "<dict><key>name</key><string>" + volumeName(i) +
            "</string><key>priority</key><integer>1</integer><key>active</key><true/>"
            "<key>running</key><true/><key>pid</key><integer>" +
            std::to_string(::getpid()) + "</integer></dict>\n";
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
         "<key>fsms</key><array>\n" +
         fsms + "</array></dict></plist>\n";
}

// Named fsmpm in the process table, as the plugin looks for its port mapper there.
bool startSim(const std::string& path) {
  gSim = velm::bench::startSimPortMapper("history_bench", path, gRoot, kController, gSimLog,
                                         "fsmpm");
  return gSim > 0;
}

// A loopback echo server in a process of its own, as the port mapper is: its side of each
// exchange is not in this process's CPU time. Started before this process has any thread.
bool startEchoServer() {
  int lfd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  gEchoAddress.sin_family = AF_INET;
  gEchoAddress.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof gEchoAddress;
  if (lfd < 0 || ::bind(lfd, reinterpret_cast<sockaddr*>(&gEchoAddress), len) != 0 ||
      ::listen(lfd, 128) != 0 ||
      ::getsockname(lfd, reinterpret_cast<sockaddr*>(&gEchoAddress), &len) != 0)
    return false;
  gEcho = ::fork();
  if (gEcho == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    // One thread and one poll for every connection: a new one costs this side no thread.
    std::vector<pollfd> fds{{lfd, POLLIN, 0}};
    char buf[4096];
    for (;;) {
      if (::poll(fds.data(), fds.size(), -1) <= 0) continue;
      for (std::size_t i = fds.size() - 1; i > 0; --i) {
        if (!fds[i].revents) continue;
        ssize_t n = ::read(fds[i].fd, buf, sizeof buf);
        if (n <= 0 || !velm::sendAll(fds[i].fd, buf, static_cast<std::size_t>(n))) {
          ::close(fds[i].fd);
          fds.erase(fds.begin() + static_cast<std::ptrdiff_t>(i));
        }
      }
      if (fds[0].revents & POLLIN) {
        int fd = ::accept4(lfd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd >= 0) fds.push_back({fd, POLLIN, 0});
      }
    }
  }
  ::close(lfd);
  return gEcho > 0;
}

int connectToEcho() {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd >= 0 &&
      ::connect(fd, reinterpret_cast<const sockaddr*>(&gEchoAddress), sizeof gEchoAddress) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

PropertyList request(const char* command) {
  PropertyList r = PropertyList::dict();
  r.set("command", command);
  return r;
}

std::optional<PropertyList> run(const PropertyList& r) {
  std::int32_t lockFd = -1;
  return gPlugin->doProcessInputWithRequest(r, &gContext, &lockFd);
}

void tick() {
  gClock.advanceMicros(kTickMicros);
  PropertyList r = request("doIdle");
  r.set("count", gCount++);
  run(r);
}

// ---- 1. The controller's tick and its floor ----

// One walk as the sampler's: the table's directory, then every process's stat file, read whole.
std::size_t bareProcWalk(const std::string& procfs) {
  std::size_t bytes = 0;
  DIR* dir = ::opendir(procfs.c_str());
  if (!dir) return 0;
  char path[512], buf[4096];
  while (dirent* e = ::readdir(dir)) {
    if (e->d_name[0] < '0' || e->d_name[0] > '9') continue;
    std::snprintf(path, sizeof path, "%s/%s/stat", procfs.c_str(), e->d_name);
    int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) continue;
    ssize_t n = ::read(fd, buf, sizeof buf);
    if (n > 0) bytes += static_cast<std::size_t>(n);
    ::close(fd);
  }
  ::closedir(dir);
  return bytes;
}

std::size_t processCount() {
  std::size_t n = 0;
  std::error_code ec;
  for (const auto& e : std::filesystem::directory_iterator(velm::procfsPath(), ec)) {
    char c = e.path().filename().string()[0];
    if (c >= '0' && c <= '9') ++n;
  }
  return n;
}

void BM_ProcWalks20(benchmark::State& state) {
  std::string procfs = velm::procfsPath();
  for (auto _ : state)
    for (int i = 0; i < kVolumes; ++i) benchmark::DoNotOptimize(bareProcWalk(procfs));
  gProcesses = processCount();
}

void BM_LoopbackConnect(benchmark::State& state) {
  for (auto _ : state) {
    int fd = connectToEcho();
    if (fd < 0) {
      state.SkipWithError("cannot connect to the echo server");
      return;
    }
    ::close(fd);
  }
}

void BM_LoopbackEcho(benchmark::State& state) {
  int fd = connectToEcho();
  std::vector<char> buf(kEchoLen, 'x');
  for (auto _ : state) {
    if (fd < 0 || !velm::sendAll(fd, buf.data(), kEchoLen) ||
        velm::recvAll(fd, buf.data(), kEchoLen) != static_cast<ssize_t>(kEchoLen)) {
      state.SkipWithError("echo failed");
      break;
    }
  }
  if (fd >= 0) ::close(fd);
}

void BM_ControllerTick(benchmark::State& state) {
  if (gClient) {
    state.SkipWithError("the machine is a client by now");
    return;
  }
  for (auto _ : state) tick();
}

// ---- 2. The client's tick and the reads it can't do without ----

void becomeClient() {
  if (gClient) return;
  gClient = true;
  std::scoped_lock lock(gPlugin->pluginLock());
  std::string dir = velm::configDir();
  writeFile(dir + "/config.plist",
            "<plist version=\"1.0\"><dict><key>role</key><string>CLIENT</string></dict>"
            "</plist>\n");
  for (int i = 0; i < kVolumes; ++i) std::filesystem::remove(dir + "/" + volumeName(i) + ".cfg");
  velm::SANComputer::thisComputer().invalidateObjectValueForKey("role");
  velm::SANFilesystem::localFilesystem().invalidateObjectValueForKey("volumes");
}

// The interfaces the sampler reads: the Ethernet ones.
std::vector<std::string> sampledInterfaces() {
  std::vector<std::string> names;
  std::error_code ec;
  for (const auto& e : std::filesystem::directory_iterator(velm::sysfsPath("class/net"), ec)) {
    std::string name = e.path().filename().string();
    if (name.rfind("en", 0) == 0 || name.rfind("eth", 0) == 0) names.push_back(name);
  }
  return names;
}

std::size_t readWhole(const char* path) {
  int fd = ::open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 0;
  char buf[16384];
  std::size_t bytes = 0;
  ssize_t n;
  while ((n = ::read(fd, buf, sizeof buf)) > 0) bytes += static_cast<std::size_t>(n);
  ::close(fd);
  return bytes;
}

void BM_ClientBareReads(benchmark::State& state) {
  std::vector<std::string> files = {velm::procfsPath("stat")};
  for (const std::string& nic : sampledInterfaces())
    for (const char* counter : {"rx_bytes", "tx_bytes", "rx_packets", "tx_packets"})
      files.push_back(velm::sysfsPath("class/net/" + nic + "/statistics/" + counter));
  for (auto _ : state)
    for (const std::string& f : files) benchmark::DoNotOptimize(readWhole(f.c_str()));
  state.counters["files"] = static_cast<double>(files.size());
}

void BM_ClientTick(benchmark::State& state) {
  becomeClient();
  for (auto _ : state) tick();
}

// ---- 3. getHistory of a full machine table, on the controller's context ----

PropertyList historyRequest() {
  PropertyList r = request("getHistory");
  r.set("identifier", "system");
  return r;
}

std::size_t samplesOf(const std::optional<PropertyList>& response) {
  const PropertyList* n = response ? response->get("nbSamples") : nullptr;
  return n ? static_cast<std::size_t>(n->uint64Value().value_or(0)) : 0;
}

// The first ring full, a row a minute, through the store: 1440 controller ticks would take
// minutes here.
bool fillHistory() {
  static bool full = false;
  if (full) return true;
  const PropertyList* table = gContext.get("history");
  std::optional<std::uint32_t> columns =
      table && table->asData() ? velm::historyTableColumns(*table->asData()) : std::nullopt;
  if (!columns) return false;
  for (std::uint32_t i = 0; i < velm::kHistoryRing1Rows; ++i) {
    gClock.advanceMicros(kTickMicros);
    velm::PlistArray row;
    for (std::uint32_t c = 0; c < *columns; ++c)
      row.emplace_back(static_cast<long long>(1000 * c + i % 100));
    velm::do_update_history_data(PropertyList(std::move(row)), &gContext);
  }
  full = samplesOf(run(historyRequest())) == velm::kHistoryRing1Rows;
  return full;
}

void BM_GetHistoryAsXml(benchmark::State& state) {
  if (!fillHistory()) {
    state.SkipWithError("the table did not fill");
    return;
  }
  const PropertyList r = historyRequest();
  for (auto _ : state) {
    std::optional<PropertyList> response = run(r);
    std::string xml = velm::writeXmlPlist(*response);
    benchmark::DoNotOptimize(xml.data());
  }
}

void BM_HistoryXmlAlone(benchmark::State& state) {
  if (!fillHistory()) {
    state.SkipWithError("the table did not fill");
    return;
  }
  const std::optional<PropertyList> response = run(historyRequest());
  std::size_t bytes = 0;
  for (auto _ : state) {
    std::string xml = velm::writeXmlPlist(*response);
    bytes = xml.size();
    benchmark::DoNotOptimize(xml.data());
  }
  state.counters["samples"] = static_cast<double>(samplesOf(response));
  state.counters["xml_bytes"] = static_cast<double>(bytes);
}

// Where the command's time goes: its samples read out of the store, and a copy of the whole
// context (getHistoryWithRequest binds "ctx ? *ctx : PropertyList::dict()" to a reference).
void BM_HistoryStoreRead(benchmark::State& state) {
  for (auto _ : state) {
    PropertyList samples;
    velm::do_get_named_history_data("history", nullptr, nullptr, &samples, gContext);
    benchmark::DoNotOptimize(samples);
  }
}

void BM_ContextCopy(benchmark::State& state) {
  for (auto _ : state) {
    PropertyList copy = gContext;
    benchmark::DoNotOptimize(copy);
  }
}

// ---- 4. getState through adminhostd, with and without ticks ----

struct DaemonPair {
  velm::bench::Daemon ticking, quiet;
  bool started = false;
} gDaemons;

struct Latency {
  double p50 = 0, p99 = 0, p999 = 0, max = 0, simRequestsPerSecond = 0;
};
std::map<bool, std::vector<Latency>> gLatency;  // ticking -> each repetition

bool startDaemons() {
  if (gDaemons.started) return gDaemons.ticking.port > 0 && gDaemons.quiet.port > 0;
  gDaemons.started = true;
  for (auto [daemon, name, seconds] :
       {std::tuple{&gDaemons.ticking, "ticking", "1"}, std::tuple{&gDaemons.quiet, "quiet", "0"}}) {
    std::string root = gRoot + "-" + name;
    if (!writeControllerRoot(root, gPmPort)) return false;
    velm::bench::DaemonOptions o;
    o.binaryDir = velm::bench::binDir() + "/..";
    o.root = root;
    o.idleSeconds = seconds;
    o.log = root + "/velm.log";
    *daemon = velm::bench::startDaemon(o);
    if (daemon->port <= 0 || daemon->token.empty()) return false;
  }
  // Past the first tick (count 0: sources, LUNs, every table made and the context saved once):
  // the figure is the steady state's.
  velm::systemClock().sleepMicros(5'000'000);
  return true;
}

void BM_DaemonGetState(benchmark::State& state, bool ticking) {
  if (!startDaemons()) {
    state.SkipWithError("a daemon did not start");
    return;
  }
  velm::bench::Daemon& d = ticking ? gDaemons.ticking : gDaemons.quiet;
  // The ticking daemon stands still while the quiet one is measured.
  if (!ticking && gDaemons.ticking.pid > 0) ::kill(gDaemons.ticking.pid, SIGSTOP);
  httplib::Client client("127.0.0.1", d.port);
  client.set_keep_alive(true);
  client.set_tcp_nodelay(true);
  httplib::Headers headers = {{"Authorization", "Bearer " + d.token}};
  const std::string body = velm::writeXmlPlist(request("getState"));
  for (int i = 0; i < 500; ++i) client.Post("/commands/velm", headers, body, "application/x-plist");
  std::vector<std::uint64_t> latencies;
  latencies.reserve(kDaemonRequests);
  velm::Clock& clock = velm::systemClock();
  long simLines = countLines(gSimLog);
  bool failed = false;
  std::uint64_t start = clock.monotonicMicros();
  for (auto _ : state) {
    std::uint64_t t0 = clock.monotonicMicros();
    httplib::Result r = client.Post("/commands/velm", headers, body, "application/x-plist");
    latencies.push_back(clock.monotonicMicros() - t0);
    if (!r || r->status != 200) {
      int status = 0;
      if (::waitpid(d.pid, &status, WNOHANG) == d.pid) {
        d.pid = -1;
        std::fprintf(stderr, "history_bench: adminhostd ended (%s %d); see %s\n",
                     WIFSIGNALED(status) ? "signal" : "status",
                     WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status),
                     (gRoot + (ticking ? "-ticking" : "-quiet") + "/velm.log").c_str());
      }
      state.SkipWithError("request failed");
      failed = true;
      break;
    }
  }
  double seconds = static_cast<double>(clock.monotonicMicros() - start) / 1e6;
  if (!ticking && gDaemons.ticking.pid > 0) ::kill(gDaemons.ticking.pid, SIGCONT);
  if (failed || latencies.empty() || seconds <= 0) return;
  std::sort(latencies.begin(), latencies.end());
  Latency l;
  l.p50 = static_cast<double>(latencies[latencies.size() / 2]);
  l.p99 = static_cast<double>(latencies[latencies.size() * 99 / 100]);
  l.p999 = static_cast<double>(latencies[latencies.size() * 999 / 1000]);
  l.max = static_cast<double>(latencies.back());
  l.simRequestsPerSecond = static_cast<double>(countLines(gSimLog) - simLines) / seconds;
  state.counters["p50_us"] = l.p50;
  state.counters["p99_us"] = l.p99;
  state.counters["p99.9_us"] = l.p999;
  state.counters["max_us"] = l.max;
  state.counters["simpm_lines/s"] = l.simRequestsPerSecond;
  gLatency[ticking].push_back(l);
}

Latency median(std::vector<Latency> v) {
  auto mid = [&](double Latency::*field) {
    std::vector<double> x;
    for (const Latency& l : v) x.push_back(l.*field);
    std::sort(x.begin(), x.end());
    return x.empty() ? 0.0 : x[x.size() / 2];
  };
  return {mid(&Latency::p50), mid(&Latency::p99), mid(&Latency::p999), mid(&Latency::max),
          mid(&Latency::simRequestsPerSecond)};
}

// ---- Set-up, counts and the table ----

bool prepareInProcess() {
  char tmpl[] = "/tmp/velm-history-bench-XXXXXX";
  if (!::mkdtemp(tmpl)) return false;
  gRoot = tmpl;
  gSimLog = gRoot + "/simpm.log";
  gPluginLog = gRoot + "/velm.log";
  int port = gPmPort = velm::bench::freePort();
  ::setenv("VELM_ROOT", gRoot.c_str(), 1);
  // Where NError would write; NLog is off, as no enable_velm_logging exists.
  ::setenv("VELM_LOG", gPluginLog.c_str(), 1);
  ::setenv("VELM_HOST_ADDRESSES", kController, 1);
  // The port mapper's own port: the controller counts as reachable.
  ::setenv("VELM_PROBE_PORT", std::to_string(port).c_str(), 1);
  ::unsetenv("VELM_PROCFS");
  ::unsetenv("VELM_SYSFS");
  ::unsetenv("DRFSROOT");
  velm::resetPathsForTest();
  return port > 0 && writeControllerRoot(gRoot, port) &&
         writeFile(gRoot + "/simpm.plist", simConfig());
}

void countTicks() {
  long sends = gSends.load(), connects = gConnects.load(), lookups = gLookups.load();
  long long lookupNs = gLookupNs.load();
  long lines = countLines(gSimLog), logLines = countLines(gPluginLog);
  for (int i = 0; i < kCountTicks; ++i) tick();
  gCounts.requests = static_cast<double>(gSends.load() - sends) / kCountTicks;
  gCounts.connects = static_cast<double>(gConnects.load() - connects) / kCountTicks;
  gCounts.simLogLines = static_cast<double>(countLines(gSimLog) - lines) / kCountTicks;
  gCounts.pluginLogLines = countLines(gPluginLog) - logLines;
  long n = gLookups.load() - lookups;
  gCounts.lookups = static_cast<double>(n) / kCountTicks;
  gCounts.lookupUs = n > 0 ? static_cast<double>(gLookupNs.load() - lookupNs) / 1000.0 / n : 0;
}

// Bytes of the history tables in the context.
std::size_t tableBytes() {
  std::size_t bytes = 0;
  for (const auto& [key, value] : *gContext.asDict())
    if (const velm::PlistData* data = value.asData()) bytes += data->size();
  return bytes;
}

void printTable(const velm::bench::CapturingReporter& reporter) {
  auto cpuUs = [&](const char* name) { return reporter.cpuNs(name) / 1000.0; };
  auto realUs = [&](const char* name) { return reporter.ns(name) / 1000.0; };
  auto line = [](const char* figure, double ours, const char* anchorName, double anchor,
                 const char* target, bool met) {
    char ratio[16] = "-";
    if (anchor > 0) std::snprintf(ratio, sizeof ratio, "%.2f", ours / anchor);
    std::printf("%-36s %9.1f  %-24s %9.1f  %6s  %-9s %s\n", figure, ours, anchorName, anchor, ratio,
                target, met ? "met" : "MISSED");
  };
  std::printf("\n%-36s %9s  %-24s %9s  %6s  %s\n", "figure (microseconds)", "ours", "anchor", "",
              "ratio", "target");
  double walks = cpuUs("BM_ProcWalks20"), connect = cpuUs("BM_LoopbackConnect"),
         echo = cpuUs("BM_LoopbackEcho"), tick = cpuUs("BM_ControllerTick");
  if (walks > 0 && connect > 0 && echo > 0 && tick > 0) {
    double floor = walks + gCounts.connects * connect + gCounts.requests * echo;
    line("controller tick, 20 volumes, CPU", tick, "floor of the work", floor, "<= 1.25x",
         tick <= 1.25 * floor);
    std::printf(
        "  floor: 20 walks of %zu processes %.1f + %g connects x %.1f + %g requests x %.1f "
        "(%zu-byte echo)\n",
        gProcesses, walks, gCounts.connects, connect, gCounts.requests, echo, kEchoLen);
    std::printf(
        "  a tick: %.1f us real time; velm-simpm logged %g lines; %g reverse look-ups, %.1f us "
        "each (real time); plugin log lines in %d ticks: %ld\n",
        realUs("BM_ControllerTick"), gCounts.simLogLines, gCounts.lookups, gCounts.lookupUs,
        kCountTicks, gCounts.pluginLogLines);
  }
  double history = realUs("BM_GetHistoryAsXml"), xml = realUs("BM_HistoryXmlAlone");
  if (history > 0 && xml > 0) {
    line("getHistory system, answered as XML", history, "its XML writing alone", xml, "<= 1.50x",
         history <= 1.5 * xml);
    std::printf(
        "  of which the store's read %.1f and one copy of the context %.1f (%zu keys, %.1f MB "
        "of tables)\n",
        realUs("BM_HistoryStoreRead"), realUs("BM_ContextCopy"), gContext.size(),
        static_cast<double>(tableBytes()) / 1e6);
  }
  double client = cpuUs("BM_ClientTick"), reads = cpuUs("BM_ClientBareReads");
  if (client > 0)
    line("client tick, CPU", client, "bare /proc + net reads", reads, "< 200", client < 200);
  if (!gLatency[true].empty() && !gLatency[false].empty()) {
    Latency t = median(gLatency[true]), q = median(gLatency[false]);
    line("daemon getState p99, ticking 1 s", t.p99, "p99 without ticks", q.p99, "<= 1.50x",
         t.p99 <= 1.5 * q.p99);
    std::printf(
        "  median of %d runs of %d requests, ticking / not: p50 %.0f / %.0f, p99.9 %.0f / %.0f, "
        "max %.0f / %.0f; velm-simpm logged %.0f / %.0f lines a second\n",
        kRepetitions, kDaemonRequests, t.p50, q.p50, t.p999, q.p999, t.max, q.max,
        t.simRequestsPerSecond, q.simRequestsPerSecond);
  }
}

void shutdownAll() {
  gPlugin.reset();
  QMAdmin_Teardown();
  velm::setClockForTest(nullptr);
  for (pid_t* pid : {&gDaemons.ticking.pid, &gDaemons.quiet.pid, &gSim, &gEcho})
    velm::bench::stopProcess(pid);
  std::error_code ec;
  for (const char* suffix : {"", "-ticking", "-quiet"})
    if (!gRoot.empty()) std::filesystem::remove_all(gRoot + suffix, ec);
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  ::signal(SIGPIPE, SIG_IGN);
  if (!startEchoServer()) {
    std::fprintf(stderr, "history_bench: cannot start the echo server\n");
    return 1;
  }
  if (!prepareInProcess()) {
    std::fprintf(stderr, "history_bench: cannot prepare a sandbox root\n");
    shutdownAll();
    return 1;
  }
  velm::bench::initAdminLibrary();
  if (!startSim(velm::bench::binDir() + "/velm-simpm")) {
    shutdownAll();
    return 1;
  }
  velm::setClockForTest(&gClock);
  gPlugin = std::make_unique<velm::VelmPlugin>();
  // Count 0 sets up the sources and the tables; the tick after it is the first with rates.
  tick();
  tick();
  if (!gContext.get(velm::historyNameForVolume(volumeName(kVolumes - 1)))) {
    std::fprintf(stderr, "history_bench: the tick kept no volume's history (see %s, %s)\n",
                 gSimLog.c_str(), gPluginLog.c_str());
    shutdownAll();
    return 1;
  }
  countTicks();

  auto cpu = [](const char* name, void (*fn)(benchmark::State&), double seconds) {
    benchmark::RegisterBenchmark(name, fn)->MeasureProcessCPUTime()->MinTime(seconds);
  };
  auto real = [](const char* name, void (*fn)(benchmark::State&), double seconds) {
    benchmark::RegisterBenchmark(name, fn)->MinTime(seconds);
  };
  // Each figure runs kRepetitions times, interleaved with its anchor's runs, so that a busy
  // neighbour on this shared machine hits both alike; the table gives the medians.
  for (int rep = 0; rep < kRepetitions; ++rep) {
    cpu("BM_ProcWalks20", BM_ProcWalks20, 0.5);
    // As many connections as the ticks open: each leaves a TIME_WAIT entry behind, and a crowd
    // of them makes every later connect search longer for a free port.
    benchmark::RegisterBenchmark("BM_LoopbackConnect", BM_LoopbackConnect)
        ->MeasureProcessCPUTime()
        ->Iterations(kConnects);
    cpu("BM_LoopbackEcho", BM_LoopbackEcho, 0.5);
    cpu("BM_ControllerTick", BM_ControllerTick, 1.0);
  }
  // Still a controller: its context holds 20 volumes' tables beside the machine's.
  for (int rep = 0; rep < kRepetitions; ++rep) {
    real("BM_GetHistoryAsXml", BM_GetHistoryAsXml, 0.5);
    real("BM_HistoryXmlAlone", BM_HistoryXmlAlone, 0.5);
    real("BM_HistoryStoreRead", BM_HistoryStoreRead, 0.3);
    real("BM_ContextCopy", BM_ContextCopy, 0.3);
  }
  for (int rep = 0; rep < kRepetitions; ++rep) {
    cpu("BM_ClientBareReads", BM_ClientBareReads, 0.5);
    cpu("BM_ClientTick", BM_ClientTick, 0.5);
  }
  // Quiet and ticking alternate, so that a noisy neighbour on this machine hits both alike.
  for (int rep = 0; rep < kRepetitions; ++rep)
    for (bool ticking : {false, true})
      benchmark::RegisterBenchmark(
          ticking ? "BM_DaemonGetState/ticking" : "BM_DaemonGetState/quiet", BM_DaemonGetState,
          ticking)
          ->Iterations(kDaemonRequests)
          ->UseRealTime();

  velm::bench::CapturingReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  printTable(reporter);
  shutdownAll();
  benchmark::Shutdown();
  return 0;
}
