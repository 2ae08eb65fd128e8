// HistoryWriter: finding a store's history tables, interning strings, handing out keys, and writing
// transactions and changes, from a context save or from the logs of a batch delete.

#include "objectstore/sqlite/history_writer.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>

#include "foundation/process_info.h"

namespace tesselune {

namespace {

// Temporary objects of a batch delete's log. Entity tables are "Z" + a letter, so these never clash
// (trigger bodies cannot name the schema, so the names alone must tell them apart).
constexpr std::string_view kDeletedLog = "Z_HISTORY_DELETED";
constexpr std::string_view kNullifiedLog = "Z_HISTORY_NULLIFIED";
constexpr std::string_view kLogTriggerPrefix = "Z_HISTORY_TRIGGER_";

Expected<std::int64_t> singleInteger(Database& db, std::string_view sql,
                                     const std::vector<Value>& values = {}) {
  auto statement = db.prepare(sql);
  if (!statement) return fail(statement.error());
  if (auto s = statement->bindAll(values); !s) return fail(s.error());
  auto row = statement->step();
  if (!row) return fail(row.error());
  return *row && !statement->isNull(0) ? statement->integer(0) : 0;
}

Expected<std::vector<std::string>> columnsOf(Database& db, const std::string& table) {
  auto statement = db.prepare(fmt::format("PRAGMA table_info({})", table));
  if (!statement) return fail(statement.error());
  std::vector<std::string> columns;
  for (;;) {
    auto row = statement->step();
    if (!row) return fail(row.error());
    if (!*row) break;
    columns.push_back(statement->text(1));
  }
  return columns;
}

std::string tableOf(const EntityDescription& entity) {
  return columnName(entity.rootEntity()->name());
}

std::string sqlLiteral(std::string_view text) {
  std::string out = "'";
  for (char c : text) {
    out.push_back(c);
    if (c == '\'') out.push_back('\'');
  }
  out.push_back('\'');
  return out;
}

}  // namespace

Expected<std::optional<HistoryTables>> HistoryWriter::findTables(Database& db) {
  // Stores written since history tracking began use "A"; older ones a "Z_" prefix, seen written
  // both before the "A" and instead of it.
  for (std::string_view prefix : {"A", "Z_A", "Z_"}) {
    HistoryTables tables{fmt::format("{}TRANSACTION", prefix), fmt::format("{}CHANGE", prefix),
                         fmt::format("{}TRANSACTIONSTRING", prefix)};
    bool all = true;
    for (const std::string* table : {&tables.transactions, &tables.changes, &tables.strings}) {
      auto exists = db.tableExists(*table);
      if (!exists) return fail(exists.error());
      all = all && *exists;
    }
    if (all) return std::optional<HistoryTables>(std::move(tables));
  }
  return std::optional<HistoryTables>();
}

Expected<std::unique_ptr<HistoryWriter>> HistoryWriter::detect(Database& db, const ManagedObjectModel& model,
                                                               const EntityNumbers& numbers,
                                                               const StoreSchema& schema) {
  auto tables = findTables(db);
  if (!tables) return fail(tables.error());
  if (!*tables) return std::unique_ptr<HistoryWriter>();
  // Triggers of the store's own that insert into the change table, however their SQL is spaced.
  auto ownTriggers = singleInteger(db,
                                   "SELECT COUNT(*) FROM (SELECT ' ' || replace(replace(replace(upper(sql), "
                                   "char(10), ' '), char(13), ' '), "
                                   "char(9), ' ') || ' ' AS body FROM sqlite_master WHERE type = 'trigger') "
                                   "WHERE instr(body, ' INTO ' || ?1 "
                                   "|| ' ') > 0 OR instr(body, ' INTO ' || ?1 || '(') > 0",
                                   {Value((*tables)->changes)});
  if (!ownTriggers) return fail(ownTriggers.error());
  if (*ownTriggers > 0) return std::unique_ptr<HistoryWriter>();
  std::unique_ptr<HistoryWriter> writer(new HistoryWriter());
  writer->tables_ = std::move(**tables);

  auto columns = columnsOf(db, writer->tables_.changes);
  if (!columns) return fail(columns.error());
  while (std::find(columns->begin(), columns->end(), fmt::format("ZTOMBSTONE{}", writer->tombstoneCount_)) !=
         columns->end()) {
    ++writer->tombstoneCount_;
  }

  for (const auto& entity : model.entities()) {
    auto number = numbers.find(entity.get());
    if (number == numbers.end()) continue;
    EntityHistory& info = writer->entities_[entity.get()];
    info.number = number->second;
    info.table = tableOf(*entity);
    for (const auto& [name, property] : entity->propertiesByName()) {
      if (property->isTransient()) continue;
      info.bitOf.emplace(name, info.propertyCount++);
      if (!property->isAttribute()) continue;
      const auto& attribute = static_cast<const AttributeDescription&>(*property);
      // Values kept outside the row have no tombstone, even when small enough to be in it.
      if (!attribute.preservesValueInHistoryOnDeletion() || attribute.allowsExternalBinaryDataStorage())
        continue;
      const PropertyMapping* mapping = schema.mapping(attribute);
      if (mapping == nullptr || info.tombstoneColumns.size() >= writer->tombstoneCount_) continue;
      info.tombstoneColumns.push_back(mapping->column);
    }
    writer->byNumber_[info.number] = &info;
  }
  return writer;
}

Bytes HistoryWriter::bitmap(const EntityHistory& entity, const std::vector<std::size_t>& bits) const {
  if (bits.empty()) return {};
  Bytes out((entity.propertyCount + 7) / 8, 0);
  for (std::size_t bit : bits) out[bit / 8] |= static_cast<std::uint8_t>(0x80u >> (bit % 8));
  return out;
}

Bytes HistoryWriter::changedColumns(const EntityDescription& entity,
                                    const std::set<std::string, std::less<>>& names) const {
  auto found = entities_.find(&entity);
  if (found == entities_.end()) return {};
  std::vector<std::size_t> bits;
  for (const std::string& name : names) {
    if (auto bit = found->second.bitOf.find(name); bit != found->second.bitOf.end())
      bits.push_back(bit->second);
  }
  return bitmap(found->second, bits);
}

Expected<std::vector<Value>> HistoryWriter::tombstones(Database& db, const EntityDescription& entity,
                                                       std::int64_t key) const {
  auto found = entities_.find(&entity);
  if (found == entities_.end() || found->second.tombstoneColumns.empty()) return std::vector<Value>();
  const EntityHistory& info = found->second;
  auto statement = db.prepare(
      fmt::format("SELECT {} FROM {} WHERE Z_PK = ?", fmt::join(info.tombstoneColumns, ", "), info.table));
  if (!statement) return fail(statement.error());
  if (auto s = statement->bind(1, Value(key)); !s) return fail(s.error());
  auto row = statement->step();
  if (!row) return fail(row.error());
  std::vector<Value> values;
  for (std::size_t i = 0; i < info.tombstoneColumns.size(); ++i)
    values.push_back(*row ? statement->value(static_cast<int>(i)) : Value());
  return values;
}

Expected<std::int64_t> HistoryWriter::allocateKeys(Database& db, std::int64_t entity,
                                                   std::int64_t count) const {
  const std::string& table = entity == kChangeEntity        ? tables_.changes
                             : entity == kTransactionEntity ? tables_.transactions
                                                            : tables_.strings;
  auto select = db.prepare("SELECT Z_MAX FROM Z_PRIMARYKEY WHERE Z_ENT = ?");
  if (!select) return fail(select.error());
  if (auto s = select->bind(1, Value(entity)); !s) return fail(s.error());
  auto row = select->step();
  if (!row) return fail(row.error());
  const bool hasCounter = *row;
  std::int64_t max = hasCounter && !select->isNull(0) ? select->integer(0) : 0;
  *select = Statement();
  // A counter behind its table (or missing) would hand out keys that are taken.
  auto largest = singleInteger(db, fmt::format("SELECT MAX(Z_PK) FROM {}", table));
  if (!largest) return fail(largest.error());
  max = std::max(max, *largest);
  if (!hasCounter) {
    const std::string name = entity == kChangeEntity        ? "CHANGE"
                             : entity == kTransactionEntity ? "TRANSACTION"
                                                            : "TRANSACTIONSTRING";
    if (auto s = db.run("INSERT INTO Z_PRIMARYKEY (Z_ENT, Z_NAME, Z_SUPER, Z_MAX) VALUES (?, ?, 0, ?)",
                        {Value(entity), Value(name), Value(max + count)});
        !s)
      return fail(s.error());
  } else if (auto s = db.run("UPDATE Z_PRIMARYKEY SET Z_MAX = ? WHERE Z_ENT = ?",
                             {Value(max + count), Value(entity)});
             !s) {
    return fail(s.error());
  }
  return max + 1;
}

Expected<Value> HistoryWriter::internString(Database& db, const std::string& name) const {
  if (name.empty()) return Value();
  auto select = db.prepare(fmt::format("SELECT Z_PK FROM {} WHERE ZNAME = ?", tables_.strings));
  if (!select) return fail(select.error());
  if (auto s = select->bind(1, Value(name)); !s) return fail(s.error());
  auto row = select->step();
  if (!row) return fail(row.error());
  if (*row) return Value(select->integer(0));
  auto key = allocateKeys(db, kStringEntity, 1);
  if (!key) return fail(key.error());
  if (auto s = db.run(
          fmt::format("INSERT INTO {} (Z_PK, Z_ENT, Z_OPT, ZNAME) VALUES (?, ?, NULL, ?)", tables_.strings),
          {Value(*key), Value(kStringEntity), Value(name)});
      !s)
    return fail(s.error());
  return Value(*key);
}

Expected<std::int64_t> HistoryWriter::writeTransaction(Database& db, const TransactionNames& names) const {
  std::vector<Value> strings;
  for (const std::string& name :
       {mainBundleIdentifier().value_or(""), processName(), names.author, names.contextName}) {
    auto key = internString(db, name);
    if (!key) return fail(key.error());
    strings.push_back(std::move(*key));
  }
  auto key = allocateKeys(db, kTransactionEntity, 1);
  if (!key) return fail(key.error());
  // The text columns beside the string keys stay empty, as in every store the framework wrote.
  if (auto s = db.run(fmt::format("INSERT INTO {} (Z_PK, Z_ENT, Z_OPT, ZBUNDLEIDTS, ZPROCESSIDTS, ZAUTHORTS, "
                                  "ZCONTEXTNAMETS, ZTIMESTAMP) VALUES (?, ?, NULL, ?, ?, ?, ?, ?)",
                                  tables_.transactions),
                      {Value(*key), Value(kTransactionEntity), strings[0], strings[1], strings[2], strings[3],
                       Value(Date::now().secondsSinceReferenceDate)});
      !s)
    return fail(s.error());
  return *key;
}

std::string HistoryWriter::changeInsertSql() const {
  std::string columns = "Z_PK, Z_ENT, Z_OPT, ZCHANGETYPE, ZENTITY, ZENTITYPK, ZTRANSACTIONID, ZCOLUMNS";
  for (std::size_t i = 0; i < tombstoneCount_; ++i) columns += fmt::format(", ZTOMBSTONE{}", i);
  return fmt::format("INSERT INTO {} ({})", tables_.changes, columns);
}

Status HistoryWriter::recordTransaction(Database& db, const TransactionNames& names,
                                        const std::vector<HistoryChange>& changes) const {
  if (changes.empty()) return {};
  auto transaction = writeTransaction(db, names);
  if (!transaction) return fail(transaction.error());
  auto first = allocateKeys(db, kChangeEntity, static_cast<std::int64_t>(changes.size()));
  if (!first) return fail(first.error());
  std::string marks = "?, ?, NULL, ?, ?, ?, ?, ?";
  for (std::size_t i = 0; i < tombstoneCount_; ++i) marks += ", ?";
  auto insert = db.prepare(fmt::format("{} VALUES ({})", changeInsertSql(), marks));
  if (!insert) return fail(insert.error());
  std::int64_t key = *first;
  for (const HistoryChange& change : changes) {
    std::vector<Value> values{Value(key++),
                              Value(kChangeEntity),
                              Value(static_cast<std::int64_t>(change.type)),
                              Value(change.entity),
                              Value(change.key),
                              Value(*transaction),
                              change.columns.empty() ? Value() : Value(change.columns)};
    for (std::size_t i = 0; i < tombstoneCount_; ++i)
      values.push_back(i < change.tombstones.size() ? change.tombstones[i] : Value());
    if (auto s = insert->bindAll(values); !s) return s;
    if (auto s = insert->run(); !s) return s;
    if (auto s = insert->reset(); !s) return s;
  }
  return {};
}

std::vector<std::string> HistoryWriter::batchLogSetupSql(const std::set<std::string>& tables) const {
  std::vector<std::string> sql;
  std::string tombstoneColumns;
  for (std::size_t i = 0; i < tombstoneCount_; ++i) tombstoneColumns += fmt::format(", ZTOMBSTONE{}", i);
  sql.push_back(fmt::format("CREATE TEMP TABLE {} (Z_ENT INTEGER, Z_PK INTEGER{}, UNIQUE (Z_ENT, Z_PK))",
                            kDeletedLog, tombstoneColumns));
  sql.push_back(fmt::format("CREATE TEMP TABLE {} (Z_ENT INTEGER, Z_PK INTEGER, NAME TEXT)", kNullifiedLog));
  std::size_t n = 0;
  for (const std::string& table : tables) {
    // Each tombstone column takes the value of the deleted row's own entity.
    std::vector<std::string> values{"OLD.Z_ENT", "OLD.Z_PK"};
    for (std::size_t i = 0; i < tombstoneCount_; ++i) {
      std::string cases;
      for (const auto& [entity, info] : entities_) {
        if (info.table == table && i < info.tombstoneColumns.size())
          cases += fmt::format(" WHEN {} THEN OLD.{}", info.number, info.tombstoneColumns[i]);
      }
      values.push_back(cases.empty() ? "NULL" : fmt::format("CASE OLD.Z_ENT{} END", cases));
    }
    sql.push_back(
        fmt::format("CREATE TEMP TRIGGER {}{} AFTER DELETE ON {} FOR EACH ROW BEGIN INSERT INTO {} "
                    "VALUES ({}); END",
                    kLogTriggerPrefix, ++n, table, kDeletedLog, fmt::join(values, ", ")));
  }
  return sql;
}

std::vector<std::string> HistoryWriter::batchLogCleanupSql(const std::set<std::string>& tables) const {
  std::vector<std::string> sql;
  for (std::size_t n = 1; n <= tables.size(); ++n)
    sql.push_back(fmt::format("DROP TRIGGER IF EXISTS temp.{}{}", kLogTriggerPrefix, n));
  sql.push_back(fmt::format("DROP TABLE IF EXISTS temp.{}", kDeletedLog));
  sql.push_back(fmt::format("DROP TABLE IF EXISTS temp.{}", kNullifiedLog));
  return sql;
}

std::string HistoryWriter::nullifyLogSql(const std::string& table, const std::string& keyColumn,
                                         const std::string& property) {
  return fmt::format("INSERT INTO {} SELECT Z_ENT, Z_PK, {} FROM {} WHERE {} = OLD.Z_PK", kNullifiedLog,
                     sqlLiteral(property), table, keyColumn);
}

Status HistoryWriter::recordBatchLog(Database& db, const TransactionNames& names) const {
  // Rows that went are deletes only, whatever was nullified in them before.
  const std::string survivors = fmt::format(
      "FROM temp.{0} n WHERE NOT EXISTS (SELECT 1 FROM temp.{1} d WHERE d.Z_ENT = n.Z_ENT AND d.Z_PK = "
      "n.Z_PK)",
      kNullifiedLog, kDeletedLog);
  auto deleted = singleInteger(db, fmt::format("SELECT COUNT(*) FROM temp.{}", kDeletedLog));
  if (!deleted) return fail(deleted.error());
  auto updated =
      singleInteger(db, fmt::format("SELECT COUNT(*) FROM (SELECT DISTINCT n.Z_ENT, n.Z_PK {})", survivors));
  if (!updated) return fail(updated.error());
  if (*deleted + *updated == 0) return {};

  auto transaction = writeTransaction(db, names);
  if (!transaction) return fail(transaction.error());
  auto first = allocateKeys(db, kChangeEntity, *deleted + *updated);
  if (!first) return fail(first.error());

  std::string tombstones;
  for (std::size_t i = 0; i < tombstoneCount_; ++i) tombstones += fmt::format(", ZTOMBSTONE{}", i);
  if (auto s =
          db.run(fmt::format("{} SELECT ?1 + ROW_NUMBER() OVER (ORDER BY rowid) - 1, ?2, NULL, ?3, Z_ENT, "
                             "Z_PK, ?4, NULL{} FROM temp.{} ORDER BY rowid",
                             changeInsertSql(), tombstones, kDeletedLog),
                 {Value(*first), Value(kChangeEntity),
                  Value(static_cast<std::int64_t>(HistoryChange::Type::Delete)), Value(*transaction)});
      !s)
    return s;

  // One update per surviving row, with the bits of every key of it that was nullified.
  auto select =
      db.prepare(fmt::format("SELECT n.Z_ENT, n.Z_PK, n.NAME {} ORDER BY n.Z_ENT, n.Z_PK", survivors));
  if (!select) return fail(select.error());
  std::string marks = "?, ?, NULL, ?, ?, ?, ?, ?";
  for (std::size_t i = 0; i < tombstoneCount_; ++i) marks += ", NULL";
  auto insert = db.prepare(fmt::format("{} VALUES ({})", changeInsertSql(), marks));
  if (!insert) return fail(insert.error());
  std::int64_t key = *first + *deleted;
  const EntityHistory* entity = nullptr;
  std::int64_t entityNumber = 0;
  std::int64_t row = 0;
  std::vector<std::size_t> bits;
  auto flush = [&]() -> Status {
    if (entity == nullptr) return {};
    if (auto s = insert->bindAll({Value(key++), Value(kChangeEntity),
                                  Value(static_cast<std::int64_t>(HistoryChange::Type::Update)),
                                  Value(entityNumber), Value(row), Value(*transaction),
                                  Value(bitmap(*entity, bits))});
        !s)
      return s;
    if (auto s = insert->run(); !s) return s;
    return insert->reset();
  };
  bool started = false;
  for (;;) {
    auto step = select->step();
    if (!step) return fail(step.error());
    if (!*step) break;
    const std::int64_t number = select->integer(0);
    const std::int64_t pk = select->integer(1);
    if (!started || number != entityNumber || pk != row) {
      if (auto s = flush(); !s) return s;
      started = true;
      entityNumber = number;
      row = pk;
      bits.clear();
      auto found = byNumber_.find(number);
      entity = found == byNumber_.end() ? nullptr : found->second;
    }
    if (entity == nullptr) continue;
    if (auto bit = entity->bitOf.find(select->text(2)); bit != entity->bitOf.end())
      bits.push_back(bit->second);
  }
  return flush();
}

}  // namespace tesselune
