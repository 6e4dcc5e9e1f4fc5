// HostHardwareInfo: what the machine is (processors, memory, model) and display texts for it.
// Functions with Copy in their name hand back a new string; nothing means "no answer".
// Texts come from the resources directory (VELM_RESOURCES, else resources/ beside the program or
// plugin): HostHardwareInfo.plist (key -> format; a missing key keeps its built-in default),
// MachineTypes.plist (model string -> text key) and Localizable.plist (text key -> text).
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace velm {

int HHI_NumberOfCPUs();
std::uint32_t HHI_CPUSpeedInHz();
std::optional<std::string> HHI_CopyCPUKind(bool longForm);
std::uint64_t HHI_PhysicalMemorySize();
std::optional<std::string> HHI_CopyComputerModelName(bool raw);

std::uint32_t HHI_BusSpeedInHz();
std::string HHI_CopyCPUDescription(int count, std::uint32_t speedHz,
                                   const std::optional<std::string>& kind);
std::string HHI_CopyCurrentCPUDescription();
std::string HHI_CopyBusSpeedDescription(std::uint32_t speedHz);
std::string HHI_CopyCurrentBusSpeedDescription();
std::string HHI_CopyRAMDescription(std::uint64_t bytes);
std::string HHI_CopyDiskSizeDescription(std::uint64_t bytes);

// Forgets the remembered table searches, the Xeon flag and the loaded translations.
void HHI_ResetForTest();

}  // namespace velm
