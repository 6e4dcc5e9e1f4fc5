// SANComputer: the plugin's picture of this machine (names, addresses, versions, role, hardware),
// one cached property per key. Callers hold the plugin lock.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "model/cached_object.h"

namespace velm {

class SANComputer : public CachedObject {
 public:
  // The singleton, created on first use under the creation lock.
  static SANComputer& thisComputer();
  // Drops the singleton so the next thisComputer() builds a fresh one (tests only).
  static void resetForTest();

  PropertyList name() { return objectValueForKey("name"); }
  PropertyList uuid() { return objectValueForKey("uuid"); }
  PropertyList role() { return objectValueForKey("role"); }
  PropertyList sanName();
  PropertyList velmVersion();
  PropertyList networkInterfaces() { return objectValueForKey("networkInterfaces"); }
  PropertyList hostOSVersion() { return objectValueForKey("hostOSVersion"); }
  PropertyList authSecret() { return objectValueForKey("authSecret"); }

  bool isController();
  bool isInNeedOfUpdate();
  // The ipAddress of every networkInterfaces entry, computed at each call.
  std::set<std::string> ipAddresses();
  // True when text resolves to one of this computer's addresses.
  bool hasIpAddressOrHostname(std::string_view text);
  // A copy of properties(), for callers that keep or change it.
  PropertyList propertiesCopy() { return properties(); }
  // Runs the version tool once per process (again only after a failure).
  void updateVersionInfo();

 protected:
  PlistArray readValidKeys() override;

 private:
  SANComputer();

  PropertyList readName();
  PropertyList readMulticastDNSName();
  PropertyList readLegacyHostName();
  PropertyList readHostOSVersion();
  PropertyList readNetworkInterfaces();
  PropertyList readAvailableNetworkInterfaceNames();
  PropertyList readNameServers();
  PropertyList readVelmVersion();
  PropertyList readRole();
  PropertyList readServerAssistantRole();
  PropertyList readServerAssistantDSType();
  PropertyList readSanName();
  PropertyList readSearchPolicy();
  PropertyList readUuid();
  PropertyList readFSVersion(bool server);
  PropertyList readNeedsUpdate();
  PropertyList readLegacyKey(const char* file, const char* key);
  PropertyList readAuthSecret();

  std::optional<std::string> versionToolOutput_;
};

}  // namespace velm
