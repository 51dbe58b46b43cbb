// Opening a package and answering one query, beside the peers that bound it:
//
//   warm:   open a package whose local cache is intact, wait until it is
//           ready, fetch the identifiers of the notes with
//           "priority >= 5 AND score < 0.5" sorted by title;
//   cold:   the same after deleting the local cache, so the change log is
//           applied again and every object's values are read from its record;
//   sqlite: open an SQLite database holding the same rows (no index, as the
//           cache has none) and run the same query;
//   plain:  a loop that reads and parses every record file once.
//
// The package (100000 notes; QUILLON_BENCH_QUICK=1: 5000) is built once per
// run in a temporary folder through the store itself: the notes are inserted
// and saved in batches of 10000, one change file per batch, exactly as an
// application writes them. QUILLON_BENCH_KEEP=<folder> builds it there once
// and reuses it in later runs (for profiling). Times are process CPU time (the store works on
// several queues); the table shows wall time beside it. The ratios aim at
// warm within 2x of SQLite and cold within 1.5x of the plain loop.

#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
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
#include "quillon/graph/predicate.h"
#include "quillon/graph/sort_descriptor.h"
#include "quillon/platform/main_queue.h"
#include "quillon/platform/standard_paths.h"
#include "quillon/store/managed_object_context.h"
#include "quillon/store/persistent_store_coordinator.h"
#include "quillon/store/quillon.h"
#include "quillon/store/store.h"

namespace {

using namespace quillon;
using bench::fail;
using bench::sqliteExec;

constexpr std::string_view kModel = R"json({"entities": [
  {"name": "Note", "attributes": [
     {"name": "title", "type": "string"},
     {"name": "priority", "type": "integer16"},
     {"name": "score", "type": "double"}]}]})json";
constexpr std::string_view kWhere = "priority >= 5 AND score < 0.5";
constexpr size_t kBatch = 10000;

struct Fixture {
  std::string root;
  std::string package;
  std::string database;
  std::shared_ptr<const ManagedObjectModel> model;
  size_t objects = 0;
  size_t matches = 0;
  bool kept = false;
};

Fixture& fixture() {
  static Fixture f;
  return f;
}

// One application's view of the package: coordinator, store, main context.
class Stack {
 public:
  Stack() {
    const Fixture& f = fixture();
    coordinator_ = std::make_shared<QuillonPersistentStoreCoordinator>(f.model);
    ready_ =
        std::make_unique<ScopedObserver>(NotificationCenter::defaultCenter(), kQuillonReady,
                                         nullptr, [this](const Notification&) { ++readyCount_; });
    Error error;
    auto store = coordinator_->addPersistentStore(kQuillonStoreType, Url::fileURL(f.package, true),
                                                  Value::dictionary(), &error);
    if (!store) fail("cannot open the package: " + error.localizedDescription());
    store_ = std::static_pointer_cast<QuillonStore>(store);
    context_ = QuillonManagedObjectContext::create(ConcurrencyType::MainQueue);
    context_->setPersistentStoreCoordinator(coordinator_);
  }
  ~Stack() {
    coordinator_->removePersistentStore(store_);
    MainQueue::drain();
  }

  void waitUntilReady() {
    if (!MainQueue::runUntil([this] { return readyCount_ > 0; }, 600)) fail("never ready");
  }

  void saveAndWait() {
    Error error;
    if (!context_->save(&error)) fail("save failed: " + error.localizedDescription());
    store_->saveOperationQueue().waitUntilAllOperationsAreFinished();
    MainQueue::drain();
  }

  QuillonStore& store() { return *store_; }
  QuillonManagedObjectContext& context() { return *context_; }

 private:
  std::shared_ptr<QuillonPersistentStoreCoordinator> coordinator_;
  std::shared_ptr<QuillonStore> store_;
  std::shared_ptr<QuillonManagedObjectContext> context_;
  std::unique_ptr<ScopedObserver> ready_;
  int readyCount_ = 0;
};

void prepare() {
  Fixture& f = fixture();
  f.objects = bench::quickRun() ? 5000 : 100000;

  const char* keep = std::getenv("QUILLON_BENCH_KEEP");
  f.kept = keep && *keep;
  if (f.kept) {
    f.root = keep;
    Env::Default()->createDirectories(f.root);
  } else {
    char pattern[] = "/tmp/quillon-open-bench-XXXXXX";
    if (!mkdtemp(pattern)) fail("no temporary folder");
    f.root = pattern;
  }
  f.package = f.root + "/Bench.quillon";
  f.database = f.root + "/bench.sqlite";
  f.model = bench::setUpApplication(f.root, kModel);

  // A kept package names its size and number of matches in "built".
  const std::string built = f.root + "/built";
  if (f.kept) {
    std::vector<uint8_t> bytes;
    if (!Env::Default()->readFile(built, &bytes)) {
      size_t objects = 0, matches = 0;
      if (std::sscanf(std::string(bytes.begin(), bytes.end()).c_str(), "%zu %zu", &objects,
                      &matches) == 2 &&
          objects == f.objects) {
        f.matches = matches;
        std::printf("package (kept): %zu notes, %zu match the query\n", f.objects, f.matches);
        return;
      }
    }
    Env::Default()->removeItem(f.package);
    Env::Default()->removeItem(f.database);
  }

  sqlite3* db = nullptr;
  if (sqlite3_open(f.database.c_str(), &db) != SQLITE_OK) fail("cannot create the database");
  sqliteExec(db,
             "CREATE TABLE notes (uid TEXT PRIMARY KEY, title TEXT, priority INTEGER, score REAL)");
  sqliteExec(db, "BEGIN");
  sqlite3_stmt* insert = nullptr;
  sqlite3_prepare_v2(db, "INSERT INTO notes VALUES (?, ?, ?, ?)", -1, &insert, nullptr);

  std::mt19937_64 random(20260101);
  std::uniform_real_distribution<double> unit(0.0, 1.0);
  {
    Stack stack;
    stack.waitUntilReady();
    for (size_t i = 0; i < f.objects; ++i) {
      std::string title = "note " + std::to_string(random() % 1000000);
      int64_t priority = static_cast<int64_t>(random() % 10);
      double score = unit(random);
      if (priority >= 5 && score < 0.5) ++f.matches;
      ManagedObjectPtr note = stack.context().insertNewObjectForEntityForName("Note");
      note->setValue("title", Value::string(title));
      note->setValue("priority", Value::integer(priority));
      note->setValue("score", Value::float64(score));
      if ((i + 1) % kBatch == 0 || i + 1 == f.objects) {
        stack.saveAndWait();
        for (const ManagedObjectPtr& saved : stack.context().registeredObjects()) {
          sqlite3_reset(insert);
          std::string uid = storeUID(*saved);
          std::string savedTitle(saved->value("title").str());
          sqlite3_bind_text(insert, 1, uid.c_str(), -1, SQLITE_TRANSIENT);
          sqlite3_bind_text(insert, 2, savedTitle.c_str(), -1, SQLITE_TRANSIENT);
          sqlite3_bind_int64(insert, 3, saved->value("priority").intValue());
          sqlite3_bind_double(insert, 4, saved->value("score").doubleValue());
          if (sqlite3_step(insert) != SQLITE_DONE) fail("sqlite insert");
        }
        stack.context().reset();
      }
    }
  }
  sqlite3_finalize(insert);
  sqliteExec(db, "COMMIT");
  sqlite3_close(db);
  std::printf("package: %zu notes, %zu match the query\n", f.objects, f.matches);
  if (f.kept) {
    std::string counts = std::to_string(f.objects) + " " + std::to_string(f.matches);
    Env::Default()->writeFileAtomically(built, std::string_view(counts));
  }
}

void removeCache() {
  auto url = QuillonCache::cacheURLForStoreURL(Url::fileURL(fixture().package, true));
  if (url) Env::Default()->removeItem(url->path());
}

size_t openAndFetch() {
  Stack stack;
  stack.waitUntilReady();
  FetchRequest request("Note");
  request.setPredicate(Predicate::parse(kWhere));
  request.setSortDescriptors({SortDescriptor("title")});
  request.setResultType(FetchRequestResultType::ManagedObjectID);
  Value answer = stack.store().executeFetchRequest(request, &stack.context());
  return answer.size();
}

void BM_WarmOpenAndFetch(benchmark::State& state) {
  openAndFetch();  // makes sure the cache holds every value
  for (auto _ : state) {
    size_t found = openAndFetch();
    if (found != fixture().matches) state.SkipWithError("wrong number of matches");
  }
}

void BM_ColdOpenAndFetch(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    removeCache();
    state.ResumeTiming();
    size_t found = openAndFetch();
    if (found != fixture().matches) state.SkipWithError("wrong number of matches");
  }
}

void BM_SQLiteOpenAndQuery(benchmark::State& state) {
  for (auto _ : state) {
    sqlite3* db = nullptr;
    sqlite3_open_v2(fixture().database.c_str(), &db, SQLITE_OPEN_READONLY, nullptr);
    sqlite3_stmt* query = nullptr;
    sqlite3_prepare_v2(db,
                       "SELECT uid FROM notes WHERE priority >= 5 AND score < 0.5 ORDER BY title",
                       -1, &query, nullptr);
    std::vector<std::string> uids;
    while (sqlite3_step(query) == SQLITE_ROW) {
      uids.emplace_back(reinterpret_cast<const char*>(sqlite3_column_text(query, 0)));
    }
    sqlite3_finalize(query);
    sqlite3_close(db);
    if (uids.size() != fixture().matches) state.SkipWithError("wrong number of matches");
  }
}

void BM_PlainReadAllRecords(benchmark::State& state) {
  Env* env = Env::Default();
  for (auto _ : state) {
    std::string folder = fixture().package + "/Entities/Note";
    std::vector<std::string> uids;
    env->listDirectory(folder, &uids);
    size_t parsed = 0;
    std::vector<std::string> records;
    std::vector<uint8_t> bytes;
    for (const std::string& uid : uids) {
      records.clear();
      env->listDirectory(folder + "/" + uid, &records);
      for (const std::string& name : records) {
        bytes.clear();
        if (env->readFile(folder + "/" + uid + "/" + name, &bytes)) continue;
        if (readJSON(std::span<const uint8_t>(bytes)).isDictionary()) ++parsed;
      }
    }
    if (parsed != fixture().objects) state.SkipWithError("wrong number of records");
  }
}

BENCHMARK(BM_WarmOpenAndFetch)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime()
    ->Iterations(3);
BENCHMARK(BM_ColdOpenAndFetch)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime()
    ->Iterations(2);
BENCHMARK(BM_SQLiteOpenAndQuery)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime()
    ->Iterations(5);
BENCHMARK(BM_PlainReadAllRecords)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime()
    ->Iterations(3);

void printRatios(const bench::RatioReporter& reporter) {
  double warm = reporter.cpuTime("BM_WarmOpenAndFetch/iterations:3/process_time");
  double cold = reporter.cpuTime("BM_ColdOpenAndFetch/iterations:2/process_time");
  double sqlite = reporter.cpuTime("BM_SQLiteOpenAndQuery/iterations:5/process_time");
  double plain = reporter.cpuTime("BM_PlainReadAllRecords/iterations:3/process_time");
  if (warm > 0 && sqlite > 0) {
    std::printf("warm open and fetch / SQLite open and query: %.2fx (aim: 2x)\n", warm / sqlite);
  }
  if (cold > 0 && plain > 0) {
    std::printf("cold open and fetch / plain read of every record: %.2fx (aim: 1.5x)\n",
                cold / plain);
  }
  if (!fixture().kept) Env::Default()->removeItem(fixture().root);
}

}  // namespace

int main(int argc, char** argv) {
  return quillon::bench::runBenchmarks(argc, argv, printRatios, prepare);
}
