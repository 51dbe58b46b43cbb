// One value shard of the local cache written to and read back from disk,
// beside SQLite holding the same rows in one table. Reading a shard is what
// opening a cached document costs per sixteenth of an entity; writing it is
// what a save costs per touched shard.

#include <sqlite3.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "bench_support.h"
#include "quillon/base/env.h"
#include "quillon/cache/internal/cache_collection.h"
#include "quillon/cache/internal/cache_item.h"
#include "quillon/graph/managed_object_model.h"
#include "quillon/platform/standard_paths.h"

namespace quillon {
namespace {

constexpr int kItems = 2000;

constexpr std::string_view kModel = R"json({"entities": [
  {"name": "Note",
   "attributes": [
     {"name": "title", "type": "string"}, {"name": "body", "type": "string"},
     {"name": "priority", "type": "integer32"}, {"name": "score", "type": "double"},
     {"name": "created", "type": "date"}],
   "relationships": [
     {"name": "tags", "destination": "Note", "toMany": true, "ordered": true,
      "inverse": "tags"}]}]})json";

struct Row {
  std::string uid, title, body, created, tags;
  int priority;
  double score;
};

const std::vector<Row>& rows() {
  static const std::vector<Row> all = [] {
    std::vector<Row> made;
    for (int i = 0; i < kItems; ++i) {
      char uid[40];
      std::snprintf(uid, sizeof uid, "7%07X-1A2B-4C3D-8E9F-%012X", i, i * 7919);
      made.push_back(Row{
          uid, "Note number " + std::to_string(i),
          "A body of moderate length for note " + std::to_string(i) + ", as people write them.",
          "2026-11-21T08:00:00.000+0000",
          "Tag/A" + std::to_string(i % 17) + ",Tag/B" + std::to_string(i % 5), i % 10, i * 0.25});
    }
    return made;
  }();
  return all;
}

std::string folder() {
  static const std::string path = [] {
    std::string p = StandardPaths::temporaryDirectory() + "/quillon-cache-bench";
    Env::Default()->removeItem(p);
    Env::Default()->createDirectories(p);
    return p;
  }();
  return path;
}

// The shard as the cache holds it: uid → cache item.
Value shardContent() {
  static std::shared_ptr<const ManagedObjectModel> model = [] {
    Error error;
    return ManagedObjectModel::fromJSON(kModel, &error);
  }();
  const EntityDescription& note = *model->entity("Note");
  auto entry = [](Value v) { return Value::dictionary({{"value", std::move(v)}}); };
  Value shard = Value::mutableDictionary();
  for (const Row& row : rows()) {
    auto item = std::make_shared<QuillonCacheItem>();
    item->updateValues(
        Value::dictionary(
            {{"title", entry(row.title)},
             {"body", entry(row.body)},
             {"priority", entry(std::to_string(row.priority))},
             {"score", entry(std::to_string(row.score))},
             {"created", entry(row.created)},
             {"tags", Value::dictionary({{"addedValues", Value::array({"Tag/A", "Tag/B"})}})}}),
        note, Url(), Value("3"));
    shard.set(Value(row.uid), Value::object(item));
  }
  return shard;
}

void BM_CacheShardWrite(benchmark::State& state) {
  QuillonCacheItem::registerCoding();
  Value content = shardContent();
  Url url = Url::fileURL(folder() + "/Note_7");
  for (auto _ : state) {
    auto shard = QuillonCacheDictionary::dictionaryWithStore(nullptr, url);
    shard->setContent(content);
    shard->invalidate();
    shard->saveIfNeeded();
    if (shard->invalid()) state.SkipWithError("write failed");
  }
  state.SetItemsProcessed(state.iterations() * kItems);
}

void BM_CacheShardRead(benchmark::State& state) {
  QuillonCacheItem::registerCoding();
  Url url = Url::fileURL(folder() + "/Note_7");
  {
    auto shard = QuillonCacheDictionary::dictionaryWithStore(nullptr, url);
    shard->setContent(shardContent());
    shard->invalidate();
    shard->saveIfNeeded();
  }
  for (auto _ : state) {
    auto shard = QuillonCacheDictionary::dictionaryWithStore(nullptr, url);
    Value content = shard->content();
    if (content.size() != static_cast<size_t>(kItems)) state.SkipWithError("read failed");
    benchmark::DoNotOptimize(content);
  }
  state.SetItemsProcessed(state.iterations() * kItems);
}

sqlite3* openPeer() {
  sqlite3* db = nullptr;
  std::string path = folder() + "/peer.sqlite";
  sqlite3_open(path.c_str(), &db);
  sqlite3_exec(db,
               "CREATE TABLE IF NOT EXISTS note (uid TEXT PRIMARY KEY, title TEXT, body TEXT, "
               "priority INTEGER, score REAL, created TEXT, tags TEXT)",
               nullptr, nullptr, nullptr);
  return db;
}

void writePeer(sqlite3* db) {
  sqlite3_exec(db, "BEGIN; DELETE FROM note;", nullptr, nullptr, nullptr);
  sqlite3_stmt* insert = nullptr;
  sqlite3_prepare_v2(db, "INSERT INTO note VALUES (?, ?, ?, ?, ?, ?, ?)", -1, &insert, nullptr);
  for (const Row& row : rows()) {
    sqlite3_bind_text(insert, 1, row.uid.c_str(), -1, SQLITE_STATIC);
    sqlite3_bind_text(insert, 2, row.title.c_str(), -1, SQLITE_STATIC);
    sqlite3_bind_text(insert, 3, row.body.c_str(), -1, SQLITE_STATIC);
    sqlite3_bind_int(insert, 4, row.priority);
    sqlite3_bind_double(insert, 5, row.score);
    sqlite3_bind_text(insert, 6, row.created.c_str(), -1, SQLITE_STATIC);
    sqlite3_bind_text(insert, 7, row.tags.c_str(), -1, SQLITE_STATIC);
    sqlite3_step(insert);
    sqlite3_reset(insert);
  }
  sqlite3_finalize(insert);
  sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
}

void BM_SQLiteTableWrite(benchmark::State& state) {
  sqlite3* db = openPeer();
  for (auto _ : state) writePeer(db);
  sqlite3_close(db);
  state.SetItemsProcessed(state.iterations() * kItems);
}

void BM_SQLiteTableRead(benchmark::State& state) {
  sqlite3* db = openPeer();
  writePeer(db);
  sqlite3_close(db);
  for (auto _ : state) {
    // A fresh connection each time, as the cache reads a fresh file.
    db = openPeer();
    sqlite3_stmt* select = nullptr;
    sqlite3_prepare_v2(db, "SELECT * FROM note", -1, &select, nullptr);
    std::vector<Row> read;
    read.reserve(kItems);
    while (sqlite3_step(select) == SQLITE_ROW) {
      auto text = [&](int column) {
        return std::string(reinterpret_cast<const char*>(sqlite3_column_text(select, column)));
      };
      read.push_back(Row{text(0), text(1), text(2), text(5), text(6), sqlite3_column_int(select, 3),
                         sqlite3_column_double(select, 4)});
    }
    sqlite3_finalize(select);
    sqlite3_close(db);
    if (read.size() != static_cast<size_t>(kItems)) state.SkipWithError("read failed");
    benchmark::DoNotOptimize(read);
  }
  state.SetItemsProcessed(state.iterations() * kItems);
}

BENCHMARK(BM_CacheShardWrite)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SQLiteTableWrite)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CacheShardRead)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SQLiteTableRead)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace quillon

int main(int argc, char** argv) {
  return quillon::bench::runBenchmarks(argc, argv, [](const quillon::bench::RatioReporter& r) {
    auto ratio = [&](const char* label, const char* ours, const char* peer) {
      double a = r.cpuTime(ours), b = r.cpuTime(peer);
      if (a > 0 && b > 0) {
        std::printf("%s of %d items: ours %.2f ms, SQLite %.2f ms, time ratio ours/SQLite = %.2f\n",
                    label, quillon::kItems, a, b, a / b);
      }
    };
    ratio("shard write", "BM_CacheShardWrite", "BM_SQLiteTableWrite");
    ratio("shard read", "BM_CacheShardRead", "BM_SQLiteTableRead");
  });
}
