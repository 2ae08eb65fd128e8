// Database and Statement: a thin RAII layer over the SQLite C API, and the one place where SQLite's
// failures become our Error (with the SQL and the file in the text).
//
// A Database is one connection; use it from one thread at a time. Statements borrow their database
// and must not outlive it. Every value reaches SQL through a bound parameter.
#pragma once

#include <sqlite3.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include "foundation/error.h"
#include "foundation/value.h"

namespace tesselune {

class Database;

class Statement {
 public:
  Statement() = default;
  Statement(Statement&& other) noexcept;
  Statement& operator=(Statement&& other) noexcept;
  ~Statement();

  // Binds parameter `index` (1-based): null, bool and integers as INTEGER, double as REAL, string
  // as TEXT, data and UUID as BLOB, date as REAL seconds since 2001, URL as its absolute TEXT.
  [[nodiscard]] Status bind(int index, const Value& value);
  // Runs one step: true while a row is ready, false when done.
  [[nodiscard]] Expected<bool> step();
  // Steps to the end, for statements that return no rows.
  [[nodiscard]] Status run();
  [[nodiscard]] Status reset();

  int columnCount() const;
  std::string columnName(int column) const;
  bool isNull(int column) const;
  std::int64_t integer(int column) const;
  double real(int column) const;
  std::string text(int column) const;
  Bytes blob(int column) const;
  // The column as a Value of its stored type (NULL, INTEGER, REAL, TEXT, BLOB).
  Value value(int column) const;

 private:
  friend class Database;
  Statement(Database* database, sqlite3_stmt* statement, std::string sql)
      : database_(database), statement_(statement), sql_(std::move(sql)) {}

  Database* database_ = nullptr;
  sqlite3_stmt* statement_ = nullptr;
  std::string sql_;
};

class Database {
 public:
  enum class Mode { ReadOnly, ReadWrite, ReadWriteCreate };

  // Opens a connection with a busy timeout (the main application writes the same file) and the
  // harmless stand-ins for functions that Core Data's own triggers call. A file that is not an
  // SQLite database fails here, and is left as it was.
  [[nodiscard]] static Expected<std::unique_ptr<Database>> open(
      const std::filesystem::path& path, Mode mode,
      std::chrono::milliseconds busyTimeout = std::chrono::seconds(10));
  ~Database();
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  [[nodiscard]] Expected<Statement> prepare(std::string_view sql);
  // Runs statements that bind nothing.
  [[nodiscard]] Status execute(std::string_view sql);
  [[nodiscard]] Expected<bool> tableExists(std::string_view name);

  const std::filesystem::path& path() const { return path_; }
  sqlite3* handle() const { return db_; }

  // The Error for a failed call: SQLite's message and code, the SQL and the file.
  Error error(int code, std::string_view sql) const;

 private:
  Database(sqlite3* db, std::filesystem::path path) : db_(db), path_(std::move(path)) {}
  [[nodiscard]] Status registerTriggerFunctions();

  sqlite3* db_;
  std::filesystem::path path_;
};

}  // namespace tesselune
