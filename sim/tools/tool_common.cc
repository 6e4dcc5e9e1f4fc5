#include "sim/tools/tool_common.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "platform/files.h"
#include "platform/unique_fd.h"

namespace velm::sim {
namespace {

constexpr std::string_view kInstalledDir = "/Library/Filesystems/Velm/bin/";
// A day: longer is a mistake in a test's file, and keeps the conversion to time_t exact.
constexpr double kMaxSleepSeconds = 86400;

void writeText(int fd, const std::string& text) {
  std::string_view rest = text;
  while (!rest.empty()) {
    ssize_t n = ::write(fd, rest.data(), rest.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    rest.remove_prefix(static_cast<std::size_t>(n));
  }
}

}  // namespace

void pauseSeconds(double seconds) {
  if (!std::isfinite(seconds) || seconds <= 0) return;
  seconds = std::min(seconds, kMaxSleepSeconds);
  struct timespec left;
  left.tv_sec = static_cast<time_t>(seconds);
  left.tv_nsec = static_cast<long>((seconds - static_cast<double>(left.tv_sec)) * 1e9);
  while (::nanosleep(&left, &left) != 0 && errno == EINTR) {
  }
}

std::string simToolRoot(std::string_view name, const char* argv0) {
  if (const char* env = std::getenv("VELM_ROOT"); env && *env) return env;
  std::string_view a0 = argv0 ? argv0 : "";
  std::string suffix = std::string(kInstalledDir) + std::string(name);
  if (a0.size() >= suffix.size() && a0.ends_with(suffix))
    return std::string(a0.substr(0, a0.size() - suffix.size()));
  return {};
}

SimTool::SimTool(std::string name, int argc, char** argv)
    : name_(std::move(name)), root_(simToolRoot(name_, argc > 0 ? argv[0] : nullptr)) {
  for (int i = 1; i < argc; ++i) args_.emplace_back(argv[i]);
}

void SimTool::complain(const char* fmt, ...) const {
  char line[1024];
  va_list ap;
  va_start(ap, fmt);
  std::vsnprintf(line, sizeof line, fmt, ap);
  va_end(ap);
  std::fprintf(stderr, "%s: %s\n", name_.c_str(), line);
}

void SimTool::logCall() const {
  std::string dir = path("/sim/tools");
  std::string line;
  for (const std::string& a : args_) line += (line.empty() ? "" : " ") + a;
  line += '\n';
  if (makeDirectories(dir) != 0) return;
  // Appended in one write, so calls of tools running side by side don't interleave.
  UniqueFd fd(::open((dir + "/" + name_ + ".calls").c_str(),
                     O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
  if (fd) writeText(fd.get(), line);
}

std::optional<int> SimTool::begin() {
  std::string behaviourPath = path("/sim/tools/" + name_ + ".plist");
  std::optional<PropertyList> behaviour = readToolDictionary(*this, behaviourPath);
  logCall();
  if (!behaviour) return std::nullopt;
  behaviour_ = *behaviour;
  if (const PropertyList* s = behaviour->get(kToolSleepSeconds))
    pauseSeconds(s->doubleValue().value_or(0));

  const std::string* output = behaviour->getString(kToolOutput);
  const std::string* error = behaviour->getString(kToolError);
  const PropertyList* status = behaviour->get(kToolExitStatus);
  if (!output && !error && !status) return std::nullopt;
  std::fflush(stdout);
  if (output) writeText(STDOUT_FILENO, *output);
  if (error) writeText(STDERR_FILENO, *error);
  std::int64_t code = status ? status->int64Value().value_or(0) : 0;
  return static_cast<int>(code & 0xff);
}

bool volumeNameUsable(std::string_view volume) {
  return !volume.empty() && volume != "." && volume != ".." &&
         volume.find('/') == std::string_view::npos;
}

std::optional<PropertyList> readToolDictionary(const SimTool& tool, const std::string& path) {
  std::optional<std::string> text = readFile(path);
  if (!text) {
    if (!pathExists(path)) return PropertyList::dict();
    tool.complain("cannot read %s", path.c_str());
    return std::nullopt;
  }
  PlistReadOptions options;
  options.requireDictionary = true;
  PlistReadResult doc = readXmlPlist(*text, options);
  if (!doc) {
    tool.complain("%s: %s", path.c_str(), doc.error.c_str());
    return std::nullopt;
  }
  return std::move(doc.value);
}

}  // namespace velm::sim
