// Test support: the Apple-written files under the shared fixtures folder.
#pragma once

#include <gtest/gtest.h>

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
