// Two fresh machines join a SAN and leave it again through velmadmin --server: A (127.0.0.1)
// becomes the controller, B (127.0.0.2) a client bound to A's directory; each runs its own
// adminhostd, port mapper and velmd, and the directory and service tools are the stand-ins.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>

#include "e2e/e2e_helpers.h"
#include "support/ports.h"
#include "support/run_program.h"
#include "support/sim_node.h"
#include "support/sim_process.h"

namespace velm::test {
namespace {

namespace fs = std::filesystem;

struct Machine {
  const char* address;
  const char* uuid;
  SandboxRoot root;
  SimProcess portMapper, velmd;
  std::unique_ptr<Daemon> daemon;
};

class JoinAndLeaveTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // velmd restarted by svcload outlives it: as subreaper this test reaps it.
    ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    probePort_ = freeLoopbackPort();
    int pmPort = freeLoopbackPort();
    for (Machine* m : {&a_, &b_}) {
      m->root.write("/Library/Filesystems/Velm/config/uuid", m->uuid);
      m->root.write("/Library/Filesystems/Velm/config/fsports",
                    "altpmap " + std::to_string(pmPort) + "\n");
      m->root.write("/proc/self/mountinfo", "");
      installNodeTools(m->root);
      fresh_[m] = listing(*m);
      std::map<std::string, std::string> env = {{"VELM_HOST_ADDRESSES", m->address},
                                                {"VELM_PROCFS", m->root.path("/proc")}};
      ASSERT_TRUE(m->portMapper.start("velm-simpm",
                                      {"--root", m->root.root(), "--listen", m->address},
                                      "listening on", env))
          << m->portMapper.stderrText();
      ASSERT_TRUE(m->velmd.start("velm-simd", {"--root", m->root.root()}, "listening on", env))
          << m->velmd.stderrText();
      ::setenv("VELM_HOST_ADDRESSES", m->address, 1);
      ::setenv("VELM_PROCFS", m->root.path("/proc").c_str(), 1);
      ::setenv("VELM_PROBE_PORT", std::to_string(probePort_).c_str(), 1);
      m->daemon = std::make_unique<Daemon>(
          m->root, makePluginDir(m->root, {{"velm", velmPluginPath()}}),
          std::vector<std::string>{"--listen",
                                   std::string(m->address) + ":" + std::to_string(probePort_),
                                   "--idle-interval", "0"});
      ASSERT_TRUE(m->daemon->start()) << m->daemon->stderrText();
    }
  }
  void TearDown() override {
    for (Machine* m : {&a_, &b_}) {
      if (m->daemon) m->daemon->signal(SIGTERM);
      if (m->daemon) m->daemon->waitExit();
      m->velmd.stop();
      stopSimdServing(m->root);
    }
    for (const char* v : {"VELM_HOST_ADDRESSES", "VELM_PROCFS", "VELM_PROBE_PORT"}) ::unsetenv(v);
    ::prctl(PR_SET_CHILD_SUBREAPER, 0);
  }
  std::vector<std::string> listing(Machine& m) {
    std::vector<std::string> names;
    for (const auto& e : fs::directory_iterator(m.root.path("/Library/Filesystems/Velm/config")))
      names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
  }
  PropertyList velmadmin(Machine& m, const std::string& name,
                         std::vector<std::pair<std::string, PropertyList>> keys = {}) {
    std::string file =
        m.root.write("/request.plist", writeXmlPlist(request(name, std::move(keys))));
    ProgramResult r = runProgram(
        "velmadmin", {"--server", m.daemon->url(), "--token-file",
                      m.root.path("/var/adminhostd/admin.token"), "--request", file});
    EXPECT_EQ(r.status, 0) << name << ": " << r.err;
    fs::remove(file);
    PlistReadResult answer = readXmlPlist(r.out);
    return answer ? *answer.value : PropertyList();
  }
  static long long status(const PropertyList& r) {
    const PropertyList* s = r.get("status");
    return s ? s->int64Value().value_or(-99) : -99;
  }

  int probePort_ = 0;
  Machine a_{"127.0.0.1", "0A0A0A0A-0000-4000-8000-00000000000A", {}, {}, {}, nullptr};
  Machine b_{"127.0.0.2", "0B0B0B0B-0000-4000-8000-00000000000B", {}, {}, {}, nullptr};
  std::map<Machine*, std::vector<std::string>> fresh_;
};

PropertyList computer(const char* uuid, const char* address) {
  PropertyList c = PropertyList::dict();
  c.set("uuid", uuid);
  c.set("ipAddresses", PlistArray{PropertyList(address)});
  return c;
}

TEST_F(JoinAndLeaveTest, AControllerAndAClientJoinAndLeave) {
  PropertyList notifications = PropertyList::dict();
  notifications.set("ServerSettings", PropertyList::dict());
  PropertyList joined = velmadmin(
      a_, "writeConfiguration",
      {{"role", PropertyList("CONTROLLER")},
       {"sanName", PropertyList("DemoSAN")},
       {"ownerName", PropertyList("Ops")},
       {"ownerEmail", PropertyList("ops@example.com")},
       {"metadataNetwork", PropertyList("127.0.0.0/8")},
       {"computers", PlistArray{computer(a_.uuid, a_.address), computer(b_.uuid, b_.address)}},
       {"primaryController", PropertyList(a_.uuid)},
       {"dsType", PropertyList(0)},
       {"authSecret", PropertyList("s3cret-of-the-san")},
       {"nameservers", PlistArray{PropertyList(a_.address)}},
       {"notifications", notifications}});
  EXPECT_EQ(status(joined), 0) << describe(joined);
  struct stat st {};
  ASSERT_EQ(::stat(a_.root.path("/Library/Filesystems/Velm/config/.auth_secret").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_TRUE(a_.root.exists("/Library/Filesystems/Velm/config/notifications.plist"));
  PlistReadResult prefs =
      readXmlPlistFile(a_.root.path("/Library/Preferences/com.orvane.velm.controller.plist"));
  ASSERT_TRUE(prefs) << prefs.error;
  EXPECT_EQ(*prefs.value->getString("DSType"), "Standalone");
  EXPECT_TRUE(a_.velmd.waitForText("roleChanged")) << a_.velmd.stderrText();

  PropertyList check = velmadmin(
      b_, "checkClientConfiguration",
      {{"ips", PlistArray{PropertyList("127.0.0.1"), PropertyList("127.0.0.3")}}});
  EXPECT_EQ(*check.get("reachableIPs"), PropertyList(PlistArray{PropertyList("127.0.0.1")}));
  EXPECT_EQ(*check.get("unreachableIPs"), PropertyList(PlistArray{PropertyList("127.0.0.3")}));

  PropertyList client = velmadmin(
      b_, "writeConfiguration",
      {{"role", PropertyList("CLIENT")},
       {"authSecret", PropertyList("s3cret-of-the-san")},
       {"searchPolicy", PlistArray{PropertyList("/LDAPv3/127.0.0.1")}}});
  EXPECT_EQ(status(client), 0) << describe(client);
  const PlistArray* policy = client.get("searchPolicy") ? client.get("searchPolicy")->asArray()
                                                        : nullptr;
  ASSERT_TRUE(policy) << describe(client);
  EXPECT_NE(std::find(policy->begin(), policy->end(), PropertyList("/LDAPv3/127.0.0.1")),
            policy->end())
      << describe(client);
  PropertyList finished = velmadmin(b_, "finishClientConfiguration");
  EXPECT_TRUE(finished.get("fsmpmRunning")->boolValue()) << describe(finished);
  EXPECT_TRUE(finished.get("fsmpmHupped")->boolValue()) << describe(finished);

  PropertyList leftB = velmadmin(
      b_, "clearConfiguration",
      {{"removedSearchPolicy", PlistArray{PropertyList("/LDAPv3/127.0.0.1")}}});
  PropertyList leftA = velmadmin(a_, "clearConfiguration");
  for (auto [m, left] : {std::pair{&a_, &leftA}, std::pair{&b_, &leftB}}) {
    EXPECT_EQ(*left->get("properties")->getString("role"), "UNCONFIGURED") << describe(*left);
    EXPECT_EQ(listing(*m), fresh_[m]);
    EXPECT_EQ(simdPidsServing(m->root).size(), 1u) << "velmd runs again";
  }
  std::vector<std::string> binds = toolCalls(b_.root, "rosterbind");
  EXPECT_EQ(binds, (std::vector<std::string>{"-v -a 127.0.0.1", "-v -r 127.0.0.1"}));
  for (Machine* m : {&a_, &b_})
    for (const std::string& call : toolCalls(m->root, "svcload"))
      EXPECT_EQ(call.find("s3cret"), std::string::npos);
}

}  // namespace
}  // namespace velm::test
