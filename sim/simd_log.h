// Log lines of velm-simd: "velm-simd: <text>" on stderr, whole lines even from many threads.
#pragma once

namespace velm::sim {

void simdLog(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

}  // namespace velm::sim
