// Database and Statement: a thin RAII layer over the SQLite C API, and the one place where SQLite's
// failures become our Error (with the SQL and the file in the text).
//
// A Database is one connection; use it from one thread at a time. Statements borrow their database
// and must not outlive it. Every value reaches SQL through a bound parameter. A connection keeps a
// few prepared statements for SQL that is run again and again (see Database::cached); they belong to
// the connection and follow its thread rule.
#pragma once

#include <sqlite3.h>

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

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
  // Binds `values` to parameters 1, 2, … in order.
  [[nodiscard]] Status bindAll(const std::vector<Value>& values);
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
  friend class CachedStatement;
  Statement(Database* database, sqlite3_stmt* statement, std::string sql)
      : database_(database), statement_(statement), sql_(std::move(sql)) {}

  Database* database_ = nullptr;
  sqlite3_stmt* statement_ = nullptr;
  std::string sql_;
};

// A statement lent by a connection's cache: use it like a Statement (through -> or *); when the
// handle goes, the statement is reset, its bindings cleared, and it goes back to the cache. It
// borrows the connection, so it must not outlive it; moving the handle moves the loan.
class CachedStatement {
 public:
  CachedStatement(CachedStatement&& other) noexcept;
  CachedStatement& operator=(CachedStatement&&) = delete;
  ~CachedStatement();

  Statement& operator*() { return statement_; }
  Statement* operator->() { return &statement_; }

 private:
  friend class Database;
  CachedStatement(Database* database, std::string sql, Statement statement)
      : database_(database), sql_(std::move(sql)), statement_(std::move(statement)) {}

  Database* database_;
  std::string sql_;
  Statement statement_;
};

class Database {
 public:
  enum class Mode { ReadOnly, ReadWrite, ReadWriteCreate };

  // Opens a connection with a busy timeout (the main application writes the same file), the
  // harmless stand-ins for functions that Core Data's own triggers call, and the functions that
  // compiled predicates call (PREDICATE_FOLD and PREDICATE_STRING_TEST, the string tests of
  // string_comparison.h). A file that is not an SQLite database fails here, and is left as it was.
  [[nodiscard]] static Expected<std::unique_ptr<Database>> open(
      const std::filesystem::path& path, Mode mode,
      std::chrono::milliseconds busyTimeout = std::chrono::seconds(10));
  ~Database();
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  [[nodiscard]] Expected<Statement> prepare(std::string_view sql);
  // The statement for `sql`, prepared once and kept by the connection for the next call (at most
  // kStatementCacheSize of them, the least recently returned going first). Meant for fixed SQL that
  // a caller runs many times; SQLite prepares a kept statement again by itself when the schema
  // changes. While a handle is out its SQL is prepared afresh for anyone else who asks, so nested
  // uses of the same SQL are safe. Fails as prepare does.
  [[nodiscard]] Expected<CachedStatement> cached(std::string_view sql);
  // Drops every kept statement (before a change that must not meet a prepared statement).
  void clearStatementCache();
  static constexpr std::size_t kStatementCacheSize = 16;
  // Runs statements that bind nothing.
  [[nodiscard]] Status execute(std::string_view sql);
  // Prepares `sql`, binds `values` to its parameters in order and runs it to the end.
  [[nodiscard]] Status run(std::string_view sql, const std::vector<Value>& values);
  [[nodiscard]] Expected<bool> tableExists(std::string_view name);

  const std::filesystem::path& path() const { return path_; }
  sqlite3* handle() const { return db_; }

  // The Error for a failed call: what the platform would tell the user of the file, with SQLite's
  // code and message, the SQL and the file's path as its debug detail.
  Error error(int code, std::string_view sql) const;

 private:
  friend class CachedStatement;
  Database(sqlite3* db, std::filesystem::path path) : db_(db), path_(std::move(path)) {}
  [[nodiscard]] Status registerTriggerFunctions();
  [[nodiscard]] Status registerPredicateFunctions();
  void giveBack(std::string sql, Statement statement);

  sqlite3* db_;
  std::filesystem::path path_;
  // Idle kept statements, most recently returned last; few enough that a linear search is best.
  std::vector<std::pair<std::string, Statement>> idle_;
};

// A transaction that ends in a rollback unless it is committed: leaving a scope early, or a failed
// COMMIT, leaves the database as it was before begin(). Borrows the database; one per connection.
class Transaction {
 public:
  enum class Kind { Deferred, Exclusive };
  [[nodiscard]] static Expected<Transaction> begin(Database& database, Kind kind = Kind::Deferred);
  Transaction(Transaction&& other) noexcept : database_(std::exchange(other.database_, nullptr)) {}
  Transaction& operator=(Transaction&&) = delete;
  ~Transaction();

  [[nodiscard]] Status commit();

 private:
  explicit Transaction(Database* database) : database_(database) {}
  Database* database_;  // nothing once committed or rolled back
};

}  // namespace tesselune
