// StoreSchema: Core Data's table layout for a model.

#include "objectstore/sqlite/schema.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <cctype>
#include <set>

namespace tesselune {

namespace {

std::string upper(std::string_view name) {
  std::string out;
  for (char c : name) out.push_back(static_cast<char>(std::toupper(static_cast<unsigned char>(c))));
  return out;
}

// Column groups, in the order Core Data lays them out.
enum Group { kIntegers, kReals, kStrings, kBlobs };

std::pair<Group, std::string> columnType(AttributeType type) {
  switch (type) {
    case AttributeType::Integer16:
    case AttributeType::Integer32:
    case AttributeType::Integer64:
    case AttributeType::Boolean:
    case AttributeType::ObjectId:
      return {kIntegers, "INTEGER"};
    case AttributeType::Double:
    case AttributeType::Float:
      return {kReals, "FLOAT"};
    case AttributeType::Decimal:
      return {kReals, "DECIMAL"};
    case AttributeType::Date:
      return {kReals, "TIMESTAMP"};
    case AttributeType::String:
    case AttributeType::Uri:
      return {kStrings, "VARCHAR"};
    default:
      return {kBlobs, "BLOB"};
  }
}

// The entity and its sub-entities, depth first in name order.
void hierarchy(const EntityDescription& entity, std::vector<const EntityDescription*>& out) {
  out.push_back(&entity);
  for (const EntityDescription* sub : entity.subentities()) hierarchy(*sub, out);
}

// The column names Core Data gives the attributes and to-ones declared in one hierarchy (`members`
// in Z_ENT order): a name that clashes after upper-casing with one declared earlier gets the count
// of earlier ones as suffix, and so does the to-one's entity-number column.
struct PropertyColumns {
  std::string column;
  std::string entityColumn;  // empty when the destination has no sub-entities
};
std::map<const PropertyDescription*, PropertyColumns> frameworkColumnNames(
    const std::vector<const EntityDescription*>& members, const EntityNumbers& numbers) {
  std::map<const PropertyDescription*, PropertyColumns> names;
  std::map<std::string, int> declared;
  for (const EntityDescription* member : members) {
    std::vector<const PropertyDescription*> properties;
    for (const auto& property : member->ownProperties()) {
      if (property->isTransient()) continue;
      if (property->isRelationship() && static_cast<const RelationshipDescription&>(*property).isToMany())
        continue;
      properties.push_back(property.get());
    }
    std::sort(properties.begin(), properties.end(),
              [](const auto* a, const auto* b) { return a->name() < b->name(); });
    for (const PropertyDescription* property : properties) {
      const std::string base = upper(property->name());
      const int earlier = declared[base]++;
      const std::string suffix = earlier == 0 ? "" : std::to_string(earlier);
      PropertyColumns& columns = names[property];
      columns.column = "Z" + base + suffix;
      if (!property->isRelationship()) continue;
      const EntityDescription* destination =
          static_cast<const RelationshipDescription&>(*property).destinationEntity();
      if (destination != nullptr && !destination->subentities().empty())
        columns.entityColumn = fmt::format("Z{}_{}{}", numbers.at(destination), base, suffix);
    }
  }
  return names;
}

bool isManyToMany(const RelationshipDescription& r) {
  return r.isToMany() && r.inverseRelationship() != nullptr && r.inverseRelationship()->isToMany();
}

}  // namespace

std::string columnName(std::string_view name) {
  return "Z" + upper(name);
}

std::string TableSchema::createSql() const {
  std::vector<std::string> parts;
  for (const ColumnSchema& column : columns) parts.push_back(column.name + " " + column.type);
  if (!primaryKey.empty()) parts.push_back(fmt::format("PRIMARY KEY ({})", fmt::join(primaryKey, ", ")));
  for (const auto& unique : uniqueColumns) {
    parts.push_back(
        fmt::format("CONSTRAINT {} UNIQUE ({})", fmt::join(unique, "_"), fmt::join(unique, ", ")));
  }
  return fmt::format("CREATE TABLE {} ( {} )", name, fmt::join(parts, ", "));
}

std::string IndexSchema::createSql(bool ifNotExists) const {
  return fmt::format("CREATE INDEX {}{} ON {} ({})", ifNotExists ? "IF NOT EXISTS " : "", name, table,
                     fmt::join(columns, ", "));
}

EntityNumbers StoreSchema::numberEntities(const ManagedObjectModel& model) {
  EntityNumbers numbers;
  std::int64_t next = 1;
  for (const auto& entity : model.entities()) {
    if (entity->superentity() != nullptr) continue;
    std::vector<const EntityDescription*> members;
    hierarchy(*entity, members);
    for (const EntityDescription* member : members) numbers[member] = next++;
  }
  return numbers;
}

StoreSchema StoreSchema::forModel(const ManagedObjectModel& model, const EntityNumbers& numbers,
                                  ColumnNaming naming) {
  StoreSchema schema;
  // Columns that other entities' relationships put into a table: hidden keys of to-many
  // relationships without inverse, and order columns of ordered to-many relationships.
  struct ForeignColumn {
    ColumnSchema column;
    const RelationshipDescription* relationship;  // the to-many that owns the column
  };
  std::map<const EntityDescription*, std::vector<ForeignColumn>> foreignColumns;
  for (const auto& entity : model.entities()) {
    for (const auto& property : entity->ownProperties()) {
      if (!property->isRelationship() || property->isTransient()) continue;
      const auto& r = static_cast<const RelationshipDescription&>(*property);
      if (!r.isToMany() || r.destinationEntity() == nullptr) continue;
      const EntityDescription* root = r.destinationEntity()->rootEntity();
      if (r.inverseRelationship() == nullptr) {
        foreignColumns[root].push_back(
            {{fmt::format("Z{}{}", numbers.at(entity.get()), upper(r.name())), "INTEGER"}, &r});
      } else if (r.isOrdered() && !r.inverseRelationship()->isToMany()) {
        foreignColumns[root].push_back({{"Z_FOK_" + upper(r.inverseRelationshipName()), "INTEGER"}, &r});
      }
    }
  }

  std::set<std::string> joinTables;
  for (const auto& root : model.entities()) {
    if (root->superentity() != nullptr) continue;
    std::vector<const EntityDescription*> members;
    hierarchy(*root, members);
    std::stable_sort(members.begin(), members.end(),
                     [&](const auto* a, const auto* b) { return numbers.at(a) < numbers.at(b); });
    const auto declared = frameworkColumnNames(members, numbers);
    const bool framework = naming == ColumnNaming::Framework;

    TableSchema table{columnName(root->name()),
                      {{"Z_PK", "INTEGER PRIMARY KEY"}, {"Z_ENT", "INTEGER"}, {"Z_OPT", "INTEGER"}},
                      {},
                      {}};
    std::vector<IndexSchema> attributeIndexes;
    std::vector<IndexSchema> keyIndexes;
    std::set<std::string> used{"Z_PK", "Z_ENT", "Z_OPT"};
    auto add = [&](std::string name, std::string type) {
      // A clash after upper-casing gets a number.
      std::string unique = name;
      for (int n = 1; used.contains(unique); ++n) unique = name + std::to_string(n);
      used.insert(unique);
      table.columns.push_back({unique, std::move(type)});
      return unique;
    };

    std::map<const PropertyDescription*, std::string> columnOf;
    for (Group group : {kIntegers, kReals, kStrings, kBlobs}) {
      for (const EntityDescription* member : members) {
        std::vector<const AttributeDescription*> attributes;
        std::vector<const RelationshipDescription*> toOnes;
        for (const auto& property : member->ownProperties()) {
          if (property->isTransient()) continue;
          if (property->isAttribute()) {
            const auto* a = static_cast<const AttributeDescription*>(property.get());
            if (columnType(a->attributeType()).first == group) attributes.push_back(a);
          } else if (group == kIntegers) {
            const auto* r = static_cast<const RelationshipDescription*>(property.get());
            if (!r->isToMany()) toOnes.push_back(r);
          }
        }
        auto byName = [](const auto* a, const auto* b) { return a->name() < b->name(); };
        std::sort(attributes.begin(), attributes.end(), byName);
        std::sort(toOnes.begin(), toOnes.end(), byName);
        for (const AttributeDescription* a : attributes) {
          const std::string column = add(framework ? declared.at(a).column : columnName(a->name()),
                                         columnType(a->attributeType()).second);
          columnOf[a] = column;
          schema.mappings_[a] = {PropertyMapping::Kind::Attribute, table.name, column, {}, {}, {}};
          if (a->isIndexed()) {
            attributeIndexes.push_back(
                {fmt::format("{}_{}_INDEX", table.name, column), table.name, {column}});
          }
        }
        for (const RelationshipDescription* r : toOnes) {
          const std::string column =
              add(framework ? declared.at(r).column : columnName(r->name()), "INTEGER");
          columnOf[r] = column;
          keyIndexes.push_back({fmt::format("{}_{}_INDEX", table.name, column), table.name, {column}});
          PropertyMapping& mapping = schema.mappings_[r];
          mapping = {PropertyMapping::Kind::ToOne, table.name, column, {}, {}, {}};
          if (r->destinationEntity() != nullptr && !r->destinationEntity()->subentities().empty()) {
            mapping.entityColumn =
                add(framework ? declared.at(r).entityColumn
                              : fmt::format("Z{}_{}", numbers.at(member), upper(r->name())),
                    "INTEGER");
          }
        }
      }
      if (group == kIntegers) {
        for (const EntityDescription* member : members) {
          for (const ForeignColumn& foreign : foreignColumns[member]) {
            const std::string name = add(foreign.column.name, foreign.column.type);
            keyIndexes.push_back({fmt::format("{}_{}_INDEX", table.name, name), table.name, {name}});
            const RelationshipDescription& r = *foreign.relationship;
            if (r.inverseRelationship() == nullptr) {
              schema.mappings_[&r] = {
                  PropertyMapping::Kind::ToManyWithoutInverse, table.name, name, {}, {}, {}};
            } else {
              schema.mappings_[r.inverseRelationship()].orderColumn = name;
            }
          }
        }
      }
    }

    std::vector<IndexSchema> compound;
    for (const EntityDescription* member : members) {
      auto columnsOf = [&](const std::vector<std::string>& names) {
        std::vector<std::string> columns;
        for (const std::string& name : names) {
          auto property = member->propertiesByName().find(name);
          columns.push_back(property != member->propertiesByName().end() &&
                                    columnOf.contains(property->second)
                                ? columnOf[property->second]
                                : columnName(name));
        }
        return columns;
      };
      for (const auto& names : member->uniquenessConstraints())
        table.uniqueColumns.push_back(columnsOf(names));
      for (const auto& names : member->compoundIndexes()) {
        const std::vector<std::string> columns = columnsOf(names);
        compound.push_back({fmt::format("{}_{}", table.name, fmt::join(columns, "_")), table.name, columns});
      }
    }

    schema.tables_.push_back(std::move(table));
    schema.indexes_.insert(schema.indexes_.end(), attributeIndexes.begin(), attributeIndexes.end());
    schema.indexes_.insert(schema.indexes_.end(), keyIndexes.begin(), keyIndexes.end());
    if (members.size() > 1) {
      schema.indexes_.push_back(
          {fmt::format("{}_Z_ENT_INDEX", columnName(root->name())), columnName(root->name()), {"Z_ENT"}});
    }
    schema.indexes_.insert(schema.indexes_.end(), compound.begin(), compound.end());

    // Join tables of many-to-many pairs, named after the member with the lower entity number (by
    // name within one entity).
    for (const EntityDescription* member : members) {
      for (const auto& property : member->ownProperties()) {
        if (!property->isRelationship() || property->isTransient()) continue;
        const auto& r = static_cast<const RelationshipDescription&>(*property);
        if (!isManyToMany(r)) continue;
        const RelationshipDescription& inverse = *r.inverseRelationship();
        const std::int64_t own = numbers.at(member);
        const std::int64_t other = numbers.at(inverse.entity());
        if (other < own || (other == own && inverse.name() < r.name())) continue;
        const std::string name = fmt::format("Z_{}{}", own, upper(r.name()));
        if (!joinTables.insert(name).second) continue;
        const bool reflexive = &inverse == &r;
        const std::string first = fmt::format("Z_{}{}", own, upper(r.inverseRelationshipName()));
        const std::string second =
            reflexive ? "REFLEXIVE" : fmt::format("Z_{}{}", other, upper(inverse.inverseRelationshipName()));
        TableSchema join{name, {{first, "INTEGER"}, {second, "INTEGER"}}, {first, second}, {}};
        schema.tables_.push_back(std::move(join));
        schema.indexes_.push_back({fmt::format("{}_{}_INDEX", name, second), name, {second, first}});
        schema.mappings_[&r] = {PropertyMapping::Kind::ManyToMany, name, first, {}, {}, second};
        if (!reflexive) {
          schema.mappings_[&inverse] = {PropertyMapping::Kind::ManyToMany, name, second, {}, {}, first};
        }
      }
    }
  }

  // A to-many with a to-one inverse lives in the inverse's columns.
  for (const auto& entity : model.entities()) {
    for (const auto& property : entity->ownProperties()) {
      if (!property->isRelationship() || property->isTransient()) continue;
      const auto& r = static_cast<const RelationshipDescription&>(*property);
      if (!r.isToMany() || r.inverseRelationship() == nullptr || r.inverseRelationship()->isToMany())
        continue;
      auto inverse = schema.mappings_.find(r.inverseRelationship());
      if (inverse == schema.mappings_.end()) continue;
      PropertyMapping mapping = inverse->second;
      mapping.kind = PropertyMapping::Kind::ToManyThroughInverse;
      schema.mappings_[&r] = std::move(mapping);
    }
  }
  return schema;
}

const PropertyMapping* StoreSchema::mapping(const PropertyDescription& property) const {
  auto found = mappings_.find(&property);
  return found == mappings_.end() ? nullptr : &found->second;
}

}  // namespace tesselune
