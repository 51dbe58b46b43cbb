#include "quillon/coding/internal/sea_crypto.h"

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <limits>

namespace quillon {

namespace {

bool openSSLRandom(uint8_t* out, size_t size) {
  if (size > static_cast<size_t>(std::numeric_limits<int>::max())) return false;
  return RAND_bytes(out, static_cast<int>(size)) == 1;
}

std::atomic<SeaCrypto::RandomSource> gRandomSource{&openSSLRandom};

// Fetched once: implicit fetching through EVP_aes_256_cbc() costs a lookup
// on every initialisation, which shows on small buffers.
EVP_CIPHER* aesCipher() {
  static EVP_CIPHER* cipher = EVP_CIPHER_fetch(nullptr, "AES-256-CBC", nullptr);
  return cipher;
}

EVP_MAC* hmacAlgorithm() {
  static EVP_MAC* mac = EVP_MAC_fetch(nullptr, "HMAC", nullptr);
  return mac;
}

struct CipherContextDeleter {
  void operator()(EVP_CIPHER_CTX* c) const { EVP_CIPHER_CTX_free(c); }
};
struct MacContextDeleter {
  void operator()(EVP_MAC_CTX* c) const { EVP_MAC_CTX_free(c); }
};
using CipherContext = std::unique_ptr<EVP_CIPHER_CTX, CipherContextDeleter>;
using MacContext = std::unique_ptr<EVP_MAC_CTX, MacContextDeleter>;

// The iteration count of a rounds property, or 0 when it is unusable.
int roundsCount(const Value& rounds) {
  if (!rounds.isInteger() && !rounds.isFloat() && !rounds.isDecimal()) return 0;
  double d = rounds.doubleValue();
  if (!std::isfinite(d) || d < 1 || d > static_cast<double>(SeaCrypto::kMaximumRounds)) return 0;
  return static_cast<int>(rounds.intValue());
}

}  // namespace

// OpenSSL state prepared once per key pair: the AES key bytes and an HMAC
// context already keyed, which each call duplicates instead of re-keying.
struct SeaCrypto::Keys {
  uint8_t aesKey[kKeyLength];
  MacContext macTemplate;

  // The MAC of `bytes` into `out` (64 bytes); false on an OpenSSL failure.
  bool mac(std::span<const uint8_t> bytes, uint8_t* out) const {
    MacContext ctx(EVP_MAC_CTX_dup(macTemplate.get()));
    size_t length = 0;
    return ctx && EVP_MAC_update(ctx.get(), bytes.data(), bytes.size()) == 1 &&
           EVP_MAC_final(ctx.get(), out, &length, kMACLength) == 1 && length == kMACLength;
  }
};

SeaCrypto::SeaCrypto() = default;
SeaCrypto::~SeaCrypto() {
  if (keys_) OPENSSL_cleanse(keys_->aesKey, kKeyLength);
}

Value SeaCrypto::generateSalt() { return dataWithRandomBytesOfSize(kSaltLength); }

Value SeaCrypto::dataWithRandomBytesOfSize(int32_t size) {
  if (size < 0) return Value();
  std::vector<uint8_t> bytes(static_cast<size_t>(size));
  if (size > 0 && !gRandomSource.load()(bytes.data(), bytes.size())) return Value();
  return Value::data(std::move(bytes));
}

SeaCrypto::RandomSource SeaCrypto::setRandomSource(RandomSource source) {
  return gRandomSource.exchange(source ? source : &openSSLRandom);
}

bool SeaCrypto::setPassword(const Value& password) {
  key_ = Value();
  keyHMAC_ = Value();
  keys_.reset();
  int iterations = roundsCount(rounds_);
  if (iterations == 0 || !salt_.isData() || salt_.bytes().size() < kSaltLength) return false;

  std::string_view secret = password.isString() ? password.str() : std::string_view();
  uint8_t derived[kKeyLength * 2];
  // An empty password is passed as a valid pointer: OpenSSL treats a null one
  // specially in some versions.
  static const char kEmpty[1] = {0};
  bool ok =
      PKCS5_PBKDF2_HMAC(secret.empty() ? kEmpty : secret.data(), static_cast<int>(secret.size()),
                        salt_.bytes().data(), static_cast<int>(kSaltLength), iterations,
                        EVP_sha512(), static_cast<int>(sizeof derived), derived) == 1;
  if (ok) {
    key_ = Value::data(std::span<const uint8_t>(derived, kKeyLength));
    keyHMAC_ = Value::data(std::span<const uint8_t>(derived + kKeyLength, kKeyLength));
    rebuildKeys();
  }
  OPENSSL_cleanse(derived, sizeof derived);
  return ok && keys_ != nullptr;
}

void SeaCrypto::setKey(Value key) {
  key_ = std::move(key);
  rebuildKeys();
}

void SeaCrypto::setKeyHMAC(Value keyHMAC) {
  keyHMAC_ = std::move(keyHMAC);
  rebuildKeys();
}

void SeaCrypto::rebuildKeys() {
  if (keys_) OPENSSL_cleanse(keys_->aesKey, kKeyLength);
  keys_.reset();
  if (!key_.isData() || key_.bytes().size() != kKeyLength || !keyHMAC_.isData() ||
      keyHMAC_.bytes().size() != kKeyLength || aesCipher() == nullptr ||
      hmacAlgorithm() == nullptr) {
    return;
  }
  auto keys = std::make_unique<Keys>();
  std::memcpy(keys->aesKey, key_.bytes().data(), kKeyLength);
  keys->macTemplate.reset(EVP_MAC_CTX_new(hmacAlgorithm()));
  if (!keys->macTemplate) return;
  char digest[] = "SHA512";
  OSSL_PARAM params[] = {OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, digest, 0),
                         OSSL_PARAM_construct_end()};
  if (EVP_MAC_init(keys->macTemplate.get(), keyHMAC_.bytes().data(), kKeyLength, params) != 1) {
    return;
  }
  keys_ = std::move(keys);
}

bool SeaCrypto::encryptBytes(std::span<const uint8_t> plain, std::vector<uint8_t>* out) const {
  if (!keys_) return false;
  if (plain.size() > static_cast<size_t>(std::numeric_limits<int>::max()) - 2 * kBlockLength) {
    return false;  // EVP lengths are ints
  }
  const size_t cipherLength = kBlockLength * (plain.size() / kBlockLength + 1);
  const size_t start = out->size();
  out->resize(start + kIVLength + cipherLength + kMACLength);
  uint8_t* iv = out->data() + start;
  bool ok = false;
  if (iv_.isNil()) {
    ok = gRandomSource.load()(iv, kIVLength);
  } else if (iv_.isData() && iv_.bytes().size() >= kIVLength) {
    std::memcpy(iv, iv_.bytes().data(), kIVLength);
    ok = true;
  }
  int moved = 0, finalMoved = 0;
  if (ok) {
    CipherContext ctx(EVP_CIPHER_CTX_new());
    uint8_t* cipherText = iv + kIVLength;
    ok = ctx && EVP_EncryptInit_ex2(ctx.get(), aesCipher(), keys_->aesKey, iv, nullptr) == 1 &&
         EVP_EncryptUpdate(ctx.get(), cipherText, &moved, plain.data(),
                           static_cast<int>(plain.size())) == 1 &&
         EVP_EncryptFinal_ex(ctx.get(), cipherText + moved, &finalMoved) == 1 &&
         static_cast<size_t>(moved + finalMoved) == cipherLength;
  }
  ok = ok && keys_->mac(std::span<const uint8_t>(iv, kIVLength + cipherLength),
                        iv + kIVLength + cipherLength);
  if (!ok) out->resize(start);
  return ok;
}

bool SeaCrypto::decryptBytes(std::span<const uint8_t> envelope, std::vector<uint8_t>* out) const {
  if (!keys_ || envelope.size() < kMinimumEnvelopeLength) return false;
  if (envelope.size() > static_cast<size_t>(std::numeric_limits<int>::max())) return false;
  const size_t signedLength = envelope.size() - kMACLength;
  uint8_t expected[kMACLength];
  if (!keys_->mac(envelope.first(signedLength), expected)) return false;
  bool macMatches = CRYPTO_memcmp(expected, envelope.data() + signedLength, kMACLength) == 0;
  if (!macMatches) return false;

  const uint8_t* iv = envelope.data();
  std::span<const uint8_t> cipherText = envelope.subspan(kIVLength, signedLength - kIVLength);
  if (cipherText.size() % kBlockLength != 0) return false;
  const size_t start = out->size();
  out->resize(start + cipherText.size());
  uint8_t* plain = out->data() + start;
  int moved = 0, finalMoved = 0;
  CipherContext ctx(EVP_CIPHER_CTX_new());
  bool ok = ctx && EVP_DecryptInit_ex2(ctx.get(), aesCipher(), keys_->aesKey, iv, nullptr) == 1 &&
            EVP_DecryptUpdate(ctx.get(), plain, &moved, cipherText.data(),
                              static_cast<int>(cipherText.size())) == 1 &&
            EVP_DecryptFinal_ex(ctx.get(), plain + moved, &finalMoved) == 1;
  out->resize(ok ? start + static_cast<size_t>(moved + finalMoved) : start);
  return ok;
}

Value SeaCrypto::encryptData(const Value& data) const {
  if (!data.isData()) return Value();
  std::vector<uint8_t> out;
  if (!encryptBytes(data.bytes(), &out)) return Value();
  return Value::data(std::move(out));
}

Value SeaCrypto::decryptData(const Value& data) const {
  if (!data.isData()) return Value();
  std::vector<uint8_t> out;
  if (!decryptBytes(data.bytes(), &out)) return Value();
  return Value::data(std::move(out));
}

Value SeaCrypto::makeEncryptionInfo(const Value& password) {
  Value salt = generateSalt();
  if (salt.isNil()) return Value();
  SeaCrypto crypto;
  crypto.setSalt(salt);
  crypto.setRounds(defaultRounds());
  if (!crypto.setPassword(password)) return Value();
  std::string_view text = password.isString() ? password.str() : std::string_view();
  Value info = crypto.encryptData(Value::data(text));
  if (info.isNil()) return Value();
  Value encryption = Value::mutableDictionary();
  encryption.set(Value(kSeaCryptoSaltKey), salt);
  encryption.set(Value(kSeaCryptoRoundsKey), defaultRounds());
  encryption.set(Value(kSeaCryptoInfoKey), info);
  return encryption;
}

bool SeaCrypto::canOpenWithPassword(const Value& encryption, const Value& password) {
  if (password.isNil() && encryption.isNil()) return true;
  if (!encryption.isDictionary()) return false;
  const Value& info = encryption.get(kSeaCryptoInfoKey);
  const Value& salt = encryption.get(kSeaCryptoSaltKey);
  if (!info.isData() || !salt.isData()) return false;
  SeaCrypto crypto;
  crypto.setSalt(salt);
  crypto.setRounds(encryption.get(kSeaCryptoRoundsKey));
  crypto.setPassword(password);
  Value opened = crypto.decryptData(info);
  if (opened.isNil() || !password.isString()) return false;
  std::span<const uint8_t> bytes = opened.bytes();
  std::string_view expected = password.str();
  return bytes.size() == expected.size() &&
         (bytes.empty() || std::memcmp(bytes.data(), expected.data(), bytes.size()) == 0);
}

}  // namespace quillon
