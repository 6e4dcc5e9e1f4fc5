// The commands expandVolume, changeVolumeSettings and changeStripeGroupSettings. Each edits a
// second parser of the volume's file, keeps the first for the way back, writes, and re-reads what
// it wrote before anything counts as changed; with update, drupdatefs then runs as a long task.
// No command here stops or restarts an FSM.
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>

#include "config/config_parser.h"
#include "core/san_computer.h"
#include "core/velm_plugin.h"
#include "gateway/san_filesystem.h"
#include "model/plugin_status.h"
#include "platform/entry_name.h"
#include "platform/files.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "volumes/command_support.h"
#include "volumes/long_tasks.h"
#include "volumes/volume_state.h"

namespace velm {
namespace {

constexpr int kNotStarted = 22;
constexpr std::string_view kUpdateTask = "drupdatefs";

// The globals changeVolumeSettings takes, in the order they are applied.
// Deliberate: InodeStripeWidth is taken and stored although the writer has no line for it, so it
// is lost at the write and missing from the answer.
constexpr std::array<std::string_view, 18> kChangeableGlobals = {
    "EnforceACLs",
    "EnableLumex",
    "LumexSearchLevel",
    "NamedStreams",
    "InodeExpandMin",
    "InodeExpandInc",
    "InodeExpandMax",
    "InodeStripeWidth",
    "Debug",
    "BufferCacheSize",
    "InodeCacheSize",
    "MaxMBPerClientReserve",
    "AllocationStrategy",
    "UnixNobodyUidOnWindows",
    "UnixNobodyGidOnWindows",
    "UnixIdFabricationOnWindows",
    "UnixFileCreationModeOnWindows",
    "UnixDirectoryCreationModeOnWindows"};

PropertyList nameOrNull(const std::string* name) {
  return name ? PropertyList(*name) : PropertyList();
}

// The value under key, first set to empty when it is missing or of another type.
PropertyList& childOfType(PropertyList& dict, std::string_view key, PropertyList empty) {
  PropertyList* v = dict.get(key);
  if (!v || v->type() != empty.type()) {
    dict.set(std::string(key), std::move(empty));
    v = dict.get(key);
  }
  return *v;
}

PlistArray& arrayAt(PropertyList& dict, std::string_view key) {
  return *childOfType(dict, key, PropertyList::array()).asArray();
}

void appendAll(PropertyList& dict, std::string_view key, const PropertyList* from) {
  const PlistArray* items = from ? from->asArray() : nullptr;
  if (!items) return;
  PlistArray& to = arrayAt(dict, key);
  to.insert(to.end(), items->begin(), items->end());
}

// Copies <path> to <path>-old, replacing it; failures are not looked at.
void keepOldCopy(const std::string& path) {
  std::string old = path + "-old";
  ::unlink(old.c_str());
  if (std::optional<std::string> text = readFile(path)) writeFileAtomically(old, *text);
}

// One volume's change: the parser kept as the file stands, for the way back, and the one edited.
class Reconfiguration {
 public:
  Reconfiguration(const char* command, std::string_view currentTask)
      : command_(command), currentTask_(currentTask) {}

  // Makes and parses both parsers: 0, or the status that ends the command.
  int open(const std::string* name) {
    if (name && !checkEntryName(command_, "the volume name", *name)) return kNotStarted;
    old_ = SANConfigParser::parserForVolume(name);
    edited_ = SANConfigParser::parserForVolume(name);
    if (!old_ || !edited_) {
      NError("%s: volume '%@' does not exist", command_, nameOrNull(name));
      return kStatusNoSuchVolume;
    }
    // A file with any fault in it can't be reconfigured at all.
    if (!old_->parse() || !edited_->parse()) {
      NError("%s: unable to parse config for volume '%@'", command_, nameOrNull(name));
      return kStatusConfigChangeFailed;
    }
    name_ = *name;
    return 0;
  }

  const std::string& name() const { return name_; }
  PropertyList& edited() { return edited_->dictionary(); }
  SANConfigParser& editedParser() { return *edited_; }

  // Writes the edit, proves it by re-reading it, and starts the update when asked. copyAux keeps
  // an -old copy of the aux file too; a new fsmlist text is written and velmd told. 0 or the
  // failure's status; on success *volume is the dictionary read back.
  int commit(VelmPlugin& plugin, bool update, bool copyAux,
             const std::optional<std::string>& fsmlist, PropertyList* volume) {
    // The update tool reads the state from just before this change through <volume>.cfg-old.
    keepOldCopy(configPath(name_ + ".cfg"));
    if (copyAux) {
      if (std::optional<std::string> aux = SANConfigParser::pathToAuxData(name_)) keepOldCopy(*aux);
    }
    // Deliberate: a failed write isn't looked at; the re-read below sees what the file holds.
    edited_->writeConfiguration();
    if (fsmlist) {
      writeFsmlist(*fsmlist);
      SANFilesystem& fs = SANFilesystem::localFilesystem();
      fs.sanConfigChanged();
      fs.clearCache();
    }
    if (!edited_->parse()) {
      // The fsmlist and the -old copies stay as they are.
      NError("%s: unable to re-parse config for volume '%@'", command_, name_);
      old_->writeConfiguration();
      return kStatusConfigChangeFailed;
    }
    if (update) {
      NLog("%s: About to update '%@'", command_, name_);
      pid_t pid = update_volume_named(&name_);
      NLog("%s: Update started '%@' (pid = %d)", command_, name_, static_cast<int>(pid));
      if (pid == -1) {
        old_->writeConfiguration();
        return kNotStarted;
      }
      PropertyList task = longTaskDescription(currentTask_, kUpdateTask, pid, kUpdateTask);
      plugin.noteLongTask(&task, name_);
    }
    *volume = edited_->dictionary();
    return 0;
  }

 private:
  const char* command_;
  std::string_view currentTask_;
  std::string name_;
  std::unique_ptr<SANConfigParser> old_, edited_;
};

// The dictionary elements of a request's volumes array.
std::vector<const PropertyList*> requestVolumes(const PropertyList& request) {
  std::vector<const PropertyList*> out;
  if (const PlistArray* list = arrayOf(request, "volumes"))
    for (const PropertyList& v : *list) out.push_back(&v);
  return out;
}

const std::string* nameOf(const PropertyList* element) {
  return element && element->isDict() ? element->getString("Name") : nullptr;
}

PropertyList answer(int status, std::optional<PropertyList> volumes = std::nullopt) {
  PropertyList response = PropertyList::dict();
  response.set("status", status);
  if (volumes) response.set("volumes", std::move(*volumes));
  return response;
}

// The fsmlist with the volume's line dropped and, where this machine is in the new failover
// order, a new line with its index at the end.
std::string fsmlistForPriority(const std::string& volume, const PropertyList* priority) {
  std::string text = editFsmlistLines(readFsmlist(), [&volume](std::string_view line) {
    return fsmlistVolumeName(line) == volume ? std::nullopt : std::optional<std::string>(line);
  });
  // Deliberate: the new line is appended as it stands, after whatever the kept text ends with.
  std::optional<size_t> index =
      ownFailoverIndex(arrayStrings(priority), SANComputer::thisComputer().ipAddresses());
  if (index) text += fsmlistLine(volume, *index);
  return text;
}

// The edit of one element of a request's volumes: it changes the new parser's dictionary, and
// answers a new fsmlist text when the machine's line changes.
using VolumeEdit = std::optional<std::string> (*)(const PropertyList& element, Reconfiguration&);

// changeVolumeSettings: the aux data whole, the failover order, and the changeable globals.
std::optional<std::string> editSettings(const PropertyList& element, Reconfiguration& change) {
  PropertyList& edited = change.edited();
  if (const PropertyList* aux = element.get("AuxData")) edited.set("AuxData", *aux);
  std::optional<std::string> fsmlist;
  if (const PropertyList* priority = element.get("FailoverPriority"))
    fsmlist = fsmlistForPriority(change.name(), priority);
  for (std::string_view key : kChangeableGlobals) {
    if (const PropertyList* value = element.get(key))
      childOfType(edited, "Globals", PropertyList::dict()).set(std::string(key), *value);
  }
  return fsmlist;
}

// changeStripeGroupSettings: Exclusive of the named groups, and nothing else of a group.
std::optional<std::string> editStripeGroupSettings(const PropertyList& element,
                                                   Reconfiguration& change) {
  const PlistArray* groups = arrayOf(element, "StripeGroups");
  if (!groups) return std::nullopt;
  for (const PropertyList& wanted : *groups) {
    const std::string* groupName = wanted.isDict() ? wanted.getString("StripeGroup") : nullptr;
    PropertyList* group = groupName ? change.editedParser().storagePoolNamed(*groupName) : nullptr;
    const PropertyList* exclusive = group ? wanted.get("Exclusive") : nullptr;
    if (!exclusive) continue;
    // A metadata or journal group keeps its Exclusive value, without a word.
    const PropertyList* metadata = group->get("Metadata");
    const PropertyList* journal = group->get("Journal");
    if ((metadata && metadata->boolValue()) || (journal && journal->boolValue())) continue;
    group->set("Exclusive", *exclusive);
  }
  return std::nullopt;
}

// What changeVolumeSettings and changeStripeGroupSettings share: no volume is touched while any of
// them has a long task; then each in order, until the first failure, the volumes before it
// keeping their change.
PropertyList reconfigureEach(VelmPlugin& plugin, const PropertyList& request, const char* fn,
                             bool copyAux, VolumeEdit edit) {
  bool update = requestFlag(request, "update");
  std::vector<const PropertyList*> volumes = requestVolumes(request);
  for (const PropertyList* element : volumes) {
    const std::string* name = nameOf(element);
    if (name && refuseForLongTask(plugin, fn, *name)) return answer(kStatusLongTaskRunning);
  }
  PropertyList changed = PropertyList::array();
  int status = 0;
  for (const PropertyList* element : volumes) {
    Reconfiguration change(fn, "Updating volume");
    if ((status = change.open(nameOf(element))) != 0) break;
    std::optional<std::string> fsmlist = edit(*element, change);
    PropertyList result;
    if ((status = change.commit(plugin, update, copyAux, fsmlist, &result)) != 0) break;
    changed.push(std::move(result));
  }
  SANFilesystem::localFilesystem().clearCache();
  return answer(status, std::move(changed));
}

}  // namespace

std::optional<PropertyList> VelmPlugin::expandVolumeWithRequest(const PropertyList& request) {
  const char* fn = "expandVolume";
  bool update = requestFlag(request, "update");
  const PropertyList* volume = request.get("volume");
  const std::string* name = nameOf(volume);

  Reconfiguration change(fn, "Expanding volume");
  PropertyList result;
  int status = change.open(name);
  // Deliberate: here the long-task check comes after the parse.
  if (status == 0 && refuseForLongTask(*this, fn, *name)) status = kStatusLongTaskRunning;
  if (status == 0) {
    PropertyList& edited = change.edited();
    appendAll(edited, "DiskTypes", volume->get("DiskTypes"));
    appendAll(edited, "Disks", volume->get("Disks"));
    if (const PlistArray* groups = arrayOf(*volume, "StripeGroups")) {
      for (const PropertyList& group : *groups) {
        const std::string* groupName = group.isDict() ? group.getString("StripeGroup") : nullptr;
        // An existing group takes only the request's Nodes; anything else given for it is dropped.
        PropertyList* existing =
            groupName ? change.editedParser().storagePoolNamed(*groupName) : nullptr;
        if (existing)
          appendAll(*existing, "Nodes", group.get("Nodes"));
        else
          arrayAt(edited, "StripeGroups").push_back(group);
      }
    }
    status = change.commit(*this, update, false, std::nullopt, &result);
  }
  SANFilesystem::localFilesystem().clearCache();
  PropertyList response = answer(status);
  if (status == 0) response.set("volume", std::move(result));
  return response;
}

std::optional<PropertyList> VelmPlugin::changeVolumeSettingsWithRequest(
    const PropertyList& request) {
  return reconfigureEach(*this, request, "changeVolumeSettings", true, editSettings);
}

std::optional<PropertyList> VelmPlugin::changeStripeGroupSettingsWithRequest(
    const PropertyList& request) {
  return reconfigureEach(*this, request, "changeStripeGroupSettings", false,
                         editStripeGroupSettings);
}

}  // namespace velm
