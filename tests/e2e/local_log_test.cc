#include <gtest/gtest.h>

#include <sstream>

#include "platform/files.h"
#include "support/run_program.h"
#include "support/sandbox.h"

namespace velm {
namespace {

// With NLog off, the plugin says only errors, and the host speaks in its own voice.
TEST(LocalLog, FreshRootWithLoggingOffWritesNoPluginLineButErrors) {
  test::SandboxRoot sandbox;
  std::string log = sandbox.path("/velm.log");
  for (const char* command :
       {"getState", "getComputerProperties", "readSettings", "getLUNs", "refreshLUNs"}) {
    test::ProgramResult r = test::runProgram("velmadmin", {"--local", command}, {},
                                             {{"VELM_ROOT", sandbox.root()}, {"VELM_LOG", log}});
    EXPECT_EQ(r.status, 0) << command << ": " << r.err;
  }
  std::istringstream lines(readFile(log).value_or(""));
  int hostLines = 0;
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind("velm:", 0) == 0) {
      EXPECT_NE(line.find("] ERROR: "), std::string::npos) << line;
    } else {
      EXPECT_EQ(line.rfind("velmadmin[", 0), 0u) << line;
      ++hostLines;
    }
  }
  EXPECT_GE(hostLines, 1);
}

}  // namespace
}  // namespace velm
