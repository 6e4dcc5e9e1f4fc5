// The LUN identification reader on a 1 GiB file, beside dd bs=10M reading the same file, both
// warm in the page cache, in one run. Prints both throughputs and their ratio (target: >= 0.9).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "gateway/lun_identification.h"
#include "platform/clock.h"

extern char** environ;

namespace {

constexpr std::uint64_t kFileBytes = 1ULL << 30;
constexpr std::uint64_t kPeriodMicros = 250'000;

std::string gDir, gFile;

struct Throughput {
  double bytes = 0, seconds = 0;
  double gibPerSecond() const { return seconds > 0 ? bytes / seconds / (1 << 30) : 0; }
};
Throughput gReader, gDd;

double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

bool makeFile() {
  char tmpl[] = "/tmp/velm-identify-XXXXXX";
  if (!::mkdtemp(tmpl)) return false;
  gDir = tmpl;
  gFile = gDir + "/lun";
  int fd = ::open(gFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) return false;
  // Real data, not a hole: reads must come from the page cache as a LUN's would from the disk.
  std::vector<char> block(velm::LunIdentification::kReadSize);
  for (std::size_t i = 0; i < block.size(); ++i) block[i] = static_cast<char>(i * 131);
  for (std::uint64_t left = kFileBytes; left > 0;) {
    std::size_t n = left < block.size() ? static_cast<std::size_t>(left) : block.size();
    if (::write(fd, block.data(), n) != static_cast<ssize_t>(n)) {
      ::close(fd);
      return false;
    }
    left -= n;
  }
  ::close(fd);
  return true;
}

int runDd() {
  std::string input = "if=" + gFile;
  std::vector<char*> argv = {const_cast<char*>("dd"), input.data(),
                             const_cast<char*>("of=/dev/null"), const_cast<char*>("bs=10M"),
                             nullptr};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t pid = -1;
  int rc = ::posix_spawnp(&pid, "dd", &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) return -1;
  int status = 0;
  ::waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// The reader's own loop: read periods on the device, as identifyBSDDevice runs them.
void BM_IdentificationReader(benchmark::State& state) {
  int fd = ::open(gFile.c_str(), O_RDONLY | O_CLOEXEC);
  std::vector<char> buffer(velm::LunIdentification::kReadSize);
  for (auto _ : state) {
    auto start = std::chrono::steady_clock::now();
    velm::ReadPeriod period = velm::readForPeriod(fd, buffer.data(), buffer.size(),
                                                  velm::clock().monotonicMicros() + kPeriodMicros);
    gReader.seconds += secondsSince(start);
    gReader.bytes += static_cast<double>(period.bytes);
    benchmark::DoNotOptimize(period);
  }
  ::close(fd);
}

// The anchor: dd reading the whole file in 10 MiB blocks.
void BM_Dd(benchmark::State& state) {
  for (auto _ : state) {
    auto start = std::chrono::steady_clock::now();
    if (runDd() != 0) {
      state.SkipWithError("dd failed");
      break;
    }
    gDd.seconds += secondsSince(start);
    gDd.bytes += static_cast<double>(kFileBytes);
  }
}

BENCHMARK(BM_Dd)->MinTime(3.0)->UseRealTime();
BENCHMARK(BM_IdentificationReader)->MinTime(3.0)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (!makeFile()) {
    std::fprintf(stderr, "identify_bench: cannot make a 1 GiB file under /tmp: %s\n",
                 std::strerror(errno));
    return 1;
  }
  // Warm the page cache for both.
  runDd();
  benchmark::RunSpecifiedBenchmarks();
  if (gReader.seconds > 0 && gDd.seconds > 0) {
    std::printf("\nthroughput (GiB/s)                 ours        dd   ratio  (target >= 0.90)\n");
    std::printf("identification reader, 1 GiB  %8.2f  %8.2f  %6.2f\n", gReader.gibPerSecond(),
                gDd.gibPerSecond(), gReader.gibPerSecond() / gDd.gibPerSecond());
  }
  std::error_code ec;
  std::filesystem::remove_all(gDir, ec);
  benchmark::Shutdown();
  return 0;
}
