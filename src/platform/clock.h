// The clock seam: every "now" and every sleep goes through clock(), so tests replace time.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <vector>

namespace velm {

class Clock {
 public:
  virtual ~Clock() = default;
  // Wall clock, microseconds since the Unix epoch; 0 when it can't be read.
  virtual std::uint64_t wallMicros() = 0;
  // Monotonic microseconds from an arbitrary start.
  virtual std::uint64_t monotonicMicros() = 0;
  virtual void sleepMicros(std::uint64_t micros) = 0;
  void sleepSeconds(unsigned seconds) { sleepMicros(std::uint64_t{seconds} * 1000000); }
};

// The clock in force: the system clock unless a test installed another.
Clock& clock();
Clock& systemClock();
// Installs a clock for tests; nullptr restores the system clock. The caller keeps ownership.
void setClockForTest(Clock* clock);

// A clock that stands still until told to move; sleeping advances it at once.
class FakeClock : public Clock {
 public:
  explicit FakeClock(std::uint64_t startWallMicros = 1'700'000'000'000'000ull)
      : wall_(startWallMicros), mono_(1'000'000) {}
  std::uint64_t wallMicros() override { return wall_.load(); }
  std::uint64_t monotonicMicros() override { return mono_.load(); }
  void sleepMicros(std::uint64_t micros) override;
  void advanceMicros(std::uint64_t micros) {
    wall_ += micros;
    mono_ += micros;
  }
  void setWallMicros(std::uint64_t w) { wall_ = w; }
  // Every sleep requested so far, in order.
  std::vector<std::uint64_t> sleeps() const;

 private:
  std::atomic<std::uint64_t> wall_, mono_;
  mutable std::mutex mutex_;  // guards sleeps_; leaf
  std::vector<std::uint64_t> sleeps_;
};

// Installs a FakeClock for the life of a test scope.
class ScopedFakeClock {
 public:
  ScopedFakeClock() { setClockForTest(&clock_); }
  ~ScopedFakeClock() { setClockForTest(nullptr); }
  FakeClock& operator*() { return clock_; }
  FakeClock* operator->() { return &clock_; }

 private:
  FakeClock clock_;
};

}  // namespace velm

namespace velm {
// Microseconds of the wall clock (seconds x 1000000 + microseconds); 0 when it can't be read.
inline std::uint64_t perf_timestamp() { return clock().wallMicros(); }
}  // namespace velm
