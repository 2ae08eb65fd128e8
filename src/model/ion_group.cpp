// Ion groups: the self-kept member count and the descriptions made from it.

#include "model/ion_group.h"

#include <fmt/format.h>

#include "model/ion_volume.h"

namespace tesselune {

namespace {
constexpr std::string_view kNumberOfIons = "numberOfIons";
}  // namespace

std::int64_t IonGroup::numberOfIons() const {
  willAccessValueForKey(kNumberOfIons);
  Value count = primitiveValueForKey(kNumberOfIons);
  if (count.integerValue() == 0) {
    const_cast<IonGroup*>(this)->refreshMembersCount();  // see StoreObject::mutableSelf
    count = primitiveValueForKey(kNumberOfIons);
  }
  didAccessValueForKey(kNumberOfIons);
  return count.integerValue();
}

void IonGroup::refreshMembersCount() {
  setNumberOfIons(static_cast<std::int64_t>(objectsForKey("ions").size()));
}

std::string IonGroup::objectDescription() const {
  return fmt::format("{} ions", static_cast<long>(numberOfIons()));
}

std::string IonGroup::shortObjectDescription() const {
  return fmt::format("({})", static_cast<long>(numberOfIons()));
}

Value IonGroup::valueForKey(std::string_view key) const {
  if (key == kNumberOfIons) return Value(numberOfIons());
  if (key == "objectDescription") return Value(objectDescription());
  if (key == "shortObjectDescription") return Value(shortObjectDescription());
  return StoreObject::valueForKey(key);
}

std::set<std::string> IonGroup::keyPathsForValuesAffectingValueForKey(std::string_view key) const {
  auto paths = StoreObject::keyPathsForValuesAffectingValueForKey(key);
  if (key == "shortObjectDescription" || key == "objectDescription") paths.insert("ions");
  if (key == "objectName") paths.insert("ionGroupName");
  return paths;
}

std::optional<ValueSet> IonVolumeGroup::ionVolumes() const {
  Value stored = valueForKey("ionVolumes");
  if (!stored.isSet()) return std::nullopt;
  for (const Value& item : stored.asSet()) {
    if (!item.asObjectOf<IonVolume>()) return std::nullopt;
  }
  return std::move(stored.asSet());
}

void IonVolumeGroup::setIonVolumes(std::optional<ValueSet> volumes) {
  setValue(volumes ? Value(std::move(*volumes)) : Value(), "ionVolumes");
}

}  // namespace tesselune
