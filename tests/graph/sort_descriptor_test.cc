#include "quillon/graph/sort_descriptor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <vector>

namespace quillon {
namespace {

Value item(Value title, Value rank, int id) {
  return Value::object(std::make_shared<GenericObject>(
      "Item",
      Value::dictionary({{"title", std::move(title)}, {"rank", std::move(rank)}, {"id", id}})));
}

std::vector<int64_t> ids(const std::vector<Value>& values) {
  std::vector<int64_t> out;
  for (const Value& v : values) out.push_back(v.objectValue()->valueForKey("id").intValue());
  return out;
}

TEST(SortDescriptorTest, StableWithTiesSeveralKeysAndCaseInsensitiveComparison) {
  std::vector<Value> values = {item("b", 2, 0),   item("a", 1, 1), item("b", 1, 2),
                               item("a", 1.0, 3), item("c", 2, 4), item("a", 2, 5)};
  std::vector<SortDescriptor> byRank = {SortDescriptor("rank")};
  SortDescriptor::sortValues(values, byRank);
  EXPECT_EQ(ids(values), (std::vector<int64_t>{1, 2, 3, 0, 4, 5}));  // ties keep their order

  std::vector<SortDescriptor> byTitleThenRankDown = {SortDescriptor("title"),
                                                     SortDescriptor("rank", false)};
  SortDescriptor::sortValues(values, byTitleThenRankDown);
  EXPECT_EQ(ids(values), (std::vector<int64_t>{5, 1, 3, 0, 2, 4}));

  // Case-insensitive comparison; descending ties stay stable.
  std::vector<Value> mixed = {item("beta", 0, 0), item("Alpha", 0, 1), item("alpha", 0, 2),
                              item("Beta", 0, 3)};
  std::vector<SortDescriptor> plain = {SortDescriptor("title")};
  SortDescriptor::sortValues(mixed, plain);
  EXPECT_EQ(ids(mixed), (std::vector<int64_t>{1, 3, 2, 0}));  // upper case first in code points

  std::vector<Value> again = {item("beta", 0, 0), item("Alpha", 0, 1), item("alpha", 0, 2),
                              item("Beta", 0, 3)};
  std::vector<SortDescriptor> folded = {
      SortDescriptor("title", false, SortDescriptor::Comparison::CaseInsensitiveCompare)};
  SortDescriptor::sortValues(again, folded);
  EXPECT_EQ(ids(again), (std::vector<int64_t>{0, 3, 1, 2}));  // descending, ties stay stable
  EXPECT_TRUE(folded[0].reversed().ascending());
}

TEST(SortDescriptorTest, MissingValuesSortFirstAndKeyPathsAreFollowed) {
  std::vector<Value> values = {item("x", 3, 0), item(Value(), 1, 1), item("a", Value::null(), 2),
                               item("b", Value(), 3)};
  std::vector<SortDescriptor> byRank = {SortDescriptor("rank")};
  SortDescriptor::sortValues(values, byRank);
  EXPECT_EQ(ids(values), (std::vector<int64_t>{2, 3, 1, 0}));
  std::vector<SortDescriptor> nowhere = {SortDescriptor("rank.nothing.here")};
  SortDescriptor::sortValues(values, nowhere);
  EXPECT_EQ(ids(values), (std::vector<int64_t>{2, 3, 1, 0}));

  // compareObjects follows key paths and direction.
  Value early = Value::dictionary({{"meta", Value::dictionary({{"when", Value::date(5)}})}});
  Value late = Value::dictionary({{"meta", Value::dictionary({{"when", Value::date(9)}})}});
  EXPECT_EQ(SortDescriptor("meta.when").compareObjects(early, late), -1);
  EXPECT_EQ(SortDescriptor("meta.when", false).compareObjects(early, late), 1);
  EXPECT_EQ(SortDescriptor("meta.when").compareObjects(late, late), 0);
  // Plain values sort by themselves.
  std::vector<Value> numbers = {Value(3), Value(1.5), Value::decimal(*Decimal::parse("2")),
                                Value(-1)};
  std::vector<SortDescriptor> self = {SortDescriptor("self")};
  SortDescriptor::sortValues(numbers, self);
  EXPECT_EQ(numbers, (std::vector<Value>{Value(-1), Value(1.5), Value(2), Value(3)}));
}

// sortValues prepares keys (folded strings, integer and string prefixes) to
// sort fast; its order must be exactly that of a plain stable sort by
// compareObjects, whatever mix of kinds a column holds.
TEST(SortDescriptorTest, PreparedKeysOrderLikeCompareObjects) {
  std::mt19937 random(7);
  const std::vector<Value> titles = {"alphabetical",
                                     "Alphabetically",
                                     "alphabet",
                                     "alpha",
                                     "ÀLPHABETICAL",
                                     "zeta",
                                     "Zeta",
                                     "",
                                     "alphabetic\xFF",
                                     "alphabetical order",
                                     "ALPHABETICAL ORDER"};
  const std::vector<Value> ranks = {Value(-5),        Value(3), Value(INT64_MIN),
                                    Value(INT64_MAX), Value(0), Value(-1)};
  const std::vector<Value> mixedRanks = {Value(2.5), Value(-0.5), Value(3.0), Value()};
  auto build = [&](bool mixed) {
    std::vector<Value> values;
    for (int i = 0; i < 300; ++i) {
      Value title = titles[random() % titles.size()];
      Value rank = ranks[random() % ranks.size()];
      if (mixed && i % 17 == 0) title = Value(i);
      if (mixed && i % 5 == 0) rank = mixedRanks[random() % mixedRanks.size()];
      values.push_back(item(title, rank, i));
    }
    return values;
  };
  for (bool mixed : {false, true}) {
    for (bool ascending : {true, false}) {
      for (auto comparison : {SortDescriptor::Comparison::Compare,
                              SortDescriptor::Comparison::CaseInsensitiveCompare}) {
        std::vector<SortDescriptor> descriptors = {SortDescriptor("title", ascending, comparison),
                                                   SortDescriptor("rank", !ascending)};
        std::vector<SortDescriptor> byRank = {SortDescriptor("rank", ascending)};
        for (const auto& order : {descriptors, byRank}) {
          std::vector<Value> values = build(mixed);
          std::vector<Value> expected = values;
          std::stable_sort(expected.begin(), expected.end(), [&](const Value& a, const Value& b) {
            for (const auto& d : order) {
              int c = d.compareObjects(a, b);
              if (c != 0) return c < 0;
            }
            return false;
          });
          SortDescriptor::sortValues(values, order);
          EXPECT_EQ(ids(values), ids(expected)) << mixed << ascending << order.size();
        }
      }
    }
  }
}

}  // namespace
}  // namespace quillon
