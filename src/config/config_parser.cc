#include "config/config_parser.h"

#include "config/config_keys.h"
#include "config/text_scanner.h"
#include "platform/files.h"
#include "platform/log.h"

namespace velm {
namespace {

using namespace config;

constexpr std::string_view kVolumePrefix = "Volume_";

// Strict UTF-8: no overlong forms, no surrogates, nothing past U+10FFFF.
bool isValidUtf8(std::string_view s) {
  const auto* p = reinterpret_cast<const unsigned char*>(s.data());
  const size_t n = s.size();
  size_t i = 0;
  while (i < n) {
    unsigned char c = p[i];
    if (c < 0x80) {
      ++i;
      continue;
    }
    size_t len;
    unsigned char lo = 0x80, hi = 0xBF;
    if (c >= 0xC2 && c <= 0xDF) {
      len = 2;
    } else if (c >= 0xE0 && c <= 0xEF) {
      len = 3;
      if (c == 0xE0) lo = 0xA0;
      if (c == 0xED) hi = 0x9F;
    } else if (c >= 0xF0 && c <= 0xF4) {
      len = 4;
      if (c == 0xF0) lo = 0x90;
      if (c == 0xF4) hi = 0x8F;
    } else {
      return false;
    }
    if (n - i < len) return false;
    if (p[i + 1] < lo || p[i + 1] > hi) return false;
    for (size_t k = 2; k < len; ++k)
      if (p[i + k] < 0x80 || p[i + k] > 0xBF) return false;
    i += len;
  }
  return true;
}

// Every LF becomes CR (so CR LF is two line ends) and each line loses everything from its first
// '#'. The scanners then see CR as the only line end.
std::string stringWithoutComments(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  bool inComment = false;
  for (char c : text) {
    if (c == '\n' || c == '\r') {
      out.push_back('\r');
      inComment = false;
    } else if (inComment) {
      continue;
    } else if (c == '#') {
      // Deliberate: quotes are not looked at; a '#' inside a quoted name starts a comment too.
      inComment = true;
    } else {
      out.push_back(c);
    }
  }
  return out;
}

bool onlyBlanksAndLineEnds(std::string_view text) {
  return text.find_first_not_of(" \t\r\v\f") == std::string_view::npos;
}

// NSString's stringByDeletingPathExtension on the last path component.
std::string deletingPathExtension(std::string s) {
  while (s.size() > 1 && s.back() == '/') s.pop_back();
  size_t slash = s.rfind('/');
  size_t start = slash == std::string::npos ? 0 : slash + 1;
  size_t dot = s.rfind('.');
  if (dot != std::string::npos && dot > start) s.erase(dot);
  return s;
}

std::string withoutVolumePrefix(const std::string& name) {
  return name.compare(0, kVolumePrefix.size(), kVolumePrefix) == 0 ? name.substr(kVolumePrefix.size())
                                                                   : name;
}

std::string sectionId(std::string_view tag, const PlistDict& section, std::string_view nameKey) {
  std::string id(tag);
  id.push_back('_');
  const PropertyList* name = section.find(nameKey);
  const std::string* s = name ? name->asString() : nullptr;
  // Built with "%@_%@": a missing name prints as (null).
  id += s ? std::string_view(*s) : std::string_view("(null)");
  return id;
}

}  // namespace

std::unique_ptr<SANConfigParser> SANConfigParser::initWithFileName(const std::string* fileName) {
  if (!fileName) {
    NError("initWithFileName: fileName is nil");
    return nullptr;
  }
  auto parser = std::make_unique<SANConfigParser>(deletingPathExtension(withoutVolumePrefix(*fileName)));
  if (!parser->configFileExists()) return nullptr;
  return parser;
}

std::unique_ptr<SANConfigParser> SANConfigParser::parserForFile(const std::string* fileName) {
  if (!fileName) {
    NError("parserForFile: fileName is nil");
    return nullptr;
  }
  return initWithFileName(fileName);
}

std::unique_ptr<SANConfigParser> SANConfigParser::initWithVolumeName(const std::string* volumeName) {
  if (!volumeName) {
    NError("initWithVolumeName: volumeName is nil");
    return nullptr;
  }
  auto parser = std::make_unique<SANConfigParser>(withoutVolumePrefix(*volumeName));
  if (!parser->configFileExists()) return nullptr;
  return parser;
}

std::unique_ptr<SANConfigParser> SANConfigParser::parserForVolume(const std::string* volumeName) {
  if (!volumeName) {
    NError("parserForVolume: volumeName is nil");
    return nullptr;
  }
  return initWithVolumeName(volumeName);
}

std::string SANConfigParser::volumeID() const {
  std::string id(kVolumePrefix);
  id += volumeName_ ? std::string_view(*volumeName_) : std::string_view("(null)");
  return id;
}

bool SANConfigParser::parse() {
  std::optional<std::string> path = pathToConfigFile();
  if (!path) return false;
  return parseOptionalText(readFile(*path));
}

bool SANConfigParser::parseFileAtPath(const std::string& path) { return parseOptionalText(readFile(path)); }

bool SANConfigParser::parseText(std::string_view text) { return parseOptionalText(std::string(text)); }

bool SANConfigParser::parseOptionalText(const std::optional<std::string>& raw) {
  // Text that is not UTF-8 reads as nothing, as a missing file does: false, and no message.
  if (!raw || !isValidUtf8(*raw)) return false;
  std::string text = stringWithoutComments(*raw);
  // A file of nothing but comments, blanks and line ends counts as empty: false, no message, and
  // the dictionary untouched.
  if (onlyBlanksAndLineEnds(text)) return false;

  bool failed = false;
  TextScanner scanner(std::move(text));
  // Deliberate: global keys and section tags match case-sensitively, keys inside sections don't.
  scanner.setCaseSensitive(true);

  // Deliberate: global keys are looked for in the whole text, sections included.
  PlistDict globals;
  scanner.readBooleans(kGlobalBooleans, globals);
  scanner.readNumbers(kGlobalNumbers, globals);
  scanner.readStrings(kGlobalStrings, globals);

  PlistArray diskTypes;
  scanner.setPosition(0);
  while (std::optional<TextScanner> section = scanner.nextScannerForTag(kDiskType)) {
    PlistDict entry;
    section->readStringNamed(kDiskType, entry);
    section->readNumberNamed(kSectors, entry);
    bool hasSectorSize = section->readNumberNamed(kSectorSize, entry);
    entry.set(std::string(kId), PropertyList(sectionId(kDiskType, entry, kDiskType)));
    if (entry.size() == 4) {
      diskTypes.emplace_back(std::move(entry));
    } else if (entry.size() == 3 && !hasSectorSize) {
      // Deliberate: a type without SectorSize vanishes silently and is no fault, while disks
      // that refer to it stay.
    } else {
      failed = true;
    }
  }
  if (diskTypes.empty()) {
    NError("parse: No disk types for volume %@", nameOrNull());
    failed = true;
  }

  PlistArray disks;
  scanner.setPosition(0);
  while (std::optional<TextScanner> section = scanner.nextScannerForTag(kDisk)) {
    PlistDict entry;
    section->readStringNamed(kDisk, entry);
    section->readBoolNamed(kStatus, entry);
    section->readStringNamed(kType, entry);
    entry.set(std::string(kId), PropertyList(sectionId(kDisk, entry, kDisk)));
    // Deliberate: an incomplete disk (no Status, say) is dropped with no message and no fault.
    if (entry.size() == 4) disks.emplace_back(std::move(entry));
  }
  if (disks.empty()) {
    NError("parse: No disks for volume %@", nameOrNull());
    failed = true;
  }

  PlistArray stripeGroups;
  scanner.setPosition(0);
  while (std::optional<TextScanner> section = scanner.nextScannerForTag(kStripeGroup)) {
    PlistDict group;
    section->readBooleans(kStripeBooleans, group);
    section->readNumbers(kStripeNumbers, group);
    section->readStrings(kStripeStrings, group);
    section->setPosition(0);
    PlistArray nodes;
    while (section->readNodeIntoArrayNew(nodes)) {
    }
    if (nodes.empty()) {
      const PropertyList* name = group.find(kStripeGroup);
      NError("parse: No disks in storage pool %@ volume %@", name, nameOrNull());
      failed = true;
    }
    group.set(std::string(kNodes), PropertyList(std::move(nodes)));
    group.set(std::string(kId), PropertyList(sectionId(kStripeGroup, group, kStripeGroup)));
    // Deliberate: a group without nodes is kept although the parse counts as failed.
    stripeGroups.emplace_back(std::move(group));
  }
  if (stripeGroups.empty()) {
    NError("parse: No stripe groups in volume %@", nameOrNull());
    failed = true;
  }

  std::optional<PropertyList> aux;
  if (std::optional<std::string> auxPath = pathToAuxData()) aux = readDictionaryFile(*auxPath);

  PlistDict volume;
  volume.reserve(7);
  volume.set(std::string(kId), PropertyList(volumeID()));
  if (volumeName_) volume.set(std::string(kName), PropertyList(*volumeName_));
  volume.set(std::string(kGlobals), PropertyList(std::move(globals)));
  volume.set(std::string(kDiskTypes), PropertyList(std::move(diskTypes)));
  volume.set(std::string(kDisks), PropertyList(std::move(disks)));
  volume.set(std::string(kStripeGroups), PropertyList(std::move(stripeGroups)));
  volume.set(std::string(kAuxData), aux ? std::move(*aux) : PropertyList::dict());
  // The new dictionary replaces the old one whether or not the parse counted as failed.
  dictionary_ = PropertyList(std::move(volume));
  return !failed;
}

}  // namespace velm
