// The fibre activity log as any plist bytes through the mail body: every entry gives one line,
// with its fallbacks, whatever its values are.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "notify/notification_tick.h"
#include "plist/plist.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool quiet = [] { return ::setenv("VELM_LOG", "/dev/null", 1) == 0; }();
  (void)quiet;
  velm::PlistReadResult read =
      velm::readXmlPlist(std::string_view(reinterpret_cast<const char*>(data), size));
  if (!read) return 0;
  velm::fibreMailBody(*read.value);
  return 0;
}
