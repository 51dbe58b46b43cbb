#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "quillon/base/value.h"
#include "quillon/coding/internal/dc_class_definition.h"

namespace quillon {

// The writer of one DenseCoding run: turns a value graph into version 3.3
// bytes, writing each shared container, data, date and object once and
// aliases afterwards. DCNSCoding objects store themselves through its keyed
// operations. Made, used and dropped by one thread for one call
// (DenseCoder::dataWithRootObject); raises quillon::Exception named
// "DenseCodingException" for values it cannot write.
class DCNSCoder {
 public:
  explicit DCNSCoder(const Value& rootObject);
  ~DCNSCoder();
  DCNSCoder(const DCNSCoder&) = delete;
  DCNSCoder& operator=(const DCNSCoder&) = delete;

  // Writes the header, the root and everything it reaches, patches the table
  // counts and answers the bytes. Call once.
  std::vector<uint8_t> encodeRootObject();

  // Writes one complete value (the per-kind writer).
  void encodeValue(const Value& value);

  // Keyed coding for DCNSCoding objects: each writes the value, then the key.
  bool allowsKeyedCoding() const { return true; }
  // Writes nothing for a nil object.
  void encodeObject(const Value& object, std::string_view key);
  // Writes the pair only when the object has already been written.
  void encodeConditionalObject(const Value& object, std::string_view key);
  void encodeBool(bool value, std::string_view key);
  void encodeInt(int value, std::string_view key);
  void encodeInteger(int64_t value, std::string_view key);
  void encodeInt32(int32_t value, std::string_view key);
  void encodeInt64(int64_t value, std::string_view key);
  void encodeFloat(float value, std::string_view key);
  void encodeDouble(double value, std::string_view key);
  void encodeBytes(std::span<const uint8_t> bytes, std::string_view key);

 private:
  // Open-addressing slots of the identity map (object table), the date map
  // and the string-equality map (string table); index is table index + 1. A
  // slot is free unless it carries the current run's generation, so tables
  // kept from an earlier run start empty at no cost.
  struct ObjectSlot {
    uint64_t key;
    uint32_t index;
    uint32_t generation;
  };
  struct StringSlot {
    uint64_t hash;
    uint32_t begin;  // offset of the text in the arena
    uint32_t length;
    uint32_t index;
    uint32_t generation;
  };
  // The tables' storage. A thread keeps one set between runs, so that a run
  // neither grows its tables from nothing nor faults their pages in again; a
  // run nested in another (a coded object that encodes a value of its own)
  // gets a set of its own.
  struct Tables {
    std::vector<ObjectSlot> objects;
    std::vector<ObjectSlot> dates;  // by the date's bits
    std::vector<StringSlot> strings;
    std::string arena;  // the string table's texts
    // Object-table entries not yet in the table: identity, index + 1.
    std::vector<std::pair<const void*, uint32_t>> pending;
    uint32_t generation = 0;
    bool inUse = false;
  };

  struct ClassEntry {
    DCClassDefinition definition;
    int64_t tableIndex = -1;  // -1 until written into the class table
  };

  void reserve(size_t n) {
    if (size_ + n > output_.size()) grow(n);
  }
  void grow(size_t n);
  void put8(uint8_t b);
  void align(size_t width);
  template <typename T>
  void putAligned(T v);
  void putBytes(const void* p, size_t n);
  void putCString(std::string_view s);

  void writeInteger(int64_t v);
  void writeAlias(uint8_t baseCode, uint32_t index);
  void writeImmutableString(std::string_view s);
  void writeKey(std::string_view key);
  void writeMutableString(const Value& v);
  void writeData(const Value& v);
  void writeDate(double seconds);
  void writeDecimal(const Value& v);
  void writeSequence(const Value& v);
  void writeDictionary(const Value& v);
  void writeAliasReference(const Value& path);
  void writeClassSubstitute(const Value& v, std::string_view className);
  void writeUrl(const Value& v);
  void writeObject(const Value& v);
  void writeClassIndex(uint32_t index);

  // Object table by identity; answers index + 1, 0 when absent.
  uint32_t findObject(const void* key);
  uint32_t enterObject(const void* key);
  // The same for a value of the graph, cheaper for a node that only this
  // handle holds: it cannot have been written before, and its entry waits in
  // a list that goes into the table when a lookup would need it.
  uint32_t findValue(const Value& v);
  void enterValue(const Value& v);
  void enterPending();
  uint32_t findSlot(const std::vector<ObjectSlot>& slots, uint64_t key) const;
  void insertSlot(std::vector<ObjectSlot>& slots, uint32_t& used, uint64_t key, uint32_t index);
  // String table by string equality.
  uint32_t findString(std::string_view s, uint64_t hash) const;
  uint32_t enterString(std::string_view s, uint64_t hash);
  void growStrings();

  Value rootObject_;
  std::vector<uint8_t> output_;
  size_t size_ = 0;
  Tables* tables_;
  std::unique_ptr<Tables> ownTables_;                      // when the thread's set is in use
  uint32_t generation_ = 0;
  uint32_t objectSlotsUsed_ = 0;
  uint32_t objectCount_ = 0;
  uint32_t stringCount_ = 0;
  uint32_t stringSlotsUsed_ = 0;
  uint32_t dateSlotsUsed_ = 0;
  std::unordered_map<std::string, uint32_t> urlCache_;
  std::unordered_map<std::string, uint32_t> classCache_;
  std::unordered_map<std::string, ClassEntry> classesByName_;
  uint32_t classCount_ = 0;
  // Handles of values entered through the keyed operations, kept alive so
  // that their addresses stay unique for the object table.
  std::vector<Value> retained_;
  int depth_ = 0;
  bool used_ = false;
};

}  // namespace quillon
