#include "support/sim_process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/files.h"
#include "support/run_program.h"

extern char** environ;

namespace velm::test {

SimProcess::~SimProcess() { stop(); }

bool SimProcess::start(const std::string& name, const std::vector<std::string>& args,
                       const std::string& readyText,
                       const std::map<std::string, std::string>& env) {
  if (pid_ > 0) return false;
  std::map<std::string, std::string> vars;
  for (char** e = environ; *e; ++e) {
    std::string entry = *e;
    std::size_t eq = entry.find('=');
    if (eq != std::string::npos) vars[entry.substr(0, eq)] = entry.substr(eq + 1);
  }
  for (const auto& [k, v] : env) vars[k] = v;
  std::vector<std::string> envStrings;
  for (const auto& [k, v] : vars) envStrings.push_back(k + "=" + v);
  std::vector<std::string> argStrings = {name.find('/') == std::string::npos ? binaryPath(name) : name};
  argStrings.insert(argStrings.end(), args.begin(), args.end());
  std::vector<char*> argv, envp;
  for (std::string& a : argStrings) argv.push_back(a.data());
  argv.push_back(nullptr);
  for (std::string& e : envStrings) envp.push_back(e.data());
  envp.push_back(nullptr);

  int pipefd[2];
  if (::pipe2(pipefd, O_CLOEXEC) != 0) return false;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipefd[1], STDERR_FILENO);
  int rc = ::posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  ::close(pipefd[1]);
  {
    std::scoped_lock lock(mutex_);
    text_.clear();
    done_ = false;
  }
  if (rc != 0) {
    ::close(pipefd[0]);
    pid_ = -1;
    std::scoped_lock lock(mutex_);
    text_ = "spawn " + argStrings[0] + " failed: " + std::strerror(rc);
    return false;
  }
  errFd_ = pipefd[0];
  reader_ = std::thread([this] {
    char buf[4096];
    for (;;) {
      ssize_t n = ::read(errFd_, buf, sizeof buf);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      std::scoped_lock lock(mutex_);
      text_.append(buf, static_cast<std::size_t>(n));
      cv_.notify_all();
    }
    std::scoped_lock lock(mutex_);
    done_ = true;
    cv_.notify_all();
  });
  return readyText.empty() || waitForText(readyText);
}

bool SimProcess::waitForText(const std::string& text, std::chrono::milliseconds timeout) {
  std::unique_lock lock(mutex_);
  // A guard against a child that hangs, not a timing assertion.
  cv_.wait_for(lock, timeout, [&] { return done_ || text_.find(text) != std::string::npos; });
  return text_.find(text) != std::string::npos;
}

int SimProcess::stop() {
  int result = -1;
  if (pid_ > 0) {
    // Until it is reaped the pid cannot be reused, so these signals reach only our child.
    ::kill(pid_, SIGTERM);
    {
      std::unique_lock lock(mutex_);
      if (!cv_.wait_for(lock, std::chrono::seconds(10), [&] { return done_; }))
        ::kill(pid_, SIGKILL);
    }
    int status = 0;
    while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status))
      result = WEXITSTATUS(status);
    else if (WIFSIGNALED(status))
      result = 128 + WTERMSIG(status);
    pid_ = -1;
  }
  if (reader_.joinable()) reader_.join();
  if (errFd_ >= 0) ::close(errFd_);
  errFd_ = -1;
  return result;
}

std::string SimProcess::stderrText() {
  std::scoped_lock lock(mutex_);
  return text_;
}

const std::vector<std::string>& simToolNames() {
  static const std::vector<std::string> names = {"drlabel", "drversions", "drmkfs", "drfsck", "drupdatefs"};
  return names;
}

void installSimTools(const SandboxRoot& sandbox) {
  std::string bin = sandbox.path("/Library/Filesystems/Velm/bin");
  if (int err = makeDirectories(bin); err != 0) {
    ADD_FAILURE() << "cannot make " << bin << ": " << std::strerror(err);
    return;
  }
  for (const std::string& name : simToolNames()) {
    std::string link = bin + "/" + name;
    ::unlink(link.c_str());
    if (::symlink(binaryPath(name).c_str(), link.c_str()) != 0)
      ADD_FAILURE() << "cannot link " << link << ": " << std::strerror(errno);
  }
}

}  // namespace velm::test
