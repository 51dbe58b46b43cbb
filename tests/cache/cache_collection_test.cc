#include "quillon/cache/internal/cache_collection.h"

#include <gtest/gtest.h>

#include "quillon/base/env.h"
#include "quillon/coding/internal/dc_ns_coding.h"
#include "quillon/coding/internal/dense_coder.h"
#include "quillon/store/package_files.h"
#include "support/fault_env.h"
#include "support/temp_dir.h"

namespace quillon {
namespace {

// Collections without a store read and write plain DenseCoding through the
// default Env, which is all these cases need.
class CacheCollectionTest : public ::testing::Test {
 protected:
  Url urlFor(std::string_view key) const { return Url::fileURL(dir_.file(key)); }
  std::string fastFile(std::string_view key) const { return dir_.file(std::string(key) + ".fast"); }
  bool exists(const std::string& path) const { return Env::Default()->exists(path); }

  TempDir dir_{"quillon-collection"};
};

TEST_F(CacheCollectionTest, SetIsStoredAsArrayAndLoadsAsMutableSet) {
  auto uids = QuillonCacheSet::setWithStore(nullptr, urlFor("Note_uids"));
  uids->addObjects(Value::array({"A1", "B2", "C3"}));
  uids->removeObject(Value("B2"));
  ASSERT_TRUE(uids->invalid());
  uids->saveIfNeeded();
  EXPECT_FALSE(uids->invalid());

  std::vector<uint8_t> bytes;
  ASSERT_FALSE(Env::Default()->readFile(fastFile("Note_uids"), &bytes));
  EXPECT_TRUE(DenseCoder::objectWithData(bytes).isArray());

  auto again = QuillonCacheSet::setWithStore(nullptr, urlFor("Note_uids"));
  Value members = again->content();
  EXPECT_TRUE(members.isSet());
  EXPECT_TRUE(members.isMutable());
  EXPECT_EQ(members, Value::set({"A1", "C3"}));
  EXPECT_FALSE(again->invalid());
}

TEST_F(CacheCollectionTest, UnreadableOrForeignFilesGiveEmptyContent) {
  dir_.write("Garbage.fast", "this is not DenseCoding data at all");
  auto dictionary = QuillonCacheDictionary::dictionaryWithStore(nullptr, urlFor("Garbage"));
  EXPECT_TRUE(dictionary->valueForKey("x").isNil());
  EXPECT_TRUE(dictionary->content().isDictionary());
  EXPECT_FALSE(dictionary->invalid()) << "an empty dictionary is not written back";

  auto array = QuillonCacheArray::arrayWithStore(nullptr, urlFor("Garbage"));
  EXPECT_TRUE(array->content().empty());
  EXPECT_TRUE(array->invalid()) << "an empty log is written at the next save";

  auto missing = QuillonCacheSet::setWithStore(nullptr, urlFor("Missing"));
  EXPECT_TRUE(missing->content().isSet());
  EXPECT_TRUE(missing->invalid());

  // A valid file of another kind is not trusted either.
  auto log = QuillonCacheArray::arrayWithStore(nullptr, urlFor("Changes"));
  log->addObject(Value::dictionary({{"name", "one"}}));
  log->saveIfNeeded();
  auto wrongKind = QuillonCacheDictionary::dictionaryWithStore(nullptr, urlFor("Changes"));
  EXPECT_TRUE(wrongKind->content().isDictionary());
  EXPECT_TRUE(wrongKind->content().empty());
}

// Made by the reader for a "TestCollectionProbe" in a cache file; remembers
// every instance to see whether it was freed.
class Probe final : public Object {
 public:
  std::string className() const override { return "TestCollectionProbe"; }
  static std::vector<std::weak_ptr<Probe>>& made() {
    static std::vector<std::weak_ptr<Probe>> all;
    return all;
  }
};

// A refused file is dropped whole, even when it holds a dictionary that
// contains itself (nobody else would ever break that cycle).
TEST_F(CacheCollectionTest, ARefusedFileWithACycleIsFreed) {
  DCNSCoding::registerClass("TestCollectionProbe", [](DCNSDecoder&) -> std::shared_ptr<Object> {
    auto probe = std::make_shared<Probe>();
    Probe::made().push_back(probe);
    return probe;
  });
  Value cycle = Value::mutableDictionary();
  cycle.set(Value("self"), cycle);
  cycle.set(Value("probe"), Value::object(std::make_shared<GenericObject>(
                                "TestCollectionProbe", Value::dictionary())));
  std::vector<uint8_t> bytes = DenseCoder::encode(cycle);
  DenseCoder::breakCycles(cycle);
  ASSERT_FALSE(Env::Default()->writeFileAtomically(fastFile("Log"), bytes));

  Probe::made().clear();
  auto log = QuillonCacheArray::arrayWithStore(nullptr, urlFor("Log"));
  EXPECT_TRUE(log->content().isArray());
  EXPECT_TRUE(log->content().empty());
  ASSERT_EQ(Probe::made().size(), 1u);
  EXPECT_TRUE(Probe::made()[0].expired());
}

// An entity's uids are text; a damaged file's other members are dropped
// rather than compared (two arrays that contain themselves never finish).
TEST_F(CacheCollectionTest, SetMembersThatAreNotTextAreDropped) {
  Value a = Value::mutableArray();
  a.append(a);
  Value b = Value::mutableArray();
  b.append(b);
  std::vector<uint8_t> bytes =
      DenseCoder::encode(Value::array({a, Value("U1"), b, Value(7), Value("U2")}));
  DenseCoder::breakCycles(a);
  DenseCoder::breakCycles(b);
  ASSERT_FALSE(Env::Default()->writeFileAtomically(fastFile("Note_uids"), bytes));
  auto uids = QuillonCacheSet::setWithStore(nullptr, urlFor("Note_uids"));
  EXPECT_EQ(uids->content(), Value::set({"U1", "U2"}));
}

TEST_F(CacheCollectionTest, DictionaryMutatorsDirtyAndNilRemoves) {
  auto shard = QuillonCacheDictionary::dictionaryWithStore(nullptr, urlFor("Note_7"));
  shard->setValue(Value("one"), "7A");
  shard->setValue(Value("two"), "7B");
  shard->saveIfNeeded();
  ASSERT_FALSE(shard->invalid());

  EXPECT_EQ(shard->valueForKey("7A"), Value("one"));
  EXPECT_FALSE(shard->invalid()) << "reading marks nothing";
  shard->setValue(Value(), "7A");
  EXPECT_TRUE(shard->invalid());
  EXPECT_TRUE(shard->valueForKey("7A").isNil());
  shard->saveIfNeeded();

  auto again = QuillonCacheDictionary::dictionaryWithStore(nullptr, urlFor("Note_7"));
  EXPECT_EQ(again->content(), Value::dictionary({{"7B", "two"}}));
}

TEST_F(CacheCollectionTest, ContentHandedOutIsNotChangedByLaterMutations) {
  auto log = QuillonCacheArray::arrayWithStore(nullptr, urlFor("Changes"));
  log->addObject(Value("a"));
  Value before = log->content();
  log->addObject(Value("b"));
  log->addObjects(Value::array({"a", "c"}));
  EXPECT_EQ(before, Value::array({"a"}));
  log->removeObject(Value("a"));  // every equal member goes
  EXPECT_EQ(log->content(), Value::array({"b", "c"}));
}

TEST_F(CacheCollectionTest, RemoveFileLeavesTheCacheFile) {
  auto shard = QuillonCacheDictionary::dictionaryWithStore(nullptr, urlFor("Note_A"));
  shard->setValue(Value(1), "A1");
  shard->saveIfNeeded();
  ASSERT_TRUE(exists(fastFile("Note_A")));
  dir_.write("Note_A", "an item at the URL itself");
  shard->removeFile();
  EXPECT_FALSE(exists(dir_.file("Note_A")));
  EXPECT_TRUE(exists(fastFile("Note_A")));
}

TEST_F(CacheCollectionTest, FailedWriteDeletesTheFileAndStaysDirty) {
  FaultInjectingEnv env;
  auto files = std::make_shared<PackageFiles>(&env, Url::fileURL(dir_.path(), true), Value());
  auto shard = QuillonCacheDictionary::dictionaryWithStore(files, urlFor("Note_B"));
  shard->setValue(Value("old"), "B1");
  shard->saveIfNeeded();
  ASSERT_TRUE(exists(fastFile("Note_B")));

  env.failAfter(FaultInjectingEnv::Op::Write, "Note_B", 0, FaultInjectingEnv::Fault::NoSpace, 1);
  shard->setValue(Value("new"), "B1");
  shard->saveIfNeeded();
  EXPECT_TRUE(shard->invalid());
  EXPECT_FALSE(exists(fastFile("Note_B"))) << "a stale file must not stay behind";

  shard->saveIfNeeded();  // the rule is spent: the retry succeeds
  EXPECT_FALSE(shard->invalid());
  auto again = QuillonCacheDictionary::dictionaryWithStore(nullptr, urlFor("Note_B"));
  EXPECT_EQ(again->valueForKey("B1"), Value("new"));
}

}  // namespace
}  // namespace quillon
