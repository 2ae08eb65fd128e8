// Test support: reading the Apple-written files under the shared fixtures folder.
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>

#include "foundation/value.h"

namespace tesselune::test {

// The bytes of a fixture, by its path below the fixtures folder; empty (and a test failure) when it
// cannot be read.
inline Bytes readFixture(const std::string& path) {
  std::ifstream in(std::string(TESSELUNE_FIXTURES_DIR) + "/" + path, std::ios::binary);
  EXPECT_TRUE(in) << "cannot read fixture " << path;
  return Bytes(std::istreambuf_iterator<char>(in), {});
}

}  // namespace tesselune::test
