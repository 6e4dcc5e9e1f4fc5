// Mount tables from outside: the reader takes any text; the kernel's escaping and file URLs of
// mount points round-trip for any path.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "platform/mounts.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  for (const velm::MountEntry& m : velm::parseMountInfo(text)) {
    (void)m.readOnly();
    velm::mountContaining({m}, m.mountPoint);
  }
  if (velm::unescapeMountField(velm::escapeMountField(text)) != text) std::abort();
  if (text.find('\0') == std::string_view::npos) {
    std::string path = "/" + std::string(text);
    std::optional<std::string> back = velm::pathFromFileURL(velm::fileURLForPath(path));
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    if (!back || *back != path) std::abort();
  }
  velm::pathFromFileURL(text);
  return 0;
}
