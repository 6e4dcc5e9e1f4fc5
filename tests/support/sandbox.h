// A fresh sandbox root per test: VELM_ROOT points at a new directory that is removed afterwards.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

namespace velm::test {

class SandboxRoot {
 public:
  SandboxRoot();
  ~SandboxRoot();
  SandboxRoot(const SandboxRoot&) = delete;
  SandboxRoot& operator=(const SandboxRoot&) = delete;

  const std::string& root() const { return root_; }
  // root + absolutePath
  std::string path(std::string_view absolutePath) const;
  // Writes a file (making its directories) under the root; returns its full path.
  std::string write(std::string_view absolutePath, std::string_view content,
                    unsigned mode = 0644) const;
  std::string read(std::string_view absolutePath) const;
  bool exists(std::string_view absolutePath) const;
  // Every entry under the root, sorted, each as "<path>:<size>" (0 for directories): for tests
  // that must find nothing written.
  std::vector<std::string> listing() const;

 private:
  std::string root_;
  std::string savedRoot_;
  bool hadRoot_ = false;
};

// Fixture base: a sandbox root for every test.
class SandboxTest : public ::testing::Test {
 protected:
  SandboxRoot sandbox_;
};

}  // namespace velm::test
