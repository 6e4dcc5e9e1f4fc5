#include "adminhost/host_log.h"

#include <errno.h>
#include <unistd.h>

#include <mutex>

#include "platform/log.h"

namespace velm {
namespace {

std::mutex gNameLock;  // guards gName; leaf
std::string gName;

}  // namespace

void setHostLogName(std::string name) {
  std::scoped_lock lock(gNameLock);
  gName = std::move(name);
}

void writeHostLogLine(std::string_view text) {
  std::string line;
  {
    std::scoped_lock lock(gNameLock);
    line = gName.empty() ? std::string(program_invocation_short_name) : gName;
  }
  line += "[" + std::to_string(::getpid()) + "]: ";
  line += text;
  logRawLine(line);
}

}  // namespace velm
