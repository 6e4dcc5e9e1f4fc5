// A notifications.plist as any bytes: the reader, the nine checks, the conditions, and the walk
// of Addresses with its address check and pager text never fail or read past an end.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "notify/notification_config.h"
#include "plist/plist.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool quiet = [] { return ::setenv("VELM_LOG", "/dev/null", 1) == 0; }();
  (void)quiet;
  velm::PlistReadResult read =
      velm::readXmlPlist(std::string_view(reinterpret_cast<const char*>(data), size));
  if (!read || !read.value->isDict()) return 0;
  const velm::PropertyList& settings = *read.value;
  velm::isNotificationsDictValid(&settings);
  velm::NotificationConditions c = velm::readConditions(settings);
  (void)c;
  velm::relayOf(settings);
  velm::senderOf(settings);
  const velm::PropertyList* addresses = settings.get("Addresses");
  if (const velm::PlistArray* list = addresses ? addresses->asArray() : nullptr) {
    for (const velm::PropertyList& entry : *list) {
      const std::string* email = entry.isDict() ? entry.getString("email") : nullptr;
      if (!email) continue;
      velm::unsafeMailAddress(*email);
      velm::escapedForLog(*email);
      velm::isPager(entry);
      velm::pagerText(*email);
    }
  }
  return 0;
}
