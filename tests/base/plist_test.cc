#include "quillon/base/internal/plist.h"

#include <gtest/gtest.h>
#include <plist/plist.h>

#include <cmath>
#include <random>
#include <string>

namespace quillon {
namespace {

std::span<const uint8_t> asBytes(std::string_view s) {
  return {reinterpret_cast<const uint8_t*>(s.data()), s.size()};
}

Value mustRead(std::string_view text) {
  Error error;
  Value v = readPropertyList(asBytes(text), &error);
  EXPECT_FALSE(error) << error.description();
  return v;
}

constexpr std::string_view kXML = R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0">
<dict>
	<key>zeta</key>
	<string>Z &amp; é</string>
	<key>alpha</key>
	<integer>-42</integer>
	<key>real</key>
	<real>2.5</real>
	<key>yes</key>
	<true/>
	<key>no</key>
	<false/>
	<key>when</key>
	<date>2026-11-21T04:43:59Z</date>
	<key>before</key>
	<date>2000-12-31T23:59:59Z</date>
	<key>blob</key>
	<data>AAEC/w==</data>
	<key>list</key>
	<array>
		<integer>1</integer>
		<dict/>
		<array/>
	</array>
</dict>
</plist>
)";

TEST(PropertyListTest, ReadsXMLKindsInOrder) {
  Value v = mustRead(kXML);
  ASSERT_TRUE(v.isDictionary());
  EXPECT_EQ(v.keys()[0], Value("zeta"));  // insertion order, not sorted
  EXPECT_EQ(v,
            Value::dictionary({{"zeta", "Z & é"},
                               {"alpha", -42},
                               {"real", 2.5},
                               {"yes", true},
                               {"no", false},
                               {"when", Value::date(816929039)},
                               {"before", Value::date(-1)},
                               {"blob", Value::data(std::string_view("\x00\x01\x02\xFF", 4))},
                               {"list", Value::array({1, Value::dictionary(), Value::array()})}}));
  // Numbers compare across kinds, so the kinds are checked on their own.
  EXPECT_EQ(v.get("alpha").kind(), Value::Kind::Integer);
  EXPECT_EQ(v.get("real").kind(), Value::Kind::Float64);
  EXPECT_EQ(v.get("yes").kind(), Value::Kind::Boolean);
  EXPECT_EQ(v.get("when").kind(), Value::Kind::Date);
}

TEST(PropertyListTest, WritesXMLThatReadsBack) {
  Value v = Value::dictionary({{"b", Value("<tag> & \"quotes\" é")},
                               {"a", Value::integer(-7)},
                               {"max", Value::integer(INT64_MAX)},
                               {"r", Value(0.1)},
                               {"f", Value::float32(1.5f)},
                               {"t", Value(true)},
                               {"d", Value::date(816929039.75)},
                               {"old", Value::date(-992490140)},
                               {"bytes", Value::data(std::string_view("\x00\xFFhi", 4))},
                               {"nested", Value::array({Value::dictionary({{"k", "v"}})})}});
  Error error;
  std::string xml = writePropertyListXML(v, &error);
  ASSERT_FALSE(error) << error.description();
  EXPECT_TRUE(xml.starts_with("<?xml version=\"1.0\" encoding=\"UTF-8\"?>")) << xml;
  EXPECT_NE(xml.find("&lt;tag&gt; &amp;"), std::string::npos) << xml;
  EXPECT_NE(xml.find("<date>2026-11-21T04:43:59Z</date>"), std::string::npos) << xml;
  EXPECT_NE(xml.find("<data>"), std::string::npos) << xml;
  Value back = mustRead(xml);
  // Dates keep whole seconds only; everything else comes back equal.
  Value expected = v.mutableCopy();
  expected.set("d", Value::date(816929039));
  EXPECT_EQ(back, expected) << back.description();
  EXPECT_EQ(writePropertyListXML(back), xml);
  EXPECT_EQ(back.items()[0].first.str(), "b");
}

TEST(PropertyListTest, ReadsBinary) {
  plist_t dict = plist_new_dict();
  plist_dict_set_item(dict, "name", plist_new_string("note"));
  plist_dict_set_item(dict, "count", plist_new_uint(12));
  plist_dict_set_item(dict, "when", plist_new_date(100, 0));
  plist_dict_set_item(dict, "ref", plist_new_uid(7));
  plist_dict_set_item(dict, "bytes", plist_new_data("ab", 2));
  plist_dict_set_item(dict, "on", plist_new_bool(1));
  char* bin = nullptr;
  uint32_t length = 0;
  plist_to_bin(dict, &bin, &length);
  plist_free(dict);
  ASSERT_NE(bin, nullptr);
  std::string binary(bin, length);
  free(bin);
  ASSERT_TRUE(binary.starts_with("bplist00"));

  Value v = mustRead(binary);
  EXPECT_EQ(v, Value::dictionary({{"name", "note"},
                                  {"count", 12},
                                  {"when", Value::date(100)},
                                  {"ref", 7},
                                  {"bytes", Value::data(std::string_view("ab"))},
                                  {"on", true}}))
      << v.description();
  EXPECT_EQ(v.get("when").kind(), Value::Kind::Date);

  // Every truncation and many single-byte corruptions either read or fail
  // with an error; none may crash (the sanitizer build checks memory too).
  for (size_t cut = 0; cut < binary.size(); ++cut) {
    Error error;
    Value partial = readPropertyList(asBytes(std::string_view(binary).substr(0, cut)), &error);
    EXPECT_EQ(partial.isNil(), static_cast<bool>(error));
  }
  std::mt19937 rng(7);
  for (int round = 0; round < 2000; ++round) {
    std::string damaged = binary;
    damaged[8 + rng() % (damaged.size() - 8)] = static_cast<char>(rng());
    Error error;
    Value result = readPropertyList(asBytes(damaged), &error);
    EXPECT_EQ(result.isNil(), static_cast<bool>(error));
  }
}

TEST(PropertyListTest, MalformedInputGivesErrors) {
  std::string deep = "<plist version=\"1.0\">";
  for (int i = 0; i < 100000; ++i) deep += "<array>";
  const std::string bad[] = {
      "",
      "not a plist",
      "<plist version=\"1.0\"><dict><key>a</key><string>x</dict></plist>",
      "<plist version=\"1.0\"><array><integer>1</integer>",
      std::string("<plist version=\"1.0\"><dict><key>a\0b</key><true/></dict></plist>", 63),
      "<plist version=\"1.0\"><date>2100-01-01T00:00:00Z</date></plist>",
      "bplist00",
      std::string("bplist00\xD1\x01\x02", 11),
      deep,
  };
  for (const std::string& text : bad) {
    Error error;
    Value v = readPropertyList(asBytes(text), &error);
    EXPECT_TRUE(v.isNil()) << text.substr(0, 80) << " read as " << v.description();
    EXPECT_EQ(error.domain(), kCocoaErrorDomain);
    EXPECT_EQ(error.code(), kPropertyListReadCorruptError);
    EXPECT_FALSE(error.localizedDescription().empty());
  }
  // Damaged XML never crashes either.
  std::string xml(kXML);
  std::mt19937 rng(11);
  for (int round = 0; round < 1000; ++round) {
    std::string damaged = xml;
    for (int k = 0; k < 3; ++k) damaged[rng() % damaged.size()] = "<>/&;x\0"[rng() % 7];
    Error error;
    Value result = readPropertyList(asBytes(damaged), &error);
    EXPECT_EQ(result.isNil(), static_cast<bool>(error));
  }
}

TEST(PropertyListTest, UnwritableValuesGiveErrors) {
  Value badKey = Value::mutableDictionary();
  badKey.set(Value(1), Value(2));
  Value cyclic = Value::mutableArray();
  cyclic.append(cyclic);
  const Value unwritable[] = {
      Value(),
      Value::null(),
      Value::url(Url::fileURL("/tmp")),
      Value::set({1}),
      Value::orderedSet({1}),
      Value::object(std::make_shared<GenericObject>("C", Value::dictionary())),
      Value(std::nan("")),
      Value::date(1e12),
      Value::dictionary({{"ok", Value::array({1, Value::null()})}}),
      badKey,
      cyclic,
  };
  for (const Value& v : unwritable) {
    Error error;
    EXPECT_EQ(writePropertyListXML(v, &error), "") << v.description();
    EXPECT_EQ(error.code(), kPropertyListWriteInvalidError) << v.description();
  }
  cyclic.clear();
}

}  // namespace
}  // namespace quillon
