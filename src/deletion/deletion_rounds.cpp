// The pass driver and the launch that queues it.

#include "deletion/deletion_rounds.h"

#include <fmt/format.h>

#include "deletion/delete_store_objects_operation.h"
#include "deletion/deletion_journal.h"
#include "deletion/deletion_report.h"

namespace tesselune {

namespace {

// Reports what journals of killed or failed passes name and the store no longer holds, then drops
// the journals. A journal whose report cannot be written stays for the next run.
void reportLeftJournals(StoreSupportContainer& container, std::vector<Error>& errors) {
  const std::filesystem::path folder = container.temporaryFolderURL().path();
  const std::vector<std::filesystem::path> journals = leftJournals(folder);
  if (journals.empty()) return;
  PersistentStoreCoordinator& coordinator = container.dataContainer().persistentStoreCoordinator();
  ManagedObjectContext context(ManagedObjectContextConcurrencyType::PrivateQueue);
  context.setUndoManager(nullptr);
  context.setPersistentStoreCoordinator(&coordinator);
  for (const std::filesystem::path& path : journals) {
    auto journal = readJournal(path);
    if (!journal) {
      errors.push_back(journal.error());
      continue;
    }
    std::vector<ManagedObjectID> gone;
    std::optional<Error> failure;
    context.performBlockAndWait([&] {
      for (const Url& uri : journal->uris) {
        auto id = coordinator.managedObjectIDForURIRepresentation(uri);
        if (!id) continue;  // another store's: not ours to report
        auto existing = context.existingObjectWithID(*id);
        if (existing) continue;  // its delete never committed
        if (existing.error().code() != kManagedObjectReferentialIntegrityError) {
          failure = existing.error();
          return;
        }
        gone.push_back(*id);
      }
      context.reset();
    });
    if (failure) {
      errors.push_back(*failure);
      continue;
    }
    if (!gone.empty()) {
      if (auto written = writeDeletionReport(folder, gone, journal->chromatogramDeleted); !written) {
        errors.push_back(written.error());
        continue;
      }
    }
    logLine(container.services(),
            fmt::format("Reported {} objects deleted by an earlier run that ended early", gone.size()));
    std::error_code ec;
    std::filesystem::remove(path, ec);
  }
}

}  // namespace

DeletionRoundsSummary runDeletionRounds(const std::shared_ptr<StoreSupportContainer>& container) {
  const StoreSupportServices& services = container->services();
  DeletionRoundsSummary summary;
  reportLeftJournals(*container, summary.errors);
  // A fatal failure elsewhere (the data folder gone) ends the program: no further pass, no alert.
  while (!terminationRequested(services)) {
    logLine(services, "Starting delete operation");
    auto pass = std::make_shared<DeleteStoreObjectsOperation>(container);
    container->defaultOperationQueue().addOperation(pass);
    pass->waitUntilFinished();
    ++summary.passes;
    const std::int64_t deleted = pass->numberOfDeletedObjects();
    summary.deletedObjects += deleted;
    summary.errors.insert(summary.errors.end(), pass->errors().begin(), pass->errors().end());
    logLine(services, "Ending delete operation");
    if (summary.passes >= kMaximumDeletionPasses || deleted < 1) break;
  }

  if (terminationRequested(services)) return summary;
  if (auto alert = alertFor(summary.errors, std::string(kDeletionActivityMessage)); alert && services.alerts)
    services.alerts->runModal(*alert);
  logLine(services, "Ending store support application");
  if (services.terminate) services.terminate();
  return summary;
}

std::shared_ptr<StoreSupportContainer> startStoreSupport(const StoreSupportServices& services) {
  logLine(services, "Starting store support application");
  auto alertFailure = [&services](const Error& error) {
    // The user reads the error's description; the log keeps its detail (statement, code, path).
    logLine(services, "Failure when trying to open the store: " + error.debugDescription());
    AlertContent alert;
    alert.style = AlertContent::Style::Critical;
    alert.messageText = "Failure when trying to delete a large object from the store.";
    alert.informativeText = error.localizedDescription();
    if (services.alerts) services.alerts->runModal(alert);
  };
  auto container = StoreSupportContainer::create(services);
  // The data folder could not be made: its alert was the one the user gets, and the program ends.
  if (terminationRequested(services)) return nullptr;
  if (!container) {
    alertFailure(container.error());
    return nullptr;
  }
  if (auto opened = (*container)->openStore(); !opened) {
    alertFailure(opened.error());
    return nullptr;
  }
  // The block holds the container only while it runs, so that the caller, waiting for the queue
  // to go idle, drops the last reference on its own thread.
  (*container)
      ->defaultOperationQueue()
      .addOperationWithBlock([weak = std::weak_ptr<StoreSupportContainer>(*container)] {
        if (auto held = weak.lock()) runDeletionRounds(held);
      });
  return *container;
}

}  // namespace tesselune
