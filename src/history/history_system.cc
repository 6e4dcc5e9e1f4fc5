#include "history/history_system.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <vector>

#include "adminhost/history_store.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "platform/string_additions.h"
#include "plist/format.h"

namespace velm {
namespace {

constexpr const char* kFixedColumns[] = {
    "CPU_USAGE",     "FIBRE_THROUGHPUT",      "NETWORK_THROUGHPUT", "NETWORK_PACKETS",
    "NETWORK_INPUT", "NETWORK_PACKETS_INPUT", "NETWORK_OUTPUT",     "NETWORK_PACKETS_OUTPUT"};
constexpr std::uint32_t kFixed = 8;

std::uint32_t word(const PlistData& b, std::size_t index) { return historyHeaderWord(b, index); }
void setWord(PlistData& b, std::size_t index, std::uint32_t v) {
  setHistoryHeaderWord(b, index, v);
}

// "aa:bb:cc:dd:ee:ff" -> its bytes; the count may be anything.
std::vector<std::uint8_t> macBytes(const std::string& text) {
  std::vector<std::uint8_t> out;
  std::string_view rest = text;
  while (!rest.empty()) {
    unsigned v = 0;
    auto [p, ec] = std::from_chars(rest.data(), rest.data() + rest.size(), v, 16);
    if (ec != std::errc() || v > 255) return {};
    out.push_back(static_cast<std::uint8_t>(v));
    rest.remove_prefix(static_cast<std::size_t>(p - rest.data()));
    if (!rest.empty() && rest.front() == ':')
      rest.remove_prefix(1);
    else if (!rest.empty())
      return {};
  }
  return out;
}

}  // namespace

double cpuFactor() { return static_cast<double>(0.01f); }

std::optional<PlistArray> getNICNames() {
  std::string net = sysfsPath("class/net");
  std::error_code ec;
  std::vector<std::pair<long long, std::string>> byIndex;
  for (std::filesystem::directory_iterator it(net, ec), end; !ec && it != end; it.increment(ec)) {
    std::string name = it->path().filename().string();
    std::optional<std::string> index = readSmallFile(net + "/" + name + "/ifindex");
    long long i = 0;
    std::string t = index ? std::string(trimmedBlanks(*index)) : "";
    auto [p, e] = std::from_chars(t.data(), t.data() + t.size(), i);
    // An entry that can't be read is passed over.
    if (!index || e != std::errc()) continue;
    byIndex.emplace_back(i, name);
  }
  if (ec) return std::nullopt;
  std::sort(byIndex.begin(), byIndex.end());
  PlistArray nics;
  for (const auto& [index, name] : byIndex) {
    // The host's Ethernet names: "en..." and "eth...".
    if (name.rfind("en", 0) != 0 && name.rfind("eth", 0) != 0) continue;
    PropertyList record = PropertyList::dict();
    record.set("name", name);
    std::vector<std::uint8_t> mac = macBytes(
        std::string(trimmedBlanks(readSmallFile(net + "/" + name + "/address").value_or(""))));
    if (mac.size() == 6) {
      char text[24];
      std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2],
                    mac[3], mac[4], mac[5]);
      record.set("MAC", text);
    } else {
      NError("%s: Unexpected address len %d", "getMACForInterface", static_cast<int>(mac.size()));
    }
    nics.push_back(std::move(record));
  }
  return nics;
}

void initHistorySystem(PropertyList* context, const std::set<std::string>& volumeTables) {
  PropertyList keys = PropertyList::dict();
  PropertyList factors = PropertyList::dict();
  for (std::uint32_t c = 1; c <= kFixed; ++c) {
    keys.set("v" + std::to_string(c), kFixedColumns[c - 1]);
    factors.set("v" + std::to_string(c), c == 1 ? cpuFactor() : 1.0);
  }
  // No interface list: no interfaces, and the fixed columns alone.
  PlistArray found = getNICNames().value_or(PlistArray{});
  PlistArray nics;
  int column = 9;
  for (const PropertyList& nic : found) {
    std::string first = "v" + std::to_string(column), second = "v" + std::to_string(column + 1);
    PropertyList record = nic;
    record.set("key", first);
    if (found.size() >= 2) {
      std::string name = asciiUppercased(*nic.getString("name"));
      keys.set(first, "NETWORK_THROUGHPUT_" + name);
      keys.set(second, "NETWORK_PACKETS_THROUGHPUT_" + name);
      factors.set(first, 1.0);
      factors.set(second, 1.0);
    }
    nics.push_back(std::move(record));
    column += 2;
  }
  loadPreviousData(nics, context, volumeTables);
  context->set("NICs", PropertyList(std::move(nics)));
  context->set("historyKeys", std::move(keys));
  context->set("historyFactors", std::move(factors));
  context->set("contextDirty", true);
}

void copyHistoryColumns(PlistData& destination, std::uint32_t destinationColumn,
                        const PlistData& source, std::uint32_t sourceColumn, std::uint32_t count) {
  // Deliberate: each block's own header gives its stride, whatever it says; the block's length
  // bounds every cell.
  std::uint64_t dstStride = (std::uint64_t{word(destination, 3)} + 1) * 8;
  std::uint64_t srcStride = (std::uint64_t{word(source, 3)} + 1) * 8;
  for (std::uint64_t row = 0; row < kHistoryRows; ++row) {
    std::uint64_t from = kHistoryHeaderBytes + row * srcStride + std::uint64_t{sourceColumn} * 8;
    std::uint64_t to = kHistoryHeaderBytes + row * dstStride + std::uint64_t{destinationColumn} * 8;
    std::uint64_t bytes = std::uint64_t{count} * 8;
    if (from + bytes > source.size() || to + bytes > destination.size()) continue;
    std::memcpy(destination.data() + to, source.data() + from, static_cast<std::size_t>(bytes));
  }
}

void loadPreviousData(const PlistArray& newNics, PropertyList* context,
                      const std::set<std::string>& volumeTables) {
  const char* fn = "loadPreviousData";
  const PropertyList* oldTableValue = context->get("history");
  const PropertyList* oldNicsValue = context->get("NICs");
  const PlistData* old = oldTableValue ? oldTableValue->asData() : nullptr;
  const PlistArray* oldNics = oldNicsValue ? oldNicsValue->asArray() : nullptr;
  if (old && oldNics) {
    auto columns = static_cast<std::uint32_t>(kFixed + 2 * newNics.size());
    PlistData fresh;
    if (old->size() >= kHistoryHeaderBytes && word(*old, 0) == 1) {
      // The rings' sizes and cursors survive; every cell starts empty.
      fresh = newHistoryTable(columns);
      for (std::size_t w : {1, 2, 4, 5}) setWord(fresh, w, word(*old, w));
    } else {
      // Another version: a new header and zero cells.
      fresh.assign(kHistoryHeaderBytes + std::size_t{kHistoryRows} * (columns + 1) * 8, 0);
      setWord(fresh, 0, 1);
      setWord(fresh, 1, kHistoryRing1Rows);
      setWord(fresh, 2, kHistoryRing2Rows);
      setWord(fresh, 3, columns);
      setWord(fresh, 4, kHistoryRing1Rows - 1);
      setWord(fresh, 5, kHistoryRing2Rows - 1);
    }
    // The time and the fixed columns always carry over.
    copyHistoryColumns(fresh, 0, *old, 0, kFixed + 1);
    // Interfaces are matched by position only.
    std::size_t common = std::min(newNics.size(), oldNics->size());
    for (std::size_t i = 0; i < common; ++i) {
      const PropertyList& a = (*oldNics)[i];
      const PropertyList& b = newNics[i];
      const PropertyList* an = a.get("name");
      const PropertyList* bn = b.get("name");
      const PropertyList* am = a.get("MAC");
      const PropertyList* bm = b.get("MAC");
      // Deliberate: a MAC that couldn't be read matches nothing, not even another such.
      bool same = an && bn && am && bm && *an == *bn && *am == *bm;
      if (same) {
        auto col = static_cast<std::uint32_t>(9 + 2 * i);
        copyHistoryColumns(fresh, col, *old, col, 2);
        NLog("%s: Copied over info for NIC index %d", fn, static_cast<int>(i));
      } else {
        NLog("%s: Skipping transfer of NIC info index %d", fn, static_cast<int>(i));
      }
    }
    context->set("history", PropertyList(std::move(fresh)));
    context->set("contextDirty", true);
  }

  // The context cleaned of what a new start makes stale.
  std::vector<std::string> keys;
  if (const PlistDict* dict = context->asDict())
    for (const auto& [key, value] : *dict) keys.push_back(key);
  for (const std::string& key : keys) {
    if (key.rfind("configStatus_", 0) == 0 || key == "fsmpmStatus") {
      context->erase(key);
      context->set("contextDirty", true);
    } else if (key.rfind("history_", 0) == 0) {
      if (volumeTables.count(key)) {
        NLog("%s: History name '%@' corresponds to still-present volume", fn, key);
      } else {
        purgeVolumeHistory(std::string_view(key).substr(8), context);
        context->set("contextDirty", true);
      }
    }
  }
}

PropertyList getHistorySystemKeys(const PropertyList& context) {
  PropertyList d = PropertyList::dict();
  const PropertyList* keys = context.get("historyKeys");
  const PropertyList* factors = context.get("historyFactors");
  d.set("keys", keys ? *keys : PropertyList::dict());
  d.set("factors", factors ? *factors : PropertyList::dict());
  d.set("identifier", "system");
  return d;
}

PropertyList getHistoryVolKeys(std::string_view volume) {
  PropertyList keys = PropertyList::dict();
  keys.set("v1", "CPU_USAGE");
  keys.set("v2", "RSIZE_USAGE");
  keys.set("v3", "VSIZE_USAGE");
  PropertyList factors = PropertyList::dict();
  factors.set("v1", cpuFactor());
  factors.set("v2", 1.0);
  factors.set("v3", 1.0);
  PropertyList d = PropertyList::dict();
  d.set("keys", std::move(keys));
  d.set("factors", std::move(factors));
  d.set("identifier", "volumeHistory:" + std::string(volume));
  return d;
}

std::optional<std::string> getHistoryData(std::string_view table, const PropertyList* variant,
                                          const PropertyList* timeScale, PropertyList* result,
                                          const PropertyList& context) {
  *result = PropertyList();
  PropertyList samples;
  if (std::optional<std::string> error =
          do_get_named_history_data(table, variant, timeScale, &samples, context))
    return error;
  auto now = static_cast<unsigned long long>(static_cast<double>(clock().wallMicros()) / 1e6);
  PropertyList r = PropertyList::dict();
  std::size_t n = samples.isArray() ? samples.size() : 0;
  r.set("samplesArray", samples.isArray() ? std::move(samples) : PropertyList::array());
  r.set("nbSamples", static_cast<unsigned long long>(n));
  r.set("currentServerTime", now);
  *result = std::move(r);
  return std::nullopt;
}

}  // namespace velm
