// Translated mail texts. Every text is written in English in the code and is also the key of its
// translation in resources/l10n/<language>/Localizable.strings (an XML plist dictionary). The
// languages are the user's, not the daemon's locale: LANGUAGE (a colon list), else LANG
// ("de_DE.UTF-8" gives de_DE, then de), when the process has a user name; "en" is the
// development localization.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "plist/format.h"
#include "plist/plist.h"

namespace velm {

// The user's languages, most wanted first; empty without a user name.
std::vector<std::string> userLanguages();
// resources/l10n/<lang>/<name>.<type> of the first language that has it, else of "en".
std::optional<std::string> pathForResource(std::string_view name, std::string_view type);
// The table's dictionary ("Localizable" when table is empty); nothing without one.
std::optional<PropertyList> localizationDictForTable(std::string_view table);
// The translation of key, else the development localization's, else key itself.
std::string getLocalizedString(std::string_view key);

// The placeholders of a format in order, one letter each (@ string-like, i integer, f floating,
// c character, p pointer), with their positions when written "%n$": what a translation must keep.
std::string placeholderSignature(std::string_view format);

// The translation of an English format, used only when it keeps the format's placeholders;
// otherwise one NError line and the English text.
std::string localizedFormatText(std::string_view english);

// The translated format filled in. The English format is checked against the arguments at
// compile time; a translation that keeps its placeholders takes them just as safely.
template <typename... Args>
std::string localized(FormatString<std::type_identity_t<Args>...> english, const Args&... args) {
  const FormatArg list[] = {FormatArg(args)..., FormatArg(0)};
  return vformat(localizedFormatText(english.str),
                 std::span<const FormatArg>(list, sizeof...(Args)));
}

}  // namespace velm
