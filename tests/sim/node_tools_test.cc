// The node tool stand-ins the plugin runs (rosterbind, rosterctl, replicacfg, svcload, ps, nmcli,
// networkctl), from their sandbox paths with the plugin's command lines: what they record, what
// they keep, and the daemon svcload stops and starts.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "adminhost/host_common.h"
#include "platform/files.h"
#include "platform/paths.h"
#include "plist/plist.h"
#include "support/run_program.h"
#include "support/sim_node.h"
#include "support/sim_process.h"

namespace velm::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using Lines = std::vector<std::string>;

constexpr const char* kCsp = "rosterAttrStandard:CSPSearchPath";
constexpr const char* kPolicy = "rosterAttrStandard:SearchPolicy";

PropertyList strings(const Lines& values) {
  PropertyList out = PropertyList::array();
  for (const std::string& v : values) out.push(v);
  return out;
}

PropertyList dict(std::initializer_list<std::pair<const char*, PropertyList>> entries) {
  PropertyList d = PropertyList::dict();
  for (const auto& [k, v] : entries) d.set(k, v);
  return d;
}

Lines lines(const std::string& text) {
  Lines out;
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    out.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return out;
}

class NodeToolsTest : public SandboxTest {
 protected:
  void SetUp() override {
    installNodeTools(sandbox_);
    // A daemon that svcload starts outlives svcload; as its subreaper the test can reap it.
    ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
  }
  void TearDown() override {
    EXPECT_THAT(simdPidsServing(sandbox_), IsEmpty()) << "a daemon was left running";
    stopSimdServing(sandbox_);
    ::prctl(PR_SET_CHILD_SUBREAPER, 0);
  }
  LaunchResult run(const std::string& tool, const std::vector<std::string>& args,
                   const std::string& input = "") {
    return runNodeTool(sandbox_, tool, args, input);
  }
  PropertyList plistAt(const std::string& path) {
    PlistReadResult r = readXmlPlist(sandbox_.read(path));
    EXPECT_TRUE(r) << path << ": " << r.error;
    return r ? *r.value : PropertyList();
  }
  // What the plugin answers as the search policy comes from here.
  PropertyList searchPath() {
    resetPathsForTest();
    PropertyList info = DSGetNodeInfo(0, {"rosterAttrStandard:SearchPath"});
    const PropertyList* path = info.get("rosterAttrStandard:SearchPath");
    return path ? *path : PropertyList();
  }
  // Writeconfiguration's step for added nodes, as the plugin runs it.
  void addSearchNodes(const Lines& nodes) {
    for (const char* node : {"/Search", "/Search/Contacts"}) {
      std::vector<std::string> args = {node, "-append", "/", kCsp};
      args.insert(args.end(), nodes.begin(), nodes.end());
      LaunchResult r = run("rosterctl", args);
      EXPECT_EQ(r.status, 0) << r.error;
    }
    for (const char* node : {"/Search", "/Search/Contacts"}) {
      LaunchResult r = run("rosterctl", {node, "-create", "/", kPolicy, kCsp});
      EXPECT_EQ(r.status, 0) << r.error;
    }
  }
  void removeSearchNodes(const Lines& nodes) {
    for (const char* node : {"/Search", "/Search/Contacts"}) {
      std::vector<std::string> args = {node, "-delete", "/", kCsp};
      args.insert(args.end(), nodes.begin(), nodes.end());
      LaunchResult r = run("rosterctl", args);
      EXPECT_EQ(r.status, 0) << r.error;
    }
  }
  std::string nssLine(const std::string& database) {
    for (const std::string& line : lines(sandbox_.read("/etc/nsswitch.conf")))
      if (line.rfind(database + ":", 0) == 0) return line;
    return "<no " + database + " line>";
  }
  LaunchResult svcload(const char* action) {
    return run("svcload", {action, sandbox_.path(kVelmdServiceDefinition)});
  }
  std::string psCommands() { return run("ps", {"-ax", "-o", "command"}).output; }
};

// ---- common to all seven ----

TEST_F(NodeToolsTest, EachIsLinkedWhereThePluginRunsItAndNeedsItsRoot) {
  for (const auto& [name, path] : nodeToolPaths()) {
    std::error_code ec;
    EXPECT_EQ(std::filesystem::read_symlink(sandbox_.path(path), ec).string(), binaryPath(name))
        << path;
  }
  // Empty is the real root to the plugin: a stand-in never edits the host's own files.
  std::vector<std::string> before = sandbox_.listing();
  for (const auto& [name, path] : nodeToolPaths()) {
    for (bool unset : {false, true}) {
      LaunchResult r =
          unset ? launch_task("/usr/bin/env", {"-u", "VELM_ROOT", sandbox_.path(path), "reload"})
                : runNodeTool(sandbox_, name, {"reload"}, "", {{"VELM_ROOT", ""}});
      EXPECT_EQ(r.status, 78) << name << ": " << r.error;
      EXPECT_THAT(r.error, HasSubstr("VELM_ROOT")) << name;
      EXPECT_EQ(r.output, "") << name;
    }
  }
  EXPECT_EQ(sandbox_.listing(), before);
}

TEST_F(NodeToolsTest, RecordsQuoteArgumentsAndNeverHoldStandardInput) {
  writeDirectoryPasswords(sandbox_, {{"root", "root pw 1"}, {"diradmin", "admin:pw;2"}});
  EXPECT_EQ(run("rosterctl", {".", "-auth", "root"}, "root pw 1\n").status, 0);
  EXPECT_EQ(run("rosterctl", {"/LDAPv3/127.0.0.1", "-auth", "diradmin"}, "wrong pw 3\n").status,
            77);
  EXPECT_EQ(
      run("replicacfg", {"-preflightreplica", "diradmin", "10.0.0.2"}, "root pw 1\nadmin:pw;2\n")
          .status,
      0);
  EXPECT_EQ(
      run("rosterbind", {"-v", "-a", "dir.example.com", "-u", "diradmin"}, "admin:pw;2\n").status,
      0);
  EXPECT_EQ(run("networkctl", {"reconfigure", "it's eth0", "", "$x"}).status, 0);

  EXPECT_THAT(toolCalls(sandbox_, "rosterctl"),
              ElementsAre(". -auth root", "/LDAPv3/127.0.0.1 -auth diradmin"));
  EXPECT_THAT(toolCalls(sandbox_, "replicacfg"),
              ElementsAre("-preflightreplica diradmin 10.0.0.2"));
  EXPECT_THAT(toolCalls(sandbox_, "rosterbind"), ElementsAre("-v -a dir.example.com -u diradmin"));
  EXPECT_THAT(toolCalls(sandbox_, "networkctl"),
              ElementsAre("reconfigure 'it'\"'\"'s eth0' '' '$x'"));
  // No password, nor any part of one, is in any file the tools wrote.
  for (const std::string& entry : sandbox_.listing()) {
    std::string file = entry.substr(0, entry.rfind(':'));
    if (file.ends_with("passwords.plist") || std::filesystem::is_directory(file)) continue;
    std::string text = readFile(file).value_or("");
    for (const char* secret : {"root pw", "admin:pw", "wrong pw"})
      EXPECT_EQ(text.find(secret), std::string::npos) << file << " holds " << secret;
  }
}

TEST_F(NodeToolsTest, BehaviourFileScriptsFailuresOutputAndHangs) {
  writeToolBehaviour(sandbox_, "rosterbind", dict({{"failTimes", 2}, {"failStatus", 9}}));
  LaunchResult r = run("rosterbind", {"-v", "-a", "dir.example.com"});
  EXPECT_EQ(r.status, 9);
  EXPECT_THAT(r.error, HasSubstr("run 1 of 2"));
  EXPECT_EQ(run("rosterbind", {"-v", "-a", "dir.example.com"}).status, 9);
  EXPECT_FALSE(sandbox_.exists(kDirectoryBinds)) << "a failing run did the work";
  EXPECT_EQ(run("rosterbind", {"-v", "-a", "dir.example.com"}).status, 0);
  EXPECT_EQ(run("rosterbind", {"-v", "-a", "dir.example.com"}).status, 17);
  // A new behaviour file counts afresh; failStatus defaults to 1.
  writeToolBehaviour(sandbox_, "rosterbind", dict({{"failTimes", 1}}));
  EXPECT_EQ(run("rosterbind", {"-v", "-r", "dir.example.com"}).status, 1);
  EXPECT_EQ(run("rosterbind", {"-v", "-r", "dir.example.com"}).status, 0);
  EXPECT_EQ(toolCalls(sandbox_, "rosterbind").size(), 6u) << "every run is recorded";

  writeToolBehaviour(sandbox_, "nmcli",
                     dict({{"output", "out\n"}, {"error", "err\n"}, {"exitStatus", 3}}));
  r = run("nmcli", {"connection", "up", "x"});
  EXPECT_EQ(r.status, 3);
  EXPECT_EQ(r.output, "out\n");
  EXPECT_EQ(r.error, "err\n");
  writeToolBehaviour(sandbox_, "nmcli", dict({{"output", "only this\n"}}));
  r = run("nmcli", {"-t", "-f", "RUNNING", "general"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.output, "only this\n");

  // Malformed: said, and passed over.
  sandbox_.write("/sim/tools/networkctl.plist", "<plist><dict>");
  r = run("networkctl", {"reload"});
  EXPECT_EQ(r.status, 0);
  EXPECT_THAT(r.error, HasSubstr("networkctl.plist"));

  // A hung tool ends only when the caller stops it, as the plugin's deadline does.
  writeToolBehaviour(sandbox_, "ps", dict({{"hang", true}, {"output", "partial\n"}}));
  r = runNodeTool(sandbox_, "ps", {"-ax", "-o", "command"}, "", {}, 500'000);
  EXPECT_TRUE(r.timedOut);
  EXPECT_EQ(r.status, 128 + SIGTERM);
  EXPECT_EQ(r.output, "partial\n");
}

// ---- directory ----

TEST_F(NodeToolsTest, RosterbindBindsEachServerOnce) {
  LaunchResult r = run("rosterbind", {"-v", "-a", "dir.example.com"});
  EXPECT_EQ(r.status, 0) << r.error;
  EXPECT_NE(r.output, "") << "-v says what it does";
  EXPECT_EQ(run("rosterbind", {"-a", "10.0.0.9"}).status, 0);
  EXPECT_EQ(run("rosterbind", {"-l"}).output, "dir.example.com\n10.0.0.9\n");
  EXPECT_TRUE(plistAt(kDirectoryBinds).get("dir.example.com"));

  r = run("rosterbind", {"-v", "-a", "DIR.example.com"});
  EXPECT_EQ(r.status, 17);
  EXPECT_THAT(r.error, HasSubstr("already bound"));

  EXPECT_EQ(run("rosterbind", {"-v", "-r", "dir.example.com"}).status, 0);
  EXPECT_EQ(run("rosterbind", {"-v", "-r", "dir.example.com"}).status, 1);
  EXPECT_EQ(run("rosterbind", {"-l"}).output, "10.0.0.9\n");
  EXPECT_EQ(run("rosterbind", {"-v", "-a", "dir.example.com"}).status, 0) << "bound again";

  writeToolBehaviour(sandbox_, "rosterbind",
                     dict({{"unreachable", strings({"down.example.com"})}}));
  EXPECT_EQ(run("rosterbind", {"-v", "-a", "down.example.com"}).status, 1);

  writeDirectoryPasswords(sandbox_, {{"diradmin", "pw"}});
  EXPECT_EQ(run("rosterbind", {"-a", "auth.example.com", "-u", "diradmin"}, "nope\n").status, 77);
  EXPECT_EQ(run("rosterbind", {"-a", "auth.example.com", "-u", "diradmin"}).status, 77);
  EXPECT_EQ(run("rosterbind", {"-a", "auth.example.com", "-u", "diradmin"}, "pw\n").status, 0);
  PropertyList binds = plistAt(kDirectoryBinds);
  const PropertyList* bind = binds.get("auth.example.com");
  ASSERT_TRUE(bind);
  EXPECT_EQ(*bind, dict({{"user", "diradmin"}}));

  for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
           {}, {"-v"}, {"-a"}, {"-a", "x", "-r", "y"}, {"-x"}, {"-a", "two words"}})
    EXPECT_EQ(run("rosterbind", args).status, 64) << ::testing::PrintToString(args);
}

TEST_F(NodeToolsTest, RosterctlSearchPathIsWhatThePluginReadsBack) {
  sandbox_.write("/etc/nsswitch.conf",
                 "# kept\npasswd:         files systemd\ngroup:          files systemd\n"
                 "hosts:          files dns\n");
  EXPECT_EQ(searchPath(), strings({"/Local/Default"}));

  addSearchNodes({"/LDAPv3/dir.example.com", "/LDAPv3/10.0.0.9"});
  EXPECT_EQ(searchPath(),
            strings({"/Local/Default", "/LDAPv3/dir.example.com", "/LDAPv3/10.0.0.9"}));
  EXPECT_EQ(nssLine("passwd"), "passwd:         files systemd sss");
  EXPECT_EQ(nssLine("group"), "group:          files systemd sss");
  EXPECT_EQ(nssLine("hosts"), "hosts:          files dns");
  EXPECT_EQ(lines(sandbox_.read("/etc/nsswitch.conf"))[0], "# kept");
  std::error_code ec;
  EXPECT_EQ(std::filesystem::status(sandbox_.path("/etc/sssd/sssd.conf"), ec).permissions(),
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);

  LaunchResult r = run("rosterctl", {"/Search/Contacts", "-read", "/", kCsp});
  EXPECT_EQ(r.status, 0) << r.error;
  EXPECT_EQ(r.output, "CSPSearchPath: /LDAPv3/dir.example.com /LDAPv3/10.0.0.9\n");
  // Appending what is there already adds nothing.
  addSearchNodes({"/LDAPv3/10.0.0.9"});
  EXPECT_EQ(searchPath(),
            strings({"/Local/Default", "/LDAPv3/dir.example.com", "/LDAPv3/10.0.0.9"}));

  removeSearchNodes({"/LDAPv3/dir.example.com", "/LDAPv3/never.example.com"});
  EXPECT_EQ(searchPath(), strings({"/Local/Default", "/LDAPv3/10.0.0.9"}));
  removeSearchNodes({"/LDAPv3/10.0.0.9"});
  EXPECT_EQ(searchPath(), strings({"/Local/Default"}));
  EXPECT_EQ(nssLine("passwd"), "passwd:         files systemd");
  EXPECT_THAT(sandbox_.read("/etc/sssd/sssd.conf"), Not(HasSubstr("domain/")));

  r = run("rosterctl", {"/Search", "-read", "/"});
  EXPECT_EQ(r.output,
            "CSPSearchPath:\nSearchPolicy: rosterAttrStandard:CSPSearchPath\n"
            "SearchPath: /Local/Default\nLSPSearchPath: /Local/Default\n"
            "NSPSearchPath: /Local/Default\n");

  // The local policy leaves the custom path out of the one in force, and back.
  addSearchNodes({"/LDAPv3/dir.example.com"});
  EXPECT_EQ(
      run("rosterctl", {"/Search", "-create", "/", kPolicy, "rosterAttrStandard:LSPSearchPath"})
          .status,
      0);
  EXPECT_EQ(searchPath(), strings({"/Local/Default"}));
  EXPECT_EQ(run("rosterctl", {"/Search", "-create", "/", kPolicy, kCsp}).status, 0);
  EXPECT_EQ(searchPath(), strings({"/Local/Default", "/LDAPv3/dir.example.com"}));

  EXPECT_EQ(run("rosterctl", {"/Nowhere", "-read", "/"}).status, 1);
  EXPECT_EQ(run("rosterctl", {"/Search", "-read", "/Users"}).status, 1);
  EXPECT_EQ(run("rosterctl", {"/Search", "-create", "/", "SearchPath", "/x"}).status, 1);
  EXPECT_EQ(run("rosterctl", {"/Search", "-create", "/", kPolicy, "sideways"}).status, 1);
  EXPECT_EQ(run("rosterctl", {"/Search", "-append", "/", kCsp, "no-slash"}).status, 1);
  EXPECT_EQ(run("rosterctl", {"/Search", "-append", "/", kCsp}).status, 64);
  EXPECT_EQ(run("rosterctl", {"/Search"}).status, 64);
  EXPECT_EQ(searchPath(), strings({"/Local/Default", "/LDAPv3/dir.example.com"}));
}

TEST_F(NodeToolsTest, RosterctlStartsFromTheFilesThere) {
  sandbox_.write("/etc/nsswitch.conf", "passwd: files sss\ngroup: files sss\n");
  sandbox_.write("/etc/sssd/sssd.conf",
                 "[sssd]\nservices = nss\ndomains = LOCAL, corp\n\n[domain/LOCAL]\n"
                 "id_provider = files\n\n[domain/corp]\nid_provider = ldap\n"
                 "ldap_uri = ldaps://corp.example.com:636/\n",
                 0600);
  EXPECT_EQ(searchPath(), strings({"/Local/Default", "/LDAPv3/corp.example.com"}));
  LaunchResult r = run("rosterctl", {"/Search", "-read", "/", "CSPSearchPath", kPolicy});
  EXPECT_EQ(r.output,
            "CSPSearchPath: /LDAPv3/corp.example.com\n"
            "SearchPolicy: rosterAttrStandard:CSPSearchPath\n");

  addSearchNodes({"/LDAPv3/dir.example.com"});
  EXPECT_EQ(searchPath(),
            strings({"/Local/Default", "/LDAPv3/corp.example.com", "/LDAPv3/dir.example.com"}));
  std::string conf = sandbox_.read("/etc/sssd/sssd.conf");
  EXPECT_THAT(conf, HasSubstr("ldap_uri = ldaps://corp.example.com:636/"));
  EXPECT_THAT(conf, HasSubstr("[domain/LOCAL]\nid_provider = files"));
  removeSearchNodes({"/LDAPv3/corp.example.com", "/LDAPv3/dir.example.com"});
  EXPECT_EQ(searchPath(), strings({"/Local/Default"}));
  // The local domain still wants sssd.
  EXPECT_EQ(nssLine("passwd"), "passwd: files sss");
}

TEST_F(NodeToolsTest, PasswordsComeOnStandardInput) {
  // Without a passwords file any password will do.
  EXPECT_EQ(run("rosterctl", {".", "-auth", "root"}, "anything\n").status, 0);
  EXPECT_EQ(run("replicacfg", {"-preflightreplica", "diradmin", "10.0.0.2"}, "a\nb\n").status, 0);

  writeDirectoryPasswords(sandbox_, {{"root", "rootpw"}, {"diradmin", "adminpw"}});
  EXPECT_EQ(run("rosterctl", {".", "-auth", "root"}, "rootpw\n").status, 0);
  EXPECT_EQ(run("rosterctl", {".", "-auth", "root"}, "rootpw").status, 0) << "no final newline";
  LaunchResult r = run("rosterctl", {".", "-auth", "root"}, "rootpw \n");
  EXPECT_EQ(r.status, 77);
  EXPECT_THAT(r.error, Not(HasSubstr("rootpw")));
  EXPECT_EQ(run("rosterctl", {".", "-auth", "root"}).status, 77);
  EXPECT_EQ(run("rosterctl", {"/LDAPv3/127.0.0.1", "-auth", "diradmin"}, "adminpw\n").status, 0);
  EXPECT_EQ(run("rosterctl", {"/LDAPv3/127.0.0.1", "-auth", "nobody"}, "adminpw\n").status, 77);

  // replicacfg's statuses are the plugin's authStatus.
  const std::vector<std::string> preflight = {"-preflightreplica", "diradmin", "10.0.0.2"};
  EXPECT_EQ(run("replicacfg", preflight, "rootpw\nadminpw\n").status, 0);
  EXPECT_EQ(run("replicacfg", preflight, "rootpw\nwrong\n").status, 77);
  EXPECT_EQ(run("replicacfg", preflight, "wrong\nadminpw\n").status, 255);
  EXPECT_EQ(run("replicacfg", preflight, "rootpw\n").status, 77);
  EXPECT_EQ(run("replicacfg", {"-preflightreplica", "diradmin"}, "rootpw\nadminpw\n").status, 64);
}

// ---- svcload and ps ----

TEST_F(NodeToolsTest, SvcloadStopsAndRestartsTheSandboxDaemon) {
  SimProcess daemon;
  std::string config = sandbox_.path("/simd-custom.plist");
  ASSERT_TRUE(
      daemon.start("velm-simd", {"--root", sandbox_.root(), "--config", config}, "listening on"))
      << daemon.stderrText();
  // Another root's daemon, as a test beside this one has, is none of ours.
  std::string otherRoot = ::testing::TempDir() + "velmXXXXXX";
  ASSERT_TRUE(::mkdtemp(otherRoot.data()));
  SimProcess other;
  ASSERT_TRUE(other.start("velm-simd", {"--root", otherRoot}, "listening on"));

  EXPECT_THAT(simdPidsServing(sandbox_), ElementsAre(daemon.pid()));
  sandbox_.write(kPsExtraLines, "/usr/sbin/velmd2\n/usr/bin/xvelmd\n/bin/sh -c velmd\n");
  EXPECT_EQ(psCommands(),
            "COMMAND\n/usr/sbin/velmd\n/usr/sbin/velmd2\n/usr/bin/xvelmd\n/bin/sh -c velmd\n");
  ::unlink(sandbox_.path(kPsExtraLines).c_str());

  LaunchResult r = svcload("unload");
  EXPECT_EQ(r.status, 0) << r.error;
  EXPECT_THAT(simdPidsServing(sandbox_), IsEmpty());
  EXPECT_EQ(psCommands(), "COMMAND\n");
  EXPECT_EQ(daemon.stop(), 0) << "stopped cleanly by SIGTERM: " << daemon.stderrText();
  EXPECT_EQ(svcload("unload").status, 0) << "nothing to stop is no failure";

  r = svcload("load");
  EXPECT_EQ(r.status, 0) << r.error;
  std::vector<pid_t> started = simdPidsServing(sandbox_);
  ASSERT_EQ(started.size(), 1u);
  EXPECT_EQ(psCommands(), "COMMAND\n/usr/sbin/velmd\n");
  EXPECT_TRUE(sandbox_.exists("/var/run/com.orvane.velmd.socket"));
  EXPECT_THAT(sandbox_.read(kSimdLog), HasSubstr("listening on"));
  // Restarted as it was started, and detached from svcload.
  std::string cmdline = readFile("/proc/" + std::to_string(started[0]) + "/cmdline").value_or("");
  EXPECT_EQ(cmdline, binaryPath("velm-simd") + '\0' + "--root" + '\0' + sandbox_.root() + '\0' +
                         "--config" + '\0' + config + '\0');
  EXPECT_EQ(::getsid(started[0]), started[0]);

  EXPECT_EQ(svcload("load").status, 0);
  EXPECT_EQ(simdPidsServing(sandbox_), started) << "a running daemon is not started twice";

  EXPECT_EQ(svcload("unload").status, 0);
  EXPECT_THAT(simdPidsServing(sandbox_), IsEmpty());
  // This test adopted it when svcload ended: reap it, so nothing is left behind.
  int status = 0;
  EXPECT_EQ(::waitpid(started[0], &status, 0), started[0]) << std::strerror(errno);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_FALSE(sandbox_.exists("/var/run/com.orvane.velmd.socket"));

  EXPECT_EQ(::kill(other.pid(), 0), 0) << "the other root's daemon was stopped";
  EXPECT_EQ(other.stop(), 0);
  std::error_code ec;
  std::filesystem::remove_all(otherRoot, ec);

  EXPECT_EQ(run("svcload", {"unload", "/etc/svcload.d/com.other.plist"}).status, 64);
  EXPECT_EQ(run("svcload", {"restart", sandbox_.path(kVelmdServiceDefinition)}).status, 64);
  EXPECT_EQ(toolCalls(sandbox_, "svcload")[0], "unload " + sandbox_.path(kVelmdServiceDefinition));
}

TEST_F(NodeToolsTest, PsListsAStoppedDaemonWhileItLingers) {
  EXPECT_EQ(svcload("load").status, 0);
  std::vector<pid_t> started = simdPidsServing(sandbox_);
  ASSERT_EQ(started.size(), 1u);
  writeToolBehaviour(sandbox_, "svcload", dict({{"lingerCounts", 2}}));
  EXPECT_EQ(svcload("unload").status, 0);
  EXPECT_THAT(simdPidsServing(sandbox_), IsEmpty()) << "stopped all the same";
  EXPECT_EQ(psCommands(), "COMMAND\n/usr/sbin/velmd\n");
  char row[32];
  std::snprintf(row, sizeof row, "%7d velmd\n", static_cast<int>(started[0]));
  EXPECT_EQ(run("ps", {"-o", "pid=", "-o", "comm="}).output, row);
  EXPECT_EQ(psCommands(), "COMMAND\n");
  EXPECT_EQ(psCommands(), "COMMAND\n");
  ::waitpid(started[0], nullptr, 0);

  // A load ends the lingering.
  EXPECT_EQ(svcload("load").status, 0);
  std::vector<pid_t> second = simdPidsServing(sandbox_);
  EXPECT_EQ(svcload("unload").status, 0);
  for (pid_t pid : second) ::waitpid(pid, nullptr, 0);
  EXPECT_EQ(svcload("load").status, 0);
  EXPECT_EQ(psCommands(), "COMMAND\n/usr/sbin/velmd\n");
  std::vector<pid_t> third = simdPidsServing(sandbox_);
  EXPECT_EQ(third.size(), 1u);
  EXPECT_TRUE(stopSimdServing(sandbox_));
  EXPECT_EQ(psCommands(), "COMMAND\n");
  EXPECT_THAT(simdPidsServing(sandbox_), IsEmpty());
  for (pid_t pid : third) EXPECT_FALSE(std::filesystem::exists("/proc/" + std::to_string(pid)));
}

TEST_F(NodeToolsTest, PsTakesTheUsualSelectionsAndFormats) {
  sandbox_.write(kPsExtraLines, "  42 fsm\n");
  EXPECT_EQ(run("ps", {"-ax", "-o", "command"}).output, "COMMAND\n  42 fsm\n");
  EXPECT_EQ(run("ps", {"ax", "-o", "pid,command"}).output, "    PID COMMAND\n  42 fsm\n");
  EXPECT_EQ(run("ps", {"-e", "-ocmd="}).output, "  42 fsm\n");
  EXPECT_EQ(run("ps", {"-o", "pid=,comm=Name"}).output, "        Name\n  42 fsm\n");
  EXPECT_EQ(run("ps", {}).output, "    PID COMMAND\n  42 fsm\n");
  LaunchResult r = run("ps", {"-o", "user"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.output, "");
  EXPECT_EQ(run("ps", {"-f"}).status, 1);
  EXPECT_EQ(run("ps", {"-o"}).status, 1);
}

// ---- network ----

class NmcliTest : public NodeToolsTest {
 protected:
  void SetUp() override {
    NodeToolsTest::SetUp();
    PropertyList wired =
        dict({{"uuid", "5f1c-0001"},
              {"name", "Wired connection 1"},
              {"device", "eth0"},
              {"active", true},
              {"ipv4", dict({{"method", "auto"}, {"dns", strings({"10.0.0.53"})}})}});
    wired.set("appliedIpv4", *wired.get("ipv4"));
    PropertyList backplane = dict(
        {{"uuid", "5f1c-0002"}, {"name", "Back:plane"}, {"device", "eth1"}, {"active", false}});
    table_ = dict({{"connections", PlistArray{wired, backplane}}});
    sandbox_.write(kNmcliTable, writeXmlPlist(table_));
  }
  PropertyList connection(std::size_t index) {
    PropertyList table = plistAt(kNmcliTable);
    const PropertyList* all = table.get("connections");
    return all && all->asArray() && all->asArray()->size() > index ? (*all->asArray())[index]
                                                                   : PropertyList();
  }

  PropertyList table_;
};

TEST_F(NmcliTest, ListsModifiesAndActivatesConnections) {
  LaunchResult r = run("nmcli", {"-t", "-f", "RUNNING", "general"});
  EXPECT_EQ(r.status, 0) << r.error;
  EXPECT_EQ(r.output, "running\n");
  r = run("nmcli", {"-t", "-f", "UUID,DEVICE,NAME,ACTIVE", "connection", "show"});
  EXPECT_EQ(r.status, 0) << r.error;
  EXPECT_EQ(r.output, "5f1c-0001:eth0:Wired connection 1:yes\n5f1c-0002::Back\\:plane:no\n");
  EXPECT_EQ(run("nmcli", {"-t", "-f", "NAME", "con", "show", "--active"}).output,
            "Wired connection 1\n");
  EXPECT_EQ(run("nmcli", {"-g", "connection.interface-name", "c", "s", "5f1c-0002"}).output,
            "eth1\n");
  EXPECT_EQ(run("nmcli", {"-t", "-f", "DEVICE,STATE,CONNECTION", "device"}).output,
            "eth0:connected:Wired connection 1\neth1:disconnected:\n");
  r = run("nmcli", {"connection", "show"});
  EXPECT_EQ(lines(r.output)[0], "NAME                UUID       TYPE            DEVICE");
  EXPECT_EQ(lines(r.output)[2], "Back:plane          5f1c-0002  802-3-ethernet  --");

  r = run("nmcli", {"connection", "modify", "5f1c-0001", "ipv4.method", "manual", "ipv4.addresses",
                    "192.168.7.20/24", "ipv4.gateway", "192.168.7.1"});
  EXPECT_EQ(r.status, 0) << r.error;
  PropertyList wired = connection(0);
  EXPECT_EQ(*wired.get("ipv4"), dict({{"method", "manual"},
                                      {"dns", strings({"10.0.0.53"})},
                                      {"addresses", strings({"192.168.7.20/24"})},
                                      {"gateway", "192.168.7.1"}}))
      << "the other settings stay";
  EXPECT_EQ(*wired.get("appliedIpv4"), *(*table_.get("connections")->asArray())[0].get("ipv4"))
      << "nothing applied before up";
  r = run("nmcli", {"connection", "up", "5f1c-0001"});
  EXPECT_EQ(r.status, 0) << r.error;
  EXPECT_THAT(r.output, HasSubstr("successfully activated"));
  wired = connection(0);
  EXPECT_EQ(*wired.get("appliedIpv4"), *wired.get("ipv4"));
  EXPECT_EQ(
      run("nmcli", {"-t", "-f", "IP4", "connection", "show", "id", "Wired connection 1"}).output,
      "IP4.ADDRESS[1]:192.168.7.20/24\nIP4.GATEWAY:192.168.7.1\n");

  // An address without a prefix is a host's; + adds; an empty router leaves the old one.
  EXPECT_EQ(run("nmcli", {"con", "mod", "Back:plane", "ipv4.method", "manual", "ipv4.addresses",
                          "10.9.0.5", "+ipv4.addresses", "10.9.1.5/16"})
                .status,
            0);
  EXPECT_EQ(*connection(1).get("ipv4")->get("addresses"), strings({"10.9.0.5/32", "10.9.1.5/16"}));
  EXPECT_EQ(run("nmcli", {"connection", "up", "Back:plane"}).status, 0);
  EXPECT_EQ(run("nmcli", {"-t", "-f", "DEVICE,ACTIVE", "connection", "show"}).output,
            "eth0:yes\neth1:yes\n");

  // Invalid changes are refused whole.
  std::string before = sandbox_.read(kNmcliTable);
  for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
           {"connection", "modify", "5f1c-0001", "ipv4.method", "manual", "ipv4.addresses",
            "192.168.7.300/24"},
           {"connection", "modify", "5f1c-0001", "ipv4.addresses", "10.0.0.1/33"},
           {"connection", "modify", "5f1c-0001", "ipv4.gateway", "router"},
           {"connection", "modify", "5f1c-0001", "ipv4.method", "sometimes"},
           {"connection", "modify", "5f1c-0001", "ipv4.colour", "blue"},
           {"connection", "modify", "5f1c-0001", "ipv4.method"},
           {"connection", "modify", "5f1c-0001"}}) {
    r = run("nmcli", args);
    EXPECT_EQ(r.status, 2) << ::testing::PrintToString(args) << r.error;
    EXPECT_THAT(r.error, HasSubstr("Error: "));
  }
  r = run("nmcli", {"connection", "modify", "5f1c-0001", "ipv4.addresses", ""});
  EXPECT_EQ(r.status, 1) << "a manual method needs an address";
  EXPECT_THAT(r.error, HasSubstr("method=manual"));
  EXPECT_EQ(run("nmcli", {"connection", "modify", "nope", "ipv4.method", "auto"}).status, 10);
  EXPECT_EQ(run("nmcli", {"connection", "up", "nope"}).status, 10);
  EXPECT_EQ(run("nmcli", {"connection", "frobnicate"}).status, 2);
  EXPECT_EQ(sandbox_.read(kNmcliTable), before);

  EXPECT_EQ(run("nmcli", {"connection", "down", "5f1c-0002"}).status, 0);
  EXPECT_EQ(run("nmcli", {"connection", "down", "5f1c-0002"}).status, 10);
  EXPECT_EQ(toolCalls(sandbox_, "nmcli")[0], "-t -f RUNNING general");
}

TEST_F(NmcliTest, SaysSoWhenNetworkManagerIsNotRunning) {
  writeToolBehaviour(sandbox_, "nmcli", dict({{"notRunning", true}}));
  LaunchResult r = run("nmcli", {"-t", "-f", "RUNNING", "general"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.output, "not running\n");
  std::string before = sandbox_.read(kNmcliTable);
  for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
           {"general"},
           {"-t", "-f", "UUID,DEVICE,NAME,ACTIVE", "connection", "show"},
           {"connection", "modify", "5f1c-0001", "ipv4.method", "manual", "ipv4.addresses",
            "192.168.7.20/24"},
           {"connection", "up", "5f1c-0001"}}) {
    r = run("nmcli", args);
    EXPECT_EQ(r.status, 8) << ::testing::PrintToString(args);
    EXPECT_EQ(r.error, "Error: NetworkManager is not running.\n");
    EXPECT_EQ(r.output, "");
  }
  EXPECT_EQ(sandbox_.read(kNmcliTable), before);
}

TEST_F(NodeToolsTest, NetworkctlTakesReloadAndReconfigure) {
  EXPECT_EQ(run("networkctl", {"reload"}).status, 0);
  EXPECT_EQ(run("networkctl", {"reconfigure", "eth0"}).status, 0);
  EXPECT_EQ(run("networkctl", {"--no-pager", "reconfigure", "eth0", "eth1"}).status, 0);
  EXPECT_EQ(run("networkctl", {"reconfigure"}).status, 1);
  EXPECT_EQ(run("networkctl", {"reload", "eth0"}).status, 1);
  EXPECT_EQ(run("networkctl", {"up", "eth0"}).status, 1);
  EXPECT_EQ(run("networkctl", {"--bogus", "reload"}).status, 1);
  EXPECT_THAT(toolCalls(sandbox_, "networkctl"),
              ElementsAre("reload", "reconfigure eth0", "--no-pager reconfigure eth0 eth1",
                          "reconfigure", "reload eth0", "up eth0", "--bogus reload"));
  writeToolBehaviour(sandbox_, "networkctl", dict({{"exitStatus", 1}, {"error", "no\n"}}));
  LaunchResult r = run("networkctl", {"reload"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.error, "no\n");
}

}  // namespace
}  // namespace velm::test
