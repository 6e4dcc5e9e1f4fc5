// PropertyList: the value tree that requests, responses, contexts and plist files are made of.
// Value semantics: copying a PropertyList copies the whole tree.
#pragma once

#include <concepts>
#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace velm {

class PropertyList;

using PlistArray = std::vector<PropertyList>;
using PlistData = std::vector<std::uint8_t>;

// A date: seconds since 2001-01-01T00:00:00Z, as the XML format counts them.
struct PlistDate {
  double secondsSince2001 = 0;
  bool operator==(const PlistDate&) const = default;
};

// Dictionary with keys kept sorted, so output is deterministic and lookups are binary searches.
class PlistDict {
 public:
  using Entry = std::pair<std::string, PropertyList>;
  using const_iterator = std::vector<Entry>::const_iterator;
  using iterator = std::vector<Entry>::iterator;

  const PropertyList* find(std::string_view key) const;
  PropertyList* find(std::string_view key);
  bool contains(std::string_view key) const { return find(key) != nullptr; }
  // Inserts or replaces.
  void set(std::string key, PropertyList value);
  // Returns the value for key, inserting a null value when absent.
  PropertyList& operator[](std::string_view key);
  bool erase(std::string_view key);
  // Defined after PropertyList: the entries' type must be complete first (clang insists).
  void clear();
  size_t size() const;
  bool empty() const;
  void reserve(size_t n);

  const_iterator begin() const;
  const_iterator end() const;
  iterator begin();
  iterator end();

  // Bulk building (the XML reader): append in any order, then sortAndDedupe() once; the last
  // occurrence of a duplicated key wins.
  void appendUnsorted(std::string key, PropertyList value);
  // The same, returning the new (null) value to be filled in place.
  PropertyList& appendUnsorted(std::string key);
  void sortAndDedupe();

  bool operator==(const PlistDict& other) const;

 private:
  std::vector<Entry> entries_;
};

// 64-bit integer that remembers whether it was stored as unsigned (values past INT64_MAX).
struct PlistInteger {
  std::uint64_t bits = 0;
  bool isUnsigned = false;
  std::int64_t asSigned() const { return static_cast<std::int64_t>(bits); }
  bool operator==(const PlistInteger& o) const;
};

class PropertyList {
 public:
  enum class Type : std::uint8_t { Null, Dictionary, Array, String, Integer, Real, Boolean, Date, Data };

  PropertyList() = default;
  PropertyList(PlistDict d) : v_(std::move(d)) {}
  PropertyList(PlistArray a) : v_(std::move(a)) {}
  PropertyList(std::string s) : v_(std::move(s)) {}
  PropertyList(std::string_view s) : v_(std::string(s)) {}
  PropertyList(const char* s) : v_(std::string(s ? s : "")) {}
  // Exactly bool: a pointer (such as another dictionary's get()) must not turn into true.
  template <typename B>
    requires std::same_as<B, bool>
  PropertyList(B b) : v_(b) {}
  PropertyList(int i) : v_(PlistInteger{static_cast<std::uint64_t>(static_cast<std::int64_t>(i)), false}) {}
  PropertyList(long i) : v_(PlistInteger{static_cast<std::uint64_t>(static_cast<std::int64_t>(i)), false}) {}
  PropertyList(long long i)
      : v_(PlistInteger{static_cast<std::uint64_t>(static_cast<std::int64_t>(i)), false}) {}
  PropertyList(unsigned i) : v_(PlistInteger{i, true}) {}
  PropertyList(unsigned long i) : v_(PlistInteger{i, true}) {}
  PropertyList(unsigned long long i) : v_(PlistInteger{i, true}) {}
  PropertyList(PlistInteger i) : v_(i) {}
  PropertyList(double d) : v_(d) {}
  PropertyList(PlistDate d) : v_(d) {}
  PropertyList(PlistData d) : v_(std::move(d)) {}

  static PropertyList dict() { return PropertyList(PlistDict{}); }
  static PropertyList array() { return PropertyList(PlistArray{}); }

  Type type() const { return static_cast<Type>(v_.index()); }
  bool isNull() const { return type() == Type::Null; }
  bool isDict() const { return type() == Type::Dictionary; }
  bool isArray() const { return type() == Type::Array; }
  bool isString() const { return type() == Type::String; }
  bool isInteger() const { return type() == Type::Integer; }
  bool isReal() const { return type() == Type::Real; }
  bool isNumber() const { return isInteger() || isReal(); }
  bool isBool() const { return type() == Type::Boolean; }
  bool isDate() const { return type() == Type::Date; }
  bool isData() const { return type() == Type::Data; }

  // Typed views: null when the value is of another type.
  const PlistDict* asDict() const { return std::get_if<PlistDict>(&v_); }
  PlistDict* asDict() { return std::get_if<PlistDict>(&v_); }
  const PlistArray* asArray() const { return std::get_if<PlistArray>(&v_); }
  PlistArray* asArray() { return std::get_if<PlistArray>(&v_); }
  const std::string* asString() const { return std::get_if<std::string>(&v_); }
  const PlistData* asData() const { return std::get_if<PlistData>(&v_); }
  PlistData* asData() { return std::get_if<PlistData>(&v_); }
  const PlistInteger* asInteger() const { return std::get_if<PlistInteger>(&v_); }
  std::optional<double> asReal() const;
  std::optional<bool> asBool() const;
  std::optional<PlistDate> asDate() const;

  // Number conversions, in the manner of a number object's intValue/boolValue: integers, reals
  // and booleans convert; anything else is absent.
  std::optional<std::int64_t> int64Value() const;
  std::optional<std::uint64_t> uint64Value() const;
  std::optional<double> doubleValue() const;
  // True for boolean true and for non-zero numbers.
  bool boolValue() const;

  // Dictionary helpers; get() on a non-dictionary gives null.
  const PropertyList* get(std::string_view key) const;
  PropertyList* get(std::string_view key);
  const std::string* getString(std::string_view key) const;
  // Turns a null value into an empty dictionary first; a value of another type is replaced.
  void set(std::string key, PropertyList value);
  bool erase(std::string_view key);

  // Array/dictionary element count; 0 for scalars.
  size_t size() const;
  // Appends to an array (a null value becomes an empty array first).
  void push(PropertyList value);

  bool operator==(const PropertyList& other) const { return v_ == other.v_; }

 private:
  // The variant index order is the Type enumeration.
  std::variant<std::monostate, PlistDict, PlistArray, std::string, PlistInteger, double, bool,
               PlistDate, PlistData>
      v_;
};

inline void PlistDict::clear() { entries_.clear(); }
inline size_t PlistDict::size() const { return entries_.size(); }
inline bool PlistDict::empty() const { return entries_.empty(); }
inline void PlistDict::reserve(size_t n) { entries_.reserve(n); }
inline PlistDict::const_iterator PlistDict::begin() const { return entries_.begin(); }
inline PlistDict::const_iterator PlistDict::end() const { return entries_.end(); }
inline PlistDict::iterator PlistDict::begin() { return entries_.begin(); }
inline PlistDict::iterator PlistDict::end() { return entries_.end(); }

// ---- XML property-list documents ----

struct PlistReadOptions {
  size_t maxDepth = 512;        // deeper nesting is an error, never a stack overflow (max 1024)
  bool requireDictionary = false;  // a non-dictionary top level is an error
};

struct PlistReadResult {
  std::optional<PropertyList> value;  // set on success
  std::string error;                  // set on failure: what and where
  explicit operator bool() const { return value.has_value(); }
};

PlistReadResult readXmlPlist(std::string_view text, const PlistReadOptions& options = {});
// Reads a file; a missing or unreadable file is an error too.
PlistReadResult readXmlPlistFile(const std::string& path, const PlistReadOptions& options = {});
// Convenience: the dictionary in the file, or nothing (missing, unreadable, malformed, not a dict).
std::optional<PropertyList> readDictionaryFile(const std::string& path);

// The whole document: XML declaration, DOCTYPE, <plist version="1.0">, tab indentation.
// XML has no null: null entries are left out, and a null top level gives an empty <plist>
// (which does not read back). What XML 1.0 cannot carry (control characters other than tab,
// newline and carriage return; malformed UTF-8) is written as U+FFFD, as the reader reads it.
// Dates are written in whole seconds.
std::string writeXmlPlist(const PropertyList& value);
// Whole and atomic (temporary file, fsync, rename). Returns 0 or an errno value.
int writeXmlPlistFile(const std::string& path, const PropertyList& value, unsigned mode = 0644);

// The text that %@ prints: strings bare at the top level, dictionaries as { key = value; },
// arrays as ( a, b ), data as <0a0b0c0d 0e>, null as (null).
std::string describe(const PropertyList& value);
// Streams describe(value): logs, test failures.
std::ostream& operator<<(std::ostream& out, const PropertyList& value);

// Base64 of the XML <data> element.
std::string base64Encode(const PlistData& data);
std::optional<PlistData> base64Decode(std::string_view text);

}  // namespace velm
