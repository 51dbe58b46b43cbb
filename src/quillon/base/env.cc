#include "quillon/base/env.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <limits>
#include <mutex>
#include <thread>
#include <unordered_set>

namespace quillon {
namespace {

constexpr double kUnixToReferenceDate = 978307200.0;

std::string parentOf(const std::string& path) {
  size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

Error writeAll(int fd, std::span<const uint8_t> data, const std::string& path) {
  size_t done = 0;
  while (done < data.size()) {
    ssize_t n = ::write(fd, data.data() + done, data.size() - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      return Error::posix(errno, path);
    }
    done += static_cast<size_t>(n);
  }
  return {};
}

Error syncItem(const std::string& path) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return Error::posix(errno, path);
  Error e;
  if (::fsync(fd) != 0) e = Error::posix(errno, path);
  ::close(fd);
  return e;
}

// Name of a temporary file while it is being written, for file systems
// without unnamed files. Hidden, starting ".~" and ending ".tmp": the forms
// that file-synchronisation clients treat as work in progress and leave
// alone.
std::string temporaryName(const std::string& path) {
  static std::atomic<uint64_t> counter{0};
  return parentOf(path) + "/" + std::string(kTemporaryFilePrefix) + std::to_string(::getpid()) +
         "-" + std::to_string(counter.fetch_add(1)) + ".tmp";
}

Error fillAndClose(int fd, std::span<const uint8_t> contents, bool flush, const std::string& path) {
  Error e = writeAll(fd, contents, path);
  if (!e && flush && ::fsync(fd) != 0) e = Error::posix(errno, path);
  if (::close(fd) != 0 && !e) e = Error::posix(errno, path);
  return e;
}

// The contents are written into an unnamed file of the target's folder
// (O_TMPFILE) and given their name only once complete: a new file appears
// under its final name in one step, and a replaced one under a temporary
// name for the moment between link and rename. A synchronisation service
// watching the folder therefore never sees a half-written file, nor a
// temporary one it would copy and then miss. File systems without unnamed
// files get a named temporary file.
Error writeThroughTemporary(const std::string& path, std::span<const uint8_t> contents,
                            bool flush) {
  int fd = ::open(parentOf(path).c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0644);
  if (fd >= 0) {
    Error e = writeAll(fd, contents, path);
    if (!e && flush && ::fsync(fd) != 0) e = Error::posix(errno, path);
    if (!e) {
      const std::string self = "/proc/self/fd/" + std::to_string(fd);
      if (::linkat(AT_FDCWD, self.c_str(), AT_FDCWD, path.c_str(), AT_SYMLINK_FOLLOW) != 0) {
        if (errno != EEXIST) {
          e = Error::posix(errno, path);
        } else {
          std::string temp = temporaryName(path);
          if (::linkat(AT_FDCWD, self.c_str(), AT_FDCWD, temp.c_str(), AT_SYMLINK_FOLLOW) != 0) {
            e = Error::posix(errno, path);
          } else if (::rename(temp.c_str(), path.c_str()) != 0) {
            e = Error::posix(errno, path);
            ::unlink(temp.c_str());
          }
        }
      }
    }
    if (::close(fd) != 0 && !e) e = Error::posix(errno, path);
    return e;
  }
  // ENOENT and the like are the target's own errors; only a file system
  // without unnamed files goes the long way.
  if (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL) return Error::posix(errno, path);
  std::string temp = temporaryName(path);
  fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (fd < 0) return Error::posix(errno, path);
  Error e = fillAndClose(fd, contents, flush, path);
  if (!e && ::rename(temp.c_str(), path.c_str()) != 0) e = Error::posix(errno, path);
  if (e) ::unlink(temp.c_str());
  return e;
}

void attributesFromStat(const struct stat& st, FileAttributes* a) {
  a->type = S_ISREG(st.st_mode)   ? FileAttributes::Type::Regular
            : S_ISDIR(st.st_mode) ? FileAttributes::Type::Directory
            : S_ISLNK(st.st_mode) ? FileAttributes::Type::Symlink
                                  : FileAttributes::Type::Other;
  a->size = static_cast<uint64_t>(st.st_size);
  a->allocatedSize = static_cast<uint64_t>(st.st_blocks) * 512;
  a->fileNumber = st.st_ino;
  a->device = st.st_dev;
  a->modificationDate = static_cast<double>(st.st_mtim.tv_sec) +
                        static_cast<double>(st.st_mtim.tv_nsec) / 1e9 - kUnixToReferenceDate;
}

class PosixEnv final : public Env {
 public:
  Error readFile(const std::string& path, std::vector<uint8_t>* contents) override {
    return readFile(path, std::numeric_limits<uint64_t>::max(), contents, nullptr);
  }

  Error readFile(const std::string& path, uint64_t maximumSize, std::vector<uint8_t>* contents,
                 FileAttributes* measured) override {
    contents->clear();
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return Error::posix(errno, path);
    struct stat st;
    if (::fstat(fd, &st) != 0) {
      int e = errno;
      ::close(fd);
      return Error::posix(e, path);
    }
    if (S_ISDIR(st.st_mode)) {
      ::close(fd);
      return Error::posix(EISDIR, path);
    }
    const uint64_t size = st.st_size > 0 ? static_cast<uint64_t>(st.st_size) : 0;
    if (measured) attributesFromStat(st, measured);
    if (size > maximumSize) {
      ::close(fd);
      return Error::posix(EFBIG, path);
    }
    // Read straight into the result; a file that grows meanwhile is read
    // to its end (and measured again against the limit).
    size_t filled = 0;
    contents->resize(static_cast<size_t>(size) + 1);
    for (;;) {
      if (filled == contents->size()) {
        if (contents->size() > maximumSize) break;
        contents->resize(std::max<size_t>(contents->size() * 2, 65536));
      }
      ssize_t n = ::read(fd, contents->data() + filled, contents->size() - filled);
      if (n < 0) {
        if (errno == EINTR) continue;
        int e = errno;
        ::close(fd);
        contents->clear();
        return Error::posix(e, path);
      }
      if (n == 0) break;
      filled += static_cast<size_t>(n);
    }
    ::close(fd);
    contents->resize(filled);
    if (measured) measured->size = filled;
    if (filled > maximumSize) {
      contents->clear();
      return Error::posix(EFBIG, path);
    }
    return {};
  }

  Error writeFileAtomically(const std::string& path, std::span<const uint8_t> contents) override {
    return writeThroughTemporary(path, contents, /*flush=*/true);
  }

  Error writeFileAtomicallyUnflushed(const std::string& path,
                                     std::span<const uint8_t> contents) override {
    return writeThroughTemporary(path, contents, /*flush=*/false);
  }

  Error syncFiles(const std::vector<std::string>& paths) override {
    std::vector<std::string> items;
    std::unordered_set<std::string> seen;
    items.reserve(paths.size() * 2);
    for (const auto& path : paths) {
      if (seen.insert(path).second) items.push_back(path);
    }
    for (const auto& path : paths) {
      std::string parent = parentOf(path);
      if (seen.insert(parent).second) items.push_back(std::move(parent));
    }
    // fsync waits for the device, not the processor: a few threads keep
    // several flushes in flight, which is what makes a batch cheaper than
    // one flush after another.
    constexpr size_t kItemsPerThread = 32;
    constexpr size_t kMaxThreads = 16;
    size_t threads = std::min(kMaxThreads, (items.size() + kItemsPerThread - 1) / kItemsPerThread);
    std::atomic<size_t> next{0};
    std::mutex errorMutex;
    size_t errorIndex = items.size();
    Error firstError;
    auto work = [&] {
      for (size_t i = next.fetch_add(1); i < items.size(); i = next.fetch_add(1)) {
        Error e = syncItem(items[i]);
        if (!e) continue;
        std::lock_guard lock(errorMutex);
        if (i < errorIndex) {
          errorIndex = i;
          firstError = std::move(e);
        }
      }
    };
    std::vector<std::thread> pool;
    for (size_t t = 1; t < threads; ++t) pool.emplace_back(work);
    work();
    for (auto& thread : pool) thread.join();
    return firstError;
  }

  Error listDirectory(const std::string& path, std::vector<std::string>* names) override {
    names->clear();
    DIR* dir = ::opendir(path.c_str());
    if (!dir) return Error::posix(errno, path);
    while (struct dirent* entry = ::readdir(dir)) {
      std::string_view name = entry->d_name;
      if (name == "." || name == "..") continue;
      names->emplace_back(name);
    }
    ::closedir(dir);
    return {};
  }

  Error createDirectories(const std::string& path) override {
    if (path.empty()) return Error::posix(ENOENT, path);
    struct stat st;
    if (::stat(path.c_str(), &st) == 0) {
      return S_ISDIR(st.st_mode) ? Error() : Error::posix(EEXIST, path);
    }
    std::string parent = parentOf(path);
    if (parent != path && parent != "/" && parent != ".") {
      if (Error e = createDirectories(parent)) return e;
    }
    if (::mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) return Error::posix(errno, path);
    return {};
  }

  Error removeItem(const std::string& path) override {
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0) return Error::posix(errno, path);
    if (S_ISDIR(st.st_mode)) {
      std::vector<std::string> names;
      if (Error e = listDirectory(path, &names)) return e;
      for (const auto& name : names) {
        if (Error e = removeItem(path + "/" + name)) return e;
      }
      if (::rmdir(path.c_str()) != 0) return Error::posix(errno, path);
      return {};
    }
    if (::unlink(path.c_str()) != 0) return Error::posix(errno, path);
    return {};
  }

  Error moveItem(const std::string& from, const std::string& to) override {
    struct stat st;
    if (::lstat(to.c_str(), &st) == 0) return Error::posix(EEXIST, to);
    if (::rename(from.c_str(), to.c_str()) != 0) return Error::posix(errno, from);
    return {};
  }

  Error copyItem(const std::string& from, const std::string& to) override {
    struct stat st;
    if (::lstat(to.c_str(), &st) == 0) return Error::posix(EEXIST, to);
    if (::lstat(from.c_str(), &st) != 0) return Error::posix(errno, from);
    if (S_ISDIR(st.st_mode)) {
      if (::mkdir(to.c_str(), st.st_mode & 0777) != 0) return Error::posix(errno, to);
      std::vector<std::string> names;
      if (Error e = listDirectory(from, &names)) return e;
      for (const auto& name : names) {
        if (Error e = copyItem(from + "/" + name, to + "/" + name)) return e;
      }
      return {};
    }
    std::vector<uint8_t> contents;
    if (Error e = readFile(from, &contents)) return e;
    int fd = ::open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, st.st_mode & 0777);
    if (fd < 0) return Error::posix(errno, to);
    Error e = writeAll(fd, contents, to);
    if (::close(fd) != 0 && !e) e = Error::posix(errno, to);
    return e;
  }

  Error attributes(const std::string& path, FileAttributes* a) override {
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0) return Error::posix(errno, path);
    attributesFromStat(st, a);
    return {};
  }

  bool exists(const std::string& path) override {
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0;
  }

  Error setModificationDate(const std::string& path, double date) override {
    double unixTime = date + kUnixToReferenceDate;
    struct timespec times[2];
    times[0].tv_sec = 0;
    times[0].tv_nsec = UTIME_OMIT;
    times[1].tv_sec = static_cast<time_t>(std::floor(unixTime));
    times[1].tv_nsec = static_cast<long>((unixTime - std::floor(unixTime)) * 1e9);
    if (::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW) != 0) {
      return Error::posix(errno, path);
    }
    return {};
  }
};

}  // namespace

Env* Env::Default() {
  static Env* env = new PosixEnv();
  return env;
}

Error Env::writeFileAtomicallyUnflushed(const std::string& path,
                                        std::span<const uint8_t> contents) {
  return writeFileAtomically(path, contents);
}

Error Env::syncFiles(const std::vector<std::string>& /*paths*/) { return {}; }

Error Env::readFile(const std::string& path, uint64_t maximumSize, std::vector<uint8_t>* contents,
                    FileAttributes* measured) {
  contents->clear();
  FileAttributes found;
  if (Error error = attributes(path, &found)) return error;
  if (measured) *measured = found;
  if (found.isDirectory()) return Error::posix(EISDIR, path);
  if (found.size > maximumSize) return Error::posix(EFBIG, path);
  if (Error error = readFile(path, contents)) return error;
  if (measured) measured->size = contents->size();
  if (contents->size() > maximumSize) {  // grew since it was measured
    contents->clear();
    return Error::posix(EFBIG, path);
  }
  return {};
}

Error Env::setModificationDate(const std::string& path, double /*date*/) {
  return Error::posix(ENOTSUP, path);
}

bool Env::isDirectory(const std::string& path) {
  FileAttributes a;
  return !attributes(path, &a) && a.isDirectory();
}

Error Env::writeFileAtomically(const std::string& path, std::string_view contents) {
  return writeFileAtomically(
      path,
      std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(contents.data()), contents.size()));
}

Error Env::listRecursively(const std::string& path, std::vector<std::string>* relativePaths) {
  relativePaths->clear();
  std::function<Error(const std::string&)> walk = [&](const std::string& rel) -> Error {
    std::string folder = rel.empty() ? path : path + "/" + rel;
    std::vector<std::string> names;
    if (Error e = listDirectory(folder, &names)) return e;
    std::sort(names.begin(), names.end());
    for (const auto& name : names) {
      std::string child = rel.empty() ? name : rel + "/" + name;
      relativePaths->push_back(child);
      if (isDirectory(path + "/" + child)) {
        if (Error e = walk(child)) return e;
      }
    }
    return {};
  };
  return walk("");
}

}  // namespace quillon
