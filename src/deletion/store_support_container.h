// StoreSupportContainer: what the store support program holds from launch to exit: the data
// container with the shared store, the operation queue that the deletion passes run on, and the
// temporary folder where deletion reports go. It also binds the store's entity classes to the
// container's coordinator, with the data folder as their environment, so that chromatograms find
// their data folders.
//
// Owned through std::shared_ptr by the program and by whatever it queues. Destroying it waits for
// the operations running on its queue, unless the last reference goes on one of that queue's own
// threads: the queue is then left to the ending process. Accessors are thread-safe.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>

#include "deletion/application_data_container.h"
#include "deletion/store_support_services.h"
#include "foundation/error.h"
#include "foundation/operation_queue.h"
#include "model/store_environment.h"

namespace tesselune {

inline constexpr std::string_view kStoreSupportContainerName = "Tesselune";
inline constexpr std::string_view kStoreFileName = "TesseluneStore.tesselune";

class StoreSupportContainer {
 public:
  // Loads the store model and makes the data container (which resolves, and may fail to create,
  // the data folder: see ApplicationDataContainer). Fails only when the model cannot be loaded.
  [[nodiscard]] static Expected<std::shared_ptr<StoreSupportContainer>> create(StoreSupportServices services);
  // With a model of the caller's.
  StoreSupportContainer(StoreSupportServices services, std::shared_ptr<const ManagedObjectModel> model);
  ~StoreSupportContainer();
  StoreSupportContainer(const StoreSupportContainer&) = delete;
  StoreSupportContainer& operator=(const StoreSupportContainer&) = delete;

  ApplicationDataContainer& dataContainer() const { return *dataContainer_; }
  // Default width (at least two): the pass driver waits on it for the passes it adds to it.
  OperationQueue& defaultOperationQueue() const { return *defaultOperationQueue_; }
  // The processors in use when the container was made. Kept for callers that size their work.
  std::int64_t maximumNumberOfThreads() const { return maximumNumberOfThreads_; }
  // The data container's temporary folder, copied on first use.
  Url temporaryFolderURL() const;
  const StoreSupportServices& services() const { return services_; }
  const std::shared_ptr<StoreEnvironment>& environment() const { return environment_; }

  // Adds "TesseluneStore.tesselune" in the data folder to the data container's coordinator
  // (created when missing, migrated when older). Fails with code 1 of "Tesselune-storeSupport",
  // the cause's text appended. Call once, before any pass.
  [[nodiscard]] Status openStore();

 private:
  StoreSupportServices services_;
  std::shared_ptr<StoreEnvironment> environment_;
  std::unique_ptr<ApplicationDataContainer> dataContainer_;
  std::int64_t maximumNumberOfThreads_ = 0;
  mutable std::mutex temporaryFolderMutex_;
  mutable std::optional<Url> temporaryFolderURL_;
  // Last, so that it is destroyed first: running passes still find the store.
  std::unique_ptr<OperationQueue> defaultOperationQueue_;
};

}  // namespace tesselune
