// Group containers under the XDG data home.

#include "platform/xdg_group_container.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

namespace tesselune {

namespace {

std::string homeFolder() {
  if (const char* home = std::getenv("HOME"); home != nullptr && *home != '\0') return home;
  // A service started without HOME still has a home in the user database.
  long size = ::sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(size > 0 ? static_cast<std::size_t>(size) : 16384);
  passwd entry{};
  passwd* found = nullptr;
  if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr &&
      found->pw_dir != nullptr) {
    return found->pw_dir;
  }
  return {};
}

}  // namespace

std::optional<std::string> groupContainerPath(std::string_view identifier, std::string_view xdgDataHome,
                                              std::string_view home) {
  if (identifier.empty() || identifier == "." || identifier == ".." ||
      identifier.find_first_of(std::string_view("/\0", 2)) != std::string_view::npos) {
    return std::nullopt;
  }
  std::string path;
  if (xdgDataHome.starts_with('/')) {
    path = xdgDataHome;
  } else if (home.starts_with('/')) {
    path = home;
    if (!path.ends_with('/')) path += '/';
    path += ".local/share";
  } else {
    return std::nullopt;
  }
  if (!path.ends_with('/')) path += '/';
  path += "Group Containers/";
  path += identifier;
  return path;
}

std::optional<Url> XdgGroupContainer::containerUrlForGroupIdentifier(std::string_view identifier) {
  const char* dataHome = std::getenv("XDG_DATA_HOME");
  const std::optional<std::string> path =
      groupContainerPath(identifier, dataHome != nullptr ? dataHome : "", homeFolder());
  if (!path) return std::nullopt;
  return Url::fileUrl(*path, true);
}

}  // namespace tesselune
