// Predicates: parsing with Foundation's precedence and arguments, evaluation on dictionaries and
// objects, string operators, collections (ANY/ALL/NONE, IN, BETWEEN, @count, SUBQUERY),
// substitution, printing that parses back, and syntax errors that point at the column.

#include "foundation/predicate.h"

#include <gtest/gtest.h>

#include <clocale>
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

TEST(Predicate, StringOperatorsFoldAndMatchWholeStrings) {
  const Value d = Value::dictionary({{"s", "Straße Café"}, {"e", ""}, {"n", 5}, {"star", "a*b"}});
  for (std::string_view yes :
       {"s BEGINSWITH 'Stra'", "s BEGINSWITH[c] 'STRASSE'", "s ENDSWITH[cd] 'CAFE'", "s CONTAINS 'ße C'",
        "s LIKE 'Str*'", "s LIKE '?traße*'", "s LIKE[cd] 'strasse cafe'", "star LIKE 'a\\\\*b'",
        "s MATCHES 'Stra.e .*'", "s MATCHES[c] 'strasse caf.'", "s MATCHES[cd] '.*cafe'", "'Café' IN s",
        "s IN 'x Straße Café y'"}) {
    EXPECT_TRUE(evaluate(yes, d)) << yes;
  }
  for (std::string_view no : {"s BEGINSWITH 'stra'", "s ENDSWITH 'Cafe'", "s CONTAINS ''", "e BEGINSWITH ''",
                              "s LIKE 'Str'", "star LIKE 'a\\\\*'", "s MATCHES 'Café'", "s MATCHES 'Straße'",
                              "n BEGINSWITH '5'", "missing CONTAINS 'a'"}) {
    EXPECT_FALSE(evaluate(no, d)) << no;
  }
}

TEST(Predicate, EvaluatesCollectionsCountsAndSubqueries) {
  const Value kid1 = Value::dictionary({{"name", "Ann"}, {"age", 4}, {"toys", Value::array({"ball"})}});
  const Value kid2 = Value::dictionary({{"name", "Bob"}, {"age", 9}, {"toys", Value::array({"kite", "yo"})}});
  const Value family = Value::dictionary({{"kids", Value::set({kid1, kid2})},
                                          {"nobody", Value::array({})},
                                          {"age", 7},
                                          {"born", Date{100}},
                                          {"tag", Value()}});
  for (std::string_view yes : {"ANY kids.age > 8",
                               "SOME kids.name BEGINSWITH 'A'",
                               "ALL kids.age < 10",
                               "NONE kids.age > 9",
                               "ALL nobody.age > 100",
                               "NONE nobody.age > 0",
                               "kids.@count == 2",
                               "nobody.@count == 0",
                               "ANY kids.toys == 'yo'",
                               "kids.toys.@count == 3",
                               "age IN {1, 7}",
                               "tag IN {1, nil}",
                               "age BETWEEN {7, 7}",
                               "born BETWEEN %@",
                               "kids.name CONTAINS 'Bob'",
                               "'Ann' IN kids.name",
                               "SUBQUERY(kids, $k, $k.age > 3).@count == 2",
                               "SUBQUERY(kids, $k, $k.age > $SELF_AGE).@count == 1",
                               "SUBQUERY(kids, $k, ANY $k.toys BEGINSWITH 'k').@count == 1",
                               "ANY kids.name IN {'Bob', 'Eve'}"}) {
    const Dictionary variables = {{"SELF_AGE", 7}};
    auto p = predicateWithFormat(yes, {Value::array({Date{0}, Date{200}})});
    ASSERT_TRUE(p) << yes << ": " << p.error().localizedDescription();
    EXPECT_TRUE(p->evaluateWithObject(family, &variables)) << yes;
  }
  for (std::string_view no :
       {"ANY nobody.age > 0", "ALL kids.age > 5", "ANY kids.age > 9", "age IN {}", "age BETWEEN {8, 9}",
        "tag BETWEEN {1, 2}", "kids.@count > 2", "SUBQUERY(kids, $k, $k.name == 'Eve').@count > 0",
        "kids.name CONTAINS 'Eve'"}) {
    EXPECT_FALSE(evaluate(no, family)) << no;
  }
}

TEST(Predicate, PrintsAndParsesTheCollectionForms) {
  for (std::string_view format :
       {"name BEGINSWITH[c] \"a\"", "name ENDSWITH \"z\"", "name CONTAINS[cd] \"é\"", "name LIKE \"a?*\"",
        "name MATCHES \"[a-z]+\"", "ANY kids.name == \"x\"", "ALL kids.age > 3", "NOT ANY kids.age > 3",
        "x IN {1, 2, 3}", "x IN {1, $v}", "x BETWEEN {1, 5}", "kids.@count >= 2", "$k.name == 1",
        "SUBQUERY(kids, $k, $k.age > 3 AND $k.name MATCHES \".*\").@count > 0", "x IN {}"}) {
    const Predicate p = parse(format);
    EXPECT_EQ(p.predicateFormat(), format);
    auto again = predicateWithFormat(p.predicateFormat());
    ASSERT_TRUE(again) << p.predicateFormat();
    EXPECT_EQ(*again, p) << format;
  }
  EXPECT_EQ(parse("NONE kids.age > 3"), parse("NOT ANY kids.age > 3"));
  EXPECT_EQ(parse("some kids.age > 3"), parse("ANY kids.age > 3"));
  EXPECT_EQ(parse("x between %@", {Value::array({1, 2})}), parse("x BETWEEN {1, 2}"));
}

TEST(Predicate, SubstitutesAroundTheVariablesASubqueryBinds) {
  const Predicate p = parse("SUBQUERY(kids, $k, $k.age > $min).@count > 0 AND x IN {$a, 2}");
  auto bound = p.predicateWithSubstitutionVariables({{"min", 3}, {"a", 1}});
  ASSERT_TRUE(bound) << bound.error().debugDescription();
  EXPECT_EQ(bound->predicateFormat(), "SUBQUERY(kids, $k, $k.age > 3).@count > 0 AND x IN {1, 2}");
  auto missing = p.predicateWithSubstitutionVariables({{"a", 1}});
  ASSERT_FALSE(missing);
  EXPECT_NE(missing.error().localizedDescription().find("$min"), std::string::npos);
}

TEST(Predicate, PointsAtTheColumnOfCollectionSyntaxErrors) {
  const std::vector<std::pair<std::string_view, std::size_t>> cases = {
      {"a BETWEEN {1}", 11},
      {"a BETWEEN 3", 11},
      {"a MATCHES '(x'", 11},
      {"a IN {1, 2", 11},
      {"SUBQUERY(k, x, x == 1).@count == 1", 13},
      {"ANY == 1", 5},
      {"a BEGINSWITH", 13},
      {"SUBQUERY(k, $x, $x == 1", 24},
      {"a.@ == 1", 3},
      {"a == 1 LIKE 2", 8},
  };
  for (const auto& [format, column] : cases) {
    auto p = predicateWithFormat(format);
    ASSERT_FALSE(p) << format;
    EXPECT_NE(p.error().localizedDescription().find("column " + std::to_string(column) + ":"),
              std::string::npos)
        << format << " -> " << p.error().localizedDescription();
  }
}

// Numbers read the same whatever the process's locale says about decimal separators.
TEST(Predicate, ReadsNumbersWithoutTheLocale) {
  const char* previous = std::setlocale(LC_NUMERIC, nullptr);
  const std::string saved = previous != nullptr ? previous : "C";
  for (const char* locale : {"de_DE.UTF-8", "fr_FR.UTF-8", "C"}) {
    if (std::setlocale(LC_NUMERIC, locale) == nullptr) continue;
    const Predicate p = parse("x == 1.5 AND y == 2e3");
    EXPECT_EQ(p.subpredicates().at(0).rightExpression().constantValue(), Value(1.5)) << locale;
    EXPECT_EQ(p.subpredicates().at(1).rightExpression().constantValue(), Value(2000.0)) << locale;
  }
  std::setlocale(LC_NUMERIC, saved.c_str());
}

}  // namespace
}  // namespace tesselune
