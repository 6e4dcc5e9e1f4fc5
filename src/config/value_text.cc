#include "config/value_text.h"

#include <cstdint>

namespace velm::config {

bool isNumberValue(const PropertyList& value) { return value.isInteger() || value.isReal() || value.isBool(); }

bool truthValue(const PropertyList* value) {
  if (!value) return false;
  if (const std::string* s = value->asString()) {
    size_t i = 0;
    while (i < s->size() && ((*s)[i] == ' ' || (*s)[i] == '\t' || (*s)[i] == '\n')) ++i;
    if (i < s->size() && ((*s)[i] == '+' || (*s)[i] == '-')) ++i;
    while (i < s->size() && (*s)[i] == '0') ++i;
    if (i >= s->size()) return false;
    char c = (*s)[i];
    return c == 'Y' || c == 'y' || c == 'T' || c == 't' || (c >= '1' && c <= '9');
  }
  return value->boolValue();
}

std::string valueText(const PropertyList& value) {
  if (const std::string* s = value.asString()) return *s;
  if (const PlistInteger* i = value.asInteger()) {
    const bool big = i->isUnsigned && i->bits > static_cast<std::uint64_t>(INT64_MAX);
    return big ? std::to_string(i->bits) : std::to_string(i->asSigned());
  }
  if (std::optional<bool> b = value.asBool()) return *b ? "1" : "0";
  return describe(value);
}

}  // namespace velm::config
