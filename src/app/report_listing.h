// Reading the deletion reports that the store support program left in the temporary folder, for
// the maintenance command's `report`: as text for people and as JSON for scripts.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "deletion/deletion_report.h"

namespace tesselune {

struct ReportListingEntry {
  std::filesystem::path file;
  Expected<DeletionReport> report;  // a file that does not decode keeps its error
};

// The report files of the folder, as the store support program recognises them (regular, not
// hidden, "storeSupport*.info"), in the order they were named: "storeSupport.info" first, then by
// number, then any others by name. An absent folder has none.
std::vector<std::filesystem::path> reportFiles(const std::filesystem::path& temporaryFolder);
std::vector<ReportListingEntry> readReports(const std::filesystem::path& temporaryFolder);

std::string formatReports(const std::vector<ReportListingEntry>& reports);
// {"reports": [{"file": …, "chromatogramDeleted": true, "uris": […]} or {"file": …, "error": …}]}
std::string reportsJson(const std::vector<ReportListingEntry>& reports);
// A JSON string literal, quotes included; control characters and invalid UTF-8 bytes escaped.
std::string jsonString(std::string_view text);

}  // namespace tesselune
