#include "quillon/cache/internal/merge.h"

#include <gtest/gtest.h>

#include "quillon/base/error.h"
#include "quillon/base/json.h"

namespace quillon {
namespace {

Value json(std::string_view text, bool mutableContainers = false) {
  Value v = readJSON(text, nullptr, JSONReadOptions{.mutableContainers = mutableContainers});
  EXPECT_FALSE(v.isNil()) << text;
  return v;
}

TEST(MergeTest, MutableLeftKeepsItsScalarsAndGainsNewKeysAndMembers) {
  Value left = json(R"({"a": 1, "s": [1, 2]})", true);
  Value leftArray = left.get("s");
  Value right = json(R"({"a": 2, "s": [2, 3], "b": 4})");
  Value result;
  ASSERT_TRUE(Merge::mergeObj(left, right, &result));
  EXPECT_TRUE(Value::identical(result, left));
  EXPECT_EQ(result, json(R"({"a": 1, "s": [1, 2, 3], "b": 4})"));
  // The nested mutable array was merged in place, not replaced.
  EXPECT_TRUE(Value::identical(left.get("s"), leftArray));
}

TEST(MergeTest, TargetIsChosenByMutabilityThenByPosition) {
  Value immutable = json(R"({"k": "immutable"})");
  Value mutableOne = json(R"({"k": "mutable"})", true);
  Value result;
  // Only B is mutable: B receives A, so B's scalar wins.
  ASSERT_TRUE(Merge::mergeObj(immutable, mutableOne, &result));
  EXPECT_TRUE(Value::identical(result, mutableOne));
  EXPECT_EQ(result.get("k"), Value("mutable"));

  // Neither is mutable: a mutable copy of A receives B, and neither changes.
  Value a = json(R"({"k": "a", "x": [1]})");
  Value b = json(R"({"k": "b", "x": [2], "y": true})");
  ASSERT_TRUE(Merge::mergeObj(a, b, &result));
  EXPECT_FALSE(Value::identical(result, a));
  EXPECT_TRUE(result.isMutable());
  EXPECT_EQ(result, json(R"({"k": "a", "x": [1, 2], "y": true})"));
  EXPECT_EQ(a, json(R"({"k": "a", "x": [1]})"));
  EXPECT_EQ(b, json(R"({"k": "b", "x": [2], "y": true})"));
  EXPECT_FALSE(a.get("x").isMutable());

  // Nested dictionaries merge at every depth without touching immutable ones.
  Value target = Value::mutableDictionary();
  Value frozenInner = json(R"({"c": {"d": 1}})");
  target.set("a", frozenInner);
  Value other = json(R"({"a": {"c": {"e": 2}, "f": 3}})");
  mergeWithDictionary(target, other);
  EXPECT_EQ(target, json(R"({"a": {"c": {"d": 1, "e": 2}, "f": 3}})"));
  // The immutable value was replaced by a merged mutable copy.
  EXPECT_EQ(frozenInner, json(R"({"c": {"d": 1}})"));
  EXPECT_FALSE(Value::identical(target.get("a"), frozenInner));
  EXPECT_TRUE(target.get("a").isMutable());
}

TEST(MergeTest, DifferentFamiliesAndScalarsKeepTheTargetsValue) {
  Value target = json(R"({"list": [1], "map": {"x": 1}, "n": 1, "s": "t"})", true);
  Value other = json(R"({"list": {"y": 2}, "map": [2], "n": {"z": 3}, "s": [4]})");
  mergeWithDictionary(target, other);
  EXPECT_EQ(target, json(R"({"list": [1], "map": {"x": 1}, "n": 1, "s": "t"})"));

  Value result;
  EXPECT_FALSE(Merge::mergeObj(Value(1), Value(2), &result));
  EXPECT_FALSE(Merge::mergeObj(Value::null(), Value::mutableDictionary(), &result));
  EXPECT_FALSE(Merge::mergeObj(Value(), Value::mutableArray(), &result));
  // Ordered sets belong to no family.
  EXPECT_FALSE(Merge::mergeObj(Value::mutableOrderedSet(), Value::mutableArray(), &result));
  EXPECT_TRUE(result.isNil());
  // A section that is not a dictionary adds nothing.
  mergeWithDictionary(target, Value("not a dictionary"));
  EXPECT_EQ(target.size(), 4u);
}

TEST(MergeTest, ArraysAndSetsAppendMissingMembersInTheArgumentsOrder) {
  Value array = Value::array({Value(3), Value(1), Value(3)}, true);
  Value set = Value::set({Value(1), Value(2), Value(4)});
  mergeWithObj(array, set);
  // Existing order and duplicates kept; new members follow in the set's order.
  std::vector<Value> expected = {Value(3), Value(1), Value(3)};
  for (const Value& v : set.elements()) {
    if (v != Value(1)) expected.push_back(v);
  }
  EXPECT_EQ(array, Value::array(std::vector<Value>(expected)));

  // Elements appended earlier in the same walk count as present; numbers
  // compare by value across kinds.
  Value list = Value::array({Value("a")}, true);
  mergeWithArray(list, Value::array({Value("b"), Value("b"), Value("a"), Value(1), Value(1.0)}),
                 false);
  EXPECT_EQ(list, json(R"(["a", "b", 1])"));
  mergeWithArray(list, Value::array({Value("a")}), true);
  EXPECT_EQ(list, json(R"(["a", "b", 1, "a"])"));

  Value mutableSet = Value::set({Value(1)}, true);
  mergeWithObj(mutableSet, json("[1, 2, 2, 3]"));
  EXPECT_EQ(mutableSet, Value::set({Value(1), Value(2), Value(3)}));

  // Merging an array with itself adds nothing and does not trip over its
  // own growth.
  Value self = Value::array({Value(1), Value(2)}, true);
  mergeWithObj(self, self);
  EXPECT_EQ(self, json("[1, 2]"));
}

TEST(MergeTest, SetsAndArraysRefuseOtherFamiliesWithTheExactReason) {
  Value set = Value::set({Value("x")}, true);
  Value dictionary = Value::dictionary({{"k", Value(1)}});
  try {
    mergeWithObj(set, dictionary);
    FAIL() << "no exception";
  } catch (const Exception& e) {
    EXPECT_EQ(e.name(), "MergeException");
    EXPECT_EQ(e.reason(), "Attempted to merge objects of different types: " + set.description() +
                              "\n,\n " + dictionary.description());
  }
  Value array = Value::mutableArray();
  EXPECT_THROW(mergeWithObj(array, Value("text")), Exception);
  EXPECT_TRUE(array.empty());
  EXPECT_EQ(set.size(), 1u);
}

TEST(MergeTest, MutabilityComesFromTheFlagAndCopiesLeaveTheReceiverAlone) {
  Value frozen = json(R"({"a": 1})");
  Value live = json(R"({"a": 1})", true);
  EXPECT_FALSE(isMutableObj(frozen));
  EXPECT_TRUE(isMutableObj(live));
  EXPECT_FALSE(isMutableObj(Value::mutableString("s")));
  EXPECT_FALSE(isMutableObj(Value::mutableOrderedSet()));
  EXPECT_TRUE(isMutableObj(Value::mutableSet()));

  EXPECT_TRUE(canMergeWithObj(Value::set(), Value::array()));
  EXPECT_TRUE(canMergeWithObj(Value::array(), Value::set()));
  EXPECT_FALSE(canMergeWithObj(Value::dictionary(), Value::array()));
  EXPECT_FALSE(canMergeWithObj(Value::array(), Value::dictionary()));

  Value copy = mergeMutableCopyWithDictionary(frozen, json(R"({"a": 2, "b": [1]})"));
  EXPECT_EQ(copy, json(R"({"a": 1, "b": [1]})"));
  EXPECT_TRUE(copy.isMutable());
  EXPECT_EQ(frozen, json(R"({"a": 1})"));
  // The copy really accepts further merges.
  mergeWithDictionary(copy, json(R"({"c": 3})"));
  EXPECT_EQ(copy.get("c"), Value(3));
  EXPECT_FALSE(frozen.find("c"));
}

}  // namespace
}  // namespace quillon
