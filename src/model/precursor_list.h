// The precursor entities: PrecursorListGroup (precursor lists of a chromatogram, shown in data
// collections, dragged from the data library into the object store), PrecursorList (correlated
// precursors kept archived in one attribute, plus transient maxima for scaling) and
// ManagedCachedData (a cache object owned by a marker-fragment group). MarkerFragmentGroup lives in
// marker_fragment_group.h.
//
// Objects belong to their context and are used on its thread. Writing a list's precursors runs
// blocks on the list's context and then on the delegate's context, one after the other, from the
// caller's thread: do not write from another context while holding the delegate context's queue.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/pasteboard.h"
#include "model/correlated_precursor.h"
#include "model/marker_fragment_group.h"
#include "model/property_descriptor.h"
#include "model/store_object.h"

namespace tesselune {

using CorrelatedPrecursors = std::vector<std::shared_ptr<CorrelatedPrecursor>>;

class PrecursorListGroup : public StoreObject {
 public:
  std::string name() const;
  void setName(std::string_view name) { setValue(Value(name), "name"); }
  bool objectStoreMember() const { return valueForKey("objectStoreMember").boolValue(); }
  void setObjectStoreMember(bool member) { setValue(Value(member), "objectStoreMember"); }
  std::shared_ptr<ManagedObject> chromatogram() const { return objectForKey("chromatogram"); }
  std::vector<std::shared_ptr<ManagedObject>> precursorLists() const {
    return objectsForKey("precursorLists");
  }
  std::vector<std::shared_ptr<ManagedObject>> dataCollections() const {
    return objectsForKey("dataCollections");
  }

  // The group's marker-fragment group, when one of that class is set.
  std::shared_ptr<MarkerFragmentGroup> markerFragmentGroup() const;
  // The precursors of all lists together; FatalError if the sum overflows.
  std::int64_t numberOfPrecursors() const;

  // The rows an inspector shows, built on first read: name, number of lists, number of precursors,
  // then the fragment group's name and fragment count when there is one, then the chromatogram's
  // name when there is one. Nothing once it was set to nothing (which is not rebuilt).
  std::optional<std::vector<std::shared_ptr<PropertyDescriptor>>> propertiesDescription() const;
  void setPropertiesDescription(std::optional<std::vector<std::shared_ptr<PropertyDescriptor>>> descriptors);

  // The dynamic identifier of "ObjectStoreObjects" for the drag pasteboard; nothing for others.
  static std::vector<std::string> readableTypesForPasteboard(const Pasteboard& pasteboard);
  // A copy, inserted into the delegate's context, of the group whose URI was placed on a
  // pasteboard: `type` must be the dynamic identifier of "LibraryDataObjects",
  // "ObjectStoreObjects" or "PrecursorListGroup", `propertyList` a keyed archive of the URI.
  // Attributes are copied, relationships not. Nothing when any piece is missing; a missing
  // application object is a FatalError.
  static std::shared_ptr<PrecursorListGroup> initWithPasteboardPropertyList(
      const Value& propertyList, std::string_view type, const std::shared_ptr<StoreEnvironment>& application);

  Value valueForKey(std::string_view key) const override;
  void didTurnIntoFault() override;

 private:
  // Not built / built / emptied on purpose.
  mutable bool descriptionBuilt_ = false;
  mutable std::optional<std::vector<std::shared_ptr<PropertyDescriptor>>> propertiesDescription_;
};

class PrecursorList : public StoreObject {
 public:
  // The stored precursors; nothing when absent or not an array of CorrelatedPrecursors.
  std::optional<CorrelatedPrecursors> correlatedPrecursors() const;
  // Stores the precursors (nothing clears the attribute). A list without a permanent ID gets one
  // first where the store can give one; every element then takes the list's context and ID.
  // Store errors are dropped: the elements keep a temporary ID then.
  void setCorrelatedPrecursors(std::optional<CorrelatedPrecursors> precursors);

  double scoreNormFactor() const { return scoreNormFactor_; }
  void setScoreNormFactor(double factor) { scoreNormFactor_ = factor; }
  std::int64_t maxCorrelationCount() const { return maxCorrelationCount_; }
  void setMaxCorrelationCount(std::int64_t count);
  double maxFragmentIntensity() const { return maxFragmentIntensity_; }
  void setMaxFragmentIntensity(double intensity);
  double maxPrecursorIntensity() const { return maxPrecursorIntensity_; }
  void setMaxPrecursorIntensity(double intensity);

  Value valueForKey(std::string_view key) const override;
  void setValueForKey(Value value, std::string_view key) override;

 private:
  double scoreNormFactor_ = 1.0;
  std::int64_t maxCorrelationCount_ = 0;
  double maxFragmentIntensity_ = 0.0;
  double maxPrecursorIntensity_ = 0.0;
};

class ManagedCachedData : public StoreObject {};

}  // namespace tesselune
