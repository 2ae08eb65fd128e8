// Removing one entry below a folder held open by descriptor, so that nothing outside that folder
// can be reached however the names on the way are changed while the removal runs.
//
// Every name is looked up relative to a descriptor that was opened with O_NOFOLLOW: no path is
// resolved twice and no symbolic link is ever followed. A link is removed as a link, whatever it
// points to; a plain file is unlinked; a folder is emptied through descriptors of its own and then
// removed. A path that climbs out (`..`, an absolute path) or passes through a link is refused, but
// only when it names something; a path that names nothing is no error.
//
// Protected entries (by path below the folder, and by identity on disk) are never removed, nor is
// anything inside them or anything that holds them: such a removal is refused before anything is
// touched. A protected folder moved into the tree while it is being emptied stops the removal
// when it is met.
//
// Plain POSIX; no state, safe from any thread. The base folder's descriptor must stay open for the
// duration of a call.
#pragma once

#include <sys/types.h>

#include <compare>
#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "foundation/error.h"

namespace tesselune {

// What names a file on disk, whatever its paths: device and inode.
struct FileIdentity {
  dev_t device = 0;
  ino_t inode = 0;
  friend auto operator<=>(const FileIdentity&, const FileIdentity&) = default;
};

// A folder held open by a descriptor (O_DIRECTORY, close-on-exec). Move-only; closes on destruction.
class FolderDescriptor {
 public:
  // Opens `folder`; links in `folder` itself are followed (it is the trusted starting point).
  [[nodiscard]] static Expected<FolderDescriptor> open(const std::filesystem::path& folder);

  FolderDescriptor() = default;
  explicit FolderDescriptor(int fd) : fd_(fd) {}
  FolderDescriptor(FolderDescriptor&& other) noexcept : fd_(other.release()) {}
  FolderDescriptor& operator=(FolderDescriptor&& other) noexcept;
  FolderDescriptor(const FolderDescriptor&) = delete;
  FolderDescriptor& operator=(const FolderDescriptor&) = delete;
  ~FolderDescriptor();

  int fd() const { return fd_; }
  bool isOpen() const { return fd_ >= 0; }
  int release() { return std::exchange(fd_, -1); }

 private:
  int fd_ = -1;
};

struct RemovalRules {
  // Paths below the base folder ("temporaryFiles", "a/b"). `.` and empty components are ignored;
  // a path with no component left protects nothing (the base folder is always protected).
  std::vector<std::string> protectedPaths;
  // Files and folders never removed, by identity; for folders, nor anything inside or holding them.
  std::set<FileIdentity> protectedItems;
};

enum class RemovalOutcome {
  kRemoved,  // the entry was there and is gone
  kAbsent,   // the path named nothing: nothing was touched
};

// The identity of what `relativePath` names below `base`, links followed as any program opening
// the path would; nothing when it names nothing. An absolute path is looked up as it is.
std::optional<FileIdentity> identityBelow(const FolderDescriptor& base, std::string_view relativePath);

// Removes what `relativePath` names below `base` under `rules`. Refusals fail with
// kFileWriteNoPermissionError of the Cocoa domain and say why; failures of the file system fail
// with the POSIX domain and errno, and may leave a folder partly emptied.
[[nodiscard]] Expected<RemovalOutcome> removeBelow(const FolderDescriptor& base,
                                                   std::string_view relativePath,
                                                   const RemovalRules& rules = {});

}  // namespace tesselune
