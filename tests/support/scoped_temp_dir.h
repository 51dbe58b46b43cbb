#pragma once

#include <string>

namespace quillon::testing {

// A fresh folder under the system's temporary folder, removed with everything
// in it when the object goes. Owned by one test; not thread-safe.
class ScopedTempDir {
 public:
  ScopedTempDir();
  ~ScopedTempDir();
  ScopedTempDir(const ScopedTempDir&) = delete;
  ScopedTempDir& operator=(const ScopedTempDir&) = delete;

  const std::string& path() const { return path_; }
  // path() joined with a relative path.
  std::string file(const std::string& relative) const { return path_ + "/" + relative; }

 private:
  std::string path_;
};

}  // namespace quillon::testing
