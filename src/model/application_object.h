// What the archived value objects of the store ask of the running application: its delegate's
// context and coordinator, and the stop of the program when there is no application at all.
//
// The StoreEnvironment stands for the application object: every value object is handed the one
// registerStoreClasses was given (decoded objects get it from their class's factory). An absent
// environment is a program without an application object, which value objects treat as a fatal
// error; an environment without an ApplicationControl delegate is a program of another kind, whose
// fall-backs fail quietly.
#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

#include "model/store_environment.h"
#include "objectstore/managed_object_context.h"
#include "objectstore/persistent_store_coordinator.h"

namespace tesselune {

// A condition under which the program cannot go on (a missing application object, a store that
// fails where it must not). Thrown, never caught by this code base: it ends the program unless a
// test expects it.
class FatalError : public std::logic_error {
 public:
  using std::logic_error::logic_error;
};

[[noreturn]] void fatalError(const std::string& message);

// One line on standard output, flushed at once: how the value objects report store failures that
// they otherwise pass over.
void printLine(std::string_view text);

// The delegate's view context and coordinator. Throws FatalError when `application` is empty;
// empty / nullptr when the delegate is missing, of another class or has no container. The context
// comes as a handle that owns the delegate, so it stays alive while the handle is held. The
// coordinator is owned by the delegate, which the caller's environment keeps reachable only
// weakly: use it at once, not later.
ContextHandle delegateManagedObjectContext(const std::shared_ptr<StoreEnvironment>& application);
PersistentStoreCoordinator* delegatePersistentStoreCoordinator(
    const std::shared_ptr<StoreEnvironment>& application);

// For archived value objects being decoded on the calling thread: the environment and coordinator
// of the store the archive belongs to, that is of the context reading it from its store
// (ManagedObjectContext::decodingContext); outside such a read (an archive from a pasteboard, say)
// `fallback` and its delegate's coordinator. Same lifetime rule as above.
std::shared_ptr<StoreEnvironment> decodingEnvironment(const std::shared_ptr<StoreEnvironment>& fallback);
PersistentStoreCoordinator* decodingPersistentStoreCoordinator(
    const std::shared_ptr<StoreEnvironment>& fallback);

// The ID for an object URI through the coordinator; nothing without a coordinator or when the URI
// names no object of its stores.
std::optional<ManagedObjectID> objectIDForURI(const PersistentStoreCoordinator* coordinator, const Url& uri);

// A managed object as the shared pointer its context keeps.
std::shared_ptr<ManagedObject> sharedManagedObject(ManagedObject& object);

// The object stored under `id` when it is a T, asked for synchronously on `context`; null for an
// object of another class, and null with `failureLine` on standard output when the store cannot
// give it.
template <class T>
std::shared_ptr<T> existingObjectOfClass(ManagedObjectContext& context, const ManagedObjectID& id,
                                         std::string_view failureLine) {
  std::shared_ptr<T> object;
  context.performBlockAndWait([&] {
    auto found = context.existingObjectWithID(id);
    if (!found) {
      printLine(failureLine);
      return;
    }
    object = std::dynamic_pointer_cast<T>(*found);
  });
  return object;
}

// Gives `object` a permanent ID when its ID is temporary, synchronously on `context`; prints
// `failureLine` (unless empty) when the store cannot, and the ID stays temporary.
void obtainPermanentID(ManagedObjectContext& context, const std::shared_ptr<ManagedObject>& object,
                       std::string_view failureLine = {});

// An object ID made with plain allocation: it names nothing, and stands where an ID must never be
// absent.
inline bool isEmptyObjectID(const ManagedObjectID& id) {
  return id == ManagedObjectID{};
}

}  // namespace tesselune
