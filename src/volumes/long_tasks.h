// Long tasks: work on a volume that outlives a request runs as a child process, known to the
// plugin by its status file under /var/run and by the process table.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "plist/plist.h"

namespace velm {

// Starts path with args, feeding each input line (with LF) to its standard input, which stays
// open; its output goes to logPath and its errors to errorPath (each made empty first; /dev/null
// when not given). The pid, or -1 when it could not be started (a log or error file that can't be
// created counts as such). Never blocks: input the pipe can't take at once is dropped, logged.
// The child is reaped later by waitForAsyncTask or reapEndedAsyncTasks.
pid_t launchAsyncTask(const std::string& path, const std::vector<std::string>& args,
                      const std::vector<std::string>* inputLines, const std::string* logPath,
                      const std::string* errorPath);
// waitpid(pid, WNOHANG) for a child of launchAsyncTask: 0 while it runs; pid once it has ended (it
// is reaped then and its input pipe closed); -1 for any other pid, which is left alone.
pid_t waitForAsyncTask(pid_t pid);
// Reaps every child of launchAsyncTask that has ended and closes its input pipe; how many.
size_t reapEndedAsyncTasks();

// A task's description as noteLongTask keeps it: currentTask, taskType, pid, processName.
PropertyList longTaskDescription(std::string_view currentTask, std::string_view taskType, pid_t pid,
                                 std::string_view processName);

// Runs drupdatefs on the volume against its <volume>.cfg-old; the pid, or -1 (also for a name
// that isn't a single entry name).
pid_t update_volume_named(const std::string* volume);
// Removes /var/run/drupdatefs_status_<volume>.plist when it exists.
void delete_volume_update_status_file(std::string_view volume);

// A status file as a task's child wrote it. The three values passed on to clients are kept as
// written, absent when the file left them out. Numbers are read as the plugin reads them: stage,
// pid and error status as int, count and stage status as float; a key that is missing or holds no
// number reads as 0.
struct UpdateStatus {
  std::optional<PropertyList> message;  // updateProgressionMessage
  std::optional<PropertyList> stage;    // updateProgressionStage
  std::optional<PropertyList> pid;      // updateProgressionPID
  int stageNumber = 0;
  float stageCount = 0;
  float stageStatus = 0;
  int processId = 0;
  int errorStatus = 0;  // updateErrorStatus: 0 and 1 are well, anything else a failure

  // (stage * 100 + status) / count, in float: infinite or NaN for a count of 0.
  float percentComplete() const;
};
// Nothing when text is not an XML property-list dictionary.
std::optional<UpdateStatus> readUpdateStatus(std::string_view text);

}  // namespace velm
