// `velmadmin config parse|write` as the tool runs them.
#include "config/config_cli.h"

#include <gtest/gtest.h>

#include "config_test_util.h"
#include "plist/plist.h"
#include "support/log_capture.h"
#include "support/sandbox.h"

namespace velm {
namespace {

class ConfigCliTest : public test::SandboxTest {
 protected:
  int run(std::vector<std::string> args) {
    out_.clear();
    err_.clear();
    return runConfigCommand(args, out_, err_);
  }
  test::LogCapture log_{false};
  std::string out_, err_;
};

TEST_F(ConfigCliTest, ParsePrintsTheDictionaryWithTheAuxFileFromTheConfigDirectory) {
  std::string cfg = sandbox_.write("/elsewhere/Volume_media.cfg", test::kRealisticConfig);
  sandbox_.write("/Library/Filesystems/Velm/config/media-auxdata.plist",
                 "<plist version=\"1.0\"><dict><key>k</key><string>v</string></dict></plist>");
  ASSERT_EQ(run({"parse", cfg}), 0) << err_;
  PlistReadResult printed = readXmlPlist(out_);
  ASSERT_TRUE(printed) << printed.error;
  EXPECT_EQ(*printed.value->getString("Name"), "media");
  EXPECT_EQ(*printed.value->get("AuxData")->getString("k"), "v");
  EXPECT_EQ(printed.value->get("StripeGroups")->size(), 3u);
}

TEST_F(ConfigCliTest, FailedParseStillPrintsAndExitsThree) {
  std::string cfg = sandbox_.write("/tmp/v.cfg", "Quotas Yes\n");
  EXPECT_EQ(run({"parse", cfg}), 3);
  PlistReadResult printed = readXmlPlist(out_);
  ASSERT_TRUE(printed);
  EXPECT_EQ(printed.value->get("Globals")->get("Quotas")->asBool(), true);
}

TEST_F(ConfigCliTest, WritePrintsTheWritersText) {
  std::string cfg = sandbox_.write("/tmp/v.cfg", test::kRealisticConfig);
  ASSERT_EQ(run({"parse", cfg}), 0);
  std::string dict = sandbox_.write("/tmp/v.plist", out_);
  ASSERT_EQ(run({"write", "--from", dict}), 0) << err_;
  EXPECT_EQ(out_.rfind("\n\n# ****", 0), 0u);
  EXPECT_NE(out_.find("\n[StripeGroup \"DataFiles\"]\nStatus Up\n"), std::string::npos);

  // A group without MultiPathMethod: the writer flags an error.
  PropertyList volume = *readXmlPlist(sandbox_.read("/tmp/v.plist")).value;
  volume.get("StripeGroups")->asArray()->at(0).erase("MultiPathMethod");
  sandbox_.write("/tmp/bad.plist", writeXmlPlist(volume));
  EXPECT_EQ(run({"write", "--from=" + sandbox_.path("/tmp/bad.plist")}), 3);
  EXPECT_TRUE(out_.empty());
}

TEST_F(ConfigCliTest, UsageErrorsExitOne) {
  EXPECT_EQ(run({}), 1);
  EXPECT_EQ(run({"frobnicate"}), 1);
  EXPECT_EQ(run({"parse"}), 1);
  EXPECT_EQ(run({"parse", sandbox_.path("/no/such.cfg")}), 1);
  EXPECT_NE(err_.find("cannot read"), std::string::npos);
  EXPECT_EQ(run({"write", "x.plist"}), 1);
  EXPECT_EQ(run({"write", "--from", sandbox_.path("/no/such.plist")}), 1);
  EXPECT_TRUE(out_.empty());
  EXPECT_NE(err_.find("cannot read"), std::string::npos);
}

}  // namespace
}  // namespace velm
