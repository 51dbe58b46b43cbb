// DenseCoding encode and decode of cache-shaped trees, beside msgpack packing
// the same Value trees and unpacking them to Values, in the same run.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>

#include "bench_support.h"
#include "quillon/coding/internal/dense_coder.h"

#ifdef QUILLON_HAVE_MSGPACK_CXX
#include <msgpack.hpp>
#endif

namespace quillon {
namespace {

// 1000 cache items of 10 attributes each, keyed by uid; the attribute keys
// repeat in every item, as in a value shard of the local cache.
Value cacheTree() {
  Value shard = Value::mutableDictionary();
  for (int i = 0; i < 1000; ++i) {
    Value item = Value::mutableDictionary();
    item.set(Value("title"), Value("Note number " + std::to_string(i)));
    item.set(Value("created"), Value::date(700000000.0 + i * 61.5));
    item.set(Value("modified"), Value::date(700100000.0 + i * 7.25));
    item.set(Value("count"), Value(i * 37 % 5000));
    item.set(Value("flagged"), Value(i % 3 == 0));
    item.set(Value("score"), Value(i * 0.125));
    item.set(Value("kind"), Value(i % 2 ? "task" : "note"));
    item.set(Value("tags"), Value::array({Value("inbox"), Value("t" + std::to_string(i % 17))}));
    item.set(Value("body"), Value("Some text of a typical length for a short note, item " +
                                  std::to_string(i)));
    item.set(Value("folder"), Value("F" + std::to_string(i % 25)));
    char uid[40];
    std::snprintf(uid, sizeof uid, "3F2504E0-4F89-11D3-9A0C-%012d", i);
    shard.set(Value(uid), item);
  }
  return shard;
}

// About 1 MB of change dictionaries, as the cache's change log keeps them.
Value changeLog() {
  Value log = Value::mutableArray();
  for (int c = 0; c < 700; ++c) {
    char name[96];
    std::snprintf(name, sizeof name, "2026-01-%02d-10-%02d-%02d.%03d.6B1D2C3A-0000-4000-8000-%012d",
                  c % 28 + 1, c % 60, (c * 7) % 60, c % 1000, c);
    Value inserts = Value::dictionary();
    Value notes = Value::dictionary();
    for (int k = 0; k < 4; ++k) {
      char uid[40];
      std::snprintf(uid, sizeof uid, "A1B2C3D4-0000-4000-8000-%012d", c * 4 + k);
      notes.set(Value(uid),
                Value::dictionary({{"title", Value::dictionary({{"value", "Title " + std::to_string(k)}})},
                                   {"rank", Value::dictionary({{"value", Value(k * 10)}})},
                                   {"folder", Value::dictionary({{"addedValues",
                                                                  Value::array({Value("Folder/F1")})}})}}));
    }
    inserts.set(Value("Note"), notes);
    Value changes = Value::dictionary({{"insert", inserts},
                                       {"update", Value::dictionary()},
                                       {"delete", Value::dictionary()}});
    Value session = Value::dictionary({{"userName", "alice"},
                                       {"fullUserName", "Alice Example"},
                                       {"machineName", "workstation"},
                                       {"id", "9D0F3A1E-0000-4000-8000-000000000001"},
                                       {"version", "0.1.0"},
                                       {"osVersion", "Debian GNU/Linux 12"}});
    log.append(Value::dictionary({{"name", Value(std::string(name))},
                                  {"date", Value::date(720000000.0 + c)},
                                  {"changes", changes},
                                  {"session", session},
                                  {"previousName", c ? Value("previous") : Value::null()}}));
  }
  return log;
}

const Value& tree(int which) {
  static const Value cache = cacheTree();
  static const Value changes = changeLog();
  return which == 0 ? cache : changes;
}

const char* treeName(int which) { return which == 0 ? "cache" : "changes"; }

void BM_DenseEncode(benchmark::State& state) {
  const Value& root = tree(static_cast<int>(state.range(0)));
  size_t size = 0;
  for (auto _ : state) {
    auto bytes = DenseCoder::encode(root);
    size = bytes.size();
    benchmark::DoNotOptimize(bytes.data());
  }
  state.counters["bytes"] = static_cast<double>(size);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * size));
  state.SetLabel(treeName(static_cast<int>(state.range(0))));
}

void BM_DenseDecode(benchmark::State& state) {
  auto bytes = DenseCoder::encode(tree(static_cast<int>(state.range(0))));
  for (auto _ : state) {
    Value v = DenseCoder::objectWithData(bytes);
    benchmark::DoNotOptimize(v);
  }
  state.counters["bytes"] = static_cast<double>(bytes.size());
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
  state.SetLabel(treeName(static_cast<int>(state.range(0))));
}

BENCHMARK(BM_DenseEncode)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_DenseDecode)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);

#ifdef QUILLON_HAVE_MSGPACK_CXX

// The peer: every Value kind packed to its nearest msgpack form (dates as
// extension 1 with the seconds as a double), and unpacked back to Values.
void pack(msgpack::packer<msgpack::sbuffer>& p, const Value& v) {
  switch (v.kind()) {
    case Value::Kind::Nil:
    case Value::Kind::Null: p.pack_nil(); return;
    case Value::Kind::Boolean: v.boolValue() ? p.pack_true() : p.pack_false(); return;
    case Value::Kind::Integer: p.pack_int64(v.intValue()); return;
    case Value::Kind::Float32: p.pack_float(v.floatValue()); return;
    case Value::Kind::Float64: p.pack_double(v.doubleValue()); return;
    case Value::Kind::Decimal: {
      std::string s = v.decimalValue().toString();
      p.pack_str(static_cast<uint32_t>(s.size()));
      p.pack_str_body(s.data(), static_cast<uint32_t>(s.size()));
      return;
    }
    case Value::Kind::String: {
      auto s = v.str();
      p.pack_str(static_cast<uint32_t>(s.size()));
      p.pack_str_body(s.data(), static_cast<uint32_t>(s.size()));
      return;
    }
    case Value::Kind::Data: {
      auto b = v.bytes();
      p.pack_bin(static_cast<uint32_t>(b.size()));
      p.pack_bin_body(reinterpret_cast<const char*>(b.data()), static_cast<uint32_t>(b.size()));
      return;
    }
    case Value::Kind::Date: {
      double d = v.dateValue();
      p.pack_ext(8, 1);
      p.pack_ext_body(reinterpret_cast<const char*>(&d), 8);
      return;
    }
    case Value::Kind::Url: {
      std::string s = v.urlValue().absoluteString();
      p.pack_str(static_cast<uint32_t>(s.size()));
      p.pack_str_body(s.data(), static_cast<uint32_t>(s.size()));
      return;
    }
    case Value::Kind::Array:
    case Value::Kind::Set:
    case Value::Kind::OrderedSet:
      p.pack_array(static_cast<uint32_t>(v.size()));
      for (const auto& e : v.elements()) pack(p, e);
      return;
    case Value::Kind::Dictionary:
      p.pack_map(static_cast<uint32_t>(v.size()));
      for (const auto& [k, val] : v.items()) {
        pack(p, k);
        pack(p, val);
      }
      return;
    case Value::Kind::Object: p.pack_nil(); return;
  }
}

Value unpack(const msgpack::object& o) {
  switch (o.type) {
    case msgpack::type::NIL: return Value::null();
    case msgpack::type::BOOLEAN: return Value(o.via.boolean);
    case msgpack::type::POSITIVE_INTEGER: return Value::integer(static_cast<int64_t>(o.via.u64));
    case msgpack::type::NEGATIVE_INTEGER: return Value::integer(o.via.i64);
    case msgpack::type::FLOAT32: return Value::float32(static_cast<float>(o.via.f64));
    case msgpack::type::FLOAT64: return Value::float64(o.via.f64);
    case msgpack::type::STR: return Value::string(std::string_view(o.via.str.ptr, o.via.str.size));
    case msgpack::type::BIN:
      return Value::data(std::span<const uint8_t>(
          reinterpret_cast<const uint8_t*>(o.via.bin.ptr), o.via.bin.size));
    case msgpack::type::EXT: {
      double d = 0;
      if (o.via.ext.type() == 1 && o.via.ext.size == 8) std::memcpy(&d, o.via.ext.data(), 8);
      return Value::date(d);
    }
    case msgpack::type::ARRAY: {
      std::vector<Value> elements;
      elements.reserve(o.via.array.size);
      for (uint32_t i = 0; i < o.via.array.size; ++i) elements.push_back(unpack(o.via.array.ptr[i]));
      return Value::array(std::move(elements));
    }
    case msgpack::type::MAP: {
      Value d = Value::dictionary();
      d.reserve(o.via.map.size);
      for (uint32_t i = 0; i < o.via.map.size; ++i) {
        d.set(unpack(o.via.map.ptr[i].key), unpack(o.via.map.ptr[i].val));
      }
      return d;
    }
  }
  return Value();
}

void BM_MsgpackEncode(benchmark::State& state) {
  const Value& root = tree(static_cast<int>(state.range(0)));
  size_t size = 0;
  for (auto _ : state) {
    msgpack::sbuffer buffer;
    msgpack::packer<msgpack::sbuffer> packer(buffer);
    pack(packer, root);
    size = buffer.size();
    benchmark::DoNotOptimize(buffer.data());
  }
  state.counters["bytes"] = static_cast<double>(size);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * size));
  state.SetLabel(treeName(static_cast<int>(state.range(0))));
}

void BM_MsgpackDecode(benchmark::State& state) {
  msgpack::sbuffer buffer;
  msgpack::packer<msgpack::sbuffer> packer(buffer);
  pack(packer, tree(static_cast<int>(state.range(0))));
  for (auto _ : state) {
    msgpack::object_handle handle = msgpack::unpack(buffer.data(), buffer.size());
    Value v = unpack(handle.get());
    benchmark::DoNotOptimize(v);
  }
  state.counters["bytes"] = static_cast<double>(buffer.size());
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * buffer.size()));
  state.SetLabel(treeName(static_cast<int>(state.range(0))));
}

BENCHMARK(BM_MsgpackEncode)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_MsgpackDecode)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);

#endif  // QUILLON_HAVE_MSGPACK_CXX

// One line per tree and direction with the time and size ratios of
// DenseCoding to msgpack (below 1 means DenseCoding wins).
void printRatios(const bench::RatioReporter& reporter) {
  for (const char* direction : {"Encode", "Decode"}) {
    for (int which = 0; which < 2; ++which) {
      std::string suffix = "/" + std::to_string(which);
      std::string dense = std::string("BM_Dense") + direction + suffix;
      std::string peer = std::string("BM_Msgpack") + direction + suffix;
      double denseTime = reporter.cpuTime(dense), peerTime = reporter.cpuTime(peer);
      if (denseTime <= 0 || peerTime <= 0) continue;
      double denseBytes = reporter.counter(dense, "bytes");
      double peerBytes = reporter.counter(peer, "bytes");
      std::printf(
          "dense/msgpack %s %-7s time %.2f (%.0f us vs %.0f us)  size %.2f (%.0f vs %.0f bytes)\n",
          direction, treeName(which), denseTime / peerTime, denseTime, peerTime,
          denseBytes / peerBytes, denseBytes, peerBytes);
    }
  }
}

}  // namespace
}  // namespace quillon

int main(int argc, char** argv) {
  return quillon::bench::runBenchmarks(argc, argv, quillon::printRatios);
}
