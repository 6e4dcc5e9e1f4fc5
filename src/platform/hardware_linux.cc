#include "platform/hardware.h"

#include <dirent.h>

#include <atomic>
#include <charconv>
#include <cmath>
#include <set>

#include "platform/files.h"
#include "platform/paths.h"

// Linux has no family codes, processor type codes or device-tree cpu-type: those questions get
// no answer, and the processor kind comes from /proc/cpuinfo in words.
namespace velm {
namespace {

std::string_view trimmed(std::string_view s) {
  auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\0'; };
  while (!s.empty() && blank(s.front())) s.remove_prefix(1);
  while (!s.empty() && blank(s.back())) s.remove_suffix(1);
  return s;
}

template <typename T>
std::optional<T> parseNumber(std::string_view s) {
  s = trimmed(s);
  T value{};
  auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), value);
  if (ec != std::errc() || end == s.data()) return std::nullopt;
  return value;
}

// The value of the first "key : value" line with that key in a /proc file.
std::optional<std::string> procField(const char* file, std::string_view key) {
  auto text = readFile(procfsPath(file));
  if (!text) return std::nullopt;
  std::string_view rest = *text;
  while (!rest.empty()) {
    size_t nl = rest.find('\n');
    std::string_view line = rest.substr(0, nl);
    rest.remove_prefix(nl == std::string_view::npos ? rest.size() : nl + 1);
    size_t colon = line.find(':');
    if (colon == std::string_view::npos || trimmed(line.substr(0, colon)) != key) continue;
    std::string_view value = trimmed(line.substr(colon + 1));
    if (value.empty()) return std::nullopt;
    return std::string(value);
  }
  return std::nullopt;
}

std::optional<std::string> cpuinfoField(std::string_view key) { return procField("cpuinfo", key); }

// Architectures name the processor under different keys.
std::optional<std::string> processorName() {
  for (std::string_view key : {"model name", "Processor", "cpu model", "cpu"})
    if (auto v = cpuinfoField(key)) return v;
  return std::nullopt;
}

// cpuN directories under devices/system/cpu.
std::vector<std::string> cpuDirectories() {
  std::string base = sysfsPath("devices/system/cpu");
  std::vector<std::string> out;
  DIR* dir = ::opendir(base.c_str());
  if (!dir) return out;
  while (struct dirent* e = ::readdir(dir)) {
    std::string_view name = e->d_name;
    if (name.size() < 4 || name.substr(0, 3) != "cpu") continue;
    if (name.substr(3).find_first_not_of("0123456789") != std::string_view::npos) continue;
    out.push_back(base + "/" + std::string(name));
  }
  ::closedir(dir);
  return out;
}

class LinuxHardwareSource : public HardwareSource {
 public:
  std::optional<std::uint64_t> cpuFrequency() override {
    auto mhz = cpuinfoField("cpu MHz");
    if (!mhz) return std::nullopt;
    auto value = parseNumber<double>(*mhz);
    if (!value || !(*value > 0) || *value > 1e12) return std::nullopt;
    return static_cast<std::uint64_t>(std::llround(*value * 1e6));
  }

  // The fastest processor's highest clock: on mixed designs the big cores set the figure.
  std::optional<std::uint64_t> cpuFrequencyMax() override {
    std::optional<std::uint64_t> best;
    for (const auto& cpu : cpuDirectories()) {
      auto text = readFile(cpu + "/cpufreq/cpuinfo_max_freq");
      if (!text) continue;
      auto khz = parseNumber<std::uint64_t>(*text);
      if (!khz || *khz > UINT64_MAX / 1000) continue;
      if (!best || *khz * 1000 > *best) best = *khz * 1000;
    }
    return best;
  }

  std::optional<std::uint64_t> busFrequency() override { return std::nullopt; }
  std::optional<std::uint32_t> cpuFamily() override { return std::nullopt; }

  std::optional<int> packages() override {
    std::set<long long> ids;
    for (const auto& cpu : cpuDirectories()) {
      auto text = readFile(cpu + "/topology/physical_package_id");
      if (!text) continue;
      if (auto id = parseNumber<long long>(*text)) ids.insert(*id);
    }
    if (ids.empty()) return std::nullopt;
    return static_cast<int>(ids.size());
  }

  std::optional<std::string> cpuBrandString() override { return processorName(); }

  std::optional<int> coreCount() override { return coresPerPackage(); }

  std::optional<int> coresPerPackage() override {
    auto text = cpuinfoField("cpu cores");
    if (!text) return std::nullopt;
    auto cores = parseNumber<int>(*text);
    if (!cores || *cores <= 0) return std::nullopt;
    return cores;
  }

  std::optional<std::uint64_t> physicalMemory() override {
    auto text = procField("meminfo", "MemTotal");
    if (!text) return std::nullopt;
    std::string_view value = *text;
    if (value.size() >= 2 && value.substr(value.size() - 2) == "kB") value.remove_suffix(2);
    auto kb = parseNumber<std::uint64_t>(value);
    if (!kb || *kb > UINT64_MAX / 1024) return std::nullopt;
    return *kb * 1024;
  }

  // DMI on PCs; boards without it name themselves in the device tree.
  std::optional<std::string> modelString() override {
    for (const char* file : {"class/dmi/id/product_name", "firmware/devicetree/base/model"}) {
      auto text = readFile(sysfsPath(file));
      if (!text) continue;
      std::string_view name = trimmed(*text);
      if (!name.empty()) return std::string(name);
    }
    return std::nullopt;
  }

  std::optional<HostBasicInfo> hostBasicInfo() override { return std::nullopt; }
  std::optional<std::vector<std::uint8_t>> deviceTreeCpuType() override { return std::nullopt; }
  std::optional<std::string> cpuKindName() override { return processorName(); }
};

LinuxHardwareSource gLinuxSource;
std::atomic<HardwareSource*> gTestSource{nullptr};

}  // namespace

HardwareSource& hardwareSource() {
  HardwareSource* s = gTestSource.load();
  return s ? *s : gLinuxSource;
}

void setHardwareSourceForTest(HardwareSource* source) { gTestSource.store(source); }

}  // namespace velm
