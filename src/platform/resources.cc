#include "platform/resources.h"

#include <dlfcn.h>
#include <limits.h>
#include <stdlib.h>

#include <cstdlib>

#include "platform/files.h"

namespace velm {
namespace {

int dummyAnchor;  // an address inside this program or plugin, for dladdr

}  // namespace

std::optional<std::string> resourcesDirectory() {
  if (const char* env = std::getenv("VELM_RESOURCES"); env && *env) {
    if (pathExists(env)) return std::string(env);
    return std::nullopt;
  }
  Dl_info info{};
  if (!::dladdr(&dummyAnchor, &info) || !info.dli_fname || !*info.dli_fname) return std::nullopt;
  char resolved[PATH_MAX];
  if (!::realpath(info.dli_fname, resolved)) return std::nullopt;
  std::string dir(resolved);
  dir.resize(dir.rfind('/') + 1);
  // Beside the plugin; for a program linked with the library, the plugin's folder of the build
  // tree or of the installation.
  for (const char* rel : {"resources", "../lib/resources", "../lib/adminhost/resources"}) {
    std::string candidate = dir + rel;
    if (pathExists(candidate)) return candidate;
  }
  return std::nullopt;
}

std::optional<std::string> resourcePath(std::string_view fileName) {
  auto dir = resourcesDirectory();
  if (!dir) return std::nullopt;
  std::string path = *dir + "/" + std::string(fileName);
  return pathExists(path) ? std::optional<std::string>(path) : std::nullopt;
}

std::optional<PropertyList> resourceTable(std::string_view fileName) {
  auto dir = resourcesDirectory();
  if (!dir) return std::nullopt;
  return readDictionaryFile(*dir + "/" + std::string(fileName));
}

}  // namespace velm
