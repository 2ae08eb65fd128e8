// The application object's delegate as the archived value objects reach it.

#include "model/application_object.h"

#include <cstdio>

#include "model/application_control.h"

namespace tesselune {

void fatalError(const std::string& message) {
  throw FatalError(message);
}

void printLine(std::string_view text) {
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fputc('\n', stdout);
  std::fflush(stdout);
}

namespace {

std::shared_ptr<ApplicationControl> delegateOf(const std::shared_ptr<StoreEnvironment>& application) {
  if (!application) fatalError("There is no application object.");
  return application->applicationDelegate();
}

}  // namespace

ContextHandle delegateManagedObjectContext(const std::shared_ptr<StoreEnvironment>& application) {
  auto delegate = delegateOf(application);
  if (!delegate || delegate->managedObjectContext() == nullptr) return {};
  ManagedObjectContext* context = delegate->managedObjectContext();
  return ContextHandle(context, std::move(delegate));
}

PersistentStoreCoordinator* delegatePersistentStoreCoordinator(
    const std::shared_ptr<StoreEnvironment>& application) {
  auto delegate = delegateOf(application);
  return delegate ? delegate->persistentStoreCoordinator() : nullptr;
}

std::shared_ptr<StoreEnvironment> decodingEnvironment(const std::shared_ptr<StoreEnvironment>& fallback) {
  const ManagedObjectContext* context = ManagedObjectContext::decodingContext();
  if (context == nullptr || context->persistentStoreCoordinator() == nullptr) return fallback;
  auto registry = context->persistentStoreCoordinator()->managedObjectClassRegistry();
  const auto* environment = std::any_cast<std::shared_ptr<StoreEnvironment>>(&registry->userInfo());
  return environment != nullptr && *environment ? *environment : fallback;
}

PersistentStoreCoordinator* decodingPersistentStoreCoordinator(
    const std::shared_ptr<StoreEnvironment>& fallback) {
  if (const ManagedObjectContext* context = ManagedObjectContext::decodingContext()) {
    if (context->persistentStoreCoordinator() != nullptr) return context->persistentStoreCoordinator();
  }
  return delegatePersistentStoreCoordinator(fallback);
}

std::optional<ManagedObjectID> objectIDForURI(const PersistentStoreCoordinator* coordinator, const Url& uri) {
  if (coordinator == nullptr) return std::nullopt;
  return coordinator->managedObjectIDForURIRepresentation(uri);
}

void obtainPermanentID(ManagedObjectContext& context, const std::shared_ptr<ManagedObject>& object,
                       std::string_view failureLine) {
  if (!object || !object->objectID().isTemporaryID()) return;
  context.performBlockAndWait([&] {
    if (!context.obtainPermanentIDsForObjects({object}) && !failureLine.empty()) printLine(failureLine);
  });
}

std::shared_ptr<ManagedObject> sharedManagedObject(ManagedObject& object) {
  return std::static_pointer_cast<ManagedObject>(object.shared_from_this());
}

}  // namespace tesselune
