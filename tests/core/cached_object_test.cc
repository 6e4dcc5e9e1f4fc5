#include "model/cached_object.h"

#include <gtest/gtest.h>

#include <map>

#include "support/log_capture.h"
#include "support/sandbox.h"

namespace velm {
namespace {

class Counting : public CachedObject {
 public:
  Counting() {
    registerReader("readAlpha", [this] { return value("alpha"); });
    registerReader("readBeta", [this] { return value("beta"); });
    registerReader("readNothing", [this] { return value("nothing"); });
  }
  PropertyList value(const std::string& key) {
    ++calls[key];
    return key == "nothing" ? PropertyList() : PropertyList(key + std::to_string(calls[key]));
  }
  std::map<std::string, int> calls;

 protected:
  PlistArray readValidKeys() override { return {"alpha", "beta", "nothing"}; }
};

class Hooked : public Counting {
 public:
  Hooked() {
    registerNotificationHook("setupNotificationsForAlpha", [this] { ++hooks["Alpha"]; });
    registerNotificationHook("setupNotificationsForGamma", [this] { ++hooks["Gamma"]; });
  }
  std::map<std::string, int> hooks;
};

class CachedObjectTest : public test::SandboxTest {
 protected:
  test::LogCapture log_;
  Counting object_;
};

TEST_F(CachedObjectTest, ValuesAreReadOnceAndKept) {
  EXPECT_EQ(*object_.objectValueForKey("alpha").asString(), "alpha1");
  EXPECT_EQ(*object_.objectValueForKey("alpha").asString(), "alpha1");
  EXPECT_EQ(object_.calls["alpha"], 1);
}

TEST_F(CachedObjectTest, ANullReaderIsAskedAgainAndLeftOutOfProperties) {
  EXPECT_TRUE(object_.objectValueForKey("nothing").isNull());
  EXPECT_TRUE(object_.objectValueForKey("nothing").isNull());
  EXPECT_EQ(object_.calls["nothing"], 2);
  const PropertyList& p = object_.properties();
  EXPECT_EQ(p.size(), 2u);
  EXPECT_FALSE(p.get("nothing"));
}

TEST_F(CachedObjectTest, ShortKeysAndKeysWithoutReadersAreLogged) {
  EXPECT_TRUE(object_.objectValueForKey("a").isNull());
  EXPECT_TRUE(log_.contains("ERROR: reloadObjectValueForKey: Invalid key: a"));
  object_.objectValueForKey("gamma");
  object_.objectValueForKey("gamma");
  EXPECT_EQ(log_.count("ERROR: reloadObjectValueForKey: Invalid command: readGamma"), 2u);
}

TEST_F(CachedObjectTest, PropertiesTwiceReadsOnce) {
  object_.properties();
  object_.properties();
  EXPECT_EQ(object_.calls["alpha"], 1);
  EXPECT_EQ(object_.calls["beta"], 1);
}

TEST_F(CachedObjectTest, ClearCacheAfterPropertiesLeavesAnEmptyAnswer) {
  object_.properties();
  object_.clearCache();
  // Deliberate gap: the dirty flag is not raised by clearCache.
  EXPECT_EQ(object_.properties().size(), 0u);
  object_.objectValueForKey("beta");
  EXPECT_EQ(object_.properties().size(), 2u);
  EXPECT_EQ(object_.calls["alpha"], 2);
}

TEST_F(CachedObjectTest, InvalidatingOneKeyRereadsOnlyThatKey) {
  object_.properties();
  object_.invalidateObjectValueForKey("beta");
  const PropertyList& p = object_.properties();
  EXPECT_EQ(*p.getString("beta"), "beta2");
  EXPECT_EQ(object_.calls["alpha"], 1);
}

TEST_F(CachedObjectTest, SetWithoutKeyChangesNothing) {
  object_.properties();
  ASSERT_FALSE(object_.dirtyForTest());
  object_.setObjectValue("x", std::nullopt);
  EXPECT_FALSE(object_.dirtyForTest());
  object_.setObjectValue("x", "alpha");
  EXPECT_TRUE(object_.dirtyForTest());
  EXPECT_EQ(*object_.objectValueForKey("alpha").asString(), "x");
}

TEST_F(CachedObjectTest, NotificationHookRunsAfterEveryReloadEvenWithoutAReader) {
  Hooked object;
  object.objectValueForKey("alpha");
  object.objectValueForKey("alpha");  // cached: no reload, no hook
  object.invalidateObjectValueForKey("alpha");
  object.objectValueForKey("alpha");
  EXPECT_EQ(object.hooks["Alpha"], 2);
  object.objectValueForKey("gamma");
  EXPECT_EQ(object.hooks["Gamma"], 1);
}

}  // namespace
}  // namespace velm
