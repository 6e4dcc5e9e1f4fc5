#include "platform/clock.h"

#include <sys/time.h>

#include <cerrno>
#include <ctime>

namespace velm {
namespace {

class SystemClock : public Clock {
 public:
  std::uint64_t wallMicros() override {
    struct timeval tv {};
    if (::gettimeofday(&tv, nullptr) != 0) return 0;
    return static_cast<std::uint64_t>(tv.tv_sec) * 1000000u + static_cast<std::uint64_t>(tv.tv_usec);
  }
  std::uint64_t monotonicMicros() override {
    struct timespec ts {};
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<std::uint64_t>(ts.tv_sec) * 1000000u + static_cast<std::uint64_t>(ts.tv_nsec) / 1000u;
  }
  void sleepMicros(std::uint64_t micros) override {
    struct timespec req {
      static_cast<time_t>(micros / 1000000), static_cast<long>((micros % 1000000) * 1000)
    };
    while (::nanosleep(&req, &req) != 0 && errno == EINTR) {
    }
  }
};

std::atomic<Clock*> gTestClock{nullptr};

}  // namespace

Clock& systemClock() {
  static SystemClock c;
  return c;
}

Clock& clock() {
  Clock* c = gTestClock.load(std::memory_order_acquire);
  return c ? *c : systemClock();
}

void setClockForTest(Clock* c) { gTestClock.store(c, std::memory_order_release); }

void FakeClock::sleepMicros(std::uint64_t micros) {
  {
    std::scoped_lock lock(mutex_);
    sleeps_.push_back(micros);
  }
  advanceMicros(micros);
}

std::vector<std::uint64_t> FakeClock::sleeps() const {
  std::scoped_lock lock(mutex_);
  return sleeps_;
}

}  // namespace velm
