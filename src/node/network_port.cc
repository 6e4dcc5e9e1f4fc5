#include "node/network_port.h"

#include <arpa/inet.h>
#include <strings.h>

#include <atomic>
#include <filesystem>
#include <sstream>
#include <vector>

#include "adminhost/host_common.h"
#include "platform/files.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "platform/string_additions.h"

namespace velm {
namespace {

bool isIPv4(const std::string& text) {
  struct in_addr a {};
  return ::inet_pton(AF_INET, text.c_str(), &a) == 1;
}

// nmcli -t escapes ':' and '\' in values with a backslash.
std::vector<std::string> terseFields(const std::string& line) {
  std::vector<std::string> fields(1);
  for (std::size_t i = 0; i < line.size(); ++i) {
    if (line[i] == '\\' && i + 1 < line.size()) {
      fields.back() += line[++i];
    } else if (line[i] == ':') {
      fields.emplace_back();
    } else {
      fields.back() += line[i];
    }
  }
  return fields;
}

struct Connection {
  std::string uuid, name;
};

// The connection active on the device, else the first profile naming it.
std::optional<Connection> connectionFor(const std::string& device) {
  LaunchResult r = launch_task(hostPath(kNmcli), {"-t", "-f", "UUID,DEVICE,NAME,ACTIVE",
                                                  "connection", "show"});
  if (r.status != 0) return std::nullopt;
  std::vector<Connection> profiles;
  std::istringstream lines(r.output);
  for (std::string line; std::getline(lines, line);) {
    std::vector<std::string> f = terseFields(line);
    if (f.size() < 4 || f[0].empty()) continue;
    if (f[3] == "yes" && ::strcasecmp(f[1].c_str(), device.c_str()) == 0)
      return Connection{f[0], f[2]};
    profiles.push_back(Connection{f[0], f[2]});
  }
  // An inactive profile shows no device: the one it is bound to is its interface name.
  for (const Connection& c : profiles) {
    LaunchResult bound = launch_task(
        hostPath(kNmcli), {"-g", "connection.interface-name", "connection", "show", c.uuid});
    std::string name(trimmedBlanks(bound.output));
    if (bound.status == 0 && ::strcasecmp(name.c_str(), device.c_str()) == 0) return c;
  }
  return std::nullopt;
}

bool networkManagerRuns() {
  LaunchResult r = launch_task(hostPath(kNmcli), {"-t", "-f", "RUNNING", "general"});
  return r.status == 0 && trimmedBlanks(r.output) == "running";
}

// Our own .network file: the managed keys replaced, every other line kept.
std::string networkFile(const std::string& existing, const std::string& device,
                        const std::string& address, int prefix, const std::string& router) {
  std::vector<std::string> kept;
  std::istringstream in(existing);
  std::string section;
  std::string oldGateway;
  for (std::string line; std::getline(in, line);) {
    std::string t(trimmedBlanks(line));
    if (!t.empty() && t.front() == '[') {
      section = t;
      continue;
    }
    if (section == "[Match]" && t.rfind("Name=", 0) == 0) continue;
    if (section == "[Network]" && (t.rfind("Address=", 0) == 0 || t.rfind("DHCP=", 0) == 0))
      continue;
    if (section == "[Network]" && t.rfind("Gateway=", 0) == 0) {
      oldGateway = t.substr(8);
      continue;
    }
    if (!t.empty()) kept.push_back(section + "\n" + line);
  }
  std::string gateway = router.empty() ? oldGateway : router;
  std::string out = "[Match]\nName=" + device + "\n";
  for (const std::string& k : kept)
    if (k.rfind("[Match]\n", 0) == 0) out += k.substr(8) + "\n";
  out += "\n[Network]\nDHCP=no\nAddress=" + address + "/" + std::to_string(prefix) + "\n";
  if (!gateway.empty()) out += "Gateway=" + gateway + "\n";
  for (const std::string& k : kept)
    if (k.rfind("[Network]\n", 0) == 0) out += k.substr(10) + "\n";
  std::string otherSection;
  for (const std::string& k : kept) {
    std::size_t nl = k.find('\n');
    std::string s = k.substr(0, nl);
    if (s == "[Match]" || s == "[Network]") continue;
    if (s != otherSection) {
      out.append("\n").append(s.empty() ? std::string("[Network]") : s).append("\n");
      otherSection = s;
    }
    out += k.substr(nl + 1) + "\n";
  }
  return out;
}

class LinuxPortConfigurator : public PortConfigurator {
 public:
  int configPortNamed(const std::string& port, const std::string& address,
                      const std::string& subnetMask, const std::string& router,
                      const std::string& family,
                      std::optional<std::string>* userDefinedName) override {
    if (family != "IPv4") {
      NLog("configPortNamed: Address family %@ not supported", family);
      return 1;
    }
    // Only a port the kernel has: its own name, never request text, reaches a path or a tool.
    std::optional<std::string> device = kernelPortName(port);
    if (!device) return 0;
    std::optional<int> prefix = prefixOfMask(subnetMask);
    if (!isIPv4(address) || !prefix || (!router.empty() && !isIPv4(router))) {
      NError("Unable to configure service: '%@'", *device);
      return 1;
    }
    if (networkManagerRuns()) {
      std::optional<Connection> c = connectionFor(*device);
      if (!c) return 0;
      *userDefinedName = c->name;
      std::vector<std::string> args = {"connection", "modify", c->uuid, "ipv4.method", "manual",
                                        "ipv4.addresses", address + "/" + std::to_string(*prefix)};
      if (!router.empty()) args.insert(args.end(), {"ipv4.gateway", router});
      if (launch_task(hostPath(kNmcli), args).status != 0) {
        NError("Unable to configure service: '%@'", c->name);
        return 1;
      }
      if (launch_task(hostPath(kNmcli), {"connection", "up", c->uuid}).status != 0)
        NError("Failed to commit changes");
      return 0;
    }
    std::string aliasFile =
        readSmallFile(sysfsPath("class/net/" + *device + "/ifalias")).value_or("");
    std::string alias(trimmedBlanks(aliasFile));
    *userDefinedName = alias.empty() ? *device : alias;
    std::string file = hostPath("/etc/systemd/network/10-velm-" + *device + ".network");
    std::string text = networkFile(readFile(file).value_or(""), *device, address, *prefix, router);
    if (makeDirectories(hostPath("/etc/systemd/network")) != 0 ||
        writeFileAtomically(file, text) != 0) {
      NError("Unable to configure service: '%@'", *device);
      return 1;
    }
    if (launch_task(hostPath(kNetworkctl), {"reload"}).status != 0 ||
        launch_task(hostPath(kNetworkctl), {"reconfigure", *device}).status != 0)
      NError("Failed to commit changes");
    return 0;
  }
};

std::atomic<PortConfigurator*> gTestConfigurator{nullptr};

}  // namespace

std::optional<std::string> kernelPortName(const std::string& name) {
  if (name.empty()) return std::nullopt;
  std::error_code ec;
  for (std::filesystem::directory_iterator it(sysfsPath("class/net"), ec), end; !ec && it != end;
       it.increment(ec)) {
    std::string entry = it->path().filename().string();
    if (::strcasecmp(entry.c_str(), name.c_str()) == 0 && name.size() == entry.size())
      return entry;
  }
  return std::nullopt;
}

std::optional<int> prefixOfMask(const std::string& mask) {
  struct in_addr a {};
  if (::inet_pton(AF_INET, mask.c_str(), &a) != 1) return std::nullopt;
  std::uint32_t bits = ntohl(a.s_addr);
  int prefix = 0;
  while (prefix < 32 && (bits & (0x80000000u >> prefix))) ++prefix;
  // Contiguous ones only.
  if (prefix < 32 && (bits << prefix) != 0) return std::nullopt;
  return prefix;
}

PortConfigurator& portConfigurator() {
  static LinuxPortConfigurator linux;
  PortConfigurator* c = gTestConfigurator.load();
  return c ? *c : linux;
}

void setPortConfiguratorForTest(PortConfigurator* configurator) {
  gTestConfigurator.store(configurator);
}

}  // namespace velm
