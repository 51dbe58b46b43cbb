#include "quillon/changes/change_history.h"

#include <fmt/format.h>

#include <algorithm>
#include <string>
#include <utility>

#include "quillon/base/internal/date_format.h"
#include "quillon/base/env.h"
#include "quillon/base/internal/system_log.h"
#include "quillon/base/internal/uuid.h"
#include "quillon/changes/internal/change_file_check.h"
#include "quillon/changes/store_log.h"
#include "quillon/coding/internal/file_manager_utils.h"
#include "quillon/coding/value_transformer.h"
#include "quillon/platform/internal/file_viewer.h"
#include "quillon/store/package_files.h"
#include "quillon/store/internal/package_format.h"
#include "quillon/store/quillon.h"

namespace quillon {
namespace {

// The length of the date part of a change name, "yyyy-MM-dd-HH-mm-ss.SSS".
constexpr size_t kChangeDateLength = 23;

// The discarded change's date: its "date" when it has one, but never later
// than the date its name carries, so that the empty change made a second
// earlier always sorts before the discarded one.
double discardedChangeDate(const Value& change, std::string_view fileName) {
  std::optional<double> named = parseChangeDate(fileName.substr(0, kChangeDateLength));
  static const QuillonNSDateValueTransformer dates;
  Value date = dates.transformedValue(change.get("date"));
  if (date.isDate() && (!named || date.dateValue() <= *named)) return date.dateValue();
  return named.value_or(0);
}

}  // namespace

QuillonChangeHistory::QuillonChangeHistory(QuillonHistoryHost& host,
                                           std::shared_ptr<PackageFiles> files)
    : host_(host), files_(std::move(files)) {}

std::optional<std::string> QuillonChangeHistory::changeFileNameIn(const Url& url) const {
  const std::string name = url.lastPathComponent();
  if (!isChangeFileName(name) ||
      url.deletingLastPathComponent().path() != host_.layout().changes().path()) {
    return std::nullopt;
  }
  return name;
}

std::optional<QuillonDiscardedChange> QuillonChangeHistory::discardChange(const Url& changeURL) {
  std::optional<std::string> name = changeFileNameIn(changeURL);
  if (!name) {
    host_.log(fmt::format("Cannot discard a file that is not a change of this document: {}",
                          changeURL.absoluteString()),
              kQuillonLogTypeError, Value());
    return std::nullopt;
  }
  const PackageLayout layout = host_.layout();
  Env* env = files_->env();
  QuillonDiscardedChange traces;
  const Url invalidChanges = layout.invalidChanges();
  createDirectoryAtPathIfNeeded(invalidChanges.path(), env);
  traces.invalidChange = invalidChanges.appending(*name);
  traces.refreshChange = layout.changes().appending(*name);

  // A file that cannot be read or decrypted is discarded all the same; it
  // then names nothing to refresh.
  Value change;
  if (readChangeFile(*files_, changeURL.path(), *name, &change).outcome !=
      ChangeFileReading::kRead) {
    change = Value::dictionary();
  }
  const double date = discardedChangeDate(change, *name);

  // A copy already in InvalidChanges (discarded before) stays; the file here
  // is then simply replaced below.
  if (!env->exists(traces.invalidChange.path())) {
    if (Error error = env->moveItem(changeURL.path(), traces.invalidChange.path())) {
      systemLog(fmt::format("Could not move {} to InvalidChanges: {}", *name,
                            error.localizedDescription()));
    }
  }
  // Every computer reloads exactly what the discarded change touched...
  host_.writeFakeChangeToURL(traces.refreshChange, change.get(kQuillonChanges));
  // ...and, finding a name just before it that its change log lacks, cuts
  // the log there and applies the rest of the history again.
  traces.earlierChange =
      layout.changes().appending(fmt::format("{}.{}.json", formatChangeDate(date - 1.0),
                                             makeUUIDString()));
  host_.writeFakeChangeToURL(traces.earlierChange, Value());
  host_.log(fmt::format("Discarded change: {}", *name), kQuillonLogTypeWarning,
            Value::array({QuillonStoreLog::menuItem("Show in Finder", "showInFinder:",
                                                    traces.invalidChange)}));
  host_.updateChanges();
  return traces;
}

bool QuillonChangeHistory::insertChange(const Url& changeURL) {
  std::optional<std::string> name = changeFileNameIn(changeURL);
  if (!name) {
    host_.log(fmt::format("Cannot insert a change outside the package: {}",
                          changeURL.absoluteString()),
              kQuillonLogTypeError, Value());
    return false;
  }
  host_.writeFakeChangeToURL(host_.layout().changes().appending(*name), Value());
  host_.updateChanges();
  return true;
}

void QuillonChangeHistory::removeChange(const Value& change, const Value& objects,
                                        bool wasInsert) {
  const Value& name = change.get(kChangeNameKey);
  if (!wasInsert && (!name.isString() || !isChangeFileName(name.str()))) return;
  const PackageLayout layout = host_.layout();
  Env* env = files_->env();
  for (const auto& [entityName, uids] : objects.items()) {
    if (!entityName.isString()) continue;
    std::optional<std::string> key = host_.fileNameForEntityName(entityName.str());
    if (!key) continue;
    const Value list = uids.isDictionary() ? Value::array(uids.keys()) : uids;
    for (const Value& uid : list.elements()) {
      if (!uid.isString()) continue;
      std::optional<Url> target = wasInsert ? layout.objectFolder(*key, uid.str())
                                            : layout.record(*key, uid.str(), name.str());
      // Removal errors are left to the next update to find.
      if (target) (void)env->removeItem(target->path());
    }
  }
}

void QuillonChangeHistory::showInFinder(const Url& url) {
  const std::string shown = FileViewer::nearestExistingItem(url.path(), files_->env());
  if (shown.empty() || !FileViewer::reveal(shown)) {
    systemLog(fmt::format("Could not show {} in the file manager", url.path()));
  }
}

}  // namespace quillon
