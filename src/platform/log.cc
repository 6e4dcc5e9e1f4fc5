#include "platform/log.h"

#include <fcntl.h>
#include <pthread.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>

#include "platform/files.h"
#include "platform/paths.h"

namespace velm {
namespace {

// 0 unknown, 1 off, 2 on: decided once per process.
std::atomic<int> gEnabled{0};

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
    int fd = ::open(target, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd >= 0) {
      ssize_t r = ::write(fd, text.data(), text.size());
      (void)r;
      ::close(fd);
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
void resetLoggingForTest() { gEnabled.store(0); }

}  // namespace velm
