#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "platform/log.h"
#include "platform/paths.h"
#include "support/log_capture.h"
#include "support/sandbox.h"

namespace velm {
namespace {

class PluginLogTest : public test::SandboxTest {};

TEST_F(PluginLogTest, SwitchIsDecidedAtTheFirstNLogAndKeptUntilRestart) {
  test::LogCapture log(/*enableNLog=*/false);
  NLog("first %d", 1);
  std::string enable = hostPath("/var/adminhostd/enable_velm_logging");
  std::filesystem::create_directories(std::filesystem::path(enable).parent_path());
  std::ofstream(enable).flush();
  NLog("second %d", 2);
  NError("always %@", std::string("written"));
  EXPECT_EQ(log.count("first 1"), 0u);
  EXPECT_EQ(log.count("second 2"), 0u);
  EXPECT_EQ(log.count("ERROR: always written"), 1u);

  resetLoggingForTest();  // as a new process would
  NLog("third %d", 3);
  EXPECT_EQ(log.count("third 3"), 1u);

  std::filesystem::remove(enable);
  NLog("fourth %d", 4);
  EXPECT_EQ(log.count("fourth 4"), 1u);
}

TEST_F(PluginLogTest, LinesCarryPidAndThreadAndEmptyTextReadsNull) {
  test::LogCapture log;
  NLog("%s", "");
  NError("%s", "");
  std::vector<std::string> lines = log.lines();
  ASSERT_EQ(lines.size(), 2u);
  std::string pid = std::to_string(::getpid());
  EXPECT_THAT(lines[0], testing::MatchesRegex("velm: \\[" + pid + "/[0-9A-F]+\\] null"));
  EXPECT_THAT(lines[1], testing::MatchesRegex("velm: \\[" + pid + "/[0-9A-F]+\\] ERROR: null"));
}

}  // namespace
}  // namespace velm
