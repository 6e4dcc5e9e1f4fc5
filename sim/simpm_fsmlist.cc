// The machine's fsmlist: the volumes this port mapper may serve besides its configured FSMs. A
// real port mapper rereads it when told the configuration changed; the stand-in does on each
// start, stop and list request.
#include <map>
#include <sstream>
#include <string>

#include "adminlib/fsmpm_requests.h"
#include "platform/files.h"
#include "sim/simpm_protocol.h"

namespace velm::sim {
namespace {

// Name -> priority: "<name> . <index>" a line, the index as priority (1 without one); blank
// lines and '#' comments skipped. A missing file lists nothing.
std::map<std::string, int> readFsmList(const std::string& path) {
  std::map<std::string, int> out;
  std::istringstream in(readFile(path).value_or(""));
  for (std::string line; std::getline(in, line);) {
    std::istringstream words(line);
    std::string name, dot, index;
    if (!(words >> name) || name[0] == '#') continue;
    words >> dot >> index;
    int priority = 1;
    if (!index.empty() && index.find_first_not_of("0123456789") == std::string::npos &&
        index.size() < 6)
      priority = std::stoi(index) & kPmServicePriorityMask;
    out.emplace(name, priority);
  }
  return out;
}

}  // namespace

void SimPmProtocol::syncFsmList(const std::string& startName) {
  if (fsmListPath_.empty()) return;
  std::scoped_lock sync(fsmListMutex_);
  std::map<std::string, int> listed = readFsmList(fsmListPath_);
  std::size_t slot = 0;
  {
    std::scoped_lock lock(pmMutex_);
    bool known = false;
    for (SimFsm& f : config_.fsms) {
      if (f.dropped) continue;
      if (f.fromFsmList && !f.running && !listed.count(f.name)) {
        f.dropped = true;
        simLog("'%s': no longer in fsmlist; dropped", f.name.c_str());
        continue;
      }
      if (f.name == startName) known = true;
    }
    auto it = listed.find(startName);
    if (startName.empty() || known || it == listed.end()) return;
    for (SimFsm& f : config_.fsms) {
      if (f.dropped && f.name == startName) {
        f.dropped = false;
        f.priority = it->second;
        simLog("'%s': listed in fsmlist again; back at port %d", f.name.c_str(), f.port);
        return;
      }
    }
    // Hidden until its listener is there, as no one may reach a slot without one.
    SimFsm fsm;
    fsm.name = startName;
    fsm.priority = it->second;
    fsm.running = fsm.active = false;
    fsm.fromFsmList = true;
    fsm.dropped = true;
    config_.fsms.push_back(std::move(fsm));
    slot = config_.fsms.size() - 1;
  }
  // Bound without pmMutex_: that lock stays a leaf.
  int port = listenFsm_ ? listenFsm_(slot, listen_) : 0;
  std::scoped_lock lock(pmMutex_);
  SimFsm& f = config_.fsms[slot];
  f.port = port;
  f.dropped = false;
  simLog("'%s': added from fsmlist, port %d, priority %d", f.name.c_str(), port, f.priority);
}

}  // namespace velm::sim
