// The stand-in port mapper's configuration: the FSMs it knows and how old a peer it plays.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "sim/simpm_fsm_state.h"

namespace velm {
class PropertyList;
}

namespace velm::sim {

struct SimFsm {
  std::string name;
  int port = 0;  // 0: any free port, chosen at start
  int priority = 0;
  bool active = true;
  int pid = 0;          // configured; 0: the companion process's, if any
  int processPid = 0;   // the companion process (simpm_fsm_process.h), while it runs
  int cpuLoad = 0;      // percent of one CPU the companion burns
  std::uint64_t residentBytes = 0;  // memory the companion touches
  // What the volume holds: its free space is its size less the files there. Empty:
  // <root>/Volumes/<name>; a folder that isn't there leaves the configured free space.
  std::string contentDir;
  std::string address;  // empty: the listen address
  std::uint32_t capabilities = 1;
  // Its admin side (simpm_fsm_*.cc); copies of this entry share it.
  std::shared_ptr<SimFsmState> fsmState = std::make_shared<SimFsmState>();
  int serviceType = 1;       // service list type; 1 is an FSM
  bool running = true;       // false: stopped, not listed
  bool fromFsmList = false;  // added by a start of a name listed in config/fsmlist
  // Gone from the table. The slot stays, never running, so listener indexes and the references
  // requests hold stay valid; a start of the same name takes it back.
  bool dropped = false;
};

// The pid an FSM reports: the configured one wins, for tests on a fake process table.
inline int reportedPid(const SimFsm& f) { return f.pid ? f.pid : f.processPid; }

// A disk the port mapper sees.
struct SimDisk {
  std::string label, serial, device, inquiry;
  std::uint64_t size = 0;
  std::uint32_t sectorSize = 512;
  int lunId = 0;
  std::uint32_t pathState = 0;
};

// A client the name service knows by address.
struct SimClient {
  std::string address, name;
};

// A proxy connection.
struct SimProxy {
  std::string name, address1, address2;
  int port = 0;
  std::uint64_t counter1 = 0, counter2 = 0;
};

// A cluster control value.
struct SimCctl {
  std::string name;
  std::uint64_t value = 0;
};

struct SimPmConfig {
  // A deque: entries added while serving leave references to the others valid.
  std::deque<SimFsm> fsms;
  std::set<int> unknownTypes;  // request types answered as an older peer (255, error 1)
  int pmPort = 0;              // port-mapper service port; 0: any free port
  // Port-mapper side (name service, disks, clients, peers).
  std::vector<SimDisk> disks;
  std::uint32_t diskGeneration = 1;  // a refresh makes a new one
  std::vector<SimClient> clients;
  std::vector<SimProxy> proxies;
  bool proxyListChangesOnce = false;  // the first walk past index 0 is told the list changed
  std::vector<SimCctl> cctls;
  std::uint32_t cctlGeneration = 1;
  std::vector<std::string> peers;  // other port mappers of the SAN: "addr" or "addr:port"
  // Run after a standby here took over ("%v" the volume, "%h" this machine's address).
  std::vector<std::string> failoverHook;
};

// Reads an XML plist dictionary. Returns false with a reason for a malformed file or key.
bool loadSimPmConfig(const std::string& path, SimPmConfig* config, std::string* error);

// The port-mapper side's keys (disks, clients, proxies, cctls, peers, per-FSM serviceType and
// running), read by loadSimPmConfig. False with a reason.
bool loadSimPmPortMapperKeys(const PropertyList& top, SimPmConfig* config, std::string* error);

// The disks a LUN table (<root>/sim/luns.plist, as drlabel keeps it) adds: one per record with a
// Label of the file system's kind (LabelType absent or "QMFS-..."), appended to *disks. A missing
// table adds none; false with a reason for one that is not a plist dictionary.
bool lunTableDisks(const std::string& path, std::vector<SimDisk>* disks, std::string* error);

// "'key' what": the text of a bad key.
std::string keyError(std::string_view key, std::string_view what);

// Reads an optional integer key: *out is left alone when the key is absent; false with a reason
// when it is there but not a number.
bool readConfigNumber(const PropertyList& dict, std::string_view key, std::int64_t* out,
                      std::string* error);
template <typename T>
bool readConfigNumber(const PropertyList& dict, std::string_view key, T* out, std::string* error) {
  auto v = static_cast<std::int64_t>(*out);
  if (!readConfigNumber(dict, key, &v, error)) return false;
  *out = static_cast<T>(v);
  return true;
}

// Parses an IPv4 (held mapped) or IPv6 text.
bool parseAddress(const std::string& text, struct in6_addr* addr);

}  // namespace velm::sim
