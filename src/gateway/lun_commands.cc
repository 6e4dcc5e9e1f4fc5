// The commands getLUNs, refreshLUNs and identifyLUNs.
#include "core/velm_plugin.h"
#include "gateway/san_filesystem.h"
#include "plist/key_list.h"

namespace velm {
namespace {

PropertyList visibleLUNsResponse() {
  PropertyList luns = SANFilesystem::localFilesystem().visibleLUNs();
  return dictionaryWithValuesAndKeys({{&luns, "visibleLUNs"}});
}

}  // namespace

std::optional<PropertyList> VelmPlugin::getLUNsWithRequest(const PropertyList&) {
  return visibleLUNsResponse();
}

std::optional<PropertyList> VelmPlugin::refreshLUNsWithRequest(const PropertyList&) {
  SANFilesystem& fs = SANFilesystem::localFilesystem();
  // A velmd that can't be told is logged and doesn't stop the fresh read.
  fs.disksChanged();
  fs.clearCache();
  return visibleLUNsResponse();
}

std::optional<PropertyList> VelmPlugin::identifyLUNsWithRequest(const PropertyList& request) {
  const PropertyList* luns = request.get("luns");
  const PlistArray* records = luns ? luns->asArray() : nullptr;
  if (!records || records->empty()) return PropertyList::dict();
  PropertyList lookup = PropertyList::dict();
  for (const PropertyList& record : *records)
    lookup.set(SANFilesystem::identifierLookupFromLUNRecord(record), "");
  SANFilesystem& fs = SANFilesystem::localFilesystem();
  fs.findDisksByIdentifier(lookup);
  const PropertyList* stop = request.get("shouldStop");
  if (stop && stop->boolValue())
    fs.stopIdentifyingLUNs(lookup);
  else
    fs.identifyLUNs(lookup);
  // The reading goes on after the answer.
  return PropertyList::dict();
}

}  // namespace velm
