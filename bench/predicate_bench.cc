// Filters and sorts 100000 in-memory objects (GenericObjects, as managed
// objects and cache items present themselves to predicates) with a parsed
// Predicate and SortDescriptors, and in the same run does the same work with a
// hand-written C++ loop over plain structs holding the same values, then
// prints how much slower the general path is.
//
//   filter: priority > 3 AND title BEGINSWITH[c] "a"
//   sort:   title (case-insensitive, ascending), then priority (descending)
//   fetch:  the filter, then the sort of what matched

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "quillon/graph/predicate.h"
#include "quillon/graph/sort_descriptor.h"
#include "bench_support.h"

namespace {

using quillon::GenericObject;
using quillon::Predicate;
using quillon::SortDescriptor;
using quillon::Value;

constexpr size_t kObjects = 100000;

struct Task {
  std::string title;
  int64_t priority;
};

struct Data {
  std::vector<Task> tasks;
  std::vector<Value> objects;
};

const Data& data() {
  static const Data* d = [] {
    auto* out = new Data;
    std::mt19937 random(20240601);
    for (size_t i = 0; i < kObjects; ++i) {
      std::string title;
      size_t length = 4 + random() % 12;
      for (size_t k = 0; k < length; ++k) {
        char base = (k == 0 && random() % 2) ? 'A' : 'a';
        // Skewed towards 'a' so that a fair share of titles match.
        title.push_back(static_cast<char>(base + (random() % 4 == 0 ? 0 : random() % 26)));
      }
      int64_t priority = static_cast<int64_t>(random() % 10);
      out->tasks.push_back(Task{title, priority});
      out->objects.push_back(Value::object(std::make_shared<GenericObject>(
          "Task", Value::dictionary({{"title", title}, {"priority", priority}, {"done", false}}))));
    }
    return out;
  }();
  return *d;
}

std::shared_ptr<const Predicate> predicate() {
  static auto p = Predicate::parse("priority > 3 AND title BEGINSWITH[c] \"a\"");
  return p;
}

const std::vector<SortDescriptor>& descriptors() {
  static const std::vector<SortDescriptor> d = {
      SortDescriptor("title", true, SortDescriptor::Comparison::CaseInsensitiveCompare),
      SortDescriptor("priority", false)};
  return d;
}

// The hand-written peer: ASCII case folding, as such a loop would do.
char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; }

bool handMatches(const Task& t) {
  return t.priority > 3 && !t.title.empty() && lower(t.title[0]) == 'a';
}

bool handLess(const Task* a, const Task* b) {
  size_t n = std::min(a->title.size(), b->title.size());
  for (size_t i = 0; i < n; ++i) {
    char x = lower(a->title[i]), y = lower(b->title[i]);
    if (x != y) return static_cast<unsigned char>(x) < static_cast<unsigned char>(y);
  }
  if (a->title.size() != b->title.size()) return a->title.size() < b->title.size();
  return a->priority > b->priority;
}

void BM_PredicateFilter(benchmark::State& state) {
  const auto& objects = data().objects;
  auto p = predicate();
  for (auto _ : state) {
    size_t count = 0;
    for (const Value& v : objects) count += p->evaluate(v);
    benchmark::DoNotOptimize(count);
  }
  state.SetItemsProcessed(state.iterations() * kObjects);
}
BENCHMARK(BM_PredicateFilter)->Unit(benchmark::kMillisecond);

void BM_HandFilter(benchmark::State& state) {
  const auto& tasks = data().tasks;
  for (auto _ : state) {
    size_t count = 0;
    for (const Task& t : tasks) count += handMatches(t);
    benchmark::DoNotOptimize(count);
  }
  state.SetItemsProcessed(state.iterations() * kObjects);
}
BENCHMARK(BM_HandFilter)->Unit(benchmark::kMillisecond);

void BM_SortDescriptorSort(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    std::vector<Value> values = data().objects;
    state.ResumeTiming();
    SortDescriptor::sortValues(values, descriptors());
    benchmark::DoNotOptimize(values.data());
  }
  state.SetItemsProcessed(state.iterations() * kObjects);
}
BENCHMARK(BM_SortDescriptorSort)->Unit(benchmark::kMillisecond);

void BM_HandSort(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    std::vector<const Task*> tasks;
    for (const Task& t : data().tasks) tasks.push_back(&t);
    state.ResumeTiming();
    std::stable_sort(tasks.begin(), tasks.end(), handLess);
    benchmark::DoNotOptimize(tasks.data());
  }
  state.SetItemsProcessed(state.iterations() * kObjects);
}
BENCHMARK(BM_HandSort)->Unit(benchmark::kMillisecond);

void BM_PredicateFetch(benchmark::State& state) {
  const auto& objects = data().objects;
  auto p = predicate();
  size_t matched = 0;
  for (auto _ : state) {
    std::vector<Value> result;
    for (const Value& v : objects) {
      if (p->evaluate(v)) result.push_back(v);
    }
    SortDescriptor::sortValues(result, descriptors());
    matched = result.size();
    benchmark::DoNotOptimize(result.data());
  }
  state.counters["matched"] = static_cast<double>(matched);
}
BENCHMARK(BM_PredicateFetch)->Unit(benchmark::kMillisecond);

void BM_HandFetch(benchmark::State& state) {
  const auto& tasks = data().tasks;
  size_t matched = 0;
  for (auto _ : state) {
    std::vector<const Task*> result;
    for (const Task& t : tasks) {
      if (handMatches(t)) result.push_back(&t);
    }
    std::stable_sort(result.begin(), result.end(), handLess);
    matched = result.size();
    benchmark::DoNotOptimize(result.data());
  }
  state.counters["matched"] = static_cast<double>(matched);
}
BENCHMARK(BM_HandFetch)->Unit(benchmark::kMillisecond);

void printRatios(const quillon::bench::RatioReporter& reporter) {
  auto time = [&](const char* name) { return reporter.cpuTime(name); };
  static const struct {
    const char* what;
    const char* ours;
    const char* peer;
  } kPairs[] = {
      {"filter", "BM_PredicateFilter", "BM_HandFilter"},
      {"sort", "BM_SortDescriptorSort", "BM_HandSort"},
      {"fetch (filter + sort)", "BM_PredicateFetch", "BM_HandFetch"},
  };
  for (const auto& pair : kPairs) {
    double ours = time(pair.ours), peer = time(pair.peer);
    if (ours <= 0 || peer <= 0) continue;
    std::printf("CPU time %s / hand-written loop, %s over %zu objects: %.2fx\n", pair.ours + 3,
                pair.what, kObjects, ours / peer);
  }
  double ours = time("BM_PredicateFilter") + time("BM_SortDescriptorSort");
  double peer = time("BM_HandFilter") + time("BM_HandSort");
  if (ours > 0 && peer > 0) {
    std::printf("CPU time filter and full sort / hand-written loop: %.2fx\n", ours / peer);
  }
}

}  // namespace

int main(int argc, char** argv) {
  // Builds the objects before any timing starts.
  return quillon::bench::runBenchmarks(argc, argv, printRatios, [] { data(); });
}
