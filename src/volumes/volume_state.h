// Volume state and failover control over the port mappers: a name-service connection to the
// local one lists every FSM of the SAN; one to the port mapper of an address acts on that
// controller's FSM. Every function holds the QMAdmin lock over its walks and requests.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "plist/plist.h"

namespace velm {

// Volume states.
inline constexpr int STATE_DOWN = 0;
inline constexpr int STATE_INACTIVE = 1;
inline constexpr int STATE_ACTIVE = 2;
// What the index functions give when nothing matches.
inline constexpr int kNotFoundIndex = 0x7fffffff;
// The port mapper's list is read at indexes below this.
inline constexpr int kMaxListWalk = 100;

// The TCP port the host daemon serves on every controller: VELM_PROBE_PORT, default 311.
int probePort();
bool is_address_reachable(const std::string* address);
// A name-service handle, or a negative value (no address is an unreachable one).
int open_proxy_fs_connection(const std::string* address);
inline int open_proxy_fs_connection(const std::string& address) {
  return open_proxy_fs_connection(&address);
}
int open_fs_connection();
void close_fs_connection(int handle);

// The best state of the volume anywhere in the SAN.
int state_of_volume(int handle, const std::string* name);
// The state on the given host: a text or an array of texts (anything else lists nothing).
int state_of_volume_on_host(int handle, const std::string* name, const PropertyList& host);
int state_of_volume_on_ip(int handle, const std::string* name, const std::string& address);
bool is_volume_stopped(int handle, const std::string* name);
bool is_volume_enabled(int handle, const std::string* name);
int index_of_fsmvol_named(int handle, const std::string* name);
int index_of_local_fsmvol_named(int handle, const std::string* name);
std::vector<std::string> active_or_standby_ips_for_volume(int handle, const std::string* name);
// The first of the host's addresses where the volume has an FSM, active or standby.
std::optional<std::string> ip_of_active_volume_on_host(int handle, const std::string* name,
                                                       const PropertyList& host);

// 0, or the plugin's status (kStatus... of model/plugin_status.h).
int fail_fsmvol_named(int handle, const std::string* name);
int standby_volume_on_specific_ip(const std::string* name, const std::string& address);
int standby_volume_by_host(const std::string* name, const PropertyList& localAddresses,
                           const std::string& target);
int stop_volume_on_specific_ip(const std::string* name, const std::string& address);
int activate_volume_by_host(const std::string* name, const std::string* address);

// The labelled disks the port mapper lists (after asking it to rescan), skipping the label
// "Untitled"; *disks is always a new array. 0, or kStatusLabeledDisksFailed.
int get_labeled_disks(int handle, PropertyList* disks);

// The format and check tools: 0, or kStatusInitializeFailed / kStatusCheckFailed.
int initialize_volume_named(const std::string* volume, const std::string* affinity);
int fsck_volume_named(const std::string* volume);

// The strings of an array (other elements and other types give nothing).
std::vector<std::string> arrayStrings(const PropertyList* list);

// This machine's addresses (get_host_ips) with "127.0.0.1" added.
PropertyList localAddressList();
// Forgets that the admin library was readied for the plugin.
void resetVolumeStateForTest();

}  // namespace velm
