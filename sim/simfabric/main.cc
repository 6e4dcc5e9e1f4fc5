// velm-simfabric: makes and changes a fake Linux sysfs Fibre Channel tree, so the code that
// reads HBAs, remote ports, SCSI devices and disk statistics can be tried without a SAN.
#include <time.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "sim/sim_common.h"
#include "sim/simfabric/fabric_tree.h"

namespace {

using velm::sim::FabricPath;
using velm::sim::FabricTarget;
using velm::sim::FabricTree;
using velm::sim::PathState;

constexpr char kProgram[] = "velm-simfabric";
constexpr int kFailed = 1;
constexpr int kUsageStatus = 2;

const char kUsage[] =
    "usage: velm-simfabric --sysfs DIR COMMAND [ARGUMENTS]\n"
    "\n"
    "Makes and changes a fake Linux sysfs Fibre Channel tree in DIR: HBAs, remote ports,\n"
    "targets, SCSI devices and their disks, with the class/ and block/ links to them.\n"
    "\n"
    "Commands:\n"
    "  init [--hosts N] [--mirror-host]\n"
    "      a fresh tree with FC hosts 1..N (default 2); --mirror-host also links class/net,\n"
    "      devices/system/cpu and class/dmi to the real /sys\n"
    "  add-target WWNN [--hosts H,H...] [--luns LIST] [--sas]\n"
    "      a target seen through those FC hosts (default every one) with those LUNs (default\n"
    "      0; LIST like 0-3,8); --sas: a SAS target on the SAS host, made when there is none\n"
    "  remove-target WWNN\n"
    "  add-lun WWNN L\n"
    "  remove-lun WWNN L\n"
    "      on every path of the target\n"
    "  path WWNN --host H --state Online|Marginal|Blocked|NotPresent\n"
    "      NotPresent takes the target's devices and disks away; another state brings them\n"
    "      back with new disks\n"
    "  io WWNN --host H [--read BYTES] [--write BYTES]\n"
    "      adds BYTES/512 sectors read and written, spread over the target's disks on host H\n"
    "  traffic --rate BYTES\n"
    "      until SIGTERM or SIGINT, every 0.5 s: BYTES/2 read and BYTES/2 written, spread over\n"
    "      every Online or Marginal FC path\n"
    "  show\n"
    "      the hosts, targets, paths and disks\n"
    "\n"
    "WWNN is hex, with or without 0x. Exit status: 0 done, 1 the operation failed, 2 usage.\n";

int usage(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
int usage(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  velm::sim::simLogLine(kProgram, fmt, args);
  va_end(args);
  std::fputs(kUsage, stderr);
  return kUsageStatus;
}

int failed(const std::string& why) {
  std::fprintf(stderr, "%s: %s\n", kProgram, why.c_str());
  return kFailed;
}

// A command's words: its positional arguments and its --flags.
struct Words {
  std::vector<std::string> positional;
  std::map<std::string, std::string> values;
  std::set<std::string> switches;
};

// Flags taking a value are listed in valued, the others in switches; false on anything else.
bool splitWords(const std::vector<std::string>& in, const std::set<std::string>& valued,
                const std::set<std::string>& switches, Words* out, std::string* why) {
  for (size_t i = 0; i < in.size(); ++i) {
    const std::string& w = in[i];
    if (!w.starts_with("--")) {
      out->positional.push_back(w);
    } else if (switches.count(w)) {
      out->switches.insert(w);
    } else if (valued.count(w)) {
      if (i + 1 >= in.size()) {
        *why = w + " needs a value";
        return false;
      }
      out->values[w] = in[++i];
    } else {
      *why = "unknown argument '" + w + "'";
      return false;
    }
  }
  return true;
}

std::optional<long long> parseNumber(const std::string& text, long long min, long long max) {
  if (text.empty() || text.size() > 19) return std::nullopt;
  for (char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
  }
  long long n = std::strtoll(text.c_str(), nullptr, 10);
  if (n < min || n > max) return std::nullopt;
  return n;
}

// "3,4" or "0-3,8".
std::optional<std::vector<int>> parseList(const std::string& text, int max) {
  std::vector<int> out;
  size_t start = 0;
  while (start <= text.size()) {
    size_t comma = text.find(',', start);
    std::string item = text.substr(start, comma == std::string::npos ? comma : comma - start);
    size_t dash = item.find('-');
    std::optional<long long> low = parseNumber(item.substr(0, dash), 0, max);
    std::optional<long long> high =
        dash == std::string::npos ? low : parseNumber(item.substr(dash + 1), 0, max);
    if (!low || !high || *high < *low) return std::nullopt;
    for (long long n = *low; n <= *high; ++n) out.push_back(static_cast<int>(n));
    if (comma == std::string::npos) break;
    start = comma + 1;
  }
  return out;
}

volatile std::sig_atomic_t gStop = 0;

void stopTraffic(void*) { gStop = 1; }

// Sleeps until the deadline or a stop signal.
void sleepUntil(std::chrono::steady_clock::time_point deadline) {
  while (!gStop) {
    auto left = deadline - std::chrono::steady_clock::now();
    if (left <= std::chrono::nanoseconds(0)) return;
    auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(left).count();
    struct timespec ts {
      static_cast<time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)
    };
    ::nanosleep(&ts, nullptr);  // a signal cuts it short
  }
}

int runTraffic(FabricTree& tree, unsigned long long rate) {
  if (tree.describe().empty()) return failed(tree.error());
  velm::sim::installSimStopHandler(stopTraffic, nullptr);
  std::fprintf(stderr, "%s: traffic of %llu bytes/s in %s until SIGTERM\n", kProgram, rate,
               tree.dir().c_str());
  auto next = std::chrono::steady_clock::now();
  unsigned long long ticks = 0;
  unsigned long long sectorsGiven = 0;
  while (!gStop) {
    next += std::chrono::milliseconds(500);
    sleepUntil(next);
    if (gStop) break;
    ++ticks;
    // What is due since the start, so odd rates and remainders are not lost.
    unsigned long long due =
        static_cast<unsigned long long>(static_cast<unsigned __int128>(rate) * ticks / 2 / 512);
    unsigned long long sectors = due - sectorsGiven;
    sectorsGiven = due;
    std::vector<std::pair<std::uint64_t, int>> paths;
    for (const FabricTarget& t : tree.targets()) {
      if (t.sas) continue;
      for (const FabricPath& p : t.paths) {
        bool up = p.state == PathState::Online || p.state == PathState::Marginal;
        if (up && !p.disks.empty()) paths.emplace_back(t.wwnn, p.host);
      }
    }
    if (paths.empty() || sectors == 0) continue;
    unsigned long long n = paths.size();
    for (unsigned long long i = 0; i < n; ++i) {
      // The remainder goes round the paths, tick after tick.
      unsigned long long share = sectors / n + ((i + n - ticks % n) % n < sectors % n ? 1 : 0);
      if (share == 0) continue;
      // A path that went away since the listing is simply skipped.
      tree.addIo(paths[i].first, paths[i].second, share * 512, share * 512);
    }
  }
  return 0;
}

std::optional<std::uint64_t> wwnnArgument(const Words& words, size_t count, int* status) {
  if (words.positional.size() != count) {
    *status = usage("expected %zu argument%s", count, count == 1 ? "" : "s");
    return std::nullopt;
  }
  std::optional<std::uint64_t> wwnn = velm::sim::parseWwn(words.positional[0]);
  if (!wwnn) *status = usage("'%s' is not a WWNN", words.positional[0].c_str());
  return wwnn;
}

int run(FabricTree& tree, const std::string& command, const std::vector<std::string>& rest) {
  Words words;
  std::string why;
  int status = kUsageStatus;
  auto done = [&](bool ok) { return ok ? 0 : failed(tree.error()); };

  if (command == "init") {
    if (!splitWords(rest, {"--hosts"}, {"--mirror-host"}, &words, &why))
      return usage("%s", why.c_str());
    if (!words.positional.empty()) return usage("init takes no arguments");
    long long hosts = 2;
    if (words.values.count("--hosts")) {
      std::optional<long long> n = parseNumber(words.values["--hosts"], 0, 64);
      if (!n) return usage("--hosts wants a number from 0 to 64");
      hosts = *n;
    }
    return done(tree.init(static_cast<int>(hosts), words.switches.count("--mirror-host") > 0));
  }
  if (command == "add-target") {
    if (!splitWords(rest, {"--hosts", "--luns"}, {"--sas"}, &words, &why)) {
      return usage("%s", why.c_str());
    }
    std::optional<std::uint64_t> wwnn = wwnnArgument(words, 1, &status);
    if (!wwnn) return status;
    std::vector<int> hosts, luns;
    if (words.values.count("--hosts")) {
      std::optional<std::vector<int>> list = parseList(words.values["--hosts"], 4095);
      if (!list) return usage("--hosts wants host numbers like 1,2");
      hosts = *list;
    }
    if (words.values.count("--luns")) {
      std::optional<std::vector<int>> list = parseList(words.values["--luns"], 16383);
      if (!list) return usage("--luns wants LUNs from 0 to 16383, like 0-3,8");
      luns = *list;
    }
    return done(tree.addTarget(*wwnn, hosts, luns, words.switches.count("--sas") > 0));
  }
  if (command == "remove-target") {
    if (!splitWords(rest, {}, {}, &words, &why)) return usage("%s", why.c_str());
    std::optional<std::uint64_t> wwnn = wwnnArgument(words, 1, &status);
    if (!wwnn) return status;
    return done(tree.removeTarget(*wwnn));
  }
  if (command == "add-lun" || command == "remove-lun") {
    if (!splitWords(rest, {}, {}, &words, &why)) return usage("%s", why.c_str());
    std::optional<std::uint64_t> wwnn = wwnnArgument(words, 2, &status);
    if (!wwnn) return status;
    std::optional<long long> lun = parseNumber(words.positional[1], 0, 16383);
    if (!lun) return usage("'%s' is not a LUN (0 to 16383)", words.positional[1].c_str());
    int l = static_cast<int>(*lun);
    return done(command == "add-lun" ? tree.addLun(*wwnn, l) : tree.removeLun(*wwnn, l));
  }
  if (command == "path" || command == "io") {
    bool io = command == "io";
    std::set<std::string> valued = io ? std::set<std::string>{"--host", "--read", "--write"}
                                      : std::set<std::string>{"--host", "--state"};
    if (!splitWords(rest, valued, {}, &words, &why)) return usage("%s", why.c_str());
    std::optional<std::uint64_t> wwnn = wwnnArgument(words, 1, &status);
    if (!wwnn) return status;
    if (!words.values.count("--host")) return usage("%s needs --host H", command.c_str());
    std::optional<long long> host = parseNumber(words.values["--host"], 0, 4095);
    if (!host) return usage("--host wants a host number");
    int h = static_cast<int>(*host);
    if (!io) {
      if (!words.values.count("--state")) return usage("path needs --state");
      std::optional<PathState> state = velm::sim::parsePathState(words.values["--state"]);
      if (!state) return usage("unknown state '%s'", words.values["--state"].c_str());
      return done(tree.setPathState(*wwnn, h, *state));
    }
    unsigned long long bytes[2] = {0, 0};
    const char* flags[2] = {"--read", "--write"};
    for (int i = 0; i < 2; ++i) {
      if (!words.values.count(flags[i])) continue;
      std::optional<long long> n = parseNumber(words.values[flags[i]], 0, 1LL << 60);
      if (!n) return usage("%s wants a byte count", flags[i]);
      bytes[i] = static_cast<unsigned long long>(*n);
    }
    return done(tree.addIo(*wwnn, h, bytes[0], bytes[1]));
  }
  if (command == "traffic") {
    if (!splitWords(rest, {"--rate"}, {}, &words, &why)) return usage("%s", why.c_str());
    if (!words.positional.empty()) return usage("traffic takes no arguments");
    if (!words.values.count("--rate")) return usage("traffic needs --rate BYTES");
    std::optional<long long> rate = parseNumber(words.values["--rate"], 0, 1LL << 50);
    if (!rate) return usage("--rate wants bytes per second");
    return runTraffic(tree, static_cast<unsigned long long>(*rate));
  }
  if (command == "show") {
    if (!rest.empty()) return usage("show takes no arguments");
    std::string listing = tree.describe();
    if (listing.empty()) return failed(tree.error());
    std::fputs(listing.c_str(), stdout);
    return 0;
  }
  return usage("unknown command '%s'", command.c_str());
}

}  // namespace

int main(int argc, char** argv) {
  std::string sysfs;
  std::vector<std::string> words;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      std::fputs(kUsage, stdout);
      return 0;
    }
    if (arg == "--sysfs") {
      if (i + 1 >= argc) return usage("--sysfs needs a value");
      sysfs = argv[++i];
    } else {
      words.push_back(arg);
    }
  }
  if (sysfs.empty()) return usage("--sysfs DIR is required");
  if (words.empty()) return usage("a command is required");
  FabricTree tree(sysfs);
  std::string command = words.front();
  words.erase(words.begin());
  return run(tree, command, words);
}
