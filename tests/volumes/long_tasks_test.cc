#include "volumes/long_tasks.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "core/velm_plugin.h"
#include "gateway/san_filesystem.h"
#include "platform/files.h"
#include "platform/paths.h"
#include "platform/process.h"
#include "support/log_capture.h"
#include "support/sandbox.h"

namespace velm {
namespace {

namespace fs = std::filesystem;

// Waits up to ten seconds for a child to end, leaving it for its owner to reap.
bool waitForEnd(pid_t pid) {
  int fd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
  if (fd < 0) return false;
  pollfd p{fd, POLLIN, 0};
  int ready = ::poll(&p, 1, 10000);
  ::close(fd);
  return ready == 1;
}

size_t openDescriptors() {
  return static_cast<size_t>(std::distance(fs::directory_iterator("/proc/self/fd"), {}));
}

PropertyList statusDict(int stage, int count, double status, int pid, int error) {
  PropertyList d = PropertyList::dict();
  d.set("updateProgressionMessage", "Checking");
  d.set("updateProgressionStage", stage);
  d.set("updateProgressionStageCount", count);
  d.set("updateProgressionStatus", status);
  d.set("updateProgressionPID", pid);
  d.set("updateErrorStatus", error);
  return d;
}

PropertyList dictOf(std::string key, PropertyList value) {
  PropertyList d = PropertyList::dict();
  d.set(std::move(key), std::move(value));
  return d;
}

PropertyList taskOf(std::string_view type, std::string_view process) {
  PropertyList t = PropertyList::dict();
  t.set("currentTask", "Updating volume");
  t.set("taskType", type);
  t.set("pid", 1);
  t.set("processName", process);
  return t;
}

class LongTasksTest : public test::SandboxTest {
 protected:
  void SetUp() override {
    SANFilesystem::resetForTest();
    makeDirectories(sandbox_.path("/var/run"));
    makeDirectories(configDir());
  }
  void TearDown() override {
    // Only children still ours: a reaped pid may already belong to someone else.
    for (pid_t pid : children_) {
      if (waitForAsyncTask(pid) == 0) {
        ::kill(pid, SIGKILL);
        waitForEnd(pid);
      }
    }
    reapEndedAsyncTasks();
    SANFilesystem::resetForTest();
    ::unsetenv("VELM_PROCFS");
    ::unsetenv("VELM_RESOURCES");
    resetPathsForTest();
  }

  pid_t startChild(const std::string& body, const std::vector<std::string>& args = {},
                   const std::vector<std::string>* input = nullptr,
                   const std::string* logPath = nullptr, const std::string* errorPath = nullptr) {
    std::string script = sandbox_.write("/child" + std::to_string(children_.size()) + ".sh",
                                        "#!/bin/sh\n" + body, 0755);
    pid_t pid = launchAsyncTask(script, args, input, logPath, errorPath);
    if (pid > 0) children_.push_back(pid);
    return pid;
  }
  // Runs until killed: it waits on its standard input, which stays open.
  pid_t startWaitingChild() { return startChild("read line\n"); }

  std::string statusPath(std::string_view type = "drupdatefs") {
    return sandbox_.path("/var/run/" + std::string(type) + "_status_V.plist");
  }
  void writeStatus(const PropertyList& status, std::string_view type = "drupdatefs") {
    ASSERT_EQ(writeXmlPlistFile(statusPath(type), status), 0);
  }
  PropertyList process(std::string_view type = "drupdatefs", std::string_view name = "sh") {
    PropertyList task = taskOf(type, name);
    plugin_.noteLongTask(&task, "V");
    return plugin_.processUpdateStatus(task, "V");
  }
  void writeConfigs(std::optional<std::string> old) {
    sandbox_.write("/Library/Filesystems/Velm/config/V.cfg", "new\n");
    if (old) sandbox_.write("/Library/Filesystems/Velm/config/V.cfg-old", *old);
  }
  std::optional<PropertyList> run(std::string_view command, std::optional<PropertyList> volume) {
    PropertyList r = PropertyList::dict();
    r.set("command", command);
    if (volume) r.set("volumeName", *volume);
    PropertyList context = PropertyList::dict();
    std::int32_t fd = -1;
    return plugin_.doProcessInputWithRequest(r, &context, &fd);
  }
  void mountV() {
    fs::create_directories(sandbox_.path("/Volumes/V"));
    sandbox_.write("/proc/self/mountinfo", "1001 23 0:77 / " + sandbox_.path("/Volumes/V") +
                                               " rw,relatime shared:9 - qufs V rw\n");
    ::setenv("VELM_PROCFS", sandbox_.path("/proc").c_str(), 1);
    ::setenv("VELM_RESOURCES", VELM_SOURCE_DIR "/resources", 1);
    resetPathsForTest();
  }

  test::LogCapture log_;
  VelmPlugin plugin_;
  std::vector<pid_t> children_;
};

TEST(UpdateStatusTest, PercentageIsFloatArithmeticOnTheStage) {
  struct Row {
    int stage, count;
    double status, percent;
  } rows[] = {{1, 4, 50, 37.5}, {3, 4, 100, 100}, {0, 1, 12.5, 12.5}, {0, 0, 5, INFINITY}};
  for (const Row& r : rows) {
    auto s = readUpdateStatus(writeXmlPlist(statusDict(r.stage, r.count, r.status, 7, 0)));
    ASSERT_TRUE(s);
    EXPECT_EQ(s->percentComplete(), static_cast<float>(r.percent)) << r.stage << "/" << r.count;
  }
  EXPECT_TRUE(
      std::isnan(readUpdateStatus(writeXmlPlist(statusDict(0, 0, 0, 7, 0)))->percentComplete()));
}

TEST(UpdateStatusTest, OnlyADictionaryIsAStatusAndMissingKeysReadAsNothing) {
  EXPECT_FALSE(readUpdateStatus(""));
  EXPECT_FALSE(readUpdateStatus("<plist version=\"1.0\"><array/></plist>"));
  EXPECT_FALSE(readUpdateStatus("<plist version=\"1.0\"><dict><key>a</key></plist>"));
  auto s = readUpdateStatus(
      "<plist version=\"1.0\"><dict><key>updateErrorStatus</key>"
      "<string>-1</string><key>updateProgressionStage</key><real>2.9</real>"
      "</dict></plist>");
  ASSERT_TRUE(s);
  EXPECT_FALSE(s->message);
  EXPECT_FALSE(s->pid);
  EXPECT_EQ(*s->stage, PropertyList(2.9));
  EXPECT_EQ(s->stageNumber, 2);
  EXPECT_EQ(s->errorStatus, 0);  // a string is no number
}

TEST_F(LongTasksTest, RunningChildReportsItsPercentageAndStaysOnRecord) {
  pid_t child = startWaitingChild();
  ASSERT_GT(child, 0);
  for (int error : {0, 1}) {  // 1 is no failure
    writeStatus(statusDict(1, 4, 50, child, error));
    PropertyList r = process();
    EXPECT_EQ(*r.get("percentComplete"), PropertyList(37.5));
    EXPECT_EQ(*r.getString("currentStep"), "Checking");
    EXPECT_EQ(*r.get("currentStepNumber"), PropertyList(1));
    EXPECT_EQ(*r.get("PID"), PropertyList(child));
    EXPECT_FALSE(r.get("errorCode"));
    EXPECT_TRUE(plugin_.checkForLongTask("V"));
  }
  EXPECT_EQ(plugin_.countLongTasks(), 1u);
  EXPECT_TRUE(sandbox_.exists("/var/run/drupdatefs_status_V.plist"));
  // A running child of another name is as good as gone.
  PropertyList r = process("drupdatefs", "drupdatefs");
  EXPECT_EQ(*r.getString("errorMessage"), "Program Crashed");
}

TEST_F(LongTasksTest, FullLastStageEndsTheTaskWhileTheChildStillRuns) {
  pid_t child = startWaitingChild();
  writeStatus(statusDict(3, 4, 100, child, 0));
  PropertyList r = process();
  EXPECT_EQ(*r.get("percentComplete"), PropertyList(100.0));
  EXPECT_FALSE(r.get("errorCode"));
  EXPECT_FALSE(plugin_.getLongTask("V"));
  EXPECT_FALSE(sandbox_.exists("/var/run/drupdatefs_status_V.plist"));
  EXPECT_EQ(log_.count("processUpdateStatus: Deleted update status file '" + statusPath() + "'"),
            1u);
  EXPECT_EQ(waitForAsyncTask(child), 0);
}

TEST_F(LongTasksTest, ErrorStatusPutsTheOldConfigurationBackForEitherType) {
  writeConfigs("old\n");
  writeStatus(statusDict(1, 4, 50, 0, -1));
  PropertyList r = process("drupdatefs", "drupdatefs");
  EXPECT_EQ(*r.get("errorCode"), PropertyList(-1));
  EXPECT_EQ(*r.get("percentComplete"), PropertyList(100.0));
  EXPECT_FALSE(r.get("errorMessage"));
  EXPECT_EQ(sandbox_.read("/Library/Filesystems/Velm/config/V.cfg"), "old\n");
  EXPECT_TRUE(sandbox_.exists("/Library/Filesystems/Velm/config/V.cfg-old"));
  EXPECT_FALSE(plugin_.getLongTask("V"));
  EXPECT_EQ(
      log_.count("ERROR: drupdatefs for volume 'V' failed with exit status -1; see '" +
                 sandbox_.path("/var/run/velm_drupdatefs_V.log") + "' and '" +
                 sandbox_.path("/var/run/velm_drupdatefs_V.error") + "' for more information"),
      1u);

  // A failed dot_clean does the same, and without an -old copy leaves no .cfg at all.
  std::filesystem::remove(configPath("V.cfg-old"));
  writeStatus(statusDict(0, 1, 100, 0, 22), "dotclean");
  EXPECT_EQ(*process("dotclean").get("errorCode"), PropertyList(22));
  EXPECT_FALSE(sandbox_.exists("/Library/Filesystems/Velm/config/V.cfg"));
  EXPECT_FALSE(sandbox_.exists("/var/run/dotclean_status_V.plist"));
}

TEST_F(LongTasksTest, UnknownTaskTypeNeverEnds) {
  PropertyList task = taskOf("defrag", "sh");
  plugin_.noteLongTask(&task, "V");
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(plugin_.processUpdateStatus(task, "V"), dictOf("status", 22));
    EXPECT_TRUE(plugin_.checkForLongTask("V"));
  }
  EXPECT_EQ(log_.count("ERROR: processUpdateStatus for unknown task type 'defrag' for volume 'V'"),
            4u);
}

TEST_F(LongTasksTest, MissingOrUnreadableStatusFileLooksFinished) {
  for (const char* text : {"", "<plist version=\"1.0\"><dict>"}) {
    if (*text) sandbox_.write("/var/run/drupdatefs_status_V.plist", text);
    PropertyList r = process();
    EXPECT_EQ(r, dictOf("ProgressDone", "ProgressDone"));
    EXPECT_FALSE(plugin_.checkForLongTask("V"));
  }
}

TEST_F(LongTasksTest, ChildGoneShortOfTheEndOrNotOursIsReportedCrashed) {
  writeConfigs("old\n");
  pid_t gone = startChild("exit 0\n");
  ASSERT_TRUE(waitForEnd(gone));
  writeStatus(statusDict(1, 4, 50, gone, 0));
  PropertyList r = process();
  EXPECT_EQ(*r.getString("errorMessage"), "Program Crashed");
  EXPECT_EQ(*r.get("errorCode"), PropertyList(-1));
  EXPECT_EQ(*r.get("percentComplete"), PropertyList(100.0));
  EXPECT_EQ(sandbox_.read("/Library/Filesystems/Velm/config/V.cfg"), "old\n");
  EXPECT_EQ(waitForAsyncTask(gone), -1);  // reaped on the way
  // Pids that are no child of ours: nothing of ours is waited for (waitpid(0 or -1) would).
  pid_t child = startWaitingChild();
  for (int pid : {0, -1, 1}) {
    writeStatus(statusDict(1, 4, 50, pid, 0));
    EXPECT_EQ(*process().getString("errorMessage"), "Program Crashed") << pid;
  }
  EXPECT_EQ(waitForAsyncTask(child), 0);
}

TEST_F(LongTasksTest, ZeroStageCountEndsOrGoesOnToTheProcessTest) {
  pid_t child = startWaitingChild();
  writeStatus(statusDict(0, 0, 0, child, 0));  // NaN
  EXPECT_TRUE(std::isnan(*process().get("percentComplete")->doubleValue()));
  EXPECT_TRUE(plugin_.getLongTask("V"));
  writeStatus(statusDict(0, 0, 5, child, 0));  // infinity
  EXPECT_EQ(*process().get("percentComplete"), PropertyList(100.0));
  EXPECT_FALSE(plugin_.getLongTask("V"));
}

TEST_F(LongTasksTest, StatusWithoutPassedOnKeysLeavesThemOut) {
  sandbox_.write(
      "/var/run/drupdatefs_status_V.plist",
      "<plist version=\"1.0\"><dict><key>updateProgressionStageCount</key><integer>1"
      "</integer><key>updateProgressionStatus</key><integer>100</integer></dict></plist>");
  EXPECT_EQ(process(), dictOf("percentComplete", 100.0));
}

TEST_F(LongTasksTest, ReadProgressAnswersByConfigThenTask) {
  PropertyList task = taskOf("drupdatefs", "sh");
  plugin_.noteLongTask(&task, "V");
  std::optional<PropertyList> r = run("readProgress", PropertyList("V"));
  EXPECT_EQ(*r->getString("error"), "Volume does not exist");  // a task on record changes nothing
  EXPECT_EQ(*r->getString("volumeName"), "V");
  r = run("readProgress", PropertyList("../V"));
  EXPECT_EQ(*r->getString("error"), "Volume does not exist");
  EXPECT_TRUE(log_.contains("ERROR: readProgress: refusing the volume name '../V'"));
  for (std::optional<PropertyList> bad :
       {std::optional<PropertyList>(), std::optional(PropertyList(3))}) {
    r = run("readProgress", bad);
    EXPECT_EQ(*r->getString("error"), "Volume does not exist");
    EXPECT_FALSE(r->get("volumeName"));
  }

  writeConfigs(std::nullopt);
  pid_t child = startWaitingChild();
  writeStatus(statusDict(1, 4, 50, child, 0));
  r = run("readProgress", PropertyList("V"));
  EXPECT_EQ(*r->getString("currentTask"), "Updating volume");
  EXPECT_EQ(*r->get("percentComplete"), PropertyList(37.5));
  plugin_.noteLongTask(nullptr, "V");
  r = run("readProgress", PropertyList("V"));
  EXPECT_EQ(*r->getString("ProgressDone"), "ProgressDone");
  EXPECT_FALSE(r->get("currentTask"));
}

TEST_F(LongTasksTest, LaunchFeedsInputAndFillsLogAndErrorFilesOnly) {
  std::string logPath = sandbox_.write("/var/run/t.log", "stale log\n");
  std::string errorPath = sandbox_.path("/var/run/t.error");
  // A descriptor the child must not get, even without close-on-exec.
  int pipeFds[2];
  ASSERT_EQ(::pipe(pipeFds), 0);
  int stray = 3;
  while (stray < 10 && ::fcntl(stray, F_GETFD) != -1) ++stray;
  ASSERT_LT(stray, 10);  // the shell keeps its own descriptors at 10 and up
  ASSERT_EQ(::dup2(pipeFds[0], stray), stray);
  size_t before = openDescriptors();
  std::vector<std::string> input = {"first line", "zweite Zeile"};
  pid_t child = startChild(
      "read a; read b; echo \"$1:$a|$b\"; echo oops >&2\n"
      "if [ -e /proc/$$/fd/$2 ]; then echo leaked; fi\nexit 3\n",
      {"arg", std::to_string(stray)}, &input, &logPath, &errorPath);
  ASSERT_GT(child, 0);
  ASSERT_TRUE(waitForEnd(child));
  EXPECT_EQ(sandbox_.read("/var/run/t.log"), "arg:first line|zweite Zeile\n");
  EXPECT_EQ(sandbox_.read("/var/run/t.error"), "oops\n");
  EXPECT_EQ(openDescriptors(), before + 1);  // the input pipe, until the child is reaped
  EXPECT_EQ(waitForAsyncTask(child), child);
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_EQ(waitForAsyncTask(child), -1);
  for (int fd : {pipeFds[0], pipeFds[1], stray}) ::close(fd);
}

TEST_F(LongTasksTest, LaunchFailuresAnswerMinusOne) {
  EXPECT_EQ(launchAsyncTask(sandbox_.path("/missing"), {}, nullptr, nullptr, nullptr), -1);
  std::string badLog = sandbox_.path("/no/such/dir/x.log");
  EXPECT_EQ(startChild("exit 0\n", {}, nullptr, &badLog), -1);
  EXPECT_EQ(update_volume_named(nullptr), -1);
  EXPECT_EQ(log_.count("ERROR: update_volume_named: volumeName == nil!"), 1u);
}

TEST_F(LongTasksTest, UpdateRunsTheToolAgainstTheOldConfiguration) {
  sandbox_.write("/Library/Filesystems/Velm/bin/drupdatefs",
                 "#!/bin/sh\necho \"$@\"\necho trouble >&2\n", 0755);
  std::string volume = "V";
  pid_t pid = update_volume_named(&volume);
  ASSERT_GT(pid, 0);
  children_.push_back(pid);
  ASSERT_TRUE(waitForEnd(pid));
  EXPECT_EQ(sandbox_.read("/var/run/velm_drupdatefs_V.log"),
            "-c " + configPath("V.cfg-old") + " -S -F V\n");
  EXPECT_EQ(sandbox_.read("/var/run/velm_drupdatefs_V.error"), "trouble\n");
  EXPECT_EQ(log_.count("update_volume_named: Running drupdatefs on volume 'V'"), 1u);
}

TEST_F(LongTasksTest, DeletingTheUpdateStatusFileIsLogged) {
  writeStatus(statusDict(0, 1, 0, 1, 0));
  delete_volume_update_status_file("V");
  delete_volume_update_status_file("V");
  EXPECT_FALSE(sandbox_.exists("/var/run/drupdatefs_status_V.plist"));
  EXPECT_EQ(log_.count("delete_volume_update_status_file: Deleted update status file '" +
                       statusPath() + "'"),
            1u);
}

TEST_F(LongTasksTest, DotCleanRemovesOnlyDotFilesAndThenReportsDone) {
  mountV();
  writeConfigs(std::nullopt);
  for (const char* f : {"/Volumes/V/._a", "/Volumes/V/.DS_Store", "/Volumes/V/d/._b",
                        "/Volumes/V/d/e/.DS_Store", "/Volumes/V/keep", "/Volumes/V/d/.DS_Store.txt",
                        "/Volumes/V/d/x._y", "/outside/._c", "/outside/.DS_Store"})
    sandbox_.write(f, "x");
  fs::create_directories(sandbox_.path("/Volumes/V/._dir"));
  fs::create_symlink(sandbox_.path("/outside"), sandbox_.path("/Volumes/V/d/link"));
  fs::create_symlink(sandbox_.path("/outside/._c"), sandbox_.path("/Volumes/V/._link"));

  EXPECT_EQ(*run("runDotClean", PropertyList("V"))->get("status"), PropertyList(0));
  std::optional<PropertyList> task = plugin_.getLongTask("V");
  ASSERT_TRUE(task);
  EXPECT_EQ(*task->getString("currentTask"), "dot_clean");
  EXPECT_EQ(*task->getString("taskType"), "dotclean");
  EXPECT_EQ(*task->getString("processName"), "sh");
  pid_t pid = static_cast<pid_t>(*task->get("pid")->int64Value());
  children_.push_back(pid);
  EXPECT_TRUE(log_.contains("runDotCleanWithRequest: Running dot_clean on volume 'V' path '" +
                            sandbox_.path("/Volumes/V") + "'"));
  ::unsetenv("VELM_PROCFS");
  resetPathsForTest();
  ASSERT_TRUE(waitForEnd(pid));

  std::optional<PropertyList> r = run("readProgress", PropertyList("V"));
  EXPECT_EQ(*r->getString("currentTask"), "dot_clean");
  EXPECT_EQ(*r->getString("currentStep"), "Dot files removed");
  EXPECT_EQ(*r->get("percentComplete"), PropertyList(100.0));
  EXPECT_FALSE(r->get("errorCode"));
  EXPECT_EQ(*run("readProgress", PropertyList("V"))->getString("ProgressDone"), "ProgressDone");
  for (const char* gone :
       {"/Volumes/V/._a", "/Volumes/V/.DS_Store", "/Volumes/V/d/._b", "/Volumes/V/d/e/.DS_Store"})
    EXPECT_FALSE(sandbox_.exists(gone)) << gone;
  for (const char* kept :
       {"/Volumes/V/keep", "/Volumes/V/d/.DS_Store.txt", "/Volumes/V/d/x._y", "/Volumes/V/._dir",
        "/Volumes/V/._link", "/outside/._c", "/outside/.DS_Store"})
    EXPECT_TRUE(sandbox_.exists(kept)) << kept;
  EXPECT_EQ(sandbox_.read("/var/run/velm_dotclean_V.error"), "");
}

TEST_F(LongTasksTest, DotCleanIsRefusedWhileATaskRunsOrWithoutAMount) {
  mountV();
  pid_t child = startWaitingChild();
  // The process test reads the sandbox's process table: show it the real child.
  fs::create_directory_symlink("/proc/" + std::to_string(child),
                               sandbox_.path("/proc/" + std::to_string(child)));
  writeStatus(statusDict(1, 4, 50, child, 0));
  PropertyList task = taskOf("drupdatefs", "sh");
  plugin_.noteLongTask(&task, "V");
  EXPECT_EQ(*run("runDotClean", PropertyList("V"))->get("status"), PropertyList(100058));
  EXPECT_EQ(
      log_.count("ERROR: runDotClean: long-running operation already in progress for volume 'V'"),
      1u);
  EXPECT_EQ(*run("runDotClean", PropertyList("W"))->get("status"), PropertyList(22));
  EXPECT_EQ(log_.count("ERROR: runDotCleanWithRequest: No mount path found for volume 'W'"), 1u);
  EXPECT_EQ(*run("runDotClean", PropertyList(".."))->get("status"), PropertyList(22));
  EXPECT_EQ(*run("runDotClean", std::nullopt)->get("status"), PropertyList(22));

  plugin_.noteLongTask(nullptr, "V");
  ::setenv("VELM_RESOURCES", sandbox_.path("/Volumes").c_str(), 1);  // no script there
  EXPECT_EQ(*run("runDotClean", PropertyList("V"))->get("status"), PropertyList(22));
  EXPECT_EQ(log_.count("runDotCleanWithRequest: error launching task for volume 'V'"), 1u);
  EXPECT_FALSE(plugin_.getLongTask("V"));
}

TEST_F(LongTasksTest, DotCleanScriptRefusesWhatIsNotAVolume) {
  std::string script = VELM_SOURCE_DIR "/resources/dotclean_wrapper.sh";
  std::map<std::string, std::string> env = {{"VELM_ROOT", sandbox_.root()}};
  EXPECT_EQ(runProcess(script, {"V", "/"}, {}, env).status, 22);
  EXPECT_EQ(readUpdateStatus(sandbox_.read("/var/run/dotclean_status_V.plist"))->errorStatus, 22);
  EXPECT_EQ(runProcess(script, {"V", sandbox_.path("/none")}, {}, env).status, 22);
  for (const char* name : {"", "..", "a/b"}) {
    EXPECT_EQ(runProcess(script, {name, sandbox_.path("/var")}, {}, env).status, 22) << name;
  }
  EXPECT_FALSE(sandbox_.exists("/var/run/dotclean_status_a/b.plist"));
}

}  // namespace
}  // namespace velm
