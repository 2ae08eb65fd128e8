// StoreObject: environment, context fallback and accessor routing shared by every entity class.

#include "model/store_object.h"

#include "model/application_control.h"

namespace tesselune {

ManagedObjectContext* StoreObject::contextWithFallback() const {
  if (ManagedObjectContext* context = managedObjectContext()) return context;
  if (!environment_) return nullptr;
  auto delegate = environment_->applicationDelegate();
  return delegate ? delegate->managedObjectContext() : nullptr;
}

std::shared_ptr<StoreEnvironment> storeEnvironmentOf(const ManagedObject& object) {
  const auto* store = dynamic_cast<const StoreObject*>(&object);
  return store ? store->environment() : nullptr;
}

void setValueThroughAccessors(ManagedObject& object, Value value, std::string_view key) {
  if (auto* store = dynamic_cast<StoreObject*>(&object)) {
    store->setValueForKey(std::move(value), key);
  } else {
    object.setValue(std::move(value), key);
  }
}

}  // namespace tesselune
