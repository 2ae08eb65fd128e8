// Batch deletes: the plan of temporary triggers that carries out the delete rules, and the one
// transaction that runs a request.

#include "objectstore/sqlite/batch_delete.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <deque>
#include <functional>
#include <iterator>
#include <limits>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>

namespace tesselune {

namespace {

// Temporary objects of a request. Entity tables are "Z" + a name starting with a letter, so these
// never clash with them.
constexpr std::string_view kRowsTable = "Z_BATCHDELETE_ROWS";
constexpr std::string_view kTriggerPrefix = "Z_BATCHDELETE_TRIGGER_";

Error coreDataError(std::string text) {
  return Error(std::string(kCocoaErrorDomain), kCoreDataError, std::move(text));
}

std::string sqlLiteral(std::string_view text) {
  std::string out = "'";
  for (char c : text) {
    out.push_back(c);
    if (c == '\'') out.push_back('\'');
  }
  out.push_back('\'');
  return out;
}

void addHierarchy(const EntityDescription& entity, std::vector<const EntityDescription*>& out) {
  out.push_back(&entity);
  for (const EntityDescription* sub : entity.subentities()) addHierarchy(*sub, out);
}

std::string entityNumbers(const SqliteStore& store, const EntityDescription& entity) {
  std::vector<const EntityDescription*> members;
  addHierarchy(entity, members);
  std::vector<std::int64_t> numbers;
  for (const EntityDescription* member : members) {
    if (auto number = store.entityNumber(*member)) numbers.push_back(*number);
  }
  return fmt::format("{}", fmt::join(numbers, ", "));
}

bool isMandatoryToOne(const RelationshipDescription* r) {
  return r != nullptr && !r->isToMany() && !r->isOptional();
}

// What a request does besides deleting its own rows.
struct TriggerPlan {
  std::vector<std::string> names;
  std::vector<std::string> createSql;
  // The RAISE texts of nullifies that would empty a mandatory inverse.
  std::vector<std::string> mandatoryTexts;
  // The tables whose rows the request may delete.
  std::set<std::string> tables;
};

class TriggerPlanner {
 public:
  TriggerPlanner(const SqliteStore& store, const EntityDescription& requested)
      : store_(store), requested_(requested), logsHistory_(store.history() != nullptr) {}

  // Refuses rules a batch delete cannot honour before anything runs; otherwise one trigger per
  // relationship with a rule, firing only for the reached entities of its table (a table holds a
  // whole hierarchy, of which only part may be reached).
  Expected<TriggerPlan> plan() {
    reach(requested_);
    while (!pending_.empty()) {
      const EntityDescription* entity = pending_.front();
      pending_.pop_front();
      for (const auto& [name, r] : entity->relationshipsByName()) {
        if (r->isTransient() || r->destinationEntity() == nullptr) continue;
        if (auto s = check(*entity, *r); !s) return fail(s.error());
        if (r->deleteRule() == DeleteRule::NoAction) continue;
        if (r->deleteRule() == DeleteRule::Cascade) reach(*r->destinationEntity());
        auto [it, added] = firing_.try_emplace(r);
        if (added) order_.push_back(r);
        if (auto number = store_.entityNumber(*entity)) it->second.push_back(*number);
      }
    }
    TriggerPlan plan;
    for (const EntityDescription* entity : reached_) plan.tables.insert(SqliteStore::tableName(*entity));
    for (const RelationshipDescription* r : order_) {
      std::vector<std::string> body = statements(*r, plan);
      if (body.empty()) continue;
      const std::string name = fmt::format("{}{}", kTriggerPrefix, plan.names.size() + 1);
      plan.createSql.push_back(fmt::format(
          "CREATE TEMP TRIGGER {} AFTER DELETE ON {} FOR EACH ROW WHEN OLD.Z_ENT IN ({}) BEGIN {}; END", name,
          SqliteStore::tableName(*r->entity()), fmt::join(firing_[r], ", "), fmt::join(body, "; ")));
      plan.names.push_back(name);
    }
    return plan;
  }

 private:
  void reach(const EntityDescription& entity) {
    std::vector<const EntityDescription*> members;
    addHierarchy(entity, members);
    for (const EntityDescription* member : members) {
      if (reached_.insert(member).second) pending_.push_back(member);
    }
  }

  Status check(const EntityDescription& entity, const RelationshipDescription& r) const {
    const bool manyToMany =
        r.isToMany() && r.inverseRelationship() != nullptr && r.inverseRelationship()->isToMany();
    if (r.deleteRule() == DeleteRule::Deny) {
      return fail(coreDataError(
          fmt::format("A batch delete of {} cannot honour the deny rule of the relationship “{}” of {}.",
                      requested_.name(), r.name(), entity.name())));
    }
    if (manyToMany && r.deleteRule() != DeleteRule::Nullify && r.deleteRule() != DeleteRule::Cascade) {
      return fail(coreDataError(
          fmt::format("A batch delete of {} cannot honour the many-to-many relationship “{}” of {}: only "
                      "nullify and cascade rules are supported.",
                      requested_.name(), r.name(), entity.name())));
    }
    return {};
  }

  // The trigger body for one relationship of a deleted row (OLD).
  std::vector<std::string> statements(const RelationshipDescription& r, TriggerPlan& plan) const {
    const PropertyMapping* m = store_.schema().mapping(r);
    if (m == nullptr) return {};
    const bool cascade = r.deleteRule() == DeleteRule::Cascade;
    const std::string destination = SqliteStore::tableName(*r.destinationEntity());
    // Clears the key (and its entity-number and order columns) that points at the deleted row,
    // unless that key is a mandatory inverse: then the whole request fails.
    auto nullify = [&](const std::string& table, const PropertyMapping& key) -> std::string {
      if (isMandatoryToOne(r.inverseRelationship())) {
        const RelationshipDescription& inverse = *r.inverseRelationship();
        std::string text = fmt::format(
            "A batch delete of {} would nullify the mandatory relationship “{}” of {} (the relationship "
            "“{}” of {} has the nullify rule).",
            requested_.name(), inverse.name(), inverse.entity()->name(), r.name(), r.entity()->name());
        std::string sql =
            fmt::format("SELECT RAISE(ABORT, {}) WHERE EXISTS (SELECT 1 FROM {} WHERE {} = OLD.Z_PK)",
                        sqlLiteral(text), table, key.column);
        plan.mandatoryTexts.push_back(std::move(text));
        return sql;
      }
      std::string set = key.column + " = NULL";
      for (const std::string* column : {&key.entityColumn, &key.orderColumn}) {
        if (!column->empty()) set += ", " + *column + " = NULL";
      }
      std::string update =
          fmt::format("UPDATE {} SET {}, Z_OPT = Z_OPT + 1 WHERE {} = OLD.Z_PK", table, set, key.column);
      // The key is the inverse's: a hidden key of a relationship without inverse is no property of
      // the rows that hold it, so clearing it changes none of their properties.
      if (!logsHistory_ || r.inverseRelationship() == nullptr) return update;
      return HistoryWriter::nullifyLogSql(table, key.column, r.inverseRelationship()->name()) + "; " + update;
    };

    switch (m->kind) {
      case PropertyMapping::Kind::ToOne: {
        if (cascade) return {fmt::format("DELETE FROM {} WHERE Z_PK = OLD.{}", destination, m->column)};
        // A to-many inverse lives in the deleted row itself; only a one-to-one inverse has a key to clear.
        const RelationshipDescription* inverse = r.inverseRelationship();
        if (inverse == nullptr || inverse->isToMany()) return {};
        const PropertyMapping* key = store_.schema().mapping(*inverse);
        if (key == nullptr) return {};
        return {nullify(key->table, *key)};
      }
      case PropertyMapping::Kind::ToManyThroughInverse:
      case PropertyMapping::Kind::ToManyWithoutInverse:
        if (cascade) return {fmt::format("DELETE FROM {} WHERE {} = OLD.Z_PK", m->table, m->column)};
        return {nullify(m->table, *m)};
      case PropertyMapping::Kind::ManyToMany: {
        // A self-inverse pair keeps each link once, with either side in either column.
        const bool reflexive = r.inverseRelationship() == &r;
        std::vector<std::string> out;
        if (cascade) {
          std::string others =
              fmt::format("SELECT {} FROM {} WHERE {} = OLD.Z_PK", m->otherColumn, m->table, m->column);
          if (reflexive) {
            others += fmt::format(" UNION SELECT {} FROM {} WHERE {} = OLD.Z_PK", m->column, m->table,
                                  m->otherColumn);
          }
          out.push_back(fmt::format("DELETE FROM {} WHERE Z_PK IN ({})", destination, others));
        }
        out.push_back(fmt::format("DELETE FROM {} WHERE {} = OLD.Z_PK", m->table, m->column));
        if (reflexive)
          out.push_back(fmt::format("DELETE FROM {} WHERE {} = OLD.Z_PK", m->table, m->otherColumn));
        return out;
      }
      case PropertyMapping::Kind::Attribute:
        break;
    }
    return {};
  }

  const SqliteStore& store_;
  const EntityDescription& requested_;
  const bool logsHistory_;
  std::set<const EntityDescription*> reached_;
  std::deque<const EntityDescription*> pending_;
  std::map<const RelationshipDescription*, std::vector<std::int64_t>> firing_;
  std::vector<const RelationshipDescription*> order_;
};

Expected<bool> recursiveTriggers(Database& db) {
  auto statement = db.prepare("PRAGMA recursive_triggers");
  if (!statement) return fail(statement.error());
  auto row = statement->step();
  if (!row) return fail(row.error());
  return *row && statement->integer(0) != 0;
}

Error cancelledError(const EntityDescription& entity) {
  return Error(std::string(kCocoaErrorDomain), kUserCancelledError,
               fmt::format("The batch delete of {} was cancelled; nothing was deleted.", entity.name()));
}

struct Chunking {
  Progress* progress = nullptr;
  std::int64_t rowsPerChunk = kBatchDeleteRowsPerChunk;

  bool cancelled() const { return progress != nullptr && progress->isCancelled(); }
};

// The deletion itself, inside the request's transaction.
Expected<BatchDeleteResult> deleteRows(SqliteStore& store, const EntityDescription& entity,
                                       const RowSelection& rows, BatchDeleteRequestResultType type,
                                       const Chunking& chunking) {
  Database& db = store.database();
  const std::string table = "main." + SqliteStore::tableName(entity);
  // Rows of other entities of the table stay, whatever the selection yields.
  std::string where = fmt::format("Z_PK IN ({})", rows.sql);
  if (&entity != entity.rootEntity())
    where += fmt::format(" AND Z_ENT IN ({})", entityNumbers(store, entity));

  // The selection runs once: deleting would shift a fetch window, and the chunks walk these keys in
  // order. Nothing but this function writes the table, so its row count stays the total.
  if (auto s = db.execute(
          fmt::format("CREATE TEMP TABLE {} (Z_PK INTEGER PRIMARY KEY, Z_ENT INTEGER)", kRowsTable));
      !s)
    return fail(s.error());
  if (auto s = db.run(
          fmt::format("INSERT INTO temp.{} SELECT Z_PK, Z_ENT FROM {} WHERE {}", kRowsTable, table, where),
          rows.bindings);
      !s)
    return fail(s.error());
  const std::int64_t total = sqlite3_changes64(db.handle());
  if (chunking.progress != nullptr) {
    chunking.progress->setTotalUnitCount(total);
    chunking.progress->setCompletedUnitCount(0);
  }

  BatchDeleteResult result;
  result.status = true;
  if (type == BatchDeleteRequestResultType::ResultTypeObjectIDs) {
    auto select = db.prepare(fmt::format("SELECT Z_PK, Z_ENT FROM temp.{}", kRowsTable));
    if (!select) return fail(select.error());
    for (;;) {
      auto row = select->step();
      if (!row) return fail(row.error());
      if (!*row) break;
      const EntityDescription* actual = store.entityForNumber(select->integer(1));
      result.objectIDs.push_back(
          ManagedObjectID::permanent(actual ? *actual : entity, store.identifier(), select->integer(0)));
    }
  }

  // Each chunk is the next rowsPerChunk keys, from `low` to the key found at that offset. A row a
  // cascade took already is skipped by its chunk's DELETE, and not counted.
  auto upper = db.prepare(
      fmt::format("SELECT Z_PK FROM temp.{} WHERE Z_PK >= ?1 ORDER BY Z_PK LIMIT 1 OFFSET ?2", kRowsTable));
  if (!upper) return fail(upper.error());
  auto remove = db.prepare(
      fmt::format("DELETE FROM {} WHERE Z_PK IN (SELECT Z_PK FROM temp.{} WHERE Z_PK >= ?1 AND Z_PK <= ?2)",
                  table, kRowsTable));
  if (!remove) return fail(remove.error());
  std::int64_t low = std::numeric_limits<std::int64_t>::min();
  for (std::int64_t done = 0; done < total;) {
    if (chunking.cancelled()) return fail(cancelledError(entity));
    std::int64_t high = std::numeric_limits<std::int64_t>::max();
    std::int64_t taken = total - done;
    if (auto s = upper->bind(1, Value(low)); !s) return fail(s.error());
    if (auto s = upper->bind(2, Value(chunking.rowsPerChunk - 1)); !s) return fail(s.error());
    auto found = upper->step();
    if (!found) return fail(found.error());
    if (*found) {
      high = upper->integer(0);
      taken = chunking.rowsPerChunk;
    }
    if (auto s = upper->reset(); !s) return fail(s.error());

    if (auto s = remove->bind(1, Value(low)); !s) return fail(s.error());
    if (auto s = remove->bind(2, Value(high)); !s) return fail(s.error());
    if (auto s = remove->run(); !s) return fail(s.error());
    // Counts the statement's own rows; rows deleted by the triggers are not included.
    result.count += sqlite3_changes64(db.handle());
    if (auto s = remove->reset(); !s) return fail(s.error());

    done += taken;
    if (chunking.progress != nullptr) chunking.progress->setCompletedUnitCount(done);
    if (high == std::numeric_limits<std::int64_t>::max()) break;
    low = high + 1;
  }
  // A cancellation that comes after the last chunk still undoes the request.
  if (chunking.cancelled()) return fail(cancelledError(entity));
  return result;
}

// Deletes rows by explicit keys, chunk by chunk; keys of rows that are gone are skipped. Its SQL
// depends only on the entity, so the statements are the connection's kept ones: a request of a
// thousand IDs would otherwise spend more on preparing them than on the DELETE. A kept DELETE sees
// the request's triggers, since SQLite prepares it again when the temporary schema has changed.
Expected<BatchDeleteResult> deleteKeys(SqliteStore& store, const EntityDescription& entity,
                                       const std::vector<std::int64_t>& keys,
                                       BatchDeleteRequestResultType type, const Chunking& chunking) {
  Database& db = store.database();
  std::string where = "Z_PK IN (SELECT value FROM json_each(?1))";
  if (&entity != entity.rootEntity())
    where += fmt::format(" AND Z_ENT IN ({})", entityNumbers(store, entity));
  const std::string table = "main." + SqliteStore::tableName(entity);
  std::optional<CachedStatement> select;
  if (type == BatchDeleteRequestResultType::ResultTypeObjectIDs) {
    auto prepared = db.cached(fmt::format("SELECT Z_PK, Z_ENT FROM {} WHERE {} ORDER BY Z_PK", table, where));
    if (!prepared) return fail(prepared.error());
    select.emplace(std::move(*prepared));
  }
  auto cachedRemove = db.cached(fmt::format("DELETE FROM {} WHERE {}", table, where));
  if (!cachedRemove) return fail(cachedRemove.error());
  Statement& remove = **cachedRemove;
  if (chunking.progress != nullptr) {
    chunking.progress->setTotalUnitCount(static_cast<std::int64_t>(keys.size()));
    chunking.progress->setCompletedUnitCount(0);
  }
  BatchDeleteResult result;
  result.status = true;
  const auto chunk = static_cast<std::size_t>(chunking.rowsPerChunk);
  std::string json;
  for (std::size_t first = 0; first < keys.size(); first += chunk) {
    if (chunking.cancelled()) return fail(cancelledError(entity));
    const std::size_t last = std::min(keys.size(), first + chunk);
    json.assign(1, '[');
    for (std::size_t i = first; i < last; ++i) {
      if (i > first) json += ',';
      fmt::format_to(std::back_inserter(json), "{}", keys[i]);
    }
    json += ']';
    if (select) {
      if (auto s = (*select)->bind(1, Value(json)); !s) return fail(s.error());
      for (;;) {
        auto row = (*select)->step();
        if (!row) return fail(row.error());
        if (!*row) break;
        const EntityDescription* actual = store.entityForNumber((*select)->integer(1));
        result.objectIDs.push_back(
            ManagedObjectID::permanent(actual ? *actual : entity, store.identifier(), (*select)->integer(0)));
      }
      if (auto s = (*select)->reset(); !s) return fail(s.error());
    }
    if (auto s = remove.bind(1, Value(json)); !s) return fail(s.error());
    if (auto s = remove.run(); !s) return fail(s.error());
    result.count += sqlite3_changes64(db.handle());
    if (auto s = remove.reset(); !s) return fail(s.error());
    if (chunking.progress != nullptr)
      chunking.progress->setCompletedUnitCount(static_cast<std::int64_t>(last));
  }
  if (chunking.cancelled()) return fail(cancelledError(entity));
  return result;
}

// Temporary tables in memory would make the key table grow with the request. Switches the
// connection to temporary files when they would be in memory, and returns the setting to restore
// afterwards; nothing when the connection is fine as it is (or SQLite was built to keep them in
// memory whatever the connection says).
Expected<std::optional<std::int64_t>> useTemporaryFiles(Database& db) {
  auto statement = db.prepare("PRAGMA temp_store");
  if (!statement) return fail(statement.error());
  auto row = statement->step();
  if (!row) return fail(row.error());
  const std::int64_t setting = *row ? statement->integer(0) : 0;
  *statement = Statement();
  // 0 default, 1 files, 2 memory; SQLite's build decides what the default is and may override.
  const bool defaultIsMemory = sqlite3_compileoption_used("TEMP_STORE=2") != 0;
  const bool alwaysMemory = sqlite3_compileoption_used("TEMP_STORE=3") != 0;
  const bool neverMemory = sqlite3_compileoption_used("TEMP_STORE=0") != 0;
  const bool inMemory = setting == 2 || (setting == 0 && defaultIsMemory);
  if (!inMemory || alwaysMemory || neverMemory) return std::optional<std::int64_t>();
  if (auto s = db.execute("PRAGMA temp_store = FILE"); !s) return fail(s.error());
  return std::optional<std::int64_t>(setting);
}

// Runs fixed SQL (BEGIN, COMMIT) through the connection's kept statements.
Status runCached(Database& db, std::string_view sql) {
  auto statement = db.cached(sql);
  if (!statement) return fail(statement.error());
  return (*statement)->run();
}

// Runs a request in one exclusive transaction with recursive triggers on (cascades through a tree
// of one entity), and leaves no temporary object behind, whether it succeeds or fails. Settings are
// read and changed only when the request needs them: recursive_triggers when it has triggers,
// temp_store when its work fills the key table (`usesRowsTable`) or the history's logs. In a store
// that keeps history, the logs are recorded as one transaction before the request commits.
using DeleteWork = std::function<Expected<BatchDeleteResult>(const TriggerPlan&)>;

Expected<BatchDeleteResult> runRequest(SqliteStore& store, const EntityDescription& entity,
                                       const Chunking& chunking, bool usesRowsTable,
                                       const TransactionNames& names, const DeleteWork& work) {
  if (chunking.rowsPerChunk < 1)
    throw std::invalid_argument("a batch delete needs at least one row per chunk");
  if (store.isReadOnly()) {
    return fail(Error(std::string(kCocoaErrorDomain), kFileWriteNoPermissionError,
                      fmt::format("The store “{}” is read-only.", store.path().filename().string())));
  }
  if (!store.entityNumber(entity)) {
    return fail(
        coreDataError(fmt::format("A batch delete of {} names an entity that is not in the store “{}”.",
                                  entity.name(), store.path().filename().string())));
  }
  auto plan = TriggerPlanner(store, entity).plan();
  if (!plan) return fail(plan.error());

  Database& db = store.database();
  if (sqlite3_get_autocommit(db.handle()) == 0) {
    return fail(coreDataError(fmt::format(
        "A batch delete of {} cannot run inside a transaction that is already open on the store “{}”.",
        entity.name(), store.path().filename().string())));
  }
  // Without triggers the setting changes nothing, so it is left alone.
  bool turnedRecursionOn = false;
  if (!plan->createSql.empty()) {
    auto recursive = recursiveTriggers(db);
    if (!recursive) return fail(recursive.error());
    if (!*recursive) {
      if (auto s = db.execute("PRAGMA recursive_triggers = ON"); !s) return fail(s.error());
      turnedRecursionOn = true;
    }
  }
  auto restoreRecursion = [&] {
    if (turnedRecursionOn) (void)db.execute("PRAGMA recursive_triggers = OFF");
  };
  const HistoryWriter* history = store.history();
  std::optional<std::int64_t> temporaryStore;
  if (usesRowsTable || history != nullptr) {
    auto previous = useTemporaryFiles(db);
    if (!previous) {
      restoreRecursion();
      return fail(previous.error());
    }
    temporaryStore = *previous;
  }
  std::vector<std::string> cleanup;
  for (const std::string& name : plan->names)
    cleanup.push_back(fmt::format("DROP TRIGGER IF EXISTS temp.{}", name));
  if (usesRowsTable) cleanup.push_back(fmt::format("DROP TABLE IF EXISTS temp.{}", kRowsTable));
  std::vector<std::string> createSql;
  if (history != nullptr) {
    createSql = history->batchLogSetupSql(plan->tables);
    for (std::string& sql : history->batchLogCleanupSql(plan->tables)) cleanup.push_back(std::move(sql));
  }
  createSql.insert(createSql.end(), plan->createSql.begin(), plan->createSql.end());

  auto body = [&]() -> Expected<BatchDeleteResult> {
    if (auto s = runCached(db, "BEGIN EXCLUSIVE"); !s) return fail(s.error());
    auto result = [&]() -> Expected<BatchDeleteResult> {
      for (const std::string& sql : createSql) {
        if (auto s = db.execute(sql); !s) return fail(s.error());
      }
      auto deleted = work(*plan);
      if (!deleted) return deleted;
      if (history != nullptr) {
        if (auto s = history->recordBatchLog(db, names); !s) return fail(s.error());
      }
      for (const std::string& sql : cleanup) {
        if (auto s = db.execute(sql); !s) return fail(s.error());
      }
      if (auto s = runCached(db, "COMMIT"); !s) return fail(s.error());
      return deleted;
    }();
    if (!result) {
      if (sqlite3_get_autocommit(db.handle()) == 0) (void)db.execute("ROLLBACK");
      // A rollback takes the temporary objects with it; these make sure of it.
      for (const std::string& sql : cleanup) (void)db.execute(sql);
    }
    return result;
  };
  auto result = body();
  restoreRecursion();
  if (temporaryStore) (void)db.execute(fmt::format("PRAGMA temp_store = {}", *temporaryStore));

  if (!result) {
    for (const std::string& text : plan->mandatoryTexts) {
      if (result.error().localizedDescription().find(text) != std::string::npos) {
        return fail(Error(std::string(kCocoaErrorDomain), kValidationMissingMandatoryPropertyError, text));
      }
    }
  }
  return result;
}

}  // namespace

Expected<BatchDeleteResult> batchDeleteRows(SqliteStore& store, const EntityDescription& entity,
                                            const RowSelection& rows, BatchDeleteRequestResultType type,
                                            Progress* progress, std::int64_t rowsPerChunk,
                                            const TransactionNames& names) {
  const Chunking chunking{progress, rowsPerChunk};
  return runRequest(store, entity, chunking, /*usesRowsTable=*/true, names,
                    [&](const TriggerPlan&) { return deleteRows(store, entity, rows, type, chunking); });
}

Expected<BatchDeleteResult> batchDeleteObjects(SqliteStore& store, const std::vector<ManagedObjectID>& ids,
                                               BatchDeleteRequestResultType type, Progress* progress,
                                               std::int64_t rowsPerChunk, const TransactionNames& names) {
  if (ids.empty()) throw std::invalid_argument("batchDeleteObjects needs at least one object ID");
  // The request's entity is the nearest one that all the IDs' entities are kinds of.
  // IDs mostly come as pages of one entity: each entity is looked up once in a row of them.
  const EntityDescription* common = &ids.front().entity();
  const EntityDescription* checked = nullptr;
  for (const ManagedObjectID& id : ids) {
    if (id.isTemporaryID() || id.storeIdentifier() != store.identifier() ||
        (&id.entity() != checked && !store.entityNumber(id.entity()))) {
      return fail(coreDataError(fmt::format("The object ID {} is not of an object in the store “{}”.",
                                            id.URIRepresentation().absoluteString(),
                                            store.path().filename().string())));
    }
    while (common != nullptr && !id.entity().isKindOfEntity(*common)) common = common->superentity();
    if (common == nullptr) {
      return fail(coreDataError(fmt::format(
          "A batch delete takes objects of one entity hierarchy; {} and {} are of different ones.",
          ids.front().entity().name(), id.entity().name())));
    }
    checked = &id.entity();
  }
  // Explicit keys need no selection table: each chunk binds its keys as one JSON array, which
  // keeps a request of a thousand IDs as cheap as the DELETE itself.
  std::vector<std::int64_t> keys;
  keys.reserve(ids.size());
  for (const ManagedObjectID& id : ids) keys.push_back(id.primaryKey());
  std::sort(keys.begin(), keys.end());
  keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
  const Chunking chunking{progress, rowsPerChunk};
  return runRequest(store, *common, chunking, /*usesRowsTable=*/false, names,
                    [&](const TriggerPlan&) -> Expected<BatchDeleteResult> {
                      return deleteKeys(store, *common, keys, type, chunking);
                    });
}

}  // namespace tesselune
