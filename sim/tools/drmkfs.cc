// drmkfs stand-in: "formats" a volume by making its data directory and leaving a record of what
// it was asked there, so tests can see it.
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "platform/files.h"
#include "plist/plist.h"
#include "sim/tools/tool_common.h"

namespace {

// Seconds from the Unix epoch to 2001-01-01, where plist dates count from.
constexpr double kPlistEpoch = 978307200;

const char kUsage[] =
    "usage: drmkfs [-a AFFINITY] -F VOLUME\n"
    "  -F   format VOLUME: make <root>/Library/Filesystems/Velm/data/VOLUME/ (and log/) and\n"
    "       record the request in its format.plist; VOLUME needs config/VOLUME.cfg\n"
    "  -a   the affinity to record\n";

struct Options {
  bool format = false;
  std::string affinity;
  bool hasAffinity = false;
  std::string volume;
  bool hasVolume = false;
};

bool parseArguments(const std::vector<std::string>& args, Options* o) {
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (a == "-F") {
      o->format = true;
    } else if (a == "-a") {
      if (++i == args.size()) return false;
      o->affinity = args[i];
      o->hasAffinity = true;
    } else if (!a.empty() && a[0] == '-') {
      return false;
    } else {
      if (o->hasVolume) return false;
      o->volume = a;
      o->hasVolume = true;
    }
  }
  return o->format && o->hasVolume;
}

// The plugin reads stdout for "error", so failures go there.
int fail(const std::string& text) {
  std::printf("drmkfs: error: %s\n", text.c_str());
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  velm::sim::SimTool tool("drmkfs", argc, argv);
  if (std::optional<int> scripted = tool.begin()) return *scripted;

  Options o;
  if (!parseArguments(tool.args(), &o)) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  if (!velm::sim::volumeNameUsable(o.volume)) return fail("bad volume name '" + o.volume + "'");
  std::string config = tool.path(std::string(velm::sim::kVolumeConfigDir) + o.volume + ".cfg");
  if (!velm::pathExists(config)) return fail("no configuration file " + config);

  std::string data = tool.path(std::string(velm::sim::kVolumeDataDir) + o.volume);
  if (int err = velm::makeDirectories(data + "/log"); err != 0)
    return fail("cannot make " + data + "/log: " + std::strerror(err));
  velm::PropertyList record = velm::PropertyList::dict();
  record.set("volume", o.volume);
  if (o.hasAffinity) record.set("affinity", o.affinity);
  record.set("time", velm::PlistDate{static_cast<double>(std::time(nullptr)) - kPlistEpoch});
  if (int err = velm::writeFileAtomically(data + "/format.plist", velm::writeXmlPlist(record));
      err != 0)
    return fail("cannot write " + data + "/format.plist: " + std::strerror(err));
  std::printf("Created file system %s.\n", o.volume.c_str());
  return 0;
}
