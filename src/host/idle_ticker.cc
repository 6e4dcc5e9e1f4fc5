#include "host/idle_ticker.h"

#include <chrono>

#include "platform/clock.h"

namespace velm {

IdleTicker::IdleTicker(std::uint64_t intervalMicros, Tick tick)
    : intervalMicros_(intervalMicros), tick_(std::move(tick)) {}

IdleTicker::~IdleTicker() { stop(); }

void IdleTicker::start() { thread_ = std::thread([this] { run(); }); }

void IdleTicker::requestStop() {
  {
    std::scoped_lock lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
}

void IdleTicker::stop() {
  requestStop();
  if (thread_.joinable()) thread_.join();
}

void IdleTicker::run() {
  for (std::uint64_t count = 0;; ++count) {
    {
      std::scoped_lock lock(mutex_);
      if (stopping_) return;
    }
    std::uint64_t started = clock().monotonicMicros();
    tick_(count);
    if (!waitUntil(started + intervalMicros_)) return;
  }
}

bool IdleTicker::waitUntil(std::uint64_t deadlineMicros) {
  std::unique_lock lock(mutex_);
  for (;;) {
    if (stopping_) return false;
    std::uint64_t now = clock().monotonicMicros();
    if (now >= deadlineMicros) return true;
    std::uint64_t remaining = deadlineMicros - now;
    if (&clock() == &systemClock()) {
      // Real time: a condition variable, so that stop() cuts the wait short.
      wake_.wait_for(lock, std::chrono::microseconds(remaining));
    } else {
      // A test's clock: its sleep is how time passes there.
      lock.unlock();
      clock().sleepMicros(remaining);
      lock.lock();
    }
  }
}

}  // namespace velm
