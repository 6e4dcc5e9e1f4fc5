#include <gtest/gtest.h>

#include "core/san_computer.h"
#include "core/velm_plugin.h"
#include "gateway/san_filesystem.h"
#include "support/log_capture.h"
#include "support/sandbox.h"

namespace velm {
namespace {

class LUNCommandsTest : public test::SandboxTest {
 protected:
  void SetUp() override {
    SANFilesystem::resetForTest();
    SANComputer::resetForTest();
    sandbox_.write("/Library/Filesystems/Velm/bin/drlabel",
                   "#!/bin/sh\ncat " + sandbox_.path("/luns.plist") + "\n", 0755);
  }
  void TearDown() override {
    SANFilesystem::resetForTest();
    SANComputer::resetForTest();
  }
  void setLUNs(const std::string& devices) {
    std::string body = "<plist version=\"1.0\"><dict>";
    for (char d : devices) body += std::string("<key>sd") + d + "</key><dict/>";
    sandbox_.write("/luns.plist", body + "</dict></plist>\n");
  }
  std::optional<PropertyList> run(std::string_view name) {
    PropertyList r = PropertyList::dict();
    r.set("command", name);
    std::int32_t fd = -1;
    return plugin_.doProcessInputWithRequest(r, &context_, &fd);
  }

  test::LogCapture log_;
  VelmPlugin plugin_;
  PropertyList context_ = PropertyList::dict();
};

TEST_F(LUNCommandsTest, GetAnswersTheCacheAndRefreshReadsAfresh) {
  setLUNs("bcd");
  std::optional<PropertyList> got = run("getLUNs");
  ASSERT_TRUE(got);
  EXPECT_EQ(got->get("visibleLUNs")->size(), 3u);
  setLUNs("z");
  EXPECT_EQ(run("getLUNs")->get("visibleLUNs")->size(), 3u);

  // velmd is down: logged, and the read is fresh all the same.
  std::optional<PropertyList> fresh = run("refreshLUNs");
  ASSERT_TRUE(fresh);
  EXPECT_EQ(fresh->get("visibleLUNs")->size(), 1u);
  EXPECT_TRUE(log_.contains("ERROR: disksChanged: unable to send 'disksChanged' message to velmd"));
}

}  // namespace
}  // namespace velm
