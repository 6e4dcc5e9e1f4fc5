#include "host/admin_token.h"

#include <sys/stat.h>

#include <cerrno>
#include <vector>

#include "support/sandbox.h"

namespace velm {
namespace {

class AdminTokenTest : public test::SandboxTest {
 protected:
  std::string path() const { return sandbox_.path("/var/adminhostd/admin.token"); }
  unsigned mode() const {
    struct stat st {};
    return ::stat(path().c_str(), &st) == 0 ? (st.st_mode & 0777) : 0;
  }
};

TEST_F(AdminTokenTest, FirstStartMakesAPrivateRandomToken) {
  AdminToken first = loadOrCreateAdminToken(path());
  ASSERT_EQ(first.status, 0);
  EXPECT_TRUE(first.created);
  EXPECT_EQ(first.token.size(), 64u);
  EXPECT_EQ(first.token.find_first_not_of("0123456789abcdef"), std::string::npos);
  EXPECT_EQ(mode(), 0600u);
  AdminToken again = loadOrCreateAdminToken(path());
  EXPECT_FALSE(again.created);
  EXPECT_EQ(again.token, first.token);
  // Another root, another token.
  test::SandboxRoot other;
  EXPECT_NE(loadOrCreateAdminToken(other.path("/t")).token, first.token);
}

TEST_F(AdminTokenTest, AnAdministratorsTokenIsTrimmedAndMadePrivate) {
  std::string mine(40, 'Z');
  sandbox_.write("/var/adminhostd/admin.token", "  " + mine + "\n", 0644);
  AdminToken t = loadOrCreateAdminToken(path());
  ASSERT_EQ(t.status, 0);
  EXPECT_EQ(t.token, mine);
  EXPECT_EQ(mode(), 0600u);
}

TEST_F(AdminTokenTest, UnusableTokenFilesAreRefusedNotReplaced) {
  for (std::string content : {std::string(""), std::string("short"), std::string(40, 'a') + " b", std::string(40, '\x01')}) {
    sandbox_.write("/var/adminhostd/admin.token", content, 0600);
    EXPECT_EQ(loadOrCreateAdminToken(path()).status, EINVAL);
    EXPECT_EQ(sandbox_.read("/var/adminhostd/admin.token"), content);
  }
}

TEST(BearerTokenTest, OnlyTheExactTokenMatches) {
  std::string token(64, 'a');
  token[10] = 'b';
  EXPECT_TRUE(bearerTokenMatches("Bearer " + token, token));
  EXPECT_TRUE(bearerTokenMatches("bearer " + token, token));
  EXPECT_TRUE(bearerTokenMatches("BEARER " + token, token));
  for (const std::string& bad : std::vector<std::string>{"", "Bearer", "Bearer ", "Basic " + token, "Bearer  " + token,
                          "Bearer " + token.substr(0, 63), "Bearer " + token + "a", "Bearer " + std::string(64, 'a'),
                          token}) {
    EXPECT_FALSE(bearerTokenMatches(bad, token)) << bad;
  }
  EXPECT_FALSE(bearerTokenMatches("Bearer ", ""));
}

}  // namespace
}  // namespace velm
