// Operations and operation queues, as NSOperation, NSBlockOperation and NSOperationQueue.
//
// Operations are owned by std::shared_ptr and may be shared between queues and threads; every
// member is thread-safe. An operation starts once all its dependencies have finished (on any queue)
// or once it is cancelled; a cancelled operation skips its work but still finishes and still runs
// its completion block, as Foundation's do.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace tesselune {

class OperationQueue;

class Operation : public std::enable_shared_from_this<Operation> {
 public:
  Operation() = default;
  virtual ~Operation() = default;
  Operation(const Operation&) = delete;
  Operation& operator=(const Operation&) = delete;

  // Runs the operation on the calling thread: main() unless cancelled, then finishes. Starting an
  // operation twice, or one that is not ready, is a programming error (std::logic_error).
  void start();
  void cancel();
  bool isCancelled() const;
  bool isExecuting() const;
  bool isFinished() const;
  // All dependencies finished, or cancelled.
  bool isReady() const;

  // The dependency must finish before this operation starts. Add dependencies before the operation
  // is queued. A dependency on itself, directly or through others, never becomes ready.
  void addDependency(const std::shared_ptr<Operation>& operation);
  void removeDependency(const std::shared_ptr<Operation>& operation);
  std::vector<std::shared_ptr<Operation>> dependencies() const;

  // Runs once after the operation has finished, on the thread that finished it.
  void setCompletionBlock(std::function<void()> block);
  // Blocks the calling thread until the operation has finished.
  void waitUntilFinished() const;

  std::string name() const;
  void setName(std::string name);

 protected:
  // The work. Long work should look at isCancelled() now and then.
  virtual void main() = 0;

 private:
  friend class OperationQueue;
  // Called by a dependency when it finishes, and by cancel().
  void readinessChanged();
  void setReadyHandler(std::function<void()> handler);

  mutable std::mutex mutex_;
  mutable std::condition_variable finishedCondition_;
  bool cancelled_ = false;
  bool executing_ = false;
  bool finished_ = false;
  std::string name_;
  std::vector<std::shared_ptr<Operation>> dependencies_;
  std::vector<std::weak_ptr<Operation>> dependents_;
  std::function<void()> completion_;
  std::function<void()> readyHandler_;  // set by the queue that holds the operation
};

// An operation that runs blocks, one after the other, on the thread that starts it.
class BlockOperation : public Operation {
 public:
  static std::shared_ptr<BlockOperation> blockOperationWithBlock(std::function<void()> block);
  void addExecutionBlock(std::function<void()> block);

 protected:
  void main() override;

 private:
  mutable std::mutex blocksMutex_;
  std::vector<std::function<void()>> blocks_;
};

// Runs operations on its own threads, at most maxConcurrentOperationCount at once, starting ready
// operations in the order they were added. Thread-safe.
//
// waitUntilAllOperationsAreFinished returns once every operation and its completion block has run.
// Destruction cancels the operations that have not started (they finish without running, their
// completion blocks run), waits for the running ones and joins the threads; an operation must not
// destroy its own queue, nor wait for all of its own queue's operations.
class OperationQueue {
 public:
  OperationQueue();
  ~OperationQueue();
  OperationQueue(const OperationQueue&) = delete;
  OperationQueue& operator=(const OperationQueue&) = delete;

  // The default width: the hardware's threads, but at least two, so that an operation may wait for
  // another one it added to its own queue.
  static std::size_t defaultMaxConcurrentOperationCount();
  // The queue whose thread runs the caller, or nullptr.
  static OperationQueue* currentQueue();

  void addOperation(std::shared_ptr<Operation> operation);
  std::shared_ptr<BlockOperation> addOperationWithBlock(std::function<void()> block);
  void addOperations(const std::vector<std::shared_ptr<Operation>>& operations, bool waitUntilFinished);
  void waitUntilAllOperationsAreFinished();
  void cancelAllOperations();

  // Operations added and not yet finished.
  std::size_t operationCount() const;
  std::size_t maxConcurrentOperationCount() const;
  void setMaxConcurrentOperationCount(std::size_t count);
  bool isSuspended() const;
  void setSuspended(bool suspended);
  std::string name() const;
  void setName(std::string name);

 private:
  void workerLoop(std::stop_token stop);
  // The first ready operation, removed from the queue; null when none or when the width is used up.
  // Needs the wake-up mutex, as does spawnWorkerIfNeeded.
  std::shared_ptr<Operation> takeReady();
  void spawnWorkerIfNeeded();

  // What a ready operation needs to wake the workers; shared with the operations' ready handlers,
  // which may outlive the queue.
  struct Wakeup {
    std::mutex mutex;  // guards the queue's state below as well
    std::condition_variable_any workAvailable;
  };
  std::shared_ptr<Wakeup> wakeup_;
  std::condition_variable allFinished_;
  std::deque<std::shared_ptr<Operation>> pending_;
  std::vector<std::shared_ptr<Operation>> executing_;
  std::size_t idleWorkers_ = 0;
  std::size_t starting_ = 0;  // workers made but not yet waiting
  std::size_t maxConcurrent_;
  bool suspended_ = false;
  std::string name_;
  std::vector<std::jthread> workers_;
};

}  // namespace tesselune
