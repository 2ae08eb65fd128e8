// Database and Statement over the SQLite C API.

#include "objectstore/sqlite/database.h"

#include <fmt/format.h>

#include <cctype>
#include <set>
#include <string_view>

#include "foundation/string_comparison.h"

namespace tesselune {

namespace {

// Core Data's triggers call functions of its own; on a plain connection such a trigger would fail
// the write that fires it. They stand in as functions that do nothing.
void doNothing(sqlite3_context* context, int, sqlite3_value**) {
  sqlite3_result_null(context);
}

// Names of functions called in trigger bodies that Core Data defines ("NSCoreData…",
// "NSPersistent…").
std::set<std::string> triggerFunctionNames(std::string_view sql) {
  std::set<std::string> names;
  for (std::size_t i = 0; i < sql.size(); ++i) {
    if (!(sql.substr(i, 10) == "NSCoreData" || sql.substr(i, 12) == "NSPersistent")) continue;
    std::size_t end = i;
    while (end < sql.size() && (std::isalnum(static_cast<unsigned char>(sql[end])) || sql[end] == '_')) ++end;
    std::size_t next = end;
    while (next < sql.size() && std::isspace(static_cast<unsigned char>(sql[next]))) ++next;
    if (next < sql.size() && sql[next] == '(') names.emplace(sql.substr(i, end - i));
    i = end;
  }
  return names;
}

std::string_view textOf(sqlite3_value* value) {
  const auto* p = reinterpret_cast<const char*>(sqlite3_value_text(value));
  return p ? std::string_view(p, static_cast<std::size_t>(sqlite3_value_bytes(value))) : std::string_view();
}

// PREDICATE_FOLD(text, options): the text as [c]/[d] compare it; anything but text as it is.
void predicateFold(sqlite3_context* context, int, sqlite3_value** argv) {
  if (sqlite3_value_type(argv[0]) != SQLITE_TEXT) {
    sqlite3_result_value(context, argv[0]);
    return;
  }
  const std::string folded =
      foldedString(textOf(argv[0]), static_cast<unsigned>(sqlite3_value_int64(argv[1])));
  sqlite3_result_text64(context, folded.data(), folded.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
}

// PREDICATE_STRING_TEST(text, pattern, test, options): 1 when `text <test> pattern` holds (test is a
// StringTest), 0 otherwise and whenever either side is not text. A MATCHES pattern is compiled once
// per statement and kept beside the pattern argument.
void predicateStringTest(sqlite3_context* context, int, sqlite3_value** argv) {
  if (sqlite3_value_type(argv[0]) != SQLITE_TEXT || sqlite3_value_type(argv[1]) != SQLITE_TEXT) {
    sqlite3_result_int(context, 0);
    return;
  }
  const auto test = static_cast<StringTest>(sqlite3_value_int(argv[2]));
  const auto options = static_cast<unsigned>(sqlite3_value_int64(argv[3]));
  if (test != StringTest::Matches) {
    sqlite3_result_int(context, stringTest(test, textOf(argv[0]), textOf(argv[1]), options) ? 1 : 0);
    return;
  }
  auto* kept = static_cast<RegularExpression*>(sqlite3_get_auxdata(context, 1));
  if (kept == nullptr) {
    auto compiled = RegularExpression::compile(textOf(argv[1]), options);
    if (!compiled) {
      const std::string message = compiled.error().localizedDescription();
      sqlite3_result_error(context, message.c_str(), static_cast<int>(message.size()));
      return;
    }
    kept = new RegularExpression(std::move(*compiled));
    sqlite3_set_auxdata(context, 1, kept, [](void* p) { delete static_cast<RegularExpression*>(p); });
    // SQLite may have dropped it at once; then it is fetched again below.
    kept = static_cast<RegularExpression*>(sqlite3_get_auxdata(context, 1));
    if (kept == nullptr) {
      sqlite3_result_int(context, stringTest(test, textOf(argv[0]), textOf(argv[1]), options) ? 1 : 0);
      return;
    }
  }
  sqlite3_result_int(context, kept->matches(textOf(argv[0])) ? 1 : 0);
}

}  // namespace

// --- Statement ---

Statement::Statement(Statement&& other) noexcept
    : database_(other.database_), statement_(other.statement_), sql_(std::move(other.sql_)) {
  other.statement_ = nullptr;
}

Statement& Statement::operator=(Statement&& other) noexcept {
  if (this != &other) {
    sqlite3_finalize(statement_);
    database_ = other.database_;
    statement_ = other.statement_;
    sql_ = std::move(other.sql_);
    other.statement_ = nullptr;
  }
  return *this;
}

Statement::~Statement() {
  sqlite3_finalize(statement_);
}

Status Statement::bind(int index, const Value& value) {
  int rc = SQLITE_OK;
  switch (value.type()) {
    case Value::Type::Null:
      rc = sqlite3_bind_null(statement_, index);
      break;
    case Value::Type::Bool:
    case Value::Type::Integer:
      rc = sqlite3_bind_int64(statement_, index, value.integerValue());
      break;
    case Value::Type::Double:
      rc = sqlite3_bind_double(statement_, index, value.asDouble());
      break;
    case Value::Type::Date:
      rc = sqlite3_bind_double(statement_, index, value.asDate().secondsSinceReferenceDate);
      break;
    case Value::Type::String:
      rc = sqlite3_bind_text64(statement_, index, value.asString().data(), value.asString().size(),
                               SQLITE_TRANSIENT, SQLITE_UTF8);
      break;
    case Value::Type::Data:
      rc = sqlite3_bind_blob64(statement_, index, value.asData().data(), value.asData().size(),
                               SQLITE_TRANSIENT);
      break;
    case Value::Type::Uuid:
      rc = sqlite3_bind_blob64(statement_, index, value.asUuid().bytes().data(),
                               value.asUuid().bytes().size(), SQLITE_TRANSIENT);
      break;
    case Value::Type::Url: {
      const std::string text = value.asUrl().absoluteString();
      rc = sqlite3_bind_text64(statement_, index, text.data(), text.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
      break;
    }
    default:
      return fail(Error(std::string(kCocoaErrorDomain), kCoderInvalidValueError,
                        fmt::format("{} cannot be stored in a column ({})", value.description(), sql_)));
  }
  if (rc != SQLITE_OK) return fail(database_->error(rc, sql_));
  return {};
}

Expected<bool> Statement::step() {
  const int rc = sqlite3_step(statement_);
  if (rc == SQLITE_ROW) return true;
  if (rc == SQLITE_DONE) return false;
  return fail(database_->error(rc, sql_));
}

Status Statement::run() {
  for (;;) {
    auto row = step();
    if (!row) return fail(row.error());
    if (!*row) return {};
  }
}

Status Statement::reset() {
  sqlite3_reset(statement_);
  if (const int rc = sqlite3_clear_bindings(statement_); rc != SQLITE_OK)
    return fail(database_->error(rc, sql_));
  return {};
}

int Statement::columnCount() const {
  return sqlite3_column_count(statement_);
}
bool Statement::isNull(int column) const {
  return sqlite3_column_type(statement_, column) == SQLITE_NULL;
}
std::int64_t Statement::integer(int column) const {
  return sqlite3_column_int64(statement_, column);
}
double Statement::real(int column) const {
  return sqlite3_column_double(statement_, column);
}

std::string Statement::columnName(int column) const {
  const char* name = sqlite3_column_name(statement_, column);
  return name ? std::string(name) : std::string();
}

std::string Statement::text(int column) const {
  const auto* p = sqlite3_column_text(statement_, column);
  return p ? std::string(reinterpret_cast<const char*>(p),
                         static_cast<std::size_t>(sqlite3_column_bytes(statement_, column)))
           : std::string();
}

Bytes Statement::blob(int column) const {
  const auto* p = static_cast<const std::uint8_t*>(sqlite3_column_blob(statement_, column));
  return p ? Bytes(p, p + sqlite3_column_bytes(statement_, column)) : Bytes();
}

Value Statement::value(int column) const {
  switch (sqlite3_column_type(statement_, column)) {
    case SQLITE_INTEGER:
      return Value(integer(column));
    case SQLITE_FLOAT:
      return Value(real(column));
    case SQLITE_TEXT:
      return Value(text(column));
    case SQLITE_BLOB:
      return Value(blob(column));
    default:
      return Value();
  }
}

// --- CachedStatement ---

CachedStatement::CachedStatement(CachedStatement&& other) noexcept
    : database_(other.database_), sql_(std::move(other.sql_)), statement_(std::move(other.statement_)) {
  other.database_ = nullptr;
}

CachedStatement::~CachedStatement() {
  if (database_ != nullptr && statement_.statement_ != nullptr)
    database_->giveBack(std::move(sql_), std::move(statement_));
}

// --- Database ---

Expected<std::unique_ptr<Database>> Database::open(const std::filesystem::path& path, Mode mode,
                                                   std::chrono::milliseconds busyTimeout) {
  int flags = SQLITE_OPEN_NOMUTEX;
  switch (mode) {
    case Mode::ReadOnly:
      flags |= SQLITE_OPEN_READONLY;
      break;
    case Mode::ReadWrite:
      flags |= SQLITE_OPEN_READWRITE;
      break;
    case Mode::ReadWriteCreate:
      flags |= SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
      break;
  }
  sqlite3* db = nullptr;
  const int rc = sqlite3_open_v2(path.c_str(), &db, flags, nullptr);
  std::unique_ptr<Database> database(new Database(db, path));
  if (rc != SQLITE_OK) return fail(database->error(rc, "open"));
  sqlite3_busy_timeout(db, static_cast<int>(busyTimeout.count()));
  sqlite3_extended_result_codes(db, 1);
  // The first read tells whether the file is a database at all; nothing is written before it.
  if (auto s = database->registerTriggerFunctions(); !s) return fail(s.error());
  if (auto s = database->registerPredicateFunctions(); !s) return fail(s.error());
  return database;
}

Database::~Database() {
  idle_.clear();
  sqlite3_close_v2(db_);
}

Status Database::registerTriggerFunctions() {
  static constexpr std::string_view kSql = "SELECT sql FROM sqlite_master WHERE type = 'trigger'";
  auto statement = prepare(kSql);
  if (!statement) return fail(statement.error());
  std::set<std::string> names;
  for (;;) {
    auto row = statement->step();
    if (!row) return fail(row.error());
    if (!*row) break;
    names.merge(triggerFunctionNames(statement->text(0)));
  }
  for (const std::string& name : names) {
    const int rc = sqlite3_create_function_v2(db_, name.c_str(), -1, SQLITE_UTF8 | SQLITE_DETERMINISTIC,
                                              nullptr, doNothing, nullptr, nullptr, nullptr);
    if (rc != SQLITE_OK) return fail(error(rc, name));
  }
  return {};
}

Status Database::registerPredicateFunctions() {
  struct Function {
    const char* name;
    int arguments;
    void (*body)(sqlite3_context*, int, sqlite3_value**);
  };
  static constexpr Function kFunctions[] = {{"PREDICATE_FOLD", 2, predicateFold},
                                            {"PREDICATE_STRING_TEST", 4, predicateStringTest}};
  for (const Function& f : kFunctions) {
    const int rc = sqlite3_create_function_v2(db_, f.name, f.arguments,
                                              SQLITE_UTF8 | SQLITE_DETERMINISTIC | SQLITE_INNOCUOUS, nullptr,
                                              f.body, nullptr, nullptr, nullptr);
    if (rc != SQLITE_OK) return fail(error(rc, f.name));
  }
  return {};
}

Expected<Statement> Database::prepare(std::string_view sql) {
  sqlite3_stmt* statement = nullptr;
  const int rc = sqlite3_prepare_v2(db_, sql.data(), static_cast<int>(sql.size()), &statement, nullptr);
  if (rc != SQLITE_OK) {
    sqlite3_finalize(statement);
    return fail(error(rc, sql));
  }
  return Statement(this, statement, std::string(sql));
}

Expected<CachedStatement> Database::cached(std::string_view sql) {
  for (auto it = idle_.rbegin(); it != idle_.rend(); ++it) {
    if (it->first != sql) continue;
    auto entry = std::move(*it);
    idle_.erase(std::next(it).base());
    return CachedStatement(this, std::move(entry.first), std::move(entry.second));
  }
  auto statement = prepare(sql);
  if (!statement) return fail(statement.error());
  return CachedStatement(this, std::string(sql), std::move(*statement));
}

void Database::giveBack(std::string sql, Statement statement) {
  // A statement left mid-way would keep its read transaction open.
  sqlite3_reset(statement.statement_);
  sqlite3_clear_bindings(statement.statement_);
  if (idle_.size() >= kStatementCacheSize) idle_.erase(idle_.begin());
  idle_.emplace_back(std::move(sql), std::move(statement));
}

void Database::clearStatementCache() {
  idle_.clear();
}

Status Statement::bindAll(const std::vector<Value>& values) {
  for (std::size_t i = 0; i < values.size(); ++i) {
    if (auto s = bind(static_cast<int>(i) + 1, values[i]); !s) return s;
  }
  return {};
}

Status Database::run(std::string_view sql, const std::vector<Value>& values) {
  auto statement = prepare(sql);
  if (!statement) return fail(statement.error());
  if (auto s = statement->bindAll(values); !s) return s;
  return statement->run();
}

Status Database::execute(std::string_view sql) {
  char* message = nullptr;
  const int rc = sqlite3_exec(db_, std::string(sql).c_str(), nullptr, nullptr, &message);
  sqlite3_free(message);
  if (rc != SQLITE_OK) return fail(error(rc, sql));
  return {};
}

Expected<Transaction> Transaction::begin(Database& database, Kind kind) {
  if (auto s = database.execute(kind == Kind::Exclusive ? "BEGIN EXCLUSIVE" : "BEGIN"); !s)
    return fail(s.error());
  return Transaction(&database);
}

Transaction::~Transaction() {
  if (database_ != nullptr) (void)database_->execute("ROLLBACK");
}

Status Transaction::commit() {
  Database* database = std::exchange(database_, nullptr);
  if (auto s = database->execute("COMMIT"); !s) {
    // A COMMIT that fails (busy, disk full) may leave the transaction open.
    if (sqlite3_get_autocommit(database->handle()) == 0) (void)database->execute("ROLLBACK");
    return s;
  }
  return {};
}

Expected<bool> Database::tableExists(std::string_view name) {
  auto statement = prepare("SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = ?");
  if (!statement) return fail(statement.error());
  if (auto s = statement->bind(1, Value(name)); !s) return fail(s.error());
  return statement->step();
}

// The user reads what the platform would say of the file; the result code, SQLite's own message,
// the statement and the path are the detail that goes to the log.
Error Database::error(int code, std::string_view sql) const {
  const std::string message = db_ ? sqlite3_errmsg(db_) : sqlite3_errstr(code);
  const std::string file = path_.filename().string();
  const std::string detail = sql.empty()
                                 ? fmt::format("SQLite {}: {}; {}", code, message, path_.string())
                                 : fmt::format("SQLite {}: {}; {}; {}", code, message, sql, path_.string());
  switch (code & 0xFF) {
    case SQLITE_NOTADB:
    case SQLITE_CORRUPT:
      return Error(
          std::string(kCocoaErrorDomain), kFileReadCorruptFileError,
          fmt::format("The file “{}” couldn’t be opened because it isn’t in the correct format.", file),
          detail);
    case SQLITE_CANTOPEN:
      return Error(std::string(kCocoaErrorDomain), kFileReadNoSuchFileError,
                   fmt::format("The file “{}” couldn’t be opened.", file), detail);
    case SQLITE_READONLY:
    case SQLITE_PERM:
      return Error(std::string(kCocoaErrorDomain), kFileWriteNoPermissionError,
                   fmt::format("The file “{}” couldn’t be saved because you don’t have permission.", file),
                   detail);
    case SQLITE_FULL:
      return Error(std::string(kCocoaErrorDomain), kFileWriteOutOfSpaceError,
                   fmt::format("The file “{}” couldn’t be saved because there isn’t enough space.", file),
                   detail);
    default:
      // SQLite's own message is a sentence of its own (a trigger's, a lock's); the statement is not.
      return Error("NSSQLiteErrorDomain", code,
                   fmt::format("The operation on the file “{}” couldn’t be completed: {}.", file, message),
                   detail);
  }
}

}  // namespace tesselune
