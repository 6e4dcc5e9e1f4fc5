// adminhostd following a generated Fibre Channel fabric: a path dropped with velm-simfabric is
// seen within one rescan, logged and written to the recent fibre activity log; restored, it is
// logged only. The daemon answers through all of it.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>

#include "e2e/e2e_helpers.h"
#include "support/run_program.h"

namespace velm {
namespace {

constexpr const char* kWwnn = "0x50060e8000c3a100";

class FabricEndToEndTest : public test::SandboxTest {
 protected:
  void SetUp() override {
    sys_ = sandbox_.path("/sys");
    fabric({"init", "--hosts", "2"});
    fabric({"add-target", kWwnn, "--luns", "0-1"});
    ::setenv("VELM_SYSFS", sys_.c_str(), 1);
    sandbox_.write("/var/adminhostd/enable_velm_logging", "");
    daemon_ = std::make_unique<test::Daemon>(
        sandbox_, test::makePluginDir(sandbox_, {{"velm", test::velmPluginPath()}}),
        std::vector<std::string>{"--idle-interval", "3600"});
    ASSERT_TRUE(daemon_->start()) << daemon_->stderrText();
  }
  void TearDown() override { ::unsetenv("VELM_SYSFS"); }

  void fabric(std::vector<std::string> args) {
    args.insert(args.begin(), {"--sysfs", sys_});
    test::ProgramResult r = test::runProgram("velm-simfabric", args);
    ASSERT_EQ(r.status, 0) << r.err;
  }
  bool answers() {
    test::ProgramResult r =
        test::runProgram("velmadmin", {"--server", daemon_->url(), "--token-file",
                                       sandbox_.path("/var/adminhostd/admin.token"), "getState"});
    return r.status == 0 && r.out.find("RUNNING") != std::string::npos;
  }
  bool logged(const std::string& text) {
    return daemon_->logText().find(text) != std::string::npos;
  }
  // Polls cond for up to 15 s (a rescan comes every 5 s), asking the daemon meanwhile.
  bool eventually(const std::function<bool()>& cond) {
    for (int i = 0; i < 150; ++i) {
      if (cond()) return true;
      EXPECT_TRUE(answers());
      ::usleep(100000);
    }
    return false;
  }
  std::size_t lossEntries() {
    std::string text = sandbox_.read("/var/run/velm2_recent_fibre_activity.plist");
    std::size_t n = 0;
    for (std::size_t at = text.find("<string>Loss</string>"); at != std::string::npos;
         at = text.find("<string>Loss</string>", at + 1))
      ++n;
    return n;
  }

  std::string sys_;
  std::unique_ptr<test::Daemon> daemon_;
};

TEST_F(FabricEndToEndTest, ADroppedPathIsLoggedAndWrittenARestoredOneOnlyLogged) {
  ASSERT_TRUE(eventually([&] {
    return logged("SANDeviceManager: Added target 50:06:0E:80:00:C3:A1:00");
  })) << daemon_->logText();
  EXPECT_EQ(lossEntries(), 0u);

  fabric({"path", kWwnn, "--host", "2", "--state", "Blocked"});
  EXPECT_TRUE(eventually([&] { return logged("SANDeviceManager: Removed ("); }))
      << daemon_->logText();
  EXPECT_TRUE(eventually([&] { return lossEntries() == 1; }));
  EXPECT_NE(
      sandbox_.read("/var/run/velm2_recent_fibre_activity.plist").find("<string>Path</string>"),
      std::string::npos);

  std::size_t before = daemon_->logText().size();
  fabric({"path", kWwnn, "--host", "2", "--state", "Online"});
  EXPECT_TRUE(eventually([&] {
    return daemon_->logText().find("SANDeviceManager: Added (", before) != std::string::npos;
  }));
  EXPECT_EQ(lossEntries(), 1u);
}

}  // namespace
}  // namespace velm
