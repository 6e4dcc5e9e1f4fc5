#include "platform/log.h"

#include <fcntl.h>
#include <pthread.h>
#include <syslog.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>

#include "platform/clock.h"
#include "platform/files.h"
#include "platform/paths.h"

namespace velm {
namespace {

// 0 unknown, 1 off, 2 on: decided once per process.
std::atomic<int> gEnabled{0};

// A VELM_LOG file stays open: opening it for every line cost a daemon more than a request's
// plist work. It is opened again when VELM_LOG names another file, and at most a second after
// the file was moved or removed (a rotation), so lines never go to a file no one sees for long.
class LogFile {
 public:
  // The descriptor for path, or -1; call with mutex() held.
  int descriptorFor(const char* path) {
    std::uint64_t now = clock().monotonicMicros();
    if (fd_ >= 0 && (path_ != path || now - checkedMicros_ >= kCheckMicros)) {
      checkedMicros_ = now;
      struct stat open {}, named {};
      if (path_ != path || ::fstat(fd_, &open) != 0 || ::stat(path, &named) != 0 ||
          open.st_ino != named.st_ino || open.st_dev != named.st_dev) {
        ::close(fd_);
        fd_ = -1;
      }
    }
    if (fd_ < 0) {
      fd_ = ::open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
      path_ = path;
      checkedMicros_ = now;
    }
    return fd_;
  }
  std::mutex& mutex() { return mutex_; }
  void close() {
    std::scoped_lock lock(mutex_);
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }

 private:
  static constexpr std::uint64_t kCheckMicros = 1'000'000;
  std::mutex mutex_;  // leaf
  int fd_ = -1;
  std::string path_;
  std::uint64_t checkedMicros_ = 0;
};

LogFile& logFile() {
  static auto* file = new LogFile();  // used up to the process's last line
  return *file;
}

void emit(std::string_view line, int priority) {
  const char* target = std::getenv("VELM_LOG");
  std::string text(line);
  if (target && *target) {
    text += '\n';
    if (std::string_view(target) == "stderr") {
      ssize_t r = ::write(STDERR_FILENO, text.data(), text.size());
      (void)r;
      return;
    }
    LogFile& file = logFile();
    std::scoped_lock lock(file.mutex());
    int fd = file.descriptorFor(target);
    if (fd >= 0) {
      ssize_t r = ::write(fd, text.data(), text.size());
      (void)r;
      return;
    }
  }
  ::syslog(LOG_USER | priority, "%s", text.c_str());
}

std::string prefixed(std::string_view text, bool error) {
  char head[64];
  std::snprintf(head, sizeof head, "velm: [%d/%lX] %s", static_cast<int>(::getpid()),
                static_cast<unsigned long>(::pthread_self()), error ? "ERROR: " : "");
  std::string line(head);
  line += text.empty() ? std::string_view("null") : text;
  return line;
}

}  // namespace

bool loggingEnabled() {
  int v = gEnabled.load(std::memory_order_acquire);
  if (v == 0) {
    v = pathExists(hostPath("/var/adminhostd/enable_velm_logging")) ? 2 : 1;
    int expected = 0;
    if (!gEnabled.compare_exchange_strong(expected, v)) v = expected;
  }
  return v == 2;
}

void logNoticeLine(std::string_view text) { emit(prefixed(text, false), LOG_NOTICE); }
void logErrorLine(std::string_view text) { emit(prefixed(text, true), LOG_NOTICE); }
void logRawLine(std::string_view text) { emit(text, LOG_NOTICE); }
void resetLoggingForTest() {
  gEnabled.store(0);
  logFile().close();
}

}  // namespace velm
