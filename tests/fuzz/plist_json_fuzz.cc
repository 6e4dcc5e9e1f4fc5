// JSON requests from outside: whatever reads must write, read back equal, and write again byte
// for byte the same, in both layouts.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "plist/plist_json.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  velm::PlistReadResult first = velm::readJson(text);
  if (!first) return 0;
  for (velm::JsonLayout layout : {velm::JsonLayout::Compact, velm::JsonLayout::Indented}) {
    std::string json = velm::writeJson(*first.value, layout);
    velm::PlistReadResult second = velm::readJson(json);
    // Reals read from JSON are finite, so plain equality holds.
    if (!second || !(*second.value == *first.value)) std::abort();
    if (velm::writeJson(*second.value, layout) != json) std::abort();
  }
  return 0;
}
