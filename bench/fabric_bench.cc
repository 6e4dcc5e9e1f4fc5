// The fabric on a generated sysfs tree of 4 HBAs, 16 targets and 1024 LUNs (4096 disks): a rescan
// that finds no change beside a bare readdir and read of the same entries and attributes, and one
// updateStats beside a bare read of the stat files it needs, each pair in one run (target: within
// 1.5x of its anchor).
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "bench_support.h"
#include "fabric/device_manager.h"
#include "platform/clock.h"
#include "platform/event_loop.h"
#include "platform/paths.h"
#include "sim/simfabric/fabric_tree.h"

namespace {

std::string gSys;

// Reads a small file whole, as the registry does.
std::size_t readSmall(const std::string& path) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 0;
  char buf[4096];
  ssize_t n = ::read(fd, buf, sizeof buf);
  ::close(fd);
  return n > 0 ? static_cast<std::size_t>(n) : 0;
}

std::vector<std::string> names(const std::string& dir) {
  std::vector<std::string> out;
  if (DIR* d = ::opendir(dir.c_str())) {
    while (dirent* e = ::readdir(d))
      if (e->d_name[0] != '.') out.emplace_back(e->d_name);
    ::closedir(d);
  }
  return out;
}

// The anchor of a rescan: the listings and attributes a scan reads, with nothing made of them.
void BM_BareScanReads(benchmark::State& state) {
  for (auto _ : state) {
    std::size_t bytes = 0;
    for (const std::string& t : names(gSys + "/class/fc_transport"))
      bytes += readSmall(gSys + "/class/fc_transport/" + t + "/node_name");
    for (const std::string& r : names(gSys + "/class/fc_remote_ports")) {
      std::string dir = gSys + "/class/fc_remote_ports/" + r;
      for (const char* a : {"roles", "node_name", "port_state", "scsi_target_id"})
        bytes += readSmall(dir + "/" + a);
    }
    bytes += names(gSys + "/class/scsi_device").size();
    benchmark::DoNotOptimize(bytes);
  }
}

void BM_Rescan(benchmark::State& state) {
  velm::DeviceRegistry& registry = velm::SANDeviceManager::defaultManager().registry();
  for (auto _ : state) registry.rescanForTest();
}

// The anchor of updateStats: every stat file of every disk, read once.
void BM_BareStatReads(benchmark::State& state) {
  std::vector<std::string> stats;
  for (const std::string& disk : names(gSys + "/block"))
    stats.push_back(gSys + "/block/" + disk + "/stat");
  for (auto _ : state) {
    std::size_t bytes = 0;
    for (const std::string& s : stats) bytes += readSmall(s);
    benchmark::DoNotOptimize(bytes);
  }
}

void BM_UpdateStats(benchmark::State& state) {
  for (auto _ : state)
    benchmark::DoNotOptimize(velm::SANDeviceManager::defaultManager().updateStats());
}

BENCHMARK(BM_BareScanReads)->MinTime(2.0);
BENCHMARK(BM_Rescan)->MinTime(2.0);
BENCHMARK(BM_BareStatReads)->MinTime(2.0);
BENCHMARK(BM_UpdateStats)->MinTime(2.0);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  // tmpfs when there is one: the tree has thousands of small files.
  std::string base = std::filesystem::exists("/dev/shm") ? "/dev/shm" : "/tmp";
  std::string root = base + "/velm-fabric-XXXXXX";
  if (!::mkdtemp(root.data())) return 1;
  gSys = root + "/sys";
  std::string error;
  if (!velm::sim::generateLargeFabric(gSys, 4, 16, 64, &error)) {
    std::fprintf(stderr, "fabric_bench: %s\n", error.c_str());
    return 1;
  }
  ::setenv("VELM_SYSFS", gSys.c_str(), 1);
  ::setenv("VELM_ROOT", root.c_str(), 1);
  ::setenv("VELM_LOG", (root + "/velm.log").c_str(), 1);
  velm::resetPathsForTest();
  velm::EventLoop loop;
  velm::SANDeviceManager::defaultManager().startNotifications(loop);
  std::printf("fabric: %zu targets, %zu LUNs\n",
              velm::SANDeviceManager::defaultManager().targetCount(),
              velm::SANDeviceManager::defaultManager().logicalUnitCount());
  velm::bench::CapturingReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  auto line = [&](const char* what, const char* ours, const char* anchor) {
    double o = reporter.ns(ours), a = reporter.ns(anchor);
    if (o > 0 && a > 0) std::printf("%-28s %10.2f %10.2f %7.2f\n", what, o / 1e6, a / 1e6, o / a);
  };
  std::printf("\nper call (milliseconds)            ours     anchor   ratio  (target <= 1.50)\n");
  line("rescan, no change", "BM_Rescan", "BM_BareScanReads");
  line("updateStats", "BM_UpdateStats", "BM_BareStatReads");
  velm::SANDeviceManager::resetForTest();
  std::error_code ec;
  std::filesystem::remove_all(root, ec);
  benchmark::Shutdown();
  return 0;
}
