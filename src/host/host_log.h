// adminhostd's own log lines, "adminhostd[pid]: text", through the same sink as the plugin's
// (syslog, or VELM_LOG=stderr|FILE). HostLog always writes; HostTrace (one line per request)
// only when logging is switched on by $VELM_ROOT/var/adminhostd/enable_velm_logging.
#pragma once

#include <string_view>

#include "platform/log.h"
#include "plist/format.h"

namespace velm {
void writeHostLogLine(std::string_view text);
}  // namespace velm

template <typename... Args>
void HostLog(velm::FormatString<std::type_identity_t<Args>...> fmt, const Args&... args) {
  velm::writeHostLogLine(velm::format<Args...>(fmt, args...));
}

template <typename... Args>
void HostTrace(velm::FormatString<std::type_identity_t<Args>...> fmt, const Args&... args) {
  if (!velm::loggingEnabled()) return;
  velm::writeHostLogLine(velm::format<Args...>(fmt, args...));
}
