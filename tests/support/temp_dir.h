#pragma once

#include <string>
#include <string_view>

namespace quillon {

// A fresh, uniquely named folder under $TMPDIR (or /tmp) for one test, removed
// with everything in it when the TempDir is destroyed. Owned by the test that
// creates it; not thread-safe (create it on the test's thread, then hand out
// paths freely).
//
//   TempDir dir;
//   dir.write("Changes/one.json", "{}");        // parents are created
//   EXPECT_EQ(dir.read("Changes/one.json"), "{}");
//   env->removeItem(dir.file("Changes"));
class TempDir {
 public:
  // `prefix` starts the folder's name, to tell leftovers of crashed runs apart.
  explicit TempDir(std::string_view prefix = "quillon-test");
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  // The folder's absolute path, without a trailing "/".
  const std::string& path() const { return path_; }
  // The absolute path of `relative` inside the folder (nothing is created).
  std::string file(std::string_view relative) const;

  // Writes a file inside the folder, creating its parent folders; fails the
  // current test on error.
  void write(std::string_view relative, std::string_view contents) const;
  // The contents of a file inside the folder; fails the current test (and
  // answers "") when it cannot be read.
  std::string read(std::string_view relative) const;

 private:
  std::string path_;
};

}  // namespace quillon
