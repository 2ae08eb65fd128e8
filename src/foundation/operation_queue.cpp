// Operations and operation queues. Lock order: a queue's mutex may be held while an operation's is
// taken, never the other way round; callbacks between them (readiness, completion) run unlocked.

#include "foundation/operation_queue.h"

#include <algorithm>
#include <stdexcept>

namespace tesselune {

namespace {

thread_local OperationQueue* currentQueueOfThread = nullptr;

}  // namespace

// --- Operation ---

void Operation::start() {
  const bool ready = isReady();
  {
    std::lock_guard lock(mutex_);
    if (executing_ || finished_) throw std::logic_error("Operation started twice: " + name_);
    if (!ready) throw std::logic_error("Operation started before its dependencies finished: " + name_);
    executing_ = true;
  }
  if (!isCancelled()) main();

  std::function<void()> completion;
  std::vector<std::weak_ptr<Operation>> dependents;
  {
    std::lock_guard lock(mutex_);
    executing_ = false;
    finished_ = true;
    completion = std::move(completion_);
    completion_ = nullptr;
    dependents = dependents_;
  }
  finishedCondition_.notify_all();
  for (const auto& weak : dependents) {
    if (auto dependent = weak.lock()) dependent->readinessChanged();
  }
  if (completion) completion();
}

void Operation::cancel() {
  {
    std::lock_guard lock(mutex_);
    if (finished_ || cancelled_) return;
    cancelled_ = true;
  }
  // A cancelled operation is ready at once, whatever its dependencies.
  readinessChanged();
}

bool Operation::isCancelled() const {
  std::lock_guard lock(mutex_);
  return cancelled_;
}

bool Operation::isExecuting() const {
  std::lock_guard lock(mutex_);
  return executing_;
}

bool Operation::isFinished() const {
  std::lock_guard lock(mutex_);
  return finished_;
}

bool Operation::isReady() const {
  std::vector<std::shared_ptr<Operation>> dependencies;
  {
    std::lock_guard lock(mutex_);
    if (cancelled_) return true;
    dependencies = dependencies_;
  }
  return std::all_of(dependencies.begin(), dependencies.end(), [](const auto& d) { return d->isFinished(); });
}

void Operation::addDependency(const std::shared_ptr<Operation>& operation) {
  if (!operation) return;
  {
    std::lock_guard lock(mutex_);
    dependencies_.push_back(operation);
  }
  std::lock_guard lock(operation->mutex_);
  operation->dependents_.push_back(weak_from_this());
}

void Operation::removeDependency(const std::shared_ptr<Operation>& operation) {
  {
    std::lock_guard lock(mutex_);
    std::erase(dependencies_, operation);
  }
  readinessChanged();
}

std::vector<std::shared_ptr<Operation>> Operation::dependencies() const {
  std::lock_guard lock(mutex_);
  return dependencies_;
}

void Operation::setCompletionBlock(std::function<void()> block) {
  std::lock_guard lock(mutex_);
  completion_ = std::move(block);
}

void Operation::waitUntilFinished() const {
  std::unique_lock lock(mutex_);
  finishedCondition_.wait(lock, [this] { return finished_; });
}

std::string Operation::name() const {
  std::lock_guard lock(mutex_);
  return name_;
}

void Operation::setName(std::string name) {
  std::lock_guard lock(mutex_);
  name_ = std::move(name);
}

void Operation::readinessChanged() {
  std::function<void()> handler;
  {
    std::lock_guard lock(mutex_);
    handler = readyHandler_;
  }
  if (handler) handler();
}

void Operation::setReadyHandler(std::function<void()> handler) {
  std::lock_guard lock(mutex_);
  readyHandler_ = std::move(handler);
}

// --- BlockOperation ---

std::shared_ptr<BlockOperation> BlockOperation::blockOperationWithBlock(std::function<void()> block) {
  auto operation = std::make_shared<BlockOperation>();
  operation->addExecutionBlock(std::move(block));
  return operation;
}

void BlockOperation::addExecutionBlock(std::function<void()> block) {
  if (isExecuting() || isFinished()) throw std::logic_error("BlockOperation: block added after the start");
  std::lock_guard lock(blocksMutex_);
  blocks_.push_back(std::move(block));
}

void BlockOperation::main() {
  std::vector<std::function<void()>> blocks;
  {
    std::lock_guard lock(blocksMutex_);
    blocks.swap(blocks_);
  }
  for (auto& block : blocks) {
    if (block) block();
  }
}

// --- OperationQueue ---

OperationQueue::OperationQueue()
    : wakeup_(std::make_shared<Wakeup>()), maxConcurrent_(defaultMaxConcurrentOperationCount()) {}

OperationQueue::~OperationQueue() {
  // Cancel before resuming, so that no worker starts a queued operation for real in between.
  cancelAllOperations();
  setSuspended(false);
  waitUntilAllOperationsAreFinished();
  // Each jthread asks its worker to stop, which wakes it from its wait, and joins it.
  workers_.clear();
}

std::size_t OperationQueue::defaultMaxConcurrentOperationCount() {
  return std::max<std::size_t>(2, std::thread::hardware_concurrency());
}

OperationQueue* OperationQueue::currentQueue() {
  return currentQueueOfThread;
}

void OperationQueue::addOperation(std::shared_ptr<Operation> operation) {
  if (!operation) return;
  if (operation->isExecuting() || operation->isFinished()) {
    throw std::logic_error("OperationQueue: operation already started or finished");
  }
  // The handler keeps only the wake-up state alive, so a dependency on another queue that finishes
  // after this queue is gone does no harm.
  operation->setReadyHandler([wakeup = wakeup_] {
    std::lock_guard lock(wakeup->mutex);
    wakeup->workAvailable.notify_all();
  });
  std::lock_guard lock(wakeup_->mutex);
  pending_.push_back(std::move(operation));
  spawnWorkerIfNeeded();
  wakeup_->workAvailable.notify_all();
}

std::shared_ptr<BlockOperation> OperationQueue::addOperationWithBlock(std::function<void()> block) {
  auto operation = BlockOperation::blockOperationWithBlock(std::move(block));
  addOperation(operation);
  return operation;
}

void OperationQueue::addOperations(const std::vector<std::shared_ptr<Operation>>& operations,
                                   bool waitUntilFinished) {
  for (const auto& operation : operations) addOperation(operation);
  if (waitUntilFinished) {
    for (const auto& operation : operations) operation->waitUntilFinished();
  }
}

void OperationQueue::waitUntilAllOperationsAreFinished() {
  std::unique_lock lock(wakeup_->mutex);
  allFinished_.wait(lock, [this] { return pending_.empty() && executing_.empty(); });
}

void OperationQueue::cancelAllOperations() {
  std::vector<std::shared_ptr<Operation>> operations;
  {
    std::lock_guard lock(wakeup_->mutex);
    operations.assign(pending_.begin(), pending_.end());
    operations.insert(operations.end(), executing_.begin(), executing_.end());
  }
  for (const auto& operation : operations) operation->cancel();
}

std::size_t OperationQueue::operationCount() const {
  std::lock_guard lock(wakeup_->mutex);
  return pending_.size() + executing_.size();
}

std::size_t OperationQueue::maxConcurrentOperationCount() const {
  std::lock_guard lock(wakeup_->mutex);
  return maxConcurrent_;
}

void OperationQueue::setMaxConcurrentOperationCount(std::size_t count) {
  std::lock_guard lock(wakeup_->mutex);
  maxConcurrent_ = std::max<std::size_t>(1, count);
  spawnWorkerIfNeeded();
  wakeup_->workAvailable.notify_all();
}

bool OperationQueue::isSuspended() const {
  std::lock_guard lock(wakeup_->mutex);
  return suspended_;
}

void OperationQueue::setSuspended(bool suspended) {
  std::lock_guard lock(wakeup_->mutex);
  suspended_ = suspended;
  wakeup_->workAvailable.notify_all();
}

std::string OperationQueue::name() const {
  std::lock_guard lock(wakeup_->mutex);
  return name_;
}

void OperationQueue::setName(std::string name) {
  std::lock_guard lock(wakeup_->mutex);
  name_ = std::move(name);
}

std::shared_ptr<Operation> OperationQueue::takeReady() {
  if (suspended_ || executing_.size() >= maxConcurrent_) return nullptr;
  for (auto it = pending_.begin(); it != pending_.end(); ++it) {
    if ((*it)->isReady()) {
      std::shared_ptr<Operation> operation = std::move(*it);
      pending_.erase(it);
      return operation;
    }
  }
  return nullptr;
}

void OperationQueue::spawnWorkerIfNeeded() {
  // Workers blocked inside an operation (waiting for another) count as busy, so a new one is made
  // as long as the width allows.
  if (idleWorkers_ == 0 && executing_.size() + starting_ < maxConcurrent_) {
    ++starting_;
    workers_.emplace_back([this](std::stop_token stop) { workerLoop(stop); });
  }
}

void OperationQueue::workerLoop(std::stop_token stop) {
  currentQueueOfThread = this;
  std::unique_lock lock(wakeup_->mutex);
  --starting_;
  for (;;) {
    std::shared_ptr<Operation> operation;
    ++idleWorkers_;
    wakeup_->workAvailable.wait(lock, stop, [&] { return (operation = takeReady()) != nullptr; });
    --idleWorkers_;
    if (!operation) return;  // asked to stop
    executing_.push_back(operation);
    lock.unlock();
    operation->setReadyHandler(nullptr);
    operation->start();
    lock.lock();
    std::erase(executing_, operation);
    operation.reset();
    allFinished_.notify_all();
    wakeup_->workAvailable.notify_all();
  }
}

}  // namespace tesselune
