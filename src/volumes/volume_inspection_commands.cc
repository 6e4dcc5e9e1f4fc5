// The commands getVolumes, getMounts, mountVolume, getLogPaths and getMountOptions.
#include "core/san_computer.h"
#include "core/velm_plugin.h"
#include "gateway/san_filesystem.h"
#include "model/plugin_status.h"
#include "platform/entry_name.h"
#include "platform/files.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "plist/format.h"
#include "volumes/volume_inspection.h"
#include "volumes/volume_state.h"

namespace velm {

std::optional<PropertyList> VelmPlugin::getVolumesWithRequest(const PropertyList&) {
  PropertyList response = PropertyList::dict();
  const PropertyList* volumes = SANFilesystem::localFilesystem().cachedValueForKey("volumes");
  response.set("volumes", volumes ? *volumes : PropertyList::array());
  return response;
}

std::optional<PropertyList> VelmPlugin::getMountsWithRequest(const PropertyList& request) {
  const std::string* name = request.getString("name");
  if (!name) {
    NError("No name passed into getMounts");
    return PropertyList::dict();
  }
  int handle = open_fs_connection();
  std::optional<PropertyList> mounts;
  if (handle >= 0) mounts = get_clients_for_fsmvol_named(handle, name);
  // Deliberate: the connection's reference is not given back; the shared slot's count absorbs it.
  PropertyList response = PropertyList::dict();
  response.set("mounts", mounts ? *mounts : PropertyList::array());
  response.set("name", *name);
  response.set("status", handle < 0 ? kStatusNoLocalPortMapper : 0);
  return response;
}

std::optional<PropertyList> VelmPlugin::mountVolumeWithRequest(const PropertyList& request) {
  const std::string* name = request.getString("name");
  const PropertyList* show = request.get("showVolume");
  long long wanted = show ? show->int64Value().value_or(0) : 0;
  // A state past read-write (or below none) is no request at all.
  if (!name || wanted < 0 || wanted >= 3) return std::nullopt;
  const PropertyList* forgetValue = request.get("forgetVolume");
  bool forget = forgetValue && forgetValue->boolValue();
  const PropertyList* options = request.get("mountOptions");
  if (options && !options->isDict()) options = nullptr;

  SANFilesystem& fs = SANFilesystem::localFilesystem();
  int present = fs.volumeMountState(*name);
  int errorCode = 0;
  if (wanted != present || forget) {
    if (forget || wanted == 0 || present != 0) errorCode = fs.unmountVolumeNamed(*name, forget);
    if (errorCode == 0 && wanted != 0) errorCode = fs.mountVolumeNamed(*name, wanted == 2, options);
  }
  PropertyList response = PropertyList::dict();
  response.set("name", *name);
  response.set("access", fs.volumeMountState(*name));
  response.set("errorCode", errorCode);
  PropertyList uuid = SANComputer::thisComputer().uuid();
  if (!uuid.isNull()) response.set("computerUUID", uuid);
  return response;
}

std::optional<PropertyList> VelmPlugin::getLogPathsWithRequest(const PropertyList&) {
  PropertyList response = PropertyList::dict();
  response.set("systemLog", hostPath("/var/log/system.log"));
  response.set("fsmpmDebugLog", hostPath("/Library/Filesystems/Velm/debug/nssdbg.out"));
  if (!SANComputer::thisComputer().isController()) return response;
  const PropertyList* volumes = SANFilesystem::localFilesystem().cachedValueForKey("volumes");
  if (const PlistArray* list = volumes ? volumes->asArray() : nullptr) {
    for (const PropertyList& volume : *list) {
      const std::string* volumeName = volume.getString("Name");
      if (!volumeName || !checkEntryName(__func__, "the volume name", *volumeName)) continue;
      std::string path =
          hostPath(format("/Library/Filesystems/Velm/data/%@/log/drlog", *volumeName));
      if (pathExists(path)) response.set(format("volumeLog:%@", *volumeName), path);
    }
  }
  return response;
}

std::optional<PropertyList> VelmPlugin::getMountOptionsWithRequest(const PropertyList& request) {
  const std::string* name = request.getString("name");
  if (!name) {
    NError("No name passed to getMountOptions");
    return PropertyList::dict();
  }
  PropertyList options = PropertyList::dict();
  if (std::optional<PropertyList> automount = readDictionaryFile(configPath("automount.plist"))) {
    const PropertyList* volume = automount->get(*name);
    const PropertyList* found = volume ? volume->get("MountOptions") : nullptr;
    if (found && found->isDict()) options = *found;
  }
  PropertyList response = PropertyList::dict();
  response.set("name", *name);
  response.set("MountOptions", options);
  return response;
}

}  // namespace velm
