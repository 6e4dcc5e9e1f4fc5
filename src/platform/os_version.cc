#include "platform/os_version.h"

#include "platform/files.h"
#include "platform/paths.h"

namespace velm {
namespace {

bool isNameChar(char c, bool first) {
  if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_') return true;
  return !first && c >= '0' && c <= '9';
}

std::string_view trimBlanks(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t' || s.front() == '\r')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r')) s.remove_suffix(1);
  return s;
}

// The shell's quoting, as far as these files use it: "..." with \" \\ \$ \` escapes, '...'
// literally, and bare words with backslash escapes. Text after the value is ignored.
std::optional<std::string> unquote(std::string_view v) {
  std::string out;
  size_t i = 0;
  while (i < v.size()) {
    char c = v[i];
    if (c == '"') {
      ++i;
      for (;;) {
        if (i >= v.size()) return std::nullopt;
        char d = v[i++];
        if (d == '"') break;
        if (d == '\\' && i < v.size() &&
            (v[i] == '"' || v[i] == '\\' || v[i] == '$' || v[i] == '`')) {
          out += v[i++];
        } else {
          out += d;
        }
      }
    } else if (c == '\'') {
      size_t end = v.find('\'', i + 1);
      if (end == std::string_view::npos) return std::nullopt;
      out.append(v.substr(i + 1, end - i - 1));
      i = end + 1;
    } else if (c == ' ' || c == '\t') {
      break;
    } else if (c == '\\' && i + 1 < v.size()) {
      out += v[i + 1];
      i += 2;
    } else {
      out += c;
      ++i;
    }
  }
  return out;
}

void copyIfPresent(const std::vector<std::pair<std::string, std::string>>& vars, std::string_view from,
                   std::string_view to, PropertyList& dict) {
  for (const auto& [k, v] : vars)
    if (k == from) dict.set(std::string(to), v);  // a later line wins, as when sourced
}

}  // namespace

std::vector<std::pair<std::string, std::string>> parseShellAssignments(std::string_view text) {
  std::vector<std::pair<std::string, std::string>> out;
  while (!text.empty()) {
    size_t nl = text.find('\n');
    std::string_view line = trimBlanks(text.substr(0, nl));
    text.remove_prefix(nl == std::string_view::npos ? text.size() : nl + 1);
    if (line.empty() || line.front() == '#') continue;
    size_t eq = line.find('=');
    if (eq == std::string_view::npos || eq == 0) continue;
    std::string_view name = line.substr(0, eq);
    bool valid = true;
    for (size_t i = 0; i < name.size(); ++i) valid = valid && isNameChar(name[i], i == 0);
    if (!valid) continue;
    if (auto value = unquote(line.substr(eq + 1))) out.emplace_back(std::string(name), std::move(*value));
  }
  return out;
}

std::optional<PropertyList> serverVersionDictionary() {
  return readDictionaryFile(hostPath("/etc/velm/server-version.plist"));
}

std::optional<PropertyList> systemVersionDictionary() {
  std::optional<std::string> text = readFile(hostPath("/etc/os-release"));
  if (!text) text = readFile(hostPath("/usr/lib/os-release"));
  if (!text) return std::nullopt;
  auto vars = parseShellAssignments(*text);
  PropertyList dict = PropertyList::dict();
  copyIfPresent(vars, "NAME", "ProductName", dict);
  copyIfPresent(vars, "VERSION_ID", "ProductVersion", dict);
  copyIfPresent(vars, "BUILD_ID", "ProductBuildVersion", dict);
  return dict;
}

}  // namespace velm
