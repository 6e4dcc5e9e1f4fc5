// DeviceRegistry: the SCSI targets and logical units this machine sees, as nodes read from sysfs
// (VELM_SYSFS). A Fibre Channel target is the fc_transport targets sharing one node name (its
// WWNN), with one path per FCP-target remote port; a logical unit is (WWNN, LUN) while any path
// shows it. SAS, iSCSI and other SCSI targets are nodes of their own, without a node name.
// Changes are found by rescanning: udev events and a 5 s timer on the event loop.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <unordered_map>
#include <vector>

#include "plist/plist.h"

namespace velm {

class EventLoop;

inline constexpr std::string_view kDevScsiTargetDevice = "DevScsiTargetDevice";
inline constexpr std::string_view kDevScsiLogicalUnitNub = "DevScsiLogicalUnitNub";
// The message a node's subscribers get when its properties changed.
inline constexpr std::uint32_t kDevMessageServicePropertyChange = 0xE0000130;
inline constexpr std::uint64_t kDeviceRescanMicros = 5'000'000;

// Keys of the properties.
inline constexpr std::string_view kProtocolCharacteristics = "Protocol Characteristics";
inline constexpr std::string_view kPhysicalInterconnect = "Physical Interconnect";
inline constexpr std::string_view kNodeWorldWideName = "Node World Wide Name";
inline constexpr std::string_view kScsiLogicalUnitNumber = "SCSI Logical Unit Number";
inline constexpr std::string_view kPathStatistics = "Path Statistics";
inline constexpr std::string_view kPortStatus = "Port Status";
inline constexpr std::string_view kScsiDomainIdentifier = "SCSI Domain Identifier";
inline constexpr std::string_view kBytesReceived = "Bytes Received";
inline constexpr std::string_view kBytesTransmitted = "Bytes Transmitted";

class DeviceNode {
 public:
  enum Kind { kFcTarget, kScsiTarget, kFcUnit, kScsiUnit };
  const std::string& id() const { return id_; }
  Kind kind() const { return kind_; }
  std::string_view className() const;
  // Set when the node left the tree: it reads as having no properties from then on.
  bool terminated() const { return terminated_.load(); }

 private:
  friend class DeviceRegistry;
  std::string id_;
  Kind kind_ = kFcTarget;
  std::uint64_t wwnn_ = 0;                   // FC nodes
  int host_ = 0, channel_ = 0, target_ = 0;  // SCSI nodes (and the H of a SCSI unit)
  std::uint64_t lun_ = 0;                    // units
  std::string interconnect_;
  std::atomic<bool> terminated_{false};
};
using DeviceNodeRef = std::shared_ptr<DeviceNode>;

class DeviceRegistry {
 public:
  using NodesCallback = std::function<void(const std::vector<DeviceNodeRef>&)>;
  using MessageCallback = std::function<void(const DeviceNodeRef&, std::uint32_t type)>;

  DeviceRegistry();
  ~DeviceRegistry();
  DeviceRegistry(const DeviceRegistry&) = delete;
  DeviceRegistry& operator=(const DeviceRegistry&) = delete;

  // First-match and terminate notifications of a class: the nodes that match now are returned
  // (the drain that arms it; none for terminate); later ones go to the callback, on the loop.
  std::vector<DeviceNodeRef> addFirstMatchNotification(std::string_view className,
                                                       NodesCallback callback);
  std::vector<DeviceNodeRef> addTerminateNotification(std::string_view className,
                                                      NodesCallback callback);
  // Messages about one node. False for a node that has terminated.
  bool addInterestNotification(const DeviceNodeRef& node, MessageCallback callback);

  // Rescans on udev events (scsi, fc_remote_ports, block) and every 5 s. False when not even the
  // timer could be set; no udev is logged once and the timer goes on alone.
  bool attach(EventLoop& loop);
  void detach();
  // A rescan now, on the caller's thread.
  void rescanForTest() { rescan(); }

  // A property as sysfs shows it now; nothing for a terminated node or a property it lacks.
  std::optional<PropertyList> property(const DeviceNode& node, std::string_view key) const;
  static bool conformsTo(const DeviceNode& node, std::string_view className);

 private:
  struct Seen {
    DeviceNodeRef node;
    std::string paths;  // the FCP paths and their states, to notice a change
  };
  struct Subscription {
    std::string className;
    bool firstMatch;
    NodesCallback callback;
  };
  std::unordered_map<std::string, Seen> scan() const;
  void rescan();
  void onTimer();
  // Sectors read and written of the disk of a unit directory H:C:T:L.
  std::optional<std::pair<std::uint64_t, std::uint64_t>> unitStat(const std::string& unitDir) const;

  // The node name each fc_transport target had at the last scan: an entry that can't be read now
  // keeps it, so a damaged file never loses a known target.
  mutable std::mutex knownMutex_;  // leaf
  mutable std::map<std::tuple<int, int, int>, std::uint64_t> knownNames_;
  // The FCP remote ports of each node name at the last scan, and the stat file of each unit
  // directory once found: a property read opens only what it needs.
  mutable std::map<std::uint64_t, std::vector<std::string>> portsOf_;
  mutable std::map<std::string, std::string> statOf_;
  mutable std::mutex mutex_;  // guards the members below; leaf, never held during a callback
  std::unordered_map<std::string, Seen> present_;
  std::vector<Subscription> subscriptions_;
  std::multimap<std::string, MessageCallback> interests_;  // node id -> callbacks
  EventLoop* loop_ = nullptr;
  struct Udev;
  std::unique_ptr<Udev> udev_;
  std::uint64_t udevId_ = 0, timer_ = 0;
  std::atomic<bool> scanning_{false};
};

// Parsers of sysfs texts, each nothing for text it can't read.
// "0x50060e8000c3a100\n" -> its value.
std::optional<std::uint64_t> parseSysfsHex(std::string_view text);
// "-1\n", "3\n" -> a signed decimal.
std::optional<long long> parseSysfsDecimal(std::string_view text);
// "targetH:C:T", "rport-H:C-N", "H:C:T:L": the numbers after the prefix.
std::optional<std::vector<long long>> parseScsiName(std::string_view name, std::string_view prefix,
                                                    std::string_view separators);
// Fields 3 and 7 of a block stat line (sectors read and written).
std::optional<std::pair<std::uint64_t, std::uint64_t>> parseBlockStat(std::string_view text);

}  // namespace velm
