#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "quillon/base/value.h"

namespace quillon {

// A posted notification: a name, the object that posted it (compared by
// address only, never dereferenced by the center) and a user-info value.
struct Notification {
  std::string name;
  const void* object = nullptr;
  Value userInfo;
};

// Delivers notifications synchronously, on the posting thread, to the
// observers registered for their name and object. Thread-safe: observers may
// be added and removed from any thread, including from inside a delivery; an
// observer removed during a post is not called afterwards.
class NotificationCenter {
 public:
  using Token = uint64_t;
  using Block = std::function<void(const Notification&)>;

  // The process-wide center.
  static NotificationCenter& defaultCenter();

  NotificationCenter();
  ~NotificationCenter();
  NotificationCenter(const NotificationCenter&) = delete;
  NotificationCenter& operator=(const NotificationCenter&) = delete;

  // Observes notifications named `name` (every name when empty) posted by
  // `object` (any object when null). Answers a token for removeObserver().
  Token addObserver(std::string_view name, const void* object, Block block);
  void removeObserver(Token token);

  void post(const Notification& notification);
  void post(std::string_view name, const void* object = nullptr, Value userInfo = Value());

 private:
  struct Observer;
  std::mutex mutex_;
  std::vector<std::shared_ptr<Observer>> observers_;
  Token nextToken_ = 1;
};

// Removes its observer when destroyed: the usual way for an object to observe
// for as long as it lives.
class ScopedObserver {
 public:
  ScopedObserver() = default;
  ScopedObserver(NotificationCenter& center, std::string_view name, const void* object,
                 NotificationCenter::Block block);
  ScopedObserver(ScopedObserver&& other) noexcept;
  ScopedObserver& operator=(ScopedObserver&& other) noexcept;
  ~ScopedObserver();
  void reset();

 private:
  NotificationCenter* center_ = nullptr;
  NotificationCenter::Token token_ = 0;
};

}  // namespace quillon
