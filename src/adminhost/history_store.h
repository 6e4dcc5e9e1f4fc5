// The host's time-series store: tables of rows kept as one data block each in the plugin's
// context (the HistoryTable layout), written in place.
//
// A block: a header of six 32-bit little-endian words (version 1, 1440 rows in the first ring,
// 2016 in the second, N columns, the index of each ring's last row), then 3456 rows of N + 1 cells
// of 8 bytes, the first ring's rows first. Cell 0 is the row's time, in seconds since 1970; cell k
// the column "v<k>"; an empty cell holds 0x7FFFFFFFFFFFFFFF.
//
// The first ring takes every row. The second takes one when 300 s have passed since its last:
// each column the mean of the first ring's rows since then, empty cells left out. A value is a
// number (stored as a whole number) or "" for none; a longer row drops the extra values, a
// shorter one leaves empty cells. A missing table is made with as many columns as values.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "plist/plist.h"

namespace velm {

inline constexpr std::uint64_t kHistoryEmptyCell = 0x7FFFFFFFFFFFFFFFull;
inline constexpr std::uint32_t kHistoryRing1Rows = 1440;
inline constexpr std::uint32_t kHistoryRing2Rows = 2016;
inline constexpr std::uint32_t kHistoryRows = kHistoryRing1Rows + kHistoryRing2Rows;
inline constexpr std::size_t kHistoryHeaderBytes = 24;
inline constexpr std::uint64_t kHistoryRing2Seconds = 300;

// Header word index (0 version, 1 and 2 the rings' sizes, 3 the columns, 4 and 5 the cursors);
// 0 past the end of the block.
std::uint32_t historyHeaderWord(const PlistData& block, std::size_t index);
void setHistoryHeaderWord(PlistData& block, std::size_t index, std::uint32_t value);

// "history_<volume>": the table of a volume's FSM.
std::string historyNameForVolume(std::string_view volume);
// Takes the volume's table and its sampler's store ("FSMStore_<volume>") out of context; the
// caller marks the context dirty.
void purgeVolumeHistory(std::string_view volume, PropertyList* context);

// A new table of columns columns: every cell empty, each cursor on its ring's last row.
PlistData newHistoryTable(std::uint32_t columns);
// The column count of a block that is a well-formed table, else nothing.
std::optional<std::uint32_t> historyTableColumns(const PlistData& block);

// The newest row of the first ring: cell 0 the time, then each column; empty cells are nothing.
// Nothing when block is not a well-formed table or holds no row yet.
std::optional<std::vector<std::optional<std::int64_t>>> lastHistoryRow(const PlistData& block);

// Appends values as one row of the table "history" of context, at the store's clock time.
bool do_update_history_data(const PropertyList& values, PropertyList* context);
// The same for the table name; 0 on failure.
int do_update_named_history_data(std::string_view name, const PropertyList& values,
                                 PropertyList* context);
// The samples of table name, oldest first, each { time, v<k>... } of its non-empty cells.
// timeScale (a number of seconds back from the newest row; any other value reads as absent): 0
// or absent, the first ring; more than the first ring spans, the second. variant is not read.
// Nothing on success, else what went wrong.
std::optional<std::string> do_get_named_history_data(std::string_view name,
                                                     const PropertyList* variant,
                                                     const PropertyList* timeScale,
                                                     PropertyList* samples,
                                                     const PropertyList& context);

}  // namespace velm
