// Sampling at every idle tick: the machine's CPU, fibre and network counters turned into rates
// against the previous sample, one row of the machine's table; on a controller one row per volume
// of its FSM process's CPU and memory. Raw counters and rates live in the context between ticks.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "plist/plist.h"

namespace velm {

// A sampler that read under 15.0 s ago answers with the context's cached entries.
inline constexpr double kSampleSeconds = 15.0;

// A processor's tick counters, low 32 bits each.
struct CpuTicks {
  std::uint32_t user = 0, system = 0, idle = 0, nice = 0;
};
// The "cpuN" lines of /proc/stat (the online processors); other lines are passed over.
std::vector<CpuTicks> parseCpuTicks(std::string_view text);

// cpuUsage (hundredths of a percent, 0 to 10000) and cpuUsagesArray; nothing when the counters
// can't be read.
void get_cpu_usage(std::optional<std::uint64_t>* usage, PropertyList* perProcessor,
                   PropertyList* context);
// fibreThroughput (bytes a second over every target and domain) and fibreThroughputsArray.
void get_fibre_traffic(std::uint64_t* total, PropertyList* perCounter, PropertyList* context);
// networkThroughput: the six totals and interfaces_array; nothing when interfaces can't be read.
std::optional<PropertyList> sampleNetwork(PropertyList* context);
// One row of the volume's table: its FSM's CPU, resident and virtual size. Logs as
// get_fsm_process_stats. True when the store took the row.
bool update_named_history_data(const std::string& volume, PropertyList* context);
// The tick: the machine's row, then (controller) each volume's. Always 0.
int updateHistoryData(PropertyList* context, bool controller,
                      const std::vector<std::string>& volumes);

}  // namespace velm
