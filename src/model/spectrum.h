// The spectrum entities: SpectrumSingle (one mass spectrum of a chromatogram) with its kinds
// Spectrum, FragmentSpectrum and ChromatogramSpectrum, SpectrumView (a displayed range of one)
// and PrecursorSelection (precursors chosen for fragmentation, with an index of their spectra).
//
// Objects belong to their context and are used on its thread. Their members here are transient
// cursors and caches of the main application.
#pragma once

#include <cstdint>
#include <optional>

#include "model/store_object.h"

namespace tesselune {

class SpectrumSingle : public StoreObject {
 public:
  std::int64_t lastAccessedPointIndex() const { return lastAccessedPointIndex_; }
  void setLastAccessedPointIndex(std::int64_t index) { lastAccessedPointIndex_ = index; }
  const Bytes& modeledDataArray() const { return modeledDataArray_; }
  void setModeledDataArray(Bytes data) { modeledDataArray_ = std::move(data); }

 private:
  std::int64_t lastAccessedPointIndex_ = 0;
  Bytes modeledDataArray_;
};

class Spectrum : public SpectrumSingle {};
class FragmentSpectrum : public Spectrum {};
class ChromatogramSpectrum : public Spectrum {};

class SpectrumView : public StoreObject {
 public:
  const ObjectPtr& displayManager() const { return displayManager_; }
  void setDisplayManager(ObjectPtr manager) { displayManager_ = std::move(manager); }

 private:
  ObjectPtr displayManager_;
};

class PrecursorSelection : public StoreObject {
 public:
  // Selections may be archived securely by the main application.
  static constexpr bool supportsSecureCoding() { return true; }

  std::int64_t lastAccessedFragmentSpectrumIndex() const { return lastAccessedFragmentSpectrumIndex_; }
  void setLastAccessedFragmentSpectrumIndex(std::int64_t index) {
    lastAccessedFragmentSpectrumIndex_ = index;
  }
  const Dictionary& fragmentSpectrumIndex() const { return fragmentSpectrumIndex_; }
  void setFragmentSpectrumIndex(Dictionary index) { fragmentSpectrumIndex_ = std::move(index); }
  const std::optional<double>& fragmentChromatogramDeltaTimeMin() const {
    return fragmentChromatogramDeltaTimeMin_;
  }
  void setFragmentChromatogramDeltaTimeMin(std::optional<double> delta) {
    fragmentChromatogramDeltaTimeMin_ = delta;
  }

 private:
  std::int64_t lastAccessedFragmentSpectrumIndex_ = 0;
  Dictionary fragmentSpectrumIndex_;
  std::optional<double> fragmentChromatogramDeltaTimeMin_;
};

}  // namespace tesselune
