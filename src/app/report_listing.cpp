// Listing and printing deletion reports.
#include "app/report_listing.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <optional>
#include <system_error>

namespace tesselune {

namespace {

// The number of "storeSupport_N.info"; -1 for "storeSupport.info"; nothing for other names.
std::optional<long> reportNumber(const std::string& name) {
  if (name == "storeSupport.info") return -1;
  constexpr std::string_view prefix = "storeSupport_";
  constexpr std::string_view suffix = ".info";
  if (!name.starts_with(prefix) || !name.ends_with(suffix)) return std::nullopt;
  std::string_view digits(name.data() + prefix.size(), name.size() - prefix.size() - suffix.size());
  if (digits.empty() || (digits.size() > 1 && digits[0] == '0')) return std::nullopt;
  long number = 0;
  auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
  if (ec != std::errc{} || end != digits.data() + digits.size()) return std::nullopt;
  return number;
}

}  // namespace

std::vector<std::filesystem::path> reportFiles(const std::filesystem::path& temporaryFolder) {
  std::vector<std::filesystem::path> files;
  std::error_code ec;
  std::filesystem::directory_iterator it(temporaryFolder, ec);
  if (ec) return files;
  for (const auto& entry : it) {
    const std::string name = entry.path().filename().string();
    if (name.starts_with('.') || !name.starts_with("storeSupport") || !name.ends_with(".info")) continue;
    std::error_code typeError;
    if (!entry.is_regular_file(typeError)) continue;
    files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end(), [](const auto& a, const auto& b) {
    auto na = reportNumber(a.filename().string());
    auto nb = reportNumber(b.filename().string());
    if (na && nb) return *na < *nb;
    if (na || nb) return na.has_value();
    return a.filename() < b.filename();
  });
  return files;
}

std::vector<ReportListingEntry> readReports(const std::filesystem::path& temporaryFolder) {
  std::vector<ReportListingEntry> entries;
  for (auto& file : reportFiles(temporaryFolder)) {
    auto report = readDeletionReport(file);
    entries.push_back({std::move(file), std::move(report)});
  }
  return entries;
}

std::string formatReports(const std::vector<ReportListingEntry>& reports) {
  if (reports.empty()) return "No deletion reports.\n";
  std::string out;
  for (const auto& entry : reports) {
    out += fmt::format("{}\n", entry.file.filename().string());
    if (!entry.report) {
      out += fmt::format("  cannot be read: {}\n", entry.report.error().localizedDescription());
      continue;
    }
    out += fmt::format("  chromatogram deleted: {}\n", entry.report->chromatogramDeleted ? "yes" : "no");
    out += fmt::format("  objects deleted: {}\n", entry.report->uris.size());
    for (const Url& uri : entry.report->uris) out += fmt::format("    {}\n", uri.absoluteString());
  }
  return out;
}

std::string jsonString(std::string_view text) {
  std::string out = "\"";
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    switch (c) {
      case '"':
        out += "\\\"";
        continue;
      case '\\':
        out += "\\\\";
        continue;
      case '\n':
        out += "\\n";
        continue;
      case '\r':
        out += "\\r";
        continue;
      case '\t':
        out += "\\t";
        continue;
      default:
        break;
    }
    if (c < 0x20 || c == 0x7f) {
      out += fmt::format("\\u{:04x}", c);
      continue;
    }
    if (c < 0x80) {
      out += static_cast<char>(c);
      continue;
    }
    // Multi-byte UTF-8 passes through whole; a byte that starts no valid sequence becomes U+FFFD,
    // so that the output is always valid JSON.
    const std::size_t length = c >= 0xf0 && c < 0xf5 ? 4 : c >= 0xe0 ? 3 : c >= 0xc2 && c < 0xe0 ? 2 : 0;
    bool valid = length != 0 && i + length <= text.size();
    for (std::size_t k = 1; valid && k < length; ++k) {
      valid = (static_cast<unsigned char>(text[i + k]) & 0xc0) == 0x80;
    }
    if (valid) {
      out.append(text.substr(i, length));
      i += length - 1;
    } else {
      out += "\\ufffd";
    }
  }
  out += '"';
  return out;
}

std::string reportsJson(const std::vector<ReportListingEntry>& reports) {
  std::string out = "{\"reports\": [";
  for (std::size_t i = 0; i < reports.size(); ++i) {
    const auto& entry = reports[i];
    out += i == 0 ? "\n  " : ",\n  ";
    out += fmt::format("{{\"file\": {}", jsonString(entry.file.string()));
    if (!entry.report) {
      out += fmt::format(", \"error\": {}}}", jsonString(entry.report.error().localizedDescription()));
      continue;
    }
    out += fmt::format(", \"chromatogramDeleted\": {}, \"uris\": [",
                       entry.report->chromatogramDeleted ? "true" : "false");
    for (std::size_t k = 0; k < entry.report->uris.size(); ++k) {
      if (k != 0) out += ", ";
      out += jsonString(entry.report->uris[k].absoluteString());
    }
    out += "]}";
  }
  out += reports.empty() ? "]}\n" : "\n]}\n";
  return out;
}

}  // namespace tesselune
