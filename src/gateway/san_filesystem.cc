#include "gateway/san_filesystem.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <netdb.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <set>
#include <vector>

#include "adminhost/host_common.h"
#include "adminlib/qmadminlib.h"
#include "adminlib/subr2.h"
#include "config/config_parser.h"
#include "gateway/qmadmin.h"
#include "platform/entry_name.h"
#include "platform/log.h"
#include "platform/mounts.h"
#include "platform/paths.h"
#include "platform/volume_events.h"

namespace velm {
namespace {

constexpr std::string_view kVolumeKind = "qufs";
constexpr std::string_view kLabelTool = "/Library/Filesystems/Velm/bin/drlabel";
// No port mapper lists this many FSMs; a peer that never ends its list is cut off here.
constexpr int kMaxFsmListEntries = 65536;

std::unique_ptr<SANFilesystem>& instance() {
  static std::unique_ptr<SANFilesystem> filesystem;
  return filesystem;
}

struct DirCloser {
  void operator()(DIR* d) const { ::closedir(d); }
};

// The config directory's entry names, sorted so that every listing reads alike.
std::vector<std::string> configDirectoryListing() {
  std::vector<std::string> names;
  std::unique_ptr<DIR, DirCloser> dir(::opendir(configDir().c_str()));
  if (!dir) return names;
  while (dirent* e = ::readdir(dir.get())) {
    std::string_view n = e->d_name;
    if (n != "." && n != "..") names.emplace_back(n);
  }
  std::sort(names.begin(), names.end());
  return names;
}

bool hasCfgExtension(std::string_view name) {
  constexpr std::string_view ext = ".cfg";
  return name.size() > ext.size() && name.substr(name.size() - ext.size()) == ext;
}

bool labelTypeKept(const PropertyList& record) {
  const PropertyList* type = record.get("LabelType");
  if (!type) return true;
  const std::string* text = type->asString();
  return text && (*text == "QMFS-EFI" || *text == "QMFS-VTOC");
}

// This machine's host names and addresses, for host equality.
struct ThisHost {
  std::set<std::string> names;
  std::set<std::string> addresses;
};

ThisHost thisHost() {
  ThisHost me;
  char name[256] = {};
  if (::gethostname(name, sizeof name - 1) == 0 && name[0]) {
    std::string n = name;
    std::transform(n.begin(), n.end(), n.begin(), [](unsigned char c) { return std::tolower(c); });
    me.names.insert(n);
    me.names.insert(n.substr(0, n.find('.')));
  }
  PropertyList addresses = current_host_addresses();
  for (const PropertyList& a : *addresses.asArray()) {
    if (const std::string* s = a.asString()) me.addresses.insert(*s);
  }
  return me;
}

}  // namespace

SANFilesystem::SANFilesystem() {
  registerReader("readVolumes", [this] { return readVolumes(); });
  registerReader("readVisibleLUNs", [this] { return readVisibleLUNs(); });
}

SANFilesystem& SANFilesystem::localFilesystem() {
  std::scoped_lock lock(creationLock());
  auto& fs = instance();
  if (!fs) fs.reset(new SANFilesystem());
  return *fs;
}

void SANFilesystem::resetForTest() {
  std::scoped_lock lock(creationLock());
  instance().reset();
}

PlistArray SANFilesystem::readValidKeys() {
  return {PropertyList("visibleLUNs"), PropertyList("volumes")};
}

PropertyList SANFilesystem::readVolumes() {
  PropertyList volumes = PropertyList::array();
  for (const std::string& name : configDirectoryListing()) {
    if (!hasCfgExtension(name)) continue;
    std::unique_ptr<SANConfigParser> parser = SANConfigParser::parserForFile(name);
    // A file that doesn't parse is left out without a word here; the parser logs why.
    if (parser && parser->parse()) volumes.push(std::move(parser->dictionary()));
  }
  return volumes;
}

PropertyList visibleLUNsFromLabelOutput(std::string_view output) {
  PropertyList luns = PropertyList::dict();
  PlistReadResult parsed = readXmlPlist(output);
  if (!parsed || !parsed.value->isDict()) return luns;
  for (auto& [device, record] : *parsed.value->asDict()) {
    // A record that isn't a dictionary is no LUN record at all.
    if (record.isDict() && labelTypeKept(record)) luns.set(device, std::move(record));
  }
  return luns;
}

PropertyList SANFilesystem::readVisibleLUNs() {
  std::string tool = hostPath(kLabelTool);
  LaunchResult r = launch_task(tool, {"-x"});
  if (r.status != 0) {
    NError("%s: launch_task failed with error %d", __func__, r.status);
    return PropertyList::dict();
  }
  if (r.output.empty()) {
    NError("%s: No output from %@", __func__, tool);
    return PropertyList::dict();
  }
  return visibleLUNsFromLabelOutput(r.output);
}

std::optional<PropertyList> SANFilesystem::volumeNamed(std::string_view name) {
  const PropertyList* all = cachedValueForKey("volumes");
  if (const PlistArray* list = all ? all->asArray() : nullptr) {
    for (const PropertyList& v : *list) {
      const std::string* n = v.getString("Name");
      if (n && *n == name) return v;
    }
  }
  return std::nullopt;
}

bool SANFilesystem::doesExistVolumeNamed(std::string_view name) {
  std::string file = std::string(name) + ".cfg";
  std::vector<std::string> listing = configDirectoryListing();
  return std::binary_search(listing.begin(), listing.end(), file);
}

bool SANFilesystem::isRunningVolumeNamed(std::string_view name) {
  QMAdminLock lock(__func__);
  char err[ADMIN_ERRBUF_LEN] = {};
  int handle = QMAdmin_NSConnect("127.0.0.1", err);
  if (handle < 0) {
    NError("%s: Unable to connect to local FSMPM (%s)", __func__, err);
    return false;
  }
  bool found = false;
  for (int index = 0; index < kMaxFsmListEntries; ++index) {
    QMAdminFsmRecord record{};
    // The end of the list shows as a failure.
    if (QMAdmin_NSListFsm(handle, index, &record, err) != 0) break;
    record.name[sizeof record.name - 1] = '\0';
    if (name == record.name) {
      NLog("%s: found it!", __func__);
      found = true;
      break;
    }
  }
  QMAdmin_NSDisconnect(handle);
  return found;
}

bool SANFilesystem::isFsmpmRunning() {
  int known = fsmpmPid_.load();
  if (known > 0 && ec_check_pid_for_process_named("fsmpm", known) == known) return true;
  int pid = ec_pid_for_process_named("fsmpm");
  fsmpmPid_.store(pid);
  return pid >= 0;
}

bool SANFilesystem::areWePrimaryControllerWithDict(const PropertyList& volumeRecord) {
  const PropertyList* stats = volumeRecord.get("VolumeStats");
  const std::string* host = stats ? stats->getString("Host") : nullptr;
  if (!host || host->empty()) return false;
  std::set<std::string> addresses = addresses_of_host(*host);
  // An unknown host is not this machine.
  if (addresses.empty()) return false;
  ThisHost me = thisHost();
  std::string lower = *host;
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](unsigned char c) { return std::tolower(c); });
  if (me.names.count(lower)) return true;
  for (const std::string& a : addresses) {
    if (me.addresses.count(a)) return true;
  }
  return false;
}

void SANFilesystem::updateDiskDescriptionTable() {
  namespace d = disk_description;
  PropertyList table = PropertyList::dict();
  // The service reports every present disk and then goes idle, so no wait is needed here.
  for (PropertyList& description : volumeEventService().presentVolumesOfKind(kVolumeKind)) {
    const std::string* name = description.getString(d::kVolumeName);
    if (!name) continue;
    NLog("%s: got volume '%@': %@", __func__, *name, description);
    std::string key = *name;
    table.set(std::move(key), std::move(description));
  }
  diskDescriptionTable_ = std::move(table);
}

const PropertyList& SANFilesystem::acquireDiskDescriptionTable() {
  diskDescriptionTableLock_.lock();
  updateDiskDescriptionTable();
  return diskDescriptionTable_;
}

void SANFilesystem::releaseDiskDescriptionTable() { diskDescriptionTableLock_.unlock(); }

namespace {

struct MountedVolume {
  std::string path;
  bool writable = true;
};

std::optional<MountedVolume> mountedVolume(SANFilesystem& fs, std::string_view name) {
  namespace d = disk_description;
  std::optional<MountedVolume> out;
  const PropertyList& table = fs.acquireDiskDescriptionTable();
  if (const PropertyList* entry = table.get(name)) {
    const std::string* url = entry->getString(d::kVolumePath);
    if (std::optional<std::string> path = url ? pathFromFileURL(*url) : std::nullopt) {
      out = MountedVolume{*path, true};
      if (const PropertyList* w = entry->get(d::kVolumeWritable)) out->writable = w->boolValue();
    }
  }
  fs.releaseDiskDescriptionTable();
  return out;
}

}  // namespace

std::optional<std::string> SANFilesystem::pathForVolume(std::string_view name) {
  std::optional<MountedVolume> v = mountedVolume(*this, name);
  return v ? std::optional<std::string>(v->path) : std::nullopt;
}

int SANFilesystem::volumeMountState(std::string_view name) {
  std::optional<MountedVolume> v = mountedVolume(*this, name);
  if (!v) {
    NLog("%s: '%@' is not mounted", __func__, name);
    return 0;
  }
  struct statvfs st {};
  if (::statvfs(v->path.c_str(), &st) != 0) {
    NLog("%s: statfs('%@') returned errno %d", __func__, v->path, errno);
    return 0;
  }
  // The mount's own options count too: they are what a mount table outside the kernel's (a
  // sandbox) can say, and on a real mount they agree with the flags.
  return (st.f_flag & ST_RDONLY) || !v->writable ? 1 : 2;
}

long long SANFilesystem::lumexSearchLevelForVolume(std::string_view name) {
  std::optional<PropertyList> volume = volumeNamed(name);
  const PropertyList* globals = volume ? volume->get("Globals") : nullptr;
  const PropertyList* enabled = globals ? globals->get("EnableLumex") : nullptr;
  if (!enabled || !enabled->boolValue()) return 0;
  // Command 5: the search level. 20 bytes, the third big-endian word holding 5.
  unsigned char command[20] = {};
  command[11] = 5;
  unsigned char reply[8] = {};
  std::uint32_t replyLength = 0;
  int status =
      doLumexRpcForVolume(name, command, sizeof command, reply, sizeof reply, &replyLength);
  if (status == ENOENT || status == EAGAIN) return -1;
  if (status != 0) {
    NError("%s: '%@': -doLumexRpcForVolume failed (%d)", __func__, name, status);
    return -1;
  }
  if (replyLength != sizeof reply) {
    NError("%s: '%@': expected reply size %zu, got %u", __func__, name, sizeof reply, replyLength);
    return -1;
  }
  return static_cast<std::int32_t>(std::uint32_t{reply[4]} << 24 | std::uint32_t{reply[5]} << 16 |
                                   std::uint32_t{reply[6]} << 8 | std::uint32_t{reply[7]});
}

}  // namespace velm
