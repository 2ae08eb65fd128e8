// Test support: a connection of the test's own to a store file, beside the engine's, to look at (and
// for setting up, change) what is really in the file.
#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstdint>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

namespace tesselune::test {

class SqliteProbe {
 public:
  explicit SqliteProbe(const std::filesystem::path& path,
                       int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE) {
    EXPECT_EQ(sqlite3_open_v2(path.c_str(), &db_, flags, nullptr), SQLITE_OK) << path;
  }
  ~SqliteProbe() { sqlite3_close(db_); }
  SqliteProbe(const SqliteProbe&) = delete;
  SqliteProbe& operator=(const SqliteProbe&) = delete;

  void run(const std::string& sql) {
    char* message = nullptr;
    EXPECT_EQ(sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &message), SQLITE_OK)
        << sql << ": " << (message ? message : "");
    sqlite3_free(message);
  }
  // The rows of a query, each column as text ("NULL" for null).
  std::vector<std::vector<std::string>> table(const std::string& sql) {
    std::vector<std::vector<std::string>> out;
    sqlite3_stmt* statement = nullptr;
    EXPECT_EQ(sqlite3_prepare_v2(db_, sql.c_str(), -1, &statement, nullptr), SQLITE_OK)
        << sql << ": " << sqlite3_errmsg(db_);
    while (statement && sqlite3_step(statement) == SQLITE_ROW) {
      std::vector<std::string> row;
      for (int i = 0; i < sqlite3_column_count(statement); ++i) {
        const auto* text = sqlite3_column_text(statement, i);
        row.emplace_back(text ? reinterpret_cast<const char*>(text) : "NULL");
      }
      out.push_back(std::move(row));
    }
    sqlite3_finalize(statement);
    return out;
  }
  // Rows with their columns joined by "|".
  std::vector<std::string> rows(const std::string& sql) {
    std::vector<std::string> out;
    for (const auto& row : table(sql)) {
      std::string line;
      for (std::size_t i = 0; i < row.size(); ++i) line += (i ? "|" : "") + row[i];
      out.push_back(std::move(line));
    }
    return out;
  }
  // The first column of the first row, empty when there is none.
  std::string value(const std::string& sql) {
    const auto all = table(sql);
    return all.empty() || all.front().empty() ? std::string() : all.front().front();
  }
  // The first column of the first row as bytes (a BLOB), empty when there is none.
  std::vector<std::uint8_t> blob(const std::string& sql) {
    std::vector<std::uint8_t> out;
    sqlite3_stmt* statement = nullptr;
    EXPECT_EQ(sqlite3_prepare_v2(db_, sql.c_str(), -1, &statement, nullptr), SQLITE_OK) << sql;
    if (statement && sqlite3_step(statement) == SQLITE_ROW) {
      const auto* bytes = static_cast<const std::uint8_t*>(sqlite3_column_blob(statement, 0));
      out.assign(bytes, bytes + sqlite3_column_bytes(statement, 0));
    }
    sqlite3_finalize(statement);
    return out;
  }
  // A table's column names, in order.
  std::vector<std::string> columns(const std::string& table) {
    return rows("SELECT name FROM pragma_table_info('" + table + "') ORDER BY cid");
  }
  // A table's own indexes as "name: column column…".
  std::set<std::string> indexes(const std::string& table) {
    std::set<std::string> out;
    for (const std::string& name :
         rows("SELECT name FROM pragma_index_list('" + table + "') WHERE origin = 'c'")) {
      std::string columns;
      for (const std::string& c : rows("SELECT name FROM pragma_index_info('" + name + "') ORDER BY seqno"))
        columns += " " + c;
      out.insert(name + ":" + columns);
    }
    return out;
  }

 private:
  sqlite3* db_ = nullptr;
};

}  // namespace tesselune::test
