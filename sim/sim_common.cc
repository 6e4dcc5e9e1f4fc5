#include "sim/sim_common.h"

#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <optional>

#include "platform/files.h"

namespace velm::sim {
namespace {

void (*gStop)(void*) = nullptr;
void* gStopContext = nullptr;

std::mutex gLogMutex;  // one line at a time on stderr; leaf

void onSignal(int) {
  if (gStop) gStop(gStopContext);
}

}  // namespace

void simLogLine(const char* program, const char* fmt, va_list args) {
  char line[2048];
  std::vsnprintf(line, sizeof line, fmt, args);
  std::scoped_lock lock(gLogMutex);
  std::fprintf(stderr, "%s: %s\n", program, line);
  std::fflush(stderr);
}

int parseSimFlags(const char* program, const char* usage, int argc, char** argv,
                  std::initializer_list<SimFlag> flags) {
  std::string* root = nullptr;
  for (const SimFlag& f : flags) {
    if (f.name == "--root") root = f.value;
  }
  for (int i = 1; i < argc; ++i) {
    std::string_view arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      std::fputs(usage, stdout);
      return 0;
    }
    const SimFlag* flag = nullptr;
    for (const SimFlag& f : flags) {
      if (f.name == arg) flag = &f;
    }
    if (!flag) {
      std::fprintf(stderr, "%s: unknown argument '%s'\n%s", program, argv[i], usage);
      return 2;
    }
    if (i + 1 >= argc) {
      std::fprintf(stderr, "%s: %s needs a value\n%s", program, argv[i], usage);
      return 2;
    }
    *flag->value = argv[++i];
  }
  if (root && root->empty()) {
    std::fprintf(stderr, "%s: --root DIR is required\n%s", program, usage);
    return 2;
  }
  return -1;
}

void installSimStopHandler(void (*stop)(void*), void* context) {
  gStop = stop;
  gStopContext = context;
  struct sigaction sa {};
  sa.sa_handler = onSignal;
  sigemptyset(&sa.sa_mask);
  ::sigaction(SIGTERM, &sa, nullptr);
  ::sigaction(SIGINT, &sa, nullptr);
  std::signal(SIGPIPE, SIG_IGN);
}

std::optional<std::string> sandboxProcfsFromEnvironment() {
  const char* env = std::getenv("VELM_PROCFS");
  if (!env || !*env) return std::nullopt;
  std::string p = std::filesystem::path(env).lexically_normal().string();
  while (p.size() > 1 && p.back() == '/') p.pop_back();
  if (p.empty() || p == "/proc" || p.rfind("/proc/", 0) == 0) return std::nullopt;
  return p;
}

std::string sandboxProcfs(const std::string& root) {
  return sandboxProcfsFromEnvironment().value_or(root + "/proc");
}

SandboxProcessEntry::SandboxProcessEntry(const std::string& name) {
  std::optional<std::string> procfs = sandboxProcfsFromEnvironment();
  if (!procfs) return;
  std::string pid = std::to_string(::getpid());
  dir_ = *procfs + "/" + pid;
  if (makeDirectories(dir_) != 0) {
    dir_.clear();
    return;
  }
  writeFileAtomically(dir_ + "/cmdline", name + std::string(1, '\0'));
  writeFileAtomically(dir_ + "/comm", name + "\n");
  writeFileAtomically(dir_ + "/stat", pid + " (" + name + ") S 1 " + pid + " " + pid + " 0 -1\n");
}

SandboxProcessEntry::~SandboxProcessEntry() {
  if (dir_.empty()) return;
  std::error_code ec;
  std::filesystem::remove_all(dir_, ec);
}

void SimConnections::serve(int fd, std::function<void(int fd)> body) {
  auto conn = std::make_unique<Connection>();
  Connection* c = conn.get();
  c->fd.reset(fd);
  std::scoped_lock lock(mutex_);
  c->thread = std::thread([c, body = std::move(body)] {
    body(c->fd.get());
    c->done = true;
  });
  connections_.push_back(std::move(conn));
}

void SimConnections::reap(bool all) {
  std::list<std::unique_ptr<Connection>> finished;
  {
    std::scoped_lock lock(mutex_);
    for (auto it = connections_.begin(); it != connections_.end();) {
      if (all || (*it)->done) {
        // Wakes a thread blocked in a read or write; its socket is closed after the join, so
        // shutdown() never meets a reused number.
        if (all) ::shutdown((*it)->fd.get(), SHUT_RDWR);
        finished.push_back(std::move(*it));
        it = connections_.erase(it);
      } else {
        ++it;
      }
    }
  }
  for (auto& c : finished)
    if (c->thread.joinable()) c->thread.join();
}

}  // namespace velm::sim
