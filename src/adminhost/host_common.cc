#include "adminhost/host_common.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <sys/socket.h>

#include <cstdlib>
#include <optional>

#include "platform/entry_name.h"
#include "platform/files.h"
#include "platform/interfaces.h"
#include "platform/paths.h"
#include "platform/process.h"

namespace velm {
namespace {

LaunchResult toLaunchResult(ProcessResult&& r) {
  LaunchResult out{r.status, std::move(r.output), std::move(r.error)};
  out.spawnError = r.spawnError;
  out.timedOut = r.timedOut;
  return out;
}

std::string_view trimmed(std::string_view s) {
  auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; };
  while (!s.empty() && blank(s.front())) s.remove_prefix(1);
  while (!s.empty() && blank(s.back())) s.remove_suffix(1);
  return s;
}

// VELM_HOST_ADDRESSES: the IPv4 addresses this machine stands for when several instances share
// one host on loopback. Entries that aren't IPv4 addresses are skipped.
std::optional<std::vector<std::string>> standInAddresses() {
  const char* value = std::getenv("VELM_HOST_ADDRESSES");
  if (!value || !*value) return std::nullopt;
  std::vector<std::string> out;
  std::string_view rest = value;
  while (true) {
    size_t comma = rest.find(',');
    std::string item(trimmed(rest.substr(0, comma)));
    struct in_addr a {};
    if (!item.empty() && ::inet_pton(AF_INET, item.c_str(), &a) == 1) out.push_back(item);
    if (comma == std::string_view::npos) break;
    rest.remove_prefix(comma + 1);
  }
  return out;
}

// Stand-in addresses are loopback ones, all in 127/8; any other is taken as one of a /24.
std::string standInMask(const std::string& address) {
  return address.rfind("127.", 0) == 0 ? "255.0.0.0" : "255.255.255.0";
}

std::string userDefinedName(const std::string& interface) {
  if (!isSafeEntryName(interface)) return {};
  auto alias = readFile(sysfsPath("class/net/" + interface + "/ifalias"));
  return alias ? std::string(trimmed(*alias)) : std::string();
}

bool isLoopbackOrDummy(const NetworkInterface& i) {
  return (i.flags & IFF_LOOPBACK) || i.name.rfind("lo", 0) == 0 || i.name.rfind("dummy", 0) == 0;
}

PropertyList addressEntry(std::string_view family, const std::string& address,
                          const std::string& name, const std::string& mask,
                          const std::string& alias) {
  PropertyList e = PropertyList::dict();
  e.set("family", family);
  e.set("ipAddress", address);
  e.set("name", name);
  e.set("subnetMask", mask);
  e.set("userDefinedName", alias);
  return e;
}

}  // namespace

LaunchResult launch_task(const std::string& path, const std::vector<std::string>& args,
                         const std::map<std::string, std::string>& env,
                         std::uint64_t deadlineMicros) {
  return toLaunchResult(runProcess(path, args, {}, env, ProcessLimits{deadlineMicros}));
}

LaunchResult launch_task_with_input(const std::string& path, const std::vector<std::string>& args,
                                    std::string_view input,
                                    const std::map<std::string, std::string>& env,
                                    std::uint64_t deadlineMicros) {
  return toLaunchResult(runProcess(path, args, input, env, ProcessLimits{deadlineMicros}));
}

LaunchResult launch_task_with_input_and_environment(const std::string& path,
                                                    const std::vector<std::string>& args,
                                                    std::string_view input,
                                                    const std::map<std::string, std::string>& env,
                                                    std::uint64_t deadlineMicros) {
  return launch_task_with_input(path, args, input, env, deadlineMicros);
}

PropertyList get_interfaces_info() {
  PropertyList out = PropertyList::array();
  auto standIns = standInAddresses();
  if (standIns) {
    for (const auto& a : *standIns)
      out.push(addressEntry("AF_INET", a, "velm0", standInMask(a), ""));
  }
  auto interfaces = interfaceLister().interfaces();
  if (!interfaces) return out;
  for (const auto& i : *interfaces) {
    if (isLoopbackOrDummy(i)) continue;
    std::string alias = userDefinedName(i.name);
    for (const auto& a : i.addresses) {
      if (a.family != AF_INET && a.family != AF_INET6) continue;
      // With stand-ins, the real IPv4 addresses are not this instance's.
      if (standIns && a.family == AF_INET) continue;
      PropertyList e = addressEntry(a.family == AF_INET ? "AF_INET" : "AF_INET6", a.address, i.name,
                                    a.netmask, alias);
      if (!i.macAddress.empty()) e.set("macAddress", i.macAddress);
      e.set("flags", static_cast<long long>(i.flags));
      out.push(std::move(e));
    }
  }
  return out;
}

namespace {

// The stand-ins when set; else the interface addresses (only IPv4 ones when onlyIPv4), and with
// loopback the loopback addresses too.
PropertyList ownAddresses(bool onlyIPv4, bool loopback) {
  PropertyList out = PropertyList::array();
  if (auto standIns = standInAddresses()) {
    for (const auto& a : *standIns) out.push(a);
    return out;
  }
  PropertyList info = get_interfaces_info();
  for (const auto& e : *info.asArray()) {
    const std::string* family = e.getString("family");
    const std::string* address = e.getString("ipAddress");
    if (address && (!onlyIPv4 || (family && *family == "AF_INET"))) out.push(*address);
  }
  if (loopback) {
    out.push("127.0.0.1");
    out.push("::1");
  }
  return out;
}

}  // namespace

PropertyList get_host_ips() { return ownAddresses(true, false); }

PropertyList current_host_addresses() { return ownAddresses(false, true); }

}  // namespace velm
