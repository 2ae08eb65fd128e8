// Operation queues: dependencies across queues, completion blocks, cancellation, waiting from inside
// an operation, many submitters at once, and the timed lock the store container uses.

#include "foundation/operation_queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

#include "foundation/timed_lock.h"

namespace tesselune {
namespace {

TEST(OperationQueue, HonoursDependenciesAcrossQueues) {
  OperationQueue first;
  OperationQueue second;
  std::mutex mutex;
  std::vector<std::string> order;
  auto record = [&](std::string what) {
    std::lock_guard lock(mutex);
    order.push_back(std::move(what));
  };
  std::promise<void> release;
  auto gate = release.get_future().share();
  auto a = BlockOperation::blockOperationWithBlock([&, gate] {
    gate.wait();
    record("a");
  });
  auto b = BlockOperation::blockOperationWithBlock([&] { record("b"); });
  auto c = BlockOperation::blockOperationWithBlock([&] { record("c"); });
  b->addDependency(a);
  c->addDependency(b);
  // Queued before what they depend on, and on another queue.
  second.addOperation(c);
  second.addOperation(b);
  first.addOperation(a);
  EXPECT_FALSE(b->isReady());
  release.set_value();
  c->waitUntilFinished();
  EXPECT_EQ(order, (std::vector<std::string>{"a", "b", "c"}));
  EXPECT_TRUE(a->isFinished() && b->isFinished() && c->isFinished());
}

TEST(OperationQueue, RunsCompletionOnceAfterFinishingEvenWhenCancelled) {
  OperationQueue queue;
  queue.setSuspended(true);
  std::atomic<int> ran = 0;
  std::atomic<int> completions = 0;
  std::atomic<bool> finishedWhenCompleting = false;
  auto skipped = BlockOperation::blockOperationWithBlock([&] { ++ran; });
  skipped->setCompletionBlock([&] {
    finishedWhenCompleting = skipped->isFinished();
    ++completions;
  });
  auto done = BlockOperation::blockOperationWithBlock([&] { ++ran; });
  done->setCompletionBlock([&] { ++completions; });
  queue.addOperation(skipped);
  queue.addOperation(done);
  skipped->cancel();
  queue.setSuspended(false);
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_EQ(ran, 1);
  EXPECT_EQ(completions, 2);
  EXPECT_TRUE(finishedWhenCompleting);
  EXPECT_TRUE(skipped->isCancelled() && skipped->isFinished());
  EXPECT_EQ(queue.operationCount(), 0u);
}

TEST(OperationQueue, AnOperationMayWaitForAnotherOnItsOwnQueue) {
  OperationQueue queue;
  EXPECT_GE(queue.maxConcurrentOperationCount(), 2u);
  std::atomic<bool> innerRan = false;
  OperationQueue* seenFromInside = nullptr;
  auto outer = queue.addOperationWithBlock([&] {
    seenFromInside = OperationQueue::currentQueue();
    auto inner = queue.addOperationWithBlock([&] { innerRan = true; });
    inner->waitUntilFinished();
  });
  outer->waitUntilFinished();
  EXPECT_TRUE(innerRan);
  EXPECT_EQ(seenFromInside, &queue);
  EXPECT_EQ(OperationQueue::currentQueue(), nullptr);
}

TEST(OperationQueue, RunsEveryOperationOnceAndNeverMoreAtOnceThanItsWidth) {
  OperationQueue queue;
  queue.setMaxConcurrentOperationCount(3);
  std::atomic<int> count = 0;
  std::atomic<int> running = 0;
  std::atomic<int> widest = 0;
  std::vector<std::jthread> submitters;
  for (int t = 0; t < 4; ++t) {
    submitters.emplace_back([&] {
      for (int i = 0; i < 250; ++i) {
        queue.addOperationWithBlock([&] {
          const int now = ++running;
          int seen = widest.load();
          while (now > seen && !widest.compare_exchange_weak(seen, now)) {
          }
          ++count;
          --running;
        });
      }
    });
  }
  submitters.clear();
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_EQ(count, 1000);
  EXPECT_LE(widest, 3);
}

TEST(OperationQueue, DestructionCancelsWhatHasNotStarted) {
  std::atomic<int> ran = 0;
  std::atomic<int> completions = 0;
  {
    OperationQueue queue;
    queue.setSuspended(true);
    for (int i = 0; i < 10; ++i) {
      auto op = BlockOperation::blockOperationWithBlock([&] { ++ran; });
      op->setCompletionBlock([&] { ++completions; });
      queue.addOperation(op);
    }
  }
  EXPECT_EQ(ran, 0);
  EXPECT_EQ(completions, 10);
}

TEST(OperationQueue, AddOperationsCanWait) {
  OperationQueue queue;
  std::atomic<int> count = 0;
  std::vector<std::shared_ptr<Operation>> ops;
  for (int i = 0; i < 5; ++i) ops.push_back(BlockOperation::blockOperationWithBlock([&] { ++count; }));
  queue.addOperations(ops, true);
  EXPECT_EQ(count, 5);
  EXPECT_THROW(queue.addOperation(ops.front()), std::logic_error);
}

TEST(TimedLock, GivesUpAtTheDeadlineAndSucceedsWhenFree) {
  TimedLock lock;
  lock.lock();
  std::atomic<bool> taken = true;
  std::thread other([&] { taken = lock.lockWithin(std::chrono::milliseconds(20)); });
  other.join();
  EXPECT_FALSE(taken);
  lock.unlock();
  std::thread again([&] {
    taken = lock.lockBefore(std::chrono::steady_clock::now() + std::chrono::seconds(5));
    if (taken) lock.unlock();
  });
  again.join();
  EXPECT_TRUE(taken);
}

}  // namespace
}  // namespace tesselune
