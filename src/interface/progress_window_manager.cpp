// The progress window: the form, the main-thread rule, ordered updates and the widgets' binding to
// the progress.

#include "interface/progress_window_manager.h"

#include <QApplication>
#include <QDialog>
#include <QEvent>
#include <QGuiApplication>
#include <QIcon>
#include <QKeyEvent>
#include <QLabel>
#include <QLayout>
#include <QProgressBar>
#include <QPushButton>
#include <QScreen>
#include <QStyle>
#include <algorithm>
#include <chrono>
#include <climits>
#include <cmath>
#include <stdexcept>
#include <thread>

#include "foundation/main_queue.h"
#include "ui_TaskProgress.h"

namespace tesselune {

namespace {

constexpr int kCascadeStep = 24;

std::int64_t roundedToInteger(double value) {
  if (!std::isfinite(value)) return 0;
  return static_cast<std::int64_t>(std::llround(std::clamp(value, -9.0e18, 9.0e18)));
}

// Text lengths as the platform counts them: UTF-16 units.
qsizetype textLength(const std::string& text) {
  return QString::fromStdString(text).size();
}

// Runs the operation once it may run, on the main thread; one queued ahead of it keeps it waiting
// behind that one.
void startOnMainQueue(std::shared_ptr<Operation> operation) {
  mainQueue()->addOperationWithBlock([operation] {
    if (operation->isFinished() || operation->isExecuting()) return;
    if (!operation->isReady()) {
      startOnMainQueue(operation);
      return;
    }
    operation->start();
  });
}

}  // namespace

// Follows the window's moves (to remember where the next window goes) and takes its Escape key:
// Escape is the cancel action. A dialog would otherwise turn Escape into reject(), which closes
// the window without cancelling; and closing (the OK button, closeWindow(), a sheet's end, the
// title bar) must never cancel the work.
class ProgressWindowManager::WindowEvents : public QObject {
 public:
  WindowEvents(std::weak_ptr<ProgressWindowManager> manager, QObject* parent)
      : QObject(parent), manager_(std::move(manager)) {}

 protected:
  bool eventFilter(QObject* watched, QEvent* event) override {
    if (event->type() == QEvent::Move) {
      if (auto manager = manager_.lock()) manager->windowMoved();
    } else if (event->type() == QEvent::KeyPress &&
               static_cast<QKeyEvent*>(event)->key() == Qt::Key_Escape &&
               static_cast<QKeyEvent*>(event)->modifiers() == Qt::NoModifier) {
      if (auto manager = manager_.lock()) manager->cancelProgress();
      return true;
    }
    return QObject::eventFilter(watched, event);
  }

 private:
  std::weak_ptr<ProgressWindowManager> manager_;
};

std::string formatCounterText(std::string_view format, const std::vector<std::int64_t>& counters) {
  std::string out;
  std::size_t next = 0;
  std::size_t i = 0;
  while (i < format.size()) {
    if (format[i] != '%') {
      out.push_back(format[i++]);
      continue;
    }
    if (i + 1 < format.size() && format[i + 1] == '%') {
      out.push_back('%');
      i += 2;
      continue;
    }
    // Length modifiers, then the conversion.
    std::size_t j = i + 1;
    while (j < format.size() && (format[j] == 'l' || format[j] == 'q' || format[j] == 'z') && j - i <= 2) ++j;
    const bool integer =
        j < format.size() && (format[j] == 'd' || format[j] == 'i' || format[j] == 'u' || format[j] == '@');
    if (integer && next < counters.size()) {
      out += std::to_string(counters[next++]);
      i = j + 1;
    } else {
      out.push_back(format[i++]);
    }
  }
  return out;
}

std::shared_ptr<ProgressWindowManager> ProgressWindowManager::create(
    std::shared_ptr<WindowPlacementMemory> placement) {
  if (qobject_cast<QApplication*>(QCoreApplication::instance()) == nullptr) {
    throw std::logic_error("A progress window needs a QApplication.");
  }
  std::shared_ptr<ProgressWindowManager> manager(new ProgressWindowManager(std::move(placement)));
  manager->setUp();
  return manager;
}

ProgressWindowManager::ProgressWindowManager(std::shared_ptr<WindowPlacementMemory> placement)
    : placement_(placement ? std::move(placement) : std::make_shared<RememberedPlacement>()) {}

void ProgressWindowManager::setUp() {
  window_ = new QDialog();
  Ui::TaskProgress form;
  form.setupUi(window_);
  iconImage_ = form.iconImage;
  messageTextField_ = form.messageTextField;
  infoTextField_ = form.infoTextField;
  progressIndicator_ = form.progressIndicator;
  okButton_ = form.okButton;

  QIcon icon = QApplication::windowIcon();
  if (icon.isNull()) icon = window_->style()->standardIcon(QStyle::SP_MessageBoxInformation);
  iconImage_->setPixmap(icon.pixmap(64, 64));

  progress_.setCancellable(false);
  progress_.setUserInfoObject(Value(0), std::string(kWindowVisibilityKey));

  std::weak_ptr<ProgressWindowManager> weak = weak_from_this();
  // The widgets follow the progress as a nib's bindings would: at once when it changed on the main
  // thread, through the main queue otherwise.
  observer_ = progress_.addObserver([weak](const Progress&) {
    if (mainQueue()->isMainThread()) {
      if (auto self = weak.lock()) self->syncWidgets();
      return;
    }
    mainQueue()->addOperationWithBlock([weak] {
      if (auto self = weak.lock()) self->syncWidgets();
    });
  });
  QObject::connect(okButton_, &QPushButton::clicked, window_, [weak] {
    if (auto self = weak.lock()) self->closeWindow();
  });
  QObject::connect(window_, &QDialog::finished, window_, [weak](int result) {
    auto self = weak.lock();
    if (!self || !self->sheetParent_) return;
    auto completion = std::move(self->sheetCompletion_);
    self->sheetCompletion_ = nullptr;
    self->sheetParent_ = nullptr;
    self->window_->setWindowModality(Qt::NonModal);
    self->window_->setParent(nullptr, Qt::Dialog);
    if (completion) completion(result);
  });

  placement_->setProgressWindowTopLeftPoint(
      cascadeTopLeftFromPoint(placement_->progressWindowTopLeftPoint()));
  window_->installEventFilter(new WindowEvents(weak, window_));
  syncWidgets();
  calculateWindowWidth();
}

ProgressWindowManager::~ProgressWindowManager() {
  progress_.removeObserver(observer_);
  if (!window_) return;
  if (mainQueue()->isMainThread()) {
    delete window_.data();
  } else {
    window_->deleteLater();  // posted to the window's own thread
  }
}

std::shared_ptr<Operation> ProgressWindowManager::onMainThread(
    std::function<void(ProgressWindowManager&)> work) {
  if (mainQueue()->isMainThread()) {
    work(*this);
    return nullptr;
  }
  std::weak_ptr<ProgressWindowManager> weak = weak_from_this();
  auto operation = BlockOperation::blockOperationWithBlock([weak, work = std::move(work)] {
    if (auto self = weak.lock()) work(*self);
  });
  appendOperation(operation);
  return operation;
}

void ProgressWindowManager::appendOperation(std::shared_ptr<Operation> operation) {
  if (!operation) return;
  std::weak_ptr<ProgressWindowManager> weak = weak_from_this();
  const Operation* raw = operation.get();
  std::lock_guard lock(operationsMutex_);
  operation->setCompletionBlock([weak, raw] {
    auto self = weak.lock();
    if (!self) return;
    std::lock_guard inner(self->operationsMutex_);
    std::erase_if(self->myOperations_, [raw](const auto& pending) { return pending.get() == raw; });
  });
  if (!myOperations_.empty()) operation->addDependency(myOperations_.back());
  myOperations_.push_back(operation);
  startOnMainQueue(std::move(operation));
}

std::size_t ProgressWindowManager::pendingOperationCount() const {
  std::lock_guard lock(operationsMutex_);
  return myOperations_.size();
}

void ProgressWindowManager::setText(bool message, std::string text) {
  onMainThread([message, text = std::move(text)](ProgressWindowManager& self) {
    const std::string old =
        message ? self.progress_.localizedDescription() : self.progress_.localizedAdditionalDescription();
    if (message) {
      self.progress_.setLocalizedDescription(text);
    } else {
      self.progress_.setLocalizedAdditionalDescription(text);
    }
    if (textLength(old) != textLength(text)) self.calculateWindowWidth();
  });
}

void ProgressWindowManager::setMessageText(std::string text) {
  setText(true, std::move(text));
}

void ProgressWindowManager::setInfoText(const std::string& text) {
  setText(false, text);
}

void ProgressWindowManager::setIndicatorValue(std::int64_t value) {
  onMainThread([value](ProgressWindowManager& self) { self.progress_.setCompletedUnitCount(value); });
}

void ProgressWindowManager::setMaximumIndicatorValue(double maximum) {
  auto operation = onMainThread([maximum](ProgressWindowManager& self) {
    self.progressIsIndeterminate_ = maximum == -1.0;
    self.progress_.setTotalUnitCount(roundedToInteger(maximum));
    self.progress_.setCompletedUnitCount(0);
  });
  if (!operation) return;
  // Give the main thread time to take the new maximum before more increments arrive, but never
  // wait on it for long: it may be showing an alert.
  for (int attempt = 0; attempt < 4; ++attempt) {
    const bool finished = operation->isFinished();
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    if (finished) break;
  }
}

void ProgressWindowManager::incrementProgressbarBy(double delta) {
  const std::int64_t step = roundedToInteger(delta);
  onMainThread([step](ProgressWindowManager& self) {
    self.progress_.setCompletedUnitCount(self.progress_.completedUnitCount() + step);
  });
}

void ProgressWindowManager::setCancellationHandler(std::function<void()> handler) {
  progress_.setCancellable(static_cast<bool>(handler));
  progress_.setCancellationHandler(std::move(handler));
}

void ProgressWindowManager::showWindow() {
  const Dictionary info = progress_.userInfo();
  const auto entry = info.find(kWindowVisibilityKey);
  if (entry != info.end() && entry->second.boolValue()) return;
  appendOperation(BlockOperation::blockOperationWithBlock([weak = weak_from_this()] {
    auto self = weak.lock();
    if (!self) return;
    self->progress_.setUserInfoObject(Value(1), std::string(kWindowVisibilityKey));
    if (self->window_) {
      self->window_->show();
      self->window_->raise();
      self->window_->activateWindow();
    }
  }));
}

void ProgressWindowManager::hideWindow() {
  progress_.setUserInfoObject(Value(0), std::string(kWindowVisibilityKey));
}

void ProgressWindowManager::closeWindow() {
  onMainThread([](ProgressWindowManager& self) {
    if (self.isSheet()) {
      self.endSheet();
    } else if (self.window_) {
      self.window_->close();
    }
  });
}

void ProgressWindowManager::beginSheetModalForWindow(QWidget* parent,
                                                     std::function<void(int)> completionHandler) {
  if (!window_ || parent == nullptr) return;
  sheetParent_ = parent;
  sheetCompletion_ = std::move(completionHandler);
  window_->setParent(parent, Qt::Sheet);
  window_->setWindowModality(Qt::WindowModal);
  window_->open();
}

void ProgressWindowManager::endSheet() {
  if (window_ && isSheet()) window_->done(0);
}

std::function<void(const Dictionary&)> ProgressWindowManager::progressWindowUpdater() {
  return [weak = weak_from_this()](const Dictionary& update) {
    auto self = weak.lock();
    if (!self) return;
    self->appendOperation(BlockOperation::blockOperationWithBlock([weak, update] {
      if (auto manager = weak.lock()) manager->applyUpdate(update);
    }));
  };
}

void ProgressWindowManager::applyUpdate(const Dictionary& update) {
  auto number = [&](std::string_view key) -> const Value* {
    const auto found = update.find(key);
    return found != update.end() && found->second.isNumber() ? &found->second : nullptr;
  };
  bool handled = false;
  if (const auto found = update.find("message"); found != update.end() && found->second.isString()) {
    setMessageText(found->second.asString());
    handled = true;
  }
  if (const Value* maximum = number("maximumIndicatorValue")) {
    progressIsIndeterminate_ = static_cast<float>(maximum->doubleValue()) == -1.0f;
    progress_.setTotalUnitCount(maximum->integerValue());
    calculateWindowWidth();
    handled = true;
  }
  const Value* counter1Step = number("incrementCounter1By");
  const Value* counter2Step = number("incrementCounter2By");
  if (counter1Step != nullptr) incrementCounter1By(counter1Step->integerValue());
  if (counter2Step != nullptr) incrementCounter2By(counter2Step->integerValue());
  handled = handled || counter1Step != nullptr || counter2Step != nullptr;
  if (const Value* step = number("incrementBy")) {
    progress_.setCompletedUnitCount(progress_.completedUnitCount() + step->integerValue());
    handled = true;
  }
  if (const auto found = update.find("info"); found != update.end() && found->second.isString()) {
    const std::string& format = found->second.asString();
    if (counter1Step != nullptr && counter2Step != nullptr) {
      setInfoText(formatCounterText(format, {counter1(), counter2()}));
    } else if (counter1Step != nullptr) {
      setInfoText(formatCounterText(format, {counter1()}));
    } else {
      setInfoText(format);
    }
    handled = true;
  }
  if (const auto found = update.find("cancellationHandler"); found != update.end()) {
    if (auto block = found->second.asObjectOf<CancellationBlock>()) {
      setCancellationHandler(block->block);
      handled = true;
    }
  }
  if (!handled && window_) window_->hide();
}

void ProgressWindowManager::setValueForKeyPath(const Value& value, std::string_view keyPath) {
  if (keyPath != "progressReporter.userInfo.windowVisibility") {
    throw std::invalid_argument("ProgressWindowManager has no settable key path " + std::string(keyPath));
  }
  progress_.setUserInfoObject(value, std::string(kWindowVisibilityKey));
}

void ProgressWindowManager::setHideOKButton(bool hide) {
  hideOKButton_ = hide;
  if (okButton_ != nullptr) okButton_->setVisible(!hide);
}

void ProgressWindowManager::calculateWindowWidth() {
  if (!window_) return;
  const int widest = std::max(messageTextField_->sizeHint().width(), infoTextField_->sizeHint().width());
  windowWidth_ = std::round(widest + kWindowWidthAllowance);
  const int width = std::max(static_cast<int>(windowWidth_), window_->minimumSizeHint().width());
  window_->resize(width, window_->height());
  window_->layout()->invalidate();
}

QPoint ProgressWindowManager::cascadeTopLeftFromPoint(QPoint point) {
  if (!window_) return point;
  if (!point.isNull()) window_->move(point);
  QPoint next = window_->pos() + QPoint(kCascadeStep, kCascadeStep);
  const QScreen* screen = window_->screen() != nullptr ? window_->screen() : QGuiApplication::primaryScreen();
  if (screen != nullptr) {
    const QRect area = screen->availableGeometry();
    const QSize size = window_->frameGeometry().size();
    if (next.x() + size.width() > area.right() || next.y() + size.height() > area.bottom()) {
      next = area.topLeft() + QPoint(kCascadeStep, kCascadeStep);
    }
  }
  return next;
}

void ProgressWindowManager::windowMoved() {
  if (!window_) return;
  placement_->setProgressWindowTopLeftPoint(cascadeTopLeftFromPoint(window_->pos()));
}

void ProgressWindowManager::syncWidgets() {
  if (!window_) return;
  messageTextField_->setText(QString::fromStdString(progress_.localizedDescription()));
  infoTextField_->setText(QString::fromStdString(progress_.localizedAdditionalDescription()));

  const std::int64_t total = progress_.totalUnitCount();
  if (progressIsIndeterminate_ || total < 0) {
    progressIndicator_->setRange(0, 0);
  } else {
    // The bar counts in int; larger totals are shown to scale.
    const std::int64_t scale = total > INT_MAX ? total / INT_MAX + 1 : 1;
    const std::int64_t completed = std::clamp<std::int64_t>(progress_.completedUnitCount(), 0, total);
    progressIndicator_->setRange(0, static_cast<int>(total / scale));
    progressIndicator_->setValue(static_cast<int>(completed / scale));
  }
  okButton_->setVisible(!hideOKButton_);

  const Dictionary info = progress_.userInfo();
  const auto entry = info.find(kWindowVisibilityKey);
  const bool visible = entry != info.end() && entry->second.boolValue();
  if (visible != shownVisibility_) {
    shownVisibility_ = visible;
    if (visible) {
      window_->show();
    } else {
      window_->hide();
    }
  }
}

}  // namespace tesselune
