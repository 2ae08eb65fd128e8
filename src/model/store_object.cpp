// StoreObject: environment, context fallback and accessor routing shared by every entity class,
// and the deletion protocol with the chunked batch delete it is built on.

#include "model/store_object.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <thread>

#include "foundation/main_queue.h"
#include "model/application_control.h"

namespace tesselune {

namespace {

// Waits before trying a chunk again that the store's lock refused: 1 s, 2 s, 4 s, on top of the
// busy timeout each attempt waits itself.
constexpr std::chrono::milliseconds kLockRetryFirstWait{1000};
constexpr std::chrono::milliseconds kLockRetryLastWait{4000};

// SQLite's "database is locked" (busy) and "table is locked".
bool isLockError(const Error& error) {
  constexpr int kBusy = 5;
  constexpr int kLocked = 6;
  return error.domain() == "NSSQLiteErrorDomain" &&
         ((error.code() & 0xFF) == kBusy || (error.code() & 0xFF) == kLocked);
}

}  // namespace

void DeletionSupport::print(const std::string& line) const {
  if (printLine) {
    printLine(line);
  } else {
    std::fputs(line.c_str(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
  }
}

void DeletionSupport::logLine(std::string_view line) const {
  if (log) log->log(line);
}

void DeletionSupport::presentError(const Error& error, const std::optional<std::string>& message) const {
  if (!alerts) return;
  mainQueue()->addOperationWithBlock(
      [alerts = alerts, content = errorAlertContent(error, message)] { alerts->runModal(content); });
}

Expected<std::vector<ManagedObjectID>> batchDeleteWithFetch(ManagedObjectContext& context,
                                                            FetchRequest request,
                                                            const DeletionSupport& support) {
  PersistentStoreCoordinator* coordinator = context.persistentStoreCoordinator();
  if (coordinator == nullptr) return std::vector<ManagedObjectID>{};
  const std::string entityName = request.entityName.empty() ? "unknown entity" : request.entityName;

  auto count = context.countForFetchRequest(request);
  if (!count) {
    // The text names a chromatogram whatever the entity: the main application's users know it so.
    support.print(
        fmt::format("An error occurred when counting objects in course of a batch delete.\nPrimary object: "
                    "chromatogram - "
                    "entities: {}\nError:{}",
                    entityName, count.error().localizedDescription()));
    return std::vector<ManagedObjectID>{};
  }

  ManagedObjectContext deleting(ManagedObjectContextConcurrencyType::PrivateQueue);
  deleting.setUndoManager(nullptr);
  deleting.setPersistentStoreCoordinator(coordinator);

  // No offset: each chunk takes the first objects that still match, the previous chunk's being gone.
  request.fetchLimit = kBatchDeleteChunkSize;
  request.resultType = FetchRequestResultType::ManagedObjectID;

  std::vector<ManagedObjectID> deleted;
  std::optional<Error> failure;
  for (std::int64_t offset = 0; offset < *count; offset += static_cast<std::int64_t>(kBatchDeleteChunkSize)) {
    std::vector<ManagedObjectID> chunk;
    if (auto found = context.executeFetchRequest(request); !found) {
      failure = found.error();
    } else {
      chunk.reserve(found->size());
      for (const Value& value : *found) {
        auto id = value.asObjectOf<ManagedObjectIDObject>();
        if (!id) {
          chunk.clear();
          break;
        }
        chunk.push_back(id->objectID());
      }
    }
    if (chunk.empty()) continue;
    if (support.willDeleteChunk) {
      if (auto recorded = support.willDeleteChunk(chunk); !recorded) {
        failure = recorded.error();
        continue;
      }
    }
    auto batch = BatchDeleteRequest::initWithObjectIDs(std::move(chunk));
    batch.resultType = BatchDeleteRequestResultType::ResultTypeObjectIDs;
    const auto started = std::chrono::steady_clock::now();
    deleting.performBlockAndWait([&] {
      auto result = deleting.executeRequest(batch);
      // The main application holding the store longer than the busy timeout: tried again a few
      // times, waiting longer each time, before the chunk counts as failed.
      for (auto wait = kLockRetryFirstWait;
           !result && isLockError(result.error()) && wait <= kLockRetryLastWait; wait *= 2) {
        std::this_thread::sleep_for(wait);
        result = deleting.executeRequest(batch);
      }
      if (!result) {
        failure = result.error();
        return;
      }
      if (result->objectIDs.empty()) return;
      deleted.insert(deleted.end(), result->objectIDs.begin(), result->objectIDs.end());
      if (support.chunkDeleted) support.chunkDeleted(result->objectIDs);
    });
    // The main application writes the same store: between chunks it gets the lock for about as
    // long as a chunk held it, so that its busy handler, which polls, finds it free.
    const auto held = std::chrono::steady_clock::now() - started;
    std::this_thread::sleep_for(std::clamp<std::chrono::steady_clock::duration>(
        held / 2, std::chrono::milliseconds(2), std::chrono::milliseconds(50)));
  }
  if (failure) return fail(*failure);
  return deleted;
}

std::optional<std::string> StoreObject::stringForKey(std::string_view key) const {
  const Value value = valueForKey(key);
  if (!value.isString()) return std::nullopt;
  return value.asString();
}

std::optional<double> StoreObject::doubleForKey(std::string_view key) const {
  const Value value = valueForKey(key);
  if (!value.isNumber()) return std::nullopt;
  return value.doubleValue();
}

std::optional<std::int64_t> StoreObject::integerForKey(std::string_view key) const {
  const Value value = valueForKey(key);
  if (!value.isNumber()) return std::nullopt;
  return value.integerValue();
}

std::optional<Uuid> StoreObject::uuidForKey(std::string_view key) const {
  const Value value = valueForKey(key);
  if (!value.isUuid()) return std::nullopt;
  return value.asUuid();
}

std::optional<Bytes> StoreObject::dataForKey(std::string_view key) const {
  const Value value = valueForKey(key);
  if (!value.isData()) return std::nullopt;
  return value.asData();
}

ContextHandle StoreObject::contextWithFallback() const {
  if (ManagedObjectContext* context = managedObjectContext()) return context->handle();
  if (!environment_) return {};
  auto delegate = environment_->applicationDelegate();
  if (!delegate || delegate->managedObjectContext() == nullptr) return {};
  ManagedObjectContext* context = delegate->managedObjectContext();
  return ContextHandle(context, std::move(delegate));
}

std::int64_t StoreObject::numberOfCascadingRelationships() const {
  std::int64_t count = 0;
  for (const auto& [name, relationship] : entity().relationshipsByName()) {
    if (relationship->deleteRule() == DeleteRule::Cascade) ++count;
  }
  return count;
}

std::vector<ManagedObjectID> StoreObject::willBeDeleted(ProgressReporter* /*reporter*/,
                                                        const DeletionSupport& /*support*/) {
  return {};
}

std::vector<ManagedObjectID> StoreObject::batchDeleteCascadingRelationshipObjects(
    ProgressReporter* reporter, const DeletionSupport& support) {
  return cleanOutCascadingRelationships(reporter, support, {}, printingCascadeFailures(support));
}

StoreObject::CascadeFailureHandler StoreObject::printingCascadeFailures(
    const DeletionSupport& support) const {
  const std::string primary = entity().name().empty() ? "Unnamed entity" : entity().name();
  return [primary, &support](const RelationshipDescription& relationship, const Error& error) {
    const EntityDescription* destination = relationship.destinationEntity();
    support.print(fmt::format(
        "An error occurred when cleaning out relationships in course of a batch delete.\nPrimary object: {} "
        "- "
        "entities: {}\nError:{}",
        primary, destination ? destination->name() : std::string(), error.localizedDescription()));
  };
}

std::vector<ManagedObjectID> StoreObject::cleanOutCascadingRelationships(
    ProgressReporter* reporter, const DeletionSupport& support, std::string_view leftOut,
    const CascadeFailureHandler& failed) {
  ManagedObjectContext* context = managedObjectContext();
  if (context == nullptr) return {};
  std::vector<const RelationshipDescription*> cascading;
  for (const auto& [name, relationship] : entity().relationshipsByName()) {
    if (relationship->deleteRule() != DeleteRule::Cascade) continue;
    if (!leftOut.empty() && name == leftOut) continue;
    cascading.push_back(relationship);
  }

  std::vector<ManagedObjectID> deleted;
  for (const RelationshipDescription* relationship : cascading) {
    const EntityDescription* destination = relationship->destinationEntity();
    const RelationshipDescription* inverse = relationship->inverseRelationship();
    // Without an inverse the destination rows cannot be found from here; they are left alone.
    if (destination != nullptr && inverse != nullptr && !destination->name().empty()) {
      FetchRequest request = FetchRequest::fetchRequestWithEntityName(destination->name());
      request.resultType = FetchRequestResultType::ManagedObjectID;
      request.predicate =
          Predicate::comparison(Expression::keyPath(inverse->name()), ComparisonOperator::EqualTo,
                                Expression::constant(valueWithObjectID(objectID())));
      auto ids = batchDeleteWithFetch(*context, std::move(request), support);
      if (ids) {
        deleted.insert(deleted.end(), ids->begin(), ids->end());
      } else {
        failed(*relationship, ids.error());
      }
    }
    if (reporter != nullptr) reporter->incrementProgressbarBy(1.0);
  }
  return deleted;
}

std::shared_ptr<StoreEnvironment> storeEnvironmentOf(const ManagedObject& object) {
  const auto* store = dynamic_cast<const StoreObject*>(&object);
  return store ? store->environment() : nullptr;
}

void setValueThroughAccessors(ManagedObject& object, Value value, std::string_view key) {
  if (auto* store = dynamic_cast<StoreObject*>(&object)) {
    store->setValueForKey(std::move(value), key);
  } else {
    object.setValue(std::move(value), key);
  }
}

}  // namespace tesselune
