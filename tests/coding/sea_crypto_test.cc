#include "quillon/coding/internal/sea_crypto.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <string>
#include <vector>

namespace quillon {
namespace {

std::vector<uint8_t> fromHex(std::string_view hex) {
  std::vector<uint8_t> out;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) {
    out.push_back(static_cast<uint8_t>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16)));
  }
  return out;
}

std::vector<uint8_t> toVector(const Value& v) { return {v.bytes().begin(), v.bytes().end()}; }

Value countingSalt() {
  std::vector<uint8_t> salt(64);
  for (size_t i = 0; i < salt.size(); ++i) salt[i] = static_cast<uint8_t>(i);
  return Value::data(std::move(salt));
}

// A crypto with cheap keys for tests that are not about the derivation.
std::unique_ptr<SeaCrypto> makeCrypto(const Value& password = Value("secret")) {
  auto crypto = std::make_unique<SeaCrypto>();
  crypto->setSalt(countingSalt());
  crypto->setRounds(Value(1000));
  EXPECT_TRUE(crypto->setPassword(password));
  return crypto;
}

// Installs a random source for the life of a test and restores the old one.
class ScopedRandomSource {
 public:
  explicit ScopedRandomSource(SeaCrypto::RandomSource source)
      : previous_(SeaCrypto::setRandomSource(source)) {}
  ~ScopedRandomSource() { SeaCrypto::setRandomSource(previous_); }

 private:
  SeaCrypto::RandomSource previous_;
};

bool failingRandom(uint8_t*, size_t) { return false; }

TEST(SeaCryptoKeyDerivationTest, MatchesAnIndependentlyComputedVector) {
  // The package default: 100000 rounds, UTF-8 password; the expected bytes
  // come from another PBKDF2-HMAC-SHA512 implementation. The first half keys
  // AES, the second half the HMAC.
  SeaCrypto crypto;
  crypto.setSalt(countingSalt());
  crypto.setRounds(SeaCrypto::defaultRounds());
  ASSERT_TRUE(crypto.setPassword(Value("pässwörd")));
  std::vector<uint8_t> expected = fromHex(
      "6d17e4a839d0454b95d6826d1620c6a4b7c9e39342a07ac2606380ccf816f068842318a2eaed0a67"
      "6d2d9f8699969be6b3df50a0590c7744912649e94284853c");
  EXPECT_EQ(toVector(crypto.key()), std::vector<uint8_t>(expected.begin(), expected.begin() + 32));
  EXPECT_EQ(toVector(crypto.keyHMAC()),
            std::vector<uint8_t>(expected.begin() + 32, expected.end()));
}

TEST(SeaCryptoKeyDerivationTest, OnlyStringsArePasswordsAndOnlyTheFirst64SaltBytesCount) {
  // Anything but a string derives the keys of the empty password.
  auto empty = makeCrypto(Value(""));
  for (const Value& password : {Value::data(std::string_view("secret")), Value(), Value(42)}) {
    auto crypto = makeCrypto(password);
    EXPECT_EQ(crypto->key(), empty->key()) << password.description();
    EXPECT_EQ(crypto->keyHMAC(), empty->keyHMAC()) << password.description();
  }
  EXPECT_NE(makeCrypto(Value("secret"))->key(), empty->key());

  std::vector<uint8_t> longSalt = toVector(countingSalt());
  longSalt.insert(longSalt.end(), {9, 9, 9});
  SeaCrypto crypto;
  crypto.setSalt(Value::data(std::move(longSalt)));
  crypto.setRounds(Value(1000));
  ASSERT_TRUE(crypto.setPassword(Value("secret")));
  EXPECT_EQ(crypto.key(), makeCrypto()->key());
}

TEST(SeaCryptoKeyDerivationTest, UnusableParametersLeaveNoKeys) {
  struct Case {
    const char* what;
    Value salt;
    Value rounds;
  };
  std::vector<uint8_t> shortSalt(63, 7);
  const Case cases[] = {
      {"missing rounds", countingSalt(), Value()},
      {"zero rounds", countingSalt(), Value(0)},
      {"negative rounds", countingSalt(), Value(-5)},
      {"string rounds", countingSalt(), Value("100000")},
      {"absurd rounds", countingSalt(), Value(int64_t{1} << 40)},
      {"missing salt", Value(), Value(1000)},
      {"short salt", Value::data(std::span<const uint8_t>(shortSalt)), Value(1000)},
      {"salt not data", Value(std::string(64, 'a')), Value(1000)},
  };
  Value sealed = makeCrypto()->encryptData(Value::data(std::string_view("hello")));
  ASSERT_FALSE(sealed.isNil());
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    auto crypto = makeCrypto();  // keys from an earlier derivation must not survive
    crypto->setSalt(c.salt);
    crypto->setRounds(c.rounds);
    EXPECT_FALSE(crypto->setPassword(Value("secret")));
    EXPECT_TRUE(crypto->key().isNil());
    EXPECT_TRUE(crypto->keyHMAC().isNil());
    EXPECT_TRUE(crypto->decryptData(sealed).isNil());
    EXPECT_TRUE(crypto->encryptData(Value::data(std::string_view("x"))).isNil());
  }
}

TEST(SeaCryptoEnvelopeTest, RoundTripsEverySizeAroundBlockBoundaries) {
  auto crypto = makeCrypto();
  for (size_t n : {0, 1, 15, 16, 17, 31, 32, 33, 1000, 4096}) {
    SCOPED_TRACE(n);
    std::vector<uint8_t> plain(n);
    for (size_t i = 0; i < n; ++i) plain[i] = static_cast<uint8_t>(i * 31 + 7);
    Value sealed = crypto->encryptData(Value::data(std::span<const uint8_t>(plain)));
    ASSERT_TRUE(sealed.isData());
    EXPECT_EQ(sealed.bytes().size(), 16 + 16 * (n / 16 + 1) + 64);
    Value opened = crypto->decryptData(sealed);
    ASSERT_TRUE(opened.isData());  // an empty plain text opens to empty data, not nil
    EXPECT_EQ(toVector(opened), plain);
  }
  EXPECT_EQ(crypto->encryptData(Value::data(std::string_view())).bytes().size(), 96u);
}

TEST(SeaCryptoEnvelopeTest, LayoutIsIVCipherTextAndMACOverBoth) {
  auto crypto = makeCrypto();
  std::vector<uint8_t> iv(20);
  for (size_t i = 0; i < iv.size(); ++i) iv[i] = static_cast<uint8_t>(0xA0 + i);
  crypto->setIv(Value::data(std::span<const uint8_t>(iv)));
  std::string_view plain = "The quick brown fox jumps over the lazy dog";
  std::vector<uint8_t> sealed = toVector(crypto->encryptData(Value::data(plain)));
  ASSERT_EQ(sealed.size(), 16u + 48u + 64u);
  EXPECT_TRUE(std::equal(iv.begin(), iv.begin() + 16, sealed.begin()));  // only 16 IV bytes used

  // The MAC is HMAC-SHA512 with the second half of the keys over IV and cipher
  // text. (The package reader of the saving tests decrypts the cipher text
  // with its own OpenSSL calls.)
  uint8_t mac[64];
  unsigned macLength = 0;
  HMAC(EVP_sha512(), crypto->keyHMAC().bytes().data(), 32, sealed.data(), sealed.size() - 64, mac,
       &macLength);
  EXPECT_TRUE(std::equal(mac, mac + 64, sealed.end() - 64));

  // A fixed IV is deterministic; a short one is refused.
  EXPECT_EQ(toVector(crypto->encryptData(Value::data(plain))), sealed);
  crypto->setIv(Value::data(std::span<const uint8_t>(iv.data(), 15)));
  EXPECT_TRUE(crypto->encryptData(Value::data(plain)).isNil());
}

TEST(SeaCryptoEnvelopeTest, EveryFlippedByteFailsTheMAC) {
  auto crypto = makeCrypto();
  std::vector<uint8_t> sealed = toVector(crypto->encryptData(Value::data(std::string_view("abc"))));
  ASSERT_EQ(sealed.size(), 96u);
  for (size_t i = 0; i < sealed.size(); ++i) {
    for (uint8_t bit : {0x01, 0x80}) {
      std::vector<uint8_t> damaged = sealed;
      damaged[i] ^= bit;
      EXPECT_TRUE(crypto->decryptData(Value::data(std::move(damaged))).isNil()) << "byte " << i;
    }
  }
  EXPECT_EQ(toVector(crypto->decryptData(Value::data(std::span<const uint8_t>(sealed)))),
            toVector(Value::data(std::string_view("abc"))));
}

TEST(SeaCryptoEnvelopeTest, TwoSealsOfTheSameInputDifferEverywhere) {
  auto crypto = makeCrypto();
  Value plain = Value::data(std::string_view("same input, twice"));
  std::vector<uint8_t> a = toVector(crypto->encryptData(plain));
  std::vector<uint8_t> b = toVector(crypto->encryptData(plain));
  ASSERT_EQ(a.size(), b.size());
  EXPECT_FALSE(std::equal(a.begin(), a.begin() + 16, b.begin()));
  EXPECT_FALSE(std::equal(a.begin() + 16, a.end() - 64, b.begin() + 16));
  EXPECT_FALSE(std::equal(a.end() - 64, a.end(), b.end() - 64));
}

TEST(SeaCryptoEnvelopeTest, RejectsWrongKeysShortTruncatedAndExtendedInput) {
  auto crypto = makeCrypto();
  std::vector<uint8_t> sealed(toVector(crypto->encryptData(Value::data(std::string(40, 'z')))));
  ASSERT_EQ(sealed.size(), 128u);

  EXPECT_TRUE(makeCrypto(Value("Secret"))
                  ->decryptData(Value::data(std::span<const uint8_t>(sealed)))
                  .isNil());
  EXPECT_TRUE(crypto->decryptData(Value()).isNil());
  EXPECT_TRUE(crypto->decryptData(Value::data(std::string_view())).isNil());
  EXPECT_TRUE(crypto->decryptData(Value("not data")).isNil());
  EXPECT_TRUE(crypto->encryptData(Value("not data")).isNil());
  EXPECT_TRUE(SeaCrypto().encryptData(Value::data(std::string_view("x"))).isNil());
  for (size_t length : {1, 16, 79, 80, 95, 96, 111, 127}) {
    SCOPED_TRACE(length);
    EXPECT_TRUE(
        crypto->decryptData(Value::data(std::span<const uint8_t>(sealed.data(), length))).isNil());
  }
  std::vector<uint8_t> extended = sealed;
  extended.push_back(0);
  EXPECT_TRUE(crypto->decryptData(Value::data(std::move(extended))).isNil());

  // A ciphertext whose padding is wrong cannot come from us, but a holder of
  // the keys can forge one; it must fail cleanly after the MAC passes.
  std::vector<uint8_t> forged(16 + 16, 0x42);
  uint8_t mac[64];
  unsigned macLength = 0;
  HMAC(EVP_sha512(), crypto->keyHMAC().bytes().data(), 32, forged.data(), forged.size(), mac,
       &macLength);
  forged.insert(forged.end(), mac, mac + 64);
  EXPECT_TRUE(crypto->decryptData(Value::data(std::move(forged))).isNil());
}

TEST(SeaCryptoRandomTest, FailingGeneratorFailsSaltsAndEncryption) {
  auto crypto = makeCrypto();
  EXPECT_EQ(SeaCrypto::generateSalt().bytes().size(), 64u);
  EXPECT_NE(SeaCrypto::generateSalt(), SeaCrypto::generateSalt());
  EXPECT_EQ(SeaCrypto::dataWithRandomBytesOfSize(0), Value::data(std::string_view()));
  EXPECT_TRUE(SeaCrypto::dataWithRandomBytesOfSize(-1).isNil());
  {
    ScopedRandomSource failing(&failingRandom);
    EXPECT_TRUE(SeaCrypto::generateSalt().isNil());
    EXPECT_TRUE(SeaCrypto::dataWithRandomBytesOfSize(16).isNil());
    EXPECT_TRUE(crypto->encryptData(Value::data(std::string_view("x"))).isNil());
    EXPECT_TRUE(SeaCrypto::makeEncryptionInfo(Value("pw")).isNil());
    std::vector<uint8_t> out = {5};
    EXPECT_FALSE(crypto->encryptBytes(std::vector<uint8_t>(10), &out));
    EXPECT_EQ(out, std::vector<uint8_t>{5});
  }
  EXPECT_FALSE(crypto->encryptData(Value::data(std::string_view("x"))).isNil());
}

TEST(SeaCryptoPackageTest, EncryptionInfoOpensOnlyWithItsPassword) {
  Value encryption = SeaCrypto::makeEncryptionInfo(Value("correct horse"));
  ASSERT_TRUE(encryption.isDictionary());
  EXPECT_EQ(encryption.keys(), (std::vector<Value>{Value("Salt"), Value("Rounds"), Value("Info")}));
  EXPECT_EQ(encryption.get("Salt").bytes().size(), 64u);
  EXPECT_TRUE(encryption.get("Rounds").isInteger());
  EXPECT_EQ(encryption.get("Rounds").intValue(), 100000);
  EXPECT_EQ(encryption.get("Info").bytes().size(), 16u + 16u + 64u);

  // The check value is the password sealed with keys from this salt and rounds.
  SeaCrypto crypto;
  crypto.setSalt(encryption.get("Salt"));
  crypto.setRounds(encryption.get("Rounds"));
  ASSERT_TRUE(crypto.setPassword(Value("correct horse")));
  EXPECT_EQ(crypto.decryptData(encryption.get("Info")),
            Value::data(std::string_view("correct horse")));

  EXPECT_TRUE(SeaCrypto::canOpenWithPassword(encryption, Value("correct horse")));
  EXPECT_FALSE(SeaCrypto::canOpenWithPassword(encryption, Value("correct horsE")));
  EXPECT_FALSE(SeaCrypto::canOpenWithPassword(encryption, Value()));
  EXPECT_TRUE(SeaCrypto::canOpenWithPassword(Value(), Value()));
  EXPECT_FALSE(SeaCrypto::canOpenWithPassword(Value(), Value("anything")));
  EXPECT_FALSE(SeaCrypto::canOpenWithPassword(Value(), Value("")));
}

TEST(SeaCryptoPackageTest, DamagedEncryptionEntriesRefuseEveryPassword) {
  Value good = SeaCrypto::makeEncryptionInfo(Value("pw"));
  ASSERT_TRUE(good.isDictionary());
  auto with = [&](std::string_view key, Value v) {
    Value d = good.mutableCopy();
    d.set(Value(key), std::move(v));
    return d;
  };
  EXPECT_FALSE(SeaCrypto::canOpenWithPassword(with("Info", Value("pw")), Value("pw")));
  EXPECT_FALSE(SeaCrypto::canOpenWithPassword(with("Info", Value()), Value("pw")));
  EXPECT_FALSE(SeaCrypto::canOpenWithPassword(with("Salt", Value("salt")), Value("pw")));
  EXPECT_FALSE(SeaCrypto::canOpenWithPassword(with("Rounds", Value()), Value("pw")));
  EXPECT_FALSE(SeaCrypto::canOpenWithPassword(with("Rounds", Value(99999)), Value("pw")));
  EXPECT_FALSE(SeaCrypto::canOpenWithPassword(Value("not a dictionary"), Value("pw")));
  // A password given as data is never the password.
  EXPECT_FALSE(SeaCrypto::canOpenWithPassword(good, Value::data(std::string_view("pw"))));
}

}  // namespace
}  // namespace quillon
