#include "platform/host_watches.h"

#include <fcntl.h>
#include <libudev.h>
#include <linux/magic.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "platform/clock.h"
#include "platform/files.h"
#include "platform/paths.h"
#include "platform/volume_events.h"

namespace velm {
namespace {

constexpr std::uint32_t kChangeMask =
    IN_MODIFY | IN_ATTRIB | IN_CLOSE_WRITE | IN_MOVED_FROM | IN_MOVED_TO | IN_CREATE | IN_DELETE;
constexpr const char* kControllerPrefs = "com.orvane.velm.controller.plist";

// Reads every pending inotify event; calls each(event) for each.
template <typename F>
void readInotify(int fd, F each) {
  alignas(inotify_event) char buf[16384];
  while (true) {
    ssize_t n = ::read(fd, buf, sizeof buf);
    if (n <= 0) return;
    for (char* p = buf; p < buf + n;) {
      auto* ev = reinterpret_cast<inotify_event*>(p);
      each(*ev);
      p += sizeof(inotify_event) + ev->len;
    }
  }
}

void drainSocket(int fd) {
  char buf[8192];
  // ENOBUFS means events were lost: a change all the same.
  while (::recv(fd, buf, sizeof buf, MSG_DONTWAIT) > 0 || errno == ENOBUFS) {
  }
}

}  // namespace

// ---- InotifyWatch ----

InotifyWatch::~InotifyWatch() {
  if (loop_ && id_) loop_->unwatchFd(id_);
}

bool InotifyWatch::start(EventLoop& loop, Callback callback) {
  fd_.reset(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
  if (!fd_) return false;
  loop_ = &loop;
  callback_ = std::move(callback);
  id_ = loop.watchFd(fd_.get(), EPOLLIN, [this](std::uint32_t) { drain(); });
  return id_ != 0;
}

bool InotifyWatch::watchDirectory(const std::string& dir, std::set<std::string> names, bool make) {
  if (!fd_) {
    errno = EBADF;
    return false;
  }
  if (make) makeDirectories(dir);
  int wd = ::inotify_add_watch(fd_.get(), dir.c_str(), kChangeMask | IN_ONLYDIR);
  if (wd < 0) return false;
  names_[wd] = std::move(names);
  return true;
}

void InotifyWatch::drain() {
  std::vector<std::string> changed;
  readInotify(fd_.get(), [&](const inotify_event& ev) {
    auto it = names_.find(ev.wd);
    if (it == names_.end()) return;
    std::string name = ev.len ? std::string(ev.name) : std::string();
    if (it->second.empty() || it->second.count(name)) changed.push_back(name);
  });
  if (!changed.empty() && callback_) callback_(changed);
}

// ---- NetworkChangeWatch ----

NetworkChangeWatch::~NetworkChangeWatch() {
  if (!loop_) return;
  if (netlinkId_) loop_->unwatchFd(netlinkId_);
  if (hostnameId_) loop_->unwatchFd(hostnameId_);
}

bool NetworkChangeWatch::start(EventLoop& loop, std::function<void()> callback) {
  loop_ = &loop;
  bool any = false;
  netlink_.reset(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE));
  if (netlink_) {
    sockaddr_nl sa{};
    sa.nl_family = AF_NETLINK;
    sa.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR;
    if (::bind(netlink_.get(), reinterpret_cast<sockaddr*>(&sa), sizeof sa) == 0) {
      int fd = netlink_.get();
      netlinkId_ = loop.watchFd(fd, EPOLLIN, [fd, callback](std::uint32_t) {
        drainSocket(fd);
        callback();
      });
      any = any || netlinkId_ != 0;
    }
  }
  // The kernel's host name signals a change with POLLPRI; a file that isn't procfs can't.
  hostname_.reset(::open(procfsPath("sys/kernel/hostname").c_str(), O_RDONLY | O_CLOEXEC));
  if (hostname_) {
    int fd = hostname_.get();
    hostnameId_ = loop.watchFd(fd, EPOLLPRI | EPOLLERR, [fd, callback](std::uint32_t) {
      char buf[256];
      ::lseek(fd, 0, SEEK_SET);
      [[maybe_unused]] ssize_t n = ::read(fd, buf, sizeof buf);
      callback();
    });
    any = any || hostnameId_ != 0;
  }
  if (names_.start(loop, [callback](const std::vector<std::string>&) { callback(); }) &&
      names_.watchDirectory(hostPath("/etc"), {"hostname", "machine-info"}))
    any = true;
  return any;
}

// ---- ConfigTreeWatch ----

ConfigTreeWatch::~ConfigTreeWatch() {
  if (!loop_) return;
  if (id_) loop_->unwatchFd(id_);
  if (timer_) loop_->cancelTimer(timer_);
}

bool ConfigTreeWatch::start(EventLoop& loop, std::function<void()> callback) {
  fd_.reset(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
  if (!fd_) return false;
  loop_ = &loop;
  callback_ = std::move(callback);
  armConfigRoot();
  // Preferences files are replaced whole (a new inode), so the directory is watched, not the file.
  std::string prefs = hostPath("/Library/Preferences");
  makeDirectories(prefs);
  prefsWatch_ = ::inotify_add_watch(fd_.get(), prefs.c_str(), kChangeMask | IN_ONLYDIR);
  id_ = loop.watchFd(fd_.get(), EPOLLIN, [this](std::uint32_t) { onEvents(); });
  return id_ != 0;
}

void ConfigTreeWatch::addTree(const std::string& dir) {
  int wd = ::inotify_add_watch(fd_.get(), dir.c_str(), kChangeMask | IN_ONLYDIR);
  if (wd < 0) return;
  dirs_[wd] = dir;
  std::error_code ec;
  for (const auto& e : std::filesystem::directory_iterator(dir, ec)) {
    if (e.is_directory(ec) && !e.is_symlink(ec)) addTree(e.path().string());
  }
}

void ConfigTreeWatch::armConfigRoot() {
  std::string root = configDir();
  while (true) {
    if (pathExists(root)) {
      if (parentWatch_ >= 0) ::inotify_rm_watch(fd_.get(), parentWatch_);
      parentWatch_ = -1;
      parentPath_.clear();
      addTree(root);
      return;
    }
    // Not there yet: the nearest directory that is waits for the next level.
    std::filesystem::path parent = std::filesystem::path(root).parent_path();
    while (!parent.empty() && parent != parent.root_path() && !pathExists(parent.string()))
      parent = parent.parent_path();
    if (parent.string() == parentPath_) return;
    if (parentWatch_ >= 0) ::inotify_rm_watch(fd_.get(), parentWatch_);
    parentWatch_ =
        ::inotify_add_watch(fd_.get(), parent.c_str(), IN_CREATE | IN_MOVED_TO | IN_ONLYDIR);
    parentPath_ = parent.string();
    // Looked at again: a level may have been made before the watch was in place.
  }
}

void ConfigTreeWatch::onEvents() {
  bool relevant = false, rearm = false;
  readInotify(fd_.get(), [&](const inotify_event& ev) {
    if (ev.mask & IN_Q_OVERFLOW) {
      relevant = true;
      return;
    }
    if (ev.wd == parentWatch_) {
      rearm = true;
      return;
    }
    if (ev.wd == prefsWatch_) {
      relevant = relevant || (ev.len && std::string(ev.name) == kControllerPrefs);
      return;
    }
    auto it = dirs_.find(ev.wd);
    if (it == dirs_.end()) return;
    relevant = true;
    if ((ev.mask & IN_ISDIR) && (ev.mask & (IN_CREATE | IN_MOVED_TO)) && ev.len)
      addTree(it->second + "/" + ev.name);
    if (ev.mask & IN_IGNORED) dirs_.erase(it);
  });
  if (rearm) {
    armConfigRoot();
    relevant = relevant || parentWatch_ < 0;
  }
  // Coalesce: the first event arms the timer, the ones after it ride along.
  if (!relevant || timer_) return;
  timer_ = loop_->addTimer(clock().monotonicMicros() + kLatencyMicros, [this] {
    timer_ = 0;
    callback_();
  });
}

// ---- DiskEventWatch ----

struct DiskEventWatch::UdevMonitor {
  udev* u = nullptr;
  udev_monitor* monitor = nullptr;
  ~UdevMonitor() {
    if (monitor) udev_monitor_unref(monitor);
    if (u) udev_unref(u);
  }
};

DiskEventWatch::DiskEventWatch() = default;

DiskEventWatch::~DiskEventWatch() {
  if (!loop_) return;
  if (udevId_) loop_->unwatchFd(udevId_);
  if (mountsId_) loop_->unwatchFd(mountsId_);
}

namespace {

// A disk by its device node, a mount by its source and mount id.
std::string identityOf(const PropertyList& description) {
  namespace d = disk_description;
  std::string id;
  if (const std::string* node = description.getString(d::kDeviceNode)) id = *node;
  if (const PropertyList* mount = description.get(d::kMountID))
    id += "#" + std::to_string(mount->int64Value().value_or(0));
  return id;
}

std::vector<std::string> changedKeys(const PropertyList& before, const PropertyList& after) {
  std::vector<std::string> keys;
  std::set<std::string> all;
  for (const PropertyList* d : {&before, &after})
    if (const PlistDict* dict = d->asDict())
      for (const auto& [k, v] : *dict) all.insert(k);
  for (const std::string& k : all) {
    const PropertyList* a = before.get(k);
    const PropertyList* b = after.get(k);
    if (!a || !b || !(*a == *b)) keys.push_back(k);
  }
  return keys;
}

}  // namespace

bool DiskEventWatch::start(EventLoop& loop, Callbacks callbacks) {
  loop_ = &loop;
  callbacks_ = std::move(callbacks);
  for (const PropertyList& d : volumeEventService().presentDisks()) present_[identityOf(d)] = d;
  bool any = false;

  udev_ = std::make_unique<UdevMonitor>();
  udev_->u = udev_new();
  if (udev_->u) udev_->monitor = udev_monitor_new_from_netlink(udev_->u, "udev");
  if (udev_->monitor &&
      udev_monitor_filter_add_match_subsystem_devtype(udev_->monitor, "block", "disk") >= 0 &&
      udev_monitor_enable_receiving(udev_->monitor) >= 0) {
    udev_monitor* m = udev_->monitor;
    udevId_ = loop.watchFd(udev_monitor_get_fd(m), EPOLLIN, [this, m](std::uint32_t) {
      while (udev_device* dev = udev_monitor_receive_device(m)) udev_device_unref(dev);
      rescan();
    });
    any = any || udevId_ != 0;
  }

  // The mount table: POLLPRI on procfs; a plain file (a sandbox's) through inotify instead.
  std::string mountinfo = procfsPath("self/mountinfo");
  mounts_.reset(::open(mountinfo.c_str(), O_RDONLY | O_CLOEXEC));
  struct statfs fs {};
  if (mounts_ && ::fstatfs(mounts_.get(), &fs) == 0 && fs.f_type == PROC_SUPER_MAGIC) {
    int fd = mounts_.get();
    mountsId_ = loop.watchFd(fd, EPOLLPRI | EPOLLERR, [this, fd](std::uint32_t) {
      char buf[4096];
      ::lseek(fd, 0, SEEK_SET);
      while (::read(fd, buf, sizeof buf) > 0) {
      }
      rescan();
    });
    any = any || mountsId_ != 0;
  } else {
    mounts_.reset();
    std::filesystem::path p(mountinfo);
    if (mountsByInotify_.start(loop, [this](const std::vector<std::string>&) { rescan(); }) &&
        mountsByInotify_.watchDirectory(p.parent_path().string(), {p.filename().string()}, true))
      any = true;
  }
  return any;
}

void DiskEventWatch::rescan() {
  std::map<std::string, PropertyList> now;
  for (const PropertyList& d : volumeEventService().presentDisks()) now[identityOf(d)] = d;
  for (const auto& [id, d] : present_)
    if (!now.count(id) && callbacks_.disappeared) callbacks_.disappeared(d);
  for (const auto& [id, d] : now) {
    auto was = present_.find(id);
    if (was == present_.end()) {
      if (callbacks_.appeared) callbacks_.appeared(d);
    } else if (!(was->second == d) && callbacks_.changed) {
      callbacks_.changed(d, changedKeys(was->second, d));
    }
  }
  present_ = std::move(now);
}

}  // namespace velm
