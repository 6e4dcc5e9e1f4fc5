#include "volumes/volume_state.h"

#include <gtest/gtest.h>

#include "controller_helpers.h"
#include "core/velm_plugin.h"
#include "volumes/long_tasks.h"
#include "volumes/volume_inspection.h"

namespace velm {
namespace {

using test::fsmEntry;
using test::kControllerA;
using test::kControllerB;

class VolumeStateTest : public test::ControllerTest {
 protected:
  PropertyList setState(const std::string& name, const char* state) {
    return run("setVolumeState", {{"name", PropertyList(name)}, {"state", PropertyList(state)}});
  }
  int stateOn(const std::string& name, const char* address) {
    int h = open_fs_connection();
    int s = state_of_volume_on_ip(h, &name, address);
    close_fs_connection(h);
    return s;
  }
  long long status(const PropertyList& response) {
    return response.get("status")->int64Value().value_or(-99);
  }

  std::string projects_ = "Projects";
};

TEST_F(VolumeStateTest, StatesAcrossTheSanAndTheAlternateHostRule) {
  ASSERT_TRUE(startSan(fsmEntry("Projects", true) + fsmEntry("Idle", false, false),
                       fsmEntry("Projects", false) + fsmEntry("Archive", false)));
  int h = open_fs_connection();
  ASSERT_GE(h, 0);
  std::string archive = "Archive", idle = "Idle", none = "None";
  EXPECT_EQ(state_of_volume(h, &projects_), STATE_ACTIVE);
  EXPECT_EQ(state_of_volume(h, &archive), STATE_INACTIVE);
  EXPECT_EQ(state_of_volume(h, &idle), STATE_DOWN);
  EXPECT_EQ(state_of_volume(h, &none), STATE_DOWN);
  EXPECT_EQ(state_of_volume(h, nullptr), STATE_DOWN);
  EXPECT_EQ(state_of_volume_on_host(h, &projects_, PropertyList(kControllerB)), STATE_INACTIVE);
  PropertyList both = PropertyList::array();
  both.push("127.0.0.9");
  both.push(kControllerA);
  EXPECT_EQ(state_of_volume_on_host(h, &projects_, both), STATE_ACTIVE);
  EXPECT_EQ(state_of_volume_on_host(h, &projects_, PropertyList(7)), STATE_DOWN);
  // This machine by another of its names: found as the alternate.
  EXPECT_EQ(state_of_volume_on_host(h, &projects_, PropertyList("127.0.0.1")), STATE_ACTIVE);
  EXPECT_TRUE(
      log_.contains("state_of_volume_on_host(Projects): Found volume hosted on 127.0.0.2 "
                    "(alternate), state is 2"));
  EXPECT_EQ(active_or_standby_ips_for_volume(h, &projects_),
            (std::vector<std::string>{kControllerA, kControllerB}));
  // A standby's address counts, whatever the name says.
  EXPECT_EQ(ip_of_active_volume_on_host(h, &archive, PropertyList(kControllerB)),
            std::string(kControllerB));
  EXPECT_EQ(index_of_fsmvol_named(h, &none), kNotFoundIndex);
  EXPECT_NE(index_of_local_fsmvol_named(h, &projects_), kNotFoundIndex);
  EXPECT_EQ(index_of_local_fsmvol_named(h, &archive), kNotFoundIndex);
  close_fs_connection(h);
}

TEST_F(VolumeStateTest, ReachabilityTakesLoopbackOnTrustAndProbesOthers) {
  ASSERT_TRUE(startSan("", ""));
  std::string loop = "127.0.0.1", local = "localhost", b = kControllerB, gone = "127.0.0.9";
  ::setenv("VELM_PROBE_PORT", "1", 1);
  EXPECT_TRUE(is_address_reachable(&loop));
  EXPECT_TRUE(is_address_reachable(&local));
  EXPECT_FALSE(is_address_reachable(&b));
  EXPECT_FALSE(is_address_reachable(nullptr));
  ::setenv("VELM_PROBE_PORT", std::to_string(port_).c_str(), 1);
  EXPECT_TRUE(is_address_reachable(&b));
  EXPECT_FALSE(is_address_reachable(&gone));
  EXPECT_TRUE(log_.contains("is_address_reachable(127.0.0.9): Address is not reachable"));
  // An unreachable controller: a stop fails, a standby is skipped, an activation fails.
  EXPECT_EQ(stop_volume_on_specific_ip(&projects_, gone), 100054);
  EXPECT_EQ(standby_volume_on_specific_ip(&projects_, gone), 0);
  EXPECT_EQ(activate_volume_by_host(&projects_, &gone), 100036);
}

TEST_F(VolumeStateTest, FailMovesTheActiveRoleAndFailsWithoutOne) {
  ASSERT_TRUE(startSan(fsmEntry("Projects", true), fsmEntry("Projects", false)));
  PropertyList r = setState("Projects", "FAIL");
  EXPECT_EQ(status(r), 0);
  EXPECT_EQ(stateOn("Projects", kControllerB), STATE_ACTIVE);
  EXPECT_EQ(stateOn("Projects", kControllerA), STATE_INACTIVE);
  EXPECT_FALSE(log_.contains("Status from start/stop"));

  ASSERT_EQ(status(setState("Projects", "STOP")), 0);
  EXPECT_EQ(status(setState("Projects", "FAIL")), 100039);
}

TEST_F(VolumeStateTest, StopStandbysFirstThenStartEverywhereAndActivateHere) {
  ASSERT_TRUE(startSan(fsmEntry("Projects", true), fsmEntry("Projects", false)));
  writeVolumeConfig("Projects", {kControllerB, kControllerA});
  PropertyList stopped = setState("Projects", "STOP");
  EXPECT_EQ(status(stopped), 0);
  EXPECT_EQ(*stopped.getString("state"), "STOPPED");
  EXPECT_EQ(stateOn("Projects", kControllerA), STATE_DOWN);
  EXPECT_EQ(stateOn("Projects", kControllerB), STATE_DOWN);
  std::string pmB = portMapper('B').stderrText();
  EXPECT_NE(pmB.find("'Projects': stopped"), std::string::npos) << pmB;

  // A stop of a stopped volume has nothing to do.
  EXPECT_EQ(status(setState("Projects", "STOP")), 0);

  // Standby on each controller in failover order, then activation here.
  PropertyList started = setState("Projects", "START");
  EXPECT_EQ(status(started), 0);
  EXPECT_EQ(*started.getString("state"), "RUNNING");
  EXPECT_NE(stateOn("Projects", kControllerB), STATE_DOWN);
  EXPECT_TRUE(log_.contains("activate_volume_by_host(Projects): Finished activation!"));

  PropertyList restarted = setState("Projects", "RESTART");
  EXPECT_EQ(status(restarted), 0);
  EXPECT_EQ(*restarted.getString("state"), "RUNNING");
}

TEST_F(VolumeStateTest, StartWithoutAnAddressOfThisMachineFails) {
  ASSERT_TRUE(startSan(fsmEntry("Projects", false, false), fsmEntry("Projects", false, false)));
  writeVolumeConfig("Projects", {kControllerB});
  PropertyList r = setState("Projects", "START");
  EXPECT_EQ(status(r), 100036);
  // The standby on the other controller was brought up all the same.
  EXPECT_EQ(stateOn("Projects", kControllerB), STATE_ACTIVE);
}

TEST_F(VolumeStateTest, AnEarlierFailureKeepsItsCode) {
  // B's port mapper doesn't know the volume: its standby fails, and the start here still happens.
  ASSERT_TRUE(startSan(fsmEntry("Projects", false, false), ""));
  writeVolumeConfig("Projects", {kControllerB, kControllerA});
  PropertyList r = setState("Projects", "START");
  EXPECT_EQ(status(r), 100036);
  EXPECT_EQ(*r.getString("state"), "RUNNING");
  EXPECT_EQ(stateOn("Projects", kControllerA), STATE_ACTIVE);
}

TEST_F(VolumeStateTest, MalformedAndUnknownRequests) {
  ASSERT_TRUE(startSan(fsmEntry("Projects", true), ""));
  EXPECT_EQ(run("setVolumeState", {{"state", PropertyList("STOP")}}).size(),
            2u);  // timing keys only
  EXPECT_TRUE(log_.contains("ERROR: No name passed into setVolumeState"));
  EXPECT_EQ(run("getVolumeState", {{"name", PropertyList(5)}}).size(), 2u);
  EXPECT_TRUE(log_.contains("ERROR: No name passed into getVolumeState"));
  PropertyList odd = setState("Projects", "SIDEWAYS");
  EXPECT_EQ(status(odd), 0);
  EXPECT_EQ(*odd.getString("state"), "RUNNING");
  EXPECT_EQ(stateOn("Projects", kControllerA), STATE_ACTIVE);
  PropertyList typed =
      run("setVolumeState", {{"name", PropertyList("Projects")}, {"state", PropertyList(3)}});
  EXPECT_EQ(status(typed), 0);
}

TEST_F(VolumeStateTest, RunningLongTaskRefusesStateChanges) {
  ASSERT_TRUE(startSan(fsmEntry("Projects", true), ""));
  std::string script = sandbox_.write("/task.sh", "#!/bin/sh\nexec sleep 30\n", 0755);
  pid_t pid = launchAsyncTask(script, {}, nullptr, nullptr, nullptr);
  ASSERT_GT(pid, 0);
  // The process table is the sandbox's here.
  std::string p = std::to_string(pid);
  sandbox_.write("/proc/" + p + "/cmdline", std::string("sleep\0"
                                                        "30\0",
                                                        9));
  sandbox_.write("/proc/" + p + "/stat", p + " (sleep) S 1 1 1");
  sandbox_.write(
      "/var/run/drupdatefs_status_Projects.plist",
      "<plist version=\"1.0\"><dict><key>updateProgressionMessage</key><string>x</string>"
      "<key>updateProgressionStage</key><integer>0</integer><key>updateProgressionStageCount</key>"
      "<integer>2</integer><key>updateProgressionStatus</key><integer>10</integer>"
      "<key>updateProgressionPID</key><integer>" +
          std::to_string(pid) +
          "</integer><key>updateErrorStatus</key><integer>0</integer></dict></plist>\n");
  PropertyList task = PropertyList::dict();
  task.set("currentTask", "Updating volume");
  task.set("taskType", "drupdatefs");
  task.set("processName", "sleep");
  task.set("pid", static_cast<long long>(pid));
  plugin_.noteLongTask(&task, "Projects");
  PropertyList r = setState("Projects", "STOP");
  EXPECT_EQ(status(r), 100058);
  EXPECT_EQ(r.size(), 3u);  // status and the timing keys
  EXPECT_EQ(stateOn("Projects", kControllerA), STATE_ACTIVE);
  ::kill(pid, SIGKILL);
}

TEST_F(VolumeStateTest, DetailsOfARunningVolumeAndOfAStandby) {
  std::string groups =
      "<key>statistics</key><dict><key>blockSize</key><integer>4096</integer><key>totalBlocks</key>"
      "<integer>1000</integer><key>freeBlocks</key><integer>250</integer></dict>"
      "<key>stripeGroups</key><array><dict><key>name</key><string>Meta</string><key>totalBlocks</"
      "key>"
      "<integer>100</integer><key>multipath</key><integer>3</integer></dict></array>"
      "<key>clients</key><array><dict><key>type</key><integer>3</integer><key>flags</"
      "key><integer>4099</integer>"
      "<key>address</key><string>127.0.0.7</string><key>uptime</key><integer>60</integer></dict>"
      "<dict><key>type</key><integer>3</integer><key>flags</key><integer>3</integer></dict>"
      "<dict><key>type</key><integer>0</integer><key>uptime</key><integer>5</integer></dict></"
      "array>";
  ASSERT_TRUE(startSan(fsmEntry("Projects", true, true, groups), fsmEntry("Archive", false)));
  PropertyList r = run("getVolumeState", {{"name", PropertyList("Projects")},
                                          {"variant", PropertyList("withDetailsPlease")}});
  EXPECT_EQ(*r.getString("state"), "RUNNING");
  EXPECT_EQ(*r.getString("hostIPAddress"), kControllerA);
  EXPECT_EQ(r.get("lumexSearchLevel")->int64Value(), 0);
  const PropertyList* info = r.get("volumeInfo");
  ASSERT_TRUE(info && info->get("VolumeStats"));
  EXPECT_EQ(info->get("VolumeStats")->get("TotalSize")->int64Value(), 4096000);
  EXPECT_EQ(info->get("VolumeStats")->get("RemainingSize")->int64Value(), 1024000);
  ASSERT_EQ(info->get("StripeGroups")->size(), 1u);
  const PropertyList& group = (*info->get("StripeGroups")->asArray())[0];
  EXPECT_EQ(*group.getString("Name"), "Meta");
  EXPECT_EQ(*group.getString("MultiPathMethod"), "");
  const PlistArray& clients = *info->get("Clients")->asArray();
  ASSERT_EQ(clients.size(), 2u);  // the mount without flag 0x1000 is left out
  EXPECT_EQ(*clients[0].getString("Type"), "MOUNT");
  EXPECT_EQ(*clients[0].getString("IPAddress"), "127.0.0.7");
  EXPECT_EQ(clients[1].size(), 1u);  // type 0: only its uptime

  PropertyList mounts = run("getMounts", {{"name", PropertyList("Projects")}});
  EXPECT_EQ(mounts.get("mounts")->size(), 2u);
  EXPECT_EQ(status(mounts), 0);

  // A standby refuses the FSM connection: only its list entry is told.
  PropertyList standby = run("getVolumeState", {{"name", PropertyList("Archive")},
                                                {"variant", PropertyList("withDetails")}});
  EXPECT_EQ(*standby.getString("state"), "RUNNING");
  const PropertyList* stats = standby.get("volumeInfo")->get("VolumeStats");
  ASSERT_TRUE(stats);
  EXPECT_FALSE(stats->get("TotalSize"));
  EXPECT_FALSE(standby.get("volumeInfo")->get("StripeGroups"));
  EXPECT_EQ(*run("getVolumeState", {{"name", PropertyList("Gone")}}).getString("state"), "STOPPED");
  // Without details, a volume with only standbys is stopped.
  EXPECT_EQ(*run("getVolumeState", {{"name", PropertyList("Archive")}}).getString("state"),
            "STOPPED");
}

}  // namespace
}  // namespace velm
