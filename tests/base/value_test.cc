#include "quillon/base/value.h"

#include <gtest/gtest.h>

namespace quillon {
namespace {

TEST(ValueTest, NilAndNullAreDifferentKinds) {
  Value nil;
  Value null = Value::null();
  EXPECT_TRUE(nil.isNil());
  EXPECT_TRUE(null.isNull());
  EXPECT_FALSE(nil == null);
  EXPECT_TRUE(Value::dictionary().get("missing").isNil());
}

TEST(ValueTest, NumbersCompareAndHashByValueAcrossKinds) {
  EXPECT_EQ(Value(1), Value(1.0));
  EXPECT_EQ(Value(true), Value(1));
  EXPECT_EQ(Value::float32(2.5f), Value(2.5));
  EXPECT_EQ(Value::decimal(*Decimal::parse("1.50")), Value(1.5));
  EXPECT_EQ(Value::decimal(*Decimal::parse("12")), Value(12));
  EXPECT_NE(Value(1), Value(1.5));
  EXPECT_NE(Value(9007199254740993LL), Value(9007199254740992.0));
  EXPECT_EQ(Value(3).hash(), Value(3.0).hash());
  EXPECT_EQ(Value(0).hash(), Value(-0.0).hash());
  EXPECT_NE(Value("1"), Value(1));
}

TEST(ValueTest, DictionariesKeepInsertionOrderAndReplaceInPlace) {
  Value d = Value::mutableDictionary();
  for (int i = 20; i > 0; --i) d.set("k" + std::to_string(i), i);
  d.set("k20", "first");  // replacing keeps the position
  ASSERT_EQ(d.size(), 20u);
  EXPECT_EQ(d.items()[0].first, Value("k20"));
  EXPECT_EQ(d.get("k20"), Value("first"));
  EXPECT_EQ(d.get("k7"), Value(7));
  EXPECT_TRUE(d.erase(Value("k7")));
  EXPECT_TRUE(d.get("k7").isNil());
  EXPECT_EQ(d.get("k6"), Value(6));  // the index survives a removal
  d.set("k6", Value());  // nil removes
  EXPECT_EQ(d.size(), 18u);
  // Numeric keys are found by equal numbers of another kind.
  Value n = Value::dictionary({{Value(1), "one"}});
  EXPECT_EQ(n.get(Value(1.0)), Value("one"));
}

TEST(ValueTest, SetsAreUniqueAndCompareWithoutOrder) {
  Value s = Value::mutableSet();
  for (int i = 0; i < 30; ++i) s.append(i % 15);
  EXPECT_EQ(s.size(), 15u);
  Value t = Value::set({Value(2), Value(1)});
  Value u = Value::set({Value(1), Value(2)});
  EXPECT_EQ(t, u);
  Value o1 = Value::orderedSet({Value(2), Value(1)});
  Value o2 = Value::orderedSet({Value(1), Value(2)});
  EXPECT_NE(o1, o2);
  EXPECT_FALSE(o1.append(Value(1.0)));
  o1.insert(0, Value(3));
  EXPECT_EQ(o1[0], Value(3));
}

TEST(ValueTest, ContainersHaveReferenceSemantics) {
  Value inner = Value::mutableArray();
  Value outer = Value::dictionary({{"list", inner}});
  Value alias = outer.get("list");
  alias.append("x");
  EXPECT_EQ(outer.get("list").size(), 1u);
  EXPECT_TRUE(Value::identical(alias, inner));
  Value copy = inner.mutableCopy();
  EXPECT_FALSE(Value::identical(copy, inner));
  EXPECT_EQ(copy, inner);
  EXPECT_TRUE(copy.isMutable());
  EXPECT_FALSE(inner.copy().isMutable());

  // A mutable array may contain itself; the owner breaks the cycle.
  Value self = Value::mutableArray();
  self.append(self);
  EXPECT_TRUE(Value::identical(self[0], self));
  EXPECT_EQ(self, self);
  self.clear();
}

TEST(ValueTest, DeepCopyCopiesNestedContainers) {
  Value inner = Value::mutableArray();
  Value outer = Value::array({inner});
  Value deep = outer.deepCopy(true);
  EXPECT_TRUE(deep.isMutable());
  EXPECT_FALSE(Value::identical(deep[0], inner));
  EXPECT_EQ(deep, outer);
}

TEST(DecimalTest, ParsesFormatsAndCompares) {
  auto d = Decimal::parse("-0012.500");
  ASSERT_TRUE(d);
  EXPECT_EQ(d->toString(), "-12.500");
  EXPECT_EQ(d->compact().toScientificString(), "-125e-1");
  EXPECT_EQ(Decimal::parse("1e3")->toString(), "1000");
  EXPECT_EQ(Decimal::parse("0.001")->toString(), "0.001");
  EXPECT_FALSE(Decimal::parse("1.2.3"));
  EXPECT_FALSE(Decimal::parse("123456789012345678901234567890123456789"));
  EXPECT_TRUE(Decimal::parse("12345678901234567890123456789012345678"));
  EXPECT_LT(Decimal::parse("-2")->compare(*Decimal::parse("1")), 0);
  EXPECT_LT(Decimal::parse("9.99")->compare(*Decimal::parse("10")), 0);
  EXPECT_EQ(Decimal::parse("NaN")->toString(), "NaN");
}

}  // namespace
}  // namespace quillon
