#include "quillon/base/json.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>

namespace quillon {
namespace {

Value mustRead(std::string_view text, JSONReadOptions options = {}) {
  Error error;
  Value v = readJSON(text, &error, options);
  EXPECT_FALSE(error) << text << ": " << error.description();
  return v;
}

void expectReadError(std::string_view text, std::string_view fragment = {},
                     JSONReadOptions options = {}) {
  Error error;
  Value v = readJSON(text, &error, options);
  EXPECT_TRUE(v.isNil()) << text;
  EXPECT_EQ(error.domain(), kCocoaErrorDomain) << text;
  EXPECT_EQ(error.code(), kJSONErrorCode) << text;
  EXPECT_NE(error.localizedDescription().find(fragment), std::string::npos)
      << text << " gave " << error.localizedDescription();
}

TEST(JSONReadTest, ScalarKindsAndNumbers) {
  Value v = mustRead(R"([1, -7, 2.5, 1.0, 1e2, true, false, null, "é\u00e9\n",
                        9223372036854775807, -9223372036854775808,
                        9223372036854775808, 123456789012345678901234567890])");
  ASSERT_EQ(v.size(), 13u);
  EXPECT_EQ(v[0].kind(), Value::Kind::Integer);
  EXPECT_EQ(v[1].intValue(), -7);
  EXPECT_EQ(v[2].kind(), Value::Kind::Float64);
  EXPECT_EQ(v[2].doubleValue(), 2.5);
  EXPECT_EQ(v[3].kind(), Value::Kind::Float64);  // a fraction makes it a double
  EXPECT_EQ(v[4].kind(), Value::Kind::Float64);
  EXPECT_EQ(v[4].doubleValue(), 100.0);
  EXPECT_EQ(v[5].kind(), Value::Kind::Boolean);
  EXPECT_TRUE(v[5].boolValue());
  EXPECT_FALSE(v[6].boolValue());
  EXPECT_TRUE(v[7].isNull());
  EXPECT_EQ(v[8].str(), "é\xC3\xA9\n");
  EXPECT_EQ(v[9].kind(), Value::Kind::Integer);  // even beside v[12], which is widened
  EXPECT_EQ(v[9].intValue(), INT64_MAX);
  EXPECT_EQ(v[10].intValue(), INT64_MIN);
  // Integers past int64 become doubles rather than errors.
  EXPECT_EQ(v[11].kind(), Value::Kind::Float64);
  EXPECT_EQ(v[11].doubleValue(), 9223372036854775808.0);
  EXPECT_EQ(v[12].kind(), Value::Kind::Float64);
  EXPECT_DOUBLE_EQ(v[12].doubleValue(), 1.2345678901234568e29);
  // A long digit run inside a string is left alone by that widening.
  EXPECT_EQ(mustRead(R"(["12345678901234567890123", 12345678901234567890123])")[0].str(),
            "12345678901234567890123");
  // Top-level scalars are accepted.
  EXPECT_EQ(mustRead(" 42 ").intValue(), 42);
}

TEST(JSONReadTest, ObjectsKeepDocumentOrderAndLastDuplicate) {
  Value v = mustRead(R"({"z":1,"a":2,"m":{"y":[],"b":{}},"k1":0,"k2":0,"k3":0,"k4":0,
                        "k5":0,"k6":0,"k7":0,"a":3})");
  ASSERT_TRUE(v.isDictionary());
  std::vector<std::string> keys;
  for (const auto& [k, _] : v.items()) keys.emplace_back(k.str());
  EXPECT_EQ(keys,
            (std::vector<std::string>{"z", "a", "m", "k1", "k2", "k3", "k4", "k5", "k6", "k7"}));
  EXPECT_EQ(v.get("a").intValue(), 3);
  EXPECT_EQ(v.get("k7").intValue(), 0);  // lookups work past the indexing threshold
  EXPECT_EQ(v.get("m").items()[0].first.str(), "y");
  EXPECT_FALSE(v.isMutable());
}

TEST(JSONReadTest, ManyDistinctAndRepeatedKeys) {
  // More distinct short keys than the reader shares, repeated across
  // objects, plus long keys: every key must come back as written.
  std::string object = "{";
  for (int i = 0; i < 300; ++i) {
    object += (i ? ",\"" : "\"") + std::string(i % 3 == 0 ? 30 : 1, 'k') + std::to_string(i) +
              "\":" + std::to_string(i);
  }
  object += "}";
  Value v = mustRead("[" + object + "," + object + "]");
  ASSERT_EQ(v.size(), 2u);
  EXPECT_EQ(writeJSON(v[0]), object);
  EXPECT_EQ(writeJSON(v[1]), object);
}

TEST(JSONReadTest, MutableContainersDepthLimitAndBadInput) {
  Value v = mustRead(R"({"a":[{"b":"c"}]})", {.mutableContainers = true});
  EXPECT_TRUE(v.isMutable());
  EXPECT_TRUE(v.get("a").isMutable());
  EXPECT_TRUE(v.get("a")[0].isMutable());
  EXPECT_FALSE(v.get("a")[0].get("b").isMutable());
  v.set("new", 1);  // usable as a mutable container
  EXPECT_EQ(v.size(), 2u);

  // Depth limits.
  auto nested = [](size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); };
  EXPECT_TRUE(mustRead(nested(1000)).isArray());
  expectReadError(nested(1001), "deeper than 1000");
  expectReadError(nested(100000), "deeper than 1000");
  expectReadError(std::string(100000, '['), "");  // deep and truncated
  EXPECT_TRUE(mustRead(nested(3), {.maximumDepth = 3}).isArray());
  expectReadError(R"({"a":{"b":{"c":1}}})", "deeper than 2", {.maximumDepth = 2});
  // Larger limits are capped, and the deepest accepted text reads without
  // exhausting the stack.
  JSONReadOptions unlimited{.maximumDepth = 1000000};
  EXPECT_TRUE(mustRead(nested(kJSONMaximumDepthLimit), unlimited).isArray());
  expectReadError(nested(kJSONMaximumDepthLimit + 1), "deeper than", unlimited);

  // Other bad input.
  expectReadError("", "empty");
  expectReadError("  \n ", "empty");
  expectReadError(R"({"a": [1, 2)", "");
  expectReadError(R"({"a": "unterminated)", "");
  expectReadError(R"({"a" 1})", "");
  expectReadError("[1,]", "");
  expectReadError("[1] [2]", "");
  expectReadError("{'a': 1}", "");
  expectReadError("[tru]", "literal");
  expectReadError("[01]", "number");
  expectReadError("[1e400]", "number");
  expectReadError("[\"a\x01\"]", "control character");
  expectReadError(R"(["\q"])", "escape");
  expectReadError(R"({"a": NaN})", "");
  // Invalid UTF-8: a lone continuation byte, an overlong encoding, a surrogate.
  expectReadError("[\"ab\x80\"]", "UTF-8 at byte 4");
  expectReadError("{\"\xC0\xAF\": 1}", "UTF-8 at byte 2");
  expectReadError("\"\xED\xA0\x80\"", "UTF-8 at byte 1");
  // The error is cleared by a later success.
  Error error;
  readJSON("[", &error);
  ASSERT_TRUE(error);
  readJSON("[]", &error);
  EXPECT_FALSE(error);
}

TEST(JSONReadTest, NestedContainersAndNearlyEqualKeys) {
  // Containers interleave at every level; keys differ only in length, in a
  // NUL byte or in their last byte.
  std::string text = R"([{"a":[1,{"a":[],"a\u0000":2}],"ab":{"abcdefgh":1,"abcdefgi":2}},)"
                     R"([[],[[]],{}],"s",{"x":{"y":{"z":[true,null]}}}])";
  Value v = mustRead(text);
  EXPECT_EQ(writeJSON(v), text);
  EXPECT_EQ(v[0].get("a")[1].size(), 2u);
  EXPECT_EQ(v[0].get("a")[1].get(std::string_view("a\0", 2)).intValue(), 2);
  EXPECT_EQ(v[0].get("ab").get("abcdefgi").intValue(), 2);

  // A failed parse, and a flat array wider than the reader keeps buffers
  // for, leave nothing behind for the next document.
  Error error;
  EXPECT_TRUE(readJSON(R"([{"a":[1,2,{"b":)", &error).isNil());
  std::string wide = "[";
  for (int i = 0; i < 70000; ++i) wide += "\"s\",";
  wide += "\"end\"]";
  std::span<const uint8_t> bytes(reinterpret_cast<const uint8_t*>(wide.data()), wide.size());
  Value w = readJSON(bytes);
  EXPECT_EQ(w.size(), 70001u);
  EXPECT_EQ(w[70000].str(), "end");
  EXPECT_EQ(writeJSON(mustRead(text)), text);
}

TEST(JSONWriteTest, CompactExactText) {
  Value v = Value::dictionary({{"b", Value::array({1, -2, 2.5, 0.1, 1e300, true, Value::null()})},
                               {"a", Value::dictionary()},
                               {"c", Value::array()},
                               {"f", Value::float32(0.1f)},
                               {"d", Value::decimal(*Decimal::parse("12.50"))},
                               {"i", Value::integer(INT64_MIN)}});
  EXPECT_EQ(writeJSON(v), R"({"b":[1,-2,2.5,0.1,1e+300,true,null],"a":{},"c":[],"f":0.1,"d":12.50,)"
                          R"("i":-9223372036854775808})");
}

TEST(JSONWriteTest, PrettyExactText) {
  Value v = Value::dictionary(
      {{"a", Value::array({1, Value::dictionary({{"x", "y"}})})}, {"e", Value::array()}});
  EXPECT_EQ(writeJSON(v, JSONStyle::Pretty),
            "{\n"
            "  \"a\" : [\n"
            "    1,\n"
            "    {\n"
            "      \"x\" : \"y\"\n"
            "    }\n"
            "  ],\n"
            "  \"e\" : []\n"
            "}");
  EXPECT_EQ(writeJSON(Value::array(), JSONStyle::Pretty), "[]");
  EXPECT_EQ(writeJSON(7, JSONStyle::Pretty), "7");
}

TEST(JSONWriteTest, StringEscapingAndRoundTrips) {
  std::string s = "q\"b\\s/n\nt\tr\rb\bf\f\x01\x1f\x7f é😀";
  EXPECT_EQ(writeJSON(Value(s)), "\"q\\\"b\\\\s\\/n\\nt\\tr\\rb\\bf\\f\\u0001\\u001f\x7f é😀\"");
  // Text for people keeps "/" as it is, and still reads back the same.
  const std::string plain = writeJSON(Value(s), JSONStyle::Compact, nullptr, JSONSlashes::Plain);
  EXPECT_EQ(plain, "\"q\\\"b\\\\s/n\\nt\\tr\\rb\\bf\\f\\u0001\\u001f\x7f é😀\"");
  EXPECT_EQ(readJSON(plain).str(), s);
  // The escaped text reads back to the same bytes, including a NUL.
  std::string withNul("a\0b", 3);
  for (const std::string& text : {s, withNul}) {
    EXPECT_EQ(readJSON(writeJSON(Value(text))).str(), text);
  }

  // Whole documents round-trip through the reader.
  std::string text =
      R"({"name":"2026-11-21-04-43-59.123.A","n":[0,-1,3.141592653589793,1e-07,5e-324,)"
      R"(1.7976931348623157e+308,-0.5],"t":true,"nil":null,"nested":{"k":[[{}],[]]}})";
  Value v = mustRead(text);
  EXPECT_EQ(writeJSON(v), text);
  Value pretty = mustRead(writeJSON(v, JSONStyle::Pretty));
  EXPECT_EQ(pretty, v);
  EXPECT_EQ(writeJSON(pretty), text);
}

TEST(JSONWriteTest, HugeDoublesRoundTripBesideLongIntegers) {
  // A double past 64 bits is written as a plain run of digits, which reads
  // back only by being widened to a double; that must not widen a neighbour
  // that fits in int64 (the shortest form of 9223372036854737337.0 is
  // another integer, so the values would differ).
  Value v = mustRead("[92233723685477720368.3, 9223372036854737337, -9223372036854775807]");
  ASSERT_EQ(v.size(), 3u);
  EXPECT_EQ(v[0].kind(), Value::Kind::Float64);
  EXPECT_EQ(v[1].kind(), Value::Kind::Integer);
  EXPECT_EQ(v[1].intValue(), 9223372036854737337);
  std::string text = writeJSON(v);
  EXPECT_EQ(text, "[92233723685477728256,9223372036854737337,-9223372036854775807]");
  Value again = mustRead(text);
  EXPECT_EQ(again, v);
  ASSERT_EQ(again.size(), 3u);
  EXPECT_EQ(again[0].kind(), Value::Kind::Float64);
  EXPECT_EQ(again[1].kind(), Value::Kind::Integer);
  EXPECT_EQ(again[2].intValue(), -9223372036854775807);

  // Past int64 on either side, integers still become doubles.
  Value wide = mustRead("[9223372036854775808, -9223372036854775809, 1, 100000000000000000000]");
  EXPECT_EQ(wide[0].kind(), Value::Kind::Float64);
  EXPECT_EQ(wide[1].kind(), Value::Kind::Float64);
  EXPECT_EQ(wide[1].doubleValue(), -9223372036854775808.0);
  EXPECT_EQ(wide[2].kind(), Value::Kind::Integer);
  EXPECT_EQ(wide[3].doubleValue(), 1e20);
}

TEST(JSONWriteTest, UnwritableValuesGiveErrors) {
  Value cyclic = Value::mutableArray();
  cyclic.append(cyclic);
  Value badKey = Value::mutableDictionary();
  badKey.set(Value(1), Value(2));
  Value deep = Value::array();
  for (size_t i = 0; i < kJSONMaximumDepthLimit + 1; ++i) deep = Value::array({deep});
  const Value unwritable[] = {
      Value(),
      Value::data(std::string_view("x")),
      Value::date(0),
      Value::url(Url::fileURL("/tmp")),
      Value::set({1}),
      Value::orderedSet({1}),
      Value::object(std::make_shared<GenericObject>("C", Value::dictionary())),
      Value(std::nan("")),
      Value(INFINITY),
      Value::float32(-INFINITY),
      Value::decimal(Decimal::notANumber()),
      Value(std::string("bad \xFF utf8")),
      Value::dictionary({{"ok", Value::array({1, Value::date(0)})}}),
      badKey,
      cyclic,
      deep,
  };
  for (const Value& v : unwritable) {
    Error error;
    EXPECT_EQ(writeJSON(v, JSONStyle::Compact, &error), "") << v.description();
    EXPECT_EQ(error.code(), kJSONErrorCode);
    EXPECT_EQ(error.domain(), kCocoaErrorDomain);
    EXPECT_EQ(writeJSON(v, JSONStyle::Pretty), "");
  }
  cyclic.clear();  // break the cycle so the test does not leak
}

}  // namespace
}  // namespace quillon
