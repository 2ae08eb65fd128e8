// The deletion report: archiving, choosing a free name, writing atomically, finding reports.

#include "deletion/deletion_report.h"

#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <chrono>
#include <fstream>
#include <iterator>
#include <optional>
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

constexpr std::string_view kScratchPrefix = ".storeSupport";
constexpr std::string_view kScratchSuffix = ".tmp";

bool writeAll(int fd, const Bytes& bytes) {
  std::size_t written = 0;
  while (written < bytes.size()) {
    const ssize_t n = ::write(fd, bytes.data() + written, bytes.size() - written);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    written += static_cast<std::size_t>(n);
  }
  return ::fsync(fd) == 0;
}

// Moves the scratch file to the target unless the target exists. A rename that refuses to replace
// is what most file systems offer; where it is missing, a hard link does the same. On file systems
// with neither (FAT, exFAT, some network mounts) the name is first taken by an exclusive create
// and then replaced by the whole file in one rename: a reader finds an empty file for that
// moment, never a part of a report, and a report someone else wrote is never replaced.
bool moveIntoPlace(const fs::path& scratch, const fs::path& target) {
  if (::renameat2(AT_FDCWD, scratch.c_str(), AT_FDCWD, target.c_str(), RENAME_NOREPLACE) == 0) return true;
  if (errno != EINVAL && errno != ENOSYS && errno != ENOTSUP) return false;
  if (::link(scratch.c_str(), target.c_str()) == 0) {
    ::unlink(scratch.c_str());
    return true;
  }
  if (errno == EEXIST) return false;
  const int reserved = ::open(target.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (reserved < 0) return false;
  ::close(reserved);
  if (::rename(scratch.c_str(), target.c_str()) == 0) return true;
  ::unlink(target.c_str());
  return false;
}

// Writes the bytes to a hidden scratch file beside the target, named after this process so that a
// later run can tell a killed run's leftovers from a running writer's file, and moves it into
// place: a reader sees the whole report or none.
bool writeAtomically(const fs::path& target, const Bytes& bytes) {
  std::random_device random;
  const fs::path scratch =
      target.parent_path() / (std::string(kScratchPrefix) + "." + std::to_string(::getpid()) + "." +
                              std::to_string(random()) + std::string(kScratchSuffix));
  const int fd = ::open(scratch.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  const bool ok = writeAll(fd, bytes);
  ::close(fd);
  if (ok && moveIntoPlace(scratch, target)) return true;
  ::unlink(scratch.c_str());
  return false;
}

// The writer's process ID in a scratch file's name (".storeSupport.<pid>.<random>.tmp"); nothing
// for a name of another form.
std::optional<pid_t> scratchWriter(std::string_view name) {
  if (!name.starts_with(kScratchPrefix) || !name.ends_with(kScratchSuffix)) return std::nullopt;
  name.remove_prefix(kScratchPrefix.size());
  name.remove_suffix(kScratchSuffix.size());
  if (!name.starts_with('.')) return std::nullopt;
  name.remove_prefix(1);
  const std::size_t dot = name.find('.');
  if (dot == std::string_view::npos) return std::nullopt;
  pid_t pid = 0;
  const auto [end, error] = std::from_chars(name.data(), name.data() + dot, pid);
  if (error != std::errc() || end != name.data() + dot || pid <= 0) return std::nullopt;
  return pid;
}

// ".storeSupport.info.<random>.tmp" or ".storeSupport_<n>.info.<random>.tmp", as earlier versions
// named their scratch files.
bool isOldScratchName(std::string_view name) {
  if (!name.starts_with(kScratchPrefix) || !name.ends_with(kScratchSuffix)) return false;
  const std::size_t info = name.find(".info.");
  if (info == std::string_view::npos) return false;
  const std::string_view random = name.substr(info + 6, name.size() - info - 6 - kScratchSuffix.size());
  return !random.empty() && random.find_first_not_of("0123456789") == std::string_view::npos;
}

// Removes the scratch files of writers that no longer run (a run killed while it wrote). Files of
// a running writer stay, and so does anything not named as a scratch file.
void removeAbandonedScratchFiles(const fs::path& folder) {
  std::error_code ec;
  for (const fs::directory_entry& entry : fs::directory_iterator(folder, ec)) {
    const std::string name = entry.path().filename().string();
    const std::optional<pid_t> writer = scratchWriter(name);
    if (!writer && isOldScratchName(name)) {
      // Named by an earlier version, without its writer: left alone while it may still be written.
      std::error_code ignored;
      const auto written = fs::last_write_time(entry.path(), ignored);
      if (!ignored && fs::file_time_type::clock::now() - written > std::chrono::hours(1))
        fs::remove(entry.path(), ignored);
      continue;
    }
    if (!writer || *writer == ::getpid()) continue;
    if (::kill(*writer, 0) == 0 || errno != ESRCH) continue;
    std::error_code ignored;
    fs::remove(entry.path(), ignored);
  }
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

  removeAbandonedScratchFiles(temporaryFolder);
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
