// The main queue: blocks run later, on the loop's thread, in the order queued from any thread, and
// a quit queued behind them lets them all run first.

#include "foundation/main_queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace tesselune {
namespace {

TEST(RunLoopMainQueue, RunsBlocksInOrderOnItsThreadAndQuitsBehindThem) {
  auto queue = std::make_shared<RunLoopMainQueue>();
  std::vector<int> order;
  std::atomic<bool> allOnMain = true;
  std::thread worker([&] {
    EXPECT_FALSE(queue->isMainThread());
    for (int i = 0; i < 100; ++i) {
      queue->addOperationWithBlock([&, i] {
        allOnMain = allOnMain && queue->isMainThread();
        order.push_back(i);
      });
    }
    queue->quit();
    // Behind the quit: left for a later run.
    queue->addOperationWithBlock([&] { order.push_back(-1); });
  });
  queue->run();
  worker.join();
  ASSERT_EQ(order.size(), 100u);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(order[static_cast<std::size_t>(i)], i);
  EXPECT_TRUE(allOnMain);
  EXPECT_EQ(queue->pendingCount(), 1u);
  EXPECT_EQ(queue->runUntilIdle(), 1u);
  EXPECT_EQ(order.back(), -1);
}

TEST(RunLoopMainQueue, BlocksQueuedByBlocksRunInTheSameIdlePass) {
  RunLoopMainQueue queue;
  int depth = 0;
  std::function<void()> again = [&] {
    if (++depth < 5) queue.addOperationWithBlock(again);
  };
  queue.addOperationWithBlock(again);
  EXPECT_EQ(depth, 0) << "nothing runs before the loop does";
  EXPECT_EQ(queue.runUntilIdle(), 5u);
  EXPECT_EQ(depth, 5);
  EXPECT_FALSE(queue.runUntil([] { return false; }, std::chrono::milliseconds(10)));
}

TEST(MainQueue, TheInstalledQueueIsTheProcesssMainQueue) {
  auto mine = std::make_shared<RunLoopMainQueue>();
  setMainQueue(mine);
  bool ran = false;
  mainQueue()->addOperationWithBlock([&] { ran = true; });
  EXPECT_EQ(mine->runUntilIdle(), 1u);
  EXPECT_TRUE(ran);
  setMainQueue(nullptr);
  EXPECT_NE(mainQueue(), nullptr) << "a default loop is made when none is installed";
}

}  // namespace
}  // namespace tesselune
