// /proc/stat as any text: processor lines or none, never a read past the text.
#include <cstdint>
#include <string_view>

#include "history/sampling.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  velm::parseCpuTicks(std::string_view(reinterpret_cast<const char*>(data), size));
  return 0;
}
