// IonVolume: one quantified ion signal. Ion volumes are no entities: an IonVolumeGroup keeps them
// as one archived set in its "ionVolumes" attribute. An ion volume knows its group, the store
// object it refers to and its normalising ion volume by object ID only, and resolves them through
// a context when asked.
//
// Archive (class name "Tesselune.IonVolume"); these keys are part of the store's format and must
// not change:
//   "acceptableQuality", "value"    NSNumber objects (absent when unset)
//   "typeOfQuantification"          64-bit integer
//   "quantificationInfo"            dictionary object (absent when unset)
//   "objectInfo"                    any archivable object; an object ID in it, given directly or
//                                   under "objectID" of a dictionary, is written as its URI
//   "relatedIonVolumes"             NSSet of Tesselune.IonVolume; related volumes may refer to
//                                   each other (the archive then holds a cycle)
//   "normIonVolumeURI", "ionVolumeGroupURI", "referenceObjectURI"
//                                   NSURL: the URI of the object ID, absent when there is none
// Decoding resolves URIs through the application delegate's coordinator; a URI it cannot resolve
// (or the lack of a delegate) leaves that ID absent.
//
// Store failures are reported by one line on standard output; no context at all is a FatalError.
// Store work runs synchronously on the context's queue from the caller's thread; an ion volume is
// otherwise used by one thread at a time. Its context is held weakly: once the context is
// destroyed the ion volume falls back on the delegate's.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/coding.h"
#include "foundation/value.h"
#include "model/store_environment.h"
#include "objectstore/managed_object_context.h"
#include "objectstore/managed_object_id.h"

namespace tesselune {

class IonVolumeGroup;

inline constexpr std::string_view kIonVolumeClassName = "Tesselune.IonVolume";

class IonVolume final : public Object, public Coding {
 public:
  // Told before (prior = true) and after a change of "relatedIonVolumes" or "referenceObjectID".
  using ChangeObserver = std::function<void(std::string_view key, bool prior)>;

  explicit IonVolume(std::shared_ptr<StoreEnvironment> application);

  // The archive class of "Tesselune.IonVolume": blank instances that know `application`.
  static CodingClass codingClass(std::shared_ptr<StoreEnvironment> application);

  std::string className() const override { return std::string(kIonVolumeClassName); }
  std::vector<std::string> classChain() const override;
  // The members by name; object IDs as ID values (referenceObjectID is what ion-volume searches
  // compare).
  Value valueForKey(std::string_view key) const override;

  void encodeWithCoder(KeyedArchiver& coder) const override;
  [[nodiscard]] Status initWithCoder(KeyedUnarchiver& coder) override;

  // A new ion volume with this one's quantification: acceptableQuality, value,
  // typeOfQuantification, the normalising ion volume and its ID, objectInfo and the related ion
  // volumes (the same members). No context, group, quantificationInfo or reference.
  std::shared_ptr<IonVolume> copy() const;
  // copy, then this one's weak context, group ID, quantificationInfo and reference ID, so that
  // it resolves the same objects through the same context.
  std::shared_ptr<IonVolume> exactCopy() const;

  const Value& acceptableQuality() const { return acceptableQuality_; }
  void setAcceptableQuality(Value quality) { acceptableQuality_ = std::move(quality); }
  const Value& value() const { return value_; }
  void setValue(Value value) { value_ = std::move(value); }
  std::uint64_t typeOfQuantification() const { return typeOfQuantification_; }
  void setTypeOfQuantification(std::uint64_t type) { typeOfQuantification_ = type; }
  const std::optional<ManagedObjectID>& normIonVolumeObjectID() const { return normIonVolumeObjectID_; }
  void setNormIonVolumeObjectID(std::optional<ManagedObjectID> id) { normIonVolumeObjectID_ = std::move(id); }
  const std::shared_ptr<IonVolume>& normIonVolume() const { return normIonVolume_; }
  void setNormIonVolume(std::shared_ptr<IonVolume> volume) { normIonVolume_ = std::move(volume); }
  const Value& quantificationInfo() const { return quantificationInfo_; }
  void setQuantificationInfo(Value info) { quantificationInfo_ = std::move(info); }
  const Value& objectInfo() const { return objectInfo_; }
  void setObjectInfo(Value info) { objectInfo_ = std::move(info); }
  // objectInfo's "objectID" when it is a dictionary, else objectInfo itself.
  Value objectID() const;

  // A set of IonVolumes; never absent: setting nothing stores an empty set, and members of other
  // classes are dropped. Signals an internal change afterwards.
  //
  // Ownership: a related volume is held strongly unless the link would close a cycle of strong
  // links (the volume already reaches this one, or is this one), and a link decoded back to a
  // volume that is still being decoded is held weakly too. Something outside the cycle (the
  // group's set, the caller) keeps such a cycle alive, and letting go of it frees the whole cycle.
  // A weakly held volume that is gone no longer counts as a member.
  ValueSet relatedIonVolumes() const;
  void setRelatedIonVolumes(std::optional<ValueSet> volumes);
  const std::optional<ManagedObjectID>& referenceObjectID() const { return referenceObjectID_; }
  // Signals an internal change afterwards.
  void setReferenceObjectID(std::optional<ManagedObjectID> id);
  const std::optional<ManagedObjectID>& ionVolumeGroupID() const { return ionVolumeGroupID_; }
  // Passes the ID on to the related ion volumes (and theirs) first; no change is signalled. Each
  // ion volume is visited once, so related volumes that refer to each other do not loop.
  void setIonVolumeGroupID(std::optional<ManagedObjectID> id);

  // The context set (_managedObjectContext), empty when none; held, the handle keeps it alive.
  ContextHandle weakManagedObjectContext() const { return context_.lock(); }
  // The context set, else the delegate's, as a handle that keeps it alive while held; FatalError
  // when there is neither.
  ContextHandle managedObjectContext() const;
  void setManagedObjectContext(ManagedObjectContext* context) { context_ = context; }
  const std::shared_ptr<StoreEnvironment>& application() const { return application_; }

  // The owning group in managedObjectContext; nullptr without a group ID, when the group is of
  // another class, or when the store fails (a line is printed).
  std::shared_ptr<IonVolumeGroup> ionVolumeGroup() const;
  // Joins the group by its ID, made permanent first (a failure prints a line and keeps the
  // temporary one); nullptr keeps the previous ID.
  void setIonVolumeGroup(const std::shared_ptr<IonVolumeGroup>& group);

  // Makes the owning group's stored set register a change after a member was edited in place: its
  // first element (whichever that is) is replaced by an exact copy and the set assigned anew.
  void signalInternalChange();

  void setChangeObserver(ChangeObserver observer) { observer_ = std::move(observer); }

 private:
  void willChange(std::string_view key) {
    if (observer_) observer_(key, true);
  }
  void didChange(std::string_view key) {
    if (observer_) observer_(key, false);
  }
  void passOnGroupID(const std::optional<ManagedObjectID>& id, std::vector<const IonVolume*>& visited);

  // One member of relatedIonVolumes: exactly one of the two pointers is set.
  struct RelatedLink {
    std::shared_ptr<IonVolume> strong;
    std::weak_ptr<IonVolume> weak;
    std::shared_ptr<IonVolume> get() const { return strong ? strong : weak.lock(); }
  };
  // Replaces the related volumes; `heldWeakly` tells which members must not be owned.
  void assignRelated(const ValueSet& volumes, const std::function<bool(const IonVolume&)>& heldWeakly);
  // Whether this volume reaches `target` through strong related links (itself included).
  bool reachesStrongly(const IonVolume* target, std::vector<const IonVolume*>& visited) const;

  WeakContext context_;
  std::shared_ptr<StoreEnvironment> application_;
  Value acceptableQuality_;
  Value value_;
  std::uint64_t typeOfQuantification_ = 0;
  std::optional<ManagedObjectID> normIonVolumeObjectID_;
  std::shared_ptr<IonVolume> normIonVolume_;
  Value quantificationInfo_;
  Value objectInfo_;
  std::vector<RelatedLink> related_;
  std::optional<ManagedObjectID> ionVolumeGroupID_;
  std::optional<ManagedObjectID> referenceObjectID_;
  ChangeObserver observer_;
};

}  // namespace tesselune
