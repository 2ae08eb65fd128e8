// SqliteStore: a store file in Core Data's SQLite layout, opened with the model that describes it.
//
// Opening reads the metadata (Z_METADATA), the entity numbers and key counters (Z_PRIMARYKEY) and
// checks that the model fits the store by its entity version hashes; it reads nothing of the
// objects, so it costs the same for any size of store. A store is used from one thread at a time
// (contexts serialise their access); the model must outlive it.
#pragma once

#include <chrono>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "foundation/error.h"
#include "foundation/uuid.h"
#include "foundation/value.h"
#include "objectstore/description/managed_object_model.h"
#include "objectstore/managed_object_id.h"
#include "objectstore/sqlite/database.h"
#include "objectstore/sqlite/history_writer.h"
#include "objectstore/sqlite/schema.h"

namespace tesselune {

class SqliteStore {
 public:
  struct Options {
    bool readOnly = false;
    // How long to wait for the main application's locks before failing.
    std::chrono::milliseconds busyTimeout = std::chrono::seconds(10);
  };

  // NSPersistenceFrameworkVersion in the metadata of stores this engine creates.
  static constexpr std::int64_t kPersistenceFrameworkVersion = 637;

  // Opens an existing store. Fails for a missing, non-SQLite, corrupt or locked file, for a
  // database that is not a Core Data store, and (134100) for a model whose entity hashes differ
  // from the store's; the file is left as it was. A store that our earlier builds created, whose
  // clashing columns carry names Core Data would not give them, has those columns renamed in one
  // transaction (read-only: it is read under its old names); openingNote() says so.
  [[nodiscard]] static Expected<std::unique_ptr<SqliteStore>> open(
      const std::filesystem::path& path, std::shared_ptr<const ManagedObjectModel> model, Options options);

  const std::filesystem::path& path() const { return database_->path(); }
  const ManagedObjectModel& model() const { return *model_; }
  bool isReadOnly() const { return options_.readOnly; }
  // Creates a new store for the model at a path where no file is: Core Data's tables, columns, join
  // tables and indexes, the entity numbers and the metadata with the model's version hashes, in WAL
  // mode. A failure removes what it created.
  [[nodiscard]] static Expected<std::unique_ptr<SqliteStore>> create(
      const std::filesystem::path& path, std::shared_ptr<const ManagedObjectModel> model, Options options);

  // metadataForPersistentStoreOfType:URL:: the metadata of the store at a path (NSStoreUUID
  // included), read without a model, as a coordinator reads it to choose the model to open with.
  [[nodiscard]] static Expected<Dictionary> metadataForPersistentStoreAtPath(
      const std::filesystem::path& path);

  // The store's UUID (NSStoreUUID).
  const Uuid& identifier() const { return identifier_; }
  // The metadata dictionary, with NSStoreUUID added as the platform reports it.
  const Dictionary& metadata() const { return metadata_; }

  // The number the store gives an entity (Z_ENT), and the entity for a number.
  std::optional<std::int64_t> entityNumber(const EntityDescription& entity) const;
  const EntityDescription* entityForNumber(std::int64_t number) const;
  // The table that holds an entity's objects: "Z" and its root entity's name in upper case.
  static std::string tableName(const EntityDescription& entity);

  // managedObjectIDForURIRepresentation: the ID a URI names, when it names an object of this store
  // and an entity of its model; nothing otherwise.
  std::optional<ManagedObjectID> objectIDForURIRepresentation(const Url& uri) const;

  // Reserves `count` new primary keys for objects of an entity and answers the first. A hierarchy
  // shares the counter in its root entity's Z_PRIMARYKEY row; the counter only grows, and keys that
  // go unused are not given back. Runs in its own exclusive transaction unless one is open.
  [[nodiscard]] Expected<std::int64_t> allocatePrimaryKeys(const EntityDescription& entity,
                                                           std::int64_t count);

  // What opening changed in the file, for the log; empty when nothing.
  const std::string& openingNote() const { return openingNote_; }

  // Where every entity's rows and every property's values are, for this store's entity numbers.
  const StoreSchema& schema() const { return schema_; }
  Database& database() { return *database_; }
  // The store's persistent history, found when it was opened; null when it keeps none. Owned by
  // the store.
  const HistoryWriter* history() const { return history_.get(); }

 private:
  SqliteStore() = default;
  [[nodiscard]] Status readMetadata();
  [[nodiscard]] Status readEntityNumbers();
  [[nodiscard]] Status checkModel() const;
  [[nodiscard]] Status checkColumns();
  [[nodiscard]] Status renameColumnsOf(const StoreSchema& earlier);

  std::unique_ptr<Database> database_;
  std::shared_ptr<const ManagedObjectModel> model_;
  Options options_;
  Uuid identifier_;
  Dictionary metadata_;
  EntityNumbers numbers_;
  StoreSchema schema_;
  std::string openingNote_;
  std::map<std::int64_t, const EntityDescription*> entitiesByNumber_;
  std::unique_ptr<HistoryWriter> history_;
};

}  // namespace tesselune
