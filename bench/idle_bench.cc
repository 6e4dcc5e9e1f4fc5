// The CPU cost of one doIdle tick with every host event source registered and no work due, beside
// the cost of an empty command through the same dispatcher, in one run (target: tick < 100 us).
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "bench_support.h"
#include "core/velm_plugin.h"
#include "platform/paths.h"

namespace {

velm::VelmPlugin* gPlugin = nullptr;
velm::PropertyList gContext = velm::PropertyList::dict();
long long gCount = 1;

velm::PropertyList request(const char* command) {
  velm::PropertyList r = velm::PropertyList::dict();
  r.set("command", command);
  return r;
}

void run(const velm::PropertyList& r) {
  std::int32_t fd = -1;
  std::optional<velm::PropertyList> out = gPlugin->doProcessInputWithRequest(r, &gContext, &fd);
  benchmark::DoNotOptimize(out);
}

// The floor: a command whose handler does next to nothing.
void BM_EmptyCommand(benchmark::State& state) {
  velm::PropertyList r = request("getState");
  for (auto _ : state) run(r);
}

void BM_DoIdleTick(benchmark::State& state) {
  velm::PropertyList r = request("doIdle");
  for (auto _ : state) {
    r.set("count", gCount++);
    run(r);
  }
}

BENCHMARK(BM_EmptyCommand)->MinTime(1.0);
BENCHMARK(BM_DoIdleTick)->MinTime(1.0);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  char root[] = "/tmp/velm-idle-XXXXXX";
  if (!::mkdtemp(root)) return 1;
  ::setenv("VELM_ROOT", root, 1);
  ::setenv("VELM_PROCFS", (std::string(root) + "/proc").c_str(), 1);
  ::setenv("VELM_LOG", (std::string(root) + "/velm.log").c_str(), 1);
  velm::bench::writeFile(std::string(root) + "/proc/self/mountinfo", "");
  velm::resetPathsForTest();
  {
    velm::VelmPlugin plugin;
    gPlugin = &plugin;
    // Count 0: every source is attached, the service advertised, the LUNs read.
    velm::PropertyList first = request("doIdle");
    first.set("count", 0);
    run(first);
    velm::bench::CapturingReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    double floor = reporter.cpuNs("BM_EmptyCommand"), tick = reporter.cpuNs("BM_DoIdleTick");
    if (floor > 0 && tick > 0) {
      std::printf(
          "\nCPU per call (microseconds)       ours   empty command  (target: tick < 100)\n");
      std::printf("doIdle tick, all sources  %8.2f  %14.2f\n", tick / 1000.0, floor / 1000.0);
    }
    gPlugin = nullptr;
  }
  std::error_code ec;
  std::filesystem::remove_all(root, ec);
  benchmark::Shutdown();
  return 0;
}
