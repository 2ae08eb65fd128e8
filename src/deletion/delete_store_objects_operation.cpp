// DeleteStoreObjectsOperation: the four jobs of a pass, the count, the report and the notification.

#include "deletion/delete_store_objects_operation.h"

#include "deletion/deletion_report.h"
#include "model/chromatogram.h"
#include "model/database_search.h"

namespace tesselune {

DeleteStoreObjectsOperation::DeleteStoreObjectsOperation(
    std::shared_ptr<StoreSupportContainer> applicationContainer)
    : applicationContainer_(std::move(applicationContainer)) {}

ManagedObjectContext& DeleteStoreObjectsOperation::mainObjectContext() {
  if (!mainObjectContext_) {
    mainObjectContext_ =
        std::make_unique<ManagedObjectContext>(ManagedObjectContextConcurrencyType::PrivateQueue);
    mainObjectContext_->setPersistentStoreCoordinator(
        &applicationContainer_->dataContainer().persistentStoreCoordinator());
    mainObjectContext_->setUndoManager(nullptr);
    mainObjectContext_->setMergePolicy(MergePolicyType::MergeByPropertyObjectTrump);
  }
  return *mainObjectContext_;
}

void DeleteStoreObjectsOperation::main() {
  ManagedObjectContext& context = mainObjectContext();
  auto marked = predicateWithFormat("destinedForDeletion == TRUE");
  if (!marked) {
    errors_.push_back(marked.error());
    return;
  }

  journal_ = std::make_unique<DeletionJournal>(applicationContainer_->temporaryFolderURL().path());
  std::vector<ManagedObjectID> deleted;
  bool chromatogramDeleted = false;
  auto append = [&deleted](const std::vector<ManagedObjectID>& ids) {
    deleted.insert(deleted.end(), ids.begin(), ids.end());
  };

  if (auto ids = fetchMarked("Chromatogram", *marked); ids && !ids->empty()) {
    if (auto noted = journal_->noteChromatogramDeleted(); !noted) {
      errors_.push_back(noted.error());
      return;
    }
    for (const ManagedObjectID& id : *ids) {
      if (ending()) break;
      append(deleteChromatogram(id));
    }
    // Set for every fetched chromatogram, deleted or not: the main application then reloads its list.
    chromatogramDeleted = true;
  }

  if (auto ids = fetchMarked("DatabaseSearchResult", *marked)) {
    for (const ManagedObjectID& id : *ids) {
      if (ending()) break;
      std::vector<ManagedObjectID> list;
      context.performBlockAndWait([&] { deleteStoreObject<DatabaseSearchResult>(context, id, list); });
      append(list);
    }
  }

  if (auto ids = fetchMarked("DatabaseSearchJoin", *marked)) {
    for (const ManagedObjectID& id : *ids) {
      if (ending()) break;
      append(deleteDatabaseSearchGroup(id));
    }
  }

  FetchRequest collections = FetchRequest::fetchRequestWithEntityName("DataCollection");
  collections.resultType = FetchRequestResultType::ManagedObject;
  collections.predicate = *marked;
  if (!ending()) context.performBlockAndWait([&] { deleteDataCollections(context, collections, deleted); });

  numberOfDeletedObjects_ = static_cast<std::int64_t>(deleted.size());
  reportDeletions(deleted, chromatogramDeleted);
}

bool DeleteStoreObjectsOperation::ending() const {
  return terminationRequested(applicationContainer_->services());
}

void DeleteStoreObjectsOperation::reportDeletions(const std::vector<ManagedObjectID>& deleted,
                                                  bool chromatogramDeleted) {
  const StoreSupportServices& services = applicationContainer_->services();
  const std::filesystem::path folder = applicationContainer_->temporaryFolderURL().path();
  if (!deleted.empty()) {
    if (auto written = writeDeletionReport(folder, deleted, chromatogramDeleted); !written) {
      // Older reports may wait in the folder, but a pass whose report failed tells nobody. Its
      // journal stays for the next run to report from.
      errors_.push_back(written.error());
      return;
    }
  }
  if (journal_) journal_->discard();
  if (!deletionReportExists(folder)) return;
  if (!services.workspace || !services.workspace->isApplicationRunning(kMainApplicationName)) return;
  if (!services.notifications) return;
  // A notification that did not go out is a failure of the pass: the user learns that the main
  // application still shows what is gone.
  if (auto posted = services.notifications->postNotificationName(kDeletionNotificationName,
                                                                 kDeletionNotificationObject);
      !posted) {
    errors_.push_back(posted.error());
    return;
  }
  logLine(services, "Sending global notification remoteObjectsDelete");
}

std::optional<std::vector<ManagedObjectID>> DeleteStoreObjectsOperation::fetchMarked(
    std::string_view entityName, const Predicate& marked) {
  FetchRequest request = FetchRequest::fetchRequestWithEntityName(std::string(entityName));
  request.resultType = FetchRequestResultType::ManagedObjectID;
  request.predicate = marked;
  ManagedObjectContext& context = mainObjectContext();
  std::optional<std::vector<ManagedObjectID>> ids;
  context.performBlockAndWait([&] { ids = fetchObjectIDs(context, request); });
  return ids;
}

std::optional<std::vector<ManagedObjectID>> DeleteStoreObjectsOperation::fetchObjectIDs(
    ManagedObjectContext& context, const FetchRequest& request) {
  auto found = context.executeFetchRequest(request);
  if (!found) {
    errors_.push_back(found.error());
    return std::nullopt;
  }
  std::vector<ManagedObjectID> ids;
  ids.reserve(found->size());
  for (const Value& value : *found) {
    if (auto id = objectIDOfValue(value)) ids.push_back(*id);
  }
  return ids;
}

template <class C>
void DeleteStoreObjectsOperation::deleteStoreObject(ManagedObjectContext& context, const ManagedObjectID& id,
                                                    std::vector<ManagedObjectID>& list) {
  // Read now rather than as a fault: an object that went since the fetch (the main application, or
  // another run, deleted it) is skipped, neither counted nor reported.
  auto existing = context.existingObjectWithID(id);
  if (!existing) return;
  auto object = std::dynamic_pointer_cast<C>(*existing);
  if (!object) return;
  DeletionSupport support = deletionSupport(applicationContainer_->services());
  support.willDeleteChunk = [this](const std::vector<ManagedObjectID>& ids) { return journal_->append(ids); };
  const std::vector<ManagedObjectID> related = object->willBeDeleted(nullptr, support);
  list.insert(list.end(), related.begin(), related.end());
  if (auto recorded = journal_->append({id}); !recorded) {
    errors_.push_back(recorded.error());
    return;  // not deleted: the next pass looks again
  }

  auto request = BatchDeleteRequest::initWithObjectIDs({id});
  request.resultType = BatchDeleteRequestResultType::ResultTypeCount;
  auto result = context.executeRequest(request);
  if (!result) {
    errors_.push_back(result.error());
  } else if (result->count == 0) {
    return;  // gone during its own clean-up: what the clean-up took is counted, the object is not
  }
  // Listed even when the batch delete failed: the next pass then looks again.
  list.push_back(id);
}

std::vector<ManagedObjectID> DeleteStoreObjectsOperation::deleteChromatogram(const ManagedObjectID& id) {
  const StoreSupportServices& services = applicationContainer_->services();
  logLine(services, "Starting to delete a chromatogram");
  std::vector<ManagedObjectID> list;
  ManagedObjectContext& context = mainObjectContext();
  context.performBlockAndWait([&] { deleteStoreObject<Chromatogram>(context, id, list); });
  logLine(services, "Ending the delete of a chromatogram");
  return list;
}

std::vector<ManagedObjectID> DeleteStoreObjectsOperation::deleteDatabaseSearchGroup(
    const ManagedObjectID& id) {
  const StoreSupportServices& services = applicationContainer_->services();
  logLine(services, "Starting to delete a database search group");
  std::vector<ManagedObjectID> list;
  ManagedObjectContext& context = mainObjectContext();
  context.performBlockAndWait([&] { deleteStoreObject<DatabaseSearchJoin>(context, id, list); });
  logLine(services, "Ending the delete of a database search group");
  return list;
}

void DeleteStoreObjectsOperation::deleteDataCollections(ManagedObjectContext& context,
                                                        const FetchRequest& request,
                                                        std::vector<ManagedObjectID>& deleted) {
  const StoreSupportServices& services = applicationContainer_->services();
  if (auto found = context.fetchObjects(request); !found) {
    errors_.push_back(found.error());
  } else if (!found->empty()) {
    logLine(services, "Starting to delete data collections");
    std::vector<ManagedObjectID> ids;
    for (const auto& object : *found) ids.push_back(object->objectID());
    if (auto recorded = journal_->append(ids); !recorded) {
      errors_.push_back(recorded.error());
      return;
    }
    for (const auto& object : *found) context.deleteObject(object);
    deleted.insert(deleted.end(), ids.begin(), ids.end());
    logLine(services, "Ending the delete of data collections");
  }
  // Always saved: the model's delete rules take what goes with a data collection.
  if (auto saved = context.save(); !saved) errors_.push_back(saved.error());
}

}  // namespace tesselune
