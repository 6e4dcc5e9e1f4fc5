// A PowerEventSource for tests: start() answers what it was told and keeps what it was given;
// deliver() plays a host message through the decision table and logs as the logind source does.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "platform/log.h"
#include "platform/power_events.h"

namespace velm {

class FakePowerEventSource : public PowerEventSource {
 public:
  explicit FakePowerEventSource(bool startResult = true) : startResult_(startResult) {}

  bool start(EventLoop& loop, std::function<bool()> isController) override {
    std::scoped_lock lock(mutex_);
    loop_ = &loop;
    isController_ = std::move(isController);
    ++starts_;
    return startResult_;
  }
  void reevaluate() override { ++reevaluations_; }

  // Plays message through the table with the role start() was given (none: a client) and logs
  // its line; then the cancel failure line, when cancelling is set to fail. The action taken.
  PowerAction deliver(std::uint32_t message) {
    PowerDecision d = decidePower(message, isController());
    logPowerDecision(d);
    bool failed = d.action == PowerAction::kCancelIdleSleep && cancelFails_;
    if (failed) NLog("%s", kPowerCancelFailedLine);
    std::scoped_lock lock(mutex_);
    actions_.push_back(d.action);
    return d.action;
  }

  void setStartResult(bool result) {
    std::scoped_lock lock(mutex_);
    startResult_ = result;
  }
  void setCancelFails(bool fails) { cancelFails_ = fails; }

  EventLoop* loop() const {
    std::scoped_lock lock(mutex_);
    return loop_;
  }
  std::function<bool()> isControllerCallback() const {
    std::scoped_lock lock(mutex_);
    return isController_;
  }
  // The role as the source would ask it now.
  bool isController() const {
    std::function<bool()> ask = isControllerCallback();
    return ask && ask();
  }
  int startCount() const { return starts_; }
  int reevaluateCount() const { return reevaluations_; }
  // What deliver() did, in order.
  std::vector<PowerAction> actions() const {
    std::scoped_lock lock(mutex_);
    return actions_;
  }

 private:
  mutable std::mutex mutex_;  // guards the members below it; leaf
  bool startResult_;
  EventLoop* loop_ = nullptr;
  std::function<bool()> isController_;
  std::vector<PowerAction> actions_;
  std::atomic<int> starts_{0}, reevaluations_{0};
  std::atomic<bool> cancelFails_{false};
};

// Makes makePowerEventSource() hand out fakes for the life of a test scope.
class ScopedFakePowerEventSources {
 public:
  explicit ScopedFakePowerEventSources(bool startResult = true) {
    setPowerEventSourceFactoryForTest([this, startResult] {
      auto source = std::make_unique<FakePowerEventSource>(startResult);
      std::scoped_lock lock(mutex_);
      last_ = source.get();
      ++made_;
      return source;
    });
  }
  ~ScopedFakePowerEventSources() { setPowerEventSourceFactoryForTest(nullptr); }
  ScopedFakePowerEventSources(const ScopedFakePowerEventSources&) = delete;
  ScopedFakePowerEventSources& operator=(const ScopedFakePowerEventSources&) = delete;

  // The latest fake made; valid while its owner keeps it.
  FakePowerEventSource* last() const {
    std::scoped_lock lock(mutex_);
    return last_;
  }
  int made() const {
    std::scoped_lock lock(mutex_);
    return made_;
  }

 private:
  mutable std::mutex mutex_;  // guards last_ and made_; leaf
  FakePowerEventSource* last_ = nullptr;
  int made_ = 0;
};

}  // namespace velm
