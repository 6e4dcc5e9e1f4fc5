// Long tasks: the drupdatefs update after a volume change and the removal of dot files, each a
// child process the plugin starts and then knows only by its status file and the process table.
#include "volumes/long_tasks.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <iterator>
#include <map>
#include <mutex>

#include "adminhost/host_common.h"
#include "config/config_parser.h"
#include "core/velm_plugin.h"
#include "gateway/san_filesystem.h"
#include "model/plugin_status.h"
#include "platform/entry_name.h"
#include "platform/files.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "platform/resources.h"
#include "platform/unique_fd.h"
#include "volumes/command_support.h"

extern char** environ;

namespace velm {
namespace {

// Task description keys.
constexpr std::string_view kCurrentTask = "currentTask";
constexpr std::string_view kTaskType = "taskType";
constexpr std::string_view kPid = "pid";
constexpr std::string_view kProcessName = "processName";
// Status file keys.
constexpr std::string_view kMessage = "updateProgressionMessage";
constexpr std::string_view kStage = "updateProgressionStage";
constexpr std::string_view kStageCount = "updateProgressionStageCount";
constexpr std::string_view kStageStatus = "updateProgressionStatus";
constexpr std::string_view kStatusPid = "updateProgressionPID";
constexpr std::string_view kErrorStatus = "updateErrorStatus";
// Response keys.
constexpr std::string_view kVolumeName = "volumeName";
constexpr std::string_view kError = "error";
constexpr std::string_view kProgressDone = "ProgressDone";
constexpr std::string_view kCurrentStep = "currentStep";
constexpr std::string_view kCurrentStepNumber = "currentStepNumber";
constexpr std::string_view kResultPid = "PID";
constexpr std::string_view kPercentComplete = "percentComplete";
constexpr std::string_view kErrorMessage = "errorMessage";
constexpr std::string_view kErrorCode = "errorCode";
constexpr std::string_view kStatus = "status";

constexpr std::string_view kUpdateType = "drupdatefs";
constexpr std::string_view kDotCleanType = "dotclean";
constexpr std::string_view kUpdateTool = "/Library/Filesystems/Velm/bin/drupdatefs";
constexpr std::string_view kDotCleanScript = "dotclean_wrapper.sh";

constexpr int kNotStarted = 22;

struct TaskFiles {
  std::string status, log, error;
};

std::optional<TaskFiles> filesForTaskType(std::string_view type, std::string_view volume) {
  std::string v(volume);
  if (type == kUpdateType)
    return TaskFiles{hostPath("/var/run/drupdatefs_status_" + v + ".plist"),
                     hostPath("/var/run/velm_drupdatefs_" + v + ".log"),
                     hostPath("/var/run/velm_drupdatefs_" + v + ".error")};
  if (type == kDotCleanType)
    return TaskFiles{hostPath("/var/run/dotclean_status_" + v + ".plist"),
                     hostPath("/var/run/velm_dotclean_" + v + ".log"),
                     hostPath("/var/run/velm_dotclean_" + v + ".error")};
  return std::nullopt;
}

// The files of a task about to start. /var/run is there on a machine; a fresh sandbox root may
// not have it yet.
TaskFiles filesForNewTask(std::string_view type, std::string_view volume) {
  makeDirectories(hostPath("/var/run"));
  return *filesForTaskType(type, volume);
}

// Children of launchAsyncTask.

std::mutex gInputsMutex;  // guards inputs(); a leaf lock
// The write end of each child's standard input. The tools expect it to stay open while they run,
// so it is closed only once the child is reaped.
std::map<pid_t, UniqueFd>& inputs() {
  static std::map<pid_t, UniqueFd> table;
  return table;
}

// Every descriptor we hand the child lives above 2, so its dup2 onto 0..2 always makes a fresh
// descriptor without close-on-exec, even when this process runs with a standard one closed.
bool moveAbove2(UniqueFd& fd) {
  if (fd.get() > 2) return true;
  int moved = ::fcntl(fd.get(), F_DUPFD_CLOEXEC, 3);
  if (moved < 0) return false;
  fd.reset(moved);
  return true;
}

UniqueFd openForChild(const std::string& path, int flags) {
  UniqueFd fd(::open(path.c_str(), flags | O_CLOEXEC, 0644));
  if (fd && !moveAbove2(fd)) fd.reset();
  return fd;
}

// Fills the pipe before the child starts: we still hold its read end, so a write can't raise
// SIGPIPE, and with the pipe non-blocking the plugin never waits for a child that doesn't read.
void feedInput(int fd, const std::vector<std::string>& lines, const std::string& path) {
  std::string text;
  for (const std::string& line : lines) {
    text += line;
    text += '\n';
  }
  if (text.empty()) return;
  if (text.size() > 65536)
    ::fcntl(fd, F_SETPIPE_SZ, static_cast<int>(std::min<size_t>(text.size(), 1 << 20)));
  std::string_view rest = text;
  while (!rest.empty()) {
    ssize_t n = ::write(fd, rest.data(), rest.size());
    if (n > 0)
      rest.remove_prefix(static_cast<size_t>(n));
    else if (n == 0 || errno != EINTR)
      break;
  }
  if (!rest.empty())
    NError("launchAsyncTask: '%@' took %zu of %zu bytes of its input", path,
           text.size() - rest.size(), text.size());
}

pid_t reapLocked(std::map<pid_t, UniqueFd>::iterator it) {
  int wstatus = 0;
  pid_t r;
  do {
    r = ::waitpid(it->first, &wstatus, WNOHANG);
  } while (r < 0 && errno == EINTR);
  if (r == 0) return 0;
  // Ended and reaped now, or reaped by someone else: either way it is no child of ours any more.
  inputs().erase(it);
  return r;
}

// A float of the value as a number object's floatValue gives it; out of range is infinite, not
// undefined.
float floatOf(const PropertyList* value) {
  std::optional<double> d = value ? value->doubleValue() : std::nullopt;
  if (!d) return 0;
  if (*d > FLT_MAX) return INFINITY;
  if (*d < -FLT_MAX) return -INFINITY;
  return static_cast<float>(*d);
}

// As intValue: the low 32 bits of the integer; 0 for no number.
int intOf(const PropertyList* value) {
  std::optional<std::int64_t> i = value ? value->int64Value() : std::nullopt;
  return i ? static_cast<int>(*i) : 0;
}

}  // namespace

pid_t launchAsyncTask(const std::string& path, const std::vector<std::string>& args,
                      const std::vector<std::string>* inputLines, const std::string* logPath,
                      const std::string* errorPath) {
  reapEndedAsyncTasks();
  UniqueFd devNull = openForChild("/dev/null", O_WRONLY);
  if (!devNull) {
    NError("launchAsyncTask: cannot open /dev/null: %s", std::strerror(errno));
    return -1;
  }
  UniqueFd logFd, errorFd;
  for (auto [given, fd] : {std::pair{logPath, &logFd}, std::pair{errorPath, &errorFd}}) {
    if (!given) continue;
    *fd = openForChild(*given, O_WRONLY | O_CREAT | O_TRUNC);
    if (!*fd) {
      NError("launchAsyncTask: cannot create '%@' for '%@': %s", *given, path,
             std::strerror(errno));
      return -1;
    }
  }
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) {
    NError("launchAsyncTask: cannot make a pipe for '%@': %s", path, std::strerror(errno));
    return -1;
  }
  UniqueFd inRead(fds[0]), inWrite(fds[1]);
  if (!moveAbove2(inRead) || !moveAbove2(inWrite)) return -1;
  ::fcntl(inWrite.get(), F_SETFL, ::fcntl(inWrite.get(), F_GETFL) | O_NONBLOCK);
  // Deliberate: the pipe stays open after the input; a tool that reads to its end waits for more.
  if (inputLines) feedInput(inWrite.get(), *inputLines, path);

  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_adddup2(&actions, inRead.get(), 0);
  ::posix_spawn_file_actions_adddup2(&actions, logFd ? logFd.get() : devNull.get(), 1);
  ::posix_spawn_file_actions_adddup2(&actions, errorFd ? errorFd.get() : devNull.get(), 2);
  ::posix_spawn_file_actions_addclosefrom_np(&actions, 3);
  // The host may ignore SIGPIPE or SIGCHLD (libraries do); a tool must not inherit that.
  posix_spawnattr_t attr;
  ::posix_spawnattr_init(&attr);
  sigset_t emptyMask, defaults;
  sigemptyset(&emptyMask);
  sigemptyset(&defaults);
  sigaddset(&defaults, SIGPIPE);
  sigaddset(&defaults, SIGCHLD);
  ::posix_spawnattr_setsigmask(&attr, &emptyMask);
  ::posix_spawnattr_setsigdefault(&attr, &defaults);
  ::posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

  std::vector<std::string> argStore;
  argStore.reserve(args.size() + 1);
  argStore.push_back(path);
  argStore.insert(argStore.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& a : argStore) argv.push_back(a.data());
  argv.push_back(nullptr);

  pid_t pid = -1;
  int rc = ::posix_spawn(&pid, path.c_str(), &actions, &attr, argv.data(), environ);
  ::posix_spawn_file_actions_destroy(&actions);
  ::posix_spawnattr_destroy(&attr);
  if (rc != 0) {
    NError("launchAsyncTask: cannot start '%@': %s", path, std::strerror(rc));
    return -1;
  }
  std::scoped_lock lock(gInputsMutex);
  inputs()[pid] = std::move(inWrite);
  return pid;
}

pid_t waitForAsyncTask(pid_t pid) {
  std::scoped_lock lock(gInputsMutex);
  // Only our own children: waitpid(-1 or 0) would reap any child, and a pid of another child
  // (a tool run to its end on another thread) would lose that runner its exit status.
  auto it = pid > 0 ? inputs().find(pid) : inputs().end();
  if (it == inputs().end()) return -1;
  return reapLocked(it);
}

size_t reapEndedAsyncTasks() {
  std::scoped_lock lock(gInputsMutex);
  size_t reaped = 0;
  for (auto it = inputs().begin(); it != inputs().end();) {
    auto next = std::next(it);
    if (reapLocked(it) != 0) ++reaped;
    it = next;
  }
  return reaped;
}

PropertyList longTaskDescription(std::string_view currentTask, std::string_view taskType, pid_t pid,
                                 std::string_view processName) {
  PropertyList task = PropertyList::dict();
  task.set(std::string(kCurrentTask), currentTask);
  task.set(std::string(kTaskType), taskType);
  task.set(std::string(kPid), pid);
  task.set(std::string(kProcessName), processName);
  return task;
}

pid_t update_volume_named(const std::string* volume) {
  if (!volume) {
    NError("update_volume_named: volumeName == nil!");
    return -1;
  }
  if (!checkEntryName(__func__, "the volume name", *volume)) return -1;
  NLog("%s: Running drupdatefs on volume '%@'", __func__, *volume);
  TaskFiles files = filesForNewTask(kUpdateType, *volume);
  // The tool reads the configuration from before the change through -c, so the -old copy must
  // stay until the task ends.
  std::vector<std::string> args = {"-c", configPath(*volume + ".cfg-old"), "-S", "-F", *volume};
  return launchAsyncTask(hostPath(kUpdateTool), args, nullptr, &files.log, &files.error);
}

void delete_volume_update_status_file(std::string_view volume) {
  if (!checkEntryName(__func__, "the volume name", volume)) return;
  std::string path = filesForTaskType(kUpdateType, volume)->status;
  if (!pathExists(path)) return;
  if (::unlink(path.c_str()) == 0)
    NLog("%s: Deleted update status file '%@'", __func__, path);
  else
    NError("%s: Could not delete update status file '%@'", __func__, path);
}

float UpdateStatus::percentComplete() const {
  return (static_cast<float>(stageNumber) * 100.0f + stageStatus) / stageCount;
}

std::optional<UpdateStatus> readUpdateStatus(std::string_view text) {
  PlistReadOptions options;
  options.requireDictionary = true;
  PlistReadResult read = readXmlPlist(text, options);
  if (!read || !read.value->isDict()) return std::nullopt;
  const PropertyList& file = *read.value;
  UpdateStatus s;
  auto kept = [&](std::string_view key) {
    const PropertyList* v = file.get(key);
    return v ? std::optional<PropertyList>(*v) : std::nullopt;
  };
  // The child is meant to write all six keys. One left out is not worth failing the request
  // over: passed-on values are left out of the answer, and numbers read as 0.
  s.message = kept(kMessage);
  s.stage = kept(kStage);
  s.pid = kept(kStatusPid);
  s.stageNumber = intOf(file.get(kStage));
  s.stageCount = floatOf(file.get(kStageCount));
  s.stageStatus = floatOf(file.get(kStageStatus));
  s.processId = intOf(file.get(kStatusPid));
  s.errorStatus = intOf(file.get(kErrorStatus));
  return s;
}

void VelmPlugin::noteLongTask(const PropertyList* description, std::string_view volume) {
  if (description)
    longTasks_.set(std::string(volume), *description);
  else
    longTasks_.erase(volume);
}

std::optional<PropertyList> VelmPlugin::getLongTask(std::string_view volume) const {
  const PropertyList* task = longTasks_.get(volume);
  return task ? std::optional<PropertyList>(*task) : std::nullopt;
}

size_t VelmPlugin::countLongTasks() const { return longTasks_.size(); }

bool VelmPlugin::checkForLongTask(std::string_view volume) {
  std::optional<PropertyList> task = getLongTask(volume);
  if (!task) return false;
  // Asking is also when an ended task is noticed and taken off the record.
  processUpdateStatus(*task, volume);
  return getLongTask(volume).has_value();
}

PropertyList VelmPlugin::processUpdateStatus(const PropertyList& description,
                                             std::string_view volume) {
  PropertyList result = PropertyList::dict();
  const PropertyList* type = description.get(kTaskType);
  const PropertyList* processNameValue = description.get(kProcessName);
  const std::string* processName = processNameValue ? processNameValue->asString() : nullptr;

  std::optional<TaskFiles> files;
  if (!type)
    files = filesForTaskType(kUpdateType, volume);
  else if (const std::string* t = type->asString())
    files = filesForTaskType(*t, volume);
  if (!files) {
    // Deliberate: the task stays on record, so it never ends by itself.
    NError("processUpdateStatus for unknown task type '%@' for volume '%@'", type, volume);
    result.set(std::string(kStatus), kNotStarted);
    return result;
  }

  reapEndedAsyncTasks();
  std::optional<std::string> text = readFile(files->status);
  std::optional<UpdateStatus> status = text ? readUpdateStatus(*text) : std::nullopt;
  if (!status) {
    // Deliberate: a child that died before its first status looks as if it had finished.
    noteLongTask(nullptr, volume);
    result.set(std::string(kProgressDone), kProgressDone);
    return result;
  }
  if (status->message) result.set(std::string(kCurrentStep), *status->message);
  if (status->stage) result.set(std::string(kCurrentStepNumber), *status->stage);
  if (status->pid) result.set(std::string(kResultPid), *status->pid);

  bool failed = false;
  int failure = status->errorStatus;
  if (failure != 0 && failure != 1) {
    failed = true;
  } else {
    float percent = status->percentComplete();
    // Deliberate: 100% ends the task whether or not the child still runs; infinity (a count of
    // 0) counts as done, and NaN goes on to the process test.
    if (!(percent >= 100.0f)) {
      // A reaped child, one that has ended, or a pid that is no child of ours (0 and negative
      // ones included) all mean the child is gone.
      if (waitForAsyncTask(status->processId) == 0 &&
          ec_check_pid_for_process_named(processName ? *processName : std::string(),
                                         status->processId) != -1) {
        result.set(std::string(kPercentComplete), static_cast<double>(percent));
        return result;
      }
      result.set(std::string(kErrorMessage), "Program Crashed");
      failure = -1;
      failed = true;
    }
  }

  if (failed) {
    // Put the configuration from before the change back.
    // Deliberate: for either task type; with no -old copy the volume is left without a .cfg.
    std::string cfg = configPath(std::string(volume) + ".cfg");
    ::unlink(cfg.c_str());
    if (std::optional<std::string> old = readFile(cfg + "-old")) {
      if (int e = writeFileAtomically(cfg, *old))
        NError("processUpdateStatus: could not restore '%@': %s", cfg, std::strerror(e));
    }
    NError("%@ for volume '%@' failed with exit status %d; see '%@' and '%@' for more information",
           processNameValue, volume, failure, files->log, files->error);
    result.set(std::string(kErrorCode), failure);
  }

  if (::unlink(files->status.c_str()) == 0)
    NLog("%s: Deleted update status file '%@'", __func__, files->status);
  else
    NError("%s: Could not delete update status file '%@'", __func__, files->status);
  noteLongTask(nullptr, volume);
  // Deliberate: 100 in the failure case too; clients look at errorCode first.
  result.set(std::string(kPercentComplete), 100.0);
  return result;
}

std::optional<PropertyList> VelmPlugin::readProgressWithRequest(const PropertyList& request) {
  PropertyList response = PropertyList::dict();
  const std::string* name = request.getString(kVolumeName);
  if (name) response.set(std::string(kVolumeName), *name);
  // Deliberate: the config file is asked first, so a task of a volume without one isn't shown.
  if (!name || !checkEntryName("readProgress", "the volume name", *name) ||
      !SANConfigParser::configFileExistsForVolume(*name)) {
    response.set(std::string(kError), "Volume does not exist");
    return response;
  }
  std::optional<PropertyList> task = getLongTask(*name);
  if (!task) {
    response.set(std::string(kProgressDone), kProgressDone);
    return response;
  }
  if (const PropertyList* current = task->get(kCurrentTask))
    response.set(std::string(kCurrentTask), *current);
  PropertyList state = processUpdateStatus(*task, *name);
  for (auto& [key, value] : *state.asDict()) response.set(key, value);
  return response;
}

std::optional<PropertyList> VelmPlugin::runDotCleanWithRequest(const PropertyList& request) {
  auto answer = [](int status) {
    PropertyList response = PropertyList::dict();
    response.set(std::string(kStatus), status);
    return response;
  };
  const std::string* name = request.getString(kVolumeName);
  if (name && !checkEntryName("runDotClean", "the volume name", *name)) return answer(kNotStarted);
  std::optional<std::string> mountPath =
      name ? SANFilesystem::localFilesystem().pathForVolume(*name) : std::nullopt;
  std::optional<std::string> script = resourcePath(kDotCleanScript);

  if (name && refuseForLongTask(*this, "runDotClean", *name)) return answer(kStatusLongTaskRunning);
  if (!mountPath) {
    NError("%s: No mount path found for volume '%@'", __func__,
           name ? PropertyList(*name) : PropertyList());
    return answer(kNotStarted);
  }
  NLog("%s: Running dot_clean on volume '%@' path '%@'", __func__, *name, *mountPath);
  TaskFiles files = filesForNewTask(kDotCleanType, *name);
  pid_t pid = -1;
  if (script)
    pid = launchAsyncTask(*script, {*name, *mountPath}, nullptr, &files.log, &files.error);
  NLog("%s: dot_clean started '%@' (pid = %d)", __func__, *name, pid);
  if (pid == -1) {
    NLog("%s: error launching task for volume '%@'", __func__, *name);
    return answer(kNotStarted);
  }
  // A script runs as /bin/sh with its path as an argument, so its process is called "sh".
  PropertyList task = longTaskDescription("dot_clean", kDotCleanType, pid, "sh");
  noteLongTask(&task, *name);
  return answer(0);
}

}  // namespace velm
