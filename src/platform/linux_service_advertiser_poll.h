// LoopAvahiPoll: Avahi's main loop abstraction on our EventLoop. Avahi's watches become the loop's
// descriptors and its timeouts the loop's timers. Used on the loop's thread only.
#pragma once

#include <avahi-common/watch.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>

namespace velm {

class EventLoop;

class LoopAvahiPoll {
 public:
  explicit LoopAvahiPoll(EventLoop& loop);
  // Drops whatever watches and timeouts Avahi left behind; their callbacks never run again.
  ~LoopAvahiPoll();
  LoopAvahiPoll(const LoopAvahiPoll&) = delete;
  LoopAvahiPoll& operator=(const LoopAvahiPoll&) = delete;

  // What avahi_client_new takes; valid for the life of this object.
  const AvahiPoll* api() const { return &api_; }

  // Live watches and timeouts (Avahi hasn't freed them yet).
  std::size_t watchCount() const { return watches_.size(); }
  std::size_t timeoutCount() const { return timeouts_.size(); }
  // Descriptors the loop is watching for us right now.
  std::size_t watchedFdCount() const;

 private:
  struct Watch;
  struct FdWatch;
  struct Timeout;

  static AvahiWatch* watchNew(const AvahiPoll* api, int fd, AvahiWatchEvent events,
                              AvahiWatchCallback callback, void* userdata);
  static void watchUpdate(AvahiWatch* handle, AvahiWatchEvent events);
  static AvahiWatchEvent watchGetEvents(AvahiWatch* handle);
  static void watchFree(AvahiWatch* handle);
  static AvahiTimeout* timeoutNew(const AvahiPoll* api, const struct timeval* tv,
                                  AvahiTimeoutCallback callback, void* userdata);
  static void timeoutUpdate(AvahiTimeout* handle, const struct timeval* tv);
  static void timeoutFree(AvahiTimeout* handle);

  // Brings the loop's registration of f in line with what its watches want. False when the loop
  // refused a new registration.
  bool refresh(FdWatch& f);
  void arm(const std::shared_ptr<Timeout>& t, const struct timeval* tv);

  EventLoop& loop_;
  AvahiPoll api_{};
  // Keyed by the handle Avahi holds. Shared, so a callback in progress keeps its object alive
  // when Avahi frees it from inside that callback.
  std::map<const void*, std::shared_ptr<Watch>> watches_;
  std::map<const void*, std::shared_ptr<Timeout>> timeouts_;
  // One loop registration per descriptor: Avahi (through D-Bus) may put several watches on one.
  std::map<int, std::shared_ptr<FdWatch>> fds_;
};

}  // namespace velm
