#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "quillon/base/value.h"
#include "quillon/coding/internal/dc_class_definition.h"
#include "quillon/coding/internal/dc_ns_coding.h"
#include "quillon/coding/internal/dense_format.h"

namespace quillon {

// The reader of one DenseCoding run over a byte buffer: version 3 data with
// its three tables, and version 2 data with its single table. DCNSCoding
// factories read their object's keyed values through it. Made, used and
// dropped by one thread for one call (DenseCoder::objectWithData). Every
// failure raises quillon::Exception named "DenseCodingException"; the reader
// never reads past the buffer, never sizes anything from a count that the
// remaining bytes cannot hold, and refuses nesting deeper than 512 levels.
class DCNSDecoder {
 public:
  // Which type codes have readers: all of them, or only plain property-list
  // values (no nil root, class definitions, object instances, coded objects).
  enum class Readers { Full, PropertyList };

  struct Header {
    uint32_t identifier = 0;
    uint16_t majorVersion = 0;
    uint16_t minorVersion = 0;
  };

  // The buffer must outlive the decoder.
  DCNSDecoder(std::span<const uint8_t> input, Readers readers = Readers::Full);
  DCNSDecoder(const DCNSDecoder&) = delete;
  DCNSDecoder& operator=(const DCNSDecoder&) = delete;

  // Reads the header (identifier and a major version of 2 or 3 are the
  // caller's checks) and the root value. Call once. On failure the partly
  // built graph is taken apart (cycles included) before the exception leaves.
  Value decodeRootObject();

  // When false, no factory runs: coded objects read back as GenericObjects
  // and class instances as "$class" dictionaries, whatever is registered
  // (for tools that show the stored form).
  void setMakesRegisteredObjects(bool makes) { makesRegisteredObjects_ = makes; }

  const Header& header() const { return header_; }
  size_t offset() const { return offset_; }

  // Keyed decoding over the coded object being made.
  bool allowsKeyedCoding() const { return true; }
  bool containsValueForKey(std::string_view key) const;
  Value decodeObjectForKey(std::string_view key) const;
  bool decodeBoolForKey(std::string_view key) const;
  int decodeIntForKey(std::string_view key) const;
  int64_t decodeIntegerForKey(std::string_view key) const;
  int32_t decodeInt32ForKey(std::string_view key) const;
  int64_t decodeInt64ForKey(std::string_view key) const;
  float decodeFloatForKey(std::string_view key) const;
  double decodeDoubleForKey(std::string_view key) const;
  // The stored data's bytes (empty when the key holds no data); valid while
  // the factory runs.
  std::span<const uint8_t> decodeBytesForKey(std::string_view key) const;

 private:
  struct ClassRecord {
    DCClassDefinition definition;
    std::vector<Value> keys;  // the property keys as string values
    Value className;
    const DCNSCoding::Factory* factory = nullptr;
  };

  [[noreturn]] void eof(size_t at) const;
  [[noreturn]] void cannotDecode(int64_t code) const;
  [[noreturn]] void badIndex(size_t index, size_t count) const;

  void need(size_t at, size_t width) const {
    if (at > total_ || total_ - at < width) eof(at);
  }
  // Fixed-width little-endian fields; aligned ones first skip to a multiple
  // of their width from the buffer start.
  template <typename T>
  T readAligned() {
    size_t at = (offset_ + sizeof(T) - 1) & ~(sizeof(T) - 1);
    need(at, sizeof(T));
    offset_ = at + sizeof(T);
    return loadLittleEndian<T>(input_ + at);
  }
  template <typename T>
  T readUnaligned() {
    need(offset_, sizeof(T));
    T v = loadLittleEndian<T>(input_ + offset_);
    offset_ += sizeof(T);
    return v;
  }
  uint8_t read8() {
    need(offset_, 1);
    return input_[offset_++];
  }
  template <typename T>
  static T loadLittleEndian(const uint8_t* p);
  std::string_view readCString();
  Value makeString(std::string_view s, bool isMutable) const;
  uint32_t readCount(size_t minimumBytesEach);

  Value readValue();
  Value readOptionalValue();  // nil or a value
  Value readSequence(uint8_t code);
  Value readDictionary(bool isMutable);
  Value readClassDefinition();
  Value readObjectInstance(uint32_t classIndex);
  Value readCodedObject();
  Value readUrl(Value relative, Value base);
  Value readIndexSet(bool isMutable);
  Value readDecimal();
  Value makeObject(ClassRecord& record, Value properties);

  using ValueReader = Value (DCNSDecoder::*)();
  using StringReader = std::string_view (DCNSDecoder::*)();
  using CountReader = uint32_t (DCNSDecoder::*)(size_t);
  // The parts both versions share, given that version's readers.
  Value fillSequence(Value container, bool isMutable, uint32_t count, ValueReader read);
  Value fillDictionary(bool isMutable, uint32_t count, ValueReader read);
  ClassRecord readClassRecord(StringReader readString, CountReader readKeyCount,
                              size_t minimumBytesPerKey);

  Value readLegacyValue();
  uint32_t readLegacyCount(size_t minimumBytesEach);
  std::string_view readLegacyCString();
  Value readLegacySequence(uint32_t code);
  Value readLegacyDictionary(bool isMutable);

  // Fills a coded object's keyed values until the terminating nil code.
  Value readCodedProperties(bool legacy);
  Value finishCodedObject(const Value& className, Value properties);
  const DCNSCoding::Factory* factoryFor(std::string_view className);

  // Guards deep equality: a set member or dictionary key that is itself a
  // container must be small, acyclic and complete, so comparing it always ends.
  void checkComparable(const Value& member, size_t containerSize);
  void addMember(Value& container, Value member);
  void setEntry(Value& dictionary, Value key, Value value);
  Value aliased(size_t index);
  void replaceEntry(size_t slot, Value made);
  void breakCycles();
  void releaseUnreachable(const Value& root);

  Header header_;
  size_t offset_ = 0;
  const uint8_t* input_;
  size_t total_;
  Readers readers_;
  std::vector<Value> objectCache_;
  // Instances whose slot their made object took, kept while cycles are possible.
  std::vector<Value> replacedEntries_;
  std::vector<ClassRecord> classCache_;
  std::vector<Value> stringCache_;
  std::vector<Value> propertyDictionaryPool_;
  Value properties_;
  // Version 2: object-table index of a class definition → classCache_ index.
  std::unordered_map<size_t, size_t> legacyClasses_;
  std::unordered_map<std::string, const DCNSCoding::Factory*> factories_;
  // The class last looked up (its name is a key of factories_) and its factory.
  std::pair<std::string_view, const DCNSCoding::Factory*> lastFactory_{};
  // Mutable containers whose contents are still being read.
  std::vector<const void*> openContainers_;
  // Whether an alias named an open container, so the graph may hold cycles.
  bool mayHoldCycles_ = false;
  uint64_t compareWork_ = 0;
  int depth_ = 0;
  bool makesRegisteredObjects_ = true;
};

template <typename T>
T DCNSDecoder::loadLittleEndian(const uint8_t* p) {
  return dense::load<T>(p);
}

}  // namespace quillon
