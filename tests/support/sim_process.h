// The stand-ins of sim/ for tests: a built program as a child process with its stderr collected,
// and the tool stand-ins installed into a sandbox root.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/sandbox.h"

namespace velm::test {

class SimProcess {
 public:
  SimProcess() = default;
  // Stops the child if it still runs.
  ~SimProcess();
  SimProcess(const SimProcess&) = delete;
  SimProcess& operator=(const SimProcess&) = delete;

  // Starts binaryPath(name) (or name itself when it is a path) with args; env entries are added to (or replace) this process's
  // environment. Waits until stderr shows readyText (empty: no wait) or the child ends. False
  // with the reason in stderrText().
  bool start(const std::string& name, const std::vector<std::string>& args,
             const std::string& readyText, const std::map<std::string, std::string>& env = {});
  // SIGTERM and wait (SIGKILL when it takes more than 10 s). The exit code, 128 + the signal
  // when killed, -1 when nothing runs.
  int stop();
  std::string stderrText();
  // Waits until stderr holds text (read on another thread) or the child ends.
  bool waitForText(const std::string& text,
                   std::chrono::milliseconds timeout = std::chrono::seconds(10));
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
  int errFd_ = -1;
  std::thread reader_;
  std::mutex mutex_;  // guards text_, done_
  std::condition_variable cv_;
  std::string text_;
  bool done_ = false;
};

// The tool stand-ins (sim/tools), in one list so a new one is installed everywhere.
const std::vector<std::string>& simToolNames();
// Symlinks each built stand-in into <root>/Library/Filesystems/Velm/bin/; a failure fails the
// test.
void installSimTools(const SandboxRoot& sandbox);

}  // namespace velm::test
