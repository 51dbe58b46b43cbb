#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "quillon/base/error.h"
#include "quillon/base/url.h"
#include "quillon/base/value.h"
#include "quillon/store/package_layout.h"

namespace quillon {

class EntityDescription;
class PackageFiles;
class QuillonCacheItem;

// A problem met while loading one object's values from its records.
class QuillonLoadingIssue {
 public:
  // "type", "url" (absolute text), "value" (milliseconds, performance only), "date".
  static QuillonLoadingIssue loadingIssueWithType(std::string_view type, const Url& url,
                                                  Value value = Value());
  const Value& dictionary() const { return dictionary_; }

 private:
  Value dictionary_;
};
inline constexpr std::string_view kQuillonLoadingIssueRemoteFile = "Remote File";
inline constexpr std::string_view kQuillonLoadingIssueMissingFile = "Missing File";
inline constexpr std::string_view kQuillonLoadingIssueEmptyFile = "Empty File";
inline constexpr std::string_view kQuillonLoadingIssueUndecryptableFile = "Undecryptable File";
inline constexpr std::string_view kQuillonLoadingIssueLoadingPerformance = "Loading Performance";

// What the record reader needs from its store: where the package is, the
// entities' folder names, which records the change log holds for an object,
// and somewhere to report. Every member may be called from any thread.
class QuillonRecordHost {
 public:
  virtual ~QuillonRecordHost() = default;
  virtual PackageLayout layout() const = 0;
  virtual std::optional<std::string> fileNameForEntityName(std::string_view name) const = 0;
  // The object's record files whose change is in the change log, in change order.
  virtual std::vector<Url> changesFilesFor(const EntityDescription& entity,
                                           const std::string& uid) = 0;
  virtual void log(const std::string& message, std::string_view type, const Value& menu) = 0;
  virtual void logError(const Error& error, const std::string& domain) = 0;
};

// Reads objects the local cache cannot answer straight from the package: an
// object's values from its records in change order (optionally only up to
// one change), and the plain bytes of its data files. Records are read
// within the record limits; a record that is missing, empty, stored online
// only or undecryptable stops the load and is kept as a loading issue, as is
// a load slower than 5 ms.
//
// Owned by the store; called from any thread (faults on the main thread or
// a private queue, the cache's queue while indexing). The issues are guarded
// by the reader's own lock.
class QuillonRecordReader {
 public:
  QuillonRecordReader(QuillonRecordHost& host, std::shared_ptr<PackageFiles> files);

  // Reads the object's records in change order, stopping after the record
  // whose URL contains `upToChange` (a change name) when given. Nullptr after
  // a loading issue, and for a uid that is not a safe folder name (logged).
  std::shared_ptr<QuillonCacheItem> load(const EntityDescription& entity, const std::string& uid,
                                         std::string_view upToChange = {});
  // The plain bytes of one of the object's data files; a read error is logged.
  std::optional<std::vector<uint8_t>> readDataFile(const EntityDescription& entity,
                                                   const std::string& uid,
                                                   std::string_view fileName);

  void addLoadingIssue(QuillonLoadingIssue issue);
  std::vector<QuillonLoadingIssue> loadingIssues() const;

 private:
  QuillonRecordHost& host_;
  std::shared_ptr<PackageFiles> files_;
  mutable std::mutex issuesMutex_;
  std::vector<QuillonLoadingIssue> issues_;
};

}  // namespace quillon
