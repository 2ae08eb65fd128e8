// Opening any Core Data store for the maintenance command, with whichever model fits it (one the user
// names, the Tesselune store model, or the model the store caches of itself) or, when none does,
// without one, and describing what it holds: entities with their tables and rows, relationships with
// their delete rules (known only with a model), metadata, journal mode and file sizes, as text for
// people or JSON for scripts.
//
// Everything here reads; nothing writes unless the store is opened for writing and a caller writes.
// Use an opened store from one thread.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "foundation/error.h"
#include "objectstore/sqlite/sqlite_store.h"

namespace tesselune {

struct OpenedStore {
  std::shared_ptr<const ManagedObjectModel> model;  // nothing when no model fits the store
  std::unique_ptr<SqliteStore> store;               // the store opened with the model
  // Without a model: a read-only connection, for what can be told of the store without one.
  std::unique_ptr<Database> database;
  // Where the model came from, for people: a model file, "the Tesselune store model", or "the model
  // cached in the store"; without one, "none: " and why.
  std::string modelSource;
  bool hasModel() const { return store != nullptr; }
};

// Opens the store file with a model that fits it. With `modelFile` (a .xcdatamodeld folder, whose
// version that fits the store is taken, a .xcdatamodel folder or its contents file) only that model
// is tried, and one that does not fit fails with a text naming the entities whose version hashes
// differ. Otherwise the Tesselune store model is taken when its entity version hashes are the
// store's, else the model cached in the store (proved by the same hashes), else none: the store is
// opened read-only without a model. Fails, with one line for people, for a missing file, a folder,
// a missing model file, and as SqliteStore::open (not a store, damaged, locked).
[[nodiscard]] Expected<OpenedStore> openStoreWithModel(const std::filesystem::path& storeFile,
                                                       const std::optional<std::filesystem::path>& modelFile,
                                                       bool readOnly);
// The one-line refusal of work that needs the store's delete rules when `opened` has no model.
std::string deleteRulesUnknownText(const OpenedStore& opened);

struct RelationshipSummary {
  std::string name;
  std::string destination;
  std::string inverse;  // empty without one
  bool toMany = false;
  std::string deleteRule;  // "nullify", "cascade", "deny", "no action"
  std::string storage;     // the column or join table that holds it
};

struct EntitySummary {
  std::string name;
  std::string superentity;  // empty for a root entity
  bool isAbstract = false;
  std::int64_t number = 0;  // Z_ENT
  std::int64_t maxKey = 0;  // Z_MAX: the largest key handed out from the entity's counter
  std::string table;
  std::int64_t rows = 0;                           // objects of exactly this entity
  std::int64_t rowsWithSubentities = 0;            // and of all entities below it
  std::string versionHash;                         // the model's, in hex
  std::string storeVersionHash;                    // the store's metadata's, in hex; empty when it has none
  std::vector<RelationshipSummary> relationships;  // the entity's own, in the model's order
};

struct StoreInspection {
  std::string path;
  std::string modelSource;
  std::string identifier;  // NSStoreUUID
  std::string journalMode;
  std::vector<std::pair<std::string, std::string>> metadata;  // key and a printable value, by key
  std::vector<std::pair<std::string, std::uintmax_t>> files;  // the store file and its -wal, -shm
  std::vector<EntitySummary> entities;                        // by name
  // The persistent history's tables and their rows, when the store keeps one.
  struct History {
    HistoryTables tables;
    std::int64_t transactions = 0;
    std::int64_t changes = 0;
    std::int64_t strings = 0;
  };
  std::optional<History> history;
  // Tables the model does not explain (persistent history and the like) and the store's triggers.
  std::vector<std::string> otherTables;
  std::vector<std::string> triggers;
  // Without a model the entities come from the store's own list, and relationships are unknown.
  bool deleteRulesKnown = true;
};

// Reads the store's bookkeeping and one row count per entity table; changes nothing.
[[nodiscard]] Expected<StoreInspection> inspectStore(SqliteStore& store, const std::string& modelSource);
// The same without a model: entities, hierarchies and numbers from Z_PRIMARYKEY, no relationships.
[[nodiscard]] Expected<StoreInspection> inspectStoreWithoutModel(Database& database,
                                                                 const std::string& modelSource);
std::string formatInspection(const StoreInspection& inspection);
std::string inspectionJson(const StoreInspection& inspection);

// The objects of exactly each entity, by entity name (entities without objects may be missing).
[[nodiscard]] Expected<std::map<std::string, std::int64_t>> rowsPerEntity(SqliteStore& store);

// "nullify" and the like, as the summaries write delete rules.
std::string deleteRuleName(DeleteRule rule);

}  // namespace tesselune
