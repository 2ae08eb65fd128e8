// The maintenance command's work on a store: making a new one, marking objects for the store
// support program, and telling what is in a store. These go straight to the store's tables through
// the engine's schema mapping, the way the main application's saves leave them, so they work on
// stores of any size without loading objects.
//
// A MaintenanceStore is one open store; use it from one thread. Failures come back as errors whose
// text can be shown as it is.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/data_library.h"
#include "foundation/error.h"
#include "objectstore/sqlite/sqlite_store.h"

namespace tesselune {

inline constexpr std::string_view kMaintenanceErrorDomain = "tesselune-store";
// A failure of the maintenance command with a text for the user.
[[nodiscard]] Error maintenanceError(std::string text);

struct MaintenanceStore {
  std::shared_ptr<const ManagedObjectModel> model;
  std::unique_ptr<SqliteStore> store;
};

// Succeeds when a file is at `storeFile`; otherwise fails with one line for people: there is no store
// (and how to make one), or the path is a folder (naming the SQLite files in it).
[[nodiscard]] Status checkStoreFile(const std::filesystem::path& storeFile);

// Opens the store file with the current store model. Fails with a clear text when the file is
// missing; read-only stores are never changed, not even their journal mode.
[[nodiscard]] Expected<MaintenanceStore> openMaintenanceStore(const std::filesystem::path& storeFile,
                                                              bool readOnly);

// Creates an empty store in the library, making the library folder and its temporary folder.
// Fails when a store file is already there.
[[nodiscard]] Expected<MaintenanceStore> createStore(const DataLibrary& library);

// The entities that can be marked (they have the destinedForDeletion attribute), by name.
std::vector<const EntityDescription*> markableEntities(const ManagedObjectModel& model);
// The entity a user means by `name`: the model's name in any case, or one of the short names
// chromatogram, search, search-group, collection. Nothing when it names no markable entity.
const EntityDescription* markableEntityNamed(const ManagedObjectModel& model, std::string_view name);
// The attribute that names objects of a markable entity ("chromatogramName" for Chromatogram);
// nullptr when it has none.
const AttributeDescription* nameAttribute(const EntityDescription& entity);

struct MarkedObject {
  std::string entity;
  std::string name;  // empty when the object has none
  std::string uri;
};

// Marks every object of `entity` (and its sub-entities) whose name is `name`. Fails, changing
// nothing, when none has that name. Answers the objects marked.
[[nodiscard]] Expected<std::vector<MarkedObject>> markObjectsNamed(SqliteStore& store,
                                                                   const EntityDescription& entity,
                                                                   std::string_view name);
// Marks the object an object URI names. Fails for a URI of another store, an unknown entity, an
// entity that cannot be marked, or an object that is not there.
[[nodiscard]] Expected<MarkedObject> markObjectWithURI(SqliteStore& store, std::string_view uri);

struct EntityCount {
  std::string entity;
  std::int64_t count = 0;              // objects of exactly this entity
  std::optional<std::int64_t> marked;  // for markable entities
};

struct StoreStatus {
  std::vector<EntityCount> counts;  // every entity of the model, by name
  std::vector<MarkedObject> marked;
  std::uintmax_t storeBytes = 0;       // the store file with its -wal and -shm companions
  std::uintmax_t dataFolderBytes = 0;  // everything in the library except the store and reports
  std::size_t reportFiles = 0;
};

// What the store holds and what lies beside it.
[[nodiscard]] Expected<StoreStatus> storeStatus(SqliteStore& store, const DataLibrary& library);
std::string formatStatus(const StoreStatus& status);
// "1.5 MB" and the like, for people.
std::string formatByteCount(std::uintmax_t bytes);

}  // namespace tesselune
