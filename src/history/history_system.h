// The history tables' columns and their upkeep in the plugin's context: the machine's table
// "history" (CPU, fibre, network, and two columns per Ethernet interface) and one table per
// volume ("history_<volume>": the FSM's CPU and memory), with the descriptors that name them.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "adminhost/history_store.h"
#include "plist/plist.h"

namespace velm {

// The factor of the CPU columns: the single-precision 0.01 (0x3C23D70A), widened.
double cpuFactor();

// { name, MAC } of each Ethernet interface ("en*" or "eth*") in order of its index; nothing when
// the interface list can't be read.
std::optional<PlistArray> getNICNames();

// Columns and keys for this start: the machine's key and factor dictionaries, the interfaces
// (NICs), the table reshaped to them, and the context cleaned of what is stale. volumeTables:
// the "history_<volume>" names of the volumes that still exist (empty on a client).
void initHistorySystem(PropertyList* context, const std::set<std::string>& volumeTables);
void loadPreviousData(const PlistArray& newNics, PropertyList* context,
                      const std::set<std::string>& volumeTables);
// For every row of both rings, count cells from the source's column to the destination's; each
// table's own header gives its stride, and no read or write leaves its block.
void copyHistoryColumns(PlistData& destination, std::uint32_t destinationColumn,
                        const PlistData& source, std::uint32_t sourceColumn, std::uint32_t count);

// HistoryDescriptors: { keys, factors, identifier }.
PropertyList getHistorySystemKeys(const PropertyList& context);
PropertyList getHistoryVolKeys(std::string_view volume);
// { samplesArray, nbSamples, currentServerTime } of table, or the store's error text.
std::optional<std::string> getHistoryData(std::string_view table, const PropertyList* variant,
                                          const PropertyList* timeScale, PropertyList* result,
                                          const PropertyList& context);

}  // namespace velm
