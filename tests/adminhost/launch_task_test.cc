#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "adminhost/host_common.h"
#include "platform/process.h"
#include "support/sandbox.h"

namespace velm {
namespace {

class LaunchTaskTest : public test::SandboxTest {
 protected:
  // A small shell script in the sandbox; returns its path.
  std::string script(std::string_view name, std::string_view body) {
    return sandbox_.write(std::string("/bin/") + std::string(name), "#!/bin/sh\n" + std::string(body) + "\n",
                          0755);
  }
};

TEST_F(LaunchTaskTest, ReportsExitCodesAndBothStreams) {
  std::string tool = script("tool", "echo out; echo err >&2; exit 3");
  LaunchResult r = launch_task(tool, {});
  EXPECT_EQ(r.status, 3);
  EXPECT_EQ(r.output, "out\n");
  EXPECT_EQ(r.error, "err\n");
  EXPECT_EQ(launch_task(script("ok", "exit 0"), {}).status, 0);
}

TEST_F(LaunchTaskTest, KilledChildReportsSignalPlus128) {
  LaunchResult r = launch_task(script("killer", "echo before; kill -TERM $$; echo after"), {});
  EXPECT_EQ(r.status, 128 + SIGTERM);
  EXPECT_EQ(r.output, "before\n");
}

TEST_F(LaunchTaskTest, ArgumentsArePassedVerbatimWithoutAShell) {
  std::string tool = script("args", "for a in \"$@\"; do printf '[%s]' \"$a\"; done; printf '%s' \"$0\"");
  LaunchResult r = launch_task(tool, {"a b", "$HOME", "", "*"});
  EXPECT_EQ(r.output, "[a b][$HOME][][*]" + tool);
}

TEST_F(LaunchTaskTest, MissingOrNonExecutableProgramIsMinusOne) {
  LaunchResult missing = launch_task(sandbox_.path("/bin/none"), {"x"});
  EXPECT_EQ(missing.status, -1);
  EXPECT_TRUE(missing.output.empty());
  EXPECT_EQ(runProcess(sandbox_.path("/bin/none"), {}).spawnError, ENOENT);

  std::string plain = sandbox_.write("/bin/plain", "#!/bin/sh\nexit 0\n", 0644);
  EXPECT_EQ(launch_task(plain, {}).status, -1);
}

// A runner that drains stdout before stderr deadlocks here: the child fills the stderr pipe first.
TEST_F(LaunchTaskTest, LargeOutputOnBothStreamsDoesNotDeadlock) {
  std::string tool = script("big", "yes e | head -c 1048576 >&2; yes o | head -c 1048576");
  LaunchResult r = launch_task(tool, {});
  EXPECT_EQ(r.status, 0);
  ASSERT_EQ(r.error.size(), 1048576u);
  ASSERT_EQ(r.output.size(), 1048576u);
  EXPECT_EQ(r.error.substr(0, 4), "e\ne\n");
  EXPECT_EQ(r.output.substr(r.output.size() - 4), "o\no\n");
}

// A runner that writes all input before reading deadlocks here: cat echoes as it reads.
TEST_F(LaunchTaskTest, FeedsLargeInputWhileReading) {
  std::string input;
  for (int i = 0; input.size() < 3 * 1048576; ++i) input += "line " + std::to_string(i) + "\n";
  LaunchResult r = launch_task_with_input(script("echo", "cat; cat >&2 </dev/null; echo done >&2"), {}, input);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.output, input);
  EXPECT_EQ(r.error, "done\n");
}

TEST_F(LaunchTaskTest, ChildThatIgnoresInputLeavesNoSigpipeBehind) {
  std::string input(4 * 1048576, 'x');
  LaunchResult r = launch_task_with_input(script("deaf", "exec 0<&-; echo bye"), {}, input);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.output, "bye\n");
  sigset_t pending, mask;
  sigemptyset(&pending);
  sigpending(&pending);
  EXPECT_FALSE(sigismember(&pending, SIGPIPE));
  pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  EXPECT_FALSE(sigismember(&mask, SIGPIPE));
}

TEST_F(LaunchTaskTest, PasswordOnStdinArrivesWithNewline) {
  LaunchResult r = launch_task_with_input(script("read", "read p; printf '<%s>' \"$p\""), {}, "s3cret\n");
  EXPECT_EQ(r.output, "<s3cret>");
}

TEST_F(LaunchTaskTest, EnvironmentOverridesAddToInheritedOnes) {
  ::setenv("VELM_TEST_INHERITED", "kept", 1);
  ::setenv("VELM_TEST_REPLACED", "old", 1);
  std::string tool = script("env", "printf '%s,%s,%s' \"$VELM_TEST_INHERITED\" \"$VELM_TEST_REPLACED\" \"$SMTPHOST\"");
  LaunchResult r = launch_task(tool, {}, {{"VELM_TEST_REPLACED", "new"}, {"SMTPHOST", "relay.example"}});
  EXPECT_EQ(r.output, "kept,new,relay.example");
  ::unsetenv("VELM_TEST_INHERITED");
  ::unsetenv("VELM_TEST_REPLACED");
}

TEST_F(LaunchTaskTest, ChildGetsOnlyStandardDescriptors) {
  int fd = ::open("/dev/null", O_RDONLY);  // without close-on-exec on purpose
  ASSERT_GE(fd, 0);
  ASSERT_EQ(::dup2(fd, 9), 9);
  LaunchResult r = launch_task(script("fds", "if (: <&9) 2>/dev/null; then echo open; else echo closed; fi"), {});
  EXPECT_EQ(r.output, "closed\n");
  ::close(9);
  ::close(fd);
}

// Libraries in the host set SIGPIPE to ignored; a tool must still die of a broken pipe.
TEST_F(LaunchTaskTest, ChildStartsWithDefaultSigpipe) {
  struct sigaction ignore {}, old {};
  ignore.sa_handler = SIG_IGN;
  sigaction(SIGPIPE, &ignore, &old);
  LaunchResult r = launch_task(script("pipe", "kill -PIPE $$; echo survived"), {});
  sigaction(SIGPIPE, &old, nullptr);
  EXPECT_EQ(r.status, 128 + SIGPIPE);
  EXPECT_EQ(r.output, "");
}

}  // namespace
}  // namespace velm
