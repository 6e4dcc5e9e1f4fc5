#include "tools/velmadmin_output.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <ctime>

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

std::string renderResponse(const PropertyList& response, OutputFormat format) {
  switch (format) {
    case OutputFormat::Xml:
      return writeXmlPlist(response);
    case OutputFormat::Json:
      return toJson(response) + "\n";
    case OutputFormat::Text:
      return describe(response) + "\n";
  }
  return {};
}

}  // namespace velm
