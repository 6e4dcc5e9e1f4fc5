// How velmadmin prints a response dictionary.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "plist/plist.h"

namespace velm {

enum class OutputFormat { Xml, Json, Text };

std::optional<OutputFormat> outputFormatNamed(std::string_view name);
// XML plist document; JSON (data as base64 strings, dates as ISO 8601 strings); or the
// description text, one line.
std::string renderResponse(const PropertyList& response, OutputFormat format);
std::string toJson(const PropertyList& value);

}  // namespace velm
