// The store support program's launch.
#include "app/app_delegate.h"

#include <utility>

#include "deletion/deletion_rounds.h"
#include "deletion/store_support_container.h"

namespace tesselune {

AppDelegate::AppDelegate(StoreSupportServices services) : services_(std::move(services)) {}

// The container's own destructor waits for its queue; releasing it here, on the main thread after
// the loop, keeps the last reference off the queue's threads so that the wait happens.
AppDelegate::~AppDelegate() {
  container_.reset();
}

bool AppDelegate::applicationDidFinishLaunching() {
  // The archived value classes of the main application ("Tesselune.IonVolume" and the others) are
  // mapped when the container binds the store's classes, before any object is read.
  container_ = startStoreSupport(services_);
  return container_ != nullptr;
}

}  // namespace tesselune
