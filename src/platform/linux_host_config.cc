#include <avahi-client/client.h>
#include <avahi-common/error.h>
#include <avahi-common/simple-watch.h>
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>

#include "platform/entry_name.h"
#include "platform/files.h"
#include "platform/host_config.h"
#include "platform/os_version.h"
#include "platform/paths.h"

// Names from the files hostnamed keeps, the local host name from the Avahi daemon, and ports and
// media from /sys/class/net.
namespace velm {
namespace {

std::string_view trimmed(std::string_view s) {
  auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; };
  while (!s.empty() && blank(s.front())) s.remove_prefix(1);
  while (!s.empty() && blank(s.back())) s.remove_suffix(1);
  return s;
}

std::optional<std::string> prettyHostname() {
  auto text = readFile(hostPath("/etc/machine-info"));
  if (!text) return std::nullopt;
  std::optional<std::string> name;
  for (auto& [key, value] : parseShellAssignments(*text))
    if (key == "PRETTY_HOSTNAME") name = value;
  if (name && trimmed(*name).empty()) return std::nullopt;
  return name;
}

// hostname(5): one name; lines starting with '#' are comments.
std::optional<std::string> staticHostname() {
  auto text = readFile(hostPath("/etc/hostname"));
  if (!text) return std::nullopt;
  std::string_view rest = *text;
  while (!rest.empty()) {
    size_t nl = rest.find('\n');
    std::string_view line = trimmed(rest.substr(0, nl));
    rest.remove_prefix(nl == std::string_view::npos ? rest.size() : nl + 1);
    if (!line.empty() && line.front() != '#') return std::string(line);
  }
  return std::nullopt;
}

bool present(const std::string& path) {
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0;
}

class LinuxHostConfig : public HostConfig {
 public:
  std::optional<std::string> computerName() override {
    if (auto name = prettyHostname()) return name;
    if (auto name = staticHostname()) return name;
    char buf[256] = {};
    if (::gethostname(buf, sizeof buf - 1) != 0) return std::nullopt;
    return std::string(buf);
  }

  // With no daemon (or no system bus) the client fails at once. With one, the client learns the
  // name during creation, so nothing has to be waited for.
  std::optional<std::string> localHostName() override {
    AvahiSimplePoll* poll = ::avahi_simple_poll_new();
    if (!poll) return std::nullopt;
    int error = 0;
    AvahiClient* client = ::avahi_client_new(::avahi_simple_poll_get(poll), AvahiClientFlags(0),
                                             nullptr, nullptr, &error);
    std::optional<std::string> name;
    if (client) {
      if (const char* fqdn = ::avahi_client_get_host_name_fqdn(client); fqdn && *fqdn) name = fqdn;
      ::avahi_client_free(client);
    }
    ::avahi_simple_poll_free(poll);
    return name;
  }

  std::optional<std::vector<NetworkPort>> networkPorts() override {
    std::string base = sysfsPath("class/net");
    DIR* dir = ::opendir(base.c_str());
    if (!dir) return std::nullopt;
    std::vector<NetworkPort> ports;
    while (struct dirent* e = ::readdir(dir)) {
      std::string name = e->d_name;
      if (name == "." || name == "..") continue;
      std::string dev = base + "/" + name;
      auto type = readFile(dev + "/type");
      bool ethernet = type && trimmed(*type) == "1" && present(dev + "/device") &&
                      !present(dev + "/wireless") && !present(dev + "/bridge") &&
                      !present(dev + "/bonding");
      ports.push_back(NetworkPort{name, ethernet});
    }
    ::closedir(dir);
    std::sort(ports.begin(), ports.end(), [](const NetworkPort& a, const NetworkPort& b) {
      return a.deviceName < b.deviceName;
    });
    return ports;
  }

  // The carrier file stands for the media request: unreadable (interface down) means the request
  // failed; otherwise one medium, valid, and active when there is a carrier.
  MediaStatus mediaStatus(const std::string& deviceName) override {
    MediaStatus media;
    if (!isSafeEntryName(deviceName)) return media;
    auto carrier = readFile(sysfsPath("class/net/" + deviceName + "/carrier"));
    if (!carrier) return media;
    std::string_view v = trimmed(*carrier);
    if (v == "0")
      media = {true, 1, 1};
    else if (v == "1")
      media = {true, 1, 3};
    return media;
  }

  // Network services can't be switched off apart from their port here, so none is.
  std::optional<std::vector<std::string>> devicesOfDisabledServices() override {
    return std::vector<std::string>{};
  }
};

LinuxHostConfig gLinuxHostConfig;
std::atomic<HostConfig*> gTestHostConfig{nullptr};

}  // namespace

HostConfig& hostConfig() {
  HostConfig* c = gTestHostConfig.load();
  return c ? *c : gLinuxHostConfig;
}

void setHostConfigForTest(HostConfig* config) { gTestHostConfig.store(config); }

}  // namespace velm
