// Deleting the objects of one entity that match a predicate, in any store, through the engine's
// batch delete: the store's own delete rules run inside SQLite, so cascades and nullified keys are
// dealt with as Core Data would, and the store's own triggers (persistent history) fire as usual.
// A dry run makes the very same delete on a scratch copy of the store in the temporary folder (which
// it removes), so that its counts, cascades included, and its refusals are those of the real delete,
// without writing to the store or even opening it for writing.
//
// Use the store from one thread; the progress may be watched from others.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "app/store_verification.h"
#include "foundation/error.h"
#include "foundation/progress.h"
#include "objectstore/sqlite/sqlite_store.h"

namespace tesselune {

struct DeleteOptions {
  bool dryRun = false;
  // How many of the selected objects' URIs the outcome lists.
  std::size_t listedURIs = 10;
};

struct DeleteOutcome {
  std::string entity;
  std::string predicate;
  bool dryRun = false;
  // The selected objects by their actual entity, by name (counts above zero only).
  std::vector<std::pair<std::string, std::int64_t>> selected;
  std::int64_t selectedTotal = 0;
  std::vector<std::string> firstURIs;
  // What the delete rules do beyond the selected objects ("Country.moods: nullify Mood.country").
  std::vector<std::string> ruleEffects;
  // Objects gone per entity, cascades included (counts above zero only); for a dry run, those that
  // would go.
  std::vector<std::pair<std::string, std::int64_t>> removed;
  // Keys the delete left naming deleted objects, by relationship, each counting the rows it left so:
  // through relationships without an inverse (Core Data leaves those too) or rules of no action.
  std::vector<DanglingReference> keysLeft;
};

// Selects the objects of `entityName` (and its sub-entities) matching the predicate in the format of
// predicateWithFormat, then deletes them, from the store or, for a dry run, from a scratch copy of
// it. A progress, when given, gets the selected rows as its total and the rows dealt with as its
// completed count. Fails, with nothing changed, for an unknown entity (the text lists the
// entities), a predicate that does not parse or names what the entity has not, a store opened
// read-only (unless a dry run), a copy that cannot be made, and as batchDeleteRows (a deny rule, a
// mandatory inverse, cancelling the progress): a dry run fails with the text the delete would.
[[nodiscard]] Expected<DeleteOutcome> deleteObjectsMatching(SqliteStore& store, std::string_view entityName,
                                                            std::string_view predicateFormat,
                                                            const DeleteOptions& options,
                                                            Progress* progress = nullptr);

std::string formatDeleteOutcome(const DeleteOutcome& outcome);

}  // namespace tesselune
