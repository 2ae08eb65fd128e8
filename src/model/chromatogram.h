// The chromatogram entities: Chromatogram (one LC-MS run with its spectra and data folder),
// ChromatogramGroup, ChromatogramAlignment, ChromatogramMap and ChromatogramNormalization.
//
// Objects belong to their context and are used on its thread. Transient members live in memory
// only; the main application's objects among them are opaque slots that start empty.
#pragma once

#include <cstdint>
#include <optional>

#include "foundation/url.h"
#include "foundation/value.h"
#include "model/store_object.h"
#include "objectstore/fetch_request.h"

namespace tesselune {

class Chromatogram : public StoreObject {
 public:
  static FetchRequest fetchRequest() { return FetchRequest::fetchRequestWithEntityName("Chromatogram"); }

  // The chromatogram's data folder: the cached URL, else dataFolderRelativePath appended as one
  // path component to the environment's data folder and cached without change notification.
  // Nothing when the relative path is absent or empty, or no data folder is known.
  std::optional<Url> dataFolderURL() const;
  // Replaces the cache (with change notification); the relative path stays the persistent truth.
  void setDataFolderURL(const std::optional<Url>& url);

  Value valueForKey(std::string_view key) const override;
  void setValueForKey(Value value, std::string_view key) override;

  // Removes the data folder, then cleans out the cascade relationships. Only a folder that lies,
  // symbolic links followed, strictly inside the data library is removed; a failed or refused
  // removal is shown as a critical alert (Tesselune_Error 106) queued on the main queue, and the
  // store entries are deleted all the same. A missing folder is no error.
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
