#pragma once

#include <string>

#include "quillon/base/env.h"
#include "quillon/base/error.h"

namespace quillon {

// Folder operations built on Env. Stateless; thread-safe as far as the Env is.

// Makes sure a folder stands at `path`. When something already exists there,
// answers whether it is a folder and creates nothing (a file stays a file).
// Otherwise creates the folder and its missing parents and answers whether
// that worked.
bool createDirectoryAtPathIfNeeded(const std::string& path, Env* env = Env::Default());

// Moves everything inside the folder `source` into the folder `destination`,
// replacing same-named files and creating missing folders, then removes
// `source`. Each step is written to the system log. On the first failure it
// logs "ERROR: <error>", stores the error in `*error` when given, stops and
// answers false; the source then still holds the items not yet moved, and
// nothing already moved is put back. A missing source is nothing to merge.
bool quillonMergeContentsOfPath(const std::string& source, const std::string& destination,
                                Error* error = nullptr, Env* env = Env::Default());

}  // namespace quillon
