// Ion groups and ion volume groups: IonGroup (a set of ions that keeps its own member count),
// NormIonGroup (the ion groups used for normalisation) and IonVolumeGroup (quantified ion
// volumes, kept archived in one attribute).
//
// Objects belong to their context and are used on its thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "model/store_object.h"
#include "objectstore/fetch_request.h"

namespace tesselune {

class Chromatogram;
class ChromatogramGroup;
class DataCollection;
class DatabaseSearchJoin;
class DatabaseSearchResult;
class IonVolumeGroup;
class MarkerFragmentGroup;
class MolecularMarkerGroup;
class PeptideID;
class Protein;
class ProteinGroup;

class IonGroup : public StoreObject {
 public:
  static FetchRequest fetchRequest() { return FetchRequest::fetchRequestWithEntityName("IonGroup"); }

  // Stored properties (see StoreObject's typed access for absent values); to-many members change
  // through addObject and removeObject.
  std::optional<std::string> ionGroupName() const { return stringForKey("ionGroupName"); }
  void setIonGroupName(std::optional<std::string> name) { setOptionalValue(name, "ionGroupName"); }
  bool objectStoreMember() const { return valueForKey("objectStoreMember").boolValue(); }
  void setObjectStoreMember(bool member) { setValue(Value(member), "objectStoreMember"); }
  std::vector<std::shared_ptr<PeptideID>> ions() const;
  std::shared_ptr<Chromatogram> chromatogram() const;
  void setChromatogram(const std::shared_ptr<Chromatogram>& chromatogram);
  std::shared_ptr<ChromatogramGroup> chromatogramGroup() const;
  void setChromatogramGroup(const std::shared_ptr<ChromatogramGroup>& group);
  std::vector<std::shared_ptr<DataCollection>> dataCollections() const;
  std::vector<std::shared_ptr<IonVolumeGroup>> ionVolumeGroups() const;
  std::shared_ptr<Protein> protein() const;
  void setProtein(const std::shared_ptr<Protein>& protein);

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

  // Stored relationships.
  std::shared_ptr<Chromatogram> chromatogram() const;
  void setChromatogram(const std::shared_ptr<Chromatogram>& chromatogram);
  std::shared_ptr<DatabaseSearchJoin> databaseSearchJoin() const;
  void setDatabaseSearchJoin(const std::shared_ptr<DatabaseSearchJoin>& join);
  std::shared_ptr<DatabaseSearchResult> databaseSearchResult() const;
  void setDatabaseSearchResult(const std::shared_ptr<DatabaseSearchResult>& result);
  std::shared_ptr<IonGroup> ionGroup() const;
  void setIonGroup(const std::shared_ptr<IonGroup>& group);
  std::shared_ptr<MolecularMarkerGroup> molecularMarkerGroup() const;
  void setMolecularMarkerGroup(const std::shared_ptr<MolecularMarkerGroup>& group);
  std::shared_ptr<MarkerFragmentGroup> markerFragmentGroup() const;
  void setMarkerFragmentGroup(const std::shared_ptr<MarkerFragmentGroup>& group);
  std::shared_ptr<ProteinGroup> proteinGroup() const;
  void setProteinGroup(const std::shared_ptr<ProteinGroup>& group);

  // The archived set of IonVolumes (ion_volume.h); nothing when absent or holding anything else.
  std::optional<ValueSet> ionVolumes() const;
  // Stores the set as a new value (nothing clears it), with change notification.
  void setIonVolumes(std::optional<ValueSet> volumes);
};

}  // namespace tesselune
