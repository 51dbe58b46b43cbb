#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "quillon/base/error.h"

namespace quillon {

// What Env::attributes() answers about an item.
struct FileAttributes {
  enum class Type { Regular, Directory, Symlink, Other };
  Type type = Type::Other;
  uint64_t size = 0;            // logical size in bytes
  uint64_t allocatedSize = 0;   // bytes of allocated blocks; 0 for a cloud placeholder
  uint64_t fileNumber = 0;      // inode number
  uint64_t device = 0;          // device the item lives on
  double modificationDate = 0;  // seconds since 2001-01-01 UTC
  bool isDirectory() const { return type == Type::Directory; }
  bool isRegular() const { return type == Type::Regular; }
};

// The single seam between the framework and the file system: every file
// access goes through an Env. Env::Default() is POSIX and thread-safe; tests
// derive from EnvWrapper to inject failures or count operations.
//
// Paths are absolute file-system paths. Every operation answers an Error,
// empty on success (a POSIX-domain error with errno and the path otherwise).
// How the names of the temporary files of atomic writes begin (where the
// file system cannot write unnamed files, and for the moment of replacing
// an existing file); they end in ".tmp".
inline constexpr std::string_view kTemporaryFilePrefix = ".~quillon-";

class Env {
 public:
  virtual ~Env() = default;

  // The process-wide POSIX environment; never destroyed.
  static Env* Default();

  virtual Error readFile(const std::string& path, std::vector<uint8_t>* contents) = 0;
  // Reads the file only when it holds at most `maximumSize` bytes: a larger
  // one answers EFBIG and is not read. `measured` (optional) receives the
  // file's attributes as found when it was opened, with the size read. The
  // default measures with attributes() and then calls readFile(), so a
  // wrapper's faults apply to it; the POSIX Env measures the open file, so
  // reading and measuring take one path lookup.
  virtual Error readFile(const std::string& path, uint64_t maximumSize,
                         std::vector<uint8_t>* contents, FileAttributes* measured = nullptr);
  // Writes through a temporary file in the same folder and a rename, so
  // readers see the old or the new contents, never a part.
  virtual Error writeFileAtomically(const std::string& path, std::span<const uint8_t> contents) = 0;
  // The same atomic replacement, but the contents are not flushed to stable
  // storage before the rename: after a crash the file may be missing or
  // hold less than was written. Far cheaper when many files are written;
  // the caller makes them durable together with syncFiles(). The default
  // is writeFileAtomically().
  virtual Error writeFileAtomicallyUnflushed(const std::string& path,
                                             std::span<const uint8_t> contents);
  // Flushes every item (file or folder) and every distinct parent folder of
  // the given paths to stable storage, so that their contents and their
  // names survive a crash. Items are flushed concurrently when there are
  // many. Tries every item and answers the first error. The default does
  // nothing: an Env without stable storage has nothing to flush.
  virtual Error syncFiles(const std::vector<std::string>& paths);
  // The names of a folder's items (not "." or ".."), in no particular order.
  virtual Error listDirectory(const std::string& path, std::vector<std::string>* names) = 0;
  // Creates the folder and any missing parents; an existing folder is fine.
  virtual Error createDirectories(const std::string& path) = 0;
  // Removes a file, or a folder with everything in it.
  virtual Error removeItem(const std::string& path) = 0;
  // Renames an item; fails when something exists at the destination.
  virtual Error moveItem(const std::string& from, const std::string& to) = 0;
  // Copies a file or a folder tree; fails when something exists at the destination.
  virtual Error copyItem(const std::string& from, const std::string& to) = 0;
  // Attributes of the item itself (symbolic links are not followed).
  virtual Error attributes(const std::string& path, FileAttributes* attributes) = 0;
  virtual bool exists(const std::string& path) = 0;
  // Sets an item's modification date (seconds since 2001-01-01 UTC). An Env
  // that cannot answers ENOTSUP.
  virtual Error setModificationDate(const std::string& path, double date);

  // Conveniences built on the operations above.
  bool isDirectory(const std::string& path);
  Error writeFileAtomically(const std::string& path, std::string_view contents);
  // Every item below a folder as paths relative to it, parents before their
  // contents, each folder's items sorted by name.
  Error listRecursively(const std::string& path, std::vector<std::string>* relativePaths);
};

// Forwards every operation to another Env. Override what a test needs.
class EnvWrapper : public Env {
 public:
  explicit EnvWrapper(Env* target) : target_(target) {}
  Env* target() const { return target_; }

  Error readFile(const std::string& path, std::vector<uint8_t>* contents) override {
    return target_->readFile(path, contents);
  }
  // The bounded read is Env's own, built on the two calls above, so that
  // what a wrapper overrides of them applies to it too.
  using Env::readFile;
  Error writeFileAtomically(const std::string& path, std::span<const uint8_t> contents) override {
    return target_->writeFileAtomically(path, contents);
  }
  Error writeFileAtomicallyUnflushed(const std::string& path,
                                     std::span<const uint8_t> contents) override {
    return target_->writeFileAtomicallyUnflushed(path, contents);
  }
  Error syncFiles(const std::vector<std::string>& paths) override {
    return target_->syncFiles(paths);
  }
  Error listDirectory(const std::string& path, std::vector<std::string>* names) override {
    return target_->listDirectory(path, names);
  }
  Error createDirectories(const std::string& path) override {
    return target_->createDirectories(path);
  }
  Error removeItem(const std::string& path) override { return target_->removeItem(path); }
  Error moveItem(const std::string& from, const std::string& to) override {
    return target_->moveItem(from, to);
  }
  Error copyItem(const std::string& from, const std::string& to) override {
    return target_->copyItem(from, to);
  }
  Error attributes(const std::string& path, FileAttributes* attributes) override {
    return target_->attributes(path, attributes);
  }
  bool exists(const std::string& path) override { return target_->exists(path); }
  Error setModificationDate(const std::string& path, double date) override {
    return target_->setModificationDate(path, date);
  }
  using Env::writeFileAtomically;

 private:
  Env* target_;
};

}  // namespace quillon
