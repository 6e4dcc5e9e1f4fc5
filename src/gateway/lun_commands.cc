// The commands getLUNs and refreshLUNs.
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

}  // namespace velm
