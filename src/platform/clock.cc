#include "platform/clock.h"

#include <sys/stat.h>
#include <sys/time.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

namespace velm {
namespace {

// VELM_TIME_OFFSET_FILE, a test hook for whole processes: the wall clock adds the signed
// seconds written in that file, read again whenever it changes.
class TimeOffset {
 public:
  TimeOffset() {
    const char* p = std::getenv("VELM_TIME_OFFSET_FILE");
    if (p && *p) path_ = p;
  }
  std::int64_t micros() {
    if (path_.empty()) return 0;
    struct stat st {};
    if (::stat(path_.c_str(), &st) != 0) return 0;
    std::scoped_lock lock(mutex_);
    if (st.st_mtim.tv_sec != seen_.tv_sec || st.st_mtim.tv_nsec != seen_.tv_nsec ||
        st.st_size != size_) {
      seen_ = st.st_mtim;
      size_ = st.st_size;
      offset_ = 0;
      if (FILE* f = std::fopen(path_.c_str(), "re")) {
        char text[64] = {};
        std::size_t n = std::fread(text, 1, sizeof text - 1, f);
        std::fclose(f);
        text[n] = '\0';
        char* end = nullptr;
        errno = 0;
        double seconds = std::strtod(text, &end);
        // About 290,000 years either way: far enough, and the product stays in range.
        if (end != text && errno == 0 && std::isfinite(seconds) && std::fabs(seconds) < 9e12)
          offset_ = static_cast<std::int64_t>(seconds * 1e6);
      }
    }
    return offset_;
  }

 private:
  std::string path_;
  std::mutex mutex_;  // guards the rest; leaf
  struct timespec seen_ {};
  off_t size_ = -1;
  std::int64_t offset_ = 0;
};

class SystemClock : public Clock {
 public:
  std::uint64_t wallMicros() override {
    struct timeval tv {};
    if (::gettimeofday(&tv, nullptr) != 0) return 0;
    std::uint64_t now =
        static_cast<std::uint64_t>(tv.tv_sec) * 1000000u + static_cast<std::uint64_t>(tv.tv_usec);
    std::int64_t offset = offset_.micros();
    if (offset < 0 && static_cast<std::uint64_t>(-offset) > now) return 0;
    return now + static_cast<std::uint64_t>(offset);
  }
  std::uint64_t monotonicMicros() override {
    struct timespec ts {};
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<std::uint64_t>(ts.tv_sec) * 1000000u + static_cast<std::uint64_t>(ts.tv_nsec) / 1000u;
  }
  void sleepMicros(std::uint64_t micros) override {
    struct timespec req {
      static_cast<time_t>(micros / 1000000), static_cast<long>((micros % 1000000) * 1000)
    };
    while (::nanosleep(&req, &req) != 0 && errno == EINTR) {
    }
  }

 private:
  TimeOffset offset_;
};

std::atomic<Clock*> gTestClock{nullptr};

}  // namespace

Clock& systemClock() {
  static SystemClock c;
  return c;
}

Clock& clock() {
  Clock* c = gTestClock.load(std::memory_order_acquire);
  return c ? *c : systemClock();
}

void setClockForTest(Clock* c) { gTestClock.store(c, std::memory_order_release); }

void FakeClock::sleepMicros(std::uint64_t micros) {
  {
    std::scoped_lock lock(mutex_);
    sleeps_.push_back(micros);
  }
  advanceMicros(micros);
}

std::vector<std::uint64_t> FakeClock::sleeps() const {
  std::scoped_lock lock(mutex_);
  return sleeps_;
}

}  // namespace velm
