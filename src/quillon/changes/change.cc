#include "quillon/changes/internal/change.h"

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "quillon/base/internal/date_format.h"
#include "quillon/base/env.h"
#include "quillon/base/json.h"
#include "quillon/base/internal/uuid.h"
#include "quillon/cache/internal/cache.h"
#include "quillon/coding/value_transformer.h"
#include "quillon/graph/entity_description.h"
#include "quillon/store/internal/package_format.h"
#include "quillon/store/quillon.h"
#include "quillon/store/internal/save_operation.h"
#include "quillon/store/store.h"

namespace quillon {
namespace {

const QuillonNSDateValueTransformer& dateTransformer() {
  static const QuillonNSDateValueTransformer transformer;
  return transformer;
}

// The last change the store's cache knows, or nil.
Value lastKnownChange(QuillonStore* store) {
  if (!store) return Value();
  Value changes = store->cache().changes();
  if (!changes.isArray() || changes.empty()) return Value();
  return changes[changes.size() - 1];
}

// A clock that runs behind another computer's would give a name that sorts
// before the last known change; such a change goes one second after it.
void repairBackwardsClock(QuillonChange& change, QuillonStore* store, const Value& last) {
  if (!last.isDictionary()) return;
  Value date = dateTransformer().transformedValue(last.get("date"));
  if (!date.isDate()) return;
  double lastDate = date.dateValue();
  if (change.date() < lastDate) {
    store->log("At least one Mac has (or had) set a wrong date.", kQuillonLogTypeWarning);
    change.setDate(lastDate + 1.0);
  }
}

Value mutableChild(Value& parent, std::string_view key) {
  if (const Value* child = parent.find(key)) return *child;
  Value child = Value::dictionary(true);
  parent.set(Value::string(key), child);
  return child;
}

// Recovery and fake changes: pretty JSON, through the cipher, written at once.
void writeRecoveryChange(QuillonStore* store, const Url& url, const Value& refreshes) {
  Value dictionary = Value::dictionary(true);
  dictionary.set(Value::string(kChangeNameKey), Value::string(url.lastPathComponent()));
  dictionary.set(Value::string(kChangeTypeKey), Value::string(kChangeTypeRecovery));
  if (!refreshes.isNil()) dictionary.set(Value::string(kChangeRefreshesKey), refreshes);
  const std::string path = url.path();
  Env* env = store->env();
  (void)env->createDirectories(url.deletingLastPathComponent().path());  // the write reports it
  store->willWriteChangeFile(path);
  Error error =
      store->packageFiles().writeJSON(path, dictionary, JSONStyle::Pretty, Durability::kFlushed);
  if (!error && store->durableSaves()) error = env->syncFiles({path});
  if (error) store->logError(error, "QuillonChange");
}

}  // namespace

QuillonChange::QuillonChange(QuillonStore* store, double date) : store_(store), date_(date) {}

void QuillonChange::addChange(const Value& entry, std::string_view entityName, std::string_view uid,
                              std::string_view type) {
  if (changes_.isNil()) changes_ = Value::dictionary(true);
  Value byType = mutableChild(changes_, type);
  Value byEntity = mutableChild(byType, entityName);
  byEntity.set(Value::string(uid), entry);
}

const std::string& QuillonChange::name() {
  if (name_.empty()) {
    // The name fixes the date: repair a backwards clock first, then keep
    // this computer's saves in order when two fall in one millisecond.
    if (store_) {
      Value last = lastKnownChange(store_);
      repairBackwardsClock(*this, store_, last);
      const Value& lastName = last.get(kChangeNameKey);
      date_ = store_->orderedChangeDate(date_,
                                        lastName.isString() ? lastName.str() : std::string_view());
    }
    std::string date = store_ ? store_->formatChangeDate(date_) : formatChangeDate(date_);
    name_ = date + "." + makeUUIDString();
  }
  return name_;
}

std::string QuillonChange::fileName() { return name() + ".json"; }

Value QuillonChange::dictionary() {
  if (dictionary_.isNil()) {
    std::string file = fileName();
    dictionary_ = Value::dictionary(true);
    dictionary_.set(Value::string("name"), Value::string(file));
    dictionary_.set(Value::string("date"),
                    dateTransformer().reverseTransformedValue(Value::date(date_)));
    if (!changes_.isNil()) dictionary_.set(Value::string(kQuillonChanges), changes_);
    if (store_) dictionary_.set(Value::string("session"), store_->sessionDictionary());
  }
  return dictionary_;
}

Value QuillonChange::insertedUIDs() { return dictionary().get("inserts"); }
Value QuillonChange::updatedUIDs() { return dictionary().get("updates"); }
Value QuillonChange::deletedUIDs() { return dictionary().get("deletes"); }

const std::shared_ptr<QuillonSaveBatch>& QuillonChange::saveBatch() {
  if (!saveBatch_) saveBatch_ = std::make_shared<QuillonSaveBatch>();
  return saveBatch_;
}

void QuillonChange::saveToStore(QuillonStore* store) {
  if (!store) return;
  if (changes_.isNil() || changes_.empty()) {
    // Every object of the save failed before its record was made: there is
    // no change to write, but the failure is the save's all the same.
    if (saveBatch_) {
      if (Error failure = saveBatch_->failure()) store->saveDidFail(failure, dictionary());
    }
    return;
  }
  Value last = lastKnownChange(store);
  // Once the name is made (records are named after it) the date stays.
  if (name_.empty()) repairBackwardsClock(*this, store, last);
  Value content = dictionary();
  if (last.isDictionary()) {
    const Value& previous = last.get("name");
    if (!previous.isNil()) content.set(Value::string("previousName"), previous);
  }
  Url changesURL = store->changesURL();
  // A new "Changes" is flushed as an entry of the package with the batch.
  if (store->durableSaves() && !store->env()->exists(changesURL.path())) {
    saveBatch()->add(changesURL.path());
  }
  if (Error error = store->env()->createDirectories(changesURL.path())) saveBatch()->fail(error);
  Url url = changesURL.appending(fileName());
  auto operation = std::make_shared<QuillonSaveOperation>(store, content, url, saveBatch());
  store->enqueueSaveOperation(operation, /*afterEverything=*/true);
}

void QuillonStore::insertChange(const Url& url) { (void)history().insertChange(url); }

void QuillonStore::writeFakeChangeToURL(const Url& url, const Value& refreshes) {
  writeRecoveryChange(this, url, refreshes);
}

double QuillonStore::orderedChangeDate(double date, std::string_view lastKnownName) {
  std::lock_guard<std::recursive_mutex> lock(monitor_);
  // The date part of a change name; names sort by it.
  std::string floor = lastIssuedChangeDate_;
  if (isChangeFileName(lastKnownName)) {
    floor = std::max(floor, std::string(lastKnownName.substr(0, 23)));
  }
  if (!floor.empty() && formatChangeDate(date) <= floor) {
    if (std::optional<double> last = parseChangeDate(floor)) {
      date = *last + 0.001;
      while (formatChangeDate(date) <= floor) date += 0.0005;
    }
  }
  lastIssuedChangeDate_ = formatChangeDate(date);
  return date;
}

std::vector<Url> QuillonStore::changesFilesFor(const EntityDescription& entity,
                                               const std::string& uid) {
  std::vector<Url> files;
  std::optional<std::string> key = fileNameForEntity(entity);
  std::optional<Url> folder = key ? layout().objectFolder(*key, uid) : std::nullopt;
  if (!folder) return files;
  std::vector<std::string> names;
  if (env()->listDirectory(folder->path(), &names)) return files;
  Value known = cache().changeNames();
  std::sort(names.begin(), names.end());
  for (const auto& name : names) {
    if (isChangeFileName(name) && known.contains(Value::string(name))) {
      files.push_back(folder->appending(name));
    }
  }
  return files;
}

}  // namespace quillon
