// How velmadmin prints a response dictionary.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "plist/plist.h"

namespace velm {

enum class OutputFormat { Xml, Json, Text };

std::optional<OutputFormat> outputFormatNamed(std::string_view name);
// XML plist document; JSON (plist/plist_json.h); or text for people (renderText).
std::string renderResponse(const PropertyList& response, OutputFormat format);
// An indented tree, one key per line; two or more dictionaries of plain values in a list as a
// table with aligned columns.
std::string renderText(const PropertyList& value);

}  // namespace velm
