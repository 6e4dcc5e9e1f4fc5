#include "sim/simd_mounts.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "platform/files.h"
#include "platform/mounts.h"

namespace velm::sim {
namespace {

constexpr std::string_view kFsType = "qufs";
constexpr long long kFirstMountId = 1000;

struct Table {
  std::vector<std::string> lines;  // as found, without their newlines
};

Table readTable(const std::string& path) {
  Table t;
  std::string text = readFile(path).value_or("");
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    t.lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return t;
}

bool isVolumeLine(const std::string& line, const std::string& volume) {
  std::vector<MountEntry> e = parseMountInfo(line);
  return e.size() == 1 && e[0].fsType == kFsType && e[0].source == volume;
}

std::string writeTable(const std::string& path, const Table& t) {
  std::string text;
  for (const std::string& line : t.lines) text += line + "\n";
  int err = writeFileAtomically(path, text);
  return err ? "cannot write " + path + ": " + std::strerror(err) : std::string();
}

}  // namespace

bool SimdMounts::isMounted(const std::string& volume) const {
  Table t = readTable(mountInfoPath_);
  return std::any_of(t.lines.begin(), t.lines.end(),
                     [&](const std::string& l) { return isVolumeLine(l, volume); });
}

std::string SimdMounts::mount(const std::string& volume, bool readOnly, const PlistDict* options) {
  std::string point = mountPoint(volume);
  if (int err = makeDirectories(point); err != 0)
    return "cannot make " + point + ": " + std::strerror(err);

  Table t = readTable(mountInfoPath_);
  std::erase_if(t.lines, [&](const std::string& l) { return isVolumeLine(l, volume); });
  std::vector<MountEntry> others;
  for (const std::string& l : t.lines)
    for (MountEntry& e : parseMountInfo(l)) others.push_back(std::move(e));
  long long id = kFirstMountId;
  for (const MountEntry& e : others) id = std::max(id, e.mountId + 1);
  std::optional<MountEntry> parent = mountContaining(others, point);

  const char* how = readOnly ? "ro" : "rw";
  std::string idText = std::to_string(id);
  std::string line = idText + " " + (parent ? std::to_string(parent->mountId) : "1") +
                     " 0:" + idText + " / " + escapeMountField(point) + " " + how +
                     ",relatime shared:" + idText + " - " + std::string(kFsType) + " " +
                     escapeMountField(volume) + " " + how;
  if (options) {
    for (const auto& [key, value] : *options) {
      if (value.isDict() || value.isArray() || value.isNull()) continue;
      line += ',';
      line += escapeMountField(key);
      line += '=';
      line += escapeMountField(describe(value));
    }
  }
  t.lines.push_back(std::move(line));
  return writeTable(mountInfoPath_, t);
}

std::string SimdMounts::unmount(const std::string& volume) {
  Table t = readTable(mountInfoPath_);
  std::size_t removed =
      std::erase_if(t.lines, [&](const std::string& l) { return isVolumeLine(l, volume); });
  if (removed == 0) return "'" + volume + "' is not mounted";
  std::string error = writeTable(mountInfoPath_, t);
  if (!error.empty()) return error;
  // Deliberate: a mount point with something in it stays, as a real unmount leaves it.
  ::rmdir(mountPoint(volume).c_str());
  return {};
}

}  // namespace velm::sim
