// Batch deletes in an SQLite store (NSBatchDeleteRequest): rows go straight from the tables, without
// loading objects, and the model's delete rules are carried out by SQLite itself through temporary
// triggers made for the request. Contexts are not told and nothing is validated.
//
// A request runs in one exclusive transaction: it deletes everything it should or nothing at all,
// and leaves the connection as it found it (no temporary tables or triggers, recursive_triggers and
// temp_store as before). The selected keys are written once to a temporary table, then deleted a
// chunk at a time, so that memory stays flat however many rows a request takes: SQLite holds every
// key of a DELETE that fires triggers in memory until the statement ends. For the same reason a
// connection that keeps temporary tables in memory is switched to temporary files for the request,
// which drops any temporary table of its own. Requests by object IDs need no key table: they bind
// each chunk's keys to a DELETE that the connection keeps prepared between requests (see
// Database::cached), since a program deletes a page of IDs at a time and each page would otherwise
// pay for preparing it again. Use the store from one thread at a time, as for any other use of it;
// only the progress may be touched from other threads meanwhile.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "foundation/error.h"
#include "foundation/progress.h"
#include "foundation/value.h"
#include "objectstore/description/entity_description.h"
#include "objectstore/managed_object_id.h"
#include "objectstore/sqlite/sqlite_store.h"

namespace tesselune {

enum class BatchDeleteRequestResultType {
  ResultTypeStatusOnly = 0,
  ResultTypeObjectIDs = 1,
  ResultTypeCount = 2,
};

// The rows to delete: a SELECT yielding Z_PK values of rows in the entity's table, with the values
// for its parameters. The SQL is trusted (the fetch compiler makes it); its values are bound.
struct RowSelection {
  std::string sql;
  std::vector<Value> bindings;
};

struct BatchDeleteResult {
  // True whenever the request succeeded.
  bool status = false;
  // The request's own rows, not those deleted by cascade.
  std::int64_t count = 0;
  // Only for ResultTypeObjectIDs: the request's own objects, each named by its actual entity.
  std::vector<ManagedObjectID> objectIDs;
};

// How many of the selected rows one DELETE statement takes. Memory grows with it, not with the
// request; the benchmark shows that larger chunks gain little speed.
inline constexpr std::int64_t kBatchDeleteRowsPerChunk = 20000;

// Deletes the selected rows of an entity (and of its sub-entities) with their delete rules. Rows of
// other entities sharing the table are never deleted by the selection itself. The selection runs
// once, before anything is deleted, so a fetch window selects the rows it did beforehand.
//
// A progress, when given (borrowed, for the call), gets the number of selected rows as its total
// and the rows dealt with so far as its completed count, a chunk at a time. Cancelling it (from any
// thread) stops the request before its next chunk or before it commits: everything is rolled back
// and the request fails with NSUserCancelledError (3072, Cocoa domain).
// Fails, with nothing changed, for a read-only store, for an entity of another model, with 134060
// when a delete rule cannot be honoured by a batch delete (deny anywhere in the entities reached,
// a many-to-many relationship with a rule other than nullify or cascade), with 1570 when a nullify
// would empty a mandatory to-one inverse (checked as each row goes, so also when the row holding
// it would itself be deleted later by the same request), when a transaction is already open on the
// store's connection (it stays open, untouched), and for any SQLite failure. With
// ResultTypeObjectIDs the result itself grows with the request, one ID per selected row. rowsPerChunk below 1
// is a programming error: throws std::invalid_argument.
//
// In a store that keeps persistent history the request is recorded in the same transaction: one
// history transaction (with `names`) holding a delete for every row that went, cascaded ones
// included, and an update for every remaining row whose key a nullify rule cleared.
[[nodiscard]] Expected<BatchDeleteResult> batchDeleteRows(
    SqliteStore& store, const EntityDescription& entity, const RowSelection& rows,
    BatchDeleteRequestResultType type, Progress* progress = nullptr,
    std::int64_t rowsPerChunk = kBatchDeleteRowsPerChunk, const TransactionNames& names = {});

// Deletes the objects with these IDs, as batchDeleteRows does. The IDs must be permanent IDs of this
// store, all of one entity hierarchy (an Error otherwise); IDs of rows that are gone already are
// skipped (and not counted in the progress). An empty list is a programming error: throws
// std::invalid_argument.
[[nodiscard]] Expected<BatchDeleteResult> batchDeleteObjects(
    SqliteStore& store, const std::vector<ManagedObjectID>& ids, BatchDeleteRequestResultType type,
    Progress* progress = nullptr, std::int64_t rowsPerChunk = kBatchDeleteRowsPerChunk,
    const TransactionNames& names = {});

}  // namespace tesselune
