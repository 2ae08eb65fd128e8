// The store support program's launch.
#include "app/app_delegate.h"

#include <utility>

#include "deletion/deletion_rounds.h"
#include "deletion/store_support_container.h"

namespace tesselune {

AppDelegate::AppDelegate(StoreSupportServices services) : services_(std::move(services)) {}

// The loop ends once the driver has asked to terminate, which is the last thing it does; waiting
// for its queue to go idle then costs nothing and leaves the last reference to the container here,
// on the main thread, so that the store closes before the program ends.
AppDelegate::~AppDelegate() {
  if (container_) container_->defaultOperationQueue().waitUntilAllOperationsAreFinished();
  container_.reset();
}

bool AppDelegate::applicationDidFinishLaunching() {
  // The archived value classes of the main application ("Tesselune.IonVolume" and the others) are
  // mapped when the container binds the store's classes, before any object is read.
  container_ = startStoreSupport(services_);
  return container_ != nullptr;
}

}  // namespace tesselune
