// The label tool's -x output from outside: whatever it prints, the visible LUNs are a dictionary
// of dictionaries whose label type is absent or one of the file system's two.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "gateway/san_filesystem.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  velm::PropertyList luns =
      velm::visibleLUNsFromLabelOutput(std::string_view(reinterpret_cast<const char*>(data), size));
  if (!luns.isDict()) std::abort();
  for (const auto& [device, record] : *luns.asDict()) {
    if (!record.isDict()) std::abort();
    if (const velm::PropertyList* type = record.get("LabelType")) {
      const std::string* t = type->asString();
      if (!t || (*t != "QMFS-EFI" && *t != "QMFS-VTOC")) std::abort();
    }
  }
  return 0;
}
