#include "quillon/store/managed_object_context.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

#include "quillon/base/env.h"
#include "quillon/base/internal/operation_queue.h"
#include "quillon/graph/managed_object.h"
#include "quillon/graph/managed_object_model.h"
#include "quillon/store/persistent_store_coordinator.h"
#include "quillon/store/store.h"
#include "support/log_capture.h"
#include "support/sample_models.h"
#include "support/store_stack.h"
#include "support/temp_dir.h"

namespace quillon {
namespace {

class ContextTest : public ::testing::Test {
 protected:
  std::string path() const { return dir_.file("Doc.quillon"); }
  TempDir dir_{"quillon-context"};
};

TEST_F(ContextTest, BackgroundSaveAnswersTrueAndWritesNothing) {
  StoreStack stack(path());
  auto note = stack.context->insertNewObjectForEntityForName("Note");
  note->setValue("title", Value("unsaved"));
  bool saved = false;
  Error error;
  std::thread([&] { saved = stack.context->save(&error); }).join();
  EXPECT_TRUE(saved);
  EXPECT_FALSE(error);
  EXPECT_TRUE(note->isInserted());
  EXPECT_TRUE(stack.context->hasChanges());
  stack.store->saveOperationQueue().waitUntilAllOperationsAreFinished();
  EXPECT_FALSE(Env::Default()->exists(path() + "/Changes"));
  EXPECT_FALSE(Env::Default()->exists(path() + "/Entities"));
}

TEST_F(ContextTest, SaveWithoutAStoreIsRefused) {
  StoreStack stack(path());  // makes this thread the main thread
  auto coordinator = std::make_shared<QuillonPersistentStoreCoordinator>(notesModel());
  auto context = QuillonManagedObjectContext::create(ConcurrencyType::MainQueue);
  context->setPersistentStoreCoordinator(coordinator);
  context->insertNewObjectForEntityForName("Note")->setValue("title", Value("x"));

  testing::LogCapture log;
  EXPECT_FALSE(context->save());
  EXPECT_EQ(std::count(log.lines().begin(), log.lines().end(), "No file to save to yet"), 1);
  EXPECT_TRUE(context->hasChanges());
}

TEST_F(ContextTest, ObjectsByURIDropTheUnresolvableAndKeepOrder) {
  StoreStack stack(path());
  auto first = stack.context->insertNewObjectForEntityForName("Note");
  auto second = stack.context->insertNewObjectForEntityForName("Tag");
  ASSERT_TRUE(stack.context->obtainPermanentIDsForObjects({first, second}));
  std::string document = stack.store->identifier();

  Value uris = Value::array({
      Value::string(second->objectID()->uriString()),
      Value::string("x-quillon://" + document + "/Note/pNO-SUCH-OBJECT"),
      Value::url(first->objectID()->uriRepresentation()),
      Value::string("x-quillon://" + document + "/Unknown/p1"),
      Value::string("not a uri at all"),
      Value(7),
  });
  std::vector<ManagedObjectPtr> found = storeObjectsWithURIs(*stack.context, uris);
  ASSERT_EQ(found.size(), 2u);
  EXPECT_EQ(found[0], second);
  EXPECT_EQ(found[1], first);
  EXPECT_EQ(storeObjectWithURI(*stack.context, Value::string(first->objectID()->uriString())),
            first);
  EXPECT_TRUE(storeObjectsWithURIs(*stack.context, Value()).empty());
}

TEST_F(ContextTest, CoordinatorResolvesReferencePrefixes) {
  StoreStack stack(path());
  std::string base = "x-quillon://" + stack.store->identifier() + "/Note/";
  for (const char* reference : {"p12AB", "t12AB", "pt12AB", "P12AB", "PT12AB"}) {
    auto id = stack.coordinator->managedObjectIDForURIRepresentation(*Url::parse(base + reference));
    ASSERT_TRUE(id) << reference;
    EXPECT_EQ(storeUID(*id), "12AB") << reference;
    EXPECT_EQ(id->entity()->name(), "Note");
    EXPECT_FALSE(id->isTemporaryID());
  }
  // Only one of each prefix goes: "pp" keeps its second "p".
  auto twice = stack.coordinator->managedObjectIDForURIRepresentation(*Url::parse(base + "pp1"));
  ASSERT_TRUE(twice);
  EXPECT_EQ(twice->referenceObject(), Value("p1"));
  EXPECT_EQ(stack.coordinator->managedObjectIDForURIRepresentation(
                *Url::parse("x-quillon://" + stack.store->identifier() + "/Nope/p1")),
            nullptr);
}

}  // namespace
}  // namespace quillon
