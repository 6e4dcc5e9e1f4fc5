#include "sim/simd_commands.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>

#include "platform/entry_name.h"
#include "platform/files.h"
#include "platform/unique_fd.h"
#include "sim/simd_log.h"

namespace velm::sim {
namespace {

PropertyList errorReply(std::string text) {
  PropertyList reply = PropertyList::dict();
  reply.set(std::string(kSimdErrorKey), std::move(text));
  return reply;
}

PropertyList malformed(std::string_view reason) {
  return errorReply("malformed request: " + std::string(reason));
}

}  // namespace

const SimdCommands::CommandEntry SimdCommands::kCommandTable[] = {
    {"disksChanged", &SimdCommands::disksChangedCommand},
    {"sanConfigChanged", &SimdCommands::sanConfigChangedCommand},
    {"roleChanged", &SimdCommands::roleChangedCommand},
    {"mount", &SimdCommands::mountCommand},
    {"unmount", &SimdCommands::unmountCommand},
};

SimdCommands::SimdCommands(std::string root, std::string mountInfoPath)
    : root_(root), mounts_(std::move(root), std::move(mountInfoPath)) {}

std::string SimdCommands::notificationPath(std::string_view name) const {
  return root_ + "/var/run/velm/notify/" + std::string(name);
}

std::string SimdCommands::automountPath() const {
  return root_ + "/Library/Filesystems/Velm/config/automount.plist";
}

PropertyList SimdCommands::handle(const std::string& command, const PropertyList& request) {
  for (const CommandEntry& c : kCommandTable) {
    if (c.name != command) continue;
    PropertyList reply = (this->*c.handler)(request);
    if (!reply.get(kSimdErrorKey)) reply.set(std::string(kSimdCommandKey), command);
    return reply;
  }
  return errorReply("unknown command '" + command + "'");
}

PropertyList SimdCommands::disksChangedCommand(const PropertyList&) {
  postNotification(kDisksChangedNotification);
  automount();
  return PropertyList::dict();
}

PropertyList SimdCommands::sanConfigChangedCommand(const PropertyList&) {
  postNotification(kSanConfigChangedNotification);
  automount();
  return PropertyList::dict();
}

PropertyList SimdCommands::roleChangedCommand(const PropertyList&) { return PropertyList::dict(); }

PropertyList SimdCommands::mountCommand(const PropertyList& request) {
  const std::string* volume = request.getString(kSimdVolumeKey);
  const std::string* how = request.getString(kSimdHowKey);
  const PropertyList* options = request.get(kSimdMountOptionsKey);
  if (!volume) return malformed("'volume' must be a string");
  if (!how || (*how != "rw" && *how != "ro")) return malformed("'how' must be \"rw\" or \"ro\"");
  if (options && !options->isDict()) return malformed("'MountOptions' must be a dictionary");
  if (!isSafeEntryName(*volume)) return errorReply("invalid volume name");

  std::scoped_lock lock(mutex_);
  std::string error = mounts_.mount(*volume, *how == "ro", options ? options->asDict() : nullptr);
  if (!error.empty()) return errorReply(error);
  forgotten_.erase(*volume);
  return PropertyList::dict();
}

PropertyList SimdCommands::unmountCommand(const PropertyList& request) {
  const std::string* volume = request.getString(kSimdVolumeKey);
  const PropertyList* forget = request.get(kSimdForgetVolumeKey);
  if (!volume) return malformed("'volume' must be a string");
  if (forget && !forget->isBool()) return malformed("'forgetVolume' must be a boolean");
  // Checked here too: the name becomes a directory to remove.
  if (!isSafeEntryName(*volume)) return errorReply("invalid volume name");

  std::scoped_lock lock(mutex_);
  std::string error = mounts_.unmount(*volume);
  if (!error.empty()) return errorReply(error);
  if (forget && *forget->asBool()) forgotten_.insert(*volume);
  return PropertyList::dict();
}

void SimdCommands::postNotification(std::string_view name) {
  std::string path = notificationPath(name);
  std::string dir = path.substr(0, path.rfind('/'));
  if (int err = makeDirectories(dir); err != 0) {
    simdLog("cannot make %s: %s", dir.c_str(), std::strerror(err));
    return;
  }
  // Written in place, not renamed over: readers watch for the close of a written file. The line
  // has a fixed width, so no truncation (slow on most file systems) is needed.
  UniqueFd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
  if (!fd) {
    simdLog("cannot post %s: %s", path.c_str(), std::strerror(errno));
    return;
  }
  auto now = std::chrono::system_clock::now().time_since_epoch();
  long long micros = std::chrono::duration_cast<std::chrono::microseconds>(now).count();
  char line[64];
  int n = std::snprintf(line, sizeof line, "%015lld.%06lld\n", micros / 1000000, micros % 1000000);
  if (n > 0 && ::pwrite(fd.get(), line, static_cast<std::size_t>(n), 0) != n)
    simdLog("cannot write %s: %s", path.c_str(), std::strerror(errno));
}

void SimdCommands::automount() {
  std::string path = automountPath();
  if (!pathExists(path)) return;
  std::optional<PropertyList> table = readDictionaryFile(path);
  if (!table) {
    simdLog("automount: %s is not a readable dictionary; nothing mounted", path.c_str());
    return;
  }
  for (const auto& [volume, entry] : *table->asDict()) {
    if (!isSafeEntryName(volume)) {
      simdLog("automount: skipping invalid volume name '%s'", volume.c_str());
      continue;
    }
    const PropertyList* options = entry.get(kSimdMountOptionsKey);
    std::scoped_lock lock(mutex_);
    if (forgotten_.count(volume) || mounts_.isMounted(volume)) continue;
    std::string error =
        mounts_.mount(volume, false, options && options->isDict() ? options->asDict() : nullptr);
    if (error.empty())
      simdLog("automount volume=%s -> ok", volume.c_str());
    else
      simdLog("automount volume=%s -> error: %s", volume.c_str(), error.c_str());
  }
}

}  // namespace velm::sim
