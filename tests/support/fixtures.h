// Test support: the Apple-written files under the shared fixtures folder.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "foundation/value.h"

namespace tesselune::test {

// The bytes of a fixture, by its path below the fixtures folder; empty (and a test failure) when it
// cannot be read.
inline Bytes readFixture(const std::string& path) {
  std::ifstream in(std::string(TESSELUNE_FIXTURES_DIR) + "/" + path, std::ios::binary);
  EXPECT_TRUE(in) << "cannot read fixture " << path;
  return Bytes(std::istreambuf_iterator<char>(in), {});
}

// A new, empty folder for one test's files, removed when the test program ends. Its name carries
// the process ID and a counter, so that tests running in parallel (CTest, or two checkouts on one
// machine) never share one.
inline std::filesystem::path scratchFolder(const std::string& name) {
  struct Made {
    std::vector<std::filesystem::path> folders;
    ~Made() {
      std::error_code ec;
      for (const auto& folder : folders) std::filesystem::remove_all(folder, ec);
    }
  };
  static Made made;
  static int counter = 0;
  const std::filesystem::path folder =
      std::filesystem::path(::testing::TempDir()) /
      ("tesselune-" + std::to_string(::getpid()) + "-" + std::to_string(++counter) + "-" + name);
  std::filesystem::remove_all(folder);
  std::filesystem::create_directories(folder);
  made.folders.push_back(folder);
  return folder;
}

// A writable copy of a fixture store in `folder`, with whichever of its -wal and -shm siblings exist:
// opening a store, even read-only, may rewrite them, and the fixtures must stay as Apple wrote them.
inline std::filesystem::path copyFixtureStore(const std::string& store, const std::filesystem::path& folder) {
  namespace fs = std::filesystem;
  const fs::path from = fs::path(TESSELUNE_FIXTURES_DIR) / store;
  const fs::path to = folder / from.filename();
  for (const char* suffix : {"", "-wal", "-shm"}) {
    const fs::path file = from.string() + suffix;
    if (!fs::exists(file)) continue;
    fs::copy_file(file, to.string() + suffix, fs::copy_options::overwrite_existing);
    fs::permissions(to.string() + suffix, fs::perms::owner_read | fs::perms::owner_write);
  }
  return to;
}

// Stores Core Data wrote and the model each was made with, below the fixtures folder.
inline const std::vector<std::pair<std::string, std::string>>& storesWithTheirModels() {
  static const std::vector<std::pair<std::string, std::string>> pairs = {
      {"coredata/moody/stores/Moody.moody", "coredata/moody/Moody.xcdatamodeld/Moody.xcdatamodel"},
      {"coredata/moody/stores/Moody 2.moody", "coredata/moody/Moody.xcdatamodeld/Moody 2.xcdatamodel"},
      {"coredata/moody/stores/Moody 3.moody", "coredata/moody/Moody.xcdatamodeld/Moody 3.xcdatamodel"},
      {"coredata/moody/stores/Moody 4.moody", "coredata/moody/Moody.xcdatamodeld/Moody 4.xcdatamodel"},
      {"coredata/moody/stores/Moody 5.moody", "coredata/moody/Moody.xcdatamodeld/Moody 5.xcdatamodel"},
      {"coredata/many-to-many/TestModel.sqlite",
       "coredata/many-to-many/Sample.xcdatamodeld/TestModel.xcdatamodel"},
  };
  return pairs;
}

}  // namespace tesselune::test
