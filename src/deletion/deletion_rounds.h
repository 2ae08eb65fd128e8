// The store support program's work after launch, Qt-free: opening the shared store
// (startStoreSupport) and the pass driver (runDeletionRounds) that runs deletion passes until one
// deletes nothing, five at most, shows their errors in one alert and ends the program.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "deletion/store_support_container.h"
#include "deletion/store_support_services.h"
#include "foundation/error.h"

namespace tesselune {

inline constexpr int kMaximumDeletionPasses = 5;
inline constexpr std::string_view kDeletionActivityMessage = "in course of chromatogram deletion.";

// What the driver did, for callers that report it further (the program itself ignores it).
struct DeletionRoundsSummary {
  int passes = 0;
  std::int64_t deletedObjects = 0;
  std::vector<Error> errors;
};

// The driver. Each pass is a fresh DeleteStoreObjectsOperation added to the container's queue and
// awaited, so call it on a thread of that queue (or any thread but the main one); the queue must run
// two operations at once. After the passes the collected errors are shown in one informational
// alert on the calling thread, then the log line, then termination. Once termination has been asked
// for by anyone else, no further pass starts and nothing is shown.
DeletionRoundsSummary runDeletionRounds(const std::shared_ptr<StoreSupportContainer>& container);

// Launch after the archive classes are registered: logs the start, makes the container and opens
// the store. On success the driver is queued on the container's queue and the container answered;
// the caller keeps it until its queue is idle (the driver holds it only while running). When the store cannot
// be opened, the critical alert is shown on the calling thread and nothing is answered: the caller then exits
// with status 0 at once. When the data folder cannot be made, its own alert is the only one and nothing is
// answered either.
std::shared_ptr<StoreSupportContainer> startStoreSupport(const StoreSupportServices& services);

}  // namespace tesselune
