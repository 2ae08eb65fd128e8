// Opening any store with a model that fits it, and describing what it holds.
#include "app/store_description.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <set>
#include <system_error>

#include "app/report_listing.h"
#include "app/store_maintenance.h"
#include "model/store_classes.h"

namespace tesselune {

namespace {

std::string hex(std::span<const std::uint8_t> bytes) {
  std::string out;
  out.reserve(bytes.size() * 2);
  for (std::uint8_t b : bytes) out += fmt::format("{:02x}", b);
  return out;
}

// A value of the metadata on one line: hashes and other data as hex when short, collections by size.
std::string printable(const Value& value) {
  switch (value.type()) {
    case Value::Type::String:
      return value.asString();
    case Value::Type::Bool:
      return value.asBool() ? "true" : "false";
    case Value::Type::Integer:
      return std::to_string(value.asInteger());
    case Value::Type::Data:
      return value.asData().size() <= 32 ? hex(value.asData())
                                         : fmt::format("{} bytes", value.asData().size());
    case Value::Type::Dictionary:
      return fmt::format("{} entries", value.asDictionary().size());
    case Value::Type::Array: {
      std::vector<std::string> items;
      for (const Value& item : value.asArray())
        items.push_back(item.isString() ? item.asString() : printable(item));
      return fmt::format("[{}]", fmt::join(items, ", "));
    }
    default:
      return value.description();
  }
}

std::string noModelText(const std::filesystem::path& storeFile, const Error& why) {
  return fmt::format(
      "No model fits the store at {}: {} Give the model it was made with: --model PATH (a .xcdatamodeld "
      "folder, a .xcdatamodel folder or its contents file).",
      storeFile.string(), why.localizedDescription());
}

// The model a user names; for a bundle of versions, the version whose hashes are the store's.
Expected<std::pair<std::shared_ptr<const ManagedObjectModel>, std::string>> namedModel(
    const std::filesystem::path& storeFile, const std::filesystem::path& modelFile) {
  std::error_code ec;
  if (std::filesystem::is_directory(modelFile, ec) && modelFile.extension() == ".xcdatamodeld") {
    auto metadata = SqliteStore::metadataForPersistentStoreAtPath(storeFile);
    if (!metadata) return fail(metadata.error());
    auto versions = ManagedObjectModel::modelVersionsInBundle(modelFile);
    if (!versions) return fail(versions.error());
    for (const auto& [name, model] : *versions) {
      if (model->isCompatibleWithStoreMetadata(*metadata)) {
        return std::pair{model, fmt::format("{} (version \"{}\")", modelFile.string(), name)};
      }
    }
    return fail(maintenanceError(fmt::format(
        "None of the {} model versions in {} fits the store at {}: their entity version hashes differ "
        "from the store's.",
        versions->size(), modelFile.string(), storeFile.string())));
  }
  auto model = ManagedObjectModel::modelWithContentsOfFile(modelFile);
  if (!model) return fail(model.error());
  return std::pair{*model, modelFile.string()};
}

std::uintmax_t fileSize(const std::filesystem::path& path) {
  std::error_code ec;
  auto size = std::filesystem::file_size(path, ec);
  return ec ? 0 : size;
}

Expected<std::vector<std::string>> namesInSchema(Database& database, std::string_view type) {
  auto statement = database.prepare("SELECT name FROM sqlite_master WHERE type = ? ORDER BY name");
  if (!statement) return fail(statement.error());
  if (auto b = statement->bind(1, Value(std::string(type))); !b) return fail(b.error());
  std::vector<std::string> names;
  while (true) {
    auto row = statement->step();
    if (!row) return fail(row.error());
    if (!*row) break;
    names.push_back(statement->text(0));
  }
  return names;
}

Expected<std::int64_t> countRows(Database& database, const std::string& table) {
  auto count = database.prepare(fmt::format("SELECT COUNT(*) FROM {}", table));
  if (!count) return fail(count.error());
  auto row = count->step();
  if (!row) return fail(row.error());
  return *row ? count->integer(0) : 0;
}

// Z_MAX of every entity number, and the history's tables with their rows.
Status readCounters(Database& database, std::map<std::int64_t, std::int64_t>& maxKeys,
                    std::optional<StoreInspection::History>& history) {
  auto counters = database.prepare("SELECT Z_ENT, Z_MAX FROM Z_PRIMARYKEY");
  if (!counters) return fail(counters.error());
  while (true) {
    auto row = counters->step();
    if (!row) return fail(row.error());
    if (!*row) break;
    maxKeys[counters->integer(0)] = counters->integer(1);
  }
  auto tables = HistoryWriter::findTables(database);
  if (!tables) return fail(tables.error());
  if (!*tables) return {};
  history.emplace();
  history->tables = **tables;
  for (auto [table, count] : {std::pair{&history->tables.transactions, &history->transactions},
                              std::pair{&history->tables.changes, &history->changes},
                              std::pair{&history->tables.strings, &history->strings}}) {
    auto rows = countRows(database, *table);
    if (!rows) return fail(rows.error());
    *count = *rows;
  }
  return {};
}

void addHierarchyRows(const EntityDescription& entity, const std::map<std::string, std::int64_t>& own,
                      std::int64_t& total) {
  if (auto it = own.find(entity.name()); it != own.end()) total += it->second;
  for (const EntityDescription* sub : entity.subentities()) addHierarchyRows(*sub, own, total);
}

std::string storageOf(const SqliteStore& store, const RelationshipDescription& relationship) {
  const PropertyMapping* mapping = store.schema().mapping(relationship);
  if (mapping == nullptr) return "not stored";
  switch (mapping->kind) {
    case PropertyMapping::Kind::ToOne:
      return fmt::format("{}.{}", mapping->table, mapping->column);
    case PropertyMapping::Kind::ToManyThroughInverse:
    case PropertyMapping::Kind::ToManyWithoutInverse:
      return fmt::format("{}.{} (in the destination)", mapping->table, mapping->column);
    case PropertyMapping::Kind::ManyToMany:
      return fmt::format("join table {}", mapping->table);
    case PropertyMapping::Kind::Attribute:
      break;
  }
  return "not stored";
}

}  // namespace

std::string deleteRuleName(DeleteRule rule) {
  switch (rule) {
    case DeleteRule::NoAction:
      return "no action";
    case DeleteRule::Nullify:
      return "nullify";
    case DeleteRule::Cascade:
      return "cascade";
    case DeleteRule::Deny:
      return "deny";
  }
  return "unknown";
}

Expected<OpenedStore> openStoreWithModel(const std::filesystem::path& storeFile,
                                         const std::optional<std::filesystem::path>& modelFile,
                                         bool readOnly) {
  std::error_code ec;
  if (!std::filesystem::is_regular_file(storeFile, ec)) {
    return fail(maintenanceError(
        fmt::format("There is no store at {}. Make one with `tesselune-store create`.", storeFile.string())));
  }
  OpenedStore opened;
  if (modelFile) {
    auto named = namedModel(storeFile, *modelFile);
    if (!named) return fail(named.error());
    opened.model = std::move(named->first);
    opened.modelSource = std::move(named->second);
  } else {
    auto metadata = SqliteStore::metadataForPersistentStoreAtPath(storeFile);
    if (!metadata) return fail(metadata.error());
    // The program's own store is read with the model the program writes it with; a store without a
    // cached model of its own can still be opened that way.
    if (auto own = loadStoreModel(); own && (*own)->isCompatibleWithStoreMetadata(*metadata)) {
      opened.model = std::move(*own);
      opened.modelSource = "the Tesselune store model";
    } else {
      auto cached = ManagedObjectModel::modelFromStore(storeFile);
      if (!cached) return fail(maintenanceError(noModelText(storeFile, cached.error())));
      opened.model = std::move(*cached);
      opened.modelSource = "the model cached in the store";
    }
  }
  SqliteStore::Options options;
  options.readOnly = readOnly;
  auto store = SqliteStore::open(storeFile, opened.model, options);
  if (!store) {
    if (modelFile && store.error().code() == kPersistentStoreIncompatibleVersionHashError) {
      return fail(maintenanceError(noModelText(storeFile, store.error())));
    }
    return fail(store.error());
  }
  opened.store = std::move(*store);
  return opened;
}

Expected<std::map<std::string, std::int64_t>> rowsPerEntity(SqliteStore& store) {
  Database& database = store.database();
  // One pass over each table counts the objects of every entity sharing it.
  std::map<std::string, std::int64_t> ownRows;
  for (const auto& entity : store.model().entities()) {
    if (entity->superentity() != nullptr) continue;
    const std::string table = SqliteStore::tableName(*entity);
    auto exists = database.tableExists(table);
    if (!exists) return fail(exists.error());
    if (!*exists) continue;
    auto counts = database.prepare(fmt::format("SELECT Z_ENT, COUNT(*) FROM {} GROUP BY Z_ENT", table));
    if (!counts) return fail(counts.error());
    while (true) {
      auto row = counts->step();
      if (!row) return fail(row.error());
      if (!*row) break;
      if (const EntityDescription* member = store.entityForNumber(counts->integer(0))) {
        ownRows[member->name()] += counts->integer(1);
      }
    }
  }
  return ownRows;
}

Expected<StoreInspection> inspectStore(SqliteStore& store, const std::string& modelSource) {
  StoreInspection result;
  result.path = store.path().string();
  result.modelSource = modelSource;
  result.identifier = store.identifier().string();
  Database& database = store.database();

  auto journal = database.prepare("PRAGMA journal_mode");
  if (!journal) return fail(journal.error());
  if (auto row = journal->step(); !row) return fail(row.error());
  result.journalMode = journal->text(0);

  for (const auto& [key, value] : store.metadata()) result.metadata.emplace_back(key, printable(value));
  for (const char* suffix : {"", "-wal", "-shm"}) {
    const std::filesystem::path file = result.path + suffix;
    std::error_code ec;
    if (std::filesystem::exists(file, ec)) result.files.emplace_back(file.string(), fileSize(file));
  }

  auto rows = rowsPerEntity(store);
  if (!rows) return fail(rows.error());
  const std::map<std::string, std::int64_t>& ownRows = *rows;
  std::set<std::string> modelTables;
  for (const auto& entity : store.model().entities()) modelTables.insert(SqliteStore::tableName(*entity));
  for (const TableSchema& table : store.schema().tables()) modelTables.insert(table.name);

  std::map<std::int64_t, std::int64_t> maxKeys;
  if (auto s = readCounters(database, maxKeys, result.history); !s) return fail(s.error());

  const auto hashes = store.model().entityVersionHashes();
  const auto hashEntry = store.metadata().find("NSStoreModelVersionHashes");
  const Value storeHashes = hashEntry == store.metadata().end() ? Value() : hashEntry->second;
  for (const auto& entity : store.model().entities()) {
    EntitySummary summary;
    summary.name = entity->name();
    if (entity->superentity() != nullptr) summary.superentity = entity->superentity()->name();
    summary.isAbstract = entity->isAbstract();
    summary.number = store.entityNumber(*entity).value_or(0);
    if (auto it = maxKeys.find(summary.number); it != maxKeys.end()) summary.maxKey = it->second;
    summary.table = SqliteStore::tableName(*entity);
    if (auto it = ownRows.find(entity->name()); it != ownRows.end()) summary.rows = it->second;
    addHierarchyRows(*entity, ownRows, summary.rowsWithSubentities);
    if (auto it = hashes.find(entity->name()); it != hashes.end()) summary.versionHash = hex(it->second);
    if (const Value& stored = storeHashes[entity->name()]; stored.isData()) {
      summary.storeVersionHash = hex(stored.asData());
    }
    for (const auto& property : entity->ownProperties()) {
      if (!property->isRelationship() || property->isTransient()) continue;
      const auto& relationship = static_cast<const RelationshipDescription&>(*property);
      summary.relationships.push_back(
          RelationshipSummary{relationship.name(), relationship.destinationEntityName(),
                              relationship.inverseRelationshipName(), relationship.isToMany(),
                              deleteRuleName(relationship.deleteRule()), storageOf(store, relationship)});
    }
    result.entities.push_back(std::move(summary));
  }

  auto tables = namesInSchema(database, "table");
  if (!tables) return fail(tables.error());
  static const std::set<std::string, std::less<>> kBookkeeping = {"Z_METADATA", "Z_MODELCACHE",
                                                                  "Z_PRIMARYKEY"};
  for (std::string& table : *tables) {
    if (modelTables.contains(table) || kBookkeeping.contains(table) || table.starts_with("sqlite_")) continue;
    result.otherTables.push_back(std::move(table));
  }
  auto triggers = namesInSchema(database, "trigger");
  if (!triggers) return fail(triggers.error());
  result.triggers = std::move(*triggers);
  return result;
}

std::string formatInspection(const StoreInspection& inspection) {
  std::string out = fmt::format("Store: {}\nModel: {}\nUUID: {}\nJournal mode: {}\n", inspection.path,
                                inspection.modelSource, inspection.identifier, inspection.journalMode);
  out += "Files:\n";
  for (const auto& [file, bytes] : inspection.files) {
    out += fmt::format("  {}  {}\n", file, formatByteCount(bytes));
  }
  out += "Metadata:\n";
  for (const auto& [key, value] : inspection.metadata) out += fmt::format("  {}: {}\n", key, value);
  out += "Entities:\n";
  for (const EntitySummary& entity : inspection.entities) {
    std::string kind =
        entity.superentity.empty() ? "" : fmt::format(", sub-entity of {}", entity.superentity);
    if (entity.isAbstract) kind += ", abstract";
    out += fmt::format("  {} (Z_ENT {}, table {}{}): {} objects", entity.name, entity.number, entity.table,
                       kind, entity.rows);
    if (entity.rowsWithSubentities != entity.rows) {
      out += fmt::format(", {} with its sub-entities", entity.rowsWithSubentities);
    }
    out += fmt::format("; Z_MAX {}\n", entity.maxKey);
    if (entity.versionHash != entity.storeVersionHash) {
      out += fmt::format("    version hash {} differs from the store's {}\n", entity.versionHash,
                         entity.storeVersionHash.empty() ? "(none)" : entity.storeVersionHash);
    }
    for (const RelationshipSummary& r : entity.relationships) {
      out += fmt::format("    {} → {}{}{}, delete rule {}, in {}\n", r.name, r.toMany ? "many " : "",
                         r.destination, r.inverse.empty() ? "" : fmt::format(" (inverse {})", r.inverse),
                         r.deleteRule, r.storage);
    }
  }
  if (const auto& history = inspection.history) {
    out += fmt::format("History: {} transactions, {} changes, {} strings (tables {}, {}, {})\n",
                       history->transactions, history->changes, history->strings,
                       history->tables.transactions, history->tables.changes, history->tables.strings);
  }
  if (!inspection.otherTables.empty()) {
    out += fmt::format("Other tables: {}\n", fmt::join(inspection.otherTables, ", "));
  }
  if (!inspection.triggers.empty())
    out += fmt::format("Triggers: {}\n", fmt::join(inspection.triggers, ", "));
  return out;
}

std::string inspectionJson(const StoreInspection& inspection) {
  auto strings = [](const std::vector<std::string>& items) {
    std::vector<std::string> quoted;
    for (const auto& item : items) quoted.push_back(jsonString(item));
    return fmt::format("[{}]", fmt::join(quoted, ", "));
  };
  std::string out =
      fmt::format("{{\"store\": {}, \"model\": {}, \"uuid\": {}, \"journalMode\": {}, \"files\": {{",
                  jsonString(inspection.path), jsonString(inspection.modelSource),
                  jsonString(inspection.identifier), jsonString(inspection.journalMode));
  for (std::size_t i = 0; i < inspection.files.size(); ++i) {
    out += fmt::format("{}{}: {}", i == 0 ? "" : ", ", jsonString(inspection.files[i].first),
                       inspection.files[i].second);
  }
  out += "}, \"metadata\": {";
  for (std::size_t i = 0; i < inspection.metadata.size(); ++i) {
    out += fmt::format("{}{}: {}", i == 0 ? "" : ", ", jsonString(inspection.metadata[i].first),
                       jsonString(inspection.metadata[i].second));
  }
  out += "}, \"entities\": [";
  for (std::size_t i = 0; i < inspection.entities.size(); ++i) {
    const EntitySummary& e = inspection.entities[i];
    out += fmt::format(
        "{}{{\"name\": {}, \"superentity\": {}, \"abstract\": {}, \"entityNumber\": {}, \"table\": {}, "
        "\"rows\": {}, \"rowsWithSubentities\": {}, \"maxKey\": {}, \"versionHash\": {}, "
        "\"storeVersionHash\": {}, "
        "\"relationships\": [",
        i == 0 ? "" : ", ", jsonString(e.name), e.superentity.empty() ? "null" : jsonString(e.superentity),
        e.isAbstract, e.number, jsonString(e.table), e.rows, e.rowsWithSubentities, e.maxKey,
        jsonString(e.versionHash), e.storeVersionHash.empty() ? "null" : jsonString(e.storeVersionHash));
    for (std::size_t k = 0; k < e.relationships.size(); ++k) {
      const RelationshipSummary& r = e.relationships[k];
      out += fmt::format(
          "{}{{\"name\": {}, \"destination\": {}, \"inverse\": {}, \"toMany\": {}, \"deleteRule\": {}, "
          "\"storage\": {}}}",
          k == 0 ? "" : ", ", jsonString(r.name), jsonString(r.destination),
          r.inverse.empty() ? "null" : jsonString(r.inverse), r.toMany, jsonString(r.deleteRule),
          jsonString(r.storage));
    }
    out += "]}";
  }
  std::string history = "null";
  if (const auto& h = inspection.history) {
    history = fmt::format(
        "{{\"transactionTable\": {}, \"changeTable\": {}, \"stringTable\": {}, \"transactions\": {}, "
        "\"changes\": {}, \"strings\": {}}}",
        jsonString(h->tables.transactions), jsonString(h->tables.changes), jsonString(h->tables.strings),
        h->transactions, h->changes, h->strings);
  }
  out += fmt::format("], \"history\": {}, \"otherTables\": {}, \"triggers\": {}}}\n", history,
                     strings(inspection.otherTables), strings(inspection.triggers));
  return out;
}

}  // namespace tesselune
