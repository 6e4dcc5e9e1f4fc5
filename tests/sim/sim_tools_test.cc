// The file-system tool stand-ins run from a sandbox's bin directory: their normal output, the
// behaviour file that scripts a run, and the log of their calls.
#include <gtest/gtest.h>
#include <sys/utsname.h>

#include <string>

#include "adminhost/host_common.h"
#include "plist/plist.h"
#include "support/run_program.h"
#include "support/sim_process.h"

namespace velm::test {
namespace {

class SimToolsTest : public SandboxTest {
 protected:
  void SetUp() override { installSimTools(sandbox_); }
  // Runs the installed link with VELM_ROOT empty, so the tool finds the root from its own path.
  LaunchResult run(const std::string& tool, const std::vector<std::string>& args) {
    return launch_task(sandbox_.path("/Library/Filesystems/Velm/bin/" + tool), args,
                       {{"VELM_ROOT", ""}});
  }
  void writePlist(const std::string& path, const PropertyList& value) {
    sandbox_.write(path, writeXmlPlist(value));
  }
};

TEST_F(SimToolsTest, DrlabelPrintsTheLunTable) {
  LaunchResult r = run("drlabel", {"-x"});
  EXPECT_EQ(r.status, 0) << r.error;
  EXPECT_EQ(r.output, writeXmlPlist(PropertyList::dict()));

  PropertyList lun = PropertyList::dict();
  lun.set("label", "vol1");
  lun.set("sectors", 1953525168ull);
  lun.set("inquiry", PlistData{0x00, 0x7f, 0x0a});
  lun.set("paths", PlistArray{"sdb", "sdc"});
  PropertyList table = PropertyList::dict();
  table.set("/dev/sdb", lun);
  table.set("/dev/sdd", PropertyList::dict());
  writePlist("/sim/luns.plist", table);
  r = run("drlabel", {"-x"});
  EXPECT_EQ(r.status, 0) << r.error;
  EXPECT_EQ(r.output, writeXmlPlist(table));
  EXPECT_EQ(*readXmlPlist(r.output).value, table);
  // VELM_ROOT, when set, wins over the program's path.
  ProgramResult direct = runProgram("drlabel", {"-x"}, {}, {{"VELM_ROOT", sandbox_.root()}});
  EXPECT_EQ(direct.out, r.output);

  sandbox_.write("/sim/luns.plist", "<plist><dict>");
  r = run("drlabel", {"-x"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.error.find("luns.plist"), std::string::npos) << r.error;

  r = run("drlabel", {"-q"});
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.error.find("usage"), std::string::npos) << r.error;
  EXPECT_EQ(sandbox_.read("/sim/tools/drlabel.calls"), "-x\n-x\n-x\n-x\n-q\n");
}

TEST_F(SimToolsTest, BehaviourFileScriptsTheRun) {
  PropertyList behaviour = PropertyList::dict();
  behaviour.set("output", "scripted out");
  behaviour.set("error", "scripted err\n");
  behaviour.set("exitStatus", 3);
  writePlist("/sim/tools/drversions.plist", behaviour);
  LaunchResult r = run("drversions", {});
  EXPECT_EQ(r.status, 3);
  EXPECT_EQ(r.output, "scripted out");
  EXPECT_EQ(r.error, "scripted err\n");

  // Any one of the keys replaces the tool's work; the others take their defaults.
  behaviour = PropertyList::dict();
  behaviour.set("error", "only this");
  writePlist("/sim/tools/drlabel.plist", behaviour);
  r = run("drlabel", {"-x", "extra"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.output, "");
  EXPECT_EQ(r.error, "only this");
  EXPECT_EQ(sandbox_.read("/sim/tools/drlabel.calls"), "-x extra\n");

  // A broken behaviour file is reported and the tool works as usual.
  sandbox_.write("/sim/tools/drlabel.plist", "nonsense");
  r = run("drlabel", {"-x"});
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.error.find("drlabel.plist"), std::string::npos) << r.error;
}

TEST_F(SimToolsTest, DrversionsPrintsTheInstalledVersion) {
  struct utsname u {};
  ASSERT_EQ(::uname(&u), 0);
  auto expected = [&](const std::string& revision) {
    std::string built = std::string("Built for Linux ") + u.machine + "\n";
    return "Velm File System\nServer Revision " + revision + "\n" + built + "Client Revision " +
           revision + "\n" + built;
  };
  EXPECT_EQ(run("drversions", {}).output, expected("2.2.0 Build 1 Branch main"));

  PropertyList version = PropertyList::dict();
  version.set("ProductVersion", "3.1.4");
  version.set("ProductBuildVersion", "77");
  writePlist("/Library/Filesystems/Velm/version.plist", version);
  LaunchResult r = run("drversions", {});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.output, expected("3.1.4 Build 77 Branch main"));
  EXPECT_EQ(run("drversions", {"-v"}).status, 2);
}

TEST_F(SimToolsTest, DrmkfsMakesTheDataDirectory) {
  const std::string data = "/Library/Filesystems/Velm/data/vol1";
  LaunchResult r = run("drmkfs", {"-F", "vol1"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.output.find("error"), std::string::npos) << r.output;
  EXPECT_FALSE(sandbox_.exists(data));

  sandbox_.write("/Library/Filesystems/Velm/config/vol1.cfg", "[Global]\n");
  r = run("drmkfs", {"-a", "fast", "-F", "vol1"});
  EXPECT_EQ(r.status, 0) << r.output << r.error;
  EXPECT_EQ(r.output, "Created file system vol1.\n");
  EXPECT_TRUE(sandbox_.exists(data + "/log"));
  PlistReadResult record = readXmlPlist(sandbox_.read(data + "/format.plist"));
  ASSERT_TRUE(record) << record.error;
  EXPECT_EQ(*record.value->getString("volume"), "vol1");
  EXPECT_EQ(*record.value->getString("affinity"), "fast");
  EXPECT_TRUE(record.value->get("time") && record.value->get("time")->asDate());

  for (const char* bad : {"", ".", "..", "a/b"}) {
    r = run("drmkfs", {"-F", bad});
    EXPECT_EQ(r.status, 1) << bad;
    EXPECT_NE(r.output.find("error"), std::string::npos) << r.output;
  }
  EXPECT_EQ(run("drmkfs", {"vol1"}).status, 2);
  EXPECT_EQ(run("drmkfs", {"-F", "vol1", "-x"}).status, 2);

  PropertyList behaviour = PropertyList::dict();
  behaviour.set("output", "Fatal: no errors found\n");
  behaviour.set("exitStatus", 1);
  writePlist("/sim/tools/drmkfs.plist", behaviour);
  r = run("drmkfs", {"-F", "vol2"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.output, "Fatal: no errors found\n");
  EXPECT_FALSE(sandbox_.exists("/Library/Filesystems/Velm/data/vol2"));
}

TEST_F(SimToolsTest, DrfsckReportsAndRepairs) {
  LaunchResult r = run("drfsck", {"-w", "vol1"});
  EXPECT_EQ(r.status, 8);
  EXPECT_NE(r.output.find("error"), std::string::npos) << r.output;

  sandbox_.write("/Library/Filesystems/Velm/config/vol1.cfg", "[Global]\n");
  r = run("drfsck", {"-w", "vol1"});
  EXPECT_EQ(r.status, 1) << r.output;
  EXPECT_NE(r.output.find("modified"), std::string::npos) << r.output;
  EXPECT_TRUE(sandbox_.exists("/Library/Filesystems/Velm/data/vol1"));
  r = run("drfsck", {"-w", "vol1"});
  EXPECT_EQ(r.status, 0) << r.output;
  EXPECT_NE(r.output.find("clean"), std::string::npos) << r.output;
  EXPECT_EQ(run("drfsck", {"vol1"}).status, 2);
  EXPECT_EQ(sandbox_.read("/sim/tools/drfsck.calls"), "-w vol1\n-w vol1\n-w vol1\nvol1\n");
}

}  // namespace
}  // namespace velm::test
