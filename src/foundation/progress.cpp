// Progress: every change is applied under the lock, then reported to the observers outside it.

#include "foundation/progress.h"

#include <vector>

namespace tesselune {

template <class Change>
void Progress::change(Change&& apply) {
  std::vector<std::function<void(const Progress&)>> observers;
  {
    std::lock_guard lock(mutex_);
    if (!apply()) return;
    observers.reserve(observers_.size());
    for (const auto& [id, observer] : observers_) observers.push_back(observer);
  }
  for (const auto& observer : observers) observer(*this);
}

std::int64_t Progress::totalUnitCount() const {
  std::lock_guard lock(mutex_);
  return total_;
}

void Progress::setTotalUnitCount(std::int64_t count) {
  change([&] {
    total_ = count;
    return true;
  });
}

std::int64_t Progress::completedUnitCount() const {
  std::lock_guard lock(mutex_);
  return completed_;
}

void Progress::setCompletedUnitCount(std::int64_t count) {
  change([&] {
    completed_ = count;
    return true;
  });
}

bool Progress::isIndeterminate() const {
  std::lock_guard lock(mutex_);
  return total_ < 0 || completed_ < 0;
}

double Progress::fractionCompleted() const {
  std::lock_guard lock(mutex_);
  if (total_ <= 0 || completed_ < 0) return 0;
  return static_cast<double>(completed_) / static_cast<double>(total_);
}

std::string Progress::localizedDescription() const {
  std::lock_guard lock(mutex_);
  return description_;
}

void Progress::setLocalizedDescription(std::string text) {
  change([&] {
    description_ = std::move(text);
    return true;
  });
}

std::string Progress::localizedAdditionalDescription() const {
  std::lock_guard lock(mutex_);
  return additionalDescription_;
}

void Progress::setLocalizedAdditionalDescription(std::string text) {
  change([&] {
    additionalDescription_ = std::move(text);
    return true;
  });
}

Dictionary Progress::userInfo() const {
  std::lock_guard lock(mutex_);
  return userInfo_;
}

void Progress::setUserInfoObject(Value value, const std::string& key) {
  change([&] {
    if (value.isNull()) {
      userInfo_.erase(key);
    } else {
      userInfo_.insert_or_assign(key, std::move(value));
    }
    return true;
  });
}

bool Progress::isCancellable() const {
  std::lock_guard lock(mutex_);
  return cancellable_;
}

void Progress::setCancellable(bool cancellable) {
  change([&] {
    cancellable_ = cancellable;
    return true;
  });
}

bool Progress::isCancelled() const {
  std::lock_guard lock(mutex_);
  return cancelled_;
}

void Progress::cancel() {
  std::function<void()> handler;
  change([&] {
    if (cancelled_ || !cancellable_) return false;
    cancelled_ = true;
    handler = std::move(cancellationHandler_);
    cancellationHandler_ = nullptr;
    return true;
  });
  if (handler) handler();
}

void Progress::setCancellationHandler(std::function<void()> handler) {
  {
    std::lock_guard lock(mutex_);
    if (!cancelled_) {
      cancellationHandler_ = std::move(handler);
      return;
    }
  }
  if (handler) handler();
}

Progress::ObserverId Progress::addObserver(std::function<void(const Progress&)> observer) {
  std::lock_guard lock(mutex_);
  const ObserverId id = nextObserver_++;
  observers_.emplace(id, std::move(observer));
  return id;
}

void Progress::removeObserver(ObserverId id) {
  std::lock_guard lock(mutex_);
  observers_.erase(id);
}

}  // namespace tesselune
