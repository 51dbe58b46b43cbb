#include "quillon/coding/internal/dense_coder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "coding/dense_test_util.h"
#include "quillon/base/error.h"
#include "quillon/coding/internal/dc_geometry_value.h"
#include "quillon/coding/internal/dc_index_set.h"

namespace quillon {
namespace {

using testing::Bytes;
using testing::bytesOf;
using ::testing::HasSubstr;
using testing::LogCapture;

std::vector<uint8_t> encode(const Value& v) { return bytesOf(DenseCoder::dataWithRootObject(v)); }

Value decode(const std::vector<uint8_t>& bytes) { return DenseCoder::objectWithData(bytes); }

uint32_t headerCount(const std::vector<uint8_t>& b, size_t at) {
  uint32_t v;
  std::memcpy(&v, b.data() + at, 4);
  return v;
}

// Decoding must fail and log exactly this reason.
void expectFailure(const std::vector<uint8_t>& bytes, const std::string& reason) {
  LogCapture log;
  EXPECT_TRUE(decode(bytes).isNil());
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(log.lines()[0], reason);
  EXPECT_EQ(DenseCoder::lastLoggedReason(), reason);
}

TEST(DenseCoderTest, NilEmptyArrayAndScalars) {
  EXPECT_TRUE(DenseCoder::dataWithRootObject(Value()).isNil());
  auto expected = Bytes::header(1, 0, 0).u8(10).aligned<uint32_t>(0).vec();
  auto bytes = encode(Value::array());
  EXPECT_EQ(bytes.size(), 28u);
  EXPECT_EQ(bytes, expected);
  Value back = decode(bytes);
  EXPECT_TRUE(back.isArray());
  EXPECT_TRUE(back.empty());

  // Integers are narrowed and aligned.
  EXPECT_EQ(encode(Value(300)), Bytes::header(0, 0, 0).u8(16).aligned<int16_t>(300).vec());
  EXPECT_EQ(encode(Value(70000)), Bytes::header(0, 0, 0).u8(17).aligned<int32_t>(70000).vec());
  EXPECT_EQ(encode(Value(1)), Bytes::header(0, 0, 0).u8(45).vec());
  EXPECT_EQ(encode(Value(0)), Bytes::header(0, 0, 0).u8(46).vec());
  EXPECT_EQ(encode(Value(-128)), Bytes::header(0, 0, 0).u8(15).u8(0x80).vec());
  EXPECT_EQ(encode(Value(-32769)), Bytes::header(0, 0, 0).u8(17).aligned<int32_t>(-32769).vec());
  int64_t big = int64_t{1} << 40;
  EXPECT_EQ(encode(Value(big)), Bytes::header(0, 0, 0).u8(18).aligned<int64_t>(big).vec());
  // The int16 sits on an even offset: one byte of padding after the code.
  EXPECT_EQ(encode(Value(300)).size(), 24u);
  for (int64_t v : {int64_t{0}, int64_t{1}, int64_t{-1}, int64_t{127}, int64_t{128}, int64_t{-129},
                    int64_t{32768}, int64_t{INT32_MIN}, INT64_MAX, INT64_MIN}) {
    Value back = decode(encode(Value(v)));
    EXPECT_TRUE(back.isInteger()) << v;
    EXPECT_EQ(back.intValue(), v);
  }

  // Booleans and floats keep their kinds; floats are never narrowed.
  EXPECT_EQ(encode(Value(true)), Bytes::header(0, 0, 0).u8(13).vec());
  EXPECT_EQ(encode(Value(false)), Bytes::header(0, 0, 0).u8(14).vec());
  EXPECT_EQ(encode(Value(2.5)), Bytes::header(0, 0, 0).u8(20).aligned<double>(2.5).vec());
  EXPECT_EQ(encode(Value(2.5)).size(), 32u);
  // Floats are never narrowed, not even when integral.
  EXPECT_EQ(encode(Value(3.0f)), Bytes::header(0, 0, 0).u8(19).aligned<float>(3.0f).vec());
  EXPECT_TRUE(decode(encode(Value(true))).isBool());
  EXPECT_EQ(decode(encode(Value(1.0f))).kind(), Value::Kind::Float32);
  EXPECT_EQ(decode(encode(Value(1.0))).kind(), Value::Kind::Float64);
}

TEST(DenseCoderTest, RepeatedStringsBecomeAliases) {
  Value a = Value::array({Value("ab"), Value("ab")});
  auto expected =
      Bytes::header(1, 0, 1).u8(10).aligned<uint32_t>(2).u8(8).cstr("ab").u8(5).u8(0).vec();
  EXPECT_EQ(encode(a), expected);

  Value m = Value::mutableString("x");
  auto mutableBytes = encode(Value::array({m, m}));
  auto mutableExpected =
      Bytes::header(2, 0, 0).u8(10).aligned<uint32_t>(2).u8(23).cstr("x").u8(2).u8(0).vec();
  EXPECT_EQ(mutableBytes, mutableExpected);
  Value back = decode(mutableBytes);
  EXPECT_TRUE(back[0].isMutable());
  EXPECT_TRUE(Value::identical(back[0], back[1]));
}

TEST(DenseCoderTest, WideAliasesAreUsedPastTheNarrowRange) {
  Value array = Value::array(true);
  for (int i = 0; i < 70000; ++i) array.append(Value("s" + std::to_string(i)));
  array.append(Value("s300"));
  array.append(Value("s69999"));
  auto bytes = encode(array);
  // The tail: a 16-bit string alias (code 6), then a 32-bit one (code 7).
  uint32_t last;
  std::memcpy(&last, bytes.data() + bytes.size() - 4, 4);
  EXPECT_EQ(last, 69999u);
  size_t code = bytes.size() - 5;
  while (bytes[code] == 0) --code;  // padding before the 32-bit index
  EXPECT_EQ(bytes[code], 7);
  EXPECT_GE(code, bytes.size() - 8);
  Value back = decode(bytes);
  ASSERT_EQ(back.size(), 70002u);
  EXPECT_EQ(back[70000], Value("s300"));
  EXPECT_EQ(back[70001], Value("s69999"));
}

TEST(DenseCoderTest, ImmutableContainersEnterTheTableAfterTheirContents) {
  Value x = Value::data(std::string_view("xyz"), true);
  Value d = Value::dictionary({{"k", x}});
  Value root = Value::mutableArray();
  root.append(d);
  root.append(d);
  root.append(x);
  auto bytes = encode(root);
  // Tables: root 0, x 1 (entered with its bytes), d 2 (after its contents).
  EXPECT_EQ(headerCount(bytes, 8), 3u);
  EXPECT_EQ(bytes[bytes.size() - 4], 2);
  EXPECT_EQ(bytes[bytes.size() - 3], 2);
  EXPECT_EQ(bytes[bytes.size() - 2], 2);
  EXPECT_EQ(bytes[bytes.size() - 1], 1);
  Value back = decode(bytes);
  EXPECT_TRUE(Value::identical(back[0], back[1]));
  EXPECT_TRUE(Value::identical(back[0].get("k"), back[2]));
  EXPECT_FALSE(back[0].isMutable());
  EXPECT_TRUE(back[2].isMutable());
}

TEST(DenseCoderTest, SelfContainingMutableArraySurvivesARoundTrip) {
  Value a = Value::mutableArray();
  a.append(Value("first"));
  a.append(a);
  Value d = Value::mutableDictionary();
  d.set(Value("self"), d);
  a.append(d);
  auto bytes = encode(a);
  Value back = decode(bytes);
  ASSERT_TRUE(back.isArray());
  ASSERT_EQ(back.size(), 3u);
  EXPECT_EQ(back[0], Value("first"));
  EXPECT_TRUE(Value::identical(back[1], back));
  EXPECT_TRUE(Value::identical(back[2].get("self"), back[2]));
  // Writing the copy again gives the same bytes.
  EXPECT_EQ(encode(back), bytes);
  DenseCoder::breakCycles(back);
  DenseCoder::breakCycles(a);
}

TEST(DenseCoderTest, KindsAndMutableFlagsRoundTripDataIsPaddedDatesFrom2001) {
  Value root = Value::dictionary({
      {"set", Value::set({Value(1), Value("two")})},
      {"mset", Value::set({Value(3)}, true)},
      {"oset", Value::orderedSet({Value("b"), Value("a")})},
      {"moset", Value::orderedSet({Value("c")}, true)},
      {"marr", Value::array({Value::null(), Value()}, true)},
      {"data", Value::data(std::string_view("\x00\x01\x02", 3))},
      {"mdata", Value::data(std::string_view("m"), true)},
      {"mstr", Value::mutableString("ms")},
      {"empty", Value("")},
      {"date", Value::date(-12.25)},
      {"mdict", Value::mutableDictionary()},
  });
  Value back = decode(encode(root));
  EXPECT_EQ(back, root);
  for (const auto& [k, v] : root.items()) {
    EXPECT_EQ(back.get(k).kind(), v.kind()) << k.str();
    EXPECT_EQ(back.get(k).isMutable(), v.isMutable()) << k.str();
  }
  EXPECT_EQ(back.get("oset")[0], Value("b"));
  EXPECT_TRUE(back.get("marr")[1].isNil());

  // Data is padded; dates are seconds since 2001.
  auto bytes = encode(Value::data(std::string_view("abc")));
  auto expected = Bytes::header(1, 0, 0).u8(21).aligned<uint32_t>(3).cstr("abc").vec();
  EXPECT_EQ(bytes, expected);
  EXPECT_EQ(bytes.size(), 32u);
  EXPECT_EQ(encode(Value::date(10.5)), Bytes::header(1, 0, 0).u8(48).aligned<double>(10.5).vec());
  // The 1970-based form is still read.
  auto legacy = Bytes::header(1, 0, 0).u8(22).aligned<double>(978307200.0 + 7).vec();
  EXPECT_EQ(decode(legacy), Value::date(7));
}

TEST(DenseCoderTest, DecimalsAlignToTwentyAndRoundTrip) {
  Value d = Value::decimal(*Decimal::parse("-12.50"));
  auto bytes = encode(d);
  ASSERT_EQ(bytes.size(), 60u);  // code at 20, padding to 40, 20 bytes
  EXPECT_EQ(bytes[20], 44);
  uint32_t word;
  std::memcpy(&word, bytes.data() + 40, 4);
  EXPECT_EQ(static_cast<int8_t>(word & 0xff), -2);
  EXPECT_EQ((word >> 8) & 0xf, 1u);  // one mantissa word
  EXPECT_EQ((word >> 12) & 1, 1u);   // negative
  EXPECT_EQ(bytes[44] | (bytes[45] << 8), 1250);
  for (const char* text : {"0", "1e5", "0.001", "123456789012345678901234567890", "-7"}) {
    Value v = Value::decimal(*Decimal::parse(text));
    Value back = decode(encode(v));
    EXPECT_TRUE(back.isDecimal()) << text;
    EXPECT_EQ(back, v) << text;
  }
  Value nan = decode(encode(Value::decimal(Decimal::notANumber())));
  EXPECT_TRUE(nan.decimalValue().nan);
}

TEST(DenseCoderTest, UrlsGoToTheStringTable) {
  Url base = *Url::parse("https://example.org/dir/");
  Value url = Value::url(*Url::parse("file.txt", &base));
  Value root = Value::array({url, url, Value("file.txt")});
  auto bytes = encode(root);
  // Strings: "file.txt" 0, "https://example.org/dir/" 1, base URL 2, url 3.
  EXPECT_EQ(headerCount(bytes, 16), 4u);
  Value back = decode(bytes);
  ASSERT_TRUE(back[0].isUrl());
  EXPECT_EQ(back[0].urlValue().relativeString(), "file.txt");
  ASSERT_NE(back[0].urlValue().baseURL(), nullptr);
  EXPECT_EQ(back[0].urlValue().baseURL()->absoluteString(), "https://example.org/dir/");
  EXPECT_TRUE(Value::identical(back[0], back[1]));
  EXPECT_EQ(back[2], Value("file.txt"));
}

TEST(DenseCoderTest, GeometryValuesAndIndexSetsRoundTrip) {
  Value root =
      Value::array({DCGeometryValue::point(1, 2), DCGeometryValue::size(3, 4),
                    DCGeometryValue::rect(1, 2, 3, 4), DCGeometryValue::range(uint64_t{1} << 40, 5),
                    DCGeometryValue::vector(-1, 0.5), DCGeometryValue::affine(1, 0, 0, 1, 10, 20),
                    DCIndexSet::make({{1, 3}, {10, 2}}), DCIndexSet::make({{4, 1}}, true)});
  Value back = decode(encode(root));
  ASSERT_EQ(back.size(), root.size());
  for (size_t i = 0; i < root.size(); ++i) EXPECT_EQ(back[i], root[i]) << i;
  EXPECT_TRUE(back[7].objectAs<DCIndexSet>()->isMutable());
  EXPECT_FALSE(back[6].objectAs<DCIndexSet>()->isMutable());
}

TEST(DenseCoderTest, ThreeDTransformsReadBackUnderTheirArrayType) {
  std::array<double, 16> m{};
  for (size_t i = 0; i < 16; ++i) m[i] = static_cast<double>(i);
  Value back = decode(encode(DCGeometryValue::transform3D(m)));
  auto* g = back.objectAs<DCGeometryValue>();
  ASSERT_NE(g, nullptr);
  EXPECT_EQ(g->typeEncoding(), "[16d]");
  EXPECT_EQ(g->numbers(), m);
  // The writer knows only struct type texts, so the read form does not go back.
  for (const auto& [value, type] :
       {std::pair{back, "[16d]"}, std::pair{DCGeometryValue::other("{Foo=i}"), "{Foo=i}"}}) {
    try {
      DenseCoder::dataWithRootObject(Value::array({value}));
      ADD_FAILURE() << "expected an exception for " << type;
    } catch (const Exception& e) {
      EXPECT_EQ(e.name(), "DenseCodingException");
      EXPECT_EQ(e.reason(), std::string("Unable to encode NSValue data of type ") + type);
    }
  }
}

// Geometry values enter the writer's object table but not the reader's, so a
// later alias is one too high: kept on purpose, the framework stores none.
TEST(DenseCoderTest, GeometryValuesShiftLaterAliasesAsTheFormatDoes) {
  Value shared = Value::mutableString("s");
  Value root = Value::array({DCGeometryValue::point(0, 0), shared, shared});
  auto bytes = encode(root);
  EXPECT_EQ(headerCount(bytes, 8), 3u);  // point, shared, root
  expectFailure(bytes, "Attempted to read cache object at index 1, but cache object count is 1");
}

TEST(DenseCoderTest, AliasDictionariesStandForAValueElsewhereInTheGraph) {
  Value target = Value::mutableArray();
  target.append(Value(5));
  Value root = Value::dictionary({
      {"items", Value::array({Value("zero"), target})},
      {"ref", Value::dictionary({{"$alias", "items.1"}})},
      {"missing", Value::dictionary({{"$alias", "items.9.x"}})},
  });
  Value back = decode(encode(root));
  EXPECT_TRUE(Value::identical(back.get("ref"), back.get("items")[1]));
  EXPECT_FALSE(back.find("missing"));  // nil values are not kept
}

TEST(DenseCoderTest, UnknownClassReadsBackAsClassDictionaryAndWritesTheSameDefinition) {
  Bytes b = Bytes::header(3, 1, 1);
  b.u8(25).aligned<uint32_t>(2);                                           // an array of two
  b.u8(29).cstr("Gadget").aligned<uint32_t>(2).cstr("name").cstr("size");  // the class
  b.u8(30).u8(0).u8(8).cstr("dial").u8(16).aligned<int16_t>(400);
  b.u8(30).u8(0).u8(5).u8(0).u8(0);  // the same name by alias, no size
  auto bytes = b.vec();
  Value back = decode(bytes);
  ASSERT_TRUE(back.isArray());
  ASSERT_EQ(back.size(), 2u);
  Value gadget = back[0];
  EXPECT_TRUE(gadget.isDictionary());
  EXPECT_TRUE(gadget.isMutable());
  EXPECT_EQ(gadget.get("$class"), Value("Gadget"));
  EXPECT_EQ(gadget.get("name"), Value("dial"));
  EXPECT_EQ(gadget.get("size"), Value(400));
  EXPECT_FALSE(back[1].find("size"));  // a nil property is absent
  EXPECT_EQ(encode(back), bytes);
}

TEST(DenseCoderTest, ClassDictionariesWithNewKeysGetAWiderDefinition) {
  Value a = Value::dictionary({{"$class", "Thing"}, {"x", 1}});
  Value b = Value::dictionary({{"$class", "Thing"}, {"x", 2}, {"y", 3}});
  Value back = decode(encode(Value::array({a, b, a})));
  ASSERT_EQ(back.size(), 3u);
  EXPECT_EQ(back[0].get("x"), Value(1));
  EXPECT_EQ(back[1].get("y"), Value(3));
  EXPECT_TRUE(Value::identical(back[0], back[2]));
}

// A large tree with every kind the writer tables: strings repeated and wide
// enough to need 16- and 32-bit aliases, shared mutable and immutable
// containers, repeated dates, data, decimals, URLs, sets, class dictionaries
// and a boxed value.
Value variedTree() {
  Value sharedMutable = Value::mutableArray();
  sharedMutable.append(Value("shared"));
  Value sharedImmutable = Value::dictionary({{"k", Value(1)}});
  Value root = Value::mutableArray();
  for (int i = 0; i < 70000; ++i) {
    Value item = i % 2 ? Value::mutableDictionary() : Value::dictionary();
    item.set(Value("title"), Value("Title " + std::to_string(i % 5000)));
    item.set(Value("unique"), Value("u" + std::to_string(i)));
    item.set(Value("when"), Value::date(700000000.0 + i % 300));
    item.set(Value("n"), Value(static_cast<int64_t>(i) * (i % 3 ? 1 : 100003) - 5000));
    item.set(Value("f"), i % 4 ? Value(i * 0.5) : Value::float32(static_cast<float>(i)));
    if (i % 50 == 0) {
      item.set(Value("blob"),
               Value::data(std::string(static_cast<size_t>(i % 7), 'x'), i % 100 == 0));
      item.set(Value("amount"), Value::decimal(*Decimal::parse(std::to_string(i) + ".25")));
      item.set(Value("link"),
               Value::url(*Url::parse("https://example.com/" + std::to_string(i % 9))));
      item.set(Value("tags"), Value::set({Value("a"), Value(i % 11)}));
      item.set(Value("order"), Value::orderedSet({Value("z"), Value("y")}, i % 100 == 0));
      item.set(Value("shared"), i % 100 ? sharedMutable : sharedImmutable);
      item.set(Value("note"), Value::mutableString("edit " + std::to_string(i % 3)));
      item.set(Value("class"), Value::dictionary({{"$class", Value("Unknown")},
                                                  {"x", Value(i)},
                                                  {i % 200 ? "y" : "w", Value::null()}}));
    }
    root.append(item);
  }
  // Last: the reader does not count boxed values, so they shift the aliases
  // that follow them.
  root.append(DCGeometryValue::point(1, -1));
  return root;
}

uint64_t fnv1a(const std::vector<uint8_t>& bytes) {
  uint64_t h = 0xcbf29ce484222325ULL;
  for (uint8_t b : bytes) h = (h ^ b) * 0x100000001b3ULL;
  return h;
}

TEST(DenseCoderTest, LargeVariedTreeEncodesToTheKnownBytes) {
  // The format is fixed: a change in these bytes breaks files already
  // written, whatever the tables inside the writer do.
  Value tree = variedTree();
  std::vector<uint8_t> bytes = encode(tree);
  EXPECT_EQ(bytes.size(), 3600600u);
  EXPECT_EQ(fnv1a(bytes), 4123107890491409466ULL);
  Value back = decode(bytes);
  ASSERT_EQ(back.size(), tree.size());
  EXPECT_EQ(back[tree.size() - 1], tree[tree.size() - 1]);
  for (size_t i = 0; i + 1 < tree.size(); ++i) {
    for (const auto& [k, v] : tree[i].items()) ASSERT_EQ(back[i].get(k), v) << i << " " << k.str();
  }
}

TEST(DenseCoderTest, VersionsAndIdentifiers) {
  LogCapture log;
  EXPECT_TRUE(decode({1, 2, 3}).isNil());
  EXPECT_TRUE(decode(Bytes().raw<uint32_t>(0x12345678).raw<uint32_t>(3).vec()).isNil());
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(decode(Bytes::header(0, 0, 0, 3, 0).u8(45).vec()), Value(1));
  EXPECT_TRUE(decode(Bytes::header(0, 0, 0, 4, 0).u8(45).vec()).isNil());
  EXPECT_TRUE(decode(Bytes::header(0, 0, 0, 1, 7).u8(45).vec()).isNil());
  EXPECT_THAT(log.lines(),
              ::testing::ElementsAre("This version of the DenseCoding library doesn't support "
                                     "DenseCoding version 4.0 files",
                                     "This version of the DenseCoding library doesn't support "
                                     "DenseCoding version 1.7 files"));
}

TEST(DenseCoderTest, TruncatedDataGivesNilAndLogsWhereTheReadBegan) {
  expectFailure(Bytes::header(0, 0, 0).u8(17).u8(0).vec(),
                "Unexpected EOF when parsing object starting at 24");
  expectFailure(Bytes::header(0, 0, 0).vec(), "Unexpected EOF when parsing object starting at 20");
  expectFailure(Bytes::header(0, 0, 1).u8(8).u8('a').vec(),
                "Unexpected EOF when parsing object starting at 21");

  Value rich = Value::dictionary({{"a", Value::array({Value(1.5), Value("x"), Value(300)})},
                                  {"b", Value::data(std::string_view("12345"), true)},
                                  {"c", Value::decimal(*Decimal::parse("1.5"))}});
  auto bytes = encode(rich);
  LogCapture log;
  for (size_t n = 0; n + 3 < bytes.size(); ++n) {
    std::vector<uint8_t> prefix(bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(n));
    EXPECT_TRUE(decode(prefix).isNil()) << n;
    if (n >= 8) {
      EXPECT_THAT(DenseCoder::lastLoggedReason(), HasSubstr("Unexpected EOF")) << n;
    }
  }
}

TEST(DenseCoderTest, HostileInputFailsWithAClearReason) {
  expectFailure(Bytes::header(0, 0, 0).u8(2).u8(0).vec(),
                "Attempted to read cache object at index 0, but cache object count is 0");
  expectFailure(Bytes::header(0, 0, 0).u8(10).aligned<uint32_t>(1).u8(7).aligned<uint32_t>(9).vec(),
                "Attempted to read cache object at index 9, but cache object count is 0");
  expectFailure(Bytes::header(0, 0, 0).u8(49).vec(),
                "DenseCoding cannot decode object of type: 49");
  expectFailure(Bytes::header(0, 0, 0).u8(255).vec(),
                "DenseCoding cannot decode object of type: 255");
  expectFailure(Bytes::header(0, 0, 0).u8(47).aligned<uint32_t>(0).vec(),
                "DenseCoding cannot decode object of type: 47");
  // Huge counts in a short buffer are refused before anything is sized.
  Bytes huge = Bytes::header(0xffffffff, 0xffffffff, 0xffffffff);
  huge.u8(10).aligned<uint32_t>(0xfffffff0).u8(45);
  expectFailure(huge.vec(), "Unexpected EOF when parsing object starting at 24");
  expectFailure(Bytes::header(0, 0, 0).u8(21).aligned<uint32_t>(1000).u8(1).vec(),
                "Unexpected EOF when parsing object starting at 28");
  expectFailure(Bytes::header(0, 0, 0).u8(41).aligned<uint32_t>(2).aligned<uint32_t>(1).vec(),
                "Unexpected EOF when parsing object starting at 24");
  expectFailure(Bytes::header(0, 0, 0).u8(30).u8(3).vec(),
                "Attempted to read cache object at index 3, but cache object count is 0");
  expectFailure(Bytes::header(0, 0, 0).u8(8).u8(0xff).u8(0xfe).u8(0).vec(),
                "DenseCoding cannot decode a string that is not UTF-8 at 21");
  // A coded object's class name must be a string.
  expectFailure(Bytes::header(0, 0, 0).u8(43).u8(45).u8(0).vec(),
                "DenseCoding cannot decode object of type: 43");
}

TEST(DenseCoderTest, DeepNestingIsRefused) {
  Bytes deep = Bytes::header(0, 0, 0);
  for (int i = 0; i < 100000; ++i) deep.u8(25).aligned<uint32_t>(1);
  deep.u8(45);
  LogCapture log;
  EXPECT_TRUE(decode(deep.vec()).isNil());
  EXPECT_THAT(DenseCoder::lastLoggedReason(), HasSubstr("nested deeper than 512 levels"));

  // Chains of class definitions nest too.
  Bytes chain = Bytes::header(0, 0, 0);
  for (int i = 0; i < 2000; ++i) chain.u8(29).cstr("C").aligned<uint32_t>(0);
  EXPECT_TRUE(decode(chain.vec()).isNil());
  EXPECT_THAT(DenseCoder::lastLoggedReason(), HasSubstr("nested deeper"));

  Value v = Value(1);
  for (int i = 0; i < 600; ++i) v = Value::array({v});
  EXPECT_THROW(DenseCoder::dataWithRootObject(v), Exception);
  Value selfish = Value::array();  // an immutable array that holds itself
  selfish.append(selfish);
  EXPECT_THROW(DenseCoder::dataWithRootObject(selfish), Exception);
  selfish.clear();
}

TEST(DenseCoderTest, CyclicOrIncompleteSetMembersAreRefusedNotCompared) {
  // mutable array A = [alias A]; set {A, B} where B = [alias B]: comparing A
  // with B would never end.
  Bytes cyclic = Bytes::header(0, 0, 0);
  cyclic.u8(11).aligned<uint32_t>(2);
  cyclic.u8(25).aligned<uint32_t>(1).u8(2).u8(0);
  cyclic.u8(25).aligned<uint32_t>(1).u8(2).u8(1);
  auto bytes = cyclic.vec();
  LogCapture log;
  EXPECT_TRUE(decode(bytes).isNil());
  EXPECT_THAT(DenseCoder::lastLoggedReason(), HasSubstr("as a set member or key"));
  // A mutable array whose set holds the array while it is still being read.
  Bytes open = Bytes::header(0, 0, 0);
  open.u8(25).aligned<uint32_t>(1).u8(26).aligned<uint32_t>(1).u8(2).u8(0);
  EXPECT_TRUE(decode(open.vec()).isNil());
  // Plain sets of small collections still work.
  Value fine = Value::set({Value::array({Value(1)}), Value::array({Value(2)})});
  EXPECT_EQ(decode(encode(fine)), fine);
}

TEST(DenseCoderTest, PropertyListReadingAcceptsOnlyPlainValues) {
  Value plain = Value::dictionary({{"a", Value::array({Value(1), Value::null()})},
                                   {"u", Value::url(*Url::parse("https://x.org/"))}});
  EXPECT_EQ(DenseCoder::propertyListWithData(DenseCoder::dataWithRootObject(plain)), plain);
  LogCapture log;
  Value gadget = Value::dictionary({{"$class", "Gadget"}, {"a", 1}});
  EXPECT_TRUE(DenseCoder::propertyListWithData(DenseCoder::dataWithRootObject(gadget)).isNil());
  EXPECT_EQ(DenseCoder::lastLoggedReason(), "DenseCoding cannot decode object of type: 29");
  EXPECT_TRUE(DenseCoder::propertyListWithData(Bytes::header(0, 0, 0).u8(0).vec()).isNil());
  EXPECT_EQ(DenseCoder::lastLoggedReason(), "DenseCoding cannot decode object of type: 0");
  EXPECT_TRUE(decode(Bytes::header(0, 0, 0).u8(0).vec()).isNil());  // nil itself, no failure
}

}  // namespace
}  // namespace quillon
