#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "plist/plist.h"
#include "support/sandbox.h"

namespace velm {
namespace {

constexpr std::string_view kHead =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
    "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
    "<plist version=\"1.0\">\n";

std::string doc(std::string_view body) {
  return std::string(kHead) + std::string(body) + "</plist>\n";
}

PropertyList readOk(std::string_view text) {
  PlistReadResult r = readXmlPlist(text);
  EXPECT_TRUE(r) << r.error << "\n" << text;
  return r ? *r.value : PropertyList();
}

PropertyList roundTrip(const PropertyList& v) {
  std::string xml = writeXmlPlist(v);
  PlistReadResult r = readXmlPlist(xml);
  EXPECT_TRUE(r) << r.error << "\n" << xml;
  if (!r) return PropertyList();
  EXPECT_EQ(writeXmlPlist(*r.value), xml);
  return *r.value;
}

PlistData bytes(std::initializer_list<int> b) {
  PlistData d;
  for (int x : b) d.push_back(static_cast<std::uint8_t>(x));
  return d;
}

TEST(XmlPlistWriter, SmallDocumentIsByteExact) {
  PropertyList v = PropertyList::dict();
  v.set("name", "R&D <lab>");
  v.set("count", 42);
  v.set("big", static_cast<unsigned long long>(UINT64_MAX));
  v.set("ratio", 0.25);
  v.set("on", true);
  v.set("off", false);
  v.set("when", PlistDate{817034400});
  v.set("blob", bytes({0, 1, 2, 3, 4}));
  v.set("none", PlistDict{});
  v.set("list", PlistArray{PropertyList("a"), PropertyList(PlistArray{}), PropertyList(-7)});
  v.set("empty", "");
  v.set("skipped", PropertyList());
  EXPECT_EQ(writeXmlPlist(v), doc("<dict>\n"
                                  "\t<key>big</key>\n"
                                  "\t<integer>18446744073709551615</integer>\n"
                                  "\t<key>blob</key>\n"
                                  "\t<data>\n"
                                  "\tAAECAwQ=\n"
                                  "\t</data>\n"
                                  "\t<key>count</key>\n"
                                  "\t<integer>42</integer>\n"
                                  "\t<key>empty</key>\n"
                                  "\t<string></string>\n"
                                  "\t<key>list</key>\n"
                                  "\t<array>\n"
                                  "\t\t<string>a</string>\n"
                                  "\t\t<array/>\n"
                                  "\t\t<integer>-7</integer>\n"
                                  "\t</array>\n"
                                  "\t<key>name</key>\n"
                                  "\t<string>R&amp;D &lt;lab&gt;</string>\n"
                                  "\t<key>none</key>\n"
                                  "\t<dict/>\n"
                                  "\t<key>off</key>\n"
                                  "\t<false/>\n"
                                  "\t<key>on</key>\n"
                                  "\t<true/>\n"
                                  "\t<key>ratio</key>\n"
                                  "\t<real>0.25</real>\n"
                                  "\t<key>when</key>\n"
                                  "\t<date>2026-11-22T10:00:00Z</date>\n"
                                  "</dict>\n"));
}

TEST(XmlPlistWriter, ScalarsAtTheTopAndNull) {
  EXPECT_EQ(writeXmlPlist(PropertyList("x")), doc("<string>x</string>\n"));
  EXPECT_EQ(writeXmlPlist(PropertyList::array()), doc("<array/>\n"));
  EXPECT_EQ(writeXmlPlist(PropertyList()), doc(""));
  EXPECT_FALSE(readXmlPlist(writeXmlPlist(PropertyList())));
}

TEST(XmlPlistWriter, LongDataWrapsShorterWhenDeeper) {
  PlistData d(200, 0xAB);
  std::string top = writeXmlPlist(PropertyList(d));
  EXPECT_NE(top.find("\n" + base64Encode(PlistData(57, 0xAB)) + "\n"), std::string::npos);
  PropertyList nested = PropertyList::dict();
  nested.set("d", d);
  std::string inner = writeXmlPlist(nested);
  EXPECT_NE(inner.find("\n\t" + base64Encode(PlistData(51, 0xAB)) + "\n"), std::string::npos);
  EXPECT_EQ(*roundTrip(nested).get("d")->asData(), d);
}

TEST(XmlPlistRoundTrip, EveryScalarKeepsItsValue) {
  const PropertyList values[] = {
      PropertyList(""),
      PropertyList("plain"),
      PropertyList("a & b < c > d ]]> \"q\" 'a'"),
      PropertyList("h\xC3\xA9llo \xE2\x9C\x93 \xF0\x9D\x84\x9E"),
      PropertyList("line1\nline2\ttab"),
      PropertyList("cr\r\nlf"),
      PropertyList("   "),
      PropertyList("<![CDATA[x]]>"),
      PropertyList(0),
      PropertyList(-1),
      PropertyList(std::numeric_limits<long long>::min()),
      PropertyList(std::numeric_limits<long long>::max()),
      PropertyList(std::numeric_limits<unsigned long long>::max()),
      PropertyList(static_cast<unsigned long long>(INT64_MAX) + 1),
      PropertyList(0.0),
      PropertyList(-0.0),
      PropertyList(0.1),
      PropertyList(1e300),
      PropertyList(-1e-300),
      PropertyList(5e-324),
      PropertyList(1e16),
      PropertyList(1e17),
      PropertyList(123456789.125),
      PropertyList(1.0 / 3),
      PropertyList(100000.0),
      PropertyList(0.0001),
      PropertyList(0.00001),
      PropertyList(std::numeric_limits<double>::infinity()),
      PropertyList(-std::numeric_limits<double>::infinity()),
      PropertyList(true),
      PropertyList(false),
      PropertyList(PlistDate{0}),
      PropertyList(PlistDate{-978307200}),
      PropertyList(PlistDate{817034400}),
      PropertyList(PlistDate{-63145526400.0}),
      PropertyList(PlistDate{252423993599.0}),
      PropertyList(PlistData{}),
      PropertyList(bytes({0xff})),
      PropertyList(bytes({1, 2})),
      PropertyList(bytes({1, 2, 3})),
      PropertyList(PlistData(100, 7)),
  };
  for (const PropertyList& v : values) {
    PropertyList back = roundTrip(v);
    EXPECT_EQ(back, v) << describe(v) << " came back as " << describe(back);
    if (v.isReal()) {
      EXPECT_EQ(std::signbit(*v.asReal()), std::signbit(*back.asReal())) << describe(v);
    }
  }
  PropertyList nan = roundTrip(PropertyList(std::numeric_limits<double>::quiet_NaN()));
  ASSERT_TRUE(nan.isReal());
  EXPECT_TRUE(std::isnan(*nan.asReal()));
}

TEST(XmlPlistRoundTrip, NestedContainersAndOddKeys) {
  PropertyList v = PropertyList::dict();
  PropertyList inner = PropertyList::dict();
  inner.set("", "empty key");
  inner.set("a<b&c",
            PlistArray{PropertyList(PlistDict{}), PropertyList(PlistArray{PropertyList(1.5)})});
  inner.set("\xC3\xBC", PropertyList(PlistDate{1}));
  v.set("inner", inner);
  PropertyList rows = PropertyList::array();
  for (int i = 0; i < 5; ++i) {
    PropertyList row = PropertyList::dict();
    row.set("i", i);
    row.set("data", bytes({i, i + 1}));
    rows.push(row);
  }
  v.set("rows", rows);
  EXPECT_EQ(roundTrip(v), v);
}

TEST(XmlPlistRoundTrip, WhatXmlCannotCarryIsReplacedTheSameWayBothWays) {
  // Control characters and broken UTF-8 become U+FFFD when written and when read.
  PropertyList v = PropertyList::dict();
  v.set(std::string("k\x01", 2), std::string("a\0b\x1b[0m\xff\xc3", 9));
  std::string xml = writeXmlPlist(v);
  PropertyList back = readOk(xml);
  const std::string fffd = "\xEF\xBF\xBD";
  EXPECT_EQ(*back.getString("k" + fffd), "a" + fffd + "b" + fffd + "[0m" + fffd + fffd);
  EXPECT_EQ(writeXmlPlist(back), xml);
  EXPECT_EQ(*readOk(doc("<string>x&#1;y\x02</string>")).asString(), "x" + fffd + "y" + fffd);
  // A reference to NUL would cut the text (or a key) short without a word: it is refused.
  for (const char* bad : {"<string>ab&#0;cd</string>", "<dict><key>a&#x000;x</key><true/></dict>"}) {
    PlistReadResult r = readXmlPlist(doc(bad));
    EXPECT_FALSE(r) << bad;
    EXPECT_NE(r.error.find("reference to NUL"), std::string::npos) << r.error;
  }
  EXPECT_EQ(*readOk(doc("<string>&#10;&#x30;</string>")).asString(), "\n0");
}

TEST(XmlPlistRoundTrip, DepthUpToTheLimitReads) {
  PlistReadOptions options;
  options.maxDepth = 40;
  PropertyList v("leaf");
  for (int i = 0; i < 40; ++i) v = PropertyList(PlistArray{v});
  PlistReadResult r = readXmlPlist(writeXmlPlist(v), options);
  ASSERT_TRUE(r) << r.error;
  EXPECT_EQ(*r.value, v);
  v = PropertyList(PlistArray{v});
  r = readXmlPlist(writeXmlPlist(v), options);
  EXPECT_FALSE(r);
  EXPECT_NE(r.error.find("nesting deeper than 40"), std::string::npos) << r.error;
}

TEST(XmlPlistReader, AcceptsTheFormsOtherWritersUse) {
  struct Row {
    std::string_view text;
    PropertyList expected;
  };
  const Row rows[] = {
      {"<plist version=\"1.0\"><string/></plist>", PropertyList("")},
      {"<plist><dict/></plist>", PropertyList::dict()},
      {"<plist><array></array></plist>", PropertyList::array()},
      {"<plist><string>&lt;&amp;&gt;&quot;&apos;&#65;&#x42;&#xE9;</string></plist>",
       PropertyList("<&>\"'AB\xC3\xA9")},
      {"<plist><string><![CDATA[<x>&]]></string></plist>", PropertyList("<x>&")},
      {"<plist><string>a<![CDATA[b]]>c</string></plist>", PropertyList("abc")},
      {"<plist><string>a\r\nb\rc</string></plist>", PropertyList("a\nb\nc")},
      {"<plist><string>  </string></plist>", PropertyList("  ")},
      {"<plist><data>\n\tAAEC\n\tAw==\n</data></plist>", PropertyList(bytes({0, 1, 2, 3}))},
      {"<plist><data>AAECAw</data></plist>", PropertyList(bytes({0, 1, 2, 3}))},
      {"<plist><data></data></plist>", PropertyList(PlistData{})},
      {"<plist><integer> 42\n</integer></plist>", PropertyList(42)},
      {"<plist><integer>+7</integer></plist>", PropertyList(7)},
      {"<plist><integer>-0</integer></plist>", PropertyList(0)},
      {"<plist><integer>0x1F</integer></plist>", PropertyList(31)},
      {"<plist><integer>18446744073709551615</integer></plist>", PropertyList(UINT64_MAX)},
      {"<plist><integer>-9223372036854775808</integer></plist>", PropertyList(INT64_MIN)},
      {"<plist><real>5</real></plist>", PropertyList(5.0)},
      {"<plist><real>+infinity</real></plist>", PropertyList(HUGE_VAL)},
      {"<plist><real>-infinity</real></plist>", PropertyList(-HUGE_VAL)},
      {"<plist><real>inf</real></plist>", PropertyList(HUGE_VAL)},
      {"<plist><real>1e400</real></plist>", PropertyList(HUGE_VAL)},
      {"<plist><real>-1e400</real></plist>", PropertyList(-HUGE_VAL)},
      {"<plist><real>1e-400</real></plist>", PropertyList(0.0)},
      {"<plist><real> -2.5E3 </real></plist>", PropertyList(-2500.0)},
      {"<plist><date>2026-11-22T10:00:00Z</date></plist>", PropertyList(PlistDate{817034400})},
      {"<plist><date>2026-11-22T11:00:00+01:00</date></plist>", PropertyList(PlistDate{817034400})},
      {"<plist><date>2026-11-22T10:00:00.75Z</date></plist>", PropertyList(PlistDate{817034400})},
      {"<plist><date>2026-11-22</date></plist>", PropertyList(PlistDate{817034400 - 36000})},
      {"<plist><date>2024-02-29T12:34:56Z</date></plist>", PropertyList(PlistDate{730902896})},
      {"<plist><true/></plist>", PropertyList(true)},
      {"<plist><false></false></plist>", PropertyList(false)},
      {"<dict><key>a</key><integer>1</integer></dict>", PropertyList(PlistDict{})},
      {"\xEF\xBB\xBF<?xml version=\"1.0\"?><!-- c --><plist><!-- x --><?pi x?><true/></plist>",
       PropertyList(true)},
  };
  for (const Row& row : rows) {
    PropertyList got = readOk(row.text);
    if (row.text.starts_with("<dict>")) {
      EXPECT_EQ(got.get("a")->int64Value(), 1);
      continue;
    }
    EXPECT_EQ(got, row.expected) << row.text << " read as " << describe(got);
  }
  PropertyList nan = readOk("<plist><real>nan</real></plist>");
  EXPECT_TRUE(nan.isReal() && std::isnan(*nan.asReal()));
  EXPECT_TRUE(
      readOk("<plist><integer>18446744073709551615</integer></plist>").asInteger()->isUnsigned);
  EXPECT_FALSE(
      readOk("<plist><integer>9223372036854775807</integer></plist>").asInteger()->isUnsigned);
}

TEST(XmlPlistReader, DictionaryKeysEndSortedAndTheLastDuplicateWins) {
  PropertyList d = readOk(
      "<plist><dict><key>b</key><integer>1</integer><key>a</key><integer>2</integer>"
      "<key>b</key><integer>3</integer></dict></plist>");
  ASSERT_EQ(d.size(), 2u);
  EXPECT_EQ(d.asDict()->begin()->first, "a");
  EXPECT_EQ(d.get("b")->int64Value(), 3);
}

TEST(XmlPlistReader, MalformedInputGivesAnErrorNeverACrash) {
  std::string deep;
  for (int i = 0; i < 600; ++i) deep += "<array>";
  for (int i = 0; i < 600; ++i) deep += "</array>";
  std::string veryDeep;
  for (int i = 0; i < 100000; ++i) veryDeep += "<dict><key>k</key>";
  struct Row {
    std::string text;
    std::string_view error;
  };
  const Row rows[] = {
      {"", "no plist element"},
      {"   \n", "no plist element"},
      {"<plist version=\"1.0\"><dict><key>a</key>", "malformed XML"},
      {"<plist><dict></array></plist>", "malformed XML"},
      {"<plist><string>a</plist>", "malformed XML"},
      {"<plist>" + deep + "</plist>", "nesting deeper than 512"},
      {"<plist>" + veryDeep, "malformed XML"},
      {"<plist><data>@@@@</data></plist>", "bad base64"},
      {"<plist><data>A</data></plist>", "bad base64"},
      {"<plist><data>AA==AA</data></plist>", "bad base64"},
      {"<plist><date>2026-13-01T00:00:00Z</date></plist>", "bad <date> \"2026-13-01T00:00:00Z\""},
      {"<plist><date>2026-02-29T00:00:00Z</date></plist>", "bad <date>"},
      {"<plist><date>2026-11-22T24:00:00Z</date></plist>", "bad <date>"},
      {"<plist><date>yesterday</date></plist>", "bad <date>"},
      {"<plist><date>2026-11-22T10:00:00Q</date></plist>", "bad <date>"},
      {"<plist><date></date></plist>", "bad <date>"},
      {"<plist><date>0000-01-01T00:00:00+01:00</date></plist>", "bad <date>"},
      {"<plist><integer>abc</integer></plist>", "bad <integer> \"abc\""},
      {"<plist><integer></integer></plist>", "bad <integer>"},
      {"<plist><integer>12abc</integer></plist>", "bad <integer>"},
      {"<plist><integer>1 2</integer></plist>", "bad <integer>"},
      {"<plist><integer>18446744073709551616</integer></plist>", "bad <integer>"},
      {"<plist><integer>-9223372036854775809</integer></plist>", "bad <integer>"},
      {"<plist><integer>--1</integer></plist>", "bad <integer>"},
      {"<plist><integer>0x</integer></plist>", "bad <integer>"},
      {"<plist><real>1.2.3</real></plist>", "bad <real>"},
      {"<plist><real></real></plist>", "bad <real>"},
      {"<plist><real>+-1</real></plist>", "bad <real>"},
      {"<plist><dict><key>a</key></dict></plist>", "key \"a\" has no value"},
      {"<plist><dict><key>a</key><key>b</key><string/></dict></plist>", "key \"a\" has no value"},
      {"<plist><dict><string>x</string></dict></plist>", "<string> in a <dict> without a <key>"},
      {"<plist><array><key>a</key></array></plist>", "<key> outside a dictionary"},
      {"<plist>hello</plist>", "text in the plist element"},
      {"hello", "text outside the plist element"},
      {"hello<plist><true/></plist>", "text outside the plist element"},
      {"<plist><true/></plist><plist><true/></plist>", "more than one top-level element"},
      {"<plist><true/></plist>junk", "text outside the plist element"},
      {"<plist><true/><false/></plist>", "more than one value"},
      {"<plist version=\"1.0\"></plist>", "holds no value"},
      {"<plist><foo/></plist>", "unknown element <foo>"},
      {"<plist><dict>junk<key>a</key><string/></dict></plist>", "text in a <dict>"},
      {"<plist><array><true/>junk</array></plist>", "text in an <array>"},
      {"<plist><string>a<b/>c</string></plist>", "element <b> inside <string>"},
      {"<plist><true>yes</true></plist>", "text in <true>"},
      {"<plist><plist><true/></plist></plist>", "<plist> inside a value"},
  };
  for (const Row& row : rows) {
    PlistReadResult r = readXmlPlist(row.text);
    EXPECT_FALSE(r) << row.text.substr(0, 200);
    EXPECT_NE(r.error.find(row.error), std::string::npos)
        << "input: " << row.text.substr(0, 200) << "\nerror: " << r.error;
  }
}

TEST(XmlPlistReader, ErrorsSayWhichLine) {
  PlistReadResult r =
      readXmlPlist(doc("<dict>\n\t<key>n</key>\n\t<integer>x</integer>\n</dict>\n"));
  ASSERT_FALSE(r);
  EXPECT_EQ(r.error, "line 6: bad <integer> \"x\"");
}

TEST(XmlPlistReader, RequireDictionaryRefusesOtherTopLevels) {
  PlistReadOptions options;
  options.requireDictionary = true;
  EXPECT_FALSE(readXmlPlist(doc("<array/>"), options));
  EXPECT_TRUE(readXmlPlist(doc("<dict/>"), options));
}

TEST(XmlPlistReader, ThreadsReadAtTheSameTime) {
  // Each thread parses in its own reused buffer; documents of changing sizes must not mix.
  std::vector<std::string> docs;
  std::vector<PropertyList> values;
  for (int n : {1, 300, 5, 3000}) {
    PropertyList v = PropertyList::array();
    for (int i = 0; i < n; ++i) v.push("item " + std::to_string(i));
    values.push_back(v);
    docs.push_back(writeXmlPlist(v));
  }
  std::atomic<int> mismatches{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      // An empty text first, while the thread has no buffer yet.
      if (readXmlPlist("")) ++mismatches;
      for (int i = 0; i < 40; ++i) {
        size_t k = static_cast<size_t>(i + t) % docs.size();
        PlistReadResult r = readXmlPlist(docs[k]);
        if (!r || !(*r.value == values[k])) ++mismatches;
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(mismatches.load(), 0);
}

class XmlPlistFileTest : public test::SandboxTest {};

TEST_F(XmlPlistFileTest, WritesWholeWithModeAndReadsBack) {
  std::string path = sandbox_.path("/conf/a.plist");
  std::filesystem::create_directories(sandbox_.path("/conf"));
  PropertyList v = PropertyList::dict();
  v.set("secret", "x");
  ASSERT_EQ(writeXmlPlistFile(path, v, 0600), 0);
  struct stat st {};
  ASSERT_EQ(::stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_EQ(readDictionaryFile(path), v);
  v.set("more", 1);
  ASSERT_EQ(writeXmlPlistFile(path, v), 0);
  EXPECT_EQ(readDictionaryFile(path), v);
  size_t files = 0;
  for (const auto& e : std::filesystem::directory_iterator(sandbox_.path("/conf")))
    files += e.is_regular_file();
  EXPECT_EQ(files, 1u) << "temporary files left behind";
}

TEST_F(XmlPlistFileTest, FailuresLeaveNothingAndSayWhy) {
  EXPECT_EQ(writeXmlPlistFile(sandbox_.path("/missing/dir/a.plist"), PropertyList::dict()), ENOENT);
  PlistReadResult r = readXmlPlistFile(sandbox_.path("/nope.plist"));
  EXPECT_FALSE(r);
  EXPECT_NE(r.error.find("nope.plist"), std::string::npos) << r.error;
  EXPECT_FALSE(readXmlPlistFile(sandbox_.root()));
  std::string arrayFile = sandbox_.write("/array.plist", doc("<array/>"));
  EXPECT_TRUE(readXmlPlistFile(arrayFile));
  EXPECT_FALSE(readDictionaryFile(arrayFile));
  std::string bad = sandbox_.write("/bad.plist", doc("<dict><key>a</key></dict>"));
  r = readXmlPlistFile(bad);
  EXPECT_NE(r.error.find("bad.plist: line 4: key \"a\" has no value"), std::string::npos)
      << r.error;
  EXPECT_FALSE(readDictionaryFile(sandbox_.write("/empty.plist", "")));
}

TEST(Base64, DecodesWhatItEncodesAndRefusesJunk) {
  for (size_t n = 0; n < 10; ++n) {
    PlistData d;
    for (size_t i = 0; i < n; ++i) d.push_back(static_cast<std::uint8_t>(i * 37 + 200));
    EXPECT_EQ(base64Decode(base64Encode(d)), d);
  }
  EXPECT_EQ(base64Encode(bytes({'M', 'a', 'n'})), "TWFu");
  EXPECT_EQ(base64Decode(" TW\nFu "), bytes({'M', 'a', 'n'}));
  EXPECT_FALSE(base64Decode("TW=u"));
  EXPECT_FALSE(base64Decode("TWFu!"));
  EXPECT_FALSE(base64Decode("=AAA"));
}

}  // namespace
}  // namespace velm
