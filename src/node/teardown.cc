#include "node/teardown.h"

#include <cstdio>
#include <filesystem>
#include <vector>

#include "adminhost/host_common.h"
#include "notes/asset_notes.h"
#include "platform/clock.h"
#include "platform/log.h"
#include "platform/paths.h"

namespace velm {

std::string velmServiceDefinition() {
  return format("/etc/svcload.d/%@.plist", "com.orvane.velm");
}

int countProcessesNamed(std::string_view psOutput, std::string_view name) {
  int count = 0;
  bool heading = true;
  while (!psOutput.empty()) {
    std::size_t end = psOutput.find('\n');
    std::string_view line = psOutput.substr(0, end);
    psOutput = end == std::string_view::npos ? std::string_view() : psOutput.substr(end + 1);
    if (heading) {
      heading = false;
      continue;
    }
    if (line.size() < 5) continue;
    // Only the command counts, not its arguments.
    std::string_view command = line.substr(0, line.find_first_of(" \t"));
    std::size_t slash = command.rfind('/');
    if (slash != std::string_view::npos) command.remove_prefix(slash + 1);
    if (command == name) ++count;
  }
  return count;
}

int runServiceLoader(const char* verb) {
  return launch_task(hostPath(kServiceLoader), {verb, velmServiceDefinition()}).status;
}

void waitForDaemonGone() {
  const char* fn = "clearConfiguration";
  const char* name = "velmd";
  for (;;) {
    NLog("%s: counting PIDs named '%s'", fn, name);
    LaunchResult r = launch_task(hostPath(kProcessList), {"-ax", "-o", "command"});
    if (r.status == -1) {
      NError("%s: Unable to run ps(1)", fn);
      return;
    }
    int count = countProcessesNamed(r.output, name);
    NLog("%s: found %d PID%s named '%s'", fn, count, count == 1 ? "" : "s", name);
    if (count == 0) return;
    // Deliberate: no limit; a daemon that never ends holds the command.
    clock().sleepSeconds(1);
  }
}

void removeConfigurationFiles() {
  namespace fs = std::filesystem;
  std::string dir = configDir();
  std::error_code ec;
  std::vector<fs::path> entries;
  for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec))
    entries.push_back(it->path());
  for (const fs::path& p : entries) {
    std::string ext = p.extension().string();
    std::string stem = p.stem().string();
    // Never through a link out of the directory: remove() takes the link itself. The aux data
    // goes first: a kill between the two leaves the .cfg, which a repeat finds and removes with
    // it.
    if (ext == ".cfg") {
      fs::remove(format("%@/%@-auxdata.plist", dir, stem), ec);
      fs::remove(p, ec);
    } else if (ext == ".cfg-old") {
      fs::remove(format("%@/%@-auxdata.plist-old", dir, stem), ec);
      fs::remove(p, ec);
    }
  }
  for (const char* name : {"fsmlist", "drlabels", "notifications.plist"})
    fs::remove(configPath(name), ec);
  SANAssetNoteManager::defaultManager().removeAllNotes();
  for (const char* name : {"automount.plist", "config.plist", "fsnameservers", ".auth_secret",
                           "saninfo.plist", "role.plist"})
    fs::remove(configPath(name), ec);
}

}  // namespace velm
