#include "quillon/graph/managed_object_model.h"

#include <gtest/gtest.h>

#include <string>

#include "support/sample_models.h"

namespace quillon {
namespace {

std::vector<std::string> names(const std::vector<const EntityDescription*>& entities) {
  std::vector<std::string> out;
  for (const auto* e : entities) out.push_back(e->name());
  return out;
}

TEST(ManagedObjectModelTest, EntitiesKeepModelOrderAndInheritance) {
  auto model = notesModel();
  EXPECT_EQ(names(model->entities()), (std::vector<std::string>{"Folder", "Note", "Tag", "Person",
                                                                "Pet", "Item", "Book", "Album"}));
  const EntityDescription* item = model->entity("Item");
  const EntityDescription* book = model->entity("Book");
  ASSERT_TRUE(item && book);
  EXPECT_TRUE(item->isAbstract());
  EXPECT_FALSE(book->isAbstract());
  EXPECT_EQ(book->superentity(), item);
  EXPECT_EQ(names(item->subentities()), (std::vector<std::string>{"Book", "Album"}));
  EXPECT_EQ(names(item->allSubentities()), (std::vector<std::string>{"Book", "Album"}));
  EXPECT_TRUE(model->entity("Note")->allSubentities().empty());
  EXPECT_TRUE(book->isKindOfEntity(item));
  EXPECT_FALSE(item->isKindOfEntity(book));
  // Inherited properties come first and are shared with the parent.
  ASSERT_EQ(book->properties().size(), 2u);
  EXPECT_EQ(book->properties()[0]->name(), "label");
  EXPECT_EQ(book->properties()[0], item->properties()[0]);
  EXPECT_NE(book->attribute("label"), nullptr);
  EXPECT_EQ(book->attributesByName().size(), 2u);
  EXPECT_EQ(model->entity("Nope"), nullptr);
}

struct BrokenModel {
  const char* json;
  const char* entity;
  const char* property;
  const char* words;  // part of the description
};

class BrokenModelTest : public ::testing::TestWithParam<BrokenModel> {};

TEST_P(BrokenModelTest, IsRefusedNamingEntityAndProperty) {
  const BrokenModel& c = GetParam();
  Error error;
  EXPECT_EQ(ManagedObjectModel::fromJSON(c.json, &error), nullptr);
  ASSERT_TRUE(error);
  EXPECT_EQ(error.domain(), "NSCocoaErrorDomain");
  EXPECT_EQ(error.code(), kManagedObjectModelInvalidError);
  std::string text = error.localizedDescription();
  EXPECT_NE(text.find(c.words), std::string::npos) << text;
  if (*c.entity) {
    EXPECT_NE(text.find(std::string("\"") + c.entity + "\""), std::string::npos) << text;
    EXPECT_EQ(error.userInfo().get("entity").str(), c.entity);
  }
  if (*c.property) {
    EXPECT_NE(text.find(std::string("\"") + c.property + "\""), std::string::npos) << text;
    EXPECT_EQ(error.userInfo().get("property").str(), c.property);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Models, BrokenModelTest,
    ::testing::Values(
        BrokenModel{R"({"entities": [)", "", "", "not valid JSON"},
        BrokenModel{R"([1, 2])", "", "", "not an object"},
        BrokenModel{R"({"entities": {}})", "", "", "\"entities\" array"},
        BrokenModel{
            R"({"entities": [{"name": "A", "attributes": [{"name": "x", "type": "strng"}]}]})", "A",
            "x", "unknown attribute type \"strng\""},
        BrokenModel{R"({"entities": [{"name": "A", "attributes": [{"name": "x"}]}]})", "A", "x",
                    "no type"},
        BrokenModel{
            R"({"entities": [{"name": "A", "relationships": [{"name": "b", "destination": "B"}]}]})",
            "A", "b", "\"B\" does not exist"},
        BrokenModel{R"({"entities": [
            {"name": "A", "relationships": [{"name": "b", "destination": "B", "inverse": "a"}]},
            {"name": "B"}]})",
                    "A", "b", "is not a relationship"},
        BrokenModel{R"({"entities": [
            {"name": "A", "relationships": [{"name": "b", "destination": "B", "inverse": "a"}]},
            {"name": "B", "relationships": [{"name": "a", "destination": "A", "inverse": "other"}]}]})",
                    "A", "b", "names \"other\" as its inverse"},
        BrokenModel{R"({"entities": [
            {"name": "A", "relationships": [{"name": "b", "destination": "B", "inverse": "c"}]},
            {"name": "B", "relationships": [{"name": "c", "destination": "B", "inverse": "c"}]}]})",
                    "A", "b", "leads to B, not to A"},
        BrokenModel{R"({"entities": [{"name": "A"}, {"name": "A"}]})", "A", "", "used twice"},
        BrokenModel{R"({"entities": [{"name": "A", "attributes": [
            {"name": "x", "type": "string"}, {"name": "x", "type": "date"}]}]})",
                    "A", "x", "used twice"},
        BrokenModel{R"({"entities": [{"name": "P", "attributes": [{"name": "x", "type": "string"}]},
                                     {"name": "C", "parent": "P", "attributes": [{"name": "x", "type": "string"}]}]})",
                    "C", "x", "already inherited"},
        BrokenModel{
            R"({"entities": [{"name": "A", "attributes": [{"name": "x", "type": "string", "optional": "yes"}]}]})",
            "A", "x", "\"optional\" must be a boolean, not a string"},
        BrokenModel{R"({"entities": [{"name": "A", "attributes": {"name": "x"}}]})", "A", "",
                    "\"attributes\" must be an array"},
        BrokenModel{R"({"entities": [{"name": 7}]})", "", "", "\"name\" must be a string"},
        BrokenModel{R"({"entities": [{"name": "A", "parent": "Z"}]})", "A", "",
                    "\"Z\" does not exist"},
        BrokenModel{R"({"entities": [{"name": "A", "parent": "B"}, {"name": "B", "parent": "A"}]})",
                    "A", "", "inherits from itself"},
        BrokenModel{
            R"({"entities": [{"name": "A", "attributes": [{"name": "n", "type": "integer16", "default": 70000}]}]})",
            "A", "n", "\"default\" does not suit"},
        BrokenModel{
            R"({"entities": [{"name": "A", "attributes": [{"name": "n", "type": "date", "default": "today"}]}]})",
            "A", "n", "\"default\" does not suit"},
        BrokenModel{
            R"({"entities": [{"name": "A", "attributes": [{"name": "s", "type": "string", "regularExpression": "(["}]}]})",
            "A", "s", "regular expression is malformed"},
        BrokenModel{
            R"({"entities": [{"name": "A", "relationships": [{"name": "b", "destination": "A", "deleteRule": "explode"}]}]})",
            "A", "b", "unknown delete rule \"explode\""},
        BrokenModel{
            R"({"entities": [{"name": "A", "relationships": [{"name": "b", "destination": "A", "toMany": true, "minCount": 5, "maxCount": 2}]}]})",
            "A", "b", "larger than"},
        BrokenModel{
            R"({"entities": [{"name": "A", "relationships": [{"name": "b", "destination": "A", "toMany": true, "minCount": -1}]}]})",
            "A", "b", "non-negative"}));

TEST(ManagedObjectModelTest, DeepOrHugeInputFailsCleanly) {
  std::string deep(100000, '[');
  Error error;
  EXPECT_EQ(ManagedObjectModel::fromJSON(deep, &error), nullptr);
  EXPECT_TRUE(error);
  EXPECT_EQ(ManagedObjectModel::fromJSON("", nullptr), nullptr);
  EXPECT_NE(ManagedObjectModel::fromJSON(R"({"entities": []})", nullptr), nullptr);
}

}  // namespace
}  // namespace quillon
