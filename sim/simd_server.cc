#include "sim/simd_server.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "platform/files.h"
#include "platform/socket_io.h"
#include "plist/plist.h"
#include "sim/simd_log.h"

namespace velm::sim {
namespace {

constexpr std::size_t kMaxRequestLen = 1 << 20;
constexpr std::string_view kPlistEnd = "</plist>";

std::string withoutTrailingSlashes(std::string s) {
  while (!s.empty() && s.back() == '/') s.pop_back();
  return s;
}

// The text without what may follow "</plist>": whitespace and NULs.
std::string_view trimmedEnd(std::string_view text) {
  while (!text.empty() && (text.back() == '\0' || text.back() == ' ' || text.back() == '\t' ||
                           text.back() == '\r' || text.back() == '\n'))
    text.remove_suffix(1);
  return text;
}

PropertyList errorReply(std::string text) {
  PropertyList reply = PropertyList::dict();
  reply.set(std::string(kSimdErrorKey), std::move(text));
  return reply;
}

// The reply dictionary as text, "</plist>" followed by ending instead of the writer's newline.
std::string plistReply(const PropertyList& reply, const std::string& ending) {
  std::string text = writeXmlPlist(reply);
  if (!text.empty() && text.back() == '\n') text.pop_back();
  return text + ending;
}

// The request dictionary, or nothing with the reason it is malformed.
std::optional<PropertyList> parseRequest(const std::string& text, bool tooLarge,
                                         std::string* reason) {
  std::string_view body = trimmedEnd(text);
  if (tooLarge) {
    *reason = "longer than " + std::to_string(kMaxRequestLen) + " bytes";
    return std::nullopt;
  }
  if (body.empty()) {
    *reason = "empty request";
    return std::nullopt;
  }
  PlistReadOptions options;
  options.requireDictionary = true;
  PlistReadResult doc = readXmlPlist(body, options);
  if (!doc) {
    *reason = doc.error;
    return std::nullopt;
  }
  if (!doc.value->getString(kSimdCommandKey)) {
    *reason = "no 'command' string";
    return std::nullopt;
  }
  return std::move(doc.value);
}

}  // namespace

std::string simdMountInfoPath(const std::string& root) {
  return sandboxProcfs(root) + "/self/mountinfo";
}

SimDaemon::~SimDaemon() {
  stopping_ = true;
  if (listener_) {
    listener_.reset();
    ::unlink(socketPath_.c_str());
  }
  connections_.reap(true);
}

bool SimDaemon::start(const SimdOptions& options, std::string* error) {
  if (options.root.empty()) {
    *error = "--root DIR is required";
    return false;
  }
  std::error_code ec;
  std::filesystem::path absolute = std::filesystem::absolute(options.root, ec);
  std::string root = withoutTrailingSlashes(absolute.lexically_normal().string());
  if (ec || root.empty()) {
    *error = "bad --root '" + options.root + "'";
    return false;
  }
  std::string mountInfo = simdMountInfoPath(root);
  if (mountInfo.rfind("/proc/", 0) == 0) {
    *error = "refusing to keep a mount table under the real /proc (" + mountInfo + ")";
    return false;
  }

  socketPath_ = root + std::string(kSimdSocketName);
  struct sockaddr_un addr {};
  addr.sun_family = AF_UNIX;
  if (socketPath_.size() >= sizeof addr.sun_path) {
    *error = "socket path " + socketPath_ + " is " + std::to_string(socketPath_.size()) +
             " bytes; a UNIX socket path holds at most " + std::to_string(sizeof addr.sun_path - 1);
    return false;
  }
  std::memcpy(addr.sun_path, socketPath_.c_str(), socketPath_.size() + 1);

  std::string mountInfoDir = mountInfo.substr(0, mountInfo.rfind('/'));
  for (const std::string& dir : {root + "/var/run", mountInfoDir}) {
    if (int err = makeDirectories(dir); err != 0) {
      *error = "cannot make " + dir + ": " + std::strerror(err);
      return false;
    }
  }

  int pipefd[2];
  if (::pipe2(pipefd, O_CLOEXEC | O_NONBLOCK) != 0) {
    *error = std::string("pipe: ") + std::strerror(errno);
    return false;
  }
  wakeRead_.reset(pipefd[0]);
  wakeWrite_.reset(pipefd[1]);

  // A socket left by a daemon that did not end cleanly would make bind fail.
  if (::unlink(socketPath_.c_str()) != 0 && errno != ENOENT) {
    *error = "cannot remove " + socketPath_ + ": " + std::strerror(errno);
    return false;
  }
  UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!fd || ::bind(fd.get(), reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) != 0 ||
      ::listen(fd.get(), 64) != 0) {
    *error = "cannot listen on " + socketPath_ + ": " + std::strerror(errno);
    return false;
  }
  listener_ = std::move(fd);

  config_ = std::make_unique<SimdConfig>(options.configPath.empty() ? root + "/simd.plist"
                                                                    : options.configPath);
  commands_ = std::make_unique<SimdCommands>(root, mountInfo);
  // Before we say we listen, so whoever started us finds the start-up mounts in place.
  commands_->automount();
  simdLog("listening on %s", socketPath_.c_str());
  return true;
}

void SimDaemon::stop() {
  stopping_ = true;
  if (wakeWrite_) {
    char b = 1;
    ssize_t r = ::write(wakeWrite_.get(), &b, 1);
    (void)r;
  }
}

void SimDaemon::run() {
  while (!stopping_) {
    struct pollfd fds[2] = {{wakeRead_.get(), POLLIN, 0}, {listener_.get(), POLLIN, 0}};
    int r = ::poll(fds, 2, 1000);
    connections_.reap(false);
    if (r < 0 && errno != EINTR) break;
    if (r <= 0 || (fds[0].revents & POLLIN) || !(fds[1].revents & POLLIN)) continue;
    int fd = ::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) continue;
    connections_.serve(fd, [this](int client) { serve(client); });
  }
  simdLog("stopping");
  listener_.reset();
  ::unlink(socketPath_.c_str());
  connections_.reap(true);
}

std::optional<std::string> SimDaemon::readRequest(int fd, bool* tooLarge) {
  std::string text;
  char buf[4096];
  while (!stopping_) {
    ssize_t n = ::recv(fd, buf, sizeof buf, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return std::nullopt;
    if (n == 0) break;
    text.append(buf, static_cast<std::size_t>(n));
    if (text.size() > kMaxRequestLen) {
      *tooLarge = true;
      break;
    }
    // The client sends no length and keeps its end open for the reply: the closing tag is the
    // only sign that the request is complete.
    if (trimmedEnd(text).ends_with(kPlistEnd)) break;
  }
  if (stopping_) return std::nullopt;
  return text;
}

bool SimDaemon::pause(int ms) {
  using namespace std::chrono;
  auto deadline = steady_clock::now() + milliseconds(ms);
  while (!stopping_) {
    long long left = ceil<milliseconds>(deadline - steady_clock::now()).count();
    if (left <= 0) return true;
    // The wake pipe is never drained, so after stop() every waiter returns at once.
    struct pollfd p = {wakeRead_.get(), POLLIN, 0};
    ::poll(&p, 1, static_cast<int>(std::min<long long>(left, 1000)));
  }
  return false;
}

void SimDaemon::sendReply(int fd, std::string_view bytes, const SimdBehaviour& behaviour) {
  std::size_t chunk = behaviour.chunkSize ? behaviour.chunkSize : bytes.size();
  for (std::size_t off = 0; off < bytes.size(); off += chunk) {
    if (off > 0 && !pause(behaviour.chunkDelayMs)) return;
    if (!sendAll(fd, bytes.data() + off, std::min(chunk, bytes.size() - off))) return;
  }
}

void SimDaemon::holdSilently(int fd) {
  char buf[512];
  while (!stopping_) {
    struct pollfd p[2] = {{fd, POLLIN, 0}, {wakeRead_.get(), POLLIN, 0}};
    int r = ::poll(p, 2, -1);
    if (r < 0 && errno == EINTR) continue;
    if (r < 0 || (p[1].revents & POLLIN)) return;
    if (p[0].revents) {
      ssize_t n = ::recv(fd, buf, sizeof buf, 0);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return;
    }
  }
}

void SimDaemon::serve(int fd) {
  bool tooLarge = false;
  if (std::optional<std::string> text = readRequest(fd, &tooLarge)) {
    std::string reason;
    if (std::optional<PropertyList> request = parseRequest(*text, tooLarge, &reason)) {
      answer(fd, *request);
    } else {
      std::string bytes = plistReply(errorReply("malformed request: " + reason), "\n");
      simdLog("(malformed) -> error: malformed request: %s", reason.c_str());
      sendAll(fd, bytes.data(), bytes.size());
    }
  }
  // The socket is closed when the thread is reaped, so shutdown() never meets a reused number.
  ::shutdown(fd, SHUT_RDWR);
}

void SimDaemon::answer(int fd, const PropertyList& request) {
  const std::string command = *request.getString(kSimdCommandKey);
  std::string label = command;
  if (const std::string* volume = request.getString(kSimdVolumeKey)) label += " volume=" + *volume;
  SimdBehaviour behaviour = config_->behaviourFor(command);
  if (behaviour.silent) {
    simdLog("%s -> silent", label.c_str());
    holdSilently(fd);
    return;
  }
  if (behaviour.closeWithoutReply) {
    simdLog("%s -> closed without reply", label.c_str());
    return;
  }
  if (!pause(behaviour.delayMs)) return;
  PropertyList reply =
      behaviour.error ? errorReply(*behaviour.error) : commands_->handle(command, request);
  const std::string* error = reply.getString(kSimdErrorKey);
  std::string outcome = error ? "error: " + *error : "ok";
  std::string bytes;
  if (behaviour.reply) {
    bytes = *behaviour.reply;
    outcome += " (raw reply)";
  } else {
    bytes = plistReply(reply, behaviour.ending);
  }
  simdLog("%s -> %s", label.c_str(), outcome.c_str());
  sendReply(fd, bytes, behaviour);
}

}  // namespace velm::sim
