// A fake Linux sysfs Fibre Channel (and SAS) tree under a directory of our choosing, for tests
// and demos of the code that reads hosts, remote ports, SCSI devices and disk statistics.
//
// Layout under DIR (H host, T target id, L LUN, N rport number, channel always 0):
//   devices/platform/velm-simfabric/hostH/fc_host/hostH/            FC hosts
//   devices/platform/velm-simfabric/hostH/sas_host/hostH/           SAS hosts
//   .../hostH/rport-H:0-N/fc_remote_ports/rport-H:0-N/              one per FC target per host
//   .../rport-H:0-N/targetH:0:T/fc_transport/targetH:0:T/           while the path is present
//   .../targetH:0:T/H:0:T:L/{state,wwid,vpd_pg83}, scsi_device/H:0:T:L/device -> ../../
//   .../H:0:T:L/block/sdX/{stat,dev}
//   .../hostH/targetH:0:T/...                                       SAS: no rport
//   class/{fc_host,sas_host,fc_remote_ports,fc_transport,scsi_device}/NAME and block/sdX:
//   relative links into devices/.
// What the tree cannot show (which disk belongs to which target, host and LUN) is kept in
// DIR/.velm-simfabric.plist. Every operation holds an flock on DIR/.velm-simfabric.lock, so
// several processes may change one tree; attribute files are replaced by rename and new
// subtrees are built aside and renamed into place, so readers never see half of either.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velm::sim {

enum class PathState { Online, Marginal, Blocked, NotPresent };

// The port_state text the kernel writes: "Online", "Marginal", "Blocked", "Not Present".
const char* pathStateText(PathState state);
// Reads "Online", "Marginal", "Blocked", "NotPresent" or "Not Present".
std::optional<PathState> parsePathState(std::string_view text);

// A world wide name in hex, with or without 0x, colons allowed ("50:06:0e:..."); not zero.
std::optional<std::uint64_t> parseWwn(std::string_view text);
// "0x%llx", as node_name and port_name show it.
std::string wwnText(std::uint64_t wwn);

// One host's view of a target.
struct FabricPath {
  int host = 0;
  int rport = -1;  // N of rport-H:0-N; -1 on SAS
  int target = 0;  // T of targetH:0:T
  PathState state = PathState::Online;
  std::map<int, std::string> disks;  // LUN -> "sdb"; empty while NotPresent
};

struct FabricTarget {
  std::uint64_t wwnn = 0;
  bool sas = false;
  std::vector<int> luns;          // ascending
  std::vector<FabricPath> paths;  // by host number
};

struct FabricHost {
  int number = 0;
  bool sas = false;
};

class FabricTree {
 public:
  explicit FabricTree(std::string dir);
  ~FabricTree();
  FabricTree(const FabricTree&) = delete;
  FabricTree& operator=(const FabricTree&) = delete;

  const std::string& dir() const { return dir_; }
  // Why the last operation that returned false failed, one line.
  const std::string& error() const { return error_; }

  // A fresh tree with FC hosts 1..hosts; whatever an earlier init made there goes first.
  // mirrorHost links class/net, devices/system/cpu and class/dmi to the real /sys.
  bool init(int hosts = 2, bool mirrorHost = false);
  // A target seen through hosts (empty: every FC host; with sas, the first SAS host, made when
  // there is none) with those LUNs (empty: LUN 0).
  bool addTarget(std::uint64_t wwnn, const std::vector<int>& hosts = {},
                 const std::vector<int>& luns = {}, bool sas = false);
  bool removeTarget(std::uint64_t wwnn);
  // On every path; a NotPresent path gets it when it comes back.
  bool addLun(std::uint64_t wwnn, int lun);
  bool removeLun(std::uint64_t wwnn, int lun);
  // FC only. NotPresent takes the target's subtree (devices, disks, their links) away; any
  // other state after it brings them back with new disks.
  bool setPathState(std::uint64_t wwnn, int host, PathState state);
  // Adds bytes/512 sectors read and written, spread over the target's disks on that host
  // (field 3 and field 7 of their stat files).
  bool addIo(std::uint64_t wwnn, int host, std::uint64_t readBytes, std::uint64_t writeBytes);

  // What the tree holds now (read again when another process changed it).
  std::vector<FabricHost> hosts();
  std::vector<FabricTarget> targets();
  std::optional<FabricTarget> target(std::uint64_t wwnn);
  // The target's host numbers, ascending; empty when unknown.
  std::vector<int> hostsOf(std::uint64_t wwnn);
  // The target's disk names on that host in LUN order; empty when none.
  std::vector<std::string> disksOf(std::uint64_t wwnn, int host);
  // The short human listing of `show`; empty with error() set when there is no tree.
  std::string describe();

  // DIR-relative paths, for tests and readers' fixtures.
  static std::string hostPath(int host);                        // devices/.../hostH
  static std::string targetPath(const FabricPath& path);        // .../targetH:0:T
  static std::string lunPath(const FabricPath& path, int lun);  // .../H:0:T:L

 private:
  struct State;
  class Lock;
  bool fail(std::string text);
  // Takes the lock and brings the state up to date; false with error() set when either fails.
  bool begin(Lock& lock, bool mustExist = true);
  bool load(bool mustExist);
  bool save();

  std::string dir_;
  std::string error_;
  std::unique_ptr<State> state_;
  int lockFd_ = -1;
};

// Builds the tree a scale test wants: init(hosts), then targets x lunsPerTarget LUNs seen through
// every host (4 x 16 x 64: 1024 LUNs, 4096 disks). False with *error set on failure.
bool generateLargeFabric(const std::string& dir, int hosts = 4, int targets = 16,
                         int lunsPerTarget = 64, std::string* error = nullptr);

}  // namespace velm::sim
