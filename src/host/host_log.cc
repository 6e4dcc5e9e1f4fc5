#include "host/host_log.h"

#include <unistd.h>

#include <string>

namespace velm {

void writeHostLogLine(std::string_view text) {
  std::string line = "adminhostd[" + std::to_string(::getpid()) + "]: ";
  line += text;
  logRawLine(line);
}

}  // namespace velm
