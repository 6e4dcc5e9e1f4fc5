// The commands addVolumes, deleteVolumes and reinitializeVolumes, and the format and check tools.
// A command changes only this machine's files: a volume on several controllers takes one command
// on each.
#include <arpa/inet.h>
#include <netdb.h>

#include <filesystem>
#include <set>

#include "adminhost/history_store.h"
#include "adminhost/host_common.h"
#include "config/config_parser.h"
#include "core/san_computer.h"
#include "core/velm_plugin.h"
#include "gateway/san_filesystem.h"
#include "model/plugin_status.h"
#include "platform/clock.h"
#include "platform/entry_name.h"
#include "platform/files.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "platform/string_additions.h"
#include "plist/format.h"
#include "volumes/command_support.h"
#include "volumes/volume_inspection.h"
#include "volumes/volume_state.h"

namespace velm {
namespace {

constexpr std::string_view kFormatTool = "/Library/Filesystems/Velm/bin/drmkfs";
constexpr std::string_view kCheckTool = "/Library/Filesystems/Velm/bin/drfsck";
constexpr int kRefused = 22;
constexpr int kExists = 17;

}  // namespace

int initialize_volume_named(const std::string* volume, const std::string* affinity) {
  if (!volume) {
    NError("initialize_volume_named: volumeName == nil!");
    return kStatusInitializeFailed;
  }
  NLog("initialize_volume_named: Running drmkfs on volume %@.", *volume);
  std::vector<std::string> args;
  if (affinity && !affinity->empty()) args.insert(args.end(), {"-a", *affinity});
  args.insert(args.end(), {"-F", *volume});
  LaunchResult r = launch_task(hostPath(kFormatTool), args);
  bool failed = r.status != 0;
  for (std::string_view word : {"error", "Fatal", "Critical"}) {
    failed = failed || r.output.find(word) != std::string::npos;
  }
  if (!failed) return 0;
  NError(
      "initialize_volume_named(%@): drmkfs had an error (status %d).  Output: [%@].  Error: [%@]",
      *volume, r.status, r.output, r.error);
  return kStatusInitializeFailed;
}

int fsck_volume_named(const std::string* volume) {
  if (!volume) {
    NError("%s: volumeName == nil!", __func__);
    return kStatusCheckFailed;
  }
  if (!checkEntryName(__func__, "the volume name", *volume)) return kStatusCheckFailed;
  NLog("%s: Running drfsck on volume '%@'", __func__, *volume);
  LaunchResult r = launch_task(hostPath(kCheckTool), {"-w", *volume});
  std::string log = hostPath(format("/var/run/velm_drfsck_%@.log", *volume));
  std::string error = hostPath(format("/var/run/velm_drfsck_%@.error", *volume));
  makeDirectories(hostPath("/var/run"));
  writeFileAtomically(log, r.output);
  writeFileAtomically(error, r.error);
  if (r.status == 0) {
    NLog("%s: drfsck for volume '%@' succeeded and made no changes", __func__, *volume);
    return 0;
  }
  if (r.status == 1) {
    NLog("%s: drfsck for volume '%@' succeeded; file system modified", __func__, *volume);
    return 0;
  }
  NError(
      "%s: drfsck for volume '%@' failed with exit status %d; see '%@' and '%@' for more "
      "information",
      __func__, *volume, r.status, log, error);
  return kStatusCheckFailed;
}

std::optional<PropertyList> VelmPlugin::addVolumesWithRequest(const PropertyList& request) {
  const char* fn = "addVolumes";
  const PropertyList* volumes = request.get("volumes");
  bool initialize = requestFlag(request, "initialize");
  bool startLocally = requestFlag(request, "startLocally");
  std::string fsmlist = readFsmlist();
  std::set<std::string> mine = SANComputer::thisComputer().ipAddresses();
  PropertyList statuses = PropertyList::dict();
  std::vector<std::pair<std::string, std::string>> toStart;  // name, this machine's address
  bool added = false;

  if (const PlistArray* list = volumes ? volumes->asArray() : nullptr) {
    for (const PropertyList& volume : *list) {
      const std::string* name = volume.getString("Name");
      if (!name) {
        NError("%s: a volume without a name is left out", fn);
        continue;
      }
      if (!checkEntryName(fn, "the volume name", *name)) {
        statuses.set(*name, kRefused);
        continue;
      }
      if (SANConfigParser::configFileExistsForVolume(*name)) {
        // Nothing of the existing volume is touched.
        statuses.set(*name, kExists);
        continue;
      }
      std::unique_ptr<SANConfigParser> parser = SANConfigParser::parserWithDict(volume);
      // Deliberate: a failed write isn't looked at; the format (if asked) finds no file and fails.
      parser->writeConfiguration();
      int status = 0;
      if (initialize) {
        const std::string* affinity = volume.getString("DefaultAffinity");
        if (affinity) {
          NLog("%s: About to initialize %@ with root affinity '%@'", fn, *name, *affinity);
        } else {
          NLog("%s: About to initialize %@", fn, *name);
        }
        status = initialize_volume_named(name, affinity);
        NLog("%s: Done initializing %@ with status %d", fn, *name, status);
      }
      if (status != 0) {
        statuses.set(*name, status);
        parser->deleteConfiguration();
        continue;
      }
      added = true;
      statuses.set(*name, 0);
      std::vector<std::string> priority = arrayStrings(volume.get("FailoverPriority"));
      if (std::optional<size_t> index = ownFailoverIndex(priority, mine)) {
        fsmlist += fsmlistLine(*name, *index);
        toStart.emplace_back(*name, priority[*index]);
      }
    }
  }

  if (added) {
    writeFsmlist(fsmlist);
    SANFilesystem& fs = SANFilesystem::localFilesystem();
    fs.sanConfigChanged();
    fs.clearCache();
    PropertyList hostIps = get_host_ips();
    for (const auto& [name, address] : toStart) {
      if (startLocally) {
        NLog("%s: starting volume '%@' locally per request...", fn, name);
      } else if (fs.isRunningVolumeNamed(name)) {
        NLog("%s: volume '%@' is running elsewhere; starting locally...", fn, name);
      } else {
        NLog("%s: volume '%@' is not running anywhere; won't try to start it locally...", fn, name);
        continue;
      }
      // Its result does not reach the response.
      standby_volume_by_host(&name, hostIps, address);
    }
  }
  return responseWithVolumes(std::move(statuses));
}

std::optional<PropertyList> VelmPlugin::deleteVolumesWithRequest(const PropertyList& request) {
  const char* fn = "deleteVolumes";
  const PropertyList* namesValue = request.get("volumeNames");
  if (!namesValue || !namesValue->isArray() || namesValue->size() == 0) {
    NError("No volume names passed into deleteVolumes");
    return PropertyList::dict();
  }
  std::vector<std::string> names;
  int status = 0;
  for (const std::string& name : arrayStrings(namesValue)) {
    // A name that would reach outside the config directory is refused, and nothing of it is
    // touched.
    if (checkEntryName(fn, "the volume name", name)) {
      names.push_back(name);
    } else if (status == 0) {
      status = kRefused;
    }
  }
  for (const std::string& name : names) {
    if (checkForLongTask(name)) {
      PropertyList busy = PropertyList::dict();
      busy.set("status", kStatusLongTaskRunning);
      return busy;
    }
  }
  bool stopLocallyOnly = requestFlag(request, "stopLocallyOnly");
  // Deliberate: this connection is not closed by the command; the shared slot's count absorbs it.
  int handle = open_fs_connection();
  if (handle < 0 && status == 0) status = kStatusNoLocalPortMapper;
  std::vector<std::string> servers =
      splitLinesDroppingLastEmpty(readFile(configPath("fsnameservers")).value_or(""));
  SANComputer& computer = SANComputer::thisComputer();
  auto keep = [&status](int code) {
    if (status == 0) status = code;
  };

  for (const std::string& name : names) {
    NLog("%s(%@): Attempting to stop volume", fn, name);
    std::optional<PropertyList> volume = get_fsmvol_named(handle, &name);
    const PropertyList* stats = volume ? volume->get("VolumeStats") : nullptr;
    const std::string* primary = stats && stats->isDict() ? stats->getString("Host") : nullptr;
    NLog("%s(%@): %@ is our primary target to eventually stop", fn, name,
         primary ? primary->c_str() : nullptr);
    std::set<std::string> primaryAddresses =
        primary ? addresses_of_host(*primary) : std::set<std::string>{};
    for (const std::string& server : servers) {
      if (server.empty()) continue;
      if (primaryAddresses.count(server)) {
        NLog("%s(%@): Skipping the stop on host %@, as it is the primary", fn, name, server);
        continue;
      }
      if (stopLocallyOnly && !computer.hasIpAddressOrHostname(server)) {
        NLog("%s(%@): stopLocallyOnly and %@ is not one of our addresses, skipping...", fn, name,
             server);
        continue;
      }
      NLog("%s(%@): Stopping volume on host %@", fn, name, server);
      int stopped = stop_volume_on_specific_ip(&name, server);
      NLog("%s(%@): Stop volume by host %@ gave status %d", fn, name, server, stopped);
      keep(stopped);
    }
    if (primary) {
      NLog("%s(%@): Now that we've stopped the standbys, we will stop on %@", fn, name, *primary);
      if (stopLocallyOnly && !computer.hasIpAddressOrHostname(*primary)) {
        NLog("%s(%@): stopLocallyOnly and %@ is not one of our addresses, skipping...", fn, name,
             *primary);
      } else {
        int stopped = stop_volume_on_specific_ip(&name, *primary);
        NLog("%s(%@): Stop volume by primary host %@ gave status %d", fn, name, *primary, stopped);
        keep(stopped);
      }
    }
    for (int poll = 0; poll < 10; ++poll) {
      if (is_volume_stopped(handle, &name)) break;
      clock().sleepSeconds(1);
    }
  }

  // Lines are matched by their whole first word, so "alphabet" stays when "alpha" goes.
  std::set<std::string_view> gone(names.begin(), names.end());
  writeFsmlist(editFsmlistLines(readFsmlist(), [&gone](std::string_view line) {
    return gone.count(fsmlistVolumeName(line)) ? std::nullopt : std::optional<std::string>(line);
  }));

  SANFilesystem& fs = SANFilesystem::localFilesystem();
  fs.sanConfigChanged();
  for (const std::string& name : names) {
    std::error_code ec;
    for (const std::string& file :
         {name + ".cfg", name + "-auxdata.plist", name + ".cfg-old", name + "-auxdata.plist-old"}) {
      std::filesystem::remove(configPath(file), ec);
    }
    std::filesystem::remove_all(hostPath("/Library/Filesystems/Velm/data/" + name), ec);
    // Its history goes with it, not only at the next start.
    if (PropertyList* ctx = context(); ctx && ctx->isDict()) {
      purgeVolumeHistory(name, ctx);
      ctx->set("contextDirty", true);
    }
  }
  fs.clearCache();
  return responseWithVolumes(PropertyList(status));
}

std::optional<PropertyList> VelmPlugin::reinitializeVolumesWithRequest(
    const PropertyList& request) {
  const char* fn = "reinitializeVolumes";
  std::vector<std::string> names = arrayStrings(request.get("volumes"));
  for (const std::string& name : names) {
    if (refuseForLongTask(*this, fn, name)) {
      PropertyList busy = PropertyList::dict();
      busy.set("status", kStatusLongTaskRunning);
      return busy;
    }
  }
  int status = 0;
  SANFilesystem& fs = SANFilesystem::localFilesystem();
  for (const std::string& name : names) {
    if (!checkEntryName(fn, "the volume name", name)) {
      status = kRefused;
      continue;
    }
    if (!fs.doesExistVolumeNamed(name)) {
      NError("%s: Volume '%@' does not exist", fn, name);
      // Deliberate: an unknown volume replaces any earlier status.
      status = kStatusInitializeFailed;
      continue;
    }
    NLog("%s: About to re-initialize %@", fn, name);
    int result = initialize_volume_named(&name, nullptr);
    NLog("%s: Done re-initializing %@", fn, name);
    if (status == 0) status = result;
  }
  fs.clearCache();
  return responseWithVolumes(PropertyList(status));
}

}  // namespace velm
