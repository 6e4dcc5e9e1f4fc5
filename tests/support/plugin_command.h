// One command through a plugin, as the host sends it.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "adminhost/plugin_request_handler.h"
#include "plist/plist.h"

namespace velm::test {

using CommandKeys = std::vector<std::pair<std::string, PropertyList>>;

// { command, keys... } through doProcessInputWithRequest; a null value when the plugin gave no
// response at all.
inline PropertyList runCommand(PluginRequestHandler& plugin, PropertyList& context,
                               std::string_view command, CommandKeys keys = {}) {
  PropertyList r = PropertyList::dict();
  r.set("command", command);
  for (auto& [k, v] : keys) r.set(k, std::move(v));
  std::int32_t fd = -1;
  std::optional<PropertyList> out = plugin.doProcessInputWithRequest(r, &context, &fd);
  return out ? std::move(*out) : PropertyList();
}

}  // namespace velm::test
