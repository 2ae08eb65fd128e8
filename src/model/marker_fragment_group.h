// MarkerFragmentGroup: a named group of marker fragments belonging to a molecular marker and a data
// collection. Its fragments are no entities: the group keeps them as one set of archived
// MarkerFragments in a single stored attribute, and assigning the set links every fragment back to
// the group (its context and the group's permanent ID).
//
// The set lives in the model's attribute "MarkerFragments" when the entity has one, else in
// "markerFragments" (the store model's spelling); reading and writing both use that one attribute,
// so what is written reads back under either spelling. Change and access notifications are always
// sent for "markerFragments", the key the group's users observe.
//
// Like every managed object it belongs to its context and is used on that context's thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "foundation/value.h"
#include "model/store_object.h"

namespace tesselune {

class MarkerFragmentGroup : public StoreObject {
 public:
  // The set of MarkerFragments; nothing when absent or when anything else is stored.
  std::optional<ValueSet> markerFragments() const;
  // Stores the set (nothing clears it). A group without a permanent ID gets one first (errors are
  // dropped); every fragment then takes the group's context and ID.
  void setMarkerFragments(std::optional<ValueSet> fragments);
  // The number of fragments; 0 without a set.
  std::int64_t numberOfFragments() const;

  std::string name() const;
  void setName(std::string_view name) { setValue(Value(name), "name"); }

  // A new group of the same entity in the same context (attributesCopy) named after this one with
  // " copy" appended. Nothing when there is no context.
  std::shared_ptr<MarkerFragmentGroup> objectStoreCopy();

  // A copy, inserted into the delegate's context, of the group whose URI was placed on a
  // pasteboard: `type` must be the dynamic identifier of "LibraryDataObjects",
  // "ObjectStoreObjects" or "MarkerFragmentGroup" and `propertyList` a keyed archive of the URI.
  // Nothing when a piece is missing or the source is of another class; a source that cannot be
  // fetched is a FatalError, as is a missing application object.
  static std::shared_ptr<MarkerFragmentGroup> initWithPasteboardPropertyList(
      const Value& propertyList, std::string_view type, const std::shared_ptr<StoreEnvironment>& application);

  Value valueForKey(std::string_view key) const override;
  void setValueForKey(Value value, std::string_view key) override;
  std::set<std::string> keyPathsForValuesAffectingValueForKey(std::string_view key) const override;

 private:
  // The model's name of the attribute behind the reading key.
  std::string_view storedFragmentsKey() const;
};

}  // namespace tesselune
