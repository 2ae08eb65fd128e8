// The deletion report: the small file a deletion pass leaves in the temporary folder so that the main
// application learns which objects went (their URIs) and whether a chromatogram was among them, and
// the notification that tells a running main application to read the reports.
//
// A report is a keyed archive (secure coding off) of a dictionary: "chromatogramDeleted" is one byte
// of data (1 or 0), "uriData" the keyed archive of the array of the deleted objects' URIs, in the
// pass's order with duplicates kept. Files are written atomically, are never overwritten and never
// removed by this program. Functions are safe to call from any thread; the main application may read
// and remove reports at the same time.
#pragma once

#include <filesystem>
#include <string_view>
#include <vector>

#include "foundation/error.h"
#include "objectstore/managed_object_id.h"

namespace tesselune {

inline constexpr std::string_view kDeletionNotificationName = "remoteObjectsDelete";
inline constexpr std::string_view kDeletionNotificationObject = "Tesselune-storeSupport";

// Writes one report into `temporaryFolder`: "storeSupport.info", or the first free of
// "storeSupport_0.info" … "storeSupport_999.info". Fails with code 2 of "Tesselun-storeSupport" when
// the archive cannot be made, and code 3 of "Tesselune-storeSupport" when all names are taken or the
// file cannot be written (a missing folder is created first). Answers the file written. Scratch
// files that a killed run left in the folder are removed first.
[[nodiscard]] Expected<std::filesystem::path> writeDeletionReport(
    const std::filesystem::path& temporaryFolder, const std::vector<ManagedObjectID>& deleted,
    bool chromatogramDeleted);

// Whether the folder holds a report: a regular, not hidden file whose name begins with
// "storeSupport" and ends with ".info" (also one this program did not write). False when the folder
// cannot be listed.
bool deletionReportExists(const std::filesystem::path& temporaryFolder);

// A report read back: the URIs and the flag. For tests and the maintenance command.
struct DeletionReport {
  std::vector<Url> uris;
  bool chromatogramDeleted = false;
};
[[nodiscard]] Expected<DeletionReport> readDeletionReport(const std::filesystem::path& file);

}  // namespace tesselune
