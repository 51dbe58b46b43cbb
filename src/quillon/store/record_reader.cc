#include "quillon/store/record_reader.h"

#include <fmt/format.h>

#include <chrono>
#include <limits>

#include "quillon/base/internal/date_format.h"
#include "quillon/base/internal/system_log.h"
#include "quillon/cache/internal/cache_item.h"
#include "quillon/coding/internal/url_utils.h"
#include "quillon/graph/entity_description.h"
#include "quillon/store/package_files.h"
#include "quillon/store/internal/package_format.h"
#include "quillon/store/quillon.h"

namespace quillon {
namespace {

// Reading one object slower than this is reported as a loading issue.
constexpr double kSlowLoadMilliseconds = 5.0;

std::string_view issueFor(PackageFileReading::Status status) {
  switch (status) {
    case PackageFileReading::kMissing:
      return kQuillonLoadingIssueMissingFile;
    case PackageFileReading::kEmpty:
      return kQuillonLoadingIssueEmptyFile;
    case PackageFileReading::kUndecryptable:
      return kQuillonLoadingIssueUndecryptableFile;
    default:
      return {};
  }
}

}  // namespace

QuillonLoadingIssue QuillonLoadingIssue::loadingIssueWithType(std::string_view type, const Url& url,
                                                              Value value) {
  QuillonLoadingIssue issue;
  issue.dictionary_ = Value::dictionary(true);
  issue.dictionary_.set(Value::string("type"), Value::string(type));
  issue.dictionary_.set(Value::string("url"), Value::string(url.absoluteString()));
  if (!value.isNil()) issue.dictionary_.set(Value::string("value"), value);
  issue.dictionary_.set(Value::string("date"), Value::date(dateNow()));
  return issue;
}

QuillonRecordReader::QuillonRecordReader(QuillonRecordHost& host,
                                         std::shared_ptr<PackageFiles> files)
    : host_(host), files_(std::move(files)) {}

std::shared_ptr<QuillonCacheItem> QuillonRecordReader::load(const EntityDescription& entity,
                                                            const std::string& uid,
                                                            std::string_view upToChange) {
  if (!isSafePathComponent(uid)) {
    host_.log(
        fmt::format("Refused to load {} with the unusable identifier \"{}\"", entity.name(), uid),
        kQuillonLogTypeError, Value());
    return nullptr;
  }
  const auto start = std::chrono::steady_clock::now();
  std::vector<Url> files = host_.changesFilesFor(entity, uid);
  auto item = std::make_shared<QuillonCacheItem>();

  for (const Url& url : files) {
    const std::string path = url.path();
    if (!QuillonIsOnDisk(path, files_->env())) {
      addLoadingIssue(
          QuillonLoadingIssue::loadingIssueWithType(kQuillonLoadingIssueRemoteFile, url));
      return nullptr;
    }
    PackageFileReading read = files_->readJSON(path, kRecordFileLimits);
    if (std::string_view issue = issueFor(read.status); !issue.empty()) {
      addLoadingIssue(QuillonLoadingIssue::loadingIssueWithType(issue, url));
      return nullptr;
    }
    // A record that does not parse, or is not an object, contributes nothing;
    // validation reports such files when their change is applied.
    const Value& record = read.value;
    if (record.isDictionary()) {
      const Value& payload = record.get(kRecordPayloadKey);
      if (payload.isDictionary()) {
        item->updateValues(payload, entity, url, record.get(kRecordVersionKey));
      }
    } else {
      systemLog(fmt::format("Skipped the unreadable record {}", url.absoluteString()));
    }
    if (!upToChange.empty() && url.absoluteString().find(upToChange) != std::string::npos) break;
  }

  const double elapsed =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  if (elapsed > kSlowLoadMilliseconds && !files.empty()) {
    addLoadingIssue(QuillonLoadingIssue::loadingIssueWithType(
        kQuillonLoadingIssueLoadingPerformance, files.front(), Value::float64(elapsed)));
  }
  return item;
}

std::optional<std::vector<uint8_t>> QuillonRecordReader::readDataFile(
    const EntityDescription& entity, const std::string& uid, std::string_view fileName) {
  std::optional<std::string> entityKey = host_.fileNameForEntityName(entity.name());
  std::optional<Url> url =
      entityKey ? host_.layout().dataFile(*entityKey, uid, fileName) : std::nullopt;
  if (!url) return std::nullopt;
  // Data files are the application's own blobs: no size limit beyond the disk's.
  std::vector<uint8_t> plain;
  PackageFileReading read = files_->readBytes(correctedDataURL(files_->env(), *url).path(),
                                              std::numeric_limits<uint64_t>::max(), &plain);
  if (read.error) host_.logError(read.error, "QuillonReadOperation");
  if (read.status == PackageFileReading::kEmpty) return std::vector<uint8_t>();
  if (!read.ok()) return std::nullopt;
  return plain;
}

void QuillonRecordReader::addLoadingIssue(QuillonLoadingIssue issue) {
  std::lock_guard lock(issuesMutex_);
  issues_.push_back(std::move(issue));
}

std::vector<QuillonLoadingIssue> QuillonRecordReader::loadingIssues() const {
  std::lock_guard lock(issuesMutex_);
  return issues_;
}

}  // namespace quillon
