// Pieces of the XML reader that the file reader and the tests reach. Internal to plist/.
#pragma once

#include <memory>
#include <optional>
#include <string_view>

#include "plist/plist.h"

namespace velm::plist_internal {

// The text of <integer>: optional sign, decimal or 0x hex; past INT64_MAX it is unsigned.
std::optional<PlistInteger> parseInteger(std::string_view text);
// The text of <real>: decimal, integers, nan and inf/infinity with either sign.
std::optional<double> parseReal(std::string_view text);
// A buffer of at least size bytes to parse in place: the calling thread's reusable one (valid
// until its next call) or, for very large sizes, a new one held in own.
char* parseBuffer(size_t size, std::unique_ptr<char[]>& own);
// Parses buffer[0, size) in place (it is overwritten); original is the text for error lines.
PlistReadResult readInPlace(char* buffer, size_t size, std::string_view original,
                            const PlistReadOptions& options);

}  // namespace velm::plist_internal
