// The process's main queue and the plain run loop.

#include "foundation/main_queue.h"

namespace tesselune {

namespace {

struct MainQueueSlot {
  std::mutex mutex;
  std::shared_ptr<MainQueue> queue;
};

MainQueueSlot& slot() {
  static MainQueueSlot instance;
  return instance;
}

}  // namespace

std::shared_ptr<MainQueue> mainQueue() {
  MainQueueSlot& s = slot();
  std::lock_guard lock(s.mutex);
  if (!s.queue) s.queue = std::make_shared<RunLoopMainQueue>();
  return s.queue;
}

void setMainQueue(std::shared_ptr<MainQueue> queue) {
  MainQueueSlot& s = slot();
  std::lock_guard lock(s.mutex);
  s.queue = std::move(queue);
}

RunLoopMainQueue::RunLoopMainQueue() : mainThread_(std::this_thread::get_id()) {}

void RunLoopMainQueue::addOperationWithBlock(std::function<void()> block) {
  {
    std::lock_guard lock(mutex_);
    items_.push_back({std::move(block), false});
  }
  available_.notify_all();
}

bool RunLoopMainQueue::isMainThread() const {
  std::lock_guard lock(mutex_);
  return std::this_thread::get_id() == mainThread_;
}

void RunLoopMainQueue::quit() {
  {
    std::lock_guard lock(mutex_);
    items_.push_back({nullptr, true});
  }
  available_.notify_all();
}

bool RunLoopMainQueue::next(Item& item, std::chrono::steady_clock::time_point deadline, bool wait) {
  std::unique_lock lock(mutex_);
  mainThread_ = std::this_thread::get_id();
  if (wait) available_.wait_until(lock, deadline, [this] { return !items_.empty(); });
  if (items_.empty()) return false;
  item = std::move(items_.front());
  items_.pop_front();
  return true;
}

void RunLoopMainQueue::run() {
  Item item;
  while (next(item, std::chrono::steady_clock::time_point::max(), true)) {
    if (item.quit) return;
    if (item.block) item.block();
  }
}

std::size_t RunLoopMainQueue::runUntilIdle() {
  std::size_t count = 0;
  Item item;
  while (next(item, {}, false)) {
    if (item.quit) break;
    if (item.block) item.block();
    ++count;
  }
  return count;
}

bool RunLoopMainQueue::runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  Item item;
  while (!done()) {
    if (!next(item, deadline, true)) return done();
    if (item.quit) break;
    if (item.block) item.block();
  }
  return done();
}

std::size_t RunLoopMainQueue::pendingCount() const {
  std::lock_guard lock(mutex_);
  return items_.size();
}

}  // namespace tesselune
