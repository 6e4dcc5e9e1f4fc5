// /proc/<pid>/stat lines: any text gives the four fields or nothing.
#include <cstdint>
#include <string_view>

#include "history/libtop.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  velm::parseProcStat(std::string_view(reinterpret_cast<const char*>(data), size));
  return 0;
}
