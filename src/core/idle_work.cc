// The idle work that notifications do at each tick.
// Until notifications are on this machine, the entry point says so once and does nothing.
#include <atomic>

#include "core/velm_plugin.h"
#include "platform/log.h"

namespace velm {
namespace {

void sayOnce(std::atomic<bool>& said, const char* what) {
  if (!said.exchange(true)) NLog("%s: not available in this build", what);
}

std::atomic<bool> gNotifications{false};

}  // namespace

int VelmPlugin::processNotifications() {
  sayOnce(gNotifications, "processNotifications");
  return 0;
}

}  // namespace velm
