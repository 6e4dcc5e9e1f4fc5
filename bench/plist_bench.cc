// XML property-list decode and encode, ours next to libplist's, on three documents: a small
// request, a medium response and a large history-like dictionary. Each pair reports MB/s of the
// same XML text, so the two figures compare directly; a last table gives each ratio beside its
// target (decode at least 3x, encode at least 1.5x libplist's on the medium and large documents).
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <pugixml.hpp>
#include <string>
#include <vector>

#include "plist/plist.h"

// libplist's header has the same include name as ours, so its four calls are declared here.
extern "C" {
typedef void* plist_t;
void plist_from_xml(const char* xml, uint32_t length, plist_t* plist);
void plist_to_xml(plist_t plist, char** xml, uint32_t* length);
void plist_free(plist_t plist);
}

namespace {

using velm::PlistArray;
using velm::PlistData;
using velm::PlistDate;
using velm::PropertyList;

PropertyList smallRequest() {
  PropertyList r = PropertyList::dict();
  r.set("command", "setVolumeState");
  r.set("volume", "Projects & Media");
  r.set("state", 2);
  r.set("force", false);
  r.set("timeout", 30.5);
  PropertyList opts = PropertyList::dict();
  opts.set("host", "controller-1.example.net");
  opts.set("priority", 3);
  opts.set("when", PlistDate{815997600});
  r.set("options", opts);
  PropertyList list = PropertyList::array();
  for (const char* h : {"alpha", "beta", "gamma"}) list.push(h);
  r.set("hosts", list);
  return r;
}

PropertyList mediumResponse() {
  PlistArray items;
  for (int i = 0; i < 200; ++i) {
    PropertyList d = PropertyList::dict();
    d.set("name", "Volume " + std::to_string(i));
    d.set("uuid", "6F9619FF-8B86-D011-B42D-00C04FC9" + std::to_string(1000 + i));
    d.set("capacity", static_cast<long long>(i) * 1099511627776LL + 12345);
    d.set("used", static_cast<unsigned long long>(i) * 3221225472ULL);
    d.set("ratio", i / 7.0);
    d.set("online", i % 3 != 0);
    d.set("journaled", i % 2 == 0);
    d.set("created", PlistDate{800000000.0 + i * 3600});
    d.set("tag", PlistData{static_cast<std::uint8_t>(i), 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11});
    d.set("comment", "stripe group <" + std::to_string(i % 4) + "> on fabric A");
    items.push_back(std::move(d));
  }
  PropertyList r = PropertyList::dict();
  r.set("status", 0);
  r.set("volumes", PropertyList(std::move(items)));
  return r;
}

PropertyList largeHistory() {
  PropertyList r = PropertyList::dict();
  for (int t = 0; t < 40; ++t) {
    PlistArray rows;
    if (t % 2 == 0) {
      for (int i = 0; i < 320; ++i) {
        PropertyList row = PropertyList::dict();
        row.set("time", 815997600LL + i * 60);
        PlistArray values;
        for (int k = 0; k < 8; ++k) values.emplace_back((i * 8 + k) * 0.37 + t);
        row.set("values", PropertyList(std::move(values)));
        row.set("valid", i % 5 != 0);
        rows.push_back(std::move(row));
      }
    } else {
      for (int i = 0; i < 320; ++i) {
        PlistArray sample;
        sample.emplace_back(815997600LL + i * 60);
        for (int k = 0; k < 10; ++k) sample.emplace_back(static_cast<long long>(i) * 1000 + k * 17);
        rows.emplace_back(std::move(sample));
      }
    }
    r.set("table" + std::to_string(t), PropertyList(std::move(rows)));
  }
  r.set("version", 3);
  return r;
}

struct Doc {
  const char* name;
  PropertyList value;
  std::string xml;
  plist_t theirs = nullptr;
};

std::vector<Doc>& docs() {
  static std::vector<Doc> all = [] {
    std::vector<Doc> v;
    v.push_back({"small", smallRequest(), {}, nullptr});
    v.push_back({"medium", mediumResponse(), {}, nullptr});
    v.push_back({"large", largeHistory(), {}, nullptr});
    for (Doc& d : v) {
      d.xml = velm::writeXmlPlist(d.value);
      plist_from_xml(d.xml.data(), static_cast<uint32_t>(d.xml.size()), &d.theirs);
      if (!d.theirs || !velm::readXmlPlist(d.xml)) {
        std::fprintf(stderr, "bench document %s does not read back\n", d.name);
        std::exit(1);
      }
    }
    return v;
  }();
  return all;
}

void decodeOurs(benchmark::State& state, const Doc* d) {
  for (auto _ : state) {
    velm::PlistReadResult r = velm::readXmlPlist(d->xml);
    benchmark::DoNotOptimize(r);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * d->xml.size()));
}

void decodeLibplist(benchmark::State& state, const Doc* d) {
  for (auto _ : state) {
    plist_t p = nullptr;
    plist_from_xml(d->xml.data(), static_cast<uint32_t>(d->xml.size()), &p);
    benchmark::DoNotOptimize(p);
    plist_free(p);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * d->xml.size()));
}

// The XML library alone, with the options and the copy our reader uses: the ceiling for ours.
void parsePugixml(benchmark::State& state, const Doc* d) {
  std::vector<char> buffer(d->xml.size());
  constexpr unsigned kFlags = pugi::parse_cdata | pugi::parse_ws_pcdata_single |
                              pugi::parse_embed_pcdata | pugi::parse_fragment;
  for (auto _ : state) {
    std::memcpy(buffer.data(), d->xml.data(), d->xml.size());
    pugi::xml_document doc;
    benchmark::DoNotOptimize(doc.load_buffer_inplace(buffer.data(), buffer.size(), kFlags));
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * d->xml.size()));
}

void encodeOurs(benchmark::State& state, const Doc* d) {
  for (auto _ : state) {
    std::string xml = velm::writeXmlPlist(d->value);
    benchmark::DoNotOptimize(xml);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * d->xml.size()));
}

void encodeLibplist(benchmark::State& state, const Doc* d) {
  for (auto _ : state) {
    char* xml = nullptr;
    uint32_t len = 0;
    plist_to_xml(d->theirs, &xml, &len);
    benchmark::DoNotOptimize(xml);
    std::free(xml);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * d->xml.size()));
}

// MB/s of each benchmark by name, kept as the console shows them.
std::map<std::string, double> gMBps;

class CapturingReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& r : runs) {
      auto it = r.counters.find("bytes_per_second");
      if (!r.error_occurred && r.run_type == Run::RT_Iteration && it != r.counters.end())
        gMBps[r.benchmark_name()] = it->second / 1e6;
    }
    ConsoleReporter::ReportRuns(runs);
  }
};

void printRatios() {
  std::printf("\nMB/s             ours  libplist   ratio  target\n");
  // The decode figures also stand beside a bare pugixml parse, which no reader on it can pass.
  for (const char* op : {"decode", "encode"}) {
    for (const Doc& d : docs()) {
      std::string base = std::string(op) + "/" + d.name;
      auto ours = gMBps.find(base + "/ours"), theirs = gMBps.find(base + "/libplist");
      if (ours == gMBps.end() || theirs == gMBps.end() || theirs->second <= 0) continue;
      double ratio = ours->second / theirs->second;
      bool targeted = std::string(d.name) != "small";
      double target = std::string(op) == "decode" ? 3.0 : 1.5;
      std::printf("%-14s %7.0f  %8.0f  %5.2fx  ", base.c_str(), ours->second, theirs->second,
                  ratio);
      if (targeted)
        std::printf(">= %.1fx %-7s", target, ratio >= target ? "met" : "NOT met");
      else
        std::printf("%-15s", "(none)");
      auto bare = gMBps.find(base + "/pugixml-parse-only");
      if (bare != gMBps.end() && bare->second > 0)
        std::printf("  bare pugixml parse %4.0f (ours at %.0f%%)", bare->second,
                    100 * ours->second / bare->second);
      std::printf("\n");
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  for (const Doc& d : docs()) {
    std::string n = d.name;
    benchmark::RegisterBenchmark(("decode/" + n + "/ours").c_str(), decodeOurs, &d);
    benchmark::RegisterBenchmark(("decode/" + n + "/libplist").c_str(), decodeLibplist, &d);
    benchmark::RegisterBenchmark(("decode/" + n + "/pugixml-parse-only").c_str(), parsePugixml, &d);
  }
  for (const Doc& d : docs()) {
    std::string n = d.name;
    benchmark::RegisterBenchmark(("encode/" + n + "/ours").c_str(), encodeOurs, &d);
    benchmark::RegisterBenchmark(("encode/" + n + "/libplist").c_str(), encodeLibplist, &d);
  }
  for (const Doc& d : docs()) std::printf("document %s: %zu bytes of XML\n", d.name, d.xml.size());
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  CapturingReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  printRatios();
  benchmark::Shutdown();
  return 0;
}
