#include <gtest/gtest.h>

#include "adminhost/context_store.h"
#include "support/run_program.h"
#include "support/sandbox.h"

namespace velm {
namespace {

class VelmadminTest : public test::SandboxTest {
 protected:
  test::ProgramResult velmadmin(std::vector<std::string> args, const std::string& input = {}) {
    return test::runProgram("velmadmin", args, input, {{"VELM_ROOT", sandbox_.root()}, {"VELM_LOG", "stderr"}});
  }
  static PropertyList parse(const std::string& xml) {
    PlistReadResult r = readXmlPlist(xml);
    return r ? *r.value : PropertyList();
  }
};

TEST_F(VelmadminTest, LocalGetStatePrintsTheResponse) {
  test::ProgramResult r = velmadmin({"--local", "getState"});
  ASSERT_EQ(r.status, 0) << r.err;
  PropertyList response = parse(r.out);
  EXPECT_EQ(*response.getString("state"), "RUNNING");
  EXPECT_TRUE(response.get("perfDispatchMicroseconds"));
  EXPECT_TRUE(response.get("perfFunctionMicroseconds"));
}

TEST_F(VelmadminTest, TextIsATreeAndListsOfRecordsAreTables) {
  sandbox_.write("/Library/Filesystems/Velm/config/uuid", "0A0A0A0A-0000-4000-8000-00000000000A");
  auto note = [](const char* name, const char* contents) {
    PropertyList n = PropertyList::dict();
    n.set("class", "volume");
    n.set("name", name);
    n.set("contents", contents);
    return n;
  };
  PropertyList set = PropertyList::dict();
  set.set("command", "setNotes");
  set.set("notes", PlistArray{note("Projects", "edit bay"), note("Media", "two\nlines")});
  ASSERT_EQ(velmadmin({"--local", "--request", "-"}, writeXmlPlist(set)).status, 0);

  PropertyList all = PropertyList::dict();
  all.set("command", "getAllNotes");
  all.set("classes", PlistArray{PropertyList("volume")});
  test::ProgramResult r = velmadmin({"--local", "--format", "text", "--request", "-"},
                                    writeXmlPlist(all));
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("notes:\n"
                       "  class   contents    name\n"
                       "  volume  two\\nlines  Media\n"
                       "  volume  edit bay    Projects\n"),
            std::string::npos)
      << r.out;

  r = velmadmin({"--local", "--format", "text", "getNotificationsTypes"});
  EXPECT_NE(r.out.find("types:\n  - freeSpace\n  - quota\n  - fibre\n  - failover\n"),
            std::string::npos)
      << r.out;
  EXPECT_NE(r.out.find("perfDispatchMicroseconds: "), std::string::npos);
}

TEST_F(VelmadminTest, RefusedCommandPrintsNothingAndExits2) {
  test::ProgramResult r = velmadmin({"--local", "xx"});
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.out, "");
  EXPECT_NE(r.err.find("ERROR: Command to dispatch is unknown"), std::string::npos);
}

TEST_F(VelmadminTest, UsageErrorsExit1) {
  for (std::vector<std::string> args : {std::vector<std::string>{}, {"--format", "yaml", "getState"},
                                        {"--bogus"}, {"getState", "novalue"}, {"--request"},
                                        {"--request", "/nonexistent.plist"}}) {
    test::ProgramResult r = velmadmin(args);
    EXPECT_EQ(r.status, 1) << testing::PrintToString(args);
    EXPECT_FALSE(r.err.empty());
  }
}

TEST_F(VelmadminTest, RequestFromStandardInputAndJsonOutput) {
  PropertyList request = PropertyList::dict();
  request.set("command", "getState");
  test::ProgramResult r = velmadmin({"--format", "json", "--request", "-"}, writeXmlPlist(request));
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("\"state\": \"RUNNING\""), std::string::npos);

  r = velmadmin({"--request", "-"}, "<plist><array/></plist>");
  EXPECT_EQ(r.status, 1);
}

TEST_F(VelmadminTest, KeyValueArgumentsAreTyped) {
  // clearCache=true must arrive as a boolean: the handler then answers only the timing keys.
  test::ProgramResult r = velmadmin({"getComputerProperties", "clearCache=true"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(parse(r.out).size(), 2u);
  r = velmadmin({"getComputerProperties", "clearCache=yes"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(parse(r.out).get("properties"));
  // Digits give a number, and a non-zero number counts as true.
  r = velmadmin({"getComputerProperties", "clearCache=1"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(parse(r.out).size(), 2u);
}

TEST_F(VelmadminTest, RequestFromAFile) {
  PropertyList request = PropertyList::dict();
  request.set("command", "getState");
  std::string path = sandbox_.write("/request.plist", writeXmlPlist(request));
  test::ProgramResult r = velmadmin({"--local", "--request", path});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(*parse(r.out).getString("state"), "RUNNING");
  // A well-formed file whose command the plugin refuses: no response.
  request.set("command", "tailFile");
  sandbox_.write("/request.plist", writeXmlPlist(request));
  r = velmadmin({"--request", path});
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.out, "");
  EXPECT_NE(r.err.find("ERROR: Does not respond to tailFileWithRequest:"), std::string::npos);
}

}  // namespace
}  // namespace velm
