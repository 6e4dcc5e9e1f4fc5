#include "tools/velmadmin_output.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <vector>

namespace velm {
namespace {

void appendJsonString(std::string& out, std::string_view s) {
  out += '"';
  for (unsigned char c : s) {
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        if (c < 0x20) {
          char buf[8];
          std::snprintf(buf, sizeof buf, "\\u%04x", c);
          out += buf;
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  out += '"';
}

std::string isoDate(double secondsSince2001) {
  double unix = secondsSince2001 + 978307200.0;
  if (!std::isfinite(unix)) return "invalid";
  std::time_t t = static_cast<std::time_t>(std::floor(unix));
  std::tm tm {};
  gmtime_r(&t, &tm);
  char buf[32];
  std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", &tm);
  return buf;
}

void appendJson(std::string& out, const PropertyList& v, int depth) {
  std::string pad(static_cast<size_t>(depth + 1) * 2, ' ');
  std::string closePad(static_cast<size_t>(depth) * 2, ' ');
  switch (v.type()) {
    case PropertyList::Type::Null:
      out += "null";
      break;
    case PropertyList::Type::Dictionary: {
      const PlistDict& d = *v.asDict();
      if (d.empty()) {
        out += "{}";
        break;
      }
      out += "{\n";
      bool first = true;
      for (const auto& [key, value] : d) {
        if (!first) out += ",\n";
        first = false;
        out += pad;
        appendJsonString(out, key);
        out += ": ";
        appendJson(out, value, depth + 1);
      }
      out += "\n" + closePad + "}";
      break;
    }
    case PropertyList::Type::Array: {
      const PlistArray& a = *v.asArray();
      if (a.empty()) {
        out += "[]";
        break;
      }
      out += "[\n";
      for (size_t i = 0; i < a.size(); ++i) {
        if (i) out += ",\n";
        out += pad;
        appendJson(out, a[i], depth + 1);
      }
      out += "\n" + closePad + "]";
      break;
    }
    case PropertyList::Type::String:
      appendJsonString(out, *v.asString());
      break;
    case PropertyList::Type::Integer: {
      const PlistInteger& i = *v.asInteger();
      out += i.isUnsigned ? std::to_string(i.bits) : std::to_string(i.asSigned());
      break;
    }
    case PropertyList::Type::Real: {
      double d = *v.asReal();
      if (!std::isfinite(d)) {
        out += "null";
        break;
      }
      char buf[64];
      auto r = std::to_chars(buf, buf + sizeof buf, d);
      out.append(buf, r.ptr);
      break;
    }
    case PropertyList::Type::Boolean:
      out += *v.asBool() ? "true" : "false";
      break;
    case PropertyList::Type::Date:
      appendJsonString(out, isoDate(v.asDate()->secondsSince2001));
      break;
    case PropertyList::Type::Data:
      appendJsonString(out, base64Encode(*v.asData()));
      break;
  }
}

}  // namespace

std::optional<OutputFormat> outputFormatNamed(std::string_view name) {
  if (name == "xml") return OutputFormat::Xml;
  if (name == "json") return OutputFormat::Json;
  if (name == "text") return OutputFormat::Text;
  return std::nullopt;
}

std::string toJson(const PropertyList& value) {
  std::string out;
  appendJson(out, value, 0);
  return out;
}

namespace {

// One value on one line: texts as they are (line ends shown as \n), flags as true and false.
std::string scalarText(const PropertyList& v) {
  if (const std::string* s = v.asString()) {
    std::string out;
    for (char c : *s) out += c == '\n' ? std::string("\\n") : std::string(1, c);
    return out;
  }
  if (v.isBool()) return v.boolValue() ? "true" : "false";
  if (const PlistData* d = v.asData()) return "<" + std::to_string(d->size()) + " bytes>";
  if (v.isDict()) return "{}";
  if (v.isArray()) return "[]";
  return describe(v);
}

bool isScalar(const PropertyList& v) {
  return !(v.isDict() && v.size() > 0) && !(v.isArray() && v.size() > 0);
}

// Two or more dictionaries of scalars read best as a table.
bool isTable(const PlistArray& list) {
  if (list.size() < 2) return false;
  for (const PropertyList& e : list) {
    if (!e.isDict() || e.size() == 0) return false;
    for (const auto& [k, v] : *e.asDict())
      if (!isScalar(v)) return false;
  }
  return true;
}

void appendText(std::string& out, const PropertyList& v, int depth);

void appendTable(std::string& out, const PlistArray& rows, int depth) {
  std::vector<std::string> keys;
  for (const PropertyList& r : rows)
    for (const auto& [k, v] : *r.asDict())
      if (std::find(keys.begin(), keys.end(), k) == keys.end()) keys.push_back(k);
  std::sort(keys.begin(), keys.end());
  std::vector<std::size_t> width(keys.size());
  std::vector<std::vector<std::string>> cells;
  for (std::size_t c = 0; c < keys.size(); ++c) width[c] = keys[c].size();
  for (const PropertyList& r : rows) {
    cells.emplace_back();
    for (std::size_t c = 0; c < keys.size(); ++c) {
      const PropertyList* v = r.get(keys[c]);
      cells.back().push_back(v ? scalarText(*v) : "");
      width[c] = std::max(width[c], cells.back().back().size());
    }
  }
  auto line = [&](const std::vector<std::string>& texts) {
    std::string l(static_cast<std::size_t>(depth) * 2, ' ');
    for (std::size_t c = 0; c < texts.size(); ++c) {
      l += texts[c];
      if (c + 1 < texts.size()) l += std::string(width[c] - texts[c].size() + 2, ' ');
    }
    out += l + "\n";
  };
  line(keys);
  for (const auto& row : cells) line(row);
}

void appendText(std::string& out, const PropertyList& v, int depth) {
  std::string indent(static_cast<std::size_t>(depth) * 2, ' ');
  if (const PlistDict* d = v.asDict()) {
    for (const auto& [k, value] : *d) {
      if (isScalar(value)) {
        out += indent + k + ": " + scalarText(value) + "\n";
      } else {
        out += indent + k + ":\n";
        appendText(out, value, depth + 1);
      }
    }
  } else if (const PlistArray* a = v.asArray()) {
    if (isTable(*a)) {
      appendTable(out, *a, depth);
      return;
    }
    for (const PropertyList& e : *a) {
      if (isScalar(e)) {
        out += indent + "- " + scalarText(e) + "\n";
      } else {
        out += indent + "-\n";
        appendText(out, e, depth + 1);
      }
    }
  } else {
    out += indent + scalarText(v) + "\n";
  }
}

}  // namespace

std::string renderText(const PropertyList& response) {
  std::string out;
  appendText(out, response, 0);
  return out;
}

std::string renderResponse(const PropertyList& response, OutputFormat format) {
  switch (format) {
    case OutputFormat::Xml:
      return writeXmlPlist(response);
    case OutputFormat::Json:
      return toJson(response) + "\n";
    case OutputFormat::Text:
      return renderText(response);
  }
  return {};
}

}  // namespace velm
