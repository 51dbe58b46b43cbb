// Saving new objects into a new package, beside the peers that bound it:
//
//   save:   10000 new notes (QUILLON_BENCH_QUICK=1: 1000), each with a title,
//           a priority, a score, a date, 4 KiB of binary data and a one-to-one
//           partner, saved in one save; timed from the save until every file
//           is written. With and without a password, with and without the
//           durability flush.
//   plain:  a loop writing the same files (one record of the same size and one
//           4 KiB data file per note in its own folder, then one change file)
//           through temporary files and renames: flushed, each file on its
//           own (what a careful naive writer does), and unflushed.
//   sqlite: the same rows inserted in one transaction (WAL, synchronous
//           NORMAL), the data as a blob.
//
// The store writes on several threads and a flush is waiting, not working,
// so the figures and ratios are wall-clock seconds per save ("seconds"
// counter). The aim: a save within 1.5x of the plain loop of the same
// durability.

#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "bench_support.h"
#include "quillon/base/env.h"
#include "quillon/base/notification_center.h"
#include "quillon/base/internal/operation_queue.h"
#include "quillon/base/internal/uuid.h"
#include "quillon/cache/internal/cache.h"
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
using bench::fail;
using bench::sqliteExec;
using Clock = std::chrono::steady_clock;

constexpr std::string_view kModel = R"json({"entities": [
  {"name": "Note",
   "attributes": [
     {"name": "title", "type": "string"}, {"name": "priority", "type": "integer32"},
     {"name": "score", "type": "double"}, {"name": "created", "type": "date"},
     {"name": "body", "type": "binary"}],
   "relationships": [
     {"name": "partner", "destination": "Note", "inverse": "partner"}]}]})json";

constexpr size_t kBodySize = 4096;
// A record of the note above as the store writes it, for the plain loop.
constexpr size_t kRecordSize = 420;

struct Fixture {
  std::string root;
  std::shared_ptr<const ManagedObjectModel> model;
  size_t objects = 0;
  int package = 0;
};

Fixture& fixture() {
  static Fixture f;
  return f;
}

std::string nextFolder(const std::string& kind) {
  Fixture& f = fixture();
  return f.root + "/" + kind + std::to_string(++f.package);
}

void prepare() {
  Fixture& f = fixture();
  f.objects = bench::quickRun() ? 1000 : 10000;
  // Beside the build, not in /tmp: a tmpfs would make every flush free.
  char pattern[] = "./quillon-save-bench-XXXXXX";
  if (!mkdtemp(pattern)) fail("no temporary folder");
  char* absolute = realpath(pattern, nullptr);
  f.root = absolute;
  std::free(absolute);
  f.model = bench::setUpApplication(f.root, kModel);
}

void cleanUp() { Env::Default()->removeItem(fixture().root); }

void BM_Save(benchmark::State& state) {
  const bool password = state.range(0) != 0;
  const bool durable = state.range(1) != 0;
  const Fixture& f = fixture();
  std::vector<uint8_t> body(kBodySize);
  for (size_t i = 0; i < body.size(); ++i) body[i] = static_cast<uint8_t>(i * 31 + 7);
  double seconds = 0;
  for (auto _ : state) {
    state.PauseTiming();
    auto coordinator = std::make_shared<QuillonPersistentStoreCoordinator>(f.model);
    int ready = 0;
    ScopedObserver observer(NotificationCenter::defaultCenter(), kQuillonReady, nullptr,
                            [&](const Notification&) { ++ready; });
    Value options = Value::mutableDictionary();
    if (password) options.set(Value::string("password"), Value::string("bench password"));
    options.set(Value::string(kQuillonDurableSavesOption), Value::boolean(durable));
    Error error;
    auto added = coordinator->addPersistentStore(
        kQuillonStoreType, Url::fileURL(nextFolder("package") + ".quillon", true), options, &error);
    if (!added) fail("cannot create the package: " + error.localizedDescription());
    auto store = std::static_pointer_cast<QuillonStore>(added);
    auto context = QuillonManagedObjectContext::create(ConcurrencyType::MainQueue);
    context->setPersistentStoreCoordinator(coordinator);
    if (!MainQueue::runUntil([&] { return ready > 0; }, 600)) fail("never ready");
    ManagedObjectPtr previous;
    for (size_t i = 0; i < f.objects; ++i) {
      ManagedObjectPtr note = context->insertNewObjectForEntityForName("Note");
      note->setValue("title", Value::string("Note number " + std::to_string(i)));
      note->setValue("priority", Value::integer(static_cast<int64_t>(i % 10)));
      note->setValue("score", Value::float64(static_cast<double>(i) * 0.25));
      note->setValue("created", Value::date(8.0e8 + static_cast<double>(i)));
      note->setValue("body", Value::data(std::span<const uint8_t>(body)));
      if (i % 2) note->setValue("partner", Value::object(previous));
      previous = note;
    }
    state.ResumeTiming();

    auto start = Clock::now();
    if (!context->save(&error)) fail("save failed: " + error.localizedDescription());
    store->saveOperationQueue().waitUntilAllOperationsAreFinished();
    seconds += std::chrono::duration<double>(Clock::now() - start).count();

    state.PauseTiming();
    MainQueue::drain();
    store->cache().saveQueue().waitUntilAllOperationsAreFinished();
    coordinator->removePersistentStore(store);
    MainQueue::drain();
    state.ResumeTiming();
  }
  state.counters["seconds"] = seconds / static_cast<double>(state.iterations());
  state.counters["objects"] = static_cast<double>(f.objects);
}
BENCHMARK(BM_Save)
    ->ArgsProduct({{0, 1}, {1, 0}})
    ->ArgNames({"password", "durable"})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MeasureProcessCPUTime();

void BM_PlainFiles(benchmark::State& state) {
  const bool flushed = state.range(0) != 0;
  const Fixture& f = fixture();
  Env* env = Env::Default();
  std::vector<uint8_t> record(kRecordSize, 'r');
  std::vector<uint8_t> body(kBodySize, 'b');
  std::vector<uint8_t> change(static_cast<size_t>(f.objects) * 50, 'c');
  double seconds = 0;
  for (auto _ : state) {
    state.PauseTiming();
    const std::string root = nextFolder("plain");
    std::vector<std::string> uids;
    for (size_t i = 0; i < f.objects; ++i) uids.push_back(makeUUIDString());
    const std::string name = "2026-11-21-09-00-00.000." + makeUUIDString() + ".json";
    state.ResumeTiming();

    auto start = Clock::now();
    auto write = [&](const std::string& path, const std::vector<uint8_t>& bytes) {
      Error error = flushed ? env->writeFileAtomically(path, bytes)
                            : env->writeFileAtomicallyUnflushed(path, bytes);
      if (error) fail("plain write: " + error.localizedDescription());
    };
    for (const auto& uid : uids) {
      const std::string folder = root + "/Entities/Note/" + uid;
      env->createDirectories(folder + "/Data");
      write(folder + "/Data/" + uid, body);
      write(folder + "/" + name, record);
    }
    env->createDirectories(root + "/Changes");
    write(root + "/Changes/" + name, change);
    seconds += std::chrono::duration<double>(Clock::now() - start).count();
  }
  state.counters["seconds"] = seconds / static_cast<double>(state.iterations());
}
BENCHMARK(BM_PlainFiles)
    ->Arg(1)
    ->Arg(0)
    ->ArgName("flushed")
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MeasureProcessCPUTime();

void BM_SQLite(benchmark::State& state) {
  const Fixture& f = fixture();
  std::vector<uint8_t> body(kBodySize, 'b');
  double seconds = 0;
  for (auto _ : state) {
    state.PauseTiming();
    sqlite3* db = nullptr;
    if (sqlite3_open((nextFolder("sqlite") + ".db").c_str(), &db) != SQLITE_OK) fail("sqlite open");
    sqliteExec(db, "PRAGMA journal_mode=WAL");
    sqliteExec(db, "PRAGMA synchronous=NORMAL");
    sqliteExec(db,
               "CREATE TABLE note (uid TEXT PRIMARY KEY, title TEXT, priority INTEGER, score REAL, "
               "created REAL, body BLOB, partner TEXT)");
    std::vector<std::string> uids;
    for (size_t i = 0; i < f.objects; ++i) uids.push_back(makeUUIDString());
    state.ResumeTiming();

    auto start = Clock::now();
    sqliteExec(db, "BEGIN");
    sqlite3_stmt* insert = nullptr;
    sqlite3_prepare_v2(db, "INSERT INTO note VALUES (?, ?, ?, ?, ?, ?, ?)", -1, &insert, nullptr);
    for (size_t i = 0; i < f.objects; ++i) {
      std::string title = "Note number " + std::to_string(i);
      sqlite3_bind_text(insert, 1, uids[i].c_str(), -1, SQLITE_STATIC);
      sqlite3_bind_text(insert, 2, title.c_str(), -1, SQLITE_TRANSIENT);
      sqlite3_bind_int(insert, 3, static_cast<int>(i % 10));
      sqlite3_bind_double(insert, 4, static_cast<double>(i) * 0.25);
      sqlite3_bind_double(insert, 5, 8.0e8 + static_cast<double>(i));
      sqlite3_bind_blob(insert, 6, body.data(), static_cast<int>(body.size()), SQLITE_STATIC);
      const std::string& partner = uids[i % 2 ? i - 1 : i + 1 < uids.size() ? i + 1 : i];
      sqlite3_bind_text(insert, 7, partner.c_str(), -1, SQLITE_STATIC);
      if (sqlite3_step(insert) != SQLITE_DONE) fail("sqlite insert");
      sqlite3_reset(insert);
    }
    sqlite3_finalize(insert);
    sqliteExec(db, "COMMIT");
    seconds += std::chrono::duration<double>(Clock::now() - start).count();
    state.PauseTiming();
    sqlite3_close(db);
    state.ResumeTiming();
  }
  state.counters["seconds"] = seconds / static_cast<double>(state.iterations());
}
BENCHMARK(BM_SQLite)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

void printRatios(const bench::RatioReporter& reporter) {
  auto seconds = [&](const std::string& name) { return reporter.counter(name, "seconds"); };
  const double plainFlushed =
      seconds("BM_PlainFiles/flushed:1/iterations:1/process_time/real_time");
  const double plainUnflushed =
      seconds("BM_PlainFiles/flushed:0/iterations:1/process_time/real_time");
  const double sqlite = seconds("BM_SQLite/iterations:1/real_time");
  std::printf("\n%zu objects; wall-clock seconds per save and ratios (aim: save / plain <= 1.5)\n",
              fixture().objects);
  std::printf("  plain loop, flushed %.3f s, unflushed %.3f s; SQLite %.3f s\n", plainFlushed,
              plainUnflushed, sqlite);
  for (int password : {0, 1}) {
    for (int durable : {1, 0}) {
      std::string name = "BM_Save/password:" + std::to_string(password) +
                         "/durable:" + std::to_string(durable) +
                         "/iterations:1/process_time/real_time";
      double save = seconds(name);
      double plain = durable ? plainFlushed : plainUnflushed;
      std::printf("  save %-9s %-11s %.3f s   / plain %s %.2fx   / SQLite %.2fx\n",
                  password ? "password" : "plain", durable ? "durable" : "not durable", save,
                  durable ? "flushed" : "unflushed", plain > 0 ? save / plain : 0,
                  sqlite > 0 ? save / sqlite : 0);
    }
  }
  cleanUp();
}

}  // namespace

int main(int argc, char** argv) { return bench::runBenchmarks(argc, argv, printRatios, prepare); }
