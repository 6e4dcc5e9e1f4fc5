// What a stand-in FSM knows and answers on its admin connections: statistics, stripe groups,
// devices, clients, quotas, bandwidth figures, proxy servers. Shared by every copy of its SimFsm
// (each admin connection runs on its own thread), so commands change it for all of them.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace velm {
class PropertyList;
}

namespace velm::sim {

struct SimPmConfig;
struct SimFsm;

struct SimStripeGroup {
  std::string name;
  std::uint32_t flags = 1;  // up
  std::uint64_t totalBlocks = 0, reservedBlocks = 0, freeBlocks = 0, affinity = 0;
  std::uint32_t devices = 1, setting = 0, breadth = 16, nativeKey = 0;
  std::uint16_t multipath = 0;
  std::vector<std::uint32_t> nativeKeys;  // taken in pairs
};

struct SimFsmDevice {
  std::uint64_t values[2] = {};
  std::uint32_t words[4] = {};
  std::string texts[3];
};

struct SimFsmClient {
  std::uint32_t flags = 3, type = 0, uptime = 0;
  std::string address;  // the client's IP
  std::string text;
};

struct SimQuota {
  std::uint64_t hard = 0, soft = 0, used = 0;
  std::uint32_t timeLimit = 0, remaining = 0, status = 0;
};

struct SimProxyServer {
  std::string address1, address2;
  std::uint32_t words[9] = {};
};

struct SimFsmState {
  std::mutex mutex;  // guards everything below; leaf

  std::set<int> unknownTypes;  // FSM request types answered as an older FSM (255, error 1)
  // Statistics.
  std::uint16_t flags = 1u << 12;  // the quotas bit follows quotasOn
  std::uint32_t blockSize = 4096, msgBufSize = 4096;
  std::uint64_t totalBlocks = 1000000, freeBlocks = 500000, createTimeUs = 0;
  std::vector<SimStripeGroup> stripeGroups;
  std::vector<SimFsmDevice> devices;
  std::map<std::uint32_t, SimFsmClient> clients;            // by slot index
  std::map<std::string, SimQuota> userQuotas, groupQuotas;  // walked in byte order of names
  bool quotasOn = true;
  std::uint32_t debug = 0, brls = 0;
  bool debugReadOnly = false;  // a set does not take
  std::uint32_t lockMeter[2] = {};
  std::vector<std::vector<std::uint32_t>> qos;         // ten words per stripe-group index
  std::vector<std::vector<std::uint32_t>> qosClients;  // five words per client
  std::vector<SimProxyServer> proxyServers;
  std::uint32_t proxyGeneration = 1;
  int proxyListChanges = 0;  // walks still to be told that the list changed
  std::string openFileReport = "/var/run/openfiles.report", report = "report";
  // Counters of commands, for the log.
  std::uint32_t rollCount = 0, resetCount = 0, rebuildCount = 0, suspendWord = 0;
};

// Reads the per-FSM keys of every entry of 'fsms' into config->fsms (same order). False with a
// reason.
bool loadSimFsmKeys(const PropertyList& top, SimPmConfig* config, std::string* error);

// Answers one framed FSM request (not the admin opening) in place; the reply's length.
std::size_t simFsmRequest(const SimFsm& fsm, std::uint8_t* msg, std::size_t len, std::size_t cap);

// The capability word an FSM reports, less what its unknownTypes take away.
std::uint32_t simFsmCapabilities(const SimFsm& fsm);

}  // namespace velm::sim
