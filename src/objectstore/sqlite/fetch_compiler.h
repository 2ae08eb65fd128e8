// The translation of a fetch request (entity, predicate, sort descriptors, window) into one SQL
// SELECT over a store in Core Data's layout, with every value as a bound parameter.
//
// Predicates keep Foundation's meaning in SQL: a comparison with a missing value (NULL, or a to-one
// relationship that is nil on the way) is false for orderings, `!=` a value matches NULL, and NOT
// turns every false into true, so each comparison is written to give 0 or 1, never NULL. `[c]`,
// `[d]` and the string operators (BEGINSWITH, ENDSWITH, CONTAINS, LIKE, MATCHES) call the SQL
// functions that every connection registers (database.h), which run the evaluator's own string
// tests. A key path through a to-many relationship becomes a correlated subquery over its
// destination's rows: EXISTS for ANY, NOT EXISTS of the negation for ALL, COUNT(*) for @count and
// SUBQUERY(...).@count; to-ones on the way and inside are LEFT JOINs. Nothing is evaluated row by row
// outside SQLite.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "foundation/error.h"
#include "foundation/value.h"
#include "objectstore/fetch_request.h"
#include "objectstore/sqlite/sqlite_store.h"

namespace tesselune {

// The code of the Error for a request the store cannot run: an unknown entity or key, a key path
// through a to-many relationship without ANY, ALL, NONE or @count, a $variable left in the
// predicate, a comparison of values of different kinds, a string operator on a non-string. It is
// NSPersistentStoreUnsupportedRequestTypeError.
inline constexpr std::int64_t kFetchRequestUnsupportedError = kPersistentStoreUnsupportedRequestTypeError;

// What the statement answers per row.
enum class FetchSelection {
  PrimaryKeys,  // t0.Z_PK
  ObjectIDs,    // t0.Z_PK, t0.Z_ENT
  Rows,         // t0.*: every column of the entity's table
  Count,        // one row: the number of matching rows within the request's window
};

struct CompiledFetch {
  std::string sql;
  // The values for the statement's parameters, in order (parameter i + 1 is bindings[i]).
  std::vector<Value> bindings;
};

// Compiles a request for a store. Rows come in the order of the sort descriptors, then by primary
// key, so that windows over equal sort keys are stable. Names in the SQL come only from the store's
// schema; the statement is to be prepared on the store's own database. Fails, without touching the
// store, with kFetchRequestUnsupportedError in the Cocoa domain and a text naming the entity and the
// key path at fault.
[[nodiscard]] Expected<CompiledFetch> compileFetch(const SqliteStore& store, const FetchRequest& request,
                                                   FetchSelection selection);

}  // namespace tesselune
