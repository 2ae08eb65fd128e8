// Predicates: parsing with Foundation's precedence and arguments, evaluation on dictionaries and
// objects, substitution, printing that parses back, and syntax errors that point at the column.

#include "foundation/predicate.h"

#include <gtest/gtest.h>

#include <cmath>

#include "decimal_comma_locale.h"
#include "foundation/number_text.h"

namespace tesselune {
namespace {

Predicate parse(std::string_view format, std::vector<Value> arguments = {}) {
  auto p = predicateWithFormat(format, std::move(arguments));
  EXPECT_TRUE(p) << format << ": " << p.error().debugDescription();
  return p.value_or(Predicate::falsePredicate());
}

bool evaluate(std::string_view format, const Value& object, std::vector<Value> arguments = {}) {
  return parse(format, std::move(arguments)).evaluateWithObject(object);
}

// An object read through key-value coding, as managed objects are.
class Acquisition : public Object {
 public:
  std::string name;
  std::int64_t scans = 0;
  std::shared_ptr<Acquisition> parent;
  std::string className() const override { return "Acquisition"; }
  Value valueForKey(std::string_view key) const override {
    if (key == "name") return Value(name);
    if (key == "scans") return Value(scans);
    if (key == "parent") return parent ? Value(parent) : Value();
    return Value();
  }
};

TEST(Predicate, ParsesWithFoundationsPrecedence) {
  const Predicate p = parse("a == 1 OR b == 2 AND c == 3");
  ASSERT_EQ(p.kind(), Predicate::Kind::Or);
  ASSERT_EQ(p.subpredicates().size(), 2u);
  EXPECT_EQ(p.subpredicates()[1].kind(), Predicate::Kind::And);
  EXPECT_EQ(p.predicateFormat(), "a == 1 OR (b == 2 AND c == 3)");

  const Predicate q = parse("(a == 1 || b == 2) && !c == 3");
  ASSERT_EQ(q.kind(), Predicate::Kind::And);
  EXPECT_EQ(q.subpredicates()[0].kind(), Predicate::Kind::Or);
  EXPECT_EQ(q.subpredicates()[1].kind(), Predicate::Kind::Not);
  EXPECT_EQ(q.predicateFormat(), "(a == 1 OR b == 2) AND NOT c == 3");

  const Predicate c = parse("run.name =[cd] 'Épée'");
  EXPECT_EQ(c.leftExpression(), Expression::keyPath("run.name"));
  EXPECT_EQ(c.options(), kCaseInsensitive | kDiacriticInsensitive);
  EXPECT_EQ(c.rightExpression(), Expression::constant("Épée"));
}

TEST(Predicate, TakesArgumentsAndConstants) {
  const Predicate p = parse("%K == %@ AND x != nil AND y > -2.5e1 AND z <> TRUE AND SELF != %@",
                            {"destinedForDeletion", true, Value()});
  const auto& parts = p.subpredicates();
  ASSERT_EQ(parts.size(), 5u);
  EXPECT_EQ(parts[0].leftExpression(), Expression::keyPath("destinedForDeletion"));
  EXPECT_EQ(parts[0].rightExpression(), Expression::constant(true));
  EXPECT_EQ(parts[1].rightExpression(), Expression::constant(Value()));
  EXPECT_EQ(parts[2].rightExpression(), Expression::constant(-25.0));
  EXPECT_EQ(parts[3].comparisonOperator(), ComparisonOperator::NotEqualTo);
  EXPECT_EQ(parts[4].leftExpression(), Expression::self());
  // A string argument stays a constant, quotes and all.
  EXPECT_TRUE(evaluate("name == %@", Value::dictionary({{"name", "it's \"quoted\""}}), {"it's \"quoted\""}));
}

TEST(Predicate, EvaluatesByKeyPathOnDictionariesAndObjects) {
  auto root = std::make_shared<Acquisition>();
  root->name = "Root";
  auto run = std::make_shared<Acquisition>();
  run->name = "HeLa digest";
  run->scans = 41250;
  run->parent = root;
  const Value object(run);
  EXPECT_TRUE(evaluate("scans >= 41250 AND parent.name == 'Root'", object));
  EXPECT_TRUE(evaluate("name ==[c] 'hela DIGEST'", object));
  EXPECT_FALSE(evaluate("name == 'hela DIGEST'", object));
  EXPECT_TRUE(evaluate("parent.parent == nil", object));
  EXPECT_TRUE(evaluate("parent == %@", object, {Value(root)}));
  EXPECT_FALSE(evaluate("parent == %@", object, {Value(run)}));
  EXPECT_TRUE(evaluate("SELF == %@", object, {Value(run)}));
  // Orderings with nil or mismatched kinds are false both ways.
  EXPECT_FALSE(evaluate("missing < 1", object));
  EXPECT_FALSE(evaluate("missing >= 1", object));
  EXPECT_FALSE(evaluate("name > 3", object));

  const Value dict =
      Value::dictionary({{"flag", true}, {"n", 2}, {"x", 2.5}, {"d", Date{10}}, {"s", "Café"}});
  EXPECT_TRUE(evaluate("flag == 1 AND flag == YES", dict));
  EXPECT_TRUE(evaluate("n == 2.0 AND n < x AND x <= 2.5", dict));
  EXPECT_TRUE(evaluate("d > %@", dict, {Date{9}}));
  EXPECT_TRUE(evaluate("s ==[d] 'Cafe' AND s ==[cd] 'CAFE' AND NOT s == 'Cafe'", dict));
  // Bytes that are not UTF-8 are compared as they are, not read as letters.
  EXPECT_TRUE(evaluate("s ==[cd] %@",
                       Value::dictionary({{"s",
                                           "\xC3"
                                           "A"}}),
                       {"\xC3"
                        "a"}));
  EXPECT_FALSE(evaluate("s ==[cd] %@",
                        Value::dictionary({{"s",
                                            "\xC3"
                                            "A"}}),
                        {"a"}));
  EXPECT_TRUE(evaluate("TRUEPREDICATE", dict));
  EXPECT_FALSE(evaluate("FALSEPREDICATE OR n == 3", dict));
}

TEST(Predicate, SubstitutesVariables) {
  const Predicate p = parse("group == $GROUP AND score > $min");
  auto bound = p.predicateWithSubstitutionVariables({{"GROUP", "A"}, {"min", 10}});
  ASSERT_TRUE(bound);
  EXPECT_EQ(bound->predicateFormat(), "group == \"A\" AND score > 10");
  EXPECT_TRUE(bound->evaluateWithObject(Value::dictionary({{"group", "A"}, {"score", 11}})));

  auto missing = p.predicateWithSubstitutionVariables({{"GROUP", "A"}});
  ASSERT_FALSE(missing);
  EXPECT_NE(missing.error().localizedDescription().find("$min"), std::string::npos);

  // Unsubstituted, variables can come with the evaluation.
  const Dictionary variables{{"GROUP", "B"}, {"min", 0}};
  EXPECT_TRUE(p.evaluateWithObject(Value::dictionary({{"group", "B"}, {"score", 1}}), &variables));
}

TEST(Predicate, PrintsWhatParsesBack) {
  for (std::string_view format :
       {"name == \"a \\\"b\\\" \\\\ c\"", "a.b.c != nil", "SELF == 1", "x <= -3", "x >= 1.5",
        "NOT (a == 1 OR b == 2)", "NOT NOT a == 1", "a == 1 AND NOT (b == 2 AND c == 3)",
        "a ==[c] \"x\" AND b !=[cd] \"y\"", "TRUEPREDICATE", "(a < 1 AND b > 2) OR c == $v"}) {
    const Predicate p = parse(format);
    auto again = predicateWithFormat(p.predicateFormat());
    ASSERT_TRUE(again) << p.predicateFormat();
    EXPECT_EQ(*again, p) << format << " printed as " << p.predicateFormat();
  }
}

TEST(Predicate, PointsAtTheColumnOfASyntaxError) {
  const std::vector<std::pair<std::string_view, std::size_t>> cases = {
      {"a == ", 6},     {"a = = 1", 5},  {"a == 1 AND", 11}, {"(a == 1", 8},  {"a == 'open", 6}, {"a ~ 1", 3},
      {"a ==[x] 1", 5}, {"a == 1 b", 8}, {"1.2.3 == a", 1},  {"AND == 1", 1}, {"a == 1e999", 6},
  };
  for (const auto& [format, column] : cases) {
    auto p = predicateWithFormat(format);
    ASSERT_FALSE(p) << format;
    EXPECT_EQ(p.error().code(), kPredicateFormatError);
    EXPECT_NE(p.error().localizedDescription().find("column " + std::to_string(column) + ":"),
              std::string::npos)
        << format << " -> " << p.error().localizedDescription();
  }
  auto tooFew = predicateWithFormat("a == %@ AND b == %@", {1});
  ASSERT_FALSE(tooFew);
  EXPECT_NE(tooFew.error().localizedDescription().find("arguments"), std::string::npos);
  EXPECT_FALSE(predicateWithFormat("%K == 1", {2}));
}

TEST(Predicate, RejectsDeepNestingCleanly) {
  const std::string deep = std::string(100000, '(') + "a == 1" + std::string(100000, ')');
  auto p = predicateWithFormat(deep);
  ASSERT_FALSE(p);
  EXPECT_NE(p.error().localizedDescription().find("deep"), std::string::npos);
  const std::string nots = std::string(100000, '!') + "a == 1";
  EXPECT_FALSE(predicateWithFormat(nots));
  EXPECT_TRUE(predicateWithFormat(std::string(50, '(') + "a == 1" + std::string(50, ')')));
}

// Numbers in text read the same whatever the user's locale: a Qt application puts a decimal-comma
// locale in force for the C library.
TEST(NumbersInText, ReadWithAPointUnderADecimalCommaLocale) {
  test::DecimalCommaLocale locale;
  ASSERT_TRUE(locale.active()) << "no decimal-comma locale could be put in force";

  EXPECT_EQ(parseDouble("2.5"), 2.5);
  EXPECT_EQ(parseDouble("-1.25e-3"), -1.25e-3);
  EXPECT_EQ(parseDouble("17"), 17.0);
  for (std::string_view bad : {"2,5", "+2.5", " 2.5", "2.5 ", "", "inf", "nan", "1e999", "0x10"}) {
    EXPECT_FALSE(parseDouble(bad)) << bad;
  }

  EXPECT_EQ(leadingDoubleValue("  2.5 mg"), 2.5);
  EXPECT_EQ(leadingDoubleValue("+.5"), 0.5);
  EXPECT_EQ(leadingDoubleValue("-3.75e2x"), -375.0);
  EXPECT_EQ(leadingDoubleValue("2,5"), 2.0);
  EXPECT_EQ(leadingDoubleValue("inf"), 0.0);
  EXPECT_EQ(leadingDoubleValue("none"), 0.0);
  EXPECT_TRUE(std::isinf(leadingDoubleValue("-1e999")) && leadingDoubleValue("-1e999") < 0);
  EXPECT_EQ(leadingDoubleValue("1e-999"), 0.0);

  const Predicate p = parse("mz > 2.5 AND mz < 1.5e3");
  EXPECT_TRUE(p.evaluateWithObject(Value::dictionary({{"mz", Value(2.75)}})));
  EXPECT_FALSE(p.evaluateWithObject(Value::dictionary({{"mz", Value(2.25)}})));
  EXPECT_FALSE(predicateWithFormat("mz > 1e999", {}));
}

}  // namespace
}  // namespace tesselune
