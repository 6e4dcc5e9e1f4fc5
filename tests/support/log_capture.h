// Sends the plugin's log lines to a file for the life of a test, with NLog switched on or off.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

namespace velm::test {

class LogCapture {
 public:
  // enableNLog: create the enable_velm_logging file under VELM_ROOT first (the root must be set).
  explicit LogCapture(bool enableNLog = true);
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<std::string> lines() const;
  // Lines with the "velm: [pid/tid] " prefix taken off.
  std::vector<std::string> messages() const;
  // How many messages equal text exactly (after the prefix).
  size_t count(std::string_view text) const;
  bool contains(std::string_view fragment) const;
  void clear();

 private:
  std::string path_;
};

}  // namespace velm::test
