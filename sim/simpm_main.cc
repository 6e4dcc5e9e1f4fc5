// velm-simpm: a stand-in port mapper for tests and the demo.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "sim/sim_common.h"
#include "sim/simpm_fsm_process.h"
#include "sim/simpm_server.h"

namespace {

const char kUsage[] =
    "usage: velm-simpm --root DIR [--listen 127.0.0.1] [--config FILE]\n"
    "\n"
    "A stand-in port mapper. It answers port-mapper discovery on the altpmap port of\n"
    "DIR/Library/Filesystems/Velm/config/fsports (5164 without one), serves port-mapper requests "
    "on\n"
    "the port that discovery reports, and answers the admin connection of each local running FSM "
    "on\n"
    "its own port. Authentication is required when config/.auth_secret exists in that root.\n"
    "Each request is logged to stderr. SIGTERM or SIGINT stops it.\n"
    "\n"
    "Each running local FSM without a configured pid is a child process, \"fsm\" in the process\n"
    "table, whose pid it reports as ProcessID; it ends when the FSM stops, and a fail-over to or\n"
    "from standby starts a new one. When VELM_PROCFS names a sandbox, DIR's process table gets a\n"
    "link to each such process and one to the machine's stat file.\n"
    "\n"
    "It follows DIR/Library/Filesystems/Velm/config/fsmlist, read again on each start, stop and\n"
    "list request: one line per volume this machine may serve, \"<name> . <index>\" (blank lines\n"
    "and lines starting with '#' are skipped). A start of a listed name that no FSM has adds a\n"
    "local FSM (priority the index, 1 without one) with its own admin port, and starts it. A\n"
    "stopped FSM added that way whose line is gone leaves the list; FSMs of the configuration\n"
    "stay.\n"
    "Each rescan of the disks also lists the LUNs of DIR/sim/luns.plist (drlabel's table) that\n"
    "bear a file-system label, after the configured disks.\n"
    "\n"
    "  --root DIR      sandbox root (required)\n"
    "  --listen ADDR   address to listen on (default 127.0.0.1)\n"
    "  --config FILE   XML plist dictionary (default DIR/simpm.plist when present)\n"
    "\n"
    "Configuration keys:\n"
    "  fsms          array of dictionaries: name (string), port (integer, 0 = any free port),\n"
    "                priority (integer), active (boolean, default true), pid (integer: the\n"
    "                ProcessID it reports, for tests on a fake process table), address\n"
    "                (string, default the listen address), capabilities (integer, the FSM's\n"
    "                capability word, default 1), cpuLoad (integer, percent of one CPU its\n"
    "                process burns, default 0), residentBytes (integer, memory its process\n"
    "                touches, default 0), contentDir (string, what the volume holds: its free\n"
    "                space is its size less the apparent size of the files there; default\n"
    "                DIR/Volumes/<name>; without the folder the configured free space stands)\n"
    "  unknownTypes  array of integers: port-mapper request types to answer as an older peer\n"
    "                (reply status 255, error 1)\n"
    "  pmPort        integer: port of the port-mapper service (default any free port)\n"
    "  failoverHook  array of strings: a command run (no shell, PATH searched) each time a\n"
    "                standby here takes over; \"%v\" in it is the volume, \"%h\" the --listen\n"
    "                address\n"
    "Port-mapper side (name service, start/stop/fail-over, disks, clients, RAS):\n"
    "  fsms entries  also: serviceType (integer, default 1 = FSM), running (boolean, default\n"
    "                true; a stopped FSM is not listed until started)\n"
    "  peers         array of strings: the other port mappers of the SAN, \"ADDR\" (discovery on\n"
    "                this root's altpmap port) or \"ADDR:PORT\"; their local FSMs are listed\n"
    "                too, and a fail-over without a local standby activates theirs\n"
    "  disks         array of dictionaries: label, serial, device, inquiry (strings), size,\n"
    "                sectorSize (default 512), lunId, pathState (integers)\n"
    "  diskGeneration  integer: disk-list generation (default 1); every refresh adds one\n"
    "  clients       array of dictionaries: address, name (strings): names for client queries\n"
    "  proxies       array of dictionaries: name, address1, address2 (strings), port, counter1,\n"
    "                counter2 (integers): proxy connections\n"
    "  proxyListChangesOnce  boolean: the first proxy walk past index 0 is told the list changed\n"
    "  cctls         array of dictionaries: name (string), value (integer): cluster controls\n"
    "  cctlGeneration  integer: generation of the cluster control list (default 1)\n"
    "FSM side (answers on each FSM's admin connection; commands change what later answers show,\n"
    "for every connection to that FSM). Keys of an fsms entry:\n"
    "  unknownTypes  array of integers: FSM request types (1-28) answered as an older FSM\n"
    "                (255, error 1). 18 also clears statistics flag bit 12 (the older "
    "stripe-group\n"
    "                record, type 3, is served); 22, 24, 25 clear capability bits 1, 2, 4\n"
    "  statistics    dictionary: flags (default 0x1000; bit 7 follows quotasEnabled), blockSize\n"
    "                (default 4096), msgBufSize (4096), totalBlocks (1000000), freeBlocks\n"
    "                (500000), createTime (microseconds); clients, stripe groups and devices are\n"
    "                counted from the keys below\n"
    "  stripeGroups  array of dictionaries: name, flags (default 1 = up), totalBlocks,\n"
    "                reservedBlocks, freeBlocks, affinity, devices, setting, multipath, breadth,\n"
    "                nativeKey, nativeKeys (array of integers, in pairs); up/down commands set\n"
    "                flag bit 0 or 1 and store setting and multipath\n"
    "  devices       array of dictionaries: values (2 integers), words (4), texts (3 strings)\n"
    "  clients       array of dictionaries: index (default the position), flags (default 3 =\n"
    "                in use), type, uptime, address (string, the client's IP), text; slots up to\n"
    "                the highest index that are not listed answer as free, past it error 2\n"
    "  userQuotas, groupQuotas  arrays of dictionaries: name (may be empty), hardLimit,\n"
    "                softLimit, used (blocks), timeLimit, timeRemaining (minutes), status; walks\n"
    "                go in byte order of names, each returning the first name after the cursor\n"
    "                (an empty cursor starts, so an empty name comes first); sets add or change\n"
    "  quotasEnabled boolean (default true): off answers every quota entry request with no entry\n"
    "  debug, brls   integers: the values that get and set requests read and write\n"
    "  debugReadOnly boolean: a debug set does not take (the reply shows the old value)\n"
    "  lockMeter     array of 2 integers: the lock meter's first and second words\n"
    "  qos           array of arrays of 10 integers: bandwidth figures per stripe-group index\n"
    "  qosClients    array of arrays of 5 integers: per-client bandwidth records (three words,\n"
    "                flags, a word); paged 32 at a time\n"
    "  proxyServers  array of dictionaries: address1, address2 (strings), words (9 integers),\n"
    "                served in the order given\n"
    "  proxyListChanges  integer: that many walks are told at index 1 that the list changed\n"
    "  openFileReport, report  strings: texts of the report requests\n";

}  // namespace

int main(int argc, char** argv) {
  if (argc == 6 && std::strcmp(argv[1], "--fsm-process") == 0) {
    velm::sim::runFsmProcess(argv[2], std::atoi(argv[3]), std::strtoull(argv[4], nullptr, 10),
                             static_cast<pid_t>(std::atoi(argv[5])));
  }
  velm::sim::SimPmOptions options;
  int status = velm::sim::parseSimFlags("velm-simpm", kUsage, argc, argv,
                                        {{"--root", &options.root},
                                         {"--listen", &options.listen},
                                         {"--config", &options.configPath}});
  if (status >= 0) return status;

  std::error_code ec;
  // Our own program, from the real /proc whatever VELM_PROCFS says.
  options.fsmProcessProgram = std::filesystem::read_symlink("/proc/self/exe", ec).string();

  velm::sim::SimPortMapper server;
  // Handlers first: whoever starts us may stop us as soon as we say we listen.
  velm::sim::installSimStopHandler(
      [](void* s) { static_cast<velm::sim::SimPortMapper*>(s)->stop(); }, &server);
  std::string error;
  if (!server.start(options, &error)) {
    std::fprintf(stderr, "velm-simpm: %s\n", error.c_str());
    return 1;
  }
  // The plugin looks for its port mapper by name in the process table.
  velm::sim::SandboxProcessEntry entry("fsmpm");
  server.run();
  return 0;
}
