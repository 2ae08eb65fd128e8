// SqliteStore: opening a store file, its metadata and entity numbers, and the model check.

#include "objectstore/sqlite/sqlite_store.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <set>

#include "foundation/property_list.h"
#include "objectstore/sqlite/schema.h"

namespace tesselune {

namespace {

// What the user reads is the platform's sentence for the file; why, and where, is the detail.
Status checkFileExists(const std::filesystem::path& path) {
  std::error_code ec;
  if (std::filesystem::is_regular_file(path, ec)) return {};
  return fail(Error(std::string(kCocoaErrorDomain), kFileReadNoSuchFileError,
                    fmt::format("The file “{}” couldn’t be opened because there is no such file.",
                                path.filename().string()),
                    fmt::format("no regular file at {}", path.string())));
}

Error notAStore(const std::filesystem::path& path, std::string_view why) {
  return Error(std::string(kCocoaErrorDomain), kFileReadCorruptFileError,
               fmt::format("The file “{}” couldn’t be opened because it isn’t in the correct format.",
                           path.filename().string()),
               fmt::format("not a store: {}; {}", why, path.string()));
}

}  // namespace

Expected<std::unique_ptr<SqliteStore>> SqliteStore::open(const std::filesystem::path& path,
                                                         std::shared_ptr<const ManagedObjectModel> model,
                                                         Options options) {
  if (auto s = checkFileExists(path); !s) return fail(s.error());
  auto database = Database::open(
      path, options.readOnly ? Database::Mode::ReadOnly : Database::Mode::ReadWrite, options.busyTimeout);
  if (!database) return fail(database.error());
  std::unique_ptr<SqliteStore> store(new SqliteStore());
  store->database_ = std::move(*database);
  store->model_ = std::move(model);
  store->options_ = options;
  if (auto s = store->readMetadata(); !s) return fail(s.error());
  if (auto s = store->checkModel(); !s) return fail(s.error());
  if (auto s = store->readEntityNumbers(); !s) return fail(s.error());
  return store;
}

namespace {

// The metadata of a new store, as Core Data writes it.
Value newMetadata(const ManagedObjectModel& model) {
  Dictionary hashes;
  for (const auto& [name, digest] : model.entityVersionHashes())
    hashes.emplace(name, Value(Bytes(digest.begin(), digest.end())));
  Array identifiers(model.versionIdentifiers().begin(), model.versionIdentifiers().end());
  if (identifiers.empty()) identifiers.emplace_back("");
  return Value::dictionary({
      {"NSStoreType", "SQLite"},
      {"NSStoreModelVersionHashes", Value(std::move(hashes))},
      {"NSStoreModelVersionHashesVersion", 3},
      {"NSStoreModelVersionIdentifiers", Value(std::move(identifiers))},
      {"NSPersistenceFrameworkVersion", 637},
      {"_NSAutoVacuumLevel", "2"},
  });
}

Status createTables(Database& db, const ManagedObjectModel& model) {
  // Page size and vacuum mode take effect only before the first table.
  for (const char* pragma :
       {"PRAGMA page_size = 4096", "PRAGMA auto_vacuum = 2", "PRAGMA journal_mode = WAL"}) {
    if (auto s = db.execute(pragma); !s) return s;
  }
  if (auto s = db.execute("BEGIN EXCLUSIVE"); !s) return s;
  const EntityNumbers numbers = StoreSchema::numberEntities(model);
  const StoreSchema schema = StoreSchema::forModel(model, numbers);
  auto body = [&]() -> Status {
    for (const TableSchema& table : schema.tables()) {
      if (auto s = db.execute(table.createSql()); !s) return s;
    }
    for (const IndexSchema& index : schema.indexes()) {
      if (auto s = db.execute(index.createSql()); !s) return s;
    }
    for (const char* sql :
         {"CREATE TABLE Z_PRIMARYKEY (Z_ENT INTEGER PRIMARY KEY, Z_NAME VARCHAR, Z_SUPER INTEGER, Z_MAX "
          "INTEGER)",
          "CREATE TABLE Z_METADATA (Z_VERSION INTEGER PRIMARY KEY, Z_UUID VARCHAR(255), Z_PLIST BLOB)"}) {
      if (auto s = db.execute(sql); !s) return s;
    }
    auto insert = db.prepare("INSERT INTO Z_PRIMARYKEY (Z_ENT, Z_NAME, Z_SUPER, Z_MAX) VALUES (?, ?, ?, 0)");
    if (!insert) return fail(insert.error());
    for (const auto& [entity, number] : numbers) {
      const std::int64_t super = entity->superentity() ? numbers.at(entity->superentity()) : 0;
      if (auto s = insert->bind(1, Value(number)); !s) return s;
      if (auto s = insert->bind(2, Value(entity->name())); !s) return s;
      if (auto s = insert->bind(3, Value(super)); !s) return s;
      if (auto s = insert->run(); !s) return s;
      if (auto s = insert->reset(); !s) return s;
    }
    auto plist = dataWithPropertyList(newMetadata(model));
    if (!plist) return fail(plist.error());
    auto metadata = db.prepare("INSERT INTO Z_METADATA (Z_VERSION, Z_UUID, Z_PLIST) VALUES (1, ?, ?)");
    if (!metadata) return fail(metadata.error());
    if (auto s = metadata->bind(1, Value(Uuid::random().string())); !s) return s;
    if (auto s = metadata->bind(2, Value(*plist)); !s) return s;
    if (auto s = metadata->run(); !s) return s;
    return db.execute("COMMIT");
  };
  Status status = body();
  if (!status) (void)db.execute("ROLLBACK");
  return status;
}

}  // namespace

Expected<std::unique_ptr<SqliteStore>> SqliteStore::create(const std::filesystem::path& path,
                                                           std::shared_ptr<const ManagedObjectModel> model,
                                                           Options options) {
  std::error_code ec;
  if (std::filesystem::exists(path, ec)) {
    return fail(
        Error(std::string(kCocoaErrorDomain), kFileWriteFileExistsError,
              fmt::format("The file “{}” couldn’t be created because a file with the same name already "
                          "exists. ({})",
                          path.filename().string(), path.string())));
  }
  {
    auto database = Database::open(path, Database::Mode::ReadWriteCreate, options.busyTimeout);
    Status status = database ? createTables(**database, *model) : Status(fail(database.error()));
    if (!status) {
      database = fail(status.error());  // closes the connection before the files go
      for (const char* suffix : {"", "-wal", "-shm"}) std::filesystem::remove(path.string() + suffix, ec);
      return fail(status.error());
    }
  }
  return open(path, std::move(model), options);
}

Expected<Dictionary> SqliteStore::metadataForPersistentStoreAtPath(const std::filesystem::path& path) {
  if (auto s = checkFileExists(path); !s) return fail(s.error());
  auto database = Database::open(path, Database::Mode::ReadOnly);
  if (!database) return fail(database.error());
  SqliteStore reader;
  reader.database_ = std::move(*database);
  if (auto s = reader.readMetadata(); !s) return fail(s.error());
  return reader.metadata_;
}

Status SqliteStore::readMetadata() {
  for (const char* table : {"Z_METADATA", "Z_PRIMARYKEY"}) {
    auto exists = database_->tableExists(table);
    if (!exists) return fail(exists.error());
    if (!*exists) return fail(notAStore(path(), fmt::format("it has no table {}", table)));
  }
  auto statement = database_->prepare("SELECT Z_UUID, Z_PLIST FROM Z_METADATA WHERE Z_VERSION = 1");
  if (!statement) return fail(statement.error());
  auto row = statement->step();
  if (!row) return fail(row.error());
  if (!*row) return fail(notAStore(path(), "its metadata row is missing"));
  auto uuid = Uuid::parse(statement->text(0));
  if (!uuid) return fail(notAStore(path(), "its UUID is malformed"));
  identifier_ = *uuid;
  if (!statement->isNull(1)) {
    const Bytes plist = statement->blob(1);
    auto metadata = propertyListWithData(plist);
    if (!metadata || !metadata->isDictionary()) return fail(notAStore(path(), "its metadata is unreadable"));
    metadata_ = metadata->asDictionary();
  }
  metadata_.insert_or_assign("NSStoreUUID", Value(identifier_.string()));
  return {};
}

Status SqliteStore::checkModel() const {
  if (model_->isCompatibleWithStoreMetadata(metadata_)) return {};
  return fail(
      Error(std::string(kCocoaErrorDomain), kPersistentStoreIncompatibleVersionHashError,
            fmt::format("The model used to open the store is incompatible with the one used to create the "
                        "store. ({})",
                        path().string())));
}

Status SqliteStore::readEntityNumbers() {
  auto statement = database_->prepare("SELECT Z_ENT, Z_NAME FROM Z_PRIMARYKEY");
  if (!statement) return fail(statement.error());
  for (;;) {
    auto row = statement->step();
    if (!row) return fail(row.error());
    if (!*row) break;
    // Internal entities (history tracking) have no description in the model.
    if (const EntityDescription* entity = model_->entityNamed(statement->text(1))) {
      numbers_[entity] = statement->integer(0);
      entitiesByNumber_[statement->integer(0)] = entity;
    }
  }
  for (const auto& entity : model_->entities()) {
    if (!numbers_.contains(entity.get())) {
      return fail(notAStore(path(), fmt::format("it has no entity number for {}", entity->name())));
    }
  }
  schema_ = StoreSchema::forModel(*model_, numbers_);
  return checkColumns();
}

Status SqliteStore::checkColumns() {
  // The layout is computed from the model and the store's entity numbers; a store whose tables
  // differ (written by something else, or damaged) is refused rather than written wrongly. Reads
  // only the schema, never the rows.
  for (const TableSchema& table : schema_.tables()) {
    auto statement = database_->prepare(fmt::format("PRAGMA table_info({})", table.name));
    if (!statement) return fail(statement.error());
    std::set<std::string, std::less<>> present;
    for (;;) {
      auto row = statement->step();
      if (!row) return fail(row.error());
      if (!*row) break;
      present.insert(statement->text(1));
    }
    if (present.empty()) return fail(notAStore(path(), fmt::format("it has no table {}", table.name)));
    for (const ColumnSchema& column : table.columns) {
      if (!present.contains(column.name)) {
        return fail(notAStore(path(), fmt::format("its table {} has no column {}", table.name, column.name)));
      }
    }
  }
  return {};
}

std::optional<std::int64_t> SqliteStore::entityNumber(const EntityDescription& entity) const {
  auto it = numbers_.find(&entity);
  if (it == numbers_.end()) return std::nullopt;
  return it->second;
}

const EntityDescription* SqliteStore::entityForNumber(std::int64_t number) const {
  auto it = entitiesByNumber_.find(number);
  return it == entitiesByNumber_.end() ? nullptr : it->second;
}

std::string SqliteStore::tableName(const EntityDescription& entity) {
  std::string name = "Z";
  for (char c : entity.rootEntity()->name())
    name.push_back(static_cast<char>(std::toupper(static_cast<unsigned char>(c))));
  return name;
}

std::optional<ManagedObjectID> SqliteStore::objectIDForURIRepresentation(const Url& uri) const {
  if (uri.scheme() != "x-coredata") return std::nullopt;
  auto store = Uuid::parse(uri.host());
  if (!store || *store != identifier_) return std::nullopt;
  const std::vector<std::string> components = uri.pathComponents();
  // "/", the entity, "p<key>".
  if (components.size() != 3 || components[2].size() < 2 || components[2][0] != 'p') return std::nullopt;
  const EntityDescription* entity = model_->entityNamed(components[1]);
  if (entity == nullptr) return std::nullopt;
  std::int64_t key = 0;
  const std::string& digits = components[2];
  for (std::size_t i = 1; i < digits.size(); ++i) {
    if (!std::isdigit(static_cast<unsigned char>(digits[i])) || key > (INT64_MAX - 9) / 10)
      return std::nullopt;
    key = key * 10 + (digits[i] - '0');
  }
  return ManagedObjectID::permanent(*entity, identifier_, key);
}

Expected<std::int64_t> SqliteStore::allocatePrimaryKeys(const EntityDescription& entity, std::int64_t count) {
  if (options_.readOnly) {
    return fail(Error(std::string(kCocoaErrorDomain), kFileWriteNoPermissionError,
                      fmt::format("The store “{}” is read-only.", path().filename().string())));
  }
  auto number = entityNumber(*entity.rootEntity());
  if (!number || count < 1) {
    return fail(Error(
        std::string(kCocoaErrorDomain), kPersistentStoreOpenError,
        fmt::format("No keys can be allocated for {} in “{}”.", entity.name(), path().filename().string())));
  }
  const bool ownTransaction = sqlite3_get_autocommit(database_->handle()) != 0;
  if (ownTransaction) {
    if (auto s = database_->execute("BEGIN EXCLUSIVE"); !s) return fail(s.error());
  }
  auto body = [&]() -> Expected<std::int64_t> {
    auto select = database_->prepare("SELECT Z_MAX FROM Z_PRIMARYKEY WHERE Z_ENT = ?");
    if (!select) return fail(select.error());
    if (auto s = select->bind(1, Value(*number)); !s) return fail(s.error());
    auto row = select->step();
    if (!row) return fail(row.error());
    if (!*row)
      return fail(
          notAStore(path(), fmt::format("it has no key counter for {}", entity.rootEntity()->name())));
    const std::int64_t max = select->integer(0);
    auto update = database_->prepare("UPDATE Z_PRIMARYKEY SET Z_MAX = ? WHERE Z_ENT = ? AND Z_MAX = ?");
    if (!update) return fail(update.error());
    if (auto s = update->bind(1, Value(max + count)); !s) return fail(s.error());
    if (auto s = update->bind(2, Value(*number)); !s) return fail(s.error());
    if (auto s = update->bind(3, Value(max)); !s) return fail(s.error());
    if (auto s = update->run(); !s) return fail(s.error());
    return max + 1;
  };
  auto first = body();
  if (ownTransaction) {
    if (!first) {
      (void)database_->execute("ROLLBACK");
    } else if (auto s = database_->execute("COMMIT"); !s) {
      (void)database_->execute("ROLLBACK");
      return fail(s.error());
    }
  }
  return first;
}

}  // namespace tesselune
