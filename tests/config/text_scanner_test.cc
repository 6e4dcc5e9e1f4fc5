// The key searches of the .cfg reader, on texts as the comment remover leaves them (CR line ends).
#include "config/text_scanner.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "support/log_capture.h"
#include "support/sandbox.h"

namespace velm {
namespace {

std::optional<std::string> stringIn(std::string text, std::string_view key, bool caseSensitive = false) {
  TextScanner scanner(std::move(text));
  scanner.setCaseSensitive(caseSensitive);
  return scanner.stringForKey(key);
}

// The number as the reader stores it, or nullopt; unsigned ones (with a suffix) flagged.
std::optional<PlistInteger> numberIn(std::string text, std::string_view key) {
  TextScanner scanner(std::move(text));
  return scanner.numberForKey(key);
}

TEST(TextScannerTest, FailedScansLeaveThePositionAlone) {
  TextScanner scanner(std::string("  abc def"));
  EXPECT_FALSE(scanner.scanString("def"));
  EXPECT_EQ(scanner.position(), 0u);
  // The string right at the position (after skipping) is a failure of scan-up-to.
  EXPECT_FALSE(scanner.scanUpToString("abc"));
  EXPECT_EQ(scanner.position(), 0u);
  EXPECT_EQ(scanner.scanUpToString("def").value(), "abc ");
  EXPECT_FALSE(scanner.scanInteger());
  EXPECT_TRUE(scanner.scanString("DEF"));  // default: case does not matter
  EXPECT_TRUE(scanner.atEnd());
  EXPECT_FALSE(scanner.scanUpToString("x"));

  TextScanner exact(std::string("abc"));
  exact.setCaseSensitive(true);
  EXPECT_FALSE(exact.scanString("ABC"));
  // Not found: runs to the end and yields everything.
  EXPECT_EQ(exact.scanUpToString("zz").value(), "abc");
}

TEST(TextScannerTest, IntegersSaturateAndNeedADigit) {
  TextScanner scanner(std::string("-  +7 -12 99999999999999999999 -99999999999999999999"));
  EXPECT_FALSE(scanner.scanInteger());
  scanner.setPosition(3);
  EXPECT_EQ(scanner.scanInteger(), 7);
  EXPECT_EQ(scanner.scanInteger(), -12);
  EXPECT_EQ(scanner.scanInteger(), INT64_MAX);
  EXPECT_EQ(scanner.scanInteger(), INT64_MIN);
  EXPECT_TRUE(scanner.atEnd());
}

TEST(TextScannerTest, KeyThatIsTheFrontOfALongerWordIsRejected) {
  EXPECT_EQ(stringIn("JournalSize 16M\rJournal Yes\r", "Journal"), "Yes");
  EXPECT_EQ(stringIn("JournalSize 16M\r", "Journal"), std::nullopt);
}

TEST(TextScannerTest, ValueOnTheNextLineNeedsABlankAfterTheKey) {
  EXPECT_EQ(stringIn("Quotas\rYes\r", "Quotas", true), std::nullopt);
  EXPECT_EQ(stringIn("Quotas \rYes\r", "Quotas", true), "Yes");
  EXPECT_EQ(stringIn("Quotas\t\r\r  Yes", "Quotas", true), "Yes");
  // A key at the very end has no value.
  EXPECT_EQ(stringIn("Brls No\rQuotas", "Quotas", true), std::nullopt);
  EXPECT_EQ(stringIn("Quotas ", "Quotas", true), std::nullopt);
}

TEST(TextScannerTest, QuotesOnlyForQuotedKeys) {
  EXPECT_EQ(stringIn("Disk \"my volume\"]", "Disk"), "my");
  EXPECT_EQ(stringIn("Disk \"LUN1\"]", "Disk"), "LUN1");
  EXPECT_EQ(stringIn("Disk LUN1]", "Disk"), "LUN1");
  EXPECT_EQ(stringIn("Affinity \"Media\"", "Affinity"), "Media");
  // MultiPathMethod is not a quoted key: the quote ends the scan.
  EXPECT_EQ(stringIn("MultiPathMethod \"Rotate\"", "MultiPathMethod"), std::nullopt);
  EXPECT_EQ(stringIn("Debug a/b", "Debug"), "a");
}

TEST(TextScannerTest, CaseFollowsTheScanner) {
  EXPECT_EQ(stringIn("status UP", "Status"), "UP");
  EXPECT_EQ(stringIn("quotas Yes", "Quotas", true), std::nullopt);
}

class TextScannerLogTest : public test::SandboxTest {
 protected:
  test::LogCapture log_;
};

TEST_F(TextScannerLogTest, ScannedPastRetriesAtTheNextOccurrence) {
  // Type first matches inside the disk's own name; the occurrence after it is taken.
  EXPECT_EQ(stringIn("Disk \"DiskType5\"]\r  Type \"T1\"\r", "Type"), "T1");
  EXPECT_EQ(log_.count("Scanned past Type, it had 'k' before it.  Trying again."), 1u);
  EXPECT_EQ(log_.count("stringForKey: Trying again for key Type [try 2]"), 1u);
}

TEST_F(TextScannerLogTest, ScannedPastAcceptsWhateverFollowsIt) {
  // Only one occurrence is skipped: the next one is taken even though it ends a word too.
  EXPECT_EQ(stringIn("xType a\ryType b\r", "Type"), "b");
  EXPECT_EQ(log_.count("Scanned past Type, it had 'x' before it.  Trying again."), 1u);
}

TEST_F(TextScannerLogTest, NumberSearchRetriesWithoutItsOwnMessage) {
  std::optional<PlistInteger> v = numberIn("RtiosReserve 5\rRtios 100\r", "Rtios");
  ASSERT_TRUE(v);
  EXPECT_EQ(v->asSigned(), 100);
  EXPECT_FALSE(log_.contains("Trying again for key"));
}

struct NumberCase {
  const char* text;
  const char* key;
  std::optional<long long> value;
  bool isUnsigned;
};

class NumberForKeyTest : public ::testing::TestWithParam<NumberCase> {};

TEST_P(NumberForKeyTest, ReadsAsTheFormatSays) {
  const NumberCase& c = GetParam();
  std::optional<PlistInteger> v = numberIn(c.text, c.key);
  ASSERT_EQ(v.has_value(), c.value.has_value()) << c.text;
  if (!v) return;
  EXPECT_EQ(v->asSigned(), *c.value) << c.text;
  EXPECT_EQ(v->isUnsigned, c.isUnsigned) << c.text;
}

INSTANTIATE_TEST_SUITE_P(
    Forms, NumberForKeyTest,
    ::testing::Values(NumberCase{"FsBlockSize 4K", "FsBlockSize", 4096, true},
                      NumberCase{"JournalSize 16M\r", "JournalSize", 16777216, true},
                      NumberCase{"InodeCacheSize 2g", "InodeCacheSize", 2147483648LL, true},
                      NumberCase{"MaxLogSize 1KM", "MaxLogSize", std::nullopt, false},
                      NumberCase{"Sectors 0", "Sectors", 0, false},
                      NumberCase{"UnixFileCreationModeOnWindows 0644", "UnixFileCreationModeOnWindows", 420,
                                 false},
                      NumberCase{"Rtios 0789", "Rtios", 7, false},
                      NumberCase{"InodeCacheSize 1T", "InodeCacheSize", 1, false},
                      NumberCase{"InodeCacheSize 5T\r", "InodeCacheSize", 5, false},
                      NumberCase{"Rtios\r\r  12", "Rtios", 12, false},
                      NumberCase{"UnixNobodyUidOnWindows -2", "UnixNobodyUidOnWindows", -2, false},
                      NumberCase{"Rtios twelve\rRtios 3", "Rtios", 3, false},
                      NumberCase{"Rtios", "Rtios", std::nullopt, false},
                      NumberCase{"Rtmb 5", "Rtios", std::nullopt, false},
                      // The octal test looks past the zero, to the next line if need be.
                      NumberCase{"Sectors 0\r17", "Sectors", 0, false},
                      NumberCase{"Sectors 010K", "Sectors", 8192, true}));

TEST(TextScannerTest, NodeLinesEndAtTheFirstBadOne) {
  TextScanner section(std::string(
      "StripeGroup Data]\r Node \"LUN1\" 0\r Node LUN2 1\r Node \"LUN3\" -1\r Node \"LUN4\" 2\r"));
  PlistArray nodes;
  while (section.readNodeIntoArrayNew(nodes)) {
  }
  ASSERT_EQ(nodes.size(), 2u);
  EXPECT_EQ(*nodes[1].getString("NodeDiskDevice"), "LUN2");
  EXPECT_EQ(*nodes[1].getString("_id_"), "Node_LUN2");
  EXPECT_EQ(nodes[1].get("NodeRotationIndex")->int64Value(), 1);

  TextScanner noIndex(std::string("Node \"LUN1\"\r Node \"LUN2\" 3"));
  PlistArray none;
  EXPECT_FALSE(noIndex.readNodeIntoArrayNew(none));
  EXPECT_TRUE(none.empty());
}

TEST(TextScannerTest, SectionsRunFromTagToTheNextBracket) {
  TextScanner scanner(std::string("[Disk \"A\"]\r Status Up\r[DiskType \"T\"]\rDisk B\r Status Down"));
  scanner.setCaseSensitive(true);
  std::optional<TextScanner> first = scanner.nextScannerForTag("Disk");
  ASSERT_TRUE(first);
  EXPECT_EQ(first->text(), "Disk \"A\"]\r Status Up\r");
  // No brackets needed: the tag and a blank are enough, and the section runs to the end.
  std::optional<TextScanner> second = scanner.nextScannerForTag("Disk");
  ASSERT_TRUE(second);
  EXPECT_EQ(second->text(), "Disk B\r Status Down");
  EXPECT_FALSE(scanner.nextScannerForTag("Disk"));
}

}  // namespace
}  // namespace velm
