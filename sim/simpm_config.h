// The stand-in port mapper's configuration: the FSMs it knows and how old a peer it plays.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace velm::sim {

struct SimFsm {
  std::string name;
  int port = 0;  // 0: any free port, chosen at start
  int priority = 0;
  bool active = true;
  int pid = 0;
  std::string address;  // empty: the listen address
  std::uint32_t capabilities = 1;
};

struct SimPmConfig {
  std::vector<SimFsm> fsms;
  std::set<int> unknownTypes;  // request types answered as an older peer (255, error 1)
  int pmPort = 0;              // port-mapper service port; 0: any free port
};

// Reads an XML plist dictionary. Returns false with a reason for a malformed file or key.
bool loadSimPmConfig(const std::string& path, SimPmConfig* config, std::string* error);

// Parses an IPv4 (held mapped) or IPv6 text.
bool parseAddress(const std::string& text, struct in6_addr* addr);

}  // namespace velm::sim
