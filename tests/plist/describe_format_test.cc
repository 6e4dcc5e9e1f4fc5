#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <limits>
#include <string>
#include <vector>

#include "plist/format.h"
#include "plist/plist.h"

namespace velm {
namespace {

using format_detail::Cat;

template <size_t N>
consteval bool ok(std::string_view f, const Cat (&cats)[N]) {
  return format_detail::check(f, std::span<const Cat>(cats, N));
}
consteval bool ok(std::string_view f) { return format_detail::check(f, std::span<const Cat>()); }

// Formats that compile...
static_assert(ok("%s: %@ took %.2f seconds", {Cat::String, Cat::Plist, Cat::Double}));
static_assert(ok("%@", {Cat::String}));
static_assert(ok("%2$@ then %1$d", {Cat::Integer, Cat::Plist}));
static_assert(ok("%1$*2$d", {Cat::Integer, Cat::Integer}));
static_assert(ok("%.*f GHz", {Cat::Integer, Cat::Double}));
static_assert(ok("%-10s|%05lld|%zu|%hhx|%c|%p", {Cat::String, Cat::Integer, Cat::Integer,
                                                 Cat::Integer, Cat::Integer, Cat::Pointer}));
static_assert(ok("100%% done"));
// ...and formats that don't.
static_assert(!ok("%d", {Cat::String}));
static_assert(!ok("%s", {Cat::Plist}));
static_assert(!ok("%@", {Cat::Integer}));
static_assert(!ok("%f", {Cat::Integer}));
static_assert(!ok("%d %d", {Cat::Integer}));
static_assert(!ok("%d", {Cat::Integer, Cat::Integer}));
static_assert(!ok("%1$d %d", {Cat::Integer, Cat::Integer}));
static_assert(!ok("50%"));
static_assert(!ok("%y", {Cat::Integer}));
static_assert(!ok("%n", {Cat::Integer}));
static_assert(!ok("%*d", {Cat::Integer}));
static_assert(format_detail::categoryOf<const char*>() == Cat::String);
static_assert(format_detail::categoryOf<char[6]>() == Cat::String);
static_assert(format_detail::categoryOf<std::string>() == Cat::String);
static_assert(format_detail::categoryOf<const PropertyList*>() == Cat::Plist);
static_assert(format_detail::categoryOf<size_t>() == Cat::Integer);

PlistData bytes(std::initializer_list<int> b) {
  PlistData d;
  for (int x : b) d.push_back(static_cast<std::uint8_t>(x));
  return d;
}

TEST(Describe, TopLevelStringIsBareAndNestedOnesQuotedWhenNeeded) {
  EXPECT_EQ(describe(PropertyList("two words & more")), "two words & more");
  EXPECT_EQ(describe(PropertyList("")), "");
  PropertyList d = PropertyList::dict();
  d.set("plain", "a-b_c.d/e$f9");
  d.set("two words", "x y");
  d.set("empty", "");
  d.set("quote", "say \"hi\" \\ there");
  d.set("lines", "a\nb\tc");
  EXPECT_EQ(describe(d),
            "{ empty = \"\"; lines = \"a\\nb\\tc\"; plain = a-b_c.d/e$f9; quote = \"say \\\"hi\\\" "
            "\\\\ there\"; "
            "\"two words\" = \"x y\"; }");
}

TEST(Describe, EveryType) {
  PropertyList d = PropertyList::dict();
  d.set("list",
        PlistArray{PropertyList(1), PropertyList(2.5), PropertyList("abc"), PropertyList()});
  d.set("none", PlistDict{});
  d.set("nothing", PlistArray{});
  d.set("on", true);
  d.set("off", false);
  d.set("blob", bytes({10, 11, 12, 13, 14}));
  d.set("when", PlistDate{817034400});
  d.set("big", std::numeric_limits<unsigned long long>::max());
  d.set("min", std::numeric_limits<long long>::min());
  EXPECT_EQ(describe(d),
            "{ big = 18446744073709551615; blob = <0a0b0c0d 0e>; list = ( 1, 2.5, abc, (null) ); "
            "min = -9223372036854775808; none = {}; nothing = (); off = 0; on = 1; "
            "when = \"2026-11-22 10:00:00 +0000\"; }");
  EXPECT_EQ(describe(PropertyList()), "(null)");
  EXPECT_EQ(describe(PropertyList(PlistData{})), "<>");
  EXPECT_EQ(describe(PropertyList(bytes({1, 2, 3, 4, 5, 6, 7, 8}))), "<01020304 05060708>");
  EXPECT_EQ(describe(PropertyList(PlistDate{817034400})), "2026-11-22 10:00:00 +0000");
}

TEST(Describe, RealsPrintShortestLikePercentG) {
  struct Row {
    double v;
    std::string_view text;
  };
  const Row rows[] = {
      {0.1, "0.1"},
      {3.0, "3"},
      {100000.0, "100000"},
      {1e16, "10000000000000000"},
      {1e17, "1e+17"},
      {1.5e-7, "1.5e-07"},
      {0.0001, "0.0001"},
      {-0.0, "-0"},
      {1.0 / 3, "0.3333333333333333"},
      {2.5e300, "2.5e+300"},
      {5e-324, "5e-324"},
      {HUGE_VAL, "inf"},
      {-HUGE_VAL, "-inf"},
      {NAN, "nan"},
  };
  for (const Row& r : rows) EXPECT_EQ(describe(PropertyList(r.v)), r.text) << r.v;
}

enum class Color { Red, Green, Blue };

TEST(Format, Conversions) {
  EXPECT_EQ(format("%d %i %u", -5, 7, 3u), "-5 7 3");
  EXPECT_EQ(format("%x %X %o", 255, 255, 8), "ff FF 10");
  EXPECT_EQ(format("%#x %#o %#X", 255, 8, 0), "0xff 010 0");
  EXPECT_EQ(format("%5d|%-5d|%05d|%+d|% d", 42, 42, 42, 42, 42), "   42|42   |00042|+42| 42");
  EXPECT_EQ(format("%.3d|%.0d|", 7, 0), "007||");
  EXPECT_EQ(format("%c%c", 'o', 'k'), "ok");
  EXPECT_EQ(format("%s|%s", "text", std::string("str")), "text|str");
  EXPECT_EQ(format("%s", static_cast<const char*>(nullptr)), "(null)");
  EXPECT_EQ(format("%10s|%-10s|%.2s", "abc", "abc", "abc"), "       abc|abc       |ab");
  EXPECT_EQ(format("%f %.2f %e %g %G", 1.5, 2.3456, 1234.5, 0.0001, 1e-10),
            "1.500000 2.35 1.234500e+03 0.0001 1E-10");
  EXPECT_EQ(format("%.*f GHz", 2, 2.4), "2.40 GHz");
  EXPECT_EQ(format("%*d|%-*d|", 5, 1, 3, 2), "    1|2  |");
  EXPECT_EQ(format("%5.1f%%", 99.44), " 99.4%");
  EXPECT_EQ(
      format("%p %p", static_cast<const void*>(nullptr), reinterpret_cast<const void*>(0x1234)),
      "0x0 0x1234");
  EXPECT_EQ(format("%lld %zu %hhd %lu %jd", -1LL, size_t{5}, 3, 7ul, INT64_MIN),
            "-1 5 3 7 -9223372036854775808");
  // An integer is read in its own width, as printf reads a matching argument.
  EXPECT_EQ(format("%u 0x%x %X", -1, -536870208, -1L), "4294967295 0xe00002c0 FFFFFFFFFFFFFFFF");
  EXPECT_EQ(format("%d %d", 4294967295u, 4294967295ull), "-1 4294967295");
  EXPECT_EQ(format("'%c'", static_cast<char>('\xE9')), "'\xC3\xA9'");  // a Latin-1 byte
  EXPECT_EQ(format("%d %d", Color::Blue, true), "2 1");
  EXPECT_EQ(format("%llu", std::numeric_limits<unsigned long long>::max()), "18446744073709551615");
  EXPECT_EQ(format("%C", 0x263A), "\xE2\x98\xBA");
}

TEST(Format, PlistArguments) {
  PropertyList d = PropertyList::dict();
  d.set("name", "Media 1");
  const PropertyList* none = nullptr;
  EXPECT_EQ(format("%s: %@", "run", d), "run: { name = \"Media 1\"; }");
  EXPECT_EQ(format("%@|%@|%@", PropertyList("bare"), "str", std::string_view("sv")), "bare|str|sv");
  EXPECT_EQ(format("[%@]", none), "[(null)]");
  EXPECT_EQ(format("[%12@]", PropertyList(5)), "[           5]");
  EXPECT_EQ(format("%s(%@): %@WithRequest:", "f", PropertyList("vol"), PropertyList("getState")),
            "f(vol): getStateWithRequest:");
}

TEST(Format, Positional) {
  EXPECT_EQ(format("%2$@ %1$d", 5, PropertyList("x")), "x 5");
  EXPECT_EQ(format("%1$*2$d|", 7, 4), "   7|");
  EXPECT_EQ(format("%1$s %1$s", "twice"), "twice twice");
  EXPECT_EQ(format("%3$.*2$f|%1$s", "a", 1, 2.25), "2.2|a");
}

TEST(Format, MissingAndMismatchedArgumentsAreHarmless) {
  auto run = [](std::string_view f, std::vector<FormatArg> args) { return vformat(f, args); };
  EXPECT_EQ(run("%@ %s %d %f %x|%c|%p", {}), "(null) (null) 0 0.000000 0||0x0");
  EXPECT_EQ(run("%d", {FormatArg("12")}), "0");
  EXPECT_EQ(run("%f", {FormatArg(3)}), "3.000000");
  EXPECT_EQ(run("%d", {FormatArg(2.9)}), "2");
  EXPECT_EQ(run("%d", {FormatArg(-1e300)}), "-9223372036854775808");
  EXPECT_EQ(run("%d", {FormatArg(NAN)}), "0");
  EXPECT_EQ(run("%s %@", {FormatArg(42), FormatArg(0.5)}), "42 0.5");
  PropertyList five(5);
  EXPECT_EQ(run("%d %.1f", {FormatArg(five), FormatArg(five)}), "5 5.0");
  EXPECT_EQ(run("%d", {FormatArg(std::numeric_limits<unsigned long long>::max())}),
            "18446744073709551615");
  EXPECT_EQ(run("%3$d|%0$d", {FormatArg(1)}), "0|%0$d");
  EXPECT_EQ(run("50%", {}), "50%");
  EXPECT_EQ(run("%5.2l", {}), "%5.2l");
  EXPECT_EQ(run("%y %n", {FormatArg(1)}), "%y %n");
  EXPECT_EQ(run("%*d|", {FormatArg(-4), FormatArg(1)}), "1   |");
  EXPECT_EQ(run("%.*s|", {FormatArg(-1), FormatArg("all")}), "all|");
  EXPECT_EQ(run("%.1s", {FormatArg("\xC3\xA9t\xC3\xA9")}), "");
  EXPECT_EQ(run("%.3s", {FormatArg("\xC3\xA9t\xC3\xA9")}), "\xC3\xA9t");
  EXPECT_EQ(run("%999999999999d", {FormatArg(1)}).size(), 10000u);
  EXPECT_EQ(run("%.999999999f", {FormatArg(1.0)}).size(), 10002u);
}

TEST(Format, NarrowIntegersMatchPrintf) {
  const int ints[] = {0, 1, -1, 200, -200, 70000, -70000, INT32_MAX, INT32_MIN};
  char expected[64];
  for (const char* length : {"", "h", "hh", "l"})
    for (char conv : std::string_view("diuxXo"))
      for (int v : ints) {
        std::string f = std::string("%") + length + conv;
        if (*length == 'l')
          std::snprintf(expected, sizeof expected, f.c_str(), static_cast<long>(v));
        else
          std::snprintf(expected, sizeof expected, f.c_str(), v);
        FormatArg arg = *length == 'l' ? FormatArg(static_cast<long>(v)) : FormatArg(v);
        ASSERT_EQ(vformat(f, std::span<const FormatArg>(&arg, 1)), expected) << f << " of " << v;
        unsigned u = static_cast<unsigned>(v);
        if (*length != 'l') {
          std::snprintf(expected, sizeof expected, f.c_str(), u);
          FormatArg uarg(u);
          ASSERT_EQ(vformat(f, std::span<const FormatArg>(&uarg, 1)), expected) << f << " of " << u;
        }
      }
}

TEST(Format, NumbersMatchPrintf) {
  const char* flags[] = {"", "-", "+", " ", "#", "0", "-0", "+0", "# ", "#0"};
  const char* widths[] = {"", "1", "8", "25"};
  const char* precisions[] = {"", ".", ".0", ".3", ".12"};
  const long long ints[] = {0, 1, -1, 42, -123456, INT64_MAX, INT64_MIN};
  const double reals[] = {0.0, -0.0, 1.5, -2.25e-5, 1e300, 123456.789, HUGE_VAL, NAN};
  char expected[512];
  int checked = 0;
  for (const char* fl : flags)
    for (const char* w : widths)
      for (const char* p : precisions) {
        for (char conv : std::string_view("diuxXo")) {
          std::string f = std::string("%") + fl + w + p + "ll" + conv;
          for (long long v : ints) {
            std::snprintf(expected, sizeof expected, f.c_str(), v);
            FormatArg arg(v);
            ASSERT_EQ(vformat(f, std::span<const FormatArg>(&arg, 1)), expected)
                << f << " of " << v;
            ++checked;
          }
        }
        for (char conv : std::string_view("feEgGa")) {
          std::string f = std::string("%") + fl + w + p + conv;
          for (double v : reals) {
            std::snprintf(expected, sizeof expected, f.c_str(), v);
            FormatArg arg(v);
            ASSERT_EQ(vformat(f, std::span<const FormatArg>(&arg, 1)), expected)
                << f << " of " << v;
            ++checked;
          }
        }
      }
  EXPECT_GT(checked, 10000);
}

}  // namespace
}  // namespace velm
