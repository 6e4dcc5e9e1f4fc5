// velm-simd: a stand-in for the local mount daemon, for tests and the demo.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "sim/sim_common.h"
#include "sim/simd_server.h"

namespace {

const char kUsage[] =
    "usage: velm-simd --root DIR [--config FILE]\n"
    "\n"
    "A stand-in for the local mount daemon. It answers the management commands on the UNIX\n"
    "socket DIR/var/run/com.orvane.velmd.socket, one XML plist dictionary request per\n"
    "connection, with an XML plist dictionary reply (no error key: success), then it closes the\n"
    "connection. A request ends at </plist> (whitespace or NULs may follow) or at the client's\n"
    "end of writing. Mounts are real for the rest of the system: mount points and a mountinfo\n"
    "file in the kernel's format.\n"
    "Each request is logged to stderr. SIGTERM or SIGINT stops it.\n"
    "\n"
    "  --root DIR      sandbox root (required)\n"
    "  --config FILE   behaviour file, an XML plist dictionary (default DIR/simd.plist; optional,\n"
    "                  read again for every request)\n"
    "\n"
    "Commands (request key command):\n"
    "  disksChanged      posts com.orvane.velm.disksChanged, then the automount pass\n"
    "  sanConfigChanged  posts com.orvane.velm.sanConfigChanged, then the automount pass\n"
    "  roleChanged       answers success\n"
    "  mount             volume (string), how (\"rw\" or \"ro\"), MountOptions (dictionary,\n"
    "                    optional): makes DIR/Volumes/<volume> and writes the volume's qufs line\n"
    "  unmount           volume (string), forgetVolume (boolean, optional): removes the line and\n"
    "                    the empty mount point; forgetVolume keeps the automount pass from\n"
    "                    mounting it again until an explicit mount\n"
    "\n"
    "Files:\n"
    "  DIR/var/run/com.orvane.velmd.socket                  the socket (removed at exit)\n"
    "  $VELM_PROCFS/self/mountinfo                          the mount table; DIR/proc/self/\n"
    "                                                       mountinfo when VELM_PROCFS is unset\n"
    "                                                       or /proc. Other lines are kept\n"
    "  DIR/var/run/velm/notify/<name>                       rewritten to post a notification\n"
    "  DIR/Library/Filesystems/Velm/config/automount.plist  volume name -> dictionary with an\n"
    "                                                       optional MountOptions dictionary;\n"
    "                                                       mounted rw at start-up and after\n"
    "                                                       disksChanged and sanConfigChanged\n"
    "\n"
    "Behaviour file keys:\n"
    "  commands            dictionary: command name -> dictionary of:\n"
    "    error             string: answer {error = this} instead of doing the command\n"
    "    reply             string: do the command, but send exactly these bytes as the answer\n"
    "    ending            string: what follows </plist>: newline (default), none, nul,\n"
    "                      newline-nul, two-newlines\n"
    "    chunkSize         integer > 0: send the answer in pieces of this many bytes\n"
    "    chunkDelayMs      integer: milliseconds between pieces (default 20)\n"
    "    silent            boolean: read the request, do nothing and never answer; the\n"
    "                      connection stays open until the client closes it\n"
    "    closeWithoutReply boolean: read the request, do nothing and close\n"
    "    delayMs           integer: wait this long before doing the command and answering\n"
    "A malformed file or key is logged once per change and ignored.\n";

}  // namespace

int main(int argc, char** argv) {
  velm::sim::SimdOptions options;
  int status =
      velm::sim::parseSimFlags("velm-simd", kUsage, argc, argv,
                               {{"--root", &options.root}, {"--config", &options.configPath}});
  if (status >= 0) return status;

  velm::sim::SimDaemon server;
  // Handlers first: whoever starts us may stop us as soon as we say we listen.
  velm::sim::installSimStopHandler([](void* s) { static_cast<velm::sim::SimDaemon*>(s)->stop(); },
                                   &server);
  std::string error;
  if (!server.start(options, &error)) {
    std::fprintf(stderr, "velm-simd: %s\n", error.c_str());
    return 1;
  }
  server.run();
  return 0;
}
