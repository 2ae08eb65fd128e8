// The main queue on the Qt event loop: a serial queue of its own, woken by posted events.

#include "platform/qt_main_queue.h"

#include <QCoreApplication>
#include <QEvent>
#include <QGuiApplication>
#include <QObject>
#include <QThread>
#include <stdexcept>

namespace tesselune {

namespace {

QEvent::Type wakeEventType() {
  static const auto type = static_cast<QEvent::Type>(QEvent::registerEventType());
  return type;
}

}  // namespace

// Receives the wake-ups on the application's thread. The owner pointer is cleared when the queue
// goes away on another thread, so wake-ups still in flight find nothing to do.
class QtMainQueue::Dispatcher : public QObject {
 public:
  explicit Dispatcher(QtMainQueue* owner) : owner_(owner) {}

  void detach() { owner_.store(nullptr); }

  bool event(QEvent* e) override {
    if (e->type() != wakeEventType()) return QObject::event(e);
    if (QtMainQueue* owner = owner_.load()) owner->drain();
    return true;
  }

 private:
  std::atomic<QtMainQueue*> owner_;
};

QtMainQueue::QtMainQueue() {
  QCoreApplication* app = QCoreApplication::instance();
  if (app == nullptr) throw std::logic_error("QtMainQueue needs a QCoreApplication");
  mainThread_ = app->thread();
  // Qt would end the loop as soon as the last window closed, which for a program without windows
  // is its first alert; with this queue the program ends by quit(), behind the queued alerts.
  if (qobject_cast<QGuiApplication*>(app) != nullptr) QGuiApplication::setQuitOnLastWindowClosed(false);
  dispatcher_ = new Dispatcher(this);
  dispatcher_->moveToThread(mainThread_);
}

QtMainQueue::~QtMainQueue() {
  dispatcher_->detach();
  // A QObject with events pending may only be deleted on its own thread.
  if (QThread::currentThread() == dispatcher_->thread()) {
    delete dispatcher_;
  } else {
    dispatcher_->deleteLater();
  }
}

void QtMainQueue::enqueue(Item item) {
  bool accepted = false;
  {
    std::lock_guard lock(mutex_);
    if (!closed_) {
      items_.push_back(std::move(item));
      accepted = true;
    }
  }
  // A closed queue drops the block as `item` goes, outside the lock: its destruction may wake a
  // waiter.
  if (!accepted) return;
  // postEvent is thread-safe and takes the event; it keeps posting order per receiver.
  QCoreApplication::postEvent(dispatcher_, new QEvent(wakeEventType()));
}

void QtMainQueue::addOperationWithBlock(std::function<void()> block) {
  enqueue({std::move(block), false});
}

void QtMainQueue::quit() {
  enqueue({nullptr, true});
}

void QtMainQueue::close() {
  std::deque<Item> dropped;
  {
    std::lock_guard lock(mutex_);
    closed_ = true;
    dropped.swap(items_);
  }
}

bool QtMainQueue::isMainThread() const {
  return QThread::currentThread() == mainThread_;
}

std::size_t QtMainQueue::pendingCount() const {
  std::lock_guard lock(mutex_);
  return items_.size();
}

void QtMainQueue::drain() {
  // A block that runs a nested event loop brings us back here; the items behind it must wait for
  // it to return, as on a serial queue.
  if (draining_) return;
  draining_ = true;
  struct Reset {
    bool& flag;
    ~Reset() { flag = false; }
  } reset{draining_};
  for (;;) {
    Item item;
    {
      std::lock_guard lock(mutex_);
      if (items_.empty()) break;
      item = std::move(items_.front());
      items_.pop_front();
    }
    if (item.quit) {
      QCoreApplication::exit(0);
      // The wake-ups of blocks added behind the quit may have been spent inside a nested loop;
      // one more lets them run if the event loop is entered again.
      if (pendingCount() > 0) QCoreApplication::postEvent(dispatcher_, new QEvent(wakeEventType()));
      return;
    }
    if (item.block) item.block();
  }
}

}  // namespace tesselune
