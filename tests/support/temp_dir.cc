#include "support/temp_dir.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "quillon/base/env.h"

namespace quillon {

TempDir::TempDir(std::string_view prefix) {
  const char* base = std::getenv("TMPDIR");
  std::string root = base && *base ? base : "/tmp";
  while (root.size() > 1 && root.back() == '/') root.pop_back();
  std::string pattern = root + "/" + std::string(prefix) + "-XXXXXX";
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  if (!::mkdtemp(buffer.data())) {
    throw std::runtime_error("cannot create a temporary folder from " + pattern + ": " +
                             std::strerror(errno));
  }
  path_ = buffer.data();
}

TempDir::~TempDir() {
  Env* env = Env::Default();
  if (env->exists(path_)) {
    if (Error e = env->removeItem(path_)) {
      ADD_FAILURE() << "cannot remove " << path_ << ": " << e.description();
    }
  }
}

std::string TempDir::file(std::string_view relative) const {
  while (!relative.empty() && relative.front() == '/') relative.remove_prefix(1);
  if (relative.empty()) return path_;
  return path_ + "/" + std::string(relative);
}

void TempDir::write(std::string_view relative, std::string_view contents) const {
  std::string target = file(relative);
  Env* env = Env::Default();
  std::string parent = target.substr(0, target.find_last_of('/'));
  if (Error e = env->createDirectories(parent)) {
    ADD_FAILURE() << "cannot create " << parent << ": " << e.description();
    return;
  }
  if (Error e = env->writeFileAtomically(target, contents)) {
    ADD_FAILURE() << "cannot write " << target << ": " << e.description();
  }
}

std::string TempDir::read(std::string_view relative) const {
  std::vector<uint8_t> bytes;
  if (Error e = Env::Default()->readFile(file(relative), &bytes)) {
    ADD_FAILURE() << "cannot read " << file(relative) << ": " << e.description();
    return {};
  }
  return std::string(bytes.begin(), bytes.end());
}

}  // namespace quillon
