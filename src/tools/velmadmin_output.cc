#include "tools/velmadmin_output.h"

#include <algorithm>
#include <vector>

#include "plist/plist_json.h"

namespace velm {

std::optional<OutputFormat> outputFormatNamed(std::string_view name) {
  if (name == "xml") return OutputFormat::Xml;
  if (name == "json") return OutputFormat::Json;
  if (name == "text") return OutputFormat::Text;
  return std::nullopt;
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
      return writeJson(response) + "\n";
    case OutputFormat::Text:
      return renderText(response);
  }
  return {};
}

}  // namespace velm
