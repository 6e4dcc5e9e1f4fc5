#include "host/hosted_plugin.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/file.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <filesystem>

#include "adminhost/context_store.h"
#include "host/host_log.h"
#include "host/host_metrics.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "platform/paths.h"

namespace velm {
namespace {

constexpr std::string_view kPrefix = "adminhost_";
constexpr std::string_view kSuffix = ".so";

// Plugins live as long as the process: their event sources keep pointers to them and are never
// unregistered, so nothing destroys them. Held here so they stay reachable to the end.
std::vector<PluginRequestHandler*>& residentPlugins() {
  static auto* plugins = new std::vector<PluginRequestHandler*>();
  return *plugins;
}

bool validName(const std::string& name) {
  if (name.empty()) return false;
  for (char c : name) {
    bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
              c == '_' || c == '-' || c == '.';
    if (!ok) return false;
  }
  return name != "." && name != "..";
}

}  // namespace

std::optional<std::string> pluginNameForFile(const std::string& fileName) {
  if (fileName.size() <= kPrefix.size() + kSuffix.size()) return std::nullopt;
  if (fileName.compare(0, kPrefix.size(), kPrefix) != 0) return std::nullopt;
  if (fileName.compare(fileName.size() - kSuffix.size(), kSuffix.size(), kSuffix) != 0)
    return std::nullopt;
  std::string name =
      fileName.substr(kPrefix.size(), fileName.size() - kPrefix.size() - kSuffix.size());
  if (!validName(name)) return std::nullopt;
  return name;
}

HostedPlugin::HostedPlugin(std::string name, PluginRequestHandler* handler, UniqueFd lockFd,
                           PropertyList context)
    : name_(std::move(name)),
      handler_(handler),
      lockFd_(std::move(lockFd)),
      context_(std::move(context)),
      lockFdValue_(lockFd_.get()) {}

// Why one mutex around the whole call: the plugin serialises its handlers with its own lock, but
// only from inside doProcessInputWithRequest, and a second request may already be in there,
// waiting for that lock, while we read the context to save it after the first. Holding our mutex
// across call and save keeps the context object to one user at a time. It costs no concurrency
// that matters: the plugin runs one handler at a time anyway, and what runs before its lock
// (checking the command name) is trivial.
PluginCall HostedPlugin::call(const PropertyList& request, bool idleTick) {
  PluginCall result;
  std::optional<PropertyList> snapshot;
  std::uint64_t generation = 0;
  {
    std::scoped_lock lock(mutex_);
    std::int32_t fd = lockFdValue_;
    try {
      result.response = handler_->doProcessInputWithRequest(request, &context_, &fd);
      result.outcome =
          result.response ? PluginCall::Outcome::Answered : PluginCall::Outcome::NoResponse;
    } catch (const std::exception& e) {
      HostLog("plugin %s threw from doProcessInputWithRequest: %s", name_, e.what());
      result.outcome = PluginCall::Outcome::Failed;
      result.response.reset();
    } catch (...) {
      HostLog("plugin %s threw from doProcessInputWithRequest", name_);
      result.outcome = PluginCall::Outcome::Failed;
      result.response.reset();
    }
    lockFdValue_ = fd;
    if (!context_.isDict()) {
      HostLog("plugin %s replaced its context with a non-dictionary; starting it empty", name_);
      context_ = PropertyList::dict();
    }
    bool dirty = takeContextDirty(&context_);
    if (dirty) ++generation_;
    if (dirty && idleTick) tickChanges_ = true;
    std::uint64_t now = clock().monotonicMicros();
    // A request's change is saved at once; the ticks' (history rows every minute) wait for the
    // interval, so the file isn't rewritten whole at every tick.
    bool due = savePending_ || (dirty && !idleTick) ||
               (tickChanges_ && now - lastSaveMicros_ >= saveIntervalMicros_);
    if (due) {
      snapshot = context_;
      generation = generation_;
      tickChanges_ = false;
      savePending_ = false;
      lastSaveMicros_ = now;
    }
  }
  // The write runs while the plugin already serves the next call.
  if (snapshot) write(*snapshot, generation);
  return result;
}

int HostedPlugin::saveContext() {
  PropertyList snapshot;
  std::uint64_t generation;
  {
    std::scoped_lock lock(mutex_);
    snapshot = context_;
    generation = generation_;
    tickChanges_ = false;
    savePending_ = false;
    lastSaveMicros_ = clock().monotonicMicros();
  }
  return write(snapshot, generation);
}

void HostedPlugin::appendMetricsText(std::string& out) {
  std::scoped_lock lock(mutex_);
  if (metricsGeneration_ == generation_) {
    out += metricsText_;
    return;
  }
  metricsText_.clear();
  try {
    if (std::optional<PropertyList> families = handler_->metricsFromContext(context_))
      appendPluginFamilies(metricsText_, name_, *families);
  } catch (...) {
    HostLog("plugin %s threw from metricsFromContext", name_);
    metricsText_.clear();
  }
  metricsGeneration_ = generation_;
  out += metricsText_;
}

PropertyList HostedPlugin::contextForTest() {
  std::scoped_lock lock(mutex_);
  return context_;
}

int HostedPlugin::write(const PropertyList& snapshot, std::uint64_t generation) {
  std::scoped_lock lock(writeMutex_);
  // A newer copy is on disk already.
  if (generation < written_) return 0;
  int err = savePluginContext(name_, snapshot);
  saves_.fetch_add(1, std::memory_order_relaxed);
  if (err == 0) {
    written_ = generation;
    return 0;
  }
  // A failed save is tried again after the next call, so a full disk costs no more than the
  // changes made while it was full.
  saveFailures_.fetch_add(1, std::memory_order_relaxed);
  HostLog("could not save the context of plugin %s: %s", name_, std::strerror(err));
  std::scoped_lock again(mutex_);
  savePending_ = true;
  return err;
}

std::vector<std::unique_ptr<HostedPlugin>> loadPluginsFromDirectory(const std::string& dir) {
  std::vector<std::unique_ptr<HostedPlugin>> plugins;
  std::vector<std::pair<std::string, std::string>> found;  // name, path
  std::error_code ec;
  for (std::filesystem::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
    std::optional<std::string> name = pluginNameForFile(it->path().filename().string());
    if (name) found.emplace_back(*name, it->path().string());
  }
  if (ec) {
    HostLog("cannot read the plugins directory %s: %s", dir, ec.message());
    return plugins;
  }
  std::sort(found.begin(), found.end());
  std::string stateDir = hostPath("/var/adminhostd");
  makeDirectories(stateDir);
  for (const auto& [name, path] : found) {
    void* lib = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!lib) {
      const char* why = ::dlerror();
      HostLog("cannot load plugin %s: %s", path, why ? why : "unknown error");
      continue;
    }
    // The library stays loaded for the life of the process, as its plugin object does.
    auto create =
        reinterpret_cast<AdminhostPluginCreateFn>(::dlsym(lib, "adminhost_plugin_create"));
    if (!create) {
      HostLog("plugin %s has no adminhost_plugin_create", path);
      continue;
    }
    std::string lockPath = stateDir + "/" + name + ".lock";
    UniqueFd lockFd(::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (!lockFd) {
      HostLog("cannot open the lock file %s of plugin %s: %s", lockPath, name,
              std::strerror(errno));
      continue;
    }
    PluginRequestHandler* handler = nullptr;
    try {
      handler = create();
    } catch (...) {
      handler = nullptr;
    }
    if (!handler) {
      HostLog("plugin %s: adminhost_plugin_create gave no plugin", path);
      continue;
    }
    residentPlugins().push_back(handler);
    plugins.push_back(
        std::make_unique<HostedPlugin>(name, handler, std::move(lockFd), loadPluginContext(name)));
    HostLog("loaded plugin %s from %s", name, path);
  }
  return plugins;
}

}  // namespace velm
