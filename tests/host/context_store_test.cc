#include "adminhost/context_store.h"

#include <sys/stat.h>

#include <cerrno>
#include <algorithm>
#include <filesystem>

#include "platform/clock.h"
#include "support/log_capture.h"
#include "support/sandbox.h"

namespace velm {
namespace {

class ContextStoreTest : public test::SandboxTest {
 protected:
  std::vector<std::string> asideFiles() const {
    std::vector<std::string> out;
    std::error_code ec;
    for (const auto& e : std::filesystem::directory_iterator(sandbox_.path("/var/adminhostd/context"), ec))
      if (e.path().filename().string().find(".corrupt-") != std::string::npos) out.push_back(e.path().filename());
    std::sort(out.begin(), out.end());
    return out;
  }
};

TEST_F(ContextStoreTest, MissingContextIsEmptyAndLogged) {
  test::LogCapture log;
  PropertyList c = loadPluginContext("velm");
  EXPECT_TRUE(c.isDict());
  EXPECT_EQ(c.size(), 0u);
  EXPECT_TRUE(log.contains("no saved context for plugin velm"));
}

TEST_F(ContextStoreTest, SavedContextLoadsBackWithoutItsDirtyFlag) {
  PropertyList c = PropertyList::dict();
  c.set("history", PlistData{0, 1, 2, 255});
  c.set("NICs", PlistArray{PropertyList("en0")});
  c.set("contextDirty", true);
  ASSERT_EQ(savePluginContext("velm", c), 0);
  struct stat st {};
  ASSERT_EQ(::stat(pluginContextPath("velm").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  PropertyList back = loadPluginContext("velm");
  EXPECT_EQ(back.get("contextDirty"), nullptr);
  c.erase("contextDirty");
  EXPECT_EQ(back, c);
}

TEST_F(ContextStoreTest, CorruptContextsAreKeptAsideEachUnderItsOwnName) {
  ScopedFakeClock fake;  // both corruptions in the same second
  test::LogCapture log;
  const std::string kinds[] = {"<plist><dict><key>x</key>", "not xml at all",
                               "<?xml version=\"1.0\"?><plist version=\"1.0\"><array/></plist>"};
  for (const std::string& text : kinds) {
    sandbox_.write("/var/adminhostd/context/velm.plist", text);
    PropertyList c = loadPluginContext("velm");
    EXPECT_TRUE(c.isDict());
    EXPECT_EQ(c.size(), 0u);
    EXPECT_FALSE(sandbox_.exists("/var/adminhostd/context/velm.plist"));
  }
  std::vector<std::string> aside = asideFiles();
  ASSERT_EQ(aside.size(), 3u);
  EXPECT_EQ(aside[0], "velm.plist.corrupt-20231114T221320Z");
  EXPECT_EQ(aside[1], "velm.plist.corrupt-20231114T221320Z-2");
  EXPECT_EQ(aside[2], "velm.plist.corrupt-20231114T221320Z-3");
  EXPECT_EQ(sandbox_.read("/var/adminhostd/context/" + aside[0]), kinds[0]);
  EXPECT_EQ(sandbox_.read("/var/adminhostd/context/" + aside[2]), kinds[2]);
  EXPECT_TRUE(log.contains("kept as"));
}

TEST_F(ContextStoreTest, NamesThatAreNotFileNamesAreRefused) {
  for (const char* name : {"", ".", "..", "a/b", "../velm"}) {
    EXPECT_EQ(pluginContextPath(name), "") << name;
    EXPECT_EQ(savePluginContext(name, PropertyList::dict()), EINVAL) << name;
    EXPECT_TRUE(loadPluginContext(name).isDict()) << name;
  }
  EXPECT_EQ(savePluginContext("velm", PropertyList("not a dict")), EINVAL);
}

TEST(ContextDirtyTest, TheFlagIsTakenByItsBooleanValue) {
  struct Row {
    PropertyList flag;
    bool dirty;
  } rows[] = {{PropertyList(true), true}, {PropertyList(false), false}, {PropertyList(1), true},
              {PropertyList(0), false},   {PropertyList("yes"), false}, {PropertyList(), false}};
  for (const Row& row : rows) {
    PropertyList c = PropertyList::dict();
    c.set("keep", 1);
    if (!row.flag.isNull()) c.set("contextDirty", row.flag);
    EXPECT_EQ(takeContextDirty(&c), row.dirty);
    EXPECT_EQ(c.get("contextDirty"), nullptr);
    EXPECT_EQ(c.size(), 1u);
  }
}

}  // namespace
}  // namespace velm
