#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "quillon/graph/predicate.h"
#include "quillon/graph/internal/predicate_node.h"

namespace quillon::predicate_internal {
namespace {

// The values a key may hold when a predicate reads it; "v" is absent from the
// first object.
std::vector<Value> sampleValues() {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double inf = std::numeric_limits<double>::infinity();
  return {Value(),
          Value::null(),
          Value(3),
          Value(4),
          Value(-1),
          Value(INT64_MAX),
          Value(2.5),
          Value(3.0),
          Value(nan),
          Value(inf),
          Value(2.5f),
          Value(true),
          Value(false),
          Value::decimal(Decimal::fromInteger(3)),
          Value("abc"),
          Value("ABC"),
          Value("École"),
          Value("e\xCC\x81"),
          Value(""),
          Value::date(3),
          Value::array({1, 3, "abc"}),
          Value::dictionary({{"k", 3}})};
}

// Compiled and interpreted evaluation agree on every operator, comparison
// option and right-hand constant against values of every kind, missing and
// nil ones included, read from dictionaries and from objects.
TEST(PredicateProgramTest, AgreesWithTheInterpreterOnEveryOperatorAndKind) {
  const char* operators[] = {"==", "!=", "<", "<=", ">", ">=", "BEGINSWITH", "ENDSWITH",
                             "CONTAINS", "LIKE", "MATCHES", "IN"};
  const char* options[] = {"", "[c]", "[d]", "[cd]"};
  const double nan = std::numeric_limits<double>::quiet_NaN();
  std::vector<Value> constants = {Value(3),   Value(-1),  Value(INT64_MAX), Value(2.5),
                                  Value(3.0), Value(nan), Value(true),      Value("abc"),
                                  Value("é"), Value("A*"), Value("a.c"),   Value(),
                                  Value::array({3, "ABC"})};
  std::vector<Value> objects;
  objects.push_back(Value::dictionary({{"w", 1}}));
  for (const Value& v : sampleValues()) {
    if (v.isNil()) continue;
    objects.push_back(Value::dictionary({{"v", v}}));
    objects.push_back(Value::object(
        std::make_shared<GenericObject>("Item", Value::dictionary({{"v", v}, {"w", 1}}))));
  }
  size_t compared = 0;
  for (const char* op : operators) {
    for (const char* option : options) {
      for (const Value& constant : constants) {
        for (const char* lhs : {"v", "SELF.v", "w"}) {
          std::string format = std::string(lhs) + " " + op + option + " %@";
          std::vector<Value> arguments = {constant};
          Error error;
          NodePtr node = parse(format, arguments, &error);
          ASSERT_TRUE(node) << format << ": " << error.localizedDescription();
          Program program(*node);
          for (const Value& object : objects) {
            EXPECT_EQ(program.evaluate(object, Value()), node->evaluate(object, Value()))
                << format << " with " << constant.description() << " on "
                << object.description();
            ++compared;
          }
        }
      }
    }
  }
  EXPECT_GT(compared, 10000u);
}

// Compounds, modifiers, variables and key paths that cross collections run
// through the same steps.
TEST(PredicateProgramTest, AgreesOnCompoundsModifiersAndVariables) {
  Value object = Value::dictionary({
      {"n", 4},
      {"s", "Straße"},
      {"items", Value::array({Value::dictionary({{"n", 1}}), Value::dictionary({{"n", 5}})})},
      {"tags", Value::set({"a", "b"})},
  });
  const char* formats[] = {
      "n > 3 AND s BEGINSWITH[c] 'st'",  "n > 5 OR s ENDSWITH 'e'",
      "NOT (n == 4)",                    "ANY items.n > 4",
      "ALL items.n > 0",                 "NONE items.n == 5",
      "items.n > 0",                     "items.@count == 2",
      "n == $X",                         "$X < n",
      "n BETWEEN {3, 5}",                "n IN {1, 4}",
      "tags CONTAINS 'a'",               "TRUEPREDICATE AND NOT FALSEPREDICATE",
      "(n < 2 OR n > 3) AND NOT (s == 'x' OR n != 4)",
      "missing == nil AND missing != 3", "items.@max.n >= 5",
  };
  for (Value variables : {Value(), Value::dictionary({{"X", 4}}), Value::dictionary({{"X", 9}})}) {
    for (const char* format : formats) {
      Error error;
      NodePtr node = parse(format, {}, &error);
      ASSERT_TRUE(node) << format << ": " << error.localizedDescription();
      EXPECT_EQ(Program(*node).evaluate(object, variables), node->evaluate(object, variables))
          << format << " with " << variables.description();
    }
  }
}

}  // namespace
}  // namespace quillon::predicate_internal
