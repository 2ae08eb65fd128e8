// MarkerFragmentGroup: the fragment set's accessors, copies and dependent keys.

#include "model/marker_fragment_group.h"

#include "foundation/keyed_unarchiver.h"
#include "foundation/type_identifier.h"
#include "model/application_object.h"
#include "model/attributes_copy.h"
#include "model/marker_fragment.h"

namespace tesselune {

namespace {

constexpr std::string_view kMarkerFragments = "markerFragments";
constexpr std::string_view kMarkerFragmentsStored = "MarkerFragments";

}  // namespace

std::string_view MarkerFragmentGroup::storedFragmentsKey() const {
  return entity().attributesByName().contains(kMarkerFragmentsStored) ? kMarkerFragmentsStored
                                                                      : kMarkerFragments;
}

std::optional<ValueSet> MarkerFragmentGroup::markerFragments() const {
  willAccessValueForKey(kMarkerFragments);
  Value stored = primitiveValueForKey(storedFragmentsKey());
  std::optional<ValueSet> fragments;
  if (stored.isSet()) {
    bool allFragments = true;
    for (const Value& item : stored.asSet()) allFragments = allFragments && item.asObjectOf<MarkerFragment>();
    if (allFragments) fragments = std::move(stored.asSet());
  }
  didAccessValueForKey(kMarkerFragments);
  return fragments;
}

void MarkerFragmentGroup::setMarkerFragments(std::optional<ValueSet> fragments) {
  willChangeValueForKey(kMarkerFragments);
  if (!fragments) {
    setPrimitiveValue(Value(), storedFragmentsKey());
    didChangeValueForKey(kMarkerFragments);
    return;
  }
  ManagedObjectContext* context = managedObjectContext();
  if (context != nullptr) obtainPermanentID(*context, sharedManagedObject(*this));
  const ManagedObjectID id = objectID();
  for (const Value& item : *fragments) {
    if (auto fragment = item.asObjectOf<MarkerFragment>()) {
      fragment->setManagedObjectContext(context);
      fragment->setMarkerFragmentGroupID(id);
      if (!fragment->application()) fragment->setApplication(environment());
    }
  }
  setPrimitiveValue(Value(std::move(*fragments)), storedFragmentsKey());
  didChangeValueForKey(kMarkerFragments);
}

std::int64_t MarkerFragmentGroup::numberOfFragments() const {
  auto fragments = markerFragments();
  return fragments ? static_cast<std::int64_t>(fragments->size()) : 0;
}

std::string MarkerFragmentGroup::name() const {
  const Value name = valueForKey("name");
  return name.isString() ? name.asString() : std::string();
}

std::shared_ptr<MarkerFragmentGroup> MarkerFragmentGroup::objectStoreCopy() {
  auto copy = std::dynamic_pointer_cast<MarkerFragmentGroup>(attributesCopy(*this));
  if (!copy) return nullptr;
  copy->setName(name() + " copy");
  return copy;
}

std::shared_ptr<MarkerFragmentGroup> MarkerFragmentGroup::initWithPasteboardPropertyList(
    const Value& propertyList, std::string_view type, const std::shared_ptr<StoreEnvironment>& application) {
  bool known = false;
  for (std::string_view name : {"LibraryDataObjects", "ObjectStoreObjects", "MarkerFragmentGroup"}) {
    if (utiEqual(type, dynamicUTIForPasteboardType(name))) {
      known = true;
      break;
    }
  }
  if (!known || !propertyList.isData()) return nullptr;
  auto unarchiver = KeyedUnarchiver::create(propertyList.asData(), false);
  if (!unarchiver) return nullptr;
  const Value root = (*unarchiver)->decodeObjectForKey("root");
  if (!root.isUrl()) return nullptr;
  // The handle keeps the delegate, and with it the coordinator, alive while the paste runs.
  const ContextHandle context = delegateManagedObjectContext(application);
  PersistentStoreCoordinator* coordinator = delegatePersistentStoreCoordinator(application);
  if (coordinator == nullptr || !context) return nullptr;
  auto id = coordinator->managedObjectIDForURIRepresentation(root.asUrl());
  if (!id) return nullptr;
  std::shared_ptr<MarkerFragmentGroup> copy;
  context->performBlockAndWait([&] {
    auto source = context->existingObjectWithID(*id);
    if (!source)
      fatalError("The marker fragment group on the pasteboard could not be fetched from the store.");
    if (!std::dynamic_pointer_cast<MarkerFragmentGroup>(*source)) return;
    copy = std::dynamic_pointer_cast<MarkerFragmentGroup>(
        context->insertNewObjectForEntityForName((*source)->entity().name()));
    if (copy) copyAttributes(*copy, **source);
  });
  return copy;
}

Value MarkerFragmentGroup::valueForKey(std::string_view key) const {
  if (key == kMarkerFragments) {
    auto fragments = markerFragments();
    return fragments ? Value(std::move(*fragments)) : Value();
  }
  if (key == "numberOfFragments") return Value(numberOfFragments());
  return StoreObject::valueForKey(key);
}

void MarkerFragmentGroup::setValueForKey(Value value, std::string_view key) {
  if (key == kMarkerFragments) {
    setMarkerFragments(value.isSet() ? std::optional<ValueSet>(std::move(value.asSet())) : std::nullopt);
    return;
  }
  StoreObject::setValueForKey(std::move(value), key);
}

std::set<std::string> MarkerFragmentGroup::keyPathsForValuesAffectingValueForKey(std::string_view key) const {
  auto paths = StoreObject::keyPathsForValuesAffectingValueForKey(key);
  if (key == "shortObjectDescription" || key == "objectDescription") paths.insert("markerFragments");
  if (key == "objectName") paths.insert("name");
  return paths;
}

}  // namespace tesselune
