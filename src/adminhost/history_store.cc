#include "adminhost/history_store.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include "platform/clock.h"
#include "platform/log.h"

namespace velm {
namespace {

constexpr std::uint32_t kVersion = 1;

std::uint32_t word(const PlistData& b, std::size_t index) { return historyHeaderWord(b, index); }
void setWord(PlistData& b, std::size_t index, std::uint32_t v) {
  setHistoryHeaderWord(b, index, v);
}

std::size_t tableBytes(std::uint32_t columns) {
  return kHistoryHeaderBytes + std::size_t{kHistoryRows} * (columns + 1) * 8;
}

// Cells, little-endian 64-bit, of a block known to be well formed.
class Table {
 public:
  explicit Table(PlistData& b) : b_(b), columns_(word(b, 3)) {}
  std::uint32_t columns() const { return columns_; }
  std::uint64_t cell(std::uint32_t row, std::uint32_t column) const {
    std::uint64_t v;
    std::memcpy(&v, at(row, column), 8);
    return v;
  }
  void setCell(std::uint32_t row, std::uint32_t column, std::uint64_t v) {
    std::memcpy(at(row, column), &v, 8);
  }
  std::uint32_t cursor(int ring) const { return word(b_, ring == 1 ? 4 : 5); }
  void setCursor(int ring, std::uint32_t v) { setWord(b_, ring == 1 ? 4 : 5, v); }
  // The block row of a ring's row.
  static std::uint32_t row(int ring, std::uint32_t index) {
    return ring == 1 ? index : kHistoryRing1Rows + index;
  }

 private:
  std::uint8_t* at(std::uint32_t row, std::uint32_t column) const {
    return b_.data() + kHistoryHeaderBytes + (std::size_t{row} * (columns_ + 1) + column) * 8;
  }
  PlistData& b_;
  std::uint32_t columns_;
};

std::uint64_t cellOf(const PropertyList* value) {
  if (!value || !value->isNumber()) return kHistoryEmptyCell;
  if (value->isInteger()) {
    std::optional<std::int64_t> i = value->int64Value();
    if (i) return static_cast<std::uint64_t>(*i);
    return kHistoryEmptyCell;
  }
  double d = value->doubleValue().value_or(NAN);
  if (!std::isfinite(d) || std::fabs(d) >= 9.2e18) return kHistoryEmptyCell;
  return static_cast<std::uint64_t>(std::llround(d));
}

// The table under name, made or replaced when it can't be used.
PlistData* tableFor(std::string_view name, std::size_t values, PropertyList* context) {
  PropertyList* entry = context->get(name);
  PlistData* block = entry ? entry->asData() : nullptr;
  if (block && historyTableColumns(*block)) return block;
  if (entry) {
    // Another version is replaced silently; anything else is worth a line.
    bool otherVersion =
        block && block->size() >= kHistoryHeaderBytes && word(*block, 0) != kVersion;
    if (!otherVersion) NError("history store: the table '%@' is damaged; starting it afresh", name);
  }
  auto columns = static_cast<std::uint32_t>(std::min<std::size_t>(values, 4096));
  context->set(std::string(name), PropertyList(newHistoryTable(columns)));
  return context->get(name)->asData();
}

bool appendRow(std::string_view name, const PropertyList& values, PropertyList* context) {
  const PlistArray* list = values.asArray();
  if (!context || !context->isDict() || !list) return false;
  // A row is a change that must survive; the host decides how often that reaches the disk. Set
  // before the table is taken: a new key may move the context's entries.
  context->set("contextDirty", true);
  PlistData* block = tableFor(name, list->size(), context);
  Table t(*block);
  std::uint64_t now = clock().wallMicros() / 1'000'000;

  std::uint32_t r1 = (t.cursor(1) + 1) % kHistoryRing1Rows;
  std::uint32_t row = Table::row(1, r1);
  t.setCell(row, 0, now);
  for (std::uint32_t c = 1; c <= t.columns(); ++c)
    t.setCell(row, c, c <= list->size() ? cellOf(&(*list)[c - 1]) : kHistoryEmptyCell);
  t.setCursor(1, r1);

  // The second ring: one row per 300 s, the means of the first ring's rows since its last.
  std::uint64_t last = t.cell(Table::row(2, t.cursor(2)), 0);
  if (last != kHistoryEmptyCell && now < last + kHistoryRing2Seconds) return true;
  std::uint32_t r2 = (t.cursor(2) + 1) % kHistoryRing2Rows;
  std::uint32_t out = Table::row(2, r2);
  t.setCell(out, 0, now);
  for (std::uint32_t c = 1; c <= t.columns(); ++c) {
    long double sum = 0;
    std::uint64_t n = 0;
    for (std::uint32_t i = 0; i < kHistoryRing1Rows; ++i) {
      std::uint64_t time = t.cell(i, 0);
      if (time == kHistoryEmptyCell || (last != kHistoryEmptyCell && time <= last)) continue;
      std::uint64_t v = t.cell(i, c);
      if (v == kHistoryEmptyCell) continue;
      sum += static_cast<std::int64_t>(v);
      ++n;
    }
    t.setCell(out, c,
              n ? static_cast<std::uint64_t>(std::llround(static_cast<double>(sum / n)))
                : kHistoryEmptyCell);
  }
  t.setCursor(2, r2);
  return true;
}

}  // namespace

std::uint32_t historyHeaderWord(const PlistData& b, std::size_t index) {
  if (b.size() < 4 * (index + 1)) return 0;
  const std::uint8_t* p = b.data() + 4 * index;
  return std::uint32_t{p[0]} | std::uint32_t{p[1]} << 8 | std::uint32_t{p[2]} << 16 |
         std::uint32_t{p[3]} << 24;
}

void setHistoryHeaderWord(PlistData& b, std::size_t index, std::uint32_t v) {
  if (b.size() < 4 * (index + 1)) return;
  for (int i = 0; i < 4; ++i) b[4 * index + i] = static_cast<std::uint8_t>(v >> (8 * i));
}

std::string historyNameForVolume(std::string_view volume) {
  return "history_" + std::string(volume);
}

void purgeVolumeHistory(std::string_view volume, PropertyList* context) {
  NLog("%s: Zapping history for now-gone volume '%@'", "purgeVolumeHistory", volume);
  context->erase(historyNameForVolume(volume));
  context->erase("FSMStore_" + std::string(volume));
}

PlistData newHistoryTable(std::uint32_t columns) {
  PlistData block(tableBytes(columns));
  setWord(block, 0, kVersion);
  setWord(block, 1, kHistoryRing1Rows);
  setWord(block, 2, kHistoryRing2Rows);
  setWord(block, 3, columns);
  setWord(block, 4, kHistoryRing1Rows - 1);
  setWord(block, 5, kHistoryRing2Rows - 1);
  std::uint64_t empty = kHistoryEmptyCell;
  for (std::size_t at = kHistoryHeaderBytes; at + 8 <= block.size(); at += 8)
    std::memcpy(block.data() + at, &empty, 8);
  return block;
}

std::optional<std::uint32_t> historyTableColumns(const PlistData& block) {
  if (block.size() < kHistoryHeaderBytes || word(block, 0) != kVersion ||
      word(block, 1) != kHistoryRing1Rows || word(block, 2) != kHistoryRing2Rows)
    return std::nullopt;
  std::uint32_t columns = word(block, 3);
  if (columns > 4096 || block.size() != tableBytes(columns) ||
      word(block, 4) >= kHistoryRing1Rows || word(block, 5) >= kHistoryRing2Rows)
    return std::nullopt;
  return columns;
}

bool do_update_history_data(const PropertyList& values, PropertyList* context) {
  return appendRow("history", values, context);
}

int do_update_named_history_data(std::string_view name, const PropertyList& values,
                                 PropertyList* context) {
  return appendRow(name, values, context) ? 1 : 0;
}

std::optional<std::string> do_get_named_history_data(std::string_view name, const PropertyList*,
                                                     const PropertyList* timeScale,
                                                     PropertyList* samples,
                                                     const PropertyList& context) {
  *samples = PropertyList();
  const PropertyList* entry = context.get(name);
  const PlistData* block = entry ? entry->asData() : nullptr;
  if (!block || !historyTableColumns(*block)) return "no history table " + std::string(name);
  // Only read: the table's writers are the two updates.
  Table t(const_cast<PlistData&>(*block));
  double back = 0;
  if (timeScale && timeScale->isNumber()) back = timeScale->doubleValue().value_or(0);
  if (!std::isfinite(back) || back < 0) back = 0;

  // The first ring unless more is asked than it spans.
  std::uint64_t newest = t.cell(Table::row(1, t.cursor(1)), 0);
  std::uint64_t oldest = newest;
  for (std::uint32_t i = 0; i < kHistoryRing1Rows; ++i) {
    std::uint64_t time = t.cell(i, 0);
    if (time != kHistoryEmptyCell && time < oldest) oldest = time;
  }
  int ring = newest != kHistoryEmptyCell && back > static_cast<double>(newest - oldest) ? 2 : 1;
  std::uint32_t size = ring == 1 ? kHistoryRing1Rows : kHistoryRing2Rows;
  std::uint64_t top = t.cell(Table::row(ring, t.cursor(ring)), 0);
  PropertyList out = PropertyList::array();
  out.asArray()->reserve(size);
  // The column keys once, not per sample.
  std::vector<std::string> keys;
  for (std::uint32_t c = 1; c <= t.columns(); ++c) keys.push_back(std::string("v").append(std::to_string(c)));
  for (std::uint32_t k = 1; k <= size; ++k) {
    // Oldest first: the row after the cursor comes first.
    std::uint32_t row = Table::row(ring, (t.cursor(ring) + k) % size);
    std::uint64_t time = t.cell(row, 0);
    if (time == kHistoryEmptyCell) continue;
    if (back > 0 && top != kHistoryEmptyCell && static_cast<double>(top - time) > back) continue;
    PropertyList sample = PropertyList::dict();
    sample.asDict()->reserve(t.columns() + 1);
    sample.set("time", static_cast<unsigned long long>(time));
    for (std::uint32_t c = 1; c <= t.columns(); ++c) {
      std::uint64_t v = t.cell(row, c);
      if (v != kHistoryEmptyCell)
        sample.set(keys[c - 1], static_cast<long long>(static_cast<std::int64_t>(v)));
    }
    out.push(std::move(sample));
  }
  *samples = std::move(out);
  return std::nullopt;
}

std::optional<std::vector<std::optional<std::int64_t>>> lastHistoryRow(const PlistData& block) {
  if (!historyTableColumns(block)) return std::nullopt;
  Table t(const_cast<PlistData&>(block));  // only read
  std::uint32_t row = Table::row(1, t.cursor(1));
  if (t.cell(row, 0) == kHistoryEmptyCell) return std::nullopt;
  std::vector<std::optional<std::int64_t>> cells;
  for (std::uint32_t c = 0; c <= t.columns(); ++c) {
    std::uint64_t v = t.cell(row, c);
    if (v == kHistoryEmptyCell) cells.emplace_back();
    else cells.emplace_back(static_cast<std::int64_t>(v));
  }
  return cells;
}

}  // namespace velm
