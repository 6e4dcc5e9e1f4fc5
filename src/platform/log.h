// The plugin's log: NLog (only when logging is switched on) and NError (always), one line each to
// syslog, facility user, priority notice; VELM_LOG=stderr or VELM_LOG=/path/file redirects.
// Callable from any thread.
#pragma once

#include <string_view>

#include "plist/format.h"

namespace velm {

// True when /var/adminhostd/enable_velm_logging existed at the first call in this process.
bool loggingEnabled();
// Writes "velm: [pid/TID] text" (error adds "ERROR: "); "null" stands for an empty text.
void logNoticeLine(std::string_view text);
void logErrorLine(std::string_view text);
// Writes a line as it stands, without the "velm:" prefix, whether or not logging is on.
void logRawLine(std::string_view text);
void resetLoggingForTest();

}  // namespace velm

template <typename... Args>
void NLog(velm::FormatString<std::type_identity_t<Args>...> fmt, const Args&... args) {
  if (!velm::loggingEnabled()) return;
  velm::logNoticeLine(velm::format<Args...>(fmt, args...));
}

template <typename... Args>
void NError(velm::FormatString<std::type_identity_t<Args>...> fmt, const Args&... args) {
  velm::logErrorLine(velm::format<Args...>(fmt, args...));
}
