// Volume config parse and write: a large volume (1,000 disks in 50 stripe groups) and a small one
// (10 disks). The reader makes one pass over the text per key, so the large parse shows whether
// each pass stays cheap. Target: the large volume parses in under 20 ms.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "config/config_parser.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "platform/paths.h"

namespace {

constexpr double kTargetParseMs = 20.0;
double gLargeParseMs = 0;
double gLargeWriteMs = 0;

// A volume as an administrator's tool writes it, with hand-edited touches: comments, indentation,
// both quoting styles.
std::string makeVolumeText(int disks, int groups) {
  std::string t = "# Volume configuration\n\n";
  const char* booleans[] = {"DataMigration No",
                            "ABMFreeLimit No",
                            "DirWarp Yes",
                            "ForcePerfectFit No",
                            "FileLocks Yes",
                            "GlobalSuperUser Yes",
                            "Quotas Yes",
                            "Brls No",
                            "WindowsSecurity Yes",
                            "EnforceACLs No",
                            "EnableLumex No",
                            "NamedStreams No",
                            "ForceStripeAlignment Yes",
                            "UnixIdFabricationOnWindows No"};
  for (const char* line : booleans) t += std::string(line) + "\n";
  const char* numbers[] = {"AttrTokenSize 1",
                           "InodeExpandMin 8",
                           "InodeExpandInc 8",
                           "InodeExpandMax 2048",
                           "InodeDeleteMax 0",
                           "StaticInodes 0",
                           "DataMigrationThreadPoolSize 128",
                           "BufferCacheSize 64M",
                           "BufferPoolSize 0",
                           "DirCacheSize 10M",
                           "DirFDCacheSize 0",
                           "StripeAlignSize 0",
                           "JournalSize 512M",
                           "FsBlockSize 16K",
                           "InodeCacheSize 256K",
                           "IoHangLimitSecs 180",
                           "MaxConnections 138",
                           "MaxLogSize 16M",
                           "MaxLogs 4",
                           "OpHangLimitSecs 180",
                           "PosixStyleLinkCount 1",
                           "TrimOnClose 0",
                           "BrlTime 86400",
                           "ThreadPoolSize 256",
                           "MaxMBPerClientReserve 0",
                           "UnixNobodyUidOnWindows -2",
                           "UnixNobodyGidOnWindows -2",
                           "UnixFileCreationModeOnWindows 0644",
                           "UnixDirectoryCreationModeOnWindows 0755"};
  for (const char* line : numbers) t += std::string(line) + "   # tuned\n";
  t += "Debug 0x0\nAllocationStrategy Round\nLumexSearchLevel 3\n\n";
  t += "[DiskType \"MetaDataType\"]\n  Sectors 4194304\n  SectorSize 512\n";
  t += "[DiskType \"DataType\"]\n  Sectors 2147483648\n  SectorSize 512\n\n";
  t += "[Disk \"Meta0\"]\n  Status Up\n  Type \"MetaDataType\"\n";
  for (int d = 1; d < disks; ++d) {
    t += "[Disk \"LUN" + std::to_string(d) + "\"]\n  Status Up\n  Type \"DataType\"\n";
  }
  t += "\n[StripeGroup \"MetadataAndJournal\"]\n  Status Up\n  Exclusive Yes\n  Metadata Yes\n"
       "  Journal Yes\n  Read Enabled\n  Write Enabled\n  StripeBreadth 16\n  MultiPathMethod "
       "Rotate\n"
       "  Node \"Meta0\" 0\n";
  int perGroup = (disks - 1) / (groups - 1);
  int next = 1;
  for (int g = 1; g < groups; ++g) {
    t += "\n[StripeGroup \"Data" + std::to_string(g) +
         "\"]\n  Status Up\n  Exclusive No\n  Metadata No\n"
         "  Journal No\n  Affinity \"Pool" +
         std::to_string(g) +
         "\"\n  Read Enabled\n  Write Enabled\n"
         "  StripeBreadth 64\n  Rtios 0\n  Rtmb 0\n  RtiosReserve 0\n  RtmbReserve 0\n  "
         "RtTokenTimeout 0\n"
         "  MultiPathMethod Rotate\n";
    int count = g == groups - 1 ? disks - next : perGroup;
    for (int i = 0; i < count; ++i, ++next)
      t += "  Node \"LUN" + std::to_string(next) + "\" " + std::to_string(i) + "\n";
  }
  return t;
}

struct Sandbox {
  Sandbox() {
    char tmpl[] = "/tmp/velm-config-benchXXXXXX";
    if (!::mkdtemp(tmpl)) std::abort();
    root = tmpl;
    ::setenv("VELM_ROOT", root.c_str(), 1);
    velm::resetPathsForTest();
    velm::makeDirectories(velm::configDir());
  }
  ~Sandbox() {
    std::error_code ec;
    std::filesystem::remove_all(root, ec);
  }
  std::string root;
};

double msSince(std::uint64_t startMicros) {
  return static_cast<double>(velm::clock().monotonicMicros() - startMicros) / 1000.0;
}

void parseBench(benchmark::State& state, int disks, int groups, double* msOut) {
  std::string text = makeVolumeText(disks, groups);
  std::string name = "vol" + std::to_string(disks);
  velm::writeFileAtomically(velm::configPath(name + ".cfg"), text);
  auto parser = velm::SANConfigParser::parserForVolume(name);
  if (!parser) {
    state.SkipWithError("no config file");
    return;
  }
  bool ok = true;
  std::uint64_t start = velm::clock().monotonicMicros();
  for (auto _ : state) {
    ok = parser->parse() && ok;
    benchmark::DoNotOptimize(parser->dictionary());
  }
  double ms = msSince(start) / static_cast<double>(state.iterations());
  if (msOut) *msOut = ms;
  if (!ok) state.SkipWithError("parse failed");
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
  // Wall-clock milliseconds per parse, beside the target.
  state.counters["ms_per_parse"] = ms;
  state.counters["target_ms"] = kTargetParseMs;
}

void writeBench(benchmark::State& state, int disks, int groups, double* msOut) {
  std::string text = makeVolumeText(disks, groups);
  velm::SANConfigParser source("bench");
  if (!source.parseText(text)) {
    state.SkipWithError("parse failed");
    return;
  }
  auto writer = velm::SANConfigParser::parserWithDict(source.dictionary());
  size_t bytes = 0;
  std::uint64_t start = velm::clock().monotonicMicros();
  for (auto _ : state) {
    std::optional<std::string> out = writer->configFileRepresentation();
    bytes = out ? out->size() : 0;
    benchmark::DoNotOptimize(out);
  }
  double ms = msSince(start) / static_cast<double>(state.iterations());
  if (msOut) *msOut = ms;
  if (bytes == 0) state.SkipWithError("writer flagged an error");
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
  state.counters["ms_per_write"] = ms;
}

void BM_ParseLarge(benchmark::State& state) { parseBench(state, 1000, 50, &gLargeParseMs); }
void BM_WriteLarge(benchmark::State& state) { writeBench(state, 1000, 50, &gLargeWriteMs); }
void BM_ParseSmall(benchmark::State& state) { parseBench(state, 10, 2, nullptr); }
void BM_WriteSmall(benchmark::State& state) { writeBench(state, 10, 2, nullptr); }

BENCHMARK(BM_ParseLarge)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_WriteLarge)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ParseSmall)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_WriteSmall)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
  Sandbox sandbox;
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  if (gLargeParseMs > 0) {
    std::printf(
        "config parse, 1000 disks in 50 stripe groups: %.3f ms per parse (target: under %.0f ms) "
        "%s\n",
        gLargeParseMs, kTargetParseMs, gLargeParseMs < kTargetParseMs ? "OK" : "MISSED");
    std::printf("config write, 1000 disks in 50 stripe groups: %.3f ms per write\n", gLargeWriteMs);
  }
  return 0;
}
