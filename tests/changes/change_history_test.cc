// History operations on a package that two stores ("computers") share:
// discarding a change, closing a gap and removing a change's records.

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "changes/two_computers.h"
#include "quillon/base/env.h"
#include "quillon/base/internal/date_format.h"
#include "quillon/base/json.h"
#include "quillon/graph/fetch_request.h"
#include "quillon/platform/main_queue.h"
#include "quillon/store/package_layout.h"
#include "support/store_stack.h"
#include "support/temp_dir.h"
#include "support/tool_run.h"

namespace quillon {
namespace {

using testing::ExternalChanges;
using testing::fetchNotes;
using testing::insertNote;
using testing::loggedChangeNames;
using Strings = std::vector<std::string>;
// uid → "title/priority" of every note a store answers.
using Notes = std::map<std::string, std::string>;

class ChangeHistoryTest : public testing::TwoComputersTest {
 protected:
  ChangeHistoryTest() : TwoComputersTest("quillon-history") {}
  // Each computer's context takes part in external updates.
  std::unique_ptr<StoreStack> open(const std::string& machine) {
    auto stack = TwoComputersTest::open(machine);
    fetchNotes(*stack);
    return stack;
  }
  static Notes notes(StoreStack& stack) {
    Notes all;
    FetchRequest request("Note");
    for (const ManagedObjectPtr& note : stack.context->fetchObjects(request)) {
      all[storeUID(*note)] = std::string(note->value("title").str()) + "/" +
                             std::to_string(note->value("priority").intValue());
    }
    return all;
  }
  static size_t resets(StoreStack& stack) {
    std::vector<std::string> messages = testing::logMessages(*stack.store);
    return static_cast<size_t>(std::count(messages.begin(), messages.end(), "Reset Log"));
  }
  std::string read(const std::string& relative) { return dir.read("Doc.quillon/" + relative); }
};

// Moves the package's first change (its file and records) to a name of the
// year 2001, as if it had been made long before the rest.
void backdateFirstChange(const std::string& package) {
  Env* env = Env::Default();
  std::vector<std::string> names;
  ASSERT_FALSE(listChangeFiles(env, Url::fileURL(package + "/Changes", true), &names));
  ASSERT_FALSE(names.empty());
  const std::string name = names.front();
  const std::string old = "2001-01-01-00-00-00.000" + name.substr(23);
  std::vector<uint8_t> bytes;
  ASSERT_FALSE(env->readFile(package + "/Changes/" + name, &bytes));
  Value change = readJSON(std::span<const uint8_t>(bytes)).mutableCopy();
  change.set("name", Value(old));
  ASSERT_FALSE(env->writeFileAtomically(package + "/Changes/" + old, writeJSON(change)));
  ASSERT_FALSE(env->removeItem(package + "/Changes/" + name));
  std::vector<std::string> items;
  ASSERT_FALSE(env->listRecursively(package + "/Entities", &items));
  for (const std::string& item : items) {
    if (item.ends_with("/" + name)) {
      const std::string folder = package + "/Entities/" + item.substr(0, item.size() - name.size());
      ASSERT_FALSE(env->moveItem(folder + name, folder + old));
    }
  }
}

// The discarded change comes more than a second after the one before it
// (each computer's log is cut just before it) or within the same second
// (the empty change sorts first and each computer starts over).
class DiscardTest : public ChangeHistoryTest, public ::testing::WithParamInterface<bool> {};

TEST_P(DiscardTest, DiscardingAChangeReappliesTheRestOnEveryComputer) {
  const bool longAfter = GetParam();
  if (longAfter) {
    auto first = open("first");
    insertNote(*first, "kept");
    insertNote(*first, "doomed");
    ASSERT_TRUE(first->saveAndWait());
    first.reset();
    backdateFirstChange(package);
  }
  a = open("A");
  b = open("B");
  ManagedObjectPtr kept, doomed;
  if (longAfter) {
    for (const ManagedObjectPtr& note : a->context->fetchObjects(FetchRequest("Note"))) {
      (note->value("title") == Value("kept") ? kept : doomed) = note;
    }
    ASSERT_TRUE(kept && doomed);
  } else {
    kept = insertNote(*a, "kept");
    doomed = insertNote(*a, "doomed");
    ASSERT_TRUE(a->saveAndWait());
    update(*b);
  }

  // The change to discard: it renames one note, deletes another and inserts a third.
  kept->setValue("title", Value("renamed"));
  a->context->deleteObject(doomed);
  ManagedObjectPtr added = insertNote(*a, "added");
  ASSERT_TRUE(a->saveAndWait());
  const std::string discarded = loggedChangeNames(*a->store).back();
  const Value discardedContent = readJSON(read("Changes/" + discarded));
  // A later change on the other computer, made after it had applied that one.
  update(*b);
  ManagedObjectPtr keptOnB = b->context->existingObjectWithID(
      b->store->newObjectIDForEntity(kept->entity(), Value(storeUID(*kept))));
  ASSERT_TRUE(keptOnB);
  keptOnB->setValue("priority", Value(7));
  ASSERT_TRUE(b->saveAndWait());
  const std::string later = loggedChangeNames(*b->store).back();
  update(*a);

  seen = std::make_unique<ExternalChanges>(b->context.get());
  const size_t resetsBefore = resets(*a);
  std::optional<QuillonDiscardedChange> traces =
      a->store->discardChange(a->store->changesURL().appending(discarded));
  ASSERT_TRUE(traces);
  ASSERT_TRUE(a->waitUntilReady());
  MainQueue::drain();
  update(*b);

  // The three traces.
  EXPECT_EQ(traces->invalidChange.path(), package + "/InvalidChanges/" + discarded);
  EXPECT_EQ(readJSON(read("InvalidChanges/" + discarded)), discardedContent);
  EXPECT_EQ(readJSON(read("Changes/" + discarded)),
            Value::dictionary({{"name", discarded},
                               {"type", "recovery"},
                               {"refreshes", discardedContent.get("changes")}}));
  const std::string earlier = traces->earlierChange.lastPathComponent();
  EXPECT_EQ(traces->earlierChange.deletingLastPathComponent().path(), package + "/Changes");
  EXPECT_EQ(readJSON(read("Changes/" + earlier)),
            Value::dictionary({{"name", earlier}, {"type", "recovery"}}));
  // One second before the discarded change, to the millisecond.
  std::optional<double> discardedDate = parseChangeDate(discarded.substr(0, 23));
  std::optional<double> earlierDate = parseChangeDate(earlier.substr(0, 23));
  ASSERT_TRUE(discardedDate && earlierDate);
  EXPECT_NEAR(*discardedDate - *earlierDate, 1.0, 0.0015);

  // Both computers answer the history without the discarded change, the
  // later change still applied.
  const Notes expected{{storeUID(*kept), "kept/7"}, {storeUID(*doomed), "doomed/1"}};
  EXPECT_EQ(notes(*a), expected);
  EXPECT_EQ(notes(*b), expected);
  EXPECT_EQ(loggedChangeNames(*b->store), loggedChangeNames(*a->store));
  EXPECT_EQ(loggedChangeNames(*a->store).back(), later);
  EXPECT_EQ(a->store->checkSum(), b->store->checkSum());
  EXPECT_EQ(a->store->cache().changeNames().contains(Value(discarded)), false);

  // The other computer was told about every object the discarded change touched.
  std::vector<std::string> told = seen->uids("inserted");
  for (const std::string& uid : seen->uids("updated")) told.push_back(uid);
  for (const std::string& uid : seen->uids("deleted")) told.push_back(uid);
  for (const ManagedObjectPtr& object : {kept, doomed, added}) {
    EXPECT_NE(std::find(told.begin(), told.end(), storeUID(*object)), told.end())
        << storeUID(*object);
  }

  // A store opened afresh reads the same.
  b.reset();
  auto fresh = open("C");
  EXPECT_EQ(notes(*fresh), expected);
  EXPECT_EQ(fresh->store->checkSum(), a->store->checkSum());
  // How the discarding computer came to it.
  EXPECT_EQ(resets(*a) > resetsBefore, !longAfter);
}

INSTANTIATE_TEST_SUITE_P(LongAfterOrJustAfter, DiscardTest, ::testing::Bool());

TEST_F(ChangeHistoryTest, AChangeFileThatNeverCompletesIsDiscardedFromItsLogEntry) {
  a = open("A");
  b = open("B");
  insertNote(*a, "before");
  ASSERT_TRUE(a->saveAndWait());
  // A file another computer began to write just after that change, never finished.
  std::optional<double> first = parseChangeDate(loggedChangeNames(*a->store).back().substr(0, 23));
  ASSERT_TRUE(first);
  const std::string broken =
      formatChangeDate(*first + 0.001) + ".6F9619FF-8B86-D011-B42D-00C04FC964FF.json";
  dir.write("Doc.quillon/Changes/" + broken, "{\"name\": \"");
  insertNote(*a, "after");
  ASSERT_TRUE(a->saveAndWait());
  update(*b);
  EXPECT_EQ(fetchNotes(*b).size(), 1u) << "the update stops at the broken file";

  // The remedy the log entry offers: "Ignore", which discards the file.
  Url remedy;
  for (const Value& entry : b->store->logEntries().elements()) {
    for (const Value& item : entry.get("menu").elements()) {
      if (item.get("action") == Value("discardChangeFromMenu:")) {
        remedy = Url::parse(item.get("URL").str()).value_or(Url());
      }
    }
  }
  ASSERT_EQ(remedy.lastPathComponent(), broken);
  b->store->discardChangeFromMenu(remedy);
  ASSERT_TRUE(b->waitUntilReady());
  MainQueue::drain();
  EXPECT_EQ(fetchNotes(*b).size(), 2u);
  EXPECT_EQ(read("InvalidChanges/" + broken), "{\"name\": \"");
  EXPECT_EQ(readJSON(read("Changes/" + broken)),
            Value::dictionary({{"name", broken}, {"type", "recovery"}}));
}

TEST_F(ChangeHistoryTest, OnlyChangeFilesOfThisPackageAreDiscardedOrInserted) {
  a = open("A");
  insertNote(*a, "one");
  ASSERT_TRUE(a->saveAndWait());
  const std::string before = testing::folderSnapshot(package);
  dir.write("elsewhere/2024-01-01-00-00-00.000.00000000-0000-0000-0000-000000000001.json", "{}");
  const Url outside = Url::fileURL(
      dir.file("elsewhere/2024-01-01-00-00-00.000.00000000-0000-0000-0000-000000000001.json"));
  EXPECT_FALSE(a->store->discardChange(outside));
  EXPECT_FALSE(a->store->discardChange(a->store->changesURL().appending("notes.json")));
  a->store->insertChange(outside);
  a->store->insertChange(a->store->changesURL().appending("../Info.plist"));
  MainQueue::drain();
  EXPECT_EQ(testing::folderSnapshot(package), before);
  EXPECT_EQ(dir.read("elsewhere/2024-01-01-00-00-00.000.00000000-0000-0000-0000-000000000001.json"),
            "{}");
  EXPECT_TRUE(testing::logContains(*a->store, "Cannot discard a file that is not a change"));
}

TEST_F(ChangeHistoryTest, RemovingAnInsertRemovesEveryRecordOfItsObjects) {
  a = open("A");
  ManagedObjectPtr first = insertNote(*a, "first");
  ManagedObjectPtr second = insertNote(*a, "second");
  ASSERT_TRUE(a->saveAndWait());
  const std::string insert = loggedChangeNames(*a->store).back();
  first->setValue("title", Value("first, again"));
  second->setValue("title", Value("second, again"));
  ASSERT_TRUE(a->saveAndWait());
  const std::string update = loggedChangeNames(*a->store).back();
  const std::string firstFolder = package + "/Entities/Note/" + storeUID(*first);
  const std::string secondFolder = package + "/Entities/Note/" + storeUID(*second);
  Env* env = Env::Default();

  // Not an insert: only the record of that change goes.
  a->store->removeChange(Value::dictionary({{"name", update}}),
                         Value::dictionary({{"Note", Value::array({storeUID(*second)})}}), false);
  EXPECT_FALSE(env->exists(secondFolder + "/" + update));
  EXPECT_TRUE(env->exists(secondFolder + "/" + insert));

  // An insert: the object did not exist before, so every record goes, the
  // later change's included. A set of uids and an unknown entity are fine.
  a->store->removeChange(Value::dictionary({{"name", insert}}),
                         Value::dictionary({{"Note", Value::set({Value(storeUID(*first))})},
                                            {"Nope", Value::array({"x"})}}),
                         true);
  EXPECT_FALSE(env->exists(firstFolder));
  EXPECT_TRUE(env->exists(secondFolder + "/" + insert));
}

}  // namespace
}  // namespace quillon
