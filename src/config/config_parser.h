// SANConfigParser: a volume's .cfg file and its -auxdata.plist as one volume dictionary
// (_id_, Name, Globals, DiskTypes, Disks, StripeGroups, AuxData): reading, writing, paths,
// queries and diff analysis. One parser belongs to one command on one thread.
// Failures are "nothing" (null / nullopt / false) with the log lines of the volume model.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "plist/plist.h"

namespace velm {

// This computer as the failover lookup needs it: its uuid and its IPv4 addresses in interface
// order. The plugin installs a provider backed by SANComputer at start; the default reads the
// uuid file (without creating it) and the AF_INET entries of get_interfaces_info().
struct ThisComputerAddresses {
  std::optional<std::string> uuid;
  std::vector<std::string> ipAddresses;
};
using ThisComputerProvider = std::function<ThisComputerAddresses()>;
// nullptr restores the default.
void setThisComputerProvider(ThisComputerProvider provider);

class SANConfigParser {
 public:
  // Plain construction: empty dictionary, no volume name.
  SANConfigParser() = default;
  // A parser for a volume name taken as it stands, with no look at the config directory (tools,
  // tests).
  explicit SANConfigParser(std::string volumeName) : volumeName_(std::move(volumeName)) {}

  // The name loses a leading "Volume_" and then its extension. Null when fileName is null or the
  // config file is not there.
  static std::unique_ptr<SANConfigParser> parserForFile(const std::string* fileName);
  static std::unique_ptr<SANConfigParser> initWithFileName(const std::string* fileName);
  // The name loses a leading "Volume_" and keeps any extension.
  static std::unique_ptr<SANConfigParser> parserForVolume(const std::string* volumeName);
  static std::unique_ptr<SANConfigParser> initWithVolumeName(const std::string* volumeName);
  static std::unique_ptr<SANConfigParser> parserForFile(std::string_view fileName) {
    std::string s(fileName);
    return parserForFile(&s);
  }
  static std::unique_ptr<SANConfigParser> parserForVolume(std::string_view volumeName) {
    std::string s(volumeName);
    return parserForVolume(&s);
  }
  // From a client's volume dictionary; never null. A dictionary that fails the shape test gives
  // a parser with no name and an empty dictionary.
  static std::unique_ptr<SANConfigParser> parserWithDict(const PropertyList& dict);
  static std::unique_ptr<SANConfigParser> initWithDict(const PropertyList& dict);

  // The volume dictionary itself, not a copy.
  PropertyList& dictionary() { return dictionary_; }
  const PropertyList& dictionary() const { return dictionary_; }
  const std::optional<std::string>& volumeName() const { return volumeName_; }
  // "Volume_<name>".
  std::string volumeID() const;

  // ---- reading ----
  // Reads pathToConfigFile and its aux file; true when nothing counted as failed. The dictionary
  // is replaced even on false, unless no text could be read.
  bool parse();
  // The same with the .cfg text read from path (the aux file is still pathToAuxData).
  bool parseFileAtPath(const std::string& path);
  // The same with the .cfg text given; text that is not UTF-8 reads as nothing.
  bool parseText(std::string_view text);

  // ---- writing ----
  void setPrintsTabs(bool on) { printsTabs_ = on; }
  bool printsTabs() const { return printsTabs_; }
  bool error() const { return error_; }
  // Line builders: a line ending in LF, or nothing when the dictionary has no value for key. A
  // missing dictionary (tagForKey: or value) logs, sets error() and gives the word "ERROR".
  std::optional<std::string> boolLineForKey(std::string_view key, const PropertyList* dict,
                                            std::string_view yesWord, std::string_view noWord);
  std::optional<std::string> lineForKey(std::string_view key, const PropertyList* dict);
  std::optional<std::string> uncompressedLineForKey(std::string_view key, const PropertyList* dict,
                                                    const char* numberFormat = nullptr);
  std::string tagForKey(std::string_view key, const PropertyList* dict);
  // 0 -> "0T", 1024 -> "1K", 1000 -> "1000".
  static std::string convertNumberToByteForm(std::uint64_t number);
  // The whole .cfg text, or nothing when a builder flagged an error.
  std::optional<std::string> configFileRepresentation();
  bool writeConfiguration();
  bool deleteConfiguration();

  // ---- paths and queries ----
  std::optional<std::string> pathToConfigFile() const;
  std::optional<std::string> pathToAuxData() const;
  static std::optional<std::string> pathToAuxData(std::string_view volumeName);
  bool configFileExists() const;
  static bool configFileExistsForVolume(std::string_view volumeName);
  std::vector<std::string> lunNames() const;
  // The group's own dictionary inside the volume dictionary; edits go through to it.
  PropertyList* storagePoolNamed(std::string_view name);
  // Computer uuid -> its address on the metadata network.
  static std::optional<PropertyList> sanIPsByUuid();
  // Addresses of the enabled controllers of the volume, in failover order.
  static std::optional<std::vector<std::string>> sanIPsForVolume(std::string_view volumeName);

  // ---- ConfigFileDiffAnalysis ----
  bool diffRequiresFSRemake(const PropertyList& diff) const;
  bool diffRequiresFSUpdate(const PropertyList& diff) const;
  bool diffRequiresFSRestart(const PropertyList& diff) const;

 private:
  bool parseOptionalText(const std::optional<std::string>& text);
  const char* nameOrNull() const { return volumeName_ ? volumeName_->c_str() : nullptr; }
  void appendRequired(std::string& out, std::optional<std::string> line, std::string_view key,
                      const PropertyList& element);

  PropertyList dictionary_ = PropertyList::dict();
  std::optional<std::string> volumeName_;
  bool printsTabs_ = false;
  bool error_ = false;
};

}  // namespace velm
