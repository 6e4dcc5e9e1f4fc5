// Poll sets of the admin library, and the one timed wait on sockets.
#pragma once

#include <poll.h>

inline constexpr int POLL_FIXED = 0;
inline constexpr int POLL_DYNAMIC = 1;
inline constexpr int kDPollGrow = 64;

// A set of sockets to poll. A dynamic set grows by 64 entries; a full fixed set is a fatal error.
struct PollSet {
  int polltype;
  int maxfds;
  int nfds;
  struct pollfd* fds;
};

// Allocates 64 entries; 0, or -1 when memory is short.
int DPollInit(PollSet* d, int polltype);
void DPollFree(PollSet* d);
// The entry index of fd, or -1.
int DPollFind(PollSet* d, int fd);
// Adds fd or replaces its wanted events; 0, or -1 when a dynamic set cannot grow.
int DPollSet(PollSet* d, int fd, short events);
// Takes fd out of the set; 0, or -1 when it was not there.
int DPollClr(PollSet* d, int fd);
// Sets the wanted events of every entry.
void DPollSetAll(PollSet* d, short events);
// poll(2) over the set through PollWait; negative ms waits without limit.
int DPoll(PollSet* d, int ms);
// The returned events of fd (0 when absent); X also clears them.
short DPollQRevents(PollSet* d, int fd);
short DPollXRevents(PollSet* d, int fd);

// The fixed one-entry set of the message layer: lives on the caller's stack, never allocates.
struct QPoll {
  PollSet d;
  struct pollfd fd[1];
};
void QPollInit(QPoll* q);
void QPollSet(QPoll* q, int fd, short events);

// poll(2) with the wait measured on the clock seam. With the system clock this is poll(2) itself.
// Under a test clock, a wait that nothing ends advances that clock instead of real time: each
// 20 ms of real waiting counts as one second, so a 30-second wait costs 0.6 s and a 1-second
// wait 20 ms. Negative ms waits without limit.
int PollWait(struct pollfd* fds, nfds_t n, int ms);
