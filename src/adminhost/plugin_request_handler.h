// The host's plugin SDK: the base class of every plugin, and the C entry point a plugin exports.
// The host calls doProcessInputWithRequest from several threads at once; the plugin serialises.
#pragma once

#include <cstdint>
#include <optional>

#include "plist/plist.h"

namespace velm {

class PluginRequestHandler {
 public:
  virtual ~PluginRequestHandler() = default;

  // One request. context is the plugin's persistent dictionary (the host saves it when the plugin
  // sets its boolean "contextDirty"); lockFileFD receives the host's lock descriptor value at the
  // end of the request. No value means "no response" (a malformed request).
  virtual std::optional<PropertyList> doProcessInputWithRequest(const PropertyList& request,
                                                                PropertyList* context,
                                                                std::int32_t* lockFileFD) = 0;

  // Figures for the host's /metrics, read from the context alone (never from peers, so a scrape
  // costs no wire request): an array of families { name (beginning with the plugin's name and
  // "_"), help, type ("gauge" or "counter"),
  // labels: [label names], samples: [[label values..., number]] }. The host calls it between
  // requests, never during one, and only after the context changed. Nothing by default.
  virtual std::optional<PropertyList> metricsFromContext(const PropertyList& context) const {
    (void)context;
    return std::nullopt;
  }

 protected:
  // storeContext:request:andLockFD: keeps the three for the running request.
  void storeContext(PropertyList* context, const PropertyList& request, std::int32_t* lockFD);
  // Ends the request; returns the integer that goes through the lock pointer (the descriptor
  // value that was stored, or -1 when there was none).
  std::int32_t cleanupFromRequest();
  // The stored context during a request on this thread; null outside one. Kept per thread, so
  // requests that wait for the plugin lock can't overwrite the running one's context.
  PropertyList* context() const;
  const PropertyList* request() const;
};

}  // namespace velm

// Every plugin exports this; the host owns the returned object.
extern "C" velm::PluginRequestHandler* adminhost_plugin_create();
using AdminhostPluginCreateFn = velm::PluginRequestHandler* (*)();
