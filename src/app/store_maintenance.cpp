// Creating, marking and describing stores for the maintenance command.
#include "app/store_maintenance.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <system_error>

#include "app/report_listing.h"
#include "model/store_classes.h"

namespace tesselune {

namespace {

constexpr std::string_view kMarkAttribute = "destinedForDeletion";

std::string lower(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

void collectHierarchy(const EntityDescription& entity, std::vector<const EntityDescription*>& out) {
  out.push_back(&entity);
  for (const EntityDescription* sub : entity.subentities()) collectHierarchy(*sub, out);
}

// "Z_ENT IN (3, 4)" for the entity and its sub-entities; the numbers come from the store itself.
std::string entityCondition(const SqliteStore& store, const EntityDescription& entity) {
  std::vector<const EntityDescription*> hierarchy;
  collectHierarchy(entity, hierarchy);
  std::vector<std::int64_t> numbers;
  for (const EntityDescription* member : hierarchy) {
    if (auto number = store.entityNumber(*member)) numbers.push_back(*number);
  }
  if (numbers.empty()) return "0";
  return fmt::format("Z_ENT IN ({})", fmt::join(numbers, ", "));
}

const std::string* columnOf(const SqliteStore& store, const PropertyDescription* property) {
  if (property == nullptr) return nullptr;
  const PropertyMapping* mapping = store.schema().mapping(*property);
  return mapping == nullptr ? nullptr : &mapping->column;
}

std::string objectURI(const SqliteStore& store, const EntityDescription& entity, std::int64_t key) {
  return ManagedObjectID::permanent(entity, store.identifier(), key).URIRepresentation().absoluteString();
}

// Runs `work` in one write transaction, so that a failure leaves the store as it was.
template <class Work>
auto inTransaction(Database& database, Work&& work) -> decltype(work()) {
  if (auto begun = database.execute("BEGIN IMMEDIATE"); !begun) return fail(begun.error());
  auto result = work();
  if (!result) {
    (void)database.execute("ROLLBACK");
    return result;
  }
  if (auto committed = database.execute("COMMIT"); !committed) {
    (void)database.execute("ROLLBACK");
    return fail(committed.error());
  }
  return result;
}

std::uintmax_t fileSize(const std::filesystem::path& path) {
  std::error_code ec;
  auto size = std::filesystem::file_size(path, ec);
  return ec ? 0 : size;
}

// The names of the SQLite files directly in `folder` (by their first bytes), a few at most.
std::vector<std::string> sqliteFilesIn(const std::filesystem::path& folder) {
  static constexpr std::string_view kHeader{"SQLite format 3\0", 16};
  constexpr std::size_t kMostNamed = 3;
  constexpr std::size_t kMostLookedAt = 200;
  std::vector<std::string> names;
  std::error_code ec;
  std::size_t looked = 0;
  for (auto it = std::filesystem::directory_iterator(folder, ec);
       !ec && it != std::filesystem::directory_iterator() && looked < kMostLookedAt;
       it.increment(ec), ++looked) {
    std::error_code typeError;
    if (!it->is_regular_file(typeError)) continue;
    std::ifstream in(it->path(), std::ios::binary);
    std::string header(kHeader.size(), '\0');
    if (!in.read(header.data(), static_cast<std::streamsize>(header.size())) || header != kHeader) continue;
    names.push_back(it->path().filename().string());
  }
  std::sort(names.begin(), names.end());
  if (names.size() > kMostNamed) names.resize(kMostNamed);
  return names;
}

}  // namespace

Error maintenanceError(std::string text) {
  return Error{std::string(kMaintenanceErrorDomain), 1, std::move(text)};
}

Status checkStoreFile(const std::filesystem::path& storeFile) {
  std::error_code ec;
  if (std::filesystem::is_directory(storeFile, ec)) {
    const auto inside = sqliteFilesIn(storeFile);
    return fail(maintenanceError(fmt::format(
        "{} is a folder, not a store file: give the store file itself with --store{}.", storeFile.string(),
        inside.empty() ? "" : fmt::format(" (the folder holds {})", fmt::join(inside, ", ")))));
  }
  if (!std::filesystem::is_regular_file(storeFile, ec)) {
    return fail(maintenanceError(
        fmt::format("There is no store at {}. Make one with `tesselune-store create`.", storeFile.string())));
  }
  return {};
}

Expected<MaintenanceStore> openMaintenanceStore(const std::filesystem::path& storeFile, bool readOnly) {
  if (auto present = checkStoreFile(storeFile); !present) return fail(present.error());
  auto model = loadStoreModel();
  if (!model) return fail(model.error());
  SqliteStore::Options options;
  options.readOnly = readOnly;
  auto store = SqliteStore::open(storeFile, *model, options);
  if (!store) return fail(store.error());
  return MaintenanceStore{std::move(*model), std::move(*store)};
}

Expected<MaintenanceStore> createStore(const DataLibrary& library) {
  std::error_code ec;
  if (std::filesystem::is_directory(library.storeFile(), ec))
    return fail(checkStoreFile(library.storeFile()).error());
  if (std::filesystem::exists(library.storeFile(), ec)) {
    return fail(maintenanceError(fmt::format("A store already exists at {}.", library.storeFile().string())));
  }
  std::filesystem::create_directories(library.temporaryFolder(), ec);
  if (ec) {
    return fail(maintenanceError(
        fmt::format("The folder {} cannot be made: {}.", library.temporaryFolder().string(), ec.message())));
  }
  auto model = loadStoreModel();
  if (!model) return fail(model.error());
  auto store = SqliteStore::create(library.storeFile(), *model, SqliteStore::Options{});
  if (!store) return fail(store.error());
  return MaintenanceStore{std::move(*model), std::move(*store)};
}

std::vector<const EntityDescription*> markableEntities(const ManagedObjectModel& model) {
  std::vector<const EntityDescription*> entities;
  for (const auto& entity : model.entities()) {
    // Sub-entities inherit the attribute; marking goes by the entity that declares it.
    const bool declares = std::any_of(entity->ownProperties().begin(), entity->ownProperties().end(),
                                      [](const auto& p) { return p->name() == kMarkAttribute; });
    if (declares) entities.push_back(entity.get());
  }
  std::sort(entities.begin(), entities.end(), [](auto* a, auto* b) { return a->name() < b->name(); });
  return entities;
}

const EntityDescription* markableEntityNamed(const ManagedObjectModel& model, std::string_view name) {
  static constexpr std::pair<std::string_view, std::string_view> kShortNames[] = {
      {"chromatogram", "Chromatogram"},
      {"search", "DatabaseSearchResult"},
      {"search-group", "DatabaseSearchJoin"},
      {"collection", "DataCollection"},
  };
  std::string wanted = lower(name);
  for (const auto& [shortName, entityName] : kShortNames) {
    if (wanted == shortName) wanted = lower(entityName);
  }
  for (const EntityDescription* entity : markableEntities(model)) {
    if (lower(entity->name()) == wanted) return entity;
  }
  return nullptr;
}

const AttributeDescription* nameAttribute(const EntityDescription& entity) {
  std::string attribute = entity.name() + "Name";
  attribute[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(attribute[0])));
  auto found = entity.attributesByName().find(attribute);
  return found == entity.attributesByName().end() ? nullptr : found->second;
}

Expected<std::vector<MarkedObject>> markObjectsNamed(SqliteStore& store, const EntityDescription& entity,
                                                     std::string_view name) {
  const AttributeDescription* nameProperty = nameAttribute(entity);
  const std::string* nameColumn = columnOf(store, nameProperty);
  auto markProperty = entity.attributesByName().find(kMarkAttribute);
  if (nameColumn == nullptr || markProperty == entity.attributesByName().end()) {
    return fail(maintenanceError(fmt::format("{} objects cannot be marked by name.", entity.name())));
  }
  const std::string table = SqliteStore::tableName(entity);
  const std::string& markColumn = *columnOf(store, markProperty->second);
  const std::string where = fmt::format("{} = ? AND {}", *nameColumn, entityCondition(store, entity));
  Database& database = store.database();
  return inTransaction(database, [&]() -> Expected<std::vector<MarkedObject>> {
    auto select =
        database.prepare(fmt::format("SELECT Z_PK, Z_ENT FROM {} WHERE {} ORDER BY Z_PK", table, where));
    if (!select) return fail(select.error());
    if (auto bound = select->bind(1, Value(std::string(name))); !bound) return fail(bound.error());
    std::vector<MarkedObject> marked;
    while (true) {
      auto row = select->step();
      if (!row) return fail(row.error());
      if (!*row) break;
      const EntityDescription* actual = store.entityForNumber(select->integer(1));
      const EntityDescription& of = actual != nullptr ? *actual : entity;
      marked.push_back({of.name(), std::string(name), objectURI(store, of, select->integer(0))});
    }
    if (marked.empty()) {
      return fail(maintenanceError(fmt::format("There is no {} named \"{}\".", entity.name(), name)));
    }
    auto update = database.prepare(
        fmt::format("UPDATE {} SET {} = 1, Z_OPT = Z_OPT + 1 WHERE {}", table, markColumn, where));
    if (!update) return fail(update.error());
    if (auto bound = update->bind(1, Value(std::string(name))); !bound) return fail(bound.error());
    if (auto ran = update->run(); !ran) return fail(ran.error());
    return marked;
  });
}

Expected<MarkedObject> markObjectWithURI(SqliteStore& store, std::string_view uri) {
  auto url = Url::parse(uri);
  std::optional<ManagedObjectID> id;
  if (url) id = store.objectIDForURIRepresentation(*url);
  if (!id) {
    return fail(maintenanceError(fmt::format("\"{}\" is not the URI of an object of this store.", uri)));
  }
  const EntityDescription& entity = id->entity();
  auto markProperty = entity.attributesByName().find(kMarkAttribute);
  if (markProperty == entity.attributesByName().end()) {
    return fail(maintenanceError(fmt::format("{} objects cannot be marked.", entity.name())));
  }
  const std::string table = SqliteStore::tableName(entity);
  const std::string& markColumn = *columnOf(store, markProperty->second);
  const std::string* nameColumn = columnOf(store, nameAttribute(entity));
  auto entityNumber = store.entityNumber(entity);
  Database& database = store.database();
  return inTransaction(database, [&]() -> Expected<MarkedObject> {
    auto select = database.prepare(fmt::format("SELECT {} FROM {} WHERE Z_PK = ? AND Z_ENT = ?",
                                               nameColumn != nullptr ? *nameColumn : "NULL", table));
    if (!select) return fail(select.error());
    if (auto b = select->bind(1, Value(id->primaryKey())); !b) return fail(b.error());
    if (auto b = select->bind(2, Value(entityNumber.value_or(0))); !b) return fail(b.error());
    auto row = select->step();
    if (!row) return fail(row.error());
    if (!*row) return fail(maintenanceError(fmt::format("The store has no object {}.", uri)));
    MarkedObject marked{entity.name(), select->isNull(0) ? std::string() : select->text(0),
                        url->absoluteString()};
    auto update = database.prepare(fmt::format(
        "UPDATE {} SET {} = 1, Z_OPT = Z_OPT + 1 WHERE Z_PK = ? AND Z_ENT = ?", table, markColumn));
    if (!update) return fail(update.error());
    if (auto b = update->bind(1, Value(id->primaryKey())); !b) return fail(b.error());
    if (auto b = update->bind(2, Value(entityNumber.value_or(0))); !b) return fail(b.error());
    if (auto ran = update->run(); !ran) return fail(ran.error());
    return marked;
  });
}

Expected<StoreStatus> storeStatus(SqliteStore& store, const DataLibrary& library) {
  StoreStatus status;
  Database& database = store.database();
  const auto markable = markableEntities(store.model());
  std::vector<const EntityDescription*> entities;
  for (const auto& entity : store.model().entities()) entities.push_back(entity.get());
  std::sort(entities.begin(), entities.end(), [](auto* a, auto* b) { return a->name() < b->name(); });

  for (const EntityDescription* entity : entities) {
    auto number = store.entityNumber(*entity);
    if (!number) continue;
    const auto markProperty = entity->attributesByName().find(kMarkAttribute);
    const bool canMark = markProperty != entity->attributesByName().end();
    const std::string markCount =
        canMark ? fmt::format("SUM({} = 1)", *columnOf(store, markProperty->second)) : "0";
    auto count = database.prepare(fmt::format("SELECT COUNT(*), {} FROM {} WHERE Z_ENT = ?", markCount,
                                              SqliteStore::tableName(*entity)));
    if (!count) return fail(count.error());
    if (auto b = count->bind(1, Value(*number)); !b) return fail(b.error());
    auto row = count->step();
    if (!row) return fail(row.error());
    EntityCount entry{entity->name(), count->integer(0), std::nullopt};
    if (canMark) entry.marked = count->isNull(1) ? 0 : count->integer(1);
    status.counts.push_back(std::move(entry));
  }

  for (const EntityDescription* entity : markable) {
    const std::string* nameColumn = columnOf(store, nameAttribute(*entity));
    const std::string& markColumn = *columnOf(store, entity->attributesByName().find(kMarkAttribute)->second);
    auto select = database.prepare(
        fmt::format("SELECT Z_PK, Z_ENT, {} FROM {} WHERE {} = 1 AND {} ORDER BY Z_PK",
                    nameColumn != nullptr ? *nameColumn : "NULL", SqliteStore::tableName(*entity), markColumn,
                    entityCondition(store, *entity)));
    if (!select) return fail(select.error());
    while (true) {
      auto row = select->step();
      if (!row) return fail(row.error());
      if (!*row) break;
      const EntityDescription* actual = store.entityForNumber(select->integer(1));
      const EntityDescription& of = actual != nullptr ? *actual : *entity;
      status.marked.push_back({of.name(), select->isNull(2) ? std::string() : select->text(2),
                               objectURI(store, of, select->integer(0))});
    }
  }

  const std::string storeName = store.path().filename().string();
  for (const char* suffix : {"", "-wal", "-shm"}) {
    status.storeBytes += fileSize(store.path().string() + suffix);
  }
  status.reportFiles = reportFiles(library.temporaryFolder()).size();

  std::error_code ec;
  std::filesystem::recursive_directory_iterator it(library.folder(), ec);
  for (; !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
    const std::string name = it->path().filename().string();
    if (it.depth() == 0 && (name == library.temporaryFolder().filename() || name.starts_with(storeName))) {
      if (it->is_directory(ec)) it.disable_recursion_pending();
      continue;
    }
    std::error_code typeError;
    if (it->is_regular_file(typeError)) status.dataFolderBytes += fileSize(it->path());
  }
  return status;
}

std::string formatByteCount(std::uintmax_t bytes) {
  if (bytes < 1000) return fmt::format("{} bytes", bytes);
  static constexpr const char* kUnits[] = {"kB", "MB", "GB", "TB"};
  double value = static_cast<double>(bytes) / 1000.0;
  std::size_t unit = 0;
  // Rounded to one decimal, 999.96 would read "1000.0": move up a unit before that.
  while (value >= 999.95 && unit + 1 < std::size(kUnits)) {
    value /= 1000.0;
    ++unit;
  }
  return fmt::format("{:.1f} {}", value, kUnits[unit]);
}

std::string formatStatus(const StoreStatus& status) {
  std::string out = "Objects per entity:\n";
  std::size_t width = 0;
  for (const auto& entry : status.counts) width = std::max(width, entry.entity.size());
  for (const auto& entry : status.counts) {
    out += fmt::format("  {:<{}}  {:>9}", entry.entity, width, entry.count);
    if (entry.marked) out += fmt::format("  ({} marked)", *entry.marked);
    out += '\n';
  }
  if (status.marked.empty()) {
    out += "Marked for deletion: none\n";
  } else {
    out += fmt::format("Marked for deletion: {}\n", status.marked.size());
    for (const auto& object : status.marked) {
      out += fmt::format("  {} \"{}\" {}\n", object.entity, object.name, object.uri);
    }
  }
  out += fmt::format("Store file: {}\n", formatByteCount(status.storeBytes));
  out += fmt::format("Data folders: {}\n", formatByteCount(status.dataFolderBytes));
  out += fmt::format("Deletion reports: {}\n", status.reportFiles);
  return out;
}

}  // namespace tesselune
