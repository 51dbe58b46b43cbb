#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "quillon/base/url.h"
#include "quillon/base/value.h"

namespace quillon {

class QuillonSaveBatch;
class QuillonStore;

// One save in progress: collects the objects the save wrote (type → entity
// name → uid → entry) and writes the change file "Changes/<date>.<UUID>.json"
// after every record of the save. Made by the saving thread for one save and
// dropped afterwards; addChange may be called from the thread that builds
// records only.
class QuillonChange {
 public:
  // `date` in seconds since 2001-01-01 UTC.
  QuillonChange(QuillonStore* store, double date);

  // Stores the entry at changes[type][entityName][uid], replacing an earlier one.
  void addChange(const Value& entry, std::string_view entityName, std::string_view uid,
                 std::string_view type);
  // "<date>.<UUID>"; fixed on first use.
  const std::string& name();
  // name() + ".json".
  std::string fileName();
  // The file's content, built once: "name", "date", "changes" (when any),
  // "session"; saveToStore adds "previousName".
  Value dictionary();
  Value insertedUIDs();
  Value updatedUIDs();
  Value deletedUIDs();
  // Enqueues the change file's write after every operation in the store's
  // save queue; nothing when the change touched no object.
  void saveToStore(QuillonStore* store);

  double date() const { return date_; }
  void setDate(double date) { date_ = date; }
  QuillonStore* store() const { return store_; }
  // The "changes" object being assembled (nil until the first addChange).
  const Value& changes() const { return changes_; }
  // The files this save wrote that must reach stable storage before the
  // change file does (store/save_operation.h).
  const std::shared_ptr<QuillonSaveBatch>& saveBatch();

 private:
  QuillonStore* store_;
  double date_;
  Value changes_;
  Value dictionary_;
  std::string name_;
  std::shared_ptr<QuillonSaveBatch> saveBatch_;
};

}  // namespace quillon
