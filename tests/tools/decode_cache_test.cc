#include <gtest/gtest.h>

#include <string>

#include "quillon/base/env.h"
#include "quillon/base/json.h"
#include "quillon/base/internal/plist.h"
#include "quillon/coding/internal/dc_geometry_value.h"
#include "quillon/coding/internal/dc_index_set.h"
#include "quillon/coding/internal/dense_coder.h"
#include "quillon/coding/internal/sea_crypto.h"
#include "support/temp_dir.h"
#include "support/tool_run.h"

namespace quillon {
namespace {

using testing::ToolRun;

class DecodeCacheTest : public ::testing::Test {
 protected:
  std::string write(const std::string& name, std::span<const uint8_t> bytes) {
    std::string path = dir_.file(name);
    EXPECT_FALSE(Env::Default()->writeFileAtomically(path, bytes));
    return path;
  }
  std::string write(const std::string& name, const Value& root) {
    return write(name, DenseCoder::dataWithRootObject(root).bytes());
  }

  ToolRun tool(const std::string& arguments) { return testing::runTool(dir_, arguments); }

  TempDir dir_{"quillon-decode-cache"};
};

std::string compact(const std::string& json) {
  Error error;
  Value v = readJSON(json, &error);
  EXPECT_FALSE(error) << error.description() << "\n" << json;
  return writeJSON(v);
}

TEST_F(DecodeCacheTest, PrintsEveryKindAsJSON) {
  Value shared = Value::array({Value("s")});
  Value loop = Value::mutableArray();
  loop.append(Value(1));
  loop.append(loop);
  Url base = *Url::parse("https://example.org/base/");
  Value root = Value::mutableDictionary();
  root.set(Value("z"), Value(1));
  root.set(Value("a"), Value::array({Value(), Value::null(), Value(true), Value(-3)}));
  root.set(Value(7), Value("integer key"));
  root.set(Value("float"), Value::float32(0.1f));
  root.set(Value("double"), Value(2.5));
  root.set(Value("data"), Value::data(std::string_view("hello")));
  root.set(Value("date"), Value::date(86400.5));
  root.set(Value("decimal"), Value::decimal(*Decimal::parse("-12.5")));
  root.set(Value("url"), Value::url(*Url::parse("x/y.txt", &base)));
  root.set(Value("plainURL"), Value::url(*Url::parse("https://example.org/")));
  root.set(Value("set"), Value::set({Value("b"), Value("a")}));
  root.set(Value("oset"), Value::orderedSet({Value(3), Value(2)}));
  root.set(Value("indexes"), DCIndexSet::make({{1, 2}, {9, 1}}));
  root.set(Value("instance"), Value::dictionary({{"$class", "Gadget"}, {"size", 3}}));
  root.set(Value("coded"), Value::object(std::make_shared<GenericObject>(
                               "Legacy", Value::dictionary({{"n", Value(1)}}))));
  root.set(Value("shared"), Value::array({shared, shared}));
  root.set(Value("loop"), loop);
  // Last: geometry values shift the aliases written after them.
  root.set(Value("geometry"), Value::array({DCGeometryValue::point(1, 2),
                                            DCGeometryValue::rect(0, 0, 3, 4),
                                            DCGeometryValue::range(5, 6)}));
  std::string file = write("cache.fast", root);
  DenseCoder::breakCycles(root);

  ToolRun run = tool("decode-cache '" + file + "'");
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(compact(run.out),
            compact(R"({"z":1,"a":[null,null,true,-3],"7":"integer key","float":0.10000000149011612,)"
            R"("double":2.5,"data":{"$base64":"aGVsbG8="},"date":{"$date":86400.5},)"
            R"("decimal":{"$decimal":"-125e-1"},"url":{"$url":"x/y.txt",)"
            R"("$base":"https://example.org/base/"},"plainURL":{"$url":"https://example.org/"},)"
            R"("set":["b","a"],"oset":[3,2],"indexes":{"$indexes":[[1,2],[9,1]]},)"
            R"("instance":{"$class":"Gadget","size":3},"coded":{"$class":"Legacy","n":1},)"
            R"("shared":[["s"],["s"]],"loop":[1,{"$cycle":true}],"geometry":[{"$point":[1.0,2.0]},)"
                    R"({"$rect":[0.0,0.0,3.0,4.0]},{"$range":[5,6]}]})"));

  std::vector<uint8_t> nilRoot = {'T', 'S', 'A', 'F', 3, 0, 3, 0, 0, 0, 0, 0,
                                  0,   0,   0,   0,   0, 0, 0, 0, 0};
  run = tool("decode-cache '" + write("nil.fast", nilRoot) + "'");
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, "null\n");
}

TEST_F(DecodeCacheTest, DamagedFilesPrintTheReadersReason) {
  Value root = Value::array({Value("abc"), Value(70000)});
  auto bytes = DenseCoder::dataWithRootObject(root);
  std::vector<uint8_t> truncated(bytes.bytes().begin(), bytes.bytes().end() - 2);
  ToolRun run = tool("decode-cache '" + write("short.fast", truncated) + "'");
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, "error: Unexpected EOF when parsing object starting at 36\n");

  std::vector<uint8_t> future(bytes.bytes().begin(), bytes.bytes().end());
  future[4] = 4;
  future[6] = 0;
  run = tool("decode-cache '" + write("future.fast", future) + "'");
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err,
            "error: This version of the DenseCoding library doesn't support DenseCoding version "
            "4.0 files\n");

  // Version 2 failures come as exceptions rather than log lines.
  std::vector<uint8_t> legacy = {'T', 'S', 'A', 'F', 2, 0, 0, 0, 0, 0, 0, 0, 99, 0, 0, 0};
  run = tool("decode-cache '" + write("legacy.fast", legacy) + "'");
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "error: DenseCoding cannot decode object of type: 99\n");
}

TEST_F(DecodeCacheTest, BadArgumentsAndOtherFilesGiveOneErrorLine) {
  std::string text = write("notes.txt", std::span<const uint8_t>(
                                            reinterpret_cast<const uint8_t*>("hello there"), 11));
  ToolRun run = tool("decode-cache '" + text + "'");
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "error: " + text + " is not a DenseCoding file\n");

  run = tool("decode-cache '" + dir_.file("missing.fast") + "'");
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err.rfind("error: cannot read " + dir_.file("missing.fast") + ": ", 0), 0u)
      << run.err;

  run = tool("decode-cache '" + text + "' --package '" + dir_.path() + "'");
  EXPECT_NE(run.status, 0);
  EXPECT_EQ(run.err.rfind("error: ", 0), 0u);
  EXPECT_EQ(run.err.find('\n'), run.err.size() - 1);

  run = tool("decode-cache");
  EXPECT_NE(run.status, 0);
  EXPECT_EQ(run.err.rfind("error: ", 0), 0u);
}

TEST_F(DecodeCacheTest, EncryptedCachesOpenWithThePackagesSaltAndThePassword) {
  Value salt = SeaCrypto::generateSalt();
  Value info = Value::dictionary(
      {{"Encryption", Value::dictionary({{"Salt", salt}, {"Rounds", Value(1000)}})}});
  dir_.write("Doc.pkg/Info.plist", writePropertyListXML(info));
  SeaCrypto crypto;
  crypto.setSalt(salt);
  crypto.setRounds(Value(1000));
  ASSERT_TRUE(crypto.setPassword(Value("secret")));
  std::vector<uint8_t> sealed;
  ASSERT_TRUE(crypto.encryptBytes(
      DenseCoder::dataWithRootObject(Value::dictionary({{"uid", "A1"}})).bytes(), &sealed));
  std::string file = write("values.fast", sealed);
  std::string package = dir_.file("Doc.pkg");

  ToolRun run = tool("decode-cache '" + file + "' --package '" + package + "' --password secret");
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(compact(run.out), R"({"uid":"A1"})");

  run = tool("decode-cache '" + file + "' --package '" + package + "' --password wrong");
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "error: cannot decrypt " + file + ": wrong password or damaged file\n");

  run = tool("decode-cache '" + file + "' --package '" + dir_.path() + "' --password secret");
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err.rfind("error: cannot read " + dir_.file("Info.plist"), 0), 0u) << run.err;

  // Without the password the sealed bytes are not DenseCoding at all.
  run = tool("decode-cache '" + file + "'");
  EXPECT_EQ(run.err, "error: " + file + " is not a DenseCoding file\n");
}

}  // namespace
}  // namespace quillon
