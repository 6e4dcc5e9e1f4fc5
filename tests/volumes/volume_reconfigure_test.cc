// expandVolume, changeVolumeSettings, changeStripeGroupSettings and renameVolume on a controller's
// real files, with the drupdatefs stand-in as the update tool.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <filesystem>

#include "config/config_parser.h"
#include "config/config_test_util.h"
#include "controller_helpers.h"
#include "platform/files.h"
#include "volumes/long_tasks.h"

namespace velm {
namespace {

constexpr std::string_view kConfig = "/Library/Filesystems/Velm/config/";
constexpr std::string_view kData = "/Library/Filesystems/Velm/data/";

class VolumeReconfigureTest : public test::ControllerTest {
 protected:
  void SetUp() override {
    ControllerTest::SetUp();
    test::installSimTools(sandbox_);
    sandbox_.write(config("Projects.cfg"), test::kRealisticConfig);
    sandbox_.write(config("Projects-auxdata.plist"),
                   "<plist version=\"1.0\"><dict><key>Note</key><string>first</string></dict>"
                   "</plist>\n");
    sandbox_.write(std::string(kData) + "Projects/log/.keep", "");
    tool({{"stepSeconds", 0.0}});
  }
  void TearDown() override {
    // No update outlives its test.
    if (std::optional<PropertyList> task = plugin_.getLongTask("Projects")) {
      pid_t pid = static_cast<pid_t>(task->get("pid")->int64Value().value_or(0));
      if (pid > 0 && waitForAsyncTask(pid) == 0) {
        ::kill(pid, SIGKILL);
        while (waitForAsyncTask(pid) == 0) ::usleep(1000);
      }
      plugin_.noteLongTask(nullptr, "Projects");
    }
    ControllerTest::TearDown();
  }

  static std::string config(std::string_view file) {
    return std::string(kConfig) + std::string(file);
  }
  // The stand-in's behaviour file.
  void tool(std::vector<std::pair<std::string, PropertyList>> keys) {
    PropertyList b = PropertyList::dict();
    for (auto& [k, v] : keys) b.set(k, v);
    sandbox_.write("/sim/tools/drupdatefs.plist", writeXmlPlist(b));
  }
  std::string toolCalls() { return sandbox_.read("/sim/tools/drupdatefs.calls"); }
  // A parse of the volume's file as it stands.
  PropertyList onDisk(const std::string& volume = "Projects") {
    SANConfigParser parser(volume);
    EXPECT_TRUE(parser.parse()) << volume;
    return parser.dictionary();
  }
  // The text the writer makes of a volume.
  static std::string writerForm(const PropertyList& volume) {
    return SANConfigParser::parserWithDict(volume)->configFileRepresentation().value_or("(none)");
  }
  static PropertyList group(const PropertyList& volume, std::string_view name) {
    for (const PropertyList& g : *volume.get("StripeGroups")->asArray())
      if (*g.getString("StripeGroup") == name) return g;
    return PropertyList();
  }
  static long long status(const PropertyList& r) {
    const PropertyList* s = r.get("status");
    return s ? s->int64Value().value_or(-99) : -99;
  }
  static PropertyList one(PropertyList element) { return PlistArray{std::move(element)}; }
  static PropertyList named(std::string name,
                            std::vector<std::pair<std::string, PropertyList>> keys = {}) {
    PropertyList v = PropertyList::dict();
    v.set("Name", std::move(name));
    for (auto& [k, value] : keys) v.set(k, value);
    return v;
  }
  PropertyList expand(PropertyList volume, bool update) {
    return run("expandVolume", {{"volume", std::move(volume)}, {"update", PropertyList(update)}});
  }
  // The tool's first status; until then a task reads as done.
  bool waitForStatusFile() {
    for (int i = 0; i < 500; ++i) {
      if (sandbox_.exists("/var/run/drupdatefs_status_Projects.plist")) return true;
      ::usleep(10000);
    }
    return false;
  }
  // readProgress until the task is off the record; the last answer.
  PropertyList waitUntilDone() {
    waitForStatusFile();
    PropertyList last;
    for (int i = 0; i < 500; ++i) {
      last = run("readProgress", {{"volumeName", PropertyList("Projects")}});
      if (!plugin_.getLongTask("Projects")) break;
      ::usleep(20000);
    }
    return last;
  }
};

TEST_F(VolumeReconfigureTest, ExpandWithOnlyTheNameRewritesInOurFormAndUpdatesToTheEnd) {
  PropertyList r = expand(named("Projects"), true);
  ASSERT_EQ(status(r), 0) << describe(r);
  // The file is now what the writer makes of it, the comments gone; the copy is the old text.
  std::string written = sandbox_.read(config("Projects.cfg"));
  EXPECT_NE(written, test::kRealisticConfig);
  EXPECT_EQ(written.find("# quotas on"), std::string::npos);
  EXPECT_EQ(sandbox_.read(config("Projects.cfg-old")), test::kRealisticConfig);
  EXPECT_EQ(*r.get("volume"), onDisk());
  // The aux file is not this command's: no copy of it.
  EXPECT_FALSE(sandbox_.exists(config("Projects-auxdata.plist-old")));
  std::optional<PropertyList> task = plugin_.getLongTask("Projects");
  ASSERT_TRUE(task);
  EXPECT_EQ(*task->getString("currentTask"), "Expanding volume");
  EXPECT_EQ(*task->getString("processName"), "drupdatefs");

  PropertyList done = waitUntilDone();
  ASSERT_TRUE(done.get("percentComplete")) << describe(done);
  EXPECT_EQ(toolCalls(), "-c " + sandbox_.path(config("Projects.cfg-old")) + " -S -F Projects\n");
  EXPECT_EQ(done.get("percentComplete")->doubleValue(), 100.0) << describe(done);
  EXPECT_FALSE(done.get("errorCode")) << describe(done);
  EXPECT_EQ(*done.getString("currentTask"), "Expanding volume");
  // The tool saw the rewrite and nothing more.
  std::string record = sandbox_.read(std::string(kData) + "Projects/updates.log");
  EXPECT_NE(record.find("update (active):\n"), std::string::npos) << record;
  EXPECT_NE(record.find("# quotas on"), std::string::npos) << record;
  EXPECT_EQ(
      run("readProgress", {{"volumeName", PropertyList("Projects")}}).getString("ProgressDone") ? 1
                                                                                                : 0,
      1);
}

TEST_F(VolumeReconfigureTest, ExpandAddsNodesToAnExistingGroupAndNewGroupsAfterAllOthers) {
  PropertyList current = onDisk();
  PropertyList disk = current.get("Disks")->asArray()->back();
  PlistArray disks;
  for (const char* name : {"Data4", "Fresh1"}) {
    disk.set("Disk", name);
    disk.set("_id_", std::string("Disk_") + name);
    disks.push_back(disk);
  }
  // An existing group gets its Nodes and nothing else of what the request says of it.
  PropertyList existing = PropertyList::dict();
  existing.set("StripeGroup", "DataFiles");
  existing.set("Exclusive", true);
  existing.set("Nodes", PlistArray{test::makeNode("Data4", 2)});
  PropertyList fresh = group(current, "Archive");
  fresh.set("StripeGroup", "Fresh");
  fresh.set("_id_", "StripeGroup_Fresh");
  fresh.set("Nodes", PlistArray{test::makeNode("Fresh1", 0)});
  PropertyList r = expand(
      named("Projects", {{"Disks", disks}, {"StripeGroups", PlistArray{fresh, existing}}}), false);
  ASSERT_EQ(status(r), 0) << describe(r);

  PropertyList after = onDisk();
  const PlistArray& groups = *after.get("StripeGroups")->asArray();
  ASSERT_EQ(groups.size(), 4u);
  EXPECT_EQ(*groups.back().getString("StripeGroup"), "Fresh");
  PropertyList data = group(after, "DataFiles");
  const PlistArray& nodes = *data.get("Nodes")->asArray();
  ASSERT_EQ(nodes.size(), 3u);
  EXPECT_EQ(*nodes.back().getString("NodeDiskDevice"), "Data4");
  EXPECT_FALSE(data.get("Exclusive")->boolValue());
  EXPECT_EQ(after.get("Disks")->size(), 6u);
  // Without update: no tool, no task.
  EXPECT_FALSE(sandbox_.exists("/sim/tools/drupdatefs.calls"));
  EXPECT_FALSE(plugin_.getLongTask("Projects"));
}

TEST_F(VolumeReconfigureTest, ARewriteThatDoesNotReadBackPutsTheOldFileBack) {
  PropertyList before = onDisk();
  // A group without disks is written, but its file no longer parses.
  PropertyList empty = group(before, "Archive");
  empty.set("StripeGroup", "Empty");
  empty.set("Nodes", PropertyList::array());
  PropertyList r = expand(named("Projects", {{"StripeGroups", PlistArray{empty}}}), true);
  EXPECT_EQ(status(r), 100004);
  EXPECT_FALSE(r.get("volume"));
  EXPECT_TRUE(
      log_.contains("ERROR: expandVolume: unable to re-parse config for volume 'Projects'"));
  // Written back from the old parser's memory: the same volume, in the writer's form.
  EXPECT_EQ(sandbox_.read(config("Projects.cfg")), writerForm(before));
  EXPECT_EQ(sandbox_.read(config("Projects.cfg-old")), test::kRealisticConfig);
  EXPECT_FALSE(sandbox_.exists("/sim/tools/drupdatefs.calls"));
}

TEST_F(VolumeReconfigureTest, UnknownAndUnparsableVolumes) {
  EXPECT_EQ(status(expand(named("Nowhere"), true)), 100056);
  EXPECT_TRUE(log_.contains("ERROR: expandVolume: volume 'Nowhere' does not exist"));
  sandbox_.write(config("Broken.cfg"), "[StripeGroup x]\n");
  EXPECT_EQ(status(expand(named("Broken"), true)), 100004);
  EXPECT_TRUE(log_.contains("ERROR: expandVolume: unable to parse config for volume 'Broken'"));
  EXPECT_EQ(sandbox_.read(config("Broken.cfg")), "[StripeGroup x]\n");
  EXPECT_EQ(status(expand(PropertyList::dict(), false)), 100056);
  EXPECT_FALSE(sandbox_.exists("/sim/tools/drupdatefs.calls"));
}

TEST_F(VolumeReconfigureTest, ChangeVolumeSettingsTakesOnlyItsKeys) {
  PropertyList aux = PropertyList::dict();
  aux.set("Note", "second");
  PropertyList r = run("changeVolumeSettings",
                       {{"volumes", one(named("Projects", {{"BufferCacheSize", 64LL << 20},
                                                           {"InodeStripeWidth", 4096},
                                                           {"FsBlockSize", 8192},
                                                           {"AuxData", aux}}))}});
  ASSERT_EQ(status(r), 0) << describe(r);
  ASSERT_EQ(r.get("volumes")->size(), 1u);
  const PropertyList& globals = *r.get("volumes")->asArray()->front().get("Globals");
  EXPECT_EQ(globals.get("BufferCacheSize")->int64Value(), 64LL << 20);
  // Taken, then lost at the write: the answer is the re-read file.
  EXPECT_FALSE(globals.get("InodeStripeWidth"));
  // Not one of the changeable keys.
  EXPECT_EQ(globals.get("FsBlockSize")->int64Value(), 4096);
  EXPECT_EQ(*onDisk().get("AuxData")->getString("Note"), "second");
  EXPECT_NE(sandbox_.read(config("Projects-auxdata.plist-old")).find("first"), std::string::npos);
  EXPECT_FALSE(plugin_.getLongTask("Projects"));

  PropertyList empty = run("changeVolumeSettings", {{"volumes", PropertyList::array()}});
  EXPECT_EQ(status(empty), 0);
  EXPECT_EQ(empty.get("volumes")->size(), 0u);
}

TEST_F(VolumeReconfigureTest, AFailoverOrderRewritesThisMachinesLineAndTellsVelmd) {
  test::SimProcess velmd;
  ASSERT_TRUE(velmd.start("velm-simd", {"--root", sandbox_.root()}, "listening on"))
      << velmd.stderrText();
  std::string notice = "/var/run/velm/notify/com.orvane.velm.sanConfigChanged";
  sandbox_.write(config("fsmlist"), "ProjectsOld . 0\nProjects . 0\nOther . 1\n");
  auto change = [&](std::vector<std::string> order) {
    PlistArray list;
    for (const std::string& a : order) list.push_back(PropertyList(a));
    return run("changeVolumeSettings",
               {{"volumes", one(named("Projects", {{"FailoverPriority", list}}))}});
  };
  // This machine is second now: its line moves to the end with the new index.
  ASSERT_EQ(status(change({test::kControllerB, test::kControllerA})), 0);
  EXPECT_EQ(sandbox_.read(config("fsmlist")), "ProjectsOld . 0\nOther . 1\nProjects . 1\n");
  EXPECT_TRUE(sandbox_.exists(notice));
  ::unlink(sandbox_.path(notice).c_str());
  // Left out: the line goes and none comes back.
  ASSERT_EQ(status(change({test::kControllerB})), 0);
  EXPECT_EQ(sandbox_.read(config("fsmlist")), "ProjectsOld . 0\nOther . 1\n");
  EXPECT_TRUE(sandbox_.exists(notice));
}

TEST_F(VolumeReconfigureTest, AJournalGroupKeepsExclusiveAndTheUpdateStillRuns) {
  auto setting = [](const char* name, bool exclusive) {
    PropertyList g = PropertyList::dict();
    g.set("StripeGroup", name);
    g.set("Exclusive", exclusive);
    g.set("Status", false);  // not this command's to change
    return g;
  };
  PropertyList r =
      run("changeStripeGroupSettings",
          {{"volumes",
            one(named("Projects", {{"StripeGroups", PlistArray{setting("MetadataAndJournal", false),
                                                               setting("DataFiles", true),
                                                               setting("Missing", true)}}}))},
           {"update", PropertyList(true)}});
  ASSERT_EQ(status(r), 0) << describe(r);
  PropertyList after = onDisk();
  EXPECT_TRUE(group(after, "MetadataAndJournal").get("Exclusive")->boolValue());
  EXPECT_TRUE(group(after, "DataFiles").get("Exclusive")->boolValue());
  EXPECT_TRUE(group(after, "DataFiles").get("Status")->boolValue());
  EXPECT_EQ(*plugin_.getLongTask("Projects")->getString("currentTask"), "Updating volume");
  EXPECT_FALSE(waitUntilDone().get("errorCode"));
}

TEST_F(VolumeReconfigureTest, AFailedUpdatePutsTheOldConfigurationBack) {
  tool({{"stepSeconds", 0.0}, {"failAtStage", 3}, {"failStatus", 5}});
  PropertyList r = run("changeVolumeSettings",
                       {{"volumes", one(named("Projects", {{"BufferCacheSize", 1LL << 30}}))},
                        {"update", PropertyList(true)}});
  ASSERT_EQ(status(r), 0) << describe(r);
  PropertyList done = waitUntilDone();
  EXPECT_EQ(done.get("errorCode")->int64Value(), 5) << describe(done);
  EXPECT_EQ(done.get("percentComplete")->doubleValue(), 100.0);
  EXPECT_EQ(sandbox_.read(config("Projects.cfg")), test::kRealisticConfig);
  EXPECT_TRUE(log_.contains("ERROR: drupdatefs for volume 'Projects' failed with exit status 5"));
  // The tool's complaint is in the error file the message names.
  EXPECT_NE(sandbox_.read("/var/run/velm_drupdatefs_Projects.error").find("failing as told"),
            std::string::npos);
}

TEST_F(VolumeReconfigureTest, NothingRunsBesideARunningUpdate) {
  // Slow enough to be asked while it runs.
  tool({{"stepSeconds", 2.0}});
  ASSERT_EQ(status(expand(named("Projects"), true)), 0);
  ASSERT_TRUE(waitForStatusFile());
  std::vector<std::string> before = sandbox_.listing();

  EXPECT_EQ(status(expand(named("Projects"), true)), 100058);
  EXPECT_TRUE(log_.contains(
      "ERROR: expandVolume: long-running operation already in progress for volume 'Projects'"));
  PropertyList settings =
      run("changeVolumeSettings", {{"volumes", one(named("Projects", {{"Debug", 1}}))}});
  EXPECT_EQ(status(settings), 100058);
  EXPECT_FALSE(settings.get("volumes"));
  EXPECT_EQ(status(run("changeStripeGroupSettings", {{"volumes", one(named("Projects"))}})),
            100058);
  PropertyList rename = run(
      "renameVolume", {{"oldName", PropertyList("Other")}, {"newName", PropertyList("Projects")}});
  EXPECT_EQ(status(rename), 100058);
  EXPECT_TRUE(rename.get("volumes"));
  // One tool, and nothing else touched.
  std::string calls = toolCalls();
  EXPECT_EQ(std::count(calls.begin(), calls.end(), '\n'), 1);
  EXPECT_EQ(sandbox_.listing(), before);

  // The tool dies before it is done: the change is undone.
  pid_t pid =
      static_cast<pid_t>(plugin_.getLongTask("Projects")->get("pid")->int64Value().value_or(0));
  ASSERT_GT(pid, 0);
  ::kill(pid, SIGKILL);
  PropertyList crashed = waitUntilDone();
  EXPECT_EQ(*crashed.getString("errorMessage"), "Program Crashed") << describe(crashed);
  EXPECT_EQ(crashed.get("errorCode")->int64Value(), -1);
  EXPECT_EQ(sandbox_.read(config("Projects.cfg")), test::kRealisticConfig);
}

TEST_F(VolumeReconfigureTest, ALaterFailureKeepsTheEarlierVolumesChangeAndTask) {
  PropertyList r =
      run("changeVolumeSettings",
          {{"volumes", PlistArray{named("Projects", {{"MaxMBPerClientReserve", 1}}), named("Gone"),
                                  named("Projects", {{"MaxMBPerClientReserve", 2}})}},
           {"update", PropertyList(true)}});
  EXPECT_EQ(status(r), 100056);
  ASSERT_EQ(r.get("volumes")->size(), 1u);
  EXPECT_TRUE(plugin_.getLongTask("Projects"));
  EXPECT_EQ(onDisk().get("Globals")->get("MaxMBPerClientReserve")->int64Value(), 1);
  EXPECT_TRUE(log_.contains("ERROR: changeVolumeSettings: volume 'Gone' does not exist"));
}

TEST_F(VolumeReconfigureTest, AnUpdateThatCannotStartPutsTheOldFileBack) {
  ::unlink(sandbox_.path("/Library/Filesystems/Velm/bin/drupdatefs").c_str());
  PropertyList r = run("changeStripeGroupSettings",
                       {{"volumes", one(named("Projects"))}, {"update", PropertyList(true)}});
  EXPECT_EQ(status(r), 22);
  EXPECT_EQ(r.get("volumes")->size(), 0u);
  EXPECT_FALSE(plugin_.getLongTask("Projects"));
  // From the old parser's memory: its form, the same volume.
  EXPECT_EQ(sandbox_.read(config("Projects.cfg-old")), test::kRealisticConfig);
  SANConfigParser original("Projects");
  original.parseText(test::kRealisticConfig);
  EXPECT_EQ(sandbox_.read(config("Projects.cfg")), writerForm(original.dictionary()));
}

TEST_F(VolumeReconfigureTest, NamesThatLeaveTheConfigDirectoryChangeNothing) {
  std::vector<std::string> before = sandbox_.listing();
  for (const char* bad : {"../Projects", "a/b", "..", ""}) {
    SCOPED_TRACE(bad);
    EXPECT_EQ(status(expand(named(bad), true)), 22);
    EXPECT_EQ(status(run("changeVolumeSettings", {{"volumes", one(named(bad, {{"Debug", 1}}))},
                                                  {"update", PropertyList(true)}})),
              22);
    EXPECT_EQ(status(run("changeStripeGroupSettings", {{"volumes", one(named(bad))}})), 22);
    EXPECT_EQ(status(run("renameVolume",
                         {{"oldName", PropertyList("Projects")}, {"newName", PropertyList(bad)}})),
              22);
    EXPECT_EQ(status(run("renameVolume",
                         {{"oldName", PropertyList(bad)}, {"newName", PropertyList("Fresh")}})),
              22);
  }
  EXPECT_EQ(sandbox_.listing(), before);
}

class VolumeRenameTest : public VolumeReconfigureTest {
 protected:
  PropertyList rename(const char* from, const char* to, bool update) {
    return run("renameVolume", {{"oldName", PropertyList(from)},
                                {"newName", PropertyList(to)},
                                {"update", PropertyList(update)}});
  }
  static std::vector<std::string> names(const PropertyList& r) {
    std::vector<std::string> out;
    for (const PropertyList& v : *r.get("volumes")->asArray()) out.push_back(*v.getString("Name"));
    return out;
  }
};

TEST_F(VolumeRenameTest, MovesTheFourNamesAndKeepsTheFailoverIndex) {
  sandbox_.write(config("fsmlist"), "ProjectsOld . 0\nProjects . 2\nOther Projects . 1\n");
  PropertyList r = rename("Projects", "Media", false);
  ASSERT_EQ(status(r), 0) << describe(r);
  EXPECT_EQ(names(r), std::vector<std::string>{"Media"});
  EXPECT_TRUE(sandbox_.exists(config("Media.cfg")));
  EXPECT_FALSE(sandbox_.exists(config("Projects.cfg")));
  EXPECT_TRUE(sandbox_.exists(std::string(kData) + "Media/log"));
  EXPECT_NE(sandbox_.read(config("Media-auxdata.plist")).find("first"), std::string::npos);
  EXPECT_EQ(sandbox_.read(config("fsmlist")), "ProjectsOld . 0\nMedia . 2\nOther Projects . 1\n");
}

TEST_F(VolumeRenameTest, AMissingDataDirectoryMovesTheConfigBack) {
  std::filesystem::remove_all(sandbox_.path(std::string(kData) + "Projects"));
  sandbox_.write(config("fsmlist"), "Projects . 0\n");
  PropertyList r = rename("Projects", "Media", false);
  EXPECT_EQ(status(r), ENOENT);
  EXPECT_EQ(names(r), std::vector<std::string>{"Projects"});
  EXPECT_TRUE(sandbox_.exists(config("Projects.cfg")));
  EXPECT_FALSE(sandbox_.exists(config("Media.cfg")));
  EXPECT_EQ(sandbox_.read(config("fsmlist")), "Projects . 0\n");
  EXPECT_TRUE(log_.contains("ERROR: renameVolume: could not move data file directory"));
}

TEST_F(VolumeRenameTest, TakenAndUnknownNames) {
  sandbox_.write(config("Media.cfg"), test::kRealisticConfig);
  EXPECT_EQ(status(rename("Projects", "Media", false)), 17);
  EXPECT_TRUE(log_.contains("ERROR: renameVolume: Volume 'Media' already exists"));
  EXPECT_EQ(status(rename("Projects", "Projects", true)), 17);
  EXPECT_EQ(status(rename("Nowhere", "Fresh", false)), 100056);
  EXPECT_TRUE(log_.contains("ERROR: renameVolume: Volume 'Nowhere' does not exist"));
  EXPECT_TRUE(sandbox_.exists(config("Projects.cfg")));
  EXPECT_FALSE(sandbox_.exists("/sim/tools/drupdatefs.calls"));
}

TEST_F(VolumeRenameTest, TheToolRenamesAndThePluginMovesTheRest) {
  sandbox_.write(config("fsmlist"), "Projects . 0\n");
  PropertyList r = rename("Projects", "Media", true);
  ASSERT_EQ(status(r), 0) << describe(r);
  EXPECT_EQ(toolCalls(), "-R Media Projects\n");
  EXPECT_EQ(names(r), std::vector<std::string>{"Media"});
  EXPECT_EQ(sandbox_.read(std::string(kData) + "Media/updates.log"), "renamed from Projects\n");
  EXPECT_TRUE(sandbox_.exists(config("Media-auxdata.plist")));
  EXPECT_EQ(sandbox_.read(config("fsmlist")), "Media . 0\n");

  // Status 1 is success too; anything else is the answer, and the plugin moves nothing.
  tool({{"exitStatus", 1}});
  EXPECT_EQ(status(rename("Media", "Films", true)), 0);
  tool({{"exitStatus", 5}, {"error", "no room"}});
  EXPECT_EQ(status(rename("Media", "Clips", true)), 5);
  EXPECT_TRUE(
      log_.contains("ERROR: renameVolume: Could not launch "
                    "/Library/Filesystems/Velm/bin/drupdatefs, status 5 (output '', "
                    "error 'no room')"));
  EXPECT_EQ(sandbox_.read(config("fsmlist")), "Films . 0\n");
}

}  // namespace
}  // namespace velm
