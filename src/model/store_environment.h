// StoreEnvironment: what store objects reach outside their own context: the main application's
// delegate (the fallback source of a context, a coordinator and a store when an object has none)
// and the data folder beside the store, below which chromatogram data folders lie.
//
// One environment is shared by the class registry that makes the objects (registerStoreClasses)
// and every object it makes. It holds the delegate weakly: the delegate owns the container whose
// coordinator owns the registry, so a strong reference would keep them all alive for ever. Setters
// and getters are thread-safe.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>

#include "foundation/url.h"

namespace tesselune {

class ApplicationControl;

class StoreEnvironment {
 public:
  // Answers the data folder (the data container's defaultDirectoryURL); nothing when there is
  // none. Called from any thread; must not hold what owns the environment strongly.
  using DirectoryProvider = std::function<std::optional<Url>()>;

  // The application delegate when it is the main application's ApplicationControl; empty in the
  // store support program, whose delegate is of another class.
  std::shared_ptr<ApplicationControl> applicationDelegate() const;
  void setApplicationDelegate(const std::shared_ptr<ApplicationControl>& delegate);

  // The data folder: the provider's answer when one is set, else the delegate's container's
  // defaultDirectoryURL, else nothing.
  std::optional<Url> defaultDirectoryURL() const;
  void setDefaultDirectoryProvider(DirectoryProvider provider);

 private:
  mutable std::mutex mutex_;
  std::weak_ptr<ApplicationControl> delegate_;
  DirectoryProvider directoryProvider_;
};

}  // namespace tesselune
