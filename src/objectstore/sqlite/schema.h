// StoreSchema: the tables, columns and indexes that Core Data gives a model in its SQLite layout,
// so that stores we create are the stores Core Data would have created.
//
// One table per root entity ("Z" + upper-case name) with Z_PK, Z_ENT, Z_OPT and then the columns of
// the whole hierarchy grouped by kind (integers and keys, then reals and timestamps, strings,
// blobs); a join table per many-to-many pair; indexes on keys, on Z_ENT of hierarchies, on indexed
// attributes and for compound indexes. A plain value computed from the model.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "objectstore/description/managed_object_model.h"

namespace tesselune {

struct ColumnSchema {
  std::string name;
  std::string type;  // INTEGER, FLOAT, TIMESTAMP, DECIMAL, VARCHAR, BLOB
};

struct TableSchema {
  std::string name;
  std::vector<ColumnSchema> columns;
  std::vector<std::string> primaryKey;                  // for join tables: both columns
  std::vector<std::vector<std::string>> uniqueColumns;  // uniqueness constraints, as columns
  std::string createSql() const;
};

struct IndexSchema {
  std::string name;
  std::string table;
  std::vector<std::string> columns;
  std::string createSql() const;
};

using EntityNumbers = std::map<const EntityDescription*, std::int64_t>;

class StoreSchema {
 public:
  // The numbers Core Data gives the entities of a new store: roots by name, each followed by its
  // sub-entities depth first, so that a hierarchy is one block.
  static EntityNumbers numberEntities(const ManagedObjectModel& model);
  static StoreSchema forModel(const ManagedObjectModel& model, const EntityNumbers& numbers);

  const std::vector<TableSchema>& tables() const { return tables_; }
  const std::vector<IndexSchema>& indexes() const { return indexes_; }

 private:
  std::vector<TableSchema> tables_;
  std::vector<IndexSchema> indexes_;
};

// "Z" + the name in upper case: the column of an attribute or to-one relationship, the table of a
// root entity.
std::string columnName(std::string_view name);

}  // namespace tesselune
