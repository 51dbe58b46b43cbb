#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "quillon/base/url.h"
#include "quillon/base/value.h"

namespace quillon {

class PackageFiles;

// A store's log: entries with their type ("QuillonLogTypeSuccess",
// "…Warning", "…Error") and remedy menu, the error level, and the
// key-value notices ("log", "errorLevel") that windows observe. Entries and
// levels may be given from any thread; they land on the main queue, where
// everything is read. A notice names `sender` (the store). Owned by the
// store; work queued for the main queue after the log is gone does nothing.
class QuillonStoreLog {
 public:
  explicit QuillonStoreLog(const void* sender);
  ~QuillonStoreLog();
  QuillonStoreLog(const QuillonStoreLog&) = delete;
  QuillonStoreLog& operator=(const QuillonStoreLog&) = delete;

  // An entry {"date", "message", "menu" (when given), "QuillonLogType"}; a
  // menu is an array of {"title", "action", "URL"}. Bursts of entries make
  // one "log" notice, a second after the last.
  void log(const std::string& message, std::string_view type, const Value& menu = Value());
  // The entries, newest first (main thread).
  Value entries() const;
  // Posts the "log" notice now (main thread).
  void refresh();
  void setErrorLevel(std::string_view type);
  std::string errorLevel() const;

  // One remedy of an entry's menu: {"title", "action", "URL"}. The actions
  // are the store's ("discardChangeFromMenu:", "insertChangeFromMenu:",
  // "showInFinder:").
  static Value menuItem(std::string_view title, std::string_view action, const Url& url);
  // The two remedies most entries offer: "Ignore" (discards the change) and
  // "Show in Finder".
  static Value ignoreItem(const Url& changeURL);
  static Value showInFinderItem(const Url& url);

  // The newest error records of a package's "Errors" folder (property
  // lists, plain or sealed), newest first, at most twenty; the recent ones
  // are those of the last ten days.
  static Value errorRecords(PackageFiles& files, const Url& errorsFolder);
  static Value recentErrorRecords(PackageFiles& files, const Url& errorsFolder);
  // The writers of the newest hundred changes of a change log, each once.
  static Value writers(const Value& changes);
  // Six hexadecimal digits of the MD5 of the change names joined by ","; two
  // computers that applied the same history answer the same.
  static std::string checkSum(const Value& changes);

 private:
  struct Link;
  const void* sender_;
  std::shared_ptr<Link> link_;
  // Oldest first, so that adding is cheap; entries() hands out a newest-first
  // snapshot that outlives a temporary handle.
  Value log_;
  mutable Value snapshot_;
  std::string errorLevel_;
};

}  // namespace quillon
