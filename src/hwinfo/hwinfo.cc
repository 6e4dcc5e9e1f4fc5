#include "hwinfo/hwinfo.h"

#include <limits>
#include <mutex>
#include <vector>

#include "hwinfo/hwinfo_internal.h"
#include "platform/hardware.h"
#include "platform/log.h"

namespace velm {
namespace {

constexpr std::uint32_t kPowerPCFamilies[] = {0xCEE41549, 0x77C184AE, 0xED76D8AA};
constexpr int kCpuTypePowerPC = 18;

bool isPowerPCFamily(std::uint32_t family) {
  for (auto f : kPowerPCFamilies)
    if (f == family) return true;
  return false;
}

struct MajorMinorRow {
  int major, minor, cores;
  const char* shortName;
  const char* longName;
};

constexpr MajorMinorRow kMajorMinorTypes[] = {
    {2, 1, 1, "Intel Core Solo", "Intel Core Solo"},
    {2, 1, 2, "Intel Core Duo", "Intel Core Duo"},
    {3, 1, 1, "Intel Core 2 Solo", "Intel Core 2 Solo"},
    {3, 1, 2, "Intel Core 2 Duo", "Intel Core 2 Duo"},
    {4, 1, 1, "Single-Core Intel Xeon", "Single-Core Intel Xeon"},
    {4, 1, 2, "Dual-Core Intel Xeon", "Dual-Core Intel Xeon"},
    {4, 2, 1, "Single-Core Intel Xeon", "Single-Core Intel Xeon"},
    {4, 2, 2, "Dual-Core Intel Xeon", "Dual-Core Intel Xeon"},
    {4, 2, 3, "Unknown Intel Xeon", "Unknown Intel Xeon"},
    {4, 2, 4, "Quad-Core Intel Xeon", "Quad-Core Intel Xeon"},
    {5, 1, 1, "Single-Core Intel Xeon", "Single-Core Intel Xeon"},
    {5, 1, 2, "Dual-Core Intel Xeon", "Dual-Core Intel Xeon"},
    {5, 1, 3, "Unknown Intel Xeon", "Unknown Intel Xeon"},
    {5, 1, 4, "Quad-Core Intel Xeon", "Quad-Core Intel Xeon"},
};

struct FamilyRow {
  std::uint32_t family;
  bool xeon;
  int cores;
  const char* shortName;
  const char* longName;
};

constexpr FamilyRow kFamilyTypes[] = {
    {0x73D67300, false, 1, "Intel Core Solo", "Intel Core Solo"},
    {0x73D67300, false, 2, "Intel Core Duo", "Intel Core Duo"},
    {0x426F69EF, false, 1, "Intel Core 2 Solo", "Intel Core 2 Solo"},
    {0x426F69EF, false, 2, "Intel Core 2 Duo", "Intel Core 2 Duo"},
    {0x426F69EF, true, 1, "Single-Core Intel Xeon", "Single-Core Intel Xeon"},
    {0x426F69EF, true, 2, "Dual-Core Intel Xeon", "Dual-Core Intel Xeon"},
};

struct CpuTypeRow {
  int type, subtype;
  const char* shortName;
  const char* longName;  // null: the short name serves
};

constexpr CpuTypeRow kCpuTypes[] = {
    {kCpuTypePowerPC, 0, "PowerPC", nullptr},
    {kCpuTypePowerPC, 1, "PowerPC 601", nullptr},
    {kCpuTypePowerPC, 2, "PowerPC 602", nullptr},
    {kCpuTypePowerPC, 3, "PowerPC 603", nullptr},
    {kCpuTypePowerPC, 4, "PowerPC 603e", nullptr},
    {kCpuTypePowerPC, 5, "PowerPC 603ev", nullptr},
    {kCpuTypePowerPC, 6, "PowerPC 604", nullptr},
    {kCpuTypePowerPC, 7, "PowerPC 604e", nullptr},
    {kCpuTypePowerPC, 8, "PowerPC 620", nullptr},
    {kCpuTypePowerPC, 9, "PowerPC G3", "PowerPC 750"},
    {kCpuTypePowerPC, 10, "PowerPC G4", "PowerPC 7400"},
    {kCpuTypePowerPC, 11, "PowerPC G4", "PowerPC 7450"},
    {kCpuTypePowerPC, 100, "PowerPC G5", "PowerPC 970"},
};

// The last key each table was searched with and the row it gave (null: no row).
template <typename Key, typename Row>
struct Memo {
  std::optional<Key> key;
  const Row* row = nullptr;
};

struct MajorMinorKey {
  int major, minor, cores;
  bool operator==(const MajorMinorKey&) const = default;
};
struct FamilyKey {
  std::uint32_t family;
  bool xeon;
  int cores;
  bool operator==(const FamilyKey&) const = default;
};
struct CpuTypeKey {
  int type, subtype;
  bool operator==(const CpuTypeKey&) const = default;
};

std::mutex gKindMutex;  // guards the memos and gSawXeon; leaf
Memo<MajorMinorKey, MajorMinorRow> gMajorMinorMemo;
Memo<FamilyKey, FamilyRow> gFamilyMemo;
Memo<CpuTypeKey, CpuTypeRow> gCpuTypeMemo;
bool gSawXeon = false;

template <typename Key, typename Row, typename Search>
const Row* remembered(Memo<Key, Row>& memo, const Key& key, Search search) {
  if (memo.key && *memo.key == key) return memo.row;
  memo.key = key;
  memo.row = search();
  return memo.row;
}

template <typename Row>
std::optional<std::string> nameOf(const Row* row, bool longForm) {
  if (!row) return std::nullopt;
  return std::string(longForm && row->longName ? row->longName : row->shortName);
}

const MajorMinorRow* searchMajorMinor(const MajorMinorKey& k) {
  const MajorMinorRow* sameMajorAndCores = nullptr;
  for (const auto& row : kMajorMinorTypes) {
    if (row.major != k.major || row.cores != k.cores) continue;
    if (row.minor == k.minor) return &row;
    sameMajorAndCores = &row;  // the last such row, whatever its minor
  }
  return sameMajorAndCores;
}

const FamilyRow* searchFamily(const FamilyKey& k) {
  for (const auto& row : kFamilyTypes)
    if (row.family == k.family && row.xeon == k.xeon && row.cores == k.cores) return &row;
  return nullptr;
}

const CpuTypeRow* searchCpuType(const CpuTypeKey& k) {
  for (const auto& row : kCpuTypes)
    if (row.type == k.type && row.subtype == k.subtype) return &row;
  return nullptr;
}

std::uint32_t clampTo32(std::uint64_t hz) {
  return hz > std::numeric_limits<std::uint32_t>::max() ? std::numeric_limits<std::uint32_t>::max()
                                                        : static_cast<std::uint32_t>(hz);
}

}  // namespace

int HHI_NumberOfCPUs() {
  HardwareSource& host = hardwareSource();
  auto family = host.cpuFamily();
  if (family && isPowerPCFamily(*family)) {
    auto info = host.hostBasicInfo();
    return info ? info->physicalCpus : 1;
  }
  // Chips, not cores: a machine with one quad-core processor counts 1.
  return host.packages().value_or(1);
}

std::uint32_t HHI_CPUSpeedInHz() {
  HardwareSource& host = hardwareSource();
  std::uint64_t hz = host.cpuFrequency().value_or(0);
  if (auto max = host.cpuFrequencyMax(); max && *max != 0) hz = *max;
  // Deliberate: the figure is 32 bits wide, so every clock above 4.29 GHz reads 0xFFFFFFFF.
  return clampTo32(hz);
}

std::uint32_t HHI_BusSpeedInHz() { return clampTo32(hardwareSource().busFrequency().value_or(0)); }

std::uint64_t HHI_PhysicalMemorySize() { return hardwareSource().physicalMemory().value_or(0); }

std::optional<std::string> HHI_CopyCPUKind(bool longForm) {
  HardwareSource& host = hardwareSource();
  std::scoped_lock lock(gKindMutex);

  // Deliberate: the device tree's word is final, even when it names nothing.
  if (auto cpuType = host.deviceTreeCpuType()) {
    if (cpuType->size() != 2)
      NLog("cpu-type data length incorrect size, expect 2, received %d",
           static_cast<int>(cpuType->size()));
    if (cpuType->size() < 2) return std::nullopt;
    MajorMinorKey key{(*cpuType)[1], (*cpuType)[0], host.coreCount().value_or(1)};
    return nameOf(remembered(gMajorMinorMemo, key, [&] { return searchMajorMinor(key); }),
                  longForm);
  }

  auto family = host.cpuFamily();
  if (family && !isPowerPCFamily(*family)) {
    int cores = host.coresPerPackage().value_or(1);
    if (!gSawXeon) {
      auto brand = host.cpuBrandString();
      // Deliberate: once seen, the Xeon flag stays set for the life of the process.
      if (brand && brand->size() > 4 && brand->find("Xeon") != std::string::npos) gSawXeon = true;
    }
    FamilyKey key{*family, gSawXeon, cores};
    return nameOf(remembered(gFamilyMemo, key, [&] { return searchFamily(key); }), longForm);
  }

  if (auto info = host.hostBasicInfo()) {
    CpuTypeKey key{info->cpuType, info->cpuSubtype};
    return nameOf(remembered(gCpuTypeMemo, key, [&] { return searchCpuType(key); }), longForm);
  }
  // Hosts without processor codes (Linux) name the kind in words.
  return host.cpuKindName();
}

std::optional<std::string> HHI_CopyComputerModelName(bool raw) {
  auto model = hardwareSource().modelString();
  if (!model) return std::nullopt;
  if (raw) return model;
  if (!hwinfo::resourcesDirectory()) return std::string("Unknown");
  auto machineTypes = hwinfo::resourceTable("MachineTypes.plist");
  if (!machineTypes) return hwinfo::translated("UnknownComputerModel");
  const std::string* textKey = machineTypes->getString(*model);
  if (!textKey) return model;
  if (auto localizable = hwinfo::resourceTable("Localizable.plist")) {
    if (const std::string* text = localizable->getString(*textKey)) return *text;
  }
  return *textKey;  // an untranslated key stands for itself
}

void HHI_ResetForTest() {
  {
    std::scoped_lock lock(gKindMutex);
    gMajorMinorMemo = {};
    gFamilyMemo = {};
    gCpuTypeMemo = {};
    gSawXeon = false;
  }
  hwinfo::resetTextsForTest();
}

}  // namespace velm
