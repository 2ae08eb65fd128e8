// ApplicationDataContainer: the persistent container of the store support program. It fixes where
// the data shared with the main application lives (the folder "Tesselune Data Library" in the
// application group's container, or beside the user's Library folder when the group has none),
// creates that folder, keeps the temporary folder beside the store, and lends read-only store
// coordinators from a small pool for readers that work beside the main writing context.
//
// A folder that cannot be created is fatal: a critical alert tells the user where to make it by hand
// and the program is terminated (requestTermination: nothing new starts afterwards, and no second
// alert is shown; the URL is answered anyway, for callers that are ending).
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "deletion/store_support_services.h"
#include "foundation/timed_lock.h"
#include "foundation/url.h"
#include "objectstore/persistent_store_coordinator.h"

namespace tesselune {

inline constexpr std::string_view kApplicationGroupIdentifier = "KV3N8Q2ZR5.TesseluneGroup";
inline constexpr std::string_view kDataLibraryFolderName = "Tesselune Data Library";
inline constexpr std::string_view kTemporaryFolderName = "temporaryFiles";

class ApplicationDataContainer : public PersistentContainer {
 public:
  // Resolves (and so creates) the data folder once, for the temporary folder. `services` supplies the
  // group container, the home folder, alerts and termination; it is kept for later resolutions.
  ApplicationDataContainer(std::string name, std::shared_ptr<const ManagedObjectModel> model,
                           StoreSupportServices services);

  // The data folder, resolved and created anew on every call (nothing is cached), from any thread.
  // The class-wide form, for those that have no container at hand.
  static Url dataLibraryURL(const StoreSupportServices& services);
  Url defaultDirectoryURL() const override { return dataLibraryURL(services_); }

  // "temporaryFiles" in the data folder, as resolved at construction; not created here.
  const Url& temporaryFolderURL() const { return temporaryFolderURL_; }

  // A coordinator whose store (the first store description, copied read-only) is open for reading:
  // the one given back last, else a new one. A store that cannot be added is reported by one line
  // on standard output and the coordinator is handed out without it; with no store description it
  // has no store. The caller owns the coordinator until it gives it back. Any thread.
  std::unique_ptr<PersistentStoreCoordinator> activateReadOnlyStoreCoordinator();
  // Gives a coordinator back to the pool, unchecked. Any thread.
  void deactivateReadOnlyStoreCoordinatorWithReadOnlyStoreCoordinator(
      std::unique_ptr<PersistentStoreCoordinator> coordinator);
  // The coordinators waiting in the pool. Any thread.
  std::size_t idleReadOnlyStoreCoordinatorCount() const;

  // Held by activation and deactivation around the pool's change (and around making a new
  // coordinator); waited for ten seconds at most, after which they go on without it.
  TimedLock& storeCoordinatorAccessLock() const { return storeCoordinatorAccessLock_; }
  // How long they wait for it (ten seconds unless a test says otherwise).
  void setStoreCoordinatorAccessTimeout(std::chrono::milliseconds timeout) { accessTimeout_ = timeout; }

 private:
  // The pool's own change, under poolMutex_.
  std::unique_ptr<PersistentStoreCoordinator> takeIdleCoordinator();
  void putIdleCoordinator(std::unique_ptr<PersistentStoreCoordinator> coordinator);

  StoreSupportServices services_;
  Url temporaryFolderURL_;
  mutable TimedLock storeCoordinatorAccessLock_;
  std::atomic<std::chrono::milliseconds> accessTimeout_{std::chrono::seconds(10)};
  // The pool's container has a lock of its own, held only for a push or a pop and always taken: a
  // caller that gave up waiting for the access lock still changes the pool safely.
  mutable std::mutex poolMutex_;
  std::vector<std::unique_ptr<PersistentStoreCoordinator>> readOnlyPersistentStoreCoordinators_unused_;
};

}  // namespace tesselune
