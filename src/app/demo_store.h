// The demonstration store: a store shaped like the ones the main application leaves, big enough to
// show what the store support program does and how long it takes. Chromatograms with thousands of
// spectra and their dependants (fragment spectra, ion groups, ion volume groups, maps,
// normalisations, precursor selections and lists), database searches with peptide and protein
// identifications, search groups joining them, data collections, a data folder on disk for each
// chromatogram, and some of each marked for deletion.
//
// Rows are written straight into the tables through the engine's schema mapping, in large
// transactions with prepared statements, and keys are taken from the store's own counters, so a
// store of a hundred thousand spectra takes seconds and opens like any other.
#pragma once

#include <cstdint>

#include "app/data_library.h"
#include "foundation/error.h"
#include "foundation/progress_reporter.h"

namespace tesselune {

struct DemoOptions {
  int chromatograms = 4;
  int spectraPerChromatogram = 5000;
  int fragmentSpectraPerChromatogram = 500;
  int searches = 3;  // each searches one chromatogram (at most one search per chromatogram)
  int peptidesPerSearch = 1000;
  int proteinsPerSearch = 100;
  int searchGroups = 2;  // each joins every search
  int dataCollections = 3;
  // How many of each kind are marked for deletion (the last ones made).
  int markedChromatograms = 1;
  int markedSearches = 1;
  int markedSearchGroups = 1;
  int markedDataCollections = 1;
  int filesPerDataFolder = 3;
  int kilobytesPerFile = 64;
};

struct DemoSummary {
  std::int64_t objects = 0;
  std::int64_t marked = 0;
  int dataFolders = 0;
};

// Checks the options: counts not negative, marks not above what is made. Fails with a text for
// the user.
[[nodiscard]] Status validateDemoOptions(const DemoOptions& options);

// Makes a new store in the library (failing when one is there) and fills it. `progress` may be
// nullptr; it is told the number of objects to write and each batch written. A failure part-way
// leaves the store holding the batches written before it, each whole.
[[nodiscard]] Expected<DemoSummary> buildDemoStore(const DataLibrary& library, const DemoOptions& options,
                                                   ProgressReporter* progress);

}  // namespace tesselune
