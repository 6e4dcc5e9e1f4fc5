// Volume .cfg text from outside: the reader takes anything without a fault, the writer prints what
// the reader made, and what the writer prints reads back with the same sections.
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

#include "config/config_parser.h"
#include "platform/paths.h"

namespace {

size_t countOf(const velm::PropertyList& dict, std::string_view key) {
  const velm::PropertyList* v = dict.get(key);
  return v ? v->size() : 0;
}

void setUpOnce() {
  // Quiet and hermetic: no syslog flood, and the aux file is looked for under a root that
  // doesn't exist.
  ::setenv("VELM_LOG", "/dev/null", 1);
  ::setenv("VELM_ROOT", "/nonexistent/velm-config-fuzz", 1);
  velm::resetPathsForTest();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool ready = (setUpOnce(), true);
  (void)ready;

  velm::SANConfigParser parser("fuzz");
  parser.parseText(std::string_view(reinterpret_cast<const char*>(data), size));
  const velm::PropertyList& dict = parser.dictionary();
  parser.lunNames();
  parser.diffRequiresFSRemake(dict);
  parser.diffRequiresFSUpdate(dict);

  std::optional<std::string> text = parser.configFileRepresentation();
  if (!text) return 0;
  velm::SANConfigParser again("fuzz");
  again.parseText(*text);
  const velm::PropertyList& reread = again.dictionary();
  // Every section the writer printed is found again by the reader.
  if (countOf(dict, "DiskTypes") != countOf(reread, "DiskTypes") ||
      countOf(dict, "Disks") != countOf(reread, "Disks") ||
      countOf(dict, "StripeGroups") != countOf(reread, "StripeGroups")) {
    std::abort();
  }
  return 0;
}
