#include "hwinfo/hwinfo.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "platform/hardware_fake.h"
#include "support/log_capture.h"
#include "support/sandbox.h"

namespace velm {
namespace {

constexpr std::uint64_t kMB = 1ull << 20;

// No resources directory unless a test makes one: the built-in texts stand.
class HardwareInfoTest : public test::SandboxTest {
 protected:
  void SetUp() override {
    ::setenv("VELM_RESOURCES", sandbox_.path("/resources").c_str(), 1);
    HHI_ResetForTest();
  }
  void TearDown() override {
    ::unsetenv("VELM_RESOURCES");
    HHI_ResetForTest();
  }
  void resource(const std::string& name, const std::string& dictBody) {
    sandbox_.write("/resources/" + name,
                   "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>" + dictBody +
                       "</dict></plist>\n");
  }
  ScopedFakeHardwareSource host_;
};

TEST_F(HardwareInfoTest, SpeedsRoundToManufacturersFigures) {
  struct Row {
    std::uint32_t mhz;
    const char* text;
  } rows[] = {
      {1999, "2 GHz"},    {2004, "2 GHz"},    {2000, "2 GHz"},    {2160, "2.16 GHz"},
      {667, "667 MHz"},   {266, "266 MHz"},   {1833, "1.83 GHz"}, {1830, "1.83 GHz"},
      {2497, "2.5 GHz"},  {2666, "2.67 GHz"}, {2930, "2.93 GHz"}, {996, "1 GHz"},
      {999, "1 GHz"},     {995, "995 MHz"},   {450, "450 MHz"},   {3075, "3.08 GHz"},
      {1000, "1 GHz"},    {0, "0 MHz"},       {4294, "4.29 GHz"}, {1925, "1.93 GHz"}, {2920, "2.92 GHz"},
  };
  for (const auto& row : rows)
    EXPECT_EQ(HHI_CopyCPUDescription(1, row.mhz * 1000000u, "Intel Core 2 Duo"),
              std::string(row.text) + " Intel Core 2 Duo")
        << row.mhz;
}

TEST_F(HardwareInfoTest, SpeedIsRoundedToWholeMegahertzFirst) {
  EXPECT_EQ(HHI_CopyBusSpeedDescription(132'600'000), "133 MHz");
  EXPECT_EQ(HHI_CopyBusSpeedDescription(99'499'999), "100 MHz");
  EXPECT_EQ(HHI_CopyBusSpeedDescription(0xFFFFFFFF), "4.29 GHz");
}

TEST_F(HardwareInfoTest, BusAt266ReadsOneMoreThanAProcessorAt266) {
  EXPECT_EQ(HHI_CopyBusSpeedDescription(266'000'000), "267 MHz");
  EXPECT_EQ(HHI_CopyCPUDescription(1, 266'000'000, "G3"), "266 MHz G3");
  EXPECT_EQ(HHI_CopyBusSpeedDescription(666'000'000), "667 MHz");
}

TEST_F(HardwareInfoTest, CpuDescriptionByCount) {
  EXPECT_EQ(HHI_CopyCPUDescription(2, 2'000'000'000, "Dual-Core Intel Xeon"), "2 x 2 GHz Dual-Core Intel Xeon");
  EXPECT_EQ(HHI_CopyCPUDescription(4, 2'000'000'000, "X"), "4 x 2 GHz X");
  EXPECT_EQ(HHI_CopyCPUDescription(8, 2'000'000'000, "X"), "8 x 2 GHz X");
  EXPECT_EQ(HHI_CopyCPUDescription(0, 2'000'000'000, "X"), "0 x 2 GHz X");
  EXPECT_EQ(HHI_CopyCPUDescription(1, 2'000'000'000, std::nullopt), "2 GHz Unknown");
  // A kind that names its speed already is taken as it stands.
  EXPECT_EQ(HHI_CopyCPUDescription(2, 2'000'000'000, "Intel(R) Xeon(R) CPU @ 2.10GHZ"),
            "2 x Intel(R) Xeon(R) CPU @ 2.10GHZ");
}

TEST_F(HardwareInfoTest, MemoryTexts) {
  EXPECT_EQ(HHI_CopyRAMDescription(512 * kMB), "512 MB");
  EXPECT_EQ(HHI_CopyRAMDescription(1536 * kMB), "1.5 GB");
  EXPECT_EQ(HHI_CopyRAMDescription(2048 * kMB), "2 GB");
  EXPECT_EQ(HHI_CopyRAMDescription(1023 * kMB + kMB - 1), "1023 MB");
  EXPECT_EQ(HHI_CopyRAMDescription(1024 * kMB), "1 GB");
  EXPECT_EQ(HHI_CopyRAMDescription(3 * 1024 * kMB + 256 * kMB), "3.25 GB");
  EXPECT_EQ(HHI_CopyRAMDescription(1536ull * 1024 * kMB), "1.5 TB");
  EXPECT_EQ(HHI_CopyRAMDescription(2ull << 50), "2 PB");
  EXPECT_EQ(HHI_CopyRAMDescription(UINT64_MAX), "16 EB");
  EXPECT_EQ(HHI_CopyRAMDescription(0), "0 MB");
}

TEST_F(HardwareInfoTest, DiskTextsCountInThousands) {
  EXPECT_EQ(HHI_CopyDiskSizeDescription(999'999'999), "999 MB");
  EXPECT_EQ(HHI_CopyDiskSizeDescription(1'000'000'000), "1 GB");
  EXPECT_EQ(HHI_CopyDiskSizeDescription(500'107'862'016), "500.11 GB");
  EXPECT_EQ(HHI_CopyDiskSizeDescription(2'000'398'934'016), "2 TB");
  EXPECT_EQ(HHI_CopyDiskSizeDescription(1'500'000'000'000), "1.5 TB");
  EXPECT_EQ(HHI_CopyDiskSizeDescription(7'000'000'000'000'000), "7 PB");
  EXPECT_EQ(HHI_CopyDiskSizeDescription(12'000'000'000'000'000'000ull), "12 EB");
}

TEST_F(HardwareInfoTest, CpuTypeWithUnknownMinorTakesLastRowOfItsMajor) {
  host_->cpuType = std::vector<std::uint8_t>{9, 4};  // minor 9, major 4
  host_->cores = 2;
  host_->family = 0x426F69EF;  // never consulted: the device tree's word is final
  EXPECT_EQ(HHI_CopyCPUKind(false), "Dual-Core Intel Xeon");
  host_->cpuType = std::vector<std::uint8_t>{1, 2};
  host_->cores.reset();  // one core when the count can't be read
  EXPECT_EQ(HHI_CopyCPUKind(false), "Intel Core Solo");
  host_->cpuType = std::vector<std::uint8_t>{1, 7};
  EXPECT_EQ(HHI_CopyCPUKind(false), std::nullopt);
}

TEST_F(HardwareInfoTest, CpuTypeOfWrongLengthIsLogged) {
  sandbox_.write("/var/adminhostd/enable_velm_logging", "");
  test::LogCapture log;
  host_->cores = 4;
  host_->cpuType = std::vector<std::uint8_t>{2, 4, 0};
  EXPECT_EQ(HHI_CopyCPUKind(false), "Quad-Core Intel Xeon");
  EXPECT_EQ(log.count("cpu-type data length incorrect size, expect 2, received 3"), 1u);
  host_->cpuType = std::vector<std::uint8_t>{2};
  host_->family = 0x426F69EF;
  EXPECT_EQ(HHI_CopyCPUKind(false), std::nullopt);
  EXPECT_EQ(log.count("cpu-type data length incorrect size, expect 2, received 1"), 1u);
}

TEST_F(HardwareInfoTest, FamilyTableWithStickyXeonFlag) {
  host_->family = 0x426F69EF;
  host_->coresPerChip = 2;
  host_->brand = "Intel(R) Core(TM)2 CPU";
  EXPECT_EQ(HHI_CopyCPUKind(false), "Intel Core 2 Duo");
  host_->brand = "Intel(R) Xeon(R) CPU 5150";
  EXPECT_EQ(HHI_CopyCPUKind(false), "Dual-Core Intel Xeon");
  host_->brand = "Intel(R) Core(TM)2 CPU";
  EXPECT_EQ(HHI_CopyCPUKind(false), "Dual-Core Intel Xeon");  // the flag stays set
  host_->coresPerChip = 4;
  EXPECT_EQ(HHI_CopyCPUKind(false), std::nullopt);
}

TEST_F(HardwareInfoTest, ShortBrandStringIsNotXeon) {
  host_->family = 0x426F69EF;
  host_->brand = "Xeon";
  EXPECT_EQ(HHI_CopyCPUKind(false), "Intel Core 2 Solo");  // one core when unknown
}

TEST_F(HardwareInfoTest, PowerPCUsesTheHostRecord) {
  host_->family = 0x77C184AE;
  host_->hostInfo = HostBasicInfo{2, 18, 11};
  host_->packageCount = 7;
  EXPECT_EQ(HHI_CopyCPUKind(false), "PowerPC G4");
  EXPECT_EQ(HHI_CopyCPUKind(true), "PowerPC 7450");
  EXPECT_EQ(HHI_NumberOfCPUs(), 2);
  host_->hostInfo = HostBasicInfo{1, 18, 6};
  EXPECT_EQ(HHI_CopyCPUKind(true), "PowerPC 604");
  host_->hostInfo = HostBasicInfo{1, 7, 6};
  EXPECT_EQ(HHI_CopyCPUKind(false), std::nullopt);
}

TEST_F(HardwareInfoTest, LinuxHostNamesTheKindInWords) {
  host_->kindName = "AMD EPYC 7302 16-Core Processor";
  EXPECT_EQ(HHI_CopyCPUKind(false), "AMD EPYC 7302 16-Core Processor");
  host_->kindName.reset();
  EXPECT_EQ(HHI_CopyCPUKind(false), std::nullopt);
}

TEST_F(HardwareInfoTest, CountSpeedAndMemoryDefaults) {
  EXPECT_EQ(HHI_NumberOfCPUs(), 1);
  EXPECT_EQ(HHI_CPUSpeedInHz(), 0u);
  EXPECT_EQ(HHI_PhysicalMemorySize(), 0u);
  EXPECT_EQ(HHI_BusSpeedInHz(), 0u);
  host_->packageCount = 2;
  host_->family = 0x426F69EF;
  host_->frequency = 2'400'000'000;
  host_->memory = 64 * kMB * 1024;
  EXPECT_EQ(HHI_NumberOfCPUs(), 2);
  EXPECT_EQ(HHI_CPUSpeedInHz(), 2'400'000'000u);
  EXPECT_EQ(HHI_PhysicalMemorySize(), 64 * kMB * 1024);
  host_->frequencyMax = 0;
  EXPECT_EQ(HHI_CPUSpeedInHz(), 2'400'000'000u);
  host_->frequencyMax = 3'000'000'000;
  EXPECT_EQ(HHI_CPUSpeedInHz(), 3'000'000'000u);
  host_->frequencyMax = 5'000'000'000;
  EXPECT_EQ(HHI_CPUSpeedInHz(), 0xFFFFFFFFu);
}

TEST_F(HardwareInfoTest, CurrentDescriptionsComeFromTheHost) {
  host_->packageCount = 2;
  host_->frequencyMax = 2'660'000'000;
  host_->kindName = "Quad-Core Thing";
  EXPECT_EQ(HHI_CopyCurrentCPUDescription(), "2 x 2.66 GHz Quad-Core Thing");
  EXPECT_EQ(HHI_CopyCurrentBusSpeedDescription(), "0 MHz");
}

TEST_F(HardwareInfoTest, ModelNames) {
  EXPECT_EQ(HHI_CopyComputerModelName(true), std::nullopt);
  host_->model = "PowerEdge R640";
  EXPECT_EQ(HHI_CopyComputerModelName(true), "PowerEdge R640");
  EXPECT_EQ(HHI_CopyComputerModelName(false), "Unknown");  // no resources at all

  resource("HostHardwareInfo.plist", "<key>UnknownComputerModel</key><string>Unbekannt</string>");
  HHI_ResetForTest();
  EXPECT_EQ(HHI_CopyComputerModelName(false), "Unbekannt");  // no table of machine types

  resource("MachineTypes.plist",
           "<key>PowerEdge R640</key><string>R640_NAME</string><key>Other</key><string>OTHER</string>");
  resource("Localizable.plist", "<key>R640_NAME</key><string>Rack Server R640</string>");
  EXPECT_EQ(HHI_CopyComputerModelName(false), "Rack Server R640");
  host_->model = "Other";
  EXPECT_EQ(HHI_CopyComputerModelName(false), "OTHER");
  host_->model = "Not Listed 9000";
  EXPECT_EQ(HHI_CopyComputerModelName(false), "Not Listed 9000");
}

TEST_F(HardwareInfoTest, TranslationsReplaceDefaultsKeyByKey) {
  resource("HostHardwareInfo.plist",
           "<key>MHzFormat</key><string>%d Mhz!</string>"
           "<key>IntelNxCPUFormat</key><string>%2$@ (%1$d)</string>"
           "<key>DecimalGB</key><string>%.*f Go</string>"
           "<key>GHzFormat</key><integer>5</integer>");
  HHI_ResetForTest();
  EXPECT_EQ(HHI_CopyBusSpeedDescription(100'000'000), "100 Mhz!");
  EXPECT_EQ(HHI_CopyCPUDescription(6, 1'500'000'000, "X"), "1.5 GHz X (6)");
  EXPECT_EQ(HHI_CopyRAMDescription(1536 * kMB), "1.5 Go");
  EXPECT_EQ(HHI_CopyRAMDescription(100 * kMB), "100 MB");
}

}  // namespace
}  // namespace velm
