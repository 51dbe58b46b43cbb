#include "quillon/graph/managed_object_context.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "quillon/base/notification_center.h"
#include "quillon/graph/persistent_store_coordinator.h"
#include "quillon/graph/undo_manager.h"
#include "quillon/graph/validation_error.h"
#include "quillon/platform/main_queue.h"
#include "support/graph_stack.h"

namespace quillon {
namespace {

Value obj(const ManagedObjectPtr& o) { return Value::object(o); }

std::shared_ptr<const Predicate> predicate(std::string_view format) {
  Error error;
  auto p = Predicate::parse(format, {}, &error);
  EXPECT_TRUE(p) << error.description();
  return p;
}

std::vector<std::string> titles(const std::vector<ManagedObjectPtr>& objects) {
  std::vector<std::string> out;
  for (const auto& o : objects) out.emplace_back(o->value("title").str());
  return out;
}

// Records the notifications a context posts.
class Recorder {
 public:
  Recorder(std::string_view name, const void* object)
      : observer_(NotificationCenter::defaultCenter(), name, object,
                  [this](const Notification& n) { posted.push_back(n.userInfo); }) {}
  std::vector<Value> posted;

 private:
  ScopedObserver observer_;
};

class ContextTest : public ::testing::Test {
 protected:
  ManagedObjectPtr note(std::string_view title, int priority = 1) {
    auto n = context()->insertNewObjectForEntityForName("Note");
    EXPECT_TRUE(n->setValue("title", title));
    EXPECT_TRUE(n->setValue("priority", priority));
    return n;
  }
  void save() {
    Error error;
    ASSERT_TRUE(context()->save(&error)) << error.description();
  }
  ManagedObjectContext* context() { return stack_.context.get(); }

  GraphStack stack_;
};

TEST_F(ContextTest, SaveGivesPermanentIdentifiersAndHandsEverythingToTheStore) {
  auto folder = context()->insertNewObjectForEntityForName("Folder");
  ASSERT_TRUE(folder->setValue("name", "Inbox"));
  auto n = note("hello");
  ASSERT_TRUE(n->setValue("folder", obj(folder)));
  Recorder willSave(kManagedObjectContextWillSaveNotification, context());
  Recorder didSave(kManagedObjectContextDidSaveNotification, context());
  save();
  EXPECT_FALSE(n->objectID()->isTemporaryID());
  EXPECT_EQ(n->objectID()->persistentStore(), stack_.store);
  EXPECT_EQ(stack_.store->saveCalls, 1);
  EXPECT_EQ(stack_.store->lastInserted.size(), 2u);
  Value stored = stack_.store->storedValues(n->objectID());
  EXPECT_EQ(stored.get("title").str(), "hello");
  EXPECT_EQ(stored.get("folder").str(),
            "Folder/" + std::string(folder->objectID()->referenceObject().str()));
  EXPECT_EQ(willSave.posted.size(), 1u);
  ASSERT_EQ(didSave.posted.size(), 1u);
  EXPECT_EQ(didSave.posted[0].get("inserted").size(), 2u);
  EXPECT_TRUE(didSave.posted[0].get("inserted").contains(obj(n)));
  EXPECT_FALSE(context()->hasChanges());
  EXPECT_EQ(context()->objectWithID(n->objectID()), n);

  // A save without changes does not reach the store.
  save();
  EXPECT_EQ(stack_.store->saveCalls, 1);
  ASSERT_TRUE(n->setValue("title", "changed"));
  save();
  EXPECT_EQ(stack_.store->lastUpdated.size(), 1u);
  EXPECT_EQ(stack_.store->storedValues(n->objectID()).get("title").str(), "changed");
}

TEST_F(ContextTest, FailedSaveKeepsEveryChange) {
  auto n = note("kept");
  stack_.store->failNextSave(Error::withDescription("Disk", 28, "full"));
  Error error;
  EXPECT_FALSE(context()->save(&error));
  EXPECT_EQ(error.domain(), "Disk");
  EXPECT_TRUE(n->isInserted());
  EXPECT_TRUE(context()->hasChanges());
  save();
  EXPECT_EQ(stack_.store->objectCount(), 1u);
}

TEST(ContextFaultTest, FaultsFillLazilyFromTheStore) {
  GraphStack stack(Value::dictionary({{"lazyToMany", true}}));
  auto folderID = stack.store->addStoredObject("Folder", Value::dictionary({{"name", "F"}}));
  std::string folderRef = "Folder/" + std::string(folderID->referenceObject().str());
  auto noteID = stack.store->addStoredObject(
      "Note", Value::dictionary({{"title", "stored"}, {"folder", folderRef}}));
  stack.store->setStoredValue(
      folderID, "notes", Value::array({"Note/" + std::string(noteID->referenceObject().str())}));

  FetchRequest request("Note");
  auto notes = stack.context->fetchObjects(request);
  ASSERT_EQ(notes.size(), 1u);
  EXPECT_TRUE(notes[0]->isFault());
  EXPECT_EQ(stack.store->valuesCalls, 0);
  EXPECT_EQ(notes[0]->value("title").str(), "stored");
  EXPECT_FALSE(notes[0]->isFault());
  EXPECT_EQ(stack.store->valuesCalls, 1);
  EXPECT_EQ(notes[0]->value("title").str(), "stored");
  EXPECT_EQ(stack.store->valuesCalls, 1);

  // The related folder is a fault of its own until it is read.
  auto folder = managedObjectFromValue(notes[0]->value("folder"));
  ASSERT_TRUE(folder);
  EXPECT_TRUE(folder->isFault());
  EXPECT_EQ(stack.store->valuesCalls, 1);
  EXPECT_EQ(folder->objectID()->uriString(), folderID->uriString());
  EXPECT_EQ(stack.store->relationshipCalls, 0);
  Value members = folder->value("notes");
  EXPECT_EQ(stack.store->valuesCalls, 2);
  EXPECT_EQ(stack.store->relationshipCalls, 1);
  ASSERT_EQ(members.size(), 1u);
  EXPECT_EQ(managedObjectFromValue(members[0]), notes[0]);
  folder->value("notes");
  EXPECT_EQ(stack.store->relationshipCalls, 1);
}

TEST_F(ContextTest, ExistingObjectWithIDReportsMissingObjects) {
  auto id = stack_.store->addStoredObject("Tag", Value::dictionary({{"name", "t"}}));
  Error error;
  auto tag = context()->existingObjectWithID(id, &error);
  ASSERT_TRUE(tag);
  EXPECT_FALSE(tag->isFault());
  auto missing = stack_.store->newObjectIDForEntity(id->entity(), Value::string("nope"));
  EXPECT_EQ(context()->existingObjectWithID(missing, &error), nullptr);
  EXPECT_EQ(error.code(), kManagedObjectReferentialIntegrityError);
  EXPECT_EQ(context()->objectRegisteredForID(missing), nullptr);
}

TEST_F(ContextTest, DeleteRulesCascadeNullifyDenyAndForgetUnsavedObjects) {
  auto folder = context()->insertNewObjectForEntityForName("Folder");
  ASSERT_TRUE(folder->setValue("name", "F"));
  auto a = note("a"), b = note("b");
  auto tag = context()->insertNewObjectForEntityForName("Tag");
  ASSERT_TRUE(folder->setValue("notes", Value::set({obj(a), obj(b)})));
  ASSERT_TRUE(a->addObject("tags", tag));
  save();

  // Nullify: the tag forgets the deleted note.
  context()->deleteObject(a);
  EXPECT_TRUE(a->isDeleted());
  EXPECT_TRUE(tag->value("notes").empty());
  EXPECT_FALSE(folder->value("notes").contains(obj(a)));
  save();
  EXPECT_EQ(a->managedObjectContext(), nullptr);
  EXPECT_EQ(stack_.store->lastDeleted.size(), 1u);

  // Cascade: deleting the folder deletes its notes.
  context()->deleteObject(folder);
  EXPECT_TRUE(b->isDeleted());
  save();
  EXPECT_EQ(stack_.store->lastDeleted.size(), 2u);
  EXPECT_EQ(stack_.store->objectCount(), 1u);  // only the tag is left

  // Deny: a person with pets cannot be deleted.
  auto person = context()->insertNewObjectForEntityForName("Person");
  for (int i = 0; i < 2; ++i) {
    auto pet = context()->insertNewObjectForEntityForName("Pet");
    ASSERT_TRUE(pet->setValue("owner", obj(person)));
  }
  save();
  context()->deleteObject(person);
  Error error;
  EXPECT_FALSE(context()->save(&error));
  std::vector<Error> details = detailedErrors(error);
  ASSERT_FALSE(details.empty());
  bool denied = false;
  for (const auto& e : details) {
    if (e.code() == kValidationRelationshipDeniedDeleteError) {
      denied = true;
      EXPECT_EQ(e.userInfo().get(kValidationKeyErrorKey).str(), "pets");
    }
  }
  EXPECT_TRUE(denied) << error.description();
  EXPECT_EQ(stack_.store->objectCount(), 4u);
  context()->rollback();
  EXPECT_FALSE(person->isDeleted());
  EXPECT_EQ(person->value("pets").size(), 2u);

  // Deleting an object never saved just forgets it.
  const int saves = stack_.store->saveCalls;
  auto n = note("temp");
  context()->deleteObject(n);
  EXPECT_TRUE(context()->insertedObjects().empty());
  EXPECT_TRUE(context()->deletedObjects().empty());
  save();
  EXPECT_EQ(stack_.store->saveCalls, saves);
}

TEST_F(ContextTest, RefreshWithMergeKeepsLocalEdits) {
  auto n = note("original");
  ASSERT_TRUE(n->setValue("body", "old body"));
  save();
  ASSERT_TRUE(n->setValue("title", "local"));
  // Another writer changes the stored object.
  stack_.store->setStoredValue(n->objectID(), "title", "remote");
  stack_.store->setStoredValue(n->objectID(), "body", "remote body");
  Recorder changes(kManagedObjectContextObjectsDidChangeNotification, context());
  context()->processPendingChanges();
  changes.posted.clear();

  context()->refreshObject(n, true);
  EXPECT_EQ(n->value("title").str(), "local");
  EXPECT_EQ(n->value("body").str(), "remote body");
  EXPECT_EQ(n->committedValuesForKeys({"title"}).get("title").str(), "remote");
  EXPECT_TRUE(n->isUpdated());
  context()->processPendingChanges();
  ASSERT_EQ(changes.posted.size(), 1u);
  EXPECT_TRUE(changes.posted[0].get("refreshed").contains(obj(n)));

  // Without merging, local edits go and the object fills again on next use.
  context()->refreshObject(n, false);
  EXPECT_TRUE(n->isFault());
  EXPECT_FALSE(n->isUpdated());
  EXPECT_EQ(n->value("title").str(), "remote");
}

TEST_F(ContextTest, ObjectsDidChangeNotificationListsTheChanges) {
  auto kept = note("kept");
  auto gone = note("gone");
  save();
  Recorder changes(kManagedObjectContextObjectsDidChangeNotification, context());
  auto added = note("added");
  ASSERT_TRUE(kept->setValue("title", "edited"));
  context()->deleteObject(gone);
  context()->processPendingChanges();
  ASSERT_EQ(changes.posted.size(), 1u);
  const Value& info = changes.posted[0];
  EXPECT_TRUE(info.get("inserted").contains(obj(added)));
  EXPECT_TRUE(info.get("updated").contains(obj(kept)));
  EXPECT_TRUE(info.get("deleted").contains(obj(gone)));
  EXPECT_EQ(info.get("updated").size(), 1u);
  context()->processPendingChanges();
  EXPECT_EQ(changes.posted.size(), 1u);  // nothing new, nothing posted
}

TEST_F(ContextTest, FetchIncludesPendingChanges) {
  note("b", 5);
  auto low = note("c", 5);
  auto gone = note("d", 5);
  save();
  note("a", 9);                               // unsaved insert that matches
  note("z", 0);                               // unsaved insert that does not
  ASSERT_TRUE(low->setValue("priority", 0));  // no longer matches
  context()->deleteObject(gone);
  FetchRequest request("Note");
  request.setPredicate(predicate("priority > 3"));
  request.setSortDescriptors({SortDescriptor("title")});
  EXPECT_EQ(titles(context()->fetchObjects(request)), (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(context()->countForFetchRequest(request), 2);
  request.setIncludesPendingChanges(false);
  EXPECT_EQ(titles(context()->fetchObjects(request)), (std::vector<std::string>{"b", "c", "d"}));

  // Sub-entities: the abstract Item finds its books and albums.
  context()->insertNewObjectForEntityForName("Book");
  context()->insertNewObjectForEntityForName("Album");
  EXPECT_EQ(context()->countForFetchRequest(FetchRequest("Item")), 2);
  FetchRequest exact("Item");
  exact.setIncludesSubentities(false);
  EXPECT_EQ(context()->countForFetchRequest(exact), 0);
  save();
  EXPECT_EQ(context()->countForFetchRequest(FetchRequest("Item")), 2);
  EXPECT_EQ(context()->countForFetchRequest(FetchRequest("Book")), 1);

  // Identifiers as results, and the store's refusal passed on.
  request.setResultType(FetchRequestResultType::ManagedObjectID);
  auto ids = context()->executeFetchRequest(request);
  ASSERT_EQ(ids.size(), 2u);  // "a" and "b", both saved now
  EXPECT_TRUE(objectIDFromValue(ids[0]));
  Error error;
  EXPECT_TRUE(context()->executeFetchRequest(FetchRequest("Nothing"), &error).empty());
  EXPECT_TRUE(error);
  EXPECT_EQ(context()->countForFetchRequest(FetchRequest("Nothing")), -1);
}

TEST_F(ContextTest, URIsResolveBackToObjects) {
  auto n = note("uri");
  std::string temporary = n->objectID()->uriString();
  EXPECT_EQ(temporary.rfind("x-quillon:///Note/t", 0), 0u) << temporary;
  save();
  Url uri = n->objectID()->uriRepresentation();
  EXPECT_EQ(uri.absoluteString(), "x-quillon://" + stack_.store->identifier() + "/Note/p" +
                                      std::string(n->objectID()->referenceObject().str()));
  ManagedObjectIDPtr resolved = stack_.coordinator->managedObjectIDForURIRepresentation(uri);
  ASSERT_TRUE(resolved);
  EXPECT_TRUE(resolved->isEqual(*n->objectID()));
  EXPECT_EQ(resolved->hash(), n->objectID()->hash());
  EXPECT_NE(resolved.get(), n->objectID().get());
  EXPECT_EQ(context()->objectWithID(resolved), n);
  // A second context gets its own object for the same identity.
  auto other = stack_.newContext();
  EXPECT_EQ(other->objectWithID(resolved)->value("title").str(), "uri");

  for (const char* bad : {"x-quillon://h/Nothing/p1", "x-quillon://h/Note/q1",
                          "x-quillon://h/Note/p", "https://h/Note/p1", "x-quillon://h/p1"}) {
    EXPECT_EQ(stack_.coordinator->managedObjectIDForURIRepresentation(*Url::parse(bad)), nullptr)
        << bad;
  }
}

TEST_F(ContextTest, RollbackAndResetThrowChangesAway) {
  auto n = note("saved");
  save();
  ASSERT_TRUE(n->setValue("title", "edited"));
  auto added = note("new");
  context()->rollback();
  EXPECT_EQ(n->value("title").str(), "saved");
  EXPECT_FALSE(context()->hasChanges());
  EXPECT_EQ(added->managedObjectContext(), nullptr);
  EXPECT_EQ(context()->countForFetchRequest(FetchRequest("Note")), 1);

  context()->reset();
  EXPECT_TRUE(context()->registeredObjects().empty());
  EXPECT_EQ(n->managedObjectContext(), nullptr);
  auto again = context()->fetchObjects(FetchRequest("Note"));
  ASSERT_EQ(again.size(), 1u);
  EXPECT_NE(again[0], n);
  EXPECT_EQ(again[0]->value("title").str(), "saved");
}

TEST_F(ContextTest, ChildContextSavesIntoItsParent) {
  auto existing = note("existing");
  save();
  auto child = ManagedObjectContext::create(ConcurrencyType::PrivateQueue);
  child->setParentContext(stack_.context);
  int savesBefore = stack_.store->saveCalls;
  ManagedObjectIDPtr insertedID;
  child->performAndWait([&] {
    auto mine = child->objectWithID(existing->objectID());
    EXPECT_EQ(mine->value("title").str(), "existing");
    ASSERT_TRUE(mine->setValue("title", "from child"));
    auto folder = child->insertNewObjectForEntityForName("Folder");
    ASSERT_TRUE(folder->setValue("name", "child folder"));
    ASSERT_TRUE(mine->setValue("folder", obj(folder)));
    insertedID = folder->objectID();
    // The child sees its own insert in fetches.
    EXPECT_EQ(child->countForFetchRequest(FetchRequest("Folder")), 1);
    Error error;
    EXPECT_TRUE(child->save(&error)) << error.description();
    EXPECT_FALSE(child->hasChanges());
  });
  EXPECT_EQ(stack_.store->saveCalls, savesBefore);  // nothing written yet
  EXPECT_EQ(existing->value("title").str(), "from child");
  auto folder = context()->objectRegisteredForID(insertedID);
  ASSERT_TRUE(folder);
  EXPECT_TRUE(folder->isInserted());
  EXPECT_EQ(managedObjectFromValue(existing->value("folder")), folder);
  EXPECT_TRUE(folder->value("notes").contains(obj(existing)));
  save();
  EXPECT_EQ(stack_.store->saveCalls, savesBefore + 1);
  EXPECT_EQ(context()->countForFetchRequest(FetchRequest("Folder")), 1);
  child.reset();
}

TEST_F(ContextTest, PrivateAndMainQueueContextsRunBlocksWhereTheyBelong) {
  auto privateContext = stack_.newContext(ConcurrencyType::PrivateQueue);
  std::thread::id caller = std::this_thread::get_id();
  std::atomic<int> step{0};
  std::thread::id asyncThread;
  privateContext->perform([&] {
    asyncThread = std::this_thread::get_id();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    step = 1;
  });
  // A waiting block runs after the blocks queued before it, never beside them.
  privateContext->performAndWait([&] {
    EXPECT_EQ(step.load(), 1);
    step = 2;
    auto n = privateContext->insertNewObjectForEntityForName("Note");
    n->setValue("title", "private");
    EXPECT_TRUE(privateContext->save());
    privateContext->performAndWait([&] { step = 3; });  // nested: runs at once
  });
  EXPECT_EQ(step.load(), 3);
  EXPECT_NE(asyncThread, caller);
  EXPECT_EQ(context()->countForFetchRequest(FetchRequest("Note")), 1);

  // A main-queue context runs other threads' blocks on the main loop.
  std::thread::id mainThread = std::this_thread::get_id(), ran;
  std::atomic<bool> done{false};
  std::thread worker([&] {
    context()->performAndWait([&] {
      ran = std::this_thread::get_id();
      note("from worker");
    });
    done = true;
  });
  EXPECT_TRUE(MainQueue::runUntil([&] { return done.load(); }, 10.0));
  worker.join();
  EXPECT_EQ(ran, mainThread);
  EXPECT_EQ(context()->insertedObjects().size(), 1u);
}

TEST_F(ContextTest, StoresAreAddedByTypeAndToldWhenRemoved) {
  Error error;
  EXPECT_EQ(stack_.coordinator->addPersistentStore("NoSuchType", Url(), Value(), &error), nullptr);
  EXPECT_EQ(error.code(), kPersistentStoreInvalidTypeError);
  EXPECT_EQ(stack_.coordinator->addPersistentStore(InMemoryStore::kType, Url(),
                                                   Value::dictionary({{"failLoad", true}}), &error),
            nullptr);
  EXPECT_EQ(error.localizedDescription(), "refused to load");
  EXPECT_EQ(stack_.store->type(), InMemoryStore::kType);
  EXPECT_EQ(stack_.store->metadata().get("NSStoreType").str(), InMemoryStore::kType);
  EXPECT_TRUE(stack_.store->metadata().get("Test").boolValue());
  EXPECT_EQ(stack_.coordinator->persistentStoreForURL(*Url::parse("memory:/test")), stack_.store);
  ASSERT_TRUE(stack_.coordinator->removePersistentStore(stack_.store, &error));
  EXPECT_EQ(stack_.store->removeCalls, 1);
  EXPECT_EQ(stack_.store->persistentStoreCoordinator(), nullptr);
  EXPECT_FALSE(stack_.coordinator->removePersistentStore(stack_.store, &error));
  note("orphan");
  EXPECT_FALSE(context()->save(&error));
}

TEST_F(ContextTest, UndoAndRedoInsertsChangesAndDeletes) {
  auto folder = context()->insertNewObjectForEntityForName("Folder");
  folder->setValue("name", "F");
  auto n = note("first");
  n->setValue("folder", obj(folder));
  save();
  auto undo = std::make_shared<UndoManager>();
  undo->setGroupsByEvent(false);
  context()->setUndoManager(undo);

  undo->beginUndoGrouping();
  ASSERT_TRUE(n->setValue("title", "second"));
  undo->endUndoGrouping();
  context()->undo();
  EXPECT_EQ(n->value("title").str(), "first");
  context()->redo();
  EXPECT_EQ(n->value("title").str(), "second");

  undo->beginUndoGrouping();
  auto added = note("added");
  ASSERT_TRUE(added->setValue("folder", obj(folder)));
  undo->endUndoGrouping();
  EXPECT_EQ(folder->value("notes").size(), 2u);
  context()->undo();
  EXPECT_FALSE(added->isInserted());
  EXPECT_EQ(folder->value("notes").size(), 1u);
  EXPECT_EQ(context()->countForFetchRequest(FetchRequest("Note")), 1);
  context()->redo();
  EXPECT_TRUE(added->isInserted());
  EXPECT_TRUE(folder->value("notes").contains(obj(added)));
  EXPECT_EQ(context()->countForFetchRequest(FetchRequest("Note")), 2);

  undo->beginUndoGrouping();
  context()->deleteObject(n);
  undo->endUndoGrouping();
  EXPECT_FALSE(folder->value("notes").contains(obj(n)));
  context()->undo();
  EXPECT_FALSE(n->isDeleted());
  EXPECT_TRUE(folder->value("notes").contains(obj(n)));
  EXPECT_EQ(managedObjectFromValue(n->value("folder")), folder);
  context()->redo();
  EXPECT_TRUE(n->isDeleted());
  EXPECT_FALSE(folder->value("notes").contains(obj(n)));
  save();
  EXPECT_EQ(context()->countForFetchRequest(FetchRequest("Note")), 1);

  // Without an undo manager nothing is recorded.
  undo->removeAllActions();
  context()->setUndoManager(nullptr);
  ASSERT_TRUE(folder->setValue("name", "quiet"));
  EXPECT_FALSE(undo->canUndo());
}

}  // namespace
}  // namespace quillon
