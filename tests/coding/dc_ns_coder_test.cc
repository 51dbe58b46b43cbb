#include "quillon/coding/internal/dc_ns_coder.h"

#include <gtest/gtest.h>

#include "coding/dense_test_util.h"
#include "quillon/coding/internal/dc_ns_coding.h"
#include "quillon/coding/internal/dc_ns_decoder.h"
#include "quillon/coding/internal/dense_coder.h"

namespace quillon {
namespace {

using testing::Bytes;
using testing::bytesOf;

// A framework-style class that stores itself through keyed coding.
class Note final : public Object, public DCNSCoding {
 public:
  std::string title;
  Value tags;  // an array, or nil
  Value child;  // another Note, or nil
  bool pinned = false;
  int32_t priority = 0;
  int64_t views = 0;
  float weight = 0;
  double score = 0;
  std::vector<uint8_t> blob;

  std::string className() const override { return "TestNote"; }
  void encodeWithCoder(DCNSCoder& coder) const override {
    coder.encodeObject(Value(title), "title");
    coder.encodeObject(tags, "tags");
    coder.encodeObject(child, "child");
    coder.encodeBool(pinned, "pinned");
    coder.encodeInt32(priority, "priority");
    coder.encodeInt64(views, "views");
    coder.encodeFloat(weight, "weight");
    coder.encodeDouble(score, "score");
    coder.encodeBytes(blob, "blob");
  }
  static std::shared_ptr<Object> make(DCNSDecoder& decoder) {
    auto note = std::make_shared<Note>();
    note->title = std::string(decoder.decodeObjectForKey("title").str());
    note->tags = decoder.decodeObjectForKey("tags");
    note->child = decoder.decodeObjectForKey("child");
    note->pinned = decoder.decodeBoolForKey("pinned");
    note->priority = decoder.decodeInt32ForKey("priority");
    note->views = decoder.decodeInt64ForKey("views");
    note->weight = decoder.decodeFloatForKey("weight");
    note->score = decoder.decodeDoubleForKey("score");
    auto b = decoder.decodeBytesForKey("blob");
    note->blob.assign(b.begin(), b.end());
    note->hadTags = decoder.containsValueForKey("tags");
    return note;
  }
  bool hadTags = false;
  void forEachValue(const std::function<void(const Value&)>& visit) const override {
    visit(tags);
    visit(child);
  }
};

// Remembers every instance its factory made, to see whether it was freed.
class Probe final : public Object {
 public:
  std::string className() const override { return "TestProbe"; }
  static std::shared_ptr<Object> make(DCNSDecoder&) {
    auto probe = std::make_shared<Probe>();
    made().push_back(probe);
    return probe;
  }
  static std::vector<std::weak_ptr<Probe>>& made() {
    static std::vector<std::weak_ptr<Probe>> all;
    return all;
  }
  static size_t alive() {
    size_t n = 0;
    for (const auto& p : made()) n += !p.expired();
    return n;
  }
};

// A mutable dictionary that contains itself and a probe.
Value selfContainingWithProbe() {
  Value cycle = Value::mutableDictionary();
  cycle.set(Value("self"), cycle);
  cycle.set(Value("probe"),
            Value::object(std::make_shared<GenericObject>("TestProbe", Value::dictionary())));
  return cycle;
}

// Writes only what has already been written elsewhere.
class Pointer final : public Object, public DCNSCoding {
 public:
  Value target;
  std::string className() const override { return "TestPointer"; }
  void encodeWithCoder(DCNSCoder& coder) const override {
    coder.encodeConditionalObject(target, "target");
  }
};

class DCNSCoderTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    DCNSCoding::registerClass("TestNote", &Note::make);
    DCNSCoding::registerClass("TestProbe", &Probe::make);
  }
};

TEST_F(DCNSCoderTest, RegisteredClassRoundTripsThroughKeyedCoding) {
  auto inner = std::make_shared<Note>();
  inner->title = "inner";
  auto note = std::make_shared<Note>();
  note->title = "outer";
  note->tags = Value::array({Value("a"), Value("b")});
  note->child = Value::object(inner);
  note->pinned = true;
  note->priority = -7;
  note->views = int64_t{1} << 40;
  note->weight = 0.25f;
  note->score = 9.5;
  note->blob = {1, 2, 3, 4, 5};
  Value root = Value::array({Value::object(note), Value::object(note)});

  Value back = DenseCoder::objectWithData(DenseCoder::dataWithRootObject(root));
  ASSERT_EQ(back.size(), 2u);
  EXPECT_TRUE(Value::identical(back[0], back[1]));  // entered once, then aliased
  auto* n = back[0].objectAs<Note>();
  ASSERT_NE(n, nullptr);
  EXPECT_EQ(n->title, "outer");
  EXPECT_EQ(n->tags, note->tags);
  EXPECT_TRUE(n->hadTags);
  EXPECT_TRUE(n->pinned);
  EXPECT_EQ(n->priority, -7);
  EXPECT_EQ(n->views, int64_t{1} << 40);
  EXPECT_EQ(n->weight, 0.25f);
  EXPECT_EQ(n->score, 9.5);
  EXPECT_EQ(n->blob, note->blob);
  // The nested object was made with its own keys, and the outer ones restored.
  auto* c = n->child.objectAs<Note>();
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(c->title, "inner");
  EXPECT_FALSE(c->hadTags);  // a nil object writes nothing
  EXPECT_TRUE(c->child.isNil());
}

TEST_F(DCNSCoderTest, CodedObjectBytesAreValueThenKeyEndingWithNil) {
  auto note = std::make_shared<Note>();
  note->title = "t";
  auto bytes = bytesOf(DenseCoder::dataWithRootObject(Value::object(note)));
  Bytes expected = Bytes::header(2, 0, 9);
  expected.u8(43).u8(8).cstr("TestNote");
  expected.u8(8).cstr("t").u8(8).cstr("title");
  expected.u8(14).u8(8).cstr("pinned");
  expected.u8(46).u8(8).cstr("priority");
  expected.u8(46).u8(8).cstr("views");
  expected.u8(19).aligned<float>(0).u8(8).cstr("weight");
  expected.u8(20).aligned<double>(0).u8(8).cstr("score");
  expected.u8(21).aligned<uint32_t>(0).u8(8).cstr("blob");
  expected.u8(0);
  EXPECT_EQ(bytes, expected.vec());
}

TEST_F(DCNSCoderTest, UnregisteredClassesComeBackAsGenericObjectsAndGoBackTheSame) {
  Bytes coded = Bytes::header(1, 0, 3);
  coded.u8(43).u8(8).cstr("Elsewhere");
  coded.u8(15).u8(9).u8(8).cstr("n");
  coded.u8(8).cstr("s").u8(5).u8(2);
  auto bytes = coded.u8(0).vec();
  Value back = DenseCoder::objectWithData(bytes);
  auto* generic = back.objectAs<GenericObject>();
  ASSERT_NE(generic, nullptr);
  EXPECT_EQ(generic->className(), "Elsewhere");
  EXPECT_EQ(generic->properties().get("n"), Value(9));
  EXPECT_EQ(generic->properties().get("s"), Value("s"));
  EXPECT_EQ(bytesOf(DenseCoder::dataWithRootObject(back)), bytes);
}

TEST_F(DCNSCoderTest, ConditionalObjectsAreWrittenOnlyWhenAlreadyPresent) {
  Value shared = Value::mutableArray();
  auto present = std::make_shared<Pointer>();
  present->target = shared;
  auto absent = std::make_shared<Pointer>();
  absent->target = Value::mutableArray();
  Value root = Value::array({shared, Value::object(present), Value::object(absent)});
  Value back = DenseCoder::objectWithData(DenseCoder::dataWithRootObject(root));
  ASSERT_EQ(back.size(), 3u);
  auto* p = back[1].objectAs<GenericObject>();  // no factory registered
  auto* a = back[2].objectAs<GenericObject>();
  ASSERT_NE(p, nullptr);
  ASSERT_NE(a, nullptr);
  EXPECT_TRUE(Value::identical(p->properties().get("target"), back[0]));
  EXPECT_TRUE(a->properties().empty());
}

TEST_F(DCNSCoderTest, ClassInstancesOfRegisteredClassesAreMadeByTheirFactory) {
  Bytes instance = Bytes::header(1, 1, 0);
  instance.u8(29).cstr("TestNote").aligned<uint32_t>(2).cstr("title").cstr("views");
  instance.u8(30).u8(0).u8(8).cstr("from instance").u8(16).aligned<int16_t>(1000);
  auto bytes = instance.vec();
  Value back = DenseCoder::objectWithData(bytes);
  auto* note = back.objectAs<Note>();
  ASSERT_NE(note, nullptr);
  EXPECT_EQ(note->title, "from instance");
  EXPECT_EQ(note->views, 1000);
}

TEST_F(DCNSCoderTest, AFactoryThatThrowsFailsTheReadAndStoredFormBypassesFactories) {
  DCNSCoding::registerClass("TestBroken", [](DCNSDecoder&) -> std::shared_ptr<Object> {
    throw std::runtime_error("broken factory");
  });
  auto bytes = Bytes::header(1, 0, 1).u8(43).u8(8).cstr("TestBroken").u8(0).vec();
  testing::LogCapture log;
  EXPECT_TRUE(DenseCoder::objectWithData(bytes).isNil());
  EXPECT_EQ(DenseCoder::lastLoggedReason(), "broken factory");

  // Reading the stored form bypasses the factories.
  auto note = std::make_shared<Note>();
  note->title = "kept";
  Value data = DenseCoder::dataWithRootObject(Value::object(note));
  Value stored = DenseCoder::objectWithData(data.bytes(), DenseCoder::Objects::kStoredForm);
  auto* generic = stored.objectAs<GenericObject>();
  ASSERT_NE(generic, nullptr);
  EXPECT_EQ(generic->className(), "TestNote");
  EXPECT_EQ(generic->properties().get("title"), Value("kept"));
  EXPECT_NE(DenseCoder::objectWithData(data).objectAs<Note>(), nullptr);
}

// A cycle that the decoded root does not reach has no owner to break it, so
// the reader frees it: here a self-containing dictionary under a key that
// the class's factory never reads, and one under a key that is nil.
TEST_F(DCNSCoderTest, CyclesTheRootDoesNotReachAreFreed) {
  Probe::made().clear();
  Value unread = Value::object(std::make_shared<GenericObject>(
      "TestNote", Value::dictionary({{"title", Value("t")}, {"unread", selfContainingWithProbe()}})));
  Value cycle = selfContainingWithProbe();
  Value root = Value::mutableArray();
  root.append(unread);
  root.append(cycle);
  root.append(cycle);  // the second time as an alias
  Value back = DenseCoder::objectWithData(DenseCoder::dataWithRootObject(root));
  ASSERT_EQ(back.size(), 3u);
  ASSERT_NE(back[0].objectAs<Note>(), nullptr);
  EXPECT_EQ(back[0].objectAs<Note>()->title, "t");
  // The cycle the root reaches is the caller's, whole.
  EXPECT_TRUE(Value::identical(back[1].get("self"), back[1]));
  EXPECT_TRUE(Value::identical(back[1], back[2]));
  ASSERT_NE(back[1].get("probe").objectAs<Probe>(), nullptr);
  EXPECT_EQ(Probe::made().size(), 2u);
  EXPECT_EQ(Probe::alive(), 1u);  // the unread key's probe is gone already
  DenseCoder::breakCycles(back);
  back = Value();
  EXPECT_EQ(Probe::alive(), 0u);
  DenseCoder::breakCycles(root);

  // A mutable dictionary entry whose key is nil is dropped with its value:
  // {nil: <dictionary containing itself and a probe>}.
  Probe::made().clear();
  Bytes coded = Bytes::header(3, 0, 3);
  coded.u8(24).aligned<uint32_t>(1);                       // the root, one entry
  coded.u8(24).aligned<uint32_t>(2);                       // its value, two entries
  coded.u8(2).u8(1).u8(8).cstr("self");                    // alias to itself
  coded.u8(43).u8(8).cstr("TestProbe").u8(0).u8(8).cstr("probe");
  coded.u8(0);                                             // the root's key: nil
  Value dropped = DenseCoder::objectWithData(coded.vec());
  ASSERT_TRUE(dropped.isDictionary()) << DenseCoder::lastLoggedReason();
  EXPECT_TRUE(dropped.empty());
  EXPECT_EQ(Probe::made().size(), 1u);
  EXPECT_EQ(Probe::alive(), 0u);
}

}  // namespace
}  // namespace quillon
