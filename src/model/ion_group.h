// Ion groups and ion volume groups: IonGroup (a set of ions that keeps its own member count),
// NormIonGroup (the ion groups used for normalisation) and IonVolumeGroup (quantified ion
// volumes, kept archived in one attribute).
//
// Objects belong to their context and are used on its thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "model/store_object.h"
#include "objectstore/fetch_request.h"

namespace tesselune {

class IonGroup : public StoreObject {
 public:
  static FetchRequest fetchRequest() { return FetchRequest::fetchRequestWithEntityName("IonGroup"); }

  // The stored count; a count of 0 (or none) is taken again from `ions` first, so a group with
  // no ions counts on every read.
  std::int64_t numberOfIons() const;
  void setNumberOfIons(std::int64_t count) { setValue(Value(count), "numberOfIons"); }
  // Sets numberOfIons to the number of `ions`, with change notification.
  void refreshMembersCount();
  // "12 ions" and "(12)".
  std::string objectDescription() const;
  std::string shortObjectDescription() const;

  // The main application's IonGroup_DisplayManager.
  const ObjectPtr& displayManager() const { return displayManager_; }
  void setDisplayManager(ObjectPtr manager) { displayManager_ = std::move(manager); }

  Value valueForKey(std::string_view key) const override;
  std::set<std::string> keyPathsForValuesAffectingValueForKey(std::string_view key) const override;

 private:
  ObjectPtr displayManager_;
};

class NormIonGroup : public IonGroup {};

class IonVolumeGroup : public StoreObject {
 public:
  static FetchRequest fetchRequest() { return FetchRequest::fetchRequestWithEntityName("IonVolumeGroup"); }

  // The archived set of IonVolumes (ion_volume.h); nothing when absent or holding anything else.
  std::optional<ValueSet> ionVolumes() const;
  // Stores the set as a new value (nothing clears it), with change notification.
  void setIonVolumes(std::optional<ValueSet> volumes);
};

}  // namespace tesselune
