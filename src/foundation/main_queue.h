// The main queue: where work that must happen on the program's main thread (alerts, the progress
// window, quitting) is sent, as NSOperationQueue's mainQueue.
//
// The program installs its toolkit's event loop at start (setMainQueue); tests and headless runs use
// RunLoopMainQueue, a plain loop that the caller drives. Blocks run later, on the main thread, in
// the order they were added.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

namespace tesselune {

class MainQueue {
 public:
  virtual ~MainQueue() = default;
  // Queues a block for the main thread. Callable from any thread; never blocks, never runs the
  // block before returning.
  virtual void addOperationWithBlock(std::function<void()> block) = 0;
  virtual bool isMainThread() const = 0;
};

// The process's main queue: the one installed, else a RunLoopMainQueue made on first use.
std::shared_ptr<MainQueue> mainQueue();
// Installs the main queue, once at start (tests install their own). Thread-safe.
void setMainQueue(std::shared_ptr<MainQueue> queue);

// A main queue that runs its blocks when the caller runs the loop. The thread that runs it is the
// main thread (until it first runs: the thread that made it). Thread-safe.
class RunLoopMainQueue : public MainQueue {
 public:
  RunLoopMainQueue();

  void addOperationWithBlock(std::function<void()> block) override;
  bool isMainThread() const override;

  // Runs blocks on the calling thread, waiting for more, until it reaches a quit().
  void run();
  // Ends run() once the blocks queued before this call have run (so a quit queued behind alerts
  // lets every alert show first).
  void quit();
  // Runs what is queued, and what those blocks queue, then returns the number run. Stops at a quit.
  std::size_t runUntilIdle();
  // Runs blocks as they come until `done` is true or the timeout passes; answers done().
  bool runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout);
  // Blocks queued and not yet run.
  std::size_t pendingCount() const;

 private:
  struct Item {
    std::function<void()> block;
    bool quit = false;
  };
  // Takes the next item, waiting until `deadline` at most; false when none came.
  bool next(Item& item, std::chrono::steady_clock::time_point deadline, bool wait);

  mutable std::mutex mutex_;
  std::condition_variable available_;
  std::deque<Item> items_;
  std::thread::id mainThread_;
};

}  // namespace tesselune
