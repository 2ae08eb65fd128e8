// Store descriptions, coordinators and containers.

#include "objectstore/persistent_store_coordinator.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <thread>

#include "objectstore/managed_object.h"
#include "objectstore/managed_object_context.h"
#include "objectstore/sqlite/migration.h"

namespace tesselune {

// --- PersistentStoreCoordinator ---

PersistentStoreCoordinator::PersistentStoreCoordinator(
    std::shared_ptr<const ManagedObjectModel> model,
    std::vector<std::shared_ptr<const ManagedObjectModel>> earlierVersions)
    : model_(std::move(model)), earlierVersions_(std::move(earlierVersions)) {}

PersistentStoreCoordinator::~PersistentStoreCoordinator() {
  // Asynchronous adds finish before the stores they add to go away.
  adders_.clear();
}

Expected<SqliteStore*> PersistentStoreCoordinator::addPersistentStore(
    const PersistentStoreDescription& description) {
  if (description.type != kSQLiteStoreType) {
    return fail(Error(std::string(kCocoaErrorDomain), kPersistentStoreOpenError,
                      fmt::format("The store type “{}” is not supported.", description.type)));
  }
  if (!description.url.isFileUrl()) {
    return fail(
        Error(std::string(kCocoaErrorDomain), kPersistentStoreOpenError,
              fmt::format("The store URL “{}” is not a file URL.", description.url.absoluteString())));
  }
  const std::filesystem::path path = description.url.path();
  std::lock_guard lock(mutex_);
  for (const auto& store : stores_) {
    if (store->path() == path) return store.get();
  }
  SqliteStore::Options options{.readOnly = description.readOnly};
  std::error_code ec;
  const bool exists = std::filesystem::exists(path, ec);
  auto store = exists || description.readOnly ? SqliteStore::open(path, model_, options)
                                              : SqliteStore::create(path, model_, options);
  if (!store && exists && !description.readOnly &&
      store.error().code() == kPersistentStoreIncompatibleVersionHashError &&
      description.shouldMigrateStoreAutomatically) {
    if (auto s = migrate(path, description); !s) return fail(s.error());
    store = SqliteStore::open(path, model_, options);
  }
  if (!store) return fail(store.error());
  stores_.push_back(std::move(*store));
  return stores_.back().get();
}

namespace {

// Whether every entity of `earlier` is an entity of `later`, by name.
bool sharesEntities(const ManagedObjectModel& earlier, const ManagedObjectModel& later) {
  return !earlier.entities().empty() && std::ranges::all_of(earlier.entities(), [&](const auto& entity) {
    return later.entityNamed(entity->name()) != nullptr;
  });
}

}  // namespace

Status PersistentStoreCoordinator::migrate(const std::filesystem::path& path,
                                           const PersistentStoreDescription& description) {
  auto metadata = SqliteStore::metadataForPersistentStoreAtPath(path);
  if (!metadata) return fail(metadata.error());
  std::shared_ptr<const ManagedObjectModel> source;
  for (const auto& candidate : earlierVersions_) {
    if (candidate->isCompatibleWithStoreMetadata(*metadata)) source = candidate;
  }
  // Without a bundled version that matches, the model the store cached of itself will do: it is
  // only taken when its hashes are the store's, and only when it is an earlier form of ours, every
  // one of its entities still ours. A store of some other model is no store of ours to rewrite.
  if (!source) {
    auto cached = ManagedObjectModel::modelFromStore(path);
    if (cached && sharesEntities(**cached, *model_)) source = std::move(*cached);
  }
  if (!source) {
    return fail(Error(std::string(kCocoaErrorDomain), kMigrationMissingSourceModelError,
                      fmt::format("Can’t find model for source store “{}”.", path.filename().string())));
  }
  if (!description.shouldInferMappingModelAutomatically) {
    return fail(
        Error(std::string(kCocoaErrorDomain), kMigrationMissingMappingModelError,
              fmt::format("Can’t find mapping model for migration of “{}”.", path.filename().string())));
  }
  return migrateStore(path, std::move(source), model_);
}

void PersistentStoreCoordinator::addPersistentStoreWithDescription(
    const PersistentStoreDescription& description, CompletionHandler handler) {
  auto add = [this, description, handler = std::move(handler)] {
    auto store = addPersistentStore(description);
    if (handler) handler(description, store ? std::nullopt : std::optional<Error>(store.error()));
  };
  if (!description.shouldAddStoreAsynchronously) {
    add();
    return;
  }
  std::lock_guard lock(mutex_);
  adders_.emplace_back(std::move(add));
}

std::shared_ptr<const ManagedObjectClassRegistry> PersistentStoreCoordinator::managedObjectClassRegistry()
    const {
  std::lock_guard lock(mutex_);
  if (!classRegistry_) classRegistry_ = std::make_shared<const ManagedObjectClassRegistry>();
  return classRegistry_;
}

void PersistentStoreCoordinator::setManagedObjectClassRegistry(
    std::shared_ptr<const ManagedObjectClassRegistry> registry) {
  std::lock_guard lock(mutex_);
  classRegistry_ = std::move(registry);
}

std::vector<SqliteStore*> PersistentStoreCoordinator::persistentStores() const {
  std::lock_guard lock(mutex_);
  std::vector<SqliteStore*> stores;
  for (const auto& store : stores_) stores.push_back(store.get());
  return stores;
}

SqliteStore* PersistentStoreCoordinator::persistentStoreForURL(const Url& url) const {
  if (!url.isFileUrl()) return nullptr;
  const std::filesystem::path path = url.path();
  std::lock_guard lock(mutex_);
  for (const auto& store : stores_) {
    if (store->path() == path) return store.get();
  }
  return nullptr;
}

std::optional<ManagedObjectID> PersistentStoreCoordinator::managedObjectIDForURIRepresentation(
    const Url& uri) const {
  std::lock_guard lock(mutex_);
  for (const auto& store : stores_) {
    if (auto id = store->objectIDForURIRepresentation(uri)) return id;
  }
  return std::nullopt;
}

// --- PersistentContainer ---

PersistentContainer::PersistentContainer(
    std::string name, std::shared_ptr<const ManagedObjectModel> model,
    std::vector<std::shared_ptr<const ManagedObjectModel>> earlierVersions)
    : name_(std::move(name)),
      model_(std::move(model)),
      coordinator_(std::make_unique<PersistentStoreCoordinator>(model_, std::move(earlierVersions))) {}

Expected<std::unique_ptr<PersistentContainer>> PersistentContainer::persistentContainerWithName(
    const std::string& name, const std::vector<std::filesystem::path>& resourceFolders) {
  std::error_code ec;
  for (const auto& folder : resourceFolders) {
    for (const char* extension : {".xcdatamodeld", ".xcdatamodel"}) {
      const std::filesystem::path candidate = folder / (name + extension);
      if (!std::filesystem::exists(candidate, ec)) continue;
      auto model = ManagedObjectModel::modelWithContentsOfFile(candidate);
      if (!model) return fail(model.error());
      // The bundle's other versions are what its stores may have been made with.
      std::vector<std::shared_ptr<const ManagedObjectModel>> versions;
      if (std::string_view(extension) == ".xcdatamodeld") {
        auto all = ManagedObjectModel::modelVersionsInBundle(candidate);
        if (!all) return fail(all.error());
        for (auto& [version, versionModel] : *all) versions.push_back(std::move(versionModel));
      }
      return std::make_unique<PersistentContainer>(name, std::move(*model), std::move(versions));
    }
  }
  return fail(Error(std::string(kCocoaErrorDomain), kFileReadNoSuchFileError,
                    fmt::format("No model named “{}” was found in the resource folders.", name)));
}

PersistentContainer::~PersistentContainer() = default;

ManagedObjectContext& PersistentContainer::viewContext() {
  if (!viewContext_) {
    viewContext_ = std::make_unique<ManagedObjectContext>(ManagedObjectContextConcurrencyType::MainQueue);
    viewContext_->setPersistentStoreCoordinator(coordinator_.get());
  }
  return *viewContext_;
}

std::unique_ptr<ManagedObjectContext> PersistentContainer::newBackgroundContext() const {
  auto context = std::make_unique<ManagedObjectContext>(ManagedObjectContextConcurrencyType::PrivateQueue);
  context->setPersistentStoreCoordinator(coordinator_.get());
  return context;
}

Url PersistentContainer::defaultDirectoryURL() const {
  std::filesystem::path base;
  if (const char* data = std::getenv("XDG_DATA_HOME"); data != nullptr && *data == '/') {
    base = data;
  } else if (const char* home = std::getenv("HOME"); home != nullptr && *home == '/') {
    base = std::filesystem::path(home) / ".local/share";
  } else {
    base = std::filesystem::temp_directory_path();
  }
  return Url::fileUrl((base / name_).string(), true);
}

const std::vector<PersistentStoreDescription>& PersistentContainer::persistentStoreDescriptions() const {
  if (!descriptions_) {
    descriptions_ =
        std::vector<PersistentStoreDescription>{PersistentStoreDescription::persistentStoreDescriptionWithURL(
            defaultDirectoryURL().appendingPathComponent(name_ + ".sqlite", false))};
  }
  return *descriptions_;
}

void PersistentContainer::setPersistentStoreDescriptions(
    std::vector<PersistentStoreDescription> descriptions) {
  descriptions_ = std::move(descriptions);
}

void PersistentContainer::loadPersistentStoresWithCompletionHandler(
    const PersistentStoreCoordinator::CompletionHandler& handler) {
  for (const PersistentStoreDescription& description : persistentStoreDescriptions()) {
    coordinator_->addPersistentStoreWithDescription(description, handler);
  }
}

}  // namespace tesselune
