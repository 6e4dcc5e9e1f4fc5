#include "core/san_computer.h"

#include <netdb.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <stdexcept>

#include "adminhost/host_common.h"
#include "hwinfo/hwinfo.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "platform/host_config.h"
#include "platform/log.h"
#include "platform/os_version.h"
#include "platform/paths.h"
#include "platform/string_additions.h"

namespace velm {
namespace {

constexpr std::string_view kControllerPrefs = "/Library/Preferences/com.orvane.velm.controller.plist";
constexpr std::string_view kVersionTool = "/Library/Filesystems/Velm/bin/drversions";

std::unique_ptr<SANComputer>& instance() {
  static std::unique_ptr<SANComputer> computer;
  return computer;
}

std::optional<PropertyList> configDictionary(std::string_view name) {
  return readDictionaryFile(configPath(name));
}

std::string newUuidText() {
  unsigned char b[16] = {};
  ssize_t got;
  do {
    got = ::getrandom(b, sizeof b, 0);
  } while (got < 0 && errno == EINTR);
  if (got != static_cast<ssize_t>(sizeof b)) {
    // No kernel randomness (a very old kernel or a seccomp filter): mix the clock and the pid,
    // which is still unique enough for one machine's identity.
    std::uint64_t seed = clock().wallMicros() ^ (clock().monotonicMicros() << 17) ^
                         (static_cast<std::uint64_t>(::getpid()) << 40);
    for (size_t i = 0; i < sizeof b; ++i) {
      seed = seed * 6364136223846793005ull + 1442695040888963407ull;
      b[i] = static_cast<unsigned char>(seed >> 56);
    }
  }
  b[6] = static_cast<unsigned char>((b[6] & 0x0f) | 0x40);
  b[8] = static_cast<unsigned char>((b[8] & 0x3f) | 0x80);
  char text[37];
  std::snprintf(text, sizeof text,
                "%02X%02X%02X%02X-%02X%02X-%02X%02X-%02X%02X-%02X%02X%02X%02X%02X%02X", b[0], b[1],
                b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11], b[12], b[13], b[14], b[15]);
  return text;
}

// Trims blanks and newlines at both ends.
std::string trimmed(std::string_view s) {
  const char* ws = " \t\r\n\f\v";
  size_t a = s.find_first_not_of(ws);
  if (a == std::string_view::npos) return {};
  size_t b = s.find_last_not_of(ws);
  return std::string(s.substr(a, b - a + 1));
}

}  // namespace

SANComputer& SANComputer::thisComputer() {
  std::scoped_lock lock(creationLock());
  auto& c = instance();
  if (!c) c.reset(new SANComputer());
  return *c;
}

void SANComputer::resetForTest() {
  std::scoped_lock lock(creationLock());
  instance().reset();
}

SANComputer::SANComputer() {
  registerReader("readName", [this] { return readName(); });
  registerReader("readMulticastDNSName", [this] { return readMulticastDNSName(); });
  registerReader("readLegacyHostName", [this] { return readLegacyHostName(); });
  registerReader("readHostOSVersion", [this] { return readHostOSVersion(); });
  registerReader("readNetworkInterfaces", [this] { return readNetworkInterfaces(); });
  registerReader("readAvailableNetworkInterfaceNames", [this] { return readAvailableNetworkInterfaceNames(); });
  registerReader("readNameServers", [this] { return readNameServers(); });
  registerReader("readVelmVersion", [this] { return readVelmVersion(); });
  registerReader("readRole", [this] { return readRole(); });
  registerReader("readServerAssistantRole", [this] { return readServerAssistantRole(); });
  registerReader("readServerAssistantDSType", [this] { return readServerAssistantDSType(); });
  registerReader("readSanName", [this] { return readSanName(); });
  registerReader("readSearchPolicy", [this] { return readSearchPolicy(); });
  registerReader("readUuid", [this] { return readUuid(); });
  registerReader("readCpuCount", [] { return PropertyList(HHI_NumberOfCPUs()); });
  registerReader("readCpuSpeed", [] { return PropertyList(static_cast<unsigned>(HHI_CPUSpeedInHz())); });
  registerReader("readCpuKind", [] {
    auto kind = HHI_CopyCPUKind(false);
    return kind ? PropertyList(*kind) : PropertyList();
  });
  registerReader("readRamSize", [] { return PropertyList(static_cast<unsigned long long>(HHI_PhysicalMemorySize())); });
  registerReader("readTechnicalComputerKind", [] {
    auto model = HHI_CopyComputerModelName(true);
    return model ? PropertyList(*model) : PropertyList();
  });
  registerReader("readComputerKind", [] {
    auto model = HHI_CopyComputerModelName(false);
    return model ? PropertyList(*model) : PropertyList();
  });
  registerReader("readServerFSVersion", [this] { return readFSVersion(true); });
  registerReader("readClientFSVersion", [this] { return readFSVersion(false); });
  registerReader("readNeedsUpdate", [this] { return readNeedsUpdate(); });
  registerReader("readLegacyMetadataNIC", [this] { return readLegacyKey("role.plist", "interfaceName"); });
  registerReader("readLegacyMetadataIP", [this] { return readLegacyKey("role.plist", "interfaceIP"); });
  registerReader("readLegacySanName", [this] { return readLegacyKey("saninfo.plist", "name"); });
  registerReader("readAuthSecret", [this] { return readAuthSecret(); });
}

PlistArray SANComputer::readValidKeys() {
  static const char* const kKeys[] = {
      "name", "multicastDNSName", "legacyHostName", "hostOSVersion", "networkInterfaces",
      "availableNetworkInterfaceNames", "nameServers", "velmVersion", "role", "serverAssistantRole",
      "serverAssistantDSType", "sanName", "searchPolicy", "uuid", "cpuCount", "cpuSpeed", "cpuKind",
      "ramSize", "technicalComputerKind", "computerKind", "serverFSVersion", "clientFSVersion",
      // Deliberate: the SAN's shared secret is a property too, so getComputerProperties hands
      // it to the administration tool.
      "needsUpdate", "legacyMetadataNIC", "legacyMetadataIP", "legacySanName", "authSecret"};
  PlistArray keys;
  for (const char* k : kKeys) keys.emplace_back(k);
  return keys;
}

PropertyList SANComputer::sanName() {
  NLog("TRACE(%s)", __func__);
  return objectValueForKey("sanName");
}

PropertyList SANComputer::velmVersion() {
  NLog("TRACE(%s)", __func__);
  return objectValueForKey("velmVersion");
}

bool SANComputer::isController() {
  PropertyList r = role();
  const std::string* s = r.asString();
  return s && *s == "CONTROLLER";
}

bool SANComputer::isInNeedOfUpdate() { return objectValueForKey("needsUpdate").boolValue(); }

std::set<std::string> SANComputer::ipAddresses() {
  std::set<std::string> out;
  PropertyList interfaces = networkInterfaces();
  if (const PlistArray* list = interfaces.asArray()) {
    for (const PropertyList& entry : *list) {
      if (const std::string* ip = entry.getString("ipAddress")) out.insert(*ip);
    }
  }
  return out;
}

bool SANComputer::hasIpAddressOrHostname(std::string_view text) {
  std::string host(text);
  struct addrinfo hints {};
  struct addrinfo* results = nullptr;
  int rc = ::getaddrinfo(host.c_str(), nullptr, &hints, &results);
  if (rc != 0) {
    NError("%s: unable to get address info for '%@': %s", __func__, host, ::gai_strerror(rc));
    return false;
  }
  std::unique_ptr<struct addrinfo, decltype(&::freeaddrinfo)> guard(results, ::freeaddrinfo);
  std::set<std::string> mine = ipAddresses();
  for (struct addrinfo* ai = results; ai; ai = ai->ai_next) {
    char number[1025];
    if (::getnameinfo(ai->ai_addr, ai->ai_addrlen, number, sizeof number, nullptr, 0, NI_NUMERICHOST) != 0) {
      NError("%s: unable to get numeric address string for '%@'", __func__, host);
      return false;
    }
    std::string numeric(number);
    if (mine.count(numeric)) {
      NLog("%s: %@ (%@) is one of this computer's addresses", __func__, host, numeric);
      return true;
    }
    NLog("%s: %@ (%@) is not one of this computer's addresses", __func__, host, numeric);
  }
  return false;
}

void SANComputer::updateVersionInfo() {
  if (versionToolOutput_) return;
  std::string tool = hostPath(kVersionTool);
  LaunchResult r = launch_task(tool, {});
  if (r.status == 0) {
    versionToolOutput_ = r.output;
  } else {
    NError("%s: Could not launch %@, status %d (output '%@', error '%@')", __func__, tool, r.status,
           r.output, r.error);
  }
}

PropertyList SANComputer::readName() {
  std::optional<std::string> n = hostConfig().computerName();
  if (!n) {
    NError("%s: Could not fetch computer name", __func__);
    return {};
  }
  return *n;
}

PropertyList SANComputer::readMulticastDNSName() {
  std::optional<std::string> n = hostConfig().localHostName();
  return n ? PropertyList(*n) : PropertyList();
}

PropertyList SANComputer::readLegacyHostName() {
  char buf[256];
  if (::gethostname(buf, sizeof buf) == 0) {
    buf[sizeof buf - 1] = '\0';
    return std::string(buf);
  }
  std::optional<std::string> n = hostConfig().computerName();
  return n ? PropertyList(*n) : PropertyList();
}

PropertyList SANComputer::readHostOSVersion() {
  std::optional<PropertyList> file = serverVersionDictionary();
  if (!file) file = systemVersionDictionary();
  PropertyList out = PropertyList::dict();
  if (!file) return out;
  if (const PropertyList* name = file->get("ProductName")) out.set("ProductName", *name);
  if (const PropertyList* version = file->get("ProductVersion")) {
    out.set("ProductVersion", *version);
    if (const PropertyList* build = file->get("ProductBuildVersion")) out.set("ProductBuildVersion", *build);
  }
  return out;
}

PropertyList SANComputer::readNetworkInterfaces() {
  PropertyList out = PropertyList::array();
  PropertyList info = get_interfaces_info();
  const PlistArray* list = info.asArray();
  if (!list) return out;
  for (const PropertyList& entry : *list) {
    const std::string* family = entry.getString("family");
    if (!family || *family != "AF_INET") continue;
    PropertyList item = PropertyList::dict();
    for (const char* key : {"ipAddress", "name", "userDefinedName", "subnetMask"}) {
      const std::string* v = entry.getString(key);
      item.set(key, v ? *v : std::string());
    }
    out.push(std::move(item));
  }
  return out;
}

PropertyList SANComputer::readAvailableNetworkInterfaceNames() {
  HostConfig& config = hostConfig();
  std::optional<std::vector<NetworkPort>> ports = config.networkPorts();
  if (!ports) {
    NError("Cannot access network configuration.");
    return PropertyList::array();
  }
  std::set<std::string> names;
  for (const NetworkPort& port : *ports) {
    if (!port.ethernet || port.deviceName.empty()) continue;
    MediaStatus media = config.mediaStatus(port.deviceName);
    if (media.ok && media.count != 0 && (media.status & 3) == 3) names.insert(port.deviceName);
  }
  PropertyList os = hostOSVersion();
  const std::string* version = os.getString("ProductVersion");
  const std::string* product = os.getString("ProductName");
  if (version && product && numericCompare(*version, "10.6") < 0 && product->size() >= 6 &&
      product->compare(product->size() - 6, 6, "Server") == 0) {
    std::optional<std::vector<std::string>> off = config.devicesOfDisabledServices();
    if (!off) {
      NError("Cannot access network configuration.");
      return PropertyList::array();
    }
    names.insert(off->begin(), off->end());
  }
  PropertyList interfaces = networkInterfaces();
  if (const PlistArray* list = interfaces.asArray()) {
    for (const PropertyList& entry : *list) {
      const std::string* ip = entry.getString("ipAddress");
      const std::string* name = entry.getString("name");
      if (ip && name && !ipAddressIsSelfAssigned(*ip)) names.erase(*name);
    }
  }
  PropertyList out = PropertyList::array();
  for (const std::string& n : names) out.push(n);
  return out;
}

PropertyList SANComputer::readNameServers() {
  PropertyList out = PropertyList::array();
  std::optional<std::string> text = readFile(configPath("fsnameservers"));
  if (!text) return out;
  for (std::string& line : splitLinesDroppingLastEmpty(*text)) out.push(std::move(line));
  return out;
}

PropertyList SANComputer::readVelmVersion() {
  std::string productFile = velmFsPath("version.plist");
  PropertyList file = PropertyList::dict();
  if (pathExists(productFile)) {
    PlistReadResult r = readXmlPlistFile(productFile);
    if (!r || !r.value->isDict()) {
      PlistReadResult driver = readXmlPlistFile(velmFsPath("driver-version.plist"));
      // Deliberate: the one reader that fails its caller; the dispatcher turns it into a
      // request without a response.
      if (!driver || !driver.value->isDict())
        throw std::runtime_error("unreadable version files: " + productFile);
      file = *driver.value;
    } else {
      file = *r.value;
    }
  }
  PropertyList out = PropertyList::dict();
  if (const PropertyList* build = file.get("ProductBuildVersion")) out.set("ProductBuildVersion", *build);
  const std::string* version = file.getString("ProductVersion");
  out.set("ProductVersion", (version && !version->empty()) ? *version : std::string("2.2"));
  const std::string* name = file.getString("ProductName");
  out.set("ProductName", (name && !name->empty()) ? *name : std::string("Velm"));
  return out;
}

PropertyList SANComputer::readRole() {
  std::optional<PropertyList> config = configDictionary("config.plist");
  const PropertyList* role = config ? config->get("role") : nullptr;
  std::optional<PropertyList> legacy;
  if (!role) {
    // Deliberate: role.plist is consulted only when the key is missing, not when it is empty.
    legacy = configDictionary("role.plist");
    role = legacy ? legacy->get("role") : nullptr;
  }
  const std::string* text = role ? role->asString() : nullptr;
  if (!text || text->empty()) return "UNCONFIGURED";
  return *text;
}

PropertyList SANComputer::readServerAssistantRole() {
  std::optional<PropertyList> prefs = readDictionaryFile(hostPath(kControllerPrefs));
  if (!prefs) return {};
  const PropertyList* primary = prefs->get("IsPrimaryController");
  return (primary && primary->boolValue()) ? "PRIMARY_CONTROLLER" : "BACKUP_CONTROLLER";
}

PropertyList SANComputer::readServerAssistantDSType() {
  std::optional<PropertyList> prefs = readDictionaryFile(hostPath(kControllerPrefs));
  if (!prefs) return {};
  const PropertyList* primary = prefs->get("IsPrimaryController");
  if (!primary || !primary->boolValue()) return {};
  const PropertyList* type = prefs->get("DSType");
  return type ? *type : PropertyList();
}

PropertyList SANComputer::readSanName() {
  std::optional<PropertyList> config = configDictionary("config.plist");
  const PropertyList* name = config ? config->get("sanName") : nullptr;
  return name ? *name : PropertyList();
}

PropertyList SANComputer::readSearchPolicy() {
  PropertyList info = DSGetNodeInfo(0, {"rosterAttrStandard:LSPSearchPath", "rosterAttrStandard:SearchPath"});
  PropertyList out = PropertyList::array();
  const PropertyList* search = info.get("rosterAttrStandard:SearchPath");
  const PropertyList* local = info.get("rosterAttrStandard:LSPSearchPath");
  if (!search || !search->asArray()) return PropertyList();
  for (const PropertyList& entry : *search->asArray()) {
    bool excluded = false;
    if (local && local->asArray()) {
      for (const PropertyList& l : *local->asArray()) excluded = excluded || l == entry;
    }
    if (!excluded) out.push(entry);
  }
  return out;
}

PropertyList SANComputer::readUuid() {
  std::string path = configPath("uuid");
  if (std::optional<std::string> text = readFile(path); text && characterCount(*text) >= 36) {
    // The first 36 characters, not bytes: the file is UTF-8 text.
    size_t end = 0;
    for (size_t chars = 0; end < text->size(); ++end) {
      if ((static_cast<unsigned char>((*text)[end]) & 0xc0) != 0x80 && chars++ == 36) break;
    }
    return text->substr(0, end);
  }
  std::string fresh = newUuidText();
  // Deliberate: a failed write goes unnoticed; the next start makes another identity.
  writeFileAtomically(path, fresh);
  return fresh;
}

PropertyList SANComputer::readFSVersion(bool server) {
  updateVersionInfo();
  const char* marker = server ? "Server Revision" : "Client Revision";
  if (versionToolOutput_) {
    const std::string& text = *versionToolOutput_;
    size_t at = text.find(marker);
    if (at != std::string::npos) {
      size_t start = at + std::char_traits<char>::length(marker);
      size_t built = text.find("Built", start);
      if (built != std::string::npos) {
        std::string version = trimmed(std::string_view(text).substr(start, built - start));
        if (!version.empty()) return version;
      }
    }
  }
  // Deliberate: both placeholders print as null; the tool's texts are not at hand here.
  const PropertyList* none = nullptr;
  if (server) {
    NError("%s: Could not read server revision (output '%@', error '%@')", __func__, none, none);
  } else {
    NError("%s: Could not read client revision (output '%@', error '%@')", __func__, none, none);
  }
  return {};
}

PropertyList SANComputer::readNeedsUpdate() {
  if (pathExists(configPath("config.plist"))) return false;
  bool haveRole = readDictionaryFile(configPath("role.plist")).has_value();
  bool haveSanInfo = readDictionaryFile(configPath("saninfo.plist")).has_value();
  if (!haveRole) return false;
  if (!haveSanInfo) {
    // Deliberate: the misspelling is the line operators search for.
    logRawLine("configurtaion unable to update due to lack of saninfo.plist");
    return false;
  }
  return true;
}

PropertyList SANComputer::readLegacyKey(const char* file, const char* key) {
  if (!isInNeedOfUpdate()) return {};
  std::optional<PropertyList> dict = configDictionary(file);
  const PropertyList* v = dict ? dict->get(key) : nullptr;
  return v ? *v : PropertyList();
}

PropertyList SANComputer::readAuthSecret() {
  std::optional<std::string> text = readFile(configPath(".auth_secret"));
  if (!text) return std::string();
  // 7-bit text: a byte past 127 makes the whole text unreadable as ASCII.
  for (unsigned char c : *text) {
    if (c > 127) return std::string();
  }
  return *text;
}

}  // namespace velm
