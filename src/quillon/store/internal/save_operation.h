#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "quillon/base/error.h"
#include "quillon/base/internal/operation_queue.h"
#include "quillon/base/url.h"
#include "quillon/base/value.h"
#include "quillon/graph/managed_object_id.h"

namespace quillon {

class QuillonStore;

// What the change file of one save must wait for. The files the save wrote
// whose contents and names must reach stable storage before the change file
// is written (records, data files and the folders made for them; only with
// durable saves), and the first write of the save that failed: a change file
// is never published for a save that is not wholly on disk, since other
// computers would wait forever for the missing file. Filled by the thread
// that builds the records and by the record writes; read by the change
// file's write. Thread-safe.
class QuillonSaveBatch {
 public:
  void add(std::string path);
  void add(std::initializer_list<std::string> paths);
  std::vector<std::string> take();

  // Records a failed write of the save (the first one is kept).
  void fail(Error error);
  Error failure() const;

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> paths_;
  Error failure_;
};

// Writes one change file: its dictionary as compact JSON, through the
// store's cipher, atomically; then the change joins the cache's change log.
// With durable saves the batch of the save is flushed first and the change
// file (and its folder) after. When any write of the save failed, or the
// flush does, no change file is written and the store is told
// (QuillonStore::saveDidFail). Made by the saving thread, run by the store's
// save queue, which the store owns: the store outlives every operation of
// its queue (the queue's destruction waits for running ones), so the
// operation holds the store by plain pointer.
class QuillonSaveOperation : public Operation {
 public:
  QuillonSaveOperation(QuillonStore* store, Value dictionary, Url url,
                       std::shared_ptr<QuillonSaveBatch> batch);

  QuillonStore* store() const { return store_; }
  const Value& dictionary() const { return dictionary_; }
  const Url& url() const { return url_; }

 protected:
  void main() override;
  // The dictionary as the bytes stored on disk; false after logging why not.
  bool storedBytes(std::vector<uint8_t>* bytes, const std::string& domain);

  QuillonStore* store_;
  Value dictionary_;
  Url url_;
  std::shared_ptr<QuillonSaveBatch> batch_;
};

// Writes one object record the same way and then hands it to the cache. The
// record is not changed after the operation was made.
class QuillonManagedObjectSaveOperation : public QuillonSaveOperation {
 public:
  QuillonManagedObjectSaveOperation(QuillonStore* store, ManagedObjectIDPtr objectID, Value record,
                                    Url url, std::shared_ptr<QuillonSaveBatch> batch);

  const ManagedObjectIDPtr& objectID() const { return objectID_; }

 protected:
  void main() override;

 private:
  ManagedObjectIDPtr objectID_;
};

}  // namespace quillon
