#include "support/power_cut_env.h"

#include <cerrno>
#include <filesystem>

namespace quillon {
namespace {

namespace fs = std::filesystem;

std::string parentOf(const std::string& path) { return fs::path(path).parent_path().string(); }

bool isBelow(const std::string& path, const std::string& folder) {
  return path.size() > folder.size() && path.compare(0, folder.size(), folder) == 0 &&
         path[folder.size()] == '/';
}

}  // namespace

PowerCutEnv::PowerCutEnv(Env* target) : EnvWrapper(target) {}

void PowerCutEnv::cutAfter(size_t steps) {
  std::lock_guard lock(mutex_);
  cutAt_ = steps_ + steps;
}

size_t PowerCutEnv::steps() const {
  std::lock_guard lock(mutex_);
  return steps_;
}

bool PowerCutEnv::isCut() const {
  std::lock_guard lock(mutex_);
  return cut_;
}

Error PowerCutEnv::step(const std::string& path) {
  if (!cut_ && cutAt_ && steps_ >= *cutAt_) cut_ = true;
  if (cut_) return Error::posix(EIO, path);
  ++steps_;
  return {};
}

PowerCutEnv::File& PowerCutEnv::track(const std::string& path) {
  auto found = files_.find(path);
  if (found != files_.end()) return found->second;
  File file;
  std::vector<uint8_t> bytes;
  if (target()->exists(path)) {
    if (!target()->isDirectory(path) && !target()->readFile(path, &bytes)) file.stable = bytes;
  }
  return files_.emplace(path, std::move(file)).first->second;
}

Error PowerCutEnv::write(const std::string& path, std::span<const uint8_t> contents, bool flushed) {
  std::lock_guard lock(mutex_);
  if (Error error = step(path)) return error;
  File& file = track(path);
  Error error = flushed ? target()->writeFileAtomically(path, contents)
                        : target()->writeFileAtomicallyUnflushed(path, contents);
  if (!error) {
    file.contentsFlushed = flushed;
    file.nameFlushed = false;
  }
  return error;
}

Error PowerCutEnv::writeFileAtomically(const std::string& path, std::span<const uint8_t> contents) {
  return write(path, contents, true);
}

Error PowerCutEnv::writeFileAtomicallyUnflushed(const std::string& path,
                                                std::span<const uint8_t> contents) {
  return write(path, contents, false);
}

Error PowerCutEnv::syncFiles(const std::vector<std::string>& paths) {
  std::lock_guard lock(mutex_);
  if (Error error = step(paths.empty() ? std::string() : paths.front())) return error;
  if (Error error = target()->syncFiles(paths)) return error;
  // syncFiles flushes each item and each item's folder.
  std::vector<std::string> folders;
  for (const std::string& path : paths) {
    auto file = files_.find(path);
    if (file != files_.end()) file->second.contentsFlushed = true;
    folders.push_back(parentOf(path));
    if (target()->isDirectory(path)) folders.push_back(path);
  }
  for (const std::string& folder : folders) {
    for (auto& [path, file] : files_) {
      if (parentOf(path) == folder) file.nameFlushed = true;
    }
    for (auto& [path, flushedName] : newFolders_) {
      if (parentOf(path) == folder) flushedName = true;
    }
  }
  // What is wholly on disk is stable from now on.
  for (auto& [path, file] : files_) {
    if (!file.contentsFlushed || !file.nameFlushed) continue;
    std::vector<uint8_t> bytes;
    if (target()->exists(path) && !target()->readFile(path, &bytes)) {
      file.stable = std::move(bytes);
    } else {
      file.stable.reset();
    }
  }
  return {};
}

Error PowerCutEnv::createDirectories(const std::string& path) {
  std::lock_guard lock(mutex_);
  std::vector<std::string> missing;
  for (fs::path p(path); !p.empty() && p != p.root_path(); p = p.parent_path()) {
    if (target()->exists(p.string())) break;
    missing.push_back(p.string());
  }
  if (missing.empty()) return target()->createDirectories(path);
  if (Error error = step(path)) return error;
  Error error = target()->createDirectories(path);
  if (!error) {
    for (const std::string& folder : missing) newFolders_.emplace(folder, false);
  }
  return error;
}

Error PowerCutEnv::removeItem(const std::string& path) {
  std::lock_guard lock(mutex_);
  if (Error error = step(path)) return error;
  std::vector<std::string> removed;
  if (target()->isDirectory(path)) {
    std::vector<std::string> below;
    (void)target()->listRecursively(path, &below);  // a folder that cannot be listed: nothing to track
    for (const std::string& relative : below) {
      std::string item = path + "/" + relative;
      if (!target()->isDirectory(item)) removed.push_back(item);
    }
  } else if (target()->exists(path)) {
    removed.push_back(path);
  }
  for (const std::string& item : removed) track(item);
  Error error = target()->removeItem(path);
  if (!error) {
    for (const std::string& item : removed) files_[item].nameFlushed = false;
  }
  return error;
}

Error PowerCutEnv::moveItem(const std::string& from, const std::string& to) {
  std::lock_guard lock(mutex_);
  if (Error error = step(from)) return error;
  File& source = track(from);
  File& target = track(to);
  Error error = EnvWrapper::target()->moveItem(from, to);
  if (!error) {
    target.contentsFlushed = source.contentsFlushed;
    target.nameFlushed = false;
    source.nameFlushed = false;
  }
  return error;
}

Error PowerCutEnv::copyItem(const std::string& from, const std::string& to) {
  std::lock_guard lock(mutex_);
  if (Error error = step(to)) return error;
  File& file = track(to);
  Error error = target()->copyItem(from, to);
  if (!error) {
    file.contentsFlushed = false;
    file.nameFlushed = false;
  }
  return error;
}

void PowerCutEnv::restart(Loss loss) {
  std::lock_guard lock(mutex_);
  Env* real = target();
  for (auto& [path, file] : files_) {
    if (file.contentsFlushed && file.nameFlushed) continue;
    if (!file.nameFlushed && loss != Loss::NamesKept) {
      // The name is what it was: the old file, or none.
      (void)real->removeItem(path);  // may not exist
      if (file.stable) {
        (void)real->createDirectories(parentOf(path));
        (void)real->writeFileAtomically(path, *file.stable);
      }
      continue;
    }
    // The new name survived, without its contents unless they were flushed.
    std::vector<uint8_t> bytes;
    if (file.contentsFlushed || real->readFile(path, &bytes)) continue;  // or removed for good
    if (loss == Loss::Torn) {
      bytes.resize(bytes.size() / 2);
    } else {
      bytes.clear();
    }
    (void)real->writeFileAtomically(path, bytes);
  }
  // New folders whose names did not survive are gone with all they hold;
  // so is everything below a folder that is gone.
  for (const auto& [folder, flushedName] : newFolders_) {
    if (loss == Loss::NamesKept) break;
    bool gone = !flushedName;
    for (const auto& [other, otherFlushed] : newFolders_) {
      if (!otherFlushed && isBelow(folder, other)) gone = true;
    }
    if (gone) (void)real->removeItem(folder);  // may already be gone with its parent
  }
  files_.clear();
  newFolders_.clear();
  cut_ = false;
  cutAt_.reset();
}

}  // namespace quillon
