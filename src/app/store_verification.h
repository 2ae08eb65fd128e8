// Checking a store for the damage a crash, a bad tool or a faulty delete could leave: SQLite's own
// integrity check, references that point at rows which are not there (every to-one key column, the
// hidden keys of to-many relationships without inverse, and both columns of every join table, as the
// engine's schema mapping places them), and key counters that lag behind the keys in use.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "foundation/error.h"
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
};

struct VerificationResult {
  std::vector<std::string> integrityProblems;  // PRAGMA integrity_check, when not "ok"
  std::vector<DanglingReference> danglingReferences;
  std::vector<std::string> keyCounterProblems;  // Z_MAX below a key in use
  bool ok() const {
    return integrityProblems.empty() && danglingReferences.empty() && keyCounterProblems.empty();
  }
};

// Reads the whole store; changes nothing. Fails only when the store cannot be read at all.
[[nodiscard]] Expected<VerificationResult> verifyStore(SqliteStore& store);
std::string formatVerification(const VerificationResult& result);

}  // namespace tesselune
