// The host's change events on Linux, each a watch on the event loop that calls its callback (on
// the loop's thread) when what it watches may have changed. Events only mean "look again": the
// state itself is read from files by the code that uses it.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "platform/event_loop.h"
#include "platform/unique_fd.h"
#include "plist/plist.h"

namespace velm {

// An inotify descriptor on some directories, each with the entry names of interest (none: all).
// The callback gets the names that changed in one batch of events.
class InotifyWatch {
 public:
  using Callback = std::function<void(const std::vector<std::string>& names)>;
  ~InotifyWatch();
  // False with errno when inotify or the loop refused.
  bool start(EventLoop& loop, Callback callback);
  // Watches dir (made first when make is set) for the given names; false with errno.
  bool watchDirectory(const std::string& dir, std::set<std::string> names, bool make = false);

 private:
  void drain();

  EventLoop* loop_ = nullptr;
  std::uint64_t id_ = 0;
  UniqueFd fd_;
  std::map<int, std::set<std::string>> names_;  // watch descriptor -> names (empty: all)
  Callback callback_;
};

// Network and name changes: links and IPv4 addresses (rtnetlink), the kernel's host name
// (POLLPRI on procfs), and the name files /etc/hostname and /etc/machine-info.
class NetworkChangeWatch {
 public:
  ~NetworkChangeWatch();
  // False when no part could be attached; a part that fails alone (no netlink in a sandbox)
  // leaves the others.
  bool start(EventLoop& loop, std::function<void()> callback);

 private:
  EventLoop* loop_ = nullptr;
  UniqueFd netlink_, hostname_;
  std::uint64_t netlinkId_ = 0, hostnameId_ = 0;
  InotifyWatch names_;
};

// The config tree: every directory under config/ (new ones too) and the controller preferences
// file. The first event arms a timer of 1.0 s on the clock seam; when it fires, one callback for
// everything that came meanwhile.
class ConfigTreeWatch {
 public:
  static constexpr std::uint64_t kLatencyMicros = 1'000'000;
  ~ConfigTreeWatch();
  bool start(EventLoop& loop, std::function<void()> callback);

 private:
  void onEvents();
  void addTree(const std::string& dir);
  void armConfigRoot();

  EventLoop* loop_ = nullptr;
  UniqueFd fd_;
  std::uint64_t id_ = 0, timer_ = 0;
  std::map<int, std::string> dirs_;  // watch descriptor -> directory
  int parentWatch_ = -1;             // on the nearest parent while config/ is missing
  std::string parentPath_;
  int prefsWatch_ = -1;
  std::function<void()> callback_;
};

// Disks (udev, block disks) and SAN volumes (the mount table), as appeared, disappeared and
// description-changed events found by comparing what is present with what was.
class DiskEventWatch {
 public:
  struct Callbacks {
    std::function<void(const PropertyList& description)> appeared;
    std::function<void(const PropertyList& description)> disappeared;
    std::function<void(const PropertyList& description, const std::vector<std::string>& keys)>
        changed;
  };
  DiskEventWatch();
  ~DiskEventWatch();
  bool start(EventLoop& loop, Callbacks callbacks);
  // Compares what is present now with what was and reports the differences.
  void rescan();

 private:
  EventLoop* loop_ = nullptr;
  Callbacks callbacks_;
  struct UdevMonitor;
  std::unique_ptr<UdevMonitor> udev_;
  std::uint64_t udevId_ = 0, mountsId_ = 0;
  UniqueFd mounts_;
  InotifyWatch mountsByInotify_;
  std::map<std::string, PropertyList> present_;  // identity -> description
};

}  // namespace velm
