// describe(): the one-line text that %@ prints.
#include <ostream>

#include "plist/plist.h"
#include "plist/plist_text.h"

namespace velm {

namespace {

bool isBareChar(unsigned char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
         c == '$' || c == '.' || c == '/' || c == '-';
}

void appendQuotable(std::string& out, std::string_view s) {
  bool bare = !s.empty();
  for (unsigned char c : s) {
    if (!isBareChar(c)) {
      bare = false;
      break;
    }
  }
  if (bare) {
    out += s;
    return;
  }
  out += '"';
  for (char c : s) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      // A log line stays one line.
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        out += c;
    }
  }
  out += '"';
}

void appendHex(std::string& out, const PlistData& d) {
  static constexpr char kHex[] = "0123456789abcdef";
  out += '<';
  for (size_t i = 0; i < d.size(); ++i) {
    if (i && i % 4 == 0) out += ' ';
    out += kHex[d[i] >> 4];
    out += kHex[d[i] & 15];
  }
  out += '>';
}

void describeInto(std::string& out, const PropertyList& v, bool nested) {
  switch (v.type()) {
    case PropertyList::Type::Null:
      out += "(null)";
      return;
    case PropertyList::Type::Dictionary: {
      const PlistDict& d = *v.asDict();
      if (d.empty()) {
        out += "{}";
        return;
      }
      out += "{ ";
      for (const auto& [key, value] : d) {
        appendQuotable(out, key);
        out += " = ";
        describeInto(out, value, true);
        out += "; ";
      }
      out += '}';
      return;
    }
    case PropertyList::Type::Array: {
      const PlistArray& a = *v.asArray();
      if (a.empty()) {
        out += "()";
        return;
      }
      out += "( ";
      for (size_t i = 0; i < a.size(); ++i) {
        if (i) out += ", ";
        describeInto(out, a[i], true);
      }
      out += " )";
      return;
    }
    case PropertyList::Type::String:
      if (nested)
        appendQuotable(out, *v.asString());
      else
        out += *v.asString();
      return;
    case PropertyList::Type::Integer:
      plist_text::appendInteger(out, *v.asInteger());
      return;
    case PropertyList::Type::Real:
      plist_text::appendReal(out, *v.asReal());
      return;
    case PropertyList::Type::Boolean:
      out += *v.asBool() ? '1' : '0';
      return;
    case PropertyList::Type::Date:
      // Inside a collection a date is quoted like any string with spaces.
      if (nested) out += '"';
      plist_text::appendDescribeDate(out, *v.asDate());
      if (nested) out += '"';
      return;
    case PropertyList::Type::Data:
      appendHex(out, *v.asData());
      return;
  }
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const PropertyList& value) { return out << describe(value); }

std::string describe(const PropertyList& value) {
  std::string out;
  describeInto(out, value, false);
  return out;
}

}  // namespace velm
