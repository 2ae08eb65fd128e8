// Fetch requests as SQL: the entity's rows of its root table (alias t0), to-one key paths as LEFT
// JOINs (t1, t2, ...), predicates as two-valued SQL conditions, the order and the window.

#include "objectstore/sqlite/fetch_compiler.h"

#include <fmt/format.h>

#include <algorithm>
#include <functional>
#include <limits>
#include <map>
#include <optional>
#include <set>
#include <string_view>

#include "foundation/string_comparison.h"

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

// The rows a predicate reads at one level: the fetch's own rows (t0), or inside a subquery the rows
// of a to-many relationship's destination (s1, s2, ...). Each level keeps the LEFT JOINs of the
// to-one key paths read from it, which go into its own FROM.
struct Scope {
  const EntityDescription* entity = nullptr;
  std::string alias;
  std::string joins;
  // Alias of the joined row for each to-one path prefix ("run", "run.parent").
  std::map<std::string, std::string, std::less<>> aliases;
  // The SUBQUERY $variable that names this level's row; empty for the others.
  std::string variable;
  Scope* outer = nullptr;
};

// Where a key path leads from a row: to a stored property of the row `alias` (the row itself when
// `property` is null), and when that property is a to-many relationship, the keys after it.
struct ResolvedPath {
  std::string alias;
  const EntityDescription* entity = nullptr;  // whose property it is, as the path reached it
  const PropertyDescription* property = nullptr;
  const PropertyMapping* mapping = nullptr;
  std::string rest;
  // Whether `alias` is a joined row that may be missing (a nil to-one on the way).
  bool joined = false;

  std::string column() const { return alias + "." + mapping->column; }
  const RelationshipDescription* toMany() const {
    const auto* r = dynamic_cast<const RelationshipDescription*>(property);
    return r != nullptr && r->isToMany() ? r : nullptr;
  }
};

// One side of a comparison, in SQL.
struct Operand {
  enum class Kind {
    Constant,  // `value`, bound when used
    Scalar,    // `sql` of `family`: an attribute's column or a count
    Object,    // a row: its key `sql` and, when known, its entity number `entitySql`
  };
  Kind kind = Kind::Constant;
  Value value;
  std::string sql;
  Family family = Family::None;
  const AttributeDescription* attribute = nullptr;  // the column's attribute, for messages
  bool nullable = true;
  std::string entitySql;
  const EntityDescription* destination = nullptr;  // what an Object operand can be
  bool row = false;                                // an Object that is a row (SELF), never nil
  std::string what;                                // "key path \"run\"", "SELF", for messages
};

class FetchCompiler {
 public:
  FetchCompiler(const SqliteStore& store, const EntityDescription& entity) : store_(store), entity_(entity) {
    root_.entity = &entity;
    root_.alias = "t0";
  }

  [[nodiscard]] Expected<std::string> entityRestriction(bool includesSubentities);
  [[nodiscard]] Expected<std::string> condition(const Predicate& predicate, int depth) {
    return condition(predicate, root_, depth);
  }
  [[nodiscard]] Expected<std::string> ordering(const std::vector<SortDescriptor>& sortDescriptors);
  // " LIMIT ? OFFSET ?" as the request asks, with its bindings.
  std::string window(const FetchRequest& request);

  const std::string& joins() const { return root_.joins; }
  std::vector<Value>& bindings() { return bindings_; }

 private:
  [[nodiscard]] Expected<std::string> condition(const Predicate& predicate, Scope& scope, int depth);
  // Follows `path` from `scope`'s row through to-one relationships, joining their rows, up to an
  // attribute, a to-one, or the first to-many relationship. A path that starts with a $variable
  // starts at the row of the subquery that binds it.
  [[nodiscard]] Expected<ResolvedPath> walk(Scope& scope, const std::string& path,
                                            const Predicate* predicate);
  // A path that must end at an attribute or to-one of the fetch's own rows (sort keys).
  [[nodiscard]] Expected<ResolvedPath> resolve(const std::string& path);
  [[nodiscard]] Expected<std::string> comparison(const Predicate& predicate, const Expression& left,
                                                 Scope& leftScope, const Expression& right, Scope& rightScope,
                                                 ComparisonModifier modifier, int depth);
  // `(SELECT <select> FROM <destination rows> WHERE <linked to the path's row> AND <body>)`.
  [[nodiscard]] Expected<std::string> overToMany(
      Scope& from, const ResolvedPath& path, std::string variable, std::string_view select,
      const std::function<Expected<std::string>(Scope& inner)>& body);
  [[nodiscard]] Expected<Operand> operand(const Predicate& predicate, const Expression& e, Scope& scope,
                                          int depth);
  [[nodiscard]] Expected<std::string> compareOperands(const Predicate& predicate, Operand left,
                                                      ComparisonOperator op, Operand right);
  [[nodiscard]] Expected<std::string> compareScalar(const Predicate& predicate, const Operand& scalar,
                                                    ComparisonOperator op, const Operand& other,
                                                    bool swapped);
  [[nodiscard]] Expected<std::string> compareWithObject(const std::string& keyColumn,
                                                        const std::string& entityColumn,
                                                        const EntityDescription& destination,
                                                        ComparisonOperator op, const Value& constant,
                                                        const std::string& what);
  [[nodiscard]] Expected<std::string> objectIn(const Operand& object, const Value& list);

  std::string bind(Value value) {
    bindings_.push_back(std::move(value));
    return fmt::format("?{}", bindings_.size());
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
  Scope root_;
  std::vector<Value> bindings_;
  int nextAlias_ = 1;
  int joinCount_ = 0;
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

Expected<ResolvedPath> FetchCompiler::walk(Scope& start, const std::string& path,
                                           const Predicate* predicate) {
  Scope* scope = &start;
  std::size_t begin = 0;
  if (path.starts_with('$')) {
    const std::size_t dot = path.find('.');
    const std::string name = path.substr(1, dot == std::string::npos ? std::string::npos : dot - 1);
    while (scope != nullptr && scope->variable != name) scope = scope->outer;
    if (scope == nullptr) {
      return fail(requestError(fmt::format(
          "the predicate \"{}\" still holds the variable ${}; substitute its value before fetching",
          predicate != nullptr ? predicate->predicateFormat() : path, name)));
    }
    if (dot == std::string::npos)
      return ResolvedPath{scope->alias, scope->entity, nullptr, nullptr, {}, false};
    begin = dot + 1;
  }
  const EntityDescription* current = scope->entity;
  std::string alias = scope->alias;
  bool joined = false;
  while (true) {
    const std::size_t dot = path.find('.', begin);
    const std::string key = path.substr(begin, dot == std::string::npos ? std::string::npos : dot - begin);
    const auto found = current->propertiesByName().find(key);
    if (found == current->propertiesByName().end()) {
      if (key.starts_with('@')) {
        return fail(
            keyPathError(path, fmt::format("{} follows no to-many relationship; the store counts only "
                                           "the objects of a to-many relationship",
                                           key)));
      }
      return fail(keyPathError(path, fmt::format("{} has no property named \"{}\"", current->name(), key)));
    }
    const PropertyDescription* property = found->second;
    const PropertyMapping* mapping = store_.schema().mapping(*property);
    if (mapping == nullptr) {
      return fail(keyPathError(
          path,
          fmt::format("\"{}\" of {} is transient; the store holds no values for it", key, current->name())));
    }
    const auto* relationship = dynamic_cast<const RelationshipDescription*>(property);
    if (relationship != nullptr && relationship->isToMany()) {
      if (relationship->destinationEntity() == nullptr) {
        return fail(
            keyPathError(path, fmt::format("\"{}\" of {} has no destination entity", key, current->name())));
      }
      return ResolvedPath{
          alias, current, property, mapping, dot == std::string::npos ? "" : path.substr(dot + 1), joined};
    }
    if (dot == std::string::npos) return ResolvedPath{alias, current, property, mapping, {}, joined};

    if (relationship == nullptr) {
      return fail(keyPathError(
          path, fmt::format("\"{}\" is an attribute of {}; a key path can only continue after a relationship",
                            key, current->name())));
    }
    if (mapping->kind != PropertyMapping::Kind::ToOne || relationship->destinationEntity() == nullptr) {
      return fail(
          keyPathError(path, fmt::format("\"{}\" of {} is not stored as a to-one", key, current->name())));
    }
    const std::string prefix = path.substr(0, dot);
    if (const auto known = scope->aliases.find(prefix); known != scope->aliases.end()) {
      alias = known->second;
    } else {
      if (joinCount_ >= kMaxJoins) {
        return fail(
            keyPathError(path, fmt::format("the request follows more than {} relationships", kMaxJoins)));
      }
      ++joinCount_;
      const std::string next = fmt::format("{}{}", scope == &root_ ? "t" : "j", nextAlias_++);
      scope->joins += fmt::format(" LEFT JOIN {} {} ON {}.Z_PK = {}.{}",
                                  SqliteStore::tableName(*relationship->destinationEntity()), next, next,
                                  alias, mapping->column);
      scope->aliases.emplace(prefix, next);
      alias = next;
    }
    joined = true;
    current = relationship->destinationEntity();
    begin = dot + 1;
  }
}

Expected<ResolvedPath> FetchCompiler::resolve(const std::string& path) {
  auto resolved = walk(root_, path, nullptr);
  if (!resolved) return resolved;
  if (resolved->property == nullptr || resolved->toMany() != nullptr) {
    const std::string key = resolved->property != nullptr ? resolved->property->name() : path;
    return fail(keyPathError(
        path,
        fmt::format("\"{}\" of {} is a to-many relationship; sort keys follow to-one relationships only", key,
                    resolved->entity->name())));
  }
  return resolved;
}

Expected<std::string> FetchCompiler::overToMany(
    Scope& from, const ResolvedPath& path, std::string variable, std::string_view select,
    const std::function<Expected<std::string>(Scope& inner)>& body) {
  const auto* relationship = path.toMany();
  const PropertyMapping& mapping = *path.mapping;
  Scope inner;
  inner.entity = relationship->destinationEntity();
  inner.alias = fmt::format("s{}", nextAlias_++);
  inner.variable = std::move(variable);
  inner.outer = &from;
  const std::string table = SqliteStore::tableName(*inner.entity);
  std::string link;
  std::string source;
  switch (mapping.kind) {
    case PropertyMapping::Kind::ToManyThroughInverse:
    case PropertyMapping::Kind::ToManyWithoutInverse:
      // The destination's rows hold the source's key.
      link = fmt::format("{}.{} = {}.Z_PK", inner.alias, mapping.column, path.alias);
      break;
    case PropertyMapping::Kind::ManyToMany: {
      const std::string pairs = fmt::format("m{}", nextAlias_++);
      source = fmt::format(" JOIN {} {} ON {}.{} = {}.Z_PK", mapping.table, pairs, pairs, mapping.otherColumn,
                           inner.alias);
      link = fmt::format("{}.{} = {}.Z_PK", pairs, mapping.column, path.alias);
      break;
    }
    default:
      return fail(
          keyPathError(relationship->name(), "the store keeps this to-many relationship in no known way"));
  }
  auto condition = body(inner);
  if (!condition) return condition;
  return fmt::format("(SELECT {} FROM {} {}{}{} WHERE {}{})", select, table, inner.alias, source, inner.joins,
                     link, *condition == "1" ? "" : " AND " + *condition);
}

Expected<std::string> FetchCompiler::condition(const Predicate& predicate, Scope& scope, int depth) {
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
      return comparison(predicate, predicate.leftExpression(), scope, predicate.rightExpression(), scope,
                        predicate.comparisonModifier(), depth);
    case Predicate::Kind::Not: {
      auto part = condition(predicate.subpredicates().at(0), scope, depth + 1);
      if (!part) return part;
      return "NOT (" + *part + ")";
    }
    case Predicate::Kind::And:
    case Predicate::Kind::Or: {
      const bool isAnd = predicate.kind() == Predicate::Kind::And;
      if (predicate.subpredicates().empty()) return std::string(isAnd ? "1" : "0");
      std::string sql = "(";
      for (const Predicate& sub : predicate.subpredicates()) {
        auto part = condition(sub, scope, depth + 1);
        if (!part) return part;
        if (sql.size() > 1) sql += isAnd ? " AND " : " OR ";
        sql += *part;
      }
      return sql + ")";
    }
  }
  return fail(requestError("the predicate is of an unknown kind"));
}

bool isConstant(const Expression& e) {
  return e.kind() == Expression::Kind::Constant;
}

Expected<std::string> FetchCompiler::comparison(const Predicate& predicate, const Expression& left,
                                                Scope& leftScope, const Expression& right, Scope& rightScope,
                                                ComparisonModifier modifier, int depth) {
  if (depth > kMaxPredicateDepth) {
    return fail(
        requestError(fmt::format("the predicate is nested deeper than {} levels", kMaxPredicateDepth)));
  }
  const ComparisonOperator op = predicate.comparisonOperator();
  const unsigned options = predicate.options();
  if (modifier == ComparisonModifier::Direct && isConstant(left) && isConstant(right)) {
    return std::string(Predicate::comparison(left, op, right, options).evaluateWithObject(Value()) ? "1"
                                                                                                   : "0");
  }

  // Key paths through a to-many relationship: ANY and ALL over its destination's rows, membership,
  // and counts.
  std::optional<ResolvedPath> leftMany;
  std::optional<ResolvedPath> rightMany;
  if (left.kind() == Expression::Kind::KeyPath) {
    auto walked = walk(leftScope, left.name(), &predicate);
    if (!walked) return fail(walked.error());
    if (walked->toMany() != nullptr) leftMany = *walked;
  }
  if (right.kind() == Expression::Kind::KeyPath) {
    auto walked = walk(rightScope, right.name(), &predicate);
    if (!walked) return fail(walked.error());
    if (walked->toMany() != nullptr) rightMany = *walked;
  }
  if (modifier != ComparisonModifier::Direct) {
    if (!leftMany) {
      return fail(
          requestError(fmt::format("ANY and ALL need a key path through a to-many relationship on the "
                                   "left, not in \"{}\"",
                                   predicate.predicateFormat())));
    }
    if (leftMany->rest == "@count" || leftMany->rest.ends_with(".@count")) {
      return fail(keyPathError(left.name(),
                               "ANY and ALL apply to the objects of a to-many relationship, not to "
                               "their count"));
    }
    const bool any = modifier == ComparisonModifier::Any;
    const ResolvedPath many = *leftMany;
    auto exists = overToMany(leftScope, many, {}, "1", [&](Scope& inner) -> Expected<std::string> {
      // The rest of the path, read from each destination row; more to-manys on it nest.
      const Expression element = many.rest.empty() ? Expression::self() : Expression::keyPath(many.rest);
      const bool nested = !many.rest.empty() && [&] {
        auto w = walk(inner, many.rest, &predicate);
        return w && w->toMany() != nullptr && w->rest != "@count";
      }();
      auto test = comparison(predicate, element, inner, right, rightScope,
                             nested ? modifier : ComparisonModifier::Direct, depth + 1);
      if (!test) return test;
      return any ? *test : "NOT (" + *test + ")";
    });
    if (!exists) return exists;
    return (any ? "EXISTS " : "NOT EXISTS ") + *exists;
  }
  // `children CONTAINS x` and `x IN children` ask whether x is one of the objects.
  if (leftMany && leftMany->rest.empty() && op == ComparisonOperator::Contains) {
    const Predicate member = Predicate::comparison(left, ComparisonOperator::EqualTo, right, options);
    return comparison(member, left, leftScope, right, rightScope, ComparisonModifier::Any, depth + 1);
  }
  if (rightMany && rightMany->rest.empty() && op == ComparisonOperator::In) {
    const Predicate member = Predicate::comparison(right, ComparisonOperator::EqualTo, left, options);
    return comparison(member, right, rightScope, left, leftScope, ComparisonModifier::Any, depth + 1);
  }
  for (const auto& [many, e] : {std::pair{&leftMany, &left}, std::pair{&rightMany, &right}}) {
    if (*many && (*many)->rest != "@count") {
      return fail(keyPathError(
          e->name(),
          fmt::format("\"{}\" of {} is a to-many relationship; compare its objects with ANY, ALL or "
                      "NONE, or count them with @count",
                      (*many)->property->name(), (*many)->entity->name())));
    }
  }

  auto a = operand(predicate, left, leftScope, depth);
  if (!a) return fail(a.error());
  auto b = operand(predicate, right, rightScope, depth);
  if (!b) return fail(b.error());
  return compareOperands(predicate, std::move(*a), op, std::move(*b));
}

Expected<Operand> FetchCompiler::operand(const Predicate& predicate, const Expression& e, Scope& scope,
                                         int depth) {
  Operand result;
  switch (e.kind()) {
    case Expression::Kind::Constant:
      result.value = e.constantValue();
      return result;
    case Expression::Kind::Aggregate:
      return fail(
          requestError(fmt::format("lists in a fetch hold values only, not key paths or variables, in \"{}\"",
                                   predicate.predicateFormat())));
    case Expression::Kind::Self:
      result.kind = Operand::Kind::Object;
      result.row = true;
      result.sql = scope.alias + ".Z_PK";
      result.entitySql = scope.alias + ".Z_ENT";
      result.destination = scope.entity->rootEntity();
      result.what = "SELF";
      return result;
    case Expression::Kind::Variable:
      break;  // the row of the subquery that binds it, below
    case Expression::Kind::Subquery: {
      if (e.name() != "@count") {
        return fail(requestError(
            fmt::format("a SUBQUERY in a fetch is counted with .@count, as in \"{}.@count\"", e.format())));
      }
      if (e.collection().kind() != Expression::Kind::KeyPath) {
        return fail(requestError(fmt::format(
            "a SUBQUERY in a fetch runs over a to-many key path, not over {}", e.collection().format())));
      }
      auto over = walk(scope, e.collection().name(), &predicate);
      if (!over) return fail(over.error());
      if (over->toMany() == nullptr || !over->rest.empty()) {
        return fail(keyPathError(e.collection().name(), "a SUBQUERY runs over a to-many relationship"));
      }
      auto count = overToMany(scope, *over, e.subqueryVariable(), "COUNT(*)", [&](Scope& inner) {
        return condition(e.subqueryPredicate(), inner, depth + 1);
      });
      if (!count) return fail(count.error());
      result.kind = Operand::Kind::Scalar;
      result.family = Family::Number;
      result.sql = *count;
      result.nullable = over->joined;
      if (over->joined)
        result.sql = fmt::format("(CASE WHEN {}.Z_PK IS NULL THEN NULL ELSE {} END)", over->alias, *count);
      result.what = "SUBQUERY(...).@count";
      return result;
    }
    case Expression::Kind::KeyPath:
      break;
  }
  auto resolved = walk(scope, e.kind() == Expression::Kind::Variable ? "$" + e.name() : e.name(), &predicate);
  if (!resolved) return fail(resolved.error());
  if (resolved->property == nullptr) {  // a $variable's row
    result.kind = Operand::Kind::Object;
    result.row = true;
    result.sql = resolved->alias + ".Z_PK";
    result.entitySql = resolved->alias + ".Z_ENT";
    result.destination = resolved->entity->rootEntity();
    result.what = e.kind() == Expression::Kind::Variable ? "$" + e.name() : e.name();
    return result;
  }
  if (resolved->toMany() != nullptr) {  // "@count", as comparison() lets through
    auto count = overToMany(scope, *resolved, {}, "COUNT(*)", [](Scope&) { return std::string("1"); });
    if (!count) return fail(count.error());
    result.kind = Operand::Kind::Scalar;
    result.family = Family::Number;
    result.nullable = resolved->joined;
    result.sql = resolved->joined ? fmt::format("(CASE WHEN {}.Z_PK IS NULL THEN NULL ELSE {} END)",
                                                resolved->alias, *count)
                                  : *count;
    result.what = e.name();
    return result;
  }
  if (const auto* relationship = dynamic_cast<const RelationshipDescription*>(resolved->property)) {
    result.kind = Operand::Kind::Object;
    result.sql = resolved->column();
    result.entitySql = resolved->mapping->entityColumn.empty()
                           ? ""
                           : resolved->alias + "." + resolved->mapping->entityColumn;
    result.destination = relationship->destinationEntity();
    result.what = fmt::format("key path \"{}\"", e.name());
    return result;
  }
  result.kind = Operand::Kind::Scalar;
  result.attribute = static_cast<const AttributeDescription*>(resolved->property);
  result.family = familyOf(result.attribute->attributeType());
  result.sql = resolved->column();
  result.what = e.name();
  return result;
}

std::optional<StringTest> stringTestOf(ComparisonOperator op) {
  switch (op) {
    case ComparisonOperator::BeginsWith:
      return StringTest::BeginsWith;
    case ComparisonOperator::EndsWith:
      return StringTest::EndsWith;
    case ComparisonOperator::Contains:
      return StringTest::Contains;
    case ComparisonOperator::Like:
      return StringTest::Like;
    case ComparisonOperator::Matches:
      return StringTest::Matches;
    default:
      return std::nullopt;
  }
}

std::string_view operatorName(ComparisonOperator op) {
  switch (op) {
    case ComparisonOperator::EqualTo:
      return "==";
    case ComparisonOperator::NotEqualTo:
      return "!=";
    case ComparisonOperator::BeginsWith:
      return "BEGINSWITH";
    case ComparisonOperator::EndsWith:
      return "ENDSWITH";
    case ComparisonOperator::Contains:
      return "CONTAINS";
    case ComparisonOperator::Like:
      return "LIKE";
    case ComparisonOperator::Matches:
      return "MATCHES";
    case ComparisonOperator::In:
      return "IN";
    case ComparisonOperator::Between:
      return "BETWEEN";
    default:
      return orderingSql(op);
  }
}

Expected<std::string> FetchCompiler::compareOperands(const Predicate& predicate, Operand left,
                                                     ComparisonOperator op, Operand right) {
  // `{a, b} CONTAINS key` is `key IN {a, b}`; a string IN a string is a substring test.
  if (op == ComparisonOperator::Contains && left.kind == Operand::Kind::Constant &&
      (left.value.isArray() || left.value.isSet())) {
    std::swap(left, right);
    op = ComparisonOperator::In;
  }
  if (op == ComparisonOperator::In &&
      !(right.kind == Operand::Kind::Constant && (right.value.isArray() || right.value.isSet()))) {
    std::swap(left, right);
    op = ComparisonOperator::Contains;
  }
  if (left.kind == Operand::Kind::Object || right.kind == Operand::Kind::Object) {
    const bool leftIsObject = left.kind == Operand::Kind::Object;
    const Operand& object = leftIsObject ? left : right;
    const Operand& other = leftIsObject ? right : left;
    if (other.kind != Operand::Kind::Constant) {
      return fail(requestError(
          fmt::format("{} can only be compared with an object, an object ID or nil, not in \"{}\"",
                      object.what, predicate.predicateFormat())));
    }
    if (op == ComparisonOperator::In && leftIsObject) return objectIn(object, other.value);
    if (op != ComparisonOperator::EqualTo && op != ComparisonOperator::NotEqualTo) {
      return fail(requestError(fmt::format("{} can only be compared with == or !=", object.what)));
    }
    if (other.value.isNull()) {
      if (!object.row) {
        return object.sql + (op == ComparisonOperator::EqualTo ? " IS NULL" : " IS NOT NULL");
      }
      return std::string(op == ComparisonOperator::NotEqualTo ? "1" : "0");  // a row is never nil
    }
    return compareWithObject(object.sql, object.entitySql, *object.destination, op, other.value, object.what);
  }
  if (left.kind == Operand::Kind::Scalar) return compareScalar(predicate, left, op, right, false);
  return compareScalar(predicate, right, op, left, true);
}

// `scalar op other` (or `other op scalar` when swapped), where `scalar` is a column or a count.
Expected<std::string> FetchCompiler::compareScalar(const Predicate& predicate, const Operand& scalar,
                                                   ComparisonOperator op, const Operand& other,
                                                   bool swapped) {
  const unsigned options = predicate.options();
  const std::string typeText =
      scalar.attribute != nullptr ? std::string(typeName(scalar.attribute->attributeType())) : "a number";
  const std::string& path = scalar.what;
  if (op == ComparisonOperator::Between) {
    const Value& bounds = other.value;
    if (swapped || other.kind != Operand::Kind::Constant || !(bounds.isArray() || bounds.isSet()) ||
        bounds.count() != 2) {
      return fail(
          requestError(fmt::format("BETWEEN needs a key path on the left and a list of two values on "
                                   "the right, not \"{}\"",
                                   predicate.predicateFormat())));
    }
    const Array ends =
        bounds.isArray() ? bounds.asArray() : Array(bounds.asSet().begin(), bounds.asSet().end());
    Operand low;
    low.value = ends[0];
    Operand high;
    high.value = ends[1];
    auto a = compareScalar(predicate, scalar, ComparisonOperator::GreaterThanOrEqualTo, low, false);
    if (!a) return a;
    auto b = compareScalar(predicate, scalar, ComparisonOperator::LessThanOrEqualTo, high, false);
    if (!b) return b;
    return fmt::format("({} AND {})", *a, *b);
  }
  if (op == ComparisonOperator::In) {  // other is a list of constants, scalar on the left
    const Value& list = other.value;
    std::vector<Value> values(list.isArray() ? list.asArray().begin() : list.asSet().begin(),
                              list.isArray() ? list.asArray().end() : list.asSet().end());
    bool withNil = false;
    std::vector<std::string> parameters;
    const bool fold = options != 0 && scalar.family == Family::String;
    for (const Value& v : values) {
      if (v.isNull()) {
        withNil = true;
        continue;
      }
      if (scalar.family == Family::None || familyOf(v) != scalar.family) {
        return fail(keyPathError(path, fmt::format("{} attribute cannot be compared with {} ({})", typeText,
                                                   kindName(v), v.description())));
      }
      parameters.push_back(bind(fold ? Value(foldedString(v.asString(), options)) : v));
    }
    std::vector<std::string> parts;
    if (!parameters.empty()) {
      const std::string column =
          fold ? fmt::format("PREDICATE_FOLD({}, {})", scalar.sql, options) : scalar.sql;
      parts.push_back(
          fmt::format("({} IS NOT NULL AND {} IN ({}))", scalar.sql, column, fmt::join(parameters, ", ")));
    }
    if (withNil && scalar.nullable) parts.push_back(scalar.sql + " IS NULL");
    if (parts.empty()) return std::string("0");
    return parts.size() == 1 ? parts.front() : fmt::format("({})", fmt::join(parts, " OR "));
  }

  if (stringTestOf(op) && scalar.family != Family::String) {
    return fail(keyPathError(
        path, fmt::format("{} tests strings; {} attribute is no string", operatorName(op), typeText)));
  }
  // The other side: a constant (nil answered here) or another column.
  std::string otherSql;
  Family otherFamily = Family::None;
  if (other.kind == Operand::Kind::Constant) {
    const Value& constant = other.value;
    if (constant.isNull()) {
      if (op == ComparisonOperator::EqualTo)
        return scalar.nullable ? scalar.sql + " IS NULL" : std::string("0");
      if (op == ComparisonOperator::NotEqualTo)
        return scalar.nullable ? scalar.sql + " IS NOT NULL" : std::string("1");
      return std::string("0");  // nothing is less or greater than nil, nor begins with it
    }
    if (scalar.family == Family::None) {
      return fail(keyPathError(path, fmt::format("{} attribute can only be compared with nil", typeText)));
    }
    if (familyOf(constant) != scalar.family) {
      return fail(keyPathError(path, fmt::format("{} attribute cannot be compared with {} ({})", typeText,
                                                 kindName(constant), constant.description())));
    }
    otherFamily = scalar.family;
  } else {
    otherFamily = other.family;
    if (scalar.family == Family::None || otherFamily != scalar.family) {
      const std::string otherType =
          other.attribute != nullptr ? std::string(typeName(other.attribute->attributeType())) : "a number";
      return fail(keyPathError(path, fmt::format("{} attribute cannot be compared with \"{}\", {} attribute",
                                                 typeText, other.what, otherType)));
    }
  }
  const Family family = scalar.family;
  const bool fold = options != 0 && family == Family::String;
  if (other.kind == Operand::Kind::Constant) {
    otherSql =
        bind(fold && stringTestOf(op) == std::nullopt ? Value(foldedString(other.value.asString(), options))
                                                      : other.value);
  } else {
    otherSql = other.sql;
  }
  const bool otherFolded = other.kind == Operand::Kind::Constant;  // folded in C++ already

  if (const auto test = stringTestOf(op)) {
    if (family != Family::String) {
      return fail(keyPathError(
          path, fmt::format("{} tests strings; {} attribute is no string", operatorName(op), typeText)));
    }
    const std::string& text = swapped ? otherSql : scalar.sql;
    const std::string& pattern = swapped ? scalar.sql : otherSql;
    return fmt::format("PREDICATE_STRING_TEST({}, {}, {}, {})", text, pattern, static_cast<int>(*test),
                       options);
  }
  if (isOrdering(op) && (family == Family::Uuid || family == Family::Url)) {
    return fail(
        keyPathError(path, fmt::format("{} attribute has no order; compare it with == or !=", typeText)));
  }
  const std::string x = fold ? fmt::format("PREDICATE_FOLD({}, {})", scalar.sql, options) : scalar.sql;
  const std::string y =
      fold && !otherFolded ? fmt::format("PREDICATE_FOLD({}, {})", otherSql, options) : otherSql;
  switch (op) {
    case ComparisonOperator::EqualTo:
      return fmt::format("{} IS {}", x, y);
    case ComparisonOperator::NotEqualTo:
      return fmt::format("{} IS NOT {}", x, y);
    default: {
      const ComparisonOperator o = swapped ? flipped(op) : op;
      std::string sql = "(";
      if (scalar.nullable) sql += scalar.sql + " IS NOT NULL AND ";
      if (other.kind != Operand::Kind::Constant && other.nullable) sql += other.sql + " IS NOT NULL AND ";
      return sql + fmt::format("{} {} {})", x, orderingSql(o), y);
    }
  }
}

// A to-one relationship (or a row) against an object: the key, and the entity number beside it when
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

// A to-one relationship (or a row) IN a list of objects: the keys grouped by entity number.
Expected<std::string> FetchCompiler::objectIn(const Operand& object, const Value& list) {
  if (!(list.isArray() || list.isSet())) {
    return fail(requestError(fmt::format("{} IN needs a list of objects or object IDs", object.what)));
  }
  const Array values = list.isArray() ? list.asArray() : Array(list.asSet().begin(), list.asSet().end());
  std::map<std::int64_t, std::vector<std::int64_t>> keysByEntity;
  bool withNil = false;
  for (const Value& v : values) {
    if (v.isNull()) {
      withNil = true;
      continue;
    }
    const auto id = objectIDOfValue(v);
    if (!id) {
      return fail(requestError(fmt::format("{} IN needs a list of objects or object IDs, not one with {}",
                                           object.what, kindName(v))));
    }
    const auto number = store_.entityNumber(id->entity());
    if (id->isTemporaryID() || id->storeIdentifier() != store_.identifier() ||
        !id->entity().isKindOfEntity(*object.destination) || !number)
      continue;
    keysByEntity[*number].push_back(id->primaryKey());
  }
  std::vector<std::string> parts;
  for (const auto& [number, keys] : keysByEntity) {
    std::vector<std::string> parameters;
    for (std::int64_t key : keys) parameters.push_back(bind(key));
    std::string part = fmt::format("{} IN ({})", object.sql, fmt::join(parameters, ", "));
    if (!object.entitySql.empty())
      part = fmt::format("({} AND {} = {})", part, object.entitySql, bind(number));
    parts.push_back(std::move(part));
  }
  if (withNil && !object.row) parts.push_back(object.sql + " IS NULL");
  if (parts.empty()) return std::string("0");
  return fmt::format("({})", fmt::join(parts, " OR "));
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
