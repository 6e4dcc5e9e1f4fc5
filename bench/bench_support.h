// What the benchmarks that compare against a floor share: a reporter that keeps each
// benchmark's mean real time per iteration, so main() can print figures beside their anchors.
// A name registered more than once (runs interleaved with their anchor's) gives the median of
// its runs.
#pragma once

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "platform/files.h"
#include "platform/paths.h"
#include "platform/socket_io.h"

namespace velm::bench {

class CapturingReporter : public benchmark::ConsoleReporter {
 public:
  CapturingReporter() : ConsoleReporter(OO_Tabular) {}
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& r : runs) {
      // "BM_FSMStat/min_time:1.000" -> "BM_FSMStat"
      std::string name = r.benchmark_name();
      if (!r.error_occurred && r.run_type == Run::RT_Iteration) {
        nsPerIteration_[name.substr(0, name.find('/'))].push_back(r.GetAdjustedRealTime());
        cpuNsPerIteration_[name.substr(0, name.find('/'))].push_back(r.GetAdjustedCPUTime());
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }
  // Mean real time per iteration in nanoseconds (the median of the runs), 0 when none ran.
  double ns(const std::string& name) const { return median(nsPerIteration_, name); }
  // Mean CPU time per iteration in nanoseconds (the median of the runs), 0 when none ran.
  double cpuNs(const std::string& name) const { return median(cpuNsPerIteration_, name); }

 private:
  static double median(const std::map<std::string, std::vector<double>>& runs,
                       const std::string& name) {
    auto it = runs.find(name);
    if (it == runs.end() || it->second.empty()) return 0;
    std::vector<double> v = it->second;
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
  }
  std::map<std::string, std::vector<double>> nsPerIteration_, cpuNsPerIteration_;
};

// The directory of this program, where the stand-ins it starts are built.
inline std::string binDir() {
  std::error_code ec;
  auto exe = std::filesystem::read_symlink(velm::procfsPath("self/exe"), ec);
  return ec ? std::string(".") : exe.parent_path().string();
}

// A TCP port that was free on 127.0.0.1 a moment ago (0 when none could be had).
inline int freePort() {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return 0;
  sockaddr_in sin{};
  sin.sin_family = AF_INET;
  sin.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof sin;
  int port = 0;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&sin), sizeof sin) == 0 &&
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&sin), &len) == 0)
    port = ntohs(sin.sin_port);
  ::close(fd);
  return port;
}

// Writes a file whole, making its directory first.
inline bool writeFile(const std::string& path, const std::string& text) {
  std::error_code ec;
  std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ec);
  return velm::writeFileAtomically(path, text, 0644) == 0;
}

// The floor of a request over loopback TCP: a client sends len bytes and reads len bytes back
// from an echo server thread, one round trip per iteration.
inline void runLoopbackEcho(benchmark::State& state, std::size_t len) {
  auto echoOnce = [len](int fd, std::vector<char>& buf, bool client) {
    auto recvWhole = [&] {
      return velm::recvAll(fd, buf.data(), len) == static_cast<ssize_t>(len);
    };
    if (client) return velm::sendAll(fd, buf.data(), len) && recvWhole();
    return recvWhole() && velm::sendAll(fd, buf.data(), len);
  };
  int lfd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in sin{};
  sin.sin_family = AF_INET;
  sin.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t slen = sizeof sin;
  if (::bind(lfd, reinterpret_cast<sockaddr*>(&sin), sizeof sin) != 0 || ::listen(lfd, 1) != 0 ||
      ::getsockname(lfd, reinterpret_cast<sockaddr*>(&sin), &slen) != 0) {
    ::close(lfd);
    state.SkipWithError("cannot start the echo server");
    return;
  }
  std::thread server([lfd, &echoOnce, len] {
    int fd = ::accept4(lfd, nullptr, nullptr, SOCK_CLOEXEC);
    ::close(lfd);
    if (fd < 0) return;
    std::vector<char> buf(len);
    while (echoOnce(fd, buf, false)) {
    }
    ::close(fd);
  });
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&sin), sizeof sin) != 0) {
    state.SkipWithError("cannot connect to the echo server");
  } else {
    std::vector<char> buf(len);
    for (auto _ : state) {
      if (!echoOnce(fd, buf, true)) {
        state.SkipWithError("echo failed");
        break;
      }
      benchmark::DoNotOptimize(buf);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * 2 *
                            static_cast<int64_t>(len));
  }
  ::close(fd);
  server.join();
}

}  // namespace velm::bench
