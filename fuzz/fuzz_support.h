#pragma once

// What the fuzz targets that read files share: a quiet log, a scratch
// package (plain, or encrypted with a fixed password and a cheap key
// derivation) removed at exit, and writing the input where a reader will
// find it.

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "quillon/base/env.h"
#include "quillon/base/internal/system_log.h"
#include "quillon/base/url.h"
#include "quillon/base/value.h"
#include "quillon/coding/internal/sea_crypto.h"
#include "quillon/store/package_files.h"

namespace quillon::fuzz {

inline void quietLog() {
  static bool quiet = [] {
    setSystemLogSink([](std::string_view) {});
    return true;
  }();
  (void)quiet;
}

// A temporary folder, on tmpfs when there is one, removed when the process
// exits normally (libFuzzer's -max_total_time ends with exit()).
inline const std::string& scratchFolder() {
  static const std::string folder = [] {
    const char* base = std::filesystem::is_directory("/dev/shm") ? "/dev/shm" : "/tmp";
    std::string pattern = std::string(base) + "/quillon-fuzz-XXXXXX";
    if (!mkdtemp(pattern.data())) std::abort();
    static std::string removeAtExit = pattern;
    std::atexit([] {
      std::error_code ignored;
      std::filesystem::remove_all(removeAtExit, ignored);
    });
    return pattern;
  }();
  return folder;
}

// The salt and rounds every scratch package uses: one round keeps the key
// derivation out of the way of the fuzzing.
inline Value fixedEncryptionEntry() {
  Value entry = Value::mutableDictionary();
  entry.set(kSeaCryptoSaltKey, Value::data(std::vector<uint8_t>(SeaCrypto::kSaltLength, 0x5a)));
  entry.set(kSeaCryptoRoundsKey, Value::integer(1));
  return entry;
}

inline constexpr std::string_view kPassword = "fuzz password";

// A package folder `name` in the scratch folder with the usual subfolders,
// and its files: nil password for a plain package.
struct ScratchPackage {
  Url url;
  std::unique_ptr<PackageFiles> plain;
  std::unique_ptr<PackageFiles> sealed;
};

inline ScratchPackage makeScratchPackage(const std::string& name) {
  quietLog();
  ScratchPackage package;
  package.url = Url::fileURL(scratchFolder() + "/" + name);
  Env* env = Env::Default();
  for (const char* folder : {"Changes", "Entities", "Cache"}) {
    if (env->createDirectories(package.url.appending(folder, true).path())) std::abort();
  }
  Value info = Value::mutableDictionary();
  info.set("DocumentIdentifier", Value("00000000-0000-4000-8000-000000000000"));
  info.set(kSeaCryptoEncryptionKey, fixedEncryptionEntry());
  if (PackageFiles::writeInfo(env, package.url, info)) std::abort();
  package.plain = std::make_unique<PackageFiles>(env, package.url, Value());
  package.sealed = std::make_unique<PackageFiles>(env, package.url, Value(kPassword));
  if (!package.sealed->cipherReady()) std::abort();
  return package;
}

// Writes `bytes` to `path` as is (no rename, no flush: the scratch folder
// lives for one process).
inline void writeScratchFile(const std::string& path, std::span<const uint8_t> bytes) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) std::abort();
  size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (n <= 0) std::abort();
    done += static_cast<size_t>(n);
  }
  ::close(fd);
}

}  // namespace quillon::fuzz
