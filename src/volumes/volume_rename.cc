// The command renameVolume: a volume's name stands in its .cfg file, its data directory, its
// fsmlist line and its aux file. With update, drupdatefs renames the first two; without, the
// plugin moves them itself. The volume is neither stopped nor asked whether it runs.
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "adminhost/host_common.h"
#include "config/config_parser.h"
#include "core/velm_plugin.h"
#include "gateway/san_filesystem.h"
#include "model/plugin_status.h"
#include "platform/entry_name.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "volumes/command_support.h"

namespace velm {
namespace {

constexpr std::string_view kUpdateTool = "/Library/Filesystems/Velm/bin/drupdatefs";
constexpr int kRefused = 22;
constexpr int kExists = 17;

std::string dataDirectory(const std::string& volume) {
  return hostPath("/Library/Filesystems/Velm/data/" + volume);
}

}  // namespace

std::optional<PropertyList> VelmPlugin::renameVolumeWithRequest(const PropertyList& request) {
  const char* fn = "renameVolume";
  const std::string* oldName = request.getString("oldName");
  const std::string* newName = request.getString("newName");
  bool update = requestFlag(request, "update");
  auto answer = [](int status) { return responseWithVolumes(PropertyList(status)); };

  if (!oldName || !checkEntryName(fn, "the old volume name", *oldName) || !newName ||
      !checkEntryName(fn, "the new volume name", *newName))
    return answer(kRefused);
  for (const std::string* name : {oldName, newName})
    if (refuseForLongTask(*this, fn, *name)) return answer(kStatusLongTaskRunning);
  SANFilesystem& fs = SANFilesystem::localFilesystem();
  if (!fs.doesExistVolumeNamed(*oldName)) {
    NError("%s: Volume '%@' does not exist", fn, *oldName);
    return answer(kStatusNoSuchVolume);
  }
  if (fs.doesExistVolumeNamed(*newName)) {
    NError("%s: Volume '%@' already exists", fn, *newName);
    return answer(kExists);
  }

  if (update) {
    // The tool runs to its end within the command, under the plugin lock.
    LaunchResult r = launch_task(hostPath(kUpdateTool), {"-R", *newName, *oldName});
    // 0 and 1 are success; anything else, a failed launch's -1 too, is the answer.
    if (static_cast<unsigned>(r.status) > 1) {
      NError("%s: Could not launch %@, status %d (output '%@', error '%@')", fn, kUpdateTool,
             r.status, r.output, r.error);
      return answer(r.status);
    }
  } else {
    std::string oldConfig = configPath(*oldName + ".cfg");
    std::string newConfig = configPath(*newName + ".cfg");
    if (std::rename(oldConfig.c_str(), newConfig.c_str()) != 0) {
      int err = errno;
      NError("%s: could not move config file from old path '%@' to new path '%@', error '%s'", fn,
             oldConfig, newConfig, std::strerror(err));
      return answer(err);
    }
    std::string oldData = dataDirectory(*oldName);
    std::string newData = dataDirectory(*newName);
    if (std::rename(oldData.c_str(), newData.c_str()) != 0) {
      int err = errno;
      NError(
          "%s: could not move data file directory from old path '%@' to new path '%@', error '%s'",
          fn, oldData, newData, std::strerror(err));
      // Deliberate: the answer is errno as the move back leaves it, so a failed move back
      // replaces the first error.
      errno = err;
      std::rename(newConfig.c_str(), oldConfig.c_str());
      return answer(errno);
    }
  }

  // The line keeps everything from its first blank on, so the failover index stays.
  // Deliberate: a failed write goes unnoticed and the old line stays.
  writeFsmlist(editFsmlistLines(readFsmlist(), [&](std::string_view line) {
    if (fsmlistVolumeName(line) != *oldName) return std::string(line);
    return *newName + std::string(line.substr(oldName->size()));
  }));

  // In both modes the aux file is the plugin's to move; its failure doesn't reach the status.
  std::optional<std::string> oldAux = SANConfigParser::pathToAuxData(*oldName);
  std::optional<std::string> newAux = SANConfigParser::pathToAuxData(*newName);
  if (oldAux && newAux && std::rename(oldAux->c_str(), newAux->c_str()) != 0) {
    int err = errno;
    NError("%s: could not move auxdata file from old path '%@' to new path '%@', error '%s'", fn,
           *oldAux, *newAux, std::strerror(err));
  }
  fs.sanConfigChanged();
  fs.clearCache();
  return answer(0);
}

}  // namespace velm
