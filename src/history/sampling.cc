#include "history/sampling.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <filesystem>
#include <sstream>

#include "adminhost/history_store.h"
#include "fabric/device_manager.h"
#include "history/history_system.h"
#include "history/libtop.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "platform/string_additions.h"
#include "plist/format.h"
#include "volumes/volume_inspection.h"
#include "volumes/volume_state.h"

namespace velm {
namespace {

constexpr double kUnixOf2001 = 978307200.0;
constexpr double kWrap32 = 4294967296.0;

double nowSeconds() { return static_cast<double>(clock().wallMicros()) / 1e6; }

// The 15-second rule: true when the sampler may read afresh (its time is then set and the
// context dirtied); *interval the seconds since its last sample (0.0 without one).
bool freshSample(PropertyList* context, const char* timeKey, double* interval) {
  double now = nowSeconds();
  *interval = 0.0;
  const PropertyList* last = context->get(timeKey);
  std::optional<PlistDate> date = last ? last->asDate() : std::nullopt;
  if (date) {
    *interval = now - (date->secondsSince2001 + kUnixOf2001);
    if (*interval < kSampleSeconds) return false;
  }
  context->set(timeKey, PropertyList(PlistDate{now - kUnixOf2001}));
  context->set("contextDirty", true);
  return true;
}

std::optional<double> numberAt(const PropertyList* dict, const std::string& key) {
  const PropertyList* v = dict ? dict->get(key) : nullptr;
  return v && v->isNumber() ? v->doubleValue() : std::nullopt;
}

std::optional<std::uint64_t> unsignedAt(const PropertyList* dict, const std::string& key) {
  const PropertyList* v = dict ? dict->get(key) : nullptr;
  if (!v || !v->isNumber()) return std::nullopt;
  if (std::optional<std::uint64_t> u = v->uint64Value()) return u;
  std::optional<double> d = v->doubleValue();
  return d && *d >= 0 ? std::optional<std::uint64_t>(static_cast<std::uint64_t>(*d)) : std::nullopt;
}

// The online processors' tick counters from /proc/stat; nothing when the file can't be read.
std::optional<std::vector<CpuTicks>> readCpuTicks() {
  std::optional<std::string> text = readFile(procfsPath("stat"));
  if (!text) return std::nullopt;
  return parseCpuTicks(*text);
}

}  // namespace

std::vector<CpuTicks> parseCpuTicks(std::string_view text) {
  std::vector<CpuTicks> cpus;
  std::istringstream in{std::string(text)};
  for (std::string line; std::getline(in, line);) {
    // "cpu0 ..." lines only; "cpu " is the total.
    if (line.size() < 4 || line.compare(0, 3, "cpu") != 0 || line[3] < '0' || line[3] > '9')
      continue;
    std::size_t blank = line.find(' ');
    if (blank == std::string::npos) continue;
    std::istringstream words(line.substr(blank));
    std::uint64_t f[7] = {};
    int n = 0;
    while (n < 7 && words >> f[n]) ++n;
    if (n < 4) continue;
    CpuTicks t;
    // Low 32 bits, so they wrap as the 32-bit counters the rates expect: system = system + irq +
    // softirq, idle = idle + iowait.
    t.user = static_cast<std::uint32_t>(f[0]);
    t.nice = static_cast<std::uint32_t>(f[1]);
    t.system = static_cast<std::uint32_t>(f[2] + f[5] + f[6]);
    t.idle = static_cast<std::uint32_t>(f[3] + f[4]);
    cpus.push_back(t);
  }
  return cpus;
}

void get_cpu_usage(std::optional<std::uint64_t>* usage, PropertyList* perProcessor,
                   PropertyList* context) {
  double interval;
  if (!freshSample(context, "cpuUsageSampleTime", &interval)) {
    const PropertyList* cached = context->get("cpuUsage");
    *usage = cached && cached->isNumber() ? cached->uint64Value() : std::nullopt;
    const PropertyList* array = context->get("cpuUsagesArray");
    *perProcessor = array ? *array : PropertyList::array();
    return;
  }
  *usage = std::nullopt;
  *perProcessor = PropertyList::array();
  std::optional<std::vector<CpuTicks>> cpus = readCpuTicks();
  // Unreadable: the row has no CPU value and the context keeps its entries.
  if (!cpus || cpus->empty()) return;
  const PropertyList* old = context->get("cpuUsageStore");
  PropertyList store = PropertyList::dict();
  double sum = 0;
  std::uint64_t m = 0;
  for (std::size_t p = 0; p < cpus->size(); ++p) {
    const CpuTicks& t = (*cpus)[p];
    double idle = t.idle;
    // Deliberate: nice ticks are not part of the total.
    double total = static_cast<double>(t.user) + t.system + t.idle;
    std::string idleKey = format("idle_ticks-%d", static_cast<int>(p));
    std::string totalKey = format("total_ticks-%d", static_cast<int>(p));
    store.set(idleKey, idle);
    store.set(totalKey, total);
    std::optional<double> oldIdle = numberAt(old, idleKey), oldTotal = numberAt(old, totalKey);
    if (!oldIdle || !oldTotal) continue;
    if (idle < *oldIdle) idle += kWrap32;
    if (total < *oldTotal) total += kWrap32;
    double value =
        total > *oldTotal ? 10000.0 - (idle - *oldIdle) * 10000.0 / (total - *oldTotal) : 0.0;
    sum += value;
    ++m;
    PropertyList entry = PropertyList::dict();
    entry.set(format("cpuUsage-%d", static_cast<int>(p)),
              static_cast<unsigned long long>(value > 0 ? value : 0));
    perProcessor->push(std::move(entry));
  }
  *usage = static_cast<std::uint64_t>(sum > 0 ? sum : 0) / (m ? m : 1);
  context->set("cpuUsageStore", std::move(store));
  context->set("cpuUsage", static_cast<unsigned long long>(**usage));
  context->set("cpuUsagesArray", *perProcessor);
}

void get_fibre_traffic(std::uint64_t* total, PropertyList* perCounter, PropertyList* context) {
  double interval;
  if (!freshSample(context, "fibreThroughputSampleTime", &interval)) {
    *total = unsignedAt(context, "fibreThroughput").value_or(0);
    const PropertyList* array = context->get("fibreThroughputsArray");
    *perCounter = array ? *array : PropertyList::array();
    return;
  }
  *total = 0;
  *perCounter = PropertyList::array();
  const PropertyList* old = context->get("fibreThroughputStore");
  PropertyList store = PropertyList::dict();
  std::optional<PropertyList> stats = SANDeviceManager::defaultManager().recentStats();
  if (const PlistDict* targets = stats ? stats->asDict() : nullptr) {
    for (const auto& [wwnn, domains] : *targets) {
      const PlistDict* byDomain = domains.asDict();
      if (!byDomain) continue;
      for (const auto& [domain, bytes] : *byDomain) {
        std::string key = wwnn + "-" + domain;
        std::uint64_t value = bytes.uint64Value().value_or(0);
        std::optional<std::uint64_t> before = unsignedAt(old, key);
        if (before && interval > 0.0) {
          std::uint64_t delta = 0;
          // A counter that went back was reset: the store holds on to its high-water mark.
          if (value < *before)
            value = *before;
          else
            delta = value - *before;
          std::uint64_t rate = delta / static_cast<std::uint64_t>(interval);
          PropertyList entry = PropertyList::dict();
          entry.set(key, static_cast<unsigned long long>(rate));
          perCounter->push(std::move(entry));
          *total += rate;
        }
        store.set(key, static_cast<unsigned long long>(value));
      }
    }
  }
  context->set("fibreThroughput", static_cast<unsigned long long>(*total));
  context->set("fibreThroughputStore", std::move(store));
  context->set("fibreThroughputsArray", *perCounter);
}

std::optional<PropertyList> sampleNetwork(PropertyList* context) {
  double interval;
  if (!freshSample(context, "networkThroughputSampleTime", &interval)) {
    const PropertyList* cached = context->get("networkThroughput");
    return cached ? std::optional<PropertyList>(*cached) : std::nullopt;
  }
  std::optional<PlistArray> nics = getNICNames();
  if (!nics) return std::nullopt;
  const PropertyList* old = context->get("networkThroughputStore");
  PropertyList store = PropertyList::dict();
  PropertyList interfaces = PropertyList::dict();
  std::uint64_t inBytes = 0, outBytes = 0, inPackets = 0, outPackets = 0;
  std::string net = sysfsPath("class/net");
  std::uint64_t seconds = static_cast<std::uint64_t>(interval);
  for (const PropertyList& nic : *nics) {
    const std::string& name = *nic.getString("name");
    const char* files[] = {"rx_bytes", "tx_bytes", "rx_packets", "tx_packets"};
    const char* keys[] = {"if_ibytes-", "if_obytes-", "if_ipackets-", "if_opackets-"};
    std::uint64_t raw[4];
    bool readable = true;
    for (int i = 0; i < 4 && readable; ++i) {
      std::optional<std::string> text = readSmallFile(net + "/" + name + "/statistics/" + files[i]);
      std::uint64_t v = 0;
      readable =
          text && std::from_chars(text->data(), text->data() + text->size(), v).ec == std::errc();
      raw[i] = v;
    }
    // An interface whose counters can't be read is passed over.
    if (!readable) continue;
    std::uint64_t rate[4] = {};
    bool counted[4] = {};
    for (int i = 0; i < 4; ++i) {
      std::string key = keys[i] + asciiUppercased(name);
      store.set(key, static_cast<unsigned long long>(raw[i]));
      std::optional<std::uint64_t> before = unsignedAt(old, key);
      if (!before) continue;
      // Deliberate: one wrap of a 32-bit counter is assumed, though these are 64 bits wide.
      std::uint64_t now = raw[i] < *before ? raw[i] + (std::uint64_t{1} << 32) : raw[i];
      rate[i] = seconds ? (now - *before) / seconds : 0;
      counted[i] = true;
    }
    if (counted[0]) inBytes += rate[0];
    if (counted[1]) outBytes += rate[1];
    if (counted[2]) inPackets += rate[2];
    if (counted[3]) outPackets += rate[3];
    PropertyList rates = PropertyList::dict();
    rates.set("inputBytes", static_cast<unsigned long long>(rate[0]));
    rates.set("outputBytes", static_cast<unsigned long long>(rate[1]));
    rates.set("totalBytes", static_cast<unsigned long long>(rate[0] + rate[1]));
    rates.set("inputPackets", static_cast<unsigned long long>(rate[2]));
    rates.set("outputPackets", static_cast<unsigned long long>(rate[3]));
    rates.set("totalPackets", static_cast<unsigned long long>(rate[2] + rate[3]));
    interfaces.set(name, std::move(rates));
  }
  PropertyList throughput = PropertyList::dict();
  throughput.set("total_bytes_throughput", static_cast<unsigned long long>(inBytes + outBytes));
  throughput.set("total_bytes_input", static_cast<unsigned long long>(inBytes));
  throughput.set("total_bytes_output", static_cast<unsigned long long>(outBytes));
  throughput.set("total_packet_throughput",
                 static_cast<unsigned long long>(inPackets + outPackets));
  throughput.set("total_packet_input", static_cast<unsigned long long>(inPackets));
  throughput.set("total_packet_output", static_cast<unsigned long long>(outPackets));
  throughput.set("interfaces_array", std::move(interfaces));
  context->set("networkThroughputStore", std::move(store));
  context->set("networkThroughput", throughput);
  return throughput;
}

bool update_named_history_data(const std::string& volume, PropertyList* context) {
  std::uint64_t cpu = 0, rsize = 0, vsize = 0;
  std::string storeKey = "FSMStore_" + volume;
  int handle = open_fs_connection();
  long long pid = -1;
  if (handle >= 0) {
    std::optional<PropertyList> fsm = get_local_fsmvol_named(handle, &volume);
    const PropertyList* stats = fsm ? fsm->get("VolumeStats") : nullptr;
    const PropertyList* id = stats && stats->isDict() ? stats->get("ProcessID") : nullptr;
    if (id && id->isNumber()) pid = id->int64Value().value_or(-1);
    close_fs_connection(handle);
  }
  auto running = [&](bool on) {
    PropertyList s = PropertyList::dict();
    s.set("proc_running", on);
    context->set(storeKey, std::move(s));
  };
  if (pid == -1) {
    NError("get_fsm_process_stats(%@): Unable to find pid of fsm", volume);
    running(false);
  } else if (libtop_init(nullptr, nullptr) != 0) {
    NError("get_fsm_process_stats(%@): Unable to libtop_init", volume);
    running(true);
  } else if (libtop_sample(true, true) != 0) {
    libtop_fini();
  } else {
    const libtop_tsamp_t* when = libtop_tsamp();
    const libtop_pinfo_t* found = nullptr;
    while (const libtop_pinfo_t* p = libtop_piterate())
      if (p->pid == pid) found = p;
    if (found) {
      auto micros = [](const libtop_time_t& t) {
        return static_cast<std::uint64_t>(t.seconds) * 1000000 +
               static_cast<std::uint64_t>(t.microseconds);
      };
      std::uint64_t system = micros(when->time), process = micros(found->total_time);
      const PropertyList* old = context->get(storeKey);
      std::uint64_t oldSystem = unsignedAt(old, "system_info_p_time").value_or(system);
      std::uint64_t oldProcess = unsignedAt(old, "proc_info_p_total_time").value_or(process);
      // Deliberate: a counter that went back adds the largest signed value.
      auto delta = [](std::uint64_t now, std::uint64_t before) {
        return now >= before ? now - before : before - now + 0x7FFFFFFFFFFFFFFFull;
      };
      std::uint64_t dSystem = delta(system, oldSystem), dProcess = delta(process, oldProcess);
      cpu = dSystem ? dProcess * 10000 / dSystem : 0;
      rsize = found->rsize;
      vsize = found->vsize;
      PropertyList s = PropertyList::dict();
      s.set("system_info_p_time", static_cast<unsigned long long>(system));
      s.set("proc_info_p_total_time", static_cast<unsigned long long>(process));
      s.set("proc_running", true);
      context->set(storeKey, std::move(s));
      NLog("get_fsm_process_stats(%@/pid=%d): cpu=%0.4f%%, rsize=%@, vsize=%@", volume,
           static_cast<int>(pid), static_cast<double>(cpu) / 100.0,
           PropertyList(static_cast<unsigned long long>(rsize)),
           PropertyList(static_cast<unsigned long long>(vsize)));
    }
    libtop_fini();
  }
  // A stopped FSM is a flat line at 0, not a gap.
  PlistArray row{PropertyList(static_cast<unsigned long long>(cpu)),
                 PropertyList(static_cast<unsigned long long>(rsize)),
                 PropertyList(static_cast<unsigned long long>(vsize))};
  return do_update_named_history_data(historyNameForVolume(volume), PropertyList(std::move(row)),
                                      context) != 0;
}

int updateHistoryData(PropertyList* context, bool controller,
                      const std::vector<std::string>& volumes) {
  if (!context || !context->isDict()) return 0;
  std::optional<std::uint64_t> cpu;
  PropertyList perCpu, perFibre;
  std::uint64_t fibre = 0;
  get_cpu_usage(&cpu, &perCpu, context);
  get_fibre_traffic(&fibre, &perFibre, context);
  std::optional<PropertyList> net = sampleNetwork(context);

  auto value = [](std::optional<std::uint64_t> v) {
    return v ? PropertyList(static_cast<unsigned long long>(*v)) : PropertyList("");
  };
  auto total = [&](const char* key) { return value(net ? unsignedAt(&*net, key) : std::nullopt); };
  PlistArray row{value(cpu),
                 PropertyList(static_cast<unsigned long long>(fibre)),
                 total("total_bytes_throughput"),
                 total("total_packet_throughput"),
                 total("total_bytes_input"),
                 total("total_packet_input"),
                 total("total_bytes_output"),
                 total("total_packet_output")};
  const PropertyList* nics = context->get("NICs");
  const PropertyList* perInterface = net ? net->get("interfaces_array") : nullptr;
  if (const PlistArray* list = nics ? nics->asArray() : nullptr) {
    for (std::size_t i = 0; i < list->size(); ++i) {
      std::string key = "v" + std::to_string(9 + 2 * i);
      const PropertyList* rates = nullptr;
      for (const PropertyList& nic : *list) {
        const std::string* k = nic.getString("key");
        const std::string* name = nic.getString("name");
        if (k && *k == key && name && perInterface) rates = perInterface->get(*name);
      }
      row.push_back(value(rates ? unsignedAt(rates, "totalBytes") : std::nullopt));
      row.push_back(value(rates ? unsignedAt(rates, "totalPackets") : std::nullopt));
    }
  }
  do_update_history_data(PropertyList(std::move(row)), context);
  if (controller)
    for (const std::string& volume : volumes) update_named_history_data(volume, context);
  return 0;
}

}  // namespace velm
