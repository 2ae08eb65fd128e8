// IonVolume: its archive, copies, and the links to its group resolved through a context.

#include "model/ion_volume.h"

#include <algorithm>

#include "foundation/keyed_archiver.h"
#include "foundation/keyed_unarchiver.h"
#include "model/application_object.h"
#include "model/ion_group.h"

namespace tesselune {

namespace {

constexpr std::string_view kAcceptableQuality = "acceptableQuality";
constexpr std::string_view kValue = "value";
constexpr std::string_view kTypeOfQuantification = "typeOfQuantification";
constexpr std::string_view kQuantificationInfo = "quantificationInfo";
constexpr std::string_view kObjectInfo = "objectInfo";
constexpr std::string_view kObjectID = "objectID";
constexpr std::string_view kRelatedIonVolumes = "relatedIonVolumes";
constexpr std::string_view kNormIonVolumeURI = "normIonVolumeURI";
constexpr std::string_view kIonVolumeGroupURI = "ionVolumeGroupURI";
constexpr std::string_view kReferenceObjectURI = "referenceObjectURI";

// Object IDs cannot be archived: they travel as their URIs and come back through the coordinator.
Value idsToURIs(const Value& value) {
  if (auto id = objectIDOfValue(value)) return Value(id->URIRepresentation());
  return value;
}

Value urisToIDs(const Value& value, const PersistentStoreCoordinator* coordinator) {
  if (value.isUrl()) {
    if (auto id = objectIDForURI(coordinator, value.asUrl())) return valueWithObjectID(*id);
  }
  return value;
}

void encodeObjectID(KeyedArchiver& coder, const std::optional<ManagedObjectID>& id, std::string_view key) {
  if (id && !isEmptyObjectID(*id)) coder.encodeObject(Value(id->URIRepresentation()), key);
}

std::optional<ManagedObjectID> decodeObjectID(KeyedUnarchiver& coder,
                                              const PersistentStoreCoordinator* coordinator,
                                              std::string_view key) {
  const Value uri = coder.decodeObjectForKey(key);
  return uri.isUrl() ? objectIDForURI(coordinator, uri.asUrl()) : std::nullopt;
}

Value optionalID(const std::optional<ManagedObjectID>& id) {
  return id ? valueWithObjectID(*id) : Value();
}

}  // namespace

IonVolume::IonVolume(std::shared_ptr<StoreEnvironment> application) : application_(std::move(application)) {}

CodingClass IonVolume::codingClass(std::shared_ptr<StoreEnvironment> application) {
  // Back references are held weakly (see relatedIonVolumes), so archives with cycles decode.
  return CodingClass{
      {std::string(kIonVolumeClassName), "NSObject"},
      [application] { return ObjectPtr(std::make_shared<IonVolume>(decodingEnvironment(application))); },
      /*allowsBackReferences=*/true};
}

std::vector<std::string> IonVolume::classChain() const {
  return {std::string(kIonVolumeClassName), "NSObject"};
}

Value IonVolume::valueForKey(std::string_view key) const {
  if (key == kAcceptableQuality) return acceptableQuality_;
  if (key == kValue) return value_;
  if (key == kTypeOfQuantification) return Value(static_cast<std::int64_t>(typeOfQuantification_));
  if (key == kQuantificationInfo) return quantificationInfo_;
  if (key == kObjectInfo) return objectInfo_;
  if (key == kObjectID) return objectID();
  if (key == kRelatedIonVolumes) return Value(relatedIonVolumes());
  if (key == "normIonVolumeObjectID") return optionalID(normIonVolumeObjectID_);
  if (key == "ionVolumeGroupID") return optionalID(ionVolumeGroupID_);
  if (key == "referenceObjectID") return optionalID(referenceObjectID_);
  return Object::valueForKey(key);
}

void IonVolume::encodeWithCoder(KeyedArchiver& coder) const {
  if (!acceptableQuality_.isNull()) coder.encodeObject(acceptableQuality_, kAcceptableQuality);
  if (!value_.isNull()) coder.encodeObject(value_, kValue);
  coder.encodeInt64(static_cast<std::int64_t>(typeOfQuantification_), kTypeOfQuantification);
  if (!quantificationInfo_.isNull()) coder.encodeObject(quantificationInfo_, kQuantificationInfo);
  if (objectInfo_.isDictionary()) {
    Dictionary info = objectInfo_.asDictionary();
    if (auto found = info.find(kObjectID); found != info.end()) found->second = idsToURIs(found->second);
    coder.encodeObject(Value(std::move(info)), kObjectInfo);
  } else if (!objectInfo_.isNull()) {
    coder.encodeObject(idsToURIs(objectInfo_), kObjectInfo);
  }
  coder.encodeObject(Value(relatedIonVolumes()), kRelatedIonVolumes);
  encodeObjectID(coder, normIonVolumeObjectID_, kNormIonVolumeURI);
  encodeObjectID(coder, ionVolumeGroupID_, kIonVolumeGroupURI);
  encodeObjectID(coder, referenceObjectID_, kReferenceObjectURI);
}

Status IonVolume::initWithCoder(KeyedUnarchiver& coder) {
  const PersistentStoreCoordinator* coordinator = decodingPersistentStoreCoordinator(application_);
  acceptableQuality_ = coder.decodeObjectForKey(kAcceptableQuality);
  value_ = coder.decodeObjectForKey(kValue);
  typeOfQuantification_ = static_cast<std::uint64_t>(coder.decodeInt64ForKey(kTypeOfQuantification));
  quantificationInfo_ = coder.decodeObjectForKey(kQuantificationInfo);
  objectInfo_ = coder.decodeObjectForKey(kObjectInfo);
  if (objectInfo_.isDictionary()) {
    auto& info = objectInfo_.asDictionary();
    if (auto found = info.find(kObjectID); found != info.end())
      found->second = urisToIDs(found->second, coordinator);
  } else {
    objectInfo_ = urisToIDs(objectInfo_, coordinator);
  }
  const Value related = coder.decodeObjectForKey(kRelatedIonVolumes);
  // A member still being decoded refers back up the archive: owning it would be a cycle.
  assignRelated(related.isSet() ? related.asSet() : ValueSet(),
                [&coder](const IonVolume& volume) { return coder.isBeingDecoded(&volume); });
  normIonVolumeObjectID_ = decodeObjectID(coder, coordinator, kNormIonVolumeURI);
  ionVolumeGroupID_ = decodeObjectID(coder, coordinator, kIonVolumeGroupURI);
  referenceObjectID_ = decodeObjectID(coder, coordinator, kReferenceObjectURI);
  if (const auto& error = coder.error()) return fail(*error);
  return {};
}

std::shared_ptr<IonVolume> IonVolume::copy() const {
  auto copy = std::make_shared<IonVolume>(application_);
  copy->acceptableQuality_ = acceptableQuality_;
  copy->value_ = value_;
  copy->typeOfQuantification_ = typeOfQuantification_;
  copy->normIonVolumeObjectID_ = normIonVolumeObjectID_;
  copy->normIonVolume_ = normIonVolume_;
  copy->objectInfo_ = objectInfo_;
  copy->related_ = related_;
  return copy;
}

std::shared_ptr<IonVolume> IonVolume::exactCopy() const {
  auto exact = copy();
  exact->context_ = context_;
  exact->ionVolumeGroupID_ = ionVolumeGroupID_;
  exact->quantificationInfo_ = quantificationInfo_;
  exact->referenceObjectID_ = referenceObjectID_;
  return exact;
}

Value IonVolume::objectID() const {
  if (objectInfo_.isDictionary()) return objectInfo_[kObjectID];
  return objectInfo_;
}

ValueSet IonVolume::relatedIonVolumes() const {
  ValueSet volumes;
  for (const RelatedLink& link : related_) {
    if (auto volume = link.get()) volumes.insert(Value(ObjectPtr(std::move(volume))));
  }
  return volumes;
}

void IonVolume::setRelatedIonVolumes(std::optional<ValueSet> volumes) {
  willChange(kRelatedIonVolumes);
  assignRelated(volumes ? *volumes : ValueSet(), [](const IonVolume&) { return false; });
  didChange(kRelatedIonVolumes);
  signalInternalChange();
}

void IonVolume::assignRelated(const ValueSet& volumes,
                              const std::function<bool(const IonVolume&)>& heldWeakly) {
  related_.clear();
  for (const Value& member : volumes) {
    auto volume = member.asObjectOf<IonVolume>();
    if (!volume) continue;
    std::vector<const IonVolume*> visited;
    if (heldWeakly(*volume) || volume->reachesStrongly(this, visited)) {
      related_.push_back({nullptr, volume});
    } else {
      related_.push_back({volume, {}});
    }
  }
}

bool IonVolume::reachesStrongly(const IonVolume* target, std::vector<const IonVolume*>& visited) const {
  if (this == target) return true;
  if (std::find(visited.begin(), visited.end(), this) != visited.end()) return false;
  visited.push_back(this);
  for (const RelatedLink& link : related_) {
    if (link.strong && link.strong->reachesStrongly(target, visited)) return true;
  }
  return false;
}

void IonVolume::setReferenceObjectID(std::optional<ManagedObjectID> id) {
  willChange("referenceObjectID");
  referenceObjectID_ = std::move(id);
  didChange("referenceObjectID");
  signalInternalChange();
}

void IonVolume::setIonVolumeGroupID(std::optional<ManagedObjectID> id) {
  std::vector<const IonVolume*> visited;
  passOnGroupID(id, visited);
}

void IonVolume::passOnGroupID(const std::optional<ManagedObjectID>& id,
                              std::vector<const IonVolume*>& visited) {
  if (std::find(visited.begin(), visited.end(), this) != visited.end()) return;
  visited.push_back(this);
  for (const RelatedLink& link : related_) {
    if (auto volume = link.get()) volume->passOnGroupID(id, visited);
  }
  ionVolumeGroupID_ = id;
}

ContextHandle IonVolume::managedObjectContext() const {
  if (ContextHandle context = context_.lock()) return context;
  if (ContextHandle context = delegateManagedObjectContext(application_)) return context;
  fatalError(
      "An ion volume has no managed object context: none was set and the application delegate has none.");
}

std::shared_ptr<IonVolumeGroup> IonVolume::ionVolumeGroup() const {
  const ContextHandle context = managedObjectContext();
  if (!ionVolumeGroupID_ || isEmptyObjectID(*ionVolumeGroupID_)) return nullptr;
  return existingObjectOfClass<IonVolumeGroup>(
      *context, *ionVolumeGroupID_,
      "Internal error. The ion volume group of an ion volume could not be retrieved.");
}

void IonVolume::setIonVolumeGroup(const std::shared_ptr<IonVolumeGroup>& group) {
  if (!group) return;
  if (group->objectID().isTemporaryID()) {
    obtainPermanentID(
        *managedObjectContext(), group,
        "Failure to incorporate an ion volume into its ion volume group. The ion volume group could "
        "not be realised in the store.");
  }
  setIonVolumeGroupID(group->objectID());
}

void IonVolume::signalInternalChange() {
  auto group = ionVolumeGroup();
  if (!group) return;
  auto volumes = group->ionVolumes();
  if (!volumes || volumes->empty()) return;
  // The first element is replaced whichever it is: what counts is that the group's attribute
  // receives a new set and re-archives its members.
  const Value first = *volumes->begin();
  volumes->erase(first);
  if (auto volume = first.asObjectOf<IonVolume>()) volumes->insert(Value(volume->exactCopy()));
  group->setIonVolumes(std::move(volumes));
}

}  // namespace tesselune
