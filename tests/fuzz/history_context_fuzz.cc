// A context as any plist bytes through a start of the history, one tick and a read of the
// machine's table: broken tables and entries are replaced, never read past.
#include <cstdint>
#include <string_view>

#include "adminhost/history_store.h"
#include "history/history_system.h"
#include "history/sampling.h"
#include "plist/plist.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  velm::PlistReadResult read =
      velm::readXmlPlist(std::string_view(reinterpret_cast<const char*>(data), size));
  if (!read || !read.value->isDict()) return 0;
  velm::PropertyList context = *read.value;
  velm::initHistorySystem(&context, {});
  velm::updateHistoryData(&context, false, {});
  velm::PropertyList samples, result;
  velm::do_get_named_history_data("history", nullptr, context.get("timeScale"), &samples, context);
  velm::getHistoryData("history", nullptr, nullptr, &result, context);
  return 0;
}
