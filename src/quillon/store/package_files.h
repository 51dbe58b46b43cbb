#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "quillon/base/error.h"
#include "quillon/base/json.h"
#include "quillon/base/url.h"
#include "quillon/base/value.h"

namespace quillon {

class Env;
class SeaCrypto;

// How much of a file a reader accepts before it parses anything.
struct PackageFileLimits {
  uint64_t maximumSize;
  size_t maximumDepth;
};
// Change files and records come from other computers; the package's copy of
// the cache too.
extern const PackageFileLimits kChangeFileLimits;
extern const PackageFileLimits kRecordFileLimits;
extern const PackageFileLimits kCacheFileLimits;

// What reading one package file gave.
struct PackageFileReading {
  enum Status {
    kRead,           // the file's content (bytes, or a parsed value)
    kMissing,        // no such file, or it could not be read
    kEmpty,          // a file without bytes (often one still arriving)
    kTooLarge,       // more bytes than the reader accepts; nothing was read
    kUndecryptable,  // the package's cipher refused it (wrong password, damage)
    kUnparsable,     // decrypted, but not JSON (truncated, or too deeply nested)
  };
  Status status = kRead;
  uint64_t size = 0;  // bytes on disk, as far as they were measured
  // False for an online-only placeholder whose bytes are not stored here
  // (what was read of it is not the file's content).
  bool onDisk = true;
  Value value;  // the parsed JSON when kRead
  Error error;  // the Env's or the parser's error, when there was one

  bool ok() const { return status == kRead; }
  // "missing", "empty", "N bytes is more than … may have", …
  std::string describe() const;
};

// Whether a write must be on stable storage when it returns, or may stay in
// the page cache until the caller flushes a whole batch (Env::syncFiles).
enum class Durability { kFlushed, kBatched };

// The files of one package as bytes on disk: every file but Info.plist passes
// through the package's cipher (AES-256 with HMAC-SHA512, keys from the
// password and the "Encryption" entry of Info.plist, derived on first use);
// without a password bytes pass through unchanged. Reads are limited before
// anything is parsed.
//
// Owned by the store (shared with the cache and the change-log components);
// the tool makes its own. Thread-safe once constructed; the key derivation
// runs once, on whichever thread first needs it.
class PackageFiles {
 public:
  // `password` nil: the package is not encrypted.
  PackageFiles(Env* env, Url package, Value password);
  ~PackageFiles();
  PackageFiles(const PackageFiles&) = delete;
  PackageFiles& operator=(const PackageFiles&) = delete;

  Env* env() const { return env_; }
  bool encrypted() const { return !password_.isNil(); }
  const Value& password() const { return password_; }
  // The cipher answers nil until a package's "Encryption" entry and the
  // password derived usable keys; the tool uses this to tell a wrong
  // password from a damaged file.
  bool cipherReady();

  // Through the cipher; false when it refuses.
  bool seal(std::span<const uint8_t> plain, std::vector<uint8_t>* stored);
  bool open(std::span<const uint8_t> stored, std::vector<uint8_t>* plain);
  Value seal(const Value& data);
  Value open(const Value& data);

  // A file's plain bytes, read only when its size is within `maximumSize`.
  PackageFileReading readBytes(const std::string& path, uint64_t maximumSize,
                               std::vector<uint8_t>* plain);
  // A file's JSON content (any JSON value) within the limits.
  PackageFileReading readJSON(const std::string& path, const PackageFileLimits& limits);

  // Compact or pretty JSON, sealed, written atomically.
  [[nodiscard]] Error writeJSON(const std::string& path, const Value& value, JSONStyle style,
                                Durability durability);
  // Plain bytes, sealed, written atomically.
  [[nodiscard]] Error writeSealed(const std::string& path, std::span<const uint8_t> plain,
                                  Durability durability);
  // The stored form of a JSON value (for writers that add their own steps).
  [[nodiscard]] Error sealedJSON(const Value& value, JSONStyle style, std::vector<uint8_t>* stored);

  // A cipher for a package's "Encryption" entry (from Info.plist) and a
  // password; nullptr with `error` set when the entry or the password is
  // unusable.
  static std::unique_ptr<SeaCrypto> makeCipher(const Value& encryption, const Value& password,
                                               Error* error = nullptr);
  // The Env that stores and caches created from now on use for every file
  // access (Env::Default() unless set). For tests that inject faults; the
  // Env must outlive whatever was created with it.
  static void setDefaultEnv(Env* env);
  static Env* defaultEnv();

  // A package's Info.plist as a dictionary, nil when missing or unreadable.
  static Value readInfo(Env* env, const Url& package);
  [[nodiscard]] static Error writeInfo(Env* env, const Url& package, const Value& info);

 private:
  SeaCrypto* cipher();

  Env* env_;
  Url package_;
  Value password_;
  std::once_flag cipherOnce_;
  std::unique_ptr<SeaCrypto> cipher_;
};

}  // namespace quillon
