#pragma once

namespace quillon {

// The kinds of request a store receives; the numbers are the classic ones.
enum class PersistentStoreRequestType : int { Fetch = 1, Save = 2 };

// A request that the coordinator routes to its stores: a FetchRequest or a
// SaveChangesRequest. Requests are built by a context on its own thread and
// only read by the store that executes them.
class PersistentStoreRequest {
 public:
  virtual ~PersistentStoreRequest() = default;
  virtual PersistentStoreRequestType requestType() const = 0;
};

}  // namespace quillon
