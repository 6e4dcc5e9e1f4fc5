#include "platform/linux_service_advertiser_poll.h"

#include <avahi-common/timeval.h>
#include <sys/epoll.h>

#include <algorithm>
#include <vector>

#include "platform/clock.h"
#include "platform/event_loop.h"

namespace velm {

struct LoopAvahiPoll::Watch {
  LoopAvahiPoll* poll;
  int fd;
  AvahiWatchEvent wanted;
  AvahiWatchCallback callback;
  void* userdata;
  AvahiWatchEvent happened = AvahiWatchEvent(0);  // during its callback only
  bool dead = false;
};

struct LoopAvahiPoll::FdWatch {
  int fd = -1;
  std::uint64_t loopId = 0;  // 0 = not registered with the loop
  std::uint32_t epollEvents = 0;
  std::vector<std::shared_ptr<Watch>> watches;
};

struct LoopAvahiPoll::Timeout {
  LoopAvahiPoll* poll;
  AvahiTimeoutCallback callback;
  void* userdata;
  std::uint64_t timerId = 0;  // 0 = disabled
  bool dead = false;
};

namespace {

std::uint32_t toEpoll(unsigned events) {
  std::uint32_t out = 0;
  if (events & AVAHI_WATCH_IN) out |= EPOLLIN;
  if (events & AVAHI_WATCH_OUT) out |= EPOLLOUT;
  if (events & AVAHI_WATCH_ERR) out |= EPOLLERR;
  if (events & AVAHI_WATCH_HUP) out |= EPOLLHUP;
  return out;
}

unsigned fromEpoll(std::uint32_t events) {
  unsigned out = 0;
  if (events & EPOLLIN) out |= AVAHI_WATCH_IN;
  if (events & EPOLLOUT) out |= AVAHI_WATCH_OUT;
  if (events & EPOLLERR) out |= AVAHI_WATCH_ERR;
  if (events & EPOLLHUP) out |= AVAHI_WATCH_HUP;
  return out;
}

}  // namespace

LoopAvahiPoll::LoopAvahiPoll(EventLoop& loop) : loop_(loop) {
  api_.userdata = this;
  api_.watch_new = &LoopAvahiPoll::watchNew;
  api_.watch_update = &LoopAvahiPoll::watchUpdate;
  api_.watch_get_events = &LoopAvahiPoll::watchGetEvents;
  api_.watch_free = &LoopAvahiPoll::watchFree;
  api_.timeout_new = &LoopAvahiPoll::timeoutNew;
  api_.timeout_update = &LoopAvahiPoll::timeoutUpdate;
  api_.timeout_free = &LoopAvahiPoll::timeoutFree;
}

LoopAvahiPoll::~LoopAvahiPoll() {
  for (auto& [fd, f] : fds_) {
    if (f->loopId) loop_.unwatchFd(f->loopId);
  }
  for (auto& [handle, w] : watches_) w->dead = true;
  for (auto& [handle, t] : timeouts_) {
    if (t->timerId) loop_.cancelTimer(t->timerId);
    t->dead = true;
  }
}

std::size_t LoopAvahiPoll::watchedFdCount() const {
  return static_cast<std::size_t>(
      std::count_if(fds_.begin(), fds_.end(), [](const auto& e) { return e.second->loopId != 0; }));
}

bool LoopAvahiPoll::refresh(FdWatch& f) {
  std::uint32_t want = 0;
  for (const auto& w : f.watches) want |= toEpoll(w->wanted);
  if (want == 0) {
    // Off the loop altogether: epoll reports a hang-up even to a registration that asks for
    // nothing, and nobody here would take it, so the loop would spin.
    if (f.loopId) loop_.unwatchFd(f.loopId);
    f.loopId = 0;
  } else if (!f.loopId) {
    std::weak_ptr<FdWatch> weak = fds_.at(f.fd);
    f.loopId = loop_.watchFd(f.fd, want, [weak](std::uint32_t events) {
      std::shared_ptr<FdWatch> fw = weak.lock();
      if (!fw) return;
      unsigned happened = fromEpoll(events);
      // A copy: callbacks may add and free watches on this descriptor.
      std::vector<std::shared_ptr<Watch>> watches = fw->watches;
      for (const auto& w : watches) {
        if (w->dead || w->wanted == 0) continue;
        unsigned mine = happened & (w->wanted | AVAHI_WATCH_ERR | AVAHI_WATCH_HUP);
        if (!mine) continue;
        w->happened = AvahiWatchEvent(mine);
        w->callback(reinterpret_cast<AvahiWatch*>(w.get()), w->fd, w->happened, w->userdata);
        w->happened = AvahiWatchEvent(0);
      }
    });
    if (!f.loopId) return false;
  } else if (want != f.epollEvents) {
    loop_.modifyFd(f.loopId, want);
  }
  f.epollEvents = want;
  return true;
}

AvahiWatch* LoopAvahiPoll::watchNew(const AvahiPoll* api, int fd, AvahiWatchEvent events,
                                    AvahiWatchCallback callback, void* userdata) {
  auto* self = static_cast<LoopAvahiPoll*>(api->userdata);
  auto w = std::make_shared<Watch>(Watch{self, fd, events, callback, userdata});
  auto [it, fresh] = self->fds_.try_emplace(fd);
  if (fresh) {
    it->second = std::make_shared<FdWatch>();
    it->second->fd = fd;
  }
  FdWatch& f = *it->second;
  f.watches.push_back(w);
  if (!self->refresh(f)) {
    f.watches.pop_back();
    if (f.watches.empty()) self->fds_.erase(fd);
    return nullptr;
  }
  self->watches_.emplace(w.get(), w);
  return reinterpret_cast<AvahiWatch*>(w.get());
}

void LoopAvahiPoll::watchUpdate(AvahiWatch* handle, AvahiWatchEvent events) {
  auto* w = reinterpret_cast<Watch*>(handle);
  if (w->dead) return;
  w->wanted = events;
  auto it = w->poll->fds_.find(w->fd);
  if (it != w->poll->fds_.end()) w->poll->refresh(*it->second);
}

AvahiWatchEvent LoopAvahiPoll::watchGetEvents(AvahiWatch* handle) {
  return reinterpret_cast<Watch*>(handle)->happened;
}

void LoopAvahiPoll::watchFree(AvahiWatch* handle) {
  auto* w = reinterpret_cast<Watch*>(handle);
  if (w->dead) return;
  w->dead = true;
  LoopAvahiPoll* self = w->poll;
  auto it = self->fds_.find(w->fd);
  if (it != self->fds_.end()) {
    std::shared_ptr<FdWatch> f = it->second;
    std::erase_if(f->watches, [w](const auto& p) { return p.get() == w; });
    self->refresh(*f);
    if (f->watches.empty()) self->fds_.erase(it);
  }
  // Last, as this may destroy w; a dispatch in progress holds a reference of its own.
  self->watches_.erase(w);
}

void LoopAvahiPoll::arm(const std::shared_ptr<Timeout>& t, const struct timeval* tv) {
  if (t->timerId) loop_.cancelTimer(t->timerId);
  t->timerId = 0;
  if (!tv) return;
  // Avahi's times are absolute on the wall clock; our timers run on the monotonic one.
  AvahiUsec left = -::avahi_age(tv);
  std::uint64_t due =
      clock().monotonicMicros() + static_cast<std::uint64_t>(std::max<AvahiUsec>(left, 0));
  std::weak_ptr<Timeout> weak = t;
  t->timerId = loop_.addTimer(due, [weak] {
    std::shared_ptr<Timeout> to = weak.lock();
    if (!to || to->dead) return;
    // Fired, so disabled until Avahi updates it (perhaps from this very callback).
    to->timerId = 0;
    to->callback(reinterpret_cast<AvahiTimeout*>(to.get()), to->userdata);
  });
}

AvahiTimeout* LoopAvahiPoll::timeoutNew(const AvahiPoll* api, const struct timeval* tv,
                                        AvahiTimeoutCallback callback, void* userdata) {
  auto* self = static_cast<LoopAvahiPoll*>(api->userdata);
  auto t = std::make_shared<Timeout>(Timeout{self, callback, userdata});
  self->timeouts_.emplace(t.get(), t);
  self->arm(t, tv);
  return reinterpret_cast<AvahiTimeout*>(t.get());
}

void LoopAvahiPoll::timeoutUpdate(AvahiTimeout* handle, const struct timeval* tv) {
  auto* t = reinterpret_cast<Timeout*>(handle);
  if (t->dead) return;
  auto it = t->poll->timeouts_.find(t);
  if (it != t->poll->timeouts_.end()) t->poll->arm(it->second, tv);
}

void LoopAvahiPoll::timeoutFree(AvahiTimeout* handle) {
  auto* t = reinterpret_cast<Timeout*>(handle);
  if (t->dead) return;
  t->dead = true;
  if (t->timerId) t->poll->loop_.cancelTimer(t->timerId);
  t->timerId = 0;
  // Last, as this may destroy t; a timer callback in progress holds a reference of its own.
  t->poll->timeouts_.erase(t);
}

}  // namespace velm
