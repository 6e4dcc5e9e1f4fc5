#include "e2e/e2e_helpers.h"

#include <fcntl.h>
#include <httplib.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>

#include "platform/clock.h"
#include "platform/files.h"
#include "platform/unique_fd.h"
#include "plist/plist_json.h"

extern char** environ;

#ifndef VELM_BINARY_DIR
#define VELM_BINARY_DIR "build"
#endif
#ifndef VELM_TEST_PLUGIN_DIR
#define VELM_TEST_PLUGIN_DIR VELM_BINARY_DIR "/test-plugins"
#endif

namespace velm::test {
namespace {

constexpr int kStartTimeoutMs = 60000;

int statusOf(int raw) {
  if (WIFEXITED(raw)) return WEXITSTATUS(raw);
  if (WIFSIGNALED(raw)) return 128 + WTERMSIG(raw);
  return -1;
}

}  // namespace

std::string binaryDir() {
  const char* env = std::getenv("VELM_BINARY_DIR");
  return env && *env ? env : VELM_BINARY_DIR;
}
std::string adminhostdPath() { return binaryDir() + "/bin/adminhostd"; }
std::string velmadminPath() { return binaryDir() + "/bin/velmadmin"; }
std::string velmPluginPath() { return binaryDir() + "/lib/adminhost_velm.so"; }
std::string echoPluginPath() {
  const char* env = std::getenv("VELM_BINARY_DIR");
  if (env && *env) return std::string(env) + "/test-plugins/adminhost_echo.so";
  return std::string(VELM_TEST_PLUGIN_DIR) + "/adminhost_echo.so";
}

std::string makePluginDir(const SandboxRoot& sandbox,
                          const std::vector<std::pair<std::string, std::string>>& nameToFile) {
  std::string dir = sandbox.root() + "/plugins";
  std::filesystem::create_directories(dir);
  for (const auto& [name, file] : nameToFile) {
    std::error_code ec;
    std::filesystem::create_symlink(std::filesystem::absolute(file), dir + "/adminhost_" + name + ".so", ec);
    EXPECT_FALSE(ec) << "link for plugin " << name << ": " << ec.message();
  }
  return dir;
}

std::optional<int> waitForExit(pid_t pid, int timeoutMs) {
  // A pidfd turns "wait at most this long" into one poll, with no sleeping loop.
  UniqueFd pidfd(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
  if (pidfd) {
    pollfd p{pidfd.get(), POLLIN, 0};
    int n;
    do {
      n = ::poll(&p, 1, timeoutMs);
    } while (n < 0 && errno == EINTR);
    if (n == 0) return std::nullopt;
  }
  int raw = 0;
  if (::waitpid(pid, &raw, 0) != pid) return std::nullopt;
  return statusOf(raw);
}

Daemon::Daemon(const SandboxRoot& sandbox, std::string pluginsDir, std::vector<std::string> extraArgs)
    : sandbox_(sandbox), pluginsDir_(std::move(pluginsDir)), extraArgs_(std::move(extraArgs)) {}

Daemon::~Daemon() {
  if (pid_ > 0 && !exited_) {
    ::kill(pid_, SIGKILL);
    waitForExit(pid_, kStartTimeoutMs);
  }
}

bool Daemon::start() {
  std::vector<std::string> args = {adminhostdPath(), "--root", sandbox_.root(), "--plugins", pluginsDir_};
  bool listenGiven = false;
  for (const std::string& a : extraArgs_) listenGiven = listenGiven || a == "--listen";
  if (!listenGiven) args.insert(args.end(), {"--listen", "127.0.0.1:0"});
  args.insert(args.end(), extraArgs_.begin(), extraArgs_.end());
  std::vector<std::string> env;
  for (char** e = environ; *e; ++e) {
    std::string_view entry(*e);
    if (entry.rfind("VELM_LOG=", 0) == 0 || entry.rfind("VELM_ROOT=", 0) == 0) continue;
    env.emplace_back(entry);
  }
  env.push_back("VELM_LOG=" + sandbox_.root() + "/daemon.log");
  std::vector<char*> argv, envp;
  for (std::string& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  for (std::string& e : env) envp.push_back(e.data());
  envp.push_back(nullptr);

  int out[2];
  if (::pipe2(out, O_CLOEXEC) != 0) return false;
  UniqueFd readEnd(out[0]), writeEnd(out[1]);
  std::string errPath = sandbox_.root() + "/daemon.stderr";
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, writeEnd.get(), STDOUT_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
  // Nothing of this test process leaks into the daemon.
  posix_spawn_file_actions_addclosefrom_np(&actions, 3);
  int rc = ::posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) {
    pid_ = -1;
    ADD_FAILURE() << "cannot start " << argv[0] << ": " << std::strerror(rc);
    return false;
  }
  exited_ = false;
  writeEnd.reset();

  // The daemon prints one line once it accepts requests; a daemon that fails closes the pipe.
  std::string text;
  std::uint64_t deadline = systemClock().monotonicMicros() + kStartTimeoutMs * 1000ull;
  for (;;) {
    if (size_t nl = text.find('\n'); nl != std::string::npos) break;
    std::uint64_t now = systemClock().monotonicMicros();
    if (now >= deadline) return false;
    pollfd p{readEnd.get(), POLLIN, 0};
    int n = ::poll(&p, 1, static_cast<int>((deadline - now) / 1000) + 1);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    char buf[256];
    ssize_t got = ::read(readEnd.get(), buf, sizeof buf);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    text.append(buf, static_cast<size_t>(got));
  }
  constexpr std::string_view kMarker = "adminhostd: listening on ";
  size_t at = text.find(kMarker);
  if (at == std::string::npos) return false;
  url_ = text.substr(at + kMarker.size(), text.find('\n', at) - at - kMarker.size());
  port_ = std::atoi(url_.substr(url_.rfind(':') + 1).c_str());
  // One line per address, written at once.
  urls_.clear();
  for (size_t from = at; from != std::string::npos; from = text.find(kMarker, from + 1)) {
    size_t end = text.find('\n', from);
    if (end == std::string::npos) break;
    urls_.push_back(text.substr(from + kMarker.size(), end - from - kMarker.size()));
  }
  return port_ > 0;
}

void Daemon::signal(int signo) {
  if (pid_ > 0 && !exited_) ::kill(pid_, signo);
}

std::optional<int> Daemon::waitExit(int timeoutMs) {
  if (pid_ <= 0 || exited_) return std::nullopt;
  std::optional<int> status = waitForExit(pid_, timeoutMs);
  if (status) exited_ = true;
  return status;
}

std::string Daemon::stderrText() const { return sandbox_.read("/daemon.stderr"); }
std::string Daemon::logText() const { return sandbox_.read("/daemon.log"); }

struct Client::Impl {
  explicit Impl(const std::string& url) : client(url) {
    client.set_tcp_nodelay(true);
    client.set_keep_alive(true);
    client.set_read_timeout(60, 0);
    client.enable_server_certificate_verification(false);
  }
  httplib::Client client;
};

Client::Client(const std::string& url) : impl_(new Impl(url)) {}
Client::~Client() { delete impl_; }

Reply Client::post(const std::string& path, const std::string& body, const std::string& token) {
  return send("POST", path, body, token, {{"Content-Type", "application/x-plist"}});
}

Reply Client::send(const std::string& method, const std::string& path, const std::string& body,
                   const std::string& token, const std::vector<std::pair<std::string, std::string>>& headers) {
  httplib::Request req;
  req.method = method;
  req.path = path;
  req.body = body;
  if (!token.empty()) req.set_header("Authorization", "Bearer " + token);
  for (const auto& [k, v] : headers) req.set_header(k, v);
  httplib::Result r = impl_->client.send(req);
  Reply reply;
  if (!r) return reply;
  reply.status = r->status;
  reply.body = r->body;
  for (const auto& [k, v] : r->headers) reply.headers[k] = v;
  reply.contentType = r->get_header_value("Content-Type");
  PlistReadOptions options;
  options.requireDictionary = true;
  PlistReadResult parsed = reply.contentType == "application/json" ? readJson(reply.body, options)
                                                                   : readXmlPlist(reply.body, options);
  if (parsed) reply.plist = std::move(parsed.value);
  return reply;
}

Reply Client::command(const std::string& plugin, const PropertyList& request, const std::string& token) {
  return post("/commands/" + plugin, writeXmlPlist(request), token);
}

PropertyList request(const std::string& command, std::vector<std::pair<std::string, PropertyList>> entries) {
  PropertyList r = PropertyList::dict();
  r.set("command", command);
  for (auto& [k, v] : entries) r.set(k, std::move(v));
  return r;
}

std::string readToken(const SandboxRoot& sandbox) { return sandbox.read("/var/adminhostd/admin.token"); }

}  // namespace velm::test
