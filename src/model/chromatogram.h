// The chromatogram entities: Chromatogram (one LC-MS run with its spectra and data folder),
// ChromatogramGroup, ChromatogramAlignment, ChromatogramMap and ChromatogramNormalization.
//
// Objects belong to their context and are used on its thread. Transient members live in memory
// only; the main application's objects among them are opaque slots that start empty.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "foundation/safe_remove.h"
#include "foundation/url.h"
#include "foundation/value.h"
#include "model/store_object.h"
#include "objectstore/fetch_request.h"

namespace tesselune {

class ChromatogramGroup;
class ChromatogramMap;
class ChromatogramNormalization;
class ChromatogramAlignment;
class DataCollection;
class DatabaseSearchResult;
class IonGroup;
class IonVolumeGroup;
class MolecularMarkerGroup;
class MolecularReferenceGroup;
class PrecursorListGroup;
class PrecursorSelection;
class Protein;
class ProteinGroup;
class ProteinID;
class SpectrumSingle;

class Chromatogram : public StoreObject {
 public:
  static FetchRequest fetchRequest() { return FetchRequest::fetchRequestWithEntityName("Chromatogram"); }

  // Stored attributes (see StoreObject's typed access for absent values).
  // Set by the main application to hand the chromatogram to this program for deletion.
  bool destinedForDeletion() const { return valueForKey("destinedForDeletion").boolValue(); }
  void setDestinedForDeletion(bool destined) { setValue(Value(destined), "destinedForDeletion"); }
  std::optional<std::string> chromatogramName() const { return stringForKey("chromatogramName"); }
  void setChromatogramName(std::optional<std::string> name) { setOptionalValue(name, "chromatogramName"); }
  // The data folder relative to the store's default directory: the persistent truth behind
  // dataFolderURL.
  std::optional<std::string> dataFolderRelativePath() const { return stringForKey("dataFolderRelativePath"); }
  void setDataFolderRelativePath(std::optional<std::string> path) {
    setOptionalValue(path, "dataFolderRelativePath");
  }
  std::optional<double> deltaTimeMin() const { return doubleForKey("deltaTimeMin"); }
  void setDeltaTimeMin(std::optional<double> delta) { setOptionalValue(delta, "deltaTimeMin"); }
  std::optional<double> duration() const { return doubleForKey("duration"); }
  void setDuration(std::optional<double> duration) { setOptionalValue(duration, "duration"); }
  std::optional<Uuid> idTag() const { return uuidForKey("idTag"); }
  void setIdTag(std::optional<Uuid> tag) { setOptionalValue(tag, "idTag"); }
  std::optional<double> integratedIonCount() const { return doubleForKey("integratedIonCount"); }
  void setIntegratedIonCount(std::optional<double> count) { setOptionalValue(count, "integratedIonCount"); }
  std::optional<std::int64_t> numberOfFragmentSpectra() const {
    return integerForKey("numberOfFragmentSpectra");
  }
  void setNumberOfFragmentSpectra(std::optional<std::int64_t> count) {
    setOptionalValue(count, "numberOfFragmentSpectra");
  }
  std::optional<std::int64_t> numberOfSpectra() const { return integerForKey("numberOfSpectra"); }
  void setNumberOfSpectra(std::optional<std::int64_t> count) { setOptionalValue(count, "numberOfSpectra"); }
  std::optional<std::int64_t> parallelFragmentation() const { return integerForKey("parallelFragmentation"); }
  void setParallelFragmentation(std::optional<std::int64_t> value) {
    setOptionalValue(value, "parallelFragmentation");
  }
  std::optional<std::string> rawFileName() const { return stringForKey("rawFileName"); }
  void setRawFileName(std::optional<std::string> name) { setOptionalValue(name, "rawFileName"); }
  std::optional<double> time() const { return doubleForKey("time"); }
  void setTime(std::optional<double> time) { setOptionalValue(time, "time"); }
  std::optional<Bytes> spectrumModelData() const { return dataForKey("spectrumModelData"); }
  void setSpectrumModelData(std::optional<Bytes> data) { setOptionalValue(data, "spectrumModelData"); }
  std::optional<Bytes> fragmentSpectrumModelData() const { return dataForKey("fragmentSpectrumModelData"); }
  void setFragmentSpectrumModelData(std::optional<Bytes> data) {
    setOptionalValue(data, "fragmentSpectrumModelData");
  }
  // Transformable attributes, held as the decoded objects: the main application's spectrum models,
  // an attributed string and a dictionary. Null when absent.
  Value spectrumModel() const { return valueForKey("spectrumModel"); }
  void setSpectrumModel(Value model) { setValue(std::move(model), "spectrumModel"); }
  Value fragmentSpectrumModel() const { return valueForKey("fragmentSpectrumModel"); }
  void setFragmentSpectrumModel(Value model) { setValue(std::move(model), "fragmentSpectrumModel"); }
  Value info() const { return valueForKey("info"); }
  void setInfo(Value info) { setValue(std::move(info), "info"); }
  Value mapData() const { return valueForKey("mapData"); }
  void setMapData(Value data) { setValue(std::move(data), "mapData"); }

  // Relationships, named as the store names them (singular names of to-many ones included). To-one
  // setters keep the inverse; to-many members change through addObject and removeObject.
  std::vector<std::shared_ptr<ChromatogramGroup>> chromatogramGroup() const;
  std::vector<std::shared_ptr<ChromatogramMap>> chromatogramMaps() const;
  std::vector<std::shared_ptr<ChromatogramNormalization>> chromatogramNormalizations() const;
  std::shared_ptr<DatabaseSearchResult> databaseSearchResult() const;
  void setDatabaseSearchResult(const std::shared_ptr<DatabaseSearchResult>& result);
  std::vector<std::shared_ptr<DataCollection>> dataCollections() const;
  std::vector<std::shared_ptr<SpectrumSingle>> fragmentSpectrum() const;
  std::vector<std::shared_ptr<IonGroup>> ionGroup() const;
  std::vector<std::shared_ptr<IonVolumeGroup>> ionVolumeGroups() const;
  std::vector<std::shared_ptr<MolecularMarkerGroup>> molecularMarkerGroups() const;
  std::shared_ptr<MolecularReferenceGroup> molecularReferenceGroup() const;
  void setMolecularReferenceGroup(const std::shared_ptr<MolecularReferenceGroup>& group);
  std::vector<std::shared_ptr<ChromatogramAlignment>> myChromatogramAlignments() const;
  std::shared_ptr<Protein> normProtein() const;
  void setNormProtein(const std::shared_ptr<Protein>& protein);
  std::shared_ptr<ProteinID> normProteinID() const;
  void setNormProteinID(const std::shared_ptr<ProteinID>& protein);
  std::vector<std::shared_ptr<PrecursorListGroup>> precursorListGroups() const;
  std::vector<std::shared_ptr<PrecursorSelection>> precursorSelections() const;
  std::vector<std::shared_ptr<ProteinGroup>> proteinGroups() const;
  std::vector<std::shared_ptr<Protein>> proteins() const;
  std::vector<std::shared_ptr<ChromatogramAlignment>> referenceChromatogramAlignments() const;
  std::shared_ptr<ProteinGroup> referenceProteinGroup() const;
  void setReferenceProteinGroup(const std::shared_ptr<ProteinGroup>& group);
  std::vector<std::shared_ptr<SpectrumSingle>> spectrum() const;
  std::vector<std::shared_ptr<SpectrumSingle>> spectrumDerived() const;

  // The chromatogram's data folder: the cached URL, else dataFolderRelativePath appended as one
  // path component to the environment's data folder and cached without change notification.
  // Nothing when the relative path is absent or empty, or no data folder is known.
  std::optional<Url> dataFolderURL() const;
  // Replaces the cache (with change notification); the relative path stays the persistent truth.
  void setDataFolderURL(const std::optional<Url>& url);

  Value valueForKey(std::string_view key) const override;
  void setValueForKey(Value value, std::string_view key) override;

  // Removes the data folder, then cleans out the cascade relationships. The folder is removed from
  // a descriptor of the data library down (removeBelow): a link goes as a link, a plain file as a
  // file; the library itself, its temporary folder, the store's files and the folders of the other
  // chromatograms in the store stay, as does anything a path leads to outside the library. A failed
  // or refused removal is shown as a critical alert (Tesselune_Error 106) queued on the main queue,
  // and the store entries are deleted all the same. A path that names nothing is no error.
  std::vector<ManagedObjectID> willBeDeleted(ProgressReporter* reporter,
                                             const DeletionSupport& support) override;
  // The base clean-up; a failed relationship goes to the system log, labelled by the kind of
  // spectrum it holds.
  std::vector<ManagedObjectID> batchDeleteCascadingRelationshipObjects(
      ProgressReporter* reporter, const DeletionSupport& support) override;

  std::int64_t lastAccessedSpectrumIndex() const { return lastAccessedSpectrumIndex_; }
  void setLastAccessedSpectrumIndex(std::int64_t index) { lastAccessedSpectrumIndex_ = index; }
  std::int64_t lastAccessedFragmentSpectrumIndex() const { return lastAccessedFragmentSpectrumIndex_; }
  void setLastAccessedFragmentSpectrumIndex(std::int64_t index) {
    lastAccessedFragmentSpectrumIndex_ = index;
  }
  const Dictionary& spectrumIndex() const { return spectrumIndex_; }
  void setSpectrumIndex(Dictionary index) { spectrumIndex_ = std::move(index); }
  const Dictionary& fragmentSpectrumIndex() const { return fragmentSpectrumIndex_; }
  void setFragmentSpectrumIndex(Dictionary index) { fragmentSpectrumIndex_ = std::move(index); }
  // The main application's ChromatogramPeakModel.
  const ObjectPtr& chromatographicPeakModel() const { return chromatographicPeakModel_; }
  void setChromatographicPeakModel(ObjectPtr model) { chromatographicPeakModel_ = std::move(model); }
  const Array& sortedSpectra() const { return sortedSpectra_; }
  void setSortedSpectra(Array spectra) { sortedSpectra_ = std::move(spectra); }
  const Array& sortedFragmentSpectra() const { return sortedFragmentSpectra_; }
  void setSortedFragmentSpectra(Array spectra) { sortedFragmentSpectra_ = std::move(spectra); }
  const std::optional<Date>& date() const { return date_; }
  void setDate(std::optional<Date> date) { date_ = date; }

 private:
  void removeDataFolder(const DeletionSupport& support);
  [[nodiscard]] Expected<RemovalRules> rulesForRemovingDataFolder(const FolderDescriptor& library) const;

  std::int64_t lastAccessedSpectrumIndex_ = 0;
  std::int64_t lastAccessedFragmentSpectrumIndex_ = 0;
  Dictionary spectrumIndex_;
  Dictionary fragmentSpectrumIndex_;
  ObjectPtr chromatographicPeakModel_;
  Array sortedSpectra_;
  Array sortedFragmentSpectra_;
  std::optional<Date> date_;
};

class ChromatogramGroup : public StoreObject {
 public:
  // Starts `info` as a one-space attributed string in the small system font plus one point and
  // the system text colour.
  void awakeFromInsert() override;
  // The number of `chromatograms`.
  std::uint64_t numberOfChromatograms() const;

  Value valueForKey(std::string_view key) const override;
  std::set<std::string> keyPathsForValuesAffectingValueForKey(std::string_view key) const override;

  // The point size of `info`'s font: the platform's small system font size (11) plus one.
  static constexpr double kInfoFontSize = 11.0 + 1.0;
};

class ChromatogramAlignment : public StoreObject {
 public:
  std::set<std::string> keyPathsForValuesAffectingValueForKey(std::string_view key) const override;
};

class ChromatogramMap : public StoreObject {
 public:
  ~ChromatogramMap() override;

  // The main application's display manager (held strongly) and time transformator.
  const ObjectPtr& displayManager() const { return displayManager_; }
  void setDisplayManager(ObjectPtr manager) { displayManager_ = std::move(manager); }
  const ObjectPtr& timeTransformator() const { return timeTransformator_; }
  void setTimeTransformator(ObjectPtr transformator) { timeTransformator_ = std::move(transformator); }

 private:
  ObjectPtr displayManager_;
  ObjectPtr timeTransformator_;
};

class ChromatogramNormalization : public StoreObject {
 public:
  // The main application's numerical calculator.
  const ObjectPtr& nrCalculator() const { return nrCalculator_; }
  void setNrCalculator(ObjectPtr calculator) { nrCalculator_ = std::move(calculator); }

 private:
  ObjectPtr nrCalculator_;
};

}  // namespace tesselune
