#include "sim/simd_log.h"

#include <cstdarg>

#include "sim/sim_common.h"

namespace velm::sim {

void simdLog(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  simLogLine("velm-simd", fmt, ap);
  va_end(ap);
}

}  // namespace velm::sim
