// The `velmadmin config` subcommands, kept in the module so that tests drive them directly:
//   parse PATH.cfg           the volume dictionary as an XML plist
//   write --from DICT.plist  the .cfg text that the writer makes
// out and err receive what goes to stdout and stderr; the result is the exit status: 0, 1 for a
// usage or reading error, 3 when the parse fails (the dictionary is still printed) or the writer
// flags an error.
#pragma once

#include <string>
#include <vector>

namespace velm {

int runConfigCommand(const std::vector<std::string>& args, std::string& out, std::string& err);

}  // namespace velm
