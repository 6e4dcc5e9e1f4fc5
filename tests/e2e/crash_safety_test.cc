// A kill -9 in the middle of joining or leaving a SAN never leaves a half-configured node: after
// each kill every file of the configuration is its old or its new self, whole, no secret is
// readable by others, and the same command run again ends exactly where an uninterrupted run
// does. The command runs in velmadmin --local, killed at random instants and inside each tool.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <random>
#include <thread>

#include "config/config_test_util.h"
#include "e2e/e2e_helpers.h"
#include "platform/files.h"
#include "support/sim_node.h"

extern char** environ;

namespace velm::test {
namespace {

namespace fs = std::filesystem;
using Files = std::map<std::string, std::string>;  // path under the root -> bytes

constexpr const char* kConfig = "/Library/Filesystems/Velm/config";
constexpr const char* kUuid = "0A0A0A0A-0000-4000-8000-00000000000A";

bool isLeftover(const std::string& name) {
  std::size_t at = name.rfind(".tmp");
  return at != std::string::npos && at > 0 && name.size() == at + 10;
}

// The node's configuration as it stands: the config tree and the preferences.
Files snapshot(const SandboxRoot& root, bool withLeftovers = false) {
  Files out;
  for (const char* dir : {kConfig, "/Library/Preferences"}) {
    std::error_code ec;
    for (fs::recursive_directory_iterator it(root.path(dir), ec), end; !ec && it != end;
         it.increment(ec)) {
      if (!it->is_regular_file()) continue;
      std::string rel = it->path().string().substr(root.root().size());
      if (!withLeftovers && isLeftover(it->path().filename().string())) continue;
      out[rel] = readFile(it->path().string()).value_or("");
    }
  }
  return out;
}

// velmadmin --local --request, in a process group of its own so a kill takes its tools too.
pid_t startVelmadmin(const SandboxRoot& root, const std::string& requestFile) {
  std::string program = binaryDir() + "/bin/velmadmin";
  std::vector<std::string> args = {program, "--local", "--request", requestFile};
  std::vector<std::string> env;
  for (char** e = environ; *e; ++e)
    if (std::string_view(*e).rfind("VELM_ROOT=", 0) != 0 &&
        std::string_view(*e).rfind("VELM_LOG=", 0) != 0)
      env.emplace_back(*e);
  env.push_back("VELM_ROOT=" + root.root());
  env.push_back("VELM_LOG=/dev/null");
  std::vector<char*> argv, envp;
  for (std::string& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  for (std::string& e : env) envp.push_back(e.data());
  envp.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETPGROUP);
  posix_spawnattr_setpgroup(&attr, 0);
  pid_t pid = -1;
  if (::posix_spawn(&pid, argv[0], &actions, &attr, argv.data(), envp.data()) != 0) pid = -1;
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attr);
  return pid;
}

void killGroup(pid_t pid) {
  ::kill(-pid, SIGKILL);
  while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
  }
}

int runToEnd(const SandboxRoot& root, const std::string& requestFile) {
  pid_t pid = startVelmadmin(root, requestFile);
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class CrashSafetyTest : public ::testing::Test {
 protected:
  // A machine set up by an earlier release: legacy plists, host names in fsmlist, three volumes
  // with the old limits.
  void legacyRoot(SandboxRoot& root) {
    installNodeTools(root);
    PropertyList quiet = PropertyList::dict();
    quiet.set("exitStatus", 0);
    writeToolBehaviour(root, "svcload", quiet);  // no velmd of its own to start
    root.write(std::string(kConfig) + "/uuid", kUuid);
    root.write(std::string(kConfig) + "/role.plist",
               "<plist version=\"1.0\"><dict><key>role</key><string>CONTROLLER</string></dict>"
               "</plist>\n");
    root.write(std::string(kConfig) + "/saninfo.plist",
               "<plist version=\"1.0\"><dict><key>name</key><string>OldSAN</string></dict>"
               "</plist>\n");
    std::string fsmlist = "# volumes\n";
    for (const char* v : {"Projects", "Media", "Archive"}) {
      root.write(std::string(kConfig) + "/" + v + ".cfg", kRealisticConfig);
      // Each volume has its aux data, as volume creation leaves it. (Without one, a kill
      // between a rewritten .cfg and its first aux data file leaves none, which reads the same.)
      root.write(std::string(kConfig) + "/" + v + "-auxdata.plist",
                 writeXmlPlist(PropertyList::dict()));
      fsmlist += std::string(v) + " oldhost 1\n";
    }
    root.write(std::string(kConfig) + "/fsmlist", fsmlist);
  }
  std::string joinRequest(SandboxRoot& root) {
    PropertyList c = PropertyList::dict();
    c.set("uuid", kUuid);
    c.set("ipAddresses", PlistArray{PropertyList("10.0.0.5")});
    PropertyList server = PropertyList::dict();
    server.set("ServerAddress", "");
    server.set("EmailAddress", "");
    PropertyList conditions = PropertyList::dict();
    for (const char* k : {"FreeSpaceThreshold", "ExceededSoftQuota", "FibreFailure",
                          "ControllerFailover"})
      conditions.set(k, 1);
    PropertyList notifications = PropertyList::dict();
    notifications.set("ServerSettings", server);
    notifications.set("Addresses", PlistArray{});
    notifications.set("Conditions", conditions);
    PropertyList r = request(
        "writeConfiguration",
        {{"searchPolicy", PlistArray{PropertyList("/LDAPv3/10.1.1.1")}},
         {"authSecret", PropertyList("the-secret-of-the-san")},
         {"nameservers", PlistArray{PropertyList("10.0.0.5")}},
         {"doUpgrade", PropertyList(true)},
         {"role", PropertyList("CONTROLLER")},
         {"sanName", PropertyList("DemoSAN")},
         {"ownerName", PropertyList("Ops")},
         {"ownerEmail", PropertyList("ops@example.com")},
         {"metadataNetwork", PropertyList("10.0.0.0/24")},
         {"primaryController", PropertyList(kUuid)},
         {"managePrivateNetwork", PropertyList(true)},
         {"dsType", PropertyList(2)},
         {"computers", PlistArray{c}},
         {"desiredSearchPolicy", PlistArray{PropertyList("/LDAPv3/10.1.1.1")}},
         {"notifications", notifications}});
    return root.write("/join.plist", writeXmlPlist(r));
  }
  std::string leaveRequest(SandboxRoot& root) {
    return root.write("/leave.plist",
                      writeXmlPlist(request("clearConfiguration",
                                            {{"removedSearchPolicy",
                                              PlistArray{PropertyList("/LDAPv3/10.1.1.1")}}})));
  }

  // A legacy root ready for the command under test: for leaving, joined first. Its request file.
  std::string prepared(SandboxRoot& root, bool joining) {
    legacyRoot(root);
    std::string request = joinRequest(root);
    if (joining) return request;
    EXPECT_EQ(runToEnd(root, request), 0);
    return leaveRequest(root);
  }

  // Each kill leaves every file old or new; the run again ends in the whole run's state.
  void checkKilled(SandboxRoot& root, const Files& before, const Files& after,
                   const std::string& request, const std::string& when) {
    Files now = snapshot(root, true);
    for (const auto& [path, bytes] : now) {
      std::string name = fs::path(path).filename().string();
      if (isLeftover(name)) {
        // A half-written copy of another file may be readable; of the secret, never.
        if (name.rfind(".auth_secret.", 0) == 0) {
          struct stat st {};
          ASSERT_EQ(::stat(root.path(path).c_str(), &st), 0);
          EXPECT_EQ(st.st_mode & 077, 0u) << path << " is readable by others " << when;
        }
        continue;
      }
      auto old = before.find(path), fresh = after.find(path);
      bool isOld = old != before.end() && old->second == bytes;
      bool isNew = fresh != after.end() && fresh->second == bytes;
      EXPECT_TRUE(isOld || isNew) << path << " is neither old nor new " << when;
      if (fs::path(path).extension() == ".plist") {
        EXPECT_TRUE(readXmlPlist(bytes)) << path;
      }
    }
    // A file that is gone must be gone in the old or in the new state.
    for (const Files* side : {&before, &after})
      for (const auto& [path, bytes] : *side)
        if (!now.count(path)) {
          EXPECT_TRUE(!before.count(path) || !after.count(path)) << path << " vanished " << when;
        }
    ASSERT_EQ(runToEnd(root, request), 0);
    EXPECT_EQ(snapshot(root), after) << "the run again after a kill " << when;
  }
};

TEST_F(CrashSafetyTest, JoiningAndLeavingSurviveAKillAnywhere) {
  // The uninterrupted runs, timed, and their end states.
  SandboxRoot whole;
  legacyRoot(whole);
  Files legacy = snapshot(whole);
  std::string join = joinRequest(whole), leave = leaveRequest(whole);
  auto t0 = std::chrono::steady_clock::now();
  ASSERT_EQ(runToEnd(whole, join), 0);
  auto joinTime = std::chrono::steady_clock::now() - t0;
  Files joined = snapshot(whole);
  ASSERT_NE(joined, legacy);
  t0 = std::chrono::steady_clock::now();
  ASSERT_EQ(runToEnd(whole, leave), 0);
  auto leaveTime = std::chrono::steady_clock::now() - t0;
  Files left = snapshot(whole);
  // uuid stays, and the controller preferences, which teardown leaves alone.
  ASSERT_EQ(left.size(), 2u);
  ASSERT_TRUE(left.count(std::string(kConfig) + "/uuid"));

  std::mt19937 random(20261125);
  auto killAt = [&](std::chrono::steady_clock::duration span, bool joining, int i) {
    SandboxRoot root;
    std::string request = prepared(root, joining);
    auto wait = std::uniform_int_distribution<long long>(
        0, std::chrono::duration_cast<std::chrono::microseconds>(span).count())(random);
    pid_t pid = startVelmadmin(root, request);
    std::this_thread::sleep_for(std::chrono::microseconds(wait));
    killGroup(pid);
    checkKilled(root, joining ? legacy : joined, joining ? joined : left, request,
                std::string(joining ? "joining" : "leaving") + " at " + std::to_string(wait) +
                    " us (run " + std::to_string(i) + ")");
  };
  for (int i = 0; i < 150; ++i) killAt(joinTime, true, i);
  for (int i = 0; i < 50; ++i) killAt(leaveTime, false, i);

  // Inside each tool: told to hang, the command is killed while it waits.
  for (const char* tool : {"rosterbind", "rosterctl", "svcload", "ps"}) {
    bool joining = std::string(tool) == "rosterbind" || std::string(tool) == "rosterctl";
    SandboxRoot root;
    std::string request = prepared(root, joining);
    PropertyList hang = PropertyList::dict();
    hang.set("hang", true);
    writeToolBehaviour(root, tool, hang);
    pid_t pid = startVelmadmin(root, request);
    for (int i = 0; i < 500 && toolCalls(root, tool).empty(); ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ASSERT_FALSE(toolCalls(root, tool).empty()) << tool;
    killGroup(pid);
    PropertyList quiet = PropertyList::dict();
    if (std::string(tool) == "svcload") quiet.set("exitStatus", 0);
    writeToolBehaviour(root, tool, quiet);
    if (std::string(tool) != "svcload") fs::remove(root.path(std::string("/sim/tools/") + tool + ".plist"));
    checkKilled(root, joining ? legacy : joined, joining ? joined : left, request,
                std::string("inside ") + tool);
  }
}

}  // namespace
}  // namespace velm::test
