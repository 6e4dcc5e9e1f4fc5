// Calls tick(0), tick(1), ... on a thread of its own: the first at once, then one interval after
// the start of the previous tick (or at once when a tick ran past its interval; missed ticks are
// not made up). Waits go through the clock seam and end early on stop().
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>

namespace velm {

class IdleTicker {
 public:
  using Tick = std::function<void(std::uint64_t count)>;
  IdleTicker(std::uint64_t intervalMicros, Tick tick);
  ~IdleTicker();  // stops
  IdleTicker(const IdleTicker&) = delete;
  IdleTicker& operator=(const IdleTicker&) = delete;

  void start();
  // Ends the wait at once; a running tick finishes first. Joins the thread.
  void stop();
  // Asks the loop to end after the running tick, without waiting (safe from inside a tick).
  void requestStop();
  // The loop itself on the calling thread, until requestStop() (tests).
  void runForTest() { run(); }

 private:
  void run();
  // False when stopping.
  bool waitUntil(std::uint64_t deadlineMicros);

  const std::uint64_t intervalMicros_;
  const Tick tick_;
  std::mutex mutex_;  // guards stopping_; leaf
  std::condition_variable wake_;
  bool stopping_ = false;
  std::thread thread_;
};

}  // namespace velm
