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
