// What the benchmarks that compare against a floor share: a reporter that keeps each
// benchmark's mean real time per iteration, so main() can print figures beside their anchors.
#pragma once

#include <benchmark/benchmark.h>

#include <map>
#include <string>
#include <vector>

namespace velm::bench {

class CapturingReporter : public benchmark::ConsoleReporter {
 public:
  CapturingReporter() : ConsoleReporter(OO_Tabular) {}
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& r : runs) {
      // "BM_FSMStat/min_time:1.000" -> "BM_FSMStat"
      std::string name = r.benchmark_name();
      if (!r.error_occurred && r.run_type == Run::RT_Iteration)
        nsPerIteration_[name.substr(0, name.find('/'))] = r.GetAdjustedRealTime();
    }
    ConsoleReporter::ReportRuns(runs);
  }
  // Mean real time per iteration in nanoseconds, 0 when the benchmark did not run.
  double ns(const std::string& name) const {
    auto it = nsPerIteration_.find(name);
    return it == nsPerIteration_.end() ? 0 : it->second;
  }

 private:
  std::map<std::string, double> nsPerIteration_;
};

}  // namespace velm::bench
