#pragma once

#include <string>
#include <vector>

#include "quillon/base/value.h"
#include "support/package_reader.h"

namespace quillon {
class ManagedObjectContext;
}

namespace quillon::testing {

// What a reader of the sample notes model answers about its folders and
// notes, in one comparable form: "Entity/UID" → {"name"} for a folder with
// its "notes" (sorted "Note/UID" paths), {"title", "folder", "data"} for a
// note (data as base64 text). Missing values are absent keys. Tests compare
// the states of different readers of one package.
//
// The state the records on disk describe, replayed from the change files in
// order by the independent PackageReader: inserts and updates set the values
// their records carry, to-many entries add and remove references, deletes
// drop the object.
Value stateFromRecords(const PackageReader& reader);

// The state in `quillon fetch PKG Folder` and `quillon fetch PKG Note` output.
Value stateFromFetch(const Value& folders, const Value& notes);

// The state a context answers (its store's cache first, the records on a miss).
Value stateFromContext(ManagedObjectContext& context);

// One line per object that differs between two states; empty when equal.
std::vector<std::string> stateDifferences(const Value& expected, const Value& actual);

}  // namespace quillon::testing
