// One loaded plugin with its context and lock descriptor, and the loader that finds plugins.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "adminhost/plugin_request_handler.h"
#include "platform/unique_fd.h"
#include "plist/plist.h"

namespace velm {

struct PluginCall {
  enum class Outcome { Answered, NoResponse, Failed };
  Outcome outcome = Outcome::NoResponse;
  std::optional<PropertyList> response;  // set when Answered
};

class HostedPlugin {
 public:
  // handler is never destroyed: see residentPlugins() in the .cc. lockFd is the descriptor value
  // handed to the plugin with every request; context is what was loaded for it.
  HostedPlugin(std::string name, PluginRequestHandler* handler, UniqueFd lockFd,
               PropertyList context);
  HostedPlugin(const HostedPlugin&) = delete;
  HostedPlugin& operator=(const HostedPlugin&) = delete;

  const std::string& name() const { return name_; }

  // Runs one request (or idle tick) through the plugin; then saves the context when the plugin
  // set contextDirty: at once after a request, and after idle ticks at most once per save
  // interval (an earlier failed save is tried again at the next call). The write happens after
  // the plugin is free for the next call, from a copy; an older copy never replaces a newer one.
  // Callable from any thread; calls of one plugin run one at a time. An exception from the
  // plugin is logged and gives Failed.
  PluginCall call(const PropertyList& request, bool idleTick = false);

  // How long changes made by idle ticks alone may wait to be saved.
  void setContextSaveInterval(std::uint64_t micros) { saveIntervalMicros_ = micros; }

  // Writes the context out now (shutdown). Returns 0 or an errno value.
  int saveContext();

  // The plugin's part of /metrics (PluginRequestHandler::metricsFromContext as exposition text),
  // taken between calls. Kept until the context changes: the figures come from the last history
  // sample, so most scrapes between two idle ticks cost a copy.
  void appendMetricsText(std::string& out);
  // Context writes begun since the start, and those that failed.
  std::uint64_t contextSaves() const { return saves_.load(std::memory_order_relaxed); }
  std::uint64_t contextSaveFailures() const { return saveFailures_.load(std::memory_order_relaxed); }

  // A copy of the context as it stands (tests).
  PropertyList contextForTest();

 private:
  // Writes snapshot (the context at generation) unless a newer one was written already.
  int write(const PropertyList& snapshot, std::uint64_t generation);

  const std::string name_;
  PluginRequestHandler* const handler_;
  const UniqueFd lockFd_;
  // Guards context_, lockFdValue_ and savePending_, and is held across each plugin call and the
  // save after it. First in the daemon's lock order; the plugin's own locks nest inside it.
  std::mutex mutex_;
  PropertyList context_;
  std::int32_t lockFdValue_;
  bool savePending_ = false;
  bool tickChanges_ = false;      // changes of idle ticks not saved yet
  std::uint64_t generation_ = 0;  // counts the context's changes
  std::uint64_t saveIntervalMicros_ = 300'000'000;
  std::uint64_t lastSaveMicros_ = 0;  // monotonic, of the last save begun
  // Serialises writes; never taken inside mutex_ (a failed write takes mutex_ inside it).
  std::mutex writeMutex_;
  std::uint64_t written_ = 0;  // the generation on disk
  std::atomic<std::uint64_t> saves_{0}, saveFailures_{0};
  std::string metricsText_;                // guarded by mutex_
  std::optional<std::uint64_t> metricsGeneration_;  // the context generation metricsText_ is of
};

// Loads every adminhost_<name>.so in dir (sorted by name): dlopen, adminhost_plugin_create, a
// lock file var/adminhostd/<name>.lock and the saved context. A plugin that fails is logged and
// skipped.
std::vector<std::unique_ptr<HostedPlugin>> loadPluginsFromDirectory(const std::string& dir);

// The plugin name of a file name: adminhost_<name>.so gives <name>; anything else nothing.
std::optional<std::string> pluginNameForFile(const std::string& fileName);

}  // namespace velm
