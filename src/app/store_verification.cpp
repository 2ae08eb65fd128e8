// Verifying a store's integrity, its entity numbers, key counters and references.
#include "app/store_verification.h"

#include <fmt/format.h>

#include <algorithm>

#include "app/store_catalog.h"

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

bool hierarchyMeets(const EntityDescription& entity, const std::set<const EntityDescription*>& targets) {
  if (targets.contains(&entity)) return true;
  for (const EntityDescription* sub : entity.subentities()) {
    if (hierarchyMeets(*sub, targets)) return true;
  }
  return false;
}

void addExample(std::vector<std::int64_t>& examples, std::int64_t key) {
  if (examples.size() < kExampleCount && (examples.empty() || examples.back() != key))
    examples.push_back(key);
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
    addExample(found.examples, statement->integer(0));
  }
  found.table = table;
  found.column = column;
  found.missingEntity = target.name();
  return found;
}

void checkIntegrity(Database& database, VerificationResult& result) {
  auto integrity = database.prepare("PRAGMA integrity_check");
  if (!integrity) {
    result.integrityProblems.push_back(integrity.error().localizedDescription());
    return;
  }
  while (true) {
    auto row = integrity->step();
    if (!row) {
      result.integrityProblems.push_back(row.error().localizedDescription());
      return;
    }
    if (!*row) break;
    std::string line = integrity->text(0);
    if (line != "ok") result.integrityProblems.push_back(std::move(line));
  }
}

// Rows filed under numbers that do not belong in their table, and key counters behind the keys in
// use, from the store's own list of entities.
void checkTables(Database& database, const StoreCatalog& catalog, VerificationResult& result) {
  for (const CatalogEntity* root : catalog.roots()) {
    const std::string table = catalog.tableOf(*root);
    auto exists = database.tableExists(table);
    if (!exists) {
      result.integrityProblems.push_back(exists.error().localizedDescription());
      continue;
    }
    if (!*exists) {
      result.integrityProblems.push_back(fmt::format("{}: its table {} is missing", root->name, table));
      continue;
    }
    std::vector<std::int64_t> numbers;
    for (const CatalogEntity* member : catalog.hierarchy(*root)) numbers.push_back(member->number);
    auto misfiled = database.prepare(
        fmt::format("SELECT COALESCE(Z_ENT, 0), Z_PK FROM {} WHERE Z_ENT IS NULL OR Z_ENT NOT IN ({}) "
                    "ORDER BY 1, 2",
                    table, fmt::join(numbers, ", ")));
    if (!misfiled) {
      result.integrityProblems.push_back(misfiled.error().localizedDescription());
      continue;
    }
    while (true) {
      auto row = misfiled->step();
      if (!row) {
        result.integrityProblems.push_back(row.error().localizedDescription());
        break;
      }
      if (!*row) break;
      const std::int64_t number = misfiled->integer(0);
      if (result.misfiledRows.empty() || result.misfiledRows.back().table != table ||
          result.misfiledRows.back().entityNumber != number) {
        const CatalogEntity* named = catalog.entity(number);
        result.misfiledRows.push_back({table,
                                       number,
                                       named != nullptr ? named->name : "",
                                       named != nullptr ? catalog.tableOf(*named) : "",
                                       0,
                                       {}});
      }
      ++result.misfiledRows.back().count;
      addExample(result.misfiledRows.back().examples, misfiled->integer(1));
    }

    // A counter below a key in use would hand that key out again to the next insert.
    auto highest = database.prepare(fmt::format("SELECT MAX(Z_PK) FROM {}", table));
    if (!highest) {
      result.integrityProblems.push_back(highest.error().localizedDescription());
      continue;
    }
    auto row = highest->step();
    if (!row) {
      result.integrityProblems.push_back(row.error().localizedDescription());
      continue;
    }
    if (highest->isNull(0)) continue;
    const std::int64_t counter = root->keyCounter.value_or(0);
    if (counter < highest->integer(0)) {
      result.keyCounterProblems.push_back(
          fmt::format("{}: the key counter Z_MAX is {} but the highest key in use is {}", root->name, counter,
                      highest->integer(0)));
    }
  }
}

Expected<VerificationResult> verifyConnection(Database& database) {
  VerificationResult result;
  checkIntegrity(database, result);
  auto catalog = StoreCatalog::read(database);
  if (!catalog) return fail(catalog.error());
  checkTables(database, *catalog, result);
  return result;
}

std::string referenceLine(const DanglingReference& d) {
  return fmt::format("  {}.{} ({}.{}): {} row(s) name a missing {}, keys {}\n", d.entity, d.relationship,
                     d.table, d.column, d.count, d.missingEntity, fmt::join(d.examples, ", "));
}

}  // namespace

Expected<std::vector<DanglingReference>> findDanglingReferences(
    SqliteStore& store, const std::set<const EntityDescription*>* targets) {
  std::vector<DanglingReference> found;
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
      bool withoutInverse = false;
      switch (mapping->kind) {
        case PropertyMapping::Kind::ToOne:
          if (targets != nullptr && !hierarchyMeets(*destination, *targets)) continue;
          withoutInverse = relationship.inverseRelationship() == nullptr;
          missing = findMissing(store, mapping->table, mapping->column, entityCondition(store, *entity, "s."),
                                *destination);
          break;
        case PropertyMapping::Kind::ToManyWithoutInverse:
          // The key lives in the destination's rows and names an object of this entity.
          if (targets != nullptr && !hierarchyMeets(*entity, *targets)) continue;
          withoutInverse = true;
          missing = findMissing(store, mapping->table, mapping->column,
                                entityCondition(store, *destination, "s."), *entity);
          break;
        case PropertyMapping::Kind::ManyToMany:
          // Each side checks its own column, so every join table column is checked once.
          if (targets != nullptr && !hierarchyMeets(*entity, *targets)) continue;
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
      missing->withoutInverse = withoutInverse;
      found.push_back(std::move(*missing));
    }
  }
  return found;
}

Expected<VerificationResult> verifyStore(SqliteStore& store) {
  auto result = verifyConnection(store.database());
  if (!result) return result;
  auto references = findDanglingReferences(store);
  if (!references) {
    result->integrityProblems.push_back(references.error().localizedDescription());
    return result;
  }
  for (DanglingReference& reference : *references) {
    (reference.withoutInverse ? result->keysLeftByDeletes : result->danglingReferences)
        .push_back(std::move(reference));
  }
  return result;
}

Expected<VerificationResult> verifyStoreWithoutModel(Database& database) {
  auto result = verifyConnection(database);
  if (result) result->referencesChecked = false;
  return result;
}

std::string formatVerification(const VerificationResult& result) {
  std::string out;
  out += result.integrityProblems.empty() ? "SQLite integrity: ok\n" : "SQLite integrity: damaged\n";
  // SQLite's own report may hold several lines in one entry.
  for (const auto& problem : result.integrityProblems) {
    for (std::size_t start = 0; start <= problem.size();) {
      const std::size_t end = std::min(problem.find('\n', start), problem.size());
      if (end > start) out += fmt::format("  {}\n", problem.substr(start, end - start));
      start = end + 1;
    }
  }

  if (result.misfiledRows.empty()) {
    out += "Entity numbers: ok\n";
  } else {
    out += fmt::format("Rows of an entity that does not belong in their table: {}\n",
                       result.misfiledRows.size());
    for (const MisfiledRows& m : result.misfiledRows) {
      out += fmt::format("  {}: {} row(s) with Z_ENT {} ({}), keys {}\n", m.table, m.count, m.entityNumber,
                         m.entityName.empty()
                             ? "no entity of the store"
                             : fmt::format("{}, whose rows belong in {}", m.entityName, m.entityTable),
                         fmt::join(m.examples, ", "));
    }
  }

  if (!result.referencesChecked) {
    out +=
        "References: not checked: without a model the relationships are unknown (give it with --model "
        "PATH)\n";
  } else if (result.danglingReferences.empty()) {
    out += "References: ok\n";
  } else {
    out += fmt::format("References to missing rows: {}\n", result.danglingReferences.size());
    for (const auto& d : result.danglingReferences) out += referenceLine(d);
  }
  if (!result.keysLeftByDeletes.empty()) {
    out += fmt::format(
        "Keys left by deletes through relationships without an inverse (Core Data leaves them too; no "
        "damage): {}\n",
        result.keysLeftByDeletes.size());
    for (const auto& d : result.keysLeftByDeletes) out += referenceLine(d);
  }

  out += result.keyCounterProblems.empty() ? "Key counters: ok\n" : "Key counters: behind\n";
  for (const auto& line : result.keyCounterProblems) out += fmt::format("  {}\n", line);
  out += result.ok() ? "The store is sound.\n" : "The store is damaged.\n";
  return out;
}

}  // namespace tesselune
