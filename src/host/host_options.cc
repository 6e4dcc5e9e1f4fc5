#include "host/host_options.h"

#include <arpa/inet.h>

#include <charconv>
#include <cmath>
#include <cstring>
#include <string_view>

namespace velm {

const char kHostUsage[] =
    "usage: adminhostd [--root DIR] [--listen HOST:PORT] [--plugins DIR]\n"
    "                  [--idle-interval SECONDS] [--context-save-interval SECONDS]\n"
    "                  [--tls-cert FILE --tls-key FILE]\n"
    "                  [--max-body BYTES] [--threads N] [--www DIR] [--metrics-open]\n"
    "\n"
    "Loads every adminhost_<name>.so in the plugins directory (default: ../lib beside this\n"
    "program, then ../lib/adminhost) and serves POST /commands/<name> with an XML plist request\n"
    "dictionary: 200 and the XML plist response, 400 and an empty body when the plugin gives no\n"
    "response, 401 without 'Authorization: Bearer <token>' (token in\n"
    "$VELM_ROOT/var/adminhostd/admin.token, made at first start), 404 for an unknown plugin,\n"
    "413 for a body over --max-body (default 16 MiB), 415 for a body that is not a plist "
    "dictionary.\n"
    "A request body may also be JSON (Content-Type: application/json), and the answer is JSON\n"
    "when Accept asks for application/json. GET / serves the dashboard, GET /metrics the\n"
    "Prometheus metrics (with the bearer token).\n"
    "\n"
    "  --root DIR              sandbox root: sets VELM_ROOT for this process and its plugins\n"
    "  --listen HOST:PORT      default 127.0.0.1:3110; port 0 takes a free port. Repeat it to listen\n"
    "                          on several addresses. An address other than loopback needs\n"
    "                          --tls-cert and --tls-key (HTTPS); beside one, loopback stays HTTP\n"
    "  --plugins DIR           where the plugins are\n"
    "  --idle-interval SECS    doIdle with count 0, 1, 2, ... every SECS (default 60, fractions\n"
    "                          allowed); the first right after start. 0: no idle ticks\n"
    "  --context-save-interval SECS  changes made by idle ticks alone (history rows) are saved\n"
    "                          at most this often (default 300); a command's change at once\n"
    "  --tls-cert F --tls-key F  serve HTTPS with this PEM certificate (chain) and key\n"
    "  --max-body BYTES        the largest request body (default 16777216)\n"
    "  --threads N             request threads (default 16); each keep-alive connection holds one\n"
    "  --www DIR               the dashboard's files (default: ../share/adminhostd/www beside\n"
    "                          this program, then the installed share/adminhostd/www)\n"
    "  --metrics-open          /metrics without the token, on loopback addresses only\n"
    "\n"
    "Prints 'adminhostd: listening on URL' on stdout once it accepts requests. Plugin contexts "
    "are\n"
    "kept in $VELM_ROOT/var/adminhostd/context/<name>.plist. SIGTERM, SIGINT or SIGHUP: finish\n"
    "running requests, save every context, exit 0. Requests are logged when\n"
    "$VELM_ROOT/var/adminhostd/enable_velm_logging exists (syslog, or VELM_LOG=stderr|FILE).\n";

namespace {

constexpr int kUsageStatus = 2;
constexpr double kMaxIdleSeconds = 366.0 * 24 * 3600;

template <typename T>
bool parseUnsigned(std::string_view text, T* out) {
  if (text.empty()) return false;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), *out);
  return ec == std::errc() && end == text.data() + text.size();
}

bool parseListen(std::string_view text, std::string* host, int* port) {
  std::string_view h, p;
  if (!text.empty() && text.front() == '[') {
    size_t close = text.find("]:");
    if (close == std::string_view::npos) return false;
    h = text.substr(1, close - 1);
    p = text.substr(close + 2);
  } else {
    size_t colon = text.rfind(':');
    if (colon == std::string_view::npos) return false;
    h = text.substr(0, colon);
    p = text.substr(colon + 1);
    if (h.find(':') != std::string_view::npos) return false;  // bare IPv6 needs brackets
  }
  unsigned value = 0;
  if (h.empty() || !parseUnsigned(p, &value) || value > 65535) return false;
  *host = std::string(h);
  *port = static_cast<int>(value);
  return true;
}

bool parseSeconds(std::string_view text, std::uint64_t* micros) {
  double seconds = 0;
  if (text.empty()) return false;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), seconds);
  if (ec != std::errc() || end != text.data() + text.size()) return false;
  if (!std::isfinite(seconds) || seconds < 0 || seconds > kMaxIdleSeconds) return false;
  *micros = static_cast<std::uint64_t>(std::llround(seconds * 1e6));
  // A positive interval never rounds to "no ticks".
  if (seconds > 0 && *micros == 0) *micros = 1;
  return true;
}

HostOptionsResult usage(std::string error) {
  HostOptionsResult r;
  r.status = kUsageStatus;
  r.error = std::move(error);
  return r;
}

}  // namespace

bool isLoopbackHost(const std::string& host) {
  if (host == "localhost") return true;
  in_addr v4{};
  if (::inet_pton(AF_INET, host.c_str(), &v4) == 1) return (ntohl(v4.s_addr) >> 24) == 127;
  in6_addr v6{};
  if (::inet_pton(AF_INET6, host.c_str(), &v6) == 1) {
    static const unsigned char kLoopback[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    static const unsigned char kMapped[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
    if (std::memcmp(v6.s6_addr, kLoopback, 16) == 0) return true;
    return std::memcmp(v6.s6_addr, kMapped, 12) == 0 && v6.s6_addr[12] == 127;
  }
  return false;
}

HostOptionsResult parseHostOptions(const std::vector<std::string>& args) {
  HostOptionsResult r;
  HostOptions& o = r.options;
  for (size_t i = 0; i < args.size(); ++i) {
    std::string name = args[i], value;
    bool inlineValue = false;
    if (size_t eq = name.find('='); name.rfind("--", 0) == 0 && eq != std::string::npos) {
      value = name.substr(eq + 1);
      name.resize(eq);
      inlineValue = true;
    }
    if (name == "-h" || name == "--help") {
      o.help = true;
      continue;
    }
    if (name == "--metrics-open" && !inlineValue) {
      o.metricsOpen = true;
      continue;
    }
    static const char* const kWithValue[] = {
        "--root",     "--listen",  "--plugins",  "--idle-interval", "--context-save-interval",
        "--tls-cert", "--tls-key", "--max-body", "--threads",        "--www"};
    bool known = false;
    for (const char* k : kWithValue) known = known || name == k;
    if (!known) return usage("unknown option " + args[i]);
    if (!inlineValue) {
      if (i + 1 >= args.size()) return usage(name + " needs a value");
      value = args[++i];
    }
    if (name == "--root") {
      if (value.empty()) return usage("--root needs a directory");
      o.root = value;
    } else if (name == "--listen") {
      HostOptions::Listen l;
      if (!parseListen(value, &l.host, &l.port))
        return usage("--listen wants HOST:PORT or [IPV6]:PORT, not " + value);
      if (o.listens.empty()) {
        o.listenHost = l.host;
        o.listenPort = l.port;
      }
      o.listens.push_back(l);
    } else if (name == "--plugins") {
      if (value.empty()) return usage("--plugins needs a directory");
      o.pluginsDir = value;
    } else if (name == "--idle-interval") {
      if (!parseSeconds(value, &o.idleIntervalMicros))
        return usage("--idle-interval wants a number of seconds, not " + value);
    } else if (name == "--context-save-interval") {
      if (!parseSeconds(value, &o.contextSaveIntervalMicros))
        return usage("--context-save-interval wants a number of seconds, not " + value);
    } else if (name == "--tls-cert") {
      o.tlsCert = value;
    } else if (name == "--tls-key") {
      o.tlsKey = value;
    } else if (name == "--max-body") {
      if (!parseUnsigned(value, &o.maxBodyBytes) || o.maxBodyBytes == 0)
        return usage("--max-body wants a positive number of bytes, not " + value);
    } else if (name == "--www") {
      if (value.empty()) return usage("--www needs a directory");
      o.wwwDir = value;
    } else if (name == "--threads") {
      if (!parseUnsigned(value, &o.threads) || o.threads == 0 || o.threads > 1024)
        return usage("--threads wants 1 to 1024, not " + value);
    }
  }
  if (o.tlsCert.empty() != o.tlsKey.empty()) return usage("--tls-cert and --tls-key go together");
  if (o.listens.empty()) o.listens.push_back({o.listenHost, o.listenPort});
  for (const HostOptions::Listen& l : o.listens)
    if (!o.help && o.tlsCert.empty() && !isLoopbackHost(l.host))
      return usage("refusing to listen on " + l.host +
                   " without TLS: give --tls-cert and --tls-key, or listen on loopback");
  return r;
}

bool listenUsesTls(const HostOptions& options, const HostOptions::Listen& listen) {
  if (options.tlsCert.empty()) return false;
  if (!isLoopbackHost(listen.host)) return true;
  for (const HostOptions::Listen& other : options.listens)
    if (!isLoopbackHost(other.host)) return false;
  return true;
}

}  // namespace velm
