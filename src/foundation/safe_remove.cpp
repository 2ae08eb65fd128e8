// Descriptor-based removal below a folder: every step is an *at() call on a descriptor opened
// without following links, so a name swapped for a link between two steps is met as a link.

#include "foundation/safe_remove.h"

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace tesselune {

namespace {

// Deeper trees hold one descriptor per level; data folders are shallow.
constexpr int kMaximumDepth = 200;
constexpr int kOpenFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

using Components = std::vector<std::string>;

Components componentsOf(std::string_view path) {
  Components parts;
  while (!path.empty()) {
    const std::size_t slash = path.find('/');
    const std::string_view part = path.substr(0, slash);
    if (!part.empty() && part != ".") parts.emplace_back(part);
    if (slash == std::string_view::npos) break;
    path.remove_prefix(slash + 1);
  }
  return parts;
}

bool startsWith(const Components& whole, const Components& prefix) {
  return prefix.size() <= whole.size() && std::equal(prefix.begin(), prefix.end(), whole.begin());
}

FileIdentity identityOf(const struct stat& status) {
  return {status.st_dev, status.st_ino};
}

bool isNothingThere(int error) {
  return error == ENOENT || error == ENOTDIR;
}

Error refusal(std::string_view path, std::string_view why) {
  return Error(std::string(kCocoaErrorDomain), kFileWriteNoPermissionError,
               fmt::format("\u201c{}\u201d was not removed because {}.", path, why));
}

Error failure(std::string_view name, int error) {
  return Error(std::string(kPosixErrorDomain), error,
               fmt::format("\u201c{}\u201d couldn\u2019t be removed. {}.", name, std::strerror(error)));
}

// The names in the folder open as `fd`, without "." and "..". Reads through a descriptor of its
// own, so that `fd`'s position is left alone.
Expected<std::vector<std::string>> namesIn(int fd, std::string_view shown) {
  const int own = ::openat(fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (own < 0) return fail(failure(shown, errno));
  DIR* folder = ::fdopendir(own);
  if (folder == nullptr) {
    const int error = errno;
    ::close(own);
    return fail(failure(shown, error));
  }
  std::vector<std::string> names;
  errno = 0;
  while (const dirent* entry = ::readdir(folder)) {
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") names.emplace_back(name);
    errno = 0;
  }
  const int error = errno;
  ::closedir(folder);
  if (error != 0) return fail(failure(shown, error));
  return names;
}

// Goes through the folder open as `fd`: refuses when it meets a protected item; when `remove`,
// removes everything in it, links and files by unlink, folders emptied first. Only descriptors
// opened with O_NOFOLLOW are descended into.
Status walk(int fd, const std::set<FileIdentity>& keep, std::string_view shown, bool remove, int depth) {
  if (depth > kMaximumDepth) return fail(failure(shown, ELOOP));
  auto names = namesIn(fd, shown);
  if (!names) return fail(names.error());
  for (const std::string& name : *names) {
    struct stat status {};
    if (::fstatat(fd, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
      if (errno == ENOENT) continue;
      return fail(failure(name, errno));
    }
    if (keep.contains(identityOf(status))) return fail(refusal(shown, "it holds something that must stay"));
    if (S_ISDIR(status.st_mode)) {
      const int child = ::openat(fd, name.c_str(), kOpenFolderFlags);
      if (child >= 0) {
        FolderDescriptor folder(child);
        if (::fstat(child, &status) != 0) return fail(failure(name, errno));
        if (keep.contains(identityOf(status)))
          return fail(refusal(shown, "it holds something that must stay"));
        if (auto s = walk(child, keep, shown, remove, depth + 1); !s) return s;
        if (remove && ::unlinkat(fd, name.c_str(), AT_REMOVEDIR) != 0 && errno != ENOENT)
          return fail(failure(name, errno));
        continue;
      }
      if (errno == ENOENT) continue;
      // Replaced by a link or a file since it was looked at: removed as what it is now.
      if (errno != ELOOP && errno != ENOTDIR) return fail(failure(name, errno));
    }
    if (remove && ::unlinkat(fd, name.c_str(), 0) != 0 && errno != ENOENT) return fail(failure(name, errno));
  }
  return {};
}

}  // namespace

Expected<FolderDescriptor> FolderDescriptor::open(const std::filesystem::path& folder) {
  const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) {
    const int error = errno;
    return fail(Error(
        std::string(kPosixErrorDomain), error,
        fmt::format("\u201c{}\u201d couldn\u2019t be opened. {}.", folder.string(), std::strerror(error))));
  }
  return FolderDescriptor(fd);
}

FolderDescriptor& FolderDescriptor::operator=(FolderDescriptor&& other) noexcept {
  if (this != &other) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = other.release();
  }
  return *this;
}

FolderDescriptor::~FolderDescriptor() {
  if (fd_ >= 0) ::close(fd_);
}

std::optional<FileIdentity> identityBelow(const FolderDescriptor& base, std::string_view relativePath) {
  const std::string path(relativePath.empty() ? "." : relativePath);
  struct stat status {};
  if (::fstatat(base.fd(), path.c_str(), &status, 0) != 0) return std::nullopt;
  return identityOf(status);
}

Expected<RemovalOutcome> removeBelow(const FolderDescriptor& base, std::string_view relativePath,
                                     const RemovalRules& rules) {
  const std::string shown(relativePath);
  // Only for deciding between "refused" and "nothing there": the kernel's own lookup, links on the
  // way followed, nothing removed on its word.
  auto somethingThere = [&] {
    struct stat status {};
    return !shown.empty() && ::fstatat(base.fd(), shown.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
  };
  auto refuseIfThere = [&](std::string_view why) -> Expected<RemovalOutcome> {
    if (!somethingThere()) return RemovalOutcome::kAbsent;
    return fail(refusal(shown, why));
  };

  const Components parts = componentsOf(relativePath);
  if (relativePath.starts_with('/') || std::ranges::find(parts, "..") != parts.end())
    return refuseIfThere("it leads out of the library folder");
  if (parts.empty()) return fail(refusal(shown, "it is the library folder itself"));

  struct stat base_status {};
  if (::fstat(base.fd(), &base_status) != 0) return fail(failure(shown, errno));
  std::set<FileIdentity> keep = rules.protectedItems;
  keep.insert(identityOf(base_status));

  bool inProtected = std::ranges::any_of(rules.protectedPaths, [&](const std::string& path) {
    const Components kept = componentsOf(path);
    return !kept.empty() && (startsWith(parts, kept) || startsWith(kept, parts));
  });

  // Down to the folder that holds the last component, one descriptor at a time.
  FolderDescriptor parent;
  int at = base.fd();
  for (std::size_t i = 0; i + 1 < parts.size(); ++i) {
    const char* name = parts[i].c_str();
    struct stat status {};
    if (::fstatat(at, name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
      if (isNothingThere(errno)) return RemovalOutcome::kAbsent;
      return fail(failure(parts[i], errno));
    }
    if (S_ISLNK(status.st_mode)) return refuseIfThere("it leads through a symbolic link");
    if (!S_ISDIR(status.st_mode)) return RemovalOutcome::kAbsent;
    const int fd = ::openat(at, name, kOpenFolderFlags);
    if (fd < 0) {
      if (errno == ELOOP || errno == ENOTDIR) return refuseIfThere("it leads through a symbolic link");
      if (errno == ENOENT) return RemovalOutcome::kAbsent;
      return fail(failure(parts[i], errno));
    }
    FolderDescriptor next(fd);
    if (::fstat(fd, &status) != 0) return fail(failure(parts[i], errno));
    if (keep.contains(identityOf(status))) inProtected = true;
    parent = std::move(next);
    at = parent.fd();
  }

  const std::string& last = parts.back();
  struct stat status {};
  if (::fstatat(at, last.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
    if (isNothingThere(errno)) return RemovalOutcome::kAbsent;
    return fail(failure(last, errno));
  }
  if (inProtected || keep.contains(identityOf(status)))
    return fail(refusal(shown, "it is or lies in something that must stay"));

  if (S_ISDIR(status.st_mode)) {
    const int fd = ::openat(at, last.c_str(), kOpenFolderFlags);
    if (fd >= 0) {
      FolderDescriptor folder(fd);
      if (::fstat(fd, &status) != 0) return fail(failure(last, errno));
      if (keep.contains(identityOf(status))) return fail(refusal(shown, "it is something that must stay"));
      // Looked through first, so that a refusal leaves the folder whole.
      if (auto s = walk(fd, keep, shown, /*remove=*/false, 0); !s) return fail(s.error());
      if (auto s = walk(fd, keep, shown, /*remove=*/true, 0); !s) return fail(s.error());
      if (::unlinkat(at, last.c_str(), AT_REMOVEDIR) != 0 && errno != ENOENT)
        return fail(failure(last, errno));
      return RemovalOutcome::kRemoved;
    }
    if (errno == ENOENT) return RemovalOutcome::kAbsent;
    // Replaced by a link or a file since it was looked at: removed as what it is now.
    if (errno != ELOOP && errno != ENOTDIR) return fail(failure(last, errno));
  }
  if (::unlinkat(at, last.c_str(), 0) != 0) {
    if (errno == ENOENT) return RemovalOutcome::kAbsent;
    return fail(failure(last, errno));
  }
  return RemovalOutcome::kRemoved;
}

}  // namespace tesselune
