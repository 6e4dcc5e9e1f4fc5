// The host's own voice: "<program>[pid]: text" (adminhostd, or velmadmin playing host), written
// whether or not the plugin's NLog is on and never with the plugin's "velm:" prefix, through the
// same sink (syslog, or VELM_LOG=stderr|FILE).
#pragma once

#include <string>
#include <string_view>

#include "plist/format.h"

namespace velm {
// The program name in host lines; the process's own name until set.
void setHostLogName(std::string name);
void writeHostLogLine(std::string_view text);
}  // namespace velm

template <typename... Args>
void HostLog(velm::FormatString<std::type_identity_t<Args>...> fmt, const Args&... args) {
  velm::writeHostLogLine(velm::format<Args...>(fmt, args...));
}
