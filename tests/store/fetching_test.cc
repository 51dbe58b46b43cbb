#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "quillon/base/env.h"
#include "quillon/cache/internal/cache.h"
#include "quillon/cache/internal/cache_item.h"
#include "quillon/graph/fetch_request.h"
#include "quillon/graph/managed_object.h"
#include "quillon/graph/predicate.h"
#include "quillon/graph/sort_descriptor.h"
#include "quillon/platform/main_queue.h"
#include "quillon/store/persistent_store_coordinator.h"
#include "quillon/store/internal/request_item.h"
#include "quillon/store/store.h"
#include "support/fault_env.h"
#include "support/sample_models.h"
#include "support/store_stack.h"
#include "support/temp_dir.h"

namespace quillon {
namespace {

FetchRequest request(std::string entity, std::string_view where = {},
                     FetchRequestResultType type = FetchRequestResultType::ManagedObjectID) {
  FetchRequest r(std::move(entity));
  if (!where.empty()) r.setPredicate(Predicate::parse(where));
  r.setResultType(type);
  return r;
}

int64_t countOf(const Value& answer) {
  EXPECT_EQ(answer.size(), 1u);
  return answer.size() == 1 ? answer[0].intValue() : -1;
}

class FetchingTest : public ::testing::Test {
 protected:
  std::string packagePath() const { return dir_.file("Doc.quillon"); }

  std::unique_ptr<StoreStack> open(Value options = Value()) {
    auto stack = std::make_unique<StoreStack>(packagePath(), options);
    EXPECT_TRUE(stack->waitUntilReady());
    return stack;
  }

  ManagedObjectPtr insert(StoreStack& stack, std::string_view entity, const Value& values) {
    ManagedObjectPtr object = stack.context->insertNewObjectForEntityForName(entity);
    EXPECT_NE(object, nullptr) << entity;
    for (const auto& [key, value] : values.items()) object->setValue(key.str(), value);
    return object;
  }

  void save(StoreStack& stack) {
    Error error;
    ASSERT_TRUE(stack.saveAndWait(&error)) << error.localizedDescription();
  }

  // Ten notes titled "n0".."n9" with priorities in a scrambled order and one
  // folder holding the even ones.
  void insertNotes(StoreStack& stack) {
    const int priorities[] = {4, 9, 0, 7, 2, 8, 1, 6, 3, 5};
    ManagedObjectPtr folder =
        insert(stack, "Folder", Value::dictionary({{"name", Value::string("even")}}));
    for (int i = 0; i < 10; ++i) {
      ManagedObjectPtr note =
          insert(stack, "Note",
                 Value::dictionary({{"title", Value::string("n" + std::to_string(i))},
                                    {"priority", Value::integer(priorities[i])}}));
      if (i % 2 == 0) note->setValue("folder", Value::object(folder));
    }
    save(stack);
  }

  // The titles a fetch answers, in order.
  static std::vector<std::string> titles(StoreStack& stack, const FetchRequest& fetch) {
    FetchRequest objects = fetch;
    objects.setResultType(FetchRequestResultType::ManagedObject);
    Value answer = stack.store->executeFetchRequest(objects, stack.context.get());
    std::vector<std::string> out;
    for (const Value& v : answer.elements()) {
      ManagedObjectPtr object = managedObjectFromValue(v);
      EXPECT_NE(object, nullptr);
      if (object) out.emplace_back(object->value("title").str());
    }
    return out;
  }

  static std::vector<std::string> sorted(std::vector<std::string> v) {
    std::sort(v.begin(), v.end());
    return v;
  }

  TempDir dir_{"quillon-fetching"};
};

TEST_F(FetchingTest, NothingIsAnsweredBeforeTheChangeLogIsLoaded) {
  // A store that is made but not yet added to its coordinator has not bound
  // its cache to the package, so no change log is loaded. Even when the
  // cache already knows objects, a fetch answers nothing rather than blocking.
  auto coordinator = std::make_shared<QuillonPersistentStoreCoordinator>(notesModel());
  auto store = std::make_shared<QuillonStore>(coordinator.get(), std::string(),
                                              Url::fileURL(packagePath(), true), Value());
  store->cache().addObjectUIDs(
      Value::dictionary({{Value::string("Note"),
                          Value::dictionary({{Value::string("0A1B"), Value::dictionary()}})}}),
      false);
  ASSERT_EQ(store->cache().changeLog(), nullptr);
  ASSERT_EQ(store->cache().objectUIDsForEntityName("Note").size(), 1u);
  EXPECT_EQ(store->executeFetchRequest(request("Note"), nullptr), Value::array());
  EXPECT_EQ(store->executeFetchRequest(request("Note", "priority > 1"), nullptr), Value::array());
  EXPECT_EQ(store->executeFetchRequest(request("Note", {}, FetchRequestResultType::Count), nullptr),
            Value::array({Value::integer(0)}));
}

TEST_F(FetchingTest, CountsWithAndWithoutPredicatesOverSubentities) {
  auto stack = open();
  for (int i = 0; i < 2; ++i) {
    insert(*stack, "Book",
           Value::dictionary({{"label", Value::string(i ? "alpha" : "beta")},
                              {"pages", Value::integer(100 * (i + 1))}}));
  }
  for (int i = 0; i < 3; ++i) {
    insert(*stack, "Album", Value::dictionary({{"label", Value::string(i ? "anthem" : "blues")}}));
  }
  save(*stack);
  QuillonStore& store = *stack->store;
  auto* context = stack->context.get();
  const auto count = FetchRequestResultType::Count;

  EXPECT_EQ(countOf(store.executeFetchRequest(request("Item", {}, count), context)), 5);
  EXPECT_EQ(countOf(store.executeFetchRequest(request("Book", {}, count), context)), 2);
  EXPECT_EQ(
      countOf(store.executeFetchRequest(request("Item", "label BEGINSWITH 'a'", count), context)),
      3);
  EXPECT_EQ(countOf(store.executeFetchRequest(request("Book", "pages > 150", count), context)), 1);
  FetchRequest onlyItem = request("Item", {}, count);
  onlyItem.setIncludesSubentities(false);
  EXPECT_EQ(countOf(store.executeFetchRequest(onlyItem, context)), 0);

  EXPECT_EQ(store.executeFetchRequest(request("Nothing"), context).size(), 0u);
  Value ids = store.executeFetchRequest(request("Item", "label == 'blues'"), context);
  ASSERT_EQ(ids.size(), 1u);
  ManagedObjectIDPtr id = objectIDFromValue(ids[0]);
  ASSERT_NE(id, nullptr);
  EXPECT_EQ(id->entity()->name(), "Album");
}

TEST_F(FetchingTest, SortsThenLimitsAndResolvesRelationsToObjects) {
  auto stack = open();
  insertNotes(*stack);

  FetchRequest top = request("Note");
  top.setSortDescriptors({SortDescriptor("priority", false)});
  top.setFetchLimit(3);
  top.setFetchOffset(5);                                // not applied by the store
  std::vector<std::string> expected{"n1", "n5", "n3"};  // priorities 9, 8, 7
  EXPECT_EQ(titles(*stack, top), expected);

  // A key path through a to-one relation reaches the related object's values.
  EXPECT_EQ(sorted(titles(*stack, request("Note", "folder.name == 'even'"))),
            (std::vector<std::string>{"n0", "n2", "n4", "n6", "n8"}));
  EXPECT_EQ(countOf(stack->store->executeFetchRequest(
                request("Folder", "notes.@count == 5", FetchRequestResultType::Count),
                stack->context.get())),
            1);

  // Dictionaries hold the stored values; relations as identifiers.
  FetchRequest dictionaries = request("Note", "priority == 9", FetchRequestResultType::Dictionary);
  Value answer = stack->store->executeFetchRequest(dictionaries, stack->context.get());
  ASSERT_EQ(answer.size(), 1u);
  EXPECT_EQ(answer[0].get("title"), Value::string("n1"));
  EXPECT_TRUE(answer[0].get("folder").isNil());
}

TEST_F(FetchingTest, FaultsFillFromTheCacheIncludingToManyRelations) {
  {
    auto stack = open();
    ManagedObjectPtr note =
        insert(*stack, "Note", Value::dictionary({{"title", Value::string("tagged")}}));
    for (const char* name : {"b", "a", "c"}) {
      ManagedObjectPtr tag =
          insert(*stack, "Tag", Value::dictionary({{"name", Value::string(name)}}));
      note->addObject("tags", tag);
    }
    save(*stack);
  }
  auto stack = open();
  std::vector<Value> notes = stack->context->executeFetchRequest(
      request("Note", {}, FetchRequestResultType::ManagedObject));
  ASSERT_EQ(notes.size(), 1u);
  ManagedObjectPtr note = managedObjectFromValue(notes[0]);
  EXPECT_EQ(note->value("title"), Value::string("tagged"));
  Value tags = note->value("tags");
  ASSERT_TRUE(tags.isOrderedSet());
  std::vector<std::string> names;
  for (const Value& tag : tags.elements()) {
    names.emplace_back(managedObjectFromValue(tag)->value("name").str());
  }
  EXPECT_EQ(names, (std::vector<std::string>{"b", "a", "c"}));
  // The inverse answers the note.
  EXPECT_EQ(managedObjectFromValue(tags[0])->value("notes").size(), 1u);
}

TEST_F(FetchingTest, RequestItemsCompareWithTheirIdentifierAndObject) {
  auto stack = open();
  insertNotes(*stack);
  Value ids =
      stack->store->executeFetchRequest(request("Note", "title == 'n3'"), stack->context.get());
  ASSERT_EQ(ids.size(), 1u);
  ManagedObjectIDPtr id = objectIDFromValue(ids[0]);
  QuillonRequestItem item(stack->context.get(), id, stack->store.get());
  QuillonRequestItem other(stack->context.get(), id, stack->store.get());
  EXPECT_TRUE(item.isEqual(*id));
  EXPECT_TRUE(item.isEqual(*stack->context->objectWithID(id)));
  EXPECT_FALSE(item.isEqual(other));               // two items are equal only when identical
  EXPECT_TRUE(item.valueForKey("title").isNil());  // no values without a cache item
  item.setCacheItem(stack->store->cache().cacheItemForObjectID(id, stack->context.get()));
  EXPECT_EQ(item.valueForKey("title"), Value::string("n3"));
  EXPECT_EQ(item.dictionary().get("priority"), Value::integer(7));
}

// An object written in three saves: title "one", then "two", then "three".
class RecordLoadingTest : public FetchingTest {
 protected:
  void SetUp() override {
    stack_ = open();
    note_ = insert(
        *stack_, "Note",
        Value::dictionary({{"title", Value::string("one")}, {"priority", Value::integer(1)}}));
    save(*stack_);
    note_->setValue("title", Value::string("two"));
    save(*stack_);
    note_->setValue("title", Value::string("three"));
    note_->setValue("priority", Value::integer(3));
    save(*stack_);
    files_ = stack_->store->changesFilesFor(*note_->entity(), storeUID(*note_));
    ASSERT_EQ(files_.size(), 3u);
  }

  std::shared_ptr<QuillonCacheItem> load(const Value& upTo = Value()) {
    return stack_->store->loadValuesForObjectID(note_->objectID(), stack_->context.get(), upTo);
  }

  std::vector<std::string> issueTypes() const {
    std::vector<std::string> out;
    for (const auto& issue : stack_->store->loadingIssues()) {
      out.emplace_back(issue.dictionary().get("type").str());
    }
    return out;
  }

  std::unique_ptr<StoreStack> stack_;
  ManagedObjectPtr note_;
  std::vector<Url> files_;
};

TEST_F(RecordLoadingTest, CutOffStopsAfterTheNamedRecord) {
  auto all = load();
  ASSERT_NE(all, nullptr);
  EXPECT_EQ(all->attributes().get("title"), Value::string("three"));

  auto second = load(Value::string(files_[1].lastPathComponent()));
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(second->attributes().get("title"), Value::string("two"));
  EXPECT_EQ(second->attributes().get("priority"), Value::integer(1));

  // Reset goes back to the values of the insertion.
  stack_->store->resetAttributesForManagedObject(*note_);
  EXPECT_EQ(note_->value("title"), Value::string("one"));
  EXPECT_EQ(note_->value("priority"), Value::integer(1));
}

TEST_F(RecordLoadingTest, CloudOnlyRecordGivesNilAndOneRemoteFileIssue) {
  const std::string path = files_[1].path();
  Env::Default()->removeItem(path);
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(::ftruncate(fd, 4096), 0);  // a size but no blocks: a placeholder
  ::close(fd);

  EXPECT_EQ(load(), nullptr);
  ASSERT_EQ(issueTypes(), std::vector<std::string>{"Remote File"});
  Value issue = stack_->store->loadingIssues()[0].dictionary();
  EXPECT_EQ(issue.get("url"), Value::string(files_[1].absoluteString()));
  EXPECT_TRUE(issue.get("date").isDate());
}

TEST_F(RecordLoadingTest, UnreadableRecordsEndTheLoadWithTheirIssue) {
  const std::string path = files_[2].path();
  // Missing: nothing can be read under the record's name.
  ASSERT_FALSE(Env::Default()->removeItem(path));
  ASSERT_FALSE(Env::Default()->createDirectories(path));
  EXPECT_EQ(load(), nullptr);
  // Empty: zero bytes.
  ASSERT_FALSE(Env::Default()->removeItem(path));
  ASSERT_FALSE(Env::Default()->writeFileAtomically(path, std::string_view()));
  EXPECT_EQ(load(), nullptr);
  EXPECT_EQ(issueTypes(), (std::vector<std::string>{"Missing File", "Empty File"}));

  // Records that are not JSON objects, or carry odd payloads, give nothing
  // but never stop the object from loading.
  for (std::string_view text : {"[1, 2]", "not json", "{\"payload\": 7}",
                                "{\"version\": \"3\", \"payload\": {\"title\": 5, \"tags\": 1}}"}) {
    ASSERT_FALSE(Env::Default()->writeFileAtomically(path, text));
    auto item = load();
    ASSERT_NE(item, nullptr) << text;
    EXPECT_EQ(item->attributes().get("priority"), Value::integer(1)) << text;
  }
  EXPECT_EQ(stack_->store->loadValuesForEntity(*note_->entity(), "../Folder", nullptr), nullptr);
}

TEST_F(FetchingTest, DamagedEncryptedRecordIsUndecryptable) {
  auto stack = open(Value::dictionary({{"password", "pw"}}));
  ManagedObjectPtr note = insert(*stack, "Note", Value::dictionary({{"title", "secret"}}));
  save(*stack);
  std::vector<Url> files = stack->store->changesFilesFor(*note->entity(), storeUID(*note));
  ASSERT_EQ(files.size(), 1u);
  std::vector<uint8_t> bytes;
  ASSERT_FALSE(Env::Default()->readFile(files[0].path(), &bytes));
  ASSERT_GT(bytes.size(), 40u);
  bytes[bytes.size() / 2] ^= 0x5a;
  ASSERT_FALSE(Env::Default()->writeFileAtomically(files[0].path(), bytes));

  EXPECT_EQ(stack->store->loadValuesForObjectID(note->objectID(), stack->context.get()), nullptr);
  ASSERT_EQ(stack->store->loadingIssues().size(), 1u);
  EXPECT_EQ(stack->store->loadingIssues()[0].dictionary().get("type"),
            Value::string("Undecryptable File"));
}

// Reopening answers the same fetches: from the cache alone when it is
// intact, after a rebuild from the package when it is gone or damaged.
class ReopenTest : public FetchingTest {
 protected:
  void SetUp() override {
    auto stack = open();
    insertNotes(*stack);
    expected_ = answers(*stack);
    cacheFolder_ = QuillonCache::cacheURLForStoreURL(Url::fileURL(packagePath(), true))->path();
  }

  std::vector<std::string> answers(StoreStack& stack) {
    FetchRequest fetch = request("Note", "priority >= 1 AND folder.name == 'even'");
    fetch.setSortDescriptors({SortDescriptor("title")});
    std::vector<std::string> out = titles(stack, fetch);
    out.push_back(std::to_string(countOf(stack.store->executeFetchRequest(
        request("Note", {}, FetchRequestResultType::Count), stack.context.get()))));
    return out;
  }

  void expectSameAnswersAfterReopening() {
    auto stack = open();
    // The rebuild of a lost cache may finish after the first update.
    MainQueue::runUntil([&] { return answers(*stack) == expected_; }, 10);
    EXPECT_EQ(answers(*stack), expected_);
  }

  std::vector<std::string> expected_;
  std::string cacheFolder_;
};

TEST_F(ReopenTest, IntactCacheAnswersWithoutReadingEntityFiles) {
  ASSERT_EQ(expected_, (std::vector<std::string>{"n0", "n4", "n6", "n8", "10"}));
  FaultInjectingEnv env;
  Env* previous = QuillonStore::defaultEnv();
  QuillonStore::setDefaultEnv(&env);
  {
    auto stack = open();
    EXPECT_EQ(answers(*stack), expected_);
    EXPECT_GT(env.count(FaultInjectingEnv::Op::Read), 0u);  // the env is in use
    EXPECT_EQ(env.count(FaultInjectingEnv::Op::Read, "/Entities/"), 0u);
  }
  QuillonStore::setDefaultEnv(previous);
}

TEST_F(ReopenTest, RebuildReadsEachRecordOnce) {
  // Validation reads every record of the changes it applies; the cache
  // keeps what it read rather than reading the records again.
  ASSERT_FALSE(Env::Default()->removeItem(cacheFolder_));
  std::vector<std::string> files;
  ASSERT_FALSE(Env::Default()->listRecursively(packagePath() + "/Entities", &files));
  size_t records = std::count_if(files.begin(), files.end(), [](const std::string& file) {
    return file.size() > 5 && file.compare(file.size() - 5, 5, ".json") == 0;
  });
  ASSERT_GT(records, 10u);
  FaultInjectingEnv env;
  Env* previous = QuillonStore::defaultEnv();
  QuillonStore::setDefaultEnv(&env);
  {
    auto stack = open();
    MainQueue::runUntil([&] { return answers(*stack) == expected_; }, 10);
    EXPECT_EQ(answers(*stack), expected_);
    QuillonCache& cache = stack->store->cache();
    MainQueue::runUntil(
        [&] {
          return cache.cachedMissingItems() && cache.itemsToIndex() == cache.maxItemsToIndex();
        },
        10);
    EXPECT_EQ(env.count(FaultInjectingEnv::Op::Read, "/Entities/"), records);
  }
  QuillonStore::setDefaultEnv(previous);
}

TEST_F(ReopenTest, DamagedCacheFilesAreReadAgainFromThePackage) {
  std::vector<std::string> names;
  ASSERT_FALSE(Env::Default()->listDirectory(cacheFolder_, &names));
  size_t damaged = 0;
  for (const std::string& name : names) {
    // Value shards only: they are the files whose loss is made good by
    // reading records again.
    if (name.rfind("Note_", 0) != 0 || name == "Note_uids.fast") continue;
    ASSERT_FALSE(Env::Default()->writeFileAtomically(cacheFolder_ + "/" + name,
                                                     std::string_view("\x01garbage\xff")));
    ++damaged;
  }
  ASSERT_GT(damaged, 0u);
  expectSameAnswersAfterReopening();
}

}  // namespace
}  // namespace quillon
