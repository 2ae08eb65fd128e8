// A chromatogram deleted on a worker thread, as the deletion operation does it, with a progress
// window attached: the window ends showing the bar where it was and what the deletion does.

#include <gtest/gtest.h>

#include <QApplication>
#include <QLabel>
#include <atomic>
#include <chrono>
#include <thread>

#include "deletion/deletion_test_support.h"
#include "interface/progress_window_manager.h"
#include "platform/qt_main_queue.h"
#include "platform/qt_test_application.h"

namespace tesselune::test {
namespace {

class ProgressWindowDeletionTest : public DeletionTest {
 protected:
  void SetUp() override {
    tesselune::testing::testApplication();
    DeletionTest::SetUp();
    static std::shared_ptr<QtMainQueue> qtQueue = std::make_shared<QtMainQueue>();
    setMainQueue(qtQueue);
  }
};

TEST_F(ProgressWindowDeletionTest, TheBarEndsWhereItWasPlusOneStepPerCascadeAndSaysStoreEntries) {
  auto context = newContext();
  std::shared_ptr<Chromatogram> chromatogram;
  context->performBlockAndWait([&] {
    chromatogram = insertChromatogram(*context, "Run 7", "Run 7.data", true);
    insertChildren(*context, chromatogram, "Spectrum", "chromatogramNative", 3);
    save(*context);
  });
  fs::create_directories(library() / "Run 7.data");

  auto window = ProgressWindowManager::create();
  window->setMaximumIndicatorValue(40);
  window->setIndicatorValue(12);
  window->showWindow();

  std::atomic<bool> done = false;
  std::vector<ManagedObjectID> deleted;
  std::thread worker([&] {
    context->performBlockAndWait(
        [&] { deleted = chromatogram->willBeDeleted(window.get(), deletionSupport(fakes_->services())); });
    done = true;
  });
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!done && std::chrono::steady_clock::now() < deadline) {
    QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
  }
  worker.join();
  while (window->pendingOperationCount() > 0 && std::chrono::steady_clock::now() < deadline) {
    QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
  }

  EXPECT_FALSE(fs::exists(library() / "Run 7.data"));
  EXPECT_EQ(deleted.size(), 3u);
  EXPECT_EQ(window->maximumIndicatorValue(), 40.0);
  EXPECT_FALSE(window->progressIsIndeterminate());
  EXPECT_EQ(window->indicatorValue(), 12 + chromatogram->numberOfCascadingRelationships());
  EXPECT_EQ(window->infoText(), "Deleting a chromatogram: removing store entries");
  EXPECT_EQ(window->window()->findChild<QLabel*>("infoTextField")->text().toStdString(),
            "Deleting a chromatogram: removing store entries");
}

}  // namespace
}  // namespace tesselune::test
