// How the volume model reads loosely typed values from a client's dictionary: as text, as a
// truth value, as "a number" (integers, reals and booleans alike).
#pragma once

#include <string>

#include "plist/plist.h"

namespace velm::config {

// Integers, reals and booleans: the values a number object can hold.
bool isNumberValue(const PropertyList& value);
// Booleans and numbers by value; strings as a number object's boolValue reads them (Y, y, T, t
// or a non-zero digit after blanks, a sign and zeros); null and anything else is false.
bool truthValue(const PropertyList* value);
// A string as it stands, an integer in decimal, a boolean as 1 or 0, anything else as %@ prints.
std::string valueText(const PropertyList& value);

}  // namespace velm::config
