#include "support/private_home.h"

#include <stdlib.h>

#include <cstdio>

#include "quillon/base/env.h"

namespace quillon::testing {
namespace {

class PrivateHome {
 public:
  PrivateHome() {
    const char* base = ::getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/quillon-home-XXXXXX";
    if (!::mkdtemp(pattern.data())) {
      std::perror("quillon tests: cannot create a private home");
      std::abort();
    }
    path_ = pattern;
    ::setenv("HOME", path_.c_str(), 1);
    ::setenv("XDG_DATA_HOME", (path_ + "/.local/share").c_str(), 1);
    ::setenv("XDG_CONFIG_HOME", (path_ + "/.config").c_str(), 1);
    ::setenv("XDG_CACHE_HOME", (path_ + "/.cache").c_str(), 1);
  }
  ~PrivateHome() { Env::Default()->removeItem(path_); }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

PrivateHome home;

}  // namespace

const std::string& privateHome() { return home.path(); }

}  // namespace quillon::testing
