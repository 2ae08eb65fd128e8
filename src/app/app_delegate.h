// AppDelegate: the store support program's launch, between the toolkit's start and its event loop.
// It opens the shared store and hands the work to the deletion passes, which end the program
// through the services' terminate once they are done.
#pragma once

#include <memory>

#include "deletion/store_support_services.h"

namespace tesselune {

class StoreSupportContainer;

class AppDelegate {
 public:
  // `services` must be complete (every seam set, terminate included); they are kept for the run.
  explicit AppDelegate(StoreSupportServices services);
  // Waits for the deletion passes still running, so call it after the event loop has ended.
  ~AppDelegate();
  AppDelegate(const AppDelegate&) = delete;
  AppDelegate& operator=(const AppDelegate&) = delete;

  // Call once, on the main thread, before the event loop runs. Opens the store and queues the
  // passes; answers true when the event loop should now run. When the store cannot be opened the
  // critical alert has been shown and false is answered: the program then ends at once, with
  // status 0 like every other ending, and nothing has been changed.
  bool applicationDidFinishLaunching();
  // Nothing is left to do when the program ends: the passes have written their reports.
  void applicationWillTerminate() {}

 private:
  StoreSupportServices services_;
  // Kept from launch to exit; the queued passes hold it too.
  std::shared_ptr<StoreSupportContainer> container_;
};

}  // namespace tesselune
