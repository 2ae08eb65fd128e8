// Precursor lists and their groups: the precursors' links to their list, counts, inspector rows
// and pasting a group.

#include "model/precursor_list.h"

#include <fmt/format.h>

#include "foundation/keyed_unarchiver.h"
#include "foundation/type_identifier.h"
#include "model/application_object.h"
#include "model/attributes_copy.h"

namespace tesselune {

namespace {

constexpr std::string_view kCorrelatedPrecursors = "correlatedPrecursors";

std::string stringOr(const Value& value, std::string_view fallback) {
  return value.isString() && !value.asString().empty() ? value.asString() : std::string(fallback);
}

}  // namespace

// ---- PrecursorListGroup

std::string PrecursorListGroup::name() const {
  const Value name = valueForKey("name");
  return name.isString() ? name.asString() : std::string();
}

std::shared_ptr<MarkerFragmentGroup> PrecursorListGroup::markerFragmentGroup() const {
  willAccessValueForKey("markerFragmentGroup");
  auto group = primitiveValueForKey("markerFragmentGroup").asObjectOf<MarkerFragmentGroup>();
  // The access is closed under a key one letter off the opened one; observers of the store's own
  // classes see exactly this pairing, so it is kept.
  didAccessValueForKey("markerFragmengGroup");
  return group;
}

std::int64_t PrecursorListGroup::numberOfPrecursors() const {
  std::int64_t total = 0;
  for (const auto& member : precursorLists()) {
    auto list = std::dynamic_pointer_cast<PrecursorList>(member);
    if (!list) continue;
    auto precursors = list->correlatedPrecursors();
    const auto count = static_cast<std::int64_t>(precursors ? precursors->size() : 0);
    if (__builtin_add_overflow(total, count, &total)) fatalError("The number of precursors overflows.");
  }
  return total;
}

std::optional<std::vector<std::shared_ptr<PropertyDescriptor>>> PrecursorListGroup::propertiesDescription()
    const {
  if (descriptionBuilt_) return propertiesDescription_;
  auto self =
      std::static_pointer_cast<PrecursorListGroup>(std::const_pointer_cast<Object>(shared_from_this()));
  std::weak_ptr<PrecursorListGroup> weak = self;
  std::vector<std::shared_ptr<PropertyDescriptor>> rows;
  auto row = [&](std::string label, PropertyDescriptor::ContentGenerator generator) {
    auto descriptor = std::make_shared<PropertyDescriptor>(Value(ObjectPtr(self)));
    descriptor->setPropertyName(std::move(label));
    descriptor->setAttributeContentGenerator(std::move(generator));
    rows.push_back(descriptor);
    return descriptor;
  };
  row("Name: ", [weak] {
    auto group = weak.lock();
    return Value(stringOr(group ? group->valueForKey("name") : Value(), "Precursor List Group"));
  })->setAttributeKey("name");
  row("No. of precursor lists: ", [weak] {
    auto group = weak.lock();
    return Value(fmt::format("{}", group ? group->precursorLists().size() : 0));
  });
  row("No. of precursors: ", [weak] {
    auto group = weak.lock();
    return Value(fmt::format("{}", group ? group->numberOfPrecursors() : 0));
  });
  if (markerFragmentGroup()) {
    row("Fragment Group: ", [weak] {
      auto group = weak.lock();
      auto fragments = group ? group->markerFragmentGroup() : nullptr;
      return Value(stringOr(fragments ? fragments->valueForKey("name") : Value(), "Fragment Group"));
    });
    row("No. of fragments: ", [weak] {
      auto group = weak.lock();
      auto fragments = group ? group->markerFragmentGroup() : nullptr;
      return Value(fmt::format("{}", fragments ? fragments->numberOfFragments() : 0));
    });
  }
  if (chromatogram()) {
    row("Chromatogram: ", [weak] {
      auto group = weak.lock();
      auto chromatogram = group ? group->chromatogram() : nullptr;
      return Value(
          stringOr(chromatogram ? chromatogram->valueForKey("chromatogramName") : Value(), "Chromatogram"));
    });
  }
  descriptionBuilt_ = true;
  propertiesDescription_ = std::move(rows);
  return propertiesDescription_;
}

void PrecursorListGroup::setPropertiesDescription(
    std::optional<std::vector<std::shared_ptr<PropertyDescriptor>>> descriptors) {
  descriptionBuilt_ = true;
  propertiesDescription_ = std::move(descriptors);
}

void PrecursorListGroup::didTurnIntoFault() {
  // The rows hold this group strongly; a group that leaves its context must not keep itself alive.
  descriptionBuilt_ = false;
  propertiesDescription_.reset();
  StoreObject::didTurnIntoFault();
}

std::vector<std::string> PrecursorListGroup::readableTypesForPasteboard(const Pasteboard& pasteboard) {
  if (pasteboard.name() != kPasteboardNameDrag) return {};
  return {dynamicUTIForPasteboardType("ObjectStoreObjects")};
}

std::shared_ptr<PrecursorListGroup> PrecursorListGroup::initWithPasteboardPropertyList(
    const Value& propertyList, std::string_view type, const std::shared_ptr<StoreEnvironment>& application) {
  bool known = false;
  for (std::string_view name : {"LibraryDataObjects", "ObjectStoreObjects", "PrecursorListGroup"}) {
    known = known || utiEqual(type, dynamicUTIForPasteboardType(name));
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
  std::shared_ptr<PrecursorListGroup> copy;
  context->performBlockAndWait([&] {
    auto source = context->existingObjectWithID(*id);
    // The source's class is the class of its entity's new objects: checking it before inserting
    // keeps a failed paste from leaving an object behind for the next save.
    if (!source || !std::dynamic_pointer_cast<PrecursorListGroup>(*source)) return;
    copy = std::dynamic_pointer_cast<PrecursorListGroup>(
        context->insertNewObjectForEntityForName((*source)->entity().name()));
    if (copy) copyAttributes(*copy, **source);
  });
  return copy;
}

Value PrecursorListGroup::valueForKey(std::string_view key) const {
  if (key == "markerFragmentGroup") {
    auto group = markerFragmentGroup();
    return group ? Value(ObjectPtr(group)) : Value();
  }
  return StoreObject::valueForKey(key);
}

// ---- PrecursorList

std::optional<CorrelatedPrecursors> PrecursorList::correlatedPrecursors() const {
  willAccessValueForKey(kCorrelatedPrecursors);
  const Value stored = primitiveValueForKey(kCorrelatedPrecursors);
  std::optional<CorrelatedPrecursors> precursors;
  if (stored.isArray()) {
    CorrelatedPrecursors items;
    items.reserve(stored.asArray().size());
    for (const Value& item : stored.asArray()) {
      auto precursor = item.asObjectOf<CorrelatedPrecursor>();
      if (!precursor) {
        items.clear();
        break;
      }
      items.push_back(std::move(precursor));
    }
    if (items.size() == stored.asArray().size()) precursors = std::move(items);
  }
  didAccessValueForKey(kCorrelatedPrecursors);
  return precursors;
}

void PrecursorList::setCorrelatedPrecursors(std::optional<CorrelatedPrecursors> precursors) {
  willChangeValueForKey(kCorrelatedPrecursors);
  if (!precursors) {
    setPrimitiveValue(Value(), kCorrelatedPrecursors);
    didChangeValueForKey(kCorrelatedPrecursors);
    return;
  }
  ManagedObjectContext* context = managedObjectContext();
  if (context != nullptr) obtainPermanentID(*context, sharedManagedObject(*this));
  const ManagedObjectID id = objectID();
  Array stored;
  stored.reserve(precursors->size());
  for (const auto& precursor : *precursors) {
    if (!precursor) continue;
    precursor->setManagedObjectContext(context);
    precursor->setPrecursorListID(id);
    if (!precursor->application()) precursor->setApplication(environment());
    if (id.isTemporaryID()) {
      if (const ContextHandle main = delegateManagedObjectContext(environment())) {
        main->performBlockAndWait([&] {
          auto list = main->objectWithID(id);
          (void)main->obtainPermanentIDsForObjects({list});
          precursor->setPrecursorListID(list->objectID());
        });
      }
    }
    stored.emplace_back(ObjectPtr(precursor));
  }
  setPrimitiveValue(Value(std::move(stored)), kCorrelatedPrecursors);
  didChangeValueForKey(kCorrelatedPrecursors);
}

void PrecursorList::setMaxCorrelationCount(std::int64_t count) {
  willChangeValueForKey("maxCorrelationCount");
  maxCorrelationCount_ = count;
  didChangeValueForKey("maxCorrelationCount");
}

void PrecursorList::setMaxFragmentIntensity(double intensity) {
  willChangeValueForKey("maxFragmentIntensity");
  maxFragmentIntensity_ = intensity;
  didChangeValueForKey("maxFragmentIntensity");
}

void PrecursorList::setMaxPrecursorIntensity(double intensity) {
  willChangeValueForKey("maxPrecursorIntensity");
  maxPrecursorIntensity_ = intensity;
  didChangeValueForKey("maxPrecursorIntensity");
}

Value PrecursorList::valueForKey(std::string_view key) const {
  if (key == "scoreNormFactor") return Value(scoreNormFactor_);
  if (key == "maxCorrelationCount") return Value(maxCorrelationCount_);
  if (key == "maxFragmentIntensity") return Value(maxFragmentIntensity_);
  if (key == "maxPrecursorIntensity") return Value(maxPrecursorIntensity_);
  return StoreObject::valueForKey(key);
}

void PrecursorList::setValueForKey(Value value, std::string_view key) {
  if (key == kCorrelatedPrecursors) {
    if (value.isNull()) return setCorrelatedPrecursors(std::nullopt);
    CorrelatedPrecursors precursors;
    for (const Value& item : value.isArray() ? value.asArray() : Array{}) {
      if (auto precursor = item.asObjectOf<CorrelatedPrecursor>()) precursors.push_back(std::move(precursor));
    }
    return setCorrelatedPrecursors(std::move(precursors));
  }
  if (key == "scoreNormFactor") return setScoreNormFactor(value.doubleValue());
  if (key == "maxCorrelationCount") return setMaxCorrelationCount(value.integerValue());
  if (key == "maxFragmentIntensity") return setMaxFragmentIntensity(value.doubleValue());
  if (key == "maxPrecursorIntensity") return setMaxPrecursorIntensity(value.doubleValue());
  StoreObject::setValueForKey(std::move(value), key);
}

}  // namespace tesselune
