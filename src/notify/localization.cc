#include "notify/localization.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>

#include "platform/files.h"
#include "platform/log.h"
#include "platform/resources.h"

namespace velm {
namespace {

constexpr std::string_view kDevelopmentLocalization = "en";

bool hasUserName() {
  struct passwd entry {};
  struct passwd* found = nullptr;
  char buffer[4096];
  if (::getpwuid_r(::geteuid(), &entry, buffer, sizeof buffer, &found) != 0 || !found) return false;
  return found->pw_name && *found->pw_name;
}

// A language name that can't leave the l10n folder.
bool plainLanguage(std::string_view lang) {
  if (lang.empty() || lang.size() > 32) return false;
  for (char c : lang)
    if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
          c == '_' || c == '-'))
      return false;
  return true;
}

std::optional<std::string> resourceIn(std::string_view lang, std::string_view file) {
  std::optional<std::string> dir = resourcesDirectory();
  if (!dir || !plainLanguage(lang)) return std::nullopt;
  std::string path = *dir + "/l10n/" + std::string(lang) + "/" + std::string(file);
  return pathExists(path) ? std::optional<std::string>(path) : std::nullopt;
}

std::optional<PropertyList> tableIn(std::string_view lang, std::string_view table) {
  std::optional<std::string> path = resourceIn(lang, std::string(table) + ".strings");
  if (!path) return std::nullopt;
  return readDictionaryFile(*path);
}

}  // namespace

std::vector<std::string> userLanguages() {
  std::vector<std::string> out;
  if (!hasUserName()) return out;
  auto add = [&](std::string lang) {
    if (!lang.empty() && lang != "C" && lang != "POSIX") out.push_back(std::move(lang));
  };
  const char* language = std::getenv("LANGUAGE");
  if (language && *language) {
    std::string_view list(language);
    while (!list.empty()) {
      std::size_t colon = list.find(':');
      add(std::string(list.substr(0, colon)));
      list = colon == std::string_view::npos ? std::string_view() : list.substr(colon + 1);
    }
    return out;
  }
  const char* lang = std::getenv("LANG");
  if (!lang || !*lang) return out;
  std::string_view l(lang);
  l = l.substr(0, l.find_first_of(".@"));
  add(std::string(l));
  std::size_t underscore = l.find('_');
  if (underscore != std::string_view::npos) add(std::string(l.substr(0, underscore)));
  return out;
}

std::optional<std::string> pathForResource(std::string_view name, std::string_view type) {
  std::string file = std::string(name) + (type.empty() ? "" : "." + std::string(type));
  for (const std::string& lang : userLanguages())
    if (std::optional<std::string> p = resourceIn(lang, file)) return p;
  return resourceIn(kDevelopmentLocalization, file);
}

std::optional<PropertyList> localizationDictForTable(std::string_view table) {
  std::optional<std::string> path =
      pathForResource(table.empty() ? std::string_view("Localizable") : table, "strings");
  if (!path || path->empty()) return std::nullopt;
  return readDictionaryFile(*path);
}

std::string getLocalizedString(std::string_view key) {
  std::string k(key);
  if (std::optional<PropertyList> table = localizationDictForTable("Localizable"))
    if (const std::string* s = table->getString(k)) return *s;
  // The ordinary lookup: the development localization's table.
  if (std::optional<PropertyList> table = tableIn(kDevelopmentLocalization, "Localizable"))
    if (const std::string* s = table->getString(k); s && !s->empty()) return *s;
  return k;
}

std::string placeholderSignature(std::string_view format) {
  std::string sig;
  for (std::size_t i = 0; i < format.size(); ++i) {
    if (format[i] != '%') continue;
    std::size_t j = i + 1;
    if (j < format.size() && format[j] == '%') {
      i = j;
      continue;
    }
    std::string position;
    std::size_t digits = j;
    while (digits < format.size() && format[digits] >= '0' && format[digits] <= '9') ++digits;
    if (digits > j && digits < format.size() && format[digits] == '$') {
      position = std::string(format.substr(j, digits - j)) + "$";
      j = digits + 1;
    }
    // Flags, width, precision and length say nothing about the argument's kind, except '*'.
    while (j < format.size() && std::string_view("-+ #0123456789.*'hlqLzjt").find(format[j]) !=
                                    std::string_view::npos) {
      if (format[j] == '*') sig += "*";
      ++j;
    }
    if (j >= format.size()) {
      sig += "?";
      break;
    }
    char c = format[j];
    char kind = '?';
    switch (c) {
      case '@':
      case 's':
        kind = '@';
        break;
      case 'd':
      case 'i':
      case 'u':
      case 'x':
      case 'X':
      case 'o':
        kind = 'i';
        break;
      case 'f':
      case 'F':
      case 'e':
      case 'E':
      case 'g':
      case 'G':
        kind = 'f';
        break;
      case 'c':
        kind = 'c';
        break;
      case 'p':
        kind = 'p';
        break;
      default:
        break;
    }
    sig += position;
    sig += kind;
    // %s and %@ both take strings here, but a C string and an object are not the same slot.
    if (c == 's') sig += 's';
    i = j;
  }
  return sig;
}

std::string localizedFormatText(std::string_view english) {
  std::string translated = getLocalizedString(english);
  if (translated == english) return translated;
  if (placeholderSignature(translated) != placeholderSignature(english)) {
    NError("getLocalizedString: the translation of '%@' has other placeholders ('%@'); using the "
           "English text",
           std::string(english), translated);
    return std::string(english);
  }
  return translated;
}

}  // namespace velm
