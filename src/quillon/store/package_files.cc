#include "quillon/store/package_files.h"

#include <fmt/format.h>

#include <atomic>
#include <cerrno>

#include "quillon/base/env.h"
#include "quillon/base/internal/plist.h"
#include "quillon/base/internal/system_log.h"
#include "quillon/coding/internal/sea_crypto.h"
#include "quillon/coding/internal/url_utils.h"
#include "quillon/store/internal/package_format.h"

namespace quillon {

const PackageFileLimits kChangeFileLimits{kMaximumChangeFileSize, kMaximumChangeFileDepth};
const PackageFileLimits kRecordFileLimits{kMaximumRecordFileSize, kMaximumRecordFileDepth};
// The cache's own files are DenseCoding, not JSON; only the size applies.
const PackageFileLimits kCacheFileLimits{uint64_t{1} << 30, 0};

std::string PackageFileReading::describe() const {
  switch (status) {
    case kRead:
      return "read";
    case kMissing:
      return "missing";
    case kEmpty:
      return "empty";
    case kTooLarge:
      return fmt::format("{} bytes is more than such a file may have", size);
    case kUndecryptable:
      return "cannot be decrypted";
    case kUnparsable:
      return "not JSON";
  }
  return {};
}

PackageFiles::PackageFiles(Env* env, Url package, Value password)
    : env_(env),
      package_(std::move(package)),
      password_(password.isString() ? std::move(password) : Value()) {}

PackageFiles::~PackageFiles() = default;

std::unique_ptr<SeaCrypto> PackageFiles::makeCipher(const Value& encryption, const Value& password,
                                                    Error* error) {
  auto fail = [&](std::string_view why) -> std::unique_ptr<SeaCrypto> {
    if (error) *error = Error::withDescription("QuillonPackage", 1, why);
    return nullptr;
  };
  if (!encryption.isDictionary()) return fail("the package has no \"Encryption\" entry");
  if (!password.isString()) return fail("no password was given");
  auto cipher = std::make_unique<SeaCrypto>();
  cipher->setSalt(encryption.get(kSeaCryptoSaltKey));
  cipher->setRounds(encryption.get(kSeaCryptoRoundsKey));
  if (!cipher->setPassword(password)) {
    return fail("the \"Encryption\" entry has no usable salt and rounds");
  }
  return cipher;
}

namespace {
std::atomic<Env*> gDefaultEnv{nullptr};
}  // namespace

void PackageFiles::setDefaultEnv(Env* env) { gDefaultEnv.store(env); }

Env* PackageFiles::defaultEnv() {
  Env* env = gDefaultEnv.load();
  return env ? env : Env::Default();
}

Value PackageFiles::readInfo(Env* env, const Url& package) {
  std::vector<uint8_t> bytes;
  if (env->readFile(package.appending(kPackageInfoFileName).path(), &bytes)) return Value();
  Value info = readPropertyList(bytes);
  return info.isDictionary() ? info : Value();
}

Error PackageFiles::writeInfo(Env* env, const Url& package, const Value& info) {
  Error error;
  std::string xml = writePropertyListXML(info, &error);
  if (error) return error;
  return env->writeFileAtomically(package.appending(kPackageInfoFileName).path(),
                                  std::string_view(xml));
}

SeaCrypto* PackageFiles::cipher() {
  std::call_once(cipherOnce_, [this] {
    // A package whose Info.plist lost its entry keeps an inert cipher, which
    // refuses everything: its files cannot be read without their keys.
    Value encryption = readInfo(env_, package_).get(kSeaCryptoEncryptionKey);
    cipher_ = std::make_unique<SeaCrypto>();
    cipher_->setSalt(encryption.get(kSeaCryptoSaltKey));
    cipher_->setRounds(encryption.get(kSeaCryptoRoundsKey));
    cipher_->setPassword(password_);
  });
  return cipher_.get();
}

bool PackageFiles::cipherReady() {
  if (!encrypted()) return true;
  return !cipher()->encryptData(Value::data(std::string_view("x"))).isNil();
}

bool PackageFiles::seal(std::span<const uint8_t> plain, std::vector<uint8_t>* stored) {
  if (!encrypted()) {
    stored->assign(plain.begin(), plain.end());
    return true;
  }
  stored->clear();
  return cipher()->encryptBytes(plain, stored);
}

bool PackageFiles::open(std::span<const uint8_t> stored, std::vector<uint8_t>* plain) {
  if (!encrypted()) {
    plain->assign(stored.begin(), stored.end());
    return true;
  }
  plain->clear();
  return cipher()->decryptBytes(stored, plain);
}

Value PackageFiles::seal(const Value& data) {
  return encrypted() ? cipher()->encryptData(data) : data;
}

Value PackageFiles::open(const Value& data) {
  return encrypted() ? cipher()->decryptData(data) : data;
}

PackageFileReading PackageFiles::readBytes(const std::string& path, uint64_t maximumSize,
                                           std::vector<uint8_t>* plain) {
  PackageFileReading reading;
  plain->clear();
  std::vector<uint8_t> stored;
  FileAttributes measured;
  Error error = env_->readFile(path, maximumSize, &stored, &measured);
  reading.size = measured.size;
  reading.onDisk = QuillonIsOnDisk(measured);
  if (error) {
    const bool tooLarge = error.domain() == kPosixErrorDomain && error.code() == EFBIG;
    reading.status = tooLarge ? PackageFileReading::kTooLarge : PackageFileReading::kMissing;
    if (!tooLarge) reading.error = std::move(error);
    return reading;
  }
  if (stored.empty()) {
    reading.status = PackageFileReading::kEmpty;
    return reading;
  }
  if (!encrypted()) {
    plain->swap(stored);
  } else if (!open(stored, plain)) {
    reading.status = PackageFileReading::kUndecryptable;
  }
  return reading;
}

PackageFileReading PackageFiles::readJSON(const std::string& path,
                                          const PackageFileLimits& limits) {
  std::vector<uint8_t> plain;
  PackageFileReading reading = readBytes(path, limits.maximumSize, &plain);
  if (!reading.ok()) return reading;
  JSONReadOptions options;
  options.maximumDepth = limits.maximumDepth;
  reading.value = quillon::readJSON(std::span<const uint8_t>(plain), &reading.error, options);
  if (reading.value.isNil()) reading.status = PackageFileReading::kUnparsable;
  return reading;
}

Error PackageFiles::sealedJSON(const Value& value, JSONStyle style, std::vector<uint8_t>* stored) {
  Error error;
  std::string json = quillon::writeJSON(value, style, &error);
  if (json.empty()) {
    return error ? error : Error::withDescription("QuillonPackage", 2, "cannot write JSON");
  }
  std::span<const uint8_t> plain(reinterpret_cast<const uint8_t*>(json.data()), json.size());
  if (!seal(plain, stored)) return Error::withDescription("QuillonPackage", 3, "cannot encrypt");
  return Error();
}

Error PackageFiles::writeJSON(const std::string& path, const Value& value, JSONStyle style,
                              Durability durability) {
  std::vector<uint8_t> stored;
  if (Error error = sealedJSON(value, style, &stored)) {
    return Error::withDescription(error.domain(), error.code(),
                                  fmt::format("{}: {}", path, error.localizedDescription()));
  }
  return durability == Durability::kFlushed ? env_->writeFileAtomically(path, stored)
                                            : env_->writeFileAtomicallyUnflushed(path, stored);
}

Error PackageFiles::writeSealed(const std::string& path, std::span<const uint8_t> plain,
                                Durability durability) {
  std::vector<uint8_t> stored;
  if (!seal(plain, &stored)) {
    return Error::withDescription("QuillonPackage", 3, fmt::format("cannot encrypt {}", path));
  }
  return durability == Durability::kFlushed ? env_->writeFileAtomically(path, stored)
                                            : env_->writeFileAtomicallyUnflushed(path, stored);
}

}  // namespace quillon
