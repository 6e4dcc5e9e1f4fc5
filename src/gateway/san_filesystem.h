// SANFilesystem: this machine's view of the SAN file system: the volume configurations here, the
// LUNs it sees, which volumes are mounted and where, and the link to velmd. A singleton; callers
// hold the plugin lock (the LUN readers have their own monitor).
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "gateway/lun_identification.h"
#include "model/cached_object.h"
#include "model/plugin_status.h"

namespace velm {

class SANFilesystem : public CachedObject {
 public:
  static constexpr int kMountFailed = kStatusMountFailed;
  static constexpr int kUnmountFailed = kStatusUnmountFailed;

  // The singleton, created on first use under the creation lock.
  static SANFilesystem& localFilesystem();
  // Drops the singleton so the next localFilesystem() builds a fresh one (tests only).
  static void resetForTest();

  // Volume dictionaries of the config files that parse.
  PropertyList volumes() { return objectValueForKey("volumes"); }
  // Device name to LUN record, as the label tool prints them.
  PropertyList visibleLUNs() { return objectValueForKey("visibleLUNs"); }

  // The first of volumes() whose Name is name; nothing when none.
  std::optional<PropertyList> volumeNamed(std::string_view name);
  // True when the config directory lists "<name>.cfg", whether or not it parses.
  bool doesExistVolumeNamed(std::string_view name);
  // True when the local port mapper lists an FSM of that name. Takes the QMAdmin lock.
  bool isRunningVolumeNamed(std::string_view name);
  // A look at the pid found last time before a walk of the whole process table.
  bool isFsmpmRunning();
  // True when this machine hosts the volume's active FSM now (defined with the volume readers).
  bool areWePrimaryController(const std::string& volume);
  // True when the record's VolumeStats.Host names this machine (by a name or an address).
  bool areWePrimaryControllerWithDict(const PropertyList& volumeRecord);

  // 0 not mounted, 1 read-only, 2 read-write.
  int volumeMountState(std::string_view name);
  // The mount point, read afresh from the disk description table; nothing when not mounted.
  std::optional<std::string> pathForVolume(std::string_view name);
  // 0 when the volume doesn't enable it, -1 on any failure, else the driver's level.
  long long lumexSearchLevelForVolume(std::string_view name);

  // Locks the table and rebuilds it from the volume event service; the caller must release it.
  const PropertyList& acquireDiskDescriptionTable();
  void releaseDiskDescriptionTable();

  // ---- file affinity ----
  // The file's affinity, "" for none; nothing when it can't be read (logged).
  std::optional<std::string> affinityForFileAtPath(const std::string& path);
  bool setAffinity(std::string_view affinity, const std::string& path);
  static bool isVelmFileDescriptor(int fd, const std::string& path);
  // 0 or an errno value.
  static int callExtapiWithFileDescriptor(int fd, unsigned long command, void* argument);
  // The key's bytes up to the first zero.
  static std::string stringForAffinityKey(std::uint64_t key);
  // All ones for a text of more than 8 characters or one outside ASCII.
  static std::uint64_t affinityKeyForString(std::string_view text);

  // ---- LUN identification ----
  // "<connectionType>:<serialNumber>" of a LUN record (each key also capitalised); "" when either
  // is missing.
  static std::string identifierLookupFromLUNRecord(const PropertyList& record);
  // Fills in the device names of the visible LUNs under their lookup keys: every visible LUN when
  // lookup is empty, else only the keys already there.
  void findDisksByIdentifier(PropertyList& lookup);
  // A reader for each non-empty device name among the values; true.
  bool identifyLUNs(const PropertyList& lookup);
  // Takes the mark of each non-empty device name among the values; true.
  bool stopIdentifyingLUNs(const PropertyList& lookup);
  LunIdentification& lunIdentification() { return *identification_; }

  // ---- velmd ----
  // The reply, or nothing on any failure of the exchange (logged).
  std::optional<PropertyList> doVelmdManagementRpcWithCommand(const PropertyList& command);
  bool disksChanged();
  // Both also restart the admin library, under the QMAdmin lock.
  bool roleChanged();
  bool sanConfigChanged();
  // 0, or kMountFailed / kUnmountFailed. Null options send no MountOptions.
  int mountVolumeNamed(std::string_view name, bool writable, const PropertyList* options);
  int unmountVolumeNamed(std::string_view name, bool forget);
  // The driver's RPC on a mounted volume: 0 or an errno value (ENOENT when not mounted).
  int doLumexRpcForVolume(std::string_view name, const void* command, std::uint32_t commandLength,
                          void* reply, std::uint32_t maxReplyLength, std::uint32_t* replyLength);

 protected:
  PlistArray readValidKeys() override;

 private:
  std::atomic<int> fsmpmPid_{-1};
  SANFilesystem();
  PropertyList readVolumes();
  PropertyList readVisibleLUNs();
  void updateDiskDescriptionTable();
  bool notifyAndRestartAdminLibrary(const char* caller, std::string_view command);

  // The LUN readers and their marks; ends and joins them when this object goes.
  std::unique_ptr<LunIdentification> identification_ = std::make_unique<LunIdentification>();
  // Volume name to its description; guarded by diskDescriptionTableLock_.
  PropertyList diskDescriptionTable_ = PropertyList::dict();
  // Third in the lock order, after the plugin lock and the QMAdmin lock.
  std::mutex diskDescriptionTableLock_;
};

// The label tool's -x output as the visibleLUNs dictionary: records whose LabelType is absent,
// "QMFS-EFI" or "QMFS-VTOC" (exactly); empty when the text is not a plist dictionary.
PropertyList visibleLUNsFromLabelOutput(std::string_view output);

}  // namespace velm
