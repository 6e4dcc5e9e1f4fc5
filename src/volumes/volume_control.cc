// Start, stop, standby, activation and fail-over of a volume's FSMs, through the port mapper of
// each controller. The waits are those the file-system services need: a second between tries,
// up to 40 tries, all on the clock seam and inside the QMAdmin lock.
#include "adminhost/host_common.h"
#include "adminlib/qmadminlib.h"
#include "adminlib/subr2.h"
#include "gateway/qmadmin.h"
#include "model/plugin_status.h"
#include "platform/clock.h"
#include "platform/log.h"
#include "volumes/long_tasks.h"
#include "volumes/volume_state.h"

namespace velm {
namespace {

constexpr int kTries = 40;

const char* text(const std::string* s) { return s ? s->c_str() : nullptr; }

// This machine's names for the shotgun: its addresses, then "127.0.0.1" and "localhost".
std::vector<std::string> localNames() {
  std::vector<std::string> names;
  PropertyList ips = get_host_ips();
  for (const PropertyList& ip : *ips.asArray()) {
    if (const std::string* s = ip.asString()) names.push_back(*s);
  }
  names.push_back("127.0.0.1");
  names.push_back("localhost");
  return names;
}

bool isIn(const std::vector<std::string>& list, const std::string& item) {
  for (const std::string& s : list) {
    if (s == item) return true;
  }
  return false;
}

}  // namespace

int fail_fsmvol_named(int handle, const std::string* name) {
  QMAdminLock lock(__func__);
  char err[ADMIN_ERRBUF_LEN] = {};
  int status = QMAdmin_FSMStop(handle, name ? name->c_str() : "", 1, err);
  if (status == 0) {
    NLog("%s: fail-over of '%@' successful...", __func__, text(name));
    return 0;
  }
  log_qmfs_error(status, __func__);
  return kStatusFailoverFailed;
}

int standby_volume_on_specific_ip(const std::string* name, const std::string& address) {
  QMAdminLock lock(__func__);
  int handle = open_proxy_fs_connection(address);
  // An unreachable controller is left out of a start; it is no error.
  if (handle < 0) return 0;
  int state = state_of_volume_on_host(handle, name, PropertyList(address));
  if (state == STATE_INACTIVE || state == STATE_ACTIVE) {
    NLog("%s(%@): The volume is already started (in standby or activated)", __func__, text(name));
    close_fs_connection(handle);
    return 0;
  }
  char err[ADMIN_ERRBUF_LEN] = {};
  int status = QMAdmin_FSMStart(handle, name ? name->c_str() : "", address.c_str(), err);
  close_fs_connection(handle);
  if (status != 0) {
    log_qmfs_error(status, __func__);
    NError("%s(%@): Could not start on %@: %s (status %d)", __func__, text(name), address, err,
           status);
    return kStatusStandbyFailed;
  }
  if (name) delete_volume_update_status_file(*name);
  return 0;
}

int stop_volume_on_specific_ip(const std::string* name, const std::string& address) {
  QMAdminLock lock(__func__);
  int handle = open_proxy_fs_connection(address);
  if (handle < 0) {
    NError("%s(%s): Couldn't open proxy connection to %s", __func__, text(name), address);
    return kStatusNoConnectionToController;
  }
  PropertyList target(address);
  int state = state_of_volume_on_host(handle, name, target);
  if (state == STATE_DOWN) {
    NLog("%s(%@): Not stopping, state is already down", __func__, text(name));
    // Deliberate: the connection's reference stays open here; the shared slot absorbs it.
    return 0;
  }
  std::vector<std::string> mine = localNames();
  bool targetIsLocal = isIn(mine, address);
  const char* fsname = name ? name->c_str() : "";
  char err[ADMIN_ERRBUF_LEN] = {};
  int status = 0;
  for (int attempt = 0; attempt < kTries; ++attempt) {
    if (attempt > 0) clock().sleepSeconds(1);
    NLog("%s: Calling FSMStopByHost(%d, %s, %s) try %d, state is %d", __func__, handle, fsname,
         address, attempt, state);
    status = QMAdmin_FSMStopByHost(handle, fsname, address.c_str(), err);
    if (status != 0) log_qmfs_error(status, __func__);
    if (status == QMFS_ENOENT && targetIsLocal) {
      // The FSM may be registered under another of this machine's addresses.
      NLog("%s: Trying other local IPs", __func__);
      for (const std::string& other : mine) {
        NLog("%s: Shotgun stop %@", __func__, other);
        char ignored[ADMIN_ERRBUF_LEN] = {};
        QMAdmin_FSMStopByHost(handle, fsname, other.c_str(), ignored);
      }
      status = 0;
    }
    state = state_of_volume_on_host(handle, name, target);
    if (state == STATE_DOWN) break;
  }
  close_fs_connection(handle);
  if (state == STATE_DOWN && status == 0) {
    NLog("%s: Stopped volume %s on host %s", __func__, fsname, address);
    return 0;
  }
  NError("%s: Could not stop %s on %s: %s (status %d)", __func__, fsname, address, err, status);
  return kStatusStopFailed;
}

int standby_volume_by_host(const std::string* name, const PropertyList& localAddresses,
                           const std::string& target) {
  QMAdminLock lock(__func__);
  int handle = open_fs_connection();
  if (handle < 0) {
    NLog("standby_volume_by_host_on_correct_nic: Could not get fs connection");
    return 0;
  }
  std::optional<std::string> running = ip_of_active_volume_on_host(handle, name, localAddresses);
  if (running && *running == target) {
    NLog("%s(%@): Volume is already running on %@, nothing to do", __func__, text(name), target);
    close_fs_connection(handle);
    return 0;
  }
  if (running) {
    // Deliberate: also for a target on another controller, this machine's own FSM is stopped
    // first; a start has always brought the volume up this way.
    int stopped = stop_volume_on_specific_ip(name, *running);
    NLog("%s(%@): stop on %@ gave %d", __func__, text(name), *running, stopped);
    for (int pass = 0; pass < kTries; ++pass) {
      if (state_of_volume_on_host(handle, name, PropertyList(*running)) == STATE_DOWN) break;
      clock().sleepSeconds(1);
    }
    NLog("%s(%@): Stopped volume on %@, bring up to standby on %@", __func__, text(name), *running,
         target);
    close_fs_connection(handle);
  } else {
    NLog("%s(%@): Volume is not running on %@, bringing volume to standby", __func__, text(name),
         target);
    close_fs_connection(handle);
  }
  return standby_volume_on_specific_ip(name, target);
}

int activate_volume_by_host(const std::string* name, const std::string* address) {
  QMAdminLock lock(__func__);
  int handle = open_proxy_fs_connection(address);
  if (handle < 0) return kStatusStandbyFailed;
  PropertyList target(*address);
  for (int pass = 0; pass < kTries; ++pass) {
    if (pass > 0) clock().sleepSeconds(1);
    NLog("%s(%@): Waiting %d seconds for volume to start", __func__, text(name), pass);
    int state = state_of_volume_on_host(handle, name, target);
    if (state == STATE_INACTIVE) {
      NLog("%s(%@): current_state is STATE_INACTIVE  - continuing!", __func__, text(name));
      break;
    }
    if (state == STATE_ACTIVE) {
      NLog("%s(%@): current_state is STATE_ACTIVE - continuing!", __func__, text(name));
      break;
    }
    NLog("%s(%@): current_state is STATE_DOWN... waiting longer", __func__, text(name));
  }
  std::vector<std::string> mine = localNames();
  bool targetIsLocal = isIn(mine, *address);
  const char* fsname = name ? name->c_str() : "";
  char err[ADMIN_ERRBUF_LEN] = {};
  int status = 0;
  for (int attempt = 0; attempt < kTries; ++attempt) {
    if (attempt > 0) clock().sleepSeconds(1);
    status = QMAdmin_FSMActivate(handle, fsname, address->c_str(), err);
    if (status == 0) break;
    NLog("%s(%@): Could not activate on %@ after %d seconds.  Trying again.", __func__, text(name),
         *address, attempt);
    if (status == QMFS_ENOENT && targetIsLocal) {
      NLog("%s: Trying other local IPs", __func__);
      for (const std::string& other : mine) {
        NLog("%s: Shotgun activate %@", __func__, other);
        char ignored[ADMIN_ERRBUF_LEN] = {};
        QMAdmin_FSMActivate(handle, fsname, other.c_str(), ignored);
      }
      status = 0;
      break;
    }
  }
  if (status != 0) {
    log_qmfs_error(status, __func__);
    NError("%s(%@): Could not activate on %@ (status %d)", __func__, text(name), *address, status);
    close_fs_connection(handle);
    return kStatusStandbyFailed;
  }
  NLog("%s(%@): Waiting for activation to finish on ANY host", __func__, text(name));
  for (int pass = 0; pass < kTries; ++pass) {
    if (state_of_volume(handle, name) == STATE_ACTIVE) {
      NLog("%s(%@): Finished activation!", __func__, text(name));
      close_fs_connection(handle);
      if (name) delete_volume_update_status_file(*name);
      return 0;
    }
    NLog("%s(%@): Waited %d seconds for activation, trying to activate again", __func__, text(name),
         pass);
    char ignored[ADMIN_ERRBUF_LEN] = {};
    QMAdmin_FSMActivate(handle, fsname, address->c_str(), ignored);
    clock().sleepSeconds(1);
  }
  close_fs_connection(handle);
  NError("%s(%@): Waited for activation but it never happened", __func__, text(name));
  return kStatusStandbyFailed;
}

}  // namespace velm
