// QtMainQueue: the main queue on the Qt event loop of the program's QCoreApplication.
//
// Blocks run on the application's thread, one at a time and in the order they were added, as a
// serial queue's operations do: a block that opens a nested event loop (a modal alert) does not let
// the blocks behind it start until it has returned. That is what keeps two queued alerts from
// stacking and lets quit() wait for every alert queued before it.
#pragma once

#include <atomic>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>

#include "foundation/main_queue.h"

class QThread;

namespace tesselune {

class QtMainQueue : public MainQueue {
 public:
  // Binds to the running QCoreApplication (or QApplication). Make it on the application's thread,
  // after the application object; throws std::logic_error when there is none. Turns off Qt's quit
  // on closing the last window: the program ends through quit() here.
  QtMainQueue();
  ~QtMainQueue() override;
  QtMainQueue(const QtMainQueue&) = delete;
  QtMainQueue& operator=(const QtMainQueue&) = delete;

  // Callable from any thread; never blocks, never runs the block before returning.
  void addOperationWithBlock(std::function<void()> block) override;
  bool isMainThread() const override;

  // Ends the application's event loop (QCoreApplication::exit(0)) once every block added before
  // this call has run. Callable from any thread. Blocks added after it stay queued.
  void quit();

  // The program is ending: drops every block not yet started and every block added from now on,
  // unrun. Whoever waits for one of them is released by its destruction (a promise it held is
  // broken), so no thread is left waiting for a loop that no longer runs. Callable from any thread.
  void close();

  // Blocks added and not yet started.
  std::size_t pendingCount() const;

 private:
  struct Item {
    std::function<void()> block;
    bool quit = false;
  };
  class Dispatcher;

  // Runs queued items on the application's thread; returns at once when called inside a running
  // block, whose own drain goes on after it.
  void drain();
  void enqueue(Item item);

  mutable std::mutex mutex_;
  std::deque<Item> items_;
  bool closed_ = false;    // guarded by mutex_
  bool draining_ = false;  // touched on the application's thread only
  QThread* mainThread_ = nullptr;
  // Lives on the application's thread and receives one wake-up event per item; owned here.
  Dispatcher* dispatcher_ = nullptr;
};

}  // namespace tesselune
