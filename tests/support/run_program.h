// Runs one of the built programs (build/bin/NAME) to its end, for tests of whole processes.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace velm::test {

struct ProgramResult {
  int status = -1;
  std::string out, err;
};

// The path of a built program.
std::string binaryPath(const std::string& name);
// The path of a file the build copied into the plugin's resources (build/lib/resources/NAME).
std::string resourcePath(const std::string& name);
// name: a built program's name, or a path (with a '/') of any other.
ProgramResult runProgram(const std::string& name, const std::vector<std::string>& args,
                         const std::string& input = {},
                         const std::map<std::string, std::string>& env = {});

}  // namespace velm::test
