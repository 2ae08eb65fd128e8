// The predicate format-string parser: a tokenizer that remembers columns, and a recursive-descent
// parser whose depth is bounded so that hostile input cannot exhaust the stack.

#include <fmt/format.h>

#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <optional>

#include "foundation/predicate.h"
#include "foundation/string_comparison.h"

namespace tesselune {

namespace {

constexpr std::size_t kMaxNesting = 256;

enum class TokenKind {
  End,
  Identifier,  // a key or a keyword; dots between keys are separate tokens
  Number,
  String,
  Variable,  // $name
  Argument,  // %@, %K, %d, %i, %f, %s
  Operator,  // == != < > <= >= (as written)
  Modifier,  // [c], [d], [cd]
  And,       // &&
  Or,        // ||
  Bang,      // !
  Minus,
  Dot,
  LeftParen,
  RightParen,
  LeftBrace,
  RightBrace,
  Comma,
};

struct Token {
  TokenKind kind = TokenKind::End;
  std::string text;  // identifier, string contents, number text, operator, argument letter
  std::size_t column = 1;
};

bool isIdentifierStart(char c) {
  return std::isalpha(static_cast<unsigned char>(c)) || c == '_';
}
bool isIdentifierPart(char c) {
  return isIdentifierStart(c) || std::isdigit(static_cast<unsigned char>(c));
}

bool keywordIs(const Token& t, std::string_view word) {
  if (t.kind != TokenKind::Identifier || t.text.size() != word.size()) return false;
  for (std::size_t i = 0; i < word.size(); ++i) {
    if (std::toupper(static_cast<unsigned char>(t.text[i])) != word[i]) return false;
  }
  return true;
}

class Parser {
 public:
  Parser(std::string_view format, std::vector<Value> arguments)
      : format_(format), arguments_(std::move(arguments)) {}

  Expected<Predicate> parse() {
    if (auto s = tokenize(); !s) return fail(s.error());
    auto predicate = parseOr(0);
    if (!predicate) return predicate;
    if (peek().kind != TokenKind::End) return error(peek(), "unexpected text after the predicate");
    return predicate;
  }

 private:
  std::unexpected<Error> error(std::size_t column, std::string_view why) const {
    return fail(Error(
        std::string(kCocoaErrorDomain), kPredicateFormatError,
        fmt::format("Unable to parse the format string \"{}\" at column {}: {}", format_, column, why)));
  }
  std::unexpected<Error> error(const Token& t, std::string_view why) const { return error(t.column, why); }

  Status tokenize() {
    std::size_t i = 0;
    auto push = [&](TokenKind kind, std::string text, std::size_t start) {
      tokens_.push_back(Token{kind, std::move(text), start + 1});
    };
    while (i < format_.size()) {
      const char c = format_[i];
      const std::size_t start = i;
      if (std::isspace(static_cast<unsigned char>(c))) {
        ++i;
      } else if (isIdentifierStart(c)) {
        while (i < format_.size() && isIdentifierPart(format_[i])) ++i;
        push(TokenKind::Identifier, std::string(format_.substr(start, i - start)), start);
      } else if (std::isdigit(static_cast<unsigned char>(c))) {
        while (i < format_.size() &&
               (std::isdigit(static_cast<unsigned char>(format_[i])) || format_[i] == '.'))
          ++i;
        if (i < format_.size() && (format_[i] == 'e' || format_[i] == 'E')) {
          std::size_t j = i + 1;
          if (j < format_.size() && (format_[j] == '+' || format_[j] == '-')) ++j;
          if (j < format_.size() && std::isdigit(static_cast<unsigned char>(format_[j]))) {
            i = j;
            while (i < format_.size() && std::isdigit(static_cast<unsigned char>(format_[i]))) ++i;
          }
        }
        push(TokenKind::Number, std::string(format_.substr(start, i - start)), start);
      } else if (c == '"' || c == '\'') {
        std::string text;
        ++i;
        for (;;) {
          if (i >= format_.size()) return fail(error(start + 1, "unterminated string").error());
          if (format_[i] == c) break;
          if (format_[i] == '\\' && i + 1 < format_.size()) {
            const char e = format_[++i];
            text.push_back(e == 'n' ? '\n' : e == 't' ? '\t' : e == 'r' ? '\r' : e);
          } else {
            text.push_back(format_[i]);
          }
          ++i;
        }
        ++i;
        push(TokenKind::String, std::move(text), start);
      } else if (c == '@' && i + 1 < format_.size() && isIdentifierStart(format_[i + 1])) {
        ++i;  // a collection operator such as @count, a key of its own
        while (i < format_.size() && isIdentifierPart(format_[i])) ++i;
        push(TokenKind::Identifier, std::string(format_.substr(start, i - start)), start);
      } else if (c == '$') {
        ++i;
        while (i < format_.size() && isIdentifierPart(format_[i])) ++i;
        if (i == start + 1) return fail(error(start + 1, "a variable needs a name").error());
        push(TokenKind::Variable, std::string(format_.substr(start + 1, i - start - 1)), start);
      } else if (c == '%') {
        if (i + 1 >= format_.size() ||
            std::string_view("@KdifsS").find(format_[i + 1]) == std::string_view::npos) {
          return fail(error(start + 1, "unknown format argument").error());
        }
        push(TokenKind::Argument, std::string(1, format_[i + 1]), start);
        i += 2;
      } else if (c == '[') {
        const std::size_t close = format_.find(']', i);
        const std::string_view inside =
            close == std::string_view::npos ? "" : format_.substr(i + 1, close - i - 1);
        if (inside != "c" && inside != "d" && inside != "cd" && inside != "dc") {
          return fail(error(start + 1, "unknown comparison modifier").error());
        }
        push(TokenKind::Modifier, std::string(inside), start);
        i = close + 1;
      } else {
        static constexpr std::string_view kOperators[] = {"==", "!=", "<>", "<=", ">=", "=<", "=>",
                                                          "&&", "||", "=",  "<",  ">",  "!",  "(",
                                                          ")",  "-",  ".",  "{",  "}",  ","};
        bool matched = false;
        for (std::string_view op : kOperators) {
          if (format_.substr(i, op.size()) != op) continue;
          TokenKind kind = TokenKind::Operator;
          if (op == "&&") kind = TokenKind::And;
          if (op == "||") kind = TokenKind::Or;
          if (op == "!") kind = TokenKind::Bang;
          if (op == "(") kind = TokenKind::LeftParen;
          if (op == ")") kind = TokenKind::RightParen;
          if (op == "-") kind = TokenKind::Minus;
          if (op == ".") kind = TokenKind::Dot;
          if (op == "{") kind = TokenKind::LeftBrace;
          if (op == "}") kind = TokenKind::RightBrace;
          if (op == ",") kind = TokenKind::Comma;
          push(kind, std::string(op), start);
          i += op.size();
          matched = true;
          break;
        }
        if (!matched) return fail(error(start + 1, fmt::format("unexpected character '{}'", c)).error());
      }
    }
    tokens_.push_back(Token{TokenKind::End, "", format_.size() + 1});
    return {};
  }

  const Token& peek() const { return tokens_[position_]; }
  const Token& take() { return tokens_[position_ < tokens_.size() - 1 ? position_++ : position_]; }

  Expected<Predicate> parseOr(std::size_t depth) {
    std::vector<Predicate> parts;
    for (;;) {
      auto part = parseAnd(depth);
      if (!part) return part;
      parts.push_back(std::move(*part));
      if (peek().kind != TokenKind::Or && !keywordIs(peek(), "OR")) break;
      take();
    }
    return parts.size() == 1 ? std::move(parts.front()) : Predicate::orPredicate(std::move(parts));
  }

  Expected<Predicate> parseAnd(std::size_t depth) {
    std::vector<Predicate> parts;
    for (;;) {
      auto part = parseNot(depth);
      if (!part) return part;
      parts.push_back(std::move(*part));
      if (peek().kind != TokenKind::And && !keywordIs(peek(), "AND")) break;
      take();
    }
    return parts.size() == 1 ? std::move(parts.front()) : Predicate::andPredicate(std::move(parts));
  }

  Expected<Predicate> parseNot(std::size_t depth) {
    if (depth >= kMaxNesting) return error(peek(), "nesting too deep");
    if (peek().kind == TokenKind::Bang || keywordIs(peek(), "NOT")) {
      take();
      auto inner = parseNot(depth + 1);
      if (!inner) return inner;
      return Predicate::notPredicate(std::move(*inner));
    }
    if (peek().kind == TokenKind::LeftParen) {
      take();
      auto inner = parseOr(depth + 1);
      if (!inner) return inner;
      if (peek().kind != TokenKind::RightParen) return error(peek(), "expected ')'");
      take();
      return inner;
    }
    if (keywordIs(peek(), "TRUEPREDICATE") || keywordIs(peek(), "FALSEPREDICATE")) {
      const bool value = keywordIs(take(), "TRUEPREDICATE");
      return value ? Predicate::truePredicate() : Predicate::falsePredicate();
    }
    return parseComparison(depth);
  }

  Expected<Predicate> parseComparison(std::size_t depth) {
    ComparisonModifier modifier = ComparisonModifier::Direct;
    bool none = false;
    if (keywordIs(peek(), "ANY") || keywordIs(peek(), "SOME")) {
      modifier = ComparisonModifier::Any;
    } else if (keywordIs(peek(), "ALL")) {
      modifier = ComparisonModifier::All;
    } else if (keywordIs(peek(), "NONE")) {
      modifier = ComparisonModifier::Any;
      none = true;
    }
    if (modifier != ComparisonModifier::Direct) take();
    auto left = parseExpression(depth);
    if (!left) return fail(left.error());
    const Token opToken = peek();
    static constexpr std::pair<std::string_view, ComparisonOperator> kWords[] = {
        {"BEGINSWITH", ComparisonOperator::BeginsWith}, {"ENDSWITH", ComparisonOperator::EndsWith},
        {"CONTAINS", ComparisonOperator::Contains},     {"LIKE", ComparisonOperator::Like},
        {"MATCHES", ComparisonOperator::Matches},       {"IN", ComparisonOperator::In},
        {"BETWEEN", ComparisonOperator::Between}};
    std::optional<ComparisonOperator> word;
    for (const auto& [name, value] : kWords) {
      if (keywordIs(opToken, name)) word = value;
    }
    if (opToken.kind != TokenKind::Operator && !word) return error(opToken, "expected a comparison operator");
    take();
    ComparisonOperator op{};
    const std::string& o = opToken.text;
    if (word) {
      op = *word;
    } else if (o == "==" || o == "=") {
      op = ComparisonOperator::EqualTo;
    } else if (o == "!=" || o == "<>") {
      op = ComparisonOperator::NotEqualTo;
    } else if (o == "<") {
      op = ComparisonOperator::LessThan;
    } else if (o == "<=" || o == "=<") {
      op = ComparisonOperator::LessThanOrEqualTo;
    } else if (o == ">") {
      op = ComparisonOperator::GreaterThan;
    } else {
      op = ComparisonOperator::GreaterThanOrEqualTo;
    }
    unsigned options = 0;
    if (peek().kind == TokenKind::Modifier) {
      const std::string& m = take().text;
      if (m.find('c') != std::string::npos) options |= kCaseInsensitive;
      if (m.find('d') != std::string::npos) options |= kDiacriticInsensitive;
    }
    const Token rightToken = peek();
    auto right = parseExpression(depth);
    if (!right) return fail(right.error());
    if (right->kind() == Expression::Kind::Constant) {
      const Value& constant = right->constantValue();
      if (op == ComparisonOperator::Matches && constant.isString()) {
        if (auto compiled = RegularExpression::compile(constant.asString(), options); !compiled)
          return error(rightToken, compiled.error().localizedDescription());
      }
      if (op == ComparisonOperator::Between &&
          !((constant.isArray() || constant.isSet()) && constant.count() == 2))
        return error(rightToken, "BETWEEN needs a list of two values, as {1, 5}");
    }
    if (op == ComparisonOperator::Between && right->kind() == Expression::Kind::Aggregate &&
        right->elements().size() != 2)
      return error(rightToken, "BETWEEN needs a list of two values, as {1, 5}");
    auto comparison = Predicate::comparison(std::move(*left), op, std::move(*right), options, modifier);
    return none ? Predicate::notPredicate(std::move(comparison)) : comparison;
  }

  Expected<Value> nextArgument(const Token& t) {
    if (nextArgument_ >= arguments_.size()) return error(t, "not enough arguments for the format");
    return arguments_[nextArgument_++];
  }

  Expected<Expression> parseExpression(std::size_t depth) {
    if (depth >= kMaxNesting) return error(peek(), "nesting too deep");
    const Token t = take();
    switch (t.kind) {
      case TokenKind::LeftBrace: {
        std::vector<Expression> elements;
        bool constant = true;
        if (peek().kind != TokenKind::RightBrace) {
          for (;;) {
            auto element = parseExpression(depth + 1);
            if (!element) return element;
            constant = constant && element->kind() == Expression::Kind::Constant;
            elements.push_back(std::move(*element));
            if (peek().kind != TokenKind::Comma) break;
            take();
          }
        }
        if (peek().kind != TokenKind::RightBrace) return error(peek(), "expected ',' or '}' in a list");
        take();
        if (!constant) return Expression::aggregate(std::move(elements));
        Array values;
        for (const Expression& e : elements) values.push_back(e.constantValue());
        return Expression::constant(Value(std::move(values)));
      }
      case TokenKind::Minus: {
        if (peek().kind != TokenKind::Number) return error(t, "expected a number after '-'");
        auto n = number(take());
        if (!n) return fail(n.error());
        return Expression::constant(n->isInteger() ? Value(-n->asInteger()) : Value(-n->asDouble()));
      }
      case TokenKind::Number: {
        auto n = number(t);
        if (!n) return fail(n.error());
        return Expression::constant(std::move(*n));
      }
      case TokenKind::String:
        return Expression::constant(Value(t.text));
      case TokenKind::Variable: {
        auto path = keysAfter("$" + t.text);
        if (!path) return fail(path.error());
        if (*path == "$" + t.text) return Expression::variable(t.text);
        return Expression::keyPath(std::move(*path));
      }
      case TokenKind::Argument: {
        auto argument = nextArgument(t);
        if (!argument) return fail(argument.error());
        const char letter = t.text[0];
        if (letter == 'K') {
          if (!argument->isString() || argument->asString().empty())
            return error(t, "%K needs a key path string");
          return Expression::keyPath(argument->asString());
        }
        if ((letter == 'd' || letter == 'i') && !argument->isNumber()) return error(t, "%d needs a number");
        if (letter == 'd' || letter == 'i') return Expression::constant(Value(argument->integerValue()));
        if (letter == 'f' && !argument->isNumber()) return error(t, "%f needs a number");
        if (letter == 'f') return Expression::constant(Value(argument->doubleValue()));
        if ((letter == 's' || letter == 'S') && !argument->isString()) return error(t, "%s needs a string");
        return Expression::constant(std::move(*argument));
      }
      case TokenKind::Identifier: {
        if (keywordIs(t, "TRUE") || keywordIs(t, "YES")) return Expression::constant(Value(true));
        if (keywordIs(t, "FALSE") || keywordIs(t, "NO")) return Expression::constant(Value(false));
        if (keywordIs(t, "NIL") || keywordIs(t, "NULL")) return Expression::constant(Value());
        if (keywordIs(t, "SUBQUERY")) return parseSubquery(t, depth);
        static constexpr std::string_view kReserved[] = {
            "AND",  "OR",      "NOT",  "TRUEPREDICATE", "FALSEPREDICATE", "ANY",
            "SOME", "ALL",     "NONE", "BEGINSWITH",    "ENDSWITH",       "CONTAINS",
            "LIKE", "MATCHES", "IN",   "BETWEEN"};
        for (std::string_view word : kReserved) {
          if (keywordIs(t, word)) return error(t, fmt::format("expected an operand, found {}", word));
        }
        const bool self = keywordIs(t, "SELF");
        auto path = keysAfter(self ? "" : t.text);
        if (!path) return fail(path.error());
        if (self && path->empty()) return Expression::self();
        return Expression::keyPath(std::move(*path));
      }
      default:
        return error(t,
                     t.kind == TokenKind::End ? "expected an operand, found the end" : "expected an operand");
    }
  }

  // `path` extended by the keys that follow it after dots.
  Expected<std::string> keysAfter(std::string path) {
    while (peek().kind == TokenKind::Dot) {
      take();
      const Token& key = take();
      if (key.kind != TokenKind::Identifier) return error(key, "expected a key after '.'");
      if (!path.empty()) path += '.';
      path += key.text;
    }
    return path;
  }

  // SUBQUERY(collection, $variable, predicate), then any keys after it (".@count").
  Expected<Expression> parseSubquery(const Token& keyword, std::size_t depth) {
    if (peek().kind != TokenKind::LeftParen) return error(peek(), "expected '(' after SUBQUERY");
    take();
    auto collection = parseExpression(depth + 1);
    if (!collection) return collection;
    if (collection->kind() != Expression::Kind::KeyPath && collection->kind() != Expression::Kind::Variable &&
        collection->kind() != Expression::Kind::Subquery)
      return error(keyword, "a SUBQUERY runs over a key path");
    if (peek().kind != TokenKind::Comma) return error(peek(), "expected ',' after the SUBQUERY's collection");
    take();
    const Token variable = take();
    if (variable.kind != TokenKind::Variable) return error(variable, "expected the SUBQUERY's $variable");
    if (peek().kind != TokenKind::Comma) return error(peek(), "expected ',' after the SUBQUERY's variable");
    take();
    auto predicate = parseOr(depth + 1);
    if (!predicate) return fail(predicate.error());
    if (peek().kind != TokenKind::RightParen) return error(peek(), "expected ')' to close the SUBQUERY");
    take();
    auto path = keysAfter("");
    if (!path) return fail(path.error());
    return Expression::subquery(std::move(*collection), variable.text, std::move(*predicate),
                                std::move(*path));
  }

  Expected<Value> number(const Token& t) {
    const std::string& s = t.text;
    const bool real = s.find_first_of(".eE") != std::string::npos;
    if (!real) {
      std::int64_t v = 0;
      auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
      if (ec == std::errc() && end == s.data() + s.size()) return Value(v);
      // Too large for 64 bits: as a double, as Foundation reads it.
    }
    // from_chars reads the same digits whatever the process's locale.
    double d = 0;
    auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), d);
    if (ec == std::errc::result_out_of_range) return error(t, "number out of range");
    if (ec != std::errc() || end != s.data() + s.size()) return error(t, "malformed number");
    if (!std::isfinite(d)) return error(t, "number out of range");
    return Value(d);
  }

  std::string_view format_;
  std::vector<Value> arguments_;
  std::size_t nextArgument_ = 0;
  std::vector<Token> tokens_;
  std::size_t position_ = 0;
};

}  // namespace

Expected<Predicate> predicateWithFormat(std::string_view format, std::vector<Value> arguments) {
  return Parser(format, std::move(arguments)).parse();
}

}  // namespace tesselune
