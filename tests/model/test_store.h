// Test support for the model layer: the store model, and a store file in a scratch folder opened
// through a container held by an ApplicationControl, with the store's classes registered.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>

#include "fixtures.h"
#include "model/application_control.h"
#include "model/store_classes.h"
#include "model/store_environment.h"

namespace tesselune::test {

inline std::shared_ptr<const ManagedObjectModel> storeModel() {
  static const auto model = [] {
    auto loaded = loadStoreModel();
    EXPECT_TRUE(loaded) << loaded.error().debugDescription();
    return loaded ? *loaded : nullptr;
  }();
  return model;
}

// One opened store: the delegate owns the container and the view context; the environment is the
// one every object of the store knows. Destroying it closes the store.
struct OpenStore {
  std::shared_ptr<StoreEnvironment> environment;
  std::shared_ptr<ApplicationControl> delegate;

  ManagedObjectContext& context() const { return *delegate->managedObjectContext(); }
  std::shared_ptr<ManagedObject> insert(std::string_view entity) const {
    return context().insertNewObjectForEntityForName(entity);
  }
};

// Opens (creating it if needed) the store file `store`; chromatogram data folders resolve below
// `dataFolder` when one is given. `model` replaces the store model (a variant of it).
inline OpenStore openStore(const std::filesystem::path& store, const std::filesystem::path& dataFolder = {},
                           std::shared_ptr<const ManagedObjectModel> model = nullptr) {
  OpenStore open;
  open.environment = std::make_shared<StoreEnvironment>();
  if (!dataFolder.empty()) {
    open.environment->setDefaultDirectoryProvider(
        [dataFolder] { return std::optional<Url>(Url::fileUrl(dataFolder.string(), true)); });
  }
  auto container =
      std::make_shared<PersistentContainer>(std::string(kStoreModelName), model ? model : storeModel());
  container->setPersistentStoreDescriptions(
      {PersistentStoreDescription::persistentStoreDescriptionWithURL(Url::fileUrl(store.string(), false))});
  auto registry = std::make_shared<ManagedObjectClassRegistry>();
  registerStoreClasses(*registry, open.environment);
  container->persistentStoreCoordinator().setManagedObjectClassRegistry(registry);
  container->loadPersistentStoresWithCompletionHandler(
      [](const PersistentStoreDescription&, const std::optional<Error>& error) {
        EXPECT_FALSE(error) << error->debugDescription();
      });
  open.delegate = std::make_shared<ApplicationControl>(container);
  open.environment->setApplicationDelegate(open.delegate);
  return open;
}

template <class T>
std::shared_ptr<T> insertAs(const OpenStore& store, std::string_view entity) {
  auto object = std::dynamic_pointer_cast<T>(store.insert(entity));
  EXPECT_TRUE(object) << entity << " is not of its class";
  return object;
}

}  // namespace tesselune::test
