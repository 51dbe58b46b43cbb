// Healing objects whose relations another computer's changes damaged: with
// two stores on one package for relations to deleted objects, and on the
// in-memory graph for making the two sides of relations agree.

#include "quillon/changes/internal/object_healing.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>

#include "changes/two_computers.h"
#include "quillon/graph/validation_error.h"
#include "quillon/platform/main_queue.h"
#include "support/graph_stack.h"
#include "support/log_capture.h"
#include "support/store_stack.h"
#include "support/temp_dir.h"

namespace quillon {
namespace {

using testing::fetchNotes;
using testing::insertNote;

bool contains(const std::vector<std::string>& lines, std::string_view text) {
  return std::find(lines.begin(), lines.end(), text) != lines.end();
}

class HealingAcrossComputersTest : public testing::TwoComputersTest {
 protected:
  HealingAcrossComputersTest() : TwoComputersTest("quillon-healing") {}
  // Each computer's context takes part in external updates.
  std::unique_ptr<StoreStack> open(const std::string& machine) {
    auto stack = TwoComputersTest::open(machine);
    fetchNotes(*stack);
    return stack;
  }
  ManagedObjectPtr insert(StoreStack& stack, std::string_view entity, std::string_view key,
                          std::string_view value) {
    ManagedObjectPtr object = stack.context->insertNewObjectForEntityForName(entity);
    object->setValue(key, Value(value));
    return object;
  }
  // The stack's own object for an object of another stack.
  static ManagedObjectPtr same(StoreStack& stack, const ManagedObjectPtr& object) {
    return stack.context->existingObjectWithID(
        stack.store->newObjectIDForEntity(object->entity(), Value(storeUID(*object))));
  }
};

TEST_F(HealingAcrossComputersTest, ANoteWhoseFolderWasDeletedElsewhereSavesWithoutIt) {
  a = open("A");
  b = open("B");
  ManagedObjectPtr folder = insert(*a, "Folder", "name", "Inbox");
  ManagedObjectPtr note = insertNote(*a, "note");
  ASSERT_TRUE(a->saveAndWait());
  update(*b);
  // A files the note while B, not knowing that yet, deletes the folder: the
  // note itself is untouched on B.
  note->setValue("folder", Value::object(folder));
  ASSERT_TRUE(a->saveAndWait());
  b->context->deleteObject(same(*b, folder));
  ASSERT_TRUE(b->saveAndWait());
  update(*a);
  update(*b);

  // The relation names an object that no longer exists: validation says so,
  // naming the object and the relation.
  Error error;
  EXPECT_FALSE(note->validateForUpdate(&error));
  EXPECT_EQ(error.domain(), kCocoaErrorDomain);
  EXPECT_EQ(error.code(), kManagedObjectValidationError);
  EXPECT_EQ(managedObjectFromValue(error.userInfo().get(kValidationObjectErrorKey)), note);
  EXPECT_EQ(error.userInfo().get(kValidationKeyErrorKey), Value("folder"));

  testing::LogCapture console;
  note->setValue("title", Value("edited"));
  ASSERT_TRUE(a->saveAndWait()) << "the save heals the note first";
  EXPECT_TRUE(contains(console.lines(), "Trying to heal updated Object"));
  EXPECT_TRUE(note->value("folder").isNil());
  EXPECT_EQ(a->store->waitForSaves(), Error());

  // The other computer gets the edit with the folder cleared.
  update(*b);
  ManagedObjectPtr onB = same(*b, note);
  ASSERT_TRUE(onB);
  EXPECT_EQ(onB->value("title"), Value("edited"));
  EXPECT_TRUE(onB->value("folder").isNil());
}

TEST_F(HealingAcrossComputersTest, AToManyRelationDropsMembersDeletedElsewhere) {
  a = open("A");
  b = open("B");
  ManagedObjectPtr tag = insert(*a, "Tag", "name", "red");
  ManagedObjectPtr tagged = insertNote(*a, "tagged");
  ManagedObjectPtr other = insertNote(*a, "other");
  ASSERT_TRUE(a->saveAndWait());
  update(*b);
  ASSERT_TRUE(tag->addObject("notes", other));
  ASSERT_TRUE(a->saveAndWait());
  update(*b);
  // A tags a note that B, not knowing that yet, deletes: on B the note has
  // no tags, so B's deletion leaves the tag alone.
  ASSERT_TRUE(tag->addObject("notes", tagged));
  ASSERT_TRUE(a->saveAndWait());
  b->context->deleteObject(same(*b, tagged));
  ASSERT_TRUE(b->saveAndWait());
  update(*a);

  EXPECT_EQ(tag->value("notes").size(), 2u);
  tag->setValue("name", Value("crimson"));
  ASSERT_TRUE(a->saveAndWait());
  Value notes = tag->value("notes");
  EXPECT_EQ(notes, Value::set({Value::object(other)}));
  update(*b);
  ManagedObjectPtr onB = same(*b, tag);
  ASSERT_TRUE(onB);
  EXPECT_EQ(onB->value("name"), Value("crimson"));
  EXPECT_EQ(onB->value("notes").size(), 1u);
}

class RelationRepairTest : public ::testing::Test {
 protected:
  ManagedObjectPtr insert(std::string_view entity) {
    return stack_.context->insertNewObjectForEntityForName(entity);
  }
  GraphStack stack_;
};

TEST_F(RelationRepairTest, OtherValidationFailuresAreLeftAlone) {
  ManagedObjectPtr note = insert("Note");  // no title, which is mandatory
  note->setValue("body", Value("kept"));
  const Value before = note->changedValues();
  testing::LogCapture console;
  EXPECT_FALSE(qlValidateForInsertAndFix(*note));
  EXPECT_TRUE(contains(console.lines(), "Trying to heal inserted Object"));
  EXPECT_EQ(note->changedValues(), before);

  // Several failures, one of them not a relation: not healed either.
  note->setValue("body", Value("far more than twenty characters"));
  EXPECT_FALSE(qlValidateForInsertAndFix(*note));
  note->setValue("title", Value("titled"));
  note->setValue("body", Value("short"));
  EXPECT_TRUE(qlValidateForInsertAndFix(*note));
  EXPECT_TRUE(qlValidateForUpdateAndFix(*note));
}

TEST_F(RelationRepairTest, RecoveryHealsOnlyRelationErrorsOfItsCode) {
  ManagedObjectPtr tag = insert("Tag");
  ManagedObjectPtr note = insert("Note");
  note->setValue("title", Value("n"));
  // A relation error of another code names a relation too but is not ours.
  Value info = Value::dictionary({{std::string(kValidationObjectErrorKey), Value::object(note)},
                                  {std::string(kValidationKeyErrorKey), Value("folder")}});
  EXPECT_FALSE(qlAttemptRecoveryFromPossibleCascadeDeleteRuleFailureError(
      Error(std::string(kCocoaErrorDomain), kValidationMissingMandatoryPropertyError, info)));
  EXPECT_FALSE(qlAttemptRecoveryFromPossibleCascadeDeleteRuleFailureError(
      Error("OtherDomain", kManagedObjectValidationError, info)));
  Value attribute =
      Value::dictionary({{std::string(kValidationObjectErrorKey), Value::object(note)},
                         {std::string(kValidationKeyErrorKey), Value("title")}});
  EXPECT_FALSE(qlAttemptRecoveryFromPossibleCascadeDeleteRuleFailureError(
      Error(std::string(kCocoaErrorDomain), kManagedObjectValidationError, attribute)));
  EXPECT_EQ(note->value("title"), Value("n"));

  // A member deleted in this context: the 1550 error of the graph heals.
  ManagedObjectPtr gone = insert("Note");
  gone->setValue("title", Value("gone"));
  ASSERT_TRUE(
      tag->setPrimitiveValue("notes", Value::set({Value::object(note), Value::object(gone)})));
  stack_.context->deleteObject(gone);
  ASSERT_TRUE(
      tag->setPrimitiveValue("notes", Value::set({Value::object(note), Value::object(gone)})));
  Error error;
  ASSERT_FALSE(tag->validateForInsert(&error));
  ASSERT_EQ(error.code(), kManagedObjectValidationError);
  EXPECT_TRUE(qlValidateForInsertAndFix(*tag));
  EXPECT_EQ(tag->value("notes"), Value::set({Value::object(note)}));
}

TEST_F(RelationRepairTest, FixRelationsMakesBothSidesAgreeButLeavesOrderedRelations) {
  ManagedObjectPtr note = insert("Note");
  ManagedObjectPtr tag = insert("Tag");
  ManagedObjectPtr folder = insert("Folder");
  // Sides that disagree, written past the graph's inverse maintenance.
  ASSERT_TRUE(note->setPrimitiveValue("tags", Value::orderedSet({Value::object(tag)})));
  ASSERT_TRUE(note->setPrimitiveValue("folder", Value::object(folder)));
  testing::LogCapture console;
  qlFixRelations(*note);
  EXPECT_EQ(note->value("tags"), Value::orderedSet({Value::object(tag)}))
      << "ordered relations are never changed";
  EXPECT_TRUE(note->value("folder").isNil()) << "the folder does not list the note";
  EXPECT_TRUE(contains(console.lines(), "Dead Relation in Note->folder"));

  // An unordered to-many relation keeps only members that point back; an
  // ordered inverse always counts as pointing back.
  ManagedObjectPtr filed = insert("Note");
  ManagedObjectPtr stray = insert("Note");
  ASSERT_TRUE(filed->setPrimitiveValue("folder", Value::object(folder)));
  ASSERT_TRUE(
      folder->setPrimitiveValue("notes", Value::set({Value::object(filed), Value::object(stray)})));
  qlFixRelations(*folder);
  EXPECT_EQ(folder->value("notes"), Value::set({Value::object(filed)}));
  EXPECT_TRUE(contains(console.lines(), "Dead Relation in Folder->notes"));
  EXPECT_TRUE(folder->isInserted());
  ASSERT_TRUE(tag->setPrimitiveValue("notes", Value::set({Value::object(filed)})));
  qlFixRelations(*tag);
  EXPECT_EQ(tag->value("notes"), Value::set({Value::object(filed)}));

  // A one-to-one pair whose back reference is missing is completed.
  ManagedObjectPtr anna = insert("Person");
  ManagedObjectPtr ben = insert("Person");
  ASSERT_TRUE(anna->setPrimitiveValue("spouse", Value::object(ben)));
  qlFixRelations(*anna);
  EXPECT_EQ(managedObjectFromValue(ben->value("spouse")), anna);
  EXPECT_EQ(managedObjectFromValue(anna->value("spouse")), ben);
}

}  // namespace
}  // namespace quillon
