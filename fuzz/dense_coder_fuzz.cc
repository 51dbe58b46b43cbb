// Feeds arbitrary bytes to the DenseCoding readers (version 3 and version 2,
// full and property-list tables) and writes back whatever they accept.

#include <cstddef>
#include <cstdint>
#include <span>

#include "quillon/base/error.h"
#include "quillon/base/internal/system_log.h"
#include "quillon/coding/internal/dense_coder.h"

namespace {

void roundTrip(const quillon::Value& v) {
  if (v.isNil()) return;
  try {
    quillon::Value again = quillon::DenseCoder::objectWithData(quillon::DenseCoder::dataWithRootObject(v));
    quillon::DenseCoder::breakCycles(again);
  } catch (const quillon::Exception&) {
    // Values the writer refuses (a read-back 3D transform) or a graph that
    // shifts aliases (geometry values) are allowed to fail, never to crash.
  }
  quillon::DenseCoder::breakCycles(v);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static bool quiet = [] {
    quillon::setSystemLogSink([](std::string_view) {});
    return true;
  }();
  (void)quiet;
  std::span<const uint8_t> bytes(data, size);
  try {
    roundTrip(quillon::DenseCoder::objectWithData(bytes));
  } catch (const quillon::Exception&) {
    // Version 2 failures reach the caller by design.
  }
  try {
    roundTrip(quillon::DenseCoder::propertyListWithData(bytes));
  } catch (const quillon::Exception&) {
  }
  return 0;
}
