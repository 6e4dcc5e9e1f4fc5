// Connections to the port mappers and the walks of their FSM list.
#include "volumes/volume_state.h"

#include <charconv>
#include <cstdlib>
#include <cstring>

#include "adminhost/host_common.h"
#include "adminlib/qmadminlib.h"
#include "adminlib/subr2.h"
#include "gateway/qmadmin.h"
#include "gateway/san_filesystem.h"
#include "platform/log.h"
#include "platform/string_additions.h"

namespace velm {
namespace {

// Set once the library was readied for the plugin; a process flag, as the library's own.
bool gLibraryReady = false;

const char* text(const std::string* s) { return s ? s->c_str() : nullptr; }

std::string addressText(const QMAdminFsmRecord& record) {
  return stringForIPv6Address(record.address.s6_addr).value_or("");
}

bool named(const QMAdminFsmRecord& record, const std::string* name) {
  return name && *name == std::string_view(record.name, ::strnlen(record.name, sizeof record.name));
}

// Calls visit(index, record) for each entry of the list until it returns false, the list ends or
// a request fails (logged, but for the end of the list).
template <typename Visit>
void walkFsmList(int handle, const char* fn, const std::string* name, Visit visit) {
  for (int index = 0; index < kMaxListWalk; ++index) {
    QMAdminFsmRecord record{};
    char err[ADMIN_ERRBUF_LEN] = {};
    int status = QMAdmin_NSListFsm(handle, index, &record, err);
    if (status != 0) {
      if (status != QMFS_EOF) {
        NError("%s(%@): QMAdmin_NSListFsm(%d) returned %d, error %s", fn, text(name), index, status,
               err);
        log_qmfs_error(status, fn);
      }
      return;
    }
    record.name[sizeof record.name - 1] = '\0';
    if (!visit(index, record)) return;
  }
}

std::vector<std::string> textsOf(const PropertyList& host) {
  std::vector<std::string> out;
  if (const std::string* s = host.asString()) {
    out.push_back(*s);
  } else {
    out = arrayStrings(&host);
  }
  return out;
}

bool contains(const std::vector<std::string>& list, std::string_view item) {
  for (const std::string& s : list) {
    if (s == item) return true;
  }
  return false;
}

}  // namespace

int probePort() {
  const char* env = std::getenv("VELM_PROBE_PORT");
  int port = 0;
  if (env && *env) {
    std::string_view v(env);
    auto [p, ec] = std::from_chars(v.data(), v.data() + v.size(), port);
    if (ec == std::errc() && p == v.data() + v.size() && port > 0 && port <= 65535) return port;
  }
  return 311;
}

std::vector<std::string> arrayStrings(const PropertyList* list) {
  std::vector<std::string> out;
  if (const PlistArray* a = list ? list->asArray() : nullptr) {
    for (const PropertyList& e : *a) {
      if (const std::string* s = e.asString()) out.push_back(*s);
    }
  }
  return out;
}

PropertyList localAddressList() {
  PropertyList list = get_host_ips();
  list.push("127.0.0.1");
  return list;
}

bool is_address_reachable(const std::string* address) {
  if (!address) return false;
  if (*address == "127.0.0.1" || *address == "localhost") return true;
  if (is_host_reachable(*address, probePort(), 5000)) return true;
  NLog("%s(%s): Address is not reachable", __func__, *address);
  return false;
}

int open_proxy_fs_connection(const std::string* address) {
  QMAdminLock lock(__func__);
  if (!is_address_reachable(address)) {
    NError("%s: QMFS Name Service connection to %s failed because it was not reachable", __func__,
           text(address));
    return -1;
  }
  if (!gLibraryReady) {
    NLog("%s: Initializing admin lib once per plugin using it", __func__);
    if (int status = QMAdmin_Init(); status != 0) log_qmfs_error(status, __func__);
    gLibraryReady = true;
  }
  char err[ADMIN_ERRBUF_LEN] = {};
  int handle = QMAdmin_NSConnect(address->c_str(), err);
  if (handle < 0)
    NError("%s: QMFS Name Service connection to %s failed: %s", __func__, *address, err);
  return handle;
}

int open_fs_connection() {
  if (!SANFilesystem::localFilesystem().isFsmpmRunning()) {
    NError("%s: %s is not running, cannot get connection", __func__, "fsmpm");
  }
  return open_proxy_fs_connection("127.0.0.1");
}

void close_fs_connection(int handle) {
  QMAdminLock lock(__func__);
  if (int status = QMAdmin_NSDisconnect(handle); status != 0) log_qmfs_error(status, __func__);
}

int state_of_volume(int handle, const std::string* name) {
  if (!name) return STATE_DOWN;
  QMAdminLock lock(__func__);
  int best = STATE_DOWN;
  walkFsmList(handle, __func__, name, [&](int, const QMAdminFsmRecord& r) {
    if (!named(r, name)) return true;
    best = std::max(best, r.state);
    return best != STATE_ACTIVE;
  });
  return best;
}

int state_of_volume_on_host(int handle, const std::string* name, const PropertyList& host) {
  const char* fn = __func__;
  QMAdminLock lock(fn);
  std::vector<std::string> hosts = textsOf(host);
  std::vector<std::string> local = textsOf(localAddressList());
  bool localIsHost = false;
  for (const std::string& a : local) localIsHost = localIsHost || contains(hosts, a);
  if (name && !hosts.empty()) {
    std::optional<int> state;
    walkFsmList(handle, __func__, name, [&](int, const QMAdminFsmRecord& r) {
      if (!named(r, name)) return true;
      std::string address = addressText(r);
      if (contains(hosts, address)) {
        NLog("%s(%@): Found volume hosted on %@, state is %d", fn, *name, address, r.state);
        state = r.state;
      } else if (contains(local, address) && localIsHost) {
        // A controller known by several addresses is found by any of them.
        NLog("%s(%@): Found volume hosted on %@ (alternate), state is %d", fn, *name, address,
             r.state);
        state = r.state;
      }
      return !state;
    });
    if (state) return *state;
  }
  NLog("%s(%@): Could not figure out state for volume on %@, assuming DOWN", __func__, text(name),
       host);
  return STATE_DOWN;
}

int state_of_volume_on_ip(int handle, const std::string* name, const std::string& address) {
  QMAdminLock lock(__func__);
  std::optional<int> state;
  walkFsmList(handle, __func__, name, [&](int, const QMAdminFsmRecord& r) {
    if (named(r, name) && addressText(r) == address) state = r.state;
    return !state;
  });
  if (state) return *state;
  NLog("%s(%@): Could not figure out state for volume on %@, assuming DOWN", __func__, text(name),
       address);
  return STATE_DOWN;
}

bool is_volume_stopped(int handle, const std::string* name) {
  return state_of_volume(handle, name) == STATE_DOWN;
}
bool is_volume_enabled(int handle, const std::string* name) {
  return state_of_volume(handle, name) == STATE_ACTIVE;
}

int index_of_fsmvol_named(int handle, const std::string* name) {
  QMAdminLock lock(__func__);
  int first = kNotFoundIndex;
  int active = kNotFoundIndex;
  walkFsmList(handle, __func__, name, [&](int index, const QMAdminFsmRecord& r) {
    if (!named(r, name)) return true;
    if (r.state == STATE_ACTIVE) {
      active = index;
      return false;
    }
    if (first == kNotFoundIndex) first = index;
    return true;
  });
  if (active != kNotFoundIndex) return active;
  if (first == kNotFoundIndex) NLog("index_of_fsmvol_named(%@): Could not find volume", text(name));
  return first;
}

int index_of_local_fsmvol_named(int handle, const std::string* name) {
  QMAdminLock lock(__func__);
  std::vector<std::string> mine = textsOf(current_host_addresses());
  int found = kNotFoundIndex;
  walkFsmList(handle, __func__, name, [&](int index, const QMAdminFsmRecord& r) {
    if (named(r, name) && contains(mine, addressText(r))) found = index;
    return found == kNotFoundIndex;
  });
  return found;
}

std::vector<std::string> active_or_standby_ips_for_volume(int handle, const std::string* name) {
  QMAdminLock lock(__func__);
  std::vector<std::string> out;
  walkFsmList(handle, __func__, name, [&](int, const QMAdminFsmRecord& r) {
    if (named(r, name) && r.state != STATE_DOWN) out.push_back(addressText(r));
    return true;
  });
  return out;
}

std::optional<std::string> ip_of_active_volume_on_host(int handle, const std::string* name,
                                                       const PropertyList& host) {
  QMAdminLock lock(__func__);
  // Deliberate: a standby's address counts as well, whatever the name says.
  for (const std::string& address : textsOf(host)) {
    if (state_of_volume_on_ip(handle, name, address) != STATE_DOWN) return address;
  }
  return std::nullopt;
}

void resetVolumeStateForTest() { gLibraryReady = false; }

}  // namespace velm
