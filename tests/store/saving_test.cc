#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "quillon/base/json.h"
#include "quillon/base/notification_center.h"
#include "quillon/cache/internal/cache.h"
#include "quillon/graph/fetch_request.h"
#include "quillon/graph/managed_object.h"
#include "quillon/platform/main_queue.h"
#include "quillon/store/progress_sink.h"
#include "quillon/store/quillon.h"
#include "quillon/store/store.h"
#include "support/fault_env.h"
#include "support/package_reader.h"
#include "support/store_stack.h"
#include "support/temp_dir.h"

namespace quillon {

void PrintTo(const Value& value, std::ostream* os) { *os << value.description(); }

namespace {

namespace fs = std::filesystem;

const std::vector<std::string> kEntities{"Folder", "Note", "Tag",  "Person",
                                         "Pet",    "Item", "Book", "Album"};

class Progress final : public QuillonProgressSink {
 public:
  void setProgress(double fraction) override { fractions.push_back(fraction); }
  std::vector<double> fractions;
};

class SavingTest : public ::testing::Test {
 protected:
  void TearDown() override { QuillonStore::setDefaultEnv(nullptr); }

  std::string package(const std::string& name = "Doc") const {
    return dir_.file(name + ".quillon");
  }

  std::unique_ptr<StoreStack> open(Value options = Value(), const std::string& name = "Doc") {
    auto stack = std::make_unique<StoreStack>(package(name), options);
    EXPECT_TRUE(stack->store);
    EXPECT_TRUE(stack->waitUntilReady());
    return stack;
  }

  ManagedObjectPtr insert(StoreStack& stack, std::string_view entity, const Value& values) {
    ManagedObjectPtr object = stack.context->insertNewObjectForEntityForName(entity);
    EXPECT_NE(object, nullptr) << entity;
    for (const auto& [key, value] : values.items()) {
      Error error;
      EXPECT_TRUE(object->setValue(key.str(), value, &error)) << key.str();
    }
    return object;
  }

  void save(StoreStack& stack) {
    Error error;
    ASSERT_TRUE(stack.saveAndWait(&error)) << error.localizedDescription();
  }

  // A folder with a note that has every kind of value and two ordered tags.
  struct Sample {
    ManagedObjectPtr folder, note, first, second;
  };
  Sample insertSample(StoreStack& stack) {
    Sample s;
    s.folder = insert(stack, "Folder", Value::dictionary({{"name", "Inbox"}}));
    s.first = insert(stack, "Tag", Value::dictionary({{"name", "first"}}));
    s.second = insert(stack, "Tag", Value::dictionary({{"name", "second"}}));
    s.note = insert(stack, "Note",
                    Value::dictionary({{"title", "Hello"},
                                       {"score", 2.5},
                                       {"created", Value::date(86400.25)},
                                       {"data", Value::data(std::string_view("four"))}}));
    s.note->setValue("folder", Value::object(s.folder));
    s.note->addObject("tags", s.first);
    s.note->addObject("tags", s.second);
    return s;
  }

  static std::string uid(const ManagedObjectPtr& object) { return storeUID(*object); }
  static std::string path(const ManagedObjectPtr& object) {
    return storeSavePath(*object->objectID());
  }
  static Value paths(std::initializer_list<ManagedObjectPtr> objects) {
    Value array = Value::array(true);
    for (const auto& o : objects) array.append(Value::string(path(o)));
    return array;
  }

  static std::set<std::string> keysOf(const Value& dictionary) {
    std::set<std::string> keys;
    for (const auto& [key, value] : dictionary.items()) keys.insert(std::string(key.str()));
    return keys;
  }

  PackageReader read(const std::optional<std::string>& password = std::nullopt,
                     const std::string& name = "Doc") {
    PackageReader reader(package(name), kEntities, password);
    EXPECT_TRUE(reader.problems().empty()) << reader.problemsText();
    return reader;
  }

  TempDir dir_{"quillon-saving"};
  ScopedCacheHome cacheHome_{dir_.file("caches")};
};

TEST_F(SavingTest, InsertWritesOneChangeAndARecordPerObject) {
  auto stack = open();
  std::vector<Value> begins;
  ScopedObserver observer(NotificationCenter::defaultCenter(), kQuillonBeginSave,
                          stack->store.get(),
                          [&](const Notification& n) { begins.push_back(n.userInfo); });
  Sample s = insertSample(*stack);
  save(*stack);

  ASSERT_EQ(begins.size(), 1u);
  EXPECT_EQ(begins[0].get("count"), Value::integer(4));
  EXPECT_EQ(stack->store->saveOperationsValue(), 4);

  PackageReader reader = read();
  ASSERT_EQ(reader.changes().size(), 1u);
  const Value& change = reader.changes()[0].content;
  EXPECT_TRUE(change.get("previousName").isNil());  // the first change of the package
  EXPECT_EQ(keysOf(change.get("changes")), std::set<std::string>{"insert"});
  EXPECT_EQ(change.get("changes").get("insert").get("Tag").size(), 2u);
  EXPECT_EQ(change.get("session").get("machineName"), Value::string("test-machine"));
  EXPECT_TRUE(reader.orphanRecords().empty());

  const auto* note = reader.record("Note", uid(s.note), reader.changes()[0].fileName);
  ASSERT_NE(note, nullptr);
  const Value& payload = note->content.get("payload");
  EXPECT_EQ(note->content.get("type"), Value::string("insert"));
  EXPECT_EQ(payload.get("title"), Value::dictionary({{"value", "Hello"}}));
  EXPECT_EQ(payload.get("score").get("value"), Value::string("2.5"));
  EXPECT_EQ(payload.get("created").get("value"), Value::string("2001-01-02T00:00:00.250+0000"));
  EXPECT_EQ(payload.get("priority").get("value"), Value::string("1"));  // the model's default
  // A new object's absent values are left out; relationships never are.
  EXPECT_TRUE(payload.get("body").isNil());
  EXPECT_EQ(payload.get("folder"), Value::dictionary({{"value", paths({s.folder})}}));
  EXPECT_EQ(payload.get("tags").get("orderedValues"), paths({s.first, s.second}));
  EXPECT_EQ(payload.get("tags").get("addedValues"), paths({s.first, s.second}));
  EXPECT_TRUE(payload.get("tags").get("removedValues").isNil());
  // An empty relationship is still written, as an empty object.
  const auto* tag = reader.record("Tag", uid(s.first), reader.changes()[0].fileName);
  ASSERT_NE(tag, nullptr);
  EXPECT_EQ(tag->content.get("payload").get("notes").get("addedValues"), paths({s.note}));
  const auto* folder = reader.record("Folder", uid(s.folder), reader.changes()[0].fileName);
  ASSERT_NE(folder, nullptr);

  // The data file holds the bytes, named by the record and listed by the change.
  const std::string dataName(payload.get("data").get("value").str());
  auto bytes = reader.readFile("Entities/Note/" + uid(s.note) + "/Data/" + dataName);
  ASSERT_TRUE(bytes);
  EXPECT_EQ(std::string(bytes->begin(), bytes->end()), "four");

  // The cache knows the change and the values.
  Value logged = stack->store->cache().changes();
  ASSERT_EQ(logged.size(), 1u);
  EXPECT_EQ(logged[0].get("name"), Value::string(reader.changes()[0].fileName));
}

TEST_F(SavingTest, UpdatesWriteOnlyChangedKeysAndTouchedObjectsNothing) {
  auto stack = open();
  Sample s = insertSample(*stack);
  save(*stack);

  // Only touched: no record and, with nothing else, no change file either.
  s.note->willChangeValueForKey("title");
  s.note->didChangeValueForKey("title");
  save(*stack);
  EXPECT_EQ(read().changes().size(), 1u);

  s.folder->willChangeValueForKey("name");
  s.folder->didChangeValueForKey("name");
  s.note->setValue("title", Value::string("Changed"));
  s.note->setValue("score", Value());  // cleared
  save(*stack);
  PackageReader reader = read();
  ASSERT_EQ(reader.changes().size(), 2u);
  const auto& second = reader.changes()[1];
  EXPECT_EQ(second.content.get("previousName"), Value::string(reader.changes()[0].fileName));
  EXPECT_EQ(keysOf(second.content.get("changes").get("update")), std::set<std::string>{"Note"});
  const auto* update = reader.record("Note", uid(s.note), second.fileName);
  ASSERT_NE(update, nullptr);
  EXPECT_EQ(update->content.get("type"), Value::string("update"));
  EXPECT_EQ(update->content.get("payload"),
            Value::dictionary({{"title", Value::dictionary({{"value", "Changed"}})},
                               {"score", Value::dictionary()}}))
      << update->content.description();
  EXPECT_TRUE(reader.recordsOf("Folder", uid(s.folder)).size() == 1u);
}

TEST_F(SavingTest, RelationshipChangesAreWrittenAsDifferencesAndOrder) {
  auto stack = open();
  Sample s = insertSample(*stack);
  save(*stack);

  // A move inside the ordered relationship: nothing added, nothing removed.
  s.note->removeObject("tags", s.first);
  s.note->insertObject("tags", s.first, 1);
  save(*stack);
  PackageReader reader = read();
  const auto* moved = reader.record("Note", uid(s.note), reader.changes()[1].fileName);
  ASSERT_NE(moved, nullptr);
  EXPECT_EQ(moved->content.get("payload").get("tags"),
            Value::dictionary({{"orderedValues", paths({s.second, s.first})}}));

  // Removing a tag and clearing the to-one.
  s.note->removeObject("tags", s.second);
  s.note->setValue("folder", Value());
  save(*stack);
  reader = read();
  const auto* removed = reader.record("Note", uid(s.note), reader.changes()[2].fileName);
  ASSERT_NE(removed, nullptr);
  EXPECT_EQ(removed->content.get("payload").get("tags"),
            Value::dictionary(
                {{"orderedValues", paths({s.first})}, {"removedValues", paths({s.second})}}));
  EXPECT_EQ(removed->content.get("payload").get("folder"), Value::dictionary())
      << removed->content.description();
  // The other sides changed too and got records of their own.
  EXPECT_NE(reader.record("Tag", uid(s.second), reader.changes()[2].fileName), nullptr);
  EXPECT_NE(reader.record("Folder", uid(s.folder), reader.changes()[2].fileName), nullptr);
}

TEST_F(SavingTest, DeleteWritesARecordWithoutPayloadAndDropsTheCachedObject) {
  auto stack = open();
  Sample s = insertSample(*stack);
  save(*stack);
  const std::string tagUID = uid(s.second);
  ManagedObjectIDPtr tagID = s.second->objectID();
  ASSERT_TRUE(stack->store->cache().objectUIDsForEntityName("Tag").contains(Value::string(tagUID)));

  stack->context->deleteObject(s.second);
  save(*stack);
  PackageReader reader = read();
  const std::string change = reader.changes()[1].fileName;
  const auto* deleted = reader.record("Tag", tagUID, change);
  ASSERT_NE(deleted, nullptr);
  EXPECT_EQ(deleted->content, Value::dictionary({{"version", "3"}, {"type", "delete"}}));
  EXPECT_EQ(keysOf(reader.changes()[1].content.get("changes")),
            (std::set<std::string>{"delete", "update"}));
  EXPECT_FALSE(
      stack->store->cache().objectUIDsForEntityName("Tag").contains(Value::string(tagUID)));

  FetchRequest tags("Tag");
  EXPECT_EQ(stack->context->fetchObjects(tags).size(), 1u);
}

TEST_F(SavingTest, ChangeFileReachesTheDiskOnlyAfterItsRecordsAreFlushed) {
  FaultInjectingEnv env;
  QuillonStore::setDefaultEnv(&env);
  auto stack = open();
  for (int i = 0; i < 12; ++i) {
    insert(*stack, "Note",
           Value::dictionary({{"title", "n" + std::to_string(i)},
                              {"data", Value::data(std::string(100 + i, 'x'))}}));
  }
  using Op = FaultInjectingEnv::Op;
  // A new package survives a power cut: Info.plist and the package's folder
  // (with its entry in the folder above) are flushed when it is made.
  std::set<std::string> created;
  for (const auto& op : env.operations()) {
    if (op.op == Op::Sync) created.insert(op.path);
  }
  EXPECT_TRUE(created.count(package() + "/Info.plist"));
  EXPECT_TRUE(created.count(package()));

  env.resetCounts();
  save(*stack);

  auto operations = env.operations();
  auto isChange = [](const FaultInjectingEnv::Operation& op) {
    return op.op == Op::Write && op.path.find("/Changes/") != std::string::npos;
  };
  auto changeWrite = std::find_if(operations.begin(), operations.end(), isChange);
  ASSERT_NE(changeWrite, operations.end());
  EXPECT_EQ(std::count_if(operations.begin(), operations.end(), isChange), 1);
  std::set<std::string> flushed;
  for (auto it = operations.begin(); it != changeWrite; ++it) {
    if (it->op == Op::Sync) flushed.insert(it->path);
  }
  size_t recordsAndData = 0;
  for (auto it = operations.begin(); it != operations.end(); ++it) {
    if (it->op != Op::Write || it->path.find("/Entities/") == std::string::npos) continue;
    ++recordsAndData;
    EXPECT_LT(it, changeWrite) << it->path << " written after the change file";
    EXPECT_TRUE(flushed.count(it->path)) << it->path << " not flushed before the change file";
    std::string folder = fs::path(it->path).parent_path().string();
    EXPECT_TRUE(flushed.count(folder)) << folder << " (new) not flushed";
  }
  EXPECT_EQ(recordsAndData, 24u);
  // So are the first save's new folders, each an entry of its parent.
  for (const char* folder : {"/Changes", "/Entities", "/Entities/Note"}) {
    EXPECT_TRUE(flushed.count(package() + folder)) << folder;
  }
  // The change file is flushed after its rename, with its folder.
  auto after = std::find_if(changeWrite, operations.end(), [&](const auto& op) {
    return op.op == Op::Sync && op.path == changeWrite->path;
  });
  EXPECT_NE(after, operations.end());
  read();
}

TEST_F(SavingTest, WithoutDurableSavesNothingIsFlushed) {
  FaultInjectingEnv env;
  QuillonStore::setDefaultEnv(&env);
  auto stack = open(Value::dictionary({{std::string(kQuillonDurableSavesOption), false}}));
  insertSample(*stack);
  save(*stack);
  EXPECT_EQ(env.count(FaultInjectingEnv::Op::Sync), 0u);
  EXPECT_EQ(read().changes().size(), 1u);
}

// A save whose files could not all be written publishes no change file (other
// computers would wait forever for the missing one), tells whoever waits and
// whoever listens, keeps no cached values that no change carries, and does
// not stop the next save. Every kind of write of a save fails in turn.
TEST_F(SavingTest, AFailedWriteOfASavePublishesNoChangeAndIsReported) {
  using Op = FaultInjectingEnv::Op;
  using Fault = FaultInjectingEnv::Fault;
  struct Case {
    const char* what;
    Op op;
    const char* path;
  };
  const Case cases[] = {
      {"record", Op::Write, "/Entities/Folder/"},
      {"data file", Op::Write, "/Data/"},
      {"object folder", Op::CreateDirectories, "/Entities/Note/"},
      {"flush of the records", Op::Sync, "/Entities/"},
      {"change file", Op::Write, "/Changes/"},
  };
  int round = 0;
  for (const Case& c : cases) {
    for (Fault fault : {Fault::NoSpace, Fault::IoError}) {
      const std::string name = "Doc" + std::to_string(round++);
      SCOPED_TRACE(std::string(c.what) + (fault == Fault::NoSpace ? " ENOSPC" : " EIO"));
      FaultInjectingEnv env;
      QuillonStore::setDefaultEnv(&env);
      auto stack = open(Value(), name);
      Value failures = Value::mutableArray();
      ScopedObserver observer(NotificationCenter::defaultCenter(), kQuillonSaveDidFail,
                              stack->store.get(), [&](const Notification& n) {
                                failures.append(n.userInfo.get("error"));
                              });
      Sample s = insertSample(*stack);
      env.failAfter(c.op, c.path, 0, fault);
      // The context's save answers at once; the failure comes with waiting.
      Error error;
      EXPECT_FALSE(stack->saveAndWait(&error));
      ASSERT_TRUE(error);
      EXPECT_EQ(error.code(), fault == Fault::NoSpace ? ENOSPC : EIO);
      MainQueue::drain();
      EXPECT_EQ(failures.size(), 1u);
      EXPECT_TRUE(fs::is_empty(package(name) + "/Changes") ||
                  !fs::exists(package(name) + "/Changes"));
      EXPECT_EQ(stack->store->cache().cacheItemForObjectID(s.note->objectID()), nullptr);
      EXPECT_FALSE(stack->store->waitForSaves());  // reported once

      env.clearFaults();
      insert(*stack, "Tag", Value::dictionary({{"name", "later"}}));
      save(*stack);
      EXPECT_FALSE(stack->store->waitForSaves());
      stack.reset();
      QuillonStore::setDefaultEnv(nullptr);
      PackageReader reader(package(name), kEntities);
      EXPECT_EQ(reader.changes().size(), 1u);
      EXPECT_TRUE(reader.problems().empty()) << reader.problemsText();
    }
  }
}

TEST_F(SavingTest, EncryptedPackageShowsNoJSONAndReadsBackWithThePassword) {
  auto stack = open(Value::dictionary({{"password", "secret"}}));
  Sample s = insertSample(*stack);
  save(*stack);
  s.note->setValue("title", Value::string("again"));
  save(*stack);

  size_t files = 0;
  for (const auto& item : fs::recursive_directory_iterator(package())) {
    if (!item.is_regular_file() || item.path().filename() == "Info.plist") continue;
    ++files;
    std::string bytes = dir_.read(fs::relative(item.path(), dir_.path()).string());
    EXPECT_TRUE(readJSON(bytes).isNil()) << item.path();
    EXPECT_EQ(bytes.find("four"), std::string::npos) << item.path();
    EXPECT_EQ((bytes.size() - 80) % 16, 0u) << item.path();
  }
  EXPECT_EQ(files, 8u);  // 2 changes, 4 + 1 records, 1 data file
  PackageReader reader = read("secret");
  ASSERT_EQ(reader.changes().size(), 2u);
  EXPECT_TRUE(fs::exists(package() + "/Entities/" + reader.entityKey("Note") + "/" + uid(s.note)));
  EXPECT_EQ(reader.entityKey("Note").size(), 64u);
  const auto* note = reader.record("Note", uid(s.note), reader.changes()[1].fileName);
  ASSERT_NE(note, nullptr);
  EXPECT_EQ(note->content.get("payload").get("title").get("value"), Value::string("again"));
}

TEST_F(SavingTest, BackwardsClockNamesTheChangeOneSecondAfterTheLastAndWarns) {
  auto stack = open();
  const std::string future = "2990-01-01-00-00-00.000.00000000-0000-0000-0000-000000000000.json";
  stack->store->cache().addChange(
      Value::dictionary({{"name", future}, {"date", "2990-01-01T00:00:00.000+0000"}}), false);
  MainQueue::drain();
  Sample s = insertSample(*stack);
  save(*stack);

  PackageReader reader = read();
  ASSERT_EQ(reader.changes().size(), 1u);
  const auto& change = reader.changes()[0];
  EXPECT_TRUE(change.fileName.starts_with("2990-01-01-00-00-01.000.")) << change.fileName;
  EXPECT_EQ(change.content.get("date"), Value::string("2990-01-01T00:00:01.000+0000"));
  EXPECT_EQ(change.content.get("previousName"), Value::string(future));
  EXPECT_NE(reader.record("Note", uid(s.note), change.fileName), nullptr);

  MainQueue::drain();
  size_t warnings = 0;
  for (const Value& entry : stack->store->logEntries().elements()) {
    if (entry.get("message") == Value::string("At least one Mac has (or had) set a wrong date.")) {
      EXPECT_EQ(entry.get(kQuillonLogType), Value::string(kQuillonLogTypeWarning));
      ++warnings;
    }
  }
  EXPECT_EQ(warnings, 1u);
}

TEST_F(SavingTest, WritingAllObjectsExportsFullRecordsInOneChange) {
  auto source = open();
  Sample s = insertSample(*source);
  insert(*source, "Book", Value::dictionary({{"label", "Dune"}, {"pages", 412}}));
  save(*source);
  // A later change must not turn the export into increments.
  s.note->setValue("title", Value::string("Latest"));
  save(*source);

  auto target = open(Value(), "Copy");
  auto progress = std::make_shared<Progress>();
  Value options = Value::dictionary(
      {{std::string(kQuillonBusyWindowControllerOptionsKey), Value::object(progress)},
       {std::string(kQuillonAnonymizeOptionsKey),
        Value::dictionary(
            {{"entities",
              Value::dictionary(
                  {{"Note", Value::dictionary(
                                {{"score", Value::dictionary({{"type", "nullify"}})},
                                 {"title", Value::dictionary({{"type", "truncate"}})}})}})}})}});
  bool done = false;
  ManagedObjectContext* completed = nullptr;
  target->store->writeAllObjectsInContext(source->context, source->store.get(), options,
                                          [&](ManagedObjectContext* context) {
                                            done = true;
                                            completed = context;
                                          });
  ASSERT_TRUE(MainQueue::runUntil([&] { return done; }, 30));
  EXPECT_EQ(completed, source->context.get());
  ASSERT_EQ(progress->fractions.size(), kEntities.size());
  EXPECT_DOUBLE_EQ(progress->fractions.front(), 1.0 / kEntities.size());
  EXPECT_DOUBLE_EQ(progress->fractions.back(), 1.0);

  PackageReader reader = read(std::nullopt, "Copy");
  ASSERT_EQ(reader.changes().size(), 1u);
  const auto& change = reader.changes()[0];
  EXPECT_EQ(keysOf(change.content.get("changes")), std::set<std::string>{"insert"});
  EXPECT_EQ(keysOf(change.content.get("changes").get("insert")),
            (std::set<std::string>{"Folder", "Note", "Tag", "Book"}));
  EXPECT_EQ(reader.records().size(), 5u);
  const auto* note = reader.record("Note", uid(s.note), change.fileName);
  ASSERT_NE(note, nullptr);
  const Value& payload = note->content.get("payload");
  // Full: absent values leave no entry, to-many relationships only "addedValues".
  EXPECT_TRUE(payload.get("body").isNil());
  EXPECT_EQ(payload.get("tags"), Value::dictionary({{"addedValues", paths({s.first, s.second})}}));
  EXPECT_EQ(payload.get("title").get("value"), Value::string("L…t"));
  EXPECT_EQ(payload.get("score").get("value"), Value::string("0"));
  EXPECT_EQ(payload.get("folder").get("value"), paths({s.folder}));
  EXPECT_TRUE(fs::exists(package("Copy") + "/Entities/Note/" + uid(s.note) + "/Data/" +
                         std::string(payload.get("data").get("value").str())));
}

}  // namespace
}  // namespace quillon
