// The sysfs texts the device registry reads: entry names, hex names, decimal ids, block stat
// lines. Any text gives a value or nothing; a value prints back as the same number.
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "platform/device_registry.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  if (std::optional<std::uint64_t> v = velm::parseSysfsHex(text)) {
    char again[32];
    std::snprintf(again, sizeof again, "0x%" PRIx64 "\n", *v);
    if (velm::parseSysfsHex(again) != v) std::abort();
  }
  velm::parseSysfsDecimal(text);
  for (auto [prefix, separators] : {std::pair<std::string_view, std::string_view>{"target", ":"},
                                    {"rport-", ":-"},
                                    {"", ":"},
                                    {"host", ""}}) {
    if (std::optional<std::vector<long long>> n = velm::parseScsiName(text, prefix, separators)) {
      if (n->empty()) std::abort();
      for (long long x : *n)
        if (x < 0) std::abort();
    }
  }
  velm::parseBlockStat(text);
  return 0;
}
