// Two controllers side by side on loopback, each its own root, port mapper and host daemon; the
// first also runs velmd. A volume is started, failed over, stopped and restarted through the
// daemons, and both sides see the same SAN.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>

#include "config/config_test_util.h"
#include "e2e/e2e_helpers.h"
#include "support/ports.h"
#include "support/run_program.h"
#include "support/sim_process.h"

namespace velm {
namespace {

constexpr const char* kA = "127.0.0.2";
constexpr const char* kB = "127.0.0.3";
constexpr const char* kUuidA = "0A0A0A0A-0000-4000-8000-00000000000A";
constexpr const char* kUuidB = "0B0B0B0B-0000-4000-8000-00000000000B";

struct Controller {
  const char* address;
  const char* uuid;
  const char* peer;
  test::SandboxRoot root;
  std::unique_ptr<test::SimProcess> portMapper;
  std::unique_ptr<test::Daemon> daemon;
  std::unique_ptr<test::Client> client;
};

class TwoControllersTest : public ::testing::Test {
 protected:
  void SetUp() override {
    pmPort_ = test::freeLoopbackPort();
    // As root, the daemons listen where a real SAN has them, and the default probe finds them.
    probePort_ = ::geteuid() == 0 && onRealProbePort() ? 311 : test::freeLoopbackPort();
    // The port was free on 127.0.0.1 when chosen; a test running beside this one may have taken
    // it on the controllers' addresses since. Then another port will do.
    bool running = false;
    for (int attempt = 0; attempt < 5 && !running; ++attempt) {
      if (attempt > 0) pmPort_ = test::freeLoopbackPort();
      running = true;
      for (Controller* c : {&a_, &b_}) {
        prepare(*c);
        c->portMapper = std::make_unique<test::SimProcess>();
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
      std::string plugins = test::makePluginDir(c->root, {{"velm", test::velmPluginPath()}});
      c->daemon = std::make_unique<test::Daemon>(
          c->root, plugins,
          std::vector<std::string>{"--listen",
                                   std::string(c->address) + ":" + std::to_string(probePort_),
                                   "--idle-interval", "0"});
      ASSERT_TRUE(c->daemon->start()) << c->daemon->stderrText();
      c->client = std::make_unique<test::Client>(c->daemon->url());
    }
  }
  void TearDown() override {
    for (const char* v : {"VELM_HOST_ADDRESSES", "VELM_PROBE_PORT", "VELM_PROCFS"}) ::unsetenv(v);
  }
  // Only one test at a time can have the daemons on port 311 of the two addresses.
  virtual bool onRealProbePort() const { return true; }

  void prepare(Controller& c) {
    std::string config = "/Library/Filesystems/Velm/config/";
    c.root.write(config + "fsports", "altpmap " + std::to_string(pmPort_) + "\n");
    c.root.write(config + "uuid", c.uuid);
    c.root.write(
        config + "config.plist",
        std::string("<plist version=\"1.0\"><dict><key>role</key><string>CONTROLLER</string>") +
            "<key>metadataNetwork</key><string>127.0.0.0/8</string><key>computers</key><array>" +
            computer(kUuidA, kA) + computer(kUuidB, kB) + "</array></dict></plist>\n");
    c.root.write(config + "Projects.cfg", test::kRealisticConfig);
    // The other controller first: this machine comes up as standby and the volume stays where
    // it starts.
    c.root.write(config + "Projects-auxdata.plist",
                 std::string("<plist version=\"1.0\"><dict><key>FailoverPriorities</key><array>") +
                     priority(kUuidB) + priority(kUuidA) + "</array></dict></plist>\n");
    c.root.write(
        "/simpm.plist",
        std::string("<plist version=\"1.0\"><dict><key>fsms</key><array><dict><key>name</key>") +
            "<string>Projects</string><key>priority</key><integer>1</integer><key>running</key>"
            "<false/></dict></array><key>peers</key><array><string>" +
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
    test::Reply r =
        c.client->command("velm", test::request(name, std::move(keys)), test::readToken(c.root));
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
  test::SimProcess velmd_;
};

TEST_F(TwoControllersTest, StartFailOverStopAndRestartSeenFromBothSides) {
  EXPECT_EQ(text(details(b_), "state"), "STOPPED");

  PropertyList started = setState(a_, "START");
  EXPECT_EQ(status(started), 0) << describe(started);
  EXPECT_EQ(text(started, "state"), "RUNNING");
  std::string active = text(details(b_), "hostIPAddress");
  EXPECT_EQ(text(details(a_), "hostIPAddress"), active);
  ASSERT_TRUE(active == kA || active == kB) << active;

  PropertyList failed = setState(a_, "FAIL");
  EXPECT_EQ(status(failed), 0) << describe(failed);
  std::string now = text(details(b_), "hostIPAddress");
  EXPECT_NE(now, active);
  EXPECT_EQ(text(details(a_), "state"), "RUNNING");

  PropertyList stopped = setState(b_, "STOP");
  EXPECT_EQ(status(stopped), 0) << describe(stopped);
  EXPECT_EQ(text(details(a_), "state"), "STOPPED");
  EXPECT_EQ(text(details(b_), "state"), "STOPPED");

  PropertyList restarted = setState(a_, "RESTART");
  EXPECT_EQ(status(restarted), 0) << describe(restarted);
  EXPECT_EQ(text(details(b_), "state"), "RUNNING");

  for (Controller* c : {&a_, &b_}) {
    EXPECT_EQ(command(*c, "getVolumes").get("volumes")->size(), 1u);
    PropertyList mounts = command(*c, "getMounts", {{"name", PropertyList("Projects")}});
    EXPECT_EQ(status(mounts), 0) << describe(mounts);
  }
  PropertyList mounted = command(
      a_, "mountVolume", {{"name", PropertyList("Projects")}, {"showVolume", PropertyList(2)}});
  EXPECT_EQ(mounted.get("access")->int64Value(), 2) << describe(mounted);
  EXPECT_NE(a_.root.read("/proc/self/mountinfo").find(" - qufs Projects rw"), std::string::npos);
}

class TwoControllersOnAnyPortTest : public TwoControllersTest {
 protected:
  bool onRealProbePort() const override { return false; }
};

TEST_F(TwoControllersOnAnyPortTest, CreateOnBothStartAndDeleteLocallyThenEverywhere) {
  // One command on each controller: each writes its own files and its own fsmlist line.
  PropertyList media = command(a_, "getVolumes").get("volumes")->asArray()->front();
  media.set("Name", "Media");
  media.set("FailoverPriority", PlistArray{PropertyList(kB), PropertyList(kA)});
  for (Controller* c : {&a_, &b_}) {
    test::installSimTools(c->root);
    PropertyList r = command(*c, "addVolumes",
                             {{"volumes", PlistArray{media}}, {"initialize", PropertyList(true)}});
    ASSERT_TRUE(r.get("status")) << describe(r);
    EXPECT_EQ(r.get("status")->get("Media")->int64Value(), 0) << describe(r);
    EXPECT_TRUE(c->root.exists("/Library/Filesystems/Velm/data/Media"));
  }
  EXPECT_NE(a_.root.read("/Library/Filesystems/Velm/config/fsmlist").find("Media . 1"),
            std::string::npos);
  EXPECT_NE(b_.root.read("/Library/Filesystems/Velm/config/fsmlist").find("Media . 0"),
            std::string::npos);

  PropertyList started = command(
      a_, "setVolumeState", {{"name", PropertyList("Media")}, {"state", PropertyList("START")}});
  EXPECT_EQ(status(started), 0) << describe(started);
  EXPECT_EQ(text(details(b_, "Media"), "state"), "RUNNING");

  // B leaves the volume: only its own FSM stops, and its files go.
  PropertyList local = command(b_, "deleteVolumes",
                               {{"volumeNames", PlistArray{PropertyList("Media")}},
                                {"stopLocallyOnly", PropertyList(true)}});
  EXPECT_EQ(status(local), 0) << describe(local);
  EXPECT_FALSE(b_.root.exists("/Library/Filesystems/Velm/config/Media.cfg"));
  EXPECT_TRUE(a_.root.exists("/Library/Filesystems/Velm/config/Media.cfg"));

  // A deletes it everywhere.
  PropertyList all =
      command(a_, "deleteVolumes", {{"volumeNames", PlistArray{PropertyList("Media")}}});
  EXPECT_EQ(status(all), 0) << describe(all);
  EXPECT_EQ(text(details(b_, "Media"), "state"), "STOPPED");
  EXPECT_FALSE(a_.root.exists("/Library/Filesystems/Velm/data/Media"));
  for (Controller* c : {&a_, &b_}) EXPECT_EQ(command(*c, "getVolumes").get("volumes")->size(), 1u);
}

// Commands as an administrator gives them: velmadmin against each controller's daemon.
class VelmadminOnTwoControllersTest : public TwoControllersOnAnyPortTest {
 protected:
  // velmadmin --server, the request as a plist file; the answer it printed.
  PropertyList velmadmin(Controller& c, const std::string& name,
                         std::vector<std::pair<std::string, PropertyList>> keys = {}) {
    std::string file =
        c.root.write("/request.plist", writeXmlPlist(test::request(name, std::move(keys))));
    test::ProgramResult r = test::runProgram(
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

TEST_F(VelmadminOnTwoControllersTest, ExpandARunningVolumeLeaveItsFailoverAndRenameItStopped) {
  test::installSimTools(a_.root);
  a_.root.write(
      "/sim/tools/drupdatefs.plist",
      "<plist version=\"1.0\"><dict><key>stepSeconds</key><real>0.1</real></dict></plist>\n");
  a_.root.write("/Library/Filesystems/Velm/data/Projects/log/.keep", "");
  a_.root.write("/Library/Filesystems/Velm/config/fsmlist", "Projects . 1\n");
  ASSERT_EQ(status(setState(a_, "START")), 0);

  // A new stripe group on a running volume, and the update to its end.
  PropertyList volume = velmadmin(a_, "getVolumes").get("volumes")->asArray()->front();
  PropertyList disk = volume.get("Disks")->asArray()->back();
  disk.set("Disk", "Fresh1");
  disk.set("_id_", "Disk_Fresh1");
  PropertyList group = volume.get("StripeGroups")->asArray()->back();
  group.set("StripeGroup", "Fresh");
  group.set("_id_", "StripeGroup_Fresh");
  PropertyList node = PropertyList::dict();
  node.set("NodeDiskDevice", "Fresh1");
  node.set("NodeRotationIndex", 0);
  group.set("Nodes", PlistArray{node});
  PropertyList addition = PropertyList::dict();
  addition.set("Name", "Projects");
  addition.set("Disks", PlistArray{disk});
  addition.set("StripeGroups", PlistArray{group});
  PropertyList expanded =
      velmadmin(a_, "expandVolume", {{"volume", addition}, {"update", PropertyList(true)}});
  ASSERT_EQ(status(expanded), 0) << describe(expanded);
  EXPECT_EQ(expanded.get("volume")->get("StripeGroups")->size(), 4u);
  std::vector<PropertyList> progress = progressUntilDone(a_);
  ASSERT_FALSE(progress.empty());
  // The tool's stages show as they pass, never going back.
  double seen = 0;
  bool between = false;
  for (const PropertyList& p : progress) {
    double percent = p.get("percentComplete") ? *p.get("percentComplete")->doubleValue() : -1;
    EXPECT_GE(percent, seen) << describe(p);
    seen = std::max(seen, percent);
    between = between || (percent > 0 && percent < 100);
  }
  EXPECT_TRUE(between);
  EXPECT_EQ(progress.back().get("percentComplete")->doubleValue(), 100.0)
      << describe(progress.back());
  EXPECT_FALSE(progress.back().get("errorCode")) << describe(progress.back());
  EXPECT_EQ(text(progress.back(), "currentTask"), "Expanding volume");
  EXPECT_NE(a_.root.read("/Library/Filesystems/Velm/data/Projects/updates.log").find("Fresh"),
            std::string::npos);
  EXPECT_EQ(text(details(b_), "state"), "RUNNING");

  // This machine leaves the failover order: its fsmlist line goes and velmd hears of it.
  ::unlink(a_.root.path("/var/run/velm/notify/com.orvane.velm.sanConfigChanged").c_str());
  PropertyList only = PropertyList::dict();
  only.set("Name", "Projects");
  only.set("FailoverPriority", PlistArray{PropertyList(kB)});
  PropertyList changed = velmadmin(a_, "changeVolumeSettings", {{"volumes", PlistArray{only}}});
  ASSERT_EQ(status(changed), 0) << describe(changed);
  EXPECT_EQ(a_.root.read("/Library/Filesystems/Velm/config/fsmlist"), "");
  EXPECT_TRUE(a_.root.exists("/var/run/velm/notify/com.orvane.velm.sanConfigChanged"));

  // Stopped everywhere, then renamed by the tool on this controller.
  ASSERT_EQ(status(setState(a_, "STOP")), 0);
  PropertyList renamed = velmadmin(a_, "renameVolume",
                                   {{"oldName", PropertyList("Projects")},
                                    {"newName", PropertyList("Films")},
                                    {"update", PropertyList(true)}});
  ASSERT_EQ(status(renamed), 0) << describe(renamed);
  ASSERT_EQ(renamed.get("volumes")->size(), 1u);
  EXPECT_EQ(text(renamed.get("volumes")->asArray()->front(), "Name"), "Films");
  EXPECT_TRUE(a_.root.exists("/Library/Filesystems/Velm/data/Films/updates.log"));
  EXPECT_TRUE(a_.root.exists("/Library/Filesystems/Velm/config/Films-auxdata.plist"));
  EXPECT_EQ(
      text(velmadmin(a_, "readProgress", {{"volumeName", PropertyList("Projects")}}), "error"),
      "Volume does not exist");
}

TEST_F(VelmadminOnTwoControllersTest, QuotasOnARunningVolumeAndNotes) {
  ASSERT_EQ(status(setState(a_, "START")), 0);
  // The quotas live in the active FSM, wherever it runs; either controller reaches it.
  PropertyList q = PropertyList::dict();
  q.set("name", "editors");
  q.set("type", "group");
  q.set("hardLimit", 1LL << 30);
  q.set("softLimit", 1LL << 29);
  q.set("timeLimit", 3600);
  PropertyList set =
      velmadmin(a_, "setQuotas", {{"name", PropertyList("Projects")}, {"quotas", PlistArray{q}}});
  ASSERT_EQ(status(set), 0) << describe(set);
  PropertyList got = velmadmin(b_, "getQuotas", {{"name", PropertyList("Projects")}});
  ASSERT_EQ(got.get("quotas")->size(), 1u) << describe(got);
  const PropertyList& editors = got.get("quotas")->asArray()->front();
  EXPECT_EQ(text(editors, "_id_"), "group/editors");
  EXPECT_EQ(editors.get("softLimit")->int64Value(), 1LL << 29);
  EXPECT_EQ(editors.get("timeLimit")->int64Value(), 3600);

  auto note = [](const char* name, const char* contents) {
    PropertyList n = PropertyList::dict();
    n.set("class", "volume");
    n.set("name", name);
    n.set("contents", contents);
    return n;
  };
  PropertyList written =
      velmadmin(a_, "setNotes", {{"notes", PlistArray{note("Projects", "edit bay")}}});
  EXPECT_EQ(written.get("notes")->size(), 1u) << describe(written);
  PropertyList move = PropertyList::dict();
  move.set("class", "volume");
  move.set("oldName", "Projects");
  move.set("newName", "Films");
  EXPECT_EQ(velmadmin(a_, "renameNotes", {{"notes", PlistArray{move}}}).get("notes")->size(), 1u);
  PropertyList all =
      velmadmin(a_, "getAllNotes", {{"classes", PlistArray{PropertyList("volume")}}});
  ASSERT_EQ(all.get("notes")->size(), 1u) << describe(all);
  EXPECT_EQ(text(all.get("notes")->asArray()->front(), "name"), "Films");
  EXPECT_EQ(text(all.get("notes")->asArray()->front(), "contents"), "edit bay");
  velmadmin(a_, "setNotes", {{"notes", PlistArray{note("Films", "")}}});
  EXPECT_EQ(velmadmin(a_, "getAllNotes", {{"classes", PlistArray{PropertyList("volume")}}})
                .get("notes")
                ->size(),
            0u);
}

}  // namespace
}  // namespace velm
