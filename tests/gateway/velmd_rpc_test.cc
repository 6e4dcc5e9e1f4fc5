#include "gateway/velmd_rpc.h"

#include <gtest/gtest.h>

#include <functional>

#include "adminlib/qmadminlib.h"
#include "gateway/san_filesystem.h"
#include "gateway_test_helpers.h"

namespace velm {
namespace {

constexpr std::string_view kOkReply =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n"
    "\t<key>status</key>\n\t<integer>0</integer>\n</dict>\n</plist>";

std::string errorReply(std::string_view text) {
  return "<plist version=\"1.0\"><dict><key>error</key><string>" + std::string(text) +
         "</string></dict></plist>\n";
}

PropertyList command(std::string_view name) {
  PropertyList c = PropertyList::dict();
  c.set("command", name);
  return c;
}

class VelmdRpcTest : public test::GatewayTest {
 protected:
  std::optional<PropertyList> exchange(std::string_view name = "sanConfigChanged") {
    return SANFilesystem::localFilesystem().doVelmdManagementRpcWithCommand(command(name));
  }
};

TEST(VelmdReplyEnd, ClosingTagWithOneNewlineOrNulCompletes) {
  std::string body(kOkReply);
  EXPECT_TRUE(velmdReplyIsComplete(body));
  EXPECT_TRUE(velmdReplyIsComplete(body + "\n"));
  EXPECT_TRUE(velmdReplyIsComplete(body + std::string("\n\0", 2)));
  EXPECT_TRUE(velmdReplyIsComplete(body + std::string("\0", 1)));
  EXPECT_FALSE(velmdReplyIsComplete(body + "\n\n"));
  EXPECT_FALSE(velmdReplyIsComplete(body + std::string("\0\n", 2)));
  EXPECT_FALSE(velmdReplyIsComplete(body + " "));
  EXPECT_FALSE(velmdReplyIsComplete("</plist"));
  EXPECT_TRUE(velmdReplyIsComplete("</plist>"));
  EXPECT_FALSE(velmdReplyIsComplete(std::string("/plist>\n\0", 9)));
}

TEST_F(VelmdRpcTest, ReplyInManyPiecesEndsAtThePieceThatCompletesTheTag) {
  std::string body(kOkReply);
  std::vector<std::string> pieces;
  for (size_t i = 0; i + 10 < body.size(); i += 7) pieces.push_back(body.substr(i, 7));
  size_t sent = pieces.size() * 7;
  for (size_t i = sent; i < body.size(); ++i) pieces.push_back(body.substr(i, 1));
  // The daemon keeps the connection open: only the content can end the reply.
  test::ScriptedVelmd velmd(pieces, /*holdOpen=*/true);
  std::optional<PropertyList> reply = exchange();
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->get("status")->int64Value(), 0);
  EXPECT_TRUE(log_.contains("doVelmdManagementRpcWithCommand: reply: "));
}

TEST_F(VelmdRpcTest, EveryAcceptedEndingParses) {
  for (std::string ending :
       {std::string(""), std::string("\n"), std::string("\n\0", 2), std::string("\0", 1)}) {
    test::ScriptedVelmd velmd({std::string(kOkReply) + ending}, /*holdOpen=*/true);
    EXPECT_TRUE(exchange()) << "ending of " << ending.size() << " bytes";
  }
}

TEST_F(VelmdRpcTest, TwoNewlinesWaitForTheDaemonToCloseAndFail) {
  test::ScriptedVelmd velmd({std::string(kOkReply) + "\n\n"});
  EXPECT_FALSE(exchange());
  EXPECT_EQ(log_.count("ERROR: doVelmdManagementRpcWithCommand: unexpected EOF reading reply"), 1u);
}

TEST_F(VelmdRpcTest, ShortReplyThenEofFails) {
  test::ScriptedVelmd velmd({"</plist"});
  EXPECT_FALSE(exchange());
  EXPECT_EQ(log_.count("ERROR: doVelmdManagementRpcWithCommand: unexpected EOF reading reply"), 1u);
}

TEST_F(VelmdRpcTest, ReplyThatIsNoDictionaryIsInvalid) {
  test::ScriptedVelmd velmd({"<plist version=\"1.0\"><array/></plist>\n"});
  EXPECT_FALSE(exchange());
  EXPECT_TRUE(log_.contains("ERROR: doVelmdManagementRpcWithCommand: invalid reply: <plist"));
}

TEST_F(VelmdRpcTest, DaemonDownFailsEveryOperationWithItsLine) {
  SANFilesystem& fs = SANFilesystem::localFilesystem();
  EXPECT_FALSE(fs.disksChanged());
  EXPECT_FALSE(fs.roleChanged());
  EXPECT_FALSE(fs.sanConfigChanged());
  EXPECT_EQ(fs.mountVolumeNamed("Projects", true, nullptr), 100007);
  EXPECT_EQ(fs.unmountVolumeNamed("Projects", false), 100008);
  EXPECT_EQ(log_.count("ERROR: doVelmdManagementRpcWithCommand: Unable to connect to velmd: No "
                       "such file or directory"),
            5u);
  for (const char* line :
       {"ERROR: disksChanged: unable to send 'disksChanged' message to velmd",
        "ERROR: roleChanged: unable to send 'roleChanged' message to velmd",
        "ERROR: sanConfigChanged: unable to send 'sanConfigChanged' message to velmd",
        "ERROR: mountVolumeNamed: unable to send 'mount' message to velmd",
        "ERROR: unmountVolumeNamed: unable to send 'unmount' message to velmd"}) {
    EXPECT_EQ(log_.count(line), 1u) << line;
  }
}

TEST_F(VelmdRpcTest, ErrorRepliesFailWithTheirExactLines) {
  SANFilesystem& fs = SANFilesystem::localFilesystem();
  struct Case {
    std::function<bool()> call;
    const char* line;
  } cases[] = {
      {[&] { return fs.disksChanged(); }, "ERROR: disksChanged: sanConfigChanged failed: busy"},
      {[&] { return fs.roleChanged(); }, "ERROR: roleChanged: roleChanged failed: busy"},
      {[&] { return fs.sanConfigChanged(); },
       "ERROR: sanConfigChanged: sanConfigChanged failed: busy"},
      {[&] { return fs.mountVolumeNamed("P", false, nullptr) == 0; },
       "ERROR: mountVolumeNamed: mount of 'P' failed: busy"},
      {[&] { return fs.unmountVolumeNamed("P", true) == 0; },
       "ERROR: unmountVolumeNamed: unmount of 'P' failed: busy"},
  };
  int before = QMAdmin_ReadyForTest();
  for (const Case& c : cases) {
    test::ScriptedVelmd velmd({errorReply("busy")});
    EXPECT_FALSE(c.call()) << c.line;
    EXPECT_EQ(log_.count(c.line), 1u) << c.line;
  }
  // An error reply leaves the admin library alone.
  EXPECT_FALSE(log_.contains("Tearing down admin API"));
  EXPECT_EQ(QMAdmin_ReadyForTest(), before);
}

TEST_F(VelmdRpcTest, SuccessfulConfigChangeRestartsTheAdminLibrary) {
  test::ScriptedVelmd velmd({std::string(kOkReply) + "\n"});
  EXPECT_TRUE(SANFilesystem::localFilesystem().sanConfigChanged());
  EXPECT_EQ(log_.count("sanConfigChanged: Tearing down admin API"), 1u);
  EXPECT_EQ(log_.count("sanConfigChanged: Inintializing admin API"), 1u);
  EXPECT_EQ(log_.count("sanConfigChanged: Admin API init status 0"), 1u);
  EXPECT_EQ(QMAdmin_ReadyForTest(), 1);
  std::optional<PropertyList> sent = parseVelmdReply(velmd.request());
  ASSERT_TRUE(sent);
  EXPECT_EQ(*sent, command("sanConfigChanged"));
}

TEST_F(VelmdRpcTest, MountRequestLeavesOptionsOutWhenNull) {
  SANFilesystem& fs = SANFilesystem::localFilesystem();
  {
    test::ScriptedVelmd velmd({std::string(kOkReply)});
    EXPECT_EQ(fs.mountVolumeNamed("Projects", false, nullptr), 0);
    std::optional<PropertyList> sent = parseVelmdReply(velmd.request());
    ASSERT_TRUE(sent);
    PropertyList expected = command("mount");
    expected.set("volume", "Projects");
    expected.set("how", "ro");
    EXPECT_EQ(*sent, expected);
  }
  {
    test::ScriptedVelmd velmd({std::string(kOkReply)});
    PropertyList options = PropertyList::dict();
    options.set("noatime", true);
    EXPECT_EQ(fs.mountVolumeNamed("Projects", true, &options), 0);
    std::optional<PropertyList> sent = parseVelmdReply(velmd.request());
    ASSERT_TRUE(sent);
    EXPECT_EQ(*sent->getString("how"), "rw");
    EXPECT_EQ(*sent->get("MountOptions"), options);
  }
  {
    test::ScriptedVelmd velmd({std::string(kOkReply)});
    EXPECT_EQ(fs.unmountVolumeNamed("Projects", true), 0);
    std::optional<PropertyList> sent = parseVelmdReply(velmd.request());
    ASSERT_TRUE(sent);
    EXPECT_EQ(sent->get("forgetVolume")->boolValue(), true);
  }
}

TEST_F(VelmdRpcTest, VolumeNamesThatLeaveTheirDirectoryAreRefusedUnsent) {
  SANFilesystem& fs = SANFilesystem::localFilesystem();
  for (std::string bad :
       {std::string(""), std::string(".."), std::string("a/b"), std::string("a\0b", 3)}) {
    EXPECT_EQ(fs.mountVolumeNamed(bad, true, nullptr), 100007);
    EXPECT_EQ(fs.unmountVolumeNamed(bad, false), 100008);
  }
  EXPECT_FALSE(log_.contains("Unable to connect to velmd"));
  EXPECT_TRUE(log_.contains("ERROR: mountVolumeNamed: refusing the volume name '..'"));
}

}  // namespace
}  // namespace velm
