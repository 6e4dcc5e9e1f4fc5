// A plugin's persistent context: one XML plist dictionary per plugin name under
// $VELM_ROOT/var/adminhostd/context/. Shared by adminhostd and velmadmin --local.
// Not synchronised: callers serialise loads and saves of one plugin's context themselves.
#pragma once

#include <string>

#include "plist/plist.h"

namespace velm {

// $VELM_ROOT/var/adminhostd/context/<plugin>.plist; empty for a name that can't be a file name.
std::string pluginContextPath(const std::string& plugin);

// The saved context. A missing file gives an empty dictionary and a log line; a file that isn't a
// plist dictionary is renamed aside to <plugin>.plist.corrupt-<time> (never overwritten, never
// removed), logged, and an empty dictionary is given.
PropertyList loadPluginContext(const std::string& plugin);

// Writes the context whole and atomically, making the directory if needed. Returns 0 or an errno
// value (EINVAL for a bad plugin name or a context that isn't a dictionary).
int savePluginContext(const std::string& plugin, const PropertyList& context);

// True when the plugin set its boolean contextDirty; removes the flag, so the kept copy and the
// saved one agree. A non-boolean contextDirty counts by its boolean value.
bool takeContextDirty(PropertyList* context);

}  // namespace velm
