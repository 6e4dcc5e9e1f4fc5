// adminhostd's figures for GET /metrics, in the Prometheus text exposition format (0.0.4). Our
// own writer: Debian packages no Prometheus client library for C++, and the format is a few lines
// of text per family.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <string_view>

#include "plist/plist.h"

namespace velm {

// Latency buckets, in microseconds (upper bounds; +Inf after the last).
inline constexpr std::array<std::uint64_t, 11> kLatencyBucketsMicros = {
    100, 500, 1000, 5000, 10000, 50000, 100000, 500000, 1000000, 5000000, 30000000};

struct LatencyHistogram {
  std::array<std::uint64_t, kLatencyBucketsMicros.size()> buckets{};  // not cumulative
  std::uint64_t count = 0;
  std::uint64_t sumMicros = 0;
  void add(std::uint64_t micros);
};

class HostMetrics {
 public:
  // One answered command: error when the HTTP status was not 200 or the response's own "status"
  // was not 0.
  void recordCommand(std::string_view plugin, std::string_view command, bool error, std::uint64_t micros);
  void recordIdleTick(std::string_view plugin, std::uint64_t micros);

  // The host's families; the caller adds each plugin's after them.
  void render(std::string& out) const;

  // Distinct commands kept per plugin; the rest are counted under command="other", so that a
  // client sending made-up commands can't grow the page without end.
  static constexpr std::size_t kMaxCommands = 256;

 private:
  struct CommandStats {
    std::uint64_t count = 0, errors = 0;
    LatencyHistogram latency;
  };
  mutable std::mutex mutex_;  // leaf
  std::map<std::string, std::map<std::string, CommandStats, std::less<>>, std::less<>> commands_;
  std::map<std::string, LatencyHistogram, std::less<>> ticks_;
};

// Writers for a family at a time: "# HELP" and "# TYPE" once, then samples.
void appendMetricHeader(std::string& out, std::string_view name, std::string_view help, std::string_view type);
// name{k="v",...} value
void appendMetricSample(std::string& out, std::string_view name,
                        std::initializer_list<std::pair<std::string_view, std::string_view>> labels,
                        std::string_view value);
// Families a plugin gave (PluginRequestHandler::metricsFromContext). Their names must begin with
// "<plugin>_"; other families, and malformed families and samples, are left out.
void appendPluginFamilies(std::string& out, std::string_view plugin, const PropertyList& families);
// Whether a metric or label name is valid: [a-zA-Z_:][a-zA-Z0-9_:]* (labels without ':').
bool validMetricName(std::string_view name, bool label = false);

}  // namespace velm
