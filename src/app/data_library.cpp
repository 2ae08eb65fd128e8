// Locating the data library for the maintenance command.
#include "app/data_library.h"

#include <cstdlib>

#include "platform/xdg_group_container.h"

namespace tesselune {

namespace {
std::string_view environment(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? std::string_view{} : std::string_view{value};
}
}  // namespace

Expected<DataLibrary> DataLibrary::shared() {
  auto container = groupContainerPath(kGroupIdentifier, environment("XDG_DATA_HOME"), environment("HOME"));
  if (!container) {
    return fail(
        Error{std::string(kCocoaErrorDomain), kFileNoSuchFileError,
              "The data library cannot be found: neither XDG_DATA_HOME nor HOME is set. Use --store."});
  }
  std::filesystem::path folder = std::filesystem::path(*container) / kFolderName;
  std::filesystem::path store = folder / kStoreFileName;
  return DataLibrary(std::move(folder), std::move(store));
}

DataLibrary DataLibrary::forStoreFile(const std::filesystem::path& storeFile) {
  std::filesystem::path absolute = std::filesystem::absolute(storeFile).lexically_normal();
  return DataLibrary(absolute.parent_path(), absolute);
}

}  // namespace tesselune
