#include "adminlib/pollutil.h"

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "adminlib/alloc.h"
#include "adminlib/subr2.h"
#include "platform/clock.h"

int DPollInit(PollSet* d, int polltype) {
  d->polltype = polltype == POLL_DYNAMIC ? POLL_DYNAMIC : POLL_FIXED;
  d->nfds = 0;
  d->maxfds = 0;
  d->fds = static_cast<struct pollfd*>(
      AllocMemory(MY_MINALIGN, sizeof(struct pollfd) * kDPollGrow, __FILE__, __LINE__));
  if (!d->fds) return -1;
  d->maxfds = kDPollGrow;
  return 0;
}

void DPollFree(PollSet* d) {
  if (d->fds) FreeMemory(d->fds);
  d->fds = nullptr;
  d->maxfds = d->nfds = 0;
}

int DPollFind(PollSet* d, int fd) {
  for (int i = 0; i < d->nfds; ++i)
    if (d->fds[i].fd == fd) return i;
  return -1;
}

int DPollSet(PollSet* d, int fd, short events) {
  int i = DPollFind(d, fd);
  if (i >= 0) {
    d->fds[i].events = events;
    return 0;
  }
  if (d->nfds >= d->maxfds) {
    QM_ASSERT(d->polltype == POLL_DYNAMIC);
    int grown = d->maxfds + kDPollGrow;
    auto* fds = static_cast<struct pollfd*>(
        AllocMemory(MY_MINALIGN, sizeof(struct pollfd) * grown, __FILE__, __LINE__));
    if (!fds) return -1;
    if (d->nfds) std::memcpy(fds, d->fds, sizeof(struct pollfd) * d->nfds);
    if (d->fds) FreeMemory(d->fds);
    d->fds = fds;
    d->maxfds = grown;
  }
  d->fds[d->nfds++] = pollfd{fd, events, 0};
  return 0;
}

int DPollClr(PollSet* d, int fd) {
  int i = DPollFind(d, fd);
  if (i < 0) return -1;
  d->fds[i] = d->fds[--d->nfds];
  return 0;
}

void DPollSetAll(PollSet* d, short events) {
  for (int i = 0; i < d->nfds; ++i) d->fds[i].events = events;
}

int DPoll(PollSet* d, int ms) {
  for (int i = 0; i < d->nfds; ++i) d->fds[i].revents = 0;
  return PollWait(d->fds, static_cast<nfds_t>(d->nfds), ms);
}

short DPollQRevents(PollSet* d, int fd) {
  int i = DPollFind(d, fd);
  return i < 0 ? 0 : d->fds[i].revents;
}

short DPollXRevents(PollSet* d, int fd) {
  int i = DPollFind(d, fd);
  if (i < 0) return 0;
  short r = d->fds[i].revents;
  d->fds[i].revents = 0;
  return r;
}

void QPollInit(QPoll* q) {
  static const QPoll kTemplate = {{POLL_FIXED, 1, 0, nullptr}, {{-1, 0, 0}}};
  *q = kTemplate;
  q->d.fds = q->fd;
}

void QPollSet(QPoll* q, int fd, short events) {
  int i = DPollFind(&q->d, fd);
  if (i >= 0) {
    q->d.fds[i].events = events;
    return;
  }
  QM_ASSERT(q->d.nfds < q->d.maxfds);
  q->d.fds[q->d.nfds++] = pollfd{fd, events, 0};
}

int PollWait(struct pollfd* fds, nfds_t n, int ms) {
  velm::Clock& clk = velm::clock();
  if (ms <= 0 || &clk == &velm::systemClock()) return ::poll(fds, n, ms);
  constexpr int kSliceRealMs = 20;
  constexpr std::uint64_t kSliceFakeMicros = 1000000;
  std::uint64_t left = static_cast<std::uint64_t>(ms) * 1000u;
  while (true) {
    int r = ::poll(fds, n, kSliceRealMs);
    if (r != 0) return r;
    std::uint64_t step = left < kSliceFakeMicros ? left : kSliceFakeMicros;
    if (auto* fake = dynamic_cast<velm::FakeClock*>(&clk))
      fake->advanceMicros(step);
    else
      clk.sleepMicros(step);
    left -= step;
    if (left == 0) return 0;
  }
}
