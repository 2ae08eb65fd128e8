// Checking a store for the damage a crash, a bad tool or a faulty delete could leave: SQLite's own
// integrity check, rows filed under an entity that does not belong in their table, key counters that
// lag behind the keys in use, and (with a model) references that point at rows which are not there
// (every to-one key column, the hidden keys of to-many relationships without inverse, and both
// columns of every join table, as the engine's schema mapping places them).
//
// Keys left naming deleted objects through a relationship without an inverse are no damage: nothing
// can clear them, so Core Data's own deletes leave them too. They are listed apart and do not make a
// store damaged. Without a model the references cannot be followed; the rest is checked all the same.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "foundation/error.h"
#include "objectstore/sqlite/database.h"
#include "objectstore/sqlite/sqlite_store.h"

namespace tesselune {

struct DanglingReference {
  std::string entity;  // the entity whose relationship it is
  std::string relationship;
  std::string table;  // where the key is kept
  std::string column;
  std::string missingEntity;           // the entity the key should name
  std::int64_t count = 0;              // rows holding such a key
  std::vector<std::int64_t> examples;  // a few of the missing keys, ascending
  bool withoutInverse = false;         // the relationship has no inverse to clear it
};

// Rows of a table whose Z_ENT is not the number of an entity of the hierarchy the table holds.
struct MisfiledRows {
  std::string table;
  std::int64_t entityNumber = 0;
  std::string entityName;   // the entity the store gives that number; empty when it knows none
  std::string entityTable;  // the table that entity's rows belong in
  std::int64_t count = 0;
  std::vector<std::int64_t> examples;  // a few of their keys, ascending
};

struct VerificationResult {
  // PRAGMA integrity_check when not "ok", and any table that could not be read.
  std::vector<std::string> integrityProblems;
  std::vector<MisfiledRows> misfiledRows;
  bool referencesChecked = true;  // false without a model
  std::vector<DanglingReference> danglingReferences;
  std::vector<DanglingReference> keysLeftByDeletes;  // through relationships without an inverse
  std::vector<std::string> keyCounterProblems;       // Z_MAX below a key in use
  bool ok() const {
    return integrityProblems.empty() && misfiledRows.empty() && danglingReferences.empty() &&
           keyCounterProblems.empty();
  }
};

// Reads the whole store; changes nothing. A table that cannot be read is damage, not a failure:
// fails only when the store's list of entities (Z_PRIMARYKEY) cannot be read at all.
[[nodiscard]] Expected<VerificationResult> verifyStore(SqliteStore& store);
// The same without a model, on any connection to a store: everything but the references.
[[nodiscard]] Expected<VerificationResult> verifyStoreWithoutModel(Database& database);

// Keys naming rows that are not there, relationship by relationship (references to present rows
// are not listed). With `targets`, only relationships whose keys name objects of those entities are
// searched. Fails as SQLite does.
[[nodiscard]] Expected<std::vector<DanglingReference>> findDanglingReferences(
    SqliteStore& store, const std::set<const EntityDescription*>* targets = nullptr);

std::string formatVerification(const VerificationResult& result);

}  // namespace tesselune
