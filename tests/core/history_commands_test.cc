// getHistoryInfo and getHistory through the plugin, with the tables in the request's context.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include "adminhost/history_store.h"
#include "core/san_computer.h"
#include "core/velm_plugin.h"
#include "gateway/san_filesystem.h"
#include "platform/clock.h"
#include "platform/paths.h"
#include "support/log_capture.h"
#include "support/plugin_command.h"
#include "support/sandbox.h"

namespace velm {
namespace {

class HistoryCommandsTest : public test::SandboxTest {
 protected:
  void SetUp() override {
    ::setenv("VELM_SYSFS", sandbox_.path("/sys").c_str(), 1);
    resetPathsForTest();
    SANFilesystem::resetForTest();
    SANComputer::resetForTest();
  }
  void TearDown() override {
    SANFilesystem::resetForTest();
    SANComputer::resetForTest();
    ::unsetenv("VELM_SYSFS");
    resetPathsForTest();
  }
  PropertyList history(std::vector<std::pair<std::string, PropertyList>> keys) {
    return test::runCommand(plugin_, context_, "getHistory", std::move(keys));
  }
  static std::string error(const PropertyList& r) {
    const std::string* e = r.getString("error");
    return e ? *e : "(none)";
  }

  test::LogCapture log_;
  ScopedFakeClock clock_;
  VelmPlugin plugin_;
  PropertyList context_ = PropertyList::dict();
};

TEST_F(HistoryCommandsTest, IdentifiersAndTheirErrors) {
  EXPECT_EQ(error(history({})), "identifier required but missing");
  EXPECT_EQ(error(history({{"identifier", PropertyList(7)}})), "identifier required but missing");
  EXPECT_EQ(error(history({{"identifier", PropertyList("history")}})),
            "history is not a valid identifier");
  EXPECT_EQ(error(history({{"identifier", PropertyList("volumeHistory:")}})),
            "No history for volume ");
  // No table yet: the store's failure through the common form.
  EXPECT_NE(error(history({{"identifier", PropertyList("system")}})), "(none)");
}

TEST_F(HistoryCommandsTest, TheMachinesRowsWithTheirDescriptor) {
  test::runCommand(plugin_, context_, "doIdle", {{"count", PropertyList(0)}});
  clock_->advanceMicros(60'000'000);
  ASSERT_TRUE(do_update_history_data(PlistArray{PropertyList(2500), PropertyList(7)}, &context_));
  for (PropertyList odd :
       {PropertyList(), PropertyList("x"), PropertyList(PlistArray{}), PropertyList(-5.5)}) {
    PropertyList r =
        history({{"identifier", PropertyList("system")}, {"variant", odd}, {"timeScale", odd}});
    // The tick's own row and ours.
    EXPECT_EQ(r.get("nbSamples")->uint64Value(), 2u) << describe(r);
    EXPECT_EQ(*r.getString("identifier"), "system");
    EXPECT_TRUE(r.get("keys"));
  }
  PropertyList info = test::runCommand(plugin_, context_, "getHistoryInfo");
  ASSERT_EQ(info.get("historyInfo")->size(), 1u);  // not a controller: the machine only
}

}  // namespace
}  // namespace velm

namespace velm {
namespace {

TEST_F(HistoryCommandsTest, ConfigFilesAreParsedOnceForATimeAndSize) {
  std::string path = sandbox_.write("/Library/Filesystems/Velm/config/notifications.plist",
                                    "<plist version=\"1.0\"><dict/></plist>\n");
  auto parsable = [&] {
    PropertyList r = test::runCommand(plugin_, context_, "getComputerProperties");
    return r.get("clientHealth")->get("configParsable_notifications.plist")->boolValue();
  };
  EXPECT_TRUE(parsable());
  EXPECT_TRUE(context_.get("configStatus_" + path));
  EXPECT_FALSE(context_.get("contextDirty"));
  // Garbled at the same size within the same second: the cached answer stands.
  struct stat st {};
  ::stat(path.c_str(), &st);
  std::string garbled(static_cast<std::size_t>(st.st_size), '#');
  sandbox_.write("/Library/Filesystems/Velm/config/notifications.plist", garbled);
  struct timespec times[2] = {st.st_atim, st.st_mtim};
  ::utimensat(AT_FDCWD, path.c_str(), times, 0);
  EXPECT_TRUE(parsable());
  // A different size is read again.
  sandbox_.write("/Library/Filesystems/Velm/config/notifications.plist", garbled + "#");
  EXPECT_FALSE(parsable());
}

}  // namespace
}  // namespace velm
