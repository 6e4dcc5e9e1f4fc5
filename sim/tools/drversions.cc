// drversions stand-in: the version text of the file system, from the sandbox's version.plist.
#include <sys/utsname.h>

#include <cstdio>
#include <string>

#include "plist/plist.h"
#include "sim/tools/tool_common.h"

namespace {

constexpr char kVersionFile[] = "/Library/Filesystems/Velm/version.plist";
constexpr char kDefaultVersion[] = "2.2.0";
constexpr char kDefaultBuild[] = "1";

std::string textOf(const velm::PropertyList* value, const char* fallback) {
  if (value && value->isString() && !value->asString()->empty()) return *value->asString();
  if (value && value->isInteger()) return velm::describe(*value);
  return fallback;
}

}  // namespace

int main(int argc, char** argv) {
  velm::sim::SimTool tool("drversions", argc, argv);
  if (std::optional<int> scripted = tool.begin()) return *scripted;
  if (!tool.args().empty()) {
    std::fputs("usage: drversions\n", stderr);
    return 2;
  }

  velm::PropertyList info =
      velm::readDictionaryFile(tool.path(kVersionFile)).value_or(velm::PropertyList::dict());
  std::string version = textOf(info.get("ProductVersion"), kDefaultVersion);
  std::string build = textOf(info.get("ProductBuildVersion"), kDefaultBuild);
  struct utsname u {};
  std::string machine = ::uname(&u) == 0 ? u.machine : "x86_64";
  // Deliberate: readers take the text between "Server Revision" and "Built" as the version.
  std::string revision = "Revision " + version + " Build " + build + " Branch main\n";
  std::string built = "Built for Linux " + machine + "\n";
  std::string text = "Velm File System\nServer " + revision + built + "Client " + revision + built;
  std::fputs(text.c_str(), stdout);
  return 0;
}
