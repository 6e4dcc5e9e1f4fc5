// File affinity: an 8-character key that binds a file to a class of stripe groups, read and set
// through the file-system driver, and the commands getAffinity and setAffinity.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "core/velm_plugin.h"
#include "gateway/san_filesystem.h"
#include "platform/entry_name.h"
#include "platform/files.h"
#include "platform/fs_driver.h"
#include "platform/log.h"
#include "platform/unique_fd.h"
#include "plist/format.h"

namespace velm {
namespace {

constexpr std::uint64_t kNoKey = ~std::uint64_t{0};

// Opens path read-only on a SAN volume (setting too opens it so); logs and gives nothing when it
// can't be opened or lies elsewhere.
UniqueFd openVelmFile(const char* fn, const std::string& path) {
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd) {
    NLog("%s: open('%s') failed, %s", fn, path.c_str(), std::strerror(errno));
    return fd;
  }
  if (!SANFilesystem::isVelmFileDescriptor(fd.get(), path)) {
    NLog("%s: '%s' does not reside on an Velm volume", fn, path.c_str());
    fd.reset();
  }
  return fd;
}

PropertyList affinityAnswer(const PropertyList& request) {
  PropertyList response = PropertyList::dict();
  for (const char* key : {"volume", "path", "affinity"})
    if (const PropertyList* v = request.get(key)) response.set(key, *v);
  return response;
}

}  // namespace

std::string SANFilesystem::stringForAffinityKey(std::uint64_t key) {
  char bytes[8];
  std::memcpy(bytes, &key, sizeof bytes);
  return std::string(bytes, ::strnlen(bytes, sizeof bytes));
}

std::uint64_t SANFilesystem::affinityKeyForString(std::string_view text) {
  if (text.size() > 8) return kNoKey;
  for (char c : text)
    if (static_cast<unsigned char>(c) > 0x7f) return kNoKey;
  char bytes[8] = {};
  // strncpy's way: zero-filled, no terminator needed.
  std::memcpy(bytes, text.data(), ::strnlen(text.data(), text.size()));
  std::uint64_t key;
  std::memcpy(&key, bytes, sizeof key);
  return key;
}

bool SANFilesystem::isVelmFileDescriptor(int fd, const std::string& path) {
  return fsDriver().isVelmFile(fd, path);
}

int SANFilesystem::callExtapiWithFileDescriptor(int fd, unsigned long command, void* argument) {
  return fsDriver().fileControl(fd, command, argument);
}

std::optional<std::string> SANFilesystem::affinityForFileAtPath(const std::string& path) {
  const char* fn = "affinityForFileAtPath";
  UniqueFd fd = openVelmFile(fn, path);
  if (!fd) return std::nullopt;
  std::uint64_t key = 0;
  int status = callExtapiWithFileDescriptor(fd.get(), kVelmGetAffinity, &key);
  fd.reset();
  if (status != 0) {
    NError("%s: F_GETAFFINITY on '%s' failed", fn, path.c_str());
    return std::nullopt;
  }
  return stringForAffinityKey(key);
}

bool SANFilesystem::setAffinity(std::string_view affinity, const std::string& path) {
  const char* fn = "setAffinity";
  std::uint64_t key = affinityKeyForString(affinity);
  if (key == kNoKey) {
    NLog("%s: Unable to convert '%@' to an affinity key", fn, affinity);
    return false;
  }
  UniqueFd fd = openVelmFile(fn, path);
  if (!fd) return false;
  int status = callExtapiWithFileDescriptor(fd.get(), kVelmSetAffinity, &key);
  fd.reset();
  if (status != 0) {
    NError("%s: F_SETAFFINITY on '%s' failed", fn, path.c_str());
    return false;
  }
  return true;
}

namespace {

// The file a request names: the volume's mount point and the path inside it. Each refusal has
// its own words, asked in the order the commands ask them.
struct AffinityTarget {
  std::string file;
  const char* error = nullptr;
};

AffinityTarget targetOf(const PropertyList& request, const char* fn, bool forWriting) {
  SANFilesystem& fs = SANFilesystem::localFilesystem();
  const std::string* volume = request.getString("volume");
  if (!volume) return {{}, "volume required but missing"};
  std::optional<std::string> mount = fs.pathForVolume(*volume);
  if (!mount) return {{}, "volume not mounted"};
  if (forWriting && fs.volumeMountState(*volume) != 2) return {{}, "volume is mounted read-only"};
  const std::string* path = request.getString("path");
  if (!path) return {{}, "path required but missing"};
  // Deliberate: a missing affinity reads as a missing path.
  if (forWriting && !request.getString("affinity")) return {{}, "path required but missing"};
  // The path stays inside the volume: no "..", no NUL, not absolute.
  if (!checkRelativePath(fn, "the path", *path)) return {{}, "File not found"};
  std::string full = format("%@/%@", *mount, *path);
  if (!pathExists(full)) return {{}, "File not found"};
  return {full, nullptr};
}

}  // namespace

std::optional<PropertyList> VelmPlugin::getAffinityWithRequest(const PropertyList& request) {
  AffinityTarget target = targetOf(request, "getAffinity", false);
  if (target.error) return responseForError(target.error);
  std::optional<std::string> affinity =
      SANFilesystem::localFilesystem().affinityForFileAtPath(target.file);
  if (!affinity) return responseForError("Error reading affinity");
  PropertyList response = affinityAnswer(request);
  response.set("affinity", *affinity);
  return response;
}

std::optional<PropertyList> VelmPlugin::setAffinityWithRequest(const PropertyList& request) {
  AffinityTarget target = targetOf(request, "setAffinity", true);
  if (target.error) return responseForError(target.error);
  if (!SANFilesystem::localFilesystem().setAffinity(*request.getString("affinity"), target.file))
    return responseForError("Error setting affinity");
  return affinityAnswer(request);
}

}  // namespace velm
