// DataLibrary: where the maintenance command finds the shared store, its temporary folder and the
// chromatogram data folders. By default the folder the main application and the store support
// program share; with --store, the folder of the given store file, so that scratch copies can be
// worked on without touching the user's library.
#pragma once

#include <filesystem>
#include <string_view>

#include "foundation/error.h"

namespace tesselune {

class DataLibrary {
 public:
  static constexpr std::string_view kGroupIdentifier = "KV3N8Q2ZR5.TesseluneGroup";
  static constexpr std::string_view kFolderName = "Tesselune Data Library";
  static constexpr std::string_view kStoreFileName = "TesseluneStore.tesselune";
  static constexpr std::string_view kTemporaryFolderName = "temporaryFiles";

  // The shared library under the user's group container ($XDG_DATA_HOME, else ~/.local/share).
  // Creates nothing. Fails when neither XDG_DATA_HOME nor HOME says where the data home is.
  [[nodiscard]] static Expected<DataLibrary> shared();
  // The library that holds `storeFile`; the store's name may differ from the usual one.
  static DataLibrary forStoreFile(const std::filesystem::path& storeFile);

  const std::filesystem::path& folder() const { return folder_; }
  const std::filesystem::path& storeFile() const { return storeFile_; }
  std::filesystem::path temporaryFolder() const { return folder_ / kTemporaryFolderName; }

 private:
  DataLibrary(std::filesystem::path folder, std::filesystem::path storeFile)
      : folder_(std::move(folder)), storeFile_(std::move(storeFile)) {}

  std::filesystem::path folder_;
  std::filesystem::path storeFile_;
};

}  // namespace tesselune
