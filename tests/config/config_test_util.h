// Shared inputs of the config tests: a realistic volume file and small dictionary builders.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "plist/plist.h"

namespace velm::test {

// A volume as a site would keep it: comments, blank lines, indentation, mixed case in sections,
// every global key once, quoted and unquoted names, a metadata+journal group and two data groups.
inline constexpr std::string_view kRealisticConfig = R"(# Volume configuration
# Globals ----------------------------------------------------------
DataMigration            No
ABMFreeLimit             No
DirWarp                  Yes
ForcePerfectFit          No
FileLocks                Yes
GlobalSuperUser          Yes
Quotas                   Yes     # quotas on
Brls                     No
WindowsSecurity          Yes
EnforceACLs              Disabled
EnableLumex              Enabled
NamedStreams             Down
ForceStripeAlignment     Up
UnixIdFabricationOnWindows No

AttrTokenSize            1
InodeExpandMin           2
InodeExpandInc           3
InodeExpandMax           4
InodeDeleteMax           5
StaticInodes             6
DataMigrationThreadPoolSize 7
BufferCacheSize          32M
BufferPoolSize           9
DirCacheSize             10
DirFDCacheSize           11
StripeAlignSize          12
JournalSize              16M
FsBlockSize              4K
InodeCacheSize           1G
IoHangLimitSecs          180
MaxConnections           138
MaxLogSize               4M
MaxLogs                  4
OpHangLimitSecs          300
PosixStyleLinkCount      21
TrimOnClose              22
BrlTime                  23
ThreadPoolSize           256
MaxMBPerClientReserve    25
UnixNobodyUidOnWindows   -2
UnixNobodyGidOnWindows   -2
UnixFileCreationModeOnWindows 0644
UnixDirectoryCreationModeOnWindows 0755
Debug                    0x0
AllocationStrategy       Round
LumexSearchLevel         3

# Disk types -------------------------------------------------------
[DiskType "MetaType"]
  Sectors 4194304
  SectorSize 512
[DiskType DataType]
  sectors 2147483648
  sectorsize 512

# Disks ------------------------------------------------------------
[Disk "Meta1"]
  Status UP
  Type "MetaType"
[Disk Data1]
  Status Up
  Type DataType
[Disk "Data2"]
  Type "DataType"
  Status Down
[Disk "Data3"]
  Status Up
  Type "DataType"

# Stripe groups ----------------------------------------------------
[StripeGroup "MetadataAndJournal"]
  Status Up
  Exclusive Yes
  Metadata Yes
  Journal Yes
  Read Enabled
  Write Enabled
  StripeBreadth 16
  MultiPathMethod Rotate
  Node "Meta1" 0

[StripeGroup DataFiles]
  Status Up
  Exclusive No
  Metadata No
  Journal No
  Affinity "Media"
  Read Enabled
  Write Enabled
  StripeClusters 1
  BWMFields 2
  StripeBreadth 64
  RtiosReserve 5
  Rtios 100
  Rtmb 6
  RtmbReserve 7
  RtTokenTimeout 8
  MultiPathMethod Static
  Node "Data1" 0
  Node Data2 1

[StripeGroup "Archive"]
  Status Down
  Exclusive Yes
  Affinity Cold
  Read Disabled
  Write Disabled
  MultiPathMethod Rotate
  Node "Data3" 0
)";

inline PropertyList makeNode(std::string device, long long index) {
  PropertyList node = PropertyList::dict();
  node.set("_id_", PropertyList("Node_" + device));
  node.set("NodeDiskDevice", PropertyList(device));
  node.set("NodeRotationIndex", PropertyList(index));
  return node;
}

inline PropertyList makeDisk(std::string name, bool up, std::string type) {
  PropertyList disk = PropertyList::dict();
  disk.set("_id_", PropertyList("Disk_" + name));
  disk.set("Disk", PropertyList(name));
  disk.set("Status", PropertyList(up));
  disk.set("Type", PropertyList(type));
  return disk;
}

inline PropertyList makeDiskType(std::string name, long long sectors, long long sectorSize) {
  PropertyList type = PropertyList::dict();
  type.set("_id_", PropertyList("DiskType_" + name));
  type.set("DiskType", PropertyList(name));
  type.set("Sectors", PropertyList(sectors));
  type.set("SectorSize", PropertyList(sectorSize));
  return type;
}

// A complete group as the administration tool sends it.
inline PropertyList makeGroup(std::string name, std::vector<PropertyList> nodes) {
  PropertyList group = PropertyList::dict();
  group.set("_id_", PropertyList("StripeGroup_" + name));
  group.set("StripeGroup", PropertyList(name));
  group.set("Status", PropertyList(true));
  group.set("Exclusive", PropertyList(false));
  group.set("Affinity", PropertyList("Aff" + name));
  group.set("Read", PropertyList(true));
  group.set("Write", PropertyList(true));
  group.set("MultiPathMethod", PropertyList("Rotate"));
  PlistArray list(nodes.begin(), nodes.end());
  group.set("Nodes", PropertyList(std::move(list)));
  return group;
}

inline PropertyList makeVolume(std::string name, PropertyList globals, PlistArray diskTypes, PlistArray disks,
                               PlistArray groups) {
  PropertyList volume = PropertyList::dict();
  volume.set("_id_", PropertyList("Volume_" + name));
  volume.set("Name", PropertyList(name));
  volume.set("Globals", std::move(globals));
  volume.set("DiskTypes", PropertyList(std::move(diskTypes)));
  volume.set("Disks", PropertyList(std::move(disks)));
  volume.set("StripeGroups", PropertyList(std::move(groups)));
  volume.set("AuxData", PropertyList::dict());
  return volume;
}

}  // namespace velm::test
