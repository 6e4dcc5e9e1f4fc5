// VolumeEventService: the disks and file-system volumes this machine has, each as a description
// dictionary. On Linux, volumes of the SAN file system are its mounts (kind "qufs" in the mount
// table) and disks come from udev.
#pragma once

#include <string_view>
#include <vector>

#include "plist/plist.h"

namespace velm {

// Keys of a description.
namespace disk_description {
constexpr std::string_view kVolumeName = "VolumeName";  // string: the volume's name
constexpr std::string_view kVolumeKind = "VolumeKind";  // string: "qufs", "ext4", ...
constexpr std::string_view kVolumePath = "VolumePath";  // string: file URL of the mount point
constexpr std::string_view kVolumeWritable = "VolumeWritable";  // boolean: mounted read-write
constexpr std::string_view kMediaContent = "MediaContent";      // string: partition table type
constexpr std::string_view kDeviceNode = "DeviceNode";  // string: /dev/sdb, or a mount's source
constexpr std::string_view kMountID = "MountID";        // integer: the kernel's mount id
}  // namespace disk_description

class VolumeEventService {
 public:
  virtual ~VolumeEventService() = default;
  // Every disk and mounted volume present now, one description each: the events a fresh session
  // reports before it goes idle.
  virtual std::vector<PropertyList> presentDisks() = 0;
  // Those of presentDisks() whose volume kind is kind.
  virtual std::vector<PropertyList> presentVolumesOfKind(std::string_view kind);
};

// The service in force: the Linux one unless a test installed another (caller keeps it).
VolumeEventService& volumeEventService();
void setVolumeEventServiceForTest(VolumeEventService* service);

// The descriptions of the SAN volumes mounted now, from the mount table alone.
std::vector<PropertyList> mountedVolumeDescriptions();

}  // namespace velm
