// The main queue on the Qt event loop: order, thread, serial running and quitting.

#include "platform/qt_main_queue.h"

#include <gtest/gtest.h>

#include <QEventLoop>
#include <QTimer>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "qt_test_application.h"

namespace tesselune {
namespace {

TEST(QtMainQueueTest, BlocksFromManyThreadsRunOnTheMainThreadInOrderBeforeQuit) {
  QApplication& app = testing::testApplication();
  QtMainQueue queue;
  constexpr int kThreads = 4;
  constexpr int kBlocks = 200;
  std::vector<std::pair<int, int>> ran;  // (thread, sequence), appended on the main thread only
  bool allOnMainThread = true;

  std::vector<std::thread> producers;
  for (int t = 0; t < kThreads; ++t) {
    producers.emplace_back([&, t] {
      EXPECT_FALSE(queue.isMainThread());
      for (int i = 0; i < kBlocks; ++i) {
        queue.addOperationWithBlock([&, t, i] {
          allOnMainThread = allOnMainThread && queue.isMainThread();
          ran.emplace_back(t, i);
        });
      }
    });
  }
  for (std::thread& producer : producers) producer.join();
  queue.quit();
  EXPECT_TRUE(queue.isMainThread());
  EXPECT_EQ(app.exec(), 0);

  ASSERT_EQ(ran.size(), static_cast<std::size_t>(kThreads * kBlocks));
  EXPECT_TRUE(allOnMainThread);
  std::vector<int> next(kThreads, 0);
  for (const auto& [thread, sequence] : ran) {
    EXPECT_EQ(sequence, next[thread]) << "thread " << thread;
    next[thread] = sequence + 1;
  }
  EXPECT_EQ(queue.pendingCount(), 0u);
}

// A block that runs a nested event loop (as a modal alert does) must hold back the blocks behind
// it, and a quit queued meanwhile must neither end that loop nor pass the blocks before it.
TEST(QtMainQueueTest, NestedEventLoopsDoNotStartLaterBlocksOrQuitEarly) {
  QApplication& app = testing::testApplication();
  QtMainQueue queue;
  std::vector<std::string> ran;

  queue.addOperationWithBlock([&] {
    ran.push_back("alert shown");
    queue.quit();
    queue.addOperationWithBlock([&] {
      ran.push_back("after quit");
      queue.quit();
    });
    QEventLoop modal;
    int turns = 0;
    QTimer ticker;
    QObject::connect(&ticker, &QTimer::timeout, [&] {
      if (++turns == 5) modal.quit();
    });
    ticker.start(0);
    modal.exec();
    ran.push_back("alert dismissed");
  });
  queue.addOperationWithBlock([&] { ran.push_back("second alert"); });

  EXPECT_EQ(app.exec(), 0);
  EXPECT_EQ(ran, (std::vector<std::string>{"alert shown", "alert dismissed", "second alert"}));
  EXPECT_EQ(queue.pendingCount(), 1u);

  // The block queued behind the quit runs when the loop is entered again.
  EXPECT_EQ(app.exec(), 0);
  EXPECT_EQ(ran.back(), "after quit");
  EXPECT_EQ(queue.pendingCount(), 0u);
}

TEST(QtMainQueueTest, BlocksOfAQueueDestroyedBeforeTheyRunAreDropped) {
  QApplication& app = testing::testApplication();
  bool ran = false;
  {
    QtMainQueue doomed;
    doomed.addOperationWithBlock([&] { ran = true; });
  }
  QtMainQueue queue;
  queue.quit();
  EXPECT_EQ(app.exec(), 0);
  EXPECT_FALSE(ran);
}

}  // namespace
}  // namespace tesselune
