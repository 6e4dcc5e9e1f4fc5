// drfsck stand-in: a volume is sound when its configuration file and data directory are there;
// a missing data directory is "repaired" by making it.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "platform/files.h"
#include "sim/tools/tool_common.h"

namespace {

// The real tool's statuses: clean, modified, and anything higher for a check that failed.
constexpr int kClean = 0;
constexpr int kRepaired = 1;
constexpr int kFailed = 8;

const char kUsage[] =
    "usage: drfsck -w VOLUME\n"
    "  -w   check VOLUME and repair it: exit 0 when clean, 1 when repaired (its data directory\n"
    "       was made), 8 when config/VOLUME.cfg is missing\n";

bool parseArguments(const std::vector<std::string>& args, std::string* volume) {
  bool write = false, hasVolume = false;
  for (const std::string& a : args) {
    if (a == "-w") {
      write = true;
    } else if (!a.empty() && a[0] == '-') {
      return false;
    } else {
      if (hasVolume) return false;
      *volume = a;
      hasVolume = true;
    }
  }
  return write && hasVolume;
}

int fail(const std::string& text) {
  std::printf("drfsck: error: %s\n", text.c_str());
  return kFailed;
}

}  // namespace

int main(int argc, char** argv) {
  velm::sim::SimTool tool("drfsck", argc, argv);
  if (std::optional<int> scripted = tool.begin()) return *scripted;

  std::string volume;
  if (!parseArguments(tool.args(), &volume)) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  if (!velm::sim::volumeNameUsable(volume)) return fail("bad volume name '" + volume + "'");
  std::string config = tool.path(std::string(velm::sim::kVolumeConfigDir) + volume + ".cfg");
  if (!velm::pathExists(config)) return fail("no configuration file " + config);

  std::printf("Checking file system %s.\n", volume.c_str());
  std::string data = tool.path(std::string(velm::sim::kVolumeDataDir) + volume);
  if (velm::pathExists(data)) {
    std::printf("File system %s is clean.\n", volume.c_str());
    return kClean;
  }
  if (int err = velm::makeDirectories(data + "/log"); err != 0)
    return fail("cannot make " + data + ": " + std::strerror(err));
  std::printf("Made the missing data directory %s.\nFile system %s was modified.\n", data.c_str(),
              volume.c_str());
  return kRepaired;
}
