// Predicates, as NSPredicate: comparisons of expressions (constants, key paths, SELF, $variables)
// joined with AND, OR and NOT; parsed from Foundation's format strings or built in code; evaluated
// against Values and objects; printed back as Foundation prints them.
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

class Expression {
 public:
  enum class Kind { Constant, KeyPath, Self, Variable };

  static Expression constant(Value value);
  // A key path such as "run.name": keys joined by dots.
  static Expression keyPath(std::string path);
  static Expression self();
  static Expression variable(std::string name);

  Kind kind() const { return kind_; }
  const Value& constantValue() const { return constant_; }
  // The key path or the variable's name.
  const std::string& name() const { return name_; }

  // The value for an object: key paths are followed key by key through dictionaries and
  // Object::valueForKey; a missing step, like an unknown variable, gives null.
  Value evaluate(const Value& object, const Dictionary* variables = nullptr) const;
  std::string format() const;

  friend bool operator==(const Expression&, const Expression&) = default;

 private:
  Kind kind_ = Kind::Constant;
  Value constant_;
  std::string name_;
};

enum class ComparisonOperator {
  EqualTo,
  NotEqualTo,
  LessThan,
  LessThanOrEqualTo,
  GreaterThan,
  GreaterThanOrEqualTo
};

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
  static Predicate comparison(Expression left, ComparisonOperator op, Expression right, unsigned options = 0);
  static Predicate andPredicate(std::vector<Predicate> subpredicates);
  static Predicate orPredicate(std::vector<Predicate> subpredicates);
  static Predicate notPredicate(Predicate subpredicate);

  Kind kind() const;
  // Comparison parts; only for Kind::Comparison.
  const Expression& leftExpression() const;
  const Expression& rightExpression() const;
  ComparisonOperator comparisonOperator() const;
  unsigned options() const;
  // The parts of And, Or (two or more) and Not (one).
  const std::vector<Predicate>& subpredicates() const;

  // Foundation's comparison rules: numbers compare by value across integers, doubles and booleans;
  // strings by their UTF-8 bytes, with [c] ignoring case and [d] ignoring accents of Latin letters;
  // dates by time; == uses Value equality (objects by isEqual), and nil equals only nil. An ordering
  // between values of different kinds, or with nil, is false.
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

// predicateWithFormat:argumentArray:. Understands comparisons with == = != <> < > <= =< >= => and
// the modifiers [c], [d], [cd]; AND/&&, OR/||, NOT/!, parentheses, TRUEPREDICATE, FALSEPREDICATE;
// key paths, SELF, $variables; numbers, quoted strings, TRUE/YES, FALSE/NO, nil/NULL; and the
// arguments %@ (a value), %K (a key path), %d, %i, %f, %s. Keywords ignore case. Fails with an Error
// naming the column for anything else, for too few arguments and for nesting deeper than 256.
[[nodiscard]] Expected<Predicate> predicateWithFormat(std::string_view format,
                                                      std::vector<Value> arguments = {});

}  // namespace tesselune
