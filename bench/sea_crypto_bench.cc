// Seals and opens buffers with SeaCrypto and, in the same run, with OpenSSL's
// EVP interface called directly (the floor for the same algorithms), then
// prints how much slower the envelope is. Keys are derived once, outside the
// timed loops: the derivation is slow on purpose.

#include <benchmark/benchmark.h>
#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "bench_support.h"
#include "quillon/coding/internal/sea_crypto.h"

namespace {

using quillon::SeaCrypto;
using quillon::Value;

SeaCrypto& sharedCrypto() {
  static SeaCrypto* crypto = [] {
    auto* c = new SeaCrypto;
    c->setSalt(Value::data(std::string(64, 's')));
    c->setRounds(SeaCrypto::defaultRounds());
    if (!c->setPassword(Value("benchmark password"))) std::abort();
    return c;
  }();
  return *crypto;
}

Value plainData(size_t size) {
  std::vector<uint8_t> bytes(size);
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(i * 131 + 17);
  return Value::data(std::move(bytes));
}

// The store's path: Value in, Value out, a fresh random IV per seal.
void BM_SeaCryptoRoundTrip(benchmark::State& state) {
  const SeaCrypto& crypto = sharedCrypto();
  Value plain = plainData(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    Value sealed = crypto.encryptData(plain);
    Value opened = crypto.decryptData(sealed);
    if (opened.bytes().size() != plain.bytes().size()) state.SkipWithError("round trip failed");
    benchmark::DoNotOptimize(opened);
  }
  state.SetBytesProcessed(state.iterations() * state.range(0) * 2);
}
BENCHMARK(BM_SeaCryptoRoundTrip)->Arg(1024)->Arg(1 << 20);

// The raw-byte interface into buffers that keep their capacity.
void BM_SeaCryptoBytesRoundTrip(benchmark::State& state) {
  const SeaCrypto& crypto = sharedCrypto();
  Value plain = plainData(static_cast<size_t>(state.range(0)));
  std::vector<uint8_t> sealed, opened;
  for (auto _ : state) {
    sealed.clear();
    opened.clear();
    if (!crypto.encryptBytes(plain.bytes(), &sealed) || !crypto.decryptBytes(sealed, &opened)) {
      state.SkipWithError("round trip failed");
    }
    benchmark::DoNotOptimize(opened.data());
  }
  state.SetBytesProcessed(state.iterations() * state.range(0) * 2);
}
BENCHMARK(BM_SeaCryptoBytesRoundTrip)->Arg(1024)->Arg(1 << 20);

// The same work done by hand with long-lived EVP contexts: random IV,
// AES-256-CBC, HMAC-SHA512 over IV and ciphertext; then MAC check and
// decryption. With `freshBuffers` the sealed and opened buffers are new
// vectors each time, as for any interface that hands its results over (the
// Value interface must); otherwise they are allocated once.
void rawOpenSSLRoundTrip(benchmark::State& state, bool freshBuffers) {
  const SeaCrypto& crypto = sharedCrypto();
  const uint8_t* aesKey = crypto.key().bytes().data();
  const uint8_t* macKey = crypto.keyHMAC().bytes().data();
  Value plainValue = plainData(static_cast<size_t>(state.range(0)));
  std::span<const uint8_t> plain = plainValue.bytes();
  const size_t cipherLength = 16 * (plain.size() / 16 + 1);
  std::vector<uint8_t> sealed(16 + cipherLength + 64);
  std::vector<uint8_t> opened(cipherLength);

  EVP_CIPHER* cipher = EVP_CIPHER_fetch(nullptr, "AES-256-CBC", nullptr);
  EVP_MAC* macAlgorithm = EVP_MAC_fetch(nullptr, "HMAC", nullptr);
  EVP_CIPHER_CTX* cctx = EVP_CIPHER_CTX_new();
  EVP_MAC_CTX* mctx = EVP_MAC_CTX_new(macAlgorithm);
  char digest[] = "SHA512";
  OSSL_PARAM params[] = {OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, digest, 0),
                         OSSL_PARAM_construct_end()};
  bool ok = true;
  for (auto _ : state) {
    if (freshBuffers) {
      sealed = std::vector<uint8_t>(16 + cipherLength + 64);
      opened = std::vector<uint8_t>(cipherLength);
    }
    int a = 0, b = 0;
    size_t macLength = 0;
    ok &= RAND_bytes(sealed.data(), 16) == 1;
    ok &= EVP_EncryptInit_ex2(cctx, cipher, aesKey, sealed.data(), nullptr) == 1;
    ok &= EVP_EncryptUpdate(cctx, sealed.data() + 16, &a, plain.data(),
                            static_cast<int>(plain.size())) == 1;
    ok &= EVP_EncryptFinal_ex(cctx, sealed.data() + 16 + a, &b) == 1;
    ok &= EVP_MAC_init(mctx, macKey, 32, params) == 1;
    ok &= EVP_MAC_update(mctx, sealed.data(), 16 + cipherLength) == 1;
    ok &= EVP_MAC_final(mctx, sealed.data() + 16 + cipherLength, &macLength, 64) == 1;

    uint8_t mac[64];
    ok &= EVP_MAC_init(mctx, macKey, 32, params) == 1;
    ok &= EVP_MAC_update(mctx, sealed.data(), 16 + cipherLength) == 1;
    ok &= EVP_MAC_final(mctx, mac, &macLength, 64) == 1;
    ok &= CRYPTO_memcmp(mac, sealed.data() + 16 + cipherLength, 64) == 0;
    ok &= EVP_DecryptInit_ex2(cctx, cipher, aesKey, sealed.data(), nullptr) == 1;
    ok &= EVP_DecryptUpdate(cctx, opened.data(), &a, sealed.data() + 16,
                            static_cast<int>(cipherLength)) == 1;
    ok &= EVP_DecryptFinal_ex(cctx, opened.data() + a, &b) == 1;
    benchmark::DoNotOptimize(opened.data());
  }
  if (!ok) state.SkipWithError("OpenSSL failed");
  EVP_MAC_CTX_free(mctx);
  EVP_CIPHER_CTX_free(cctx);
  EVP_MAC_free(macAlgorithm);
  EVP_CIPHER_free(cipher);
  state.SetBytesProcessed(state.iterations() * state.range(0) * 2);
}

void BM_RawOpenSSLRoundTrip(benchmark::State& state) { rawOpenSSLRoundTrip(state, false); }
BENCHMARK(BM_RawOpenSSLRoundTrip)->Arg(1024)->Arg(1 << 20);

void BM_RawOpenSSLFreshBuffersRoundTrip(benchmark::State& state) {
  rawOpenSSLRoundTrip(state, true);
}
BENCHMARK(BM_RawOpenSSLFreshBuffersRoundTrip)->Arg(1024)->Arg(1 << 20);

void printRatios(const quillon::bench::RatioReporter& reporter) {
  static const struct {
    const char* ours;
    const char* peer;
  } kPairs[] = {
      {"BM_SeaCryptoRoundTrip", "BM_RawOpenSSLFreshBuffersRoundTrip"},
      {"BM_SeaCryptoBytesRoundTrip", "BM_RawOpenSSLRoundTrip"},
      {"BM_SeaCryptoRoundTrip", "BM_RawOpenSSLRoundTrip"},
  };
  for (const char* size : {"1024", "1048576"}) {
    for (const auto& pair : kPairs) {
      double ours = reporter.cpuTime(std::string(pair.ours) + "/" + size);
      double peer = reporter.cpuTime(std::string(pair.peer) + "/" + size);
      if (ours <= 0 || peer <= 0) continue;
      std::printf("CPU time %s / %s at %s bytes: %.3f\n", pair.ours + 3, pair.peer + 3, size,
                  ours / peer);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  // Derives the keys before any timing starts.
  return quillon::bench::runBenchmarks(argc, argv, printRatios, [] { sharedCrypto(); });
}
