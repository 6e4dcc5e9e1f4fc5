// The logind power event source. logind never asks whether it may sleep, so the answers are given
// ahead as inhibitor locks: an "idle" block lock while this machine is a controller, and a
// "sleep" delay lock that is let go when PrepareForSleep(true) comes (the will-sleep message).
#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <systemd/sd-bus.h>
#include <time.h>

#include <cerrno>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

#include "platform/clock.h"
#include "platform/event_loop.h"
#include "platform/log.h"
#include "platform/power_events.h"
#include "platform/unique_fd.h"

namespace velm {
namespace {

constexpr const char* kService = "org.freedesktop.login1";
constexpr const char* kPath = "/org/freedesktop/login1";
constexpr const char* kManager = "org.freedesktop.login1.Manager";
constexpr const char* kWho = "velm";
constexpr const char* kWhy = "Controller";

// sd-bus stamps its deadlines on the real CLOCK_MONOTONIC, whatever the clock seam says.
std::uint64_t busNowMicros() {
  timespec ts{};
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return std::uint64_t(ts.tv_sec) * 1'000'000 + std::uint64_t(ts.tv_nsec) / 1000;
}

// The lock an Inhibit reply carries, or none when the reply is an error.
UniqueFd lockFrom(sd_bus_message* reply) {
  if (sd_bus_message_is_method_error(reply, nullptr)) return {};
  int fd = -1;
  if (sd_bus_message_read(reply, "h", &fd) < 0 || fd < 0) return {};
  // The message closes its own descriptor when it goes.
  return UniqueFd(::fcntl(fd, F_DUPFD_CLOEXEC, 3));
}

// Everything the source does, under one lock: the idle tick calls in from its own thread while
// the loop's thread dispatches the bus. The loop's callbacks hold it weakly, so one that comes
// after the source is gone does nothing.
class LogindState : public std::enable_shared_from_this<LogindState> {
 public:
  explicit LogindState(std::uint64_t startTimeoutMicros) : startTimeout_(startTimeoutMicros) {}
  ~LogindState() { shutdown(); }
  LogindState(const LogindState&) = delete;
  LogindState& operator=(const LogindState&) = delete;

  bool start(EventLoop& loop, std::function<bool()> isController) {
    std::scoped_lock lock(mutex_);
    shutdown();
    loop_ = &loop;
    isController_ = std::move(isController);
    sd_bus* bus = nullptr;
    if (sd_bus_open_system(&bus) < 0) return false;
    bus_ = bus;
    // The match goes first, so no PrepareForSleep slips in between it and the lock.
    if (sd_bus_match_signal_async(bus_, &match_, kService, kPath, kManager, "PrepareForSleep",
                                  onPrepareForSleep, onMatchInstalled, this) < 0 ||
        requestSleepLock(startTimeout_) < 0 || !waitForSleepLock()) {
      shutdown();
      return false;
    }
    watched_ = EPOLLIN;
    watch_ = loop.watchFd(sd_bus_get_fd(bus_), watched_, [weak = weak_from_this()](std::uint32_t) {
      if (auto self = weak.lock()) self->onReady();
    });
    if (!watch_) {
      shutdown();
      return false;
    }
    evaluateIdle();
    // The waits above may have left messages read but not dispatched.
    rearm();
    return true;
  }

  void reevaluate() {
    std::scoped_lock lock(mutex_);
    // Not started, or start() failed: its caller has told that already.
    if (!bus_) return;
    evaluateIdle();
    rearm();
  }

  void stop() {
    std::scoped_lock lock(mutex_);
    shutdown();
  }

 private:
  void onReady() {
    std::scoped_lock lock(mutex_);
    // Unwatched meanwhile by another thread.
    if (watch_) process();
  }

  void onTimer(std::uint64_t generation) {
    std::scoped_lock lock(mutex_);
    if (generation != timerGeneration_) return;
    timer_ = 0;
    process();
  }

  // The members below run with mutex_ held.

  bool controller() const { return isController_ && isController_(); }
  bool refusingIdle() const { return decided_.value_or(false); }

  // Asks logind for a lock; the reply goes to callback. timeoutMicros 0: sd-bus's default.
  int requestInhibit(sd_bus_slot** slot, const char* what, const char* mode,
                     sd_bus_message_handler_t callback, std::uint64_t timeoutMicros) {
    if (!bus_) return -ENOTCONN;
    sd_bus_message* m = nullptr;
    int r = sd_bus_message_new_method_call(bus_, &m, kService, kPath, kManager, "Inhibit");
    if (r >= 0) r = sd_bus_message_append(m, "ssss", what, kWho, kWhy, mode);
    if (r >= 0) r = sd_bus_call_async(bus_, slot, m, callback, this, timeoutMicros);
    sd_bus_message_unref(m);
    return r;
  }

  // The idle decision: logged only when it changes, so idle ticks stay quiet.
  void evaluateIdle() {
    PowerDecision d = decidePower(kPowerCanSystemSleep, controller());
    bool refuse = d.action == PowerAction::kCancelIdleSleep;
    if (decided_ != refuse) {
      decided_ = refuse;
      warned_ = false;
      logPowerDecision(d);
    }
    if (!refuse) {
      idleLock_.reset();
      return;
    }
    if (idleLock_ || idleCall_) return;
    if (requestInhibit(&idleCall_, "idle", "block", onIdleReply, 0) < 0) idleFailed();
  }

  // A failure is retried at each tick but told once per decision.
  void idleFailed() {
    if (warned_) return;
    warned_ = true;
    NLog("%s", kPowerCancelFailedLine);
  }

  void idleReplied(sd_bus_message* reply) {
    idleCall_ = sd_bus_slot_unref(idleCall_);
    UniqueFd lock = lockFrom(reply);
    // A role that changed meanwhile drops the lock at once.
    if (!refusingIdle()) return;
    if (lock)
      idleLock_ = std::move(lock);
    else
      idleFailed();
  }

  int requestSleepLock(std::uint64_t timeoutMicros) {
    if (sleepLock_ || sleepCall_) return 0;
    return requestInhibit(&sleepCall_, "sleep", "delay", onSleepReply, timeoutMicros);
  }

  void sleepReplied(sd_bus_message* reply) {
    sleepCall_ = sd_bus_slot_unref(sleepCall_);
    UniqueFd lock = lockFrom(reply);
    // Taken while a sleep is under way, it would only hold the sleep up.
    if (lock && !sleeping_) sleepLock_ = std::move(lock);
  }

  // The first answer decides whether logind is there at all. Bounded here, since sd_bus_call
  // would wait for the connection's own setup without a limit.
  bool waitForSleepLock() {
    std::uint64_t deadline = busNowMicros() + startTimeout_;
    while (sleepCall_) {
      int r = sd_bus_process(bus_, nullptr);
      if (r < 0) break;
      if (r > 0) continue;
      std::uint64_t now = busNowMicros();
      if (now >= deadline || sd_bus_wait(bus_, deadline - now) < 0) break;
    }
    return sleepLock_.valid();
  }

  void prepareForSleep(sd_bus_message* signal) {
    int starting = 0;
    if (sd_bus_message_read(signal, "b", &starting) < 0) return;
    if (!starting) {
      sleeping_ = false;
      requestSleepLock(0);
      return;
    }
    sleeping_ = true;
    PowerDecision d = decidePower(kPowerSystemWillSleep, controller());
    logPowerDecision(d);
    if (d.action == PowerAction::kAllow) sleepLock_.reset();
  }

  void process() {
    if (!bus_) return;
    while (true) {
      int r = sd_bus_process(bus_, nullptr);
      if (watch_ && sd_bus_is_open(bus_) <= 0) lost();
      if (r <= 0) break;
    }
    rearm();
  }

  // Follows what sd-bus wants next: the events to wait for and its earliest deadline.
  void rearm() {
    if (!bus_ || !watch_) return;
    int events = sd_bus_get_events(bus_);
    if (events < 0) {
      detach();
      return;
    }
    std::uint32_t want = 0;
    if (events & POLLIN) want |= EPOLLIN;
    if (events & POLLOUT) want |= EPOLLOUT;
    if (want != watched_ && loop_->modifyFd(watch_, want)) watched_ = want;
    std::uint64_t due = UINT64_MAX;
    if (sd_bus_get_timeout(bus_, &due) < 0) due = UINT64_MAX;
    if (timer_ && due == timerBusDue_) return;
    if (timer_) loop_->cancelTimer(std::exchange(timer_, 0));
    timerBusDue_ = due;
    if (due == UINT64_MAX) return;
    std::uint64_t now = busNowMicros();
    std::uint64_t left = due > now ? due - now : 0;
    std::uint64_t generation = ++timerGeneration_;
    timer_ =
        loop_->addTimer(clock().monotonicMicros() + left, [weak = weak_from_this(), generation] {
          if (auto self = weak.lock()) self->onTimer(generation);
        });
  }

  // Let go of while its descriptor is still open: sd-bus closes it once the calls under way are
  // answered. The idle lock stays with logind all the same; the delay lock, with no
  // PrepareForSleep to come, would only hold every sleep up.
  void lost() {
    detach();
    sleepLock_.reset();
  }

  void detach() {
    if (!loop_) return;
    if (watch_) loop_->unwatchFd(std::exchange(watch_, 0));
    if (timer_) loop_->cancelTimer(std::exchange(timer_, 0));
    ++timerGeneration_;
  }

  void shutdown() {
    detach();
    match_ = sd_bus_slot_unref(match_);
    idleCall_ = sd_bus_slot_unref(idleCall_);
    sleepCall_ = sd_bus_slot_unref(sleepCall_);
    // No flush: nothing is left to say, and a stuck peer mustn't hold the caller.
    if (bus_) bus_ = sd_bus_close_unref(bus_);
    idleLock_.reset();
    sleepLock_.reset();
    decided_.reset();
    warned_ = false;
    sleeping_ = false;
  }

  static int onIdleReply(sd_bus_message* m, void* self, sd_bus_error*) {
    static_cast<LogindState*>(self)->idleReplied(m);
    return 0;
  }
  static int onSleepReply(sd_bus_message* m, void* self, sd_bus_error*) {
    static_cast<LogindState*>(self)->sleepReplied(m);
    return 0;
  }
  static int onPrepareForSleep(sd_bus_message* m, void* self, sd_bus_error*) {
    static_cast<LogindState*>(self)->prepareForSleep(m);
    return 0;
  }
  // Without the match only the will-sleep line is missed; the connection stays (sd-bus would
  // close it if no callback were given).
  static int onMatchInstalled(sd_bus_message*, void*, sd_bus_error*) { return 0; }

  const std::uint64_t startTimeout_;
  std::mutex mutex_;  // guards everything below; taken before the loop's own
  EventLoop* loop_ = nullptr;
  std::function<bool()> isController_;
  sd_bus* bus_ = nullptr;
  sd_bus_slot* match_ = nullptr;
  sd_bus_slot* idleCall_ = nullptr;   // an idle Inhibit under way
  sd_bus_slot* sleepCall_ = nullptr;  // a sleep Inhibit under way
  std::uint64_t watch_ = 0, timer_ = 0;
  std::uint32_t watched_ = 0;
  std::uint64_t timerBusDue_ = UINT64_MAX;  // sd-bus's deadline the timer stands for
  std::uint64_t timerGeneration_ = 0;       // tells the timer in force from cancelled ones
  UniqueFd idleLock_, sleepLock_;
  std::optional<bool> decided_;  // refusing idle sleep; none before the first decision
  bool warned_ = false;          // the cancel failure was told for this decision
  bool sleeping_ = false;        // between PrepareForSleep(true) and (false)
};

class LogindPowerEventSource : public PowerEventSource {
 public:
  explicit LogindPowerEventSource(std::uint64_t startTimeoutMicros)
      : state_(std::make_shared<LogindState>(startTimeoutMicros)) {}
  // The locks go now, not when a callback still running lets go of the state.
  ~LogindPowerEventSource() override { state_->stop(); }

  bool start(EventLoop& loop, std::function<bool()> isController) override {
    return state_->start(loop, std::move(isController));
  }
  void reevaluate() override { state_->reevaluate(); }

 private:
  std::shared_ptr<LogindState> state_;
};

}  // namespace

std::unique_ptr<PowerEventSource> makeLogindPowerEventSource(std::uint64_t startTimeoutMicros) {
  return std::make_unique<LogindPowerEventSource>(startTimeoutMicros);
}

}  // namespace velm
