// The progress window on Qt's offscreen platform, with the program's Qt main queue: ordered updates
// from worker threads, the bar's maximum, update dictionaries, sizing, placement, sheets, and
// screenshots of the window and of an alert for a person to look at.

#include "interface/progress_window_manager.h"

#include <gtest/gtest.h>

#include <QApplication>
#include <QDialog>
#include <QDir>
#include <QImage>
#include <QKeyEvent>
#include <QLabel>
#include <QMessageBox>
#include <QProgressBar>
#include <QPushButton>
#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

#include "foundation/main_queue.h"
#include "platform/qt_alert_presenter.h"
#include "platform/qt_main_queue.h"
#include "platform/qt_test_application.h"

namespace tesselune {
namespace {

class ProgressWindowTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    testing::testApplication();
    static std::shared_ptr<QtMainQueue> queue = std::make_shared<QtMainQueue>();
    setMainQueue(queue);
  }

  // Runs the event loop until `done` or ten seconds have passed.
  static bool pumpUntil(const std::function<bool()>& done) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!done()) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    }
    return true;
  }
  static void pumpIdle(const std::shared_ptr<ProgressWindowManager>& manager) {
    ASSERT_TRUE(pumpUntil([&] { return manager->pendingOperationCount() == 0; }));
    QCoreApplication::processEvents();
  }

  static QLabel* label(const ProgressWindowManager& manager, const char* name) {
    return manager.window()->findChild<QLabel*>(name);
  }
  static QProgressBar* bar(const ProgressWindowManager& manager) {
    return manager.window()->findChild<QProgressBar*>("progressIndicator");
  }
};

TEST_F(ProgressWindowTest, UpdatesFromWorkerThreadsRunOnTheMainThreadInAppendOrder) {
  auto manager = ProgressWindowManager::create();
  std::mutex appendMutex;
  std::vector<int> appended;
  std::vector<int> ran;  // main thread only
  std::atomic<bool> offMainThread = false;

  std::vector<std::thread> workers;
  for (int worker = 0; worker < 4; ++worker) {
    workers.emplace_back([&, worker] {
      for (int i = 0; i < 50; ++i) {
        const int id = worker * 1000 + i;
        std::lock_guard lock(appendMutex);
        appended.push_back(id);
        manager->appendOperation(BlockOperation::blockOperationWithBlock([&, id] {
          if (!mainQueue()->isMainThread()) offMainThread = true;
          ran.push_back(id);
        }));
        manager->incrementProgressbarBy(1.0);
        manager->setInfoText("step " + std::to_string(id));
      }
    });
  }
  // The workers append while the main thread drains.
  ASSERT_TRUE(pumpUntil([&] {
    std::lock_guard lock(appendMutex);
    return appended.size() == 200 && ran.size() == 200;
  }));
  for (auto& worker : workers) worker.join();
  pumpIdle(manager);

  EXPECT_EQ(ran, appended);
  EXPECT_FALSE(offMainThread);
  EXPECT_EQ(manager->indicatorValue(), 200);
  // The last text asked for is the one shown.
  EXPECT_EQ(manager->infoText(), "step " + std::to_string(appended.back()));
  EXPECT_EQ(label(*manager, "infoTextField")->text().toStdString(), manager->infoText());
}

TEST_F(ProgressWindowTest, MaximumSwitchesTheBarAndResetsItsValue) {
  auto manager = ProgressWindowManager::create();
  manager->setMaximumIndicatorValue(10.4);
  manager->setIndicatorValue(7);
  EXPECT_EQ(bar(*manager)->maximum(), 10);
  EXPECT_EQ(bar(*manager)->value(), 7);

  manager->setMaximumIndicatorValue(-1.0);
  EXPECT_TRUE(manager->progressIsIndeterminate());
  EXPECT_EQ(manager->indicatorValue(), 0);
  EXPECT_EQ(manager->maximumIndicatorValue(), -1.0);
  EXPECT_EQ(bar(*manager)->minimum(), 0);
  EXPECT_EQ(bar(*manager)->maximum(), 0);  // Qt's busy bar

  manager->setMaximumIndicatorValue(3.0);
  manager->incrementProgressbarBy(1.6);
  EXPECT_FALSE(manager->progressIsIndeterminate());
  EXPECT_EQ(manager->indicatorValue(), 2);
  EXPECT_EQ(bar(*manager)->value(), 2);

  // Off the main thread the call returns only after its update has landed, within its bound,
  // while the main thread keeps running.
  std::atomic<bool> done = false;
  std::int64_t seenAfterward = -2;
  std::thread worker([&] {
    manager->setIndicatorValue(2);
    manager->setMaximumIndicatorValue(100.0);
    seenAfterward = static_cast<std::int64_t>(manager->maximumIndicatorValue());
    done = true;
  });
  ASSERT_TRUE(pumpUntil([&] { return done.load(); }));
  worker.join();
  EXPECT_EQ(seenAfterward, 100);
  EXPECT_EQ(manager->indicatorValue(), 0);
}

TEST_F(ProgressWindowTest, UpdateDictionariesShowCountsAndOrderTheWindowOut) {
  auto manager = ProgressWindowManager::create();
  auto update = manager->progressWindowUpdater();
  manager->showWindow();
  pumpIdle(manager);
  ASSERT_TRUE(manager->window()->isVisible());

  bool cancelled = false;
  update({{"cancellationHandler", Value(std::make_shared<CancellationBlock>([&] { cancelled = true; }))}});
  pumpIdle(manager);
  EXPECT_TRUE(manager->window()->isVisible());
  EXPECT_TRUE(manager->progressReporter().isCancellable());
  manager->cancelProgress();
  EXPECT_TRUE(cancelled);

  update({{"message", Value("Deleting spectra")},
          {"maximumIndicatorValue", Value(-1.0)},
          {"incrementCounter1By", Value(2)},
          {"incrementCounter2By", Value(3)},
          {"info", Value("%ld of %ld chromatograms, 100%%")}});
  update({{"incrementCounter1By", Value(1)}, {"info", Value("%li done")}, {"incrementBy", Value(4)}});
  pumpIdle(manager);
  EXPECT_EQ(manager->messageText(), "Deleting spectra");
  EXPECT_TRUE(manager->progressIsIndeterminate());
  EXPECT_EQ(manager->infoText(), "3 done");
  EXPECT_EQ(manager->indicatorValue(), 4);
  update({{"info", Value("%ld as written")}});
  pumpIdle(manager);
  EXPECT_EQ(manager->infoText(), "%ld as written");
  EXPECT_TRUE(manager->window()->isVisible());

  update({});
  pumpIdle(manager);
  EXPECT_FALSE(manager->window()->isVisible());
}

TEST_F(ProgressWindowTest, CounterTextsFillIntegerConversionsOnly) {
  EXPECT_EQ(formatCounterText("%ld of %lld (%d%%) %s %@", {1, 2, 3, 4}), "1 of 2 (3%) %s 4");
  EXPECT_EQ(formatCounterText("%li and %li", {7}), "7 and %li");
  EXPECT_EQ(formatCounterText("trailing %", {7}), "trailing %");
}

TEST_F(ProgressWindowTest, WidthFollowsTheLengthOfTheTextsNotTheirLook) {
  auto manager = ProgressWindowManager::create();
  manager->setMessageText("iiiiiiiiiiiiiiii");
  const double narrow = manager->windowWidth();
  const int narrowHint = label(*manager, "messageTextField")->sizeHint().width();
  EXPECT_DOUBLE_EQ(narrow,
                   std::round(std::max(narrowHint, label(*manager, "infoTextField")->sizeHint().width()) +
                              ProgressWindowManager::kWindowWidthAllowance));

  // Same length, wider letters: no new width.
  manager->setMessageText("WWWWWWWWWWWWWWWW");
  ASSERT_GT(label(*manager, "messageTextField")->sizeHint().width(), narrowHint);
  EXPECT_EQ(manager->windowWidth(), narrow);

  manager->setInfoText("Deleting a chromatogram: removing store entries and everything else");
  EXPECT_GT(manager->windowWidth(), narrow);
  EXPECT_GE(manager->window()->width(), static_cast<int>(manager->windowWidth()));
}

TEST_F(ProgressWindowTest, WindowsCascadeFromTheLastOneAndRememberMoves) {
  auto placement = std::make_shared<RememberedPlacement>();
  placement->setProgressWindowTopLeftPoint(QPoint(100, 80));
  auto first = ProgressWindowManager::create(placement);
  EXPECT_EQ(first->window()->pos(), QPoint(100, 80));
  const QPoint next = placement->progressWindowTopLeftPoint();
  EXPECT_GT(next.x(), 100);
  EXPECT_GT(next.y(), 80);

  auto second = ProgressWindowManager::create(placement);
  EXPECT_EQ(second->window()->pos(), next);

  first->showWindow();
  pumpIdle(first);
  first->window()->move(QPoint(300, 200));
  ASSERT_TRUE(pumpUntil([&] { return placement->progressWindowTopLeftPoint().x() > 300; }));
  EXPECT_GT(placement->progressWindowTopLeftPoint().y(), 200);
}

TEST_F(ProgressWindowTest, SheetsEndThroughCloseWindowWithReturnCodeZero) {
  QWidget parent;
  parent.resize(600, 400);
  parent.show();
  auto manager = ProgressWindowManager::create();
  int returned = -1;
  manager->beginSheetModalForWindow(&parent, [&](int code) { returned = code; });
  EXPECT_TRUE(manager->isSheet());
  EXPECT_EQ(manager->window()->windowModality(), Qt::WindowModal);
  EXPECT_TRUE(manager->window()->isVisible());

  manager->closeWindow();
  EXPECT_EQ(returned, 0);
  EXPECT_FALSE(manager->isSheet());
  EXPECT_FALSE(manager->window()->isVisible());
}

// Closing the window in any way leaves the work running; only Escape cancels it.
TEST_F(ProgressWindowTest, OnlyEscapeCancelsClosingNeverDoes) {
  int cancels = 0;
  auto manager = ProgressWindowManager::create();
  manager->setCancellationHandler([&] { ++cancels; });
  auto reopen = [&] {
    manager->showWindow();
    pumpIdle(manager);
    manager->window()->show();
    ASSERT_TRUE(manager->window()->isVisible());
  };

  reopen();
  manager->window()->findChild<QPushButton*>("okButton")->click();
  EXPECT_FALSE(manager->window()->isVisible());
  reopen();
  manager->closeWindow();
  EXPECT_FALSE(manager->window()->isVisible());
  reopen();
  manager->window()->close();  // the title bar's close box
  QWidget parent;
  parent.show();
  manager->beginSheetModalForWindow(&parent, nullptr);
  manager->endSheet();
  EXPECT_FALSE(manager->isSheet());
  EXPECT_EQ(cancels, 0);
  EXPECT_FALSE(manager->progressReporter().isCancelled());

  reopen();
  QWidget* target =
      manager->window()->focusWidget() != nullptr ? manager->window()->focusWidget() : manager->window();
  QKeyEvent escape(QEvent::KeyPress, Qt::Key_Escape, Qt::NoModifier);
  QApplication::sendEvent(target, &escape);
  EXPECT_EQ(cancels, 1);
  EXPECT_TRUE(manager->progressReporter().isCancelled());
}

TEST_F(ProgressWindowTest, VisibilityFollowsTheKeyPathAndQueuedUpdatesOutliveNobody) {
  auto manager = ProgressWindowManager::create();
  manager->setValueForKeyPath(Value(1), "progressReporter.userInfo.windowVisibility");
  EXPECT_TRUE(manager->window()->isVisible());
  manager->hideWindow();
  EXPECT_FALSE(manager->window()->isVisible());
  EXPECT_THROW(manager->setValueForKeyPath(Value(1), "window.title"), std::invalid_argument);

  // Updates still queued when the manager goes away do nothing.
  std::thread worker([&] {
    for (int i = 0; i < 20; ++i) manager->incrementProgressbarBy(1.0);
  });
  worker.join();
  manager.reset();
  QCoreApplication::processEvents();
}

// Screenshots under the build folder (tests/screenshots/), for a person to look at.
TEST_F(ProgressWindowTest, WindowAndAlertScreenshotsShowTheirTexts) {
  QDir().mkpath("screenshots");
  auto manager = ProgressWindowManager::create();
  manager->setMessageText("Deleting large objects from the store");
  manager->setInfoText("Deleting a chromatogram: removing store entries");
  manager->setMaximumIndicatorValue(10);
  manager->setIndicatorValue(4);
  manager->showWindow();
  pumpIdle(manager);
  const QImage window = manager->window()->grab().toImage();
  ASSERT_TRUE(window.save("screenshots/progress_window.png"));
  const QImage reloaded("screenshots/progress_window.png");
  EXPECT_GE(reloaded.width(), static_cast<int>(manager->windowWidth()));
  EXPECT_GT(reloaded.height(), 60);
  EXPECT_EQ(label(*manager, "infoTextField")->text(), "Deleting a chromatogram: removing store entries");
  EXPECT_TRUE(label(*manager, "infoTextField")->isVisible());
  EXPECT_FALSE(label(*manager, "iconImage")->pixmap().isNull());

  const AlertContent content{AlertContent::Style::Critical,
                             "Failure when trying to delete a large object from the store.",
                             "Failure to add the Tesselune store.\rReason: The file is not a database."};
  auto box = makeMessageBox(content);
  box->show();
  QCoreApplication::processEvents();
  ASSERT_TRUE(box->grab().toImage().save("screenshots/critical_alert.png"));
  const QImage alert("screenshots/critical_alert.png");
  EXPECT_GT(alert.width(), 200);
  EXPECT_GT(alert.height(), 80);
  EXPECT_EQ(box->icon(), QMessageBox::Critical);
  EXPECT_EQ(box->text().toStdString(), content.messageText);
  EXPECT_EQ(box->informativeText().toStdString(),
            "Failure to add the Tesselune store.\nReason: The file is not a database.");
  EXPECT_EQ(box->buttons().size(), 1);
}

}  // namespace
}  // namespace tesselune
