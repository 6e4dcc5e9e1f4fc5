// adminhost_echo.so: a small plugin for testing adminhostd on its own.
//   echo        answers the request, plus echoed = true
//   incr        adds one to the context's counter, marks the context dirty, answers counter
//   getContext  answers context = the whole context
//   gate        opens the FIFO at `fifo` and reads it to its end (the test holds the request
//               inside the plugin that way), then does what incr does
//   silent      gives no response
//   throw       throws std::runtime_error
//   doIdle      appends `count` to the context's idleCounts, marks the context dirty
//   inheritable answers fds: the descriptors from 3 up that a child started now would inherit
// Every answer carries lockFD, the descriptor value the host passed. Every command but doIdle
// adds one to the context's calls first.
#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <cstdlib>
#include <mutex>
#include <stdexcept>

#include "adminhost/plugin_request_handler.h"
#include "platform/paths.h"

namespace {

using velm::PropertyList;

constexpr size_t kMaxIdleCounts = 1000;

class EchoPlugin : public velm::PluginRequestHandler {
 public:
  std::optional<PropertyList> doProcessInputWithRequest(const PropertyList& request, PropertyList* context,
                                                        std::int32_t* lockFileFD) override {
    const std::string* command = request.getString("command");
    if (!command) return std::nullopt;
    std::int32_t lockFD = *lockFileFD;
    storeContext(context, request, lockFileFD);
    std::optional<PropertyList> response;
    {
      std::scoped_lock lock(mutex_);
      response = run(*command, request, *context);
    }
    *lockFileFD = cleanupFromRequest();
    if (response) response->set("lockFD", static_cast<long long>(lockFD));
    return response;
  }

 private:
  static long long intIn(const PropertyList& dict, std::string_view key) {
    const PropertyList* v = dict.get(key);
    return v ? v->int64Value().value_or(0) : 0;
  }

  static PropertyList increment(PropertyList& context) {
    long long counter = intIn(context, "counter") + 1;
    context.set("counter", counter);
    context.set("contextDirty", true);
    PropertyList response = PropertyList::dict();
    response.set("counter", counter);
    return response;
  }

  std::optional<PropertyList> run(const std::string& command, const PropertyList& request, PropertyList& context) {
    if (command != "doIdle") context.set("calls", intIn(context, "calls") + 1);
    if (command == "echo") {
      PropertyList response = request;
      response.set("echoed", true);
      return response;
    }
    if (command == "incr") return increment(context);
    if (command == "getContext") {
      PropertyList response = PropertyList::dict();
      response.set("context", context);
      return response;
    }
    if (command == "gate") {
      const std::string* fifo = request.getString("fifo");
      if (!fifo) return std::nullopt;
      int fd = ::open(fifo->c_str(), O_RDONLY | O_CLOEXEC);
      if (fd < 0) return std::nullopt;
      char buf[64];
      while (::read(fd, buf, sizeof buf) > 0) {
      }
      ::close(fd);
      return increment(context);
    }
    if (command == "inheritable") {
      PropertyList fds = PropertyList::array();
      std::error_code ec;
      for (const auto& e : std::filesystem::directory_iterator(velm::procfsPath("self/fd"), ec)) {
        int fd = std::atoi(e.path().filename().c_str());
        int flags = ::fcntl(fd, F_GETFD);
        if (fd >= 3 && flags >= 0 && !(flags & FD_CLOEXEC)) fds.push(fd);
      }
      PropertyList response = PropertyList::dict();
      response.set("fds", fds);
      return response;
    }
    if (command == "silent") return std::nullopt;
    if (command == "throw") throw std::runtime_error("echo plugin asked to throw");
    if (command == "doIdle") {
      PropertyList* counts = context.get("idleCounts");
      if (!counts || !counts->isArray()) {
        context.set("idleCounts", PropertyList::array());
        counts = context.get("idleCounts");
      }
      if (counts->size() < kMaxIdleCounts) counts->push(intIn(request, "count"));
      context.set("contextDirty", true);
      PropertyList response = PropertyList::dict();
      response.set("result", 0);
      return response;
    }
    return std::nullopt;
  }

  std::mutex mutex_;  // serialises commands, as a real plugin's lock does
};

}  // namespace

extern "C" __attribute__((visibility("default"))) velm::PluginRequestHandler* adminhost_plugin_create() {
  return new EchoPlugin();
}
