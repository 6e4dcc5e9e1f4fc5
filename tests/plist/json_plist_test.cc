#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>

#include "plist/plist.h"
#include "plist/plist_json.h"

namespace velm {
namespace {

PropertyList readOk(std::string_view text) {
  PlistReadResult r = readJson(text);
  EXPECT_TRUE(r) << r.error << "\n" << text;
  return r ? *r.value : PropertyList();
}

PropertyList everyType() {
  PropertyList v = PropertyList::dict();
  v.set("text", "caf\xc3\xa9 \"quoted\" \\ tab\t line\n");
  v.set("negative", -42);
  v.set("big", static_cast<unsigned long long>(std::numeric_limits<std::uint64_t>::max()));
  v.set("real", 2.0);
  v.set("tiny", 1.5e-300);
  v.set("yes", true);
  v.set("when", PlistDate{800000000});
  v.set("bytes", PlistData{0, 1, 2, 0xff});
  v.set("empty", PropertyList::dict());
  v.set("list", PlistArray{PropertyList(1), PropertyList::array(), PropertyList("two")});
  return v;
}

TEST(JsonPlistTest, EveryTypeReadsBackAsTheSameValueInBothLayouts) {
  PropertyList v = everyType();
  for (JsonLayout layout : {JsonLayout::Compact, JsonLayout::Indented}) {
    std::string json = writeJson(v, layout);
    PropertyList back = readOk(json);
    EXPECT_EQ(back, v) << json;
    EXPECT_EQ(back.get("big")->asInteger()->isUnsigned, true);
    EXPECT_TRUE(back.get("real")->isReal());
    EXPECT_EQ(writeJson(back, layout), json);
  }
  std::string compact = writeJson(v, JsonLayout::Compact);
  EXPECT_EQ(compact.find('\n'), std::string::npos);
  EXPECT_NE(compact.find(R"("when":{"$date":"2026-05-09T06:13:20Z"})"), std::string::npos) << compact;
  EXPECT_NE(compact.find(R"("bytes":{"$data":"AAEC/w=="})"), std::string::npos) << compact;
  EXPECT_NE(compact.find(R"("real":2.0)"), std::string::npos) << compact;
}

TEST(JsonPlistTest, NumbersKeepTheirKind) {
  PropertyList v = readOk(R"({"i": 7, "neg": -9223372036854775808, "max": 9223372036854775807,
                              "u": 9223372036854775808, "r": 7.0, "e": 1e3})");
  EXPECT_TRUE(v.get("i")->isInteger());
  EXPECT_FALSE(v.get("i")->asInteger()->isUnsigned);
  EXPECT_EQ(v.get("neg")->int64Value(), std::numeric_limits<std::int64_t>::min());
  EXPECT_FALSE(v.get("max")->asInteger()->isUnsigned);
  EXPECT_TRUE(v.get("u")->asInteger()->isUnsigned);
  EXPECT_TRUE(v.get("r")->isReal());
  EXPECT_TRUE(v.get("e")->isReal());
  // Past the unsigned range JSON has only doubles; an integer that big is refused, not rounded.
  EXPECT_FALSE(readJson(R"({"huge": 1e400})"));
}

TEST(JsonPlistTest, TextIsCleanedAsTheXmlReaderCleansIt) {
  PropertyList v = readOk(R"({"a\u0001": "x\u0000y", "ok": "\t\n\r"})");
  const std::string fffd = "\xef\xbf\xbd";
  EXPECT_EQ(*v.getString("a" + fffd), "x" + fffd + "y");
  EXPECT_EQ(*v.getString("ok"), "\t\n\r");
  // The same request as XML reaches a plugin as the same value.
  PropertyList viaXml = *readXmlPlist(writeXmlPlist(v)).value;
  EXPECT_EQ(viaXml, v);
}

TEST(JsonPlistTest, WhatHasNoPlistFormIsRefused) {
  for (const char* bad : {"", "{", "{}}", "{\"a\": null}", "[null]", "{\"a\": 1,}", "{'a': 1}",
                          "{\"a\": \"\xff\"}", "{\"when\": {\"$date\": \"yesterday\"}}",
                          "{\"bytes\": {\"$data\": \"!!\"}}", "{\"when\": {\"$date\": 5}}", "NaN",
                          "{\"a\": 1} {\"b\": 2}"})
    EXPECT_FALSE(readJson(bad)) << bad;
  PlistReadOptions dictOnly;
  dictOnly.requireDictionary = true;
  EXPECT_TRUE(readJson("[1]"));
  PlistReadResult r = readJson("[1]", dictOnly);
  EXPECT_FALSE(r);
  EXPECT_FALSE(r.error.empty());
  // A dictionary with more than the tag is an ordinary dictionary.
  PropertyList v = readOk(R"({"$date": "x", "other": 1})");
  EXPECT_EQ(v.size(), 2u);
}

TEST(JsonPlistTest, DepthIsBoundedAndDuplicateKeysKeepTheLast) {
  std::string deep = std::string(100000, '[') + std::string(100000, ']');
  EXPECT_FALSE(readJson(deep));
  PlistReadOptions shallow;
  shallow.maxDepth = 3;
  EXPECT_TRUE(readJson("[[[1]]]", shallow));
  EXPECT_FALSE(readJson("[[[[1]]]]", shallow));
  EXPECT_EQ(readOk(R"({"k": 1, "k": 2})").get("k")->int64Value(), 2);
}

}  // namespace
}  // namespace velm
