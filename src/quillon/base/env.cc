#include "quillon/base/env.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>

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

class PosixEnv final : public Env {
 public:
  Error readFile(const std::string& path, std::vector<uint8_t>* contents) override {
    contents->clear();
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return Error::posix(errno, path);
    struct stat st;
    if (::fstat(fd, &st) == 0 && S_ISDIR(st.st_mode)) {
      ::close(fd);
      return Error::posix(EISDIR, path);
    }
    if (st.st_size > 0) contents->reserve(static_cast<size_t>(st.st_size));
    uint8_t buffer[65536];
    for (;;) {
      ssize_t n = ::read(fd, buffer, sizeof buffer);
      if (n < 0) {
        if (errno == EINTR) continue;
        int e = errno;
        ::close(fd);
        return Error::posix(e, path);
      }
      if (n == 0) break;
      contents->insert(contents->end(), buffer, buffer + n);
    }
    ::close(fd);
    return {};
  }

  Error writeFileAtomically(const std::string& path, std::span<const uint8_t> contents) override {
    static std::atomic<uint64_t> counter{0};
    std::string temp = parentOf(path) + "/.quillon-tmp-" + std::to_string(::getpid()) + "-" +
                       std::to_string(counter.fetch_add(1));
    int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) return Error::posix(errno, path);
    Error e = writeAll(fd, contents, path);
    if (!e && ::fsync(fd) != 0) e = Error::posix(errno, path);
    if (::close(fd) != 0 && !e) e = Error::posix(errno, path);
    if (!e && ::rename(temp.c_str(), path.c_str()) != 0) e = Error::posix(errno, path);
    if (e) ::unlink(temp.c_str());
    return e;
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

Error Env::setModificationDate(const std::string& path, double /*date*/) {
  return Error::posix(ENOTSUP, path);
}

bool Env::isDirectory(const std::string& path) {
  FileAttributes a;
  return !attributes(path, &a) && a.isDirectory();
}

Error Env::writeFileAtomically(const std::string& path, std::string_view contents) {
  return writeFileAtomically(
      path, std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(contents.data()),
                                     contents.size()));
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
