#include "quillon/coding/value_transformer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <limits>
#include <set>
#include <string>
#include <vector>

#include "quillon/base/error.h"
#include "quillon/base/internal/uuid.h"
#include "support/scoped_time_zone.h"

namespace quillon {
namespace {

std::string chosen(std::string_view valueClass, int64_t type, const Value& version = Value()) {
  return QuillonValueTransformerForAttribute(valueClass, type, version)->className();
}

using testing::ScopedTimeZone;

// A transformer that only says who it is, for lookup-order tests.
class NamedTransformer : public ValueTransformer {
 public:
  explicit NamedTransformer(std::string name) : name_(std::move(name)) {}
  std::string className() const override { return name_; }
  Value transformedValue(const Value& v) const override { return v; }
  Value reverseTransformedValue(const Value& v) const override { return v; }

 private:
  std::string name_;
};

TEST(ValueTransformerLookupTest, ChoosesByValueClassTypeAndVersion) {
  EXPECT_EQ(chosen("NSString", 700), "QuillonNSStringValueTransformer");
  EXPECT_EQ(chosen("NSNumber", 100), "QuillonNSNumberValueTransformer");
  EXPECT_EQ(chosen("NSNumber", 300, Value("2")), "QuillonNSNumberValueTransformer");
  EXPECT_EQ(chosen("NSNumber", 800), "QuillonNSNumber800ValueTransformer");
  EXPECT_EQ(chosen("NSNumber", 800, Value("2")), "QuillonNSNumber800ValueTransformer");
  EXPECT_EQ(chosen("NSDecimalNumber", 400), "QuillonNSDecimalNumberValueTransformer");
  EXPECT_EQ(chosen("NSDate", 900, Value("3")), "QuillonNSDateValueTransformer");
  EXPECT_EQ(chosen("NSDate", 900, Value("2")), "QuillonNSDateValueTransformer2");
  EXPECT_EQ(chosen("NSDate", 900, Value(2)), "QuillonNSDateValueTransformer2");  // "%@" of 2
  EXPECT_EQ(chosen("NSData", 1000), "QuillonNSDataValueTransformer");

  // One instance per class, shared by every lookup.
  EXPECT_EQ(QuillonValueTransformerForAttribute("NSDate", 900, Value("2")),
            ValueTransformer::valueTransformerForName("QuillonNSDateValueTransformer2"));
  EXPECT_EQ(ValueTransformer::valueTransformerForName("QuillonNSUUIDValueTransformer"), nullptr);
}

TEST(ValueTransformerLookupTest, MissingTransformerNamesTheFourthNameTried) {
  struct Case {
    const char* valueClass;
    int64_t type;
    Value version;
    const char* reason;
  };
  const Case cases[] = {
      {"NSUUID", 1100, Value(), "Not found: QuillonNSUUIDValueTransformer"},
      {"NSUUID", 1100, Value("2"), "Not found: QuillonNSUUIDValueTransformer"},
      {"NSURL", 1200, Value("3"), "Not found: QuillonNSURLValueTransformer"},
      {"", 1800, Value(), "Not found: QuillonValueTransformer"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.valueClass);
    try {
      QuillonValueTransformerForAttribute(c.valueClass, c.type, c.version);
      ADD_FAILURE() << "no exception";
    } catch (const Exception& e) {
      EXPECT_EQ(e.name(), "No Transformer");
      EXPECT_EQ(e.reason(), c.reason);
    }
  }
}

TEST(ValueTransformerLookupTest, EarlierNamesWinAndRegistrationsTakeEffectAtOnce) {
  // A value class nobody else uses, filled from the least to the most
  // specific name; each registration must override earlier (cached) answers.
  auto add = [](const std::string& name) {
    ValueTransformer::setValueTransformer(std::make_shared<NamedTransformer>(name), name);
  };
  add("QuillonLookupOrderValueTransformer");
  EXPECT_EQ(chosen("LookupOrder", 42, Value("7")), "QuillonLookupOrderValueTransformer");
  add("QuillonLookupOrderValueTransformer7");
  EXPECT_EQ(chosen("LookupOrder", 42, Value("7")), "QuillonLookupOrderValueTransformer7");
  EXPECT_EQ(chosen("LookupOrder", 42), "QuillonLookupOrderValueTransformer");
  add("QuillonLookupOrder42ValueTransformer");
  EXPECT_EQ(chosen("LookupOrder", 42, Value("7")), "QuillonLookupOrder42ValueTransformer");
  EXPECT_EQ(chosen("LookupOrder", 43, Value("7")), "QuillonLookupOrderValueTransformer7");
  add("QuillonLookupOrder42ValueTransformer7");
  EXPECT_EQ(chosen("LookupOrder", 42, Value("7")), "QuillonLookupOrder42ValueTransformer7");
  EXPECT_EQ(chosen("LookupOrder", 42, Value("8")), "QuillonLookupOrder42ValueTransformer");

  // A registered instance shadows a class of the same name until removed.
  add("QuillonNSStringValueTransformer");
  EXPECT_EQ(ValueTransformer::valueTransformerForName("QuillonNSStringValueTransformer")
                ->transformedValue(Value(5)),
            Value(5));
  ValueTransformer::setValueTransformer(nullptr, "QuillonNSStringValueTransformer");
  EXPECT_NE(dynamic_cast<QuillonNSStringValueTransformer*>(
                QuillonValueTransformerForAttribute("NSString", 700).get()),
            nullptr);
}

TEST(ValueTransformerTest, NilStaysNilEverywhere) {
  for (const char* name : {"QuillonNSStringValueTransformer", "QuillonNSNumberValueTransformer",
                           "QuillonNSDecimalNumberValueTransformer",
                           "QuillonNSNumber800ValueTransformer", "QuillonNSDateValueTransformer",
                           "QuillonNSDateValueTransformer2", "QuillonNSDataValueTransformer"}) {
    SCOPED_TRACE(name);
    auto transformer = ValueTransformer::valueTransformerForName(name);
    ASSERT_NE(transformer, nullptr);
    EXPECT_EQ(transformer->className(), name);
    EXPECT_TRUE(transformer->transformedValue(Value()).isNil());
    EXPECT_TRUE(transformer->reverseTransformedValue(Value()).isNil());
  }
}

TEST(ValueTransformerTest, NumbersAreWrittenAsTheirDescriptionText) {
  QuillonNSNumberValueTransformer t;
  struct Case {
    Value number;
    const char* text;
  };
  const Case cases[] = {
      {Value(42), "42"},
      {Value(-7), "-7"},
      {Value(std::numeric_limits<int64_t>::min()), "-9223372036854775808"},
      {Value(3.5), "3.5"},
      {Value(-0.25), "-0.25"},
      {Value(100.0), "100"},
      {Value(0.1), "0.1"},
      {Value(1.0 / 3), "0.3333333333333333"},
      {Value(1e20), "1e+20"},
      {Value(1e-7), "1e-07"},
      {Value::float32(0.1f), "0.1"},
      {Value(true), "1"},
      {Value::decimal(*Decimal::parse("1.50")), "1.5"},
      {Value::decimal(*Decimal::parse("12e2")), "1200"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    Value written = t.reverseTransformedValue(c.number);
    ASSERT_TRUE(written.isString());
    EXPECT_EQ(written.str(), c.text);
    Value read = t.transformedValue(written);
    ASSERT_TRUE(read.isDecimal());
    if (c.number.kind() == Value::Kind::Float32) {
      EXPECT_EQ(read.floatValue(), c.number.floatValue());  // 0.1f is not 0.1
    } else {
      EXPECT_EQ(read.doubleValue(), c.number.doubleValue());
    }
  }
  // Decimals keep what a double cannot.
  Value big = Value::decimal(*Decimal::parse("12345678901234567890.123456789"));
  EXPECT_EQ(t.transformedValue(t.reverseTransformedValue(big)), big);
}

TEST(ValueTransformerTest, NumberTextIsReadAsADecimalOrNotANumber) {
  QuillonNSDecimalNumberValueTransformer t;
  EXPECT_EQ(t.transformedValue(Value("42")), Value(42));
  EXPECT_TRUE(t.transformedValue(Value("42")).isDecimal());
  EXPECT_EQ(t.transformedValue(Value("1.5")), Value(1.5));
  EXPECT_EQ(t.transformedValue(Value("-0.25")), Value(-0.25));
  for (const char* bad : {"", "abc", "1,5", "--1", "1e", "nan"}) {
    SCOPED_TRACE(bad);
    Value read = t.transformedValue(Value(bad));
    ASSERT_TRUE(read.isDecimal());
    EXPECT_TRUE(read.decimalValue().nan);
  }
  // A hand-edited record holding a JSON number still reads as that number;
  // other JSON kinds read as not-a-number rather than failing.
  EXPECT_EQ(t.transformedValue(Value(7)), Value(7));
  EXPECT_TRUE(t.transformedValue(Value::array()).decimalValue().nan);

  // Booleans stay booleans.
  QuillonNSNumber800ValueTransformer b;
  EXPECT_TRUE(b.reverseTransformedValue(Value(true)).isBool());
  EXPECT_FALSE(b.transformedValue(Value(false)).boolValue());
  EXPECT_TRUE(b.transformedValue(Value(false)).isBool());
}

TEST(ValueTransformerTest, DatesAreWrittenInGMTOrTheLocalZoneAndReadToTheSameInstant) {
  ScopedTimeZone zone("QTZ-01:30");   // a fixed zone 90 minutes east of GMT
  const double date = 636527167.089;  // 2021-03-04 05:06:07.089 GMT
  QuillonNSDateValueTransformer gmt;
  QuillonNSDateValueTransformer2 local;

  Value gmtText = gmt.reverseTransformedValue(Value::date(date));
  Value localText = local.reverseTransformedValue(Value::date(date));
  EXPECT_EQ(gmtText, Value("2021-03-04T05:06:07.089+0000"));
  EXPECT_EQ(localText, Value("2021-03-04T06:36:07.089+0130"));
  for (const ValueTransformer* reader :
       {static_cast<const ValueTransformer*>(&gmt), static_cast<const ValueTransformer*>(&local)}) {
    for (const Value& text : {gmtText, localText}) {
      Value read = reader->transformedValue(text);
      ASSERT_TRUE(read.isDate()) << text.str();
      EXPECT_NEAR(read.dateValue(), date, 1e-6);
    }
  }
  for (const char* bad : {"", "yesterday", "2021-03-04", "2021-13-04T05:06:07.089+0000"}) {
    EXPECT_TRUE(gmt.transformedValue(Value(bad)).isNil()) << bad;
  }
  EXPECT_TRUE(gmt.transformedValue(Value(12)).isNil());
  EXPECT_TRUE(gmt.reverseTransformedValue(Value("2021-03-04T05:06:07.089+0000")).isNil());
}

TEST(ValueTransformerTest, BinaryValuesGetAFreshFileNameOnEveryWrite) {
  QuillonNSDataValueTransformer t;
  Value bytes = Value::data(std::string_view("payload"));
  std::set<std::string> names;
  for (int i = 0; i < 20; ++i) {
    Value name = t.reverseTransformedValue(bytes);
    ASSERT_TRUE(name.isString());
    EXPECT_TRUE(isUUIDString(name.str())) << name.str();
    EXPECT_EQ(std::string(name.str()).find_first_of("abcdef"), std::string::npos);
    names.insert(std::string(name.str()));
  }
  EXPECT_EQ(names.size(), 20u);
  EXPECT_EQ(t.transformedValue(Value(*names.begin())), Value(*names.begin()));
}

}  // namespace
}  // namespace quillon
