// The version text both programs print for --version: the program's version (the project's, from
// the build) and the persistence framework version it writes into the stores it creates.
#pragma once

#include <fmt/format.h>

#include <string>
#include <string_view>

#include "objectstore/sqlite/sqlite_store.h"

#ifndef TESSELUNE_VERSION
#error "TESSELUNE_VERSION comes from the build (the project's version)"
#endif

namespace tesselune {

inline std::string versionText(std::string_view program) {
  return fmt::format("{} {}\nWrites Core Data SQLite stores as persistence framework version {}.", program,
                     TESSELUNE_VERSION, SqliteStore::kPersistenceFrameworkVersion);
}

}  // namespace tesselune
