#include "sim/simfabric/fabric_tree.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <set>
#include <system_error>

#include "platform/files.h"
#include "plist/plist.h"
#include "sim/simfabric/fabric_writer.h"

namespace velm::sim {
namespace {

constexpr char kStateFile[] = ".velm-simfabric.plist";
constexpr char kLockFile[] = ".velm-simfabric.lock";
constexpr char kDevices[] = "devices/platform/velm-simfabric";
constexpr int kStateVersion = 1;
constexpr int kMaxHosts = 64;
constexpr int kMaxHostNumber = 4095;
constexpr int kMaxLun = 16383;
// Locally assigned names (NAA 3) for the HBAs, so they can be no real vendor's.
constexpr std::uint64_t kHbaWwnBase = 0x300056454c4d0000ULL;
// Where generateLargeFabric's targets start, locally assigned as well.
constexpr std::uint64_t kLargeFabricWwnBase = 0x3000564c4d100000ULL;

const char* const kLinkDirs[] = {"class/fc_host",      "class/sas_host",    "class/fc_remote_ports",
                                 "class/fc_transport", "class/scsi_device", "block"};

struct MirrorLink {
  const char* rel;
  const char* target;
};
const MirrorLink kMirrorLinks[] = {{"class/net", "/sys/class/net"},
                                   {"devices/system/cpu", "/sys/devices/system/cpu"},
                                   {"class/dmi", "/sys/class/dmi"}};

std::string num(long long n) { return std::to_string(n); }

std::string portIdText(unsigned id) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%06x\n", id);
  return text;
}

std::string hostName(int h) { return "host" + num(h); }
std::string rportName(int h, int n) { return "rport-" + num(h) + ":0-" + num(n); }
std::string targetName(int h, int t) { return "target" + num(h) + ":0:" + num(t); }
std::string lunName(int h, int t, int l) { return num(h) + ":0:" + num(t) + ":" + num(l); }

std::string rportPath(int h, int n) { return FabricTree::hostPath(h) + "/" + rportName(h, n); }

std::uint64_t hbaNodeName(int h) { return kHbaWwnBase | (static_cast<std::uint64_t>(h) << 8); }
std::uint64_t hbaPortName(int h) { return hbaNodeName(h) | 1; }
// Each HBA on a switch domain of its own; its targets on the ports after it.
unsigned hbaPortId(int h) { return (static_cast<unsigned>(h & 0xff) << 16) | 0x0100; }
unsigned rportPortId(int h, int n) {
  return (static_cast<unsigned>(h & 0xff) << 16) | ((0x200u + static_cast<unsigned>(n)) & 0xffff);
}
std::uint64_t targetPortName(std::uint64_t wwnn, int h) {
  return wwnn + static_cast<std::uint64_t>(h);
}

std::string lunRanges(const std::vector<int>& luns) {
  std::string text;
  for (size_t i = 0; i < luns.size();) {
    size_t j = i;
    while (j + 1 < luns.size() && luns[j + 1] == luns[j] + 1) ++j;
    if (!text.empty()) text += ",";
    text += num(luns[i]);
    if (j > i) text += "-" + num(luns[j]);
    i = j + 1;
  }
  return text.empty() ? "none" : text;
}

// Hands out the lowest sd indices no disk holds, sda (the machine's own disk) never.
class DiskAllocator {
 public:
  explicit DiskAllocator(const std::vector<FabricTarget>& targets) {
    for (const FabricTarget& t : targets) {
      for (const FabricPath& p : t.paths) {
        for (const auto& [lun, disk] : p.disks) mark(diskIndex(disk));
      }
    }
  }
  std::string take() {
    while (next_ < used_.size() && used_[next_]) ++next_;
    mark(static_cast<int>(next_));
    return diskName(static_cast<int>(next_++));
  }

 private:
  void mark(int index) {
    if (index < 0) return;
    if (used_.size() <= static_cast<size_t>(index)) used_.resize(index + 1);
    used_[index] = true;
  }
  std::vector<bool> used_ = {true};
  size_t next_ = 1;
};

// The lowest number no path of host h uses for that field.
int lowestFree(const std::vector<FabricTarget>& targets, int h, int FabricPath::*field) {
  std::set<int> used;
  for (const FabricTarget& t : targets) {
    for (const FabricPath& p : t.paths) {
      if (p.host == h) used.insert(p.*field);
    }
  }
  int n = 0;
  while (used.count(n)) ++n;
  return n;
}

// ---- building and taking apart ----

void buildHost(TreeWriter& w, const std::string& at, int h, bool sas) {
  std::string name = hostName(h);
  if (sas) {
    w.dir(at + "/sas_host/" + name);
    return;
  }
  std::string attrs = at + "/fc_host/" + name;
  w.dir(attrs);
  w.file(attrs + "/node_name", wwnText(hbaNodeName(h)) + "\n");
  w.file(attrs + "/port_name", wwnText(hbaPortName(h)) + "\n");
  w.file(attrs + "/port_id", portIdText(hbaPortId(h)));
  w.file(attrs + "/port_state", "Online\n");
  w.file(attrs + "/speed", "8 Gbit\n");
}

void addHost(TreeWriter& w, int h, bool sas) {
  std::string at = w.scratch();
  buildHost(w, at, h, sas);
  w.rename(at, FabricTree::hostPath(h));
  std::string kind = sas ? "sas_host" : "fc_host";
  w.link("class/" + kind + "/" + hostName(h),
         "../../" + FabricTree::hostPath(h) + "/" + kind + "/" + hostName(h));
}

void buildLun(TreeWriter& w, const std::string& at, const FabricTarget& t, const FabricPath& p,
              int lun, const std::string& disk) {
  std::string name = lunName(p.host, p.target, lun);
  w.dir(at);
  w.file(at + "/state", "running\n");
  w.file(at + "/wwid", wwidText(t.wwnn, lun));
  w.file(at + "/vpd_pg83", vpdPage83(t.wwnn, lun));
  w.dir(at + "/scsi_device/" + name);
  w.link(at + "/scsi_device/" + name + "/device", "../../");
  std::string block = at + "/block/" + disk;
  w.dir(block);
  w.file(block + "/dev", diskDevText(diskIndex(disk)));
  w.file(block + "/stat", statText(DiskStat{}));
  w.link(block + "/device", "../../../" + name);
}

void buildTarget(TreeWriter& w, const std::string& at, const FabricTarget& t, const FabricPath& p) {
  w.dir(at);
  if (!t.sas) {
    std::string attrs = at + "/fc_transport/" + targetName(p.host, p.target);
    w.dir(attrs);
    w.file(attrs + "/node_name", wwnText(t.wwnn) + "\n");
    w.file(attrs + "/port_name", wwnText(targetPortName(t.wwnn, p.host)) + "\n");
    w.file(attrs + "/port_id", portIdText(rportPortId(p.host, p.rport)));
  }
  for (const auto& [lun, disk] : p.disks) {
    buildLun(w, at + "/" + lunName(p.host, p.target, lun), t, p, lun, disk);
  }
}

std::string rportAttrs(const FabricPath& p) {
  return rportPath(p.host, p.rport) + "/fc_remote_ports/" + rportName(p.host, p.rport);
}

void buildRport(TreeWriter& w, const std::string& at, const FabricTarget& t, const FabricPath& p) {
  std::string attrs = at + "/fc_remote_ports/" + rportName(p.host, p.rport);
  w.dir(attrs);
  w.file(attrs + "/node_name", wwnText(t.wwnn) + "\n");
  w.file(attrs + "/port_name", wwnText(targetPortName(t.wwnn, p.host)) + "\n");
  w.file(attrs + "/port_id", portIdText(rportPortId(p.host, p.rport)));
  w.file(attrs + "/roles", "FCP Target\n");
  w.file(attrs + "/port_state", std::string(pathStateText(p.state)) + "\n");
  w.file(attrs + "/scsi_target_id", num(p.target) + "\n");
  if (p.state != PathState::NotPresent) {
    buildTarget(w, at + "/" + targetName(p.host, p.target), t, p);
  }
}

void linkLun(TreeWriter& w, const FabricPath& p, int lun, const std::string& disk) {
  std::string name = lunName(p.host, p.target, lun);
  std::string at = FabricTree::lunPath(p, lun);
  w.link("class/scsi_device/" + name, "../../" + at + "/scsi_device/" + name);
  w.link("block/" + disk, "../" + at + "/block/" + disk);
}

void unlinkLun(TreeWriter& w, const FabricPath& p, int lun, const std::string& disk) {
  w.unlink("class/scsi_device/" + lunName(p.host, p.target, lun));
  w.unlink("block/" + disk);
}

void linkTarget(TreeWriter& w, const FabricPath& p) {
  if (p.rport >= 0) {
    std::string name = targetName(p.host, p.target);
    w.link("class/fc_transport/" + name,
           "../../" + FabricTree::targetPath(p) + "/fc_transport/" + name);
  }
  for (const auto& [lun, disk] : p.disks) linkLun(w, p, lun, disk);
}

void unlinkTarget(TreeWriter& w, const FabricPath& p) {
  for (const auto& [lun, disk] : p.disks) unlinkLun(w, p, lun, disk);
  if (p.rport >= 0) w.unlink("class/fc_transport/" + targetName(p.host, p.target));
}

// The target subtree of a path, built aside and moved in whole, then its links.
void addTargetDir(TreeWriter& w, const FabricTarget& t, const FabricPath& p) {
  std::string at = w.scratch();
  buildTarget(w, at, t, p);
  w.rename(at, FabricTree::targetPath(p));
  linkTarget(w, p);
}

// Links first, so no link ever points into a subtree that is gone.
void removeTargetDir(TreeWriter& w, const FabricPath& p) {
  unlinkTarget(w, p);
  w.removeTree(FabricTree::targetPath(p));
}

// ---- the state file ----

PropertyList pathToPlist(const FabricPath& p) {
  PropertyList d = PropertyList::dict();
  d.set("Host", p.host);
  if (p.rport >= 0) d.set("Rport", p.rport);
  d.set("Target", p.target);
  d.set("State", pathStateText(p.state));
  PropertyList disks = PropertyList::dict();
  for (const auto& [lun, disk] : p.disks) disks.set(num(lun), disk);
  d.set("Disks", disks);
  return d;
}

PropertyList stateToPlist(bool mirrorHost, const std::vector<FabricHost>& hosts,
                          const std::vector<FabricTarget>& targets) {
  PropertyList root = PropertyList::dict();
  root.set("Version", kStateVersion);
  root.set("MirrorHost", mirrorHost);
  PropertyList hostList = PropertyList::array();
  for (const FabricHost& h : hosts) {
    PropertyList d = PropertyList::dict();
    d.set("Number", h.number);
    d.set("Transport", h.sas ? "sas" : "fc");
    hostList.push(d);
  }
  root.set("Hosts", hostList);
  PropertyList targetList = PropertyList::array();
  for (const FabricTarget& t : targets) {
    PropertyList d = PropertyList::dict();
    d.set("WWNN", wwnText(t.wwnn));
    d.set("Transport", t.sas ? "sas" : "fc");
    PropertyList luns = PropertyList::array();
    for (int lun : t.luns) luns.push(lun);
    d.set("LUNs", luns);
    PropertyList paths = PropertyList::array();
    for (const FabricPath& p : t.paths) paths.push(pathToPlist(p));
    d.set("Paths", paths);
    targetList.push(d);
  }
  root.set("Targets", targetList);
  return root;
}

std::optional<int> intOf(const PropertyList* v) {
  if (!v || !v->isInteger()) return std::nullopt;
  std::optional<std::int64_t> n = v->int64Value();
  if (!n || *n < -1 || *n > 1000000) return std::nullopt;
  return static_cast<int>(*n);
}

bool transportOf(const PropertyList& d, bool* sas) {
  const std::string* s = d.getString("Transport");
  if (!s || (*s != "fc" && *s != "sas")) return false;
  *sas = *s == "sas";
  return true;
}

bool pathFromPlist(const PropertyList& d, bool sas, FabricPath* p) {
  std::optional<int> host = intOf(d.get("Host"));
  std::optional<int> target = intOf(d.get("Target"));
  std::optional<int> rport = intOf(d.get("Rport"));
  const std::string* state = d.getString("State");
  const PropertyList* disks = d.get("Disks");
  if (!host || !target || (!sas && !rport) || !state || !disks || !disks->isDict()) return false;
  std::optional<PathState> s = parsePathState(*state);
  if (!s) return false;
  p->host = *host;
  p->target = *target;
  p->rport = sas ? -1 : *rport;
  p->state = *s;
  for (const auto& [key, disk] : *disks->asDict()) {
    if (!disk.isString() || diskIndex(*disk.asString()) < 1) return false;
    p->disks[std::atoi(key.c_str())] = *disk.asString();
  }
  return true;
}

bool targetFromPlist(const PropertyList& d, FabricTarget* t) {
  const std::string* wwnn = d.getString("WWNN");
  const PropertyList* luns = d.get("LUNs");
  const PropertyList* paths = d.get("Paths");
  if (!wwnn || !transportOf(d, &t->sas) || !luns || !luns->isArray() || !paths ||
      !paths->isArray()) {
    return false;
  }
  std::optional<std::uint64_t> n = parseWwn(*wwnn);
  if (!n) return false;
  t->wwnn = *n;
  for (const PropertyList& lun : *luns->asArray()) {
    std::optional<int> l = intOf(&lun);
    if (!l) return false;
    t->luns.push_back(*l);
  }
  for (const PropertyList& pd : *paths->asArray()) {
    FabricPath p;
    if (!pd.isDict() || !pathFromPlist(pd, t->sas, &p)) return false;
    t->paths.push_back(std::move(p));
  }
  return true;
}

}  // namespace

// ---- names and texts ----

const char* pathStateText(PathState state) {
  switch (state) {
    case PathState::Online:
      return "Online";
    case PathState::Marginal:
      return "Marginal";
    case PathState::Blocked:
      return "Blocked";
    case PathState::NotPresent:
      return "Not Present";
  }
  return "Unknown";
}

std::optional<PathState> parsePathState(std::string_view text) {
  if (text == "Online") return PathState::Online;
  if (text == "Marginal") return PathState::Marginal;
  if (text == "Blocked") return PathState::Blocked;
  if (text == "NotPresent" || text == "Not Present") return PathState::NotPresent;
  return std::nullopt;
}

std::optional<std::uint64_t> parseWwn(std::string_view text) {
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    text.remove_prefix(2);
  }
  std::uint64_t value = 0;
  int digits = 0;
  for (char c : text) {
    if (c == ':') continue;
    int d = c >= '0' && c <= '9'   ? c - '0'
            : c >= 'a' && c <= 'f' ? c - 'a' + 10
            : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                   : -1;
    if (d < 0 || ++digits > 16) return std::nullopt;
    value = value << 4 | static_cast<std::uint64_t>(d);
  }
  if (digits == 0 || value == 0) return std::nullopt;
  return value;
}

std::string wwnText(std::uint64_t wwn) {
  char text[24];
  std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(wwn));
  return text;
}

std::string FabricTree::hostPath(int host) { return std::string(kDevices) + "/" + hostName(host); }

std::string FabricTree::targetPath(const FabricPath& p) {
  return (p.rport >= 0 ? rportPath(p.host, p.rport) : hostPath(p.host)) + "/" +
         targetName(p.host, p.target);
}

std::string FabricTree::lunPath(const FabricPath& p, int lun) {
  return targetPath(p) + "/" + lunName(p.host, p.target, lun);
}

// ---- the tree ----

struct FabricTree::State {
  bool mirrorHost = false;
  std::vector<FabricHost> hosts;      // by number
  std::vector<FabricTarget> targets;  // by WWNN
  // The state file as last read or written: a change by another process shows as a new one.
  bool loaded = false;
  ino_t inode = 0;
  off_t size = 0;
  struct timespec mtime {};
  struct timespec ctime {};

  FabricTarget* find(std::uint64_t wwnn) {
    for (FabricTarget& t : targets) {
      if (t.wwnn == wwnn) return &t;
    }
    return nullptr;
  }
  const FabricHost* host(int number) const {
    for (const FabricHost& h : hosts) {
      if (h.number == number) return &h;
    }
    return nullptr;
  }
  void stamp(const struct stat& st) {
    loaded = true;
    inode = st.st_ino;
    size = st.st_size;
    mtime = st.st_mtim;
    ctime = st.st_ctim;
  }
  bool sameAs(const struct stat& st) const {
    return loaded && inode == st.st_ino && size == st.st_size &&
           mtime.tv_sec == st.st_mtim.tv_sec && mtime.tv_nsec == st.st_mtim.tv_nsec &&
           ctime.tv_sec == st.st_ctim.tv_sec && ctime.tv_nsec == st.st_ctim.tv_nsec;
  }
};

class FabricTree::Lock {
 public:
  explicit Lock(FabricTree& tree) : tree_(tree) {
    if (tree_.lockFd_ < 0) {
      tree_.lockFd_ =
          ::open((tree_.dir_ + "/" + kLockFile).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    }
    if (tree_.lockFd_ < 0) {
      err_ = errno;
      return;
    }
    while (::flock(tree_.lockFd_, LOCK_EX) != 0) {
      if (errno != EINTR) {
        err_ = errno;
        return;
      }
    }
  }
  ~Lock() {
    if (err_ == 0) ::flock(tree_.lockFd_, LOCK_UN);
  }
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;
  int err() const { return err_; }

 private:
  FabricTree& tree_;
  int err_ = 0;
};

FabricTree::FabricTree(std::string dir) : dir_(std::move(dir)), state_(new State) {
  while (dir_.size() > 1 && dir_.back() == '/') dir_.pop_back();
}

FabricTree::~FabricTree() {
  if (lockFd_ >= 0) ::close(lockFd_);
}

bool FabricTree::fail(std::string text) {
  error_ = std::move(text);
  return false;
}

bool FabricTree::begin(Lock& lock, bool mustExist) {
  if (lock.err() == ENOENT && mustExist) return fail("no fabric in " + dir_ + " (run init first)");
  if (lock.err() != 0) {
    return fail("cannot lock " + dir_ + "/" + kLockFile + ": " + std::strerror(lock.err()));
  }
  return load(mustExist);
}

bool FabricTree::load(bool mustExist) {
  std::string path = dir_ + "/" + kStateFile;
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) {
    if (errno == ENOENT && !mustExist) {
      *state_ = State{};
      return true;
    }
    if (errno == ENOENT) return fail("no fabric in " + dir_ + " (run init first)");
    return fail("cannot read " + path + ": " + std::strerror(errno));
  }
  if (state_->sameAs(st)) return true;
  PlistReadResult read = readXmlPlistFile(path, {.requireDictionary = true});
  if (!read) return fail("cannot read " + path + ": " + read.error);
  const PropertyList& root = *read.value;
  State state;
  bool ok = intOf(root.get("Version")) == kStateVersion;
  const PropertyList* hosts = root.get("Hosts");
  const PropertyList* targets = root.get("Targets");
  ok = ok && hosts && hosts->isArray() && targets && targets->isArray();
  if (ok) {
    const PropertyList* mirror = root.get("MirrorHost");
    state.mirrorHost = mirror && mirror->boolValue();
    for (const PropertyList& h : *hosts->asArray()) {
      FabricHost host;
      std::optional<int> n = intOf(h.get("Number"));
      ok = ok && h.isDict() && n && transportOf(h, &host.sas);
      if (!ok) break;
      host.number = *n;
      state.hosts.push_back(host);
    }
    for (const PropertyList& t : *targets->asArray()) {
      FabricTarget target;
      ok = ok && t.isDict() && targetFromPlist(t, &target);
      if (!ok) break;
      state.targets.push_back(std::move(target));
    }
  }
  if (!ok) return fail(path + " is not a fabric state file");
  state.stamp(st);
  *state_ = std::move(state);
  return true;
}

bool FabricTree::save() {
  std::string path = dir_ + "/" + kStateFile;
  PropertyList plist = stateToPlist(state_->mirrorHost, state_->hosts, state_->targets);
  if (int err = writeXmlPlistFile(path, plist); err != 0) {
    state_->loaded = false;
    return fail("cannot write " + path + ": " + std::strerror(err));
  }
  struct stat st {};
  if (::stat(path.c_str(), &st) == 0) {
    state_->stamp(st);
  } else {
    state_->loaded = false;
  }
  return true;
}

bool FabricTree::init(int hosts, bool mirrorHost) {
  if (hosts < 0 || hosts > kMaxHosts) return fail("the host count must be 0 to 64");
  std::error_code ec;
  std::filesystem::path real = std::filesystem::weakly_canonical(dir_, ec);
  if (ec || real == "/" || real == "/sys" || real.string().starts_with("/sys/")) {
    return fail("will not make a fabric in " + dir_);
  }
  if (int err = makeDirectories(dir_); err != 0) {
    return fail("cannot make " + dir_ + ": " + std::strerror(err));
  }
  Lock lock(*this);
  if (lock.err() != 0) return begin(lock, false);

  TreeWriter w(dir_);
  // Whatever an earlier init made goes; nothing else in DIR is touched.
  std::filesystem::remove_all(w.abs(kWorkDir), ec);
  w.removeTree(kDevices);
  for (const char* rel : kLinkDirs) w.removeTree(rel);
  for (const MirrorLink& m : kMirrorLinks) {
    struct stat st {};
    if (::lstat(w.abs(m.rel).c_str(), &st) == 0 && S_ISLNK(st.st_mode)) w.unlink(m.rel);
  }
  w.dir(kWorkDir);
  w.dir(kDevices);
  for (const char* rel : kLinkDirs) w.dir(rel);
  *state_ = State{};
  state_->mirrorHost = mirrorHost;
  for (int h = 1; h <= hosts; ++h) {
    addHost(w, h, false);
    state_->hosts.push_back({h, false});
  }
  if (mirrorHost) {
    w.dir("devices/system");
    for (const MirrorLink& m : kMirrorLinks) w.link(m.rel, m.target);
  }
  if (!w.ok()) {
    state_->loaded = false;
    return fail(w.failure());
  }
  return save();
}

bool FabricTree::addTarget(std::uint64_t wwnn, const std::vector<int>& hostList,
                           const std::vector<int>& lunList, bool sas) {
  Lock lock(*this);
  if (!begin(lock)) return false;
  if (wwnn == 0) return fail("a WWNN cannot be 0");
  if (state_->find(wwnn)) return fail("target " + wwnText(wwnn) + " exists");
  std::vector<int> luns = lunList.empty() ? std::vector<int>{0} : lunList;
  std::sort(luns.begin(), luns.end());
  luns.erase(std::unique(luns.begin(), luns.end()), luns.end());
  if (luns.front() < 0 || luns.back() > kMaxLun) return fail("LUNs must be 0 to 16383");
  std::vector<int> hosts = hostList;
  std::sort(hosts.begin(), hosts.end());
  hosts.erase(std::unique(hosts.begin(), hosts.end()), hosts.end());
  const char* kind = sas ? "SAS" : "FC";
  for (int h : hosts) {
    const FabricHost* host = state_->host(h);
    if (!host || host->sas != sas)
      return fail("there is no " + std::string(kind) + " host" + num(h));
  }

  TreeWriter w(dir_);
  if (hosts.empty()) {
    for (const FabricHost& h : state_->hosts) {
      if (h.sas == sas) hosts.push_back(h.number);
    }
    if (sas && hosts.empty()) {
      // The first SAS target brings its HBA along, numbered after every other host.
      int number = 1;
      for (const FabricHost& h : state_->hosts) number = std::max(number, h.number + 1);
      if (number > kMaxHostNumber) return fail("no host number is free");
      addHost(w, number, true);
      state_->hosts.push_back({number, true});
      hosts.push_back(number);
    }
    if (!sas && hosts.empty()) return fail("there is no FC host");
  }

  FabricTarget t;
  t.wwnn = wwnn;
  t.sas = sas;
  t.luns = luns;
  DiskAllocator disks(state_->targets);
  for (int h : hosts) {
    FabricPath p;
    p.host = h;
    p.target = lowestFree(state_->targets, h, &FabricPath::target);
    p.rport = sas ? -1 : lowestFree(state_->targets, h, &FabricPath::rport);
    for (int lun : luns) p.disks[lun] = disks.take();
    if (sas) {
      addTargetDir(w, t, p);
    } else {
      std::string at = w.scratch();
      buildRport(w, at, t, p);
      w.rename(at, rportPath(h, p.rport));
      w.link("class/fc_remote_ports/" + rportName(h, p.rport), "../../" + rportAttrs(p));
      linkTarget(w, p);
    }
    t.paths.push_back(std::move(p));
  }
  auto at = std::lower_bound(state_->targets.begin(), state_->targets.end(), wwnn,
                             [](const FabricTarget& a, std::uint64_t b) { return a.wwnn < b; });
  state_->targets.insert(at, std::move(t));
  if (!w.ok()) {
    state_->loaded = false;
    return fail(w.failure());
  }
  return save();
}

bool FabricTree::removeTarget(std::uint64_t wwnn) {
  Lock lock(*this);
  if (!begin(lock)) return false;
  FabricTarget* t = state_->find(wwnn);
  if (!t) return fail("no target " + wwnText(wwnn));
  TreeWriter w(dir_);
  for (const FabricPath& p : t->paths) {
    if (p.state != PathState::NotPresent) unlinkTarget(w, p);
    if (t->sas) {
      w.removeTree(targetPath(p));
    } else {
      w.unlink("class/fc_remote_ports/" + rportName(p.host, p.rport));
      w.removeTree(rportPath(p.host, p.rport));
    }
  }
  state_->targets.erase(state_->targets.begin() + (t - state_->targets.data()));
  if (!w.ok()) {
    state_->loaded = false;
    return fail(w.failure());
  }
  return save();
}

bool FabricTree::addLun(std::uint64_t wwnn, int lun) {
  Lock lock(*this);
  if (!begin(lock)) return false;
  if (lun < 0 || lun > kMaxLun) return fail("LUNs must be 0 to 16383");
  FabricTarget* t = state_->find(wwnn);
  if (!t) return fail("no target " + wwnText(wwnn));
  auto at = std::lower_bound(t->luns.begin(), t->luns.end(), lun);
  if (at != t->luns.end() && *at == lun) {
    return fail("target " + wwnText(wwnn) + " has LUN " + num(lun));
  }
  t->luns.insert(at, lun);
  TreeWriter w(dir_);
  DiskAllocator disks(state_->targets);
  for (FabricPath& p : t->paths) {
    if (p.state == PathState::NotPresent) continue;
    std::string disk = disks.take();
    p.disks[lun] = disk;
    std::string scratch = w.scratch();
    buildLun(w, scratch, *t, p, lun, disk);
    w.rename(scratch, lunPath(p, lun));
    linkLun(w, p, lun, disk);
  }
  if (!w.ok()) {
    state_->loaded = false;
    return fail(w.failure());
  }
  return save();
}

bool FabricTree::removeLun(std::uint64_t wwnn, int lun) {
  Lock lock(*this);
  if (!begin(lock)) return false;
  FabricTarget* t = state_->find(wwnn);
  if (!t) return fail("no target " + wwnText(wwnn));
  auto at = std::find(t->luns.begin(), t->luns.end(), lun);
  if (at == t->luns.end()) return fail("target " + wwnText(wwnn) + " has no LUN " + num(lun));
  t->luns.erase(at);
  TreeWriter w(dir_);
  for (FabricPath& p : t->paths) {
    auto disk = p.disks.find(lun);
    if (disk == p.disks.end()) continue;
    unlinkLun(w, p, lun, disk->second);
    w.removeTree(lunPath(p, lun));
    p.disks.erase(disk);
  }
  if (!w.ok()) {
    state_->loaded = false;
    return fail(w.failure());
  }
  return save();
}

bool FabricTree::setPathState(std::uint64_t wwnn, int host, PathState state) {
  Lock lock(*this);
  if (!begin(lock)) return false;
  FabricTarget* t = state_->find(wwnn);
  if (!t) return fail("no target " + wwnText(wwnn));
  if (t->sas) return fail("target " + wwnText(wwnn) + " is a SAS target: it has no FC port");
  auto p = std::find_if(t->paths.begin(), t->paths.end(),
                        [&](const FabricPath& p) { return p.host == host; });
  if (p == t->paths.end())
    return fail("target " + wwnText(wwnn) + " has no path on host" + num(host));
  PathState old = p->state;
  p->state = state;
  TreeWriter w(dir_);
  // As the kernel does it: the port changes state first, then its target comes or goes.
  w.replace(rportAttrs(*p) + "/port_state", std::string(pathStateText(state)) + "\n");
  if (state == PathState::NotPresent && old != PathState::NotPresent) {
    removeTargetDir(w, *p);
    p->disks.clear();
  } else if (old == PathState::NotPresent && state != PathState::NotPresent) {
    DiskAllocator disks(state_->targets);
    for (int lun : t->luns) p->disks[lun] = disks.take();
    addTargetDir(w, *t, *p);
  }
  if (!w.ok()) {
    state_->loaded = false;
    return fail(w.failure());
  }
  return save();
}

bool FabricTree::addIo(std::uint64_t wwnn, int host, std::uint64_t readBytes,
                       std::uint64_t writeBytes) {
  Lock lock(*this);
  if (!begin(lock)) return false;
  FabricTarget* t = state_->find(wwnn);
  if (!t) return fail("no target " + wwnText(wwnn));
  auto p = std::find_if(t->paths.begin(), t->paths.end(),
                        [&](const FabricPath& p) { return p.host == host; });
  if (p == t->paths.end())
    return fail("target " + wwnText(wwnn) + " has no path on host" + num(host));
  if (p->state == PathState::NotPresent) {
    return fail("the path of " + wwnText(wwnn) + " on host" + num(host) + " is not present");
  }
  if (p->disks.empty()) return fail("target " + wwnText(wwnn) + " has no LUN");
  std::uint64_t reads = readBytes / 512;
  std::uint64_t writes = writeBytes / 512;
  if (reads == 0 && writes == 0) return true;
  // Even shares, the first disks taking the remainder, so the sums are exact.
  std::uint64_t n = p->disks.size();
  std::uint64_t i = 0;
  TreeWriter w(dir_);
  for (const auto& [lun, disk] : p->disks) {
    std::string rel = lunPath(*p, lun) + "/block/" + disk + "/stat";
    std::optional<std::string> text = readFile(w.abs(rel));
    DiskStat stat{};
    if (!text) return fail("cannot read " + w.abs(rel));
    if (!parseStat(*text, &stat)) return fail(w.abs(rel) + " is not a block stat file");
    stat[kStatReadSectors] += reads / n + (i < reads % n ? 1 : 0);
    stat[kStatWriteSectors] += writes / n + (i < writes % n ? 1 : 0);
    ++i;
    w.replace(rel, statText(stat));
    if (!w.ok()) return fail(w.failure());
  }
  return true;
}

std::vector<FabricHost> FabricTree::hosts() {
  Lock lock(*this);
  if (!begin(lock)) return {};
  return state_->hosts;
}

std::vector<FabricTarget> FabricTree::targets() {
  Lock lock(*this);
  if (!begin(lock)) return {};
  return state_->targets;
}

std::optional<FabricTarget> FabricTree::target(std::uint64_t wwnn) {
  Lock lock(*this);
  if (!begin(lock)) return std::nullopt;
  const FabricTarget* t = state_->find(wwnn);
  if (!t) {
    fail("no target " + wwnText(wwnn));
    return std::nullopt;
  }
  return *t;
}

std::vector<int> FabricTree::hostsOf(std::uint64_t wwnn) {
  std::vector<int> hosts;
  if (std::optional<FabricTarget> t = target(wwnn)) {
    for (const FabricPath& p : t->paths) hosts.push_back(p.host);
  }
  return hosts;
}

std::vector<std::string> FabricTree::disksOf(std::uint64_t wwnn, int host) {
  std::vector<std::string> disks;
  if (std::optional<FabricTarget> t = target(wwnn)) {
    for (const FabricPath& p : t->paths) {
      if (p.host != host) continue;
      for (const auto& [lun, disk] : p.disks) disks.push_back(disk);
    }
  }
  return disks;
}

std::string FabricTree::describe() {
  Lock lock(*this);
  if (!begin(lock)) return {};
  std::string text = "hosts:\n";
  for (const FabricHost& h : state_->hosts) {
    text += "  " + hostName(h.number) + "  " + (h.sas ? "SAS" : "FC");
    if (!h.sas) text += "  " + wwnText(hbaPortName(h.number)) + "  Online  8 Gbit";
    text += "\n";
  }
  text += "targets:\n";
  if (state_->targets.empty()) text += "  none\n";
  for (const FabricTarget& t : state_->targets) {
    text += "  " + wwnText(t.wwnn) + "  " + (t.sas ? "SAS" : "FC") + "  LUNs " + lunRanges(t.luns) +
            "\n";
    for (const FabricPath& p : t.paths) {
      text += "    " + hostName(p.host) + "  ";
      if (p.rport >= 0) text += rportName(p.host, p.rport) + "  ";
      text += targetName(p.host, p.target);
      if (p.rport >= 0) text += "  " + std::string(pathStateText(p.state));
      for (const auto& [lun, disk] : p.disks) text += "  " + num(lun) + ":" + disk;
      text += "\n";
    }
  }
  return text;
}

bool generateLargeFabric(const std::string& dir, int hosts, int targets, int lunsPerTarget,
                         std::string* error) {
  FabricTree tree(dir);
  std::vector<int> luns;
  for (int l = 0; l < lunsPerTarget; ++l) luns.push_back(l);
  bool ok = tree.init(hosts);
  for (int i = 0; ok && i < targets; ++i) {
    ok = tree.addTarget(kLargeFabricWwnBase + static_cast<std::uint64_t>(i) * 0x100, {}, luns);
  }
  if (!ok && error) *error = tree.error();
  return ok;
}

}  // namespace velm::sim
