// Alerts: the console form, the choice between box and console, and real message boxes on the
// offscreen platform, shown from the main thread and from workers.

#include "platform/qt_alert_presenter.h"

#include <gtest/gtest.h>

#include <QMessageBox>
#include <QPushButton>
#include <QTimer>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/qt_main_queue.h"
#include "qt_test_application.h"

namespace tesselune {
namespace {

using Style = AlertContent::Style;

std::string readAll(std::FILE* file) {
  std::rewind(file);
  std::string text;
  char buffer[256];
  while (std::size_t n = std::fread(buffer, 1, sizeof buffer, file)) text.append(buffer, n);
  return text;
}

QList<QMessageBox*> visibleBoxes() {
  QList<QMessageBox*> boxes;
  for (QWidget* widget : QApplication::topLevelWidgets()) {
    if (auto* box = qobject_cast<QMessageBox*>(widget); box != nullptr && box->isVisible())
      boxes.push_back(box);
  }
  return boxes;
}

// Looks for shown boxes on every turn of the event loop and hands each to `onBox` once.
class BoxWatcher {
 public:
  explicit BoxWatcher(std::function<void(QMessageBox*)> onBox) : onBox_(std::move(onBox)) {
    QObject::connect(&timer_, &QTimer::timeout, [this] {
      const QList<QMessageBox*> boxes = visibleBoxes();
      maxVisible_ = std::max(maxVisible_, static_cast<int>(boxes.size()));
      for (QMessageBox* box : boxes) onBox_(box);
    });
    timer_.start(1);
  }
  int maxVisible() const { return maxVisible_; }

 private:
  std::function<void(QMessageBox*)> onBox_;
  QTimer timer_;
  int maxVisible_ = 0;
};

TEST(ConsoleAlertTextTest, ShowsStyleMessageAndIndentedReasonsWithLineFeeds) {
  const Error cause("NSCocoaErrorDomain", 260, "The file \"TesseluneStore.tesselune\" couldn't be opened.");
  const Error error =
      cause.customErrorWithDomain("Tesselune-storeSupport", 1, "Failure to add the Tesselune store.");
  EXPECT_EQ(consoleAlertText(
                errorAlertContent(error, "Failure when trying to delete a large object from the store.")),
            "Alert (critical): Failure when trying to delete a large object from the store.\n"
            "    Failure to add the Tesselune store.\n"
            "    Reason: The file \"TesseluneStore.tesselune\" couldn't be opened.\n");

  const std::optional<AlertContent> several =
      alertFor({Error("d", 1, "first"), Error("d", 2, "second")}, "in course of chromatogram deletion.");
  ASSERT_TRUE(several);
  EXPECT_EQ(consoleAlertText(*several),
            "Alert (informational): Several errors ocurred in course of chromatogram deletion..\n"
            "    Errors:\n"
            "    \t1. first \n"
            "    \t2. second \n");

  EXPECT_EQ(consoleAlertText({Style::Warning, "a\r\nb", ""}), "Alert (warning): a\nb\n");
}

TEST(WidgetsReachScreenTest, OnlyAWidgetApplicationOnAPlatformWithAScreen) {
  EXPECT_FALSE(widgetsReachScreen(false, "xcb", ":0", ""));
  EXPECT_FALSE(widgetsReachScreen(true, "offscreen", ":0", "wayland-0"));
  EXPECT_FALSE(widgetsReachScreen(true, "minimal", ":0", ""));
  EXPECT_FALSE(widgetsReachScreen(true, "xcb", "", "wayland-0"));
  EXPECT_TRUE(widgetsReachScreen(true, "xcb", ":0", ""));
  EXPECT_TRUE(widgetsReachScreen(true, "wayland", "", "wayland-0"));
  EXPECT_FALSE(widgetsReachScreen(true, "wayland-egl", "", ""));
  EXPECT_TRUE(widgetsReachScreen(true, "eglfs", "", ""));
}

TEST(QtAlertPresenterTest, WithoutAScreenWritesToTheConsoleAndReturnsAtOnce) {
  testing::testApplication();
  std::FILE* console = std::tmpfile();
  ASSERT_NE(console, nullptr);
  auto queue = std::make_shared<QtMainQueue>();
  QtAlertPresenter presenter(queue, AlertDisplay::Automatic, console);
  EXPECT_FALSE(presenter.showsWidgets());

  // No event loop runs here: a presenter that waited for the main thread would never return.
  EXPECT_EQ(presenter.runModal({Style::Critical, "On the main thread.", "one"}), 0);
  int workerAnswer = -1;
  std::thread worker([&] {
    workerAnswer = presenter.runModal({Style::Informational, "From a worker.", "two"});
  });
  worker.join();
  EXPECT_EQ(workerAnswer, 0);
  EXPECT_EQ(readAll(console),
            "Alert (critical): On the main thread.\n    one\n"
            "Alert (informational): From a worker.\n    two\n");
  EXPECT_TRUE(visibleBoxes().isEmpty());
  std::fclose(console);
}

TEST(QtAlertPresenterTest, ShowsAMessageBoxOnTheMainThreadUntilItsButtonIsClicked) {
  testing::testApplication();
  QtAlertPresenter presenter(std::make_shared<QtMainQueue>(), AlertDisplay::Widgets);
  ASSERT_TRUE(presenter.showsWidgets());

  QMessageBox::Icon icon = QMessageBox::NoIcon;
  QString text;
  QString informative;
  int buttons = 0;
  BoxWatcher watcher([&](QMessageBox* box) {
    icon = box->icon();
    text = box->text();
    informative = box->informativeText();
    buttons = static_cast<int>(box->buttons().size());
    box->button(QMessageBox::Ok)->click();
  });
  EXPECT_EQ(presenter.runModal({Style::Critical, "An Error Occurred.", "Failure <b>one</b>\rReason: two"}),
            0);
  EXPECT_EQ(icon, QMessageBox::Critical);
  EXPECT_EQ(text, "An Error Occurred.");
  EXPECT_EQ(buttons, 1);
  // Markup in an error text is shown as written, and carriage returns become line breaks.
  EXPECT_TRUE(informative.contains("&lt;b&gt;one&lt;/b&gt;")) << informative.toStdString();
  EXPECT_TRUE(informative.contains("Reason:")) << informative.toStdString();
  EXPECT_FALSE(informative.contains('\r'));
}

// Workers that ask for alerts at the same time see them one after the other, on the main thread,
// and each gets its answer; a quit queued behind them ends the program only after both.
TEST(QtAlertPresenterTest, AlertsFromWorkersAreShownOneAtATimeThroughTheMainQueue) {
  QApplication& app = testing::testApplication();
  auto queue = std::make_shared<QtMainQueue>();
  QtAlertPresenter presenter(queue, AlertDisplay::Widgets);

  std::vector<QString> shown;
  BoxWatcher watcher([&](QMessageBox* box) {
    shown.push_back(box->text());
    box->button(QMessageBox::Ok)->click();
  });
  std::atomic<int> answered = 0;
  std::vector<std::thread> workers;
  for (int i = 0; i < 2; ++i) {
    workers.emplace_back([&, i] {
      const int answer = presenter.runModal({Style::Informational, "Worker " + std::to_string(i), ""});
      if (answer == 0 && ++answered == 2) queue->quit();
    });
  }
  EXPECT_EQ(app.exec(), 0);
  for (std::thread& worker : workers) worker.join();

  EXPECT_EQ(answered.load(), 2);
  ASSERT_EQ(shown.size(), 2u);
  EXPECT_NE(shown[0], shown[1]);
  EXPECT_EQ(watcher.maxVisible(), 1);
}

// The loop has ended (the program quits) while workers still ask for alerts: closing the queue
// releases the one already waiting and refuses the next, so that nothing waits forever for a box.
TEST(QtAlertPresenterTest, AlertsAskedForAfterTheLoopEndedNeverLeaveTheirThreadWaiting) {
  QApplication& app = testing::testApplication();
  auto queue = std::make_shared<QtMainQueue>();
  auto presenter = std::make_shared<QtAlertPresenter>(queue, AlertDisplay::Widgets);
  queue->quit();
  ASSERT_EQ(app.exec(), 0);

  AlertContent alert;
  alert.messageText = "Too late";
  auto ask = [presenter, alert] {
    return std::async(std::launch::async, [=] { return presenter->runModal(alert); });
  };
  std::future<int> waiting = ask();
  while (queue->pendingCount() == 0) std::this_thread::yield();
  queue->close();
  std::future<int> refused = ask();
  for (std::future<int>* answer : {&waiting, &refused}) {
    if (answer->wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
      ADD_FAILURE() << "a thread still waits for the alert";
      std::_Exit(1);  // it would never be joined
    }
    EXPECT_EQ(answer->get(), 0);
  }
  EXPECT_TRUE(visibleBoxes().empty());
}

}  // namespace
}  // namespace tesselune
