#include "quillon/changes/internal/change.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "quillon/base/json.h"
#include "quillon/base/internal/operation_queue.h"
#include "quillon/cache/internal/cache.h"
#include "quillon/graph/managed_object.h"
#include "quillon/platform/main_queue.h"
#include "quillon/store/store.h"
#include "support/store_stack.h"
#include "support/temp_dir.h"

namespace quillon {
namespace {

namespace fs = std::filesystem;

class ChangeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    stack_ = std::make_unique<StoreStack>(dir_.file("Doc.quillon"));
    ASSERT_TRUE(stack_->waitUntilReady());
  }
  QuillonStore* store() const { return stack_->store.get(); }
  std::string changeFile(const std::string& name) const {
    return dir_.file("Doc.quillon/Changes/" + name);
  }

  TempDir dir_{"quillon-change"};
  ScopedCacheHome cacheHome_{dir_.file("caches")};
  std::unique_ptr<StoreStack> stack_;
};

TEST_F(ChangeTest, NameDictionaryAndEntries) {
  // 2001-01-01 00:00:01.5 GMT.
  QuillonChange change(store(), 1.5);
  EXPECT_TRUE(change.changes().isNil());
  change.addChange(Value::dictionary(), "Note", "A", "insert");
  change.addChange(Value::dictionary({{"data", Value::array()}}), "Note", "A",
                   "insert");  // replaces
  change.addChange(Value::dictionary(), "Tag", "B", "delete");

  const std::string name = change.name();
  EXPECT_TRUE(name.starts_with("2001-01-01-00-00-01.500.")) << name;
  EXPECT_EQ(name.size(), 24u + 36u) << name;
  EXPECT_EQ(change.name(), name);  // fixed on first use
  EXPECT_EQ(change.fileName(), name + ".json");

  Value dictionary = change.dictionary();
  EXPECT_EQ(dictionary.get("name"), Value::string(name + ".json"));
  EXPECT_EQ(dictionary.get("date"), Value::string("2001-01-01T00:00:01.500+0000"));
  EXPECT_EQ(dictionary.get("changes").get("insert").get("Note").get("A"),
            Value::dictionary({{"data", Value::array()}}));
  EXPECT_EQ(dictionary.get("changes").get("delete").get("Tag").size(), 1u);
  EXPECT_TRUE(dictionary.get("session").isDictionary());
  // Later entries still reach the file; the accessors read keys no writer writes.
  change.addChange(Value::dictionary(), "Tag", "C", "update");
  EXPECT_TRUE(change.dictionary().get("changes").get("update").get("Tag").find("C"));
  EXPECT_TRUE(change.insertedUIDs().isNil());
  EXPECT_TRUE(change.updatedUIDs().isNil());
  EXPECT_TRUE(change.deletedUIDs().isNil());

  // Without entries the dictionary has no "changes" and nothing is written.
  QuillonChange empty(store(), 1.5);
  EXPECT_TRUE(empty.dictionary().get("changes").isNil());
  empty.saveToStore(store());
  store()->saveOperationQueue().waitUntilAllOperationsAreFinished();
  EXPECT_FALSE(fs::exists(changeFile(empty.fileName())));
}

TEST_F(ChangeTest, SavesInOneMillisecondKeepTheirOrder) {
  // Three saves stamped with one instant, and one whose clock runs a little
  // behind: each name sorts after the one made before it.
  std::vector<std::string> names;
  for (double date : {100.0, 100.0, 100.0, 99.9995}) {
    QuillonChange change(store(), date);
    names.push_back(change.name());
  }
  EXPECT_TRUE(names[0].starts_with("2001-01-01-00-01-40.000.")) << names[0];
  EXPECT_TRUE(names[1].starts_with("2001-01-01-00-01-40.001.")) << names[1];
  EXPECT_TRUE(names[2].starts_with("2001-01-01-00-01-40.002.")) << names[2];
  EXPECT_TRUE(names[3].starts_with("2001-01-01-00-01-40.003.")) << names[3];

  // The last change another computer wrote counts too.
  QuillonChange later(store(), 100.0);
  EXPECT_GT(later.name(), names[3]);
}

TEST_F(ChangeTest, SavedRecoveryAndFakeChangeFiles) {
  QuillonChange first(store(), 100);
  first.addChange(Value::dictionary(), "Note", "A", "insert");
  first.saveToStore(store());
  QuillonChange second(store(), 101);  // the same store saving again
  second.addChange(Value::dictionary(), "Note", "A", "update");
  store()->saveOperationQueue().waitUntilAllOperationsAreFinished();
  MainQueue::drain();
  second.saveToStore(store());
  store()->saveOperationQueue().waitUntilAllOperationsAreFinished();
  MainQueue::drain();

  Value written = readJSON(dir_.read("Doc.quillon/Changes/" + second.fileName()));
  EXPECT_EQ(written.get("previousName"), Value::string(first.fileName()));
  EXPECT_EQ(written, second.dictionary());
  Value log = store()->cache().changes();
  ASSERT_EQ(log.size(), 2u);
  EXPECT_EQ(log[1].get("name"), Value::string(second.fileName()));

  // Recovery and fake changes are pretty and named after their file.
  const std::string name = "2001-01-01-00-00-00.000.00000000-0000-0000-0000-000000000001.json";
  Url url = store()->changesURL().appending(name);
  Value refreshes = Value::dictionary(
      {{"update", Value::dictionary({{"Note", Value::dictionary({{"A", Value::dictionary()}})}})}});
  store()->writeFakeChangeToURL(url, refreshes);
  std::string text = dir_.read("Doc.quillon/Changes/" + name);
  EXPECT_NE(text.find('\n'), std::string::npos);  // pretty
  EXPECT_EQ(readJSON(text),
            Value::dictionary({{"name", name}, {"type", "recovery"}, {"refreshes", refreshes}}));

  const std::string other = "2001-01-01-00-00-00.000.00000000-0000-0000-0000-000000000002.json";
  store()->insertChange(store()->changesURL().appending(other));
  EXPECT_EQ(readJSON(dir_.read("Doc.quillon/Changes/" + other)),
            Value::dictionary({{"name", other}, {"type", "recovery"}}));
}

TEST_F(ChangeTest, ChangesFilesForListsOnlyRecordsOfKnownChangesInOrder) {
  ManagedObjectPtr note = stack_->context->insertNewObjectForEntityForName("Note");
  note->setValue("title", Value::string("one"));
  ASSERT_TRUE(stack_->saveAndWait());
  note->setValue("title", Value::string("two"));
  ASSERT_TRUE(stack_->saveAndWait());
  const std::string folder = "Doc.quillon/Entities/Note/" + storeUID(*note) + "/";
  dir_.write(folder + "9999-01-01-00-00-00.000.00000000-0000-0000-0000-000000000000.json", "{}");
  dir_.write(folder + ".hidden.json", "{}");

  std::vector<Url> files = store()->changesFilesFor(*note->entity(), storeUID(*note));
  Value log = store()->cache().changes();
  ASSERT_EQ(files.size(), 2u);
  EXPECT_EQ(files[0].lastPathComponent(), log[0].get("name").str());
  EXPECT_EQ(files[1].lastPathComponent(), log[1].get("name").str());
  // Untrusted names never become paths.
  EXPECT_TRUE(store()->changesFilesFor(*note->entity(), "..").empty());
  EXPECT_TRUE(store()->changesFilesFor(*note->entity(), "a/b").empty());
}

}  // namespace
}  // namespace quillon
