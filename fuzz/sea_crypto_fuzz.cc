// Feeds arbitrary bytes to SeaCrypto's decryption with fixed keys. Anything
// that is not a sealed envelope must come back nil without a crash; when the
// input happens to open (the fuzzer may learn to build envelopes by sealing
// with the same keys, see below), sealing the result again must open to the
// same bytes.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <vector>

#include "quillon/coding/internal/sea_crypto.h"

namespace {

const quillon::SeaCrypto& fixedCrypto() {
  static quillon::SeaCrypto* crypto = [] {
    auto* c = new quillon::SeaCrypto;
    c->setKey(quillon::Value::data(std::vector<uint8_t>(32, 0x11)));
    c->setKeyHMAC(quillon::Value::data(std::vector<uint8_t>(32, 0x22)));
    return c;
  }();
  return *crypto;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const quillon::SeaCrypto& crypto = fixedCrypto();
  std::span<const uint8_t> input(data, size);

  quillon::Value opened = crypto.decryptData(quillon::Value::data(input));
  if (!opened.isNil()) {
    if (size < quillon::SeaCrypto::kMinimumEnvelopeLength) std::abort();
    if (opened.bytes().size() + 80 > size) std::abort();
  }

  // Half the inputs are also sealed first, so the decryption's success path
  // (MAC match, padding removal) is explored with the fuzzer's contents.
  if (size > 0 && (data[0] & 1)) {
    std::vector<uint8_t> sealed;
    if (!crypto.encryptBytes(input.subspan(1), &sealed)) std::abort();
    std::vector<uint8_t> roundTrip;
    if (!crypto.decryptBytes(sealed, &roundTrip)) std::abort();
    if (roundTrip.size() != size - 1 ||
        !std::equal(roundTrip.begin(), roundTrip.end(), input.begin() + 1)) {
      std::abort();
    }
    // Truncating the envelope anywhere must fail.
    size_t cut = data[size - 1] % sealed.size();
    std::vector<uint8_t> shortened;
    if (crypto.decryptBytes(std::span<const uint8_t>(sealed.data(), cut), &shortened)) {
      std::abort();
    }
  }
  return 0;
}
