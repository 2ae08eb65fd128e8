// ProgressWindowManager: the small progress window (application icon, message line, info line,
// bar, OK button; the form resources/TaskProgress.ui) that long store work reports to.
//
// Threads: any thread may call the reporter. Everything that changes the progress or the window
// happens on the main thread: called there, at once; called elsewhere, as an operation appended to
// the main queue behind the previous one, so updates land in the order they were asked for. The
// progress state lives in a Progress that the window's widgets follow.
//
// Ownership: made by create() on the main thread and held by shared_ptr; operations still queued
// when the last owner lets go do nothing. The window belongs to the manager and is deleted on the
// main thread.
#pragma once

#include <QDialog>
#include <QPoint>
#include <QPointer>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/operation_queue.h"
#include "foundation/progress.h"
#include "foundation/progress_reporter.h"
#include "foundation/value.h"

class QLabel;
class QProgressBar;
class QPushButton;
class QWidget;

namespace tesselune {

// Where the next progress window opens; the desktop program keeps it in the application delegate
// so that windows cascade from the last one across the run. Used on the main thread.
class WindowPlacementMemory {
 public:
  virtual ~WindowPlacementMemory() = default;
  // (0, 0) when nothing is remembered yet: the window then stays where the system put it.
  virtual QPoint progressWindowTopLeftPoint() const = 0;
  virtual void setProgressWindowTopLeftPoint(QPoint point) = 0;
};

// A memory that lives as long as its owners: enough when nobody else keeps the point.
class RememberedPlacement : public WindowPlacementMemory {
 public:
  QPoint progressWindowTopLeftPoint() const override { return point_; }
  void setProgressWindowTopLeftPoint(QPoint point) override { point_ = point; }

 private:
  QPoint point_;
};

// A block carried in an update dictionary (its "cancellationHandler").
class CancellationBlock : public Object {
 public:
  explicit CancellationBlock(std::function<void()> block) : block(std::move(block)) {}
  std::string className() const override { return "NSBlock"; }
  std::function<void()> block;
};

class ProgressWindowManager : public ProgressReporter,
                              public std::enable_shared_from_this<ProgressWindowManager> {
 public:
  // The user-info key the window's visibility follows.
  static constexpr std::string_view kWindowVisibilityKey = "windowVisibility";
  // Added to the wider text's own width to give the window's width (icon, margins, spacing).
  static constexpr double kWindowWidthAllowance = 146.0;

  // Makes the hidden window from the TaskProgress form, placed by cascading from the remembered
  // point, which it then keeps up to date as the window moves. Main thread only; a QApplication
  // must exist. Without `placement` the manager remembers the point itself.
  static std::shared_ptr<ProgressWindowManager> create(
      std::shared_ptr<WindowPlacementMemory> placement = nullptr);
  ~ProgressWindowManager() override;
  ProgressWindowManager(const ProgressWindowManager&) = delete;
  ProgressWindowManager& operator=(const ProgressWindowManager&) = delete;

  // The state the window shows. Thread-safe; changing it directly skips the ordering above.
  Progress& progressReporter() { return progress_; }
  // The window; use on the main thread.
  QDialog* window() const { return window_; }

  // Texts: the progress's description and additional description. A change of length resizes the
  // window to the wider text.
  std::string messageText() const { return progress_.localizedDescription(); }
  void setMessageText(std::string text);
  std::string infoText() const { return progress_.localizedAdditionalDescription(); }
  void setInfoText(const std::string& text) override;

  // ProgressReporter: completed and total unit counts. A maximum of -1.0 makes the bar
  // indeterminate; any maximum resets the value to 0. Off the main thread setMaximumIndicatorValue
  // waits for its update, sleeping 0.5 s at least and 2 s at most, so that what follows counts
  // against the new maximum.
  std::int64_t indicatorValue() const override { return progress_.completedUnitCount(); }
  void setIndicatorValue(std::int64_t value) override;
  double maximumIndicatorValue() const override { return static_cast<double>(progress_.totalUnitCount()); }
  void setMaximumIndicatorValue(double maximum) override;
  // Adds `delta` rounded to the nearest integer.
  void incrementProgressbarBy(double delta) override;

  // Two running counts that info texts of the update dictionary can show. Any thread, no ordering.
  void incrementCounter1By(std::int64_t delta) { counter1_.fetch_add(delta, std::memory_order_relaxed); }
  void incrementCounter2By(std::int64_t delta) { counter2_.fetch_add(delta, std::memory_order_relaxed); }
  std::int64_t counter1() const { return counter1_.load(std::memory_order_relaxed); }
  std::int64_t counter2() const { return counter2_.load(std::memory_order_relaxed); }

  // The progress becomes cancellable exactly when a handler is given. Any thread.
  void setCancellationHandler(std::function<void()> handler);
  // The window's cancel action (Escape): cancels the progress when it can be cancelled.
  void cancelProgress() { progress_.cancel(); }

  // Shows the window in front, unless it is shown already (queued, from any thread).
  void showWindow();
  // Clears the visibility entry; the window follows. Any thread.
  void hideWindow();
  // Ends the sheet when the window is one, otherwise closes it (main-thread rule).
  void closeWindow();
  // Shows the window as a window-modal sheet on `parent`; `completionHandler` gets the return code
  // when it ends. Main thread.
  void beginSheetModalForWindow(QWidget* parent, std::function<void(int)> completionHandler);
  // Ends the sheet with return code 0. Main thread.
  void endSheet();
  bool isSheet() const { return sheetParent_ != nullptr; }

  // Queues a user-interface update on the main queue behind the ones appended before it. Null does
  // nothing. Any thread.
  void appendOperation(std::shared_ptr<Operation> operation);
  // Updates appended and not yet finished.
  std::size_t pendingOperationCount() const;

  // A block that applies an update dictionary ("message", "maximumIndicatorValue",
  // "incrementCounter1By", "incrementCounter2By", "incrementBy", "info", "cancellationHandler") as one
  // queued update; a dictionary with none of them orders the window out. It holds the manager
  // weakly. Any thread.
  std::function<void(const Dictionary&)> progressWindowUpdater();

  // Sets the visibility entry for the key path "progressReporter.userInfo.windowVisibility";
  // any other key path is a programming error (std::invalid_argument).
  void setValueForKeyPath(const Value& value, std::string_view keyPath);

  // The window's width for its texts, and whether the bar shows no amount. Main thread.
  double windowWidth() const { return windowWidth_; }
  void calculateWindowWidth();
  bool progressIsIndeterminate() const { return progressIsIndeterminate_; }
  bool hideOKButton() const { return hideOKButton_; }
  void setHideOKButton(bool hide);

  // Places the window's top-left corner at `point` ((0, 0) leaves it where it is) and answers
  // where the next window should go: a step down and right, back to the screen's corner when
  // that would leave the screen. Main thread.
  QPoint cascadeTopLeftFromPoint(QPoint point);

 private:
  class WindowEvents;
  explicit ProgressWindowManager(std::shared_ptr<WindowPlacementMemory> placement);
  void setUp();

  // Runs `work` at once on the main thread, else appends it; answers the appended operation.
  std::shared_ptr<Operation> onMainThread(std::function<void(ProgressWindowManager&)> work);
  // Brings the widgets in line with the progress. Main thread.
  void syncWidgets();
  void applyUpdate(const Dictionary& update);
  void setText(bool message, std::string text);
  void windowMoved();

  Progress progress_;
  Progress::ObserverId observer_ = 0;
  std::shared_ptr<WindowPlacementMemory> placement_;

  // Widgets: owned by window_, used on the main thread.
  QPointer<QDialog> window_;
  QLabel* iconImage_ = nullptr;
  QLabel* messageTextField_ = nullptr;
  QLabel* infoTextField_ = nullptr;
  QProgressBar* progressIndicator_ = nullptr;
  QPushButton* okButton_ = nullptr;
  QPointer<QWidget> sheetParent_;
  std::function<void(int)> sheetCompletion_;
  bool shownVisibility_ = false;  // the visibility entry as the window last followed it

  double windowWidth_ = 0;
  bool progressIsIndeterminate_ = false;
  bool hideOKButton_ = false;
  // Plain counts; atomic only so that concurrent increments are not undefined behaviour.
  std::atomic<std::int64_t> counter1_{0};
  std::atomic<std::int64_t> counter2_{0};

  mutable std::mutex operationsMutex_;
  std::vector<std::shared_ptr<Operation>> myOperations_;
};

// An info text of the update dictionary with its integer conversions (%d, %i, %ld, %li, %lld,
// %lli, %qd, %u, %lu, %@) filled from `counters` in order; "%%" is a percent sign, other
// conversions and conversions beyond the counters stay as written.
std::string formatCounterText(std::string_view format, const std::vector<std::int64_t>& counters);

}  // namespace tesselune
