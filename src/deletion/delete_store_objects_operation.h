// DeleteStoreObjectsOperation: one deletion pass over the shared store. It finds the objects the
// main application marked (destinedForDeletion), in a fixed order: chromatograms, database search
// results, database search groups, data collections. The first three go one by one, each after its
// own clean-up (willBeDeleted) by a batch delete of its ID; data collections go through the context
// and one save. The pass counts every ID it deleted, writes the deletion report when it deleted
// anything and tells a running main application that reports are waiting.
//
// Failures never stop the pass: they are collected in errors() for the driver to show. Termination
// asked for meanwhile does: no further object is taken up, and what went is reported. Made by the
// driver, run once on a thread of the container's queue; read errors() and
// numberOfDeletedObjects() only after it has finished.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "deletion/deletion_journal.h"
#include "deletion/store_support_container.h"
#include "foundation/error.h"
#include "foundation/operation_queue.h"
#include "objectstore/fetch_request.h"
#include "objectstore/managed_object_context.h"

namespace tesselune {

inline constexpr std::string_view kMainApplicationName = "Tesselune";

class DeleteStoreObjectsOperation : public Operation {
 public:
  explicit DeleteStoreObjectsOperation(std::shared_ptr<StoreSupportContainer> applicationContainer);

  const std::shared_ptr<StoreSupportContainer>& applicationContainer() const { return applicationContainer_; }
  // Every failure of the pass, in order.
  const std::vector<Error>& errors() const { return errors_; }
  // The IDs the pass deleted, duplicates counted: the primary objects and what their clean-up took.
  std::int64_t numberOfDeletedObjects() const { return numberOfDeletedObjects_; }

  // The pass's private-queue context, made on first use: no undo, changed properties win a merge.
  ManagedObjectContext& mainObjectContext();

 protected:
  void main() override;

 private:
  // Runs inside the context's block; nothing when the fetch failed (the failure is recorded).
  std::optional<std::vector<ManagedObjectID>> fetchObjectIDs(ManagedObjectContext& context,
                                                             const FetchRequest& request);
  std::optional<std::vector<ManagedObjectID>> fetchMarked(std::string_view entityName,
                                                          const Predicate& marked);
  // The object's clean-up, then a batch delete of its ID; objects not of class C, and objects that
  // no longer exist, are skipped. The ID is listed even when its batch delete failed, not when the
  // object went meanwhile. Runs inside the context's block.
  template <class C>
  void deleteStoreObject(ManagedObjectContext& context, const ManagedObjectID& id,
                         std::vector<ManagedObjectID>& list);
  std::vector<ManagedObjectID> deleteChromatogram(const ManagedObjectID& id);
  std::vector<ManagedObjectID> deleteDatabaseSearchGroup(const ManagedObjectID& id);
  // Runs inside the context's block; saves always, even when nothing was fetched.
  void deleteDataCollections(ManagedObjectContext& context, const FetchRequest& request,
                             std::vector<ManagedObjectID>& deleted);
  // Whether the program is terminating: the pass then takes up no further object, and reports
  // what it has deleted.
  bool ending() const;
  // The report, and the notification when a report waits and the main application runs.
  void reportDeletions(const std::vector<ManagedObjectID>& deleted, bool chromatogramDeleted);

  std::shared_ptr<StoreSupportContainer> applicationContainer_;
  std::unique_ptr<ManagedObjectContext> mainObjectContext_;
  std::vector<Error> errors_;
  // What the pass is about to delete, on disk until its report is written.
  std::unique_ptr<DeletionJournal> journal_;
  std::int64_t numberOfDeletedObjects_ = 0;
};

}  // namespace tesselune
