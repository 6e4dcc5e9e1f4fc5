// adminhostd with the velm plugin: after the first idle tick the plugin follows the host by
// itself. The configuration and the mount table change under the sandbox while the daemon runs,
// and the next answers tell the new truth without anyone clearing a cache.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>

#include "config/config_test_util.h"
#include "e2e/e2e_helpers.h"

namespace velm {
namespace {

constexpr const char* kConfigPlist = "/Library/Filesystems/Velm/config/config.plist";

std::string configWithRole(const char* role) {
  return std::string("<plist version=\"1.0\"><dict><key>role</key><string>") + role +
         "</string></dict></plist>\n";
}

class HostEventsEndToEndTest : public test::SandboxTest {
 protected:
  void SetUp() override {
    ::setenv("VELM_PROCFS", sandbox_.path("/proc").c_str(), 1);
    sandbox_.write("/proc/self/mountinfo", "");
    sandbox_.write(kConfigPlist, configWithRole("CLIENT"));
    sandbox_.write("/var/adminhostd/enable_velm_logging", "");
    daemon_ = std::make_unique<test::Daemon>(
        sandbox_, test::makePluginDir(sandbox_, {{"velm", test::velmPluginPath()}}),
        std::vector<std::string>{"--idle-interval", "3600"});
    ASSERT_TRUE(daemon_->start()) << daemon_->stderrText();
    client_ = std::make_unique<test::Client>(daemon_->url());
  }
  void TearDown() override { ::unsetenv("VELM_PROCFS"); }

  PropertyList command(const std::string& name) {
    test::Reply r = client_->command("velm", test::request(name), test::readToken(sandbox_));
    EXPECT_EQ(r.status, 200) << name << ": " << r.body;
    return r.plist ? *r.plist : PropertyList();
  }
  std::string role() {
    PropertyList answer = command("getComputerProperties");
    const PropertyList* properties = answer.get("properties");
    const std::string* r = properties ? properties->getString("role") : nullptr;
    return r ? *r : "(none)";
  }
  // Polls cond for up to ten seconds.
  static bool eventually(const std::function<bool()>& cond) {
    for (int i = 0; i < 500; ++i) {
      if (cond()) return true;
      ::usleep(20000);
    }
    return false;
  }

  std::unique_ptr<test::Daemon> daemon_;
  std::unique_ptr<test::Client> client_;
};

TEST_F(HostEventsEndToEndTest, ConfigurationAndMountChangesReachTheAnswersByThemselves) {
  ASSERT_TRUE(eventually([&] {
    return daemon_->logText().find("DoIdle at count 0") != std::string::npos;
  })) << daemon_->logText();
  EXPECT_EQ(role(), "CLIENT");
  EXPECT_EQ(command("getVolumes").get("volumes")->size(), 0u);

  sandbox_.write(kConfigPlist, configWithRole("CONTROLLER"));
  sandbox_.write("/Library/Filesystems/Velm/config/Projects.cfg", test::kRealisticConfig);
  EXPECT_TRUE(eventually([&] { return role() == "CONTROLLER"; })) << daemon_->logText();
  EXPECT_TRUE(eventually([&] { return command("getVolumes").get("volumes")->size() == 1; }));

  // A SAN volume mounting is seen, and leaves the LUN cache alone.
  sandbox_.write("/proc/self/mountinfo", "90 1 0:90 / /Volumes/Projects rw - qufs Projects rw\n");
  EXPECT_TRUE(eventually([&] {
    return daemon_->logText().find("diskAppeared: Volume 'Projects' Appeared") != std::string::npos;
  })) << daemon_->logText();
}

// The advertisement as another machine would see it, where an Avahi daemon runs.
TEST_F(HostEventsEndToEndTest, TheServiceIsBrowsableWithItsTxtRecord) {
  if (std::system("command -v avahi-browse >/dev/null 2>&1") != 0)
    GTEST_SKIP() << "avahi-browse is not installed here (package avahi-utils)";
  if (std::system("avahi-browse -at -p >/dev/null 2>&1") != 0)
    GTEST_SKIP() << "no avahi-daemon answers here (it needs the system D-Bus, which this machine "
                    "does not run)";
  ASSERT_TRUE(eventually(
      [&] { return daemon_->logText().find("Advertising zeroconf") != std::string::npos; }));
  std::string out = sandbox_.path("/browse.txt");
  std::string uuid = sandbox_.read("/Library/Filesystems/Velm/config/uuid");
  EXPECT_TRUE(eventually([&] {
    std::system(("avahi-browse -rpt _velm2client._tcp > " + out + " 2>/dev/null").c_str());
    return sandbox_.read("/browse.txt").find("\"uuid=" + uuid + "\"") != std::string::npos;
  })) << sandbox_.read("/browse.txt");
}

}  // namespace
}  // namespace velm
