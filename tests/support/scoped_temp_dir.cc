#include "support/scoped_temp_dir.h"

#include <stdlib.h>

#include <stdexcept>

#include "quillon/base/env.h"

namespace quillon::testing {

ScopedTempDir::ScopedTempDir() {
  const char* base = ::getenv("TMPDIR");
  std::string pattern = std::string(base && *base ? base : "/tmp") + "/quillon-test-XXXXXX";
  if (!::mkdtemp(pattern.data())) throw std::runtime_error("cannot create " + pattern);
  path_ = pattern;
}

ScopedTempDir::~ScopedTempDir() { Env::Default()->removeItem(path_); }

}  // namespace quillon::testing
