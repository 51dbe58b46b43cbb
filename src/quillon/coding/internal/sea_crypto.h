#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

#include "quillon/base/value.h"

namespace quillon {

// Keys of the "Encryption" dictionary in a package's Info.plist.
inline constexpr std::string_view kSeaCryptoEncryptionKey = "Encryption";
inline constexpr std::string_view kSeaCryptoSaltKey = "Salt";
inline constexpr std::string_view kSeaCryptoRoundsKey = "Rounds";
inline constexpr std::string_view kSeaCryptoInfoKey = "Info";

// SeaCrypto turns a password into two 256-bit keys (PBKDF2-HMAC-SHA512) and
// seals and opens byte buffers with them, encrypt-then-MAC:
//
//   IV (16) ‖ AES-256-CBC ciphertext with PKCS#7 padding ‖ HMAC-SHA512 (64)
//
// the MAC covering IV and ciphertext. The first 32 derived bytes key AES, the
// last 32 the HMAC. There is no header: an envelope is 16 + 16·(⌊n/16⌋+1) + 64
// bytes for n plain bytes, at least 96.
//
// Properties are Values so that they can be nil, as the store's Info.plist
// may lack them. Set salt and rounds, then call setPassword(); the instance is
// inert (every operation answers nil) until a derivation has succeeded.
//
// Owned by its user (the store keeps one for its lifetime). Setters and
// setPassword() must not race with anything; once keys are set,
// encryptData() and decryptData() may run concurrently on any threads.
class SeaCrypto {
 public:
  // Fills `out` with `size` random bytes; answers false on failure.
  using RandomSource = bool (*)(uint8_t* out, size_t size);

  // The PBKDF2 iteration count given to every new package.
  static constexpr int64_t kDefaultRounds = 100000;
  // The salt length the derivation uses; shorter salts are refused.
  static constexpr size_t kSaltLength = 64;
  static constexpr size_t kKeyLength = 32;
  static constexpr size_t kIVLength = 16;
  static constexpr size_t kMACLength = 64;
  static constexpr size_t kBlockLength = 16;
  // The smallest envelope: an IV, one padding block and a MAC.
  static constexpr size_t kMinimumEnvelopeLength = kIVLength + kBlockLength + kMACLength;
  // Iteration counts above this are refused so that a hostile Info.plist
  // cannot stall the opening of a document for hours.
  static constexpr int64_t kMaximumRounds = 10'000'000;

  SeaCrypto();
  ~SeaCrypto();
  SeaCrypto(const SeaCrypto&) = delete;
  SeaCrypto& operator=(const SeaCrypto&) = delete;

  // The iteration count for new packages, as a number Value (100000). The
  // instance property of the same meaning is rounds().
  static Value defaultRounds() { return Value::integer(kDefaultRounds); }
  // 64 fresh random bytes, or nil when the random source fails.
  static Value generateSalt();
  // `size` random bytes as data, or nil when the source fails or size < 0.
  static Value dataWithRandomBytesOfSize(int32_t size);
  // Replaces the process-wide random source (nullptr restores OpenSSL's
  // RAND_bytes) and answers the previous one. For tests that inject failure.
  static RandomSource setRandomSource(RandomSource source);

  // Derives key and keyHMAC from the password, salt and rounds, replacing
  // both. A password that is not a string derives as the empty password.
  // Fails (leaving both keys nil, and answering false) when the salt is not
  // data of at least 64 bytes or rounds is not a positive number within
  // kMaximumRounds.
  bool setPassword(const Value& password);

  // The envelope of `data`; nil when data is not data, no key is set, the IV
  // property is shorter than 16 bytes or the random source fails.
  Value encryptData(const Value& data) const;
  // The plain bytes of an envelope; nil when the input is not data, shorter
  // than 96 bytes, fails the MAC (wrong password, damaged or truncated) or
  // fails to decrypt.
  Value decryptData(const Value& data) const;

  // The same on raw bytes, appending to `out` (which must not hold the
  // input); answer false, leaving `out` as it was, where the Value forms
  // answer nil.
  bool encryptBytes(std::span<const uint8_t> plain, std::vector<uint8_t>* out) const;
  bool decryptBytes(std::span<const uint8_t> envelope, std::vector<uint8_t>* out) const;

  // Properties. salt, iv, key, keyHMAC and hmac are data or nil; rounds a
  // number or nil. key and keyHMAC are written by setPassword(); setting them
  // directly installs keys without a derivation (both must be 32 bytes for
  // the instance to work). hmac is kept for completeness and never used.
  const Value& salt() const { return salt_; }
  void setSalt(Value salt) { salt_ = std::move(salt); }
  const Value& iv() const { return iv_; }
  void setIv(Value iv) { iv_ = std::move(iv); }
  const Value& key() const { return key_; }
  void setKey(Value key);
  const Value& keyHMAC() const { return keyHMAC_; }
  void setKeyHMAC(Value keyHMAC);
  const Value& hmac() const { return hmac_; }
  void setHmac(Value hmac) { hmac_ = std::move(hmac); }
  const Value& rounds() const { return rounds_; }
  void setRounds(Value rounds) { rounds_ = std::move(rounds); }

  // The "Encryption" dictionary for a new package protected by `password`:
  // a fresh "Salt", "Rounds" and the password check value "Info" sealed with
  // keys derived from exactly that salt and rounds. Nil when the random
  // source fails.
  static Value makeEncryptionInfo(const Value& password);
  // Whether `password` opens a package whose Info.plist holds `encryption`
  // under "Encryption" (nil when the entry is absent): true when both are
  // absent, or when "Info" decrypts to the password itself.
  static bool canOpenWithPassword(const Value& encryption, const Value& password);

 private:
  struct Keys;
  void rebuildKeys();

  Value salt_;
  Value iv_;
  Value key_;
  Value keyHMAC_;
  Value hmac_;
  Value rounds_;
  // Prepared OpenSSL state for key_ and keyHMAC_; null while either is unusable.
  std::unique_ptr<Keys> keys_;
};

}  // namespace quillon
