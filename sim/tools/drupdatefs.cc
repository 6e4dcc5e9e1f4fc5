// drupdatefs stand-in. An update compares the configuration from before the change with the one
// now in place and records the difference in the volume's data directory, in four stages whose
// progress it writes to its status file as it goes. A rename moves the volume's configuration file
// and data directory to the new name.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "platform/files.h"
#include "plist/plist.h"
#include "sim/sim_common.h"
#include "sim/tools/tool_common.h"

namespace {

using velm::PropertyList;
using velm::sim::SimTool;

// Behaviour keys besides the common ones.
constexpr std::string_view kStepSeconds = "stepSeconds";  // pause between progress steps
constexpr std::string_view kFailAtStage = "failAtStage";  // the update fails in this stage
constexpr std::string_view kFailStatus = "failStatus";    // ... with this status

constexpr double kDefaultStepSeconds = 0.2;
constexpr int kDefaultFailStatus = 4;
constexpr int kUsageStatus = 2;
constexpr int kFailed = 3;

const char kUsage[] =
    "usage: drupdatefs [-c OLDCONFIG] [-S] [-F] VOLUME\n"
    "       drupdatefs -R NEWNAME OLDNAME\n"
    "  -c   the configuration from before the change (default config/VOLUME.cfg-old)\n"
    "  -S   write progress to /var/run/drupdatefs_status_VOLUME.plist\n"
    "  -F   update while the file system is active\n"
    "  -R   rename volume OLDNAME to NEWNAME: its configuration file and data directory\n";

const char* const kStages[] = {"Reading the previous configuration",
                               "Reading the new configuration", "Comparing the configurations",
                               "Updating the file system"};
constexpr int kStageCount = 4;

struct Options {
  std::string oldConfig;
  bool writeStatus = false;
  bool force = false;
  bool rename = false;
  std::vector<std::string> names;
};

bool parseArguments(const std::vector<std::string>& args, Options* o) {
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (a == "-c" && i + 1 < args.size()) {
      o->oldConfig = args[++i];
    } else if (a == "-S") {
      o->writeStatus = true;
    } else if (a == "-F") {
      o->force = true;
    } else if (a == "-R") {
      o->rename = true;
    } else if (!a.empty() && a[0] == '-') {
      return false;
    } else {
      o->names.push_back(a);
    }
  }
  return o->names.size() == (o->rename ? 2u : 1u);
}

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

// "- line" for each line only the old text has and "+ line" for each only the new one has, as
// many times as the count differs.
std::string difference(const std::string& before, const std::string& after) {
  std::map<std::string, int> count;
  for (const std::string& l : linesOf(before)) --count[l];
  for (const std::string& l : linesOf(after)) ++count[l];
  std::string out;
  for (const std::string& l : linesOf(before)) {
    if (count[l] < 0) {
      out += "- " + l + "\n";
      ++count[l];
    }
  }
  for (const std::string& l : linesOf(after)) {
    if (count[l] > 0) {
      out += "+ " + l + "\n";
      --count[l];
    }
  }
  return out;
}

int appendTo(const std::string& path, const std::string& text) {
  std::string whole = velm::readFile(path).value_or("") + text;
  return velm::writeFileAtomically(path, whole);
}

class Update {
 public:
  Update(const SimTool& tool, const Options& o) : tool_(tool), options_(o), volume_(o.names[0]) {
    const PropertyList& b = tool.behaviour();
    stepSeconds_ = kDefaultStepSeconds;
    if (const PropertyList* v = b.get(kStepSeconds)) stepSeconds_ = v->doubleValue().value_or(0);
    if (const PropertyList* v = b.get(kFailAtStage)) failAtStage_ = v->int64Value().value_or(-1);
    if (const PropertyList* v = b.get(kFailStatus))
      failStatus_ = static_cast<int>(v->int64Value().value_or(kDefaultFailStatus));
  }

  int run() {
    if (!velm::sim::volumeNameUsable(volume_)) return fail(0, "bad volume name '" + volume_ + "'");
    std::string config = tool_.path(std::string(velm::sim::kVolumeConfigDir) + volume_ + ".cfg");
    std::string oldConfig = options_.oldConfig.empty() ? config + "-old" : options_.oldConfig;
    std::string data = tool_.path(std::string(velm::sim::kVolumeDataDir) + volume_);

    std::optional<std::string> before, after;
    std::string changes;
    for (int stage = 0; stage < kStageCount; ++stage) {
      progress(stage, 0);
      if (stage == failAtStage_) return fail(stage, "failing as told", failStatus_);
      switch (stage) {
        case 0:
          if (!(before = velm::readFile(oldConfig)))
            return fail(stage, "cannot read " + oldConfig + ": " + std::strerror(errno));
          break;
        case 1:
          if (!(after = velm::readFile(config)))
            return fail(stage, "cannot read " + config + ": " + std::strerror(errno));
          break;
        case 2:
          changes = difference(*before, *after);
          break;
        case 3:
          if (!velm::pathExists(data)) return fail(stage, "no data directory " + data);
          if (int err = appendTo(data + "/updates.log",
                                 "update" + std::string(options_.force ? " (active)" : "") + ":\n" +
                                     (changes.empty() ? "  no change\n" : changes)))
            return fail(stage, "cannot record the update: " + std::string(std::strerror(err)));
          break;
      }
      progress(stage, 50);
      progress(stage, 100);
    }
    std::printf("Volume %s updated.\n", volume_.c_str());
    return 0;
  }

 private:
  void progress(int stage, int percent) {
    writeStatus(stage, percent, 0);
    velm::sim::pauseSeconds(stepSeconds_);
  }

  int fail(int stage, const std::string& why, int status = kFailed) {
    tool_.complain("%s: %s", volume_.c_str(), why.c_str());
    writeStatus(stage, 0, status);
    return status;
  }

  // The status file is replaced whole, so a reader never sees half of it.
  void writeStatus(int stage, int percent, int error) {
    if (!options_.writeStatus || !velm::sim::volumeNameUsable(volume_)) return;
    PropertyList s = PropertyList::dict();
    s.set("updateProgressionMessage", kStages[stage]);
    s.set("updateProgressionStage", stage);
    s.set("updateProgressionStageCount", kStageCount);
    s.set("updateProgressionStatus", percent);
    s.set("updateProgressionPID", static_cast<int>(::getpid()));
    s.set("updateErrorStatus", error);
    std::string dir = tool_.path("/var/run");
    velm::makeDirectories(dir);
    velm::writeXmlPlistFile(dir + "/drupdatefs_status_" + volume_ + ".plist", s);
  }

  const SimTool& tool_;
  const Options& options_;
  std::string volume_;
  double stepSeconds_;
  long long failAtStage_ = -1;
  int failStatus_ = kDefaultFailStatus;
};

int renameVolume(const SimTool& tool, const std::string& newName, const std::string& oldName) {
  for (const std::string& n : {newName, oldName}) {
    if (!velm::sim::volumeNameUsable(n)) {
      tool.complain("bad volume name '%s'", n.c_str());
      return kFailed;
    }
  }
  std::string configDir = tool.path(std::string(velm::sim::kVolumeConfigDir));
  std::string dataDir = tool.path(std::string(velm::sim::kVolumeDataDir));
  std::string oldConfig = configDir + oldName + ".cfg", newConfig = configDir + newName + ".cfg";
  if (velm::pathExists(newConfig)) {
    tool.complain("volume %s exists already", newName.c_str());
    return kFailed;
  }
  if (std::rename(oldConfig.c_str(), newConfig.c_str()) != 0) {
    tool.complain("cannot rename %s: %s", oldConfig.c_str(), std::strerror(errno));
    return kFailed;
  }
  if (std::rename((dataDir + oldName).c_str(), (dataDir + newName).c_str()) != 0) {
    tool.complain("cannot rename the data directory of %s: %s", oldName.c_str(),
                  std::strerror(errno));
    std::rename(newConfig.c_str(), oldConfig.c_str());
    return kFailed;
  }
  appendTo(dataDir + newName + "/updates.log", "renamed from " + oldName + "\n");
  std::printf("Volume %s renamed to %s.\n", oldName.c_str(), newName.c_str());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  // In a sandbox the plugin looks for its tasks in the sandbox's process table.
  velm::sim::SandboxProcessEntry entry("drupdatefs");
  SimTool tool("drupdatefs", argc, argv);
  if (std::optional<int> scripted = tool.begin()) return *scripted;
  Options options;
  if (!parseArguments(tool.args(), &options)) {
    std::fputs(kUsage, stderr);
    return kUsageStatus;
  }
  if (options.rename) return renameVolume(tool, options.names[0], options.names[1]);
  return Update(tool, options).run();
}
