// TextScanner: the one tool the .cfg reader uses. A position in a text, a case-sensitivity flag and
// a set of characters passed over before each scan; a failed scan leaves the position alone.
// Positions are byte offsets into UTF-8 text; every character set here is ASCII, so a scan never
// stops inside a multi-byte character. Case folding is ASCII only.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "plist/plist.h"

namespace velm {

// A set of bytes.
class CharSet {
 public:
  constexpr CharSet() = default;
  constexpr explicit CharSet(std::string_view chars) {
    for (char c : chars) add(c);
  }
  constexpr void add(char c) {
    auto b = static_cast<unsigned char>(c);
    bits_[b >> 6] |= std::uint64_t{1} << (b & 63);
  }
  constexpr bool contains(char c) const {
    auto b = static_cast<unsigned char>(c);
    return (bits_[b >> 6] >> (b & 63)) & 1;
  }
  constexpr bool operator==(const CharSet&) const = default;

 private:
  std::array<std::uint64_t, 4> bits_{};
};

class TextScanner {
 public:
  // Blank, tab and the line ends (with the other ASCII spacing characters).
  static const CharSet& defaultSkipSet();

  explicit TextScanner(std::string text);
  // A scanner over part of a text that storage keeps alive (no copy).
  TextScanner(std::shared_ptr<const std::string> storage, std::string_view text);

  std::string_view text() const { return text_; }
  size_t position() const { return pos_; }
  void setPosition(size_t pos) { pos_ = pos < text_.size() ? pos : text_.size(); }
  bool caseSensitive() const { return caseSensitive_; }
  void setCaseSensitive(bool on) { caseSensitive_ = on; }
  const CharSet& skipSet() const { return skip_; }
  void setSkipSet(const CharSet& set) { skip_ = set; }

  // Moves to the next occurrence of s (or the end) and yields what it passed; fails if s stands
  // right at the position or nothing is left.
  std::optional<std::string_view> scanUpToString(std::string_view s);
  bool scanString(std::string_view s);
  // The longest run of characters of set; fails if there is none.
  std::optional<std::string_view> scanCharactersFromSet(const CharSet& set);
  // Everything up to the next character of set, or to the end; fails if there is nothing.
  std::optional<std::string_view> scanUpToCharactersFromSet(const CharSet& set);
  // Optional sign and decimal digits; saturates at the 64-bit limits.
  std::optional<std::int64_t> scanInteger();
  // Nothing but skip-set characters remains.
  bool atEnd() const;

  // ---- ParsingExtensions: the key searches of the .cfg reader ----
  std::optional<std::string> stringForKey(std::string_view key);
  // Signed without a size suffix, unsigned with one.
  std::optional<PlistInteger> numberForKey(std::string_view key);

  void readStrings(std::span<const std::string_view> keys, PlistDict& dict);
  void readNumbers(std::span<const std::string_view> keys, PlistDict& dict);
  void readBooleans(std::span<const std::string_view> keys, PlistDict& dict);
  // Store the value under key and return true; with no value store nothing and return false.
  bool readStringNamed(std::string_view key, PlistDict& dict);
  bool readNumberNamed(std::string_view key, PlistDict& dict);
  bool readBoolNamed(std::string_view key, PlistDict& dict);
  // Reads the next Node line from the current position; false when there is none.
  bool readNodeIntoArrayNew(PlistArray& array);
  // A scanner (default settings) over the next section of tag, or nothing.
  std::optional<TextScanner> nextScannerForTag(std::string_view tag);

 private:
  size_t skipFrom(size_t pos) const;
  // Next occurrence of s at or after from, honouring case sensitivity; npos when none.
  size_t find(std::string_view s, size_t from) const;
  bool matchesAt(std::string_view s, size_t at) const;
  void keySearchStep(std::string_view key);

  std::shared_ptr<const std::string> storage_;
  std::string_view text_;
  size_t pos_ = 0;
  bool caseSensitive_ = false;
  CharSet skip_;
};

}  // namespace velm
