// The deletion report: archiving, choosing a free name, writing atomically, finding reports.

#include "deletion/deletion_report.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <iterator>
#include <random>
#include <string>

#include "foundation/compact_archive.h"
#include "foundation/keyed_unarchiver.h"

namespace tesselune {

namespace {

namespace fs = std::filesystem;

constexpr std::string_view kArchiveErrorMessage =
    "An error occurred when trying to communicate the deleted objects to the main application. The objectIDs "
    "could not be encoded.";
constexpr std::string_view kWriteErrorMessage =
    "An error occurred when trying to write the deleted objectIDs to disk. The temporary info file could not "
    "be "
    "saved to report the changes to the main application.";

Error writeError() {
  return customErrorWithDomain("Tesselune-storeSupport", 3, std::string(kWriteErrorMessage));
}

bool reachable(const fs::path& path) {
  std::error_code ec;
  return fs::exists(path, ec) && !ec;
}

// Writes the bytes to a hidden file beside the target and renames it into place, so that a reader
// sees the whole report or none.
bool writeAtomically(const fs::path& target, const Bytes& bytes) {
  std::random_device random;
  const fs::path scratch =
      target.parent_path() / ("." + target.filename().string() + "." + std::to_string(random()) + ".tmp");
  const int fd = ::open(scratch.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  std::size_t written = 0;
  while (written < bytes.size()) {
    const ssize_t n = ::write(fd, bytes.data() + written, bytes.size() - written);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    written += static_cast<std::size_t>(n);
  }
  const bool ok = written == bytes.size() && ::fsync(fd) == 0;
  ::close(fd);
  std::error_code ec;
  if (ok) {
    // Never replaces a report someone else wrote meanwhile.
    if (::link(scratch.c_str(), target.c_str()) == 0) {
      fs::remove(scratch, ec);
      return true;
    }
  }
  fs::remove(scratch, ec);
  return false;
}

}  // namespace

Expected<fs::path> writeDeletionReport(const fs::path& temporaryFolder,
                                       const std::vector<ManagedObjectID>& deleted,
                                       bool chromatogramDeleted) {
  std::vector<Url> uris;
  uris.reserve(deleted.size());
  for (const ManagedObjectID& id : deleted) uris.push_back(id.URIRepresentation());
  auto uriData = archivedURLArray(uris);
  uris = {};
  if (!uriData)
    return fail(uriData.error().customErrorWithDomain("Tesselun-storeSupport", 2, kArchiveErrorMessage));
  const std::uint8_t flag = chromatogramDeleted ? 1 : 0;
  const DataEntry entries[] = {{"chromatogramDeleted", {&flag, 1}}, {"uriData", *uriData}};
  auto archive = archivedDataDictionary(entries);
  uriData = {};
  if (!archive)
    return fail(archive.error().customErrorWithDomain("Tesselun-storeSupport", 2, kArchiveErrorMessage));

  fs::path target = temporaryFolder / "storeSupport.info";
  if (reachable(target)) {
    target.clear();
    for (int n = 0; n <= 999; ++n) {
      fs::path candidate = temporaryFolder / ("storeSupport_" + std::to_string(n) + ".info");
      if (!reachable(candidate)) {
        target = std::move(candidate);
        break;
      }
    }
    if (target.empty()) return fail(writeError());
  }
  if (writeAtomically(target, *archive)) return target;
  if (!reachable(temporaryFolder)) {
    std::error_code ec;
    fs::create_directories(temporaryFolder, ec);
    if (ec) return fail(writeError());
  }
  if (writeAtomically(target, *archive)) return target;
  return fail(writeError());
}

bool deletionReportExists(const fs::path& temporaryFolder) {
  std::error_code ec;
  fs::directory_iterator entries(temporaryFolder, ec);
  if (ec) return false;
  for (const fs::directory_entry& entry : entries) {
    const std::string name = entry.path().filename().string();
    if (name.starts_with('.')) continue;
    std::error_code kind;
    if (!entry.is_regular_file(kind) || kind) continue;
    if (entry.path().extension() == ".info" && name.starts_with("storeSupport")) return true;
  }
  return false;
}

Expected<DeletionReport> readDeletionReport(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  if (!in) {
    return fail(Error(std::string(kCocoaErrorDomain), kFileReadNoSuchFileError,
                      "The report “" + file.filename().string() + "” couldn’t be opened."));
  }
  const Bytes bytes((std::istreambuf_iterator<char>(in)), {});
  auto root = KeyedUnarchiver::unarchivedObjectOfClasses(foundationClasses(), bytes);
  if (!root) return fail(root.error());
  const Value& flag = (*root)["chromatogramDeleted"];
  const Value& uriData = (*root)["uriData"];
  if (!root->isDictionary() || !flag.isData() || flag.asData().size() != 1 || !uriData.isData()) {
    return fail(Error(std::string(kCocoaErrorDomain), kCoderReadCorruptError,
                      "The report “" + file.filename().string() + "” is not a deletion report."));
  }
  auto uris = KeyedUnarchiver::unarchivedObjectOfClasses(foundationClasses(), uriData.asData());
  if (!uris) return fail(uris.error());
  if (!uris->isArray()) {
    return fail(Error(std::string(kCocoaErrorDomain), kCoderReadCorruptError,
                      "The report “" + file.filename().string() + "” holds no list of URIs."));
  }
  DeletionReport report;
  report.chromatogramDeleted = flag.asData()[0] != 0;
  for (const Value& uri : uris->asArray()) {
    if (!uri.isUrl()) {
      return fail(Error(std::string(kCocoaErrorDomain), kCoderReadCorruptError,
                        "The report “" + file.filename().string() + "” holds something that is not a URI."));
    }
    report.uris.push_back(uri.asUrl());
  }
  return report;
}

}  // namespace tesselune
