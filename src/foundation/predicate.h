// Predicates, as NSPredicate: comparisons of expressions (constants, key paths, SELF, $variables,
// lists, subqueries) joined with AND, OR and NOT; parsed from Foundation's format strings or built in
// code; evaluated against Values and objects; printed back as Foundation prints them.
//
// The tree is public and immutable so that the store engine can translate it to SQL. Predicates are
// values that share their nodes; they are safe to use from several threads at once.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/error.h"
#include "foundation/value.h"

namespace tesselune {

// The error code for a format string that does not parse (NSFormattingError).
inline constexpr std::int64_t kPredicateFormatError = 2048;

class Predicate;

class Expression {
 public:
  enum class Kind { Constant, KeyPath, Self, Variable, Aggregate, Subquery };

  static Expression constant(Value value);
  // A key path such as "run.name": keys joined by dots. It may start at a variable ("$x.name") and
  // may hold the collection operator @count ("runs.@count").
  static Expression keyPath(std::string path);
  static Expression self();
  static Expression variable(std::string name);
  // A list of expressions, as `{1, $x}`; a list of constants is a constant array instead.
  static Expression aggregate(std::vector<Expression> elements);
  // SUBQUERY(collection, $variable, predicate): the elements of the collection for which the
  // predicate holds with $variable standing for the element; then `keyPath` of that array when not
  // empty ("@count").
  static Expression subquery(Expression collection, std::string variable, Predicate predicate,
                             std::string keyPath = {});

  Kind kind() const { return kind_; }
  const Value& constantValue() const { return constant_; }
  // The key path or the variable's name; for a subquery, the key path read from its result.
  const std::string& name() const { return name_; }
  // The elements of an aggregate.
  const std::vector<Expression>& elements() const;
  // The parts of a subquery.
  const Expression& collection() const;
  const std::string& subqueryVariable() const;
  const Predicate& subqueryPredicate() const;

  // The value for an object: key paths are followed key by key through dictionaries and
  // Object::valueForKey; through an array or set, each key is read from every element and nested
  // collections are flattened into one array, as key-value coding does for to-many relationships.
  // "@count" answers a collection's size. A missing step, like an unknown variable, gives null.
  Value evaluate(const Value& object, const Dictionary* variables = nullptr) const;
  std::string format() const;

  friend bool operator==(const Expression& a, const Expression& b);

 private:
  struct Compound;
  Kind kind_ = Kind::Constant;
  Value constant_;
  std::string name_;
  std::shared_ptr<const Compound> compound_;
};

enum class ComparisonOperator {
  EqualTo,
  NotEqualTo,
  LessThan,
  LessThanOrEqualTo,
  GreaterThan,
  GreaterThanOrEqualTo,
  // Strings: prefix, suffix, substring (or, with a collection on the left, membership), LIKE with
  // * and ?, MATCHES with an ICU regular expression over the whole string.
  BeginsWith,
  EndsWith,
  Contains,
  Like,
  Matches,
  // The left side is an element of the right side's collection (or a substring of its string).
  In,
  // The left side lies within the two-element list on the right, both ends included.
  Between,
};

// How a comparison applies to a collection on its left: directly, or to any or all of its elements
// (NONE is NOT ANY).
enum class ComparisonModifier { Direct, Any, All };

// Comparison options, as the [c] and [d] modifiers.
enum ComparisonOption : unsigned {
  kCaseInsensitive = 1,
  kDiacriticInsensitive = 2,
};

class Predicate {
 public:
  enum class Kind { True, False, Comparison, And, Or, Not };

  static Predicate truePredicate();
  static Predicate falsePredicate();
  static Predicate comparison(Expression left, ComparisonOperator op, Expression right, unsigned options = 0,
                              ComparisonModifier modifier = ComparisonModifier::Direct);
  static Predicate andPredicate(std::vector<Predicate> subpredicates);
  static Predicate orPredicate(std::vector<Predicate> subpredicates);
  static Predicate notPredicate(Predicate subpredicate);

  Kind kind() const;
  // Comparison parts; only for Kind::Comparison.
  const Expression& leftExpression() const;
  const Expression& rightExpression() const;
  ComparisonOperator comparisonOperator() const;
  unsigned options() const;
  ComparisonModifier comparisonModifier() const;
  // The parts of And, Or (two or more) and Not (one).
  const std::vector<Predicate>& subpredicates() const;

  // Foundation's comparison rules: numbers compare by value across integers, doubles and booleans;
  // strings by their UTF-8 bytes, with [c] ignoring case and [d] ignoring accents (see
  // string_comparison.h); dates by time; == uses Value equality (objects by isEqual), and nil equals
  // only nil. An ordering between values of different kinds, or with nil, is false, as is a string
  // test on anything but two strings. ANY and ALL apply the comparison to each element of the left
  // side's collection (ALL of nothing holds).
  bool evaluateWithObject(const Value& object, const Dictionary* variables = nullptr) const;

  // A copy with every $variable replaced by its value; fails for a variable not in `variables`.
  [[nodiscard]] Expected<Predicate> predicateWithSubstitutionVariables(const Dictionary& variables) const;

  // The format Foundation prints, which parses back to an equal predicate for constants that are
  // null, booleans, numbers and strings.
  std::string predicateFormat() const;

  friend bool operator==(const Predicate& a, const Predicate& b);

 private:
  struct Node;
  explicit Predicate(std::shared_ptr<const Node> node) : node_(std::move(node)) {}
  std::shared_ptr<const Node> node_;
};

// predicateWithFormat:argumentArray:. Understands comparisons with == = != <> < > <= =< >= =>
// BEGINSWITH ENDSWITH CONTAINS LIKE MATCHES IN BETWEEN and the modifiers [c], [d], [cd]; ANY, SOME,
// ALL and NONE before a comparison; AND/&&, OR/||, NOT/!, parentheses, TRUEPREDICATE,
// FALSEPREDICATE; key paths (with @count), SELF, $variables, lists in braces,
// SUBQUERY(collection, $x, predicate); numbers, quoted strings, TRUE/YES, FALSE/NO, nil/NULL; and the
// arguments %@ (a value), %K (a key path), %d, %i, %f, %s. Keywords ignore case. Fails with an Error
// naming the column for anything else (a MATCHES pattern that does not compile included), for too
// few arguments and for nesting deeper than 256.
[[nodiscard]] Expected<Predicate> predicateWithFormat(std::string_view format,
                                                      std::vector<Value> arguments = {});

}  // namespace tesselune
