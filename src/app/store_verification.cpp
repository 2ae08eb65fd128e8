// Verifying a store's integrity and its references.
#include "app/store_verification.h"

#include <fmt/format.h>

namespace tesselune {

namespace {

constexpr std::size_t kExampleCount = 5;

void collectHierarchy(const EntityDescription& entity, std::vector<std::int64_t>& numbers,
                      const SqliteStore& store) {
  if (auto number = store.entityNumber(entity)) numbers.push_back(*number);
  for (const EntityDescription* sub : entity.subentities()) collectHierarchy(*sub, numbers, store);
}

std::string entityCondition(const SqliteStore& store, const EntityDescription& entity,
                            std::string_view qualifier = {}) {
  std::vector<std::int64_t> numbers;
  collectHierarchy(entity, numbers, store);
  if (numbers.empty()) return "0";
  return fmt::format("{}Z_ENT IN ({})", qualifier, fmt::join(numbers, ", "));
}

// Keys in `table.column` (of rows that satisfy `rowCondition`) with no row of `target` behind them.
Expected<DanglingReference> findMissing(SqliteStore& store, const std::string& table,
                                        const std::string& column, const std::string& rowCondition,
                                        const EntityDescription& target) {
  const std::string sql = fmt::format(
      "SELECT s.{col} FROM {table} s WHERE {cond} AND s.{col} IS NOT NULL AND NOT EXISTS "
      "(SELECT 1 FROM {target} t WHERE t.Z_PK = s.{col} AND {targetCond}) ORDER BY s.{col}",
      fmt::arg("col", column), fmt::arg("table", table), fmt::arg("cond", rowCondition),
      fmt::arg("target", SqliteStore::tableName(target)),
      fmt::arg("targetCond", entityCondition(store, target, "t.")));
  auto statement = store.database().prepare(sql);
  if (!statement) return fail(statement.error());
  DanglingReference found;
  while (true) {
    auto row = statement->step();
    if (!row) return fail(row.error());
    if (!*row) break;
    ++found.count;
    const std::int64_t key = statement->integer(0);
    if (found.examples.size() < kExampleCount && (found.examples.empty() || found.examples.back() != key)) {
      found.examples.push_back(key);
    }
  }
  found.table = table;
  found.column = column;
  found.missingEntity = target.name();
  return found;
}

}  // namespace

Expected<VerificationResult> verifyStore(SqliteStore& store) {
  VerificationResult result;
  Database& database = store.database();

  auto integrity = database.prepare("PRAGMA integrity_check");
  if (!integrity) return fail(integrity.error());
  while (true) {
    auto row = integrity->step();
    if (!row) return fail(row.error());
    if (!*row) break;
    std::string line = integrity->text(0);
    if (line != "ok") result.integrityProblems.push_back(std::move(line));
  }

  const StoreSchema& schema = store.schema();
  for (const auto& entity : store.model().entities()) {
    if (!store.entityNumber(*entity)) continue;
    for (const auto& property : entity->ownProperties()) {
      if (!property->isRelationship() || property->isTransient()) continue;
      const auto& relationship = static_cast<const RelationshipDescription&>(*property);
      const PropertyMapping* mapping = schema.mapping(relationship);
      const EntityDescription* destination = relationship.destinationEntity();
      if (mapping == nullptr || destination == nullptr) continue;
      Expected<DanglingReference> missing;
      switch (mapping->kind) {
        case PropertyMapping::Kind::ToOne:
          missing = findMissing(store, mapping->table, mapping->column, entityCondition(store, *entity, "s."),
                                *destination);
          break;
        case PropertyMapping::Kind::ToManyWithoutInverse:
          // The key lives in the destination's rows and names an object of this entity.
          missing = findMissing(store, mapping->table, mapping->column,
                                entityCondition(store, *destination, "s."), *entity);
          break;
        case PropertyMapping::Kind::ManyToMany:
          // Each side checks its own column, so every join table column is checked once.
          missing = findMissing(store, mapping->table, mapping->column, "1", *entity);
          break;
        case PropertyMapping::Kind::ToManyThroughInverse:  // checked as the inverse's key
        case PropertyMapping::Kind::Attribute:
          continue;
      }
      if (!missing) return fail(missing.error());
      if (missing->count == 0) continue;
      missing->entity = entity->name();
      missing->relationship = relationship.name();
      result.danglingReferences.push_back(std::move(*missing));
    }
  }

  // A counter below a key in use would hand that key out again to the next insert.
  for (const auto& entity : store.model().entities()) {
    if (entity->superentity() != nullptr) continue;
    auto number = store.entityNumber(*entity);
    if (!number) continue;
    auto statement = database.prepare(
        fmt::format("SELECT (SELECT MAX(Z_PK) FROM {}), (SELECT Z_MAX FROM Z_PRIMARYKEY WHERE Z_ENT = ?)",
                    SqliteStore::tableName(*entity)));
    if (!statement) return fail(statement.error());
    if (auto b = statement->bind(1, Value(*number)); !b) return fail(b.error());
    auto row = statement->step();
    if (!row) return fail(row.error());
    if (statement->isNull(0)) continue;
    const std::int64_t highest = statement->integer(0);
    const std::int64_t counter = statement->isNull(1) ? 0 : statement->integer(1);
    if (counter < highest) {
      result.keyCounterProblems.push_back(
          fmt::format("{}: the key counter Z_MAX is {} but the highest key in use is {}", entity->name(),
                      counter, highest));
    }
  }
  return result;
}

std::string formatVerification(const VerificationResult& result) {
  std::string out;
  out += result.integrityProblems.empty() ? "SQLite integrity: ok\n" : "SQLite integrity: damaged\n";
  for (const auto& line : result.integrityProblems) out += fmt::format("  {}\n", line);
  if (result.danglingReferences.empty()) {
    out += "References: ok\n";
  } else {
    out += fmt::format("References to missing rows: {}\n", result.danglingReferences.size());
    for (const auto& d : result.danglingReferences) {
      out += fmt::format("  {}.{} ({}.{}): {} row(s) name a missing {}, keys {}\n", d.entity, d.relationship,
                         d.table, d.column, d.count, d.missingEntity, fmt::join(d.examples, ", "));
    }
  }
  out += result.keyCounterProblems.empty() ? "Key counters: ok\n" : "Key counters: behind\n";
  for (const auto& line : result.keyCounterProblems) out += fmt::format("  {}\n", line);
  return out;
}

}  // namespace tesselune
