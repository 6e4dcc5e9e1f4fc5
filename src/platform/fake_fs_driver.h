// A driver for tests: records each request and answers through a handler the test sets.
#pragma once

#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "platform/fs_driver.h"
#include "platform/mounts.h"

namespace velm {

class FakeFsDriver : public FsDriver {
 public:
  struct Call {
    std::string path;
    unsigned long request;
  };
  // Gets the request's argument; returns 0 or an errno value. Unset: every request is ENOTSUP.
  using Handler = std::function<int(const std::string& path, unsigned long request, void* arg)>;

  FakeFsDriver() { setFsDriverForTest(this); }
  ~FakeFsDriver() override { setFsDriverForTest(nullptr); }

  void setHandler(Handler h) { handler_ = std::move(h); }
  const std::vector<Call>& calls() const { return calls_; }

  int fsctl(const std::string& path, unsigned long request, void* arg) override {
    calls_.push_back({path, request});
    return handler_ ? handler_(path, request, arg) : ENOTSUP;
  }

  // A file is on a SAN volume when the sandbox's mount table has it under a "qufs" mount.
  bool isVelmFile(int, const std::string& path) override {
    std::optional<MountEntry> m = mountContaining(readMountInfo(), path);
    return m && m->fsType == "qufs";
  }
  // Keeps each file's affinity key (by device and inode), as the driver does; failWith makes
  // every file request fail with that errno instead.
  int fileControl(int fd, unsigned long request, void* arg) override {
    calls_.push_back({"fd", request});
    if (fileError_) return fileError_;
    struct stat st {};
    if (::fstat(fd, &st) != 0) return errno;
    std::uint64_t& key = affinities_[{st.st_dev, st.st_ino}];
    if (request == kVelmGetAffinity) {
      std::memcpy(arg, &key, sizeof key);
    } else if (request == kVelmSetAffinity) {
      std::memcpy(&key, arg, sizeof key);
    } else {
      return ENOTTY;
    }
    return 0;
  }
  void failFileRequestsWith(int err) { fileError_ = err; }

 private:
  Handler handler_;
  std::vector<Call> calls_;
  std::map<std::pair<dev_t, ino_t>, std::uint64_t> affinities_;
  int fileError_ = 0;
};

}  // namespace velm
