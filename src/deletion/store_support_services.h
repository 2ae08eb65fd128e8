// StoreSupportServices: the outside world as the store support program meets it, handed to the
// containers, the deletion pass and the driver instead of being reached through globals. The
// program fills it with the Linux implementations (Qt, D-Bus, /proc, syslog); tests fill it with
// fakes that record what happened.
//
// A plain value of shared pointers: copies share the services, which are thread-safe themselves.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "foundation/platform_seams.h"
#include "model/store_object.h"
#include "objectstore/managed_object_id.h"

namespace tesselune {

struct StoreSupportServices {
  std::shared_ptr<AlertPresenter> alerts;
  std::shared_ptr<SystemLog> log;
  std::shared_ptr<DistributedNotificationCenter> notifications;
  std::shared_ptr<Workspace> workspace;
  std::shared_ptr<GroupContainerLocator> groupContainers;
  // NSApp terminate:: ends the program after what is already queued on the main queue. Call it
  // through requestTermination, which also stops the work on other threads.
  std::function<void()> terminate;
  // Set once termination has been asked for; shared by every copy of the services, so that no
  // thread starts anything new afterwards (a pass, an object, an alert).
  std::shared_ptr<std::atomic<bool>> terminationRequested = std::make_shared<std::atomic<bool>>(false);
  // The user's home folder (NSHomeDirectory).
  std::function<std::string()> homeFolder;
  // One line on standard output (the program's internal diagnostics).
  std::function<void(const std::string&)> printLine;
  // Optional: told after each chunk of a batch delete is committed, with the chunk's object IDs
  // (finer progress than the passes give). Called on the deleting thread.
  std::function<void(const std::vector<ManagedObjectID>&)> chunkDeleted;
};

// Whether the program has been told to terminate.
inline bool terminationRequested(const StoreSupportServices& services) {
  return services.terminationRequested && services.terminationRequested->load();
}

// Terminates the program. Answers false when termination had already been asked for (nothing is
// done again), so that a caller shows its fatal alert once only.
inline bool requestTermination(const StoreSupportServices& services) {
  if (services.terminationRequested && services.terminationRequested->exchange(true)) return false;
  if (services.terminate) services.terminate();
  return true;
}

// What the deletion hooks of the store's objects get from the services.
inline DeletionSupport deletionSupport(const StoreSupportServices& services) {
  return DeletionSupport{services.printLine, services.log, services.alerts, services.chunkDeleted, {}};
}

// One line on standard output, through the services' printLine when it is set.
inline void printLine(const StoreSupportServices& services, const std::string& line) {
  deletionSupport(services).print(line);
}

// Writes the line to the system log, when there is one.
inline void logLine(const StoreSupportServices& services, std::string_view line) {
  if (services.log) services.log->log(line);
}

}  // namespace tesselune
