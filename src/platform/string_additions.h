// String helpers used throughout the plugin.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velm {

// An IPv4-mapped address prints as dotted IPv4, any other as IPv6; nothing on failure.
std::optional<std::string> stringForIPv6Address(const std::uint8_t address[16]);
// Removes any mixture of blanks, newlines and tabs from the end.
std::string stringByStrippingTrailingWhitespace(std::string_view s);
// ipAddress (dotted IPv4) in "network/bits"; bits outside 8..32 or a malformed subnet give false.
bool ipAddressIsInSubnet(std::string_view ipAddress, std::string_view subnet);
// Anything in 169.0.0.0/8.
bool ipAddressIsSelfAssigned(std::string_view ipAddress);
// True when haystack holds needle anywhere, ignoring case.
bool containsString(std::string_view haystack, std::string_view needle);
// Compares dotted version strings part by part as numbers: -1, 0 or 1.
int numericCompare(std::string_view a, std::string_view b);
// How many characters (code points) UTF-8 text holds: every byte that doesn't continue a sequence.
std::size_t characterCount(std::string_view utf8);
// Well-formed UTF-8: no stray or overlong sequences, no surrogates, nothing past U+10FFFF.
bool isValidUtf8(std::string_view s);
// s without blanks, tabs and line ends at either end.
std::string_view trimmedBlanks(std::string_view s);
// s with a-z made A-Z; other bytes as they are.
std::string asciiUppercased(std::string_view s);
// Splits file text on '\n', dropping one empty last piece.
std::vector<std::string> splitLinesDroppingLastEmpty(std::string_view text);

}  // namespace velm
