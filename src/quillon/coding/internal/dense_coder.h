#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "quillon/base/value.h"

namespace quillon {

// The name of every exception that DenseCoding raises.
inline constexpr std::string_view kDenseCodingException = "DenseCodingException";

// DenseCoding: the compact, aligned, little-endian binary form of value graphs
// that the local cache stores. Shared containers, data, dates and objects are
// written once and referred to by index afterwards, so cycles through mutable
// containers survive. Class operations only; each call runs its own coder and
// may run on any thread.
class DenseCoder {
 public:
  // How the reader makes objects of keyed-coded classes.
  enum class Objects {
    kRegisteredClasses,  // through the factories of DCNSCoding::registerClass
    kStoredForm,         // always GenericObjects and "$class" dictionaries
  };

  // The version 3.3 bytes of a graph (data), or nil for nil. Raises
  // "DenseCodingException" for a value it cannot write (an unknown boxed
  // struct, nesting deeper than 512 levels).
  static Value dataWithRootObject(const Value& rootObject);
  static std::vector<uint8_t> encode(const Value& rootObject);

  // Decodes version 3 or version 2 data. Nil for data that is not DenseCoding
  // or of an unsupported version (logged), and for damaged version 3 data
  // (the reason is logged). Damaged version 2 data raises the
  // "DenseCodingException" to the caller instead.
  static Value objectWithData(std::span<const uint8_t> data,
                              Objects objects = Objects::kRegisteredClasses);
  static Value objectWithData(const Value& data) { return objectWithData(data.bytes()); }
  // As objectWithData, accepting plain property-list values only: class
  // instances, coded objects and a nil root fail as "cannot decode".
  static Value propertyListWithData(std::span<const uint8_t> data);
  static Value propertyListWithData(const Value& data) {
    return propertyListWithData(data.bytes());
  }

  // The last reason that a read on the calling thread logged ("" if none).
  static std::string lastLoggedReason();

  // Empties every container reachable from root, through the values of the
  // objects in it too, so that a graph holding cycles (a mutable array that
  // contains itself, a cache item whose dictionary holds the item) can be
  // freed.
  static void breakCycles(const Value& root);
  // Every container reachable from root (objects' values included), once
  // each, root first when it is one.
  static std::vector<Value> reachableContainers(const Value& root);
};

}  // namespace quillon
