// StoreObject: the base class of every entity class of the store, and the class of any entity that
// has none of its own. It knows the environment its registry gave it (the application delegate and
// the data folder), routes key-value access by name through the hand-written accessors of its
// subclasses, and is where the deletion protocol of the store's objects lives.
//
// Like every managed object it belongs to its context and is used on that context's thread.
//
// Deleting large objects: the store's cascade rules are carried out here, one level deep, by batch
// deletes of object IDs in chunks (batchDeleteWithFetch), before the object itself goes by a batch
// delete of its own ID. Each chunk is one transaction of the store, so a run that is killed leaves
// whole chunks deleted and the object still marked: the next run finishes the job.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/error.h"
#include "foundation/platform_seams.h"
#include "foundation/progress_reporter.h"
#include "model/store_environment.h"
#include "objectstore/managed_object.h"
#include "objectstore/managed_object_context.h"

namespace tesselune {

// How many object IDs one batch delete takes; also the fetch limit of each chunk.
inline constexpr std::size_t kBatchDeleteChunkSize = 1000;

// What the deletion hooks reach outside the store. A plain value; every member may be empty.
// Members are called from the deleting thread; the alert presenter from the main queue.
struct DeletionSupport {
  // One line on standard output (internal diagnostics). Standard output itself when empty.
  std::function<void(const std::string&)> printLine;
  // The system log; nothing is logged when null.
  std::shared_ptr<SystemLog> log;
  // Shows the alerts that deletion queues on the main queue; none is shown when null.
  std::shared_ptr<AlertPresenter> alerts;
  // Told after each chunk of a batch delete is committed, with the chunk's IDs, for finer progress.
  std::function<void(const std::vector<ManagedObjectID>&)> chunkDeleted;
  // Asked before each chunk of a batch delete runs, with the chunk's IDs (to record them durably);
  // a failure skips the chunk, which then counts as a failed one.
  std::function<Status(const std::vector<ManagedObjectID>&)> willDeleteChunk;

  void print(const std::string& line) const;
  void logLine(std::string_view line) const;
  // presentError:withMessage:: queues the critical alert of the error on the main queue and
  // returns at once; never waits for it to be shown.
  void presentError(const Error& error, const std::optional<std::string>& message) const;
};

// batchDeleteWithFetch:error:: deletes everything the request matches in chunks of
// kBatchDeleteChunkSize IDs, each by a batch delete on a fresh private context of the same
// coordinator, and answers the IDs the store reported deleted, in order. The number of chunks is
// fixed by a count taken first; a failing count prints a line and answers nothing deleted. A failing
// chunk does not stop the others; the last failure is returned and what was deleted stays deleted.
// Runs on the calling thread, which must be allowed to use `context`.
[[nodiscard]] Expected<std::vector<ManagedObjectID>> batchDeleteWithFetch(ManagedObjectContext& context,
                                                                          FetchRequest request,
                                                                          const DeletionSupport& support);

class StoreObject : public ManagedObject {
 public:
  // The environment of the registry that made the object; nullptr when it was made elsewhere.
  const std::shared_ptr<StoreEnvironment>& environment() const { return environment_; }
  void setEnvironment(std::shared_ptr<StoreEnvironment> environment) {
    environment_ = std::move(environment);
  }

  // setValue:forKey: as the platform resolves it: a class's hand-written setter for the key when
  // it has one, the managed-object machinery otherwise. Subclasses with setters override this and
  // hand every other key on. (ManagedObject::setValue itself never reaches a subclass's setter.)
  virtual void setValueForKey(Value value, std::string_view key) { setValue(std::move(value), key); }

  // The object's context, or the application delegate's when the object has none, as a handle that
  // keeps it alive while held; empty when neither exists.
  ContextHandle contextWithFallback() const;

  // The deletion protocol. Each call runs on the object's context thread (inside its
  // performBlockAndWait); the reporter is optional and borrowed for the call. Failures never come
  // back to the caller: they are printed, logged or shown as each class says.
  //
  // The number of cascade relationships of the entity, for sizing a progress display.
  std::int64_t numberOfCascadingRelationships() const;
  // Called before the object itself is batch-deleted; answers the IDs of the other objects its
  // clean-up deleted. Nothing here; entity classes with work of their own override it.
  virtual std::vector<ManagedObjectID> willBeDeleted(ProgressReporter* reporter,
                                                     const DeletionSupport& support);
  // Batch-deletes the objects at the other end of each cascade relationship that has an inverse,
  // advancing the reporter by one per cascade relationship. The object itself stays.
  virtual std::vector<ManagedObjectID> batchDeleteCascadingRelationshipObjects(
      ProgressReporter* reporter, const DeletionSupport& support);

 protected:
  // Told of a cascade relationship whose batch delete failed.
  using CascadeFailureHandler = std::function<void(const RelationshipDescription&, const Error&)>;
  // The cascade clean-up shared by the overrides: `leftOut` names a cascade relationship that is
  // neither cleaned nor counted in the progress (empty: none).
  std::vector<ManagedObjectID> cleanOutCascadingRelationships(ProgressReporter* reporter,
                                                              const DeletionSupport& support,
                                                              std::string_view leftOut,
                                                              const CascadeFailureHandler& failed);
  // The clean-up's line on standard output for a failed relationship, naming the primary entity.
  CascadeFailureHandler printingCascadeFailures(const DeletionSupport& support) const;

  // Typed access to stored properties, for the declared accessors of subclasses. Reads go through
  // valueForKey, so a class's own accessors and access notifications take part, and give nothing
  // when the value is absent or of another kind; writes go through setValue, with change
  // notification and inverse upkeep, and an empty optional (or null object) clears the value. A
  // related object of another class than the one asked for reads as null and is left out of a
  // to-many (never the case with the registry of registerStoreClasses).
  std::optional<std::string> stringForKey(std::string_view key) const;
  std::optional<double> doubleForKey(std::string_view key) const;
  std::optional<std::int64_t> integerForKey(std::string_view key) const;
  std::optional<Uuid> uuidForKey(std::string_view key) const;
  std::optional<Bytes> dataForKey(std::string_view key) const;
  template <class T>
  void setOptionalValue(const std::optional<T>& value, std::string_view key) {
    setValue(value ? Value(*value) : Value(), key);
  }
  template <class T>
  std::shared_ptr<T> toOne(std::string_view key) const {
    return std::dynamic_pointer_cast<T>(objectForKey(key));
  }
  template <class T>
  std::vector<std::shared_ptr<T>> toMany(std::string_view key) const {
    std::vector<std::shared_ptr<T>> members;
    for (auto& object : objectsForKey(key)) {
      if (auto member = std::dynamic_pointer_cast<T>(std::move(object))) members.push_back(std::move(member));
    }
    return members;
  }
  void setToOne(const std::shared_ptr<ManagedObject>& object, std::string_view key) {
    setValue(object ? Value(object) : Value(), key);
  }

  // Where a derived accessor's caching must write although the read was const: objects always
  // live in their context's registry as non-const heap objects, so this is sound.
  StoreObject& mutableSelf() const { return const_cast<StoreObject&>(*this); }

 private:
  std::shared_ptr<StoreEnvironment> environment_;
};

// The environment of any managed object: its own when it is a StoreObject, else nullptr.
std::shared_ptr<StoreEnvironment> storeEnvironmentOf(const ManagedObject& object);
// setValue:forKey: on any managed object, through the class's setters when it is a StoreObject.
void setValueThroughAccessors(ManagedObject& object, Value value, std::string_view key);

}  // namespace tesselune
