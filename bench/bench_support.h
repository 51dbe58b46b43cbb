#pragma once

// Shared by the benchmark programs: a reporter that remembers what each
// benchmark measured, so a program can print how we compare with the peer
// measured in the same run.

#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "quillon/base/error.h"
#include "quillon/graph/managed_object_model.h"
#include "quillon/platform/main_queue.h"
#include "quillon/platform/standard_paths.h"
#include "quillon/store/quillon.h"

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

// Ends the program with a message: a benchmark without its fixture measures nothing.
[[noreturn]] inline void fail(const std::string& message) {
  std::fprintf(stderr, "%s\n", message.c_str());
  std::exit(1);
}

// Whether QUILLON_BENCH_QUICK asks for the small sizes (a smoke run).
inline bool quickRun() {
  const char* quick = std::getenv("QUILLON_BENCH_QUICK");
  return quick && *quick && std::string_view(quick) != "0";
}

// Makes this process one application with its settings and local cache
// under `root` (not the user's own), this thread its main queue and the
// store registered; answers the model read from `modelJSON`.
inline std::shared_ptr<const ManagedObjectModel> setUpApplication(const std::string& root,
                                                                  std::string_view modelJSON) {
  setenv("XDG_CONFIG_HOME", (root + "/config").c_str(), 1);
  StandardPaths::setUserCacheDirectory(root + "/caches");
  MainQueue::setMainThreadToCurrent();
  Quillon::registerStore();
  Error error;
  auto model = ManagedObjectModel::fromJSON(modelJSON, &error);
  if (!model) fail("model: " + error.localizedDescription());
  return model;
}

// Runs SQL that answers no rows, or fails.
inline void sqliteExec(sqlite3* db, const std::string& sql) {
  char* message = nullptr;
  if (sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &message) != SQLITE_OK) {
    std::string text = message ? message : "?";
    sqlite3_free(message);
    fail("sqlite: " + text);
  }
}

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
