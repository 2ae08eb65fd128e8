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
  std::string createSql(bool ifNotExists = false) const;
};

using EntityNumbers = std::map<const EntityDescription*, std::int64_t>;

// How the columns of attributes and to-one relationships are named.
enum class ColumnNaming {
  // As Core Data names them: properties of one hierarchy whose upper-cased names clash are numbered
  // 1, 2, … in the Z_ENT order of the entities that declare them (the first keeps the plain name),
  // and a to-one's entity-number column is Z<destination's Z_ENT>_<NAME> with the same number.
  Framework,
  // As our own earlier builds named them: clashes numbered in the order the columns were laid out
  // (by kind first), and the entity-number column carrying the declaring entity's Z_ENT. Kept only
  // to recognise such stores and rename their columns.
  EarlierBuilds,
};

// Where one property's values live in the store.
struct PropertyMapping {
  enum class Kind {
    Attribute,             // `column` of the entity's table
    ToOne,                 // key `column` of the entity's table
    ToManyThroughInverse,  // the inverse to-one's key `column` in the destination's table
    ToManyWithoutInverse,  // a hidden key `column` in the destination's table
    ManyToMany,            // join `table`: `column` holds this side's Z_PK, `otherColumn` the other's
  };
  Kind kind = Kind::Attribute;
  std::string table;
  std::string column;
  // The destination's Z_ENT beside a key column, when the destination entity has sub-entities.
  std::string entityColumn;
  // The order (Z_FOK_) beside the key column of an ordered to-many's inverse.
  std::string orderColumn;
  std::string otherColumn;
};

class StoreSchema {
 public:
  // The numbers Core Data gives the entities of a new store: roots by name, each followed by its
  // sub-entities depth first, so that a hierarchy is one block.
  static EntityNumbers numberEntities(const ManagedObjectModel& model);
  static StoreSchema forModel(const ManagedObjectModel& model, const EntityNumbers& numbers,
                              ColumnNaming naming = ColumnNaming::Framework);

  const std::vector<TableSchema>& tables() const { return tables_; }
  const std::vector<IndexSchema>& indexes() const { return indexes_; }
  // Where a stored property lives; nothing for transient properties.
  const PropertyMapping* mapping(const PropertyDescription& property) const;

 private:
  std::vector<TableSchema> tables_;
  std::vector<IndexSchema> indexes_;
  std::map<const PropertyDescription*, PropertyMapping> mappings_;
};

// "Z" + the name in upper case: the column of an attribute or to-one relationship, the table of a
// root entity.
std::string columnName(std::string_view name);

}  // namespace tesselune
