#include "sim/simd_log.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>

namespace velm::sim {
namespace {
std::mutex gLogMutex;  // guards stderr; leaf
}  // namespace

void simdLog(const char* fmt, ...) {
  char line[2048];
  va_list ap;
  va_start(ap, fmt);
  std::vsnprintf(line, sizeof line, fmt, ap);
  va_end(ap);
  std::scoped_lock lock(gLogMutex);
  std::fprintf(stderr, "velm-simd: %s\n", line);
  std::fflush(stderr);
}

}  // namespace velm::sim
