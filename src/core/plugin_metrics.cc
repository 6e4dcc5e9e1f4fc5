// What /metrics shows of the plugin: the last history sample, straight from the context.
#include <string_view>

#include "adminhost/history_store.h"
#include "core/velm_plugin.h"

namespace velm {
namespace {

PropertyList family(const char* name, const char* help, const char* type) {
  PropertyList f = PropertyList::dict();
  f.set("name", name);
  f.set("help", help);
  f.set("type", type);
  f.set("samples", PropertyList::array());
  return f;
}

void addSample(PropertyList& f, const char* label, const std::string& labelValue, PropertyList value) {
  PropertyList labels = PropertyList::dict();
  labels.set(label, labelValue);
  PropertyList s = PropertyList::dict();
  s.set("labels", std::move(labels));
  s.set("value", std::move(value));
  f.get("samples")->push(std::move(s));
}

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
  PropertyList cpu = family("velm_fsm_cpu_ratio", "CPU of the volume's FSM process at the last sample (1 is one processor)", "gauge");
  PropertyList resident =
      family("velm_fsm_resident_bytes", "Resident size of the volume's FSM process at the last sample", "gauge");
  PropertyList virt =
      family("velm_fsm_virtual_bytes", "Virtual size of the volume's FSM process at the last sample", "gauge");
  PropertyList sampled =
      family("velm_fsm_sample_time_seconds", "Unix time of the volume's last history sample", "gauge");
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
      if (auto v = cell(1)) addSample(cpu, "volume", volume, static_cast<double>(*v) / 10000.0);
      if (auto v = cell(2)) addSample(resident, "volume", volume, static_cast<long long>(*v));
      if (auto v = cell(3)) addSample(virt, "volume", volume, static_cast<long long>(*v));
      if (auto v = cell(0)) addSample(sampled, "volume", volume, static_cast<long long>(*v));
    }
  }
  PropertyList bytes = family("velm_fibre_bytes_total", "Bytes moved through the fibre port (target-domain) as last sampled", "counter");
  if (const PlistDict* store = dictAt(context, "fibreThroughputStore"))
    for (const auto& [port, value] : *store)
      if (auto v = value.uint64Value()) addSample(bytes, "port", port, static_cast<unsigned long long>(*v));
  PropertyList rates = family("velm_fibre_bytes_per_second", "Fibre port throughput over the last sample interval", "gauge");
  if (const PlistArray* perPort = arrayAt(context, "fibreThroughputsArray"))
    for (const PropertyList& entry : *perPort)
      if (const PlistDict* e = entry.asDict())
        for (const auto& [port, value] : *e)
          if (auto v = value.uint64Value()) addSample(rates, "port", port, static_cast<unsigned long long>(*v));
  PropertyList out = PropertyList::array();
  for (PropertyList* f : {&cpu, &resident, &virt, &sampled, &bytes, &rates}) out.push(std::move(*f));
  return out;
}

}  // namespace velm
