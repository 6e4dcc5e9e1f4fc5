// The mount table velm-simd keeps for the rest of the system: qufs lines in a mountinfo file in
// the kernel's format, and mount points under <root>/Volumes. Not thread-safe: the caller
// serialises changes.
#pragma once

#include <string>
#include <string_view>

#include "plist/plist.h"

namespace velm::sim {

class SimdMounts {
 public:
  // root: absolute sandbox root; mountInfoPath: the file to keep (its directory must exist).
  SimdMounts(std::string root, std::string mountInfoPath)
      : root_(std::move(root)), mountInfoPath_(std::move(mountInfoPath)) {}

  std::string mountPoint(const std::string& volume) const { return root_ + "/Volumes/" + volume; }
  const std::string& mountInfoPath() const { return mountInfoPath_; }

  bool isMounted(const std::string& volume) const;
  // Makes the mount point and writes the volume's line, replacing one that is there. options:
  // key=value pairs for the super options (collections are skipped); may be null. Returns ""
  // or the reply's error text.
  std::string mount(const std::string& volume, bool readOnly, const PlistDict* options);
  // Removes the volume's line and its mount point when that is empty; "" or the error text.
  std::string unmount(const std::string& volume);

 private:
  std::string root_;
  std::string mountInfoPath_;
};

}  // namespace velm::sim
