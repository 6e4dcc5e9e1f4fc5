// What every file-system tool stand-in shares: its sandbox root, the behaviour file that can
// script a run, and the log of its calls.
//
// Behaviour file <root>/sim/tools/<tool>.plist (optional dictionary):
//   sleepSeconds (number)  sleep this long before anything else
//   output (string)        print this on stdout
//   error (string)         print this on stderr
//   exitStatus (integer)   exit with this (default 0)
// When output, error or exitStatus is there, the run does only that; otherwise the tool works.
// A malformed behaviour file is reported on stderr and ignored.
// Every run appends its arguments, joined by single spaces, as one line to
// <root>/sim/tools/<tool>.calls.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "plist/plist.h"

namespace velm::sim {

inline constexpr std::string_view kToolSleepSeconds = "sleepSeconds";
inline constexpr std::string_view kToolOutput = "output";
inline constexpr std::string_view kToolError = "error";
inline constexpr std::string_view kToolExitStatus = "exitStatus";

// Sleeps that long (up to a day); nothing for a value that is not a positive number.
void pauseSeconds(double seconds);

// VELM_ROOT when set and not empty; else the prefix of an argv0 ending in
// "/Library/Filesystems/Velm/bin/<name>"; else "" (the real root).
std::string simToolRoot(std::string_view name, const char* argv0);

class SimTool {
 public:
  SimTool(std::string name, int argc, char** argv);

  // Reads the behaviour file, logs the call and sleeps as told. Returns the exit status when
  // the behaviour file scripted the run (already printed), nothing when the tool should work.
  std::optional<int> begin();

  const std::string& name() const { return name_; }
  const std::string& root() const { return root_; }
  const std::vector<std::string>& args() const { return args_; }
  // The behaviour file as begin() read it: an empty dictionary when there is none.
  const PropertyList& behaviour() const { return behaviour_; }
  // root + absolutePath
  std::string path(std::string_view absolutePath) const {
    return root_ + std::string(absolutePath);
  }
  // "<name>: <message>" and a newline on stderr.
  void complain(const char* fmt, ...) const __attribute__((format(printf, 2, 3)));

 private:
  void logCall() const;

  std::string name_;
  std::string root_;
  std::vector<std::string> args_;
  PropertyList behaviour_ = PropertyList::dict();
};

// What the volume tools share: where a volume's files are, and which names they take.
inline constexpr std::string_view kVolumeConfigDir = "/Library/Filesystems/Velm/config/";
inline constexpr std::string_view kVolumeDataDir = "/Library/Filesystems/Velm/data/";
// Not empty, no "/", not "." or "..": the name becomes a path component.
bool volumeNameUsable(std::string_view volume);

// The dictionary in an XML plist file; nothing and a complaint when it is unreadable or not a
// dictionary, an empty dictionary when the file is missing.
std::optional<PropertyList> readToolDictionary(const SimTool& tool, const std::string& path);

}  // namespace velm::sim
