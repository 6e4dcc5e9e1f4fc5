// Directory queries and the replica preflight. Linux has no directory service the plugin can ask
// for records (the query answers nothing, status 100055); tests put one in place.
#pragma once

#include <optional>
#include <string>

#include "plist/plist.h"

namespace velm {

inline constexpr const char* kReplicaTool = "/usr/sbin/replicacfg";

class Directory {
 public:
  virtual ~Directory() = default;
  // Records of node matching pattern; nothing when the directory can't answer. Null arguments
  // are absent ones.
  virtual std::optional<PropertyList> valueMatchedListOfRecords(
      const std::string& nodePath, const PropertyList* recordTypes,
      const PropertyList* attributeTypes, const std::string* patternKey,
      const std::string* patternText, const PropertyList* maxRecords,
      const PropertyList* optionalArguments) = 0;
};

Directory& directory();
void setDirectoryForTest(Directory* d);

// The preflight of making this machine a replica of masterAddress: authStatus and the keys that
// go with it. isMaster: masterAddress is this machine. Passwords only go to the tools' input.
PropertyList preflightReplica(const std::string& masterAddress, const std::string& rootPassword,
                              const std::string& adminName, const std::string& adminPassword,
                              bool isMaster);

}  // namespace velm
