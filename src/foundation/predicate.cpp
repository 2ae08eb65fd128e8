// Predicates: the tree, evaluation and printing. The format-string parser is in predicate_parser.cpp,
// the string tests in string_comparison.cpp.

#include "foundation/predicate.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <set>
#include <span>
#include <stdexcept>

#include "foundation/string_comparison.h"

namespace tesselune {

struct Predicate::Node {
  Kind kind = Kind::True;
  Expression left;
  Expression right;
  ComparisonOperator op = ComparisonOperator::EqualTo;
  unsigned options = 0;
  std::vector<Predicate> subpredicates;
  ComparisonModifier modifier = ComparisonModifier::Direct;
};

// The parts of aggregates and subqueries, shared between copies.
struct Expression::Compound {
  std::vector<Expression> elements;
  Expression collection;
  std::string variable;
  Predicate predicate = Predicate::truePredicate();
};

// --- Expression ---

Expression Expression::constant(Value value) {
  Expression e;
  e.kind_ = Kind::Constant;
  e.constant_ = std::move(value);
  return e;
}

Expression Expression::keyPath(std::string path) {
  Expression e;
  e.kind_ = Kind::KeyPath;
  e.name_ = std::move(path);
  return e;
}

Expression Expression::self() {
  Expression e;
  e.kind_ = Kind::Self;
  return e;
}

Expression Expression::variable(std::string name) {
  Expression e;
  e.kind_ = Kind::Variable;
  e.name_ = std::move(name);
  return e;
}

Expression Expression::aggregate(std::vector<Expression> elements) {
  Expression e;
  e.kind_ = Kind::Aggregate;
  auto compound = std::make_shared<Compound>();
  compound->elements = std::move(elements);
  e.compound_ = std::move(compound);
  return e;
}

Expression Expression::subquery(Expression collection, std::string variable, Predicate predicate,
                                std::string keyPath) {
  Expression e;
  e.kind_ = Kind::Subquery;
  e.name_ = std::move(keyPath);
  auto compound = std::make_shared<Compound>();
  compound->collection = std::move(collection);
  compound->variable = std::move(variable);
  compound->predicate = std::move(predicate);
  e.compound_ = std::move(compound);
  return e;
}

const std::vector<Expression>& Expression::elements() const {
  if (kind_ != Kind::Aggregate) throw std::logic_error("Expression: not an aggregate");
  return compound_->elements;
}

const Expression& Expression::collection() const {
  if (kind_ != Kind::Subquery) throw std::logic_error("Expression: not a subquery");
  return compound_->collection;
}

const std::string& Expression::subqueryVariable() const {
  if (kind_ != Kind::Subquery) throw std::logic_error("Expression: not a subquery");
  return compound_->variable;
}

const Predicate& Expression::subqueryPredicate() const {
  if (kind_ != Kind::Subquery) throw std::logic_error("Expression: not a subquery");
  return compound_->predicate;
}

bool operator==(const Expression& a, const Expression& b) {
  if (a.kind_ != b.kind_ || a.constant_ != b.constant_ || a.name_ != b.name_) return false;
  if (a.compound_ == b.compound_) return true;
  if (a.compound_ == nullptr || b.compound_ == nullptr) return false;
  const auto& x = *a.compound_;
  const auto& y = *b.compound_;
  return x.elements == y.elements && x.collection == y.collection && x.variable == y.variable &&
         x.predicate == y.predicate;
}

namespace {

Value valueForKey(const Value& object, std::string_view key) {
  if (object.isDictionary()) return object[key];
  if (object.isObject() && object.asObject()) return object.asObject()->valueForKey(key);
  return Value();
}

bool isCollection(const Value& v) {
  return v.isArray() || v.isSet();
}

std::span<const Value> elementsOf(const Value& v) {
  if (v.isArray()) return v.asArray();
  if (v.isSet()) return std::span<const Value>(v.asSet().begin(), v.asSet().end());
  return {};
}

// One step of a key path: @count of a collection, a key of every element of a collection (nested
// collections flattened), or a key of one value.
Value step(const Value& current, std::string_view key) {
  if (key == "@count") {
    return isCollection(current) ? Value(static_cast<std::int64_t>(elementsOf(current).size())) : Value();
  }
  if (!isCollection(current)) return valueForKey(current, key);
  Array out;
  for (const Value& element : elementsOf(current)) {
    Value v = valueForKey(element, key);
    if (isCollection(v)) {
      for (const Value& inner : elementsOf(v)) out.push_back(inner);
    } else {
      out.push_back(std::move(v));
    }
  }
  return Value(std::move(out));
}

Value follow(Value current, std::string_view path) {
  while (!path.empty()) {
    const std::size_t dot = path.find('.');
    current = step(current, path.substr(0, dot));
    if (dot == std::string_view::npos) break;
    path.remove_prefix(dot + 1);
  }
  return current;
}

Value variableValue(const Dictionary* variables, std::string_view name) {
  if (variables == nullptr) return Value();
  auto it = variables->find(name);
  return it == variables->end() ? Value() : it->second;
}

// Strings as Foundation prints them in a predicate: double quotes, with quotes and backslashes
// escaped.
std::string quoted(const std::string& text) {
  std::string out = "\"";
  for (char c : text) {
    if (c == '"' || c == '\\') out.push_back('\\');
    out.push_back(c);
  }
  out.push_back('"');
  return out;
}

std::string constantFormat(const Value& v) {
  switch (v.type()) {
    case Value::Type::Null:
      return "nil";
    case Value::Type::Bool:
      return v.asBool() ? "1" : "0";
    case Value::Type::Integer:
      return std::to_string(v.asInteger());
    case Value::Type::Double:
      return fmt::format("{}", v.asDouble());
    case Value::Type::String:
      return quoted(v.asString());
    case Value::Type::Array:
    case Value::Type::Set: {
      std::string out = "{";
      for (const Value& element : elementsOf(v)) {
        if (out.size() > 1) out += ", ";
        out += constantFormat(element);
      }
      return out + "}";
    }
    default:
      return v.description();
  }
}

}  // namespace

Value Expression::evaluate(const Value& object, const Dictionary* variables) const {
  switch (kind_) {
    case Kind::Constant:
      return constant_;
    case Kind::Self:
      return object;
    case Kind::Variable:
      return variableValue(variables, name_);
    case Kind::KeyPath: {
      if (name_.starts_with('$')) {
        const std::size_t dot = name_.find('.');
        const Value root = variableValue(variables, std::string_view(name_).substr(1, dot - 1));
        return dot == std::string::npos ? root : follow(root, std::string_view(name_).substr(dot + 1));
      }
      return follow(object, name_);
    }
    case Kind::Aggregate: {
      Array out;
      for (const Expression& e : compound_->elements) out.push_back(e.evaluate(object, variables));
      return Value(std::move(out));
    }
    case Kind::Subquery: {
      const Value collection = compound_->collection.evaluate(object, variables);
      Dictionary bound = variables != nullptr ? *variables : Dictionary();
      Array matching;
      for (const Value& element : elementsOf(collection)) {
        bound[compound_->variable] = element;
        if (compound_->predicate.evaluateWithObject(element, &bound)) matching.push_back(element);
      }
      return follow(Value(std::move(matching)), name_);
    }
  }
  return Value();
}

std::string Expression::format() const {
  switch (kind_) {
    case Kind::Constant:
      return constantFormat(constant_);
    case Kind::Self:
      return "SELF";
    case Kind::Variable:
      return fmt::format("${}", name_);
    case Kind::KeyPath:
      return name_;
    case Kind::Aggregate: {
      std::string out = "{";
      for (const Expression& e : compound_->elements) {
        if (out.size() > 1) out += ", ";
        out += e.format();
      }
      return out + "}";
    }
    case Kind::Subquery:
      return fmt::format("SUBQUERY({}, ${}, {}){}", compound_->collection.format(), compound_->variable,
                         compound_->predicate.predicateFormat(), name_.empty() ? "" : "." + name_);
  }
  return {};
}

// --- Predicate ---

Predicate Predicate::truePredicate() {
  static const auto node = std::make_shared<const Node>(Node{Kind::True, {}, {}, {}, 0, {}});
  return Predicate(node);
}

Predicate Predicate::falsePredicate() {
  static const auto node = std::make_shared<const Node>(Node{Kind::False, {}, {}, {}, 0, {}});
  return Predicate(node);
}

Predicate Predicate::comparison(Expression left, ComparisonOperator op, Expression right, unsigned options,
                                ComparisonModifier modifier) {
  return Predicate(std::make_shared<const Node>(
      Node{Kind::Comparison, std::move(left), std::move(right), op, options, {}, modifier}));
}

Predicate Predicate::andPredicate(std::vector<Predicate> subpredicates) {
  return Predicate(std::make_shared<const Node>(Node{Kind::And, {}, {}, {}, 0, std::move(subpredicates)}));
}

Predicate Predicate::orPredicate(std::vector<Predicate> subpredicates) {
  return Predicate(std::make_shared<const Node>(Node{Kind::Or, {}, {}, {}, 0, std::move(subpredicates)}));
}

Predicate Predicate::notPredicate(Predicate subpredicate) {
  return Predicate(std::make_shared<const Node>(Node{Kind::Not, {}, {}, {}, 0, {std::move(subpredicate)}}));
}

Predicate::Kind Predicate::kind() const {
  return node_->kind;
}

const Expression& Predicate::leftExpression() const {
  if (node_->kind != Kind::Comparison) throw std::logic_error("Predicate: not a comparison");
  return node_->left;
}

const Expression& Predicate::rightExpression() const {
  if (node_->kind != Kind::Comparison) throw std::logic_error("Predicate: not a comparison");
  return node_->right;
}

ComparisonOperator Predicate::comparisonOperator() const {
  return node_->op;
}
unsigned Predicate::options() const {
  return node_->options;
}
ComparisonModifier Predicate::comparisonModifier() const {
  return node_->modifier;
}
const std::vector<Predicate>& Predicate::subpredicates() const {
  return node_->subpredicates;
}

bool operator==(const Predicate& a, const Predicate& b) {
  if (a.node_ == b.node_) return true;
  const auto& x = *a.node_;
  const auto& y = *b.node_;
  return x.kind == y.kind && x.left == y.left && x.right == y.right && x.op == y.op &&
         x.options == y.options && x.modifier == y.modifier && x.subpredicates == y.subpredicates;
}

namespace {

// <0, 0, >0, or nothing when the two cannot be ordered.
std::optional<int> order(const Value& a, const Value& b, unsigned options) {
  if (a.isNumber() && b.isNumber()) {
    if ((a.isInteger() || a.isBool()) && (b.isInteger() || b.isBool())) {
      const std::int64_t x = a.integerValue();
      const std::int64_t y = b.integerValue();
      return x < y ? -1 : (x > y ? 1 : 0);
    }
    const double x = a.doubleValue();
    const double y = b.doubleValue();
    if (std::isnan(x) || std::isnan(y)) return std::nullopt;
    return x < y ? -1 : (x > y ? 1 : 0);
  }
  if (a.isString() && b.isString()) {
    const int c = options ? foldedString(a.asString(), options).compare(foldedString(b.asString(), options))
                          : a.asString().compare(b.asString());
    return c < 0 ? -1 : (c > 0 ? 1 : 0);
  }
  if (a.isDate() && b.isDate()) {
    const double x = a.asDate().secondsSinceReferenceDate;
    const double y = b.asDate().secondsSinceReferenceDate;
    return x < y ? -1 : (x > y ? 1 : 0);
  }
  return std::nullopt;
}

bool equal(const Value& a, const Value& b, unsigned options) {
  if (options != 0 && a.isString() && b.isString())
    return foldedString(a.asString(), options) == foldedString(b.asString(), options);
  return a == b;
}

bool anyEqual(const Value& collection, const Value& value, unsigned options) {
  const auto elements = elementsOf(collection);
  return std::any_of(elements.begin(), elements.end(),
                     [&](const Value& e) { return equal(e, value, options); });
}

bool stringTest(StringTest test, const Value& text, const Value& pattern, unsigned options) {
  return text.isString() && pattern.isString() &&
         tesselune::stringTest(test, text.asString(), pattern.asString(), options);
}

// One comparison of two values, without a modifier.
bool compare(const Value& left, ComparisonOperator op, const Value& right, unsigned options) {
  switch (op) {
    case ComparisonOperator::EqualTo:
      return equal(left, right, options);
    case ComparisonOperator::NotEqualTo:
      return !equal(left, right, options);
    case ComparisonOperator::BeginsWith:
      return stringTest(StringTest::BeginsWith, left, right, options);
    case ComparisonOperator::EndsWith:
      return stringTest(StringTest::EndsWith, left, right, options);
    case ComparisonOperator::Like:
      return stringTest(StringTest::Like, left, right, options);
    case ComparisonOperator::Matches:
      return stringTest(StringTest::Matches, left, right, options);
    case ComparisonOperator::Contains:
      if (isCollection(left)) return anyEqual(left, right, options);
      return stringTest(StringTest::Contains, left, right, options);
    case ComparisonOperator::In:
      if (isCollection(right)) return anyEqual(right, left, options);
      return stringTest(StringTest::Contains, right, left, options);
    case ComparisonOperator::Between: {
      const auto bounds = elementsOf(right);
      if (bounds.size() != 2) return false;
      const auto low = order(left, bounds[0], options);
      const auto high = order(left, bounds[1], options);
      return low && high && *low >= 0 && *high <= 0;
    }
    default:
      break;
  }
  const auto o = order(left, right, options);
  if (!o) return false;
  switch (op) {
    case ComparisonOperator::LessThan:
      return *o < 0;
    case ComparisonOperator::LessThanOrEqualTo:
      return *o <= 0;
    case ComparisonOperator::GreaterThan:
      return *o > 0;
    default:
      return *o >= 0;
  }
}

}  // namespace

bool Predicate::evaluateWithObject(const Value& object, const Dictionary* variables) const {
  const Node& n = *node_;
  switch (n.kind) {
    case Kind::True:
      return true;
    case Kind::False:
      return false;
    case Kind::And:
      return std::all_of(n.subpredicates.begin(), n.subpredicates.end(),
                         [&](const Predicate& p) { return p.evaluateWithObject(object, variables); });
    case Kind::Or:
      return std::any_of(n.subpredicates.begin(), n.subpredicates.end(),
                         [&](const Predicate& p) { return p.evaluateWithObject(object, variables); });
    case Kind::Not:
      return !n.subpredicates.front().evaluateWithObject(object, variables);
    case Kind::Comparison: {
      const Value left = n.left.evaluate(object, variables);
      const Value right = n.right.evaluate(object, variables);
      if (n.modifier == ComparisonModifier::Direct) return compare(left, n.op, right, n.options);
      // A single value stands for a collection of one, nil for an empty one.
      const Array single = left.isNull() || isCollection(left) ? Array() : Array{left};
      const auto elements = isCollection(left) ? elementsOf(left) : std::span<const Value>(single);
      auto holds = [&](const Value& e) { return compare(e, n.op, right, n.options); };
      return n.modifier == ComparisonModifier::Any ? std::any_of(elements.begin(), elements.end(), holds)
                                                   : std::all_of(elements.begin(), elements.end(), holds);
    }
  }
  return false;
}

namespace {

Expected<Predicate> substitutedPredicate(const Predicate& p, const Dictionary& variables,
                                         const std::set<std::string>& bound, const Predicate& whole);

// The expression with its $variables replaced; variables that an enclosing subquery binds stay.
Expected<Expression> substituted(const Expression& e, const Dictionary& variables,
                                 const std::set<std::string>& bound, const Predicate& whole) {
  switch (e.kind()) {
    case Expression::Kind::Variable: {
      if (bound.contains(e.name())) return e;
      auto it = variables.find(e.name());
      if (it == variables.end()) {
        return fail(Error(std::string(kCocoaErrorDomain), kPredicateFormatError,
                          fmt::format("No value for the variable ${} in the predicate \"{}\"", e.name(),
                                      whole.predicateFormat())));
      }
      return Expression::constant(it->second);
    }
    case Expression::Kind::Aggregate: {
      std::vector<Expression> elements;
      bool constant = true;
      for (const Expression& element : e.elements()) {
        auto s = substituted(element, variables, bound, whole);
        if (!s) return s;
        constant = constant && s->kind() == Expression::Kind::Constant;
        elements.push_back(std::move(*s));
      }
      if (!constant) return Expression::aggregate(std::move(elements));
      Array values;
      for (const Expression& element : elements) values.push_back(element.constantValue());
      return Expression::constant(Value(std::move(values)));
    }
    case Expression::Kind::Subquery: {
      auto collection = substituted(e.collection(), variables, bound, whole);
      if (!collection) return collection;
      std::set<std::string> inner = bound;
      inner.insert(e.subqueryVariable());
      auto predicate = substitutedPredicate(e.subqueryPredicate(), variables, inner, whole);
      if (!predicate) return fail(predicate.error());
      return Expression::subquery(std::move(*collection), e.subqueryVariable(), std::move(*predicate),
                                  e.name());
    }
    default:
      return e;
  }
}

Expected<Predicate> substitutedPredicate(const Predicate& p, const Dictionary& variables,
                                         const std::set<std::string>& bound, const Predicate& whole) {
  switch (p.kind()) {
    case Predicate::Kind::True:
    case Predicate::Kind::False:
      return p;
    case Predicate::Kind::Comparison: {
      auto left = substituted(p.leftExpression(), variables, bound, whole);
      if (!left) return fail(left.error());
      auto right = substituted(p.rightExpression(), variables, bound, whole);
      if (!right) return fail(right.error());
      return Predicate::comparison(std::move(*left), p.comparisonOperator(), std::move(*right), p.options(),
                                   p.comparisonModifier());
    }
    default: {
      std::vector<Predicate> parts;
      parts.reserve(p.subpredicates().size());
      for (const Predicate& sub : p.subpredicates()) {
        auto s = substitutedPredicate(sub, variables, bound, whole);
        if (!s) return s;
        parts.push_back(std::move(*s));
      }
      if (p.kind() == Predicate::Kind::Not) return Predicate::notPredicate(std::move(parts.front()));
      return p.kind() == Predicate::Kind::And ? Predicate::andPredicate(std::move(parts))
                                              : Predicate::orPredicate(std::move(parts));
    }
  }
}

}  // namespace

Expected<Predicate> Predicate::predicateWithSubstitutionVariables(const Dictionary& variables) const {
  return substitutedPredicate(*this, variables, {}, *this);
}

std::string Predicate::predicateFormat() const {
  const Node& n = *node_;
  // Compound parts in parentheses, as Foundation prints them; NOT binds tightest and needs none.
  auto part = [](const Predicate& p) {
    const bool compound = p.kind() == Kind::And || p.kind() == Kind::Or;
    return compound ? fmt::format("({})", p.predicateFormat()) : p.predicateFormat();
  };

  switch (n.kind) {
    case Kind::True:
      return "TRUEPREDICATE";
    case Kind::False:
      return "FALSEPREDICATE";
    case Kind::Not:
      return fmt::format("NOT {}", part(n.subpredicates.front()));
    case Kind::And:
    case Kind::Or: {
      std::string text;
      for (const Predicate& p : n.subpredicates) {
        if (!text.empty()) text += n.kind == Kind::And ? " AND " : " OR ";
        text += part(p);
      }
      return text;
    }
    case Kind::Comparison: {
      static constexpr const char* kOperators[] = {"==",      "!=",         "<",        "<=",       ">",
                                                   ">=",      "BEGINSWITH", "ENDSWITH", "CONTAINS", "LIKE",
                                                   "MATCHES", "IN",         "BETWEEN"};
      std::string op = kOperators[static_cast<int>(n.op)];
      if (n.options != 0) {
        op += "[";
        if (n.options & kCaseInsensitive) op += "c";
        if (n.options & kDiacriticInsensitive) op += "d";
        op += "]";
      }
      const char* modifier = n.modifier == ComparisonModifier::Any   ? "ANY "
                             : n.modifier == ComparisonModifier::All ? "ALL "
                                                                     : "";
      return fmt::format("{}{} {} {}", modifier, n.left.format(), op, n.right.format());
    }
  }
  return {};
}

}  // namespace tesselune
