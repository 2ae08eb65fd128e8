// Value and Uuid: equality across number kinds, sets, hashing consistency, lookups and descriptions.
#include "foundation/value.h"

#include <gtest/gtest.h>

#include <unordered_set>

namespace tesselune {
namespace {

class Thing : public Object {
 public:
  explicit Thing(int id) : id_(id) {}
  std::string className() const override { return "Thing"; }
  int id_;
};

// A class that compares by content, as NSString or NSNumber subclasses would.
class Tag : public Object {
 public:
  explicit Tag(std::string name) : name_(std::move(name)) {}
  std::string className() const override { return "Tag"; }
  bool isEqual(const Object& other) const override {
    auto* tag = dynamic_cast<const Tag*>(&other);
    return tag != nullptr && tag->name_ == name_;
  }
  std::size_t hash() const override { return std::hash<std::string>()(name_); }
  std::string name_;
};

TEST(ValueTest, NumbersCompareAcrossKindsAsNSNumberDoes) {
  EXPECT_EQ(Value(1), Value(1.0));
  EXPECT_EQ(Value(true), Value(1));
  EXPECT_EQ(Value(false), Value(0.0));
  EXPECT_NE(Value(1), Value(1.5));
  // Above 2^53 a double cannot tell neighbouring integers apart; equality must not pretend it can.
  EXPECT_NE(Value(9007199254740993LL), Value(9007199254740992.0));
  EXPECT_EQ(Value(9007199254740992LL), Value(9007199254740992.0));
  EXPECT_NE(Value(1), Value("1"));
  EXPECT_NE(Value(), Value(0));
  EXPECT_EQ(Value(), Value(nullptr));
}

TEST(ValueTest, EqualValuesHashAlike) {
  std::vector<std::pair<Value, Value>> pairs = {
      {Value(2), Value(2.0)},
      {Value(true), Value(1)},
      {Value::set({1, 2, 3}), Value::set({3, 2, 1})},
      {Value::dictionary({{"a", 1}, {"b", Value::array({"x"})}}),
       Value::dictionary({{"b", Value::array({"x"})}, {"a", 1.0}})},
      {Value(Value::array({1, 2}).setMutable()), Value::array({1, 2})},
  };
  for (const auto& [a, b] : pairs) {
    EXPECT_EQ(a, b) << a.description();
    EXPECT_EQ(a.hash(), b.hash()) << a.description();
  }
}

TEST(ValueTest, SetsDeduplicateByEqualityAndObjectsByIdentity) {
  auto first = std::make_shared<Thing>(1);
  auto twin = std::make_shared<Thing>(1);
  ValueSet set;
  EXPECT_TRUE(set.insert(first));
  EXPECT_FALSE(set.insert(first));
  EXPECT_TRUE(set.insert(twin));  // same content, other identity
  EXPECT_TRUE(set.insert(std::make_shared<Tag>("a")));
  EXPECT_FALSE(set.insert(std::make_shared<Tag>("a")));  // equal by the class's own isEqual
  EXPECT_TRUE(set.insert(1.0));
  EXPECT_FALSE(set.insert(1)) << "1 and 1.0 are the same member";
  EXPECT_FALSE(set.insert(true)) << "so are true and 1";
  EXPECT_EQ(set.size(), 4u);
  EXPECT_TRUE(set.erase(first));
  EXPECT_FALSE(set.contains(first));
  EXPECT_TRUE(set.contains(twin));
}

TEST(ValueTest, LargeSetsStayCorrectPastTheLinearLimit) {
  ValueSet set;
  for (int i = 0; i < 1000; ++i) ASSERT_TRUE(set.insert(Value(i)));
  for (int i = 0; i < 1000; ++i) ASSERT_FALSE(set.insert(Value(static_cast<double>(i))));
  for (int i = 0; i < 1000; i += 2) ASSERT_TRUE(set.erase(Value(i)));
  EXPECT_EQ(set.size(), 500u);
  EXPECT_TRUE(set.contains(Value(999)));
  EXPECT_FALSE(set.contains(Value(998)));
  ValueSet reversed;
  for (int i = 999; i >= 0; i -= 2) reversed.insert(Value(i));
  EXPECT_EQ(Value(set), Value(reversed));
  EXPECT_EQ(Value(set).hash(), Value(reversed).hash());
}

TEST(ValueTest, LookupsOnTheWrongTypeAnswerNull) {
  Value dict = Value::dictionary({{"a", Value::array({10, 20})}});
  EXPECT_EQ(dict["a"].at(1), Value(20));
  EXPECT_TRUE(dict["missing"].isNull());
  EXPECT_TRUE(dict["a"].at(5).isNull());
  EXPECT_TRUE(Value(3)["a"].isNull());
  EXPECT_EQ(Value("text").integerValue(7), 7);
  EXPECT_EQ(Value(2.9).integerValue(), 2);
  EXPECT_EQ(Value(1e300).integerValue(), INT64_MAX);
}

TEST(ValueTest, DescriptionIsReadableAndEscapesStrings) {
  Value v = Value::dictionary({{"name", "a\"b\n"},
                               {"data", Value::data("\x01\x02\x03\x04\x05")},
                               {"list", Value::array({nullptr, true, 1.5})}});
  EXPECT_EQ(v.description(), R"({"data": <01020304 05>, "list": [nil, true, 1.5], "name": "a\"b\n"})");
  EXPECT_EQ(Value(Date{0}).description(), "2001-01-01T00:00:00.000Z");
}

TEST(ValueTest, ObjectsOfAGivenClassAreReachable) {
  auto thing = std::make_shared<Thing>(7);
  Value v(thing);
  ASSERT_TRUE(v.isObject());
  EXPECT_EQ(v.asObjectOf<Thing>()->id_, 7);
  EXPECT_EQ(v.asObjectOf<Tag>(), nullptr);
  EXPECT_TRUE(Value(std::shared_ptr<Thing>()).isNull());
}

TEST(UuidTest, ParsesEitherCaseAndPrintsUpperCase) {
  auto uuid = Uuid::parse("0ad863ba-7584-40cf-8896-bd87b3280c34");
  ASSERT_TRUE(uuid);
  EXPECT_EQ(uuid->string(), "0AD863BA-7584-40CF-8896-BD87B3280C34");
  EXPECT_EQ(uuid->bytes()[0], 0x0A);
  EXPECT_EQ(uuid->bytes()[15], 0x34);
  for (const char* bad : {"", "0AD863BA7584-40CF-8896-BD87B3280C34-", "0AD863BA-7584-40CF-8896-BD87B3280C3G",
                          "0AD863BA-7584-40CF-8896_BD87B3280C34", "0AD863BA-7584-40CF-8896-BD87B3280C345"}) {
    EXPECT_FALSE(Uuid::parse(bad)) << bad;
  }
}

TEST(UuidTest, RandomUuidsAreVersionFourAndDistinct) {
  std::unordered_set<Uuid> seen;
  for (int i = 0; i < 1000; ++i) {
    Uuid u = Uuid::random();
    EXPECT_EQ(u.bytes()[6] >> 4, 4);
    EXPECT_EQ(u.bytes()[8] >> 6, 2);
    EXPECT_TRUE(seen.insert(u).second);
    EXPECT_EQ(Uuid::parse(u.string()), u);
  }
}

}  // namespace
}  // namespace tesselune
