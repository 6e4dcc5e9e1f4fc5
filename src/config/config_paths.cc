// Where a volume's files lie, building a parser from a client's dictionary, and the queries on
// the volume dictionary and the failover data beside it.
#include <sys/stat.h>

#include <mutex>

#include "adminhost/host_common.h"
#include "config/config_keys.h"
#include "config/config_parser.h"
#include "config/value_text.h"
#include "platform/files.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "platform/string_additions.h"

namespace velm {
namespace {

using namespace config;

std::mutex gProviderMutex;  // guards gProvider; a leaf lock
ThisComputerProvider gProvider;

ThisComputerAddresses defaultThisComputer() {
  ThisComputerAddresses out;
  // Read only: the file is SANComputer's to create.
  if (std::optional<std::string> text = readFile(configPath("uuid")); text && text->size() >= 36)
    out.uuid = text->substr(0, 36);
  PropertyList interfaces = get_interfaces_info();
  if (const PlistArray* list = interfaces.asArray()) {
    for (const PropertyList& entry : *list) {
      const std::string* family = entry.getString("family");
      if (!family || *family != "AF_INET") continue;
      const std::string* address = entry.getString("ipAddress");
      out.ipAddresses.push_back(address ? *address : std::string());
    }
  }
  return out;
}

ThisComputerAddresses thisComputer() {
  ThisComputerProvider provider;
  {
    std::scoped_lock lock(gProviderMutex);
    provider = gProvider;
  }
  return provider ? provider() : defaultThisComputer();
}

const PlistArray* arrayAt(const PropertyList& dict, std::string_view key) {
  const PropertyList* v = dict.get(key);
  return v ? v->asArray() : nullptr;
}

}  // namespace

void setThisComputerProvider(ThisComputerProvider provider) {
  std::scoped_lock lock(gProviderMutex);
  gProvider = std::move(provider);
}

std::unique_ptr<SANConfigParser> SANConfigParser::initWithDict(const PropertyList& dict) {
  auto parser = std::make_unique<SANConfigParser>();
  const PropertyList* name = dict.get(kName);
  const PropertyList* id = dict.get(kId);
  const PropertyList* globals = dict.get(kGlobals);
  const PropertyList* diskTypes = dict.get(kDiskTypes);
  const PropertyList* disks = dict.get(kDisks);
  const PropertyList* groups = dict.get(kStripeGroups);
  // Deliberate: a dictionary of the wrong shape is not refused; the caller gets a parser with no
  // name and an empty dictionary, which fails later at pathToConfigFile or in the writer.
  if (!name || !name->isString()) return parser;
  // The _id_ is only tested, never kept.
  if (!id || !id->isString()) return parser;
  if (!globals || !globals->isDict()) return parser;
  if (!diskTypes || !diskTypes->isArray()) return parser;
  if (!disks || !disks->isArray()) return parser;
  if (!groups || !groups->isArray()) return parser;

  // Deliberate: a "Volume_" prefix is not taken off here.
  parser->volumeName_ = *name->asString();
  PlistDict volume;
  volume.set(std::string(kId), PropertyList(parser->volumeID()));
  volume.set(std::string(kName), *name);
  volume.set(std::string(kGlobals), *globals);
  volume.set(std::string(kDiskTypes), *diskTypes);
  volume.set(std::string(kDisks), *disks);
  volume.set(std::string(kStripeGroups), *groups);
  const PropertyList* aux = dict.get(kAuxData);
  volume.set(std::string(kAuxData), aux && aux->isDict() ? *aux : PropertyList::dict());
  parser->dictionary_ = PropertyList(std::move(volume));
  return parser;
}

std::unique_ptr<SANConfigParser> SANConfigParser::parserWithDict(const PropertyList& dict) {
  return initWithDict(dict);
}

std::optional<std::string> SANConfigParser::pathToConfigFile() const {
  if (!volumeName_) {
    NError("pathToConfigFile: Volume name is nil");
    return std::nullopt;
  }
  if (volumeName_->empty()) {
    NError("pathToConfigFile: Volume name is zero length");
    return std::nullopt;
  }
  return configPath(*volumeName_ + ".cfg");
}

std::optional<std::string> SANConfigParser::pathToAuxData() const {
  if (!volumeName_) {
    NError("pathToAuxData: Volume name is nil");
    return std::nullopt;
  }
  return pathToAuxData(*volumeName_);
}

std::optional<std::string> SANConfigParser::pathToAuxData(std::string_view volumeName) {
  if (volumeName.empty()) {
    NError("pathToAuxData: Volume name is zero length");
    return std::nullopt;
  }
  std::string name(volumeName);
  name += "-auxdata.plist";
  return configPath(name);
}

bool SANConfigParser::configFileExists() const {
  std::optional<std::string> path = pathToConfigFile();
  if (!path) return false;
  struct stat st {};
  if (::stat(path->c_str(), &st) != 0) return false;
  if (S_ISDIR(st.st_mode)) {
    NError("configFileExists: Config file path is a directory!");
    return false;
  }
  return true;
}

bool SANConfigParser::configFileExistsForVolume(std::string_view volumeName) {
  // Deliberate: any name is taken, the empty one included.
  std::string path = configPath(std::string(volumeName) + ".cfg");
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return false;
  if (S_ISDIR(st.st_mode)) {
    NError("configFileExistsForVolume: Config file path for volume '%@' is a directory!", volumeName);
    return false;
  }
  return true;
}

std::vector<std::string> SANConfigParser::lunNames() const {
  std::vector<std::string> names;
  const PlistArray* groups = arrayAt(dictionary_, kStripeGroups);
  if (!groups) return names;
  // Deliberate: a LUN in two groups is listed twice.
  for (const PropertyList& group : *groups) {
    const PlistArray* nodes = arrayAt(group, kNodes);
    if (!nodes) continue;
    for (const PropertyList& node : *nodes)
      if (const std::string* device = node.getString(kNodeDiskDevice)) names.push_back(*device);
  }
  return names;
}

PropertyList* SANConfigParser::storagePoolNamed(std::string_view name) {
  PropertyList* groups = dictionary_.get(kStripeGroups);
  PlistArray* list = groups ? groups->asArray() : nullptr;
  if (!list) return nullptr;
  for (PropertyList& group : *list) {
    const std::string* groupName = group.getString(kStripeGroup);
    if (groupName && *groupName == name) return &group;
  }
  return nullptr;
}

std::optional<PropertyList> SANConfigParser::sanIPsByUuid() {
  std::optional<PropertyList> config = readDictionaryFile(configPath("config.plist"));
  const PlistArray* computers = config ? arrayAt(*config, kComputers) : nullptr;
  const std::string* network = config ? config->getString(kMetadataNetwork) : nullptr;
  if (!computers || !network) {
    NError("sanIPsByUuid: Error getting information\n");
    return std::nullopt;
  }
  PropertyList byUuid = PropertyList::dict();
  ThisComputerAddresses self = thisComputer();
  if (self.uuid) {
    for (const std::string& address : self.ipAddresses) {
      if (ipAddressIsInSubnet(address, *network)) {
        byUuid.set(*self.uuid, PropertyList(address));
        break;
      }
    }
  }
  // Second, so that for this computer the address in config.plist wins over the live one.
  for (const PropertyList& computer : *computers) {
    const std::string* uuid = computer.getString(kUuid);
    const PlistArray* addresses = arrayAt(computer, kIpAddresses);
    if (!uuid || !addresses) continue;
    for (const PropertyList& address : *addresses) {
      const std::string* text = address.asString();
      if (text && ipAddressIsInSubnet(*text, *network)) {
        byUuid.set(*uuid, address);
        break;
      }
    }
  }
  return byUuid;
}

std::optional<std::vector<std::string>> SANConfigParser::sanIPsForVolume(std::string_view volumeName) {
  std::optional<PropertyList> ips = sanIPsByUuid();
  if (!ips) return std::nullopt;
  std::optional<std::string> auxPath = pathToAuxData(volumeName);
  std::optional<PropertyList> aux = auxPath ? readDictionaryFile(*auxPath) : std::nullopt;
  const PlistArray* priorities = aux ? arrayAt(*aux, kFailoverPriorities) : nullptr;
  if (!priorities) {
    NError("sanIPsForVolume: No failover matrix for volume %@\n", volumeName);
    return std::nullopt;
  }
  std::vector<std::string> result;
  for (const PropertyList& entry : *priorities) {
    // An entry with no enabled key counts as disabled.
    if (!truthValue(entry.get(kEnabled))) continue;
    const PropertyList* uuid = entry.get(kControllerUUID);
    const std::string* uuidText = uuid ? uuid->asString() : nullptr;
    const std::string* address = uuidText ? ips->getString(*uuidText) : nullptr;
    if (address) result.push_back(*address);
    else NLog("No ip found in IPs '%@' for uuid '%@'", *ips, uuid);
  }
  return result;
}

}  // namespace velm
