// The library against the stand-in port mapper (velm-simpm) as a separate process: discovery,
// authentication with one secret on each side, FSM connections, older peers, its command line.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <string>
#include <vector>

#include "adminlib/adminlib.h"
#include "adminlib/adminlib_test_helpers.h"
#include "platform/unique_fd.h"

namespace velm::test {
namespace {

class SimPmTest : public AdminlibTest {
 protected:
  void SetUp() override {
    AdminlibTest::SetUp();
    if (::access(SimPmProcess::path().c_str(), X_OK) != 0) GTEST_SKIP() << "velm-simpm not built";
    port_ = freeLoopbackPort();
    std::string fsports = "altpmap " + std::to_string(port_) + "\n";
    writeDrfs("config/fsports", fsports);
    sandbox_.write("/sim/Library/Filesystems/Velm/config/fsports", fsports);
    AltGetportResetForTest();
  }
  void TearDown() override {
    if (sim_) {
      int status = sim_->stop();
      EXPECT_EQ(status, 0) << "status " << status;
    }
    AdminlibTest::TearDown();
  }

  std::string simRoot() const { return sandbox_.path("/sim"); }
  void simSecret(const std::string& s) {
    sandbox_.write("/sim/Library/Filesystems/Velm/config/.auth_secret", s, 0600);
  }
  void clientSecret(const std::string& s) { writeDrfs("config/.auth_secret", s, 0600); }
  std::string writeConfig(const std::string& body) {
    return sandbox_.write(
        "/sim/simpm.plist",
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n" + body +
            "</dict>\n</plist>\n");
  }
  bool startSim() {
    sim_ = std::make_unique<SimPmProcess>();
    bool ok = sim_->start({"--root", simRoot(), "--listen", "127.0.0.1"});
    EXPECT_TRUE(ok) << sim_->stderrText();
    AuthenticationInit();
    return ok;
  }
  std::string simLog() { return sim_->stderrText(); }

  int port_ = 0;
  std::unique_ptr<SimPmProcess> sim_;
};

TEST_F(SimPmTest, AuthenticationAccepted) {
  simSecret("one shared secret\n");
  clientSecret("one shared secret\n");
  ASSERT_TRUE(startSim());
  EXPECT_EQ(GetAuthenticateConnection(), 1);
  char err[ADMIN_ERRBUF_LEN] = {};
  UniqueFd fd(FsmPMConnect(nullptr, err));
  ASSERT_TRUE(fd.valid()) << err;
  // Framed requests work on the authenticated connection.
  std::uint8_t msg[kPmMsgLen] = {};
  put_be16(msg + kPmType, kPmGetSocketNoWait);
  PmSetName(msg, "nothing");
  int e = 0;
  ASSERT_EQ(SendRcvMsg(fd.get(), msg, sizeof msg, &e), 0) << e;
  EXPECT_EQ(get_be16(msg + kPmStatus), 1);
  EXPECT_TRUE(sim_->waitForText("authentication accepted")) << simLog();
}

TEST_F(SimPmTest, AuthenticationRefused) {
  simSecret("the port mapper's secret\n");
  clientSecret("another secret\n");
  ASSERT_TRUE(startSim());
  char err[ADMIN_ERRBUF_LEN] = {};
  EXPECT_EQ(FsmPMConnect(nullptr, err), -1);
  EXPECT_STREQ(err, "Authentication Failed");
  EXPECT_TRUE(sim_->waitForText("authentication refused")) << simLog();
  EXPECT_TRUE(logContains("server_authenticate_response: CLIENT AUTH FAILED"));
}

TEST_F(SimPmTest, AuthenticationNotWanted) {
  clientSecret("only here\n");
  ASSERT_TRUE(startSim());
  char err[ADMIN_ERRBUF_LEN] = {};
  UniqueFd fd(FsmPMConnect(nullptr, err));
  EXPECT_TRUE(fd.valid()) << err;
  EXPECT_TRUE(sim_->waitForText("authentication request: not wanted")) << simLog();
}

TEST_F(SimPmTest, UnauthenticatedRequestIsDropped) {
  simSecret("required\n");
  ASSERT_TRUE(startSim());
  char err[ADMIN_ERRBUF_LEN] = {};
  EXPECT_EQ(FsmGetSocket(nullptr, "vol1", 0, err, 1, nullptr), -1);
  EXPECT_STREQ(err, "fsmportmapper request failed: [errno 104]: Connection reset by peer");
}

TEST_F(SimPmTest, FsmConnectionsThroughThePortMapper) {
  writeConfig(
      "<key>fsms</key><array>\n"
      "<dict><key>name</key><string>vol1</string><key>port</key><integer>0</integer>"
      "<key>capabilities</key><integer>3</integer></dict>\n"
      "<dict><key>name</key><string>vol2</string><key>active</key><false/></dict>\n"
      "</array>\n");
  ASSERT_TRUE(startSim());
  char err[ADMIN_ERRBUF_LEN] = {};
  std::uint32_t caps = 0;
  UniqueFd fd(FsmGetSocket("localhost", "vol1", 0, err, 1, &caps));
  ASSERT_TRUE(fd.valid()) << err;
  EXPECT_EQ(caps, 3u);
  EXPECT_GT(std::stoi(err), 0);  // the FSM's port
  EXPECT_EQ(FsmGetSocket("localhost", "vol2", 0, err, 1, nullptr), -1);
  EXPECT_STREQ(err, "File System Manager \"vol2\" on localhost is on standby.\n");
  EXPECT_EQ(FsmGetSocket("localhost", "vol3", 0, err, 1, nullptr), -1);
  EXPECT_STREQ(err, "Could not find File System Manager for \"vol3\" on localhost.\n");
}

TEST_F(SimPmTest, OlderPeerIsAskedTheOlderFormOnTheSameSocket) {
  writeConfig(
      "<key>fsms</key><array><dict><key>name</key><string>vol1</string></dict></array>\n"
      "<key>unknownTypes</key><array><integer>140</integer></array>\n");  // 0x008C
  ASSERT_TRUE(startSim());
  char err[ADMIN_ERRBUF_LEN] = {};
  UniqueFd fd(FsmGetSocket(nullptr, "vol1", 0, err, 1, nullptr));
  EXPECT_TRUE(fd.valid()) << err;
  ASSERT_TRUE(sim_->waitForText("get socket 0x000c"));
  std::string log = simLog();
  std::size_t unknown = log.find("request 0x008c answered as unknown");
  std::size_t older = log.find("get socket 0x000c 'vol1' -> status 0");
  ASSERT_NE(unknown, std::string::npos) << log;
  ASSERT_NE(older, std::string::npos) << log;
  EXPECT_LT(unknown, older);
}

TEST_F(SimPmTest, CommandLineErrors) {
  SimPmProcess noRoot;
  EXPECT_FALSE(noRoot.start({"--listen", "127.0.0.1"}));
  int status = noRoot.stop();
  EXPECT_EQ(status, 2);
  EXPECT_NE(noRoot.stderrText().find("--root DIR is required"), std::string::npos);

  writeConfig("<key>fsms</key><string>not an array</string>\n");
  SimPmProcess badConfig;
  EXPECT_FALSE(badConfig.start({"--root", simRoot()}));
  status = badConfig.stop();
  EXPECT_EQ(status, 1);
  EXPECT_NE(badConfig.stderrText().find("'fsms' is not an array"), std::string::npos);

  ::unlink(sandbox_.path("/sim/simpm.plist").c_str());
  ASSERT_TRUE(startSim());
  SimPmProcess second;  // the discovery port is taken now
  EXPECT_FALSE(second.start({"--root", simRoot()}));
  status = second.stop();
  EXPECT_EQ(status, 1);
  EXPECT_NE(second.stderrText().find("cannot listen on 127.0.0.1:" + std::to_string(port_)),
            std::string::npos)
      << second.stderrText();
}

}  // namespace
}  // namespace velm::test
