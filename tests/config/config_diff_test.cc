// The three questions about a proposed change, rule by rule and in their order.
#include <gtest/gtest.h>

#include <memory>

#include "config/config_parser.h"
#include "config_test_util.h"
#include "support/log_capture.h"
#include "support/sandbox.h"

namespace velm {
namespace {

PropertyList group(const char* id, std::initializer_list<std::pair<const char*, PropertyList>> keys = {}) {
  PropertyList g = PropertyList::dict();
  g.set("_id_", PropertyList(id));
  for (const auto& [k, v] : keys) g.set(k, v);
  return g;
}

PropertyList diffOf(std::initializer_list<PropertyList> groups, PropertyList globals = PropertyList()) {
  PropertyList d = PropertyList::dict();
  d.set("StripeGroups", PropertyList(PlistArray(groups)));
  if (!globals.isNull()) d.set("Globals", std::move(globals));
  return d;
}

PropertyList nodes(std::initializer_list<PropertyList> list) { return PropertyList(PlistArray(list)); }

class ConfigDiffTest : public test::SandboxTest {
 protected:
  ConfigDiffTest() {
    PropertyList globals = PropertyList::dict();
    globals.set("FsBlockSize", PropertyList(4096));
    globals.set("JournalSize", PropertyList(16777216));
    parser_ = SANConfigParser::parserWithDict(test::makeVolume("vol1", globals, {}, {}, {}));
  }
  bool remake(const PropertyList& d) { return parser_->diffRequiresFSRemake(d); }
  bool update(const PropertyList& d) { return parser_->diffRequiresFSUpdate(d); }

  test::LogCapture log_;
  std::unique_ptr<SANConfigParser> parser_;
};

const PropertyList kYes("YES");

TEST_F(ConfigDiffTest, EmptyDiffAsksForNothing) {
  PropertyList empty = PropertyList::dict();
  EXPECT_FALSE(remake(empty));
  EXPECT_FALSE(update(empty));
  EXPECT_FALSE(parser_->diffRequiresFSRestart(diffOf({group("g", {{"_obsoleteid_", kYes}})})));
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(ConfigDiffTest, BlockSizeInTheDiffAlwaysRemakes) {
  PropertyList same = PropertyList::dict();
  same.set("FsBlockSize", PropertyList(4096));
  EXPECT_TRUE(remake(diffOf({}, same)));
  EXPECT_EQ(log_.count("ERROR: diffRequiresFSRemake: block size hasn't changed but it's in the diff?"), 1u);
  EXPECT_EQ(log_.count("diffRequiresFSRemake: Requires remake, block size has changed from 4096 to 4096"), 1u);

  PropertyList changed = PropertyList::dict();
  changed.set("FsBlockSize", PropertyList(16384));
  EXPECT_TRUE(remake(diffOf({}, changed)));
  EXPECT_EQ(log_.count("ERROR: diffRequiresFSRemake: block size hasn't changed but it's in the diff?"), 1u);

  PropertyList text = PropertyList::dict();
  text.set("FsBlockSize", PropertyList("16K"));  // not a number: no rule fires
  EXPECT_FALSE(remake(diffOf({}, text)));
}

TEST_F(ConfigDiffTest, NewGroupsOnlyAtTheEnd) {
  PropertyList appended = diffOf({group("StripeGroup_old", {{"Affinity", PropertyList("x")}}),
                                  group("StripeGroup_n1", {{"_newid_", kYes}}),
                                  group("StripeGroup_n2", {{"_newid_", PropertyList(true)}})});
  EXPECT_FALSE(remake(appended));
  EXPECT_TRUE(update(appended));
  EXPECT_EQ(log_.count("diffRequiresFSUpdate: Requires update for capacity expansion, a new storage pool has been "
                       "added and none have been deleted"),
            1u);

  PropertyList inserted = diffOf({group("StripeGroup_n1", {{"_newid_", PropertyList(1)}}),
                                  group("StripeGroup_old", {{"Affinity", PropertyList("x")}})});
  EXPECT_TRUE(remake(inserted));
  EXPECT_EQ(log_.count("diffRequiresFSRemake: Requires remake, StripeGroup_old comes after a new pool, so a new "
                       "pool must have been inserted"),
            1u);
}

TEST_F(ConfigDiffTest, MarkersAreExact) {
  EXPECT_FALSE(remake(diffOf({group("g", {{"_obsoleteid_", PropertyList("yes")}})})));
  EXPECT_FALSE(remake(diffOf({group("g", {{"_obsoleteid_", PropertyList(0)}})})));
  EXPECT_TRUE(remake(diffOf({group("g", {{"_obsoleteid_", PropertyList(2.5)}})})));
  EXPECT_FALSE(update(diffOf({group("g", {{"_newid_", PropertyList::dict()}})})));
}

TEST_F(ConfigDiffTest, NewAndObsoleteTogether) {
  PropertyList both = diffOf({group("StripeGroup_g", {{"_newid_", kYes}, {"_obsoleteid_", kYes}})});
  EXPECT_TRUE(remake(both));
  EXPECT_EQ(log_.count("diffRequiresFSRemake: Requires remake, StripeGroup_g is being deleted"), 1u);
  EXPECT_TRUE(update(both));
}

TEST_F(ConfigDiffTest, GroupRulesInOrder) {
  EXPECT_TRUE(remake(diffOf({group("g", {{"StripeBreadth", PropertyList(32)}, {"Journal", PropertyList(true)}})})));
  EXPECT_EQ(log_.count("diffRequiresFSRemake: Requires remake, stripe breadth has changed to 32"), 1u);
  // Journal going either way counts: only its presence as a number matters.
  EXPECT_TRUE(remake(diffOf({group("g", {{"Journal", PropertyList(false)}, {"Metadata", PropertyList(true)}})})));
  EXPECT_EQ(log_.count("diffRequiresFSRemake: Requires remake, journaling value has changed in stripe group g"), 1u);
  EXPECT_TRUE(remake(diffOf({group("g", {{"Metadata", PropertyList(false)}})})));
  EXPECT_EQ(log_.count("diffRequiresFSRemake: Requires remake, metadata has changed in stripe group g"), 1u);
  // Values of other types don't fire, and the walk goes on.
  EXPECT_FALSE(remake(diffOf({group("g", {{"StripeBreadth", PropertyList("32")},
                                          {"Journal", PropertyList("YES")},
                                          {"Nodes", PropertyList("not an array")}})})));
}

TEST_F(ConfigDiffTest, NodeRules) {
  PropertyList reordered = diffOf({group("g", {{"Nodes", nodes({group("Node_L1", {{"_newid_", kYes}}),
                                                                group("Node_L2"),
                                                                group("Node_L3", {{"NodeRotationIndex", PropertyList(2)}})})}})});
  EXPECT_TRUE(remake(reordered));
  EXPECT_EQ(log_.count("diffRequiresFSRemake: Requires remake, LUN Node_L3's NodeDiskDevice is being changed (in "
                       "other words, LUNs are being reordered)"),
            1u);

  PropertyList added = diffOf({group("g", {{"Nodes", nodes({group("Node_L9", {{"_newid_", kYes}})})}})});
  EXPECT_FALSE(remake(added));
  EXPECT_TRUE(update(added));
  EXPECT_EQ(log_.count("diffRequiresFSUpdate: Requires update for bandwidth expansion, a new LUN has been added and "
                       "no storage has been deleted"),
            1u);
}

TEST_F(ConfigDiffTest, ADeletedLunAnywhereBlocksExpansion) {
  PropertyList d = diffOf({group("g1", {{"Nodes", nodes({group("Node_L9", {{"_newid_", kYes}})})}}),
                           group("g2", {{"Nodes", nodes({group("Node_L1", {{"_obsoleteid_", kYes}})})}})});
  EXPECT_TRUE(remake(d));
  EXPECT_EQ(log_.count("diffRequiresFSRemake: Requires remake, LUN Node_L1 is being deleted"), 1u);
  EXPECT_FALSE(update(d));
}

TEST_F(ConfigDiffTest, JournalSizeUpdate) {
  PropertyList same = PropertyList::dict();
  same.set("JournalSize", PropertyList(16777216));
  EXPECT_TRUE(update(diffOf({}, same)));
  EXPECT_EQ(log_.count("diffRequiresFSUpdate: Requires update, journal size has changed from 16777216 to 16777216"),
            1u);
  EXPECT_EQ(log_.count("ERROR: diffRequiresFSUpdate: journal size hasn't changed but it's in the diff?"), 1u);
  EXPECT_FALSE(remake(diffOf({}, same)));

  // A new pool reports capacity expansion first; the journal line never comes.
  log_.clear();
  PropertyList bigger = PropertyList::dict();
  bigger.set("JournalSize", PropertyList(33554432));
  EXPECT_TRUE(update(diffOf({group("n", {{"_newid_", kYes}})}, bigger)));
  EXPECT_FALSE(log_.contains("journal size"));
}

}  // namespace
}  // namespace velm
