// The notification settings, the texts of a mail and the rules that need no SAN: validation in
// its fixed order, the commands on the file, pager texts, address checks, translations, the
// fibre body and the 24-hour rule.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cmath>

#include <string>

#include "core/velm_plugin.h"
#include "notify/localization.h"
#include "notify/notification_config.h"
#include "notify/notification_tick.h"
#include "platform/clock.h"
#include "platform/paths.h"
#include "platform/resources.h"
#include "support/log_capture.h"
#include "support/plugin_command.h"
#include "support/sandbox.h"
#include "support/sim_mail.h"

namespace velm::test {
namespace {

PropertyList validSettings() {
  return notificationSettings({"admin@example.com"}, 20, true, false, true, "", "san@example.com");
}

class NotificationSettingsTest : public SandboxTest {
 protected:
  PropertyList run(std::string_view command,
                   std::vector<std::pair<std::string, PropertyList>> keys = {}) {
    return runCommand(plugin_, context_, command, std::move(keys));
  }
  LogCapture log_;
  VelmPlugin plugin_;
  PropertyList context_ = PropertyList::dict();
};

TEST_F(NotificationSettingsTest, ValidationStopsAtTheFirstFailureInItsFixedOrder) {
  auto without = [](const char* outer, const char* inner, PropertyList value = PropertyList()) {
    PropertyList d = validSettings();
    if (!inner) {
      if (value.isNull()) d.erase(outer); else d.set(outer, value);
      return d;
    }
    PropertyList sub = *d.get(outer);
    if (value.isNull()) sub.erase(inner); else sub.set(inner, value);
    d.set(outer, sub);
    return d;
  };
  struct Case {
    PropertyList d;
    const char* line;
  } cases[] = {
      {without("ServerSettings", nullptr, PropertyList("x")), "ServerSettings is not a dictionary"},
      {without("Addresses", nullptr, PropertyList::dict()), "Addresses is not an array"},
      {without("Conditions", nullptr), "Conditions is not a dictionary"},
      // A string threshold fails at its own step, whatever comes later.
      {without("Conditions", "FreeSpaceThreshold", PropertyList("20")),
       "FreeSpaceThreshold is not a number"},
      {without("Conditions", "ExceededSoftQuota"), "ExceededSoftQuota is not a number"},
      {without("Conditions", "FibreFailure", PropertyList("yes")), "FibreFailure is not a number"},
      {without("Conditions", "ControllerFailover"), "ControllerFailover is not a number"},
      {without("ServerSettings", "ServerAddress"), "ServerAddress is not a string"},
      {without("ServerSettings", "EmailAddress", PropertyList(3)), "EmailAddress is not a string"},
  };
  for (const Case& c : cases) {
    log_.clear();
    EXPECT_FALSE(isNotificationsDictValid(&c.d)) << c.line;
    EXPECT_EQ(log_.count(std::string("ERROR: isNotificationsDictValid: ") + c.line +
                         " in the notifications config file"),
              1u)
        << c.line;
    EXPECT_EQ(log_.messages().size(), 1u) << c.line;
  }
  PropertyList empty = validSettings();
  empty.set("Addresses", PlistArray{});
  EXPECT_TRUE(isNotificationsDictValid(&empty));
  log_.clear();
  EXPECT_FALSE(isNotificationsDictValid(nullptr));
  EXPECT_EQ(log_.count("isNotificationsDictValid: No notifications file.  This is OK if there are "
                       "no settings, otherwise it's an error."),
            1u);
}

TEST_F(NotificationSettingsTest, CommandsReadWriteAndRemoveTheFile) {
  sandbox_.write("/Library/Filesystems/Velm/config/fsnameservers", "127.0.0.1\n");
  // Removing what isn't there succeeds.
  EXPECT_TRUE(run("setNotificationsConfiguration").get("success")->boolValue());
  EXPECT_FALSE(run("getNotificationsConfiguration").get("config"));

  PropertyList bad = validSettings();
  bad.set("Conditions", PropertyList(1));
  PropertyList refused = run("setNotificationsConfiguration", {{"config", bad}});
  EXPECT_EQ(*refused.getString("error"), "INVALID_ARG_ERR");
  EXPECT_EQ(*run("setNotificationsConfiguration", {{"config", PropertyList("x")}})
                 .getString("error"),
            "INVALID_ARG_ERR");
  EXPECT_FALSE(sandbox_.exists("/Library/Filesystems/Velm/config/notifications.plist"));

  EXPECT_TRUE(run("setNotificationsConfiguration", {{"config", validSettings()}})
                  .get("success")
                  ->boolValue());
  EXPECT_EQ(*run("getNotificationsConfiguration").get("config"), validSettings());
  EXPECT_TRUE(run("setNotificationsConfiguration").get("success")->boolValue());
  EXPECT_FALSE(sandbox_.exists("/Library/Filesystems/Velm/config/notifications.plist"));

  PropertyList types = *run("getNotificationsTypes").get("types");
  EXPECT_EQ(types, PropertyList(PlistArray{PropertyList("freeSpace"), PropertyList("quota"),
                                           PropertyList("fibre"), PropertyList("failover")}));
  EXPECT_EQ(getNotificationTypeWithName("failover"), 3);
  EXPECT_EQ(getNotificationTypeWithName("Failover"), -1);
}

TEST_F(NotificationSettingsTest, AFileThatIsNoPlistSaysWhyAndReadsAsNone) {
  sandbox_.write("/Library/Filesystems/Velm/config/notifications.plist", "<plist><dict><key>");
  EXPECT_FALSE(getNotificationDictionary());
  EXPECT_TRUE(log_.contains("ERROR: getNotificationDictionary: "));
  EXPECT_EQ(log_.count("getNotificationDictionary: No notifications dictionary."), 1u);
}

TEST_F(NotificationSettingsTest, MistypedConditionsSaturateInsteadOfMisbehaving) {
  PropertyList d = validSettings();
  PropertyList c = *d.get("Conditions");
  c.set("FreeSpaceThreshold", 1e300);
  d.set("Conditions", c);
  EXPECT_EQ(readConditions(d).freeSpaceThreshold, 2147483647);
  c.set("FreeSpaceThreshold", std::nan(""));
  d.set("Conditions", c);
  EXPECT_EQ(readConditions(d).freeSpaceThreshold, 0);
  c.set("FreeSpaceThreshold", -1e300);
  d.set("Conditions", c);
  EXPECT_EQ(readConditions(d).freeSpaceThreshold, -2147483647 - 1);
}

TEST(PagerTextTest, CutsAt161CodePointsAndNeverSplitsASequence) {
  std::string e = "\xC3\xA9";  // two bytes, one code point
  std::string exactly160, over;
  for (int i = 0; i < 160; ++i) exactly160 += e;
  over = exactly160 + e;
  EXPECT_EQ(pagerText(exactly160), exactly160);
  std::string cut = pagerText(over);
  EXPECT_EQ(cut, exactly160.substr(0, 157 * 2) + "...");
  EXPECT_EQ(pagerText(std::string(161, 'a')), std::string(157, 'a') + "...");

  PropertyList entry = PropertyList::dict();
  entry.set("page", "yes");
  EXPECT_FALSE(isPager(entry));
  entry.set("page", "YES");
  EXPECT_TRUE(isPager(entry));
  entry.set("page", 1);
  EXPECT_TRUE(isPager(entry));
}

TEST(MailAddressTest, OnlyOneMailboxWithoutControlCharactersPasses) {
  EXPECT_FALSE(unsafeMailAddress("admin@example.com"));
  EXPECT_FALSE(unsafeMailAddress("Admin <admin@example.com>"));
  for (std::string bad : {std::string(""), std::string("admin"), std::string("a@x, b@y"),
                          std::string("a@x;b@y"), std::string("a@x\r\nBcc: evil@y"),
                          std::string("a@x\nCc: evil@y"), std::string("a@x\x7f"),
                          std::string("a@x\0y", 5)})
    EXPECT_TRUE(unsafeMailAddress(bad)) << escapedForLog(bad);
  EXPECT_EQ(escapedForLog(std::string("a\r\n\\\0", 5)), "a\\x0D\\x0A\\\\\\x00");
}

class TranslationTest : public SandboxTest {
 protected:
  void SetUp() override {
    for (const char* v : {"LANGUAGE", "LANG"}) {
      const char* old = std::getenv(v);
      saved_.emplace_back(v, old ? std::optional<std::string>(old) : std::nullopt);
      ::unsetenv(v);
    }
  }
  void TearDown() override {
    for (auto& [name, value] : saved_) {
      if (value)
        ::setenv(name.c_str(), value->c_str(), 1);
      else
        ::unsetenv(name.c_str());
    }
    ::unsetenv("VELM_RESOURCES");
  }
  std::vector<std::pair<std::string, std::optional<std::string>>> saved_;
  LogCapture log_;
};

TEST_F(TranslationTest, TheUsersLanguagesPickTheTableAndEnglishIsTheFallback) {
  EXPECT_EQ(localized("%@: Volume %@ low on space", "DemoSAN", "Projects"),
            "DemoSAN: Volume Projects low on space");
  ::setenv("LANG", "de_DE.UTF-8", 1);
  EXPECT_EQ(userLanguages(), (std::vector<std::string>{"de_DE", "de"}));
  EXPECT_EQ(localized("%@: Volume %@ low on space", "DemoSAN", "Projects"),
            "DemoSAN: Volume Projects hat wenig freien Speicher");
  EXPECT_EQ(getLocalizedString("group"), "Gruppe");
  ::setenv("LANGUAGE", "fr:es", 1);
  EXPECT_EQ(getLocalizedString("group"), "group");
  ::setenv("LANGUAGE", "fr:de", 1);
  EXPECT_EQ(localized("Volume %@ in SAN %@ has less than %d%% available space.", "P", "S", 20),
            "Volume P im SAN S hat weniger als 20% freien Speicher.");
  // A key nobody translated is itself.
  EXPECT_EQ(getLocalizedString("no such text"), "no such text");
}

TEST_F(TranslationTest, ATranslationWithOtherPlaceholdersIsNeverUsed) {
  std::string resources = *resourcesDirectory();
  sandbox_.write("/res/l10n/en/Localizable.strings",
                 "<plist version=\"1.0\"><dict/></plist>\n");
  sandbox_.write(
      "/res/l10n/de/Localizable.strings",
      "<plist version=\"1.0\"><dict>"
      "<key>%@: Volume %@ low on space</key><string>%@: Volume %d voll</string>"
      "<key>%@: Test notification</key><string>%@: Test %@</string>"
      "<key>Volume %s in SAN %@ has failed over.  It is now being hosted by %s.</key>"
      "<string>%2$@: %1$s auf %3$s</string>"
      "<key>%@ %@ is above their soft quota on volume %@ in SAN %@.</key>"
      "<string>%@ %@ ist über dem Kontingent auf %@ im SAN %@.</string>"
      "</dict></plist>\n");
  ::setenv("VELM_RESOURCES", sandbox_.path("/res").c_str(), 1);
  ::setenv("LANGUAGE", "de", 1);
  EXPECT_EQ(localized("%@: Volume %@ low on space", "S", "P"), "S: Volume P low on space");
  EXPECT_EQ(localized("%@: Test notification", "S"), "S: Test notification");
  // Other positions are other placeholders too.
  EXPECT_EQ(localized("Volume %s in SAN %@ has failed over.  It is now being hosted by %s.", "P",
                      "S", "h"),
            "Volume P in SAN S has failed over.  It is now being hosted by h.");
  EXPECT_EQ(log_.messages().size(), 3u);
  EXPECT_EQ(localized("%@ %@ is above their soft quota on volume %@ in SAN %@.", "user", "bob",
                      "P", "S"),
            "user bob ist über dem Kontingent auf P im SAN S.");
  EXPECT_EQ(placeholderSignature("%1$s %2$@ %d%% %5.2f %*d"), "1$@s2$@if*i");
  (void)resources;
}

TEST(FibreMailTest, EachEntryIsOneLineWithItsFallbacks) {
  auto entry = [](PropertyList time, const char* type, const char* wwnn, PropertyList lun,
                  const char* event) {
    PropertyList e = PropertyList::dict();
    if (!time.isNull()) e.set("time", time);
    if (type) e.set("type", type);
    if (wwnn) e.set("wwnn", wwnn);
    if (!lun.isNull()) e.set("lun", lun);
    if (event) e.set("event", event);
    return e;
  };
  PropertyList log = PlistArray{
      entry(PropertyList("yesterday"), "Path", "50:06", PropertyList(), "Loss"),
      entry(PropertyList(), "LUN", nullptr, PropertyList(3), "Addition"),
      entry(PropertyList(7), nullptr, "50:07", PropertyList(), "Moved"),
      PropertyList("not an entry")};
  EXPECT_EQ(fibreMailBody(log),
            "Fibre channel activity and failures: \n"
            "yesterday: Path 50:06 is no longer available.\n"
            "<Date Error>: LUN <WWNN Error>3 is now available.\n"
            "7: <Type Error> 50:07 <Event Error>\n"
            "<Date Error>: <Type Error> <WWNN Error> <Event Error>\n");
  EXPECT_EQ(fibreMailBody(PlistArray{}), "");
  EXPECT_EQ(fibreMailBody(PropertyList("x")), "");
}

TEST(TimeToNotifyTest, StrictlyMoreThanADaySinceTheLastMail) {
  ScopedFakeClock clock;
  double now = static_cast<double>(clock->wallMicros()) / 1e6 - 978307200.0;
  PropertyList state = PropertyList::dict();
  EXPECT_TRUE(is_time_to_notify(state, "k"));
  state.set("k", "not a date");
  EXPECT_TRUE(is_time_to_notify(state, "k"));
  state.set("k", PropertyList(PlistDate{now - 86400.0}));
  EXPECT_FALSE(is_time_to_notify(state, "k"));
  state.set("k", PropertyList(PlistDate{now - 86400.001}));
  EXPECT_TRUE(is_time_to_notify(state, "k"));
  state.set("k", PropertyList(PlistDate{now - 3600}));
  EXPECT_FALSE(is_time_to_notify(state, "k"));
  // A clock set back: a date a day or less ahead still waits, further ahead is no date.
  state.set("k", PropertyList(PlistDate{now + 86000}));
  EXPECT_FALSE(is_time_to_notify(state, "k"));
  state.set("k", PropertyList(PlistDate{now + 90000}));
  EXPECT_TRUE(is_time_to_notify(state, "k"));
}

}  // namespace
}  // namespace velm::test
