#include "host/admin_host.h"

#include <fcntl.h>
#include <httplib.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/auxv.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <atomic>
#include <map>
#include <thread>

#include "adminhost/context_store.h"
#include "host/admin_token.h"
#include "host/command_router.h"
#include "host/host_metrics.h"
#include "host/host_log.h"
#include "host/idle_ticker.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "platform/paths.h"
#include "platform/unique_fd.h"

#ifndef VELM_INSTALL_PLUGIN_DIR
#define VELM_INSTALL_PLUGIN_DIR "/usr/local/lib/adminhost"
#endif
#ifndef VELM_INSTALL_WWW_DIR
#define VELM_INSTALL_WWW_DIR "/usr/local/share/adminhostd/www"
#endif
#ifndef VELM_CHARTJS_PATH
#define VELM_CHARTJS_PATH "/usr/share/javascript/chart.js/chart.min.js"
#endif

namespace velm {
namespace {

// A keep-alive connection holds a pool thread for its life; after this many requests it is
// closed so that one busy client can't keep a thread for ever.
constexpr size_t kKeepAliveMaxRequests = 1000;
constexpr time_t kKeepAliveSeconds = 5;
constexpr const char* kMetricsType = "text/plain; version=0.0.4; charset=utf-8";
// The dashboard loads nothing from elsewhere and runs no inline script: even a value that got
// into the page as markup could not run.
constexpr const char* kContentSecurityPolicy =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' data:; "
    "connect-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'";

std::string executableDirectory() {
  char resolved[PATH_MAX];
  const char* exec = reinterpret_cast<const char*>(::getauxval(AT_EXECFN));
  if (exec && ::realpath(exec, resolved))
    return std::filesystem::path(resolved).parent_path().string();
  std::error_code ec;
  std::filesystem::path self = std::filesystem::read_symlink(procfsPath("self/exe"), ec);
  return ec ? std::string(".") : self.parent_path().string();
}

bool holdsPlugins(const std::string& dir) {
  std::error_code ec;
  for (std::filesystem::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec))
    if (pluginNameForFile(it->path().filename().string())) return true;
  return false;
}

void setPageHeaders(httplib::Response& res) {
  res.set_header("Content-Security-Policy", kContentSecurityPolicy);
  res.set_header("X-Content-Type-Options", "nosniff");
  res.set_header("Referrer-Policy", "no-referrer");
  res.set_header("Cache-Control", "no-cache");
}

std::string urlHost(const std::string& host) {
  return host.find(':') != std::string::npos ? "[" + host + "]" : host;
}

}  // namespace

AdminHost::AdminHost(HostOptions options) : options_(std::move(options)) {}

AdminHost::~AdminHost() = default;

std::string AdminHost::pluginsDirectory() const {
  if (!options_.pluginsDir.empty()) return options_.pluginsDir;
  // In the build tree the plugin sits in lib/ beside bin/; installed, in lib/adminhost.
  std::string exeDir = executableDirectory();
  for (std::string dir :
       {exeDir + "/../lib", exeDir + "/../lib/adminhost", std::string(VELM_INSTALL_PLUGIN_DIR)})
    if (holdsPlugins(dir)) return std::filesystem::path(dir).lexically_normal().string();
  return VELM_INSTALL_PLUGIN_DIR;
}

std::string AdminHost::wwwDirectory() const {
  if (!options_.wwwDir.empty()) return options_.wwwDir;
  std::string exeDir = executableDirectory();
  for (std::string dir : {exeDir + "/../share/adminhostd/www", std::string(VELM_INSTALL_WWW_DIR)}) {
    std::error_code ec;
    if (std::filesystem::is_regular_file(dir + "/index.html", ec))
      return std::filesystem::path(dir).lexically_normal().string();
  }
  return VELM_INSTALL_WWW_DIR;
}

std::string AdminHost::renderMetrics() {
  std::string out;
  out.reserve(32768);
  metrics_.render(out);
  appendMetricHeader(out, "adminhostd_context_saves_total", "Context writes begun, by plugin.", "counter");
  for (const auto& p : plugins_)
    appendMetricSample(out, "adminhostd_context_saves_total", {{"plugin", p->name()}},
                       std::to_string(p->contextSaves()));
  appendMetricHeader(out, "adminhostd_context_save_failures_total", "Context writes that failed, by plugin.",
                     "counter");
  for (const auto& p : plugins_)
    appendMetricSample(out, "adminhostd_context_save_failures_total", {{"plugin", p->name()}},
                       std::to_string(p->contextSaveFailures()));
  for (const auto& p : plugins_) p->appendMetricsText(out);
  return out;
}

void AdminHost::tick(std::uint64_t count) {
  PropertyList request = PropertyList::dict();
  request.set("command", "doIdle");
  request.set("count", static_cast<long long>(count));
  for (const auto& plugin : plugins_) {
    std::uint64_t started = clock().monotonicMicros();
    PluginCall call = plugin->call(request, true);
    std::uint64_t micros = clock().monotonicMicros() - started;
    metrics_.recordIdleTick(plugin->name(), micros);
    if (call.outcome == PluginCall::Outcome::NoResponse)
      HostLog("plugin %s gave no response to doIdle at count %llu", plugin->name(),
              static_cast<unsigned long long>(count));
    else
      HostTrace("idle %s doIdle count %llu %s %lluus", plugin->name(),
                static_cast<unsigned long long>(count),
                call.outcome == PluginCall::Outcome::Answered ? "answered" : "failed",
                static_cast<unsigned long long>(micros));
  }
}

int AdminHost::run() {
  std::string stateDir = hostPath("/var/adminhostd");
  if (int err = makeDirectories(stateDir); err != 0) {
    HostLog("cannot make %s: %s", stateDir, std::strerror(err));
    return 1;
  }
  // One daemon per root: two would tick the plugins twice and race on their context files.
  std::string daemonLock = stateDir + "/adminhostd.lock";
  UniqueFd lockFd(::open(daemonLock.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  if (!lockFd || ::flock(lockFd.get(), LOCK_EX | LOCK_NB) != 0) {
    int err = errno;
    HostLog("cannot lock %s: %s", daemonLock,
            err == EWOULDBLOCK ? "another adminhostd serves this root" : std::strerror(err));
    return 1;
  }

  std::string tokenPath = hostPath("/var/adminhostd/admin.token");
  AdminToken token = loadOrCreateAdminToken(tokenPath);
  if (token.status != 0) {
    HostLog("no usable token in %s: %s", tokenPath,
            token.status == EINVAL ? "malformed (want at least 32 printable characters)"
                                   : std::strerror(token.status));
    return 1;
  }
  if (token.created) HostLog("made a new admin token in %s", tokenPath);

  std::string pluginsDir = pluginsDirectory();
  plugins_ = loadPluginsFromDirectory(pluginsDir);
  for (const auto& plugin : plugins_)
    plugin->setContextSaveInterval(options_.contextSaveIntervalMicros);
  if (plugins_.empty()) HostLog("no plugins in %s; every command will get 404", pluginsDir);
  std::map<std::string, HostedPlugin*, std::less<>> byName;
  for (const auto& p : plugins_) byName.emplace(p->name(), p.get());
  CommandRouter router(token.token, std::move(byName));

  // The same service on every address: plain HTTP or HTTPS as listenUsesTls says.
  std::string wwwDir = wwwDirectory();
  {
    std::error_code ec;
    if (!std::filesystem::is_regular_file(wwwDir + "/index.html", ec)) {
      HostLog("no dashboard in %s; GET / will get 404", wwwDir);
      wwwDir.clear();
    }
  }
  // Debian's Chart.js, read once: the dashboard's graphs.
  std::string chartJs = readFile(VELM_CHARTJS_PATH).value_or("");
  if (chartJs.empty()) HostLog("no %s; the dashboard will have no graphs", VELM_CHARTJS_PATH);
  auto setUp = [&](httplib::Server& s, const HostOptions::Listen& listen) {
    // Without TCP_NODELAY, Nagle holds each small answer back for the client's delayed ACK.
    s.set_tcp_nodelay(true);
    s.set_keep_alive_max_count(kKeepAliveMaxRequests);
    s.set_keep_alive_timeout(kKeepAliveSeconds);
    s.set_payload_max_length(options_.maxBodyBytes);
    size_t threads = options_.threads;
    s.new_task_queue = [threads] { return new httplib::ThreadPool(threads); };
    s.set_exception_handler(
        [](const httplib::Request&, httplib::Response& res, std::exception_ptr) {
          res.status = 500;
          res.body.clear();
        });
    // A caller without the token is turned away before its body is read, and its connection
    // closed, so that it can neither make us read megabytes nor hold a pool thread. The
    // dashboard's own files hold no data and are open to all; /metrics is too with --metrics-open,
    // on loopback.
    const std::string& expectedToken = token.token;
    bool metricsOpen = options_.metricsOpen && isLoopbackHost(listen.host);
    s.set_pre_routing_handler(
        [&expectedToken, metricsOpen](const httplib::Request& req, httplib::Response& res) {
          bool read = req.method == "GET" || req.method == "HEAD";
          if (read && (req.path == "/metrics" ? metricsOpen : true))
            return httplib::Server::HandlerResponse::Unhandled;
          if (bearerTokenMatches(req.get_header_value("Authorization"), expectedToken))
            return httplib::Server::HandlerResponse::Unhandled;
          res.status = 401;
          res.set_header("Connection", "close");
          HostLog("%s %s - 401 refused: no valid bearer token", req.method, req.path);
          return httplib::Server::HandlerResponse::Handled;
        });
    if (!wwwDir.empty()) {
      s.set_mount_point("/", wwwDir);
      s.set_file_request_handler([](const httplib::Request&, httplib::Response& res) { setPageHeaders(res); });
    }
    s.Get("/vendor/chart.js", [&chartJs](const httplib::Request&, httplib::Response& res) {
      if (chartJs.empty()) {
        res.status = 404;
        return;
      }
      setPageHeaders(res);
      res.set_content(chartJs, "text/javascript; charset=utf-8");
    });
    s.Get("/metrics", [this](const httplib::Request&, httplib::Response& res) {
      res.set_content(renderMetrics(), kMetricsType);
    });
    size_t maxBody = options_.maxBodyBytes;
    s.Post(R"(/commands/([^/]+))",
                [this, &router, maxBody](const httplib::Request& req, httplib::Response& res,
                                   const httplib::ContentReader& reader) {
                  std::uint64_t started = clock().monotonicMicros();
                  // The body is always read to its end, also when it is refused, so the next request
                  // on a keep-alive connection starts where it should; past the limit it is dropped
                  // as it comes.
                  std::string body;
                  bool tooLarge = false;
                  bool complete = reader([&](const char* data, size_t length) {
                    if (!tooLarge && length <= maxBody - body.size()) {
                      body.append(data, length);
                    } else if (!tooLarge) {
                      tooLarge = true;
                      std::string().swap(body);
                    }
                    return true;
                  });
                  // The library skips a body whose Content-Length is over the limit itself and says
                  // 413.
                  if (!complete && res.status == 413) tooLarge = true;
                  CommandAnswer answer;
                  if (!complete && !tooLarge) {
                    answer.status = 400;
                  } else {
                    CommandRequest request;
                    std::string plugin = req.matches[1].str();
                    request.plugin = plugin;
                    std::string authorization = req.get_header_value("Authorization");
                    std::string contentType = req.get_header_value("Content-Type");
                    std::string accept = req.get_header_value("Accept");
                    request.authorization = authorization;
                    request.contentType = contentType;
                    request.accept = accept;
                    request.body = body;
                    request.bodyTooLarge = tooLarge;
                    answer = router.handle(request);
                  }
                  res.status = answer.status;
                  if (answer.status == 200) res.set_content(std::move(answer.body), answer.contentType);
                  std::uint64_t micros = clock().monotonicMicros() - started;
                  if (answer.pluginKnown)
                    metrics_.recordCommand(req.matches[1].str(), answer.command, answer.failed, micros);
                  HostLog("%s %s %s %d %lluus", req.method, req.path, answer.command, answer.status,
                          static_cast<unsigned long long>(micros));
                });
  };
  std::vector<std::string> urls;
  for (const HostOptions::Listen& l : options_.listens) {
    bool tls = listenUsesTls(options_, l);
    std::unique_ptr<httplib::Server> s;
    if (tls)
      s = std::make_unique<httplib::SSLServer>(options_.tlsCert.c_str(), options_.tlsKey.c_str());
    else
      s = std::make_unique<httplib::Server>();
    if (!s->is_valid()) {
      HostLog("cannot use the TLS certificate %s with key %s", options_.tlsCert, options_.tlsKey);
      return 1;
    }
    setUp(*s, l);
    int port = l.port;
    if (port == 0) {
      port = s->bind_to_any_port(l.host);
    } else if (!s->bind_to_port(l.host, port)) {
      port = -1;
    }
    if (port <= 0) {
      HostLog("cannot listen on %s:%d", l.host, l.port);
      return 1;
    }
    urls.push_back(std::string(tls ? "https://" : "http://") + urlHost(l.host) + ":" +
                   std::to_string(port));
    servers_.push_back(std::move(s));
  }
  for (const std::string& url : urls) {
    HostLog("listening on %s with %zu plugin(s) from %s", url, plugins_.size(), pluginsDir);
    std::printf("adminhostd: listening on %s\n", url.c_str());
  }
  // The token only to a terminal: elsewhere (a unit's journal) stdout is a log.
  if (!wwwDir.empty() && !urls.empty()) {
    if (::isatty(STDOUT_FILENO))
      std::printf("adminhostd: dashboard at %s/#token=%s\n", urls.front().c_str(), token.token.c_str());
    else
      std::printf("adminhostd: dashboard at %s/ (token in %s)\n", urls.front().c_str(), tokenPath.c_str());
  }
  std::fflush(stdout);

  std::unique_ptr<IdleTicker> ticker;
  if (options_.idleIntervalMicros > 0 && !plugins_.empty()) {
    ticker = std::make_unique<IdleTicker>(options_.idleIntervalMicros,
                                          [this](std::uint64_t c) { tick(c); });
  }
  bool serve = false;
  {
    std::scoped_lock lock(stateMutex_);
    if (ticker) stopTicker_ = [t = ticker.get()] { t->requestStop(); };
    serve = !stopRequested_;
    listening_ = serve;
  }
  bool served = true;
  if (serve) {
    if (ticker) ticker->start();
    // Every address but the first on a thread of its own; the end of any ends them all.
    std::vector<std::thread> others;
    std::atomic<bool> othersServed{true};
    for (std::size_t i = 1; i < servers_.size(); ++i)
      others.emplace_back([this, i, &othersServed] {
        if (!servers_[i]->listen_after_bind()) othersServed = false;
        for (auto& s : servers_) s->stop();
      });
    served = servers_[0]->listen_after_bind();
    for (auto& s : servers_) s->stop();
    for (std::thread& t : others) t.join();
    served = served && othersServed;
  }
  {
    std::scoped_lock lock(stateMutex_);
    listenDone_ = true;
    stopTicker_ = nullptr;
  }
  stateChanged_.notify_all();
  if (ticker) ticker->stop();

  int failed = 0;
  for (const auto& plugin : plugins_)
    if (plugin->saveContext() != 0) ++failed;
  if (!served) HostLog("the listening socket failed");
  HostLog("stopped%s", failed ? "; some contexts could not be saved" : "");
  return failed || !served ? 1 : 0;
}

void AdminHost::requestStop() {
  std::unique_lock lock(stateMutex_);
  if (stopRequested_) return;
  stopRequested_ = true;
  if (stopTicker_) stopTicker_();
  if (!listening_) return;  // run() will see the flag before it serves
  // The server's stop() only takes once listen_after_bind has marked it running, which run()
  // does just after deciding to serve: wait for that moment, or for the end of serving.
  while (!listenDone_) {
    if (servers_.front()->is_running()) {
      for (auto& s : servers_) s->stop();
      return;
    }
    stateChanged_.wait_for(lock, std::chrono::milliseconds(5));
  }
}

}  // namespace velm
