#include "platform/paths.h"

#include <cstdlib>
#include <mutex>

namespace velm {
namespace {

struct Roots {
  std::string root, drfs, sysfs, procfs;
};

std::string envOr(const char* name, std::string fallback) {
  const char* v = std::getenv(name);
  return (v && *v) ? std::string(v) : fallback;
}

std::string stripTrailingSlashes(std::string s) {
  while (!s.empty() && s.back() == '/') s.pop_back();
  return s;
}

Roots load() {
  Roots r;
  r.root = stripTrailingSlashes(envOr("VELM_ROOT", ""));
  r.drfs = stripTrailingSlashes(envOr("DRFSROOT", r.root + "/Library/Filesystems/Velm"));
  r.sysfs = stripTrailingSlashes(envOr("VELM_SYSFS", "/sys"));
  r.procfs = stripTrailingSlashes(envOr("VELM_PROCFS", "/proc"));
  return r;
}

std::mutex gMutex;  // guards gRoots; a leaf lock
Roots& roots() {
  static Roots r = load();
  return r;
}

Roots snapshot() {
  std::scoped_lock lock(gMutex);
  return roots();
}

std::string join(const std::string& base, std::string_view rel) {
  if (rel.empty()) return base;
  std::string out = base;
  if (rel.front() != '/') out += '/';
  out += rel;
  return out;
}

}  // namespace

std::string velmRoot() { return snapshot().root; }

std::string hostPath(std::string_view absolutePath) {
  if (absolutePath == "/dev/null") return std::string(absolutePath);
  return join(snapshot().root, absolutePath);
}

std::string velmFsPath(std::string_view relative) {
  return join(hostPath("/Library/Filesystems/Velm"), relative);
}

std::string configDir() { return velmFsPath("config"); }
std::string configPath(std::string_view name) { return join(configDir(), name); }
std::string drfsRootPath() { return snapshot().drfs; }
std::string sysfsPath(std::string_view relative) { return join(snapshot().sysfs, relative); }
std::string procfsPath(std::string_view relative) { return join(snapshot().procfs, relative); }

void resetPathsForTest() {
  std::scoped_lock lock(gMutex);
  roots() = load();
}

}  // namespace velm
