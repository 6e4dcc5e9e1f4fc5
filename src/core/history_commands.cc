// The history the plugin keeps in its context: the start of each run (initHistorySystem) and the
// commands getHistoryInfo and getHistory.
#include "core/san_computer.h"
#include "core/velm_plugin.h"
#include "gateway/san_filesystem.h"
#include "history/history_system.h"
#include "history/sampling.h"
#include "plist/format.h"

namespace velm {
namespace {

// The volume tables that may stay: a controller's volumes; none on a client.
std::set<std::string> volumeTables() {
  std::set<std::string> names;
  if (!SANComputer::thisComputer().isController()) return names;
  const PropertyList* volumes = SANFilesystem::localFilesystem().cachedValueForKey("volumes");
  if (const PlistArray* list = volumes ? volumes->asArray() : nullptr)
    for (const PropertyList& v : *list)
      if (const std::string* name = v.getString("Name")) names.insert(historyNameForVolume(*name));
  return names;
}

PropertyList bareError(std::string text) {
  PropertyList r = PropertyList::dict();
  r.set("error", std::move(text));
  return r;
}

}  // namespace

void VelmPlugin::initHistorySystem() {
  PropertyList* ctx = context();
  // Outside a request (no context to keep tables in) there is nothing to set up.
  if (ctx && ctx->isDict()) velm::initHistorySystem(ctx, volumeTables());
}

int VelmPlugin::updateHistoryData() {
  PropertyList* ctx = context();
  std::vector<std::string> volumes;
  bool controller = SANComputer::thisComputer().isController();
  if (controller) {
    const PropertyList* list = SANFilesystem::localFilesystem().cachedValueForKey("volumes");
    if (const PlistArray* all = list ? list->asArray() : nullptr)
      for (const PropertyList& v : *all)
        if (const std::string* name = v.getString("Name")) volumes.push_back(*name);
  }
  return ctx ? velm::updateHistoryData(ctx, controller, volumes) : 0;
}

std::optional<PropertyList> VelmPlugin::getHistoryInfoWithRequest(const PropertyList&) {
  PropertyList* ctx = context();
  // Bound, never copied: a conditional between the context and a temporary would copy it whole.
  static const PropertyList kNoContext = PropertyList::dict();
  PropertyList info = PropertyList::array();
  info.push(getHistorySystemKeys(ctx ? *ctx : kNoContext));
  if (SANComputer::thisComputer().isController()) {
    const PropertyList* volumes = SANFilesystem::localFilesystem().cachedValueForKey("volumes");
    if (const PlistArray* list = volumes ? volumes->asArray() : nullptr)
      for (const PropertyList& v : *list)
        if (const std::string* name = v.getString("Name")) info.push(getHistoryVolKeys(*name));
  }
  PropertyList response = PropertyList::dict();
  response.set("historyInfo", std::move(info));
  return response;
}

std::optional<PropertyList> VelmPlugin::getHistoryWithRequest(const PropertyList& request) {
  const std::string* identifier = request.getString("identifier");
  if (!identifier) return responseForError("identifier required but missing");
  PropertyList* ctx = context();
  static const PropertyList kNoContext = PropertyList::dict();
  const PropertyList& store = ctx ? *ctx : kNoContext;
  std::string table;
  PropertyList descriptor;
  constexpr std::string_view kVolumePrefix = "volumeHistory:";
  if (*identifier == "system") {
    table = "history";
    descriptor = getHistorySystemKeys(store);
  } else if (identifier->rfind(kVolumePrefix, 0) == 0) {
    std::string volume = identifier->substr(kVolumePrefix.size());
    table = historyNameForVolume(volume);
    // Deliberate: the identifier's errors are a bare error key, the store's the common form.
    if (!store.get(table)) return bareError(format("No history for volume %@", volume));
    descriptor = getHistoryVolKeys(volume);
  } else {
    return bareError(format("%@ is not a valid identifier", *identifier));
  }
  PropertyList result;
  if (std::optional<std::string> error =
          getHistoryData(table, request.get("variant"), request.get("timeScale"), &result, store))
    return responseForError(error->c_str());
  for (const auto& [key, value] : *descriptor.asDict()) result.set(key, value);
  return result;
}

}  // namespace velm
