// Attribute copying and the dictionary form of managed objects.

#include "model/attributes_copy.h"

#include "model/application_control.h"
#include "model/store_object.h"
#include "objectstore/managed_object_context.h"

namespace tesselune {

namespace {

constexpr std::string_view kEntityNameKey = "entityName";

ContextHandle contextOf(const ManagedObject& object) {
  if (const auto* store = dynamic_cast<const StoreObject*>(&object)) return store->contextWithFallback();
  ManagedObjectContext* context = object.managedObjectContext();
  return context != nullptr ? context->handle() : ContextHandle();
}

// The store an object's ID names; nothing for temporary IDs and stores not open.
SqliteStore* storeOfObject(const ManagedObject& object, const ManagedObjectContext& context) {
  const ManagedObjectID id = object.objectID();
  if (id.isTemporaryID() || context.persistentStoreCoordinator() == nullptr) return nullptr;
  for (SqliteStore* store : context.persistentStoreCoordinator()->persistentStores()) {
    if (store->identifier() == id.storeIdentifier()) return store;
  }
  return nullptr;
}

void copyStoredAttributes(ManagedObject& receiver, const ManagedObject& source) {
  for (const auto& [name, attribute] : source.entity().attributesByName()) {
    if (attribute->isTransient()) continue;
    // Value copies are deep for strings, data and containers; shared objects are immutable.
    receiver.setPrimitiveValue(source.primitiveValueForKey(name), name);
  }
}

}  // namespace

void copyAttributes(ManagedObject& receiver, const ManagedObject& source) {
  if (source.entity().name() != receiver.entity().name()) return;
  copyStoredAttributes(receiver, source);
}

std::shared_ptr<ManagedObject> attributesCopy(ManagedObject& receiver) {
  const ContextHandle context = contextOf(receiver);
  if (!context) return nullptr;
  SqliteStore* store = storeOfObject(receiver, *context);
  if (store == nullptr && receiver.objectID().isTemporaryID()) {
    if (auto environment = storeEnvironmentOf(receiver)) {
      if (auto delegate = environment->applicationDelegate()) store = delegate->persistentStore();
    }
  }
  auto copy = context->insertNewObjectForEntityForName(receiver.entity().name());
  if (store != nullptr) context->assignObject(copy, *store);
  copyStoredAttributes(*copy, receiver);
  return copy;
}

Dictionary objectAsDictionary(ManagedObject& receiver) {
  if (receiver.hasChanges()) {
    if (const ContextHandle context = contextOf(receiver)) {
      // A failed save leaves temporary IDs in the dictionary; the caller gets what there is.
      (void)context->save();
    }
  }
  Dictionary form;
  for (const auto& [name, attribute] : receiver.entity().attributesByName()) {
    Value value = receiver.valueForKey(name);
    if (!value.isNull()) form.insert_or_assign(name, std::move(value));
  }
  for (const auto& [name, relationship] : receiver.entity().relationshipsByName()) {
    if (relationship->isToMany()) {
      ValueSet ids;
      for (const auto& member : receiver.objectsForKey(name))
        ids.insert(valueWithObjectID(member->objectID()));
      form.insert_or_assign(name, Value(std::move(ids)));
    } else if (auto related = receiver.objectForKey(name)) {
      form.insert_or_assign(name, valueWithObjectID(related->objectID()));
    }
  }
  form.insert_or_assign(std::string(kEntityNameKey), Value(receiver.entity().name()));
  return form;
}

void restoreObjectFromDictionary(ManagedObject& receiver, const Dictionary* dictionary) {
  if (dictionary == nullptr) return;
  auto entityName = dictionary->find(kEntityNameKey);
  if (entityName == dictionary->end() || !entityName->second.isString() ||
      entityName->second.asString() != receiver.entity().name()) {
    return;
  }

  for (const auto& [name, attribute] : receiver.entity().attributesByName()) {
    auto found = dictionary->find(name);
    if (found == dictionary->end() || found->second.isNull()) continue;
    setValueThroughAccessors(receiver, found->second, name);
  }

  const ContextHandle context = contextOf(receiver);
  if (!context) return;
  for (const auto& [name, relationship] : receiver.entity().relationshipsByName()) {
    auto found = dictionary->find(name);
    if (found == dictionary->end()) continue;
    if (!relationship->isToMany()) {
      auto id = objectIDOfValue(found->second);
      if (!id) continue;
      auto object = context->existingObjectWithID(*id);
      // Deliberately primitive: no change notification and no inverse upkeep for to-one links.
      if (object) receiver.setPrimitiveValue(Value(ObjectPtr(*object)), name);
      continue;
    }
    if (!found->second.isSet() || found->second.asSet().empty()) continue;
    ValueSet members;
    for (const Value& member : found->second.asSet()) {
      auto id = objectIDOfValue(member);
      if (!id) continue;
      auto object = context->existingObjectWithID(*id);
      if (object) members.insert(Value(ObjectPtr(*object)));
    }
    setValueThroughAccessors(receiver, Value(std::move(members)), name);
  }
}

}  // namespace tesselune
