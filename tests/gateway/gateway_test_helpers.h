// Shared pieces of the gateway tests: a sandbox with its own procfs, and a scripted velmd.
#pragma once

#include <string>
#include <thread>
#include <vector>

#include "support/log_capture.h"
#include "support/sandbox.h"

namespace velm::test {

// A sandbox root whose VELM_PROCFS is <root>/proc, with the gateway singletons fresh.
class GatewayTest : public SandboxTest {
 protected:
  void SetUp() override;
  void TearDown() override;
  // Writes <root>/proc/self/mountinfo.
  void writeMountInfo(const std::string& text);
  // A shell script at <root>/Library/Filesystems/Velm/bin/<name>.
  void writeTool(const std::string& name, const std::string& body);

  LogCapture log_;
};

// A velmd that answers one connection: it reads the request to its end, sends the pieces in
// order, then closes, or with holdOpen waits for the client to close first.
class ScriptedVelmd {
 public:
  ScriptedVelmd(std::vector<std::string> pieces, bool holdOpen = false);
  ~ScriptedVelmd();
  // The request as received; valid once the exchange is over.
  const std::string& request();

 private:
  int listenFd_ = -1;
  std::string request_;
  std::thread thread_;
};

}  // namespace velm::test
