#include "support/sandbox.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/files.h"
#include "platform/paths.h"

namespace velm::test {

SandboxRoot::SandboxRoot() {
  std::string tmpl = ::testing::TempDir() + "velmXXXXXX";
  if (!::mkdtemp(tmpl.data())) std::abort();
  root_ = tmpl;
  if (const char* old = std::getenv("VELM_ROOT")) {
    hadRoot_ = true;
    savedRoot_ = old;
  }
  ::setenv("VELM_ROOT", root_.c_str(), 1);
  ::unsetenv("DRFSROOT");
  resetPathsForTest();
}

SandboxRoot::~SandboxRoot() {
  std::error_code ec;
  std::filesystem::remove_all(root_, ec);
  if (hadRoot_)
    ::setenv("VELM_ROOT", savedRoot_.c_str(), 1);
  else
    ::unsetenv("VELM_ROOT");
  resetPathsForTest();
}

std::string SandboxRoot::path(std::string_view absolutePath) const {
  return root_ + std::string(absolutePath);
}

std::string SandboxRoot::write(std::string_view absolutePath, std::string_view content,
                               unsigned mode) const {
  std::string p = path(absolutePath);
  std::filesystem::create_directories(std::filesystem::path(p).parent_path());
  std::ofstream(p, std::ios::binary | std::ios::trunc) << content;
  ::chmod(p.c_str(), mode);
  return p;
}

std::string SandboxRoot::read(std::string_view absolutePath) const {
  return readFile(path(absolutePath)).value_or("");
}

bool SandboxRoot::exists(std::string_view absolutePath) const {
  return pathExists(path(absolutePath));
}

std::vector<std::string> SandboxRoot::listing() const {
  std::vector<std::string> entries;
  std::error_code ec;
  for (auto& e : std::filesystem::recursive_directory_iterator(root_, ec)) {
    std::uintmax_t size = e.is_regular_file() ? e.file_size() : 0;
    entries.push_back(e.path().string() + ":" + std::to_string(size));
  }
  std::sort(entries.begin(), entries.end());
  return entries;
}

}  // namespace velm::test
