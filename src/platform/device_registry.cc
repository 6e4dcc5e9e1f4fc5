#include "platform/device_registry.h"

#include <libudev.h>
#include <sys/epoll.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <set>

#include "platform/clock.h"
#include "platform/event_loop.h"
#include "platform/files.h"
#include "platform/log.h"
#include "platform/paths.h"

namespace velm {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kFibreChannel = "Fibre Channel Interface";

std::string_view trimmed(std::string_view s) {
  while (!s.empty() && (s.back() == '\n' || s.back() == ' ' || s.back() == '\t'))
    s.remove_suffix(1);
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  return s;
}

std::vector<std::string> listing(const std::string& dir) {
  std::vector<std::string> names;
  std::error_code ec;
  for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec))
    names.push_back(it->path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

std::optional<std::string> attribute(const std::string& dir, const char* name) {
  return readFile(dir + "/" + name);
}

std::string hexText(std::uint64_t v) {
  char buf[24];
  auto [end, ec] = std::to_chars(buf, buf + sizeof buf, v, 16);
  return std::string(buf, end);
}

struct Rport {
  int host = 0, channel = 0;
  std::string state;
  long long targetId = -1;
  std::string dir;  // the rport's own device directory
};

// Every FCP-target remote port, by the node name of its target.
std::multimap<std::uint64_t, Rport> fcpPorts(const std::string& root,
                                             std::vector<std::string>* skipped) {
  std::multimap<std::uint64_t, Rport> ports;
  std::string cls = root + "/class/fc_remote_ports";
  for (const std::string& name : listing(cls)) {
    std::optional<std::vector<long long>> n = parseScsiName(name, "rport-", ":-");
    if (!n || n->size() != 3) {
      skipped->push_back("remote port " + name + ": not a remote port name");
      continue;
    }
    std::string attrs = cls + "/" + name;
    std::optional<std::string> roles = attribute(attrs, "roles");
    if (!roles || roles->find("FCP Target") == std::string::npos) continue;
    std::optional<std::uint64_t> wwnn = parseSysfsHex(attribute(attrs, "node_name").value_or(""));
    if (!wwnn) {
      skipped->push_back("remote port " + name + ": no node name");
      continue;
    }
    Rport r;
    r.host = static_cast<int>((*n)[0]);
    r.channel = static_cast<int>((*n)[1]);
    r.state = std::string(trimmed(attribute(attrs, "port_state").value_or("")));
    r.targetId = parseSysfsDecimal(attribute(attrs, "scsi_target_id").value_or("")).value_or(-1);
    std::error_code ec;
    fs::path real = fs::canonical(attrs, ec);
    // .../rport-H:C-N/fc_remote_ports/rport-H:C-N: the device directory is two up.
    if (!ec) r.dir = real.parent_path().parent_path().string();
    ports.emplace(*wwnn, std::move(r));
  }
  return ports;
}

std::string interconnectOf(const std::string& root, int host) {
  std::string h = "host" + std::to_string(host);
  if (pathExists(root + "/class/fc_host/" + h)) return std::string(kFibreChannel);
  if (pathExists(root + "/class/sas_host/" + h)) return "SAS";
  if (pathExists(root + "/class/iscsi_host/" + h)) return "iSCSI";
  return "SCSI";
}

bool isUp(std::string_view portState) { return portState == "Online" || portState == "Marginal"; }

}  // namespace

std::optional<std::uint64_t> parseSysfsHex(std::string_view text) {
  text = trimmed(text);
  if (text.size() < 3 || text[0] != '0' || (text[1] != 'x' && text[1] != 'X')) return std::nullopt;
  text.remove_prefix(2);
  std::uint64_t v = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v, 16);
  if (ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return v;
}

std::optional<long long> parseSysfsDecimal(std::string_view text) {
  text = trimmed(text);
  long long v = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
  if (text.empty() || ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return v;
}

std::optional<std::vector<long long>> parseScsiName(std::string_view name, std::string_view prefix,
                                                    std::string_view separators) {
  if (!name.starts_with(prefix)) return std::nullopt;
  name.remove_prefix(prefix.size());
  std::vector<long long> out;
  while (true) {
    long long v = 0;
    auto [end, ec] = std::from_chars(name.data(), name.data() + name.size(), v);
    if (ec != std::errc() || v < 0 || end == name.data()) return std::nullopt;
    out.push_back(v);
    name.remove_prefix(static_cast<std::size_t>(end - name.data()));
    if (name.empty()) return out;
    if (separators.find(name.front()) == std::string_view::npos) return std::nullopt;
    name.remove_prefix(1);
  }
}

std::optional<std::pair<std::uint64_t, std::uint64_t>> parseBlockStat(std::string_view text) {
  std::uint64_t fields[7] = {};
  for (std::uint64_t& f : fields) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), f);
    if (ec != std::errc()) return std::nullopt;
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
  }
  return std::make_pair(fields[2], fields[6]);
}

std::string_view DeviceNode::className() const {
  return kind_ == kFcTarget || kind_ == kScsiTarget ? kDevScsiTargetDevice : kDevScsiLogicalUnitNub;
}

struct DeviceRegistry::Udev {
  udev* u = nullptr;
  udev_monitor* monitor = nullptr;
  ~Udev() {
    if (monitor) udev_monitor_unref(monitor);
    if (u) udev_unref(u);
  }
};

DeviceRegistry::DeviceRegistry() = default;

DeviceRegistry::~DeviceRegistry() { detach(); }

std::map<std::string, DeviceRegistry::Seen> DeviceRegistry::scan() const {
  std::string root = sysfsPath();
  std::vector<std::string> skipped;
  std::map<std::string, Seen> found;
  auto node = [&](const std::string& id, DeviceNode::Kind kind) -> Seen& {
    Seen& s = found[id];
    if (!s.node) {
      s.node = std::make_shared<DeviceNode>();
      s.node->id_ = id;
      s.node->kind_ = kind;
    }
    return s;
  };

  // Fibre Channel targets: the fc_transport entries, grouped by node name.
  std::map<std::tuple<int, int, int>, std::uint64_t> fcByHct;
  std::string transport = root + "/class/fc_transport";
  for (const std::string& name : listing(transport)) {
    std::optional<std::vector<long long>> n = parseScsiName(name, "target", ":");
    std::optional<std::uint64_t> wwnn =
        n && n->size() == 3
            ? parseSysfsHex(attribute(transport + "/" + name, "node_name").value_or(""))
            : std::nullopt;
    if (!n || n->size() != 3) {
      skipped.push_back("target " + name + ": not a target name");
      continue;
    }
    int h = static_cast<int>((*n)[0]);
    std::tuple<int, int, int> hct{h, static_cast<int>((*n)[1]), static_cast<int>((*n)[2])};
    if (!wwnn) {
      skipped.push_back("target " + name + ": no node name");
      std::scoped_lock lock(knownMutex_);
      auto known = knownNames_.find(hct);
      if (known == knownNames_.end()) continue;
      wwnn = known->second;
    }
    fcByHct[hct] = *wwnn;
    Seen& s = node("fc:" + hexText(*wwnn), DeviceNode::kFcTarget);
    s.node->wwnn_ = *wwnn;
    if (s.node->interconnect_.empty() || s.node->interconnect_ != kFibreChannel)
      s.node->interconnect_ = interconnectOf(root, h);
  }
  {
    std::scoped_lock lock(knownMutex_);
    knownNames_ = fcByHct;
  }
  // Their paths, as a text that changes whenever a path or its state does.
  for (const auto& [wwnn, port] : fcpPorts(root, &skipped)) {
    auto it = found.find("fc:" + hexText(wwnn));
    if (it == found.end()) continue;
    it->second.paths +=
        std::to_string(port.host) + ":" + std::to_string(port.channel) + "=" + port.state + ";";
  }

  // Logical units, and the targets of other buses.
  std::string devices = root + "/class/scsi_device";
  for (const std::string& name : listing(devices)) {
    std::optional<std::vector<long long>> n = parseScsiName(name, "", ":");
    if (!n || n->size() != 4) {
      skipped.push_back("scsi device " + name + ": not H:C:T:L");
      continue;
    }
    int h = static_cast<int>((*n)[0]), c = static_cast<int>((*n)[1]), t = static_cast<int>((*n)[2]);
    std::uint64_t lun = static_cast<std::uint64_t>((*n)[3]);
    auto fc = fcByHct.find({h, c, t});
    if (fc != fcByHct.end()) {
      Seen& u =
          node("fclun:" + hexText(fc->second) + ":" + std::to_string(lun), DeviceNode::kFcUnit);
      u.node->wwnn_ = fc->second;
      u.node->lun_ = lun;
      u.node->interconnect_ = found["fc:" + hexText(fc->second)].node->interconnect_;
      continue;
    }
    std::string hct = std::to_string(h) + ":" + std::to_string(c) + ":" + std::to_string(t);
    Seen& target = node("scsi:" + hct, DeviceNode::kScsiTarget);
    target.node->host_ = h;
    target.node->channel_ = c;
    target.node->target_ = t;
    target.node->interconnect_ = interconnectOf(root, h);
    Seen& u = node("scsilun:" + hct + ":" + std::to_string(lun), DeviceNode::kScsiUnit);
    u.node->host_ = h;
    u.node->channel_ = c;
    u.node->target_ = t;
    u.node->lun_ = lun;
    u.node->interconnect_ = target.node->interconnect_;
  }

  if (!skipped.empty()) {
    static std::mutex reportedMutex;
    static std::set<std::string> reported;
    std::scoped_lock lock(reportedMutex);
    for (const std::string& why : skipped)
      if (reported.insert(why).second) NLog("DeviceRegistry: skipping %@", why);
  }
  return found;
}

void DeviceRegistry::rescan() {
  // One rescan at a time; another asked meanwhile finds the same tree.
  if (scanning_.exchange(true)) return;
  std::map<std::string, Seen> now = scan();
  std::vector<DeviceNodeRef> appeared, gone;
  std::vector<DeviceNodeRef> changed;
  std::vector<Subscription> subs;
  {
    std::scoped_lock lock(mutex_);
    for (auto& [id, seen] : present_) {
      auto it = now.find(id);
      if (it == now.end()) {
        seen.node->terminated_ = true;
        gone.push_back(seen.node);
      } else {
        // The node keeps its identity across scans.
        it->second.node = seen.node;
        if (it->second.paths != seen.paths) changed.push_back(seen.node);
      }
    }
    for (auto& [id, seen] : now)
      if (!present_.count(id)) appeared.push_back(seen.node);
    present_ = std::move(now);
    for (const DeviceNodeRef& n : gone) interests_.erase(n->id());
    subs = subscriptions_;
  }
  auto deliver = [&](bool firstMatch, const std::vector<DeviceNodeRef>& nodes,
                     std::string_view cls) {
    std::vector<DeviceNodeRef> ofClass;
    for (const DeviceNodeRef& n : nodes)
      if (n->className() == cls) ofClass.push_back(n);
    if (ofClass.empty()) return;
    for (const Subscription& s : subs)
      if (s.firstMatch == firstMatch && s.className == cls) s.callback(ofClass);
  };
  // Units leave before their targets, and targets come before their units.
  deliver(false, gone, kDevScsiLogicalUnitNub);
  deliver(false, gone, kDevScsiTargetDevice);
  deliver(true, appeared, kDevScsiTargetDevice);
  deliver(true, appeared, kDevScsiLogicalUnitNub);
  for (const DeviceNodeRef& n : changed) {
    std::vector<MessageCallback> callbacks;
    {
      std::scoped_lock lock(mutex_);
      auto [first, last] = interests_.equal_range(n->id());
      for (auto it = first; it != last; ++it) callbacks.push_back(it->second);
    }
    for (const MessageCallback& cb : callbacks) cb(n, kDevMessageServicePropertyChange);
  }
  scanning_ = false;
}

std::vector<DeviceNodeRef> DeviceRegistry::addFirstMatchNotification(std::string_view className,
                                                                     NodesCallback callback) {
  std::map<std::string, Seen> now = scan();
  std::scoped_lock lock(mutex_);
  if (present_.empty()) present_ = std::move(now);
  subscriptions_.push_back({std::string(className), true, std::move(callback)});
  std::vector<DeviceNodeRef> nodes;
  for (const auto& [id, seen] : present_)
    if (seen.node->className() == className) nodes.push_back(seen.node);
  return nodes;
}

std::vector<DeviceNodeRef> DeviceRegistry::addTerminateNotification(std::string_view className,
                                                                    NodesCallback callback) {
  std::scoped_lock lock(mutex_);
  subscriptions_.push_back({std::string(className), false, std::move(callback)});
  return {};
}

bool DeviceRegistry::addInterestNotification(const DeviceNodeRef& node, MessageCallback callback) {
  if (!node || node->terminated()) return false;
  std::scoped_lock lock(mutex_);
  interests_.emplace(node->id(), std::move(callback));
  return true;
}

bool DeviceRegistry::attach(EventLoop& loop) {
  loop_ = &loop;
  udev_ = std::make_unique<Udev>();
  udev_->u = udev_new();
  if (udev_->u) udev_->monitor = udev_monitor_new_from_netlink(udev_->u, "udev");
  bool watching = false;
  if (udev_->monitor) {
    for (const char* subsystem : {"scsi", "fc_remote_ports", "block"})
      udev_monitor_filter_add_match_subsystem_devtype(udev_->monitor, subsystem, nullptr);
    if (udev_monitor_enable_receiving(udev_->monitor) >= 0) {
      udev_monitor* m = udev_->monitor;
      udevId_ = loop.watchFd(udev_monitor_get_fd(m), EPOLLIN, [this, m](std::uint32_t) {
        // A burst of uevents is one rescan.
        while (udev_device* dev = udev_monitor_receive_device(m)) udev_device_unref(dev);
        rescan();
      });
      watching = udevId_ != 0;
    }
  }
  if (!watching) NLog("DeviceRegistry: no udev events here; rescanning every 5 seconds only");
  timer_ = loop.addTimer(clock().monotonicMicros() + kDeviceRescanMicros, [this] { onTimer(); });
  return timer_ != 0;
}

void DeviceRegistry::onTimer() {
  rescan();
  if (loop_)
    timer_ =
        loop_->addTimer(clock().monotonicMicros() + kDeviceRescanMicros, [this] { onTimer(); });
}

void DeviceRegistry::detach() {
  if (!loop_) return;
  if (udevId_) loop_->unwatchFd(udevId_);
  if (timer_) loop_->cancelTimer(timer_);
  udevId_ = timer_ = 0;
  loop_ = nullptr;
}

bool DeviceRegistry::conformsTo(const DeviceNode& node, std::string_view className) {
  return node.className() == className;
}

std::optional<PropertyList> DeviceRegistry::property(const DeviceNode& node,
                                                     std::string_view key) const {
  if (node.terminated()) return std::nullopt;
  bool fc = node.kind() == DeviceNode::kFcTarget || node.kind() == DeviceNode::kFcUnit;
  bool unit = node.kind() == DeviceNode::kFcUnit || node.kind() == DeviceNode::kScsiUnit;
  if (key == kProtocolCharacteristics) {
    PropertyList p = PropertyList::dict();
    p.set(std::string(kPhysicalInterconnect), node.interconnect_);
    if (fc) {
      PlistData name(8);
      for (int i = 0; i < 8; ++i) name[i] = static_cast<std::uint8_t>(node.wwnn_ >> (56 - 8 * i));
      p.set(std::string(kNodeWorldWideName), name);
    }
    return p;
  }
  if (key == kScsiLogicalUnitNumber) {
    if (!unit) return std::nullopt;
    return PropertyList(static_cast<unsigned long long>(node.lun_));
  }
  if (key != kPathStatistics || node.kind() != DeviceNode::kFcTarget) return std::nullopt;
  std::vector<std::string> skipped;
  PropertyList paths = PropertyList::array();
  std::multimap<std::uint64_t, Rport> ports = fcpPorts(sysfsPath(), &skipped);
  for (auto [it, end] = ports.equal_range(node.wwnn_); it != end; ++it) {
    const Rport& r = it->second;
    std::uint64_t read = 0, written = 0;
    if (r.targetId >= 0 && !r.dir.empty()) {
      // The disks of this port's own scsi target only, so two paths never count a disk twice.
      std::string target = r.dir + "/target" + std::to_string(r.host) + ":" +
                           std::to_string(r.channel) + ":" + std::to_string(r.targetId);
      for (const std::string& unitDir : listing(target)) {
        if (!parseScsiName(unitDir, "", ":")) continue;
        for (const std::string& disk : listing(target + "/" + unitDir + "/block")) {
          std::optional<std::string> stat =
              readFile(target + "/" + unitDir + "/block/" + disk + "/stat");
          std::optional<std::pair<std::uint64_t, std::uint64_t>> s =
              stat ? parseBlockStat(*stat) : std::nullopt;
          if (!s) continue;
          read += s->first * 512;
          written += s->second * 512;
        }
      }
    }
    PropertyList path = PropertyList::dict();
    path.set(std::string(kPortStatus), isUp(r.state) ? std::string("Link Established") : r.state);
    path.set(std::string(kScsiDomainIdentifier), r.host);
    path.set(std::string(kBytesReceived), static_cast<unsigned long long>(read));
    path.set(std::string(kBytesTransmitted), static_cast<unsigned long long>(written));
    paths.push(std::move(path));
  }
  return paths;
}

}  // namespace velm
