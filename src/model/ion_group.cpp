// Ion groups: the self-kept member count and the descriptions made from it.

#include "model/ion_group.h"

#include <fmt/format.h>

#include "model/chromatogram.h"
#include "model/data_collection.h"
#include "model/database_search.h"
#include "model/ion_volume.h"
#include "model/marker_fragment_group.h"

namespace tesselune {

namespace {
constexpr std::string_view kNumberOfIons = "numberOfIons";
}  // namespace

std::vector<std::shared_ptr<PeptideID>> IonGroup::ions() const {
  return toMany<PeptideID>("ions");
}
std::shared_ptr<Chromatogram> IonGroup::chromatogram() const {
  return toOne<Chromatogram>("chromatogram");
}
void IonGroup::setChromatogram(const std::shared_ptr<Chromatogram>& chromatogram) {
  setToOne(chromatogram, "chromatogram");
}
std::shared_ptr<ChromatogramGroup> IonGroup::chromatogramGroup() const {
  return toOne<ChromatogramGroup>("chromatogramGroup");
}
void IonGroup::setChromatogramGroup(const std::shared_ptr<ChromatogramGroup>& group) {
  setToOne(group, "chromatogramGroup");
}
std::vector<std::shared_ptr<DataCollection>> IonGroup::dataCollections() const {
  return toMany<DataCollection>("dataCollections");
}
std::vector<std::shared_ptr<IonVolumeGroup>> IonGroup::ionVolumeGroups() const {
  return toMany<IonVolumeGroup>("ionVolumeGroups");
}
std::shared_ptr<Protein> IonGroup::protein() const {
  return toOne<Protein>("protein");
}
void IonGroup::setProtein(const std::shared_ptr<Protein>& protein) {
  setToOne(protein, "protein");
}

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

std::shared_ptr<Chromatogram> IonVolumeGroup::chromatogram() const {
  return toOne<Chromatogram>("chromatogram");
}
void IonVolumeGroup::setChromatogram(const std::shared_ptr<Chromatogram>& chromatogram) {
  setToOne(chromatogram, "chromatogram");
}
std::shared_ptr<DatabaseSearchJoin> IonVolumeGroup::databaseSearchJoin() const {
  return toOne<DatabaseSearchJoin>("databaseSearchJoin");
}
void IonVolumeGroup::setDatabaseSearchJoin(const std::shared_ptr<DatabaseSearchJoin>& join) {
  setToOne(join, "databaseSearchJoin");
}
std::shared_ptr<DatabaseSearchResult> IonVolumeGroup::databaseSearchResult() const {
  return toOne<DatabaseSearchResult>("databaseSearchResult");
}
void IonVolumeGroup::setDatabaseSearchResult(const std::shared_ptr<DatabaseSearchResult>& result) {
  setToOne(result, "databaseSearchResult");
}
std::shared_ptr<IonGroup> IonVolumeGroup::ionGroup() const {
  return toOne<IonGroup>("ionGroup");
}
void IonVolumeGroup::setIonGroup(const std::shared_ptr<IonGroup>& group) {
  setToOne(group, "ionGroup");
}
std::shared_ptr<MolecularMarkerGroup> IonVolumeGroup::molecularMarkerGroup() const {
  return toOne<MolecularMarkerGroup>("molecularMarkerGroup");
}
void IonVolumeGroup::setMolecularMarkerGroup(const std::shared_ptr<MolecularMarkerGroup>& group) {
  setToOne(group, "molecularMarkerGroup");
}
std::shared_ptr<MarkerFragmentGroup> IonVolumeGroup::markerFragmentGroup() const {
  return toOne<MarkerFragmentGroup>("markerFragmentGroup");
}
void IonVolumeGroup::setMarkerFragmentGroup(const std::shared_ptr<MarkerFragmentGroup>& group) {
  setToOne(group, "markerFragmentGroup");
}
std::shared_ptr<ProteinGroup> IonVolumeGroup::proteinGroup() const {
  return toOne<ProteinGroup>("proteinGroup");
}
void IonVolumeGroup::setProteinGroup(const std::shared_ptr<ProteinGroup>& group) {
  setToOne(group, "proteinGroup");
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
