#include <gtest/gtest.h>

#include <cstdlib>

#include "platform/hardware.h"
#include "platform/paths.h"
#include "support/sandbox.h"

namespace velm {
namespace {

constexpr const char* kCpuinfo =
    "processor\t: 0\nvendor_id\t: GenuineIntel\nmodel name\t: Intel(R) Xeon(R) CPU E5-2620 v4 @ 2.10GHz\n"
    "cpu MHz\t\t: 1199.953\ncpu cores\t: 8\n\n"
    "processor\t: 1\nmodel name\t: something else\ncpu MHz\t\t: 2100.000\ncpu cores\t: 8\n";

class LinuxHardwareTest : public test::SandboxTest {
 protected:
  void SetUp() override {
    ::setenv("VELM_SYSFS", sandbox_.path("/sys").c_str(), 1);
    ::setenv("VELM_PROCFS", sandbox_.path("/proc").c_str(), 1);
    resetPathsForTest();
  }
  void TearDown() override {
    ::unsetenv("VELM_SYSFS");
    ::unsetenv("VELM_PROCFS");
    resetPathsForTest();
  }
  void cpu(int n, const char* package, const char* maxKhz) {
    std::string dir = "/sys/devices/system/cpu/cpu" + std::to_string(n);
    if (package) sandbox_.write(dir + "/topology/physical_package_id", package);
    if (maxKhz) sandbox_.write(dir + "/cpufreq/cpuinfo_max_freq", maxKhz);
  }
  HardwareSource& host() { return hardwareSource(); }
};

TEST_F(LinuxHardwareTest, PackagesAreDistinctChips) {
  cpu(0, "0\n", nullptr);
  cpu(1, "0\n", nullptr);
  cpu(2, "1\n", nullptr);
  cpu(3, "1\n", nullptr);
  cpu(10, "0\n", nullptr);
  sandbox_.write("/sys/devices/system/cpu/cpufreq/topology/physical_package_id", "7\n");
  sandbox_.write("/sys/devices/system/cpu/cpuidle/topology/physical_package_id", "8\n");
  EXPECT_EQ(host().packages(), 2);
}

TEST_F(LinuxHardwareTest, NoTopologyMeansNoAnswer) {
  EXPECT_FALSE(host().packages().has_value());
  cpu(0, "garbage", nullptr);
  EXPECT_FALSE(host().packages().has_value());
}

TEST_F(LinuxHardwareTest, HighestClockOfAnyProcessorInHz) {
  cpu(0, nullptr, "2100000\n");
  cpu(1, nullptr, "3400000\n");
  cpu(2, nullptr, "bogus\n");
  EXPECT_EQ(host().cpuFrequencyMax(), 3400000000ull);
}

TEST_F(LinuxHardwareTest, CpuinfoGivesCurrentClockKindAndCores) {
  sandbox_.write("/proc/cpuinfo", kCpuinfo);
  EXPECT_EQ(host().cpuFrequency(), 1199953000ull);
  EXPECT_EQ(host().cpuKindName(), "Intel(R) Xeon(R) CPU E5-2620 v4 @ 2.10GHz");
  EXPECT_EQ(host().cpuBrandString(), host().cpuKindName());
  EXPECT_EQ(host().coresPerPackage(), 8);
  EXPECT_FALSE(host().cpuFrequencyMax().has_value());
}

TEST_F(LinuxHardwareTest, ArmCpuinfoNamesTheProcessorElsewhere) {
  sandbox_.write("/proc/cpuinfo", "Processor\t: ARMv7 Processor rev 4 (v7l)\nBogoMIPS\t: 38.40\n");
  EXPECT_EQ(host().cpuKindName(), "ARMv7 Processor rev 4 (v7l)");
  EXPECT_FALSE(host().cpuFrequency().has_value());
  EXPECT_FALSE(host().coresPerPackage().has_value());
}

TEST_F(LinuxHardwareTest, BadCpuinfoValuesAreNoAnswer) {
  sandbox_.write("/proc/cpuinfo", "cpu MHz : nan\ncpu cores : -2\nmodel name :\n");
  EXPECT_FALSE(host().cpuFrequency().has_value());
  EXPECT_FALSE(host().coresPerPackage().has_value());
  EXPECT_FALSE(host().cpuKindName().has_value());
}

TEST_F(LinuxHardwareTest, MemoryFromMeminfoInBytes) {
  sandbox_.write("/proc/meminfo", "MemFree:         1000 kB\nMemTotal:       16318480 kB\n");
  EXPECT_EQ(host().physicalMemory(), 16318480ull * 1024);
  sandbox_.write("/proc/meminfo", "MemTotal: 99999999999999999999 kB\n");
  EXPECT_FALSE(host().physicalMemory().has_value());
}

TEST_F(LinuxHardwareTest, ModelFromDmiElseDeviceTree) {
  EXPECT_FALSE(host().modelString().has_value());
  sandbox_.write("/sys/firmware/devicetree/base/model", std::string("Raspberry Pi 4 Model B\0", 23));
  EXPECT_EQ(host().modelString(), "Raspberry Pi 4 Model B");
  sandbox_.write("/sys/class/dmi/id/product_name", "ProLiant DL360 Gen10\n");
  EXPECT_EQ(host().modelString(), "ProLiant DL360 Gen10");
}

}  // namespace
}  // namespace velm
