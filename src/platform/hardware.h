// The host's hardware figures, each answering the question the hardware description asks of the
// host by its meaning. Nothing means the host has no such figure or it could not be read.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace velm {

// The basic host record: processors and the kernel's processor type codes.
struct HostBasicInfo {
  int physicalCpus = 0;
  int cpuType = 0;
  int cpuSubtype = 0;
};

class HardwareSource {
 public:
  virtual ~HardwareSource() = default;
  virtual std::optional<std::uint64_t> cpuFrequency() = 0;     // Hz, the current clock
  virtual std::optional<std::uint64_t> cpuFrequencyMax() = 0;  // Hz, the highest clock
  virtual std::optional<std::uint64_t> busFrequency() = 0;     // Hz
  virtual std::optional<std::uint32_t> cpuFamily() = 0;        // processor family code
  virtual std::optional<int> packages() = 0;                   // processor chips, not cores
  virtual std::optional<std::string> cpuBrandString() = 0;
  virtual std::optional<int> coreCount() = 0;
  virtual std::optional<int> coresPerPackage() = 0;
  virtual std::optional<std::uint64_t> physicalMemory() = 0;   // bytes
  virtual std::optional<std::string> modelString() = 0;        // technical model identifier
  virtual std::optional<HostBasicInfo> hostBasicInfo() = 0;
  // The raw cpu-type property of the device tree's processors node.
  virtual std::optional<std::vector<std::uint8_t>> deviceTreeCpuType() = 0;
  // The processor kind in words, for hosts with neither family codes nor a host record to look
  // up in the tables.
  virtual std::optional<std::string> cpuKindName() = 0;
};

// The source in force: the Linux one (sysfs, procfs, DMI) unless a test installed another.
HardwareSource& hardwareSource();
void setHardwareSourceForTest(HardwareSource* source);

}  // namespace velm
