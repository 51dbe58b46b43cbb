#include "quillon/base/value.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace quillon {
namespace {

TEST(ValueTest, NilNullAndNumbersCompareAsDocumented) {
  Value nil;
  Value null = Value::null();
  EXPECT_TRUE(nil.isNil());
  EXPECT_TRUE(null.isNull());
  EXPECT_FALSE(nil == null);
  EXPECT_TRUE(Value::dictionary().get("missing").isNil());

  // Numbers compare and hash by value across kinds.
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

TEST(ValueTest, DictionariesKeepOrderAndSetsAreUnique) {
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
  d.set("k6", Value());              // nil removes
  EXPECT_EQ(d.size(), 18u);
  // Numeric keys are found by equal numbers of another kind.
  Value n = Value::dictionary({{Value(1), "one"}});
  EXPECT_EQ(n.get(Value(1.0)), Value("one"));

  // Sets are unique and compare without order; ordered sets do not.
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

TEST(ValueTest, ImmutableAndMutableStrings) {
  std::string bytes("a\0b", 3);  // embedded NUL bytes survive
  EXPECT_EQ(Value::string(bytes).str(), bytes);
  EXPECT_EQ(Value::string("").str(), "");
  EXPECT_EQ(Value::string(std::string(1000, 'x')).str().size(), 1000u);

  Value m = Value::mutableString("abc");
  Value alias = m;
  m.mutableStr() += std::string(100, 'd');  // grows past any small buffer
  EXPECT_EQ(alias.str().size(), 103u);
  EXPECT_EQ(alias, Value(std::string("abc") + std::string(100, 'd')));
  EXPECT_EQ(m.hash(), Value(alias.str()).hash());
  // Immutable strings cannot be edited in place.
  Value frozen("abc");
  EXPECT_THROW(frozen.mutableStr(), std::logic_error);
  EXPECT_THROW(Value(1).mutableStr(), std::logic_error);
  EXPECT_FALSE(m.copy().isMutable());
  EXPECT_EQ(m.copy().str(), m.str());
  EXPECT_TRUE(frozen.mutableCopy().isMutable());
}

TEST(ValueTest, ContainersGrowPastTheirInitialStorage) {
  // Built with exact storage, then grown, edited and shrunk.
  Value a = Value::array({Value("first"), Value(2)}, true);
  for (int i = 0; i < 100; ++i) a.append(Value("n" + std::to_string(i)));
  a.insert(0, Value("front"));
  a.insert(a.size(), Value("back"));
  a.insert(1000, Value("clamped"));
  ASSERT_EQ(a.size(), 105u);
  EXPECT_EQ(a[0], Value("front"));
  EXPECT_EQ(a[1], Value("first"));
  EXPECT_EQ(a[102], Value("n99"));
  EXPECT_EQ(a[104], Value("clamped"));
  a.removeAt(0);
  a.replace(1, Value("two"));
  EXPECT_EQ(a[1], Value("two"));
  a.append(Value("n5"));
  EXPECT_TRUE(a.remove(Value("n5")));  // every equal element
  EXPECT_EQ(a.indexOf(Value("n5")), std::nullopt);
  EXPECT_EQ(a.size(), 103u);
  EXPECT_FALSE(a.remove(Value("absent")));
  EXPECT_THROW(a.removeAt(500), std::out_of_range);
  a.clear();
  EXPECT_TRUE(a.empty());
  a.append(Value(1));
  EXPECT_EQ(a, Value::array({Value(1)}));

  // An element appended from the array itself while it grows.
  Value b = Value::array({Value("x")}, true);
  for (int i = 0; i < 10; ++i) b.append(b[0]);
  EXPECT_EQ(b.size(), 11u);
  EXPECT_EQ(b[10], Value("x"));

  Value s = Value::orderedSet({Value(1), Value(2), Value(1.0)}, true);
  EXPECT_EQ(s.size(), 2u);
  for (int i = 0; i < 40; ++i) s.insert(0, Value(i));  // reindexed on each insert
  EXPECT_EQ(s.size(), 40u);
  EXPECT_EQ(s[0], Value(39));
  EXPECT_EQ(s.indexOf(Value(2)), 39u);
  EXPECT_TRUE(s.remove(Value(20)));
  EXPECT_FALSE(s.contains(Value(20)));
  EXPECT_EQ(s.indexOf(Value(0)), 36u);

  Value d = Value::dictionary({{"a", 1}, {"b", 2}}, true);
  for (int i = 0; i < 50; ++i) d.set("k" + std::to_string(i), i);
  EXPECT_EQ(d.size(), 52u);
  EXPECT_EQ(d.get("k49"), Value(49));
  EXPECT_TRUE(d.erase(Value("a")));
  EXPECT_EQ(d.items()[0].first, Value("b"));
  EXPECT_EQ(d.get("k0"), Value(0));
}

TEST(ValueTest, IndexedLookupsAgreeWithAReferenceMapThroughGrowthAndReserve) {
  // Random sets, erases and reserves (which switch the index on early and
  // grow it without rehashing) checked against std::map after every step.
  std::mt19937 random(7);
  Value d = Value::mutableDictionary();
  Value s = Value::mutableSet();
  std::map<int, int> reference;
  for (int step = 0; step < 4000; ++step) {
    int key = static_cast<int>(random() % 300);
    Value k = key % 2 ? Value("k" + std::to_string(key)) : Value(key);
    switch (random() % 8) {
      case 0:
        d.erase(k);
        s.remove(k);
        reference.erase(key);
        break;
      case 1:
        d.reserve(d.size() + random() % 200);
        s.reserve(s.size() + random() % 200);
        break;
      default:
        d.set(k, Value(step));
        s.append(k);
        reference[key] = step;
    }
    ASSERT_EQ(d.size(), reference.size());
    ASSERT_EQ(s.size(), reference.size());
    int probe = static_cast<int>(random() % 300);
    Value p = probe % 2 ? Value("k" + std::to_string(probe)) : Value(probe);
    auto found = reference.find(probe);
    ASSERT_EQ(d.get(p), found == reference.end() ? Value() : Value(found->second)) << step;
    ASSERT_EQ(s.contains(p), found != reference.end()) << step;
    if (step % 50 == 0) {
      // Every key, and the positions the index keeps after erases.
      for (const auto& [key, value] : reference) {
        Value k = key % 2 ? Value("k" + std::to_string(key)) : Value(key);
        ASSERT_EQ(d.get(k), Value(value)) << step;
        ASSERT_EQ(s[*s.indexOf(k)], k) << step;
      }
    }
  }
}

TEST(ValueTest, BuildingFromMovedChildren) {
  for (int count : {3, 20}) {  // below and above the indexing threshold
    std::vector<Value::Entry> entries;
    for (int i = 0; i < count; ++i) entries.emplace_back(Value("k" + std::to_string(i)), i);
    entries.emplace_back(Value("k1"), Value("last"));  // a repeat keeps the first position
    entries.emplace_back(Value("gone"), Value());      // nil values are dropped
    entries.emplace_back(Value(2.0), Value("number key"));
    entries.emplace_back(Value(2), Value("same number"));
    Value d = Value::dictionaryMovingFrom(entries);
    ASSERT_EQ(d.size(), static_cast<size_t>(count) + 1) << count;
    EXPECT_EQ(d.items()[1].first, Value("k1"));
    EXPECT_EQ(d.get("k1"), Value("last"));
    EXPECT_TRUE(d.get("gone").isNil());
    EXPECT_EQ(d.get(Value(2)), Value("same number"));
    EXPECT_EQ(d.get("k" + std::to_string(count - 1)), Value(count - 1));
    EXPECT_TRUE(entries[0].first.isNil());  // moved out
  }

  std::vector<Value> elements{Value("a"), Value::array({Value(1)})};
  Value inner = elements[1];
  Value a = Value::arrayMovingFrom(elements, true);
  EXPECT_TRUE(elements[0].isNil());
  EXPECT_TRUE(a.isMutable());
  EXPECT_TRUE(Value::identical(a[1], inner));
  a.append(Value("grown"));
  EXPECT_EQ(a.size(), 3u);
}

TEST(ValueTest, BuildingFromTextChildren) {
  for (int count : {3, 20}) {       // below and above the indexing threshold
    std::vector<std::string> keys;  // the texts outlive the build
    for (int i = 0; i < count; ++i) keys.push_back("k" + std::to_string(i));
    std::vector<Value::ChildEntry> entries;
    for (const auto& k : keys)
      entries.emplace_back(Value::Child::string(k), Value::Child::string("v"));
    entries.emplace_back(Value("k1"), Value::Child::string("last"));  // a value key repeats a text
    entries.emplace_back(Value::Child::string("k2"), Value(2));       // a text key repeats one
    entries.emplace_back(Value::Child::string("gone"), Value());      // nil values are dropped
    entries.emplace_back(Value(7), Value::Child::string("number key"));
    Value d = Value::dictionaryFromChildren(entries);
    ASSERT_EQ(d.size(), static_cast<size_t>(count) + 1) << count;
    EXPECT_EQ(d.items()[1].first, Value("k1"));
    EXPECT_EQ(d.get("k1"), Value("last"));
    EXPECT_EQ(d.get("k2"), Value(2));
    EXPECT_TRUE(d.get("gone").isNil());
    EXPECT_EQ(d.get(Value(7)), Value("number key"));
    EXPECT_EQ(d.get("k0"), Value("v"));
    EXPECT_EQ(d.items().back().first, Value(7));
  }

  // Strings past the per-string and per-container limits get nodes of their
  // own; every one reads back.
  std::vector<std::string> texts;
  for (int i = 0; i < 300; ++i) texts.push_back(std::string(i % 7 == 0 ? 2000 : i, 'a' + i % 26));
  std::vector<Value::Child> elements;
  for (const auto& t : texts) elements.push_back(Value::Child::string(t));
  elements.emplace_back(Value::array({Value(1)}));
  Value a = Value::arrayFromChildren(elements, true);
  ASSERT_EQ(a.size(), texts.size() + 1);
  for (size_t i = 0; i < texts.size(); ++i) ASSERT_EQ(a[i].str(), texts[i]) << i;
  EXPECT_EQ(a[texts.size()], Value::array({Value(1)}));
}

TEST(ValueTest, StringsOutliveTheContainerTheyWereBuiltIn) {
  // The sanitizer build checks that neither the strings nor the shared
  // allocation are freed early or leaked, whichever handle goes last.
  std::vector<Value::Child> elements{Value::Child::string("first"), Value::Child::string("second"),
                                     Value::Child::string("third")};
  Value kept;
  Value moved = Value::mutableArray();
  {
    Value a = Value::arrayFromChildren(elements, true);
    kept = a[0];
    moved.append(a[1]);
    a.replace(1, Value("replaced"));  // the container lets go of one string early
    a.append(Value(kept));            // and holds another twice
  }
  EXPECT_EQ(kept.str(), "first");
  EXPECT_EQ(moved[0].str(), "second");
  moved.clear();
  EXPECT_EQ(kept.str(), "first");

  std::vector<Value::ChildEntry> entries;
  entries.emplace_back(Value::Child::string("key"), Value::Child::string("value"));
  Value d = Value::dictionaryFromChildren(entries);
  Value key = d.items()[0].first;
  std::thread other([copy = d] {});  // a handle dropped on another thread
  other.join();
  d = Value();
  EXPECT_EQ(key.str(), "key");
}

TEST(ValueTest, HandlesAreSharedAcrossThreads) {
  // Copies made and dropped on two threads while a third handle holds the
  // node: the count must end where it started (the sanitizer build checks
  // for a double free or a leak).
  Value shared = Value::array({Value("payload")});
  auto churn = [&] {
    for (int i = 0; i < 20000; ++i) {
      Value copy = shared;
      Value inner = copy[0];
      ASSERT_EQ(inner.str(), "payload");
    }
  };
  std::thread t(churn);
  churn();
  t.join();
  Value last = shared;
  shared = Value();
  EXPECT_EQ(last[0], Value("payload"));
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

TEST(DecimalTest, ConvertsToTheNearestDoubleAndComparesAcrossScales) {
  // Short mantissas take an exact shortcut, long ones the general path;
  // both must give the double the text parses to.
  for (const char* text : {"0.30246765271873366", "9007199254740993", "-1.5e-7", "123.456",
                           "12345678901234567890123456789012345678", "1e-320", "-7e400", "0",
                           "4.9406564584124654e-324", "1.7976931348623157e308"}) {
    EXPECT_EQ(Decimal::parse(text)->toDouble(), std::strtod(text, nullptr)) << text;
  }
  auto compare = [](const char* a, const char* b) {
    return Decimal::parse(a)->compare(*Decimal::parse(b));
  };
  EXPECT_EQ(compare("1.50", "1.5"), 0);
  EXPECT_LT(compare("0.30246765271873366", "0.5"), 0);
  EXPECT_GT(
      compare("12345678901234567890123456789012345678", "1234567890123456789012345678901234567.7"),
      0);
  EXPECT_LT(compare("-100", "-99.999"), 0);
  EXPECT_GT(compare("1e-5", "0"), 0);
  EXPECT_EQ(compare("-0", "0"), 0);
}

}  // namespace
}  // namespace quillon
