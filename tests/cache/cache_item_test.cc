#include "quillon/cache/internal/cache_item.h"

#include <gtest/gtest.h>

#include "quillon/base/env.h"
#include "quillon/cache/internal/cache.h"
#include "quillon/coding/internal/dense_coder.h"
#include "quillon/graph/entity_description.h"
#include "quillon/graph/managed_object_model.h"
#include "quillon/store/store.h"
#include "support/sample_models.h"
#include "support/store_stack.h"
#include "support/temp_dir.h"

namespace quillon {
namespace {

Value entry(Value value) { return Value::dictionary({{"value", std::move(value)}}); }

class CacheItemTest : public ::testing::Test {
 protected:
  void SetUp() override {
    model_ = notesModel();
    note_ = model_->entity("Note");
    ASSERT_NE(note_, nullptr);
    QuillonCacheItem::registerCoding();
  }

  void update(QuillonCacheItem& item, Value payload) {
    item.updateValues(payload, *note_, Url(), Value("3"));
  }

  std::shared_ptr<const ManagedObjectModel> model_;
  const EntityDescription* note_ = nullptr;
};

TEST_F(CacheItemTest, AttributesDefaultsBinaryAndRelations) {
  QuillonCacheItem item;
  item.setExtraData(Value(7), "scratch");
  update(item, Value::dictionary({
                   {"title", entry("Hello")},
                   {"priority", Value::dictionary()},  // no value: the model's default
                   {"data", entry("F00D.bin")},
                   {"folder", entry(Value::array({"Folder/F1"}))},
                   {"notAProperty", entry("kept as a relation")},
                   {"body", Value("not an entry")},
               }));
  EXPECT_EQ(item.attributes().get("title"), Value("Hello"));
  EXPECT_EQ(item.attributes().get("priority"), Value(1));
  EXPECT_EQ(item.attributes().find("body"), nullptr);
  EXPECT_EQ(item.attributes().find("data"), nullptr);
  EXPECT_EQ(item.data(), Value::dictionary({{"data", "F00D.bin"}}));
  EXPECT_EQ(item.relations().get("folder"), Value::array({"Folder/F1"}));
  EXPECT_EQ(item.relations().get("notAProperty"), Value("kept as a relation"));
  EXPECT_TRUE(item.extraData().empty()) << "every update starts the scratch values afresh";

  // An entry without a value clears a to-one relation; numbers read back as
  // numbers of any kind.
  update(item, Value::dictionary({{"folder", Value::dictionary()}, {"score", entry("2.5")}}));
  EXPECT_EQ(item.relations().find("folder"), nullptr);
  EXPECT_EQ(item.attributes().get("score"), Value(2.5));
  EXPECT_EQ(item.attributes().get("title"), Value("Hello"));

  // URI attributes have no transformer: clearing one needs none, and a value
  // that none can read (another computer's record) counts as absent.
  EXPECT_NO_THROW(update(item, Value::dictionary({{"link", Value::dictionary()}})));
  EXPECT_NO_THROW(update(item, Value::dictionary({{"link", entry("http://x")}})));
  EXPECT_EQ(item.attributes().find("link"), nullptr);
}

// A record is untrusted: names the cache's writer reserves never reach the
// item, so its cache form reads back as the same item.
TEST_F(CacheItemTest, ReservedNamesInARecordAreDropped) {
  auto item = std::make_shared<QuillonCacheItem>();
  update(*item, Value::dictionary({{"$alias", entry("12")}, {"title", entry("t")}}));
  update(*item, Value::dictionary({{"$class", entry("QuillonCacheItem")}}));
  EXPECT_TRUE(item->relations().empty());
  Value again = DenseCoder::objectWithData(DenseCoder::dataWithRootObject(Value::object(item)));
  ASSERT_NE(again.objectAs<QuillonCacheItem>(), nullptr);
  EXPECT_EQ(again.objectAs<QuillonCacheItem>()->relations(), item->relations());
  EXPECT_EQ(again.objectAs<QuillonCacheItem>()->attributes().get("title"), Value("t"));
}

// Relations hold references, which are text; a record's other values there
// (dictionaries the cache's writer would take for an alias or a class) are
// dropped, so the item's cache form reads back as the same item.
TEST_F(CacheItemTest, RelationsKeepOnlyReferences) {
  auto item = std::make_shared<QuillonCacheItem>();
  update(*item, Value::dictionary(
                    {{"folder", entry(Value::array({Value("Folder/F1"),
                                                    Value::dictionary({{"$alias", "0"}})}))},
                     {"", entry(Value::dictionary({{"$alias", Value::array()}}))},
                     {"other", entry(Value::dictionary({{"$class", "QuillonCacheItem"}}))},
                     {"unknown", entry("Tag/T1")},
                     {"tags", Value::dictionary({{"addedValues",
                                                  Value::array({Value("Tag/A"),
                                                                Value::dictionary({{"$alias", ""}}),
                                                                Value(3)})}})}}));
  Value relations = item->relations();
  EXPECT_EQ(relations.get("folder"), Value::array({"Folder/F1"}));
  EXPECT_EQ(relations.get("unknown"), Value("Tag/T1"));
  EXPECT_EQ(relations.get("tags"), Value::array({"Tag/A"}));
  EXPECT_TRUE(relations.get("").isNil());
  EXPECT_TRUE(relations.get("other").isNil());
  Value again = DenseCoder::objectWithData(DenseCoder::dataWithRootObject(Value::object(item)));
  ASSERT_NE(again.objectAs<QuillonCacheItem>(), nullptr);
  EXPECT_EQ(again.objectAs<QuillonCacheItem>()->relations(), relations);
}

TEST_F(CacheItemTest, ToManyAddsRemovesAndOrders) {
  QuillonCacheItem item;
  update(
      item,
      Value::dictionary(
          {{"tags", Value::dictionary(
                        {{"addedValues", Value::array({"Tag/A", "Tag/B", "Tag/C", "Tag/D"})}})}}));
  update(item, Value::dictionary(
                   {{"tags", Value::dictionary({
                                 {"addedValues", Value::array({"Tag/E"})},
                                 {"removedValues", Value::array({"Tag/B"})},
                                 // Tag/X is not in the relation: ignored.
                                 {"orderedValues", Value::array({"Tag/D", "Tag/X", "Tag/A"})},
                             })}}));
  EXPECT_EQ(item.relations().get("tags"), Value::array({"Tag/D", "Tag/A", "Tag/C", "Tag/E"}));
}

TEST_F(CacheItemTest, KeyedCodingKeepsStoredFormOnly) {
  auto item = std::make_shared<QuillonCacheItem>();
  update(*item, Value::dictionary(
                    {{"title", entry("Coded")},
                     {"data", entry("BEEF")},
                     {"tags", Value::dictionary({{"addedValues", Value::array({"Tag/A"})}})}}));
  item->setExtraData(Value("x"), "key");
  Value shard = Value::dictionary({{"7A", Value::object(item)}}, true);
  Value decoded = DenseCoder::objectWithData(DenseCoder::dataWithRootObject(shard));
  auto* back = decoded.get("7A").objectAs<QuillonCacheItem>();
  ASSERT_NE(back, nullptr);
  EXPECT_EQ(back->attributes(), item->attributes());
  EXPECT_EQ(back->relations(), item->relations());
  EXPECT_EQ(back->data(), item->data());
  EXPECT_EQ(back->extraDataForKey(Value("key")), Value("x"));
  EXPECT_TRUE(back->extraDataForKey(Value(1)).isNil());
  EXPECT_TRUE(back->state().isNil());
}

// A damaged cache file can make an item whose state holds a dictionary that
// contains itself; breaking the cycles of what was read must reach it
// through the item.
TEST_F(CacheItemTest, BreakingCyclesReachesInsideItems) {
  Value cycle = Value::mutableDictionary();
  cycle.set(Value("self"), cycle);
  cycle.set(Value("n"), Value(1));
  Value stored = Value::object(std::make_shared<GenericObject>(
      std::string(QuillonCacheItem::kClassName), Value::dictionary({{"state", cycle}})));
  Value shard = Value::dictionary({{"7A", stored}});
  Value decoded = DenseCoder::objectWithData(DenseCoder::dataWithRootObject(shard));
  auto* item = decoded.get("7A").objectAs<QuillonCacheItem>();
  ASSERT_NE(item, nullptr);
  Value state = item->state();
  ASSERT_TRUE(state.isDictionary());
  EXPECT_TRUE(Value::identical(state.get("self"), state));
  EXPECT_EQ(state.get("n"), Value(1));
  DenseCoder::breakCycles(decoded);
  EXPECT_TRUE(state.empty());
  DenseCoder::breakCycles(shard);
}

TEST(StoreKeyForTest, EntityUnderscoreFirstCharacter) {
  EXPECT_EQ(storeKeyFor("Note", "7A2F-0001"), "Note_7");
  EXPECT_EQ(storeKeyFor("Note", "\xC3\xA9t\xC3\xA9"), "Note_\xC3\xA9");
}

// Parsing needs a store: its identifier table, entity table and files.
class CacheItemStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    stack_ = std::make_unique<StoreStack>(dir_.file("Notes.quillon"));
    ASSERT_TRUE(stack_->waitUntilReady());
    store_ = stack_->store.get();
    note_ = store_->entityNamed("Note");
    ASSERT_NE(note_, nullptr);
  }

  ManagedObjectIDPtr noteID(const std::string& uid) {
    return store_->newObjectIDForEntity(note_, Value(uid));
  }

  TempDir dir_{"quillon-item"};
  std::unique_ptr<StoreStack> stack_;
  QuillonStore* store_ = nullptr;
  const EntityDescription* note_ = nullptr;
};

TEST_F(CacheItemStoreTest, RelationsParseToIdentifiersAndUnknownEntitiesBlockSaving) {
  QuillonCacheItem item;
  item.updateValues(
      Value::dictionary({
          {"folder", entry(Value::array({"Folder/F1"}))},
          {"tags", Value::dictionary({{"addedValues", Value::array({"Tag/T2", "Tag/T1"})}})},
      }),
      *note_, Url(), Value("3"));
  ManagedObjectIDPtr id = noteID("7A");
  Value values = item.allValuesForObjectID(id, store_, nullptr);
  auto folder = objectIDFromValue(values.get("folder"));
  ASSERT_NE(folder, nullptr);
  EXPECT_EQ(folder->entity()->name(), "Folder");
  EXPECT_EQ(storeUID(*folder), "F1");
  const Value& tags = values.get("tags");
  ASSERT_TRUE(tags.isOrderedSet());
  ASSERT_EQ(tags.size(), 2u);
  EXPECT_EQ(storeUID(*objectIDFromValue(tags[0])), "T2");
  EXPECT_EQ(store_->managedObjectIDForReference("Folder/F1"), folder) << "identifiers are reused";
  EXPECT_FALSE(store_->blockSaves());

  // Attribute-only updates keep the parsed relations.
  item.updateValues(Value::dictionary({{"title", entry("t")}}), *note_, Url(), Value("3"));
  EXPECT_TRUE(Value::identical(item.valuesForObjectID(id, store_, nullptr).get("folder"),
                               values.get("folder")));

  item.updateValues(Value::dictionary({{"folder", entry(Value::array({"Gone/G1"}))}}), *note_,
                    Url(), Value("3"));
  EXPECT_EQ(item.valuesForObjectID(id, store_, nullptr).find("folder"), nullptr);
  EXPECT_TRUE(store_->blockSaves());
}

TEST_F(CacheItemStoreTest, ExternalDataIsReadLazilyAndForgottenOnEveryUpdate) {
  auto key = store_->fileNameForEntity(*note_);
  ASSERT_TRUE(key);
  Url folder =
      store_->entitiesURL().appending(*key, true).appending("7B", true).appending("Data", true);
  ASSERT_FALSE(store_->env()->createDirectories(folder.path()));
  std::vector<uint8_t> stored;
  std::string_view plain = "bytes of the note";
  ASSERT_TRUE(store_->encrypt(
      std::span(reinterpret_cast<const uint8_t*>(plain.data()), plain.size()), &stored));
  ASSERT_FALSE(store_->env()->writeFileAtomically(folder.appending("D1").path(), stored));

  QuillonCacheItem item;
  item.updateValues(Value::dictionary({{"data", entry("D1")}}), *note_, Url(), Value("3"));
  ManagedObjectIDPtr id = noteID("7B");
  EXPECT_EQ(item.valuesForObjectID(id, store_, nullptr).get("data"), Value::data(plain));

  // The file changes on disk; an attribute update forgets the bytes read.
  std::string_view newer = "newer bytes";
  ASSERT_TRUE(store_->encrypt(
      std::span(reinterpret_cast<const uint8_t*>(newer.data()), newer.size()), &stored));
  ASSERT_FALSE(store_->env()->writeFileAtomically(folder.appending("D1").path(), stored));
  EXPECT_EQ(item.valuesForObjectID(id, store_, nullptr).get("data"), Value::data(plain));
  item.updateValues(Value::dictionary({{"title", entry("t")}}), *note_, Url(), Value("3"));
  EXPECT_EQ(item.valuesForObjectID(id, store_, nullptr).get("data"), Value::data(newer));
}

}  // namespace
}  // namespace quillon
