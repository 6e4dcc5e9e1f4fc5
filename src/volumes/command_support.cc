#include "volumes/command_support.h"

#include "core/velm_plugin.h"
#include "gateway/san_filesystem.h"
#include "platform/files.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "platform/string_additions.h"
#include "plist/format.h"

namespace velm {

bool refuseForLongTask(VelmPlugin& plugin, const char* fn, std::string_view volume) {
  if (!plugin.checkForLongTask(volume)) return false;
  NError("%s: long-running operation already in progress for volume '%@'", fn, volume);
  return true;
}

const PlistArray* arrayOf(const PropertyList& dict, std::string_view key) {
  const PropertyList* v = dict.get(key);
  return v ? v->asArray() : nullptr;
}

bool requestFlag(const PropertyList& request, std::string_view key) {
  const PropertyList* v = request.get(key);
  return v && v->boolValue();
}

PropertyList responseWithVolumes(PropertyList status) {
  PropertyList response = PropertyList::dict();
  response.set("status", std::move(status));
  const PropertyList* volumes = SANFilesystem::localFilesystem().cachedValueForKey("volumes");
  response.set("volumes", volumes ? *volumes : PropertyList::array());
  return response;
}

std::string_view fsmlistVolumeName(std::string_view line) { return line.substr(0, line.find(' ')); }

std::string readFsmlist() {
  std::optional<std::string> text = readFile(configPath("fsmlist"));
  if (!text || !isValidUtf8(*text)) return {};
  return std::move(*text);
}

std::string editFsmlistLines(
    std::string_view text,
    const std::function<std::optional<std::string>(std::string_view)>& edit) {
  std::string out;
  bool first = true;
  size_t start = 0;
  while (true) {
    size_t end = text.find('\n', start);
    std::string_view line =
        text.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start);
    if (std::optional<std::string> kept = edit(line)) {
      if (!first) out += '\n';
      out += *kept;
      first = false;
    }
    if (end == std::string_view::npos) break;
    start = end + 1;
  }
  return out;
}

std::optional<size_t> ownFailoverIndex(const std::vector<std::string>& priority,
                                       const std::set<std::string>& mine) {
  for (size_t index = 0; index < priority.size(); ++index)
    if (mine.count(priority[index])) return index;
  return std::nullopt;
}

std::string fsmlistLine(std::string_view name, size_t index) {
  return format("%@ . %d\n", name, static_cast<int>(index));
}

int writeFsmlist(const std::string& text) {
  return writeFileAtomically(configPath("fsmlist"), text);
}

}  // namespace velm
