#pragma once

// Helpers for tests in which two stores (two "computers") share one package.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "quillon/base/notification_center.h"
#include "quillon/base/value.h"
#include "quillon/cache/internal/cache.h"
#include "quillon/graph/fetch_request.h"
#include "quillon/graph/managed_object.h"
#include "quillon/platform/main_queue.h"
#include "quillon/store/quillon.h"
#include "quillon/store/store.h"
#include "support/store_stack.h"
#include "support/temp_dir.h"

namespace quillon::testing {

// The "name"s of the store's change log, in order.
inline std::vector<std::string> loggedChangeNames(QuillonStore& store) {
  std::vector<std::string> names;
  Value changes = store.cache().changes();
  for (const Value& change : changes.elements()) {
    const Value& name = change.get("name");
    names.emplace_back(name.isString() ? name.str() : "");
  }
  return names;
}

// The messages of the store's log, oldest first.
inline std::vector<std::string> logMessages(QuillonStore& store) {
  std::vector<std::string> messages;
  Value entries = store.logEntries();
  for (size_t i = entries.size(); i-- > 0;) {
    const Value& message = entries[i].get("message");
    if (message.isString()) messages.emplace_back(message.str());
  }
  return messages;
}

inline bool logContains(QuillonStore& store, std::string_view text) {
  for (const std::string& message : logMessages(store)) {
    if (message.find(text) != std::string::npos) return true;
  }
  return false;
}

// Records the uids announced by QuillonObjectsDidChangeExternally for one
// context, and checks the Will/private/Did order.
class ExternalChanges {
 public:
  explicit ExternalChanges(const ManagedObjectContext* context) {
    auto& center = NotificationCenter::defaultCenter();
    will_ = ScopedObserver(center, kQuillonObjectsWillChangeExternally, context,
                           [this](const Notification&) { order_ += "W"; });
    private_ = ScopedObserver(center, "_NSObjectsChangedInManagingContextPrivateNotification",
                              context, [this](const Notification&) { order_ += "P"; });
    did_ = ScopedObserver(center, kQuillonObjectsDidChangeExternally, context,
                          [this](const Notification& note) {
                            order_ += "D";
                            ++count_;
                            last_ = note.userInfo;
                          });
  }
  int count() const { return count_; }
  const std::string& order() const { return order_; }
  // The uids of the last notice under "inserted", "updated" or "deleted".
  std::vector<std::string> uids(std::string_view key) const {
    std::vector<std::string> uids;
    const Value& objects = last_.get(key);
    if (!objects.isContainer()) return uids;
    for (const Value& member : objects.elements()) {
      auto object = std::dynamic_pointer_cast<ManagedObject>(member.objectValue());
      if (object) uids.push_back(storeUID(*object));
    }
    return uids;
  }

 private:
  ScopedObserver will_, private_, did_;
  std::string order_;
  int count_ = 0;
  Value last_;
};

// Inserts a note and answers its object.
inline ManagedObjectPtr insertNote(StoreStack& stack, const std::string& title) {
  ManagedObjectPtr note = stack.context->insertNewObjectForEntityForName("Note");
  note->setValue("title", Value(title));
  return note;
}

// Fetches every note, so that the context takes part in external updates.
inline std::vector<Value> fetchNotes(StoreStack& stack) {
  FetchRequest request("Note");
  return stack.context->executeFetchRequest(request);
}

// Two or more computers on one package in one process: each opened with
// its own local cache folder and machine name. Updates run when the test
// says, never from folder events.
class TwoComputersTest : public ::testing::Test {
 protected:
  explicit TwoComputersTest(std::string_view folderPrefix) : dir(folderPrefix) {}
  void SetUp() override { QuillonStore::setObservationLatency(3600); }
  void TearDown() override {
    seen.reset();
    b.reset();
    a.reset();
    QuillonStore::setObservationLatency(2.0);
  }

  // Opens the package as `machine` and waits until it is ready.
  std::unique_ptr<StoreStack> open(const std::string& machine, Value options = Value()) {
    Value all = Value::mutableDictionary();
    if (options.isDictionary()) {
      for (const auto& [key, value] : options.items()) all.set(key, value);
    }
    all.set(kQuillonCacheDirectoryOption, Value(dir.file("cache-" + machine)));
    auto stack = std::make_unique<StoreStack>(package, all, machine);
    EXPECT_TRUE(stack->waitUntilReady());
    return stack;
  }
  // Applies what is new in the package and waits for the pass to end.
  void update(StoreStack& stack) {
    stack.store->updateChanges();
    ASSERT_TRUE(stack.waitUntilReady());
    MainQueue::drain();
  }

  TempDir dir;
  std::string package = dir.file("Doc.quillon");
  std::unique_ptr<StoreStack> a, b;
  std::unique_ptr<ExternalChanges> seen;
};

}  // namespace quillon::testing
