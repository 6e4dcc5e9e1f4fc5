#include "adminhost/plugin_request_handler.h"

namespace velm {
namespace {
struct RequestSlot {
  const PluginRequestHandler* owner = nullptr;
  PropertyList* context = nullptr;
  const PropertyList* request = nullptr;
  std::int32_t lockFD = -1;
};
thread_local RequestSlot tSlot;
}  // namespace

void PluginRequestHandler::storeContext(PropertyList* context, const PropertyList& request,
                                        std::int32_t* lockFD) {
  tSlot = RequestSlot{this, context, &request, lockFD ? *lockFD : -1};
}

std::int32_t PluginRequestHandler::cleanupFromRequest() {
  std::int32_t fd = tSlot.owner == this ? tSlot.lockFD : -1;
  tSlot = RequestSlot{};
  return fd;
}

PropertyList* PluginRequestHandler::context() const {
  return tSlot.owner == this ? tSlot.context : nullptr;
}

const PropertyList* PluginRequestHandler::request() const {
  return tSlot.owner == this ? tSlot.request : nullptr;
}

}  // namespace velm
