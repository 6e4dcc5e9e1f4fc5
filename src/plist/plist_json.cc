#include "plist/plist_json.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <limits>
#include <vector>

#include "plist/plist_text.h"

namespace velm {
namespace {

constexpr std::string_view kDateKey = "$date";
constexpr std::string_view kDataKey = "$data";

void appendJsonString(std::string& out, std::string_view s) {
  std::string cleaned;
  if (!plist_text::isCleanText(s)) {
    plist_text::appendCleaned(cleaned, s);
    s = cleaned;
  }
  out += '"';
  std::size_t start = 0;
  for (std::size_t i = 0; i < s.size(); ++i) {
    auto c = static_cast<unsigned char>(s[i]);
    if (c >= 0x20 && c != '"' && c != '\\') continue;
    out.append(s, start, i - start);
    start = i + 1;
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default: {
        static constexpr char kHex[] = "0123456789abcdef";
        out += "\\u00";
        out += kHex[c >> 4];
        out += kHex[c & 15];
      }
    }
  }
  out.append(s, start, s.size() - start);
  out += '"';
}

class Writer {
 public:
  Writer(std::string& out, JsonLayout layout) : out_(out), indented_(layout == JsonLayout::Indented) {}

  void value(const PropertyList& v, int depth) {
    switch (v.type()) {
      case PropertyList::Type::Null:
        out_ += "null";
        return;
      case PropertyList::Type::Dictionary: {
        const PlistDict& d = *v.asDict();
        if (d.empty()) {
          out_ += "{}";
          return;
        }
        out_ += '{';
        bool first = true;
        for (const auto& [key, item] : d) {
          separator(first, depth + 1);
          appendJsonString(out_, key);
          out_ += indented_ ? ": " : ":";
          value(item, depth + 1);
        }
        close('}', depth);
        return;
      }
      case PropertyList::Type::Array: {
        const PlistArray& a = *v.asArray();
        if (a.empty()) {
          out_ += "[]";
          return;
        }
        out_ += '[';
        bool first = true;
        for (const PropertyList& item : a) {
          separator(first, depth + 1);
          value(item, depth + 1);
        }
        close(']', depth);
        return;
      }
      case PropertyList::Type::String:
        appendJsonString(out_, *v.asString());
        return;
      case PropertyList::Type::Integer:
        plist_text::appendInteger(out_, *v.asInteger());
        return;
      case PropertyList::Type::Real: {
        double d = *v.asReal();
        if (!std::isfinite(d)) {
          out_ += "null";
          return;
        }
        std::size_t from = out_.size();
        plist_text::appendReal(out_, d);
        // A real keeps a fraction or an exponent, so it does not read back as an integer.
        if (out_.find_first_of(".e", from) == std::string::npos) out_ += ".0";
        return;
      }
      case PropertyList::Type::Boolean:
        out_ += *v.asBool() ? "true" : "false";
        return;
      case PropertyList::Type::Date:
        out_ += indented_ ? "{\"$date\": \"" : "{\"$date\":\"";
        plist_text::appendIsoDate(out_, *v.asDate());
        out_ += "\"}";
        return;
      case PropertyList::Type::Data: {
        const PlistData& data = *v.asData();
        out_ += indented_ ? "{\"$data\": \"" : "{\"$data\":\"";
        plist_text::appendBase64(out_, data.data(), data.size());
        out_ += "\"}";
        return;
      }
    }
  }

 private:
  void separator(bool& first, int depth) {
    if (!first) out_ += ',';
    first = false;
    if (indented_) newline(depth);
  }
  void close(char c, int depth) {
    if (indented_) newline(depth);
    out_ += c;
  }
  void newline(int depth) {
    out_ += '\n';
    out_.append(static_cast<std::size_t>(depth) * 2, ' ');
  }

  std::string& out_;
  const bool indented_;
};

// Builds the PropertyList as the parser goes (no JSON tree in between). The parser itself keeps
// its nesting on a heap stack, so depth is bounded here and never by the C++ stack.
class Builder {
 public:
  using json = nlohmann::json;

  explicit Builder(std::size_t maxDepth) : maxDepth_(maxDepth) {}

  bool null() { return fail("null has no property-list form"); }
  bool boolean(bool b) { return put(PropertyList(b)); }
  bool number_integer(json::number_integer_t i) {
    return put(PropertyList(PlistInteger{static_cast<std::uint64_t>(i), false}));
  }
  bool number_unsigned(json::number_unsigned_t u) {
    bool past = u > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
    return put(PropertyList(PlistInteger{u, past}));
  }
  bool number_float(json::number_float_t d, const json::string_t&) {
    if (!std::isfinite(d)) return fail("number out of range");
    return put(PropertyList(d));
  }
  bool string(json::string_t& s) { return put(PropertyList(clean(std::move(s)))); }
  bool binary(json::binary_t&) { return fail("binary values are not JSON"); }
  bool start_object(std::size_t) { return open(PropertyList::dict()); }
  bool key(json::string_t& k) {
    keys_.back() = clean(std::move(k));
    return true;
  }
  bool end_object() {
    PropertyList& d = *open_.back();
    d.asDict()->sortAndDedupe();
    if (!untag(d)) return false;
    return closeContainer();
  }
  bool start_array(std::size_t) { return open(PropertyList::array()); }
  bool end_array() { return closeContainer(); }
  bool parse_error(std::size_t position, const std::string&, const nlohmann::detail::exception& e) {
    if (error_.empty()) error_ = e.what();
    (void)position;
    return false;
  }

  PlistReadResult result() {
    PlistReadResult r;
    if (error_.empty() && done_) r.value = std::move(root_);
    else r.error = error_.empty() ? "incomplete JSON" : error_;
    return r;
  }

 private:
  static std::string clean(std::string s) {
    if (plist_text::isCleanText(s)) return s;
    std::string out;
    plist_text::appendCleaned(out, s);
    return out;
  }

  bool fail(std::string why) {
    if (error_.empty()) error_ = std::move(why);
    return false;
  }

  // Where the next value goes. Pointers into a parent stay valid: a parent is not touched while
  // a child of it is open.
  PropertyList* slot() {
    if (open_.empty()) {
      done_ = true;
      return &root_;
    }
    PropertyList& top = *open_.back();
    if (PlistDict* d = top.asDict()) return &d->appendUnsorted(std::move(keys_.back()));
    PlistArray* a = top.asArray();
    a->emplace_back();
    return &a->back();
  }

  bool put(PropertyList v) {
    *slot() = std::move(v);
    return true;
  }

  bool open(PropertyList container) {
    if (open_.size() >= maxDepth_) return fail("nested too deeply");
    PropertyList* s = slot();
    *s = std::move(container);
    open_.push_back(s);
    keys_.emplace_back();
    return true;
  }

  bool closeContainer() {
    open_.pop_back();
    keys_.pop_back();
    return true;
  }

  // {"$date": "..."} and {"$data": "..."} become the values they stand for.
  bool untag(PropertyList& d) {
    const PlistDict& dict = *d.asDict();
    if (dict.size() != 1) return true;
    const auto& [k, v] = *dict.begin();
    if (k != kDateKey && k != kDataKey) return true;
    const std::string* text = v.asString();
    if (!text) return fail(std::string(k) + " takes a string");
    if (k == kDateKey) {
      std::optional<PlistDate> date = plist_text::parseIsoDate(*text);
      if (!date) return fail("bad $date \"" + *text + "\"");
      d = PropertyList(*date);
    } else {
      PlistData bytes;
      if (!plist_text::decodeBase64(*text, bytes)) return fail("bad $data base64");
      d = PropertyList(std::move(bytes));
    }
    return true;
  }

  const std::size_t maxDepth_;
  PropertyList root_;
  bool done_ = false;
  std::vector<PropertyList*> open_;
  std::vector<std::string> keys_;  // the pending key of each open dictionary
  std::string error_;
};

}  // namespace

std::string writeJson(const PropertyList& value, JsonLayout layout) {
  std::string out;
  Writer(out, layout).value(value, 0);
  return out;
}

PlistReadResult readJson(std::string_view text, const PlistReadOptions& options) {
  Builder builder(std::min<std::size_t>(options.maxDepth, 1024));
  bool ok = nlohmann::json::sax_parse(text.begin(), text.end(), &builder);
  PlistReadResult r = builder.result();
  if (!ok && r.error.empty()) r.error = "malformed JSON";
  if (!ok) r.value.reset();
  if (r && options.requireDictionary && !r.value->isDict()) {
    r.value.reset();
    r.error = "the top level is not a dictionary";
  }
  return r;
}

}  // namespace velm
