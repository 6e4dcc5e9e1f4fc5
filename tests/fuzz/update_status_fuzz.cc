// Status files are written by a child process: whatever they hold reads as a status or as none,
// and the plugin answers it, ends the task (no child of ours runs here) and touches nothing but
// the volume's own files.
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

#include "core/velm_plugin.h"
#include "platform/files.h"
#include "platform/paths.h"
#include "volumes/long_tasks.h"

namespace {

// A throw-away root on a memory file system when there is one (the failure path fsyncs), removed
// at exit; logs go nowhere.
const std::string& sandboxRoot() {
  static const std::string root = [] {
    char shm[] = "/dev/shm/velmfuzzXXXXXX";
    char tmp[] = "/tmp/velmfuzzXXXXXX";
    const char* made = ::mkdtemp(shm);
    if (!made) made = ::mkdtemp(tmp);
    if (!made) std::abort();
    static std::string dir = made;
    std::atexit([] {
      std::error_code ec;
      std::filesystem::remove_all(dir, ec);
    });
    ::setenv("VELM_ROOT", dir.c_str(), 1);
    ::setenv("VELM_LOG", "/dev/null", 1);
    velm::resetPathsForTest();
    velm::makeDirectories(dir + "/var/run");
    velm::makeDirectories(velm::configDir());
    return dir;
  }();
  return root;
}

void put(const std::string& path, std::string_view text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  std::optional<velm::UpdateStatus> status = velm::readUpdateStatus(text);

  const std::string& root = sandboxRoot();
  static velm::VelmPlugin* plugin = new velm::VelmPlugin();  // lives to the end of the run
  std::string statusPath = root + "/var/run/drupdatefs_status_V.plist";
  std::string cfg = velm::configPath("V.cfg");
  put(statusPath, text);
  put(cfg, "new\n");
  put(cfg + "-old", "old\n");

  velm::PropertyList task = velm::PropertyList::dict();
  task.set("currentTask", "Updating volume");
  task.set("processName", "drupdatefs");
  plugin->noteLongTask(&task, "V");
  velm::PropertyList result = plugin->processUpdateStatus(task, "V");

  // Whatever happened, the task is over; an unreadable status file is left where it is.
  if (plugin->countLongTasks() != 0 || velm::pathExists(statusPath) != !status) std::abort();
  if (!status) {
    if (result.size() != 1 || !result.getString("ProgressDone")) std::abort();
    return 0;
  }
  if ((result.get("currentStep") != nullptr) != status->message.has_value() ||
      (result.get("currentStepNumber") != nullptr) != status->stage.has_value() ||
      (result.get("PID") != nullptr) != status->pid.has_value())
    std::abort();
  const velm::PropertyList* percent = result.get("percentComplete");
  if (!percent || *percent != velm::PropertyList(100.0)) std::abort();
  bool errorStatusFails = status->errorStatus != 0 && status->errorStatus != 1;
  bool crashed = !errorStatusFails && !(status->percentComplete() >= 100.0f);
  const velm::PropertyList* code = result.get("errorCode");
  if ((code != nullptr) != (errorStatusFails || crashed)) std::abort();
  if ((result.get("errorMessage") != nullptr) != crashed) std::abort();
  if (code && (*code != velm::PropertyList(crashed ? -1 : status->errorStatus) ||
               velm::readFile(cfg) != "old\n"))
    std::abort();
  if (!code && velm::readFile(cfg) != "new\n") std::abort();
  return 0;
}
