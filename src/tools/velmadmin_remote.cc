#include "tools/velmadmin_remote.h"

#include <httplib.h>
#include <signal.h>

#include <charconv>
#include <cstdlib>

#include "platform/files.h"

namespace velm {
namespace {

constexpr int kDefaultPort = 3110;
constexpr time_t kConnectSeconds = 10;
// Some commands hold the plugin for minutes (failover waits, volume checks).
constexpr time_t kAnswerSeconds = 3600;

struct ServerUrl {
  bool tls = false;
  std::string host;  // IPv6 without brackets
  int port = kDefaultPort;
  std::string basePath;  // without a trailing slash
};

std::optional<ServerUrl> parseUrl(std::string_view url, std::string* error) {
  ServerUrl out;
  if (size_t sep = url.find("://"); sep != std::string_view::npos) {
    std::string_view scheme = url.substr(0, sep);
    if (scheme == "https") {
      out.tls = true;
    } else if (scheme != "http") {
      *error = "unsupported URL scheme '" + std::string(scheme) + "' (http or https)";
      return std::nullopt;
    }
    url.remove_prefix(sep + 3);
  }
  std::string_view authority = url.substr(0, url.find('/'));
  std::string_view path = url.substr(authority.size());
  std::string_view port;
  if (!authority.empty() && authority.front() == '[') {
    size_t close = authority.find(']');
    if (close == std::string_view::npos) {
      *error = "bad IPv6 address in the server URL";
      return std::nullopt;
    }
    out.host = std::string(authority.substr(1, close - 1));
    std::string_view rest = authority.substr(close + 1);
    if (!rest.empty()) {
      if (rest.front() != ':') {
        *error = "bad server URL";
        return std::nullopt;
      }
      port = rest.substr(1);
    }
  } else {
    size_t colon = authority.find(':');
    out.host = std::string(authority.substr(0, colon));
    if (colon != std::string_view::npos) port = authority.substr(colon + 1);
  }
  if (out.host.empty()) {
    *error = "no host in the server URL";
    return std::nullopt;
  }
  if (!port.empty()) {
    unsigned value = 0;
    auto [end, ec] = std::from_chars(port.data(), port.data() + port.size(), value);
    if (ec != std::errc() || end != port.data() + port.size() || value == 0 || value > 65535) {
      *error = "bad port in the server URL";
      return std::nullopt;
    }
    out.port = static_cast<int>(value);
  }
  while (!path.empty() && path.back() == '/') path.remove_suffix(1);
  out.basePath = std::string(path);
  return out;
}

std::string_view trimmed(std::string_view s) {
  auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; };
  while (!s.empty() && blank(s.front())) s.remove_prefix(1);
  while (!s.empty() && blank(s.back())) s.remove_suffix(1);
  return s;
}

std::string refusal(int status) {
  switch (status) {
    case 401: return "the server refused the token";
    case 404: return "the server has no velm plugin";
    case 413: return "the request is too large for the server";
    case 415: return "the server could not read the request";
    case 500: return "the plugin failed on the server";
    default: return "unexpected answer from the server";
  }
}

}  // namespace

RemoteResult sendRemoteRequest(const std::string& url, const std::string& tokenFile,
                               const PropertyList& request) {
  RemoteResult result;
  // A server that closes mid-request must give an error here, not end the process.
  ::signal(SIGPIPE, SIG_IGN);

  std::optional<ServerUrl> server = parseUrl(url, &result.error);
  if (!server) return result;
  std::optional<std::string> tokenText = readFile(tokenFile);
  if (!tokenText) {
    result.error = "cannot read the token file " + tokenFile;
    return result;
  }
  std::string token(trimmed(*tokenText));
  if (token.empty()) {
    result.error = "the token file " + tokenFile + " is empty";
    return result;
  }

  std::string host = server->host.find(':') != std::string::npos ? "[" + server->host + "]" : server->host;
  httplib::Client client(std::string(server->tls ? "https://" : "http://") + host + ":" +
                         std::to_string(server->port));
  if (!client.is_valid()) {
    result.error = "cannot use the server URL " + url;
    return result;
  }
  // Without TCP_NODELAY the request waits on Nagle for the server's delayed ACK.
  client.set_tcp_nodelay(true);
  client.set_connection_timeout(kConnectSeconds, 0);
  client.set_read_timeout(kAnswerSeconds, 0);
  client.set_write_timeout(kConnectSeconds, 0);
  if (server->tls) {
    client.enable_server_certificate_verification(true);
    // A server with its own certificate: trust that file (or CA bundle) instead of the system's.
    if (const char* ca = std::getenv("VELM_CA_CERT"); ca && *ca) client.set_ca_cert_path(ca);
  }
  httplib::Headers headers = {{"Authorization", "Bearer " + token}};
  httplib::Result answer =
      client.Post(server->basePath + "/commands/velm", headers, writeXmlPlist(request), "application/x-plist");
  if (!answer) {
    result.error = "no answer from " + url + ": " + httplib::to_string(answer.error());
    return result;
  }
  result.httpStatus = answer->status;
  if (answer->status == 400) return result;
  if (answer->status != 200) {
    result.error = refusal(answer->status);
    return result;
  }
  PlistReadOptions options;
  options.requireDictionary = true;
  PlistReadResult parsed = readXmlPlist(answer->body, options);
  if (!parsed) {
    result.error = "malformed answer from the server: " + parsed.error;
    return result;
  }
  result.response = std::move(parsed.value);
  return result;
}

}  // namespace velm
