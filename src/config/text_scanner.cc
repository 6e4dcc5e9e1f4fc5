#include "config/text_scanner.h"

#include <charconv>
#include <cstdio>
#include <cstring>
#include <limits>

#include "config/config_keys.h"
#include "platform/log.h"

namespace velm {
namespace {

constexpr CharSet kDefaultSkip(" \t\n\r\v\f");
constexpr CharSet kBlanks(" \t");
constexpr CharSet kExtended(config::kAlphanumericExtended);
constexpr CharSet kSizeSuffixes("KMGkmg");
constexpr CharSet kOpenBracket("[");

constexpr char foldAscii(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c; }

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (foldAscii(a[i]) != foldAscii(b[i])) return false;
  return true;
}

bool isLineEndOrBlank(char c) { return c == '\n' || c == '\r' || c == '\t' || c == ' '; }

}  // namespace

const CharSet& TextScanner::defaultSkipSet() {
  static constexpr CharSet set = kDefaultSkip;
  return set;
}

TextScanner::TextScanner(std::string text)
    : storage_(std::make_shared<const std::string>(std::move(text))),
      text_(*storage_),
      skip_(kDefaultSkip) {}

TextScanner::TextScanner(std::shared_ptr<const std::string> storage, std::string_view text)
    : storage_(std::move(storage)), text_(text), skip_(kDefaultSkip) {}

size_t TextScanner::skipFrom(size_t pos) const {
  while (pos < text_.size() && skip_.contains(text_[pos])) ++pos;
  return pos;
}

bool TextScanner::matchesAt(std::string_view s, size_t at) const {
  if (at > text_.size() || text_.size() - at < s.size()) return false;
  std::string_view here = text_.substr(at, s.size());
  return caseSensitive_ ? here == s : equalsIgnoringCase(here, s);
}

size_t TextScanner::find(std::string_view s, size_t from) const {
  if (s.empty() || from >= text_.size() || text_.size() - from < s.size()) return std::string_view::npos;
  if (caseSensitive_) {
    const void* hit = ::memmem(text_.data() + from, text_.size() - from, s.data(), s.size());
    return hit ? static_cast<size_t>(static_cast<const char*>(hit) - text_.data()) : std::string_view::npos;
  }
  // Sections are small; a first-character filter is all this needs.
  const char lower = foldAscii(s[0]);
  const char upper = (lower >= 'a' && lower <= 'z') ? static_cast<char>(lower - 32) : lower;
  const size_t last = text_.size() - s.size();
  for (size_t i = from; i <= last; ++i) {
    char c = text_[i];
    if ((c == lower || c == upper) && equalsIgnoringCase(text_.substr(i, s.size()), s)) return i;
  }
  return std::string_view::npos;
}

std::optional<std::string_view> TextScanner::scanUpToString(std::string_view s) {
  size_t start = skipFrom(pos_);
  if (start >= text_.size()) return std::nullopt;
  size_t hit = find(s, start);
  if (hit == start) return std::nullopt;
  size_t end = hit == std::string_view::npos ? text_.size() : hit;
  pos_ = end;
  return text_.substr(start, end - start);
}

bool TextScanner::scanString(std::string_view s) {
  size_t start = skipFrom(pos_);
  if (s.empty() || !matchesAt(s, start)) return false;
  pos_ = start + s.size();
  return true;
}

std::optional<std::string_view> TextScanner::scanCharactersFromSet(const CharSet& set) {
  size_t start = skipFrom(pos_);
  size_t end = start;
  while (end < text_.size() && set.contains(text_[end])) ++end;
  if (end == start) return std::nullopt;
  pos_ = end;
  return text_.substr(start, end - start);
}

std::optional<std::string_view> TextScanner::scanUpToCharactersFromSet(const CharSet& set) {
  size_t start = skipFrom(pos_);
  size_t end = start;
  while (end < text_.size() && !set.contains(text_[end])) ++end;
  if (end == start) return std::nullopt;
  pos_ = end;
  return text_.substr(start, end - start);
}

std::optional<std::int64_t> TextScanner::scanInteger() {
  size_t i = skipFrom(pos_);
  bool negative = false;
  if (i < text_.size() && (text_[i] == '-' || text_[i] == '+')) {
    negative = text_[i] == '-';
    ++i;
  }
  size_t digits = i;
  std::uint64_t magnitude = 0;
  const std::uint64_t limit = negative ? std::uint64_t{1} << 63 : std::numeric_limits<std::int64_t>::max();
  bool saturated = false;
  while (i < text_.size() && text_[i] >= '0' && text_[i] <= '9') {
    auto d = static_cast<std::uint64_t>(text_[i] - '0');
    if (!saturated && magnitude <= (limit - d) / 10) magnitude = magnitude * 10 + d;
    else saturated = true;
    ++i;
  }
  if (i == digits) return std::nullopt;
  pos_ = i;
  if (saturated) magnitude = limit;
  if (negative) return magnitude == (std::uint64_t{1} << 63) ? std::numeric_limits<std::int64_t>::min()
                                                             : -static_cast<std::int64_t>(magnitude);
  return static_cast<std::int64_t>(magnitude);
}

bool TextScanner::atEnd() const { return skipFrom(pos_) >= text_.size(); }

// One step of the key search shared by stringForKey and numberForKey.
void TextScanner::keySearchStep(std::string_view key) {
  std::optional<std::string_view> passed = scanUpToString(key);
  if (!passed || passed->empty()) {
    // Deliberate: a key right at the position is taken with no look at what stands before it.
    scanString(key);
    return;
  }
  const char before = passed->back();
  scanString(key);
  if (isLineEndOrBlank(before)) return;
  // Deliberate: this leaves the position on the next occurrence, which the next step then takes
  // whatever stands before it. It keeps Type from matching the end of DiskType in most files, and
  // no more than that. A key that is absent from a text ending in a word also lands here.
  NLog("Scanned past %@, it had '%c' before it.  Trying again.", key, before);
  scanUpToString(key);
}

std::optional<std::string> TextScanner::stringForKey(std::string_view key) {
  pos_ = 0;
  const CharSet saved = skip_;
  skip_ = CharSet();
  int tries = 0;
  bool followedByBlank = false;
  for (;;) {
    if (tries++ > 0) NLog("%s: Trying again for key %@ [try %d]", "stringForKey", key, tries);
    keySearchStep(key);
    if (atEnd()) break;
    // A key directly followed by anything but a blank or tab (a longer word such as JournalSize,
    // or a line end) is not this key.
    if (scanCharactersFromSet(kBlanks)) {
      followedByBlank = true;
      break;
    }
  }
  skip_ = saved;
  if (!followedByBlank) return std::nullopt;
  // Deliberate: line ends are skipped again from here on, so the value may stand on a later line
  // when at least one blank or tab followed the key.
  bool quoted = false;
  if (config::listContains(config::kQuotedStrings, key)) quoted = scanString("\"");
  std::optional<std::string_view> value = scanCharactersFromSet(kExtended);
  // Deliberate: a missing closing quote is not minded; "my volume" reads as my.
  if (quoted) scanString("\"");
  if (!value) return std::nullopt;
  return std::string(*value);
}

std::optional<PlistInteger> TextScanner::numberForKey(std::string_view key) {
  pos_ = 0;
  bool octal = false;
  std::int64_t value = 0;
  // The skip set stays as it is here, so unlike stringForKey this passes line ends before a value.
  for (;;) {
    keySearchStep(key);
    if (atEnd()) return std::nullopt;
    const size_t mark = pos_;
    // Deliberate: once set, the octal flag stays set for later passes of this call.
    if (scanString("0") && scanInteger()) octal = true;
    pos_ = mark;
    if (std::optional<std::int64_t> v = scanInteger()) {
      value = *v;
      break;
    }
    // Not a number here (RtiosReserve ahead of Rtios, say): look for the next occurrence.
  }
  if (octal) {
    // Deliberate: the decimal digits are read again as octal, so reading stops at the first 8 or
    // 9 ("0789" is 7).
    char buf[32];
    int n = std::snprintf(buf, sizeof buf, "0%lld", static_cast<long long>(value));
    if (n < 0) return std::nullopt;
    size_t len = static_cast<size_t>(n) < sizeof buf ? static_cast<size_t>(n) : sizeof buf - 1;
    std::int64_t octalValue = 0;
    auto [end, ec] = std::from_chars(buf, buf + len, octalValue, 8);
    (void)end;
    if (ec == std::errc::result_out_of_range) return std::nullopt;
    value = ec == std::errc() ? octalValue : 0;
  }
  const CharSet saved = skip_;
  skip_ = CharSet();
  std::optional<std::string_view> suffix = scanCharactersFromSet(kSizeSuffixes);
  skip_ = saved;
  if (!suffix) return PlistInteger{static_cast<std::uint64_t>(value), false};
  if (suffix->size() > 1) return std::nullopt;  // 1KM is no number at all
  // Deliberate: T is not a suffix here although the writer prints it; 5T reads as 5.
  unsigned shift = 0;
  switch (foldAscii((*suffix)[0])) {
    case 'k': shift = 10; break;
    case 'm': shift = 20; break;
    case 'g': shift = 30; break;
  }
  return PlistInteger{static_cast<std::uint64_t>(value) << shift, true};
}

void TextScanner::readStrings(std::span<const std::string_view> keys, PlistDict& dict) {
  for (std::string_view key : keys) readStringNamed(key, dict);
}

void TextScanner::readNumbers(std::span<const std::string_view> keys, PlistDict& dict) {
  for (std::string_view key : keys) readNumberNamed(key, dict);
}

void TextScanner::readBooleans(std::span<const std::string_view> keys, PlistDict& dict) {
  for (std::string_view key : keys) readBoolNamed(key, dict);
}

bool TextScanner::readStringNamed(std::string_view key, PlistDict& dict) {
  std::optional<std::string> value = stringForKey(key);
  if (!value) return false;
  dict.set(std::string(key), PropertyList(std::move(*value)));
  return true;
}

bool TextScanner::readNumberNamed(std::string_view key, PlistDict& dict) {
  std::optional<PlistInteger> value = numberForKey(key);
  if (!value) return false;
  dict.set(std::string(key), PropertyList(*value));
  return true;
}

bool TextScanner::readBoolNamed(std::string_view key, PlistDict& dict) {
  std::optional<std::string> word = stringForKey(key);
  if (!word) return false;
  // Deliberate: every boolean key takes all six words, whatever pair the writer prints for it.
  bool value;
  if (equalsIgnoringCase(*word, "Yes") || equalsIgnoringCase(*word, "Enabled") ||
      equalsIgnoringCase(*word, "Up")) {
    value = true;
  } else if (equalsIgnoringCase(*word, "No") || equalsIgnoringCase(*word, "Disabled") ||
             equalsIgnoringCase(*word, "Down")) {
    value = false;
  } else {
    return false;
  }
  dict.set(std::string(key), PropertyList(value));
  return true;
}

bool TextScanner::readNodeIntoArrayNew(PlistArray& array) {
  // Deliberate: Node is not tested as a word, so a group or affinity name holding "node" in any
  // case ends the node list at the section's own header line.
  scanUpToString(config::kNode);
  scanString(config::kNode);
  const bool quoted = scanString("\"");
  std::optional<std::string_view> name = scanCharactersFromSet(kExtended);
  if (quoted) scanString("\"");
  std::int64_t index = -1;
  if (std::optional<std::int64_t> v = scanInteger()) index = *v;
  if (!name || index < 0) return false;
  PlistDict node;
  node.reserve(3);
  std::string device(*name);
  node.set(std::string(config::kId), PropertyList("Node_" + device));
  node.set(std::string(config::kNodeDiskDevice), PropertyList(std::move(device)));
  node.set(std::string(config::kNodeRotationIndex), PropertyList(static_cast<long long>(index)));
  array.emplace_back(std::move(node));
  return true;
}

std::optional<TextScanner> TextScanner::nextScannerForTag(std::string_view tag) {
  // Deliberate: only the tag and one blank are looked for, as plain text; neither bracket is
  // required, and any '[' ends the section.
  std::string head;
  head.reserve(tag.size() + 1);
  head.append(tag).push_back(' ');
  scanUpToString(head);
  std::optional<std::string_view> body = scanUpToCharactersFromSet(kOpenBracket);
  if (!body) return std::nullopt;
  return TextScanner(storage_, *body);
}

}  // namespace velm
