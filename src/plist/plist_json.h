// The JSON form of a property list, as adminhostd takes and gives it and velmadmin prints it.
// Dictionaries are objects, arrays arrays, strings strings, booleans booleans; integers are
// numbers without a fraction (signed 64-bit, or unsigned past INT64_MAX) and reals numbers with
// one ("2.0", "1e+20"); a date is {"$date": "2026-11-25T17:45:47Z"} (whole seconds) and data
// {"$data": "<base64>"}. A dictionary whose only key is "$date" or "$data" therefore has no JSON
// form of its own. JSON null has no plist counterpart: it is refused on reading, and written
// only for a null value or a real that is not finite.
#pragma once

#include <string>
#include <string_view>

#include "plist/plist.h"

namespace velm {

enum class JsonLayout { Compact, Indented };

std::string writeJson(const PropertyList& value, JsonLayout layout = JsonLayout::Indented);

// Strict JSON (RFC 8259) in UTF-8. Text is cleaned as the XML reader cleans it (control
// characters other than tab, newline and carriage return become U+FFFD), so a JSON request
// reaches a plugin as the same PropertyList as its XML twin. Duplicate keys: the last wins.
PlistReadResult readJson(std::string_view text, const PlistReadOptions& options = {});

}  // namespace velm
