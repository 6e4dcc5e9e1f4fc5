// Keys of the volume dictionary and the keyword lists of the .cfg format (ListDrivenParsing).
// The order of each list is the order of reading and of writing.
#pragma once

#include <array>
#include <cstddef>
#include <span>
#include <string_view>

namespace velm::config {

// Volume dictionary.
inline constexpr std::string_view kId = "_id_";
inline constexpr std::string_view kName = "Name";
inline constexpr std::string_view kGlobals = "Globals";
inline constexpr std::string_view kDiskTypes = "DiskTypes";
inline constexpr std::string_view kDisks = "Disks";
inline constexpr std::string_view kStripeGroups = "StripeGroups";
inline constexpr std::string_view kAuxData = "AuxData";

// Section tags and the keys read in sections.
inline constexpr std::string_view kDiskType = "DiskType";
inline constexpr std::string_view kSectors = "Sectors";
inline constexpr std::string_view kSectorSize = "SectorSize";
inline constexpr std::string_view kDisk = "Disk";
inline constexpr std::string_view kStatus = "Status";
inline constexpr std::string_view kType = "Type";
inline constexpr std::string_view kStripeGroup = "StripeGroup";
inline constexpr std::string_view kNodes = "Nodes";
inline constexpr std::string_view kNode = "Node";
inline constexpr std::string_view kNodeDiskDevice = "NodeDiskDevice";
inline constexpr std::string_view kNodeRotationIndex = "NodeRotationIndex";
inline constexpr std::string_view kExclusive = "Exclusive";
inline constexpr std::string_view kMetadata = "Metadata";
inline constexpr std::string_view kJournal = "Journal";
inline constexpr std::string_view kRead = "Read";
inline constexpr std::string_view kWrite = "Write";
inline constexpr std::string_view kAffinity = "Affinity";
inline constexpr std::string_view kMultiPathMethod = "MultiPathMethod";
inline constexpr std::string_view kStripeBreadth = "StripeBreadth";
inline constexpr std::string_view kFsBlockSize = "FsBlockSize";
inline constexpr std::string_view kJournalSize = "JournalSize";

// Aux file and config.plist.
inline constexpr std::string_view kFailoverPriorities = "FailoverPriorities";
inline constexpr std::string_view kControllerUUID = "controllerUUID";
inline constexpr std::string_view kEnabled = "enabled";
inline constexpr std::string_view kComputers = "computers";
inline constexpr std::string_view kMetadataNetwork = "metadataNetwork";
inline constexpr std::string_view kUuid = "uuid";
inline constexpr std::string_view kIpAddresses = "ipAddresses";

// Diff markers.
inline constexpr std::string_view kNewId = "_newid_";
inline constexpr std::string_view kObsoleteId = "_obsoleteid_";

inline constexpr std::array<std::string_view, 14> kGlobalBooleans = {
    "DataMigration", "ABMFreeLimit",    "DirWarp",       "ForcePerfectFit",
    "FileLocks",     "GlobalSuperUser", "Quotas",        "Brls",
    "WindowsSecurity", "EnforceACLs",   "EnableLumex",   "NamedStreams",
    "ForceStripeAlignment", "UnixIdFabricationOnWindows"};

inline constexpr std::array<std::string_view, 29> kGlobalNumbers = {
    "AttrTokenSize",         "InodeExpandMin",
    "InodeExpandInc",        "InodeExpandMax",
    "InodeDeleteMax",        "StaticInodes",
    "DataMigrationThreadPoolSize", "BufferCacheSize",
    "BufferPoolSize",        "DirCacheSize",
    "DirFDCacheSize",        "StripeAlignSize",
    "JournalSize",           "FsBlockSize",
    "InodeCacheSize",        "IoHangLimitSecs",
    "MaxConnections",        "MaxLogSize",
    "MaxLogs",               "OpHangLimitSecs",
    "PosixStyleLinkCount",   "TrimOnClose",
    "BrlTime",               "ThreadPoolSize",
    "MaxMBPerClientReserve", "UnixNobodyUidOnWindows",
    "UnixNobodyGidOnWindows", "UnixFileCreationModeOnWindows",
    "UnixDirectoryCreationModeOnWindows"};

inline constexpr std::array<std::string_view, 3> kGlobalStrings = {"Debug", "AllocationStrategy",
                                                                   "LumexSearchLevel"};

namespace detail {
template <size_t A, size_t B>
consteval std::array<std::string_view, A + B> concat(const std::array<std::string_view, A>& a,
                                                     const std::array<std::string_view, B>& b) {
  std::array<std::string_view, A + B> out{};
  for (size_t i = 0; i < A; ++i) out[i] = a[i];
  for (size_t i = 0; i < B; ++i) out[A + i] = b[i];
  return out;
}
}  // namespace detail

// Writer only: the strings, then the numbers.
inline constexpr auto kGlobalTokens = detail::concat(kGlobalStrings, kGlobalNumbers);
// Writer only: printed in compressed size form.
inline constexpr std::array<std::string_view, 5> kGlobalRadixTokens = {
    "BufferCacheSize", "JournalSize", "FsBlockSize", "InodeCacheSize", "MaxLogSize"};
// Writer only: printed in octal.
inline constexpr std::array<std::string_view, 2> kGlobalOctalTokens = {
    "UnixFileCreationModeOnWindows", "UnixDirectoryCreationModeOnWindows"};

inline constexpr std::array<std::string_view, 6> kStripeBooleans = {"Exclusive", "Metadata", "Journal",
                                                                    "Status",    "Read",     "Write"};
inline constexpr std::array<std::string_view, 8> kStripeNumbers = {
    "StripeClusters", "BWMFields",   "StripeBreadth", "Rtios",
    "Rtmb",           "RtiosReserve", "RtmbReserve",  "RtTokenTimeout"};
inline constexpr std::array<std::string_view, 3> kStripeStrings = {"StripeGroup", "Affinity",
                                                                   "MultiPathMethod"};

// Keys whose value may stand between double quotes.
inline constexpr std::array<std::string_view, 5> kQuotedStrings = {"Disk", "DiskType", "Affinity",
                                                                   "StripeGroup", "Type"};

// The only characters a value can hold, as the reader takes it.
inline constexpr std::string_view kAlphanumericExtended =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ1234567890_.-";

template <size_t N>
constexpr bool listContains(const std::array<std::string_view, N>& list, std::string_view key) {
  for (std::string_view k : list)
    if (k == key) return true;
  return false;
}

}  // namespace velm::config
