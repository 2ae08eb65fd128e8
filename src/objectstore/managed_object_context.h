// ManagedObjectContext: a scratchpad of managed objects over a coordinator's stores, as
// NSManagedObjectContext: objects by ID (unique per context), fetches, inserts, deletes with the
// model's delete rules, saves with optimistic locking and merge policies, and batch deletes.
//
// Threads: a context is used inside performBlockAndWait (runs the block on the caller's thread under
// the context's recursive lock, so it may nest) or performBlock (private-queue contexts run the
// block on their own serial queue, main-queue contexts on the main queue). Store access takes the
// coordinator's lock. The coordinator must outlive the context; the context owns its registered
// objects.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <unordered_map>
#include <vector>

#include "foundation/error.h"
#include "foundation/operation_queue.h"
#include "foundation/undo_manager.h"
#include "objectstore/fetch_request.h"
#include "objectstore/managed_object.h"
#include "objectstore/persistent_store_coordinator.h"
#include "objectstore/sqlite/batch_delete.h"

namespace tesselune {

enum class ManagedObjectContextConcurrencyType { PrivateQueue = 1, MainQueue = 2 };

// NSMergePolicyType: how a save resolves rows that someone else changed since they were read.
enum class MergePolicyType {
  Error = 0,                       // the save fails with 133020
  MergeByPropertyStoreTrump = 1,   // properties changed in both places keep the store's value
  MergeByPropertyObjectTrump = 2,  // properties changed here win, the others take the store's
  Overwrite = 3,                   // this context's state is written as is
  Rollback = 4,                    // this context's changes to the object are dropped
};

// NSBatchDeleteRequest: rows deleted in the store directly, from a fetch request or object IDs.
struct BatchDeleteRequest {
  std::optional<FetchRequest> fetchRequest;
  std::vector<ManagedObjectID> objectIDs;
  BatchDeleteRequestResultType resultType = BatchDeleteRequestResultType::ResultTypeStatusOnly;

  static BatchDeleteRequest initWithFetchRequest(FetchRequest request) {
    BatchDeleteRequest batch;
    batch.fetchRequest = std::move(request);
    return batch;
  }
  static BatchDeleteRequest initWithObjectIDs(std::vector<ManagedObjectID> ids) {
    BatchDeleteRequest batch;
    batch.objectIDs = std::move(ids);
    return batch;
  }
};

class ManagedObjectContext;

// A context in use. While a handle taken from the context itself (handle(), WeakContext::lock())
// is alive, the context's destructor waits for its release when it runs on another thread, so the
// pointer stays good for the whole use; a handle may instead own what owns the context (a
// delegate). Empty when there was no context to hand out. Hold one for the span of a use, never
// while waiting for the thread that owns the context (that thread would wait for the handle).
// Copyable; a copy keeps the context alive as long as the original.
class ContextHandle {
 public:
  ContextHandle() = default;
  // `keepAlive` keeps `context` alive: a lease or the context's owner.
  ContextHandle(ManagedObjectContext* context, std::shared_ptr<const void> keepAlive)
      : context_(context), keepAlive_(std::move(keepAlive)) {}

  ManagedObjectContext* get() const { return context_; }
  ManagedObjectContext* operator->() const { return context_; }
  ManagedObjectContext& operator*() const { return *context_; }
  explicit operator bool() const { return context_ != nullptr; }
  friend bool operator==(const ContextHandle& handle, const ManagedObjectContext* context) {
    return handle.context_ == context;
  }
  friend bool operator==(const ContextHandle& a, const ContextHandle& b) { return a.context_ == b.context_; }

 private:
  ManagedObjectContext* context_ = nullptr;
  std::shared_ptr<const void> keepAlive_;
};

class ManagedObjectContext {
 public:
  explicit ManagedObjectContext(ManagedObjectContextConcurrencyType type);
  ~ManagedObjectContext();
  ManagedObjectContext(const ManagedObjectContext&) = delete;
  ManagedObjectContext& operator=(const ManagedObjectContext&) = delete;

  ManagedObjectContextConcurrencyType concurrencyType() const { return type_; }
  PersistentStoreCoordinator* persistentStoreCoordinator() const { return coordinator_; }
  void setPersistentStoreCoordinator(PersistentStoreCoordinator* coordinator) { coordinator_ = coordinator; }
  const std::shared_ptr<UndoManager>& undoManager() const { return undoManager_; }
  void setUndoManager(std::shared_ptr<UndoManager> undoManager) { undoManager_ = std::move(undoManager); }
  MergePolicyType mergePolicy() const { return mergePolicy_; }
  void setMergePolicy(MergePolicyType policy) { mergePolicy_ = policy; }
  // The context whose stored rows are being read on the calling thread, while values of their
  // transformable attributes decode: archived objects decoding then belong to its coordinator's
  // stores. nullptr outside such a read.
  static ManagedObjectContext* decodingContext();
  // A lease on this context (see ContextHandle); empty once its destruction has begun.
  ContextHandle handle() const;
  // The context's name and the author of its changes, recorded with each save and batch delete in
  // a store that keeps persistent history; empty for none.
  const std::string& name() const { return name_; }
  void setName(std::string name) { name_ = std::move(name); }
  const std::string& transactionAuthor() const { return transactionAuthor_; }
  void setTransactionAuthor(std::string author) { transactionAuthor_ = std::move(author); }

  void performBlockAndWait(const std::function<void()>& block);
  void performBlock(std::function<void()> block);

  // The object for an ID, registered in this context: the one already there, or a fault whose
  // values are read on first use.
  std::shared_ptr<ManagedObject> objectWithID(const ManagedObjectID& id);
  // The object with its values read now; fails (133000) when its row does not exist.
  [[nodiscard]] Expected<std::shared_ptr<ManagedObject>> existingObjectWithID(const ManagedObjectID& id);
  // The object registered under the ID, without creating one.
  std::shared_ptr<ManagedObject> objectRegisteredForID(const ManagedObjectID& id) const;

  // Objects (ObjectPtr of managed objects), object IDs (ManagedObjectIDObject) or one count, as the
  // request's result type says. Unsaved inserted objects that match are included and deleted ones
  // left out.
  [[nodiscard]] Expected<Array> executeFetchRequest(const FetchRequest& request);
  // The managed objects a request finds, typed.
  [[nodiscard]] Expected<std::vector<std::shared_ptr<ManagedObject>>> fetchObjects(
      const FetchRequest& request);
  [[nodiscard]] Expected<std::int64_t> countForFetchRequest(const FetchRequest& request);
  // Runs a batch delete in the store; objects registered in this context are not updated.
  [[nodiscard]] Expected<BatchDeleteResult> executeRequest(const BatchDeleteRequest& request);

  // insertNewObjectForEntityForName:inManagedObjectContext:. An unknown entity is misuse
  // (std::invalid_argument).
  std::shared_ptr<ManagedObject> insertNewObjectForEntityForName(std::string_view entityName);
  // Decides which store an inserted object goes to (the first store by default).
  void assignObject(const std::shared_ptr<ManagedObject>& object, SqliteStore& store);
  void deleteObject(const std::shared_ptr<ManagedObject>& object);

  // Writes every change in one exclusive transaction per store. Fails with nothing written: 1600
  // for a deny rule with objects at its destination, 1570 for a required value missing, 133020
  // for rows changed elsewhere under the error merge policy; the changes stay in the context.
  [[nodiscard]] Status save();
  // Gives inserted objects their permanent IDs now, reserving keys without saving.
  [[nodiscard]] Status obtainPermanentIDsForObjects(
      const std::vector<std::shared_ptr<ManagedObject>>& objects);
  bool hasChanges() const;
  // Forgets every object: registered objects turn into detached faults.
  void reset();
  // Reads the object's values again from the store; with `mergeChanges` false its unsaved changes go.
  void refreshObject(const std::shared_ptr<ManagedObject>& object, bool mergeChanges);

  std::vector<std::shared_ptr<ManagedObject>> insertedObjects() const;
  std::vector<std::shared_ptr<ManagedObject>> updatedObjects() const;
  std::vector<std::shared_ptr<ManagedObject>> deletedObjects() const;
  std::size_t registeredObjectCount() const { return registered_.size(); }

 private:
  friend class ManagedObject;
  friend class ContextSaver;

  SqliteStore* storeFor(const ManagedObjectID& id) const;
  std::shared_ptr<ManagedObject> registerObject(const EntityDescription& entity, const ManagedObjectID& id);
  // Fills an object from its row; false when the row is gone.
  bool loadRow(ManagedObject& object) const;
  // Reads the values of a full row (t0.*) into the maps; keys in `changed` keep their values.
  void fillFromRow(SqliteStore& store, ManagedObject& object, const Statement& statement,
                   const std::unordered_map<std::string, int>& columns,
                   std::map<std::string, Value, std::less<>>& values,
                   std::map<std::string, Value, std::less<>>& committed,
                   const std::set<std::string, std::less<>>& changed);
  void loadToMany(ManagedObject& object, const RelationshipDescription& relationship) const;
  // Builds or refreshes objects from a statement of full rows (t0.*).
  [[nodiscard]] Expected<std::vector<std::shared_ptr<ManagedObject>>> objectsFromRows(SqliteStore& store,
                                                                                      Statement& statement);
  void rekey(const ManagedObjectID& from, const ManagedObjectID& to);
  bool matchesInMemory(const ManagedObject& object, const FetchRequest& request) const;

  ManagedObjectContextConcurrencyType type_;
  PersistentStoreCoordinator* coordinator_ = nullptr;
  std::shared_ptr<UndoManager> undoManager_;
  MergePolicyType mergePolicy_ = MergePolicyType::Error;
  std::string name_;
  std::string transactionAuthor_;
  mutable std::recursive_mutex mutex_;
  std::unique_ptr<OperationQueue> queue_;  // private-queue contexts
  std::unordered_map<ManagedObjectID, std::shared_ptr<ManagedObject>> registered_;
  std::unordered_map<const ManagedObject*, SqliteStore*> assigned_;

 public:
  // What outlives the context for its handles and weak references: whether it is being destroyed,
  // and which threads hold leases on it.
  struct Lifetime {
    ManagedObjectContext* context = nullptr;
    std::mutex mutex;
    std::condition_variable released;
    bool closing = false;
    std::vector<std::thread::id> users;  // one entry per live lease, the thread that took it
  };
  static ContextHandle lease(const std::shared_ptr<Lifetime>& lifetime);

 private:
  friend class WeakContext;
  std::shared_ptr<Lifetime> lifetime_;
};

// A weak reference to a context, as value objects keep the context they resolve IDs in. lock()
// answers a handle that keeps the context alive while in use, or an empty one once the context is
// gone or going. Copyable; any thread.
class WeakContext {
 public:
  WeakContext() = default;
  WeakContext(const ManagedObjectContext* context)  // NOLINT: stands for the pointer it wraps
      : lifetime_(context != nullptr ? context->lifetime_ : nullptr) {}
  ContextHandle lock() const { return ManagedObjectContext::lease(lifetime_.lock()); }
  // Whether a context was set that has not begun its destruction (it may right after).
  explicit operator bool() const { return static_cast<bool>(lock()); }

 private:
  std::weak_ptr<ManagedObjectContext::Lifetime> lifetime_;
};

}  // namespace tesselune
