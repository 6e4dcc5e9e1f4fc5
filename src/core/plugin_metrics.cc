// What /metrics shows of the plugin: the last history sample, straight from the context.
#include <algorithm>
#include <optional>
#include <string_view>

#include "adminhost/history_store.h"
#include "core/velm_plugin.h"

namespace velm {
namespace {

// One family, labelled by one name; its samples go into the returned array.
struct Family {
  PropertyList dict = PropertyList::dict();
  PlistArray samples;

  Family(const char* name, const char* help, const char* type, const char* label) {
    dict.set("name", name);
    dict.set("help", help);
    dict.set("type", type);
    dict.set("labels", PlistArray{PropertyList(label)});
  }
  void add(const std::string& labelValue, PropertyList value) {
    samples.push_back(PropertyList(PlistArray{PropertyList(labelValue), std::move(value)}));
  }
  PropertyList take() {
    dict.set("samples", PropertyList(std::move(samples)));
    return std::move(dict);
  }
};

const PlistDict* dictAt(const PropertyList& d, std::string_view key) {
  const PropertyList* v = d.get(key);
  return v ? v->asDict() : nullptr;
}

const PlistArray* arrayAt(const PropertyList& d, std::string_view key) {
  const PropertyList* v = d.get(key);
  return v ? v->asArray() : nullptr;
}

}  // namespace

std::optional<PropertyList> VelmPlugin::metricsFromContext(const PropertyList& context) const {
  Family cpu("velm_fsm_cpu_ratio", "CPU of the volume's FSM process at the last sample (1 is one processor)",
             "gauge", "volume");
  Family resident("velm_fsm_resident_bytes", "Resident size of the volume's FSM process at the last sample",
                  "gauge", "volume");
  Family virt("velm_fsm_virtual_bytes", "Virtual size of the volume's FSM process at the last sample", "gauge",
              "volume");
  // Every volume is sampled at the same tick: one time stands for all.
  std::optional<std::int64_t> newest;
  const std::string prefix = historyNameForVolume("");
  if (const PlistDict* d = context.asDict()) {
    for (const auto& [key, value] : *d) {
      if (key.size() <= prefix.size() || key.compare(0, prefix.size(), prefix) != 0) continue;
      const PlistData* block = value.asData();
      auto row = block ? lastHistoryRow(*block) : std::nullopt;
      if (!row) continue;
      std::string volume = key.substr(prefix.size());
      const auto& cells = *row;
      auto cell = [&](std::size_t i) { return i < cells.size() ? cells[i] : std::nullopt; };
      // Cell 1 is in hundredths of a percent.
      if (auto v = cell(1)) cpu.add(volume, static_cast<double>(*v) / 10000.0);
      if (auto v = cell(2)) resident.add(volume, static_cast<long long>(*v));
      if (auto v = cell(3)) virt.add(volume, static_cast<long long>(*v));
      if (auto v = cell(0)) newest = std::max(newest.value_or(*v), *v);
    }
  }
  Family bytes("velm_fibre_bytes_total", "Bytes moved through the fibre port (target-domain) as last sampled",
               "counter", "port");
  if (const PlistDict* store = dictAt(context, "fibreThroughputStore"))
    for (const auto& [port, value] : *store)
      if (auto v = value.uint64Value()) bytes.add(port, static_cast<unsigned long long>(*v));
  Family rates("velm_fibre_bytes_per_second", "Fibre port throughput over the last sample interval", "gauge",
               "port");
  if (const PlistArray* perPort = arrayAt(context, "fibreThroughputsArray"))
    for (const PropertyList& entry : *perPort)
      if (const PlistDict* e = entry.asDict())
        for (const auto& [port, value] : *e)
          if (auto v = value.uint64Value()) rates.add(port, static_cast<unsigned long long>(*v));
  PlistArray out;
  for (Family* f : {&cpu, &resident, &virt, &bytes, &rates}) out.push_back(f->take());
  if (newest) {
    PropertyList sampled = PropertyList::dict();
    sampled.set("name", "velm_fsm_sample_time_seconds");
    sampled.set("help", "Unix time of the newest row of the volumes' FSM history");
    sampled.set("type", "gauge");
    sampled.set("samples", PlistArray{PropertyList(PlistArray{PropertyList(static_cast<long long>(*newest))})});
    out.push_back(std::move(sampled));
  }
  return PropertyList(std::move(out));
}

}  // namespace velm
