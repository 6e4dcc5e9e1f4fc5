// drlabel stand-in: prints the sandbox's LUN table as the real tool's -x prints the disk labels.
#include <cstdio>
#include <string>
#include <vector>

#include "plist/plist.h"
#include "sim/tools/tool_common.h"

namespace {

constexpr char kLunTable[] = "/sim/luns.plist";

const char kUsage[] =
    "usage: drlabel -x\n"
    "  -x   print the LUN table (<root>/sim/luns.plist: device name -> LUN record) as an XML\n"
    "       plist\n";

struct Options {
  bool xml = false;
};

// false for anything but a known option; one branch per option, so more are easy to add.
bool parseArguments(const std::vector<std::string>& args, Options* options) {
  for (const std::string& a : args) {
    if (a == "-x")
      options->xml = true;
    else
      return false;
  }
  return options->xml;
}

}  // namespace

int main(int argc, char** argv) {
  velm::sim::SimTool tool("drlabel", argc, argv);
  if (std::optional<int> scripted = tool.begin()) return *scripted;

  Options options;
  if (!parseArguments(tool.args(), &options)) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  std::optional<velm::PropertyList> table =
      velm::sim::readToolDictionary(tool, tool.path(kLunTable));
  if (!table) return 1;
  std::fputs(velm::writeXmlPlist(*table).c_str(), stdout);
  return 0;
}
