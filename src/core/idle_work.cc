// The idle work that history sampling and notifications do at each tick.
// Until those subsystems are on this machine, each entry point says so once and does nothing.
#include <atomic>

#include "core/velm_plugin.h"
#include "platform/log.h"

namespace velm {
namespace {

void sayOnce(std::atomic<bool>& said, const char* what) {
  if (!said.exchange(true)) NLog("%s: not available in this build", what);
}

std::atomic<bool> gHistory{false}, gNotifications{false};

}  // namespace

int VelmPlugin::updateHistoryData() {
  sayOnce(gHistory, "updateHistoryData");
  return 0;
}

int VelmPlugin::processNotifications() {
  sayOnce(gNotifications, "processNotifications");
  return 0;
}

}  // namespace velm
