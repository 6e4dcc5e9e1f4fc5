#include <libudev.h>

#include <memory>
#include <string>

#include "platform/files.h"
#include "platform/mounts.h"
#include "platform/paths.h"
#include "platform/volume_events.h"

namespace velm {
namespace {

constexpr std::string_view kVolumeKind = "qufs";

PropertyList descriptionOfMount(const MountEntry& m) {
  namespace d = disk_description;
  PropertyList desc = PropertyList::dict();
  std::string_view source = m.source;
  size_t slash = source.find_last_of('/');
  std::string_view name = slash == std::string_view::npos ? source : source.substr(slash + 1);
  if (!name.empty()) desc.set(std::string(d::kVolumeName), name);
  desc.set(std::string(d::kVolumeKind), m.fsType);
  desc.set(std::string(d::kVolumePath), fileURLForPath(m.mountPoint));
  desc.set(std::string(d::kVolumeWritable), !m.readOnly());
  desc.set(std::string(d::kDeviceNode), m.source);
  desc.set(std::string(d::kMountID), m.mountId);
  return desc;
}

std::vector<PropertyList> volumesIn(const std::vector<MountEntry>& mounts) {
  std::vector<PropertyList> out;
  for (const MountEntry& m : mounts) {
    if (m.fsType == kVolumeKind) out.push_back(descriptionOfMount(m));
  }
  return out;
}

struct UdevDeleter {
  void operator()(udev* u) const { udev_unref(u); }
  void operator()(udev_enumerate* e) const { udev_enumerate_unref(e); }
  void operator()(udev_device* d) const { udev_device_unref(d); }
};

bool skippedDisk(std::string_view name) {
  return name.starts_with("loop") || name.starts_with("ram") || name.starts_with("zram");
}

// Whole disks from udev, each with the mount (if any) whose device numbers are the disk's.
void appendUdevDisks(const std::vector<MountEntry>& mounts, std::vector<PropertyList>& out) {
  namespace d = disk_description;
  std::unique_ptr<udev, UdevDeleter> u(udev_new());
  if (!u) return;
  std::unique_ptr<udev_enumerate, UdevDeleter> e(udev_enumerate_new(u.get()));
  if (!e) return;
  udev_enumerate_add_match_subsystem(e.get(), "block");
  udev_enumerate_add_match_property(e.get(), "DEVTYPE", "disk");
  if (udev_enumerate_scan_devices(e.get()) < 0) return;
  for (udev_list_entry* it = udev_enumerate_get_list_entry(e.get()); it;
       it = udev_list_entry_get_next(it)) {
    std::unique_ptr<udev_device, UdevDeleter> dev(
        udev_device_new_from_syspath(u.get(), udev_list_entry_get_name(it)));
    if (!dev) continue;
    const char* sysname = udev_device_get_sysname(dev.get());
    if (!sysname || skippedDisk(sysname)) continue;
    PropertyList desc = PropertyList::dict();
    auto copy = [&](std::string_view key, const char* property) {
      if (const char* v = udev_device_get_property_value(dev.get(), property))
        desc.set(std::string(key), v);
    };
    copy(d::kVolumeKind, "ID_FS_TYPE");
    copy(d::kVolumeName, "ID_FS_LABEL");
    copy(d::kMediaContent, "ID_PART_TABLE_TYPE");
    if (const char* node = udev_device_get_devnode(dev.get()))
      desc.set(std::string(d::kDeviceNode), node);
    dev_t number = udev_device_get_devnum(dev.get());
    std::string majorMinor = std::to_string(major(number)) + ":" + std::to_string(minor(number));
    for (const MountEntry& m : mounts) {
      if (m.majorMinor == majorMinor) {
        desc.set(std::string(d::kVolumePath), fileURLForPath(m.mountPoint));
        desc.set(std::string(d::kVolumeWritable), !m.readOnly());
        break;
      }
    }
    out.push_back(std::move(desc));
  }
}

class LinuxVolumeEventService : public VolumeEventService {
 public:
  std::vector<PropertyList> presentDisks() override {
    std::vector<MountEntry> mounts = readMountInfo();
    std::vector<PropertyList> out = volumesIn(mounts);
    appendUdevDisks(mounts, out);
    return out;
  }
  // The file system's volumes are mounts: no need to walk every disk for them.
  std::vector<PropertyList> presentVolumesOfKind(std::string_view kind) override {
    if (kind == kVolumeKind) return volumesIn(readMountInfo());
    return VolumeEventService::presentVolumesOfKind(kind);
  }
};

VolumeEventService* gOverride = nullptr;

}  // namespace

std::vector<PropertyList> VolumeEventService::presentVolumesOfKind(std::string_view kind) {
  std::vector<PropertyList> out;
  for (PropertyList& d : presentDisks()) {
    const std::string* k = d.getString(disk_description::kVolumeKind);
    if (k && *k == kind) out.push_back(std::move(d));
  }
  return out;
}

std::vector<PropertyList> mountedVolumeDescriptions() { return volumesIn(readMountInfo()); }

VolumeEventService& volumeEventService() {
  static LinuxVolumeEventService linuxService;
  return gOverride ? *gOverride : linuxService;
}

void setVolumeEventServiceForTest(VolumeEventService* service) { gOverride = service; }

}  // namespace velm
