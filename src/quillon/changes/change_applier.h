#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <string_view>

#include "quillon/base/value.h"
#include "quillon/changes/change_validator.h"
#include "quillon/store/package_layout.h"

namespace quillon {

class DispatchQueue;
class PackageFiles;
class QuillonCache;

// What applying other computers' changes needs from the store, beyond what
// validating them does.
class QuillonApplierHost : public QuillonValidationHost {
 public:
  // See QuillonChangeValidator::validate; the host's recovery mode applies.
  virtual Value validatedChanges(const Value& change, bool lightWeight, Value* loadedItems) = 0;
  virtual bool recover() const = 0;
  // Refreshes the open contexts' objects named by the three sections
  // (entity name → uid → entry) and announces them (main thread).
  virtual void refreshInsertedObjects(const Value& inserts, const Value& updates,
                                      const Value& deletes) = 0;
  // A reference that keeps the host alive while a pass runs on the read
  // queue; it is always released on the main queue.
  virtual std::shared_ptr<void> keepAlive() = 0;
};

// Applies the change files of "Changes" that the cache's change log does not
// hold yet: lists them (only change files count; a sync service's conflict
// copies are reported once each and ignored), keeps the part of the log that
// agrees with them (resetting the cache when none does), then on the read
// queue reads each new change file within its limits, checks its chain and
// validates it, hands it with the records validation read to the cache and
// finally refreshes the objects it touched. A change that cannot be applied
// yet (records still arriving) ends the pass; the rest waits for the next.
//
// Owned by the store, which runs one pass at a time. apply() and the
// completion run on the main thread; the reading on the read queue.
class QuillonChangeApplier {
 public:
  QuillonChangeApplier(QuillonApplierHost& host, std::shared_ptr<QuillonCache> cache,
                       std::shared_ptr<PackageFiles> files, DispatchQueue& readQueue,
                       Value upToChange);

  // One pass; `completion(success)` runs on the main queue when it ended.
  // Success means every change was applied and every file is stored here
  // (in recovery mode: the pass got through).
  void apply(std::function<void(bool success)> completion);

  // The number of change files the last pass listed.
  size_t changesFileCount() const { return changesFileCount_.load(); }
  // Whether the last pass met files whose bytes are not stored here.
  bool hasRemoteFiles() const { return hasRemoteFiles_.load(); }

 private:
  struct Pass;
  // Reads, validates and merges the pass's change files (read queue).
  void applyChangeFiles(const std::shared_ptr<Pass>& pass);

  QuillonApplierHost& host_;
  std::shared_ptr<QuillonCache> cache_;
  std::shared_ptr<PackageFiles> files_;
  DispatchQueue& readQueue_;
  const Value upToChange_;
  std::atomic<size_t> changesFileCount_{0};
  std::atomic<bool> hasRemoteFiles_{false};
  // Conflict copies already reported in the log (main thread).
  std::set<std::string> reportedConflictCopies_;
};

}  // namespace quillon
