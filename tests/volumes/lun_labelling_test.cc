// labelLUNs through the stand-ins: drlabel changes the sandbox's LUN table, and velm-simpm's disk
// list follows it at each rescan, so the wait ends as it would on a SAN.
#include <gtest/gtest.h>

#include "controller_helpers.h"
#include "platform/paths.h"
#include "plist/plist.h"
#include "volumes/volume_state.h"

namespace velm {
namespace {

constexpr std::string_view kConfig = "/Library/Filesystems/Velm/config/";

class LunLabellingTest : public test::ControllerTest {
 protected:
  void SetUp() override {
    ControllerTest::SetUp();
    test::installSimTools(sandbox_);
    // sdb is labelled, sdc and sdd are not; sde holds the host's preformatted label.
    table_.set("sdb", record("FC", "S1", "Old"));
    table_.set("sdc", record("FC", "S2", nullptr));
    table_.set("sdd", record("FC", "S3", nullptr));
    table_.set("sde", record("FC", "S4", "Untitled"));
    sandbox_.write("/sim/luns.plist", writeXmlPlist(table_));
    ASSERT_TRUE(startSan("", ""));
  }
  static PropertyList record(const char* type, const char* serial, const char* label) {
    PropertyList r = PropertyList::dict();
    r.set("connectionType", type);
    r.set("serialNumber", serial);
    r.set("size", 1LL << 30);
    if (label) {
      r.set("Label", label);
      r.set("LabelType", "QMFS-EFI");
    }
    return r;
  }
  static PropertyList order(const char* oldName, const char* newName, const char* serial) {
    PropertyList r = PropertyList::dict();
    if (oldName) r.set("oldName", oldName);
    if (newName) r.set("newName", newName);
    if (serial) {
      r.set("connectionType", "FC");
      r.set("serialNumber", serial);
    }
    return r;
  }
  PropertyList label(std::vector<PropertyList> luns) {
    return run("labelLUNs", {{"luns", PlistArray(luns.begin(), luns.end())}});
  }
  static long long status(const PropertyList& r) {
    const PropertyList* s = r.get("status");
    return s ? s->int64Value().value_or(-99) : -99;
  }
  std::string labelOf(const std::string& device) {
    PlistReadResult t = readXmlPlist(sandbox_.read("/sim/luns.plist"));
    const std::string* l = t ? t.value->get(device)->getString("Label") : nullptr;
    return l ? *l : "";
  }
  // Seconds the wait slept on the fake clock.
  size_t waitedSeconds() { return clock_->sleeps().size(); }

  PropertyList table_ = PropertyList::dict();
};

TEST_F(LunLabellingTest, LabelsAndUnlabelsAndTheWaitSeesTheNewLabelAtOnce) {
  PropertyList r = label({order("Old", "", nullptr), order(nullptr, "Fresh", "S2")});
  EXPECT_EQ(status(r), 0) << describe(r);
  EXPECT_EQ(sandbox_.read(std::string(kConfig) + "drunlabels"), "Old\n");
  EXPECT_EQ(sandbox_.read(std::string(kConfig) + "drlabels"), "Fresh sdc - EFI\n");
  EXPECT_NE(
      sandbox_.read("/sim/tools/drlabel.calls")
          .find("-f -z " + configPath("drunlabels") + "\n-f " + configPath("drlabels") + "\n"),
      std::string::npos);
  EXPECT_EQ(labelOf("sdb"), "");
  EXPECT_EQ(labelOf("sdc"), "Fresh");
  // The answer's LUNs are read after the work.
  EXPECT_EQ(*r.get("visibleLUNs")->get("sdc")->getString("Label"), "Fresh");
  EXPECT_EQ(waitedSeconds(), 0u);
  EXPECT_TRUE(log_.contains("update_drlabels: Found disk Fresh, on try 0"));
  EXPECT_TRUE(log_.contains("update_drlabels: Done looking... Found disks, 1, 1"));
}

TEST_F(LunLabellingTest, RecordsThatCannotBeWrittenAreSkippedAndWaitedForInVain) {
  PropertyList r = label({order(nullptr, "Old", "S2"), order(nullptr, "Lost", "S9"),
                          order(nullptr, "NoKey", nullptr), order(nullptr, "two words", "S3")});
  EXPECT_EQ(status(r), 0) << describe(r);
  EXPECT_TRUE(
      log_.contains("ERROR: Not writing $@ to drlabels, LUN with that name already exists"));
  EXPECT_TRUE(
      log_.contains("ERROR: Not writing Lost to drlabels, cannot find bsd device for (S9, FC)"));
  EXPECT_TRUE(log_.contains(
      "ERROR: Not writing NoKey to drlabels, cannot find lookup key for ((null), (null))"));
  EXPECT_TRUE(
      log_.contains("ERROR: labelLUNs: Not writing 'two words' to drlabels: a label can't hold "
                    "blanks or line ends"));
  // No order could be written: no tool ran, and the wait spent its 20 tries.
  EXPECT_FALSE(sandbox_.exists(std::string(kConfig) + "drlabels"));
  EXPECT_EQ(waitedSeconds(), 19u);
  EXPECT_TRUE(log_.contains("update_drlabels: Done looking... COULD NOT FIND DISKS!"));
}

TEST_F(LunLabellingTest, AFailedUnlabellingIsTheStatusAndTheLabellingStillRuns) {
  PropertyList r = label({order("Nobody", nullptr, nullptr), order(nullptr, "Fresh", "S3")});
  EXPECT_EQ(status(r), 1) << describe(r);
  EXPECT_EQ(labelOf("sdd"), "Fresh");
  EXPECT_TRUE(log_.contains("labelLUNs: Unlabeling luns had an error (status 1"));
  // Only unlabels: nothing to wait for, the first try ends it.
  label({order("Fresh", "", nullptr)});
  EXPECT_EQ(labelOf("sdd"), "");
  EXPECT_EQ(waitedSeconds(), 0u);
}

TEST_F(LunLabellingTest, ClearCacheDoesNothingElse) {
  PropertyList r = run("labelLUNs", {{"clearCache", PropertyList(true)},
                                     {"luns", PlistArray{order(nullptr, "Fresh", "S2")}}});
  EXPECT_FALSE(r.get("status"));
  EXPECT_FALSE(sandbox_.exists("/sim/tools/drlabel.calls"));
  EXPECT_EQ(labelOf("sdc"), "");
}

TEST_F(LunLabellingTest, TheLabelledDisksLeaveOutThePreformattedOne) {
  int handle = open_fs_connection();
  ASSERT_GE(handle, 0);
  PropertyList disks;
  EXPECT_EQ(get_labeled_disks(handle, &disks), 0);
  close_fs_connection(handle);
  ASSERT_EQ(disks.size(), 1u) << describe(disks);
  const PropertyList& d = disks.asArray()->front();
  EXPECT_EQ(*d.getString("name"), "Old");
  EXPECT_EQ(*d.getString("blkDevName"), "sdb");
  EXPECT_EQ(*d.getString("_id_"), "Disk_sdb");
  EXPECT_EQ(*d.getString("serialNumber"), "S1");
  EXPECT_EQ(d.get("size")->uint64Value(), 1ULL << 30);
  EXPECT_TRUE(log_.contains(
      "get_labeled_disks: Skipping Platterkit preformatted 'Untitled' volume at sde"));
  // No port mapper: the failure status and an empty list.
  EXPECT_EQ(get_labeled_disks(-1, &disks), 100047);
  EXPECT_EQ(disks.size(), 0u);
}

}  // namespace
}  // namespace velm
