// HistoryWriter: the persistent history of a store that keeps one (tables ATRANSACTION, ACHANGE and
// ATRANSACTIONSTRING, or the same with the older Z_ prefix), written the way Core Data writes it, so
// that other processes reading the history learn of our saves and batch deletes.
//
// A store finds its writer once, when it opens (detect); a store without history tables has none
// and is never given any. Every record is written inside the caller's open SQL transaction, so a
// change and its history are committed or rolled back together. Keys come from the Z_PRIMARYKEY
// rows 16001 (changes), 16002 (transactions) and 16003 (strings). The writer borrows the model,
// which must outlive it; use it from the store's thread, on the store's connection.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "foundation/error.h"
#include "foundation/value.h"
#include "objectstore/description/managed_object_model.h"
#include "objectstore/sqlite/database.h"
#include "objectstore/sqlite/schema.h"

namespace tesselune {

// Who made a transaction and through which context (transactionAuthor and name of
// NSManagedObjectContext); empty for none. The program's bundle identifier and process name are
// added by the writer.
struct TransactionNames {
  std::string author;
  std::string contextName;
};

// One changed object of a transaction.
struct HistoryChange {
  enum class Type : std::int64_t { Insert = 0, Update = 1, Delete = 2 };
  Type type = Type::Insert;
  std::int64_t entity = 0;        // the object's Z_ENT
  std::int64_t key = 0;           // its Z_PK
  Bytes columns;                  // updates: which properties changed (see changedColumns)
  std::vector<Value> tombstones;  // deletes: the values kept after deletion
};

// The names of a store's history tables.
struct HistoryTables {
  std::string transactions;
  std::string changes;
  std::string strings;
};

class HistoryWriter {
 public:
  // Entity numbers of the history's own rows in Z_PRIMARYKEY.
  static constexpr std::int64_t kChangeEntity = 16001;
  static constexpr std::int64_t kTransactionEntity = 16002;
  static constexpr std::int64_t kStringEntity = 16003;

  // The store's history tables, if it has all three. Reads only the schema.
  [[nodiscard]] static Expected<std::optional<HistoryTables>> findTables(Database& db);

  // The writer for the store on this connection, or nothing when it keeps no history, or when
  // triggers of its own already write its changes (a second record of each change would make
  // readers of the history see it twice). Reads only the schema. `numbers` and `schema` are the
  // store's.
  [[nodiscard]] static Expected<std::unique_ptr<HistoryWriter>> detect(Database& db,
                                                                       const ManagedObjectModel& model,
                                                                       const EntityNumbers& numbers,
                                                                       const StoreSchema& schema);

  const HistoryTables& tables() const { return tables_; }

  // ZCOLUMNS of an update: one bit per stored property of the entity (inherited ones and
  // relationships included) in name order, the first the most significant bit of the first byte.
  // Names that are not stored properties of the entity are left out; empty when none is left.
  Bytes changedColumns(const EntityDescription& entity,
                       const std::set<std::string, std::less<>>& names) const;

  // The values a row about to be deleted leaves in its tombstone columns, read from the store now;
  // empty when its entity keeps none.
  [[nodiscard]] Expected<std::vector<Value>> tombstones(Database& db, const EntityDescription& entity,
                                                        std::int64_t key) const;

  // Writes one transaction and its changes, in the given order. Writes nothing when there are no
  // changes.
  [[nodiscard]] Status recordTransaction(Database& db, const TransactionNames& names,
                                         const std::vector<HistoryChange>& changes) const;

  // Batch deletes run in SQLite, so their changes are logged by temporary triggers into temporary
  // tables, and recorded from there when the request is done:
  // - batchLogSetupSql: the log tables and a trigger logging each row deleted from these tables;
  // - nullifyLogSql: a statement for a trigger body that logs the rows of `table` whose key
  //   `keyColumn` (the relationship `property` of those rows) is about to be nullified for OLD;
  // - recordBatchLog: one transaction with a delete per deleted row and an update per row whose key
  //   was nullified and that was not deleted itself; none when nothing was logged;
  // - batchLogCleanupSql: drops what the setup made (also after a rollback).
  std::vector<std::string> batchLogSetupSql(const std::set<std::string>& tables) const;
  static std::string nullifyLogSql(const std::string& table, const std::string& keyColumn,
                                   const std::string& property);
  [[nodiscard]] Status recordBatchLog(Database& db, const TransactionNames& names) const;
  std::vector<std::string> batchLogCleanupSql(const std::set<std::string>& tables) const;

 private:
  struct EntityHistory {
    std::int64_t number = 0;
    std::string table;
    // Stored properties in name order, and each name's bit.
    std::size_t propertyCount = 0;
    std::map<std::string, std::size_t, std::less<>> bitOf;
    // The columns of the attributes kept after deletion, in the attributes' name order, no more
    // than the store has tombstone columns.
    std::vector<std::string> tombstoneColumns;
  };

  HistoryWriter() = default;
  Bytes bitmap(const EntityHistory& entity, const std::vector<std::size_t>& bits) const;
  // Interns the strings and writes the transaction row; answers its key.
  [[nodiscard]] Expected<std::int64_t> writeTransaction(Database& db, const TransactionNames& names) const;
  [[nodiscard]] Expected<Value> internString(Database& db, const std::string& name) const;
  // Reserves `count` keys of one of the history's tables and answers the first.
  [[nodiscard]] Expected<std::int64_t> allocateKeys(Database& db, std::int64_t entity,
                                                    std::int64_t count) const;
  std::string changeInsertSql() const;

  HistoryTables tables_;
  std::size_t tombstoneCount_ = 0;  // ZTOMBSTONE0 … of the change table
  std::map<const EntityDescription*, EntityHistory> entities_;
  std::map<std::int64_t, const EntityHistory*> byNumber_;
};

}  // namespace tesselune
