// The command labelLUNs: drlabel gives LUNs the labels the file system knows them by, or takes
// them away, from two order files the plugin writes; then the plugin waits until the port
// mapper's disk list shows the new labels. And get_labeled_disks, that list.
#include <cstring>

#include "adminhost/host_common.h"
#include "adminlib/qmadminlib.h"
#include "adminlib/subr2.h"
#include "core/velm_plugin.h"
#include "gateway/qmadmin.h"
#include "gateway/san_filesystem.h"
#include "model/plugin_status.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "plist/format.h"
#include "volumes/volume_state.h"

namespace velm {
namespace {

constexpr std::string_view kLabelTool = "/Library/Filesystems/Velm/bin/drlabel";
// The label the host's disk tool leaves on a LUN it has preformatted.
constexpr std::string_view kPreformattedLabel = "Untitled";
constexpr int kListEnd = 6;
constexpr int kWaitTries = 20;

// A label goes into a line of an order file, where a blank or a line end would make other
// orders of it.
bool isWritableLabel(std::string_view label) {
  for (char c : label)
    if (c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\0') return false;
  return true;
}

const std::string* stringAt(const PropertyList& record, std::string_view key) {
  return record.getString(key);
}

PropertyList valueOrNull(const PropertyList& record, std::string_view key) {
  const PropertyList* v = record.get(key);
  return v ? *v : PropertyList();
}

// Runs drlabel with args on an order file just written; its exit status.
int runLabelTool(const char* fn, const char* what, const std::vector<std::string>& args) {
  std::string tool = hostPath(kLabelTool);
  LaunchResult r = launch_task(tool, args);
  if (r.status != 0) {
    NLog("%s: %s luns had an error (status %d, output '%@', error '%@').", fn, what, r.status,
         r.output, r.error);
  } else if (std::strcmp(what, "Unlabeling") == 0) {
    // Deliberate: the success line of the unlabelling keeps its misspelling.
    NLog("%s: Unabeling luns appeared to succeed (output '%@')", fn, r.output);
  } else {
    NLog("%s: Labeling luns appeared to succeed (output '%@')", fn, r.output);
  }
  return r.status;
}

// The wait: up to 20 tries, a second apart, until the port mapper lists every new label.
void update_drlabels(const PlistArray& luns) {
  QMAdminLock lock("update_drlabels");
  // Deliberate: this connection is not closed by the command; the shared slot's count absorbs it.
  int handle = open_fs_connection();
  if (handle < 0) return;
  PropertyList disks = PropertyList::array();
  bool found = false;
  int tries = 0;
  for (int attempt = 0; attempt < kWaitTries && !found; ++attempt) {
    if (attempt > 0) clock().sleepSeconds(1);
    tries = attempt + 1;
    NLog("update_drlabels: Try %d... looking for disks", attempt);
    if (int status = get_labeled_disks(handle, &disks); status != 0) {
      log_qmfs_error(status, "update_drlabels");
      NError("update_drlabels: Could not search disks on try %d", attempt);
      continue;
    }
    found = true;
    for (const PropertyList& record : luns) {
      const std::string* name = stringAt(record, "newName");
      if (!name || name->empty()) continue;
      NLog("update_drlabels: Looking for disk %@ on try %d", *name, attempt);
      bool there = false;
      for (const PropertyList& disk : *disks.asArray()) {
        const std::string* label = disk.getString("name");
        there = there || (label && *label == *name);
      }
      if (!there) {
        NLog("update_drlabels: Could not find disk %@ on try %d", *name, attempt);
        found = false;
        break;
      }
      NLog("update_drlabels: Found disk %@, on try %d", *name, attempt);
    }
  }
  // The list itself can't go through %d; its count does.
  NLog("update_drlabels: Done looking... %@, %d, %d",
       found ? "Found disks" : "COULD NOT FIND DISKS!", static_cast<int>(disks.size()), tries);
}

}  // namespace

int get_labeled_disks(int handle, PropertyList* disks) {
  *disks = PropertyList::array();
  QMAdminLock lock(__func__);
  NLog("get_labeled_disks: Enter");
  if (int status = QMAdmin_NSRefreshDisks(handle); status != 0) log_qmfs_error(status, __func__);
  for (int index = 0;; ++index) {
    QMAdminDisk disk{};
    char err[ADMIN_ERRBUF_LEN] = {};
    int status = QMAdmin_NSGetDisk(handle, index, &disk, err);
    if (status == kListEnd) {
      NLog("get_labeled_disks: Exit");
      return 0;
    }
    if (status != 0) {
      NError("get_labeled_disks: Error %d iterating over list", status);
      log_qmfs_error(status, __func__);
      NLog("get_labeled_disks: Exit on error");
      return kStatusLabeledDisksFailed;
    }
    std::string label(disk.label, strnlen(disk.label, sizeof disk.label));
    std::string device(disk.device, strnlen(disk.device, sizeof disk.device));
    if (label == kPreformattedLabel) {
      NLog("get_labeled_disks: Skipping Platterkit preformatted 'Untitled' volume at %s",
           device.c_str());
      continue;
    }
    PropertyList record = PropertyList::dict();
    record.set("_id_", "Disk_" + device);
    record.set("name", label);
    record.set("blkDevName", device);
    record.set("inquiryString",
               std::string(disk.inquiry, strnlen(disk.inquiry, sizeof disk.inquiry)));
    record.set("serialNumber", std::string(disk.serial, strnlen(disk.serial, sizeof disk.serial)));
    record.set("size", static_cast<std::uint64_t>(disk.size));
    record.set("sectorSize", static_cast<unsigned>(disk.sectorSize));
    record.set("lunID", static_cast<unsigned>(disk.lunId));
    record.set("pathState", static_cast<unsigned>(disk.pathState));
    disks->push(std::move(record));
  }
}

std::optional<PropertyList> VelmPlugin::labelLUNsWithRequest(const PropertyList& request) {
  const char* fn = "labelLUNs";
  NLog("%s: ENTER", fn);
  SANFilesystem& fs = SANFilesystem::localFilesystem();
  const PropertyList* clear = request.get("clearCache");
  if (clear && clear->boolValue()) {
    NLog("%s: Clearing cache", fn);
    fs.clearCache();
    return std::nullopt;
  }

  std::string labels, unlabels;
  PropertyList lookup = PropertyList::dict();
  const PropertyList* lunsValue = request.get("luns");
  const PlistArray* luns = lunsValue ? lunsValue->asArray() : nullptr;
  if (!luns || luns->empty()) {
    NLog("%s: 0 LUNs to label?", fn);
  } else {
    // The labels as they stand before anything of this request is done.
    PropertyList visible = fs.visibleLUNs();
    PropertyList byLabel = PropertyList::dict();
    if (const PlistDict* devices = visible.asDict()) {
      for (const auto& [device, record] : *devices)
        if (const std::string* label = record.getString("Label")) byLabel.set(*label, record);
    }
    fs.findDisksByIdentifier(lookup);
    NLog("We need to label luns: %@", *lunsValue);
    for (const PropertyList& record : *luns) {
      const std::string* newName = stringAt(record, "newName");
      if (!newName || newName->empty()) {
        PropertyList oldName = valueOrNull(record, "oldName");
        if (const std::string* old = oldName.asString(); old && !isWritableLabel(*old)) {
          NError("%s: Not writing '%@' to drunlabels: a label can't hold blanks or line ends", fn,
                 *old);
          continue;
        }
        unlabels += format("%@\n", oldName);
        continue;
      }
      if (byLabel.get(*newName)) {
        // Deliberate: "$@" stands where a placeholder should, so the name isn't printed.
        NError("Not writing $@ to drlabels, LUN with that name already exists");
        continue;
      }
      PropertyList serial = valueOrNull(record, "serialNumber");
      PropertyList type = valueOrNull(record, "connectionType");
      std::string key = SANFilesystem::identifierLookupFromLUNRecord(record);
      if (key.empty()) {
        NError("Not writing %@ to drlabels, cannot find lookup key for (%@, %@)", *newName, serial,
               type);
        continue;
      }
      const std::string* device = lookup.getString(key);
      if (!device || device->empty()) {
        NError("Not writing %@ to drlabels, cannot find bsd device for (%@, %@)", *newName, serial,
               type);
        continue;
      }
      if (!isWritableLabel(*newName)) {
        NError("%s: Not writing '%@' to drlabels: a label can't hold blanks or line ends", fn,
               *newName);
        continue;
      }
      NLog("Read device name %@, writing out '%@ %@ - EFI' to drlabels", *device, *newName,
           *device);
      labels += format("%@ %@ - EFI\n", *newName, *device);
    }
  }

  int unlabelStatus = 0, labelStatus = 0;
  if (!unlabels.empty()) {
    std::string path = configPath("drunlabels");
    NLog("%s: Writing out '%@' to %@", fn, unlabels, path);
    writeFileAtomically(path, unlabels);
    NLog("%s: Calling '%@ -f -z %@'", fn, hostPath(kLabelTool), path);
    unlabelStatus = runLabelTool(fn, "Unlabeling", {"-f", "-z", path});
  }
  // The labelling runs whether or not the unlabelling worked.
  if (!labels.empty()) {
    std::string path = configPath("drlabels");
    NLog("Writing out '%@' to %@", labels, path);
    writeFileAtomically(path, labels);
    NLog("%s: Calling '%@ -f %@'", fn, hostPath(kLabelTool), path);
    labelStatus = runLabelTool(fn, "Labeling", {"-f", path});
  }
  fs.disksChanged();
  fs.clearCache();

  // Whether the labels show up or not isn't part of the answer.
  update_drlabels(luns ? *luns : PlistArray{});

  PropertyList response = PropertyList::dict();
  response.set("visibleLUNs", fs.visibleLUNs());
  response.set("status", unlabelStatus != 0 ? unlabelStatus : labelStatus);
  return response;
}

}  // namespace velm
