// FakeServiceAdvertiser: an advertiser for tests. It records what is published and stopped and
// tells delegates nothing by itself; the test fires each event when (and in whatever order) it
// likes. ScopedFakeServiceAdvertiserFactory makes every makeServiceAdvertiser() give one.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/service_advertiser.h"

namespace velm {

class FakeServiceAdvertiser : public ServiceAdvertiser {
 public:
  struct Publication {
    std::uint64_t id = 0;
    ServiceSpec spec;
    ServiceDelegate* delegate = nullptr;
    bool stopped = false;
  };

  std::uint64_t publish(const ServiceSpec& spec, ServiceDelegate* delegate) override {
    std::scoped_lock lock(mutex_);
    std::uint64_t id = nextId_++;
    publications_.push_back(Publication{id, spec, delegate, false});
    return id;
  }

  // Marks the service stopped; serviceDidStop waits for fireDidStop.
  void stop(std::uint64_t id) override {
    std::scoped_lock lock(mutex_);
    stops_.push_back(id);
    for (Publication& p : publications_) {
      if (p.id == id) p.stopped = true;
    }
  }

  // Copies, as the advertiser may be in use on another thread.
  std::vector<Publication> publications() const {
    std::scoped_lock lock(mutex_);
    return publications_;
  }
  // Every stop() call in order, repeats and unknown ids included.
  std::vector<std::uint64_t> stops() const {
    std::scoped_lock lock(mutex_);
    return stops_;
  }
  std::optional<Publication> publication(std::uint64_t id) const {
    std::scoped_lock lock(mutex_);
    auto it = std::find_if(publications_.begin(), publications_.end(),
                           [id](const Publication& p) { return p.id == id; });
    if (it == publications_.end()) return std::nullopt;
    return *it;
  }
  // Services published and not stopped.
  std::vector<Publication> live() const {
    std::scoped_lock lock(mutex_);
    std::vector<Publication> out;
    for (const Publication& p : publications_) {
      if (!p.stopped) out.push_back(p);
    }
    return out;
  }

  // Each calls id's delegate directly, on the caller's thread, whether or not it was stopped.
  // False for an unknown id.
  bool fireWillPublish(std::uint64_t id) {
    ServiceDelegate* d = delegateOf(id);
    if (d) d->serviceWillPublish(id);
    return d != nullptr;
  }
  bool fireDidNotPublish(std::uint64_t id, int error, const std::string& text = "test failure") {
    ServiceDelegate* d = delegateOf(id);
    if (d) d->serviceDidNotPublish(id, error, text);
    return d != nullptr;
  }
  bool fireDidStop(std::uint64_t id) {
    ServiceDelegate* d = delegateOf(id);
    if (d) d->serviceDidStop(id);
    return d != nullptr;
  }

  // Set when the owner of a factory-made advertiser has destroyed it.
  bool released() const {
    std::scoped_lock lock(mutex_);
    return released_;
  }
  void markReleased() {
    std::scoped_lock lock(mutex_);
    released_ = true;
  }

 private:
  ServiceDelegate* delegateOf(std::uint64_t id) const {
    std::scoped_lock lock(mutex_);
    for (const Publication& p : publications_) {
      if (p.id == id) return p.delegate;
    }
    return nullptr;
  }

  mutable std::mutex mutex_;  // guards the members below; leaf, never held across a delegate call
  std::uint64_t nextId_ = 1;
  std::vector<Publication> publications_;
  std::vector<std::uint64_t> stops_;
  bool released_ = false;
};

// Installs a factory of fakes for a test's scope. The fakes outlive the handles their owners get,
// so a test can look at them after the owner is gone.
class ScopedFakeServiceAdvertiserFactory {
 public:
  ScopedFakeServiceAdvertiserFactory() {
    setServiceAdvertiserFactoryForTest([state = state_](EventLoop&) {
      auto fake = std::make_shared<FakeServiceAdvertiser>();
      {
        std::scoped_lock lock(state->mutex);
        state->made.push_back(fake);
      }
      return std::unique_ptr<ServiceAdvertiser>(std::make_unique<Handle>(fake));
    });
  }
  ~ScopedFakeServiceAdvertiserFactory() { setServiceAdvertiserFactoryForTest(nullptr); }
  ScopedFakeServiceAdvertiserFactory(const ScopedFakeServiceAdvertiserFactory&) = delete;
  ScopedFakeServiceAdvertiserFactory& operator=(const ScopedFakeServiceAdvertiserFactory&) = delete;

  // Every advertiser made so far, oldest first.
  std::vector<std::shared_ptr<FakeServiceAdvertiser>> made() const {
    std::scoped_lock lock(state_->mutex);
    return state_->made;
  }
  // The newest, or nullptr when none was made.
  std::shared_ptr<FakeServiceAdvertiser> last() const {
    std::scoped_lock lock(state_->mutex);
    return state_->made.empty() ? nullptr : state_->made.back();
  }

 private:
  // What the factory's owner holds: forwards to a fake the test can keep.
  class Handle : public ServiceAdvertiser {
   public:
    explicit Handle(std::shared_ptr<FakeServiceAdvertiser> fake) : fake_(std::move(fake)) {}
    ~Handle() override { fake_->markReleased(); }
    std::uint64_t publish(const ServiceSpec& spec, ServiceDelegate* delegate) override {
      return fake_->publish(spec, delegate);
    }
    void stop(std::uint64_t id) override { fake_->stop(id); }

   private:
    std::shared_ptr<FakeServiceAdvertiser> fake_;
  };

  struct State {
    std::mutex mutex;  // guards made; leaf
    std::vector<std::shared_ptr<FakeServiceAdvertiser>> made;
  };
  std::shared_ptr<State> state_ = std::make_shared<State>();
};

}  // namespace velm
