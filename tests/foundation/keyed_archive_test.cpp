// Keyed archives: Apple-written archives decode to their documented values, ours have macOS's
// structure and read back identically, classes of our own code themselves, and malformed or
// hostile archives fail with an Error.

#include <gtest/gtest.h>

#include <bit>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>

#include "fixtures.h"
#include "foundation/attributed_string.h"
#include "foundation/keyed_archiver.h"
#include "foundation/keyed_unarchiver.h"
#include "foundation/property_list.h"

namespace tesselune {
namespace {

Bytes archiveFixture(const std::string& path) {
  return test::readFixture("keyedarchive/" + path);
}

Value decodeFixture(const std::string& path) {
  auto v = KeyedUnarchiver::unarchiveTopLevelObjectWithData(archiveFixture(path));
  EXPECT_TRUE(v) << path << ": " << v.error().debugDescription();
  return v.value_or(Value());
}

// The unkeyed "$0", "$1", ... values of an archive.
Array decodeUnkeyed(const Bytes& data, std::size_t count) {
  auto unarchiver = KeyedUnarchiver::create(data, false);
  EXPECT_TRUE(unarchiver) << unarchiver.error().debugDescription();
  Array values;
  for (std::size_t i = 0; i < count; ++i) values.push_back((*unarchiver)->decodeObject());
  EXPECT_FALSE((*unarchiver)->error()) << (*unarchiver)->error()->debugDescription();
  return values;
}

Url url(const char* relative, const char* base) {
  return *Url::parse(relative, *Url::parse(base));
}

// The value of NSKeyedUnarchiver-ComplexTest.plist.
Value complexValue() {
  return Value::dictionary({
      {"uuid", *Uuid::parse("71DC068E-3420-45FF-919E-3A267D55EC22")},
      {"url", url("index.xml", "https://www.swift.org")},
      {"string", "hello"},
      {"array", Value::array({Value(), "hello", 34545, Value::dictionary({{"key", "val"}})})},
  });
}

TEST(KeyedUnarchiver, DecodesFoundationFixtures) {
  EXPECT_EQ(decodeFixture("foundation/NSKeyedUnarchiver-ArrayTest.plist"),
            Value::array({"baa", "baa", "black", "sheep"}));
  EXPECT_EQ(decodeFixture("foundation/NSKeyedUnarchiver-UUIDTest.plist"),
            Value(*Uuid::parse("0AD863BA-7584-40CF-8896-BD87B3280C34")));

  Value u = decodeFixture("foundation/NSKeyedUnarchiver-URLTest.plist");
  ASSERT_TRUE(u.isUrl());
  EXPECT_EQ(u.asUrl().relativeString(), "foo.xml");
  ASSERT_NE(u.asUrl().baseUrl(), nullptr);
  EXPECT_EQ(u.asUrl().absoluteString(), "https://www.example.com/foo.xml");

  EXPECT_EQ(decodeFixture("foundation/NSKeyedUnarchiver-ComplexTest.plist"), complexValue());
  EXPECT_EQ(decodeFixture("foundation/NSKeyedUnarchiver-OrderedSetTest.plist"),
            Value::array({"valgeir", "nico", "puzzle"}));

  Value set = decodeFixture("foundation/Fixtures/macOS-10.14/NSSet-Numbers.archive");
  EXPECT_EQ(set, Value::set({1, 2, 3, 4, 5}));
  EXPECT_FALSE(set.isMutable());
  Value mutableSet = decodeFixture("foundation/Fixtures/macOS-10.14/NSMutableSet-Numbers.archive");
  EXPECT_EQ(mutableSet, Value::set({1, 2, 3, 4, 5}));
  EXPECT_TRUE(mutableSet.isMutable());
  EXPECT_EQ(decodeFixture("foundation/Fixtures/macOS-10.14/NSSet-Empty.archive"), Value::set({}));
}

TEST(KeyedUnarchiver, DecodesTheFoundationClassesItKnowsAndRefusesTheRest) {
  const std::string folder =
      std::string(TESSELUNE_FIXTURES_DIR) + "/keyedarchive/foundation/Fixtures/macOS-10.14";
  std::size_t decoded = 0;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    const std::string name = entry.path().filename().string();
    auto value = KeyedUnarchiver::unarchiveTopLevelObjectWithData(
        archiveFixture("foundation/Fixtures/macOS-10.14/" + name));
    const bool known = name.starts_with("NSSet") || name.starts_with("NSMutableSet") ||
                       name.starts_with("NSOrderedSet") || name.starts_with("NSMutableOrderedSet") ||
                       name.find("AttributedString") != std::string::npos;
    if (known) {
      EXPECT_TRUE(value) << name << ": " << value.error().debugDescription();
      decoded += value.has_value();
    } else {
      ASSERT_FALSE(value) << name << " gave " << *value;
      EXPECT_EQ(value.error().code(), kCoderReadCorruptError) << name;
    }
  }
  EXPECT_EQ(decoded, 10u);
  EXPECT_EQ(decodeFixture("foundation/Fixtures/macOS-10.14/NSMutableOrderedSet-Numbers.archive"),
            Value::array({1, 2, 3, 4, 5}));
  EXPECT_EQ(decodeFixture("foundation/Fixtures/macOS-10.14/NSMutableAttributedString.archive")
                .asObject()
                ->className(),
            "NSMutableAttributedString");
}

TEST(KeyedUnarchiver, DecodesAttributedStringRuns) {
  auto s = decodeFixture("foundation/Fixtures/macOS-10.14/NSAttributedString.archive")
               .asObjectOf<AttributedString>();
  ASSERT_TRUE(s);
  EXPECT_EQ(s->string(), "0123456789");
  const Dictionary none;
  const Dictionary helvetica{{"Font", "Helvetica"}, {"Size", 123}};
  const Dictionary times{{"Font", "Times"}, {"Size", 456}};
  const std::vector<AttributedString::Run> runs = {{1, none},      {1, helvetica}, {4, times},
                                                   {2, helvetica}, {1, times},     {1, none}};
  EXPECT_EQ(s->runs(), runs);

  auto again = KeyedArchiver::archivedDataWithRootObject(Value(s));
  ASSERT_TRUE(again);
  auto back = KeyedUnarchiver::unarchivedObjectOfClasses({"NSAttributedString"}, *again);
  ASSERT_TRUE(back) << back.error().debugDescription();
  EXPECT_TRUE(s->isEqual(*back->asObject()));
}

TEST(KeyedUnarchiver, DecodesSmallFixturesInBothFormats) {
  const Array primitives = {1,
                            1,
                            1.0,
                            1.5,
                            Value::data("asdfasdfadsfadsf"),
                            true,
                            "Hello, World!",
                            "Hello, World!",
                            "Hello, World!",
                            false,
                            false,
                            42};
  for (const char* file : {"small/fixtures/primitives.bin", "small/fixtures/primitives.xml"}) {
    Array values = decodeUnkeyed(archiveFixture(file), primitives.size());
    EXPECT_EQ(Value(values), Value(primitives)) << file;
    EXPECT_TRUE(values[2].isDouble() && values[3].isDouble()) << file;
    EXPECT_TRUE(values[5].isBool()) << file;
  }

  Value dict = decodeUnkeyed(archiveFixture("small/fixtures/dict.bin"), 1)[0];
  EXPECT_EQ(dict,
            Value::dictionary(
                {{"int", 1}, {"string", "string"}, {"array", Value::array({true, "Hello, World!", 42})}}));
  EXPECT_TRUE(dict["array"].isMutable());
  EXPECT_FALSE(dict.isMutable());

  // Every other pair holds the same archive twice.
  for (const char* name : {"arrays", "dict", "nestedarrays", "onevalue"}) {
    const std::string base = std::string("small/fixtures/") + name;
    EXPECT_EQ(Value(decodeUnkeyed(archiveFixture(base + ".bin"), 3)),
              Value(decodeUnkeyed(archiveFixture(base + ".xml"), 3)))
        << name;
  }
}

TEST(KeyedUnarchiver, RejectsMalformedFixtures) {
  for (const char* name : {"broken_plist", "missing_archiver", "missing_objects", "missing_top",
                           "missing_version", "wrong_archiver", "wrong_version"}) {
    auto unarchiver = KeyedUnarchiver::create(archiveFixture(std::string("small/fixtures/") + name + ".xml"));
    ASSERT_FALSE(unarchiver) << name;
    EXPECT_EQ(unarchiver.error().domain(), kCocoaErrorDomain) << name;
    EXPECT_EQ(unarchiver.error().code(), kCoderReadCorruptError) << name;
  }
}

TEST(KeyedArchiver, WritesTheObjectTableMacOsWrites) {
  auto ours = KeyedArchiver::archivedDataWithRootObject(complexValue());
  ASSERT_TRUE(ours) << ours.error().debugDescription();
  auto mine = propertyListWithData(*ours);
  auto apple = propertyListWithData(archiveFixture("foundation/NSKeyedUnarchiver-ComplexTest.plist"));
  ASSERT_TRUE(mine && apple);
  // Same objects in the same order, same UIDs, same class dictionaries and chains.
  EXPECT_EQ((*mine)["$objects"], (*apple)["$objects"]) << (*mine)["$objects"].description();
  EXPECT_EQ((*mine)["$top"], (*apple)["$top"]);
  EXPECT_EQ((*mine)["$archiver"], Value("NSKeyedArchiver"));
  EXPECT_EQ((*mine)["$version"], Value(100000));
}

TEST(KeyedArchiver, RoundTripsEveryKindOfValue) {
  const double doubles[] = {0.1,
                            -0.0,
                            4.9406564584124654e-324,
                            std::numeric_limits<double>::max(),
                            1.5,
                            std::numeric_limits<double>::infinity()};
  Array numbers;
  for (double d : doubles) numbers.emplace_back(d);
  Value mutableString("growing");
  mutableString.setMutable();
  Value mutableData = Value::data("bytes");
  mutableData.setMutable();
  Value root = Value::dictionary({
      {"numbers", Value(numbers)},
      {"integers", Value::array({0, -1, std::numeric_limits<std::int64_t>::min(),
                                 std::numeric_limits<std::int64_t>::max(), true, false})},
      {"strings", Value::array({"", "Grüße 🧪", mutableString, "$null"})},
      {"data", Value::array({Value::data(""), mutableData})},
      {"date", Date{700000000.123456789}},
      {"urls", Value::array({url("a/b.xml", "file:///tmp/"), *Url::parse("x-coredata://ABC/Entity/p12")})},
      {"uuid", Uuid::random()},
      {"set", Value::set({"a", 2, Value::array({3})})},
      {"nulls", Value::array({Value(), Value::dictionary({{"k", Value()}})})},
      {"mutable",
       std::move(Value::dictionary({{"inner", std::move(Value::array({1}).setMutable())}}).setMutable())},
  });
  for (auto format : {PropertyListFormat::Binary, PropertyListFormat::Xml}) {
    auto data = KeyedArchiver::archivedDataWithRootObject(root, true, format);
    ASSERT_TRUE(data) << data.error().debugDescription();
    auto back = KeyedUnarchiver::unarchivedObjectOfClasses(foundationClasses(), *data);
    ASSERT_TRUE(back) << back.error().debugDescription();
    EXPECT_EQ(*back, root) << back->description();
    // libplist's XML writer drops the sign of -0.0; archives are binary, where every bit survives.
    for (std::size_t i = 0; i < std::size(doubles) && format == PropertyListFormat::Binary; ++i) {
      EXPECT_EQ(std::bit_cast<std::uint64_t>((*back)["numbers"].at(i).asDouble()),
                std::bit_cast<std::uint64_t>(doubles[i]));
    }
    EXPECT_EQ(std::bit_cast<std::uint64_t>((*back)["date"].asDate().secondsSinceReferenceDate),
              std::bit_cast<std::uint64_t>(700000000.123456789));
    EXPECT_TRUE((*back)["strings"].at(2).isMutable());
    EXPECT_FALSE((*back)["strings"].at(1).isMutable());
    EXPECT_TRUE((*back)["data"].at(1).isMutable());
    EXPECT_TRUE((*back)["mutable"].isMutable());
    EXPECT_TRUE((*back)["mutable"]["inner"].isMutable());
    EXPECT_FALSE((*back)["set"].isMutable());
    EXPECT_TRUE((*back)["integers"].at(4).isBool());
  }
}

// A class of our own: a node of a graph, with a back reference to its parent.
class Node : public Object, public Coding {
 public:
  std::string name;
  double weight = 0;
  std::int64_t count = 0;
  bool flag = false;
  Bytes blob;
  Array children;
  std::weak_ptr<Object> parent;

  std::string className() const override { return "Tesselune.Node"; }
  void encodeWithCoder(KeyedArchiver& coder) const override {
    coder.encodeObject(Value(name), "name");
    coder.encodeDouble(weight, "weight");
    coder.encodeInt64(count, "count");
    coder.encodeBool(flag, "$flag");
    coder.encodeBytes(blob, "blob");
    coder.encodeObject(Value(children), "children");
    coder.encodeObject(Value(parent.lock()), "parent");
  }
  Status initWithCoder(KeyedUnarchiver& coder) override {
    ClassSet classes{"NSString", "NSArray", "Tesselune.Node"};
    name = coder.decodeObjectOfClasses(classes, "name").isString()
               ? coder.decodeObjectOfClasses(classes, "name").asString()
               : "";
    weight = coder.decodeDoubleForKey("weight");
    count = coder.decodeInt64ForKey("count");
    flag = coder.decodeBoolForKey("$flag");
    blob = coder.decodeBytesForKey("blob");
    Value c = coder.decodeObjectOfClasses(classes, "children");
    if (c.isArray()) children = c.asArray();
    parent = coder.decodeObjectOfClasses(classes, "parent").asObjectOf<Object>();
    if (coder.error()) return fail(*coder.error());
    return {};
  }
};

class KeyedArchiverClasses : public ::testing::Test {
 protected:
  void SetUp() override {
    // A Node holds its parent weakly, so it may be referred to from inside itself.
    KeyedUnarchiver::setClassForClassName(codingClass<Node>({"Tesselune.Node", "NSObject"}, true),
                                          "Tesselune.Node");
  }
  void TearDown() override { ClassRegistry::shared().removeClass("Tesselune.Node"); }
};

TEST_F(KeyedArchiverClasses, CodesObjectsWithCyclesAndSharing) {
  auto root = std::make_shared<Node>();
  root->name = "root";
  root->weight = 0.1;
  root->count = -7;
  root->flag = true;
  root->blob = {0, 1, 2};
  auto child = std::make_shared<Node>();
  child->name = "child";
  child->parent = root;
  root->children = {Value(child), Value(child)};

  auto data = KeyedArchiver::archivedDataWithRootObject(Value(root));
  ASSERT_TRUE(data) << data.error().debugDescription();
  // Key "$flag" is stored escaped.
  auto tree = propertyListWithData(*data);
  EXPECT_EQ((*tree)["$objects"].at(1)["$$flag"], Value(true));

  auto back = KeyedUnarchiver::unarchivedObjectOfClasses({"Tesselune.Node"}, *data);
  ASSERT_TRUE(back) << back.error().debugDescription();
  auto r = back->asObjectOf<Node>();
  ASSERT_TRUE(r);
  EXPECT_EQ(r->name, "root");
  EXPECT_EQ(std::bit_cast<std::uint64_t>(r->weight), std::bit_cast<std::uint64_t>(0.1));
  EXPECT_EQ(r->count, -7);
  EXPECT_TRUE(r->flag);
  EXPECT_EQ(r->blob, (Bytes{0, 1, 2}));
  ASSERT_EQ(r->children.size(), 2u);
  auto c = r->children[0].asObjectOf<Node>();
  ASSERT_TRUE(c);
  EXPECT_EQ(r->children[1].asObject(), r->children[0].asObject()) << "one object, referenced twice";
  EXPECT_EQ(c->parent.lock(), r) << "the cycle resolves to the object being decoded";
}

TEST_F(KeyedArchiverClasses, ResolvesClassNamesAndEnforcesAllowedClasses) {
  auto node = std::make_shared<Node>();
  node->name = "n";
  auto data = KeyedArchiver::archivedDataWithRootObject(Value(node));
  ASSERT_TRUE(data);

  // Not allowed: the root is a Node, only arrays are accepted.
  auto refused = KeyedUnarchiver::unarchivedObjectOfClasses({"NSArray"}, *data);
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().code(), kCoderReadCorruptError);

  // Unknown to the process: the class name cannot be resolved.
  ClassRegistry::shared().removeClass("Tesselune.Node");
  ASSERT_FALSE(KeyedUnarchiver::unarchivedObjectOfClasses({"Tesselune.Node"}, *data));

  // A mapping on one unarchiver only, under another name as a renamed class would need.
  auto unarchiver = KeyedUnarchiver::create(*data);
  ASSERT_TRUE(unarchiver);
  (*unarchiver)->setClass(codingClass<Node>({"Renamed", "NSObject"}), "Tesselune.Node");
  Value v = (*unarchiver)->decodeObjectOfClasses({"Renamed"}, "root");
  ASSERT_TRUE(v.asObjectOf<Node>()) << (*unarchiver)->error()->debugDescription();
  EXPECT_EQ(v.asObjectOf<Node>()->name, "n");
}

// A subclass whose archived chain names Node as its superclass.
class SubNode : public Node {
 public:
  std::string className() const override { return "Tesselune.SubNode"; }
  std::vector<std::string> classChain() const override {
    return {"Tesselune.SubNode", "Tesselune.Node", "NSObject"};
  }
};

TEST_F(KeyedArchiverClasses, FallsBackAlongTheArchivedClassChain) {
  auto sub = std::make_shared<SubNode>();
  sub->name = "sub";
  auto data = KeyedArchiver::archivedDataWithRootObject(Value(sub));
  ASSERT_TRUE(data);
  auto back = KeyedUnarchiver::unarchivedObjectOfClasses({"Tesselune.Node"}, *data);
  ASSERT_TRUE(back) << back.error().debugDescription();
  EXPECT_EQ(back->asObjectOf<Node>()->name, "sub");
}

// A holder of the values that Swift code archives with encodeEncodable.
class Encodables : public Object, public Coding {
 public:
  Uuid uuid;
  Url url;
  std::vector<std::string> names;
  std::vector<std::vector<double>> matrix;
  std::string className() const override { return "Tesselune.Encodables"; }
  void encodeWithCoder(KeyedArchiver& coder) const override {
    coder.encodeEncodable(uuid, "uuid");
    coder.encodeEncodable(url, "url");
    coder.encodeEncodable(names, "names");
    coder.encodeEncodable(matrix, "matrix");
  }
  Status initWithCoder(KeyedUnarchiver& coder) override {
    uuid = coder.decodeDecodableUuid("uuid").value_or(Uuid());
    url = coder.decodeDecodableUrl("url").value_or(Url());
    names = coder.decodeDecodableStrings("names").value_or(std::vector<std::string>{});
    matrix = coder.decodeDecodableDoubleArrays("matrix").value_or(std::vector<std::vector<double>>{});
    if (coder.error()) return fail(*coder.error());
    return {};
  }
};

TEST(KeyedArchiverEncodable, StoresPropertyListTreesAsMacOsDoes) {
  auto e = std::make_shared<Encodables>();
  e->uuid = *Uuid::parse("0ad863ba-7584-40cf-8896-bd87b3280c34");
  e->url = url("sub/file.raw", "file:///data/");
  e->names = {"alpha", "beta"};
  e->matrix = {{0.1, 2.0}, {}, {-3.25}};
  auto data = KeyedArchiver::archivedDataWithRootObject(Value(e));
  ASSERT_TRUE(data);

  // The archive holds plain property-list objects: the UUID as its upper-case string, the URL as a
  // mutable dictionary, the arrays as mutable arrays of reals.
  auto unarchiver = KeyedUnarchiver::create(*data, false);
  ASSERT_TRUE(unarchiver);
  auto tree = propertyListWithData(*data);
  const Value& object = (*tree)["$objects"].at(1);
  auto plain = [&](const char* key) {
    return (*tree)["$objects"].at(static_cast<std::size_t>(object[key]["CF$UID"].asInteger()));
  };
  EXPECT_EQ(plain("uuid"), Value("0AD863BA-7584-40CF-8896-BD87B3280C34"));
  auto classOf = [&](const Value& o) {
    return (*tree)["$objects"].at(static_cast<std::size_t>(o["$class"]["CF$UID"].asInteger()))["$classname"];
  };
  EXPECT_EQ(classOf(plain("url")), Value("NSMutableDictionary"));
  EXPECT_EQ(classOf(plain("names")), Value("NSMutableArray"));
  EXPECT_EQ(classOf(plain("matrix")), Value("NSMutableArray"));

  KeyedUnarchiver::setClassForClassName(codingClass<Encodables>({"Tesselune.Encodables", "NSObject"}),
                                        "Tesselune.Encodables");
  auto back = KeyedUnarchiver::unarchivedObjectOfClasses({"Tesselune.Encodables"}, *data);
  ClassRegistry::shared().removeClass("Tesselune.Encodables");
  ASSERT_TRUE(back) << back.error().debugDescription();
  auto b = back->asObjectOf<Encodables>();
  EXPECT_EQ(b->uuid, e->uuid);
  EXPECT_EQ(b->url, e->url);
  EXPECT_EQ(b->url.absoluteString(), "file:///data/sub/file.raw");
  EXPECT_EQ(b->names, e->names);
  EXPECT_EQ(b->matrix, e->matrix);
}

// An object that does not archive itself.
class Plain : public Object {
 public:
  std::string className() const override { return "Plain"; }
};

TEST(KeyedArchiver, WritesUnkeyedValuesAndRefusesObjectsThatCannotCode) {
  KeyedArchiver archiver;
  archiver.encodeObject(Value("first"));
  archiver.encodeObject(Value::array({Value(), Value()}));
  archiver.encodeObject(Value(Date{1.5}));
  auto data = archiver.encodedData();
  ASSERT_TRUE(data);
  auto tree = propertyListWithData(*data);
  const Value& objects = (*tree)["$objects"];
  // Both nils in the array are NSNull's single instance.
  const Value& array = objects.at(static_cast<std::size_t>((*tree)["$top"]["$1"]["CF$UID"].asInteger()));
  EXPECT_EQ(array["NS.objects"].at(0), array["NS.objects"].at(1));
  const Value& date = objects.at(static_cast<std::size_t>((*tree)["$top"]["$2"]["CF$UID"].asInteger()));
  EXPECT_EQ(date["NS.time"], Value(1.5));
  EXPECT_EQ(Value(decodeUnkeyed(*data, 3)),
            Value::array({"first", Value::array({Value(), Value()}), Date{1.5}}));

  auto refused = KeyedArchiver::archivedDataWithRootObject(Value::array({std::make_shared<Plain>()}));
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().code(), kCoderInvalidValueError);
  EXPECT_NE(refused.error().localizedDescription().find("Plain"), std::string::npos);
}

TEST(KeyedUnarchiverEncodable, AcceptsTheOlderShapesOfUrlsAndUuids) {
  const Uuid uuid = *Uuid::parse("0AD863BA-7584-40CF-8896-BD87B3280C34");
  KeyedArchiver archiver(false);
  archiver.encodeObject(Value("https://example.org/a"), "plainUrl");
  archiver.encodeObject(Value(url("b.raw", "file:///data/")), "nsurl");
  archiver.encodeObject(Value(uuid), "nsuuid");
  archiver.encodeObject(Value(42), "notAUrl");
  auto data = archiver.encodedData();
  ASSERT_TRUE(data);
  auto unarchiver = KeyedUnarchiver::create(*data);
  ASSERT_TRUE(unarchiver);
  KeyedUnarchiver& u = **unarchiver;
  EXPECT_EQ(u.decodeDecodableUrl("plainUrl")->absoluteString(), "https://example.org/a");
  EXPECT_EQ(u.decodeDecodableUrl("nsurl")->absoluteString(), "file:///data/b.raw");
  EXPECT_EQ(u.decodeDecodableUuid("nsuuid"), uuid);
  EXPECT_FALSE(u.decodeDecodableUuid("absent"));
  EXPECT_FALSE(u.error()) << "an absent key is no error";
  EXPECT_FALSE(u.decodeDecodableUrl("notAUrl"));
  EXPECT_TRUE(u.error());
}

// Builds an archive from a hand-made object table.
Bytes archiveOf(Array objects,
                Value top = Value::dictionary({{"root", Value::dictionary({{"CF$UID", 1}})}})) {
  objects.insert(objects.begin(), Value("$null"));
  auto data = dataWithPropertyList(Value::dictionary(
      {{"$archiver", "NSKeyedArchiver"}, {"$version", 100000}, {"$top", top}, {"$objects", Value(objects)}}));
  EXPECT_TRUE(data);
  return *data;
}

Value uid(int n) {
  return Value::dictionary({{"CF$UID", n}});
}

Value classDict(const char* name) {
  return Value::dictionary({{"$classname", name}, {"$classes", Value::array({name, "NSObject"})}});
}

TEST(KeyedUnarchiverHostile, FailsCleanly) {
  const std::vector<std::pair<std::string, Array>> cases = {
      {"dangling reference",
       {Value::dictionary({{"NS.objects", Value::array({uid(9)})}, {"$class", uid(2)}}),
        classDict("NSArray")}},
      {"array that contains itself",
       {Value::dictionary({{"NS.objects", Value::array({uid(1)})}, {"$class", uid(2)}}),
        classDict("NSArray")}},
      {"class that is no class",
       {Value::dictionary({{"NS.objects", Value::array({})}, {"$class", uid(2)}}), "NSArray"}},
      {"class UID zero", {Value::dictionary({{"NS.objects", Value::array({})}, {"$class", uid(0)}})}},
      {"no class", {Value::dictionary({{"NS.objects", Value::array({})}})}},
      {"unknown class", {Value::dictionary({{"$class", uid(2)}}), classDict("NSWindow")}},
      {"objects not an array",
       {Value::dictionary({{"NS.objects", 5}, {"$class", uid(2)}}), classDict("NSArray")}},
      {"keys and values differ",
       {Value::dictionary(
            {{"NS.keys", Value::array({uid(3)})}, {"NS.objects", Value::array({})}, {"$class", uid(2)}}),
        classDict("NSDictionary"), "k"}},
      {"key that is no string",
       {Value::dictionary({{"NS.keys", Value::array({uid(3)})},
                           {"NS.objects", Value::array({uid(3)})},
                           {"$class", uid(2)}}),
        classDict("NSDictionary"), 4}},
      {"short UUID",
       {Value::dictionary({{"NS.uuidbytes", Value::data("short")}, {"$class", uid(2)}}),
        classDict("NSUUID")}},
      {"URL that is no URL",
       {Value::dictionary({{"NS.base", uid(0)}, {"NS.relative", uid(3)}, {"$class", uid(2)}}),
        classDict("NSURL"), "not a url"}},
      {"array as an object", {Value::array({1})}},
      // Decoded, it would be a cycle of shared pointers that is never freed.
      {"attributed string inside its own attributes",
       {Value::dictionary({{"NSString", uid(2)}, {"NSAttributes", uid(3)}, {"$class", uid(5)}}), "text",
        Value::dictionary({{"NS.keys", Value::array({uid(4)})},
                           {"NS.objects", Value::array({uid(1)})},
                           {"$class", uid(6)}}),
        "self", classDict("NSAttributedString"), classDict("NSDictionary")}},
  };
  for (const auto& [name, objects] : cases) {
    auto result = KeyedUnarchiver::unarchiveTopLevelObjectWithData(archiveOf(objects));
    ASSERT_FALSE(result) << name << " gave " << result->description();
    EXPECT_EQ(result.error().code(), kCoderReadCorruptError) << name;
  }

  auto noRoot = KeyedUnarchiver::unarchiveTopLevelObjectWithData(archiveOf({1}, Value::dictionary({})));
  ASSERT_FALSE(noRoot);
  EXPECT_EQ(noRoot.error().code(), kCoderValueNotFoundError);
}

TEST(KeyedUnarchiverHostile, BoundsNestingAndExpansion) {
  // 1000 arrays, each inside the next.
  Array nested;
  for (int i = 1; i <= 1000; ++i) {
    nested.push_back(Value::dictionary({{"NS.objects", Value::array({uid(i + 1)})}, {"$class", uid(0)}}));
  }
  nested.push_back(classDict("NSArray"));
  for (Value& v : nested) {
    if (v.isDictionary() && v.asDictionary().contains("$class")) v.asDictionary()["$class"] = uid(1001);
  }
  nested[999].asDictionary()["NS.objects"] = Value::array({});
  auto deep = KeyedUnarchiver::unarchiveTopLevelObjectWithData(archiveOf(nested));
  ASSERT_FALSE(deep);
  EXPECT_NE(deep.error().localizedDescription().find("deep"), std::string::npos);

  // 40 arrays, each holding the next one 16 times: far more nodes than any memory holds.
  Array bomb;
  for (int i = 1; i <= 40; ++i) {
    Array refs(16, uid(i + 1));
    bomb.push_back(Value::dictionary({{"NS.objects", Value(refs)}, {"$class", uid(42)}}));
  }
  bomb.push_back("leaf");
  bomb.push_back(classDict("NSArray"));
  auto expanded = KeyedUnarchiver::unarchiveTopLevelObjectWithData(archiveOf(bomb));
  ASSERT_FALSE(expanded);
  EXPECT_NE(expanded.error().localizedDescription().find("expand"), std::string::npos);
}

TEST(KeyedUnarchiverHostile, ScalarsOfTheWrongTypeRecordAnError) {
  auto data =
      archiveOf({Value::dictionary({{"n", "text"}, {"big", 1e300}, {"$class", uid(2)}}), classDict("X")},
                Value::dictionary({{"n", "text"}, {"big", 1e300}, {"wide", std::int64_t{1} << 40}}));
  auto unarchiver = KeyedUnarchiver::create(data, false);
  ASSERT_TRUE(unarchiver);
  EXPECT_EQ((*unarchiver)->decodeInt64ForKey("missing"), 0);
  EXPECT_FALSE((*unarchiver)->error());
  EXPECT_EQ((*unarchiver)->decodeInt32ForKey("wide"), 0);
  ASSERT_TRUE((*unarchiver)->error());
  EXPECT_NE((*unarchiver)->error()->localizedDescription().find("32-bit"), std::string::npos);

  auto second = KeyedUnarchiver::create(data, false);
  EXPECT_EQ((*second)->decodeDoubleForKey("n"), 0);
  EXPECT_TRUE((*second)->error());
  auto third = KeyedUnarchiver::create(data, false);
  EXPECT_EQ((*third)->decodeInt64ForKey("big"), 0);
  EXPECT_TRUE((*third)->error());
}

}  // namespace
}  // namespace tesselune
