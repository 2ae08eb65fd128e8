// The pass driver and the launch that queues it.

#include "deletion/deletion_rounds.h"

#include "deletion/delete_store_objects_operation.h"

namespace tesselune {

DeletionRoundsSummary runDeletionRounds(const std::shared_ptr<StoreSupportContainer>& container) {
  const StoreSupportServices& services = container->services();
  DeletionRoundsSummary summary;
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
