// AdminHost: the daemon as a whole. Loads the plugins, serves their commands over HTTP(S), drives
// their idle ticks and keeps their contexts.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "host/host_metrics.h"
#include "host/host_options.h"
#include "host/hosted_plugin.h"

namespace httplib {
class Server;
}

namespace velm {

class AdminHost {
 public:
  explicit AdminHost(HostOptions options);
  ~AdminHost();
  AdminHost(const AdminHost&) = delete;
  AdminHost& operator=(const AdminHost&) = delete;

  // Serves until requestStop(); then lets running requests and the running tick finish and saves
  // every context. Returns the process exit status (0 after a clean stop). Call once.
  int run();
  // From any thread, also before run() has started to serve.
  void requestStop();

 private:
  std::string pluginsDirectory() const;
  std::string wwwDirectory() const;
  std::string renderMetrics();
  void tick(std::uint64_t count);

  const HostOptions options_;
  std::vector<std::unique_ptr<HostedPlugin>> plugins_;
  std::vector<std::unique_ptr<httplib::Server>> servers_;  // one per listening address
  HostMetrics metrics_;

  // Guards the flags that hand the stop over between requestStop() and run(), and stopTicker_.
  // Taken before the ticker's own mutex; nothing else is taken under it.
  std::mutex stateMutex_;
  std::condition_variable stateChanged_;
  bool stopRequested_ = false;
  bool listening_ = false;  // run() has decided to call listen_after_bind
  bool listenDone_ = false;
  std::function<void()> stopTicker_;
};

}  // namespace velm
