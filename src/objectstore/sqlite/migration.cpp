// Lightweight migration: inferring the mapping, and copying a store into the new model's layout.

#include "objectstore/sqlite/migration.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <set>
#include <vector>

#include "foundation/property_list.h"
#include "objectstore/sqlite/sqlite_store.h"

namespace tesselune {

namespace {

Error noMapping(std::string_view what) {
  return Error(std::string(kCocoaErrorDomain), kMigrationMissingMappingModelError,
               fmt::format("Can’t find mapping model for migration: {}.", what));
}

Error migrationFailed(const std::filesystem::path& path, std::string_view what) {
  return Error(std::string(kCocoaErrorDomain), kMigrationError,
               fmt::format("The store “{}” could not be migrated: {}.", path.filename().string(), what));
}

// How a relationship keeps its keys; a change of kind cannot be inferred.
enum class LinkKind { ToOne, ToManyThroughInverse, ToManyWithoutInverse, ManyToMany };

LinkKind linkKind(const RelationshipDescription& r) {
  if (!r.isToMany()) return LinkKind::ToOne;
  if (r.inverseRelationship() == nullptr) return LinkKind::ToManyWithoutInverse;
  return r.inverseRelationship()->isToMany() ? LinkKind::ManyToMany : LinkKind::ToManyThroughInverse;
}

Status flushFile(const std::filesystem::path& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  const int result = fd < 0 ? -1 : ::fsync(fd);
  const int cause = errno;
  if (fd >= 0) ::close(fd);
  if (result == 0) return {};
  return fail(Error(
      std::string(kPosixErrorDomain), cause,
      fmt::format("The file “{}” could not be written to disk: {}.", path.string(), std::strerror(cause))));
}

// Sets the journal mode; SQLite answers the old mode instead of failing when another connection
// prevents the change.
Status setJournalMode(Database& db, std::string_view mode) {
  auto pragma = db.prepare(fmt::format("PRAGMA journal_mode = {}", mode));
  if (!pragma) return fail(pragma.error());
  auto row = pragma->step();
  if (!row) return fail(row.error());
  std::string now = *row ? pragma->text(0) : "";
  for (char& c : now) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  if (now == mode) return {};
  return fail(migrationFailed(db.path(), fmt::format("it is open elsewhere (its journal stays {})", now)));
}

void removeStoreFiles(const std::filesystem::path& path) {
  std::error_code ec;
  for (const char* suffix : {"", "-wal", "-shm", "-journal"})
    std::filesystem::remove(path.string() + suffix, ec);
}

// Refuses a migration that would leave objects behind: every source entity that holds rows of its
// own must have a destination of the same name.
Status nothingDropped(SqliteStore& source, const ManagedObjectModel& destination) {
  for (const auto& entity : source.model().entities()) {
    if (destination.entityNamed(entity->name()) != nullptr) continue;
    const std::optional<std::int64_t> number = source.entityNumber(*entity);
    if (!number) continue;
    auto count = source.database().prepare(
        fmt::format("SELECT COUNT(*) FROM {} WHERE Z_ENT = {}", SqliteStore::tableName(*entity), *number));
    if (!count) return fail(count.error());
    auto row = count->step();
    if (!row) return fail(row.error());
    if (*row && count->integer(0) > 0) {
      return fail(
          migrationFailed(source.path(), fmt::format("the new model has no entity {} for its {} objects",
                                                     entity->name(), count->integer(0))));
    }
  }
  return {};
}

// Whether the store open as `db` passes SQLite's own check.
Status checksOut(Database& db) {
  auto check = db.prepare("PRAGMA integrity_check");
  if (!check) return fail(check.error());
  auto row = check->step();
  if (!row) return fail(row.error());
  const std::string verdict = *row ? check->text(0) : "";
  if (verdict == "ok") return {};
  return fail(migrationFailed(db.path(), fmt::format("the migrated copy does not check out ({})", verdict)));
}

// A second name for the store file, beside it: the first free of "<store>.backup", ".backup-2", ….
Expected<std::filesystem::path> linkBackup(const std::filesystem::path& path) {
  for (int n = 1; n <= 100; ++n) {
    const std::filesystem::path backup = path.string() + ".backup" + (n == 1 ? "" : "-" + std::to_string(n));
    if (::link(path.c_str(), backup.c_str()) == 0) return backup;
    if (errno != EEXIST)
      return fail(migrationFailed(path, fmt::format("no backup: {}", std::strerror(errno))));
  }
  return fail(migrationFailed(path, "no backup: every backup name is taken"));
}

// Copies the objects of the source store (attached as "old") into the new store's tables.
class StoreCopier {
 public:
  StoreCopier(SqliteStore& source, SqliteStore& target, const MappingModel& mapping)
      : source_(source), target_(target), mapping_(mapping) {}

  Status copy() {
    for (const auto& entity : target_.model().entities()) {
      const EntityDescription* from = mapping_.sourceEntity(*entity);
      if (from == nullptr) continue;
      if (auto s = copyRows(*entity, *from); !s) return s;
    }
    if (auto s = copyJoinTables(); !s) return s;
    return copyKeyCounters();
  }

 private:
  std::int64_t sourceNumber(const EntityDescription& e) const { return *source_.entityNumber(e); }
  std::int64_t targetNumber(const EntityDescription& e) const { return *target_.entityNumber(e); }

  // CASE expression that turns a source entity number in `column` into the target's.
  std::string entityNumberCase(const std::string& column) const {
    std::string sql = fmt::format("CASE {}", column);
    for (const auto& entity : target_.model().entities()) {
      if (const EntityDescription* from = mapping_.sourceEntity(*entity)) {
        sql += fmt::format(" WHEN {} THEN {}", sourceNumber(*from), targetNumber(*entity));
      }
    }
    return sql + " END";
  }

  Status copyRows(const EntityDescription& entity, const EntityDescription& from) {
    const StoreSchema& target = target_.schema();
    const StoreSchema& source = source_.schema();
    std::vector<std::string> columns{"Z_PK", "Z_ENT", "Z_OPT"};
    std::vector<std::string> values{"Z_PK", std::to_string(targetNumber(entity)), "Z_OPT"};
    std::vector<Value> bindings;
    auto set = [&](const std::string& column, std::string value) {
      columns.push_back(column);
      values.push_back(std::move(value));
    };

    for (const auto& [name, property] : entity.propertiesByName()) {
      if (property->isTransient()) continue;
      const PropertyMapping* to = target.mapping(*property);
      const PropertyDescription* sourceProperty = mapping_.sourceProperty(*property);
      const PropertyMapping* was = sourceProperty ? source.mapping(*sourceProperty) : nullptr;
      if (to == nullptr) continue;
      if (property->isAttribute()) {
        const auto& attribute = static_cast<const AttributeDescription&>(*property);
        std::string value = was ? was->column : "NULL";
        if (!attribute.isOptional()) {
          if (!attribute.defaultValue().isNull()) {
            value = fmt::format("COALESCE({}, ?)", value);
            bindings.push_back(attribute.defaultValue());
          } else if (auto s = requireValues(from, attribute, was); !s) {
            return s;
          }
        }
        set(to->column, std::move(value));
      } else if (to->kind == PropertyMapping::Kind::ToOne) {
        const auto& relationship = static_cast<const RelationshipDescription&>(*property);
        set(to->column, was ? was->column : "NULL");
        if (!to->entityColumn.empty()) {
          if (was && !was->entityColumn.empty()) {
            set(to->entityColumn, entityNumberCase(was->entityColumn));
          } else if (was) {
            // The old destination had no sub-entities: every key names an object of that entity.
            const EntityDescription* old =
                static_cast<const RelationshipDescription*>(sourceProperty)->destinationEntity();
            const EntityDescription* now = relationship.destinationEntity();
            std::int64_t number = targetNumber(*now);
            for (const auto& candidate : target_.model().entities()) {
              if (mapping_.sourceEntity(*candidate) == old) number = targetNumber(*candidate);
            }
            set(to->entityColumn,
                fmt::format("CASE WHEN {} IS NULL THEN NULL ELSE {} END", was->column, number));
          }
        }
        if (!to->orderColumn.empty() && was && !was->orderColumn.empty())
          set(to->orderColumn, was->orderColumn);
      }
    }

    // Hidden keys of to-many relationships without inverse live in the rows they point at.
    const std::string sourceTable = SqliteStore::tableName(from);
    for (const auto& owner : target_.model().entities()) {
      for (const auto& property : owner->ownProperties()) {
        const PropertyMapping* to = target.mapping(*property);
        if (to == nullptr || to->kind != PropertyMapping::Kind::ToManyWithoutInverse) continue;
        const auto& relationship = static_cast<const RelationshipDescription&>(*property);
        if (!entity.isKindOfEntity(*relationship.destinationEntity())) continue;
        const PropertyDescription* sourceProperty = mapping_.sourceProperty(*property);
        const PropertyMapping* was = sourceProperty ? source.mapping(*sourceProperty) : nullptr;
        if (was != nullptr && was->table == sourceTable) set(to->column, was->column);
      }
    }

    const std::string sql = fmt::format("INSERT INTO main.{} ({}) SELECT {} FROM old.{} WHERE Z_ENT = {}",
                                        SqliteStore::tableName(entity), fmt::join(columns, ", "),
                                        fmt::join(values, ", "), sourceTable, sourceNumber(from));
    auto insert = target_.database().prepare(sql);
    if (!insert) return fail(insert.error());
    for (std::size_t i = 0; i < bindings.size(); ++i) {
      if (auto s = insert->bind(static_cast<int>(i) + 1, bindings[i]); !s) return s;
    }
    return insert->run();
  }

  // A required attribute without a default can take only rows that all have a value.
  Status requireValues(const EntityDescription& from, const AttributeDescription& attribute,
                       const PropertyMapping* was) {
    std::string sql = fmt::format("SELECT COUNT(*) FROM old.{} WHERE Z_ENT = {}",
                                  SqliteStore::tableName(from), sourceNumber(from));
    if (was != nullptr) sql += fmt::format(" AND {} IS NULL", was->column);
    auto count = target_.database().prepare(sql);
    if (!count) return fail(count.error());
    auto row = count->step();
    if (!row) return fail(row.error());
    if (count->integer(0) == 0) return {};
    return fail(migrationFailed(
        source_.path(), fmt::format("{} objects of {} have no value for the required attribute {}, which has "
                                    "no default",
                                    count->integer(0), from.name(), attribute.name())));
  }

  Status copyJoinTables() {
    std::set<std::string> done;
    for (const auto& owner : target_.model().entities()) {
      for (const auto& property : owner->ownProperties()) {
        const PropertyMapping* to = target_.schema().mapping(*property);
        if (to == nullptr || to->kind != PropertyMapping::Kind::ManyToMany || done.contains(to->table))
          continue;
        const PropertyDescription* sourceProperty = mapping_.sourceProperty(*property);
        const PropertyMapping* was = sourceProperty ? source_.schema().mapping(*sourceProperty) : nullptr;
        if (was == nullptr) continue;
        done.insert(to->table);
        const std::string sql =
            fmt::format("INSERT INTO main.{} ({}, {}) SELECT {}, {} FROM old.{}", to->table, to->column,
                        to->otherColumn, was->column, was->otherColumn, was->table);
        if (auto s = target_.database().execute(sql); !s) return s;
      }
    }
    return {};
  }

  // Keys keep growing from where the old store left them, so that no key is handed out twice.
  Status copyKeyCounters() {
    auto update = target_.database().prepare(
        "UPDATE main.Z_PRIMARYKEY SET Z_MAX = MAX(Z_MAX, IFNULL((SELECT Z_MAX FROM old.Z_PRIMARYKEY WHERE "
        "Z_NAME = ?), 0)) WHERE Z_NAME = ?");
    if (!update) return fail(update.error());
    for (const auto& entity : target_.model().entities()) {
      const EntityDescription* from = mapping_.sourceEntity(*entity);
      if (from == nullptr) continue;
      if (auto s = update->bind(1, Value(from->rootEntity()->name())); !s) return s;
      if (auto s = update->bind(2, Value(entity->rootEntity()->name())); !s) return s;
      if (auto s = update->run(); !s) return s;
      if (auto s = update->reset(); !s) return s;
    }
    for (const auto& entity : target_.model().entities()) {
      if (entity->superentity() != nullptr) continue;
      const std::string table = SqliteStore::tableName(*entity);
      auto s = target_.database().execute(fmt::format(
          "UPDATE main.Z_PRIMARYKEY SET Z_MAX = MAX(Z_MAX, IFNULL((SELECT MAX(Z_PK) FROM main.{}), 0)) "
          "WHERE Z_ENT = {}",
          table, targetNumber(*entity)));
      if (!s) return s;
    }
    return {};
  }

  SqliteStore& source_;
  SqliteStore& target_;
  const MappingModel& mapping_;
};

// The new store keeps the old one's UUID and metadata, with the new model's hashes.
Status carryMetadata(SqliteStore& source, SqliteStore& target) {
  Dictionary metadata = source.metadata();
  metadata.erase("NSStoreUUID");
  for (const char* key : {"NSStoreModelVersionHashes", "NSStoreModelVersionIdentifiers"}) {
    auto value = target.metadata().find(key);
    if (value != target.metadata().end()) metadata.insert_or_assign(key, value->second);
  }
  auto plist = dataWithPropertyList(Value(std::move(metadata)));
  if (!plist) return fail(plist.error());
  auto update =
      target.database().prepare("UPDATE main.Z_METADATA SET Z_UUID = ?, Z_PLIST = ? WHERE Z_VERSION = 1");
  if (!update) return fail(update.error());
  if (auto s = update->bind(1, Value(source.identifier().string())); !s) return s;
  if (auto s = update->bind(2, Value(*plist)); !s) return s;
  return update->run();
}

Status countsAgree(SqliteStore& source, SqliteStore& target, const MappingModel& mapping) {
  for (const auto& entity : target.model().entities()) {
    const EntityDescription* from = mapping.sourceEntity(*entity);
    if (from == nullptr) continue;
    auto count =
        target.database().prepare(fmt::format("SELECT (SELECT COUNT(*) FROM main.{} WHERE Z_ENT = {}), "
                                              "(SELECT COUNT(*) FROM old.{} WHERE Z_ENT = {})",
                                              SqliteStore::tableName(*entity), *target.entityNumber(*entity),
                                              SqliteStore::tableName(*from), *source.entityNumber(*from)));
    if (!count) return fail(count.error());
    auto row = count->step();
    if (!row) return fail(row.error());
    if (count->integer(0) != count->integer(1)) {
      return fail(
          migrationFailed(source.path(), fmt::format("{} of {} objects of {} were copied", count->integer(0),
                                                     count->integer(1), entity->name())));
    }
  }
  return {};
}

}  // namespace

Expected<MappingModel> MappingModel::inferredMappingModelForSourceModel(
    const ManagedObjectModel& source, const ManagedObjectModel& destination) {
  MappingModel mapping;
  for (const auto& entity : destination.entities()) {
    const EntityDescription* from = source.entityNamed(entity->name());
    if (from == nullptr) continue;
    mapping.entities_[entity.get()] = from;
    for (const auto& [name, property] : entity->propertiesByName()) {
      if (property->isTransient()) continue;
      auto found = from->propertiesByName().find(name);
      if (found == from->propertiesByName().end() || found->second->isTransient()) continue;
      const PropertyDescription* was = found->second;
      const std::string where = fmt::format("{}.{}", entity->name(), name);
      if (property->isAttribute() != was->isAttribute()) {
        return fail(noMapping(fmt::format("{} changes between attribute and relationship", where)));
      }
      if (property->isAttribute()) {
        const auto& now = static_cast<const AttributeDescription&>(*property);
        const auto& old = static_cast<const AttributeDescription&>(*was);
        if (now.attributeType() != old.attributeType()) {
          return fail(noMapping(fmt::format("the type of {} changes from {} to {}", where,
                                            static_cast<int>(old.attributeType()),
                                            static_cast<int>(now.attributeType()))));
        }
      } else {
        const auto& now = static_cast<const RelationshipDescription&>(*property);
        const auto& old = static_cast<const RelationshipDescription&>(*was);
        if (linkKind(now) != linkKind(old)) {
          return fail(
              noMapping(fmt::format("{} changes how it links objects (to-one, to-many, inverse)", where)));
        }
        if (now.destinationEntityName() != old.destinationEntityName()) {
          return fail(noMapping(fmt::format("the destination of {} changes from {} to {}", where,
                                            old.destinationEntityName(), now.destinationEntityName())));
        }
      }
      mapping.properties_[property] = was;
    }
  }
  // Objects of one new table must come from one old table, or their keys could collide.
  for (const auto& entity : destination.entities()) {
    if (entity->superentity() != nullptr) continue;
    std::set<std::string> roots;
    for (const auto& member : destination.entities()) {
      const EntityDescription* from = mapping.sourceEntity(*member);
      if (from != nullptr && member->rootEntity() == entity.get()) roots.insert(from->rootEntity()->name());
    }
    if (roots.size() > 1) {
      return fail(noMapping(
          fmt::format("the hierarchy of {} joins objects of {}", entity->name(), fmt::join(roots, " and "))));
    }
  }
  return mapping;
}

const EntityDescription* MappingModel::sourceEntity(const EntityDescription& destination) const {
  auto found = entities_.find(&destination);
  return found == entities_.end() ? nullptr : found->second;
}

const PropertyDescription* MappingModel::sourceProperty(const PropertyDescription& destination) const {
  auto found = properties_.find(&destination);
  return found == properties_.end() ? nullptr : found->second;
}

Status migrateStore(const std::filesystem::path& path, std::shared_ptr<const ManagedObjectModel> source,
                    std::shared_ptr<const ManagedObjectModel> destination,
                    std::chrono::milliseconds busyTimeout) {
  auto mapping = MappingModel::inferredMappingModelForSourceModel(*source, *destination);
  if (!mapping) return fail(mapping.error());
  auto old = SqliteStore::open(path, source, {.readOnly = false, .busyTimeout = busyTimeout});
  if (!old) return fail(old.error());
  if (auto s = nothingDropped(**old, *destination); !s) return s;

  // A leftover of an interrupted migration is only ever an incomplete copy.
  const std::filesystem::path copy = path.string() + ".migrating";
  removeStoreFiles(copy);
  auto fresh = SqliteStore::create(copy, destination, {.readOnly = false, .busyTimeout = busyTimeout});
  if (!fresh) return fail(fresh.error());

  auto build = [&]() -> Status {
    Database& db = (*fresh)->database();
    auto attach = db.prepare("ATTACH DATABASE ? AS old");
    if (!attach) return fail(attach.error());
    if (auto s = attach->bind(1, Value(path.string())); !s) return s;
    if (auto s = attach->run(); !s) return s;
    attach = Statement();
    if (auto s = db.execute("BEGIN EXCLUSIVE"); !s) return s;
    Status copied = StoreCopier(**old, **fresh, *mapping).copy();
    if (copied) copied = carryMetadata(**old, **fresh);
    if (copied) copied = countsAgree(**old, **fresh, *mapping);
    if (copied) copied = db.execute("COMMIT");
    if (copied) copied = checksOut(db);
    if (!copied) (void)db.execute("ROLLBACK");
    (void)db.execute("DETACH DATABASE old");
    if (!copied) return copied;
    // Without a write-ahead log the copy is one file that can take the store's place.
    return setJournalMode(db, "DELETE");
  };
  if (auto s = build(); !s) {
    fresh->reset();
    removeStoreFiles(copy);
    return s;
  }
  fresh->reset();

  // The old store folds its log into the file and drops it; this fails while another process has
  // the store open, which must not happen during a migration.
  if (auto s = setJournalMode((*old)->database(), "DELETE"); !s) {
    removeStoreFiles(copy);
    return s;
  }
  old->reset();
  if (auto s = flushFile(copy); !s) return s;

  // The old file keeps a second name until the new one has taken its place and opens as a store of
  // the new model; a crash in between leaves both, each whole.
  const std::filesystem::path directory = path.parent_path().empty() ? "." : path.parent_path();
  auto backup = linkBackup(path);
  if (!backup) {
    removeStoreFiles(copy);
    return fail(backup.error());
  }
  std::error_code ec;
  std::filesystem::rename(copy, path, ec);
  if (ec) {
    removeStoreFiles(copy);
    std::filesystem::remove(*backup, ec);
    return fail(migrationFailed(path, ec.message()));
  }
  if (auto s = flushFile(directory); !s) return s;

  auto settle = [&]() -> Status {
    // Back to the write-ahead log the main application expects.
    {
      auto reopened = Database::open(path, Database::Mode::ReadWrite, busyTimeout);
      if (!reopened) return fail(reopened.error());
      if (auto s = checksOut(**reopened); !s) return s;
      if (auto s = setJournalMode(**reopened, "WAL"); !s) return s;
    }
    auto opened = SqliteStore::open(path, destination, {.readOnly = true, .busyTimeout = busyTimeout});
    if (!opened) return fail(opened.error());
    return {};
  };
  if (Status settled = settle(); !settled) {
    // The old store comes back; the new one is dropped with its log.
    std::filesystem::remove(path.string() + "-wal", ec);
    std::filesystem::remove(path.string() + "-shm", ec);
    std::filesystem::rename(*backup, path, ec);
    (void)flushFile(directory);
    return settled;
  }
  std::filesystem::remove(*backup, ec);
  return flushFile(directory);
}

}  // namespace tesselune
