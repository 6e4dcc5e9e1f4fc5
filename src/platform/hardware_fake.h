// A HardwareSource that answers whatever a test put in its fields; nothing is a failed read.
#pragma once

#include <atomic>

#include "platform/hardware.h"

namespace velm {

class FakeHardwareSource : public HardwareSource {
 public:
  std::optional<std::uint64_t> cpuFrequency() override { return count(frequency); }
  std::optional<std::uint64_t> cpuFrequencyMax() override { return count(frequencyMax); }
  std::optional<std::uint64_t> busFrequency() override { return count(bus); }
  std::optional<std::uint32_t> cpuFamily() override { return count(family); }
  std::optional<int> packages() override { return count(packageCount); }
  std::optional<std::string> cpuBrandString() override { return count(brand); }
  std::optional<int> coreCount() override { return count(cores); }
  std::optional<int> coresPerPackage() override { return count(coresPerChip); }
  std::optional<std::uint64_t> physicalMemory() override { return count(memory); }
  std::optional<std::string> modelString() override { return count(model); }
  std::optional<HostBasicInfo> hostBasicInfo() override { return count(hostInfo); }
  std::optional<std::vector<std::uint8_t>> deviceTreeCpuType() override { return count(cpuType); }
  std::optional<std::string> cpuKindName() override { return count(kindName); }

  std::optional<std::uint64_t> frequency, frequencyMax, bus, memory;
  std::optional<std::uint32_t> family;
  std::optional<int> packageCount, cores, coresPerChip;
  std::optional<std::string> brand, model, kindName;
  std::optional<HostBasicInfo> hostInfo;
  std::optional<std::vector<std::uint8_t>> cpuType;
  std::atomic<int> reads{0};  // every question asked

 private:
  template <typename T>
  T count(const T& value) {
    ++reads;
    return value;
  }
};

// Installs a FakeHardwareSource for the life of a test scope.
class ScopedFakeHardwareSource {
 public:
  ScopedFakeHardwareSource() { setHardwareSourceForTest(&source_); }
  ~ScopedFakeHardwareSource() { setHardwareSourceForTest(nullptr); }
  FakeHardwareSource& operator*() { return source_; }
  FakeHardwareSource* operator->() { return &source_; }

 private:
  FakeHardwareSource source_;
};

}  // namespace velm
