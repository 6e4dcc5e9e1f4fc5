// Volume commands through the plugin on a SAN of 100 volumes served by velm-simpm, each beside
// its floor measured in the same run: getVolumeState withDetails for the last volume of the list
// against one 1024-byte loopback echo times the wire requests the command makes (counted, not
// assumed), and getVolumes against the bare parse of the 100 config files. Target: 1.5x.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "adminlib/adminlib.h"
#include "adminlib/fsmcomm.h"
#include "adminlib/qmadminlib.h"
#include "adminlib/sock46.h"
#include "bench_support.h"
#include "config/config_parser.h"
#include "core/velm_plugin.h"
#include "gateway/san_filesystem.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "platform/paths.h"
#include "platform/socket_io.h"
#include "san_of_100.h"
#include "wire_counters.h"

extern char** environ;

namespace {

using velm::bench::binDir;
using velm::bench::gLookupNs;
using velm::bench::gLookups;
using velm::bench::gSends;
using velm::bench::volumeName;
}  // namespace

namespace {

constexpr int kVolumes = velm::bench::kSanVolumes;
constexpr std::size_t kEchoLen = 1024;
constexpr int kCountRuns = 10;
constexpr const char* kController = velm::bench::kSanController;

velm::bench::SanOf100 gSan;
std::unique_ptr<velm::VelmPlugin> gPlugin;
velm::PropertyList gContext = velm::PropertyList::dict();

void stopSim() {
  gPlugin.reset();
  QMAdmin_Teardown();
  velm::bench::stopSanOf100(&gSan);
}

long logLines() {
  std::optional<std::string> text = velm::readFile(gSan.simLog);
  return text ? static_cast<long>(std::count(text->begin(), text->end(), '\n')) : -1;
}

velm::PropertyList request(const char* command) {
  velm::PropertyList r = velm::PropertyList::dict();
  r.set("command", command);
  return r;
}

velm::PropertyList volumeStateRequest() {
  velm::PropertyList r = request("getVolumeState");
  r.set("name", volumeName(kVolumes - 1));
  r.set("variant", "withDetails");
  return r;
}

std::optional<velm::PropertyList> run(const velm::PropertyList& r) {
  std::int32_t lockFd = -1;
  return gPlugin->doProcessInputWithRequest(r, &gContext, &lockFd);
}

// The last volume as the command must answer it: running here, with its groups and clients.
bool detailsComplete(const std::optional<velm::PropertyList>& r) {
  if (!r) return false;
  const std::string* state = r->getString("state");
  const std::string* host = r->getString("hostIPAddress");
  const velm::PropertyList* info = r->get("volumeInfo");
  const velm::PropertyList* groups = info ? info->get("StripeGroups") : nullptr;
  const velm::PropertyList* clients = info ? info->get("Clients") : nullptr;
  return state && *state == "RUNNING" && host && *host == kController && groups &&
         groups->size() == 2 && clients && clients->size() == 3;
}

bool allVolumes(const std::optional<velm::PropertyList>& r) {
  const velm::PropertyList* volumes = r ? r->get("volumes") : nullptr;
  return volumes && volumes->size() == static_cast<std::size_t>(kVolumes);
}

// ---- The floor of getVolumeState: a 1024-byte echo over loopback TCP ----

void BM_LoopbackEcho1024(benchmark::State& state) { velm::bench::runLoopbackEcho(state, kEchoLen); }

// ---- The floor of getVolumes: the parse of every config file, names listed beforehand ----

void BM_ParseConfigs100(benchmark::State& state) {
  for (auto _ : state) {
    for (const std::string& file : gSan.configFiles) {
      std::unique_ptr<velm::SANConfigParser> parser = velm::SANConfigParser::parserForFile(file);
      if (!parser || !parser->parse()) {
        state.SkipWithError("a volume file did not parse");
        return;
      }
      benchmark::DoNotOptimize(parser->dictionary());
    }
  }
}

// ---- The commands ----

// Reverse look-ups of the last timed run of getVolumeState: per command, and microseconds each.
double gLookupsPerCommand = 0;
double gLookupUs = 0;

void BM_GetVolumeStateWithDetails(benchmark::State& state) {
  const velm::PropertyList r = volumeStateRequest();
  long lookups = gLookups.load();
  long long lookupNs = gLookupNs.load();
  for (auto _ : state) {
    std::optional<velm::PropertyList> response = run(r);
    if (!response) {
      state.SkipWithError("no response");
      return;
    }
    benchmark::DoNotOptimize(response);
  }
  lookups = gLookups.load() - lookups;
  lookupNs = gLookupNs.load() - lookupNs;
  gLookupsPerCommand = static_cast<double>(lookups) / static_cast<double>(state.iterations());
  gLookupUs =
      lookups > 0 ? static_cast<double>(lookupNs) / 1000.0 / static_cast<double>(lookups) : 0;
}

void BM_GetVolumes(benchmark::State& state) {
  const velm::PropertyList r = request("getVolumes");
  velm::SANFilesystem& fs = velm::SANFilesystem::localFilesystem();
  for (auto _ : state) {
    // The cache would answer every run after the first; dropping it is kept out of the figure.
    state.PauseTiming();
    fs.clearCache();
    state.ResumeTiming();
    std::optional<velm::PropertyList> response = run(r);
    if (!response) {
      state.SkipWithError("no response");
      return;
    }
    benchmark::DoNotOptimize(response);
  }
}

BENCHMARK(BM_LoopbackEcho1024)->MinTime(1.0);
BENCHMARK(BM_GetVolumeStateWithDetails)->MinTime(1.0);
BENCHMARK(BM_ParseConfigs100)->MinTime(1.0);
BENCHMARK(BM_GetVolumes)->MinTime(1.0);

// Wire requests per command over kCountRuns runs; -1 when a run has no response. *logged (when
// asked) gets the lines velm-simpm logged per run.
double countRequests(const velm::PropertyList& r, bool dropCache, double* logged) {
  velm::SANFilesystem& fs = velm::SANFilesystem::localFilesystem();
  long sends = gSends.load(), lines = logLines();
  for (int i = 0; i < kCountRuns; ++i) {
    if (dropCache) fs.clearCache();
    if (!run(r)) return -1;
  }
  if (logged) *logged = static_cast<double>(logLines() - lines) / kCountRuns;
  return static_cast<double>(gSends.load() - sends) / kCountRuns;
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  std::signal(SIGPIPE, SIG_IGN);
  // Before the sandbox's process table takes the place of the real one.
  std::string simPath = binDir() + "/velm-simpm";
  if (!velm::bench::prepareSanOf100("velm-volumes-bench", &gSan)) {
    std::fprintf(stderr, "volumes_bench: cannot prepare a sandbox root\n");
    stopSim();
    return 1;
  }
  velm::bench::initAdminLibrary();
  if (!velm::bench::startSanSim("volumes_bench", simPath, &gSan)) {
    stopSim();
    return 1;
  }
  gPlugin = std::make_unique<velm::VelmPlugin>();

  const velm::PropertyList stateRequest = volumeStateRequest();
  const velm::PropertyList volumesRequest = request("getVolumes");
  if (!detailsComplete(run(stateRequest)) || !allVolumes(run(volumesRequest))) {
    std::fprintf(stderr, "volumes_bench: the commands do not answer as expected (see %s)\n",
                 gSan.simLog.c_str());
    stopSim();
    return 1;
  }
  // The first runs above were the warm ones; the counts come from the runs after them.
  double stateLogged = 0;
  double stateRequests = countRequests(stateRequest, false, &stateLogged);
  double volumesRequests = countRequests(volumesRequest, true, nullptr);
  if (stateRequests <= 0 || volumesRequests < 0) {
    std::fprintf(stderr, "volumes_bench: a counted run failed (see %s)\n", gSan.simLog.c_str());
    stopSim();
    return 1;
  }

  velm::bench::CapturingReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);

  double echoUs = reporter.ns("BM_LoopbackEcho1024") / 1000.0;
  double stateUs = reporter.ns("BM_GetVolumeStateWithDetails") / 1000.0;
  double parseUs = reporter.ns("BM_ParseConfigs100") / 1000.0;
  double volumesUs = reporter.ns("BM_GetVolumes") / 1000.0;
  std::printf("\nper command (microseconds)        ours     floor   ratio  (target <= 1.50)\n");
  if (echoUs > 0 && stateUs > 0) {
    double floorUs = echoUs * stateRequests;
    std::printf("%-30s%8.2f  %8.2f  %6.2f  (%g requests)\n", "getVolumeState withDetails", stateUs,
                floorUs, stateUs / floorUs, stateRequests);
  }
  if (parseUs > 0 && volumesUs > 0)
    std::printf("%-30s%8.2f  %8.2f  %6.2f\n", "getVolumes", volumesUs, parseUs,
                volumesUs / parseUs);
  if (echoUs > 0 && stateUs > 0) {
    double lookupsUs = gLookupsPerCommand * gLookupUs;
    std::printf("  one 1024-byte loopback echo: %.2f us; velm-simpm logs %g of the %g requests\n",
                echoUs, stateLogged, stateRequests);
    std::printf(
        "  getVolumeState: %g reverse look-ups of %s, %.2f us each; without them %.2f us, "
        "ratio %.2f\n",
        gLookupsPerCommand, kController, gLookupUs, stateUs - lookupsUs,
        (stateUs - lookupsUs) / (echoUs * stateRequests));
  }
  std::printf("  getVolumes: %g wire requests\n", volumesRequests);
  stopSim();
  benchmark::Shutdown();
  return 0;
}
