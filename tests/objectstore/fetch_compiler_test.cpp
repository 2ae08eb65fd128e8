// Compiled fetches run on real stores: which rows come back for sub-entity restrictions, Foundation's
// nil rules, booleans, dates and numbers, relationships compared with object IDs, joins through
// to-one key paths, order and windows, counts; and readable Errors for what a store cannot answer.

#include "objectstore/sqlite/fetch_compiler.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <set>

#include "fixtures.h"

namespace tesselune {
namespace {

namespace fs = std::filesystem;

const fs::path kFixtures = TESSELUNE_FIXTURES_DIR;

// A to-one hierarchy destination, which none of the fixture models has, plus UUID and URI attributes.
constexpr std::string_view kPlacesModel = R"(<?xml version="1.0" encoding="UTF-8" standalone="yes"?>
<model type="com.apple.IDECoreDataModeler.DataModel" documentVersion="1.0">
  <entity name="Place" isAbstract="YES">
    <attribute name="name" optional="YES" attributeType="String"/>
  </entity>
  <entity name="City" parentEntity="Place">
    <attribute name="population" optional="YES" attributeType="Integer 64"/>
  </entity>
  <entity name="Lake" parentEntity="Place"/>
  <entity name="Pin">
    <attribute name="token" optional="YES" attributeType="UUID"/>
    <attribute name="link" optional="YES" attributeType="URI"/>
    <relationship name="place" optional="YES" maxCount="1" deletionRule="Nullify" destinationEntity="Place"/>
  </entity>
</model>)";

// One property value of a new row; `destination` names the entity of a to-one's target when the
// relationship keeps the target's entity number beside its key.
struct Field {
  std::string key;
  Value value;
  std::string destination = {};
};

using Keys = std::vector<std::int64_t>;

class FetchCompilerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    folder_ = test::scratchFolder(::testing::UnitTest::GetInstance()->current_test_info()->name());
  }

  std::unique_ptr<SqliteStore> createStore(Expected<std::shared_ptr<const ManagedObjectModel>> model,
                                           const std::string& name = "test.sqlite") {
    EXPECT_TRUE(model) << model.error().debugDescription();
    if (!model) return nullptr;
    auto store = SqliteStore::create(folder_ / name, *model, {});
    EXPECT_TRUE(store) << store.error().debugDescription();
    return store ? std::move(*store) : nullptr;
  }

  // The inheritance model with Human rows of every sub-entity; Parent rows carry every value kind.
  void makeHumans() {
    humans_ = createStore(ManagedObjectModel::modelWithContentsOfFile(
        kFixtures / "models/inheritance-and-types/test.xcdatamodel"));
    ASSERT_TRUE(humans_);
    // Columns: humanName, parentName, myString, myBoolean, myDate, myDouble, myInt64.
    const std::vector<std::pair<std::int64_t, Array>> table = {
        {2, {"Bob", "p", "x", true, Date{1000}, 2.5, 2}},
        {3, {"bob", "q", "y", false, Date{2000}, 1.0, 3}},
        {6, {nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr}},
        {9, {"Eve", "X", "X", true, Date{-50.5}, 3.0, 3}},
    };
    const char* names[] = {"humanName", "parentName", "myString", "myBoolean",
                           "myDate",    "myDouble",   "myInt64"};
    for (const auto& [key, values] : table) {
      Dictionary row;
      for (std::size_t i = 0; i < values.size(); ++i) {
        if (!values[i].isNull()) row[names[i]] = values[i];
      }
      parents_.emplace_back(key, row);
    }
    insert(*humans_, "EntitySansCustomClass", 50, {{"foo", "z"}});
    insert(*humans_, "Human", 1, {{"humanName", "Ann"}});
    for (const auto& [key, row] : parents_) {
      std::vector<Field> fields;
      for (const auto& [name, value] : row) fields.push_back({name, value});
      if (key == 2) fields.push_back({"meaninglessRelationship", 50});
      if (key == 3) fields.push_back({"myBinaryData", Value::data("\x01\x02")});
      insert(*humans_, "Parent", key, fields);
    }
    insert(*humans_, "Child", 4, {{"humanName", "Cy"}, {"childName", "c1"}, {"parent", 2}});
    insert(*humans_, "Child", 5, {{"humanName", "Cy"}, {"childName", "c2"}, {"parent", 3}});
    insert(*humans_, "Child", 7, {{"humanName", "Dee"}});
    insert(*humans_, "Uncle", 8, {{"humanName", "Ann"}});
  }

  // Writes a row the way the store lays it out, through the schema's mapping of each property.
  static void insert(SqliteStore& store, const std::string& entityName, std::int64_t key,
                     const std::vector<Field>& fields) {
    const EntityDescription* entity = store.model().entityNamed(entityName);
    ASSERT_NE(entity, nullptr) << entityName;
    std::string columns = "Z_PK, Z_ENT, Z_OPT";
    std::string parameters = "?, ?, 1";
    std::vector<Value> values = {key, *store.entityNumber(*entity)};
    for (const Field& field : fields) {
      const PropertyMapping* mapping = store.schema().mapping(*entity->propertiesByName().at(field.key));
      ASSERT_NE(mapping, nullptr) << field.key;
      columns += ", " + mapping->column;
      parameters += ", ?";
      values.push_back(field.value);
      if (!field.destination.empty()) {
        ASSERT_FALSE(mapping->entityColumn.empty()) << field.key;
        columns += ", " + mapping->entityColumn;
        parameters += ", ?";
        values.push_back(*store.entityNumber(*store.model().entityNamed(field.destination)));
      }
    }
    auto statement = store.database().prepare("INSERT INTO " + SqliteStore::tableName(*entity) + " (" +
                                              columns + ") VALUES (" + parameters + ")");
    ASSERT_TRUE(statement) << statement.error().debugDescription();
    for (std::size_t i = 0; i < values.size(); ++i)
      ASSERT_TRUE(statement->bind(static_cast<int>(i + 1), values[i]));
    ASSERT_TRUE(statement->run());
  }

  static FetchRequest request(const std::string& entity, std::string_view format = {},
                              std::vector<Value> arguments = {}) {
    FetchRequest r = FetchRequest::fetchRequestWithEntityName(entity);
    if (!format.empty()) {
      auto predicate = predicateWithFormat(format, std::move(arguments));
      EXPECT_TRUE(predicate) << format;
      if (predicate) r.predicate = *predicate;
    }
    return r;
  }

  // Compiles and runs a request; every row's columns.
  static std::vector<Array> rows(SqliteStore& store, const FetchRequest& r, FetchSelection selection) {
    auto compiled = compileFetch(store, r, selection);
    EXPECT_TRUE(compiled) << compiled.error().debugDescription();
    if (!compiled) return {{-1}};
    auto statement = store.database().prepare(compiled->sql);
    EXPECT_TRUE(statement) << statement.error().debugDescription();
    if (!statement) return {{-1}};
    for (std::size_t i = 0; i < compiled->bindings.size(); ++i) {
      EXPECT_TRUE(statement->bind(static_cast<int>(i + 1), compiled->bindings[i]));
    }
    std::vector<Array> result;
    for (auto row = statement->step(); row.value_or(false); row = statement->step()) {
      result.emplace_back();
      for (int c = 0; c < statement->columnCount(); ++c) result.back().push_back(statement->value(c));
    }
    return result;
  }

  // The first column of every row: the keys, or the count.
  static Keys run(SqliteStore& store, const FetchRequest& r,
                  FetchSelection selection = FetchSelection::PrimaryKeys) {
    Keys keys;
    for (const Array& row : rows(store, r, selection)) keys.push_back(row.at(0).integerValue(-1));
    return keys;
  }

  static Keys sorted(Keys keys) {
    std::sort(keys.begin(), keys.end());
    return keys;
  }

  Value idValue(SqliteStore& store, const std::string& entity, std::int64_t key) {
    return valueWithObjectID(
        ManagedObjectID::permanent(*store.model().entityNamed(entity), store.identifier(), key));
  }

  fs::path folder_;
  std::unique_ptr<SqliteStore> humans_;
  std::vector<std::pair<std::int64_t, Dictionary>> parents_;
};

TEST_F(FetchCompilerTest, SubentitiesAreRestrictedByEntityNumberOnlyWhenNeeded) {
  makeHumans();
  SqliteStore& store = *humans_;
  auto whole = compileFetch(store, request("Human"), FetchSelection::PrimaryKeys);
  ASSERT_TRUE(whole);
  EXPECT_EQ(whole->sql.find("Z_ENT"), std::string::npos) << whole->sql;
  EXPECT_EQ(run(store, request("Human")), (Keys{1, 2, 3, 4, 5, 6, 7, 8, 9}));

  FetchRequest onlyHumans = request("Human");
  onlyHumans.includesSubentities = false;
  EXPECT_EQ(run(store, onlyHumans), (Keys{1}));
  EXPECT_EQ(run(store, request("Parent")), (Keys{2, 3, 6, 9}));
  EXPECT_EQ(run(store, request("Child", "humanName == 'Cy'")), (Keys{4, 5}));

  // IDs answer the row's own entity; rows answer every column of the table.
  const auto number = [&](const char* entity) {
    return *store.entityNumber(*store.model().entityNamed(entity));
  };
  EXPECT_EQ(rows(store, request("Human", "humanName == 'Ann'"), FetchSelection::ObjectIDs),
            (std::vector<Array>{{1, number("Human")}, {8, number("Uncle")}}));
  const auto all = rows(store, request("Parent", "myInt64 == 2"), FetchSelection::Rows);
  ASSERT_EQ(all.size(), 1u);
  EXPECT_EQ(all[0].at(0), Value(2));
  for (const TableSchema& table : store.schema().tables()) {
    if (table.name == "ZHUMAN") {
      EXPECT_EQ(all[0].size(), table.columns.size());
    }
  }
}

// The SQL must give what Foundation's in-memory evaluation gives, row by row, NULLs included.
TEST_F(FetchCompilerTest, AttributeComparisonsAgreeWithFoundationIncludingNil) {
  makeHumans();
  const std::vector<std::pair<std::string, std::vector<Value>>> predicates = {
      {"myString == nil", {}},
      {"myString != nil", {}},
      {"myString != 'x'", {}},
      {"myString < 'y'", {}},
      {"NOT myString < 'y'", {}},
      {"'y' > myString", {}},
      {"myString >= nil", {}},
      {"NOT (myString >= nil)", {}},
      {"myString ==[c] 'X'", {}},
      {"myString !=[c] 'X'", {}},
      {"myString <[c] 'Y'", {}},
      {"myString == parentName", {}},
      {"myString != parentName", {}},
      {"parentName < myString", {}},
      {"myString ==[c] parentName", {}},
      {"myBoolean == YES", {}},
      {"myBoolean == 0", {}},
      {"myDate > %@", {Date{999.5}}},
      {"myDate <= %@", {Date{1000}}},
      {"myDate < %@", {Date{0}}},
      {"myDouble >= 2", {}},
      {"myInt64 == 2.0", {}},
      {"myInt64 < 2.5", {}},
      {"3 <= myInt64", {}},
      {"myInt64 > myDouble", {}},
      {"myInt64 == 3 AND (myDouble < 2 OR myString == 'X')", {}},
      {"NOT (myInt64 == 3 OR myBoolean == NO)", {}},
      {"TRUEPREDICATE AND NOT FALSEPREDICATE", {}},
      {"FALSEPREDICATE OR myInt64 == 3", {}},
      {"1 == 2 OR myString == nil", {}},
  };
  for (const auto& [format, arguments] : predicates) {
    SCOPED_TRACE(format);
    auto predicate = predicateWithFormat(format, arguments);
    ASSERT_TRUE(predicate);
    Keys expected;
    for (const auto& [key, row] : parents_) {
      if (predicate->evaluateWithObject(Value(row))) expected.push_back(key);
    }
    EXPECT_EQ(sorted(run(*humans_, request("Parent", format, arguments))), expected);
  }
  // The evaluator itself is checked elsewhere; a few anchors keep both from drifting together.
  EXPECT_EQ(sorted(run(*humans_, request("Parent", "myString != 'x'"))), (Keys{3, 6, 9}));
  EXPECT_EQ(sorted(run(*humans_, request("Parent", "NOT myString < 'y'"))), (Keys{3, 6}));
  EXPECT_EQ(sorted(run(*humans_, request("Parent", "myString == parentName"))), (Keys{6, 9}));
}

// [c] and [d] fold beyond ASCII in SQL as in memory: "É" and "é" are one letter under [c], "É" and
// "E" under [cd], and "ß" is "ss".
TEST_F(FetchCompilerTest, CaseAndDiacriticFoldingCoverUnicode) {
  makeHumans();
  insert(*humans_, "Uncle", 20, {{"humanName", "ÉMILE"}});
  insert(*humans_, "Uncle", 21, {{"humanName", "Straße"}});
  EXPECT_EQ(run(*humans_, request("Human", "humanName ==[c] 'bob'")), (Keys{2, 3}));
  EXPECT_EQ(run(*humans_, request("Human", "humanName ==[c] 'émile'")), (Keys{20}));
  EXPECT_EQ(run(*humans_, request("Human", "humanName ==[c] 'emile'")), Keys{});
  EXPECT_EQ(run(*humans_, request("Human", "humanName ==[cd] 'emile'")), (Keys{20}));
  EXPECT_EQ(run(*humans_, request("Human", "humanName ==[d] 'EMILE'")), (Keys{20}));
  EXPECT_EQ(run(*humans_, request("Human", "humanName ==[c] 'STRASSE'")), (Keys{21}));
  EXPECT_EQ(run(*humans_, request("Human", "humanName BEGINSWITH[cd] 'em'")), (Keys{20}));
}

TEST_F(FetchCompilerTest, ToOneRelationshipsAndSelfCompareWithObjectIDs) {
  makeHumans();
  SqliteStore& store = *humans_;
  const Value bob = idValue(store, "Parent", 2);
  EXPECT_EQ(run(store, request("Child", "parent == %@", {bob})), (Keys{4}));
  EXPECT_EQ(run(store, request("Child", "%@ == parent", {bob})), (Keys{4}));
  EXPECT_EQ(run(store, request("Child", "parent != %@", {bob})), (Keys{5, 7}));
  EXPECT_EQ(run(store, request("Child", "NOT parent == %@", {bob})), (Keys{5, 7}));
  EXPECT_EQ(run(store, request("Child", "parent == nil")), (Keys{7}));
  EXPECT_EQ(run(store, request("Child", "parent != nil")), (Keys{4, 5}));

  // IDs that no row of this store can hold: none are equal, all differ (NULL included).
  const EntityDescription& parent = *store.model().entityNamed("Parent");
  const std::vector<Value> strangers = {
      valueWithObjectID(ManagedObjectID::permanent(parent, Uuid::random(), 2)),
      valueWithObjectID(ManagedObjectID::temporary(parent)),
      idValue(store, "Uncle", 2),
  };
  for (const Value& stranger : strangers) {
    SCOPED_TRACE(stranger.description());
    EXPECT_EQ(run(store, request("Child", "parent == %@", {stranger})), Keys{});
    EXPECT_EQ(run(store, request("Child", "parent != %@", {stranger})), (Keys{4, 5, 7}));
  }

  EXPECT_EQ(run(store, request("Child", "SELF == %@", {idValue(store, "Child", 5)})), (Keys{5}));
  EXPECT_EQ(run(store, request("Child", "SELF != %@", {idValue(store, "Child", 5)})), (Keys{4, 7}));
  EXPECT_EQ(run(store, request("Human", "SELF == %@ OR SELF == %@", {bob, idValue(store, "Uncle", 8)})),
            (Keys{2, 8}));
  // Key 2 holds a Parent, not a Child.
  EXPECT_EQ(run(store, request("Human", "SELF == %@", {idValue(store, "Child", 2)})), Keys{});
  EXPECT_EQ(run(store, request("Child", "SELF == nil")), Keys{});
  EXPECT_EQ(run(store, request("Child", "SELF != nil")), (Keys{4, 5, 7}));
}

TEST_F(FetchCompilerTest, HierarchyDestinationsCompareTheEntityNumberToo) {
  auto places = createStore(ManagedObjectModel::modelWithXml(kPlacesModel, "Places.xcdatamodel/contents"));
  ASSERT_TRUE(places);
  SqliteStore& store = *places;
  const Uuid token = Uuid::random();
  const Url link = *Url::parse("https://example.org/a?b=1");
  insert(store, "City", 1, {{"name", "Oslo"}, {"population", 700000}});
  insert(store, "Lake", 2, {{"name", "Mjøsa"}});
  insert(store, "City", 3, {{"name", "Bergen"}});
  insert(store, "Pin", 10, {{"place", 1, "City"}, {"token", token}, {"link", link}});
  insert(store, "Pin", 11, {{"place", 2, "Lake"}});
  insert(store, "Pin", 12, {});
  // A key of a City with a Lake's entity number: the key alone would wrongly match City 3.
  insert(store, "Pin", 13, {{"place", 3, "Lake"}});

  EXPECT_EQ(run(store, request("Pin", "place == %@", {idValue(store, "City", 1)})), (Keys{10}));
  EXPECT_EQ(run(store, request("Pin", "place == %@", {idValue(store, "Lake", 2)})), (Keys{11}));
  EXPECT_EQ(run(store, request("Pin", "place == %@", {idValue(store, "City", 3)})), Keys{});
  EXPECT_EQ(run(store, request("Pin", "place != %@", {idValue(store, "City", 3)})), (Keys{10, 11, 12, 13}));
  EXPECT_EQ(run(store, request("Pin", "place.name == 'Oslo' OR place.name == 'Mjøsa'")), (Keys{10, 11}));

  EXPECT_EQ(run(store, request("Place")), (Keys{1, 2, 3}));
  EXPECT_EQ(run(store, request("City")), (Keys{1, 3}));
  FetchRequest abstractOnly = request("Place");
  abstractOnly.includesSubentities = false;
  EXPECT_EQ(run(store, abstractOnly), Keys{});

  EXPECT_EQ(run(store, request("Pin", "token == %@", {token})), (Keys{10}));
  EXPECT_EQ(run(store, request("Pin", "token != %@", {token})), (Keys{11, 12, 13}));
  EXPECT_EQ(run(store, request("Pin", "link == %@", {link})), (Keys{10}));
  EXPECT_FALSE(compileFetch(store, request("Pin", "link < %@", {link}), FetchSelection::PrimaryKeys));
}

TEST_F(FetchCompilerTest, KeyPathsThroughToOneRelationshipsShareTheirJoins) {
  makeHumans();
  SqliteStore& store = *humans_;
  EXPECT_EQ(run(store, request("Child", "parent.parentName == 'p'")), (Keys{4}));
  // A nil parent gives a nil name, which differs from "p".
  EXPECT_EQ(run(store, request("Child", "parent.parentName != 'p'")), (Keys{5, 7}));
  EXPECT_EQ(run(store, request("Child", "parent.meaninglessRelationship.foo == 'z'")), (Keys{4}));

  FetchRequest shared = request("Child", "parent.parentName == 'p' OR parent.humanName == 'bob'");
  shared.sortDescriptors = {SortDescriptor::sortDescriptorWithKey("parent.myDouble", true)};
  EXPECT_EQ(run(store, shared), (Keys{5, 4}));
  auto compiled = compileFetch(store, shared, FetchSelection::PrimaryKeys);
  ASSERT_TRUE(compiled);
  std::size_t joins = 0;
  for (std::size_t at = compiled->sql.find("LEFT JOIN"); at != std::string::npos;
       at = compiled->sql.find("LEFT JOIN", at + 1)) {
    ++joins;
  }
  EXPECT_EQ(joins, 1u) << compiled->sql;

  // Two key paths of the same row compared with each other, through a join.
  EXPECT_EQ(run(store, request("Child", "parent.myString == parent.parentName")), (Keys{7}));
}

TEST_F(FetchCompilerTest, SortDescriptorsWindowsAndCounts) {
  makeHumans();
  SqliteStore& store = *humans_;
  FetchRequest byName = request("Human");
  byName.sortDescriptors = {SortDescriptor::sortDescriptorWithKey("humanName", true)};
  // NULL first, then byte order (upper case before lower case), ties by key.
  EXPECT_EQ(run(store, byName), (Keys{6, 1, 8, 2, 4, 5, 7, 9, 3}));
  byName.sortDescriptors[0].ascending = false;
  EXPECT_EQ(run(store, byName), (Keys{3, 9, 7, 4, 5, 2, 1, 8, 6}));

  byName.fetchLimit = 3;
  byName.fetchOffset = 2;
  EXPECT_EQ(run(store, byName), (Keys{7, 4, 5}));
  EXPECT_EQ(run(store, byName, FetchSelection::Count), (Keys{3}));
  byName.fetchLimit = 0;
  byName.fetchOffset = 6;
  EXPECT_EQ(run(store, byName), (Keys{1, 8, 6}));
  EXPECT_EQ(run(store, byName, FetchSelection::Count), (Keys{3}));
  byName.fetchOffset = 100;
  EXPECT_EQ(run(store, byName, FetchSelection::Count), (Keys{0}));
  byName.fetchOffset = 0;
  byName.fetchLimit = 2;
  EXPECT_EQ(run(store, byName), (Keys{3, 9}));

  EXPECT_EQ(run(store, request("Human"), FetchSelection::Count), (Keys{9}));
  EXPECT_EQ(run(store, request("Child", "humanName == 'Cy'"), FetchSelection::Count), (Keys{2}));

  FetchRequest twoKeys = request("Child");
  twoKeys.sortDescriptors = {SortDescriptor::sortDescriptorWithKey("humanName", true),
                             SortDescriptor::sortDescriptorWithKey("childName", false)};
  EXPECT_EQ(run(store, twoKeys), (Keys{5, 4, 7}));
}

TEST_F(FetchCompilerTest, UnsupportedRequestsFailWithTextsThatNameTheFault) {
  makeHumans();
  SqliteStore& store = *humans_;
  auto withSort = [](FetchRequest r, std::string key) {
    r.sortDescriptors = {SortDescriptor::sortDescriptorWithKey(std::move(key), true)};
    return r;
  };
  const std::vector<std::pair<FetchRequest, std::vector<std::string>>> cases = {
      {request("Nobody"), {"Nobody"}},
      {request("Child", "nickname == 'x'"), {"Child", "nickname"}},
      {request("Child", "parent.nickname == 'x'"), {"Child", "parent.nickname", "Parent"}},
      {request("Child", "parent.children.childName == 'x'"),
       {"Child", "parent.children.childName", "to-many"}},
      {request("Parent", "children == nil"), {"Parent", "children"}},
      {request("Parent", "myInt16Transient == 1"), {"Parent", "myInt16Transient", "transient"}},
      {request("Child", "humanName.length == 1"), {"Child", "humanName.length", "attribute"}},
      {request("Human", "humanName == $name"), {"Human", "$name"}},
      {request("Parent", "myBinaryData == %@", {Value::data("\x01\x02")}), {"Parent", "myBinaryData", "nil"}},
      {request("Parent", "myDate > 5"), {"Parent", "myDate", "Date", "number"}},
      {request("Parent", "myString == 5"), {"myString", "String"}},
      {request("Parent", "myString == myDate"), {"myString", "myDate"}},
      {request("Child", "parent < %@", {idValue(store, "Parent", 2)}), {"Child", "parent"}},
      {request("Child", "parent == 'Bob'"), {"Child", "parent", "object ID"}},
      {request("Child", "SELF == humanName"), {"Child", "SELF"}},
      {request("Child", "SELF == 'x'"), {"Child", "SELF"}},
      {request("Child", "parent == parent"), {"Child", "parent"}},
      {withSort(request("Child"), "parent"), {"Child", "parent", "relationship"}},
      {withSort(request("Child"), "nickname"), {"Child", "nickname"}},
      {withSort(request("Parent"), "myBinaryData"), {"Parent", "myBinaryData"}},
      {withSort(request("Child"), ""), {"Child"}},
  };
  for (const auto& [r, fragments] : cases) {
    for (FetchSelection selection : {FetchSelection::PrimaryKeys, FetchSelection::Count}) {
      auto compiled = compileFetch(store, r, selection);
      if (selection == FetchSelection::Count && !r.sortDescriptors.empty()) continue;  // counts ignore order
      ASSERT_FALSE(compiled) << fragments.front() << ": " << compiled->sql;
      EXPECT_EQ(compiled.error().domain(), kCocoaErrorDomain);
      EXPECT_EQ(compiled.error().code(), kFetchRequestUnsupportedError);
      for (const std::string& fragment : fragments) {
        EXPECT_NE(compiled.error().localizedDescription().find(fragment), std::string::npos)
            << fragment << " missing in: " << compiled.error().localizedDescription();
      }
    }
  }

  // Deep nesting fails cleanly rather than in SQLite's parser or the stack.
  Predicate deep = *predicateWithFormat("humanName == 'Ann'");
  for (int i = 0; i < 5000; ++i) deep = Predicate::notPredicate(deep);
  FetchRequest nested = request("Human");
  nested.predicate = deep;
  EXPECT_FALSE(compileFetch(store, nested, FetchSelection::PrimaryKeys));
}

TEST_F(FetchCompilerTest, ValuesAreBoundNeverPartOfTheText) {
  makeHumans();
  SqliteStore& store = *humans_;
  const std::string attack = "x'; DROP TABLE ZHUMAN; --";
  insert(store, "Human", 30, {{"humanName", attack}});
  const FetchRequest r = request("Human", "humanName == %@", {Value(attack)});
  auto compiled = compileFetch(store, r, FetchSelection::PrimaryKeys);
  ASSERT_TRUE(compiled);
  EXPECT_EQ(compiled->sql.find("DROP"), std::string::npos);
  EXPECT_EQ(run(store, r), (Keys{30}));
  EXPECT_EQ(store.database().tableExists("ZHUMAN").value_or(false), true);
}

// Core Data's own file: its rows, hierarchy and keys, fetched through the compiled SQL.
TEST_F(FetchCompilerTest, FetchesFromAStoreCoreDataWrote) {
  const fs::path moody = kFixtures / "coredata/moody";
  for (const char* suffix : {"", "-wal", "-shm"}) {
    const fs::path from = moody / "stores" / (std::string("Moody.moody") + suffix);
    if (fs::exists(from)) fs::copy_file(from, folder_ / (std::string("Moody.moody") + suffix));
  }
  auto model = ManagedObjectModel::modelWithContentsOfFile(moody / "Moody.xcdatamodeld/Moody.xcdatamodel");
  ASSERT_TRUE(model);
  auto opened = SqliteStore::open(folder_ / "Moody.moody", *model, {.readOnly = true});
  ASSERT_TRUE(opened) << opened.error().debugDescription();
  SqliteStore& store = **opened;

  EXPECT_EQ(run(store, request("GeographicRegion"), FetchSelection::Count), (Keys{5}));
  EXPECT_EQ(run(store, request("Continent")), (Keys{1, 2}));
  EXPECT_EQ(run(store, request("Mood"), FetchSelection::Count), (Keys{4}));

  FetchRequest countries = request("Country");
  countries.sortDescriptors = {SortDescriptor::sortDescriptorWithKey("numericISO3166Code", true)};
  EXPECT_EQ(run(store, countries), (Keys{31, 30, 21}));

  FetchRequest moods = request("Mood", "country.continent == %@", {idValue(store, "Continent", 2)});
  moods.sortDescriptors = {SortDescriptor::sortDescriptorWithKey("date", false)};
  EXPECT_EQ(run(store, moods), (Keys{84, 39, 100}));
  EXPECT_EQ(
      run(store, request("Mood", "country.numericISO3166Code == 710 AND markedForRemoteDeletion == NO")),
      (Keys{39, 100}));
  EXPECT_EQ(run(store, request("Mood", "date > %@ AND country.continent.numberOfCountries >= 4",
                               {Date{464369360.0}})),
            (Keys{38, 39, 84}));
}

}  // namespace
}  // namespace tesselune
