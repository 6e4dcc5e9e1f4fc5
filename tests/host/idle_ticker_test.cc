#include "host/idle_ticker.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <vector>

#include "platform/clock.h"

namespace velm {
namespace {

constexpr std::uint64_t kSecond = 1'000'000;

TEST(IdleTickerTest, TicksCountUpOneIntervalApartFromAFirstTickAtOnce) {
  ScopedFakeClock fake;
  std::uint64_t start = fake->monotonicMicros();
  std::vector<std::uint64_t> counts, times;
  IdleTicker* self = nullptr;
  IdleTicker ticker(60 * kSecond, [&](std::uint64_t count) {
    counts.push_back(count);
    times.push_back(fake->monotonicMicros() - start);
    if (count == 3) self->requestStop();
  });
  self = &ticker;
  ticker.runForTest();
  EXPECT_EQ(counts, (std::vector<std::uint64_t>{0, 1, 2, 3}));
  EXPECT_EQ(times, (std::vector<std::uint64_t>{0, 60 * kSecond, 120 * kSecond, 180 * kSecond}));
  EXPECT_EQ(fake->sleeps(), (std::vector<std::uint64_t>{60 * kSecond, 60 * kSecond, 60 * kSecond}));
}

TEST(IdleTickerTest, ATickThatOverrunsIsFollowedAtOnceWithoutCatchingUp) {
  ScopedFakeClock fake;
  std::uint64_t start = fake->monotonicMicros();
  std::vector<std::uint64_t> times;
  IdleTicker* self = nullptr;
  IdleTicker ticker(kSecond, [&](std::uint64_t count) {
    times.push_back(fake->monotonicMicros() - start);
    if (count == 0) fake->advanceMicros(5 * kSecond / 2);  // a slow first tick
    if (count == 2) self->requestStop();
  });
  self = &ticker;
  ticker.runForTest();
  EXPECT_EQ(times, (std::vector<std::uint64_t>{0, 5 * kSecond / 2, 7 * kSecond / 2}));
  EXPECT_EQ(fake->sleeps(), (std::vector<std::uint64_t>{kSecond}));
}

// On the real clock an hour-long wait must end with stop(); a ticker that ignored it would
// hold this test until the suite's timeout.
TEST(IdleTickerTest, StopCutsARealWaitShort) {
  std::mutex m;
  std::condition_variable cv;
  int ticks = 0;
  IdleTicker ticker(3600 * kSecond, [&](std::uint64_t) {
    std::scoped_lock lock(m);
    ++ticks;
    cv.notify_all();
  });
  ticker.start();
  {
    std::unique_lock lock(m);
    cv.wait(lock, [&] { return ticks > 0; });
  }
  ticker.stop();
  EXPECT_EQ(ticks, 1);
}

}  // namespace
}  // namespace velm
