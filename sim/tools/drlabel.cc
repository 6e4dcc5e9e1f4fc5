// drlabel stand-in: the sandbox's LUN table (<root>/sim/luns.plist, device name -> LUN record)
// is its SAN. -x prints the table as the real tool prints the disk labels; -f carries out an order
// file, labelling LUNs or (with -z) taking labels away, and writes the table back.
#include <cstdio>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "platform/files.h"
#include "plist/plist.h"
#include "sim/tools/tool_common.h"

namespace {

using velm::PropertyList;

constexpr char kLunTable[] = "/sim/luns.plist";
constexpr char kLabelType[] = "QMFS-EFI";
constexpr int kUsageStatus = 2;
constexpr int kOrderFailed = 1;

const char kUsage[] =
    "usage: drlabel -x\n"
    "       drlabel -f [-z] FILE\n"
    "  -x   print the LUN table (<root>/sim/luns.plist: device name -> LUN record) as an XML\n"
    "       plist\n"
    "  -f   label the LUNs FILE names, one \"LABEL DEVICE - EFI\" line each\n"
    "  -z   with -f: take away the labels FILE names, one \"LABEL\" line each\n"
    "Every order that can be carried out is; the exit status is 1 when one could not.\n";

struct Options {
  bool xml = false;
  bool unlabel = false;
  std::string orders;
};

bool parseArguments(const std::vector<std::string>& args, Options* options) {
  bool file = false;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (a == "-x") {
      options->xml = true;
    } else if (a == "-z") {
      options->unlabel = true;
    } else if (a == "-f" && i + 1 < args.size()) {
      // "-f -z FILE" and "-z -f FILE" both read.
      if (args[i + 1] == "-z") {
        options->unlabel = true;
        ++i;
      }
      if (i + 1 >= args.size()) return false;
      options->orders = args[++i];
      file = true;
    } else {
      return false;
    }
  }
  return options->xml != file && (file || !options->unlabel);
}

std::vector<std::vector<std::string>> orderLines(const std::string& text) {
  std::vector<std::vector<std::string>> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    std::istringstream words(line);
    std::vector<std::string> w;
    for (std::string word; words >> word;) w.push_back(word);
    if (!w.empty()) lines.push_back(std::move(w));
  }
  return lines;
}

const std::string* labelOf(const PropertyList& record) {
  return record.isDict() ? record.getString("Label") : nullptr;
}

// Carries out the orders on the table; false when one could not be.
bool carryOut(const velm::sim::SimTool& tool, const Options& options, PropertyList& table) {
  std::optional<std::string> text = velm::readFile(options.orders);
  if (!text) {
    tool.complain("cannot read %s", options.orders.c_str());
    return false;
  }
  velm::PlistDict& luns = *table.asDict();
  bool ok = true;
  for (const std::vector<std::string>& order : orderLines(*text)) {
    const std::string& label = order[0];
    if (options.unlabel) {
      bool found = false;
      for (auto& [device, record] : luns) {
        const std::string* has = labelOf(record);
        if (!has || *has != label) continue;
        record.erase("Label");
        record.erase("LabelType");
        std::printf("%s: label %s removed\n", device.c_str(), label.c_str());
        found = true;
      }
      if (!found) {
        tool.complain("no LUN is labelled %s", label.c_str());
        ok = false;
      }
      continue;
    }
    if (order.size() != 4 || order[2] != "-" || order[3] != "EFI") {
      tool.complain("bad order '%s ...'", label.c_str());
      ok = false;
      continue;
    }
    const std::string& device = order[1];
    PropertyList* record = luns.find(device);
    if (!record || !record->isDict()) {
      tool.complain("no such device %s", device.c_str());
      ok = false;
      continue;
    }
    bool taken = false;
    for (const auto& [other, r] : luns) {
      const std::string* has = labelOf(r);
      taken = taken || (other != device && has && *has == label);
    }
    if (taken) {
      tool.complain("label %s is on another LUN", label.c_str());
      ok = false;
      continue;
    }
    record->set("Label", label);
    record->set("LabelType", kLabelType);
    std::printf("%s: labelled %s\n", device.c_str(), label.c_str());
  }
  return ok;
}

}  // namespace

int main(int argc, char** argv) {
  velm::sim::SimTool tool("drlabel", argc, argv);
  if (std::optional<int> scripted = tool.begin()) return *scripted;

  Options options;
  if (!parseArguments(tool.args(), &options)) {
    std::fputs(kUsage, stderr);
    return kUsageStatus;
  }
  std::optional<PropertyList> table = velm::sim::readToolDictionary(tool, tool.path(kLunTable));
  if (!table) return kOrderFailed;
  if (options.xml) {
    std::fputs(velm::writeXmlPlist(*table).c_str(), stdout);
    return 0;
  }
  bool ok = carryOut(tool, options, *table);
  velm::makeDirectories(tool.path("/sim"));
  if (int err = velm::writeXmlPlistFile(tool.path(kLunTable), *table); err != 0) {
    tool.complain("cannot write %s: %s", kLunTable, std::strerror(err));
    return kOrderFailed;
  }
  return ok ? 0 : kOrderFailed;
}
