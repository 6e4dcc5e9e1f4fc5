// adminhostd's log: HostLog (adminhost/host_log.h) always writes; HostTrace only when logging is
// switched on by $VELM_ROOT/var/adminhostd/enable_velm_logging.
#pragma once

#include "adminhost/host_log.h"
#include "platform/log.h"

template <typename... Args>
void HostTrace(velm::FormatString<std::type_identity_t<Args>...> fmt, const Args&... args) {
  if (!velm::loggingEnabled()) return;
  velm::writeHostLogLine(velm::format<Args...>(fmt, args...));
}
