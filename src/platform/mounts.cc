#include "platform/mounts.h"

#include <charconv>

#include "platform/files.h"
#include "platform/paths.h"

namespace velm {
namespace {

std::vector<std::string_view> splitBlanks(std::string_view line) {
  std::vector<std::string_view> fields;
  size_t i = 0;
  while (i < line.size()) {
    while (i < line.size() && line[i] == ' ') ++i;
    if (i >= line.size()) break;
    size_t j = line.find(' ', i);
    if (j == std::string_view::npos) j = line.size();
    fields.push_back(line.substr(i, j - i));
    i = j;
  }
  return fields;
}

bool parseId(std::string_view s, long long& out) {
  auto [p, ec] = std::from_chars(s.data(), s.data() + s.size(), out);
  return ec == std::errc() && p == s.data() + s.size();
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

bool MountEntry::readOnly() const {
  std::string_view o = mountOptions;
  size_t comma = o.find(',');
  return o.substr(0, comma) == "ro";
}

std::string unescapeMountField(std::string_view field) {
  std::string out;
  out.reserve(field.size());
  for (size_t i = 0; i < field.size(); ++i) {
    if (field[i] == '\\' && i + 3 < field.size()) {
      char a = field[i + 1], b = field[i + 2], c = field[i + 3];
      if (a >= '0' && a <= '3' && b >= '0' && b <= '7' && c >= '0' && c <= '7') {
        out += static_cast<char>((a - '0') * 64 + (b - '0') * 8 + (c - '0'));
        i += 3;
        continue;
      }
    }
    out += field[i];
  }
  return out;
}

std::string escapeMountField(std::string_view field) {
  std::string out;
  for (char c : field) {
    if (c == ' ' || c == '\t' || c == '\n' || c == '\\') {
      static const char digits[] = "01234567";
      unsigned char u = static_cast<unsigned char>(c);
      out += '\\';
      out += digits[(u >> 6) & 7];
      out += digits[(u >> 3) & 7];
      out += digits[u & 7];
    } else {
      out += c;
    }
  }
  return out;
}

std::vector<MountEntry> parseMountInfo(std::string_view text) {
  std::vector<MountEntry> mounts;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string_view::npos) end = text.size();
    std::string_view line = text.substr(start, end - start);
    start = end + 1;
    std::vector<std::string_view> f = splitBlanks(line);
    // id parent maj:min root mountpoint options [optional...] - fstype source superoptions
    size_t dash = 6;
    while (dash < f.size() && f[dash] != "-") ++dash;
    if (dash + 2 >= f.size()) continue;
    MountEntry m;
    if (!parseId(f[0], m.mountId) || !parseId(f[1], m.parentId)) continue;
    m.majorMinor = f[2];
    m.root = unescapeMountField(f[3]);
    m.mountPoint = unescapeMountField(f[4]);
    m.mountOptions = f[5];
    m.fsType = f[dash + 1];
    m.source = unescapeMountField(f[dash + 2]);
    if (dash + 3 < f.size()) m.superOptions = f[dash + 3];
    mounts.push_back(std::move(m));
  }
  return mounts;
}

std::vector<MountEntry> readMountInfo() {
  std::optional<std::string> text = readFile(procfsPath("self/mountinfo"));
  return text ? parseMountInfo(*text) : std::vector<MountEntry>{};
}

std::optional<MountEntry> mountContaining(const std::vector<MountEntry>& mounts,
                                          std::string_view path) {
  const MountEntry* best = nullptr;
  for (const MountEntry& m : mounts) {
    std::string_view mp = m.mountPoint;
    while (mp.size() > 1 && mp.back() == '/') mp.remove_suffix(1);
    bool inside =
        path == mp || (path.substr(0, mp.size()) == mp &&
                       (mp == "/" || (path.size() > mp.size() && path[mp.size()] == '/')));
    // Later lines win among equals: a mount over another hides it.
    if (inside && (!best || mp.size() >= best->mountPoint.size())) best = &m;
  }
  return best ? std::optional<MountEntry>(*best) : std::nullopt;
}

std::string fileURLForPath(std::string_view path, bool directory) {
  static const char hex[] = "0123456789ABCDEF";
  std::string url = "file://";
  for (char c : path) {
    unsigned char u = static_cast<unsigned char>(c);
    bool plain = (u >= 'a' && u <= 'z') || (u >= 'A' && u <= 'Z') || (u >= '0' && u <= '9') ||
                 std::string_view("/-._~!$&'()*+,;=:@").find(c) != std::string_view::npos;
    if (plain) {
      url += c;
    } else {
      url += '%';
      url += hex[u >> 4];
      url += hex[u & 15];
    }
  }
  if (directory && (url.size() == 7 || url.back() != '/')) url += '/';
  return url;
}

std::optional<std::string> pathFromFileURL(std::string_view url) {
  constexpr std::string_view scheme = "file://";
  if (url.substr(0, scheme.size()) != scheme) return std::nullopt;
  std::string_view rest = url.substr(scheme.size());
  size_t slash = rest.find('/');
  if (slash == std::string_view::npos) return std::nullopt;
  std::string_view host = rest.substr(0, slash);
  if (!host.empty() && host != "localhost") return std::nullopt;
  std::string_view encoded = rest.substr(slash);
  std::string path;
  for (size_t i = 0; i < encoded.size(); ++i) {
    if (encoded[i] == '?' || encoded[i] == '#') break;
    if (encoded[i] != '%') {
      path += encoded[i];
      continue;
    }
    if (i + 2 >= encoded.size()) return std::nullopt;
    int hi = hexValue(encoded[i + 1]), lo = hexValue(encoded[i + 2]);
    if (hi < 0 || lo < 0) return std::nullopt;
    path += static_cast<char>(hi * 16 + lo);
    i += 2;
  }
  if (path.find('\0') != std::string::npos) return std::nullopt;
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

}  // namespace velm
