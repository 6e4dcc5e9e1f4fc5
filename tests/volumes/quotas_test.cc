// Quotas through the stand-in FSM, whose tables keep what is set, in blocks and minutes.
#include "volumes/quotas.h"

#include <gtest/gtest.h>

#include "controller_helpers.h"

namespace velm {
namespace {

using test::fsmEntry;

PropertyList quota(const char* name, const char* type, long long hard, long long soft,
                   std::optional<long long> time = 600) {
  PropertyList q = PropertyList::dict();
  q.set("name", name);
  q.set("type", type);
  q.set("hardLimit", hard);
  q.set("softLimit", soft);
  if (time) q.set("timeLimit", *time);
  return q;
}

class QuotasTest : public test::ControllerTest {
 protected:
  void SetUp() override {
    ControllerTest::SetUp();
    // A group with a quota listed first in the file, and a user whose limits are all zero.
    ASSERT_TRUE(startSan(
        fsmEntry("Projects", true, true,
                 "<key>groupQuotas</key><array><dict><key>name</key><string>staff</string>"
                 "<key>hardLimit</key><integer>8192</integer><key>softLimit</key>"
                 "<integer>4096</integer><key>timeLimit</key><integer>5</integer></dict></array>"
                 "<key>userQuotas</key><array><dict><key>name</key><string>idle</string></dict>"
                 "</array>"),
        ""));
  }
  PropertyList change(const char* command, std::vector<PropertyList> quotas,
                      const char* volume = "Projects") {
    return run(command, {{"name", PropertyList(volume)},
                         {"quotas", PlistArray(quotas.begin(), quotas.end())}});
  }
  PropertyList get(bool all = false) {
    return run("getQuotas",
               {{"name", PropertyList("Projects")}, {"withAllDiskUsage", PropertyList(all)}});
  }
  static long long status(const PropertyList& r) {
    return r.get("status") ? r.get("status")->int64Value().value_or(-99) : -99;
  }
  static std::vector<std::string> ids(const PropertyList& r) {
    std::vector<std::string> out;
    for (const PropertyList& q : *r.get("quotas")->asArray()) out.push_back(*q.getString("_id_"));
    return out;
  }
  static PropertyList find(const PropertyList& r, const std::string& id) {
    for (const PropertyList& q : *r.get("quotas")->asArray())
      if (*q.getString("_id_") == id) return q;
    return PropertyList();
  }
};

TEST_F(QuotasTest, WhatIsSetReadsBackInBlocksAndWholeMinutes) {
  // Soft above hard is stored as hard; 90 s is one minute; a limit is rounded down to blocks.
  PropertyList r = change("setQuotas", {quota("alice", "user", 1048576 + 100, 2097152, 90)});
  EXPECT_EQ(status(r), 0) << describe(r);
  PropertyList alice = find(r, "user/alice");
  ASSERT_TRUE(alice.isDict()) << describe(r);
  EXPECT_EQ(alice.get("hardLimit")->int64Value(), 1048576);
  EXPECT_EQ(alice.get("softLimit")->int64Value(), 1048576);
  EXPECT_EQ(alice.get("timeLimit")->int64Value(), 60);
  EXPECT_EQ(*alice.getString("type"), "user");
  EXPECT_EQ(*alice.getString("name"), "alice");
}

TEST_F(QuotasTest, UsersComeBeforeGroupsAndZeroLimitsOnlyWithAllUsage) {
  change("setQuotas", {quota("bob", "user", 8192, 4096)});
  EXPECT_EQ(ids(get()), (std::vector<std::string>{"user/bob", "group/staff"}));
  EXPECT_EQ(ids(get(true)), (std::vector<std::string>{"user/bob", "user/idle", "group/staff"}));
  // A deleted quota has no limits left: it is listed only with all usage.
  PropertyList gone = change("deleteQuotas", {[] {
                               PropertyList q = PropertyList::dict();
                               q.set("name", "bob");
                               q.set("type", "user");
                               return q;
                             }()});
  EXPECT_EQ(status(gone), 0) << describe(gone);
  EXPECT_EQ(ids(gone), (std::vector<std::string>{"group/staff"}));
}

TEST_F(QuotasTest, AFailureHalfWayKeepsWhatWasMade) {
  PropertyList r = change("setQuotas", {quota("carol", "user", 8192, 8192),
                                        quota("dave", "user", 8192, 8192, std::nullopt),
                                        quota("erin", "user", 8192, 8192)});
  EXPECT_EQ(status(r), 100029);
  EXPECT_TRUE(find(r, "user/carol").isDict());
  EXPECT_FALSE(find(r, "user/erin").isDict());
  EXPECT_TRUE(log_.contains("ERROR: set_fsmvol_quota: Record"));
  EXPECT_TRUE(log_.contains("is incomplete"));

  // A type spelt otherwise is illegal.
  EXPECT_EQ(status(change("setQuotas", {quota("frank", "User", 8192, 8192)})), 100029);
  EXPECT_TRUE(log_.contains("ERROR: quota_from_dictionary: Illegal type: User"));
}

TEST_F(QuotasTest, UnknownVolumesAndMissingKeys) {
  PropertyList r = change("setQuotas", {quota("gina", "user", 8192, 8192)}, "Nowhere");
  EXPECT_EQ(status(r), 100026);
  EXPECT_TRUE(log_.contains("ERROR: set_quota_for_fsmvol_named(Nowhere): Cound not find FS"));
  EXPECT_EQ(r.get("quotas")->size(), 0u);

  EXPECT_EQ(run("getQuotas").size(), 2u);  // the timing keys alone
  EXPECT_TRUE(log_.contains("ERROR: No name passed into getQuotas"));
  EXPECT_EQ(run("setQuotas", {{"name", PropertyList("Projects")}}).size(), 2u);
  EXPECT_TRUE(log_.contains("ERROR: No quota records passed into setQuotas"));
  EXPECT_EQ(run("deleteQuotas").size(), 2u);
  EXPECT_TRUE(log_.contains("ERROR: No name passed into deleteQuotas"));
}

TEST(QuotaDictionary, TranslatesTheRecordBothWays) {
  QMAdminQuota record{};
  EXPECT_EQ(quota_from_dictionary(record, quota("ann", "group", 100, 50, 3599)), 0);
  EXPECT_EQ(record.type, QMADMIN_QUOTA_GROUP);
  EXPECT_EQ(record.timeLimit, 59u);
  record.used = 7;
  std::optional<PropertyList> d = dictionary_from_quota(record, false);
  ASSERT_TRUE(d);
  EXPECT_EQ(*d->getString("_id_"), "group/ann");
  EXPECT_EQ(d->get("timeLimit")->int64Value(), 59 * 60);
  EXPECT_EQ(d->get("amountUsed")->int64Value(), 7);
  zero_out_quota(record);
  EXPECT_FALSE(dictionary_from_quota(record, false));
  EXPECT_TRUE(dictionary_from_quota(record, true));
  record.type = 3;
  EXPECT_FALSE(dictionary_from_quota(record, true));
  // Only numbers count in a merge.
  record.hardLimit = 5;
  PropertyList diff = PropertyList::dict();
  diff.set("hardLimit", "lots");
  merge_diff_into_quota(record, diff);
  EXPECT_EQ(record.hardLimit, 5u);
}

}  // namespace
}  // namespace velm
