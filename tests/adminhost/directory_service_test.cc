#include <gtest/gtest.h>

#include "adminhost/host_common.h"
#include "support/sandbox.h"

namespace velm {
namespace {

constexpr const char* kSearchPath = "rosterAttrStandard:SearchPath";
constexpr const char* kLocalPath = "rosterAttrStandard:LSPSearchPath";
using Strings = std::vector<std::string>;

class DirectoryServiceTest : public test::SandboxTest {
 protected:
  Strings searchPath() {
    PropertyList info = DSGetNodeInfo(0, {kLocalPath, kSearchPath});
    Strings out;
    const PropertyList* values = info.get(kSearchPath);
    if (!values || !values->isArray()) return {"(not an array)"};
    for (const auto& v : *values->asArray()) out.push_back(v.asString() ? *v.asString() : "?");
    return out;
  }
};

TEST_F(DirectoryServiceTest, LocalFilesAreTheLocalNode) {
  sandbox_.write("/etc/nsswitch.conf", "# comment\ngroup: files\npasswd:         files systemd\n");
  EXPECT_EQ(searchPath(), Strings{"/Local/Default"});
  PropertyList info = DSGetNodeInfo(0, {kLocalPath});
  ASSERT_TRUE(info.get(kLocalPath));
  EXPECT_EQ(*info.get(kLocalPath), PropertyList(PlistArray{PropertyList("/Local/Default")}));
  EXPECT_FALSE(info.get(kSearchPath));
}

TEST_F(DirectoryServiceTest, LdapSourceNamesItsServer) {
  sandbox_.write("/etc/nsswitch.conf", "passwd: files [NOTFOUND=return] ldap # trailing\n");
  sandbox_.write("/etc/ldap/ldap.conf", "# URI ldap://old.example\nBASE dc=example\nURI ldaps://dir.example.com:636/ ldap://b\n");
  EXPECT_EQ(searchPath(), (Strings{"/Local/Default", "/LDAPv3/dir.example.com"}));
  sandbox_.write("/etc/nslcd.conf", "uri DNS\nuri ldap://[fd00::1]:389/\n");
  EXPECT_EQ(searchPath(), (Strings{"/Local/Default", "/LDAPv3/fd00::1"}));
}

TEST_F(DirectoryServiceTest, LdapWithoutAServerIsLeftOut) {
  sandbox_.write("/etc/nsswitch.conf", "passwd: ldap files\n");
  EXPECT_EQ(searchPath(), Strings{"/Local/Default"});
}

TEST_F(DirectoryServiceTest, SssdDomainsInTheirListedOrder) {
  sandbox_.write("/etc/nsswitch.conf", "passwd: sss files\n");
  sandbox_.write("/etc/sssd/sssd.conf",
                 "[sssd]\nservices = nss\ndomains = corp, ad\n\n"
                 "[domain/ad]\nid_provider = ad\nad_server = _srv_, dc1.ad.example\n"
                 "[domain/unused]\nid_provider = ldap\nldap_uri = ldap://unused.example\n"
                 "[domain/corp]\nid_provider = ldap\nldap_uri = ldaps://ldap.corp.example, ldap://backup\n");
  EXPECT_EQ(searchPath(), (Strings{"/LDAPv3/ldap.corp.example", "/LDAPv3/dc1.ad.example", "/Local/Default"}));
}

TEST_F(DirectoryServiceTest, MissingNsswitchMeansLocalFiles) {
  EXPECT_EQ(searchPath(), Strings{"/Local/Default"});
  sandbox_.write("/etc/nsswitch.conf", "group: ldap\n");
  EXPECT_EQ(searchPath(), Strings{"/Local/Default"});
}

TEST_F(DirectoryServiceTest, OtherNodesAndAttributesGiveNothing) {
  EXPECT_EQ(DSGetNodeInfo(1, {kSearchPath}).size(), 0u);
  PropertyList info = DSGetNodeInfo(0, {"rosterAttrStandard:RecordName"});
  EXPECT_TRUE(info.isDict());
  EXPECT_EQ(info.size(), 0u);
}

TEST_F(DirectoryServiceTest, GarbageFilesDoNotBreakTheAnswer) {
  sandbox_.write("/etc/nsswitch.conf", std::string("passwd: files \0 sss ldap\n[[[\n", 27));
  sandbox_.write("/etc/sssd/sssd.conf", "key = before section\n[domain/x\n[domain/y]\nid_provider=ldap\n");
  sandbox_.write("/etc/ldap.conf", "uri\nhost :389\nuri ldap:///\n");
  Strings path = searchPath();
  ASSERT_FALSE(path.empty());
  EXPECT_EQ(path[0], "/Local/Default");
}

}  // namespace
}  // namespace velm
