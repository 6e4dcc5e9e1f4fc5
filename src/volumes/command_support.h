// What the volume commands share: request flags, the answer that lists the volumes, and the
// machine's fsmlist, one "<name> . <index>" line per volume this controller serves.
#pragma once

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "plist/plist.h"

namespace velm {

class VelmPlugin;

// True when a long task runs on the volume, logged as "<fn>: long-running operation already in
// progress for volume '<volume>'"; asking may end a task that has finished.
bool refuseForLongTask(VelmPlugin& plugin, const char* fn, std::string_view volume);
// The array under key, or null.
const PlistArray* arrayOf(const PropertyList& dict, std::string_view key);
// A boolean key of a request; missing reads as false.
bool requestFlag(const PropertyList& request, std::string_view key);
// { status, volumes }: the volume list as SANFilesystem holds it now.
PropertyList responseWithVolumes(PropertyList status);

// The part of an fsmlist line up to its first blank: the volume's name.
std::string_view fsmlistVolumeName(std::string_view line);
// The fsmlist text as UTF-8; "" when it is missing, unreadable or not UTF-8.
std::string readFsmlist();
// Splits text at LF, gives each piece (the last one too, even when empty) to edit, and joins what
// it keeps with LF; edit answers nothing to drop the line.
std::string editFsmlistLines(
    std::string_view text, const std::function<std::optional<std::string>(std::string_view)>& edit);
// Where this machine stands in a volume's failover list: the index of the first of mine there.
std::optional<size_t> ownFailoverIndex(const std::vector<std::string>& priority,
                                       const std::set<std::string>& mine);
// "<name> . <index>" and LF.
std::string fsmlistLine(std::string_view name, size_t index);
// Writes the fsmlist whole and atomically; 0 or an errno.
int writeFsmlist(const std::string& text);

}  // namespace velm
