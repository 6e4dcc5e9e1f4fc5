// The commands getVolumeState and setVolumeState.
#include <arpa/inet.h>
#include <netdb.h>

#include <set>

#include "adminhost/host_common.h"
#include "config/config_parser.h"
#include "core/velm_plugin.h"
#include "gateway/san_filesystem.h"
#include "model/plugin_status.h"
#include "platform/clock.h"
#include "platform/log.h"
#include "volumes/volume_inspection.h"
#include "volumes/volume_state.h"

namespace velm {
namespace {

// A later code never replaces an earlier non-zero one.
void keepFirst(int& status, int code) {
  if (status == 0) status = code;
}

const PropertyList* volumeStatsOf(const std::optional<PropertyList>& volume) {
  return volume ? volume->get("VolumeStats") : nullptr;
}

// Standbys first, the primary last, then a short wait for the volume to go down everywhere.
int stopPart(int handle, const std::string& name) {
  const char* fn = "setVolumeState";
  int status = 0;
  NLog("%s(%@): Attempting to stop volume", fn, name);
  std::vector<std::string> addresses = active_or_standby_ips_for_volume(handle, &name);
  std::optional<PropertyList> volume = get_fsmvol_named(handle, &name);
  const PropertyList* stats = volumeStatsOf(volume);
  std::optional<std::string> primary;
  std::set<std::string> primaryAddresses;
  if (const std::string* host = stats ? stats->getString("Host") : nullptr) {
    primary = *host;
    NLog("%s(%@): %@ is our primary target to eventually stop", fn, name, *host);
    primaryAddresses = addresses_of_host(*host);
  }
  for (const std::string& address : addresses) {
    if (address.empty()) continue;
    if (primaryAddresses.count(address)) {
      NLog("%s(%@): Skipping the stop on host %@, as it is the primary", fn, name, address);
      primary = address;
      continue;
    }
    keepFirst(status, stop_volume_on_specific_ip(&name, address));
  }
  if (primary) {
    NLog("%s(%@): Now that we've stopped the standbys, we will stop on %@", fn, name, *primary);
    keepFirst(status, stop_volume_on_specific_ip(&name, *primary));
  }
  for (int pass = 0; pass < 10; ++pass) {
    if (is_volume_stopped(handle, &name)) break;
    clock().sleepSeconds(1);
  }
  return status;
}

// Standby on every controller of the volume, then activation on this machine.
int startPart(const std::string& name) {
  int status = 0;
  std::vector<std::string> controllers =
      SANConfigParser::sanIPsForVolume(name).value_or(std::vector<std::string>{});
  PropertyList mine = get_host_ips();
  std::vector<std::string> mineTexts = arrayStrings(&mine);
  std::optional<std::string> primary;
  for (const std::string& address : controllers) {
    for (const std::string& own : mineTexts) {
      if (address == own && !primary) primary = address;
    }
  }
  for (const std::string& address : controllers) {
    if (address.empty()) continue;
    keepFirst(status, standby_volume_by_host(&name, mine, address));
  }
  // Deliberate: with no address of this machine there is no primary, and the activation fails
  // at its first step.
  keepFirst(status, activate_volume_by_host(&name, primary ? &*primary : nullptr));
  return status;
}

}  // namespace

std::optional<PropertyList> VelmPlugin::getVolumeStateWithRequest(const PropertyList& request) {
  const std::string* name = request.getString("name");
  if (!name) {
    NError("No name passed into getVolumeState");
    return PropertyList::dict();
  }
  int handle = open_fs_connection();
  bool enabled = is_volume_enabled(handle, name);
  const std::string* variant = request.getString("variant");
  PropertyList response = PropertyList::dict();
  if (variant && variant->starts_with("withDetails")) {
    std::optional<PropertyList> volume = get_fsmvol_named(handle, name);
    close_fs_connection(handle);
    const PropertyList* stats = volumeStatsOf(volume);
    const std::string* host = stats ? stats->getString("Host") : nullptr;
    const std::string* address = stats ? stats->getString("IPAddress") : nullptr;
    bool running = enabled || (host && !host->empty());
    response.set("state", running ? "RUNNING" : "STOPPED");
    response.set("volumeInfo", volume ? *volume : PropertyList::dict());
    response.set("hostIPAddress", address ? *address : std::string());
    response.set("name", *name);
    response.set("lumexSearchLevel",
                 SANFilesystem::localFilesystem().lumexSearchLevelForVolume(*name));
    return response;
  }
  // Deliberate: this path keeps its reference on the shared connection; the count absorbs it.
  response.set("state", enabled ? "RUNNING" : "STOPPED");
  return response;
}

std::optional<PropertyList> VelmPlugin::setVolumeStateWithRequest(const PropertyList& request) {
  const std::string* name = request.getString("name");
  if (!name) {
    NError("No name passed into setVolumeState");
    return PropertyList::dict();
  }
  if (checkForLongTask(*name)) {
    PropertyList busy = PropertyList::dict();
    busy.set("status", kStatusLongTaskRunning);
    return busy;
  }
  int handle = open_fs_connection();
  int status = handle < 0 ? kStatusNoLocalPortMapper : 0;
  std::optional<PropertyList> local = get_local_fsmvol_named(handle, name);
  const PropertyList* localStats = volumeStatsOf(local);
  const PropertyList* pidValue = localStats ? localStats->get("ProcessID") : nullptr;
  long long pid = pidValue ? pidValue->int64Value().value_or(-1) : -1;

  const std::string* stateText = request.getString("state");
  std::string_view wanted = stateText ? std::string_view(*stateText) : std::string_view();
  bool fail = wanted == "FAIL";
  if (fail) keepFirst(status, fail_fsmvol_named(handle, name));
  if (wanted == "STOP" || wanted == "RESTART") keepFirst(status, stopPart(handle, *name));
  if (wanted == "START" || wanted == "RESTART") keepFirst(status, startPart(*name));
  // Any other state does what RECYCLE does: nothing but the answer.
  if (!fail) NLog("%s(%@): Status from start/stop is %d", "setVolumeState", *name, status);

  std::optional<PropertyList> response = getVolumeStateWithRequest(request);
  if (!response) response = PropertyList::dict();
  response->set("status", status);
  close_fs_connection(handle);

  if (wanted == "STOP") {
    bool gone = false;
    for (int pass = 0; pass < 16 && !gone; ++pass) {
      gone = pid <= 0 || pid > 0x7fffffff || !ec_check_process_by_pid(static_cast<int>(pid));
      if (!gone) clock().sleepMicros(250000);
    }
    if (!gone) NError("%s: fsm didn't exit for volume %@", "setVolumeState", *name);
  }
  return response;
}

}  // namespace velm
