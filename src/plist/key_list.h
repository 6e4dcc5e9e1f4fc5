// Builds a dictionary from value/key pairs the way handlers here always have: the list ends at
// the first missing value, so every later key is left out with it.
#pragma once

#include <initializer_list>
#include <string_view>
#include <utility>

#include "plist/plist.h"

namespace velm {

struct ValueAndKey {
  const PropertyList* value;  // null or a null PropertyList ends the list
  std::string_view key;
};

inline PropertyList dictionaryWithValuesAndKeys(std::initializer_list<ValueAndKey> pairs) {
  PropertyList out = PropertyList::dict();
  for (const ValueAndKey& p : pairs) {
    if (!p.value || p.value->isNull()) break;
    out.set(std::string(p.key), *p.value);
  }
  return out;
}

}  // namespace velm
