// DeletionJournal: appending flushed records of IDs about to be deleted, and finding and reading the
// journals of passes that did not end normally.

#include "deletion/deletion_journal.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <string_view>

namespace tesselune {

namespace {

constexpr std::string_view kPrefix = ".storeSupport.";
constexpr std::string_view kSuffix = ".journal";
constexpr std::string_view kChromatogramLine = "chromatogram";

Error journalError(const std::filesystem::path& path, std::string_view what, int error) {
  return Error(std::string(kPosixErrorDomain), error,
               fmt::format("The deletion journal “{}” could not be {}: {}.", path.filename().string(), what,
                           std::strerror(error)));
}

// The process that wrote a journal, from its name; 0 when the name is not a journal's.
pid_t writerOf(const std::string& name) {
  if (!name.starts_with(kPrefix) || !name.ends_with(kSuffix)) return 0;
  const std::string_view middle(name.data() + kPrefix.size(), name.size() - kPrefix.size() - kSuffix.size());
  const std::string_view digits = middle.substr(0, middle.find('.'));
  pid_t pid = 0;
  for (char c : digits) {
    if (c < '0' || c > '9' || pid > 1'000'000'000) return 0;
    pid = pid * 10 + (c - '0');
  }
  return pid;
}

}  // namespace

DeletionJournal::DeletionJournal(std::filesystem::path folder) {
  static std::atomic<int> counter{0};
  path_ = folder / fmt::format("{}{}.{}{}", kPrefix, ::getpid(), ++counter, kSuffix);
}

DeletionJournal::~DeletionJournal() {
  if (fd_ >= 0) ::close(fd_);
}

Status DeletionJournal::write(const std::string& lines) {
  if (fd_ < 0) {
    std::error_code ec;
    std::filesystem::create_directories(path_.parent_path(), ec);  // as the first report would
    fd_ = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd_ < 0) return fail(journalError(path_, "made", errno));
    // The new name must survive a crash as well as what is written under it.
    const int folder = ::open(path_.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder >= 0) {
      (void)::fsync(folder);
      ::close(folder);
    }
  }
  std::string_view rest = lines;
  while (!rest.empty()) {
    const ssize_t written = ::write(fd_, rest.data(), rest.size());
    if (written < 0) {
      if (errno == EINTR) continue;
      return fail(journalError(path_, "written", errno));
    }
    rest.remove_prefix(static_cast<std::size_t>(written));
  }
  if (::fdatasync(fd_) != 0) return fail(journalError(path_, "written", errno));
  return {};
}

Status DeletionJournal::append(const std::vector<ManagedObjectID>& ids) {
  if (ids.empty()) return {};
  std::string lines;
  for (const ManagedObjectID& id : ids) {
    lines += id.URIRepresentation().absoluteString();
    lines += '\n';
  }
  return write(lines);
}

Status DeletionJournal::noteChromatogramDeleted() {
  return write(std::string(kChromatogramLine) + "\n");
}

void DeletionJournal::discard() {
  if (fd_ < 0) return;
  ::close(fd_);
  fd_ = -1;
  std::error_code ec;
  std::filesystem::remove(path_, ec);
}

std::vector<std::filesystem::path> leftJournals(const std::filesystem::path& folder) {
  std::vector<std::filesystem::path> found;
  std::error_code ec;
  for (std::filesystem::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
    const std::string name = it->path().filename().string();
    const pid_t writer = writerOf(name);
    if (writer == 0 || writer == ::getpid()) continue;
    // A writer still running owns its journal (kill 0 answers EPERM for another user's process).
    if (::kill(writer, 0) == 0 || errno == EPERM) continue;
    if (it->is_regular_file(ec)) found.push_back(it->path());
  }
  std::sort(found.begin(), found.end());
  return found;
}

Expected<LeftJournal> readJournal(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return fail(journalError(path, "read", errno ? errno : EIO));
  const std::string text((std::istreambuf_iterator<char>(in)), {});
  LeftJournal journal;
  journal.path = path;
  std::size_t start = 0;
  for (std::size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n', start)) {
    const std::string_view line(text.data() + start, end - start);
    start = end + 1;
    if (line == kChromatogramLine) {
      journal.chromatogramDeleted = true;
    } else if (auto uri = Url::parse(line)) {
      journal.uris.push_back(std::move(*uri));
    }
  }
  return journal;
}

}  // namespace tesselune
