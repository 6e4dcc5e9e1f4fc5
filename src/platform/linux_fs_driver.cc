#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <cerrno>

#include "platform/files.h"
#include "platform/fs_driver.h"
#include "platform/mounts.h"
#include "platform/paths.h"
#include "platform/unique_fd.h"

#ifndef STATX_MNT_ID
#define STATX_MNT_ID 0x00001000U
#endif

namespace velm {
namespace {

constexpr std::string_view kFsType = "qufs";

bool driverLoaded() {
  std::optional<std::string> text = readFile(procfsPath("filesystems"));
  if (!text) return false;
  // Lines are "nodev\tname" or "\tname".
  size_t start = 0;
  while (start < text->size()) {
    size_t end = text->find('\n', start);
    if (end == std::string::npos) end = text->size();
    std::string_view line(text->data() + start, end - start);
    size_t tab = line.rfind('\t');
    if (line.substr(tab == std::string_view::npos ? 0 : tab + 1) == kFsType) return true;
    start = end + 1;
  }
  return false;
}

// The mount that holds fd: by the kernel's mount id, else (a mount table that is not the
// kernel's own, as in a sandbox) by the longest mount point that prefixes path.
std::optional<MountEntry> mountOf(int fd, const std::string& path) {
  std::vector<MountEntry> mounts = readMountInfo();
  struct statx sx {};
  if (::statx(fd, "", AT_EMPTY_PATH, STATX_MNT_ID, &sx) == 0 && (sx.stx_mask & STATX_MNT_ID)) {
    for (const MountEntry& m : mounts) {
      if (static_cast<unsigned long long>(m.mountId) == sx.stx_mnt_id) return m;
    }
  }
  return mountContaining(mounts, path);
}

class LinuxFsDriver : public FsDriver {
 public:
  int fsctl(const std::string& path, unsigned long request, void* arg) override {
    if (!driverLoaded()) return ENOTSUP;
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) return errno;
    std::optional<MountEntry> mount = mountOf(fd.get(), path);
    if (!mount || mount->fsType != kFsType) return ENOTSUP;
    if (::ioctl(fd.get(), request, arg) != 0) return errno;
    return 0;
  }
  bool isVelmFile(int fd, const std::string& path) override {
    std::optional<MountEntry> mount = mountOf(fd, path);
    return mount && mount->fsType == kFsType;
  }
  int fileControl(int fd, unsigned long request, void* arg) override {
    if (!driverLoaded()) return ENOTSUP;
    return ::ioctl(fd, request, arg) == 0 ? 0 : errno;
  }
};

FsDriver* gOverride = nullptr;

}  // namespace

FsDriver& fsDriver() {
  static LinuxFsDriver linuxDriver;
  return gOverride ? *gOverride : linuxDriver;
}

void setFsDriverForTest(FsDriver* driver) { gOverride = driver; }

}  // namespace velm
