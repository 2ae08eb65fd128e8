// Shared by the maintenance command's tests on store files: plain SQL on a store apart from the
// engine (to build stores and to check what the command left), the command run in-process on a
// store file, and a file's bytes for before-and-after comparisons.
#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "app/store_command.h"
#include "sqlite_probe.h"

namespace tesselune::testing {

// Plain SQL on a store file apart from the engine.
using Sql = test::SqliteProbe;

struct CommandResult {
  int exitCode;
  std::string out;
  std::string err;
};

// tesselune-store --store `store` `arguments`…, in this process.
inline CommandResult runCommand(const std::filesystem::path& store, std::vector<std::string> arguments,
                                std::FILE* progress = nullptr) {
  std::vector<std::string> line = {"tesselune-store", "--store", store.string()};
  line.insert(line.end(), arguments.begin(), arguments.end());
  std::vector<const char*> argv;
  for (const auto& argument : line) argv.push_back(argument.c_str());
  std::ostringstream out;
  std::ostringstream err;
  const int code =
      runStoreCommand(static_cast<int>(argv.size()), argv.data(), CommandOutput{out, err, progress});
  return {code, out.str(), err.str()};
}

inline std::string fileBytes(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

}  // namespace tesselune::testing
