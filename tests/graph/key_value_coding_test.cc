#include "quillon/graph/key_value_coding.h"

#include <gtest/gtest.h>

#include <memory>

namespace quillon {
namespace {

Value object(const char* className, Value properties) {
  return Value::object(std::make_shared<GenericObject>(className, std::move(properties)));
}

// An object that answers keys through code, as a managed object does when it
// fires its fault, and counts how often it is asked.
class CountingObject final : public Object {
 public:
  explicit CountingObject(Value values) : values_(std::move(values)) {}
  std::string className() const override { return "Counting"; }
  Value valueForKey(std::string_view key) const override {
    ++lookups;
    return values_.get(key);
  }
  mutable int lookups = 0;

 private:
  Value values_;
};

TEST(KeyValueCodingTest, WalksDictionariesObjectsAndSelf) {
  auto counting = std::make_shared<CountingObject>(Value::dictionary({{"name", "Inbox"}}));
  Value note = object("Note", Value::dictionary({
                                  {"title", "Plan"},
                                  {"meta", Value::dictionary({{"words", 12}})},
                                  {"folder", Value::object(counting)},
                              }));
  EXPECT_EQ(valueForKeyPath(note, "title"), Value("Plan"));
  EXPECT_EQ(valueForKeyPath(note, "meta.words"), Value(12));
  EXPECT_EQ(valueForKeyPath(note, "folder.name"), Value("Inbox"));
  EXPECT_EQ(counting->lookups, 1);
  EXPECT_EQ(valueForKeyPath(note, "self.meta.SELF.words"), Value(12));
  EXPECT_TRUE(Value::identical(valueForKeyPath(note, "self"), note));
  EXPECT_TRUE(Value::identical(valueForKeyPath(note, ""), note));
}

TEST(KeyValueCodingTest, UnanswerablePathsAreNil) {
  Value note = Value::dictionary({{"title", "Plan"}, {"count", 3}});
  for (const char* path : {"missing", "title.length", "count.x", "title.@count", "@bogus", "a..b",
                           ".", "count.@sum.x", "@count.more"}) {
    EXPECT_TRUE(valueForKeyPath(note, path).isNil()) << path;
  }
  EXPECT_TRUE(valueForKeyPath(Value(5), "anything").isNil());
  EXPECT_TRUE(valueForKeyPath(Value(), "a.b.c").isNil());
}

TEST(KeyValueCodingTest, SequencesMapTheRestOfThePath) {
  Value a = object("Tag", Value::dictionary({{"name", "work"}, {"weight", 2}}));
  Value b = object("Tag", Value::dictionary({{"name", "home"}}));
  Value c = object("Tag", Value::dictionary({{"name", "work"}, {"weight", 5.5}}));
  // Arrays keep positions (null for missing), sets drop missing values and duplicates.
  EXPECT_EQ(valueForKeyPath(Value::array({a, b, c}), "weight"),
            Value::array({2, Value::null(), 5.5}));
  Value names = valueForKeyPath(Value::set({a, b, c}), "name");
  EXPECT_TRUE(names.isSet());
  EXPECT_EQ(names, Value::set({"work", "home"}));
  EXPECT_TRUE(valueForKeyPath(Value::orderedSet({a, b}), "name").isOrderedSet());

  // Crossing two to-many steps flattens; a to-many at the end stays nested.
  Value folders = Value::array({
      Value::dictionary({{"notes", Value::array({Value::dictionary({{"t", "x"}}),
                                                 Value::dictionary({{"t", "y"}})})}}),
      Value::dictionary({{"notes", Value::array({Value::dictionary({{"t", "z"}})})}}),
  });
  EXPECT_EQ(valueForKeyPath(folders, "notes.t"), Value::array({"x", "y", "z"}));
  EXPECT_EQ(valueForKeyPath(folders, "notes").size(), 2u);
}

TEST(KeyValueCodingTest, CollectionOperators) {
  Value items = Value::array({
      Value::dictionary({{"price", 3}, {"name", "b"}}),
      Value::dictionary({{"price", 4.5}, {"name", "a"}}),
      Value::dictionary({{"name", "c"}}),
  });
  Value order = Value::dictionary({{"items", items}, {"empty", Value::array()}});
  EXPECT_EQ(valueForKeyPath(order, "items.@count"), Value(3));
  EXPECT_EQ(valueForKeyPath(order, "items.@sum.price"), Value(7.5));
  EXPECT_EQ(valueForKeyPath(order, "items.@avg.price"), Value(3.75));
  EXPECT_EQ(valueForKeyPath(order, "items.@min.price"), Value(3));
  EXPECT_EQ(valueForKeyPath(order, "items.@max.name"), Value("c"));
  EXPECT_EQ(valueForKeyPath(order, "@count"), Value(2));
  EXPECT_EQ(valueForKeyPath(order, "empty.@sum.price"), Value(0));
  EXPECT_TRUE(valueForKeyPath(order, "empty.@avg.price").isNil());
  EXPECT_TRUE(valueForKeyPath(order, "empty.@max.price").isNil());
  // Integers stay integers until they overflow.
  Value big = Value::array({INT64_MAX, 1});
  EXPECT_TRUE(valueForKeyPath(Value::array({1, 2}), "@sum").isInteger());
  EXPECT_TRUE(valueForKeyPath(big, "@sum").isFloat());
}

TEST(KeyValueCodingTest, CompareValuesOrdersNumbersStringsDatesAndNil) {
  EXPECT_EQ(compareValues(Value(1), Value(1.0)), 0);
  EXPECT_EQ(compareValues(Value(1), Value(1.5)), -1);
  EXPECT_EQ(compareValues(Value(2.5), Value(2)), 1);
  EXPECT_EQ(compareValues(Value(true), Value(0)), 1);
  EXPECT_EQ(compareValues(Value::decimal(*Decimal::parse("10.25")), Value(10)), 1);
  EXPECT_EQ(compareValues(Value(9007199254740993LL), Value(9007199254740992.0)), 1);
  EXPECT_EQ(compareValues(Value::float32(0.5f), Value(0.5)), 0);

  EXPECT_EQ(compareValues(Value(), Value(0)), -1);
  EXPECT_EQ(compareValues(Value("a"), Value::null()), 1);
  EXPECT_EQ(compareValues(Value(), Value::null()), 0);
  EXPECT_EQ(compareValues(Value("B"), Value("a")), -1);
  EXPECT_EQ(compareValues(Value("B"), Value("a"), true), 1);
  EXPECT_EQ(compareValues(Value("abc"), Value("ABC"), true), 0);
  EXPECT_EQ(compareValues(Value("ab"), Value("abc")), -1);
  EXPECT_EQ(compareValues(Value("ÉCOLE"), Value("école"), true), 0);
  // Code-point order: U+00E9 sorts after "z", U+1F600 after U+FFFD.
  EXPECT_EQ(compareValues(Value("é"), Value("z")), 1);
  EXPECT_EQ(compareValues(Value("\xF0\x9F\x98\x80"), Value("\xEF\xBF\xBD")), 1);
  EXPECT_EQ(compareValues(Value::date(10), Value::date(20)), -1);
  // Mixed kinds still give a consistent order.
  int forward = compareValues(Value("1"), Value(1));
  EXPECT_NE(forward, 0);
  EXPECT_EQ(compareValues(Value(1), Value("1")), -forward);
}

}  // namespace
}  // namespace quillon
