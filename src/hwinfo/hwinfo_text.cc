#include <cmath>
#include <cstdlib>
#include <mutex>

#include "hwinfo/hwinfo.h"
#include "hwinfo/hwinfo_internal.h"
#include "platform/files.h"
#include "plist/format.h"

// Display texts of the hardware description, and the translation table they are made from.
namespace velm {
namespace hwinfo {
namespace {

struct Default {
  std::string_view key;
  std::string_view text;
};

constexpr Default kDefaults[] = {
    {"MHzFormat", "%d MHz"},
    {"GHzFormat", "%.*f GHz"},
    {"IntelSpeedAndTypeFormat", "%1$@ %2$@"},
    {"Intel1xCPUFormat", "%@"},
    {"Intel2xCPUFormat", "2 x %@"},
    {"Intel3xCPUFormat", "3 x %@"},
    {"Intel4xCPUFormat", "4 x %@"},
    {"IntelNxCPUFormat", "%1$d x %2$@"},
    {"UnknownCPUKind", "Unknown"},
    {"UnknownComputerModel", "Unknown"},
    {"DecimalMB", "%d MB"},
    {"DecimalGB", "%.*f GB"},
    {"DecimalTB", "%.*f TB"},
    {"DecimalPB", "%.*f PB"},
    {"DecimalEB", "%.*f EB"},
};

std::mutex gStringsMutex;                             // guards gStrings; leaf
std::optional<std::optional<PropertyList>> gStrings;  // outer: loaded yet; inner: the table

}  // namespace

std::string translated(std::string_view key) {
  {
    std::scoped_lock lock(gStringsMutex);
    if (!gStrings) gStrings.emplace(resourceTable("HostHardwareInfo.plist"));
    if (*gStrings) {
      if (const std::string* text = (*gStrings)->getString(key)) return *text;
    }
  }
  for (const auto& d : kDefaults)
    if (d.key == key) return std::string(d.text);
  return std::string(key);
}

void resetTextsForTest() {
  std::scoped_lock lock(gStringsMutex);
  gStrings.reset();
}

}  // namespace hwinfo

namespace {

using hwinfo::translated;

std::string apply(std::string_view key, std::initializer_list<FormatArg> args) {
  return vformat(translated(key), std::span<const FormatArg>(args.begin(), args.size()));
}

// Manufacturers quote even figures (1.83 GHz, 2.66 GHz), so a measured clock is moved to the
// nearest of them before it is shown.
std::string speedDescription(std::uint32_t hz, bool bus) {
  std::uint64_t m = (std::uint64_t{hz} + 500000) / 1000000;
  std::uint64_t r = m % 100;
  std::uint64_t hundreds = m - r;
  if (r <= 4) {
    m -= r;
  } else {
    bool fitted = false;
    for (std::uint64_t even : {33, 50, 66, 75}) {
      if (r + 4 >= even && r <= even + 4) {
        m = hundreds + even;
        fitted = true;
        break;
      }
    }
    if (!fitted && r >= 96) m = hundreds + 100;
  }
  // Deliberate: a processor at 266 reads 266 but a bus at 266 reads 267; only from 666 up do
  // processors get the extra one too.
  if (m % 100 == 66 && (bus || m > 665)) m += 1;
  if (m > 1000 && m % 1000 == 925) m += 5;
  if (m <= 999) return apply("MHzFormat", {static_cast<int>(m)});
  int decimals = m % 1000 == 0 ? 0 : (m % 100 == 0 ? 1 : 2);
  return apply("GHzFormat", {decimals, static_cast<double>(m) / 1000.0});
}

int decimalsFor(float x) {
  float fraction = x - std::floor(x);
  if (fraction < 0.01f) return 0;
  float tenths = x * 10.0f;
  if (tenths - std::floor(tenths) < 0.01f) return 1;
  return 2;
}

// mb in units of base; GB and up in single precision, as the figures were always shown.
std::string sizeDescription(std::uint64_t mb, unsigned base) {
  if (mb < base) return apply("DecimalMB", {static_cast<int>(mb)});
  constexpr std::string_view kUnits[] = {"DecimalGB", "DecimalTB", "DecimalPB", "DecimalEB"};
  float x = static_cast<float>(mb) / static_cast<float>(base);
  size_t unit = 0;
  while (x >= static_cast<float>(base) && unit + 1 < std::size(kUnits)) {
    x /= static_cast<float>(base);
    ++unit;
  }
  return apply(kUnits[unit], {decimalsFor(x), static_cast<double>(x)});
}

bool mentionsHz(const std::string& text) {
  for (size_t i = 0; i + 1 < text.size(); ++i)
    if ((text[i] == 'h' || text[i] == 'H') && (text[i + 1] == 'z' || text[i + 1] == 'Z'))
      return true;
  return false;
}

}  // namespace

std::string HHI_CopyCPUDescription(int count, std::uint32_t speedHz,
                                   const std::optional<std::string>& kind) {
  std::string name = kind ? *kind : translated("UnknownCPUKind");
  // A kind such as "PowerPC G4 1.25 GHz" names its speed already.
  std::string text =
      mentionsHz(name) ? name
                       : apply("IntelSpeedAndTypeFormat", {speedDescription(speedHz, false), name});
  switch (count) {
    case 1:
      return apply("Intel1xCPUFormat", {text});
    case 2:
      return apply("Intel2xCPUFormat", {text});
    case 3:
      return apply("Intel3xCPUFormat", {text});
    case 4:
      return apply("Intel4xCPUFormat", {text});
    default:
      return apply("IntelNxCPUFormat", {count, text});
  }
}

std::string HHI_CopyCurrentCPUDescription() {
  return HHI_CopyCPUDescription(HHI_NumberOfCPUs(), HHI_CPUSpeedInHz(), HHI_CopyCPUKind(false));
}

std::string HHI_CopyBusSpeedDescription(std::uint32_t speedHz) {
  return speedDescription(speedHz, true);
}

std::string HHI_CopyCurrentBusSpeedDescription() {
  return HHI_CopyBusSpeedDescription(HHI_BusSpeedInHz());
}

std::string HHI_CopyRAMDescription(std::uint64_t bytes) {
  return sizeDescription(bytes >> 20, 1024);
}

std::string HHI_CopyDiskSizeDescription(std::uint64_t bytes) {
  return sizeDescription(bytes / 1000000, 1000);
}

}  // namespace velm
