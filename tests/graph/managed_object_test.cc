#include "quillon/graph/managed_object.h"

#include <gtest/gtest.h>

#include "quillon/graph/predicate.h"
#include "quillon/graph/validation_error.h"
#include "support/graph_stack.h"

namespace quillon {
namespace {

class ManagedObjectTest : public ::testing::Test {
 protected:
  ManagedObjectPtr insert(std::string_view entity) {
    Error error;
    auto object = stack_.context->insertNewObjectForEntityForName(entity, &error);
    EXPECT_TRUE(object) << error.description();
    return object;
  }
  static Value obj(const ManagedObjectPtr& o) { return Value::object(o); }
  static bool holds(const Value& collection, const ManagedObjectPtr& o) {
    return collection.contains(Value::object(o));
  }

  GraphStack stack_;
};

TEST_F(ManagedObjectTest, SetValueRefusesWrongTypesNamingTheProperty) {
  auto note = insert("Note");
  Error error;
  EXPECT_FALSE(note->setValue("title", 3, &error));
  EXPECT_EQ(error.domain(), "NSCocoaErrorDomain");
  EXPECT_EQ(error.code(), kManagedObjectValidationError);
  EXPECT_NE(error.localizedDescription().find("property = \"title\""), std::string::npos)
      << error.localizedDescription();
  EXPECT_NE(error.localizedDescription().find("desired type = string"), std::string::npos);
  EXPECT_EQ(error.userInfo().get(kValidationKeyErrorKey).str(), "title");
  EXPECT_EQ(managedObjectFromValue(error.userInfo().get(kValidationObjectErrorKey)), note);
  EXPECT_TRUE(note->value("title").isNil());

  EXPECT_FALSE(note->setValue("priority", 70000, &error));  // beyond integer16
  EXPECT_EQ(error.code(), kValidationNumberTooLargeError);
  EXPECT_FALSE(note->setValue("priority", 2.5, &error));
  EXPECT_FALSE(note->setValue("created", "yesterday", &error));
  EXPECT_FALSE(note->setValue("data", "text", &error));
  EXPECT_FALSE(note->setValue("nope", 1, &error));
  EXPECT_NE(error.localizedDescription().find("\"nope\""), std::string::npos);
  EXPECT_FALSE(note->setValue("folder", "Folder/1", &error));
  EXPECT_EQ(error.userInfo().get(kValidationKeyErrorKey).str(), "folder");
  EXPECT_FALSE(note->setValue("folder", obj(insert("Tag")), &error));
  EXPECT_NE(error.localizedDescription().find("entity Tag, not Folder"), std::string::npos);

  // Acceptable values are kept in the attribute's own form.
  EXPECT_TRUE(note->setValue("priority", 3.0));
  EXPECT_TRUE(note->value("priority").isInteger());
  EXPECT_TRUE(note->setValue("score", 2));
  EXPECT_EQ(note->value("score").kind(), Value::Kind::Float64);
  EXPECT_TRUE(note->setValue("link", "https://example.org/a"));
  EXPECT_TRUE(note->value("link").isUrl());
  EXPECT_TRUE(note->setValue("title", Value::null()));
  EXPECT_TRUE(note->value("title").isNil());
  EXPECT_TRUE(note->value("nope").isNil());
}

TEST_F(ManagedObjectTest, InsertedObjectsStartWithDefaults) {
  auto note = insert("Note");
  EXPECT_TRUE(note->isInserted());
  EXPECT_FALSE(note->isFault());
  EXPECT_TRUE(note->objectID()->isTemporaryID());
  EXPECT_EQ(note->value("priority").intValue(), 1);
  EXPECT_TRUE(note->value("tags").isOrderedSet());
  EXPECT_TRUE(insert("Tag")->value("notes").isSet());
  EXPECT_EQ(note->className(), "Note");
  Error error;
  EXPECT_EQ(stack_.context->insertNewObjectForEntityForName("Item", &error), nullptr);
  EXPECT_NE(error.localizedDescription().find("abstract"), std::string::npos);
  EXPECT_EQ(stack_.context->insertNewObjectForEntityForName("Nothing", &error), nullptr);
}

TEST_F(ManagedObjectTest, ToOneAndToManyInversesStayConsistent) {
  auto note = insert("Note"), other = insert("Note");
  auto f1 = insert("Folder"), f2 = insert("Folder");
  ASSERT_TRUE(note->setValue("folder", obj(f1)));
  EXPECT_TRUE(holds(f1->value("notes"), note));

  ASSERT_TRUE(note->setValue("folder", obj(f2)));
  EXPECT_FALSE(holds(f1->value("notes"), note));
  EXPECT_TRUE(holds(f2->value("notes"), note));

  // Setting the to-many side moves members out of their old folder.
  ASSERT_TRUE(f1->setValue("notes", Value::set({obj(note), obj(other)})));
  EXPECT_EQ(managedObjectFromValue(note->value("folder")), f1);
  EXPECT_EQ(managedObjectFromValue(other->value("folder")), f1);
  EXPECT_TRUE(f2->value("notes").empty());

  ASSERT_TRUE(f1->removeObject("notes", note));
  EXPECT_TRUE(note->value("folder").isNil());
  ASSERT_TRUE(f2->addObject("notes", other));
  EXPECT_TRUE(f1->value("notes").empty());
  EXPECT_EQ(managedObjectFromValue(other->value("folder")), f2);

  ASSERT_TRUE(other->setValue("folder", Value()));
  EXPECT_TRUE(f2->value("notes").empty());
}

TEST_F(ManagedObjectTest, OrderedToManyKeepsOrderAndManyToManyInverse) {
  auto note = insert("Note");
  auto a = insert("Tag"), b = insert("Tag"), c = insert("Tag");
  ASSERT_TRUE(note->setValue("tags", Value::array({obj(b), obj(a)})));
  ASSERT_TRUE(note->insertObject("tags", c, 1));
  Value tags = note->value("tags");
  ASSERT_EQ(tags.size(), 3u);
  EXPECT_EQ(managedObjectFromValue(tags[0]), b);
  EXPECT_EQ(managedObjectFromValue(tags[1]), c);
  EXPECT_EQ(managedObjectFromValue(tags[2]), a);
  EXPECT_TRUE(holds(c->value("notes"), note));
  // Moving a member changes only the order.
  ASSERT_TRUE(note->insertObject("tags", a, 0));
  EXPECT_EQ(managedObjectFromValue(note->value("tags")[0]), a);
  EXPECT_EQ(note->value("tags").size(), 3u);
  ASSERT_TRUE(a->removeObject("notes", note));
  EXPECT_FALSE(holds(note->value("tags"), a));
  EXPECT_EQ(note->value("tags").size(), 2u);
}

TEST_F(ManagedObjectTest, OneToOneTakesThePartnerAndOtherContextsObjectsAreRefused) {
  auto a = insert("Person"), b = insert("Person"), c = insert("Person");
  ASSERT_TRUE(a->setValue("spouse", obj(b)));
  EXPECT_EQ(managedObjectFromValue(b->value("spouse")), a);
  ASSERT_TRUE(c->setValue("spouse", obj(b)));
  EXPECT_TRUE(a->value("spouse").isNil());
  EXPECT_EQ(managedObjectFromValue(b->value("spouse")), c);
  EXPECT_EQ(managedObjectFromValue(c->value("spouse")), b);

  // Relationships refuse objects of another context.
  auto elsewhere = stack_.newContext();
  auto foreign = elsewhere->insertNewObjectForEntityForName("Folder");
  auto note = insert("Note");
  Error error;
  EXPECT_FALSE(note->setValue("folder", obj(foreign), &error));
  EXPECT_NE(error.localizedDescription().find("another context"), std::string::npos);
  EXPECT_FALSE(note->setValue("tags", Value::array({obj(note)}), &error));
  EXPECT_FALSE(note->setValue("tags", 5, &error));
}

TEST_F(ManagedObjectTest, ChangedAndCommittedValuesFollowSaves) {
  auto note = insert("Note");
  ASSERT_TRUE(note->setValue("title", "first"));
  EXPECT_EQ(note->changedValues().get("title").str(), "first");
  EXPECT_TRUE(note->committedValuesForKeys().empty());
  Error error;
  ASSERT_TRUE(stack_.context->save(&error)) << error.description();
  EXPECT_FALSE(note->isInserted());
  EXPECT_TRUE(note->changedValues().empty());
  EXPECT_FALSE(note->hasChanges());

  ASSERT_TRUE(note->setValue("title", "second"));
  EXPECT_TRUE(note->isUpdated());
  EXPECT_EQ(note->changedValues().size(), 1u);
  EXPECT_EQ(note->changedValues().get("title").str(), "second");
  EXPECT_EQ(note->committedValuesForKeys({"title"}).get("title").str(), "first");
  auto changed = Predicate::parse("changedValues.@count > 0 AND isUpdated == YES");
  ASSERT_TRUE(changed);
  EXPECT_TRUE(changed->evaluate(Value::object(note)));
  // Changing back leaves the object touched but without changes.
  ASSERT_TRUE(note->setValue("title", "first"));
  EXPECT_TRUE(note->changedValues().empty());
  EXPECT_FALSE(changed->evaluate(Value::object(note)));
  EXPECT_TRUE(objectIDFromValue(note->valueForKey("objectID"))->isEqual(*note->objectID()));
}

class ValidationTest : public ManagedObjectTest {
 protected:
  ManagedObjectPtr validNote() {
    auto note = insert("Note");
    EXPECT_TRUE(note->setValue("title", "ok"));
    return note;
  }
  static void expectSingle(const Error& error, int64_t code, std::string_view key,
                           const ManagedObjectPtr& object) {
    EXPECT_EQ(error.domain(), "NSCocoaErrorDomain");
    EXPECT_EQ(error.code(), code) << error.description();
    EXPECT_EQ(error.userInfo().get(kValidationKeyErrorKey).str(), key);
    EXPECT_EQ(managedObjectFromValue(error.userInfo().get(kValidationObjectErrorKey)), object);
  }
};

TEST_F(ValidationTest, AttributeLimitsUseTheClassicCodes) {
  Error error;
  auto note = insert("Note");
  EXPECT_FALSE(note->validateForInsert(&error));
  expectSingle(error, kValidationMissingMandatoryPropertyError, "title", note);

  struct Case {
    const char* key;
    Value value;
    int64_t code;
  };
  const Case cases[] = {
      {"priority", 11, kValidationNumberTooLargeError},
      {"priority", -1, kValidationNumberTooSmallError},
      {"body", std::string(21, 'x'), kValidationStringTooLongError},
      {"code", "AB1", kValidationStringPatternMatchingError},
      {"created", Value::date(-5), kValidationDateTooSoonError},
  };
  for (const Case& c : cases) {
    auto n = validNote();
    ASSERT_TRUE(n->setValue(c.key, c.value));
    EXPECT_FALSE(n->validateForInsert(&error)) << c.key;
    expectSingle(error, c.code, c.key, n);
    EXPECT_FALSE(n->validateValueForKey(c.key));
    EXPECT_TRUE(n->validateValueForKey("title"));
  }
  // Twenty characters of multi-byte text are still twenty characters.
  auto n = validNote();
  std::string accents;
  for (int i = 0; i < 20; ++i) accents += "é";
  ASSERT_TRUE(n->setValue("body", accents));
  ASSERT_TRUE(n->setValue("code", "ABC"));
  EXPECT_TRUE(n->validateForInsert(&error)) << error.description();
  // A value put in behind the type check is caught by validation.
  ASSERT_TRUE(n->setPrimitiveValue("created", "not a date"));
  EXPECT_FALSE(n->validateForInsert(&error));
  EXPECT_EQ(error.code(), kValidationInvalidDateError);
}

TEST_F(ValidationTest, RelationshipCountsAndMandatoryRelations) {
  Error error;
  auto note = validNote();
  for (int i = 0; i < 4; ++i) ASSERT_TRUE(note->addObject("tags", insert("Tag")));
  EXPECT_FALSE(note->validateForInsert(&error));
  expectSingle(error, kValidationRelationshipExceedsMaximumCountError, "tags", note);

  auto person = insert("Person");
  auto pet = insert("Pet");
  EXPECT_FALSE(pet->validateForInsert(&error));
  expectSingle(error, kValidationMissingMandatoryPropertyError, "owner", pet);
  ASSERT_TRUE(pet->setValue("owner", Value::object(person)));
  EXPECT_TRUE(pet->validateForInsert(&error));
  EXPECT_FALSE(person->validateForInsert(&error));  // one pet, at least two wanted
  expectSingle(error, kValidationRelationshipLacksMinimumCountError, "pets", person);
  EXPECT_TRUE(insert("Person")->validateForInsert(&error));  // none at all is fine: optional

  EXPECT_FALSE(person->validateForDelete(&error));
  expectSingle(error, kValidationRelationshipDeniedDeleteError, "pets", person);
}

TEST_F(ValidationTest, SeveralFailuresComeBackTogether) {
  auto note = insert("Note");
  ASSERT_TRUE(note->setValue("priority", 20));
  Error error;
  EXPECT_FALSE(note->validateForInsert(&error));
  EXPECT_EQ(error.code(), kValidationMultipleErrorsError);
  std::vector<Error> details = detailedErrors(error);
  ASSERT_EQ(details.size(), 2u);
  EXPECT_EQ(details[0].code(), kValidationMissingMandatoryPropertyError);
  EXPECT_EQ(details[0].userInfo().get(kValidationKeyErrorKey).str(), "title");
  EXPECT_EQ(details[1].code(), kValidationNumberTooLargeError);
  EXPECT_EQ(details[1].userInfo().get(kValidationKeyErrorKey).str(), "priority");
  EXPECT_EQ(error.userInfo().get(kDetailedErrorsKey).size(), 2u);
}

TEST_F(ValidationTest, RelationsToDeletedOrDetachedObjectsAreDangling) {
  auto note = validNote();
  auto tag = insert("Tag");
  ASSERT_TRUE(note->setValue("tags", Value::array({Value::object(tag)})));
  // Bypass the delete rules' inverse maintenance: the note keeps the tag.
  ASSERT_TRUE(tag->setPrimitiveValue("notes", Value::set()));
  stack_.context->deleteObject(tag);
  Error error;
  EXPECT_FALSE(note->validateForInsert(&error));
  expectSingle(error, kManagedObjectValidationError, "tags", note);
  EXPECT_EQ(managedObjectFromValue(error.userInfo().get(kValidationValueErrorKey)), tag);
}

}  // namespace
}  // namespace quillon
