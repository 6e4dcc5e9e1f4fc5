#include "platform/device_registry.h"

#include <dirent.h>
#include <libudev.h>
#include <sys/epoll.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <set>
#include <unordered_set>

#include "platform/clock.h"
#include "platform/event_loop.h"
#include "platform/files.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "platform/string_additions.h"

namespace velm {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kFibreChannel = "Fibre Channel Interface";

// The entry names of a directory (none when it can't be read), in no particular order.
std::vector<std::string> listing(const std::string& dir) {
  std::vector<std::string> names;
  if (DIR* d = ::opendir(dir.c_str())) {
    while (dirent* e = ::readdir(d)) {
      std::string_view n = e->d_name;
      if (n != "." && n != "..") names.emplace_back(n);
    }
    ::closedir(d);
  }
  return names;
}

std::optional<std::string> attribute(const std::string& dir, const char* name) {
  return readSmallFile(dir + "/" + name);
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
  std::string name;  // rport-H:C-N, under class/fc_remote_ports
};

// One remote port's changing attributes; false when it isn't an FCP target.
bool readPort(const std::string& attrs, Rport& r) {
  r.state = std::string(trimmedBlanks(attribute(attrs, "port_state").value_or("")));
  r.targetId = parseSysfsDecimal(attribute(attrs, "scsi_target_id").value_or("")).value_or(-1);
  return true;
}

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
    r.name = name;
    readPort(attrs, r);
    ports.emplace(*wwnn, std::move(r));
  }
  return ports;
}

// "H:C:T:L" without a heap allocation: a scan meets thousands of them.
bool parseHctl(std::string_view name, long long out[4]) {
  const char* p = name.data();
  const char* end = p + name.size();
  for (int i = 0; i < 4; ++i) {
    auto [next, ec] = std::from_chars(p, end, out[i]);
    if (ec != std::errc() || out[i] < 0 || next == p) return false;
    p = next;
    if (i < 3) {
      if (p == end || *p != ':') return false;
      ++p;
    }
  }
  return p == end;
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
  text = trimmedBlanks(text);
  if (text.size() < 3 || text[0] != '0' || (text[1] != 'x' && text[1] != 'X')) return std::nullopt;
  text.remove_prefix(2);
  std::uint64_t v = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v, 16);
  if (ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return v;
}

std::optional<long long> parseSysfsDecimal(std::string_view text) {
  text = trimmedBlanks(text);
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

std::unordered_map<std::string, DeviceRegistry::Seen> DeviceRegistry::scan() const {
  std::string root = sysfsPath();
  std::vector<std::string> skipped;
  std::unordered_map<std::string, Seen> found;
  std::map<int, std::string> interconnects;
  auto interconnect = [&](int host) -> const std::string& {
    auto it = interconnects.find(host);
    if (it == interconnects.end())
      it = interconnects.emplace(host, interconnectOf(root, host)).first;
    return it->second;
  };
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
      s.node->interconnect_ = interconnect(h);
  }
  {
    std::scoped_lock lock(knownMutex_);
    knownNames_ = fcByHct;
  }
  // Their paths, as a text that changes whenever a path or its state does.
  std::multimap<std::uint64_t, Rport> ports = fcpPorts(root, &skipped);
  {
    std::scoped_lock lock(knownMutex_);
    portsOf_.clear();
    for (const auto& [wwnn, port] : ports) portsOf_[wwnn].push_back(port.name);
  }
  for (const auto& [wwnn, port] : ports) {
    auto it = found.find("fc:" + hexText(wwnn));
    if (it == found.end()) continue;
    it->second.paths +=
        std::to_string(port.host) + ":" + std::to_string(port.channel) + "=" + port.state + ";";
  }

  // What a unit of each FC target needs: the name, the id prefix and the interconnect.
  struct FcTarget {
    std::uint64_t wwnn;
    std::string unitPrefix;
    const std::string* interconnect;
  };
  std::map<std::tuple<int, int, int>, FcTarget> fcTargets;
  for (const auto& [hct, wwnn] : fcByHct) {
    const std::string text = hexText(wwnn);
    fcTargets[hct] = {wwnn, "fclun:" + text + ":", &found["fc:" + text].node->interconnect_};
  }

  // Logical units, and the targets of other buses.
  std::string devices = root + "/class/scsi_device";
  std::unordered_set<std::uint64_t> unitsSeen;
  std::vector<std::string> entries = listing(devices);
  unitsSeen.reserve(entries.size());
  found.reserve(entries.size() / 2 + 64);
  for (const std::string& name : entries) {
    long long n[4];
    if (!parseHctl(name, n)) {
      skipped.push_back("scsi device " + name + ": not H:C:T:L");
      continue;
    }
    int h = static_cast<int>(n[0]), c = static_cast<int>(n[1]), t = static_cast<int>(n[2]);
    std::uint64_t lun = static_cast<std::uint64_t>(n[3]);
    auto fc = fcTargets.find({h, c, t});
    if (fc != fcTargets.end()) {
      // Each unit shows once per path: the later sightings are passed over.
      if (!unitsSeen.insert(fc->second.wwnn * 1000003u ^ lun).second &&
          found.count(fc->second.unitPrefix + std::to_string(lun)))
        continue;
      Seen& u = node(fc->second.unitPrefix + std::to_string(lun), DeviceNode::kFcUnit);
      u.node->wwnn_ = fc->second.wwnn;
      u.node->lun_ = lun;
      u.node->interconnect_ = *fc->second.interconnect;
      continue;
    }
    std::string hct = std::to_string(h) + ":" + std::to_string(c) + ":" + std::to_string(t);
    Seen& target = node("scsi:" + hct, DeviceNode::kScsiTarget);
    target.node->host_ = h;
    target.node->channel_ = c;
    target.node->target_ = t;
    target.node->interconnect_ = interconnect(h);
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
  std::unordered_map<std::string, Seen> now = scan();
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
    if (!appeared.empty() || !gone.empty()) {
      // Disks come and go with their units: look for them afresh.
      std::scoped_lock known(knownMutex_);
      statOf_.clear();
    }
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
  // In the order of their ids, whatever order the tables hold them in.
  auto byId = [](const DeviceNodeRef& a, const DeviceNodeRef& b) { return a->id() < b->id(); };
  std::sort(appeared.begin(), appeared.end(), byId);
  std::sort(gone.begin(), gone.end(), byId);
  std::sort(changed.begin(), changed.end(), byId);
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
  std::unordered_map<std::string, Seen> now = scan();
  std::scoped_lock lock(mutex_);
  if (present_.empty()) present_ = std::move(now);
  subscriptions_.push_back({std::string(className), true, std::move(callback)});
  std::vector<DeviceNodeRef> nodes;
  for (const auto& [id, seen] : present_)
    if (seen.node->className() == className) nodes.push_back(seen.node);
  std::sort(nodes.begin(), nodes.end(),
            [](const DeviceNodeRef& a, const DeviceNodeRef& b) { return a->id() < b->id(); });
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

std::optional<std::pair<std::uint64_t, std::uint64_t>> DeviceRegistry::unitStat(
    const std::string& unitDir) const {
  std::string statPath;
  {
    std::scoped_lock lock(knownMutex_);
    auto it = statOf_.find(unitDir);
    if (it != statOf_.end()) statPath = it->second;
  }
  std::optional<std::string> text = statPath.empty() ? std::nullopt : readSmallFile(statPath);
  if (!text) {
    // Not known yet, or its disk was replaced: look for it.
    statPath.clear();
    for (const std::string& disk : listing(unitDir + "/block")) {
      statPath = unitDir + "/block/" + disk + "/stat";
      text = readSmallFile(statPath);
      break;
    }
    std::scoped_lock lock(knownMutex_);
    if (text) statOf_[unitDir] = statPath;
  }
  return text ? parseBlockStat(*text) : std::nullopt;
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
  std::vector<std::string> names;
  {
    std::scoped_lock lock(knownMutex_);
    auto it = portsOf_.find(node.wwnn_);
    if (it != portsOf_.end()) names = it->second;
  }
  std::string cls = sysfsPath("class/fc_remote_ports");
  PropertyList paths = PropertyList::array();
  for (const std::string& name : names) {
    std::optional<std::vector<long long>> n = parseScsiName(name, "rport-", ":-");
    Rport r;
    std::string attrs = cls + "/" + name;
    // A port gone since the last scan has no path any more.
    if (!n || n->size() != 3 || !pathExists(attrs)) continue;
    r.host = static_cast<int>((*n)[0]);
    r.channel = static_cast<int>((*n)[1]);
    readPort(attrs, r);
    std::uint64_t read = 0, written = 0;
    std::error_code ec;
    fs::path real = r.targetId >= 0 ? fs::canonical(attrs, ec) : fs::path();
    if (r.targetId >= 0 && !ec) {
      // The disks of this port's own scsi target only, so two paths never count a disk twice.
      // .../rport-H:C-N/fc_remote_ports/rport-H:C-N: the port's device directory is two up.
      std::string target = real.parent_path().parent_path().string() + "/target" +
                           std::to_string(r.host) + ":" + std::to_string(r.channel) + ":" +
                           std::to_string(r.targetId);
      for (const std::string& unitDir : listing(target)) {
        if (!parseScsiName(unitDir, "", ":")) continue;
        std::optional<std::pair<std::uint64_t, std::uint64_t>> s = unitStat(target + "/" + unitDir);
        if (!s) continue;
        read += s->first * 512;
        written += s->second * 512;
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
