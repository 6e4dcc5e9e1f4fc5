#include "tools/velmadmin_config.h"

#include <cstdio>
#include <string>
#include <vector>

#include "config/config_cli.h"

int velmadminConfigMain(int argc, char** argv) {
  std::vector<std::string> args;
  for (int i = 1; i < argc; ++i) args.emplace_back(argv[i] ? argv[i] : "");
  std::string out, err;
  int status = velm::runConfigCommand(args, out, err);
  std::fwrite(out.data(), 1, out.size(), stdout);
  std::fflush(stdout);
  std::fwrite(err.data(), 1, err.size(), stderr);
  return status;
}
