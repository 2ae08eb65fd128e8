// StoreEnvironment: the delegate and data folder that store objects reach.

#include "model/store_environment.h"

#include "model/application_control.h"

namespace tesselune {

std::shared_ptr<ApplicationControl> StoreEnvironment::applicationDelegate() const {
  std::lock_guard lock(mutex_);
  return delegate_.lock();
}

void StoreEnvironment::setApplicationDelegate(const std::shared_ptr<ApplicationControl>& delegate) {
  std::lock_guard lock(mutex_);
  delegate_ = delegate;
}

std::optional<Url> StoreEnvironment::defaultDirectoryURL() const {
  DirectoryProvider provider;
  std::shared_ptr<ApplicationControl> delegate;
  {
    std::lock_guard lock(mutex_);
    provider = directoryProvider_;
    delegate = delegate_.lock();
  }
  // The provider runs unlocked: it may create folders or ask the platform.
  if (provider) return provider();
  if (delegate && delegate->persistentDataContainer()) {
    return delegate->persistentDataContainer()->defaultDirectoryURL();
  }
  return std::nullopt;
}

void StoreEnvironment::setDefaultDirectoryProvider(DirectoryProvider provider) {
  std::lock_guard lock(mutex_);
  directoryProvider_ = std::move(provider);
}

}  // namespace tesselune
