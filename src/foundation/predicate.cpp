// Predicates: the tree, evaluation and printing. The format-string parser is in predicate_parser.cpp.

#include "foundation/predicate.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace tesselune {

struct Predicate::Node {
  Kind kind = Kind::True;
  Expression left;
  Expression right;
  ComparisonOperator op = ComparisonOperator::EqualTo;
  unsigned options = 0;
  std::vector<Predicate> subpredicates;
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

namespace {

Value valueForKey(const Value& object, std::string_view key) {
  if (object.isDictionary()) return object[key];
  if (object.isObject() && object.asObject()) return object.asObject()->valueForKey(key);
  return Value();
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
    case Kind::Variable: {
      if (variables == nullptr) return Value();
      auto it = variables->find(name_);
      return it == variables->end() ? Value() : it->second;
    }
    case Kind::KeyPath: {
      Value current = object;
      std::string_view rest = name_;
      while (!rest.empty()) {
        const std::size_t dot = rest.find('.');
        current = valueForKey(current, rest.substr(0, dot));
        if (dot == std::string_view::npos) break;
        rest.remove_prefix(dot + 1);
      }
      return current;
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

Predicate Predicate::comparison(Expression left, ComparisonOperator op, Expression right, unsigned options) {
  return Predicate(std::make_shared<const Node>(
      Node{Kind::Comparison, std::move(left), std::move(right), op, options, {}}));
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
const std::vector<Predicate>& Predicate::subpredicates() const {
  return node_->subpredicates;
}

bool operator==(const Predicate& a, const Predicate& b) {
  if (a.node_ == b.node_) return true;
  const auto& x = *a.node_;
  const auto& y = *b.node_;
  return x.kind == y.kind && x.left == y.left && x.right == y.right && x.op == y.op &&
         x.options == y.options && x.subpredicates == y.subpredicates;
}

namespace {

// Folds a UTF-8 string for [c] and [d]: ASCII and Latin-1 letters lower-cased, and with [d] the
// accents of Latin-1 letters removed.
std::string folded(const std::string& text, unsigned options) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    auto c = static_cast<unsigned char>(text[i]);
    // Latin-1 supplement letters U+00C0..U+00FF are C3 80..C3 BF; anything else after C3 is not
    // UTF-8 and stays as it is.
    if (c == 0xC3 && i + 1 < text.size() && (static_cast<unsigned char>(text[i + 1]) & 0xC0) == 0x80) {
      unsigned char low = static_cast<unsigned char>(text[i + 1]);
      if ((options & kCaseInsensitive) && low >= 0x80 && low <= 0x9E && low != 0x97) low += 0x20;
      if (options & kDiacriticInsensitive) {
        static constexpr std::string_view kBase =  // for C3 80..C3 BF
            "AAAAAAACEEEEIIII"
            "DNOOOOO*OUUUUYTs"
            "aaaaaaaceeeeiiii"
            "dnooooo/ouuuuyty";
        const char base = kBase[low - 0x80];
        if (base != '*' && base != '/' && base != 'T' && base != 't' && base != 's' && low != 0x86 &&
            low != 0xA6) {
          out.push_back((options & kCaseInsensitive) ? static_cast<char>(std::tolower(base)) : base);
          ++i;
          continue;
        }
      }
      out.push_back(static_cast<char>(c));
      out.push_back(static_cast<char>(low));
      ++i;
      continue;
    }
    if ((options & kCaseInsensitive) && c >= 'A' && c <= 'Z') c = static_cast<unsigned char>(c + 32);
    out.push_back(static_cast<char>(c));
  }
  return out;
}

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
    const int c = options ? folded(a.asString(), options).compare(folded(b.asString(), options))
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
    return folded(a.asString(), options) == folded(b.asString(), options);
  return a == b;
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
      switch (n.op) {
        case ComparisonOperator::EqualTo:
          return equal(left, right, n.options);
        case ComparisonOperator::NotEqualTo:
          return !equal(left, right, n.options);
        default:
          break;
      }
      const auto o = order(left, right, n.options);
      if (!o) return false;
      switch (n.op) {
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
  }
  return false;
}

Expected<Predicate> Predicate::predicateWithSubstitutionVariables(const Dictionary& variables) const {
  const Node& n = *node_;
  switch (n.kind) {
    case Kind::True:
    case Kind::False:
      return *this;
    case Kind::Comparison: {
      Expression sides[2] = {n.left, n.right};
      for (Expression& side : sides) {
        if (side.kind() != Expression::Kind::Variable) continue;
        auto it = variables.find(side.name());
        if (it == variables.end()) {
          return fail(Error(std::string(kCocoaErrorDomain), kPredicateFormatError,
                            fmt::format("No value for the variable ${} in the predicate \"{}\"", side.name(),
                                        predicateFormat())));
        }
        side = Expression::constant(it->second);
      }
      return comparison(sides[0], n.op, sides[1], n.options);
    }
    default: {
      std::vector<Predicate> parts;
      parts.reserve(n.subpredicates.size());
      for (const Predicate& p : n.subpredicates) {
        auto substituted = p.predicateWithSubstitutionVariables(variables);
        if (!substituted) return substituted;
        parts.push_back(std::move(*substituted));
      }
      return Predicate(std::make_shared<const Node>(Node{n.kind, {}, {}, {}, 0, std::move(parts)}));
    }
  }
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
      static constexpr const char* kOperators[] = {"==", "!=", "<", "<=", ">", ">="};
      std::string op = kOperators[static_cast<int>(n.op)];
      if (n.options != 0) {
        op += "[";
        if (n.options & kCaseInsensitive) op += "c";
        if (n.options & kDiacriticInsensitive) op += "d";
        op += "]";
      }
      return fmt::format("{} {} {}", n.left.format(), op, n.right.format());
    }
  }
  return {};
}

}  // namespace tesselune
