#include "quillon/changes/store_log.h"

#include <algorithm>
#include <mutex>
#include <vector>

#include "quillon/base/internal/date_format.h"
#include "quillon/base/env.h"
#include "quillon/base/notification_center.h"
#include "quillon/base/internal/plist.h"
#include "quillon/coding/internal/string_utils.h"
#include "quillon/platform/main_queue.h"
#include "quillon/store/package_files.h"
#include "quillon/store/internal/package_format.h"
#include "quillon/store/package_layout.h"
#include "quillon/store/quillon.h"

namespace quillon {
namespace {

constexpr size_t kErrorRecordsLimit = 20;
constexpr double kRecentErrorsInterval = 864000;  // ten days
constexpr size_t kWritersLimit = 100;
// Error records are small property lists; anything far larger is not one.
constexpr uint64_t kMaximumErrorRecordSize = 8 << 20;
constexpr std::string_view kRefreshSelector = "refreshLog";

void postValueChange(const void* sender, std::string_view notification, std::string_view key) {
  NotificationCenter::defaultCenter().post(notification, sender,
                                           Value::dictionary({{"key", Value(key)}}));
}

}  // namespace

struct QuillonStoreLog::Link {
  // Held while a block works on the log, so that a log destroyed on another
  // thread waits for it. Recursive: an observer of a notice a block posts may
  // destroy the store, and with it the log, on the main thread.
  std::recursive_mutex mutex;
  QuillonStoreLog* log;
};

namespace {

// Runs `work` on the main queue with the log, unless the log is gone by then.
template <typename Link, typename Work>
void onMainQueue(std::shared_ptr<Link> link, Work work) {
  MainQueue::async([link = std::move(link), work = std::move(work)]() mutable {
    std::lock_guard<std::recursive_mutex> lock(link->mutex);
    if (link->log) work(*link->log, link);
  });
}

}  // namespace

QuillonStoreLog::QuillonStoreLog(const void* sender)
    : sender_(sender), link_(std::make_shared<Link>()) {
  link_->log = this;
}

QuillonStoreLog::~QuillonStoreLog() {
  std::lock_guard<std::recursive_mutex> lock(link_->mutex);
  MainQueue::cancelPreviousPerformRequests(this, std::string(kRefreshSelector));
  link_->log = nullptr;
}

void QuillonStoreLog::log(const std::string& message, std::string_view type, const Value& menu) {
  auto add = [message, type = std::string(type), menu](QuillonStoreLog& log,
                                                       const std::shared_ptr<Link>& link) {
    std::vector<Value::Entry> entry;
    entry.emplace_back("date", Value::date(dateNow()));
    entry.emplace_back("message", Value(message));
    if (!menu.isNil()) entry.emplace_back("menu", menu);
    entry.emplace_back(Value(kQuillonLogType), Value(type));
    if (log.log_.isNil()) log.log_ = Value::mutableArray();
    log.log_.append(Value::dictionary(std::move(entry)));

    // One notice for a burst: each entry pushes the refresh a second further.
    MainQueue::cancelPreviousPerformRequests(&log, std::string(kRefreshSelector));
    auto refresh = [link] {
      std::lock_guard<std::recursive_mutex> lock(link->mutex);
      if (link->log) link->log->refresh();
    };
    MainQueue::afterDelay(1.0, std::move(refresh), &log, std::string(kRefreshSelector));
  };
  onMainQueue(link_, std::move(add));
}

Value QuillonStoreLog::entries() const {
  // The log only grows, so an equal count means the snapshot is current.
  if (snapshot_.isNil() || snapshot_.size() != log_.size()) {
    std::vector<Value> newestFirst(log_.elements().rbegin(), log_.elements().rend());
    snapshot_ = Value::array(std::move(newestFirst));
  }
  return snapshot_;
}

void QuillonStoreLog::refresh() {
  postValueChange(sender_, kQuillonWillChangeValueNotification, "log");
  postValueChange(sender_, kQuillonDidChangeValueNotification, "log");
}

void QuillonStoreLog::setErrorLevel(std::string_view type) {
  auto set = [type = std::string(type)](QuillonStoreLog& log, const std::shared_ptr<Link>&) {
    postValueChange(log.sender_, kQuillonWillChangeValueNotification, "errorLevel");
    log.errorLevel_ = type;
    postValueChange(log.sender_, kQuillonDidChangeValueNotification, "errorLevel");
  };
  onMainQueue(link_, std::move(set));
}

std::string QuillonStoreLog::errorLevel() const { return errorLevel_; }

Value QuillonStoreLog::errorRecords(PackageFiles& files, const Url& errorsFolder) {
  Env* env = files.env();
  const std::string folder = errorsFolder.path();
  std::vector<std::string> names;
  Value records = Value::mutableArray();
  if (env->listDirectory(folder, &names)) return records;
  std::erase_if(names, [](const std::string& name) {
    return !isSafePathComponent(name) || name.front() == '.';
  });
  std::sort(names.begin(), names.end(), std::greater<>());
  if (names.size() > kErrorRecordsLimit) names.resize(kErrorRecordsLimit);

  for (const std::string& name : names) {
    const std::string path = folder + "/" + name;
    FileAttributes attributes;
    if (env->attributes(path, &attributes) || !attributes.isRegular() ||
        attributes.size > kMaximumErrorRecordSize) {
      continue;
    }
    std::vector<uint8_t> bytes;
    if (env->readFile(path, &bytes)) continue;
    Value record = readPropertyList(bytes);
    if (!record.isDictionary()) {
      // A document with a password may hold its records enciphered.
      std::vector<uint8_t> plain;
      if (files.open(bytes, &plain)) record = readPropertyList(plain);
    }
    if (record.isDictionary()) records.append(std::move(record));
  }
  return records;
}

Value QuillonStoreLog::recentErrorRecords(PackageFiles& files, const Url& errorsFolder) {
  const double since = dateNow() - kRecentErrorsInterval;
  Value recent = Value::mutableArray();
  Value all = errorRecords(files, errorsFolder);
  for (const Value& record : all.elements()) {
    const Value& date = record.get("date");
    if (date.isDate() && date.dateValue() > since) recent.append(record);
  }
  return recent;
}

Value QuillonStoreLog::writers(const Value& changes) {
  static constexpr std::string_view kWriterKeys[] = {"machineName", "fullUserName", "userName",
                                                     "version", "osVersion"};
  Value writers = Value::mutableArray();
  auto entries = changes.elements();
  size_t seen = 0;
  for (auto it = entries.rbegin(); it != entries.rend() && seen < kWritersLimit; ++it, ++seen) {
    const Value& session = it->get(kChangeSessionKey);
    if (!session.isDictionary()) continue;
    std::vector<Value::Entry> writer;
    for (std::string_view key : kWriterKeys) {
      const Value& value = session.get(key);
      writer.emplace_back(Value(key), value.isNil() ? Value::null() : value);
    }
    Value row = Value::dictionary(std::move(writer));
    if (!writers.contains(row)) writers.append(std::move(row));
  }
  return writers;
}

std::string QuillonStoreLog::checkSum(const Value& changes) {
  std::string names;
  bool first = true;
  for (const Value& change : changes.elements()) {
    if (!first) names += ',';
    first = false;
    names += change.get(kChangeNameKey).str();
  }
  return storeMD5String(names).substr(0, 6);
}

Value QuillonStoreLog::menuItem(std::string_view title, std::string_view action, const Url& url) {
  return Value::dictionary(
      {{"title", Value(title)}, {"action", Value(action)}, {"URL", Value(url.absoluteString())}});
}

Value QuillonStoreLog::ignoreItem(const Url& changeURL) {
  return menuItem("Ignore", "discardChangeFromMenu:", changeURL);
}

Value QuillonStoreLog::showInFinderItem(const Url& url) {
  return menuItem("Show in Finder", "showInFinder:", url);
}

}  // namespace quillon
