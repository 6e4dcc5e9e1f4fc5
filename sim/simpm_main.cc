// velm-simpm: a stand-in port mapper for tests and the demo.
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>

#include "sim/simpm_server.h"

namespace {

velm::sim::SimPortMapper* gServer = nullptr;

void onSignal(int) {
  if (gServer) gServer->stop();
}

const char kUsage[] =
    "usage: velm-simpm --root DIR [--listen 127.0.0.1] [--config FILE]\n"
    "\n"
    "A stand-in port mapper. It answers port-mapper discovery on the altpmap port of\n"
    "DIR/Library/Filesystems/Velm/config/fsports (5164 without one), serves port-mapper requests "
    "on\n"
    "the port that discovery reports, and answers the admin connection of each local active FSM "
    "on\n"
    "its own port. Authentication is required when config/.auth_secret exists in that root.\n"
    "Each request is logged to stderr. SIGTERM or SIGINT stops it.\n"
    "\n"
    "  --root DIR      sandbox root (required)\n"
    "  --listen ADDR   address to listen on (default 127.0.0.1)\n"
    "  --config FILE   XML plist dictionary (default DIR/simpm.plist when present)\n"
    "\n"
    "Configuration keys:\n"
    "  fsms          array of dictionaries: name (string), port (integer, 0 = any free port),\n"
    "                priority (integer), active (boolean, default true), pid (integer),\n"
    "                address (string, default the listen address), capabilities (integer, the\n"
    "                FSM's capability word, default 1)\n"
    "  unknownTypes  array of integers: port-mapper request types to answer as an older peer\n"
    "                (reply status 255, error 1)\n"
    "  pmPort        integer: port of the port-mapper service (default any free port)\n";

}  // namespace

int main(int argc, char** argv) {
  velm::sim::SimPmOptions options;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    auto value = [&](const char* name) -> const char* {
      if (i + 1 >= argc) {
        std::fprintf(stderr, "velm-simpm: %s needs a value\n%s", name, kUsage);
        std::exit(2);
      }
      return argv[++i];
    };
    if (arg == "--help" || arg == "-h") {
      std::fputs(kUsage, stdout);
      return 0;
    } else if (arg == "--root") {
      options.root = value("--root");
    } else if (arg == "--listen") {
      options.listen = value("--listen");
    } else if (arg == "--config") {
      options.configPath = value("--config");
    } else {
      std::fprintf(stderr, "velm-simpm: unknown argument '%s'\n%s", arg.c_str(), kUsage);
      return 2;
    }
  }
  if (options.root.empty()) {
    std::fprintf(stderr, "velm-simpm: --root DIR is required\n%s", kUsage);
    return 2;
  }

  velm::sim::SimPortMapper server;
  // Handlers first: whoever starts us may stop us as soon as we say we listen.
  gServer = &server;
  struct sigaction sa {};
  sa.sa_handler = onSignal;
  sigemptyset(&sa.sa_mask);
  ::sigaction(SIGTERM, &sa, nullptr);
  ::sigaction(SIGINT, &sa, nullptr);
  std::signal(SIGPIPE, SIG_IGN);
  std::string error;
  if (!server.start(options, &error)) {
    std::fprintf(stderr, "velm-simpm: %s\n", error.c_str());
    return 1;
  }
  server.run();
  gServer = nullptr;
  return 0;
}
