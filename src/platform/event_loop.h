// One epoll loop for every host event source: descriptors, timers on the clock seam, and work
// posted from other threads. It runs on a thread of its own (the event thread) or, in tests, turn
// by turn on the caller's.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/unique_fd.h"

namespace velm {

class EventLoop {
 public:
  using FdCallback = std::function<void(std::uint32_t events)>;
  using Callback = std::function<void()>;

  EventLoop();
  // Stops the thread; every callback is dropped unrun.
  ~EventLoop();
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  // False when the epoll or wake descriptor could not be made.
  bool ok() const { return epoll_ && wake_; }

  // Runs callback(events) on the loop whenever fd is ready for events (EPOLLIN, EPOLLPRI, ...).
  // The loop doesn't own fd. An id, or 0 when epoll refused it (errno tells why).
  std::uint64_t watchFd(int fd, std::uint32_t events, FdCallback callback);
  bool modifyFd(std::uint64_t id, std::uint32_t events);
  void unwatchFd(std::uint64_t id);

  // Runs callback once the monotonic clock of the seam reaches dueMicros. An id.
  std::uint64_t addTimer(std::uint64_t dueMicros, Callback callback);
  void cancelTimer(std::uint64_t id);
  // When the earliest timer is due; 0 when none is set.
  std::uint64_t nextTimerDue();

  // Runs fn on the loop, after what it is doing now. Safe from any thread.
  void post(Callback fn);
  // Makes a waiting turn look at the clock again (a test moved a fake clock).
  void wake();

  // One turn: waits for a descriptor up to maxWaitMicros (less when a timer falls due sooner),
  // then runs the ready descriptors' callbacks, the posted work and the timers now due. How many
  // callbacks ran.
  std::size_t runOnce(std::uint64_t maxWaitMicros);

  // Turns on a thread of its own until stop(); no-op when running already.
  void startThread();
  // Ends the thread after its running callback; joins it. Not from a callback.
  void stop();
  // True while the thread of startThread() runs.
  bool running() const { return thread_.joinable(); }
  bool onLoopThread() const { return std::this_thread::get_id() == threadId_.load(); }

 private:
  struct Watch {
    int fd;
    FdCallback callback;
  };

  UniqueFd epoll_;
  UniqueFd wake_;     // an eventfd
  std::mutex mutex_;  // guards the tables below; leaf, never held while a callback runs
  std::uint64_t nextId_ = 1;
  std::map<std::uint64_t, std::shared_ptr<Watch>> watches_;
  std::multimap<std::uint64_t, std::uint64_t> timersByDue_;             // due -> id
  std::map<std::uint64_t, std::pair<std::uint64_t, Callback>> timers_;  // id -> (due, callback)
  std::vector<Callback> posted_;
  std::atomic<bool> stopping_{false};
  std::atomic<std::thread::id> threadId_{};
  std::thread thread_;
};

}  // namespace velm
