#include "quillon/base/notification_center.h"

#include <atomic>
#include <utility>

namespace quillon {

// One registration. Shared between the center's list and any post that is
// delivering to it, so removal during a delivery only has to clear `active`.
struct NotificationCenter::Observer {
  Token token;
  std::string name;
  const void* object;
  Block block;
  std::atomic<bool> active{true};

  bool matches(const Notification& n) const {
    return (name.empty() || name == n.name) && (object == nullptr || object == n.object);
  }
};

NotificationCenter& NotificationCenter::defaultCenter() {
  // Never destroyed: observers may outlive static destruction order.
  static NotificationCenter* center = new NotificationCenter();
  return *center;
}

NotificationCenter::NotificationCenter() = default;

NotificationCenter::~NotificationCenter() {
  std::lock_guard lock(mutex_);
  for (auto& observer : observers_) observer->active = false;
}

NotificationCenter::Token NotificationCenter::addObserver(std::string_view name, const void* object,
                                                          Block block) {
  auto observer = std::make_shared<Observer>();
  observer->name = std::string(name);
  observer->object = object;
  observer->block = std::move(block);
  std::lock_guard lock(mutex_);
  observer->token = nextToken_++;
  observers_.push_back(observer);
  return observer->token;
}

void NotificationCenter::removeObserver(Token token) {
  std::shared_ptr<Observer> removed;
  {
    std::lock_guard lock(mutex_);
    for (auto it = observers_.begin(); it != observers_.end(); ++it) {
      if ((*it)->token == token) {
        removed = std::move(*it);
        observers_.erase(it);
        break;
      }
    }
  }
  // The block itself (and whatever it captured) may be kept alive by a post
  // in progress; it is released when that post finishes.
  if (removed) removed->active = false;
}

void NotificationCenter::post(const Notification& notification) {
  std::vector<std::shared_ptr<Observer>> targets;
  {
    std::lock_guard lock(mutex_);
    for (const auto& observer : observers_) {
      if (observer->matches(notification)) targets.push_back(observer);
    }
  }
  // Delivered without the lock held, so blocks may add or remove observers
  // and post further notifications.
  for (const auto& observer : targets) {
    if (observer->active.load()) observer->block(notification);
  }
}

void NotificationCenter::post(std::string_view name, const void* object, Value userInfo) {
  post(Notification{std::string(name), object, std::move(userInfo)});
}

ScopedObserver::ScopedObserver(NotificationCenter& center, std::string_view name,
                               const void* object, NotificationCenter::Block block)
    : center_(&center), token_(center.addObserver(name, object, std::move(block))) {}

ScopedObserver::ScopedObserver(ScopedObserver&& other) noexcept
    : center_(std::exchange(other.center_, nullptr)), token_(std::exchange(other.token_, 0)) {}

ScopedObserver& ScopedObserver::operator=(ScopedObserver&& other) noexcept {
  if (this != &other) {
    reset();
    center_ = std::exchange(other.center_, nullptr);
    token_ = std::exchange(other.token_, 0);
  }
  return *this;
}

ScopedObserver::~ScopedObserver() { reset(); }

void ScopedObserver::reset() {
  if (center_) center_->removeObserver(token_);
  center_ = nullptr;
  token_ = 0;
}

}  // namespace quillon
