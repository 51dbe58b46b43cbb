// Applying another computer's change to an open document: one change of 1000
// inserted notes and one of 1000 updated notes, each from the moment the
// update starts until QuillonReady (listing, reading and validating every
// record, the cache, the refresh of the open context). The peer is the least
// any reader of those changes must do: read and parse the same record files
// once. Work runs on the store's read queue as well as the main thread, so
// both sides are timed on the wall clock; the ratio is printed at the end.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "bench_support.h"
#include "quillon/base/env.h"
#include "quillon/base/json.h"
#include "quillon/base/notification_center.h"
#include "quillon/base/internal/operation_queue.h"
#include "quillon/cache/internal/cache.h"
#include "quillon/graph/fetch_request.h"
#include "quillon/graph/managed_object.h"
#include "quillon/graph/managed_object_model.h"
#include "quillon/platform/main_queue.h"
#include "quillon/platform/standard_paths.h"
#include "quillon/store/managed_object_context.h"
#include "quillon/store/persistent_store_coordinator.h"
#include "quillon/store/quillon.h"
#include "quillon/store/store.h"

namespace {

using namespace quillon;
using Clock = std::chrono::steady_clock;

constexpr int kObjects = 1000;
constexpr std::string_view kModelJSON = R"json({"entities": [
  {"name": "Note", "attributes": [{"name": "title", "type": "string"},
                                  {"name": "body", "type": "string"},
                                  {"name": "rank", "type": "integer32"}]}]})json";

// One open document.
struct Document {
  Document(const std::string& packagePath, const std::string& cacheFolder,
           const std::shared_ptr<const ManagedObjectModel>& model) {
    StandardPaths::setUserCacheDirectory(cacheFolder);
    coordinator = std::make_shared<QuillonPersistentStoreCoordinator>(model);
    store = std::dynamic_pointer_cast<QuillonStore>(coordinator->addPersistentStore(
        kQuillonStoreType, Url::fileURL(packagePath, true), Value::dictionary()));
    StandardPaths::setUserCacheDirectory({});
    if (!store) {
      std::fprintf(stderr, "cannot open %s\n", packagePath.c_str());
      std::exit(1);
    }
    context = QuillonManagedObjectContext::create(ConcurrencyType::MainQueue);
    context->setPersistentStoreCoordinator(coordinator);
    ready = ScopedObserver(NotificationCenter::defaultCenter(), kQuillonReady, nullptr,
                           [this](const Notification&) { ++readyCount; });
    waitUntilReady();
  }
  ~Document() { coordinator->removePersistentStore(store); }

  void waitUntilReady() {
    if (!MainQueue::runUntil([this] { return readyCount > seenReady; }, 120)) {
      std::fprintf(stderr, "the store did not become ready\n");
      std::exit(1);
    }
    seenReady = readyCount;
    MainQueue::drain();
  }
  std::vector<Value> notes() {
    FetchRequest request("Note");
    return context->executeFetchRequest(request);
  }
  void save() {
    if (!context->save()) {
      std::fprintf(stderr, "save failed\n");
      std::exit(1);
    }
    store->saveOperationQueue().waitUntilAllOperationsAreFinished();
    MainQueue::drain();
  }

  std::shared_ptr<QuillonPersistentStoreCoordinator> coordinator;
  std::shared_ptr<QuillonStore> store;
  std::shared_ptr<QuillonManagedObjectContext> context;
  ScopedObserver ready;
  int readyCount = 0;
  int seenReady = 0;
};

struct Fixture {
  std::string root;
  std::shared_ptr<const ManagedObjectModel> model;
  std::string base;                // a package whose records hold both saves
  std::string insertChange, updateChange;  // the change files' names
  std::vector<std::string> uids;
  int serial = 0;
};
Fixture* gFixture = nullptr;
std::map<std::string, std::vector<double>> gSeconds;

void prepare() {
  MainQueue::setMainThreadToCurrent();
  Quillon::registerStore();
  auto* fixture = new Fixture;
  std::string pattern = StandardPaths::temporaryDirectory() + "/quillon-apply-bench-XXXXXX";
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  fixture->root = mkdtemp(buffer.data());
  fixture->model = ManagedObjectModel::fromJSON(kModelJSON);
  fixture->base = fixture->root + "/base.quillon";
  {
    Document writer(fixture->base, fixture->root + "/cache-writer", fixture->model);
    std::vector<ManagedObjectPtr> notes;
    for (int i = 0; i < kObjects; ++i) {
      ManagedObjectPtr note = writer.context->insertNewObjectForEntityForName("Note");
      note->setValue("title", Value("Note " + std::to_string(i)));
      note->setValue("body", Value(std::string(200, 'a' + i % 26)));
      note->setValue("rank", Value(i));
      notes.push_back(note);
    }
    writer.save();
    for (auto& note : notes) note->setValue("rank", Value(kObjects + note->value("rank").intValue()));
    writer.save();
    for (auto& note : notes) fixture->uids.push_back(storeUID(*note));
  }
  std::vector<std::string> names;
  Env::Default()->listDirectory(fixture->base + "/Changes", &names);
  std::sort(names.begin(), names.end());
  if (names.size() != 2) {
    std::fprintf(stderr, "expected two change files, found %zu\n", names.size());
    std::exit(1);
  }
  fixture->insertChange = names[0];
  fixture->updateChange = names[1];
  for (const std::string& name : names) {
    Env::Default()->moveItem(fixture->base + "/Changes/" + name, fixture->root + "/" + name);
  }
  gFixture = fixture;
}

// A copy of the package holding the change files named, opened in a fresh
// cache; then `arriving` appears in its Changes and an update applies it.
void applyOneChange(benchmark::State& state, const char* key, std::vector<std::string> present,
                    const std::string& arriving) {
  Fixture& f = *gFixture;
  Env* env = Env::Default();
  for (auto _ : state) {
    state.PauseTiming();
    const std::string name = std::to_string(++f.serial);
    const std::string package = f.root + "/doc-" + name + ".quillon";
    env->copyItem(f.base, package);
    for (const std::string& change : present) {
      env->copyItem(f.root + "/" + change, package + "/Changes/" + change);
    }
    double seconds = 0;
    {
      Document reader(package, f.root + "/cache-" + name, f.model);
      reader.notes();  // the context takes part in external updates
      env->copyItem(f.root + "/" + arriving, package + "/Changes/" + arriving);
      state.ResumeTiming();
      auto start = Clock::now();
      reader.store->updateChanges();
      reader.waitUntilReady();
      seconds = std::chrono::duration<double>(Clock::now() - start).count();
      state.PauseTiming();
      if (reader.store->cache().changes().size() != present.size() + 1) {
        state.SkipWithError("the change was not applied");
      }
    }
    env->removeItem(package);
    env->removeItem(f.root + "/cache-" + name);
    gSeconds[key].push_back(seconds);
    state.ResumeTiming();
  }
  state.counters["objects"] = kObjects;
}

void readAndParseRecords(benchmark::State& state, const char* key, const std::string& change) {
  Fixture& f = *gFixture;
  Env* env = Env::Default();
  for (auto _ : state) {
    auto start = Clock::now();
    std::vector<uint8_t> bytes;
    size_t parsed = 0;
    env->readFile(f.root + "/" + change, &bytes);
    parsed += readJSON(std::span<const uint8_t>(bytes)).isNil() ? 0 : 1;
    for (const std::string& uid : f.uids) {
      env->readFile(f.base + "/Entities/Note/" + uid + "/" + change, &bytes);
      Value record = readJSON(std::span<const uint8_t>(bytes));
      parsed += record.isNil() ? 0 : 1;
      benchmark::DoNotOptimize(record);
    }
    gSeconds[key].push_back(std::chrono::duration<double>(Clock::now() - start).count());
    if (parsed != f.uids.size() + 1) state.SkipWithError("records missing");
  }
}

void BM_ApplyInserts(benchmark::State& state) { applyOneChange(state, "apply-insert", {}, gFixture->insertChange); }
void BM_ApplyUpdates(benchmark::State& state) {
  applyOneChange(state, "apply-update", {gFixture->insertChange}, gFixture->updateChange);
}
void BM_ReadInsertRecords(benchmark::State& state) {
  readAndParseRecords(state, "read-insert", gFixture->insertChange);
}
void BM_ReadUpdateRecords(benchmark::State& state) {
  readAndParseRecords(state, "read-update", gFixture->updateChange);
}
BENCHMARK(BM_ApplyInserts)->Iterations(5)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ReadInsertRecords)->Iterations(20)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ApplyUpdates)->Iterations(5)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ReadUpdateRecords)->Iterations(20)->Unit(benchmark::kMillisecond)->UseRealTime();

double median(std::vector<double> values) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

void printRatios(const quillon::bench::RatioReporter&) {
  for (auto [apply, read, what] :
       {std::tuple{"apply-insert", "read-insert", "1000 inserted"},
        std::tuple{"apply-update", "read-update", "1000 updated"}}) {
    double applySeconds = median(gSeconds[apply]);
    double readSeconds = median(gSeconds[read]);
    if (applySeconds <= 0 || readSeconds <= 0) continue;
    std::printf("apply one change of %s objects: %.1f ms; read and parse its records: %.1f ms; "
                "ratio %.1fx\n",
                what, applySeconds * 1e3, readSeconds * 1e3, applySeconds / readSeconds);
  }
  if (gFixture) Env::Default()->removeItem(gFixture->root);
}

}  // namespace

int main(int argc, char** argv) {
  return quillon::bench::runBenchmarks(argc, argv, printRatios, prepare);
}
