// Attribute copying and the dictionary form of a managed object: copy one object's attributes into
// another of the same entity, duplicate an object without its relationships, and turn an object
// into a flat dictionary of values and object IDs and back. They work from the entity description
// alone, so they serve every entity.
//
// The dictionary form names related objects by ManagedObjectIDObject values, not URIs: it is meant
// for one running program and one store. Operations that need a context use the object's own, or
// the application delegate's when the object has none (StoreObject::contextWithFallback); without
// either they do nothing. Call them on the context's thread. Errors of saves and of looking up
// objects are not reported: what cannot be found is skipped.
#pragma once

#include <memory>

#include "foundation/value.h"
#include "objectstore/managed_object.h"

namespace tesselune {

// Sets every stored (non-transient) attribute of `receiver` to a copy of the source's primitive
// value, without change notifications or custom setters. Relationships are left alone; objects of
// differing entities are left alone altogether.
void copyAttributes(ManagedObject& receiver, const ManagedObject& source);

// A new object of the receiver's entity, inserted into the receiver's context (with fallback) and
// assigned to the receiver's store (for an unsaved receiver: the delegate's store), with the
// stored attributes copied and no relationships. Nothing when there is no context.
std::shared_ptr<ManagedObject> attributesCopy(ManagedObject& receiver);

// The dictionary form: every attribute with a value (transient ones included), each to-one
// relationship as its object's ID (left out when empty), each to-many relationship as a set of IDs
// (empty set when empty), and "entityName". Saves the context first when the receiver has unsaved
// changes, so that new objects are named by permanent IDs.
Dictionary objectAsDictionary(ManagedObject& receiver);

// Restores from a dictionary form of the same entity (others, and nullptr, are ignored):
// attributes through the class's setters with change notifications; a to-one relationship as a
// primitive value without inverse upkeep, when its object still exists; a to-many relationship
// through setValue with inverse upkeep, from the members that still exist, when the set is not
// empty. The asymmetry between the two kinds of relationship is intended.
void restoreObjectFromDictionary(ManagedObject& receiver, const Dictionary* dictionary);

}  // namespace tesselune
