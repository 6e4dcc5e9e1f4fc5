#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "core/san_computer.h"
#include "core/velm_plugin.h"
#include "platform/clock.h"
#include "support/log_capture.h"
#include "support/sandbox.h"

namespace velm {
namespace {

// A wall clock that moves 10 us at every read, so each timestamp of the dispatcher is distinct.
class SteppingClock : public FakeClock {
 public:
  std::uint64_t wallMicros() override {
    advanceMicros(10);
    return FakeClock::wallMicros();
  }
};

class DispatchTest : public test::SandboxTest {
 protected:
  void SetUp() override { SANComputer::resetForTest(); }
  void TearDown() override { SANComputer::resetForTest(); }

  std::optional<PropertyList> run(const PropertyList& request, std::int32_t* fd = nullptr) {
    std::int32_t local = 42;
    return plugin_.doProcessInputWithRequest(request, &context_, fd ? fd : &local);
  }
  static PropertyList command(PropertyList name) {
    PropertyList r = PropertyList::dict();
    r.set("command", std::move(name));
    return r;
  }

  test::LogCapture log_;
  VelmPlugin plugin_;
  PropertyList context_ = PropertyList::dict();
};

TEST_F(DispatchTest, MalformedCommandsAreRefusedWithoutResponseOrLockFdChange) {
  struct Case {
    PropertyList request;
    const char* message;
  } cases[] = {
      {PropertyList::dict(), "Command is not a string"},
      {command(PropertyList(7)), "Command is not a string"},
      {command("x"), "Command is too short"},
      {command("\xc3\xa9"), "Command is too short"},  // one character, two bytes
      {command("xx"), "Command to dispatch is unknown"},
      {command("GETSTATE"), "Command to dispatch is unknown"},
      {command("testPerformance"), "Command to dispatch is unknown"},
      {command("tailFile"), "Does not respond to tailFileWithRequest:"},
  };
  for (const Case& c : cases) {
    log_.clear();
    std::int32_t fd = 42;
    EXPECT_FALSE(run(c.request, &fd).has_value()) << c.message;
    EXPECT_EQ(fd, 42);
    EXPECT_EQ(log_.count(std::string("ERROR: ") + c.message), 1u) << c.message;
  }
}

TEST_F(DispatchTest, GetStateAnswersStateAndTheTwoTimingKeys) {
  std::optional<PropertyList> r = run(command("getState"));
  ASSERT_TRUE(r);
  EXPECT_EQ(r->size(), 3u);
  EXPECT_EQ(*r->getString("state"), "RUNNING");
  ASSERT_TRUE(r->get("perfDispatchMicroseconds"));
  EXPECT_TRUE(r->get("perfDispatchMicroseconds")->asInteger()->isUnsigned);
  EXPECT_TRUE(r->get("perfFunctionMicroseconds"));
}

TEST_F(DispatchTest, TimingKeysMeasureHandlerAndWholeCall) {
  SteppingClock clock;
  setClockForTest(&clock);
  std::optional<PropertyList> r = run(command("getState"));
  setClockForTest(nullptr);
  ASSERT_TRUE(r);
  // T0, T1, T2, T3 are four consecutive reads 10 us apart.
  EXPECT_EQ(*r->get("perfDispatchMicroseconds")->uint64Value(), 10u);
  EXPECT_EQ(*r->get("perfFunctionMicroseconds")->uint64Value(), 30u);
}

TEST_F(DispatchTest, AHandlerThatThrowsGetsNoResponseAndReleasesTheLock) {
  sandbox_.write("/Library/Filesystems/Velm/config/config.plist",
                 writeXmlPlist(PropertyList(PlistDict{})));
  EXPECT_FALSE(run(command("readSettings")).has_value());
  EXPECT_TRUE(log_.contains("raised an exception"));
  EXPECT_TRUE(run(command("getState")).has_value());
}

TEST_F(DispatchTest, ConcurrentRequestsAreAllAnswered) {
  std::atomic<int> answered{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 50; ++i) {
        std::int32_t fd = 3;
        PropertyList ctx = PropertyList::dict();
        auto r = plugin_.doProcessInputWithRequest(command("getState"), &ctx, &fd);
        if (r && r->getString("state") && fd == 3) ++answered;
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(answered.load(), 400);
}

TEST_F(DispatchTest, ReadSettingsSplitsNameServersAndStopsAtTheFirstMissingValue) {
  std::string config = "/Library/Filesystems/Velm/config/";
  // No config.plist: only `setting`, and notifications are lost with configuration.
  sandbox_.write(config + "notifications.plist", writeXmlPlist(PropertyList(PlistDict{})));
  auto r = run(command("readSettings"));
  ASSERT_TRUE(r);
  EXPECT_TRUE(r->get("setting"));
  EXPECT_FALSE(r->get("configuration"));
  EXPECT_FALSE(r->get("notifications"));

  PropertyList cfg = PropertyList::dict();
  cfg.set("role", "CONTROLLER");
  sandbox_.write(config + "config.plist", writeXmlPlist(cfg));
  struct {
    const char* text;
    std::vector<std::string> lines;
  } rows[] = {{"10.0.0.1\n10.0.0.2", {"10.0.0.1", "10.0.0.2"}},
              {"10.0.0.1\n10.0.0.2\n", {"10.0.0.1", "10.0.0.2"}},
              {"10.0.0.1\n\n", {"10.0.0.1", ""}}};
  for (const auto& row : rows) {
    sandbox_.write(config + "fsnameservers", row.text);
    r = run(command("readSettings"));
    ASSERT_TRUE(r);
    const PropertyList* servers = r->get("configuration") ? r->get("configuration")->get("nameservers") : nullptr;
    ASSERT_TRUE(servers);
    std::vector<std::string> got;
    for (const auto& s : *servers->asArray()) got.push_back(*s.asString());
    EXPECT_EQ(got, row.lines) << row.text;
    EXPECT_EQ(*r->get("configuration")->getString("role"), "CONTROLLER");
    EXPECT_TRUE(r->get("notifications"));
    EXPECT_EQ(r->get("setting")->size(), 0u);
  }
}

TEST_F(DispatchTest, TestPerformanceClampsIterationsAndSkipsCommandsWithoutHandlers) {
  // Every handler runs, teardown's sleeps included.
  ScopedFakeClock clock;
  struct {
    PropertyList iterations;
    std::uint64_t expected;
  } rows[] = {{PropertyList(), 100}, {PropertyList(0), 100}, {PropertyList(10001), 100},
              {PropertyList(1), 1}, {PropertyList(7), 7}};
  for (const auto& row : rows) {
    log_.clear();
    PropertyList request = command("testPerformance");
    if (!row.iterations.isNull()) request.set("iterations", row.iterations);
    // As a handler it runs under the plugin lock, which the event thread's work takes too.
    std::optional<PropertyList> r;
    {
      std::scoped_lock lock(plugin_.pluginLock());
      r = plugin_.testPerformanceWithRequest(request);
    }
    ASSERT_TRUE(r);
    const PropertyList* state = r->get("getState");
    ASSERT_TRUE(state);
    EXPECT_EQ(*state->get("iterations")->uint64Value(), row.expected);
    EXPECT_TRUE(state->get("coldRunTime"));
    EXPECT_TRUE(state->get("hotAverageTime"));
    EXPECT_FALSE(r->get("tailFile"));
    // Written raw, without the "velm:" prefix.
    EXPECT_EQ(log_.count("Does not respond to tailFileWithRequest:"), 1u);
  }
}

}  // namespace
}  // namespace velm
