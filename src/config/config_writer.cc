// The .cfg writer of SANConfigParser (WriteConfigHelpers). Not the inverse of the reader: what it
// prints is the format the file-system tools read, down to the byte.
#include <unistd.h>

#include <cstdio>
#include <string>

#include "config/config_keys.h"
#include "config/config_parser.h"
#include "config/value_text.h"
#include "platform/files.h"
#include "platform/log.h"
#include "platform/paths.h"

namespace velm {
namespace {

using namespace config;

constexpr std::string_view kAsterisks =
    "****************************************************************************";
static_assert(kAsterisks.size() == 76);

void appendBanner(std::string& out, std::string_view title) {
  // "\n\n# %@\n# %@\n# %@\n": every banner starts with two line ends.
  out += "\n\n# ";
  out += kAsterisks;
  out += "\n# ";
  out += title;
  out += "\n# ";
  out += kAsterisks;
  out += '\n';
}

const PropertyList* dictOrNull(const PropertyList* p) { return p && p->isDict() ? p : nullptr; }

const PropertyList* valueFor(const PropertyList* dict, std::string_view key) {
  const PropertyList* v = dict ? dict->get(key) : nullptr;
  return v && !v->isNull() ? v : nullptr;
}

// Three tabs for keys under 8 characters, two under 16, one beyond; one blank with tabs off.
std::string_view separatorFor(bool printsTabs, std::string_view key) {
  if (!printsTabs) return " ";
  if (key.size() < 8) return "\t\t\t";
  if (key.size() < 16) return "\t\t";
  return "\t";
}

}  // namespace

std::string SANConfigParser::convertNumberToByteForm(std::uint64_t number) {
  // Deliberate: T is tested first and takes in zero, so 0 prints "0T" (it reads back as 0).
  constexpr std::uint64_t kLow40 = (std::uint64_t{1} << 40) - 1;
  constexpr std::uint64_t kLow30 = (std::uint64_t{1} << 30) - 1;
  constexpr std::uint64_t kLow20 = (std::uint64_t{1} << 20) - 1;
  constexpr std::uint64_t kLow10 = (std::uint64_t{1} << 10) - 1;
  if ((number & kLow40) == 0) return std::to_string(number >> 40) + "T";
  if ((number & kLow30) == 0) return std::to_string(number >> 30) + "G";
  if ((number & kLow20) == 0) return std::to_string(number >> 20) + "M";
  if ((number & kLow10) == 0) return std::to_string(number >> 10) + "K";
  return std::to_string(number);
}

std::optional<std::string> SANConfigParser::boolLineForKey(std::string_view key, const PropertyList* dict,
                                                           std::string_view yesWord,
                                                           std::string_view noWord) {
  dict = dictOrNull(dict);
  if (!dict) {
    NError("boolLineForKey: key %@ or dict %p (%d items) is missing", key, static_cast<const void*>(dict),
           0);
    error_ = true;
    return std::string("ERROR");
  }
  const PropertyList* value = valueFor(dict, key);
  if (!value) return std::nullopt;
  std::string line(key);
  line += separatorFor(printsTabs_, key);
  line += config::truthValue(value) ? yesWord : noWord;
  line += '\n';
  return line;
}

std::optional<std::string> SANConfigParser::lineForKey(std::string_view key, const PropertyList* dict) {
  dict = dictOrNull(dict);
  if (!dict) {
    NError("lineForKey: key %@ or dict %p (%d items) is missing", key, static_cast<const void*>(dict), 0);
    error_ = true;
    return std::string("ERROR");
  }
  const PropertyList* value = valueFor(dict, key);
  if (!value) return std::nullopt;
  const std::string_view quote = listContains(kQuotedStrings, key) ? "\"" : "";
  std::string line(key);
  line += separatorFor(printsTabs_, key);
  line += quote;
  if (config::isNumberValue(*value)) line += convertNumberToByteForm(value->uint64Value().value_or(0));
  else line += config::valueText(*value);
  line += quote;
  line += '\n';
  return line;
}

std::optional<std::string> SANConfigParser::uncompressedLineForKey(std::string_view key,
                                                                   const PropertyList* dict,
                                                                   const char* numberFormat) {
  dict = dictOrNull(dict);
  if (!dict) {
    NError("uncompressedLineForKey: key %@ or dict %p (%d items) is missing", key,
           static_cast<const void*>(dict), 0);
    error_ = true;
    return std::string("ERROR");
  }
  const PropertyList* value = valueFor(dict, key);
  if (!value) return std::nullopt;
  std::string text;
  if (numberFormat && config::isNumberValue(*value)) {
    char buf[64];
    long long n = value->int64Value().value_or(0);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    int len = std::snprintf(buf, sizeof buf, numberFormat, n);
#pragma GCC diagnostic pop
    if (len < 0) {
      NLog("%s: unable to convert '%@' ('%@') to format '%@'", "uncompressedLineForKey", *value, key,
           numberFormat);
      return std::nullopt;
    }
    text.assign(buf, static_cast<size_t>(len) < sizeof buf ? static_cast<size_t>(len) : sizeof buf - 1);
  } else {
    text = config::valueText(*value);
  }
  std::string line(key);
  line += separatorFor(printsTabs_, key);
  line += text;
  line += '\n';
  return line;
}

std::string SANConfigParser::tagForKey(std::string_view key, const PropertyList* dict) {
  dict = dictOrNull(dict);
  const PropertyList* value = valueFor(dict, key);
  if (!dict || !value) {
    NError("tagForKey: %@ inDict: %@ => %@", key, dict, value);
    error_ = true;
    return "ERROR";
  }
  // "\n[%@ \"%@\"]\n": an empty line, then the head.
  std::string tag = "\n[";
  tag += key;
  tag += " \"";
  tag += config::valueText(*value);
  tag += "\"]\n";
  return tag;
}

// For the lines that the format always has. The callers pass complete groups and disks; a
// missing value is refused like a missing tag, so no partial file ever reaches the disk.
void SANConfigParser::appendRequired(std::string& out, std::optional<std::string> line, std::string_view key,
                                     const PropertyList& element) {
  if (line) {
    out += *line;
    return;
  }
  NError("%s: %@ is missing in %@", "configFileRepresentation", key, element.get(kId));
  error_ = true;
}

std::optional<std::string> SANConfigParser::configFileRepresentation() {
  std::string out;
  out.reserve(4096);
  printsTabs_ = true;
  appendBanner(out, "A global section for defining file system-wide parameters.");
  error_ = false;

  const PropertyList* globals = dictionary_.get(kGlobals);
  for (std::string_view key : kGlobalBooleans)
    if (auto line = boolLineForKey(key, globals, "Yes", "No")) out += *line;
  for (std::string_view key : kGlobalTokens) {
    std::optional<std::string> line;
    if (listContains(kGlobalRadixTokens, key)) line = lineForKey(key, globals);
    else if (listContains(kGlobalOctalTokens, key)) line = uncompressedLineForKey(key, globals, "0%llo");
    else line = uncompressedLineForKey(key, globals);
    if (line) out += *line;
  }

  // Everything below separates key and value with one blank.
  printsTabs_ = false;
  appendBanner(out, "A disktype section for defining disk hardware parameters.");
  auto elements = [&](std::string_view key) -> const PlistArray& {
    static const PlistArray kEmpty;
    const PropertyList* v = dictionary_.get(key);
    const PlistArray* a = v ? v->asArray() : nullptr;
    return a ? *a : kEmpty;
  };
  for (const PropertyList& type : elements(kDiskTypes)) {
    out += tagForKey(kDiskType, &type);
    appendRequired(out, lineForKey(kSectors, &type), kSectors, type);
    appendRequired(out, lineForKey(kSectorSize, &type), kSectorSize, type);
  }

  appendBanner(out, "A disk section for defining disks in the hardware configuration.");
  for (const PropertyList& disk : elements(kDisks)) {
    out += tagForKey(kDisk, &disk);
    appendRequired(out, boolLineForKey(kStatus, &disk, "Up", "Down"), kStatus, disk);
    appendRequired(out, lineForKey(kType, &disk), kType, disk);
  }

  appendBanner(out, "A stripe section for defining stripe groups.");
  bool journalSeen = false;
  for (const PropertyList& group : elements(kStripeGroups)) {
    out += tagForKey(kStripeGroup, &group);
    appendRequired(out, boolLineForKey(kStatus, &group, "Up", "Down"), kStatus, group);
    appendRequired(out, boolLineForKey(kExclusive, &group, "Yes", "No"), kExclusive, group);
    const PropertyList* metadata = valueFor(dictOrNull(&group), kMetadata);
    const PropertyList* journal = valueFor(dictOrNull(&group), kJournal);
    if (metadata) appendRequired(out, boolLineForKey(kMetadata, &group, "Yes", "No"), kMetadata, group);
    // Deliberate: only the first group with a Journal value prints it; every other group,
    // including one with no Journal key, prints "Journal No". A file holds one journal at most.
    if (!journalSeen && journal) {
      appendRequired(out, boolLineForKey(kJournal, &group, "Yes", "No"), kJournal, group);
    } else {
      out += kJournal;
      out += separatorFor(printsTabs_, kJournal);
      out += "No\n";
    }
    const bool ownJournal = config::truthValue(journal);
    if (ownJournal) journalSeen = true;
    // Deliberate: an exclusive metadata or journal group never prints its affinity; the test
    // reads the dictionary's own Journal value, not the line printed above.
    const bool exclusive = config::truthValue(valueFor(dictOrNull(&group), kExclusive));
    if (!(exclusive && (config::truthValue(metadata) || ownJournal)))
      appendRequired(out, lineForKey(kAffinity, &group), kAffinity, group);
    appendRequired(out, boolLineForKey(kRead, &group, "Enabled", "Disabled"), kRead, group);
    appendRequired(out, boolLineForKey(kWrite, &group, "Enabled", "Disabled"), kWrite, group);
    appendRequired(out, lineForKey(kMultiPathMethod, &group), kMultiPathMethod, group);
    // Deliberate: stripe numbers never print in compressed form.
    for (std::string_view key : kStripeNumbers)
      if (auto line = uncompressedLineForKey(key, &group)) out += *line;
    const PropertyList* nodes = group.get(kNodes);
    if (const PlistArray* list = nodes ? nodes->asArray() : nullptr) {
      for (const PropertyList& node : *list) {
        // Deliberate: "%@ \"%@\" %@\n" with a missing value prints (null); the format has no test.
        const PropertyList* device = valueFor(dictOrNull(&node), kNodeDiskDevice);
        const PropertyList* index = valueFor(dictOrNull(&node), kNodeRotationIndex);
        out += kNode;
        out += " \"";
        out += device ? config::valueText(*device) : std::string("(null)");
        out += "\" ";
        out += index ? config::valueText(*index) : std::string("(null)");
        out += '\n';
      }
    }
  }

  if (error_) return std::nullopt;
  return out;
}

bool SANConfigParser::writeConfiguration() {
  NLog("writeConfiguration: writing configuration for %@", nameOrNull());
  std::optional<std::string> text = configFileRepresentation();
  if (error_) {
    NError("writeConfiguration: Attempting to create bad config.  Wrote to /tmp/badconfig.cfg");
    // Deliberate: the representation is nothing here, so despite the message no file is made.
    if (text) writeFileAtomically(hostPath("/tmp/badconfig.cfg"), *text);
    return false;
  }
  std::optional<std::string> path = pathToConfigFile();
  if (!path || !text || writeFileAtomically(*path, *text) != 0) return false;
  // A failure here leaves the new .cfg in place.
  std::optional<std::string> auxPath = pathToAuxData();
  const PropertyList* aux = dictionary_.get(kAuxData);
  if (!auxPath || !aux || aux->isNull()) return false;
  return writeXmlPlistFile(*auxPath, *aux) == 0;
}

bool SANConfigParser::deleteConfiguration() {
  if (!configFileExists()) return false;
  std::optional<std::string> path = pathToConfigFile();
  if (!path || ::unlink(path->c_str()) != 0) return false;
  // The aux file's removal doesn't count.
  if (std::optional<std::string> auxPath = pathToAuxData()) ::unlink(auxPath->c_str());
  return true;
}

}  // namespace velm
