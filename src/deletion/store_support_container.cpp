// StoreSupportContainer: making the containers, binding the entity classes, opening the store.

#include "deletion/store_support_container.h"

#include <thread>

#include "model/store_classes.h"

namespace tesselune {

Expected<std::shared_ptr<StoreSupportContainer>> StoreSupportContainer::create(
    StoreSupportServices services) {
  auto model = loadStoreModel();
  if (!model) return fail(model.error());
  return std::make_shared<StoreSupportContainer>(std::move(services), *model);
}

StoreSupportContainer::StoreSupportContainer(StoreSupportServices services,
                                             std::shared_ptr<const ManagedObjectModel> model)
    : services_(std::move(services)), environment_(std::make_shared<StoreEnvironment>()) {
  dataContainer_ = std::make_unique<ApplicationDataContainer>(std::string(kStoreSupportContainerName),
                                                              std::move(model), services_);
  maximumNumberOfThreads_ = static_cast<std::int64_t>(std::thread::hardware_concurrency());
  defaultOperationQueue_ = std::make_unique<OperationQueue>();

  // The environment resolves the folder as the data container does, without holding the container.
  environment_->setDefaultDirectoryProvider([services = services_] {
    return std::optional<Url>(ApplicationDataContainer::dataLibraryURL(services));
  });
  auto registry = std::make_shared<ManagedObjectClassRegistry>();
  registerStoreClasses(*registry, environment_);
  dataContainer_->persistentStoreCoordinator().setManagedObjectClassRegistry(std::move(registry));
}

StoreSupportContainer::~StoreSupportContainer() {
  // The driver holds the container too and may drop the last reference on a thread of this very
  // queue, when the program is ending anyway; a queue cannot join its own thread, so it is let go.
  if (OperationQueue::currentQueue() == defaultOperationQueue_.get()) (void)defaultOperationQueue_.release();
}

Url StoreSupportContainer::temporaryFolderURL() const {
  std::lock_guard lock(temporaryFolderMutex_);
  if (!temporaryFolderURL_) temporaryFolderURL_ = dataContainer_->temporaryFolderURL();
  return *temporaryFolderURL_;
}

Status StoreSupportContainer::openStore() {
  PersistentStoreDescription description = PersistentStoreDescription::persistentStoreDescriptionWithURL(
      dataContainer_->defaultDirectoryURL().appendingPathComponent(kStoreFileName, false));
  description.type = std::string(kSQLiteStoreType);
  description.shouldAddStoreAsynchronously = false;
  description.shouldInferMappingModelAutomatically = true;
  description.shouldMigrateStoreAutomatically = true;
  dataContainer_->setPersistentStoreDescriptions({description});

  std::optional<Error> failure;
  dataContainer_->persistentStoreCoordinator().addPersistentStoreWithDescription(
      description,
      [&failure](const PersistentStoreDescription&, const std::optional<Error>& error) { failure = error; });
  if (failure)
    return fail(
        failure->customErrorWithDomain("Tesselune-storeSupport", 1, "Failure to add the Tesselune store."));
  // A store that opening had to bring to the current layout says so once, in the log.
  if (const SqliteStore* store =
          dataContainer_->persistentStoreCoordinator().persistentStoreForURL(description.url);
      store != nullptr && !store->openingNote().empty()) {
    logLine(services_, store->openingNote());
  }
  return {};
}

}  // namespace tesselune
