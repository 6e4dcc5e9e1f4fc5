#include "platform/event_loop.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "platform/clock.h"

namespace velm {
namespace {

// The id epoll carries for the wake descriptor; real ids start at 1.
constexpr std::uint64_t kWakeId = 0;
constexpr int kMaxEvents = 32;

}  // namespace

EventLoop::EventLoop()
    : epoll_(::epoll_create1(EPOLL_CLOEXEC)), wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!ok()) return;
  epoll_event ev{};
  ev.events = EPOLLIN;
  ev.data.u64 = kWakeId;
  ::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, wake_.get(), &ev);
}

EventLoop::~EventLoop() { stop(); }

std::uint64_t EventLoop::watchFd(int fd, std::uint32_t events, FdCallback callback) {
  if (!ok()) {
    errno = EBADF;
    return 0;
  }
  std::scoped_lock lock(mutex_);
  std::uint64_t id = nextId_++;
  epoll_event ev{};
  ev.events = events;
  ev.data.u64 = id;
  if (::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &ev) != 0) return 0;
  watches_[id] = std::make_shared<Watch>(Watch{fd, std::move(callback)});
  return id;
}

bool EventLoop::modifyFd(std::uint64_t id, std::uint32_t events) {
  std::scoped_lock lock(mutex_);
  auto it = watches_.find(id);
  if (it == watches_.end()) return false;
  epoll_event ev{};
  ev.events = events;
  ev.data.u64 = id;
  return ::epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, it->second->fd, &ev) == 0;
}

void EventLoop::unwatchFd(std::uint64_t id) {
  std::scoped_lock lock(mutex_);
  auto it = watches_.find(id);
  if (it == watches_.end()) return;
  ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, it->second->fd, nullptr);
  watches_.erase(it);
}

std::uint64_t EventLoop::addTimer(std::uint64_t dueMicros, Callback callback) {
  std::uint64_t id;
  {
    std::scoped_lock lock(mutex_);
    id = nextId_++;
    timers_[id] = {dueMicros, std::move(callback)};
    timersByDue_.emplace(dueMicros, id);
  }
  // A waiting turn may be waiting longer than this timer allows.
  wake();
  return id;
}

void EventLoop::cancelTimer(std::uint64_t id) {
  std::scoped_lock lock(mutex_);
  auto it = timers_.find(id);
  if (it == timers_.end()) return;
  auto [first, last] = timersByDue_.equal_range(it->second.first);
  for (auto t = first; t != last; ++t) {
    if (t->second == id) {
      timersByDue_.erase(t);
      break;
    }
  }
  timers_.erase(it);
}

std::uint64_t EventLoop::nextTimerDue() {
  std::scoped_lock lock(mutex_);
  return timersByDue_.empty() ? 0 : timersByDue_.begin()->first;
}

void EventLoop::post(Callback fn) {
  {
    std::scoped_lock lock(mutex_);
    posted_.push_back(std::move(fn));
  }
  wake();
}

void EventLoop::wake() {
  if (!wake_) return;
  std::uint64_t one = 1;
  // A full counter still wakes the loop; nothing to do about a failed write.
  [[maybe_unused]] ssize_t n = ::write(wake_.get(), &one, sizeof one);
}

std::size_t EventLoop::runOnce(std::uint64_t maxWaitMicros) {
  if (!ok()) return 0;
  std::uint64_t wait = maxWaitMicros;
  {
    std::scoped_lock lock(mutex_);
    if (!posted_.empty()) wait = 0;
    if (!timersByDue_.empty()) {
      std::uint64_t now = clock().monotonicMicros();
      std::uint64_t due = timersByDue_.begin()->first;
      wait = std::min(wait, due > now ? due - now : 0);
    }
  }
  // Rounded up, so a timer is never woken for a moment before it is due.
  int timeoutMs = static_cast<int>(std::min<std::uint64_t>((wait + 999) / 1000, 60'000));
  epoll_event events[kMaxEvents];
  int n = ::epoll_wait(epoll_.get(), events, kMaxEvents, timeoutMs);
  std::size_t ran = 0;
  for (int i = 0; i < n; ++i) {
    if (events[i].data.u64 == kWakeId) {
      std::uint64_t count;
      [[maybe_unused]] ssize_t r = ::read(wake_.get(), &count, sizeof count);
      continue;
    }
    std::shared_ptr<Watch> watch;
    {
      std::scoped_lock lock(mutex_);
      auto it = watches_.find(events[i].data.u64);
      if (it != watches_.end()) watch = it->second;
    }
    // A descriptor unwatched by an earlier callback of this turn is skipped.
    if (!watch) continue;
    watch->callback(events[i].events);
    ++ran;
  }
  std::vector<Callback> work;
  {
    std::scoped_lock lock(mutex_);
    work.swap(posted_);
  }
  for (Callback& fn : work) {
    fn();
    ++ran;
  }
  while (true) {
    Callback due;
    {
      std::scoped_lock lock(mutex_);
      if (timersByDue_.empty() || timersByDue_.begin()->first > clock().monotonicMicros()) break;
      std::uint64_t id = timersByDue_.begin()->second;
      timersByDue_.erase(timersByDue_.begin());
      auto it = timers_.find(id);
      due = std::move(it->second.second);
      timers_.erase(it);
    }
    due();
    ++ran;
  }
  return ran;
}

void EventLoop::startThread() {
  if (thread_.joinable()) return;
  stopping_ = false;
  thread_ = std::thread([this] {
    threadId_ = std::this_thread::get_id();
    while (!stopping_) runOnce(1'000'000);
  });
}

void EventLoop::stop() {
  if (!thread_.joinable()) return;
  stopping_ = true;
  wake();
  thread_.join();
  threadId_ = std::thread::id();
}

}  // namespace velm
