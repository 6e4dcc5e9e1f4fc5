#include "config/config_cli.h"

#include "config/config_parser.h"
#include "platform/files.h"
#include "plist/plist.h"

namespace velm {
namespace {

constexpr std::string_view kUsage =
    "usage: velmadmin config parse PATH.cfg\n"
    "       velmadmin config write --from DICT.plist\n";

int usage(std::string& err, std::string_view problem) {
  err += "velmadmin config: ";
  err += problem;
  err += '\n';
  err += kUsage;
  return 1;
}

// The volume name of a .cfg path as the parser's constructors form it: the file name without a
// leading "Volume_" and without its extension.
std::string volumeNameForPath(const std::string& path) {
  std::string name = path;
  while (name.size() > 1 && name.back() == '/') name.pop_back();
  if (size_t slash = name.rfind('/'); slash != std::string::npos) name.erase(0, slash + 1);
  if (name.rfind("Volume_", 0) == 0) name.erase(0, 7);
  if (size_t dot = name.rfind('.'); dot != std::string::npos && dot > 0) name.erase(dot);
  return name;
}

int parseCommand(const std::vector<std::string>& args, std::string& out, std::string& err) {
  if (args.size() != 2) return usage(err, "parse takes one .cfg path");
  const std::string& path = args[1];
  std::optional<std::string> text = readFile(path);
  if (!text) {
    err += "velmadmin config parse: cannot read " + path + "\n";
    return 1;
  }
  // The aux file is looked for in the config directory under the volume's name.
  SANConfigParser parser(volumeNameForPath(path));
  bool ok = parser.parseText(*text);
  out += writeXmlPlist(parser.dictionary());
  return ok ? 0 : 3;
}

int writeCommand(const std::vector<std::string>& args, std::string& out, std::string& err) {
  std::string from;
  if (args.size() == 3 && args[1] == "--from") from = args[2];
  else if (args.size() == 2 && args[1].rfind("--from=", 0) == 0) from = args[1].substr(7);
  else return usage(err, "write takes --from DICT.plist");
  if (from.empty()) return usage(err, "write takes --from DICT.plist");
  PlistReadOptions options;
  options.requireDictionary = true;
  PlistReadResult dict = readXmlPlistFile(from, options);
  if (!dict) {
    err += "velmadmin config write: cannot read " + from + ": " + dict.error + "\n";
    return 1;
  }
  std::unique_ptr<SANConfigParser> parser = SANConfigParser::parserWithDict(*dict.value);
  std::optional<std::string> text = parser->configFileRepresentation();
  if (!text) {
    err += "velmadmin config write: the writer flagged an error (see the log)\n";
    return 3;
  }
  out += *text;
  return 0;
}

}  // namespace

int runConfigCommand(const std::vector<std::string>& args, std::string& out, std::string& err) {
  if (args.empty()) return usage(err, "missing subcommand");
  if (args[0] == "parse") return parseCommand(args, out, err);
  if (args[0] == "write") return writeCommand(args, out, err);
  return usage(err, "unknown subcommand '" + args[0] + "'");
}

}  // namespace velm
