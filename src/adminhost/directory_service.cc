// DSGetNodeInfo on Linux. There is no directory service to ask: the search path is the order in
// which the name service looks up users (the passwd: line of nsswitch.conf), each source named as
// a directory node: local files are /Local/Default, an LDAP or SSSD source /LDAPv3/<server>.
#include <string_view>

#include "adminhost/host_common.h"
#include "platform/files.h"
#include "platform/paths.h"

namespace velm {
namespace {

constexpr std::string_view kSearchPathAttribute = "rosterAttrStandard:SearchPath";
constexpr std::string_view kLocalSearchPathAttribute = "rosterAttrStandard:LSPSearchPath";
constexpr std::string_view kLocalNode = "/Local/Default";
constexpr std::string_view kLdapNodePrefix = "/LDAPv3/";

std::string_view trimmed(std::string_view s) {
  auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; };
  while (!s.empty() && blank(s.front())) s.remove_prefix(1);
  while (!s.empty() && blank(s.back())) s.remove_suffix(1);
  return s;
}

std::string lower(std::string_view s) {
  std::string out(s);
  for (char& c : out)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return out;
}

std::vector<std::string_view> lines(std::string_view text) {
  std::vector<std::string_view> out;
  while (!text.empty()) {
    size_t nl = text.find('\n');
    out.push_back(text.substr(0, nl));
    text.remove_prefix(nl == std::string_view::npos ? text.size() : nl + 1);
  }
  return out;
}

std::vector<std::string_view> words(std::string_view s, std::string_view separators = " \t") {
  std::vector<std::string_view> out;
  while (true) {
    size_t start = s.find_first_not_of(separators);
    if (start == std::string_view::npos) break;
    s.remove_prefix(start);
    size_t end = s.find_first_of(separators);
    out.push_back(s.substr(0, end));
    if (end == std::string_view::npos) break;
    s.remove_prefix(end);
  }
  return out;
}

std::string_view withoutComment(std::string_view line) { return line.substr(0, line.find('#')); }

// "ldaps://dir.example.com:636/" -> "dir.example.com"; "[fd00::1]:389" -> "fd00::1".
std::string serverOfUri(std::string_view uri) {
  if (size_t scheme = uri.find("://"); scheme != std::string_view::npos)
    uri.remove_prefix(scheme + 3);
  uri = uri.substr(0, uri.find('/'));
  if (!uri.empty() && uri.front() == '[') {
    size_t close = uri.find(']');
    return close == std::string_view::npos ? std::string() : std::string(uri.substr(1, close - 1));
  }
  return std::string(uri.substr(0, uri.find(':')));
}

// The first server that an LDAP client configuration names: nslcd's, the old NSS module's, or
// the LDAP library's (keys uri or host, any case; several values per line allowed).
std::optional<std::string> ldapServer() {
  for (const char* file : {"/etc/nslcd.conf", "/etc/ldap.conf", "/etc/ldap/ldap.conf"}) {
    auto text = readFile(hostPath(file));
    if (!text) continue;
    for (std::string_view line : lines(*text)) {
      auto w = words(withoutComment(line));
      if (w.size() < 2) continue;
      std::string key = lower(w[0]);
      if (key != "uri" && key != "host") continue;
      // nslcd may look its servers up in DNS; that names no server here.
      if (w[1] == "DNS" || w[1].rfind("DNS:", 0) == 0) continue;
      std::string server = serverOfUri(w[1]);
      if (!server.empty()) return server;
    }
  }
  return std::nullopt;
}

using IniSection = std::vector<std::pair<std::string, std::string>>;

// sssd.conf: [section] headers and key = value lines.
std::vector<std::pair<std::string, IniSection>> readIni(std::string_view text) {
  std::vector<std::pair<std::string, IniSection>> out;
  for (std::string_view raw : lines(text)) {
    std::string_view line = trimmed(raw);
    if (line.empty() || line.front() == '#' || line.front() == ';') continue;
    if (line.front() == '[') {
      size_t close = line.find(']');
      if (close == std::string_view::npos) continue;
      out.emplace_back(std::string(trimmed(line.substr(1, close - 1))), IniSection{});
      continue;
    }
    size_t eq = line.find('=');
    if (eq == std::string_view::npos || out.empty()) continue;
    out.back().second.emplace_back(lower(trimmed(line.substr(0, eq))),
                                   std::string(trimmed(line.substr(eq + 1))));
  }
  return out;
}

const std::string* iniValue(const IniSection& section, std::string_view key) {
  for (const auto& [k, v] : section)
    if (k == key) return &v;
  return nullptr;
}

// One node per SSSD domain, in the order of the domains = list (else of the file).
std::vector<std::string> sssdNodes() {
  std::vector<std::string> out;
  auto text = readFile(hostPath("/etc/sssd/sssd.conf"));
  if (!text) return out;
  auto ini = readIni(*text);
  std::vector<std::string> domains;
  for (const auto& [name, section] : ini) {
    if (name != "sssd") continue;
    if (const std::string* list = iniValue(section, "domains"))
      for (auto d : words(*list, ", \t")) domains.emplace_back(d);
  }
  if (domains.empty()) {
    for (const auto& [name, section] : ini)
      if (name.rfind("domain/", 0) == 0) domains.push_back(name.substr(7));
  }
  for (const auto& domain : domains) {
    const IniSection* section = nullptr;
    for (const auto& [name, s] : ini)
      if (name == "domain/" + domain) section = &s;
    if (!section) continue;
    const std::string* provider = iniValue(*section, "id_provider");
    if (provider && (*provider == "files" || *provider == "proxy" || *provider == "local")) {
      out.emplace_back(kLocalNode);
      continue;
    }
    std::string server;
    if (const std::string* uris = iniValue(*section, "ldap_uri")) {
      auto w = words(*uris, ", \t");
      if (!w.empty()) server = serverOfUri(w[0]);
    }
    for (std::string_view key : {"ad_server", "ipa_server"}) {
      if (!server.empty()) break;
      if (const std::string* list = iniValue(*section, key))
        for (auto s : words(*list, ", \t"))
          if (s != "_srv_") {
            server = std::string(s);
            break;
          }
    }
    for (std::string_view key : {"ad_domain", "ipa_domain"}) {
      if (!server.empty()) break;
      if (const std::string* d = iniValue(*section, key)) server = *d;
    }
    if (!server.empty()) out.push_back(std::string(kLdapNodePrefix) + server);
  }
  return out;
}

std::vector<std::string> passwdSources() {
  auto text = readFile(hostPath("/etc/nsswitch.conf"));
  if (text) {
    for (std::string_view line : lines(*text)) {
      std::string_view content = trimmed(withoutComment(line));
      if (content.rfind("passwd:", 0) != 0) continue;
      std::vector<std::string> sources;
      for (auto w : words(content.substr(7)))
        if (w.front() != '[') sources.emplace_back(w);
      return sources;
    }
  }
  return {"files"};  // what the C library does without a passwd: line
}

std::vector<std::string> searchPath() {
  std::vector<std::string> nodes;
  auto add = [&nodes](std::string node) {
    for (const auto& n : nodes)
      if (n == node) return;
    nodes.push_back(std::move(node));
  };
  for (const auto& source : passwdSources()) {
    if (source == "files" || source == "compat") {
      add(std::string(kLocalNode));
    } else if (source == "ldap") {
      // A source whose server we can't name is left out rather than shown as a blank node.
      if (auto server = ldapServer()) add(std::string(kLdapNodePrefix) + *server);
    } else if (source == "sss") {
      for (auto& node : sssdNodes()) add(std::move(node));
    }
  }
  return nodes;
}

PropertyList stringArray(const std::vector<std::string>& values) {
  PropertyList out = PropertyList::array();
  for (const auto& v : values) out.push(v);
  return out;
}

}  // namespace

PropertyList DSGetNodeInfo(int node, const std::vector<std::string>& attributes) {
  PropertyList out = PropertyList::dict();
  if (node != 0) return out;  // only the search node exists here
  for (const auto& attribute : attributes) {
    if (attribute == kSearchPathAttribute) {
      out.set(attribute, stringArray(searchPath()));
    } else if (attribute == kLocalSearchPathAttribute) {
      out.set(attribute, stringArray({std::string(kLocalNode)}));
    }
  }
  return out;
}

}  // namespace velm
