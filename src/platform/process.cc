#include "platform/process.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>

#include "platform/clock.h"
#include "platform/unique_fd.h"

extern char** environ;

namespace velm {
namespace {

// Our pipe ends live above 2, so the child's dup2 onto 0..2 always makes a fresh descriptor
// without close-on-exec, even when this process runs with a standard descriptor closed.
int moveAbove2(UniqueFd& fd) {
  if (fd.get() > 2) return 0;
  int moved = ::fcntl(fd.get(), F_DUPFD_CLOEXEC, 3);
  if (moved < 0) return errno;
  fd.reset(moved);
  return 0;
}

struct Pipe {
  UniqueFd read, write;
};

int makePipe(Pipe& p) {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) return errno;
  p.read.reset(fds[0]);
  p.write.reset(fds[1]);
  if (int e = moveAbove2(p.read)) return e;
  return moveAbove2(p.write);
}

std::vector<std::string> buildEnvironment(const std::map<std::string, std::string>& overrides) {
  std::vector<std::string> out;
  for (char** e = environ; e && *e; ++e) {
    std::string_view entry(*e);
    std::string name(entry.substr(0, entry.find('=')));
    if (overrides.count(name)) continue;
    out.emplace_back(entry);
  }
  for (const auto& [name, value] : overrides) {
    if (name.empty() || name.find('=') != std::string::npos) continue;
    out.push_back(name + "=" + value);
  }
  return out;
}

class SpawnActions {
 public:
  SpawnActions() { ::posix_spawn_file_actions_init(&actions_); }
  ~SpawnActions() { ::posix_spawn_file_actions_destroy(&actions_); }
  posix_spawn_file_actions_t* get() { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_;
};

class SpawnAttributes {
 public:
  SpawnAttributes() { ::posix_spawnattr_init(&attr_); }
  ~SpawnAttributes() { ::posix_spawnattr_destroy(&attr_); }
  posix_spawnattr_t* get() { return &attr_; }

 private:
  posix_spawnattr_t attr_;
};

// Blocks SIGPIPE in this thread while we write to a child that may have gone, so a broken pipe
// is an EPIPE and not the end of the host. A SIGPIPE we caused is taken off the thread before the
// old mask comes back.
class SigpipeBlock {
 public:
  SigpipeBlock() {
    sigemptyset(&pipeSet_);
    sigaddset(&pipeSet_, SIGPIPE);
    ::pthread_sigmask(SIG_BLOCK, &pipeSet_, &oldMask_);
    sigset_t pending;
    sigemptyset(&pending);
    ::sigpending(&pending);
    pendingBefore_ = sigismember(&pending, SIGPIPE) == 1;
  }
  ~SigpipeBlock() {
    if (sawBrokenPipe_ && !pendingBefore_) {
      struct timespec zero {};
      while (::sigtimedwait(&pipeSet_, nullptr, &zero) < 0 && errno == EINTR) {
      }
    }
    ::pthread_sigmask(SIG_SETMASK, &oldMask_, nullptr);
  }
  void noteBrokenPipe() { sawBrokenPipe_ = true; }

 private:
  sigset_t pipeSet_;
  sigset_t oldMask_;
  bool pendingBefore_ = false;
  bool sawBrokenPipe_ = false;
};

// Reads what is there; closes fd at end of file or on a hard error.
void drainInto(UniqueFd& fd, std::string& sink) {
  char buf[65536];
  ssize_t n = ::read(fd.get(), buf, sizeof buf);
  if (n > 0) {
    sink.append(buf, static_cast<size_t>(n));
  } else if (n == 0 || (errno != EINTR && errno != EAGAIN)) {
    fd.reset();
  }
}

int waitForExit(pid_t pid) {
  int wstatus = 0;
  for (;;) {
    pid_t r = ::waitpid(pid, &wstatus, 0);
    if (r == pid) break;
    if (r < 0 && errno == EINTR) continue;
    return -1;  // someone else reaped it: its end can't be known
  }
  if (WIFEXITED(wstatus)) return WEXITSTATUS(wstatus);
  if (WIFSIGNALED(wstatus)) return 128 + WTERMSIG(wstatus);
  return -1;
}

}  // namespace

ProcessResult runProcess(const std::string& path, const std::vector<std::string>& args,
                         std::string_view input, const std::map<std::string, std::string>& env,
                         const ProcessLimits& limits) {
  ProcessResult result;
  Pipe in, out, err;
  for (Pipe* p : {&in, &out, &err}) {
    if (int e = makePipe(*p)) {
      result.spawnError = e;
      return result;
    }
  }

  SpawnActions actions;
  ::posix_spawn_file_actions_adddup2(actions.get(), in.read.get(), 0);
  ::posix_spawn_file_actions_adddup2(actions.get(), out.write.get(), 1);
  ::posix_spawn_file_actions_adddup2(actions.get(), err.write.get(), 2);
  ::posix_spawn_file_actions_addclosefrom_np(actions.get(), 3);

  // The host may ignore SIGPIPE or SIGCHLD (libraries do); a tool must not inherit that.
  SpawnAttributes attr;
  sigset_t emptyMask, defaults;
  sigemptyset(&emptyMask);
  sigemptyset(&defaults);
  sigaddset(&defaults, SIGPIPE);
  sigaddset(&defaults, SIGCHLD);
  ::posix_spawnattr_setsigmask(attr.get(), &emptyMask);
  ::posix_spawnattr_setsigdefault(attr.get(), &defaults);
  short flags = POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
  // With a deadline the child leads a group of its own, so what it starts is stopped with it.
  if (limits.deadlineMicros) {
    ::posix_spawnattr_setpgroup(attr.get(), 0);
    flags |= POSIX_SPAWN_SETPGROUP;
  }
  ::posix_spawnattr_setflags(attr.get(), flags);

  std::vector<std::string> argStore;
  argStore.reserve(args.size() + 1);
  argStore.push_back(path);
  argStore.insert(argStore.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (auto& a : argStore) argv.push_back(a.data());
  argv.push_back(nullptr);
  std::vector<std::string> envStore = buildEnvironment(env);
  std::vector<char*> envp;
  for (auto& e : envStore) envp.push_back(e.data());
  envp.push_back(nullptr);

  pid_t pid = -1;
  int rc = ::posix_spawn(&pid, path.c_str(), actions.get(), attr.get(), argv.data(), envp.data());
  in.read.reset();
  out.write.reset();
  err.write.reset();
  if (rc != 0) {
    result.spawnError = rc;
    return result;
  }

  ::fcntl(in.write.get(), F_SETFL, ::fcntl(in.write.get(), F_GETFL) | O_NONBLOCK);
  if (input.empty()) in.write.reset();

  Clock& time = clock();
  const std::uint64_t start = time.monotonicMicros();
  const std::uint64_t killGraceMicros = 2'000'000;
  int signalled = 0;  // 0, SIGTERM, SIGKILL: how far the deadline went
  {
    SigpipeBlock block;
    while (out.read || err.read || in.write) {
      int waitMs = -1;
      if (limits.deadlineMicros) {
        std::uint64_t elapsed = time.monotonicMicros() - start;
        std::uint64_t next = signalled == 0 ? limits.deadlineMicros
                                            : limits.deadlineMicros + killGraceMicros;
        if (elapsed >= next) {
          if (signalled == SIGKILL) break;  // let the pipes go: a grandchild may hold them
          signalled = signalled == 0 ? SIGTERM : SIGKILL;
          result.timedOut = true;
          ::kill(-pid, signalled);
          // Our own end of its input goes too, so a child blocked writing to us or reading
          // from us sees it.
          in.write.reset();
          continue;
        }
        // In slices, so a clock that moves other than in real time is seen soon.
        waitMs = static_cast<int>(std::min<std::uint64_t>((next - elapsed + 999) / 1000, 100));
      }
      struct pollfd fds[3];
      int count = 0;
      int outIx = -1, errIx = -1, inIx = -1;
      if (out.read) {
        outIx = count;
        fds[count++] = {out.read.get(), POLLIN, 0};
      }
      if (err.read) {
        errIx = count;
        fds[count++] = {err.read.get(), POLLIN, 0};
      }
      if (in.write) {
        inIx = count;
        fds[count++] = {in.write.get(), POLLOUT, 0};
      }
      if (count == 0) break;
      if (::poll(fds, static_cast<nfds_t>(count), waitMs) < 0) {
        if (errno == EINTR) continue;
        break;  // closing our ends below makes the child finish
      }
      if (outIx >= 0 && fds[outIx].revents) drainInto(out.read, result.output);
      if (errIx >= 0 && fds[errIx].revents) drainInto(err.read, result.error);
      if (inIx >= 0 && fds[inIx].revents) {
        ssize_t n = ::write(in.write.get(), input.data(), input.size());
        if (n > 0) {
          input.remove_prefix(static_cast<size_t>(n));
          if (input.empty()) in.write.reset();
        } else if (n < 0 && errno != EINTR && errno != EAGAIN) {
          if (errno == EPIPE) block.noteBrokenPipe();
          in.write.reset();
        }
      }
    }
  }
  in.write.reset();
  out.read.reset();
  err.read.reset();
  if (limits.deadlineMicros) {
    // The pipes closed before the deadline, yet the child may still run: hold it to the same
    // deadline, waiting on its pidfd (an event, so a fake clock can't hurry the kill).
    UniqueFd pidfd(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
    for (;;) {
      int wstatus = 0;
      pid_t r = ::waitpid(pid, &wstatus, WNOHANG);
      if (r == pid) {
        result.status = WIFEXITED(wstatus)     ? WEXITSTATUS(wstatus)
                        : WIFSIGNALED(wstatus) ? 128 + WTERMSIG(wstatus)
                                               : -1;
        return result;
      }
      if (r < 0 && errno != EINTR) return result;
      std::uint64_t elapsed = time.monotonicMicros() - start;
      if (signalled == 0 && elapsed >= limits.deadlineMicros) {
        signalled = SIGTERM;
        result.timedOut = true;
        ::kill(-pid, SIGTERM);
      } else if (signalled == SIGTERM && elapsed >= limits.deadlineMicros + killGraceMicros) {
        signalled = SIGKILL;
        ::kill(-pid, SIGKILL);
        break;
      }
      struct pollfd exitEvent {pidfd.get(), POLLIN, 0};
      ::poll(&exitEvent, pidfd ? 1 : 0, pidfd ? 100 : 10);
    }
  }
  result.status = waitForExit(pid);
  return result;
}

}  // namespace velm
