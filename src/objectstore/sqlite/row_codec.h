// Converts between the values of attributes and what Core Data keeps in their columns: integers and
// booleans as INTEGER, dates as REAL seconds since 2001, UUIDs as 16-byte BLOBs, URIs as text,
// transformable values through their named value transformer.
#pragma once

#include "foundation/error.h"
#include "foundation/value.h"
#include "objectstore/description/entity_description.h"
#include "objectstore/sqlite/database.h"

namespace tesselune {

// The attribute's value from column `column` of the statement's current row. A column that does not
// hold what the attribute type allows fails with a corrupt-file error naming the attribute.
[[nodiscard]] Expected<Value> attributeValueFromColumn(const AttributeDescription& attribute,
                                                       const Statement& statement, int column);
// What to bind for an attribute's value. A value of the wrong kind for the attribute fails with
// 1550 (NSValidationErrorMinimum's family: a value the attribute cannot hold).
[[nodiscard]] Expected<Value> columnValueForAttribute(const AttributeDescription& attribute,
                                                      const Value& value);

}  // namespace tesselune
