// Feeds arbitrary bytes to the property-list reader (XML and binary), as a
// package's Info.plist arrives from another computer. What it accepts is
// written as XML, which must read back and write again to the same text;
// an Info.plist's "Encryption" entry is handed to the cipher setup as the
// store does when it opens a package.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string>

#include "fuzz_support.h"
#include "quillon/base/error.h"
#include "quillon/base/internal/plist.h"
#include "quillon/coding/internal/sea_crypto.h"
#include "quillon/store/package_files.h"

namespace {

using quillon::Value;

std::span<const uint8_t> bytesOf(const std::string& text) {
  return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  quillon::fuzz::quietLog();
  quillon::Error error;
  Value plist = quillon::readPropertyList(std::span<const uint8_t>(data, size), &error);
  if (plist.isNil()) {
    if (!error) std::abort();
    return 0;
  }

  std::string xml = quillon::writePropertyListXML(plist);
  if (!xml.empty()) {
    quillon::Error again;
    Value reread = quillon::readPropertyList(bytesOf(xml), &again);
    if (reread.isNil()) std::abort();
    if (quillon::writePropertyListXML(reread) != xml) std::abort();
  }

  // A hostile entry may ask for any number of rounds; the cipher caps them,
  // but even the cap is too slow to try on every input.
  const Value& encryption = plist.get(quillon::kSeaCryptoEncryptionKey);
  const Value& rounds = encryption.get(quillon::kSeaCryptoRoundsKey);
  const bool counted = rounds.isInteger() || rounds.isFloat() || rounds.isDecimal();
  if (encryption.isDictionary() && !(counted && rounds.doubleValue() > 16)) {
    (void)quillon::PackageFiles::makeCipher(encryption, Value(quillon::fuzz::kPassword));
    (void)quillon::SeaCrypto::canOpenWithPassword(encryption, Value(quillon::fuzz::kPassword));
  }
  return 0;
}
