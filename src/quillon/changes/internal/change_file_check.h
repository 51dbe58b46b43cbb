#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "quillon/base/value.h"
#include "quillon/store/internal/package_format.h"

namespace quillon {

class PackageFiles;

// Change files come from other computers through a synchronisation service,
// so everything in them is untrusted: these checks keep a damaged or hostile
// file from reaching paths outside the package, the cache or the merge.

// What reading one change file gave.
struct ChangeFileReading {
  enum Outcome {
    kRead,           // a change dictionary of the expected shape
    kMissing,        // no file or no bytes
    kUndecryptable,  // the store's cipher refused it
    kIncomplete,     // not JSON (a file still arriving)
    kInvalid,        // JSON, but not a change file this store may use
  };
  Outcome outcome = kRead;
  std::string problem;  // why a file is kInvalid, for the log
};

// Reads, decrypts and parses `path` within the change-file limits and checks
// the result with changeFileProblem(). Every reader of change files goes
// through here. Any thread.
ChangeFileReading readChangeFile(PackageFiles& files, const std::string& path,
                                 std::string_view fileName, Value* change);

// Empty when `change` has the shape of a change file named `fileName`: a
// dictionary whose "name" is the file name, whose "previousName" (when
// present) is one path component, whose "changes", "refreshes", "inserts",
// "updates" and "deletes" map types to entity names to uids to entries with
// every name and uid a safe path component, and whose entries hold arrays of
// data records ("name" a safe path component, "length" a number, "hash"
// text). Otherwise a short description of the first problem.
std::string changeFileProblem(const Value& change, std::string_view fileName);

}  // namespace quillon
