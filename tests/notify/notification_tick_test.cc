// Notifications on a small SAN: this process is controller A with velm-simpm, mail goes through
// the resources' script into the sendmail stand-in's Maildir, and time is a fake clock.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>

#include "config/config_test_util.h"
#include "fabric/device_manager.h"
#include "notify/mail_delivery.h"
#include "notify/notification_tick.h"
#include "support/sim_mail.h"
#include "volumes/controller_helpers.h"
#include "volumes/volume_state.h"

namespace velm::test {
namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t kHour = 3600ull * 1000000;

// A volume of 1000 blocks of 4 KiB whose free space is what its folder doesn't hold.
std::string volumeEntry(const std::string& name, bool active, const std::string& contentDir,
                        const std::string& extra = "") {
  return fsmEntry(name, active, true,
                  "<key>contentDir</key><string>" + contentDir +
                      "</string><key>statistics</key><dict><key>totalBlocks</key><integer>1000"
                      "</integer><key>blockSize</key><integer>4096</integer></dict>" +
                      extra);
}

class NotificationTickTest : public ControllerTest {
 protected:
  void SetUp() override {
    ControllerTest::SetUp();
    installSendmail(sandbox_);
    ::unsetenv("LANGUAGE");
    ::unsetenv("LANG");
  }
  void TearDown() override {
    ::unsetenv("VELM_MAIL_TIMEOUT");
    ::unsetenv("LANGUAGE");
    SANDeviceManager::resetForTest();
    ControllerTest::TearDown();
  }
  // Volumes of this machine's config, each with its .cfg.
  void volumes(const std::vector<std::string>& names) {
    writeVolumeConfig(names.front(), {kControllerA, kControllerB});
    std::string config = sandbox_.path("/Library/Filesystems/Velm/config/config.plist");
    PropertyList c = *readXmlPlistFile(config).value;
    c.set("sanName", "DemoSAN");
    sandbox_.write("/Library/Filesystems/Velm/config/config.plist", writeXmlPlist(c));
    for (const std::string& n : names)
      sandbox_.write("/Library/Filesystems/Velm/config/" + n + ".cfg", kRealisticConfig);
  }
  void settings(int threshold, bool quota, bool fibre, bool failover,
                std::vector<std::string> emails = {"admin@example.com"}) {
    sandbox_.write("/Library/Filesystems/Velm/config/notifications.plist",
                   writeXmlPlist(notificationSettings(emails, threshold, quota, fibre, failover,
                                                      "", "san@example.com")));
  }
  // Fills the volume's folder to blocks of its 1000.
  void fill(const std::string& dir, std::uint64_t blocks) {
    fs::create_directories(dir);
    std::ofstream(dir + "/data").close();
    fs::resize_file(dir + "/data", blocks * 4096);
  }
  int tick() { return processNotifications(&context_, PropertyList("DemoSAN")); }
  std::vector<std::string> mails() { return maildirMessages(sandbox_); }
  static bool has(const std::string& mail, const std::string& text) {
    return mail.find(text) != std::string::npos;
  }
  PropertyList state() {
    const PropertyList* s = context_.get("notificationStateLookup");
    return s ? *s : PropertyList();
  }
  std::string content_ = sandbox_.path("/content/Projects");
};

TEST_F(NotificationTickTest, LowSpaceIsMailedOnceADayAndAtOnceWhenItReturns) {
  volumes({"Projects"});
  ASSERT_TRUE(startSan(volumeEntry("Projects", true, content_), ""));
  settings(20, false, false, false);
  fill(content_, 900);
  context_.set("notificationStateLookup", "not a dictionary");

  EXPECT_EQ(tick(), 0);
  EXPECT_EQ(log_.count("ERROR: processNotifications: notificationStateLookup in the context is "
                       "not a dictionary; starting it afresh"),
            1u);
  ASSERT_EQ(mails().size(), 1u) << ::testing::PrintToString(log_.messages());
  EXPECT_TRUE(has(mails()[0], "Subject: DemoSAN: Volume Projects low on space")) << mails()[0];
  EXPECT_TRUE(has(mails()[0], "To: admin@example.com"));
  EXPECT_TRUE(has(mails()[0], "From: san@example.com"));
  EXPECT_TRUE(state().get("Projects-FreeSpaceThreshold"));
  EXPECT_TRUE(context_.get("contextDirty")->boolValue());

  clock_->advanceMicros(23 * kHour);
  tick();
  EXPECT_EQ(log_.count("processNotifications: Not time to send e-mail for "
                       "Projects-FreeSpaceThreshold.  Waiting for 24 hours after initial e-mail."),
            1u);
  clock_->advanceMicros(kHour);  // exactly 24 hours: not yet
  tick();
  EXPECT_EQ(mails().size(), 1u);
  clock_->advanceMicros(1000000);
  tick();
  EXPECT_EQ(mails().size(), 2u);

  fill(content_, 0);
  tick();
  EXPECT_FALSE(state().get("Projects-FreeSpaceThreshold"));
  EXPECT_EQ(log_.count("processNotifications: Condition Projects-FreeSpaceThreshold no longer "
                       "met.  Resetting notification information."),
            1u);
  fill(content_, 950);
  tick();
  EXPECT_EQ(mails().size(), 3u);
}

TEST_F(NotificationTickTest, BoundariesAndVolumesHostedElsewhereMailNothing) {
  volumes({"Projects", "Empty", "Elsewhere"});
  ASSERT_TRUE(startSan(volumeEntry("Projects", true, content_) +
                           fsmEntry("Empty", true, true,
                                    "<key>statistics</key><dict><key>totalBlocks</key>"
                                    "<integer>0</integer><key>freeBlocks</key><integer>0"
                                    "</integer></dict>") +
                           fsmEntry("Elsewhere", false, true),
                       fsmEntry("Elsewhere", true, true)));
  settings(10, false, false, false);
  fill(content_, 900);  // 10.0 % free is not below 10
  PropertyList old = PropertyList::dict();
  old.set("Projects-FreeSpaceThreshold", PropertyList(PlistDate{0}));
  old.set("Empty-FreeSpaceThreshold", PropertyList(PlistDate{0}));
  context_.set("notificationStateLookup", old);

  tick();
  EXPECT_TRUE(mails().empty());
  EXPECT_FALSE(state().get("Projects-FreeSpaceThreshold"));
  EXPECT_TRUE(log_.contains("is_volume_over_space_threshold: Projects on 127.0.0.2, percentLeft = "
                            "10.000000, freeSpaceThreshold = 10"));
  // A total of 0 is no percentage at all: not below, so reset.
  EXPECT_TRUE(log_.contains("nan, freeSpaceThreshold = 10"));
  EXPECT_FALSE(state().get("Empty-FreeSpaceThreshold"));
  EXPECT_EQ(log_.count("process_notifications: Skipping Elsewhere, it is hosted by '127.0.0.3' "
                       "which is not this machine"),
            1u);
}

TEST_F(NotificationTickTest, SoftQuotasAtTheirLimitsAndAfterTheGracePeriod) {
  auto user = [](const char* name, int used, int soft, int hard, int remaining) {
    return std::string("<dict><key>name</key><string>") + name +
           "</string><key>used</key><integer>" + std::to_string(used) +
           "</integer><key>softLimit</key><integer>" + std::to_string(soft) +
           "</integer><key>hardLimit</key><integer>" + std::to_string(hard) +
           "</integer><key>timeLimit</key><integer>60</integer><key>timeRemaining</key><integer>" +
           std::to_string(remaining) +
           "</integer></dict>";
  };
  volumes({"Projects"});
  ASSERT_TRUE(startSan(volumeEntry("Projects", true, content_,
                                   "<key>userQuotas</key><array>" + user("atsoft", 40, 40, 80, 5) +
                                       user("athard", 80, 40, 80, 5) +
                                       user("graceover", 10, 40, 80, -1) +
                                       user("below", 39, 40, 80, 5) + "</array>"),
                       ""));
  settings(0, true, false, false);
  tick();
  std::vector<std::string> got = mails();
  ASSERT_EQ(got.size(), 3u) << ::testing::PrintToString(log_.messages());
  for (const char* who : {"atsoft", "athard", "graceover"}) {
    bool found = false;
    for (const std::string& m : got) found = found || has(m, std::string("DemoSAN: ") + who);
    EXPECT_TRUE(found) << who;
  }
  EXPECT_EQ(log_.count("is_quota_in_soft_region: user athard quota is above hard quota!"), 1u);
  EXPECT_EQ(log_.count("is_quota_in_soft_region: user graceover quota is in hard quota"), 1u);
  EXPECT_EQ(log_.count("is_quota_in_soft_region: user below quota is below soft"), 1u);
  EXPECT_TRUE(state().get("Projects-user-atsoft-ExceededSoftQuota"));
  tick();
  EXPECT_EQ(mails().size(), 3u);
}

TEST_F(NotificationTickTest, TheFibreLogIsMailedOnceAndKeptWithoutAConnection) {
  volumes({"Projects"});
  ASSERT_TRUE(startSan(volumeEntry("Projects", true, content_), ""));
  settings(0, false, true, false);
  PropertyList loss = PropertyList::dict();
  loss.set("type", "Path");
  loss.set("event", "Loss");
  loss.set("wwnn", "50:06:0E:80:00:C3:A1:00");
  SANDeviceManager& devices = SANDeviceManager::defaultManager();
  devices.writeRecentFibreLog(PlistArray{loss});

  ASSERT_EQ(portMapper('A').stop(), 0);
  tick();
  EXPECT_EQ(log_.count("ERROR: process_notifications: Cannot connect to FS"), 1u);
  EXPECT_EQ(devices.readRecentFibreLog().size(), 1u);
  EXPECT_TRUE(mails().empty());
}

TEST_F(NotificationTickTest, FibreEventsGoOutInOneMailAndTheLogIsCleared) {
  volumes({"Projects"});
  ASSERT_TRUE(startSan(volumeEntry("Projects", true, content_), ""));
  settings(0, false, true, false);
  PropertyList lun = PropertyList::dict();
  lun.set("type", "LUN");
  lun.set("event", "Addition");
  lun.set("wwnn", "50:06:0E:80:00:C3:A1:00");
  lun.set("lun", 1);
  SANDeviceManager& devices = SANDeviceManager::defaultManager();
  devices.writeRecentFibreLog(PlistArray{lun, lun});
  tick();
  ASSERT_EQ(mails().size(), 1u);
  EXPECT_TRUE(has(mails()[0], "Fibre Channel activity log for"));
  EXPECT_TRUE(has(mails()[0], "LUN 50:06:0E:80:00:C3:A1:001 is now available."));
  EXPECT_EQ(devices.readRecentFibreLog().size(), 0u);
  tick();
  EXPECT_EQ(mails().size(), 1u);

  // With fibre mail off the log is cleared all the same.
  settings(0, false, false, false);
  devices.writeRecentFibreLog(PlistArray{lun});
  tick();
  EXPECT_EQ(devices.readRecentFibreLog().size(), 0u);
  EXPECT_EQ(mails().size(), 1u);
}

TEST_F(NotificationTickTest, FailoversTestMailsAndRefusedRequests) {
  volumes({"Projects"});
  ASSERT_TRUE(startSan(volumeEntry("Projects", true, content_), ""));
  settings(0, false, false, true);
  run("sendFailover", {{"volume", PropertyList("Projects")}, {"hostname", PropertyList(kControllerA)}});
  run("sendFailover", {{"volume", PropertyList("Projects")}, {"hostname", PropertyList(kControllerB)}});
  std::vector<std::string> got = mails();
  ASSERT_EQ(got.size(), 2u);
  EXPECT_TRUE(has(got[0], "DemoSAN: Volume Projects has restarted") ||  // << got[0]
              has(got[1], "DemoSAN: Volume Projects has restarted"))
      << got[0] << got[1];
  EXPECT_TRUE(has(got[0], "has failed over") || has(got[1], "has failed over"));
  EXPECT_EQ(*run("sendFailover", {{"volume", PropertyList(3)}}).getString("error"),
            "INVALID_ARG_ERR");

  EXPECT_EQ(*run("sendNotification", {{"messageType", PropertyList("pager")},
                                      {"messageBody", PropertyList("x")}})
                 .getString("error"),
            "INVALID_ARG_ERR");
  EXPECT_EQ(mails().size(), 2u);
  PropertyList sent = run("sendNotification", {{"messageType", PropertyList("fibre")},
                                               {"messageBody", PropertyList("")}});
  EXPECT_FALSE(sent.get("error"));
  ASSERT_EQ(mails().size(), 3u);
  EXPECT_TRUE(has(mails()[2], "Test notification"));

  // A trial configuration reaches its own recipient; the file's settings are not used.
  PropertyList trial = *readXmlPlistFile(
                            sandbox_.path("/Library/Filesystems/Velm/config/notifications.plist"))
                            .value;
  PropertyList other = PropertyList::dict();
  other.set("email", "trial@example.com");
  trial.set("Addresses", PlistArray{other});
  run("sendNotification", {{"messageType", PropertyList("quota")},
                           {"messageSubject", PropertyList("trial")},
                           {"config", trial}});
  ASSERT_EQ(mails().size(), 4u);
  EXPECT_TRUE(has(mails()[3], "To: trial@example.com"));
}

TEST_F(NotificationTickTest, AThousandTicksLeaveConnectionsToSpare) {
  volumes({"Projects"});
  ASSERT_TRUE(startSan(volumeEntry("Projects", true, content_), ""));
  settings(5, false, false, false);
  for (int i = 0; i < 1000; ++i) tick();
  EXPECT_TRUE(mails().empty());
  int h = open_fs_connection();
  EXPECT_GE(h, 0);
  close_fs_connection(h);
  EXPECT_EQ(*run("getVolumeState", {{"name", PropertyList("Projects")}}).getString("state"),
            "RUNNING");
}

TEST_F(NotificationTickTest, MailThatCannotGoOutIsSpooledAndTheRestServed) {
  volumes({"Projects"});
  ASSERT_TRUE(startSan(volumeEntry("Projects", true, content_), ""));
  fill(content_, 990);
  settings(20, false, false, false, {"a@x\nCc: evil@example.com", "admin@example.com"});
  fs::remove(sandbox_.path(kSandboxSendmail));
  tick();
  EXPECT_TRUE(log_.contains("the recipient address 'a@x\\x0ACc: evil@example.com' is refused"));
  EXPECT_TRUE(log_.contains("No such file or directory"));
  std::vector<fs::path> spooled;
  for (const auto& e : fs::directory_iterator(unsentMailDirectory())) spooled.push_back(e.path());
  ASSERT_EQ(spooled.size(), 1u);
  struct stat st {};
  ASSERT_EQ(::stat(spooled[0].c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_TRUE(log_.contains("sendmail -t < " + spooled[0].string()));
}

TEST_F(NotificationTickTest, AHungMailProgramIsStoppedAndTheRoundSpooled) {
  volumes({"Projects"});
  ASSERT_TRUE(startSan(volumeEntry("Projects", true, content_), ""));
  fill(content_, 990);
  settings(20, false, false, false, {"one@example.com", "two@example.com"});
  writeMailMode(sandbox_, "hang");
  ::setenv("VELM_MAIL_TIMEOUT", "1", 1);
  // Time moves while the tick waits on the stand-in.
  std::atomic<bool> done{false};
  std::thread mover([&] {
    while (!done) {
      clock_->advanceMicros(200000);
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  });
  tick();
  done = true;
  mover.join();
  std::size_t spooled = 0;
  for ([[maybe_unused]] const auto& e : fs::directory_iterator(unsentMailDirectory())) ++spooled;
  EXPECT_EQ(spooled, 2u);
  EXPECT_TRUE(log_.contains("ran out of time and was stopped"));
  EXPECT_TRUE(log_.contains("a mail program of this round ran out of time"));
  EXPECT_TRUE(mails().empty());
  EXPECT_TRUE(state().get("Projects-FreeSpaceThreshold"));  // dated all the same
}

TEST_F(NotificationTickTest, AWarningCountsAsAFailureButIsNotSpooled) {
  volumes({"Projects"});
  ASSERT_TRUE(startSan(volumeEntry("Projects", true, content_), ""));
  fill(content_, 990);
  settings(20, false, false, false);
  writeMailMode(sandbox_, "warn");
  ::setenv("LANGUAGE", "de", 1);
  tick();
  ASSERT_EQ(mails().size(), 1u);
  EXPECT_TRUE(has(mails()[0], "DemoSAN: Volume Projects hat wenig freien Speicher")) << mails()[0];
  EXPECT_TRUE(log_.contains("Error 2 sending e-mail notification"));
  EXPECT_FALSE(fs::exists(unsentMailDirectory()));
}

}  // namespace
}  // namespace velm::test
