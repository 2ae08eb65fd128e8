// ApplicationDataContainer: the data folder's resolution and creation, and the read-only pool.

#include "deletion/application_data_container.h"

#include <fmt/format.h>

#include <chrono>
#include <filesystem>
#include <optional>
#include <system_error>

namespace tesselune {

namespace {

constexpr int kLibrarySearchDepth = 10;

std::string lastComponent(const std::string& path) {
  return path.substr(path.rfind('/') + 1);
}

std::string withoutLastComponent(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return std::string();
  return slash == 0 ? std::string("/") : path.substr(0, slash);
}

// The user's "Library" folder found upwards from the home folder: a sandboxed program's home is
// its container's "Data" folder, three levels below it. Gives up after ten steps, wherever it is.
std::string libraryFolderAbove(std::string home) {
  while (home.size() > 1 && home.back() == '/') home.pop_back();
  if (lastComponent(home) == "Library") return home;
  for (int step = 1; step <= kLibrarySearchDepth; ++step) {
    home = withoutLastComponent(home);
    if (step < kLibrarySearchDepth && lastComponent(home) == "Library") break;
  }
  return home;
}

}  // namespace

ApplicationDataContainer::ApplicationDataContainer(std::string name,
                                                   std::shared_ptr<const ManagedObjectModel> model,
                                                   StoreSupportServices services)
    : PersistentContainer(std::move(name), std::move(model)), services_(std::move(services)) {
  temporaryFolderURL_ = dataLibraryURL(services_).appendingPathComponent(kTemporaryFolderName, true);
}

Url ApplicationDataContainer::dataLibraryURL(const StoreSupportServices& services) {
  std::optional<Url> group;
  if (services.groupContainers)
    group = services.groupContainers->containerUrlForGroupIdentifier(kApplicationGroupIdentifier);
  Url folder;
  if (group) {
    folder = group->appendingPathComponent(kDataLibraryFolderName, true);
  } else {
    const std::string home = services.homeFolder ? services.homeFolder() : std::string();
    folder =
        Url::fileUrl(libraryFolderAbove(home), true).appendingPathComponent(kDataLibraryFolderName, true);
  }

  std::error_code ec;
  std::filesystem::create_directories(folder.path(), ec);
  if (!ec && std::filesystem::is_directory(folder.path(), ec)) return folder;

  // The cause is not shown: the user is told what to do instead. Once, however many threads find
  // the folder missing: the program is ending.
  if (terminationRequested(services)) return folder;
  AlertContent alert;
  alert.style = AlertContent::Style::Critical;
  alert.messageText = "Fatal Error when trying to create the folder to store the application data.";
  alert.informativeText =
      fmt::format("Try to create a folder named \"{}\" at the location \"{}\" manually.",
                  kDataLibraryFolderName, folder.deletingLastPathComponent().absoluteString());
  if (services.alerts) services.alerts->runModal(alert);
  requestTermination(services);
  return folder;
}

std::unique_ptr<PersistentStoreCoordinator> ApplicationDataContainer::takeIdleCoordinator() {
  std::lock_guard lock(poolMutex_);
  if (readOnlyPersistentStoreCoordinators_unused_.empty()) return nullptr;
  std::unique_ptr<PersistentStoreCoordinator> coordinator =
      std::move(readOnlyPersistentStoreCoordinators_unused_.back());
  readOnlyPersistentStoreCoordinators_unused_.pop_back();
  return coordinator;
}

void ApplicationDataContainer::putIdleCoordinator(std::unique_ptr<PersistentStoreCoordinator> coordinator) {
  std::lock_guard lock(poolMutex_);
  readOnlyPersistentStoreCoordinators_unused_.push_back(std::move(coordinator));
}

std::unique_ptr<PersistentStoreCoordinator> ApplicationDataContainer::activateReadOnlyStoreCoordinator() {
  // Without the access lock after the wait, deliberately: a reader is never refused for want of it.
  const bool locked = storeCoordinatorAccessLock_.lockWithin(accessTimeout_.load());
  std::unique_ptr<PersistentStoreCoordinator> coordinator = takeIdleCoordinator();
  if (!coordinator) {
    coordinator = std::make_unique<PersistentStoreCoordinator>(managedObjectModel());
    coordinator->setManagedObjectClassRegistry(persistentStoreCoordinator().managedObjectClassRegistry());
    const auto& descriptions = persistentStoreDescriptions();
    if (!descriptions.empty()) {
      PersistentStoreDescription description = descriptions.front();
      description.readOnly = true;
      description.shouldAddStoreAsynchronously = false;
      coordinator->addPersistentStoreWithDescription(
          description, [this](const PersistentStoreDescription&, const std::optional<Error>& error) {
            if (error) {
              printLine(services_, "An error occurred when adding a read only store. Reason: " +
                                       error->localizedDescription());
            }
          });
    }
  }
  if (locked) storeCoordinatorAccessLock_.unlock();
  return coordinator;
}

void ApplicationDataContainer::deactivateReadOnlyStoreCoordinatorWithReadOnlyStoreCoordinator(
    std::unique_ptr<PersistentStoreCoordinator> coordinator) {
  const bool locked = storeCoordinatorAccessLock_.lockWithin(accessTimeout_.load());
  putIdleCoordinator(std::move(coordinator));
  if (locked) storeCoordinatorAccessLock_.unlock();
}

std::size_t ApplicationDataContainer::idleReadOnlyStoreCoordinatorCount() const {
  std::lock_guard lock(poolMutex_);
  return readOnlyPersistentStoreCoordinators_unused_.size();
}

}  // namespace tesselune
