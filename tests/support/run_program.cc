#include "support/run_program.h"

#include <cstdlib>

#include "adminhost/host_common.h"

namespace velm::test {

namespace {

std::string binaryDir() {
  const char* dir = std::getenv("VELM_BINARY_DIR");
#ifdef VELM_BINARY_DIR
  if (!dir) dir = VELM_BINARY_DIR;
#endif
  return dir ? dir : "build";
}

}  // namespace

std::string binaryPath(const std::string& name) { return binaryDir() + "/bin/" + name; }

std::string resourcePath(const std::string& name) { return binaryDir() + "/lib/resources/" + name; }

ProgramResult runProgram(const std::string& name, const std::vector<std::string>& args,
                         const std::string& input, const std::map<std::string, std::string>& env) {
  LaunchResult r = launch_task_with_input(name.find('/') == std::string::npos ? binaryPath(name) : name, args,
                                          input, env);
  return {r.status, r.output, r.error};
}

}  // namespace velm::test
