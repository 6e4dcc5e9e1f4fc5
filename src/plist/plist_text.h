// Text pieces shared by the XML reader and writer, describe() and the formatter: numbers, dates,
// UTF-8 clean-up and XML escaping. Internal to plist/.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "plist/plist.h"

namespace velm::plist_text {

// Shortest text that reads back as the same double, laid out as %g does: fixed notation for
// exponents -4..16, otherwise d.ddde+XX. Non-finite values: "nan", "inf", "-inf".
void appendReal(std::string& out, double v);
// The XML form: as appendReal, but infinities as "+infinity" / "-infinity".
void appendXmlReal(std::string& out, double v);

void appendSigned(std::string& out, std::int64_t v);
void appendUnsigned(std::string& out, std::uint64_t v);
void appendInteger(std::string& out, const PlistInteger& v);

// Dates are whole seconds from 0000-01-01 to 9999-12-31 on output: fractions are dropped
// (floor), values outside are clamped and NaN is the reference date.
void appendIsoDate(std::string& out, PlistDate d);       // 2026-11-22T10:00:00Z
void appendDescribeDate(std::string& out, PlistDate d);  // 2026-11-22 10:00:00 +0000
// YYYY-MM-DDTHH:MM:SS[.fraction](Z|+HH:MM|-HH:MM|+HHMM|-HHMM); a fraction is dropped.
std::optional<PlistDate> parseIsoDate(std::string_view text);

// XML 1.0 cannot carry control characters other than tab, newline and carriage return, nor
// malformed UTF-8, U+FFFE or U+FFFF. Both the reader and the writer replace each such byte
// with U+FFFD, so that what is read always writes out unchanged.
bool isCleanText(std::string_view s);
// strlen and isCleanText in one pass over a NUL-terminated text.
size_t cleanTextLength(const char* s, bool& clean);
void appendCleaned(std::string& out, std::string_view s);
// Cleans and escapes & < > and carriage return (which XML would turn into a newline).
void appendXmlEscaped(std::string& out, std::string_view s);

inline bool isXmlSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }
std::string_view trimXmlSpace(std::string_view s);

// Base64 in lines of lineLength characters (a multiple of 4), each line preceded by indent
// tabs and followed by a newline; nothing at all for empty data.
void appendBase64Lines(std::string& out, const PlistData& data, size_t lineLength, size_t indent);
void appendBase64(std::string& out, const std::uint8_t* data, size_t size);
// Ignores XML whitespace; padding is optional; anything else is an error.
bool decodeBase64(std::string_view text, PlistData& out);

}  // namespace velm::plist_text
