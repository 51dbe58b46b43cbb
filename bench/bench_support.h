#pragma once

// Shared by the benchmark programs: a reporter that remembers what each
// benchmark measured, so a program can print how we compare with the peer
// measured in the same run.

#include <benchmark/benchmark.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace quillon::bench {

// Prints the usual table and remembers each benchmark's CPU time per
// iteration and its counters; with repetitions, the median stands for the
// benchmark. CPU time, not wall time: the machines this runs on are shared,
// and waiting for a core is not our cost. Used by main's thread only.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.error_occurred) continue;
      bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
      if (run.run_type != Run::RT_Iteration && !median) continue;
      std::string name = run.run_name.str();
      if (!median && medians_.count(name)) continue;
      if (median) medians_[name] = true;
      Result& result = results_[name];
      result.cpuTime = run.GetAdjustedCPUTime();
      for (const auto& [key, counter] : run.counters) result.counters[key] = counter.value;
    }
  }

  // The named benchmark's CPU time per iteration, or 0 when it did not run.
  double cpuTime(const std::string& name) const {
    auto it = results_.find(name);
    return it == results_.end() ? 0 : it->second.cpuTime;
  }

  // One of the named benchmark's counters, or 0 when it has none such.
  double counter(const std::string& name, const std::string& key) const {
    auto it = results_.find(name);
    if (it == results_.end()) return 0;
    auto value = it->second.counters.find(key);
    return value == it->second.counters.end() ? 0 : value->second;
  }

 private:
  struct Result {
    double cpuTime = 0;
    std::map<std::string, double> counters;
  };
  std::map<std::string, Result> results_;
  std::map<std::string, bool> medians_;
};

// The whole of a benchmark program's main: prepare runs before any timing
// starts, printRatios after every selected benchmark has run.
inline int runBenchmarks(int argc, char** argv,
                         const std::function<void(const RatioReporter&)>& printRatios,
                         const std::function<void()>& prepare = {}) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  if (prepare) prepare();
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  printRatios(reporter);
  benchmark::Shutdown();
  return 0;
}

}  // namespace quillon::bench
