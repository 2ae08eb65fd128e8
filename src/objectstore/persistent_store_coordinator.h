// Store descriptions, the coordinator that holds a model's stores, and the container that ties a
// model, a coordinator and default store locations together, as NSPersistentStoreDescription,
// NSPersistentStoreCoordinator and NSPersistentContainer.
//
// A coordinator owns its stores and may be shared by several contexts; its methods are thread-safe
// (a recursive lock serialises them and the contexts' use of the stores). A container owns its
// coordinator; it lives as long as the program uses its stores.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "foundation/error.h"
#include "foundation/url.h"
#include "objectstore/description/managed_object_model.h"
#include "objectstore/sqlite/sqlite_store.h"

namespace tesselune {

inline constexpr std::string_view kSQLiteStoreType = "SQLite";

class ManagedObjectClassRegistry;
class ManagedObjectContext;

// How to add one store: a plain value, copied freely (copy is the platform's copy).
struct PersistentStoreDescription {
  Url url;
  std::string type = std::string(kSQLiteStoreType);
  bool readOnly = false;
  bool shouldAddStoreAsynchronously = false;
  bool shouldInferMappingModelAutomatically = true;
  bool shouldMigrateStoreAutomatically = true;

  static PersistentStoreDescription persistentStoreDescriptionWithURL(Url url) {
    PersistentStoreDescription description;
    description.url = std::move(url);
    return description;
  }
};

class PersistentStoreCoordinator {
 public:
  using CompletionHandler =
      std::function<void(const PersistentStoreDescription&, const std::optional<Error>&)>;

  // `earlierVersions` are the models a store may have been made with (the other versions of the
  // model's bundle): a store of one of them is migrated when its description allows it.
  explicit PersistentStoreCoordinator(
      std::shared_ptr<const ManagedObjectModel> model,
      std::vector<std::shared_ptr<const ManagedObjectModel>> earlierVersions = {});
  ~PersistentStoreCoordinator();

  const std::shared_ptr<const ManagedObjectModel>& managedObjectModel() const { return model_; }

  // Opens the described store, creating the file (and its folder's missing file only, not folders)
  // when it does not exist and the store is not read-only; a store made with an earlier version of
  // the model (a bundled one, or the model cached in the store when all its entities are the
  // model's) is migrated first when the description allows automatic migration with an inferred
  // mapping (134130 when no version fits the store, 134140 when no mapping can be inferred). A
  // store of any other model is refused and left as it is. Calls the
  // handler with the description and the failure, if any. Synchronous adds call the handler before returning;
  // asynchronous ones call it on a thread of their own.
  void addPersistentStoreWithDescription(const PersistentStoreDescription& description,
                                         CompletionHandler handler);
  // The same, answering directly: the store added, owned by the coordinator.
  [[nodiscard]] Expected<SqliteStore*> addPersistentStore(const PersistentStoreDescription& description);

  std::vector<SqliteStore*> persistentStores() const;
  // The store opened from this file URL; nothing when none is.
  SqliteStore* persistentStoreForURL(const Url& url) const;
  // The ID for an object URI of one of this coordinator's stores; nothing for other stores' URIs
  // and unknown entities.
  std::optional<ManagedObjectID> managedObjectIDForURIRepresentation(const Url& uri) const;

  // The classes that contexts on this coordinator make their objects of; plain managed objects
  // unless set. Set before contexts use the coordinator.
  std::shared_ptr<const ManagedObjectClassRegistry> managedObjectClassRegistry() const;
  void setManagedObjectClassRegistry(std::shared_ptr<const ManagedObjectClassRegistry> registry);

  // Serialises use of the stores (performBlockAndWait of contexts takes it).
  std::recursive_mutex& mutex() const { return mutex_; }

 private:
  [[nodiscard]] Status migrate(const std::filesystem::path& path,
                               const PersistentStoreDescription& description);

  std::shared_ptr<const ManagedObjectModel> model_;
  std::vector<std::shared_ptr<const ManagedObjectModel>> earlierVersions_;
  mutable std::shared_ptr<const ManagedObjectClassRegistry> classRegistry_;
  mutable std::recursive_mutex mutex_;
  std::vector<std::unique_ptr<SqliteStore>> stores_;
  std::vector<std::jthread> adders_;  // asynchronous adds still running or done
};

class PersistentContainer {
 public:
  PersistentContainer(std::string name, std::shared_ptr<const ManagedObjectModel> model,
                      std::vector<std::shared_ptr<const ManagedObjectModel>> earlierVersions = {});
  virtual ~PersistentContainer();

  // persistentContainerWithName: the model named `name` (name.xcdatamodeld or name.xcdatamodel)
  // found in the first of the resource folders that has one.
  [[nodiscard]] static Expected<std::unique_ptr<PersistentContainer>> persistentContainerWithName(
      const std::string& name, const std::vector<std::filesystem::path>& resourceFolders);

  // Where stores go by default: $XDG_DATA_HOME (or ~/.local/share) and the container's name.
  // Subclasses override it to put their stores elsewhere.
  virtual Url defaultDirectoryURL() const;

  const std::string& name() const { return name_; }
  const std::shared_ptr<const ManagedObjectModel>& managedObjectModel() const { return model_; }
  PersistentStoreCoordinator& persistentStoreCoordinator() const { return *coordinator_; }

  // One description of "<name>.sqlite" in the default directory unless set otherwise.
  const std::vector<PersistentStoreDescription>& persistentStoreDescriptions() const;
  void setPersistentStoreDescriptions(std::vector<PersistentStoreDescription> descriptions);

  // The main-queue context on the container's coordinator, made on first use; owned by the
  // container.
  ManagedObjectContext& viewContext();
  // newBackgroundContext: a new private-queue context on the coordinator, owned by the caller.
  std::unique_ptr<ManagedObjectContext> newBackgroundContext() const;

  // Adds every described store to the coordinator, calling the handler once per store.
  void loadPersistentStoresWithCompletionHandler(
      const PersistentStoreCoordinator::CompletionHandler& handler);

 private:
  std::string name_;
  std::shared_ptr<const ManagedObjectModel> model_;
  std::unique_ptr<PersistentStoreCoordinator> coordinator_;
  // Made on first use, so that a subclass's defaultDirectoryURL is the one asked.
  mutable std::optional<std::vector<PersistentStoreDescription>> descriptions_;
  // Declared after the coordinator, so that it goes first.
  std::unique_ptr<ManagedObjectContext> viewContext_;
};

}  // namespace tesselune
