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

namespace tesselune::testing {

class Sql {
 public:
  explicit Sql(const std::filesystem::path& path) {
    if (sqlite3_open(path.c_str(), &db_) != SQLITE_OK) ADD_FAILURE() << sqlite3_errmsg(db_);
  }
  ~Sql() { sqlite3_close(db_); }
  Sql(const Sql&) = delete;
  Sql& operator=(const Sql&) = delete;

  void run(const std::string& sql) {
    char* message = nullptr;
    if (sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &message) != SQLITE_OK) {
      ADD_FAILURE() << sql << ": " << (message ? message : "");
    }
    sqlite3_free(message);
  }
  // The rows of a query, each column as text ("NULL" for null).
  std::vector<std::vector<std::string>> rows(const std::string& sql) {
    std::vector<std::vector<std::string>> out;
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) {
      ADD_FAILURE() << sql << ": " << sqlite3_errmsg(db_);
      return out;
    }
    while (sqlite3_step(statement) == SQLITE_ROW) {
      std::vector<std::string> row;
      for (int i = 0; i < sqlite3_column_count(statement); ++i) {
        const unsigned char* text = sqlite3_column_text(statement, i);
        row.emplace_back(text ? reinterpret_cast<const char*>(text) : "NULL");
      }
      out.push_back(std::move(row));
    }
    sqlite3_finalize(statement);
    return out;
  }
  std::string value(const std::string& sql) {
    auto all = rows(sql);
    return all.empty() || all.front().empty() ? "" : all.front().front();
  }

 private:
  sqlite3* db_ = nullptr;
};

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
