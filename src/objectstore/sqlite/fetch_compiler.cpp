// Fetch requests as SQL: the entity's rows of its root table (alias t0), to-one key paths as LEFT
// JOINs (t1, t2, ...), predicates as two-valued SQL conditions, the order and the window.

#include "objectstore/sqlite/fetch_compiler.h"

#include <fmt/format.h>

#include <algorithm>
#include <limits>
#include <map>
#include <set>
#include <string_view>

namespace tesselune {
namespace {

// Far below SQLite's own limits on expression depth (1000) and tables in a join (64), so that a
// request beyond them fails here with a readable text instead of in the SQL parser.
constexpr int kMaxPredicateDepth = 200;
constexpr int kMaxJoins = 60;

Error unsupported(std::string text) {
  return Error(std::string(kCocoaErrorDomain), kFetchRequestUnsupportedError, std::move(text));
}

// What a stored value compares as; values of different families never compare in SQL.
enum class Family { Number, String, Date, Uuid, Url, None };

Family familyOf(AttributeType type) {
  switch (type) {
    case AttributeType::Integer16:
    case AttributeType::Integer32:
    case AttributeType::Integer64:
    case AttributeType::Decimal:
    case AttributeType::Double:
    case AttributeType::Float:
    case AttributeType::Boolean:
      return Family::Number;
    case AttributeType::String:
      return Family::String;
    case AttributeType::Date:
      return Family::Date;
    case AttributeType::Uuid:
      return Family::Uuid;
    case AttributeType::Uri:
      return Family::Url;
    default:
      return Family::None;
  }
}

Family familyOf(const Value& value) {
  if (value.isNumber()) return Family::Number;
  if (value.isString()) return Family::String;
  if (value.isDate()) return Family::Date;
  if (value.isUuid()) return Family::Uuid;
  if (value.isUrl()) return Family::Url;
  return Family::None;
}

std::string_view typeName(AttributeType type) {
  switch (type) {
    case AttributeType::Integer16:
      return "an Integer 16";
    case AttributeType::Integer32:
      return "an Integer 32";
    case AttributeType::Integer64:
      return "an Integer 64";
    case AttributeType::Decimal:
      return "a Decimal";
    case AttributeType::Double:
      return "a Double";
    case AttributeType::Float:
      return "a Float";
    case AttributeType::Boolean:
      return "a Boolean";
    case AttributeType::String:
      return "a String";
    case AttributeType::Date:
      return "a Date";
    case AttributeType::BinaryData:
      return "a Binary Data";
    case AttributeType::Uuid:
      return "a UUID";
    case AttributeType::Uri:
      return "a URI";
    case AttributeType::Transformable:
      return "a Transformable";
    case AttributeType::ObjectId:
      return "an Object ID";
    default:
      return "an Undefined";
  }
}

std::string_view kindName(const Value& value) {
  switch (value.type()) {
    case Value::Type::Null:
      return "nil";
    case Value::Type::Bool:
    case Value::Type::Integer:
    case Value::Type::Double:
      return "a number";
    case Value::Type::String:
      return "a string";
    case Value::Type::Data:
      return "data";
    case Value::Type::Date:
      return "a date";
    case Value::Type::Uuid:
      return "a UUID";
    case Value::Type::Url:
      return "a URL";
    case Value::Type::Array:
      return "an array";
    case Value::Type::Set:
      return "a set";
    case Value::Type::Dictionary:
      return "a dictionary";
    case Value::Type::Object:
      return "an object";
  }
  return "a value";
}

bool isOrdering(ComparisonOperator op) {
  return op != ComparisonOperator::EqualTo && op != ComparisonOperator::NotEqualTo;
}

// The operator that keeps the meaning when its two sides change places.
ComparisonOperator flipped(ComparisonOperator op) {
  switch (op) {
    case ComparisonOperator::LessThan:
      return ComparisonOperator::GreaterThan;
    case ComparisonOperator::LessThanOrEqualTo:
      return ComparisonOperator::GreaterThanOrEqualTo;
    case ComparisonOperator::GreaterThan:
      return ComparisonOperator::LessThan;
    case ComparisonOperator::GreaterThanOrEqualTo:
      return ComparisonOperator::LessThanOrEqualTo;
    default:
      return op;
  }
}

std::string_view orderingSql(ComparisonOperator op) {
  switch (op) {
    case ComparisonOperator::LessThan:
      return "<";
    case ComparisonOperator::LessThanOrEqualTo:
      return "<=";
    case ComparisonOperator::GreaterThan:
      return ">";
    default:
      return ">=";
  }
}

std::int64_t clampedCount(std::size_t n) {
  return static_cast<std::int64_t>(
      std::min<std::size_t>(n, static_cast<std::size_t>(std::numeric_limits<std::int64_t>::max())));
}

void addHierarchy(const EntityDescription& entity, std::vector<const EntityDescription*>& out) {
  out.push_back(&entity);
  for (const EntityDescription* sub : entity.subentities()) addHierarchy(*sub, out);
}

// A stored property at the end of a key path, and the alias of the table row that holds it.
struct ResolvedPath {
  std::string alias;
  const EntityDescription* entity = nullptr;  // whose property it is, as the path reached it
  const PropertyDescription* property = nullptr;
  const PropertyMapping* mapping = nullptr;

  std::string column() const { return alias + "." + mapping->column; }
};

class FetchCompiler {
 public:
  FetchCompiler(const SqliteStore& store, const EntityDescription& entity) : store_(store), entity_(entity) {}

  [[nodiscard]] Expected<std::string> entityRestriction(bool includesSubentities);
  [[nodiscard]] Expected<std::string> condition(const Predicate& predicate, int depth);
  [[nodiscard]] Expected<std::string> ordering(const std::vector<SortDescriptor>& sortDescriptors);
  // " LIMIT ? OFFSET ?" as the request asks, with its bindings.
  std::string window(const FetchRequest& request);

  const std::string& joins() const { return joins_; }
  std::vector<Value>& bindings() { return bindings_; }

 private:
  [[nodiscard]] Expected<ResolvedPath> resolve(const std::string& path);
  [[nodiscard]] Expected<std::string> comparison(const Predicate& predicate);
  [[nodiscard]] Expected<std::string> compareWithConstant(const std::string& path, ComparisonOperator op,
                                                          const Value& constant, unsigned options);
  [[nodiscard]] Expected<std::string> compareKeyPaths(const std::string& left, ComparisonOperator op,
                                                      const std::string& right, unsigned options);
  [[nodiscard]] Expected<std::string> compareWithObject(const std::string& keyColumn,
                                                        const std::string& entityColumn,
                                                        const EntityDescription& destination,
                                                        ComparisonOperator op, const Value& constant,
                                                        const std::string& what);

  std::string bind(Value value) {
    bindings_.push_back(std::move(value));
    return "?";
  }
  Error keyPathError(std::string_view path, std::string_view reason) const {
    return unsupported(
        fmt::format("Cannot fetch {} objects: key path \"{}\": {}", entity_.name(), path, reason));
  }
  Error requestError(std::string_view reason) const {
    return unsupported(fmt::format("Cannot fetch {} objects: {}", entity_.name(), reason));
  }

  const SqliteStore& store_;
  const EntityDescription& entity_;
  std::vector<Value> bindings_;
  std::string joins_;
  // Alias of the joined row for each to-one path prefix ("run", "run.parent").
  std::map<std::string, std::string, std::less<>> aliases_;
};

Expected<std::string> FetchCompiler::entityRestriction(bool includesSubentities) {
  std::vector<const EntityDescription*> wanted;
  if (includesSubentities) {
    addHierarchy(entity_, wanted);
  } else {
    wanted.push_back(&entity_);
  }
  std::vector<const EntityDescription*> table;
  addHierarchy(*entity_.rootEntity(), table);
  if (wanted.size() == table.size()) return std::string();  // the whole table

  std::set<std::int64_t> numbers;
  for (const EntityDescription* e : wanted) {
    const auto number = store_.entityNumber(*e);
    if (!number) return fail(requestError(fmt::format("the store has no entity number for {}", e->name())));
    numbers.insert(*number);
  }
  if (numbers.size() == 1) return "t0.Z_ENT = " + bind(*numbers.begin());
  std::string sql = "t0.Z_ENT IN (";
  for (std::int64_t n : numbers) sql += (sql.back() == '(' ? "" : ", ") + bind(n);
  return sql + ")";
}

Expected<ResolvedPath> FetchCompiler::resolve(const std::string& path) {
  const EntityDescription* current = &entity_;
  std::string alias = "t0";
  std::size_t start = 0;
  while (true) {
    const std::size_t dot = path.find('.', start);
    const std::string key = path.substr(start, dot == std::string::npos ? std::string::npos : dot - start);
    const auto found = current->propertiesByName().find(key);
    if (found == current->propertiesByName().end()) {
      return fail(keyPathError(path, fmt::format("{} has no property named \"{}\"", current->name(), key)));
    }
    const PropertyDescription* property = found->second;
    const PropertyMapping* mapping = store_.schema().mapping(*property);
    if (mapping == nullptr) {
      return fail(keyPathError(
          path,
          fmt::format("\"{}\" of {} is transient; the store holds no values for it", key, current->name())));
    }
    if (dot == std::string::npos) return ResolvedPath{alias, current, property, mapping};

    const auto* relationship = dynamic_cast<const RelationshipDescription*>(property);
    if (relationship == nullptr) {
      return fail(keyPathError(
          path, fmt::format(
                    "\"{}\" is an attribute of {}; a key path can only continue after a to-one relationship",
                    key, current->name())));
    }
    if (relationship->isToMany() || mapping->kind != PropertyMapping::Kind::ToOne ||
        relationship->destinationEntity() == nullptr) {
      return fail(keyPathError(
          path,
          fmt::format("\"{}\" of {} is a to-many relationship; fetches follow to-one relationships only", key,
                      current->name())));
    }
    const std::string prefix = path.substr(0, dot);
    if (const auto known = aliases_.find(prefix); known != aliases_.end()) {
      alias = known->second;
    } else {
      if (std::ssize(aliases_) >= kMaxJoins) {
        return fail(
            keyPathError(path, fmt::format("the request follows more than {} relationships", kMaxJoins)));
      }
      const std::string joined = fmt::format("t{}", aliases_.size() + 1);
      joins_ += fmt::format(" LEFT JOIN {} {} ON {}.Z_PK = {}.{}",
                            SqliteStore::tableName(*relationship->destinationEntity()), joined, joined, alias,
                            mapping->column);
      aliases_.emplace(prefix, joined);
      alias = joined;
    }
    current = relationship->destinationEntity();
    start = dot + 1;
  }
}

Expected<std::string> FetchCompiler::condition(const Predicate& predicate, int depth) {
  if (depth > kMaxPredicateDepth) {
    return fail(
        requestError(fmt::format("the predicate is nested deeper than {} levels", kMaxPredicateDepth)));
  }
  switch (predicate.kind()) {
    case Predicate::Kind::True:
      return std::string("1");
    case Predicate::Kind::False:
      return std::string("0");
    case Predicate::Kind::Comparison:
      return comparison(predicate);
    case Predicate::Kind::Not: {
      auto part = condition(predicate.subpredicates().at(0), depth + 1);
      if (!part) return part;
      return "NOT (" + *part + ")";
    }
    case Predicate::Kind::And:
    case Predicate::Kind::Or: {
      const bool isAnd = predicate.kind() == Predicate::Kind::And;
      if (predicate.subpredicates().empty()) return std::string(isAnd ? "1" : "0");
      std::string sql = "(";
      for (const Predicate& sub : predicate.subpredicates()) {
        auto part = condition(sub, depth + 1);
        if (!part) return part;
        if (sql.size() > 1) sql += isAnd ? " AND " : " OR ";
        sql += *part;
      }
      return sql + ")";
    }
  }
  return fail(requestError("the predicate is of an unknown kind"));
}

Expected<std::string> FetchCompiler::comparison(const Predicate& predicate) {
  const Expression* left = &predicate.leftExpression();
  const Expression* right = &predicate.rightExpression();
  ComparisonOperator op = predicate.comparisonOperator();
  const unsigned options = predicate.options();

  for (const Expression* side : {left, right}) {
    if (side->kind() == Expression::Kind::Variable) {
      return fail(requestError(fmt::format(
          "the predicate \"{}\" still holds the variable ${}; substitute its value before fetching",
          predicate.predicateFormat(), side->name())));
    }
  }
  if (left->kind() == Expression::Kind::Constant && right->kind() == Expression::Kind::Constant) {
    return std::string(predicate.evaluateWithObject(Value()) ? "1" : "0");
  }
  if (left->kind() == Expression::Kind::Constant) {
    std::swap(left, right);
    op = flipped(op);
  }
  if ((options & kDiacriticInsensitive) != 0) {
    return fail(requestError(fmt::format("the store cannot compare ignoring diacritics ([d]) in \"{}\"",
                                         predicate.predicateFormat())));
  }

  if (left->kind() == Expression::Kind::Self) {
    if (right->kind() != Expression::Kind::Constant) {
      return fail(
          requestError(fmt::format("SELF can only be compared with an object or object ID, not in \"{}\"",
                                   predicate.predicateFormat())));
    }
    if (right->constantValue().isNull()) return std::string(op == ComparisonOperator::NotEqualTo ? "1" : "0");
    return compareWithObject("t0.Z_PK", "t0.Z_ENT", *entity_.rootEntity(), op, right->constantValue(),
                             "SELF");
  }
  // The left side is a key path now.
  switch (right->kind()) {
    case Expression::Kind::Constant:
      return compareWithConstant(left->name(), op, right->constantValue(), options);
    case Expression::Kind::KeyPath:
      return compareKeyPaths(left->name(), op, right->name(), options);
    default:
      return fail(keyPathError(left->name(), fmt::format("a key path can only be compared with a value or "
                                                         "another key path, not in \"{}\"",
                                                         predicate.predicateFormat())));
  }
}

Expected<std::string> FetchCompiler::compareWithConstant(const std::string& path, ComparisonOperator op,
                                                         const Value& constant, unsigned options) {
  auto resolved = resolve(path);
  if (!resolved) return fail(resolved.error());
  const std::string column = resolved->column();

  if (const auto* relationship = dynamic_cast<const RelationshipDescription*>(resolved->property)) {
    if (relationship->isToMany() || resolved->mapping->kind != PropertyMapping::Kind::ToOne ||
        relationship->destinationEntity() == nullptr) {
      return fail(keyPathError(path, "a to-many relationship cannot be compared with a value"));
    }
    const std::string entityColumn = resolved->mapping->entityColumn.empty()
                                         ? ""
                                         : resolved->alias + "." + resolved->mapping->entityColumn;
    if (constant.isNull() && !isOrdering(op)) {
      return column + (op == ComparisonOperator::EqualTo ? " IS NULL" : " IS NOT NULL");
    }
    return compareWithObject(column, entityColumn, *relationship->destinationEntity(), op, constant,
                             fmt::format("key path \"{}\"", path));
  }

  const auto& attribute = static_cast<const AttributeDescription&>(*resolved->property);
  const Family family = familyOf(attribute.attributeType());
  if (constant.isNull()) {
    if (op == ComparisonOperator::EqualTo) return column + " IS NULL";
    if (op == ComparisonOperator::NotEqualTo) return column + " IS NOT NULL";
    return std::string("0");  // nothing is less or greater than nil
  }
  if (family == Family::None) {
    return fail(keyPathError(path, fmt::format("{} attribute can only be compared with nil",
                                               typeName(attribute.attributeType()))));
  }
  if (familyOf(constant) != family) {
    return fail(keyPathError(
        path, fmt::format("{} attribute cannot be compared with {} ({})", typeName(attribute.attributeType()),
                          kindName(constant), constant.description())));
  }
  if (isOrdering(op) && (family == Family::Uuid || family == Family::Url)) {
    return fail(keyPathError(path, fmt::format("{} attribute has no order; compare it with == or !=",
                                               typeName(attribute.attributeType()))));
  }
  const std::string collate =
      (options & kCaseInsensitive) != 0 && family == Family::String ? " COLLATE NOCASE" : "";
  const std::string parameter = bind(constant);
  switch (op) {
    case ComparisonOperator::EqualTo:
      return fmt::format("{} IS {}{}", column, parameter, collate);
    case ComparisonOperator::NotEqualTo:
      return fmt::format("{} IS NOT {}{}", column, parameter, collate);
    default:
      return fmt::format("({} IS NOT NULL AND {} {} {}{})", column, column, orderingSql(op), parameter,
                         collate);
  }
}

Expected<std::string> FetchCompiler::compareKeyPaths(const std::string& left, ComparisonOperator op,
                                                     const std::string& right, unsigned options) {
  auto a = resolve(left);
  if (!a) return fail(a.error());
  auto b = resolve(right);
  if (!b) return fail(b.error());
  const auto* attributeA = dynamic_cast<const AttributeDescription*>(a->property);
  const auto* attributeB = dynamic_cast<const AttributeDescription*>(b->property);
  if (attributeA == nullptr || attributeB == nullptr) {
    return fail(keyPathError(attributeA == nullptr ? left : right,
                             "relationships can only be compared with an object, an object ID or nil"));
  }
  const Family family = familyOf(attributeA->attributeType());
  if (family == Family::None || familyOf(attributeB->attributeType()) != family) {
    return fail(keyPathError(left, fmt::format("{} attribute cannot be compared with \"{}\", {} attribute",
                                               typeName(attributeA->attributeType()), right,
                                               typeName(attributeB->attributeType()))));
  }
  if (isOrdering(op) && (family == Family::Uuid || family == Family::Url)) {
    return fail(keyPathError(left, fmt::format("{} attribute has no order; compare it with == or !=",
                                               typeName(attributeA->attributeType()))));
  }
  const std::string collate =
      (options & kCaseInsensitive) != 0 && family == Family::String ? " COLLATE NOCASE" : "";
  const std::string x = a->column();
  const std::string y = b->column();
  switch (op) {
    case ComparisonOperator::EqualTo:
      return fmt::format("{} IS {}{}", x, y, collate);
    case ComparisonOperator::NotEqualTo:
      return fmt::format("{} IS NOT {}{}", x, y, collate);
    default:
      return fmt::format("({} IS NOT NULL AND {} IS NOT NULL AND {} {} {}{})", x, y, x, orderingSql(op), y,
                         collate);
  }
}

// A to-one relationship (or SELF) against an object: the key, and the entity number beside it when
// the destination is a hierarchy, so that an ID with the right key but another entity misses.
Expected<std::string> FetchCompiler::compareWithObject(const std::string& keyColumn,
                                                       const std::string& entityColumn,
                                                       const EntityDescription& destination,
                                                       ComparisonOperator op, const Value& constant,
                                                       const std::string& what) {
  if (isOrdering(op)) {
    return fail(requestError(fmt::format("{} can only be compared with == or !=", what)));
  }
  const auto id = objectIDOfValue(constant);
  if (!id) {
    return fail(
        requestError(fmt::format("{} can only be compared with an object, an object ID or nil, not with {}",
                                 what, kindName(constant))));
  }
  const bool equal = op == ComparisonOperator::EqualTo;
  // An ID this store cannot hold matches no row: unsaved, of another store, or of an entity the
  // relationship cannot point at.
  const auto number = store_.entityNumber(id->entity());
  if (id->isTemporaryID() || id->storeIdentifier() != store_.identifier() ||
      !id->entity().isKindOfEntity(destination) || !number) {
    return std::string(equal ? "0" : "1");
  }
  std::string test = fmt::format("{} IS {}", keyColumn, bind(id->primaryKey()));
  if (!entityColumn.empty()) test += fmt::format(" AND {} IS {}", entityColumn, bind(*number));
  return (equal ? "(" : "NOT (") + test + ")";
}

Expected<std::string> FetchCompiler::ordering(const std::vector<SortDescriptor>& sortDescriptors) {
  std::string sql;
  for (const SortDescriptor& sort : sortDescriptors) {
    auto resolved = resolve(sort.key);
    if (!resolved) return fail(resolved.error());
    const auto* attribute = dynamic_cast<const AttributeDescription*>(resolved->property);
    if (attribute == nullptr) {
      return fail(keyPathError(sort.key,
                               "results cannot be sorted by a relationship; sort by one of its "
                               "destination's attributes"));
    }
    if (familyOf(attribute->attributeType()) == Family::None) {
      return fail(keyPathError(sort.key, fmt::format("results cannot be sorted by {} attribute",
                                                     typeName(attribute->attributeType()))));
    }
    // Foundation orders strings by their characters' code points, which for UTF-8 is byte order.
    const bool isString = attribute->attributeType() == AttributeType::String;
    sql += fmt::format("{}{} {}, ", resolved->column(), isString ? " COLLATE BINARY" : "",
                       sort.ascending ? "ASC" : "DESC");
  }
  return sql + "t0.Z_PK ASC";
}

std::string FetchCompiler::window(const FetchRequest& request) {
  std::string sql;
  if (request.fetchLimit > 0) {
    sql += " LIMIT " + bind(clampedCount(request.fetchLimit));
  } else if (request.fetchOffset > 0) {
    sql += " LIMIT " + bind(-1);  // SQLite takes OFFSET only after a LIMIT; -1 is none
  }
  if (request.fetchOffset > 0) sql += " OFFSET " + bind(clampedCount(request.fetchOffset));
  return sql;
}

}  // namespace

Expected<CompiledFetch> compileFetch(const SqliteStore& store, const FetchRequest& request,
                                     FetchSelection selection) {
  const EntityDescription* entity = store.model().entityNamed(request.entityName);
  if (entity == nullptr) {
    return fail(unsupported(
        fmt::format("Cannot fetch: the store's model has no entity named \"{}\"", request.entityName)));
  }
  FetchCompiler compiler(store, *entity);

  // Bindings follow the order of the parameters in the text: restriction, predicate, window.
  auto restriction = compiler.entityRestriction(request.includesSubentities);
  if (!restriction) return fail(restriction.error());
  std::string where = *restriction;
  if (request.predicate) {
    auto condition = compiler.condition(*request.predicate, 0);
    if (!condition) return fail(condition.error());
    if (*condition != "1") where += (where.empty() ? "" : " AND ") + *condition;
  }
  std::string orderBy;
  if (selection != FetchSelection::Count) {
    auto order = compiler.ordering(request.sortDescriptors);
    if (!order) return fail(order.error());
    orderBy = " ORDER BY " + *order;
  }
  const std::string window = compiler.window(request);

  const std::string body = fmt::format("FROM {} t0{}{}", SqliteStore::tableName(*entity), compiler.joins(),
                                       where.empty() ? "" : " WHERE " + where);
  CompiledFetch result;
  switch (selection) {
    case FetchSelection::PrimaryKeys:
      result.sql = fmt::format("SELECT t0.Z_PK {}{}{}", body, orderBy, window);
      break;
    case FetchSelection::ObjectIDs:
      result.sql = fmt::format("SELECT t0.Z_PK, t0.Z_ENT {}{}{}", body, orderBy, window);
      break;
    case FetchSelection::Rows:
      result.sql = fmt::format("SELECT t0.* {}{}{}", body, orderBy, window);
      break;
    case FetchSelection::Count:
      // The order does not change how many rows a window holds, so the count runs unsorted.
      result.sql = window.empty() ? fmt::format("SELECT COUNT(*) {}", body)
                                  : fmt::format("SELECT COUNT(*) FROM (SELECT t0.Z_PK {}{})", body, window);
      break;
  }
  result.bindings = std::move(compiler.bindings());
  return result;
}

}  // namespace tesselune
