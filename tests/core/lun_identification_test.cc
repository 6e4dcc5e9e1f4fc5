// identifyLUNs: lookup keys, and the readers on real files under the sandbox's /dev, timed by a
// fake clock that the test moves.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <thread>

#include "core/san_computer.h"
#include "core/velm_plugin.h"
#include "gateway/san_filesystem.h"
#include "platform/clock.h"
#include "support/log_capture.h"
#include "support/plugin_command.h"
#include "support/sandbox.h"
#include "support/sim_process.h"

namespace velm {
namespace {

size_t threadCount() {
  return static_cast<size_t>(
      std::distance(std::filesystem::directory_iterator("/proc/self/task"), {}));
}

// Polls cond for up to ten seconds of real time.
bool eventually(const std::function<bool()>& cond) {
  for (int i = 0; i < 1000; ++i) {
    if (cond()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return cond();
}

PropertyList lun(const char* type, const char* serial) {
  PropertyList r = PropertyList::dict();
  if (type) r.set("connectionType", type);
  if (serial) r.set("serialNumber", serial);
  return r;
}

class LunIdentificationTest : public test::SandboxTest {
 protected:
  void SetUp() override {
    SANFilesystem::resetForTest();
    SANComputer::resetForTest();
    test::installSimTools(sandbox_);
  }
  void TearDown() override {
    // Every reader ends and is joined before the fake clock goes.
    SANFilesystem::resetForTest();
    SANComputer::resetForTest();
  }
  // The LUN table drlabel prints: device -> (connection type, serial).
  void setLUNs(std::vector<std::tuple<std::string, std::string, std::string>> luns,
               bool withDevices = true) {
    PropertyList table = PropertyList::dict();
    for (auto& [device, type, serial] : luns) {
      table.set(device, lun(type.c_str(), serial.c_str()));
      if (withDevices) sandbox_.write("/dev/" + device, std::string(64 * 1024, 'x'));
    }
    sandbox_.write("/sim/luns.plist", writeXmlPlist(table));
  }
  PropertyList identify(std::vector<PropertyList> records, bool stop = false) {
    return test::runCommand(
        plugin_, context_, "identifyLUNs",
        {{"luns", PlistArray(records.begin(), records.end())}, {"shouldStop", PropertyList(stop)}});
  }
  LunIdentification& readers() { return SANFilesystem::localFilesystem().lunIdentification(); }
  void advance(double seconds) { clock_->advanceMicros(static_cast<std::uint64_t>(seconds * 1e6)); }

  test::LogCapture log_;
  ScopedFakeClock clock_;
  VelmPlugin plugin_;
  PropertyList context_ = PropertyList::dict();
};

TEST_F(LunIdentificationTest, LookupKeysTakeEitherSpellingAndTheLaterLunWins) {
  PropertyList mixed = PropertyList::dict();
  mixed.set("ConnectionType", "Fibre Channel Interface");
  mixed.set("serialNumber", "S1");
  EXPECT_EQ(SANFilesystem::identifierLookupFromLUNRecord(mixed), "Fibre Channel Interface:S1");
  PropertyList both = lun("SAS", "lower");
  both.set("SerialNumber", "upper");
  EXPECT_EQ(SANFilesystem::identifierLookupFromLUNRecord(both), "SAS:lower");
  EXPECT_EQ(SANFilesystem::identifierLookupFromLUNRecord(lun("SAS", nullptr)), "");

  setLUNs({{"sdb", "FC", "A"}, {"sdc", "FC", "B"}, {"sdd", "FC", "B"}});
  PropertyList all = PropertyList::dict();
  SANFilesystem::localFilesystem().findDisksByIdentifier(all);
  EXPECT_EQ(all.size(), 2u);
  // Two LUNs under one key: the later in the walk wins.
  EXPECT_EQ(*all.getString("FC:B"), "sdd");

  PropertyList wanted = PropertyList::dict();
  wanted.set("FC:A", "");
  wanted.set("FC:nobody", "");
  SANFilesystem::localFilesystem().findDisksByIdentifier(wanted);
  EXPECT_EQ(*wanted.getString("FC:A"), "sdb");
  EXPECT_EQ(*wanted.getString("FC:nobody"), "");
  EXPECT_FALSE(wanted.get("FC:B"));
}

TEST_F(LunIdentificationTest, ARepeatRenewsTheMarkAndTheReaderEndsTenSecondsAfterTheLast) {
  setLUNs({{"sdb", "FC", "A"}, {"sdc", "FC", "B"}});
  EXPECT_EQ(identify({lun("FC", "A"), lun("FC", "nobody")}).size(), 2u);  // the timing keys
  ASSERT_TRUE(eventually([&] { return log_.contains("We are reading 10MB from sdb!"); }));
  EXPECT_EQ(readers().runningReaders(), 1u);

  advance(5);
  identify({lun("FC", "A")});
  ASSERT_TRUE(eventually([&] { return log_.contains("Someone is already reading sdb, bailing"); }));
  ASSERT_TRUE(eventually([&] { return readers().runningReaders() == 1; }));

  // Six seconds after the renewal the reader goes on; eleven, and it stops by itself.
  advance(6);
  ASSERT_TRUE(eventually(
      [&] { return log_.count("identifyBSDDevice: We are reading 10MB from sdb!") >= 3; }));
  EXPECT_EQ(readers().runningReaders(), 1u);
  advance(5);
  EXPECT_TRUE(eventually([&] { return readers().runningReaders() == 0; }));
  EXPECT_TRUE(log_.contains("markDoneIdentifyingDevice: Done with sdb"));
}

TEST_F(LunIdentificationTest, AStopEndsTheReaderAtItsNextCheck) {
  setLUNs({{"sdb", "FC", "A"}});
  identify({lun("FC", "A")});
  ASSERT_TRUE(eventually([&] { return log_.contains("We are reading 10MB from sdb!"); }));
  identify({lun("FC", "A")}, true);
  advance(1);
  EXPECT_TRUE(eventually([&] { return readers().runningReaders() == 0; }));
  // A stop for a LUN nobody reads does nothing.
  EXPECT_EQ(identify({lun("FC", "A")}, true).size(), 2u);
  EXPECT_EQ(readers().runningReaders(), 0u);
}

TEST_F(LunIdentificationTest, ADeviceThatCannotBeOpenedRunsOutItsTimeWhileThePluginServes) {
  setLUNs({{"sdq", "FC", "Q"}}, false);
  identify({lun("FC", "Q")});
  EXPECT_TRUE(test::runCommand(plugin_, context_, "getState").get("state"));
  // Each period is waited out on the clock, so the mark runs out without the test moving it.
  EXPECT_TRUE(eventually([&] { return readers().runningReaders() == 0; }));
  EXPECT_TRUE(log_.contains("markDoneIdentifyingDevice: Done with sdq"));
}

TEST_F(LunIdentificationTest, NoReaderOutlivesItsMark) {
  size_t before = threadCount();
  std::vector<std::tuple<std::string, std::string, std::string>> luns;
  std::vector<PropertyList> records;
  for (int i = 0; i < 20; ++i) {
    std::string serial = "S" + std::to_string(i);
    luns.emplace_back("sd" + std::string(1, static_cast<char>('a' + i)), "FC", serial);
    records.push_back(lun("FC", serial.c_str()));
  }
  setLUNs(luns);
  identify(records);
  // Each reader has taken its mark and begun its first period.
  auto periods = [&] {
    size_t n = 0;
    for (const std::string& m : log_.messages()) n += m.find("We are reading") != std::string::npos;
    return n;
  };
  ASSERT_TRUE(eventually([&] { return periods() == 20; }));
  EXPECT_EQ(readers().runningReaders(), 20u);
  EXPECT_GE(threadCount(), before + 20);
  identify(records, true);
  advance(1);
  EXPECT_TRUE(eventually([&] { return readers().runningReaders() == 0; }));
  EXPECT_TRUE(eventually([&] { return threadCount() == before; }));
}

TEST_F(LunIdentificationTest, AReadPeriodReadsWithoutPauseAndStartsOverAfterAShortRead) {
  std::string path = sandbox_.write("/dev/small", std::string(1000, 'y'));
  int fd = ::open(path.c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  std::vector<char> buffer(4096);
  std::atomic<bool> stop{false};
  std::uint64_t deadline = clock_->monotonicMicros() + 1'000'000;
  std::thread mover([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    advance(1);
  });
  ReadPeriod period = readForPeriod(fd, buffer.data(), buffer.size(), deadline, &stop);
  mover.join();
  // Every read was short, and each one was read from the start again.
  EXPECT_GT(period.reads, 10u);
  EXPECT_EQ(period.bytes, period.reads * 1000);
  EXPECT_EQ(::lseek(fd, 0, SEEK_CUR), 0);
  ::close(fd);
  // A descriptor that can't be read waits the period out on the clock instead of spinning.
  std::uint64_t start = clock_->monotonicMicros();
  EXPECT_EQ(readForPeriod(-1, buffer.data(), buffer.size(), start + 1'000'000, &stop).reads, 1u);
  EXPECT_EQ(clock_->monotonicMicros(), start + 1'000'000);
}

}  // namespace
}  // namespace velm
