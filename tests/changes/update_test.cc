// Applying another computer's change files: two stores with separate caches
// and machine names on one package, updates run explicitly, time on a manual
// clock.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "changes/two_computers.h"
#include "quillon/base/env.h"
#include "quillon/platform/main_queue.h"
#include "support/manual_clock.h"
#include "support/store_stack.h"
#include "support/temp_dir.h"

namespace quillon {
namespace {

using testing::ExternalChanges;
using testing::fetchNotes;
using testing::insertNote;
using testing::logContains;
using testing::loggedChangeNames;
using Strings = std::vector<std::string>;

class UpdateTest : public testing::TwoComputersTest {
 protected:
  UpdateTest() : TwoComputersTest("quillon-update") {}
  // Opens computer A and computer B; B's context takes part in updates and
  // `seen` records what it is told.
  void openBoth() {
    a = open("A");
    b = open("B");
    fetchNotes(*b);
    seen = std::make_unique<ExternalChanges>(b->context.get());
  }
  // Lets B's ten-second retry of a held-back update run.
  void retry() {
    clock.advance(10.0);
    ASSERT_TRUE(b->waitUntilReady());
    MainQueue::drain();
  }
  std::string recordPath(const std::string& uid, const std::string& change) {
    return package + "/Entities/Note/" + uid + "/" + change;
  }

  testing::ManualClock clock;
};

// Inserts, updates and deletes arriving through folder events: e2e/two_stores_test.
TEST_F(UpdateTest, AnUpdateAppliesOnlyWhatIsNewAndAnnouncesItOnce) {
  openBoth();
  ManagedObjectPtr note = insertNote(*a, "first");
  ASSERT_TRUE(a->saveAndWait());
  update(*b);
  EXPECT_EQ(seen->order(), "WPD");
  EXPECT_EQ(seen->uids("inserted"), Strings{storeUID(*note)});
  EXPECT_EQ(loggedChangeNames(*b->store), loggedChangeNames(*a->store));
  EXPECT_EQ(b->store->checkSum(), a->store->checkSum());

  update(*b);  // the folder lists exactly the change log
  EXPECT_EQ(seen->count(), 1);
  EXPECT_TRUE(logContains(*b->store, "No new changes to apply"));
}

TEST_F(UpdateTest, AnObjectInsertedAndDeletedInOnePassIsOnlyDeleted) {
  openBoth();
  ManagedObjectPtr note = insertNote(*a, "short-lived");
  ASSERT_TRUE(a->saveAndWait());
  const std::string uid = storeUID(*note);
  a->context->deleteObject(note);
  ASSERT_TRUE(a->saveAndWait());
  update(*b);
  EXPECT_EQ(seen->uids("deleted"), Strings{uid});
  EXPECT_EQ(seen->uids("inserted"), Strings{});
}

TEST_F(UpdateTest, AChangeWhoseRecordsHaveNotArrivedIsHeldBackAndRetried) {
  openBoth();
  ManagedObjectPtr note = insertNote(*a, "late");
  ASSERT_TRUE(a->saveAndWait());
  const std::string uid = storeUID(*note);
  const std::string change = loggedChangeNames(*a->store).back();
  ASSERT_FALSE(Env::Default()->moveItem(recordPath(uid, change), dir.file("away")));

  update(*b);
  EXPECT_TRUE(logContains(*b->store, "Missing files: Abort and trying again in some seconds"));
  EXPECT_EQ(seen->count(), 0);
  EXPECT_TRUE(loggedChangeNames(*b->store).empty());

  // The record arrives; the retry ten seconds later applies the change.
  ASSERT_FALSE(Env::Default()->moveItem(dir.file("away"), recordPath(uid, change)));
  retry();
  EXPECT_EQ(seen->uids("inserted"), Strings{uid});
  EXPECT_EQ(loggedChangeNames(*b->store), Strings{change});
}

TEST_F(UpdateTest, ALateDataFileIsWaitedForAndFoundUnderASuffixedName) {
  openBoth();
  ManagedObjectPtr note = insertNote(*a, "with data");
  note->setValue("data", Value::data(std::string_view("attachment bytes")));
  ASSERT_TRUE(a->saveAndWait());
  const std::string folder = package + "/Entities/Note/" + storeUID(*note) + "/Data";
  std::vector<std::string> files;
  ASSERT_FALSE(Env::Default()->listDirectory(folder, &files));
  ASSERT_EQ(files.size(), 1u);
  ASSERT_FALSE(Env::Default()->moveItem(folder + "/" + files[0], dir.file("away")));

  update(*b);
  EXPECT_TRUE(logContains(*b->store, "Missing files: Abort and trying again in some seconds"));
  EXPECT_EQ(seen->count(), 0);

  // The synchronisation service delivers it as a conflict copy.
  ASSERT_FALSE(Env::Default()->moveItem(dir.file("away"), folder + "/" + files[0] + " (2)"));
  retry();
  EXPECT_EQ(seen->uids("inserted"), Strings{storeUID(*note)});
}

TEST_F(UpdateTest, RecoveryModeAppliesAnIncompleteChangeAndLogsTheProblem) {
  openBoth();
  b->store->setRecover(true);
  ManagedObjectPtr note = insertNote(*a, "damaged");
  ASSERT_TRUE(a->saveAndWait());
  const std::string change = loggedChangeNames(*a->store).back();
  ASSERT_FALSE(Env::Default()->removeItem(recordPath(storeUID(*note), change)));

  update(*b);
  EXPECT_EQ(loggedChangeNames(*b->store), Strings{change});
  EXPECT_EQ(seen->uids("inserted"), Strings{storeUID(*note)});
  EXPECT_TRUE(logContains(*b->store, "Failed validation"));
  EXPECT_FALSE(logContains(*b->store, "Missing files: Abort"));
}

TEST_F(UpdateTest, ConflictCopiesAndTemporaryFilesAreNotPartOfTheHistory) {
  openBoth();
  insertNote(*a, "one");
  ASSERT_TRUE(a->saveAndWait());
  Strings names = loggedChangeNames(*a->store);
  ASSERT_EQ(names.size(), 1u);
  // What sync services leave beside a change file: a conflict copy (here a
  // damaged one), their temporary files, and a leftover of ours.
  const std::string stem = names[0].substr(0, names[0].size() - 5);
  const std::string copy = stem + ".sync-conflict-20261123-084814-DXILLWC.json";
  dir.write("Doc.quillon/Changes/" + copy, "{\"name\": \"not this\"}");
  dir.write("Doc.quillon/Changes/.syncthing." + names[0] + ".tmp", "{\"na");
  dir.write("Doc.quillon/Changes/" + stem + " (1).json", "");
  dir.write("Doc.quillon/Changes/.~quillon-" + names[0], "{");
  update(*b);
  insertNote(*a, "two");
  ASSERT_TRUE(a->saveAndWait());
  update(*b);

  EXPECT_EQ(fetchNotes(*b).size(), 2u);
  EXPECT_EQ(loggedChangeNames(*b->store), loggedChangeNames(*a->store));
  EXPECT_FALSE(logContains(*b->store, "Incomplete change file"));
  EXPECT_FALSE(logContains(*b->store, "Refused change file"));
  // Each copy is worth one warning, however many updates see it.
  Value entries = b->store->logEntries();
  size_t warnings = 0;
  for (const Value& entry : entries.elements()) {
    if (entry.get("message").str().find("Ignored a conflict copy") != std::string::npos) ++warnings;
  }
  EXPECT_EQ(warnings, 2u);
  EXPECT_EQ(b->store->checkSum(), a->store->checkSum());
  EXPECT_EQ(b->store->changesInfo(), "2 in Cache / 2 on Disk");
}

TEST_F(UpdateTest, AChangeThatArrivesInTheMiddleCutsTheLogAndReappliesTheRest) {
  a = open("A");
  b = open("B");
  insertNote(*a, "one");
  ASSERT_TRUE(a->saveAndWait());
  insertNote(*a, "two");
  ASSERT_TRUE(a->saveAndWait());
  update(*b);
  Strings names = loggedChangeNames(*b->store);
  ASSERT_EQ(names.size(), 2u);

  // An older save of a third computer: sorts after the first, before the second.
  std::string middle = names[0].substr(0, 24) + "FFFFFFFF-FFFF-FFFF-FFFF-FFFFFFFFFFFF.json";
  dir.write("Doc.quillon/Changes/" + middle,
            "{\"name\": \"" + middle + "\", \"type\": \"recovery\"}");
  update(*b);
  EXPECT_EQ(loggedChangeNames(*b->store), (Strings{names[0], middle, names[1]}));
  EXPECT_EQ(fetchNotes(*b).size(), 2u);

  // Older than anything B applied: B's cache starts over, and says so.
  auto resets = [&] {
    size_t n = 0;
    for (const Value& entry : b->store->logEntries().elements()) {
      n += entry.get("message") == Value("Reset Log") ? 1 : 0;
    }
    return n;
  };
  const size_t resetsBefore = resets();
  std::string first = "2001-01-01-00-00-00.000.FFFFFFFF-FFFF-FFFF-FFFF-FFFFFFFFFFFF.json";
  dir.write("Doc.quillon/Changes/" + first,
            "{\"name\": \"" + first + "\", \"type\": \"recovery\"}");
  update(*b);
  EXPECT_EQ(resets(), resetsBefore + 1);
  EXPECT_EQ(loggedChangeNames(*b->store), (Strings{first, names[0], middle, names[1]}));
  EXPECT_EQ(fetchNotes(*b).size(), 2u);
}

TEST_F(UpdateTest, ReadinessIsNamedByItsStore) {
  // Two documents open in one process: each hears only its own update end.
  a = open("A");
  auto other = std::make_unique<StoreStack>(dir.file("Other.quillon"), Value(), "A");
  ASSERT_TRUE(other->waitUntilReady());
  MainQueue::drain();
  const int before = other->readyCount();
  update(*a);
  MainQueue::drain();
  EXPECT_EQ(other->readyCount(), before);
  update(*other);
  EXPECT_EQ(other->readyCount(), before + 1);
}

TEST_F(UpdateTest, UpToChangeStopsAtTheNamedChange) {
  a = open("A");
  for (const char* title : {"one", "two", "three", "four"}) {
    insertNote(*a, title);
    ASSERT_TRUE(a->saveAndWait());
  }
  Strings names = loggedChangeNames(*a->store);
  ASSERT_EQ(names.size(), 4u);
  b = open("B", Value::dictionary(
                    {{kQuillonUpToChange, Value::dictionary({{"name", Value(names[2])}})}}));
  EXPECT_EQ(loggedChangeNames(*b->store), (Strings{names[0], names[1], names[2]}));
  EXPECT_EQ(b->store->changesFileCount(), 4u);
  EXPECT_EQ(fetchNotes(*b).size(), 3u);
}

TEST_F(UpdateTest, AnUpdateRequestedWhileOneRunsIsDeferredTenSeconds) {
  a = open("A");
  b = open("B");
  insertNote(*a, "one");
  ASSERT_TRUE(a->saveAndWait());
  b->store->updateChanges();
  b->store->updateChanges();
  ASSERT_TRUE(b->waitUntilReady());
  MainQueue::drain();
  EXPECT_TRUE(logContains(*b->store, "Update in progress: Abort and trying again in some seconds"));
  EXPECT_FALSE(b->store->updating());

  clock.advance(9.5);
  EXPECT_FALSE(b->waitUntilReady(0.3));
  clock.advance(1.0);
  EXPECT_TRUE(b->waitUntilReady());
}

}  // namespace
}  // namespace quillon
