#include "support/log_capture.h"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/files.h"
#include "platform/log.h"
#include "platform/paths.h"

namespace velm::test {

LogCapture::LogCapture(bool enableNLog) {
  std::string tmpl = ::testing::TempDir() + "velmlogXXXXXX";
  int fd = ::mkstemp(tmpl.data());
  if (fd >= 0) ::close(fd);
  path_ = tmpl;
  ::setenv("VELM_LOG", path_.c_str(), 1);
  std::string enable = hostPath("/var/adminhostd/enable_velm_logging");
  if (enableNLog) {
    std::filesystem::create_directories(std::filesystem::path(enable).parent_path());
    std::ofstream(enable).flush();
  } else {
    std::filesystem::remove(enable);
  }
  resetLoggingForTest();
}

LogCapture::~LogCapture() {
  ::unsetenv("VELM_LOG");
  std::filesystem::remove(path_);
  resetLoggingForTest();
}

std::vector<std::string> LogCapture::lines() const {
  std::vector<std::string> out;
  std::istringstream in(readFile(path_).value_or(""));
  for (std::string line; std::getline(in, line);) out.push_back(line);
  return out;
}

std::vector<std::string> LogCapture::messages() const {
  std::vector<std::string> out;
  for (const std::string& line : lines()) {
    size_t close = line.find("] ");
    out.push_back(line.rfind("velm: [", 0) == 0 && close != std::string::npos ? line.substr(close + 2) : line);
  }
  return out;
}

size_t LogCapture::count(std::string_view text) const {
  size_t n = 0;
  for (const std::string& m : messages()) n += m == text;
  return n;
}

bool LogCapture::contains(std::string_view fragment) const {
  for (const std::string& line : lines())
    if (line.find(fragment) != std::string::npos) return true;
  return false;
}

// In place: the logger keeps the file open.
void LogCapture::clear() { std::filesystem::resize_file(path_, 0); }

}  // namespace velm::test
