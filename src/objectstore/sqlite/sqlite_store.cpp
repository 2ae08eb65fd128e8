// SqliteStore: opening a store file, its metadata and entity numbers, and the model check.

#include "objectstore/sqlite/sqlite_store.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

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
  auto history = HistoryWriter::detect(*store->database_, *store->model_, store->numbers_, store->schema_);
  if (!history) return fail(history.error());
  store->history_ = std::move(*history);
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
      {"NSPersistenceFrameworkVersion", SqliteStore::kPersistenceFrameworkVersion},
      {"_NSAutoVacuumLevel", "2"},
  });
}

// Z_MODELCACHE with the model's cached content, replacing what the table held.
Status writeModelCache(Database& db, const ManagedObjectModel& model) {
  auto content = model.cachedContent();
  if (!content) return fail(content.error());
  for (const char* sql :
       {"CREATE TABLE IF NOT EXISTS Z_MODELCACHE (Z_CONTENT BLOB)", "DELETE FROM Z_MODELCACHE"}) {
    if (auto s = db.execute(sql); !s) return s;
  }
  auto insert = db.prepare("INSERT INTO Z_MODELCACHE (Z_CONTENT) VALUES (?)");
  if (!insert) return fail(insert.error());
  if (auto s = insert->bind(1, Value(std::move(*content))); !s) return s;
  return insert->run();
}

Status createTables(Database& db, const ManagedObjectModel& model) {
  // Page size and vacuum mode take effect only before the first table.
  for (const char* pragma :
       {"PRAGMA page_size = 4096", "PRAGMA auto_vacuum = 2", "PRAGMA journal_mode = WAL"}) {
    if (auto s = db.execute(pragma); !s) return s;
  }
  auto transaction = Transaction::begin(db, Transaction::Kind::Exclusive);
  if (!transaction) return fail(transaction.error());
  const EntityNumbers numbers = StoreSchema::numberEntities(model);
  const StoreSchema schema = StoreSchema::forModel(model, numbers);
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
  if (auto s = writeModelCache(db, model); !s) return s;
  return transaction->commit();
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

namespace {

using TableColumns = std::map<std::string, std::set<std::string, std::less<>>, std::less<>>;

// The columns of the tables a schema names, as the file has them (an absent table has none).
// Reads only the schema, never the rows.
Expected<TableColumns> columnsInFile(Database& database, const StoreSchema& schema) {
  TableColumns columns;
  for (const TableSchema& table : schema.tables()) {
    auto statement = database.prepare(fmt::format("PRAGMA table_info({})", table.name));
    if (!statement) return fail(statement.error());
    auto& present = columns[table.name];
    for (;;) {
      auto row = statement->step();
      if (!row) return fail(row.error());
      if (!*row) break;
      present.insert(statement->text(1));
    }
  }
  return columns;
}

// Why the file does not have a schema's layout, or nothing when it has.
std::optional<std::string> layoutMismatch(const StoreSchema& schema, const TableColumns& inFile) {
  for (const TableSchema& table : schema.tables()) {
    const auto& present = inFile.at(table.name);
    if (present.empty()) return fmt::format("it has no table {}", table.name);
    for (const ColumnSchema& column : table.columns) {
      if (!present.contains(column.name))
        return fmt::format("its table {} has no column {}", table.name, column.name);
    }
  }
  return std::nullopt;
}

// Pairs of (table, old name, new name) for the columns whose names differ between two layouts of
// the same model and entity numbers.
struct ColumnRename {
  std::string table;
  std::string from;
  std::string to;
};
std::vector<ColumnRename> columnRenames(const ManagedObjectModel& model, const StoreSchema& from,
                                        const StoreSchema& to) {
  std::vector<ColumnRename> renames;
  for (const auto& entity : model.entities()) {
    for (const auto& property : entity->ownProperties()) {
      const PropertyMapping* was = from.mapping(*property);
      const PropertyMapping* is = to.mapping(*property);
      if (was == nullptr || is == nullptr) continue;
      if (is->kind != PropertyMapping::Kind::Attribute && is->kind != PropertyMapping::Kind::ToOne) continue;
      if (was->column != is->column) renames.push_back({is->table, was->column, is->column});
      if (was->entityColumn != is->entityColumn)
        renames.push_back({is->table, was->entityColumn, is->entityColumn});
    }
  }
  return renames;
}

}  // namespace

Status SqliteStore::checkColumns() {
  // The layout is computed from the model and the store's entity numbers; a store whose tables
  // differ (written by something else, or damaged) is refused rather than written wrongly.
  auto inFile = columnsInFile(*database_, schema_);
  if (!inFile) return fail(inFile.error());
  const std::optional<std::string> mismatch = layoutMismatch(schema_, *inFile);
  if (!mismatch) return {};
  StoreSchema earlier = StoreSchema::forModel(*model_, numbers_, ColumnNaming::EarlierBuilds);
  if (layoutMismatch(earlier, *inFile)) return fail(notAStore(path(), *mismatch));
  if (options_.readOnly) {
    schema_ = std::move(earlier);
    return {};
  }
  return renameColumnsOf(earlier);
}

Status SqliteStore::renameColumnsOf(const StoreSchema& earlier) {
  const std::vector<ColumnRename> renames = columnRenames(*model_, earlier, schema_);
  auto transaction = Transaction::begin(*database_, Transaction::Kind::Exclusive);
  if (!transaction) return fail(transaction.error());
  // Through names of their own first: two clashing columns may swap names.
  for (std::size_t i = 0; i < renames.size(); ++i) {
    if (auto s = database_->execute(fmt::format("ALTER TABLE {} RENAME COLUMN {} TO Z_RENAMING_{}",
                                                renames[i].table, renames[i].from, i));
        !s)
      return s;
  }
  for (std::size_t i = 0; i < renames.size(); ++i) {
    if (auto s = database_->execute(fmt::format("ALTER TABLE {} RENAME COLUMN Z_RENAMING_{} TO {}",
                                                renames[i].table, i, renames[i].to));
        !s)
      return s;
  }
  // An index keeps its name and follows its column through a rename: those whose name or columns
  // are no longer the layout's go, and the layout's indexes are made where missing.
  std::map<std::string, const IndexSchema*> wanted;
  for (const IndexSchema& index : schema_.indexes()) wanted.emplace(index.name, &index);
  for (const IndexSchema& index : earlier.indexes()) {
    std::vector<std::string> columns = index.columns;
    for (std::string& column : columns) {
      for (const ColumnRename& rename : renames) {
        if (rename.table == index.table && rename.from == column) {
          column = rename.to;
          break;
        }
      }
    }
    auto same = wanted.find(index.name);
    if (same != wanted.end() && same->second->table == index.table && same->second->columns == columns)
      continue;
    if (auto s = database_->execute(fmt::format("DROP INDEX IF EXISTS {}", index.name)); !s) return s;
  }
  for (const IndexSchema& index : schema_.indexes()) {
    if (auto s = database_->execute(index.createSql(/*ifNotExists=*/true)); !s) return s;
  }
  if (auto s = writeModelCache(*database_, *model_); !s) return s;
  if (auto s = transaction->commit(); !s) return s;
  std::vector<std::string> changes;
  for (const ColumnRename& rename : renames)
    changes.push_back(fmt::format("{}.{} → {}", rename.table, rename.from, rename.to));
  openingNote_ = fmt::format(
      "Renamed {} columns of the store “{}” to the names Core Data gives them and cached its model: {}",
      renames.size(), path().filename().string(), fmt::join(changes, ", "));
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
