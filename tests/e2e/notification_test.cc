// Notifications end to end on the two-controller SAN: the daemons tick every second, mail goes
// through the sendmail stand-in (or femail to velm-simsmtp) into each root's Maildir, and a
// time-offset file moves the daemons' clocks by a day without waiting for it.
#include <signal.h>

#include <chrono>
#include <filesystem>
#include <fstream>

#include "e2e/two_controllers.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "support/sim_mail.h"

namespace velm::test {
namespace {

namespace fs = std::filesystem;

class NotificationsOnTwoControllersTest : public VelmadminOnTwoControllersTest {
 protected:
  void SetUp() override {
    offsetFile_ = a_.root.write("/time-offset", "0\n");
    ::setenv("VELM_TIME_OFFSET_FILE", offsetFile_.c_str(), 1);
    ::setenv("VELM_MAIL_TIMEOUT", "2", 1);
    VelmadminOnTwoControllersTest::SetUp();
    for (Controller* c : {&a_, &b_}) installSendmail(c->root);
  }
  void TearDown() override {
    ::unsetenv("VELM_TIME_OFFSET_FILE");
    ::unsetenv("VELM_MAIL_TIMEOUT");
    VelmadminOnTwoControllersTest::TearDown();
  }
  std::string idleInterval() const override { return "1"; }

  PropertyList settings(const std::string& relay = "") {
    return notificationSettings({"admin@example.com"}, 20, false, false, true, relay);
  }
  void configure(const PropertyList& s) {
    for (Controller* c : {&a_, &b_})
      EXPECT_TRUE(velmadmin(*c, "setNotificationsConfiguration", {{"config", s}})
                      .get("success")
                      ->boolValue());
  }
  // Both controllers' mail, as filed.
  std::vector<std::string> mails() {
    std::vector<std::string> all = maildirMessages(a_.root);
    for (std::string& m : maildirMessages(b_.root)) all.push_back(std::move(m));
    return all;
  }
  // Waits (real time) until there are count mails, or a few ticks more when it expects none.
  std::vector<std::string> waitForMails(std::size_t count, int ticks = 20) {
    std::vector<std::string> got;
    for (int i = 0; i < ticks * 10; ++i) {
      got = mails();
      if (got.size() >= count && count > 0) break;
      systemClock().sleepMicros(100000);
    }
    return got;
  }
  void setOffset(long long seconds) {
    writeFileAtomically(offsetFile_, std::to_string(seconds) + "\n");
  }
  static bool has(const std::string& mail, const std::string& text) {
    return mail.find(text) != std::string::npos;
  }
  std::string offsetFile_;
};

TEST_F(NotificationsOnTwoControllersTest, LowSpaceMailsOnceADayAcrossARestart) {
  ASSERT_EQ(status(setState(a_, "START")), 0);
  // The volume's data, as each controller's stand-in sees it: 90 % of 4 GB.
  for (Controller* c : {&a_, &b_}) {
    std::string dir = c->root.path("/Volumes/Projects");
    fs::create_directories(dir);
    std::ofstream(dir + "/media").close();
    fs::resize_file(dir + "/media", 3686400000ull);
  }
  configure(settings());
  std::vector<std::string> got = waitForMails(1);
  ASSERT_EQ(got.size(), 1u);
  EXPECT_TRUE(has(got[0], "\nSubject: DemoSAN: Volume Projects low on space\n")) << got[0];
  EXPECT_TRUE(has(got[0], "\nTo: admin@example.com\n"));
  EXPECT_TRUE(has(got[0], "\nMessage-ID: <"));
  EXPECT_FALSE(has(got[0], "\nFrom: "));

  setOffset(23 * 3600);
  EXPECT_EQ(waitForMails(0, 3).size(), 1u);
  // A restart keeps the date of the last mail.
  Controller& primary = a_.root.exists("/var/mail/new") &&
                                !maildirMessages(a_.root).empty()
                            ? a_
                            : b_;
  primary.daemon->signal(SIGTERM);
  ASSERT_EQ(primary.daemon->waitExit(), 0);
  primary.daemon = std::make_unique<Daemon>(
      primary.root, primary.root.root() + "/plugins",
      std::vector<std::string>{"--listen",
                               std::string(primary.address) + ":" + std::to_string(probePort_),
                               "--idle-interval", "1"});
  ASSERT_TRUE(primary.daemon->start()) << primary.daemon->stderrText();
  EXPECT_EQ(waitForMails(0, 3).size(), 1u);

  setOffset(24 * 3600 + 60);
  EXPECT_EQ(waitForMails(2).size(), 2u);
}

TEST_F(NotificationsOnTwoControllersTest, FailoversThroughARelayAndAHungMailProgram) {
  SimProcess smtp;
  int port = startSimSmtp(smtp, a_.root);
  ASSERT_GT(port, 0) << smtp.stderrText();
  configure(settings("127.0.0.1:" + std::to_string(port)));
  velmadmin(a_, "sendFailover", {{"volume", PropertyList("Projects")},
                                 {"hostname", PropertyList(kB)}});
  velmadmin(a_, "sendFailover", {{"volume", PropertyList("Projects")},
                                 {"hostname", PropertyList(kA)}});
  std::vector<std::string> got = maildirMessages(a_.root);
  ASSERT_EQ(got.size(), 2u) << smtp.stderrText();
  EXPECT_TRUE(has(got[0] + got[1], "Subject: DemoSAN: Volume Projects has failed over"));
  EXPECT_TRUE(has(got[0] + got[1], "Subject: DemoSAN: Volume Projects has restarted"));
  EXPECT_TRUE(has(got[0], "Received: ") && has(got[0], "Envelope-to: admin@example.com"));

  // The local mail system hangs: the command still answers, and the mail waits in the spool.
  configure(settings());
  writeMailMode(a_.root, "hang");
  auto start = std::chrono::steady_clock::now();
  PropertyList answer = velmadmin(a_, "sendNotification", {{"messageType", PropertyList("fibre")},
                                                          {"messageSubject", PropertyList("hi")}});
  double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_FALSE(answer.get("error")) << describe(answer);
  EXPECT_LT(seconds, 2 + 2 + 3.0);
  std::size_t spooled = 0;
  for ([[maybe_unused]] const auto& e :
       fs::directory_iterator(a_.root.path("/var/spool/velm/unsent")))
    ++spooled;
  EXPECT_EQ(spooled, 1u);
  EXPECT_EQ(maildirMessages(a_.root).size(), 2u);
}

}  // namespace
}  // namespace velm::test
