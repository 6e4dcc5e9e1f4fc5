// Two controllers side by side on loopback, each its own root, port mapper and host daemon; the
// first also runs velmd. The fixture of the end-to-end tests that drive a whole SAN.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "config/config_test_util.h"
#include "e2e/e2e_helpers.h"
#include "support/ports.h"
#include "support/run_program.h"
#include "support/sim_process.h"

namespace velm::test {

inline constexpr const char* kA = "127.0.0.2";
inline constexpr const char* kB = "127.0.0.3";
inline constexpr const char* kUuidA = "0A0A0A0A-0000-4000-8000-00000000000A";
inline constexpr const char* kUuidB = "0B0B0B0B-0000-4000-8000-00000000000B";

struct Controller {
  const char* address;
  const char* uuid;
  const char* peer;
  SandboxRoot root;
  std::unique_ptr<SimProcess> portMapper;
  std::unique_ptr<Daemon> daemon;
  std::unique_ptr<Client> client;
};

class TwoControllersTest : public ::testing::Test {
 protected:
  void SetUp() override {
    pmPort_ = freeLoopbackPort();
    // As root, the daemons listen where a real SAN has them, and the default probe finds them.
    probePort_ = ::geteuid() == 0 && onRealProbePort() ? 311 : freeLoopbackPort();
    // The port was free on 127.0.0.1 when chosen; a test running beside this one may have taken
    // it on the controllers' addresses since. Then another port will do.
    bool running = false;
    for (int attempt = 0; attempt < 5 && !running; ++attempt) {
      if (attempt > 0) pmPort_ = freeLoopbackPort();
      running = true;
      for (Controller* c : {&a_, &b_}) {
        prepare(*c);
        c->portMapper = std::make_unique<SimProcess>();
        running =
            running &&
            c->portMapper->start(
                "velm-simpm", {"--root", c->root.root(), "--listen", c->address}, "listening on",
                {{"VELM_HOST_ADDRESSES", c->address}, {"VELM_PROCFS", c->root.path("/proc")}});
      }
    }
    ASSERT_TRUE(running) << a_.portMapper->stderrText() << b_.portMapper->stderrText();
    for (Controller* c : {&a_, &b_}) {
      // What each controller's programs take from the environment when they start.
      ::setenv("VELM_HOST_ADDRESSES", c->address, 1);
      if (probePort_ == 311) {
        ::unsetenv("VELM_PROBE_PORT");
      } else {
        ::setenv("VELM_PROBE_PORT", std::to_string(probePort_).c_str(), 1);
      }
      ::setenv("VELM_PROCFS", c->root.path("/proc").c_str(), 1);
      if (c == &a_) {
        ASSERT_TRUE(velmd_.start("velm-simd", {"--root", c->root.root()}, "listening on"))
            << velmd_.stderrText();
      }
      std::string plugins = makePluginDir(c->root, {{"velm", velmPluginPath()}});
      c->daemon = std::make_unique<Daemon>(
          c->root, plugins,
          std::vector<std::string>{"--listen",
                                   std::string(c->address) + ":" + std::to_string(probePort_),
                                   "--idle-interval", idleInterval()});
      ASSERT_TRUE(c->daemon->start()) << c->daemon->stderrText();
      c->client = std::make_unique<Client>(c->daemon->url());
    }
  }
  void TearDown() override {
    for (const char* v : {"VELM_HOST_ADDRESSES", "VELM_PROBE_PORT", "VELM_PROCFS"}) ::unsetenv(v);
  }
  // Only one test at a time can have the daemons on port 311 of the two addresses.
  virtual bool onRealProbePort() const { return true; }
  // The daemons' --idle-interval: no ticks unless a test wants them.
  virtual std::string idleInterval() const { return "0"; }
  // More keys of the Projects entry of each port mapper's fsms (XML plist text).
  virtual std::string projectsFsmKeys() const { return ""; }

  void prepare(Controller& c) {
    std::string config = "/Library/Filesystems/Velm/config/";
    c.root.write(config + "fsports", "altpmap " + std::to_string(pmPort_) + "\n");
    c.root.write(config + "uuid", c.uuid);
    c.root.write(
        config + "config.plist",
        std::string("<plist version=\"1.0\"><dict><key>role</key><string>CONTROLLER</string>") +
            "<key>sanName</key><string>DemoSAN</string>" +
            "<key>metadataNetwork</key><string>127.0.0.0/8</string><key>computers</key><array>" +
            computer(kUuidA, kA) + computer(kUuidB, kB) + "</array></dict></plist>\n");
    c.root.write(config + "Projects.cfg", kRealisticConfig);
    // The other controller first: this machine comes up as standby and the volume stays where
    // it starts.
    c.root.write(config + "Projects-auxdata.plist",
                 std::string("<plist version=\"1.0\"><dict><key>FailoverPriorities</key><array>") +
                     priority(kUuidB) + priority(kUuidA) + "</array></dict></plist>\n");
    c.root.write(
        "/simpm.plist",
        std::string("<plist version=\"1.0\"><dict><key>fsms</key><array><dict><key>name</key>") +
            "<string>Projects</string><key>priority</key><integer>1</integer><key>running</key>"
            "<false/>" + projectsFsmKeys() + "</dict></array><key>peers</key><array><string>" +
            c.peer + ":" + std::to_string(pmPort_) + "</string></array></dict></plist>\n");
  }
  static std::string computer(const char* uuid, const char* address) {
    return std::string("<dict><key>uuid</key><string>") + uuid +
           "</string><key>ipAddresses</key><array><string>" + address + "</string></array></dict>";
  }
  static std::string priority(const char* uuid) {
    return std::string("<dict><key>controllerUUID</key><string>") + uuid +
           "</string><key>enabled</key><true/></dict>";
  }

  PropertyList command(Controller& c, const std::string& name,
                       std::vector<std::pair<std::string, PropertyList>> keys = {}) {
    Reply r =
        c.client->command("velm", request(name, std::move(keys)), readToken(c.root));
    EXPECT_EQ(r.status, 200) << name << ": " << r.body;
    return r.plist ? *r.plist : PropertyList();
  }
  PropertyList setState(Controller& c, const char* state) {
    return command(c, "setVolumeState",
                   {{"name", PropertyList("Projects")}, {"state", PropertyList(state)}});
  }
  PropertyList details(Controller& c, const char* volume = "Projects") {
    return command(c, "getVolumeState",
                   {{"name", PropertyList(volume)}, {"variant", PropertyList("withDetails")}});
  }
  static long long status(const PropertyList& r) {
    const PropertyList* s = r.get("status");
    return s ? s->int64Value().value_or(-99) : -99;
  }
  static std::string text(const PropertyList& r, const char* key) {
    const std::string* s = r.getString(key);
    return s ? *s : "(none)";
  }

  int pmPort_ = 0, probePort_ = 0;
  Controller a_{kA, kUuidA, kB, {}, nullptr, nullptr, nullptr};
  Controller b_{kB, kUuidB, kA, {}, nullptr, nullptr, nullptr};
  SimProcess velmd_;
};

class TwoControllersOnAnyPortTest : public TwoControllersTest {
 protected:
  bool onRealProbePort() const override { return false; }
};

// Commands as an administrator gives them: velmadmin against each controller's daemon.
class VelmadminOnTwoControllersTest : public TwoControllersOnAnyPortTest {
 protected:
  // velmadmin --server, the request as a plist file; the answer it printed.
  PropertyList velmadmin(Controller& c, const std::string& name,
                         std::vector<std::pair<std::string, PropertyList>> keys = {}) {
    std::string file =
        c.root.write("/request.plist", writeXmlPlist(request(name, std::move(keys))));
    ProgramResult r = runProgram(
        "velmadmin", {"--server", c.daemon->url(), "--token-file",
                      c.root.path("/var/adminhostd/admin.token"), "--request", file});
    EXPECT_EQ(r.status, 0) << name << ": " << r.err;
    PlistReadResult answer = readXmlPlist(r.out);
    return answer ? *answer.value : PropertyList();
  }
  // readProgress until the task ends; every answer, in order.
  std::vector<PropertyList> progressUntilDone(Controller& c) {
    std::vector<PropertyList> answers;
    // Until the tool's first status a task reads as done: wait for it.
    for (int i = 0; i < 500 && !c.root.exists("/var/run/drupdatefs_status_Projects.plist"); ++i)
      ::usleep(10000);
    for (int i = 0; i < 1500; ++i) {
      if (i > 0) ::usleep(20000);
      answers.push_back(velmadmin(c, "readProgress", {{"volumeName", PropertyList("Projects")}}));
      const PropertyList* percent = answers.back().get("percentComplete");
      if (answers.back().get("ProgressDone") || (percent && percent->doubleValue() >= 100.0)) break;
    }
    return answers;
  }
};

}  // namespace velm::test
