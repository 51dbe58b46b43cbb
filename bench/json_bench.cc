// Reading change-record JSON into Values and writing it back, beside
// simdjson's own DOM parse of the same text (the floor for any reader built
// on it). Prints the ratio ours / simdjson for a few-MB document and for the
// same records parsed one by one, as the change log loads them.

#include <benchmark/benchmark.h>
#include <simdjson.h>
#include <time.h>

#include <cmath>
#include <cstdio>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "quillon/base/internal/date_format.h"
#include "quillon/base/json.h"

namespace {

using quillon::Value;

std::string fakeUUID(std::mt19937_64& rng) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string s;
  for (int i = 0; i < 32; ++i) {
    if (i == 8 || i == 12 || i == 16 || i == 20) s += '-';
    s += kHex[rng() & 15];
  }
  return s;
}

// One save's change dictionary: a few inserted notes with their values, a
// few updates and deletes, and the session.
Value makeChange(std::mt19937_64& rng, int index) {
  double date = 816929039.123 + index * 61.5;
  Value inserts = Value::dictionary();
  for (int i = 0; i < 6; ++i) {
    inserts.set(fakeUUID(rng),
                Value::dictionary({{"title", Value("Note number " + std::to_string(rng() % 10000))},
                                   {"body", Value(std::string(120 + rng() % 200, 'x'))},
                                   {"created", Value(date - static_cast<double>(rng() % 1000))},
                                   {"pinned", Value(rng() % 2 == 0)},
                                   {"rank", Value(static_cast<int64_t>(rng() % 100000))},
                                   {"folder", Value("Folder/" + fakeUUID(rng))},
                                   {"tags", Value::array({Value("Tag/" + fakeUUID(rng)),
                                                          Value("Tag/" + fakeUUID(rng))})}}));
  }
  Value updates = Value::dictionary();
  for (int i = 0; i < 4; ++i) {
    updates.set(fakeUUID(rng), Value::dictionary({{"title", Value("Renamed")},
                                                  {"modified", Value(date)},
                                                  {"trash", Value::null()}}));
  }
  Value deletes = Value::dictionary();
  for (int i = 0; i < 2; ++i) deletes.set(fakeUUID(rng), Value::dictionary());
  std::string name = quillon::formatChangeDate(date) + "." + fakeUUID(rng);
  return Value::dictionary(
      {{"name", Value(name)},
       {"date", Value(date)},
       {"changes", Value::dictionary({{"insert", Value::dictionary({{"Note", inserts}})},
                                      {"update", Value::dictionary({{"Note", updates}})},
                                      {"delete", Value::dictionary({{"Note", deletes}})}})},
       {"session", Value::dictionary({{"userName", Value("jane")},
                                      {"fullUserName", Value("Jane Doe")},
                                      {"machineName", Value("jane-laptop")},
                                      {"id", Value(fakeUUID(rng))},
                                      {"version", Value("1.0 (100)")},
                                      {"osVersion", Value("Debian GNU/Linux 12 (bookworm)")}})},
       {"previousName", Value(index ? "2026-11-21-04-43-58.000." + fakeUUID(rng) : "")}});
}

struct Corpus {
  std::string document;              // one array of every change
  std::vector<std::string> records;  // the same changes, one text each
  size_t recordBytes = 0;
};

const Corpus& corpus() {
  static const Corpus c = [] {
    Corpus c;
    std::mt19937_64 rng(42);
    Value all = Value::array();
    for (int i = 0; i < 1000; ++i) {
      Value change = makeChange(rng, i);
      c.records.push_back(quillon::writeJSON(change));
      c.recordBytes += c.records.back().size();
      all.append(change);
    }
    c.document = quillon::writeJSON(all);
    return c;
  }();
  return c;
}

// Seconds per byte of the fastest measured batch, by benchmark name.
std::map<std::string, double> g_secondsPerByte;

void record(const std::string& name, double seconds, size_t bytes) {
  double spb = seconds / static_cast<double>(bytes);
  auto [it, inserted] = g_secondsPerByte.emplace(name, spb);
  if (!inserted && spb < it->second) it->second = spb;
}

// CPU time of this thread, so that other load on the machine does not skew
// the ratios.
double cpuSeconds() {
  timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

template <typename Body>
void runTimed(benchmark::State& state, const char* name, size_t bytesPerIteration, Body body) {
  double start = cpuSeconds();
  for (auto _ : state) body();
  double elapsed = cpuSeconds() - start;
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytesPerIteration));
  record(name, elapsed, state.iterations() * bytesPerIteration);
}

// Dropping the tree is part of the cost of reading it, so it stays in the
// timing; the parse and the destruction are also reported on their own.
void BM_ReadJSON_Document(benchmark::State& state) {
  const auto& c = corpus();
  double parse = 0, destroy = 0;
  runTimed(state, "read document", c.document.size(), [&] {
    double t0 = cpuSeconds();
    Value v = quillon::readJSON(c.document);
    benchmark::DoNotOptimize(v);
    double t1 = cpuSeconds();
    v = Value();
    double t2 = cpuSeconds();
    parse += t1 - t0;
    destroy += t2 - t1;
  });
  // The split of the fastest batch.
  static double best = INFINITY;
  if (parse + destroy < best * static_cast<double>(state.iterations())) {
    best = (parse + destroy) / static_cast<double>(state.iterations());
    size_t bytes = state.iterations() * c.document.size();
    g_secondsPerByte["read document, parse"] = parse / static_cast<double>(bytes);
    g_secondsPerByte["read document, destruction"] = destroy / static_cast<double>(bytes);
  }
  state.counters["parse_ms"] = 1e3 * parse / static_cast<double>(state.iterations());
  state.counters["destroy_ms"] = 1e3 * destroy / static_cast<double>(state.iterations());
}

void BM_SimdjsonDOM_Document(benchmark::State& state) {
  const auto& c = corpus();
  simdjson::dom::parser parser;
  runTimed(state, "simdjson document", c.document.size(), [&] {
    simdjson::dom::element e;
    auto error = parser.parse(c.document.data(), c.document.size()).get(e);
    benchmark::DoNotOptimize(error);
    benchmark::DoNotOptimize(e);
  });
}

void BM_ReadJSON_Records(benchmark::State& state) {
  const auto& c = corpus();
  runTimed(state, "read records", c.recordBytes, [&] {
    for (const auto& r : c.records) {
      Value v = quillon::readJSON(r);
      benchmark::DoNotOptimize(v);
    }
  });
}

void BM_SimdjsonDOM_Records(benchmark::State& state) {
  const auto& c = corpus();
  simdjson::dom::parser parser;
  runTimed(state, "simdjson records", c.recordBytes, [&] {
    for (const auto& r : c.records) {
      simdjson::dom::element e;
      auto error = parser.parse(r.data(), r.size()).get(e);
      benchmark::DoNotOptimize(error);
      benchmark::DoNotOptimize(e);
    }
  });
}

void BM_WriteJSON_Document(benchmark::State& state) {
  const auto& c = corpus();
  Value v = quillon::readJSON(c.document);
  runTimed(state, "write document", c.document.size(), [&] {
    std::string text = quillon::writeJSON(v);
    benchmark::DoNotOptimize(text);
  });
}

void BM_WriteJSONPretty_Document(benchmark::State& state) {
  const auto& c = corpus();
  Value v = quillon::readJSON(c.document);
  runTimed(state, "write pretty document", c.document.size(), [&] {
    std::string text = quillon::writeJSON(v, quillon::JSONStyle::Pretty);
    benchmark::DoNotOptimize(text);
  });
}

BENCHMARK(BM_ReadJSON_Document)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SimdjsonDOM_Document)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReadJSON_Records)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SimdjsonDOM_Records)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_WriteJSON_Document)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_WriteJSONPretty_Document)->Unit(benchmark::kMillisecond);

void printRatio(const char* label, const char* ours, const char* peer) {
  auto a = g_secondsPerByte.find(ours), b = g_secondsPerByte.find(peer);
  if (a == g_secondsPerByte.end() || b == g_secondsPerByte.end()) return;
  std::printf("%s: ours %.0f MB/s, simdjson DOM %.0f MB/s, speed ratio ours/simdjson = %.2f\n",
              label, 1e-6 / a->second, 1e-6 / b->second, b->second / a->second);
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  std::printf("corpus: %zu bytes in one document, %zu records of %zu bytes on average\n",
              corpus().document.size(), corpus().records.size(),
              corpus().recordBytes / corpus().records.size());
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  printRatio("readJSON, one document", "read document", "simdjson document");
  printRatio("readJSON, one document, tree destruction left out", "read document, parse",
             "simdjson document");
  auto parse = g_secondsPerByte.find("read document, parse");
  auto destroy = g_secondsPerByte.find("read document, destruction");
  if (parse != g_secondsPerByte.end() && destroy != g_secondsPerByte.end()) {
    std::printf("readJSON, one document: destroying the tree takes %.0f%% of parse + destroy\n",
                100 * destroy->second / (parse->second + destroy->second));
  }
  printRatio("readJSON, record by record", "read records", "simdjson records");
  return 0;
}
