// ApplicationControl: forwards the store accessors to the persistent data container.

#include "model/application_control.h"

namespace tesselune {

ApplicationControl::ApplicationControl(std::shared_ptr<PersistentContainer> persistentDataContainer) {
  setPersistentDataContainer(std::move(persistentDataContainer));
}

ApplicationControl::~ApplicationControl() {
  // The context must not outlive the coordinator it works on.
  viewContext_.reset();
}

void ApplicationControl::setPersistentDataContainer(std::shared_ptr<PersistentContainer> container) {
  viewContext_.reset();
  container_ = std::move(container);
  if (!container_) return;
  viewContext_ = std::make_unique<ManagedObjectContext>(ManagedObjectContextConcurrencyType::MainQueue);
  viewContext_->setPersistentStoreCoordinator(&container_->persistentStoreCoordinator());
}

std::shared_ptr<const ManagedObjectModel> ApplicationControl::managedObjectModel() const {
  return container_ ? container_->managedObjectModel() : nullptr;
}

PersistentStoreCoordinator* ApplicationControl::persistentStoreCoordinator() const {
  return container_ ? &container_->persistentStoreCoordinator() : nullptr;
}

std::optional<Url> ApplicationControl::URLForStore() const {
  if (!container_ || container_->persistentStoreDescriptions().empty()) return std::nullopt;
  return container_->persistentStoreDescriptions().front().url;
}

SqliteStore* ApplicationControl::persistentStore() const {
  auto url = URLForStore();
  if (!url) return nullptr;
  return container_->persistentStoreCoordinator().persistentStoreForURL(*url);
}

}  // namespace tesselune
