// The XML property-list reader: pugixml parses the document in place, then one walk over its
// nodes builds the PropertyList.
#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <memory>
#include <optional>
#include <pugixml.hpp>

#include "plist/plist.h"
#include "plist/plist_internal.h"
#include "plist/plist_text.h"

namespace velm {

namespace {

using plist_text::trimXmlSpace;

// Whatever the caller asks for, the walk (and every later walk over the tree: writer,
// describe, destructor) must stay well inside a thread's stack.
constexpr size_t kHardMaxDepth = 1024;

// No declaration, doctype, comment or processing-instruction nodes; character data embedded in
// its element where it can be; whitespace-only text kept only where it is an element's whole
// content (a <string> of spaces), so indentation costs nothing. Parsed as a fragment, so that
// text around the root element stays visible and can be refused.
constexpr unsigned kParseOptions = pugi::parse_cdata | pugi::parse_escapes | pugi::parse_eol |
                                   pugi::parse_ws_pcdata_single | pugi::parse_embed_pcdata |
                                   pugi::parse_fragment;

enum class Tag { Dict, Array, String, Integer, Real, True, False, Date, Data, Key, Plist, Other };

// Element names compared without strcmp: this runs for every node.
template <size_t N>
bool nameIs(const char* n, const char (&lit)[N]) {
  for (size_t i = 0; i < N; ++i)
    if (n[i] != lit[i]) return false;
  return true;
}

Tag tagOf(const char* n) {
  switch (n[0]) {
    case 'a':
      return nameIs(n, "array") ? Tag::Array : Tag::Other;
    case 'd':
      if (n[1] == 'i') return nameIs(n, "dict") ? Tag::Dict : Tag::Other;
      if (nameIs(n, "data")) return Tag::Data;
      return nameIs(n, "date") ? Tag::Date : Tag::Other;
    case 'f':
      return nameIs(n, "false") ? Tag::False : Tag::Other;
    case 'i':
      return nameIs(n, "integer") ? Tag::Integer : Tag::Other;
    case 'k':
      return nameIs(n, "key") ? Tag::Key : Tag::Other;
    case 'p':
      return nameIs(n, "plist") ? Tag::Plist : Tag::Other;
    case 'r':
      return nameIs(n, "real") ? Tag::Real : Tag::Other;
    case 's':
      return nameIs(n, "string") ? Tag::String : Tag::Other;
    case 't':
      return nameIs(n, "true") ? Tag::True : Tag::Other;
    default:
      return Tag::Other;
  }
}

bool isText(pugi::xml_node n) {
  return n.type() == pugi::node_pcdata || n.type() == pugi::node_cdata;
}

bool isBlank(const char* s) {
  for (; *s; ++s)
    if (!plist_text::isXmlSpace(*s)) return false;
  return true;
}

std::string quoted(std::string_view s) {
  constexpr size_t kMax = 40;
  std::string out = "\"";
  plist_text::appendCleaned(out, s.substr(0, kMax));
  if (s.size() > kMax) out += "...";
  out += '"';
  return out;
}

// Overflow gives an infinity and underflow zero, as strtod does; from_chars only says "out of
// range", so the decimal magnitude decides which.
double outOfRangeReal(std::string_view t) {
  bool neg = !t.empty() && t[0] == '-';
  size_t i = (neg || (!t.empty() && t[0] == '+')) ? 1 : 0;
  long long mag = 0;
  bool seenNonZero = false;
  long long leadingFractionZeros = 0, intDigits = 0;
  for (; i < t.size() && t[i] >= '0' && t[i] <= '9'; ++i) {
    if (t[i] != '0') seenNonZero = true;
    if (seenNonZero) ++intDigits;
  }
  if (i < t.size() && t[i] == '.') {
    for (++i; i < t.size() && t[i] >= '0' && t[i] <= '9'; ++i) {
      if (!seenNonZero && t[i] == '0')
        ++leadingFractionZeros;
      else
        seenNonZero = true;
    }
  }
  long long exp = 0;
  if (i < t.size() && (t[i] == 'e' || t[i] == 'E')) {
    ++i;
    bool eneg = i < t.size() && t[i] == '-';
    if (i < t.size() && (t[i] == '-' || t[i] == '+')) ++i;
    auto r = std::from_chars(t.data() + i, t.data() + t.size(), exp);
    if (r.ec == std::errc::result_out_of_range) exp = 1'000'000;
    if (exp > 1'000'000) exp = 1'000'000;
    if (eneg) exp = -exp;
  }
  mag = intDigits > 0 ? intDigits - 1 + exp : -(leadingFractionZeros + 1) + exp;
  double v = mag > 0 ? HUGE_VAL : 0.0;
  return neg ? -v : v;
}

// Plain decimal integers of up to 18 digits, straight from the element's text; anything else
// goes the long way through parseInteger.
bool quickInteger(const char* p, PlistInteger& out) {
  while (plist_text::isXmlSpace(*p)) ++p;
  bool neg = *p == '-';
  if (neg) ++p;
  std::uint64_t v = 0;
  int digits = 0;
  for (; *p >= '0' && *p <= '9'; ++p, ++digits) v = v * 10 + static_cast<std::uint64_t>(*p - '0');
  while (plist_text::isXmlSpace(*p)) ++p;
  if (*p || digits == 0 || digits > 18) return false;
  out = PlistInteger{neg ? 0 - v : v, false};
  return true;
}

class Reader {
 public:
  explicit Reader(const PlistReadOptions& options)
      : maxDepth_(std::min(options.maxDepth, kHardMaxDepth)) {}

  bool document(const pugi::xml_document& doc, PropertyList& out) {
    pugi::xml_node root;
    for (pugi::xml_node n = doc.first_child(); n; n = n.next_sibling()) {
      if (n.type() == pugi::node_element) {
        if (root) return fail(n, "more than one top-level element");
        root = n;
      } else if (isText(n) && !isBlank(n.value())) {
        return fail(n, "text outside the plist element");
      }
    }
    if (!root) return fail(doc, "no plist element");
    if (tagOf(root.name()) != Tag::Plist) return value(root, out, 0);
    // The plist element holds exactly one value.
    if (!isBlank(root.value())) return fail(root, "text in the plist element");
    pugi::xml_node only;
    for (pugi::xml_node n = root.first_child(); n; n = n.next_sibling()) {
      if (n.type() == pugi::node_element) {
        if (only) return fail(n, "more than one value in the plist element");
        only = n;
      } else if (isText(n) && !isBlank(n.value())) {
        return fail(n, "text in the plist element");
      }
    }
    if (!only) return fail(root, "the plist element holds no value");
    return value(only, out, 0);
  }

  const std::string& error() const { return error_; }
  ptrdiff_t errorOffset() const { return errorOffset_; }

 private:
  bool fail(pugi::xml_node n, std::string message) {
    error_ = std::move(message);
    errorOffset_ = n.offset_debug();
    return false;
  }

  // depth: how many dictionaries and arrays enclose n.
  bool value(pugi::xml_node n, PropertyList& out, size_t depth) {
    Tag tag = tagOf(n.name());
    switch (tag) {
      case Tag::Dict:
        if (depth >= maxDepth_)
          return fail(n, "nesting deeper than " + std::to_string(maxDepth_) + " levels");
        return dict(n, out, depth + 1);
      case Tag::Array:
        if (depth >= maxDepth_)
          return fail(n, "nesting deeper than " + std::to_string(maxDepth_) + " levels");
        return array(n, out, depth + 1);
      case Tag::Key:
        return fail(n, "<key> outside a dictionary");
      case Tag::Plist:
        return fail(n, "<plist> inside a value");
      case Tag::Other:
        return fail(n, "unknown element <" + std::string(n.name()) + ">");
      default:
        return scalar(n, tag, out);
    }
  }

  bool dict(pugi::xml_node n, PropertyList& out, size_t depth) {
    if (!isBlank(n.value())) return fail(n, "text in a <dict>");
    out = PropertyList(PlistDict{});
    PlistDict& d = *out.asDict();
    ChildRange children(nodes_, n);
    d.reserve(children.size() / 2);
    std::string key;
    bool haveKey = false;
    pugi::xml_node keyNode;
    for (size_t i = 0; i < children.size(); ++i) {
      pugi::xml_node c = children[i];
      if (c.type() != pugi::node_element) {
        if (isText(c) && !isBlank(c.value())) return fail(c, "text in a <dict>");
        continue;
      }
      bool isKey = nameIs(c.name(), "key");
      if (!haveKey) {
        if (!isKey) return fail(c, "<" + std::string(c.name()) + "> in a <dict> without a <key>");
        if (!text(c, key)) return false;
        haveKey = true;
        keyNode = c;
        continue;
      }
      if (isKey) return fail(keyNode, "key " + quoted(key) + " has no value");
      haveKey = false;
      if (!value(c, d.appendUnsorted(std::move(key)), depth)) return false;
    }
    if (haveKey) return fail(keyNode, "key " + quoted(key) + " has no value");
    d.sortAndDedupe();
    return true;
  }

  bool array(pugi::xml_node n, PropertyList& out, size_t depth) {
    if (!isBlank(n.value())) return fail(n, "text in an <array>");
    Pending<PropertyList> pending(values_);
    for (pugi::xml_node c = n.first_child(); c; c = c.next_sibling()) {
      if (c.type() != pugi::node_element) {
        if (isText(c) && !isBlank(c.value())) return fail(c, "text in an <array>");
        continue;
      }
      PropertyList v;
      if (!value(c, v, depth)) return false;
      values_.push_back(std::move(v));
    }
    out = PropertyList(PlistArray{});
    PlistArray& a = *out.asArray();
    a.reserve(pending.size());
    pending.forEach([&a](PropertyList& v) { a.push_back(std::move(v)); });
    return true;
  }

  // The character data of a leaf element, cleaned of what XML can't carry.
  bool text(pugi::xml_node n, std::string& out) {
    out.clear();
    const char* v = n.value();
    pugi::xml_node c = n.first_child();
    if (!c) {
      bool clean;
      size_t len = plist_text::cleanTextLength(v, clean);
      if (clean)
        out.assign(v, len);
      else
        plist_text::appendCleaned(out, std::string_view(v, len));
      return true;
    }
    std::string raw = v;
    for (; c; c = c.next_sibling()) {
      if (c.type() == pugi::node_element)
        return fail(c, "element <" + std::string(c.name()) + "> inside <" + n.name() + ">");
      if (isText(c)) raw += c.value();
    }
    plist_text::appendCleaned(out, raw);
    return true;
  }

  bool scalar(pugi::xml_node n, Tag tag, PropertyList& out) {
    if (tag == Tag::String) {
      std::string s;
      if (!text(n, s)) return false;
      out = PropertyList(std::move(s));
      return true;
    }
    // The other leaves hold short text; string_view over it where it is embedded.
    std::string buffer;
    std::string_view t;
    if (!n.first_child()) {
      const char* v = n.value();
      if (tag == Tag::Integer) {
        PlistInteger i;
        if (quickInteger(v, i)) {
          out = PropertyList(i);
          return true;
        }
      }
      t = v;
    } else {
      if (!text(n, buffer)) return false;
      t = buffer;
    }
    t = trimXmlSpace(t);
    switch (tag) {
      case Tag::True:
      case Tag::False:
        if (!t.empty()) return fail(n, "text in <" + std::string(n.name()) + ">");
        out = PropertyList(tag == Tag::True);
        return true;
      case Tag::Integer: {
        auto v = plist_internal::parseInteger(t);
        if (!v) return fail(n, "bad <integer> " + quoted(t));
        out = PropertyList(*v);
        return true;
      }
      case Tag::Real: {
        auto v = plist_internal::parseReal(t);
        if (!v) return fail(n, "bad <real> " + quoted(t));
        out = PropertyList(*v);
        return true;
      }
      case Tag::Date: {
        auto v = plist_text::parseIsoDate(t);
        if (!v) return fail(n, "bad <date> " + quoted(t));
        out = PropertyList(*v);
        return true;
      }
      case Tag::Data: {
        PlistData d;
        if (!plist_text::decodeBase64(t, d)) return fail(n, "bad base64 in <data>");
        out = PropertyList(std::move(d));
        return true;
      }
      default:
        return fail(n, "unexpected element");
    }
  }

  // The values the arrays being read have gathered so far, innermost last: an array reads its
  // children in document order onto the stack (nested ones stack theirs above and take them off
  // again), then moves them into a vector of the right size. One pass over the children, in the
  // parser's memory order, and one allocation; counting them first would chase every sibling
  // link across the whole subtree, a cache miss each on large documents.
  template <typename T>
  class Pending {
   public:
    explicit Pending(std::vector<T>& stack) : stack_(stack), base_(stack.size()) {}
    ~Pending() { stack_.resize(base_); }
    Pending(const Pending&) = delete;
    Pending& operator=(const Pending&) = delete;
    size_t size() const { return stack_.size() - base_; }
    template <typename F>
    void forEach(F f) {
      for (size_t i = base_; i < stack_.size(); ++i) f(stack_[i]);
    }

   private:
    std::vector<T>& stack_;
    size_t base_;
  };

  std::vector<PropertyList> values_;

  // The children of one dictionary, gathered in one pass so that its entries are sized before
  // they are filled in place. Nested dictionaries stack theirs above, so entries are read by index.
  class ChildRange {
   public:
    ChildRange(std::vector<pugi::xml_node>& nodes, pugi::xml_node parent)
        : nodes_(nodes), base_(nodes.size()) {
      for (pugi::xml_node c = parent.first_child(); c; c = c.next_sibling()) nodes_.push_back(c);
      size_ = nodes_.size() - base_;
    }
    ~ChildRange() { nodes_.resize(base_); }
    ChildRange(const ChildRange&) = delete;
    ChildRange& operator=(const ChildRange&) = delete;
    size_t size() const { return size_; }
    pugi::xml_node operator[](size_t i) const { return nodes_[base_ + i]; }

   private:
    std::vector<pugi::xml_node>& nodes_;
    size_t base_;
    size_t size_;
  };

  std::vector<pugi::xml_node> nodes_;
  size_t maxDepth_;
  std::string error_;
  ptrdiff_t errorOffset_ = -1;
};

std::string lineOf(std::string_view text, ptrdiff_t offset) {
  if (offset < 0) return "";
  size_t end = std::min(static_cast<size_t>(offset), text.size());
  size_t line = 1 + static_cast<size_t>(
                        std::count(text.begin(), text.begin() + static_cast<ptrdiff_t>(end), '\n'));
  return "line " + std::to_string(line) + ": ";
}

}  // namespace

namespace plist_internal {

std::optional<PlistInteger> parseInteger(std::string_view t) {
  bool neg = false;
  if (!t.empty() && (t[0] == '-' || t[0] == '+')) {
    neg = t[0] == '-';
    t.remove_prefix(1);
  }
  int base = 10;
  if (t.size() > 2 && t[0] == '0' && (t[1] == 'x' || t[1] == 'X')) {
    base = 16;
    t.remove_prefix(2);
  }
  if (t.empty()) return std::nullopt;
  std::uint64_t v = 0;
  if (base == 10 && t.size() <= 18) {
    // Up to 18 digits cannot overflow: the common case, without from_chars.
    for (char c : t) {
      if (c < '0' || c > '9') return std::nullopt;
      v = v * 10 + static_cast<std::uint64_t>(c - '0');
    }
    return neg ? PlistInteger{0 - v, false} : PlistInteger{v, false};
  }
  auto r = std::from_chars(t.data(), t.data() + t.size(), v, base);
  if (r.ec != std::errc() || r.ptr != t.data() + t.size()) return std::nullopt;
  if (neg) {
    if (v > (std::uint64_t{1} << 63)) return std::nullopt;
    return PlistInteger{0 - v, false};
  }
  return PlistInteger{v, v > static_cast<std::uint64_t>(INT64_MAX)};
}

std::optional<double> parseReal(std::string_view t) {
  std::string_view body = t;
  if (!body.empty() && body[0] == '+') {
    body.remove_prefix(1);
    if (!body.empty() && body[0] == '-') return std::nullopt;
  }
  if (body.empty()) return std::nullopt;
  double v = 0;
  auto r = std::from_chars(body.data(), body.data() + body.size(), v);
  if (r.ptr != body.data() + body.size()) return std::nullopt;
  if (r.ec == std::errc::result_out_of_range) return outOfRangeReal(t);
  if (r.ec != std::errc()) return std::nullopt;
  return v;
}

char* parseBuffer(size_t size, std::unique_ptr<char[]>& own) {
  // A fresh multi-megabyte allocation for every document comes from mmap and costs more in page
  // faults than the parse itself, so each thread keeps its buffer for the next document.
  constexpr size_t kMaxKept = size_t{8} << 20;
  constexpr size_t kMinKept = size_t{64} << 10;
  thread_local std::unique_ptr<char[]> kept;
  thread_local size_t keptSize = 0;
  if (kept && size <= keptSize) return kept.get();
  if (size > kMaxKept) {
    own.reset(new char[size]);
    return own.get();
  }
  kept.reset();
  keptSize = std::max(size, kMinKept);
  kept.reset(new char[keptSize]);
  return kept.get();
}

// XML has no character 0, and pugixml would write a NUL for "&#0;" that cuts the text short
// (and makes "a&#0;x" the key "a"): find such a reference before parsing.
std::optional<size_t> nulReference(std::string_view text) {
  for (size_t at = text.find("&#"); at != std::string_view::npos; at = text.find("&#", at + 2)) {
    size_t i = at + 2;
    bool hex = i < text.size() && (text[i] == 'x' || text[i] == 'X');
    if (hex) ++i;
    size_t digits = i;
    while (i < text.size() && text[i] == '0') ++i;
    if (i > digits && i < text.size() && text[i] == ';') return at;
  }
  return std::nullopt;
}

PlistReadResult readInPlace(char* buffer, size_t size, std::string_view original,
                            const PlistReadOptions& options) {
  PlistReadResult result;
  if (std::memchr(buffer, '&', size)) {
    if (std::optional<size_t> at = nulReference(original)) {
      result.error = lineOf(original, static_cast<std::ptrdiff_t>(*at)) +
                     "malformed XML: a character reference to NUL";
      return result;
    }
  }
  pugi::xml_document doc;
  // Most documents have no carriage return and many no entity at all; telling pugixml so lets
  // it take its faster text scanning. (The bytes '\r' and '&' show in every encoding it reads.)
  unsigned flags = kParseOptions;
  if (!std::memchr(buffer, '\r', size)) flags &= ~pugi::parse_eol;
  if (!std::memchr(buffer, '&', size)) flags &= ~pugi::parse_escapes;
  pugi::xml_parse_result parsed = doc.load_buffer_inplace(buffer, size, flags);
  if (!parsed) {
    result.error = lineOf(original, parsed.offset) + "malformed XML: " + parsed.description();
    return result;
  }
  Reader reader(options);
  PropertyList value;
  if (!reader.document(doc, value)) {
    result.error = lineOf(original, reader.errorOffset()) + reader.error();
    return result;
  }
  if (options.requireDictionary && !value.isDict()) {
    result.error = "the top level is not a dictionary";
    return result;
  }
  result.value = std::move(value);
  return result;
}

}  // namespace plist_internal

PlistReadResult readXmlPlist(std::string_view text, const PlistReadOptions& options) {
  // pugixml parses in place, so the text is copied; that also keeps the caller's text intact
  // for error lines.
  std::unique_ptr<char[]> own;
  char* buffer = plist_internal::parseBuffer(text.size(), own);
  if (!text.empty()) std::memcpy(buffer, text.data(), text.size());
  return plist_internal::readInPlace(buffer, text.size(), text, options);
}

}  // namespace velm
