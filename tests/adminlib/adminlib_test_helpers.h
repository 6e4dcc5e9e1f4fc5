// Shared pieces of the admin library tests: loopback peers, the stand-in port mapper as a child
// process, scoped environment variables and a fixture with a sandbox root and captured log.
#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/ports.h"
#include "support/run_program.h"
#include "support/sandbox.h"
#include "support/sim_process.h"

namespace velm::test {

using Bytes = std::vector<std::uint8_t>;

// Sets (or with null, unsets) an environment variable for a scope.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value);
  ~ScopedEnv();

 private:
  std::string name_, old_;
  bool had_ = false;
};

// Reads exactly n bytes (fewer if the peer closes).
Bytes readBytes(int fd, std::size_t n);
bool writeBytes(int fd, const Bytes& bytes);

// A TCP listener on 127.0.0.1 whose handler runs on its own thread for each of the first
// `connections` clients. The destructor waits for the handlers.
class LoopbackPeer {
 public:
  explicit LoopbackPeer(std::function<void(int fd)> handler, int connections = 1, int port = 0);
  ~LoopbackPeer();
  int port() const { return port_; }

 private:
  int listenFd_ = -1;
  int wake_[2] = {-1, -1};  // the destructor ends a wait for clients that never came
  int port_ = 0;
  std::thread thread_;
};

// velm-simpm as a child process, its stderr collected.
class SimPmProcess : public SimProcess {
 public:
  // Starts it and waits until it listens (or exits). False with the reason in stderrText().
  bool start(const std::vector<std::string>& args) {
    return SimProcess::start("velm-simpm", args, "listening on");
  }
  static std::string path() { return binaryPath("velm-simpm"); }
};

// A sandbox root per test, log lines captured in a file, the library's process state reset.
class AdminlibTest : public SandboxTest {
 protected:
  void SetUp() override;
  void TearDown() override;
  // Lines written to the log since the test began.
  std::vector<std::string> logLines() const;
  bool logContains(const std::string& text) const;
  // Writes a file under the DRFS root (<root>/Library/Filesystems/Velm/<relative>).
  std::string writeDrfs(const std::string& relative, const std::string& content,
                        unsigned mode = 0644);

  std::string logPath_;

 private:
  std::string oldLog_;
  bool hadLog_ = false;
};

}  // namespace velm::test
