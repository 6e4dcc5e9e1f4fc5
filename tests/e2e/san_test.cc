// Two controllers side by side on loopback (two_controllers.h): a volume is started, failed over,
// stopped and restarted through the daemons, and both sides see the same SAN.
#include "e2e/two_controllers.h"

namespace velm::test {
namespace {

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

TEST_F(TwoControllersOnAnyPortTest, CreateOnBothStartAndDeleteLocallyThenEverywhere) {
  // One command on each controller: each writes its own files and its own fsmlist line.
  PropertyList media = command(a_, "getVolumes").get("volumes")->asArray()->front();
  media.set("Name", "Media");
  media.set("FailoverPriority", PlistArray{PropertyList(kB), PropertyList(kA)});
  for (Controller* c : {&a_, &b_}) {
    installSimTools(c->root);
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

TEST_F(VelmadminOnTwoControllersTest, ExpandARunningVolumeLeaveItsFailoverAndRenameItStopped) {
  installSimTools(a_.root);
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
}  // namespace velm::test
