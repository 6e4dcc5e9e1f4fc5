#include <gtest/gtest.h>

#include "platform/os_version.h"
#include "support/sandbox.h"

namespace velm {
namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;

class OsVersionTest : public test::SandboxTest {};

TEST_F(OsVersionTest, OsReleaseGivesTheProductKeys) {
  sandbox_.write("/etc/os-release",
                 "PRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\nNAME=\"Debian GNU/Linux\"\n"
                 "VERSION_ID=\"12\"\nVERSION=\"12 (bookworm)\"\nID=debian\nBUILD_ID=rolling\n");
  auto v = systemVersionDictionary();
  ASSERT_TRUE(v.has_value());
  EXPECT_EQ(v->size(), 3u);
  EXPECT_EQ(*v->getString("ProductName"), "Debian GNU/Linux");
  EXPECT_EQ(*v->getString("ProductVersion"), "12");
  EXPECT_EQ(*v->getString("ProductBuildVersion"), "rolling");
}

TEST_F(OsVersionTest, FallsBackToUsrLibAndLeavesOutMissingKeys) {
  sandbox_.write("/usr/lib/os-release", "NAME='Arch Linux'\nBUILD_ID=rolling\n");
  auto v = systemVersionDictionary();
  ASSERT_TRUE(v.has_value());
  EXPECT_EQ(*v->getString("ProductName"), "Arch Linux");
  EXPECT_FALSE(v->get("ProductVersion"));
  EXPECT_EQ(*v->getString("ProductBuildVersion"), "rolling");
}

TEST_F(OsVersionTest, NoFileNoAnswer) {
  EXPECT_FALSE(systemVersionDictionary().has_value());
  EXPECT_FALSE(serverVersionDictionary().has_value());
}

TEST_F(OsVersionTest, ServerVersionFileWhenInstalled) {
  sandbox_.write("/etc/velm/server-version.plist",
                 "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
                 "<key>ProductName</key><string>Velm Server</string>"
                 "<key>ProductVersion</key><string>10.5.8</string></dict></plist>\n");
  auto v = serverVersionDictionary();
  ASSERT_TRUE(v.has_value());
  EXPECT_EQ(*v->getString("ProductName"), "Velm Server");
  EXPECT_EQ(*v->getString("ProductVersion"), "10.5.8");
}

TEST(ShellAssignmentsTest, QuotingAsTheShellDoes) {
  auto vars = parseShellAssignments(
      "# comment\n"
      "A=\"x \\\"y\\\" \\$z \\\\ \\n\"\n"
      "  B='single \\ quoted'  \r\n"
      "C=bare\\ word trailing\n"
      "D=\n"
      "E=\"a\"'b'c\n");
  EXPECT_EQ(vars, (Pairs{{"A", "x \"y\" $z \\ \\n"},
                         {"B", "single \\ quoted"},
                         {"C", "bare word"},
                         {"D", ""},
                         {"E", "abc"}}));
}

TEST(ShellAssignmentsTest, MalformedLinesAreSkipped) {
  auto vars = parseShellAssignments(
      "no equals sign\n=value\n1ABC=x\nA-B=x\nOPEN=\"never closed\nSQ='open\nGOOD=yes\nLAST=\\");
  EXPECT_EQ(vars, (Pairs{{"GOOD", "yes"}, {"LAST", "\\"}}));
}

}  // namespace
}  // namespace velm
