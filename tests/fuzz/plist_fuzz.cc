// XML property lists from outside: whatever reads must write, read back equal, and write again
// byte for byte the same. The input also serves once as a format string.
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "plist/format.h"
#include "plist/plist.h"

namespace {

// Equality that counts NaN equal to NaN, which operator== (on doubles) does not.
bool same(const velm::PropertyList& a, const velm::PropertyList& b) {
  if (a.type() != b.type()) return false;
  if (a.isReal()) {
    double x = *a.asReal(), y = *b.asReal();
    return (std::isnan(x) && std::isnan(y)) || x == y;
  }
  if (const auto* da = a.asDict()) {
    const auto* db = b.asDict();
    if (da->size() != db->size()) return false;
    for (auto ia = da->begin(), ib = db->begin(); ia != da->end(); ++ia, ++ib)
      if (ia->first != ib->first || !same(ia->second, ib->second)) return false;
    return true;
  }
  if (const auto* aa = a.asArray()) {
    const auto* ab = b.asArray();
    if (aa->size() != ab->size()) return false;
    for (size_t i = 0; i < aa->size(); ++i)
      if (!same((*aa)[i], (*ab)[i])) return false;
    return true;
  }
  return a == b;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  velm::PlistReadResult first = velm::readXmlPlist(text);
  if (first) {
    std::string xml = velm::writeXmlPlist(*first.value);
    velm::PlistReadResult second = velm::readXmlPlist(xml);
    if (!second || !same(*first.value, *second.value)) std::abort();
    if (velm::writeXmlPlist(*second.value) != xml) std::abort();
    (void)velm::describe(*first.value);
  }
  if (size < 512) {
    velm::PropertyList p = first ? *first.value : velm::PropertyList("x");
    const velm::FormatArg args[] = {velm::FormatArg(p), velm::FormatArg(-42), velm::FormatArg(2.5),
                                    velm::FormatArg("s"),
                                    velm::FormatArg(static_cast<const char*>(nullptr))};
    (void)velm::vformat(text, args);
  }
  return 0;
}
