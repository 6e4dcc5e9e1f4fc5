#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <filesystem>
#include <random>

#include "config/config_parser.h"
#include "config/config_test_util.h"
#include "controller_helpers.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "support/run_program.h"
#include "volumes/volume_state.h"

namespace velm {
namespace {

using test::fsmEntry;
using test::kControllerA;

constexpr std::string_view kConfig = "/Library/Filesystems/Velm/config/";

class VolumeCreateTest : public test::ControllerTest {
 protected:
  void SetUp() override {
    ControllerTest::SetUp();
    // A format tool that records what it was asked, and fails when told to.
    sandbox_.write("/Library/Filesystems/Velm/bin/drmkfs",
                   "#!/bin/sh\necho \"$@\" >> " + sandbox_.path("/drmkfs.calls") + "\n[ -e " +
                       sandbox_.path("/drmkfs.fail") + " ] && { cat " +
                       sandbox_.path("/drmkfs.fail") + "; exit 0; }\necho made\n",
                   0755);
  }
  // A volume dictionary as a client sends it.
  static PropertyList volume(const std::string& name, std::vector<std::string> priority) {
    SANConfigParser parser(name);
    parser.parseText(test::kRealisticConfig);
    PropertyList dict = parser.dictionary();
    dict.set("Name", name);
    PropertyList list = PropertyList::array();
    for (const std::string& a : priority) list.push(a);
    dict.set("FailoverPriority", list);
    return dict;
  }
  PropertyList add(std::vector<PropertyList> volumes, bool initialize = true,
                   bool startLocally = false) {
    PropertyList array = PropertyList::array();
    for (PropertyList& v : volumes) array.push(std::move(v));
    return run("addVolumes", {{"volumes", array},
                              {"initialize", PropertyList(initialize)},
                              {"startLocally", PropertyList(startLocally)}});
  }
  PropertyList remove(std::vector<std::string> names, bool stopLocallyOnly = false) {
    PropertyList array = PropertyList::array();
    for (const std::string& n : names) array.push(n);
    return run("deleteVolumes",
               {{"volumeNames", array}, {"stopLocallyOnly", PropertyList(stopLocallyOnly)}});
  }
  long long statusOf(const PropertyList& r, const std::string& name) {
    const PropertyList* s = r.get("status");
    const PropertyList* v = s ? s->get(name) : nullptr;
    return v ? v->int64Value().value_or(-99) : -99;
  }
  bool has(const std::string& file) { return sandbox_.exists(std::string(kConfig) + file); }
  std::string fsmlist() { return sandbox_.read(std::string(kConfig) + "fsmlist"); }
};

TEST_F(VolumeCreateTest, AddWritesTheFilesTheLineAndStartsHere) {
  ASSERT_TRUE(startSan(fsmEntry("Alpha", false, false), ""));
  sandbox_.write(std::string(kConfig) + "fsmlist", "Other . 0\n");
  PropertyList r = add({volume("Alpha", {"127.0.0.9", kControllerA})}, true, true);
  EXPECT_EQ(statusOf(r, "Alpha"), 0) << describe(r);
  EXPECT_TRUE(has("Alpha.cfg"));
  EXPECT_TRUE(has("Alpha-auxdata.plist"));
  // The index counts every address of the list, not only this machine's.
  EXPECT_EQ(fsmlist(), "Other . 0\nAlpha . 1\n");
  EXPECT_EQ(sandbox_.read("/drmkfs.calls"), "-F Alpha\n");
  ASSERT_EQ(r.get("volumes")->size(), 1u);
  int h = open_fs_connection();
  std::string alpha = "Alpha";
  EXPECT_EQ(state_of_volume(h, &alpha), STATE_ACTIVE);
  close_fs_connection(h);
}

TEST_F(VolumeCreateTest, ExistingNamesRepeatsAndOtherControllersVolumes) {
  sandbox_.write(std::string(kConfig) + "Beta.cfg", "old text");
  PropertyList r = add({volume("Beta", {kControllerA}), volume("Gamma", {"127.0.0.9"}),
                        volume("Gamma", {kControllerA})});
  EXPECT_EQ(statusOf(r, "Beta"), 17);
  EXPECT_EQ(sandbox_.read(std::string(kConfig) + "Beta.cfg"), "old text");
  // The first Gamma is made; the second is the existing one.
  EXPECT_EQ(statusOf(r, "Gamma"), 17);
  EXPECT_TRUE(has("Gamma.cfg"));
  // Gamma's controllers don't include this machine: no line, no start.
  EXPECT_EQ(fsmlist(), "");
  EXPECT_EQ(sandbox_.read("/drmkfs.calls"), "-F Gamma\n");

  PropertyList empty = add({});
  EXPECT_EQ(empty.get("status")->size(), 0u);
}

TEST_F(VolumeCreateTest, AFailedFormatTakesTheNewFilesAway) {
  sandbox_.write(std::string(kConfig) + "fsmlist", "Keep . 0\n");
  sandbox_.write("/drmkfs.fail", "no errors found\n");
  PropertyList r = add({volume("Delta", {kControllerA})});
  EXPECT_EQ(statusOf(r, "Delta"), 100010);
  EXPECT_FALSE(has("Delta.cfg"));
  EXPECT_FALSE(has("Delta-auxdata.plist"));
  EXPECT_EQ(fsmlist(), "Keep . 0\n");
  EXPECT_TRUE(
      log_.contains("ERROR: initialize_volume_named(Delta): drmkfs had an error (status 0).  "
                    "Output: [no errors found"));
}

TEST_F(VolumeCreateTest, NamesThatLeaveTheConfigDirectoryAreRefusedUnwritten) {
  std::vector<std::string> before = sandbox_.listing();
  PropertyList r = add({volume("../evil", {kControllerA}), volume("a/b", {kControllerA}),
                        volume("", {kControllerA})});
  EXPECT_EQ(statusOf(r, "../evil"), 22);
  EXPECT_EQ(statusOf(r, "a/b"), 22);
  EXPECT_EQ(statusOf(r, ""), 22);
  EXPECT_TRUE(log_.contains("ERROR: addVolumes: refusing the volume name '../evil'"));
  PropertyList d = remove({"../config", ".."});
  EXPECT_EQ(d.get("status")->int64Value(), 22);
  PropertyList re =
      run("reinitializeVolumes", {{"volumes", PropertyList(PlistArray{PropertyList("x/../y")})}});
  EXPECT_EQ(re.get("status")->int64Value(), 22);
  std::vector<std::string> after = sandbox_.listing();
  std::erase_if(after, [](const std::string& p) { return p.find("fsmlist") != std::string::npos; });
  EXPECT_EQ(after, before);
}

TEST_F(VolumeCreateTest, DeleteStopsAndRemovesOnlyWhatIsNamed) {
  ASSERT_TRUE(startSan(fsmEntry("alpha", true), ""));
  sandbox_.write(std::string(kConfig) + "fsnameservers", std::string(kControllerA) + "\n\n");
  sandbox_.write(std::string(kConfig) + "fsmlist", "alpha . 0\nalphabet . 0\n# note\n");
  for (const char* f : {"alpha.cfg", "alpha-auxdata.plist", "alpha.cfg-old",
                        "alpha-auxdata.plist-old", "alphabet.cfg"})
    sandbox_.write(std::string(kConfig) + f, "x");
  sandbox_.write("/Library/Filesystems/Velm/data/alpha/log/drlog", "log");
  context_.set("history_alpha", PropertyList(PlistData{1}));
  context_.set("FSMStore_alpha", PropertyList::dict());
  context_.set("history_alphabet", PropertyList(PlistData{1}));
  PropertyList r = remove({"alpha", "ghost"});
  EXPECT_EQ(r.get("status")->int64Value(), 0) << describe(r);
  // Its history goes at once; another volume's stays.
  EXPECT_FALSE(context_.get("history_alpha"));
  EXPECT_FALSE(context_.get("FSMStore_alpha"));
  EXPECT_TRUE(context_.get("history_alphabet"));
  EXPECT_EQ(fsmlist(), "alphabet . 0\n# note\n");
  for (const char* f :
       {"alpha.cfg", "alpha-auxdata.plist", "alpha.cfg-old", "alpha-auxdata.plist-old"})
    EXPECT_FALSE(has(f)) << f;
  EXPECT_TRUE(has("alphabet.cfg"));
  EXPECT_FALSE(sandbox_.exists("/Library/Filesystems/Velm/data/alpha"));
  int h = open_fs_connection();
  std::string alpha = "alpha";
  EXPECT_EQ(state_of_volume(h, &alpha), STATE_DOWN);
  close_fs_connection(h);
  EXPECT_EQ(remove({}).size(), 2u);  // no names: an empty answer (with the timing keys)
}

TEST_F(VolumeCreateTest, DeleteWithoutAPortMapperStillRemovesTheFiles) {
  sandbox_.write(std::string(kConfig) + "omega.cfg", "x");
  PropertyList r = remove({"omega"});
  EXPECT_EQ(r.get("status")->int64Value(), 100005);
  EXPECT_FALSE(has("omega.cfg"));
}

TEST_F(VolumeCreateTest, ReinitializeKeepsTheUnknownVolumesCode) {
  sandbox_.write(std::string(kConfig) + "known.cfg", "x");
  sandbox_.write("/drmkfs.fail", "Fatal\n");
  PropertyList r =
      run("reinitializeVolumes",
          {{"volumes", PropertyList(PlistArray{PropertyList("unknown"), PropertyList("known")})}});
  EXPECT_EQ(r.get("status")->int64Value(), 100010);
  PropertyList reverse =
      run("reinitializeVolumes",
          {{"volumes", PropertyList(PlistArray{PropertyList("known"), PropertyList("unknown")})}});
  EXPECT_EQ(reverse.get("status")->int64Value(), 100010);
}

TEST_F(VolumeCreateTest, CheckToolStatusesAndItsRecords) {
  std::string tool = "/Library/Filesystems/Velm/bin/drfsck";
  std::string alpha = "Alpha";
  for (auto [code, want] : {std::pair{0, 0}, {1, 0}, {4, 100057}}) {
    sandbox_.write(
        tool, "#!/bin/sh\necho \"checked $*\"\necho warn >&2\nexit " + std::to_string(code) + "\n",
        0755);
    EXPECT_EQ(fsck_volume_named(&alpha), want) << code;
  }
  EXPECT_EQ(sandbox_.read("/var/run/velm_drfsck_Alpha.log"), "checked -w Alpha\n");
  EXPECT_EQ(sandbox_.read("/var/run/velm_drfsck_Alpha.error"), "warn\n");
  EXPECT_TRUE(log_.contains(
      "fsck_volume_named: drfsck for volume 'Alpha' succeeded; file system modified"));
  EXPECT_TRUE(log_.contains(
      "ERROR: fsck_volume_named: drfsck for volume 'Alpha' failed with exit status 4"));
  EXPECT_EQ(fsck_volume_named(nullptr), 100057);
}

// A process killed at any point between its writes leaves every file old or new, and whole.
TEST_F(VolumeCreateTest, AKilledCommandNeverLeavesATornFile) {
  std::string request = sandbox_.path("/add.plist");
  PropertyList add = PropertyList::dict();
  add.set("command", "addVolumes");
  add.set("volumes", PlistArray{volume("Crash", {kControllerA})});
  add.set("initialize", false);
  writeXmlPlistFile(request, add);
  std::string removal = sandbox_.path("/delete.plist");
  PropertyList del = PropertyList::dict();
  del.set("command", "deleteVolumes");
  del.set("volumeNames", PlistArray{PropertyList("Crash")});
  writeXmlPlistFile(removal, del);
  std::string cfgPath = sandbox_.path(std::string(kConfig) + "Crash.cfg");
  std::mt19937 random(12345);
  std::string fullCfg;
  // How long a whole command takes here (sanitizers slow it down): the kills fall within it.
  int spanMicros = 20000;
  {
    std::uint64_t start = systemClock().monotonicMicros();
    test::ProgramResult whole =
        test::runProgram("velmadmin", {"--local", "--request", request}, "",
                         {{"VELM_ROOT", sandbox_.root()}});
    ASSERT_EQ(whole.status, 0) << whole.err;
    spanMicros = std::max(spanMicros, static_cast<int>(systemClock().monotonicMicros() - start));
    fullCfg = readFile(cfgPath).value_or("");
    ASSERT_FALSE(fullCfg.empty());
    test::runProgram("velmadmin", {"--local", "--request", removal}, "",
                     {{"VELM_ROOT", sandbox_.root()}});
  }
  for (int i = 0; i < 200; ++i) {
    bool adding = !pathExists(cfgPath);
    pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      std::string bin = test::binaryPath("velmadmin");
      ::execl(bin.c_str(), bin.c_str(), "--local", "--request",
              (adding ? request : removal).c_str(), nullptr);
      ::_exit(127);
    }
    // Somewhere within the time a whole command takes.
    ::usleep(std::uniform_int_distribution<int>(0, spanMicros)(random));
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
    std::string list = fsmlist();
    EXPECT_TRUE(list.empty() || list == "Crash . 0\n") << i << ": [" << list << "]";
    if (std::optional<std::string> cfg = readFile(cfgPath)) {
      if (fullCfg.empty()) fullCfg = *cfg;
      EXPECT_EQ(*cfg, fullCfg) << i;
    }
    if (std::optional<std::string> aux =
            readFile(sandbox_.path(std::string(kConfig) + "Crash-auxdata.plist"))) {
      EXPECT_TRUE(readXmlPlist(*aux)) << i;
    }
  }
  EXPECT_FALSE(fullCfg.empty());
}

}  // namespace
}  // namespace velm
