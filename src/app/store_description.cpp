// Opening any store with a model that fits it, and describing what it holds.
#include "app/store_description.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <map>
#include <set>
#include <system_error>

#include "app/report_listing.h"
#include "app/store_catalog.h"
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

// Why the model a store keeps of itself cannot be used, in a few words.
std::string cachedModelProblem(const Error& error) {
  if (error.code() == kCoderValueNotFoundError) return "the store keeps no model of itself";
  if (error.code() == kPersistentStoreIncompatibleVersionHashError) {
    return "the model the store keeps of itself does not fit its version hashes";
  }
  return fmt::format("the model the store keeps of itself cannot be read ({})", error.localizedDescription());
}

// The entities whose version hashes keep a model from fitting a store.
struct HashDifferences {
  std::vector<std::string> differing;
  std::vector<std::string> onlyInModel;
  std::vector<std::string> onlyInStore;
  std::size_t size() const { return differing.size() + onlyInModel.size() + onlyInStore.size(); }
};

HashDifferences hashDifferences(const ManagedObjectModel& model, const Dictionary& metadata) {
  const auto hashes = metadata.find("NSStoreModelVersionHashes");
  const Dictionary none;
  const Dictionary& recorded =
      hashes != metadata.end() && hashes->second.isDictionary() ? hashes->second.asDictionary() : none;
  HashDifferences differences;
  const auto computed = model.entityVersionHashes();
  for (const auto& [name, hash] : computed) {
    const auto theirs = recorded.find(name);
    if (theirs == recorded.end()) {
      differences.onlyInModel.push_back(name);
    } else if (!theirs->second.isData() || !std::ranges::equal(theirs->second.asData(), hash)) {
      differences.differing.push_back(name);
    }
  }
  for (const auto& [name, hash] : recorded) {
    if (!computed.contains(name)) differences.onlyInStore.push_back(name);
  }
  return differences;
}

// "the version hashes of Country, Mood differ from the store's; only in the model: Planet; only in
// the store: Continent".
std::string describe(const HashDifferences& differences) {
  std::vector<std::string> parts;
  if (!differences.differing.empty()) {
    parts.push_back(fmt::format("the version hashes of {} differ from the store's",
                                fmt::join(differences.differing, ", ")));
  }
  if (!differences.onlyInModel.empty())
    parts.push_back(fmt::format("only in the model: {}", fmt::join(differences.onlyInModel, ", ")));
  if (!differences.onlyInStore.empty())
    parts.push_back(fmt::format("only in the store: {}", fmt::join(differences.onlyInStore, ", ")));
  if (parts.empty()) return "its entity version hashes are not the store's";
  return fmt::format("{}", fmt::join(parts, "; "));
}

// The model a user names; for a bundle of versions, the version whose hashes are the store's.
Expected<std::pair<std::shared_ptr<const ManagedObjectModel>, std::string>> namedModel(
    const std::filesystem::path& storeFile, const std::filesystem::path& modelFile,
    const Dictionary& metadata) {
  std::error_code ec;
  if (!std::filesystem::exists(modelFile, ec)) {
    return fail(maintenanceError(
        fmt::format("There is no model at {}: --model takes a .xcdatamodeld folder, a .xcdatamodel folder or "
                    "its contents file.",
                    modelFile.string())));
  }
  if (std::filesystem::is_directory(modelFile, ec) && modelFile.extension() == ".xcdatamodeld") {
    auto versions = ManagedObjectModel::modelVersionsInBundle(modelFile);
    if (!versions) return fail(versions.error());
    std::optional<std::pair<std::string, HashDifferences>> closest;
    for (const auto& [name, version] : *versions) {
      if (version->isCompatibleWithStoreMetadata(metadata)) {
        return std::pair{version, fmt::format("{} (version \"{}\")", modelFile.string(), name)};
      }
      HashDifferences differences = hashDifferences(*version, metadata);
      if (!closest || differences.size() < closest->second.size())
        closest.emplace(name, std::move(differences));
    }
    return fail(maintenanceError(fmt::format(
        "None of the {} model versions in {} fits the store at {}{}.", versions->size(), modelFile.string(),
        storeFile.string(),
        !closest
            ? ""
            : fmt::format(": the closest, \"{}\", differs: {}", closest->first, describe(closest->second)))));
  }
  auto model = ManagedObjectModel::modelWithContentsOfFile(modelFile);
  if (!model) return fail(model.error());
  if (!(*model)->isCompatibleWithStoreMetadata(metadata)) {
    return fail(
        maintenanceError(fmt::format("The model {} does not fit the store at {}: {}.", modelFile.string(),
                                     storeFile.string(), describe(hashDifferences(**model, metadata)))));
  }
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
  if (auto present = checkStoreFile(storeFile); !present) return fail(present.error());
  auto metadata = SqliteStore::metadataForPersistentStoreAtPath(storeFile);
  if (!metadata) return fail(metadata.error());
  OpenedStore opened;
  if (modelFile) {
    auto named = namedModel(storeFile, *modelFile, *metadata);
    if (!named) return fail(named.error());
    opened.model = std::move(named->first);
    opened.modelSource = std::move(named->second);
  } else if (auto own = loadStoreModel(); own && (*own)->isCompatibleWithStoreMetadata(*metadata)) {
    // The program's own store is read with the model the program writes it with; a store without a
    // cached model of its own can still be opened that way.
    opened.model = std::move(*own);
    opened.modelSource = "the Tesselune store model";
  } else if (auto cached = ManagedObjectModel::modelFromStore(storeFile); cached) {
    opened.model = std::move(*cached);
    opened.modelSource = "the model cached in the store";
  } else {
    auto database = Database::open(storeFile, Database::Mode::ReadOnly);
    if (!database) return fail(database.error());
    // Only a store with its list of entities can be described without a model.
    if (auto catalog = StoreCatalog::read(**database); !catalog) return fail(catalog.error());
    opened.database = std::move(*database);
    opened.modelSource = "none: " + cachedModelProblem(cached.error());
    return opened;
  }
  SqliteStore::Options options;
  options.readOnly = readOnly;
  auto store = SqliteStore::open(storeFile, opened.model, options);
  if (!store) return fail(store.error());
  opened.store = std::move(*store);
  return opened;
}

std::string deleteRulesUnknownText(const OpenedStore& opened) {
  std::string why = opened.modelSource;
  if (why.starts_with("none: ")) why.erase(0, 6);
  const std::filesystem::path path =
      opened.database != nullptr ? opened.database->path() : std::filesystem::path();
  return fmt::format(
      "The delete rules of the store at {} are unknown: {}. Give the model it was made with: --model PATH (a "
      ".xcdatamodeld folder, a .xcdatamodel folder or its contents file).",
      path.string(), why);
}

// Adds the objects of every entity sharing `table` to `rows`, by Z_ENT, in one pass over the table.
Status countRowsPerEntityNumber(Database& database, const std::string& table,
                                std::map<std::int64_t, std::int64_t>& rows) {
  auto counts = database.prepare(fmt::format("SELECT Z_ENT, COUNT(*) FROM {} GROUP BY Z_ENT", table));
  if (!counts) return fail(counts.error());
  while (true) {
    auto row = counts->step();
    if (!row) return fail(row.error());
    if (!*row) break;
    if (!counts->isNull(0)) rows[counts->integer(0)] += counts->integer(1);
  }
  return {};
}

Expected<std::map<std::string, std::int64_t>> rowsPerEntity(SqliteStore& store) {
  Database& database = store.database();
  std::map<std::int64_t, std::int64_t> byNumber;
  for (const auto& entity : store.model().entities()) {
    if (entity->superentity() != nullptr) continue;
    const std::string table = SqliteStore::tableName(*entity);
    auto exists = database.tableExists(table);
    if (!exists) return fail(exists.error());
    if (!*exists) continue;
    if (auto s = countRowsPerEntityNumber(database, table, byNumber); !s) return fail(s.error());
  }
  std::map<std::string, std::int64_t> ownRows;
  for (const auto& [number, rows] : byNumber) {
    if (const EntityDescription* member = store.entityForNumber(number)) ownRows[member->name()] += rows;
  }
  return ownRows;
}

namespace {

// What is told of any store alike: its file, metadata and journal mode, and (by `knownTables`) the
// tables and triggers of the store that its entities do not explain.
Status describeFile(Database& database, const Dictionary& metadata, const std::set<std::string>& knownTables,
                    StoreInspection& result) {
  result.path = database.path().string();
  if (auto uuid = metadata.find("NSStoreUUID"); uuid != metadata.end() && uuid->second.isString()) {
    result.identifier = uuid->second.asString();
  }
  auto journal = database.prepare("PRAGMA journal_mode");
  if (!journal) return fail(journal.error());
  if (auto row = journal->step(); !row) return fail(row.error());
  result.journalMode = journal->text(0);

  for (const auto& [key, value] : metadata) result.metadata.emplace_back(key, printable(value));
  for (const char* suffix : {"", "-wal", "-shm"}) {
    const std::filesystem::path file = result.path + suffix;
    std::error_code ec;
    if (std::filesystem::exists(file, ec)) result.files.emplace_back(file.string(), fileSize(file));
  }

  auto tables = namesInSchema(database, "table");
  if (!tables) return fail(tables.error());
  static const std::set<std::string, std::less<>> kBookkeeping = {"Z_METADATA", "Z_MODELCACHE",
                                                                  "Z_PRIMARYKEY"};
  for (std::string& table : *tables) {
    if (knownTables.contains(table) || kBookkeeping.contains(table) || table.starts_with("sqlite_")) continue;
    result.otherTables.push_back(std::move(table));
  }
  auto triggers = namesInSchema(database, "trigger");
  if (!triggers) return fail(triggers.error());
  result.triggers = std::move(*triggers);
  return {};
}

std::string storeHash(const Dictionary& metadata, const std::string& entity) {
  const auto hashes = metadata.find("NSStoreModelVersionHashes");
  if (hashes == metadata.end() || !hashes->second.isDictionary()) return {};
  const Value& stored = hashes->second[entity];
  return stored.isData() ? hex(stored.asData()) : std::string();
}

bool isJoinTableName(std::string_view table) {
  return table.size() > 2 && table.starts_with("Z_") && std::isdigit(static_cast<unsigned char>(table[2]));
}

}  // namespace

Expected<StoreInspection> inspectStore(SqliteStore& store, const std::string& modelSource) {
  StoreInspection result;
  result.modelSource = modelSource;
  std::set<std::string> modelTables;
  for (const auto& entity : store.model().entities()) modelTables.insert(SqliteStore::tableName(*entity));
  for (const TableSchema& table : store.schema().tables()) modelTables.insert(table.name);
  if (auto s = describeFile(store.database(), store.metadata(), modelTables, result); !s)
    return fail(s.error());

  auto rows = rowsPerEntity(store);
  if (!rows) return fail(rows.error());
  const std::map<std::string, std::int64_t>& ownRows = *rows;

  std::map<std::int64_t, std::int64_t> maxKeys;
  if (auto s = readCounters(store.database(), maxKeys, result.history); !s) return fail(s.error());

  const auto hashes = store.model().entityVersionHashes();
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
    summary.storeVersionHash = storeHash(store.metadata(), entity->name());
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
  return result;
}

Expected<StoreInspection> inspectStoreWithoutModel(Database& database, const std::string& modelSource) {
  auto metadata = SqliteStore::metadataForPersistentStoreAtPath(database.path());
  if (!metadata) return fail(metadata.error());
  auto catalog = StoreCatalog::read(database);
  if (!catalog) return fail(catalog.error());
  StoreInspection result;
  result.modelSource = modelSource;
  result.deleteRulesKnown = false;

  // Join tables of many-to-many relationships are known by their form alone.
  std::set<std::string> entityTables;
  for (const CatalogEntity& entity : catalog->entities()) entityTables.insert(catalog->tableOf(entity));
  auto tables = namesInSchema(database, "table");
  if (!tables) return fail(tables.error());
  std::set<std::string> known = entityTables;
  for (const std::string& table : *tables) {
    if (isJoinTableName(table)) known.insert(table);
  }
  if (auto s = describeFile(database, *metadata, known, result); !s) return fail(s.error());

  std::map<std::int64_t, std::int64_t> ownRows;
  for (const std::string& table : entityTables) {
    if (std::find(tables->begin(), tables->end(), table) == tables->end()) continue;
    if (auto s = countRowsPerEntityNumber(database, table, ownRows); !s) return fail(s.error());
  }
  std::map<std::int64_t, std::int64_t> maxKeys;
  if (auto s = readCounters(database, maxKeys, result.history); !s) return fail(s.error());
  for (const CatalogEntity& entity : catalog->entities()) {
    EntitySummary summary;
    summary.name = entity.name;
    if (auto it = maxKeys.find(entity.number); it != maxKeys.end()) summary.maxKey = it->second;
    const CatalogEntity* parent = entity.superNumber != 0 ? catalog->entity(entity.superNumber) : nullptr;
    if (parent != nullptr) summary.superentity = parent->name;
    summary.number = entity.number;
    summary.table = catalog->tableOf(entity);
    if (auto it = ownRows.find(entity.number); it != ownRows.end()) summary.rows = it->second;
    for (const CatalogEntity* member : catalog->hierarchy(entity)) {
      if (auto it = ownRows.find(member->number); it != ownRows.end())
        summary.rowsWithSubentities += it->second;
    }
    summary.storeVersionHash = storeHash(*metadata, entity.name);
    result.entities.push_back(std::move(summary));
  }
  std::sort(result.entities.begin(), result.entities.end(),
            [](const EntitySummary& a, const EntitySummary& b) { return a.name < b.name; });
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
  if (!inspection.deleteRulesKnown) {
    out += "Relationships and delete rules: unknown without a model (give it with --model PATH)\n";
  }
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
    if (!entity.versionHash.empty() && entity.versionHash != entity.storeVersionHash) {
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
  std::string out = fmt::format(
      "{{\"store\": {}, \"model\": {}, \"deleteRulesKnown\": {}, \"uuid\": {}, \"journalMode\": {}, "
      "\"files\": {{",
      jsonString(inspection.path), jsonString(inspection.modelSource), inspection.deleteRulesKnown,
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
        e.versionHash.empty() ? "null" : jsonString(e.versionHash),
        e.storeVersionHash.empty() ? "null" : jsonString(e.storeVersionHash));
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
