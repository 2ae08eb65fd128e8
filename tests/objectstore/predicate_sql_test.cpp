// Every predicate form a fetch understands, run two ways on one saved store: compiled to SQL by a
// context's fetch, and evaluated in memory over every object of the entity. Both must find the same
// objects, and the number found is checked against the data below, so that the two cannot agree on
// a wrong answer. The store has a three-level hierarchy, to-ones into it, to-manys with and without
// inverses and a many-to-many.

#include <gtest/gtest.h>

#include <set>

#include "fixtures.h"
#include "objectstore/managed_object_context.h"
#include "objectstore/sqlite/fetch_compiler.h"

namespace tesselune {
namespace {

constexpr std::string_view kModel = R"(<?xml version="1.0" encoding="UTF-8" standalone="yes"?>
<model type="com.apple.IDECoreDataModeler.DataModel" documentVersion="1.0">
  <entity name="Library">
    <attribute name="name" optional="YES" attributeType="String"/>
    <relationship name="shelves" optional="YES" toMany="YES" deletionRule="Cascade" destinationEntity="Shelf" inverseName="library" inverseEntity="Shelf"/>
  </entity>
  <entity name="Shelf">
    <attribute name="label" optional="YES" attributeType="String"/>
    <relationship name="library" optional="YES" maxCount="1" deletionRule="Nullify" destinationEntity="Library" inverseName="shelves" inverseEntity="Library"/>
    <relationship name="items" optional="YES" toMany="YES" deletionRule="Nullify" destinationEntity="Item" inverseName="shelf" inverseEntity="Item"/>
    <relationship name="favourite" optional="YES" maxCount="1" deletionRule="Nullify" destinationEntity="Item"/>
  </entity>
  <entity name="Item">
    <attribute name="title" optional="YES" attributeType="String"/>
    <attribute name="year" optional="YES" attributeType="Integer 32"/>
    <attribute name="price" optional="YES" attributeType="Double"/>
    <relationship name="shelf" optional="YES" maxCount="1" deletionRule="Nullify" destinationEntity="Shelf" inverseName="items" inverseEntity="Shelf"/>
    <relationship name="tags" optional="YES" toMany="YES" deletionRule="Nullify" destinationEntity="Tag" inverseName="items" inverseEntity="Tag"/>
    <relationship name="notes" optional="YES" toMany="YES" deletionRule="Cascade" destinationEntity="Note"/>
  </entity>
  <entity name="Book" parentEntity="Item">
    <attribute name="isbn" optional="YES" attributeType="String"/>
  </entity>
  <entity name="Comic" parentEntity="Book">
    <attribute name="issue" optional="YES" attributeType="Integer 16"/>
  </entity>
  <entity name="Film" parentEntity="Item">
    <attribute name="minutes" optional="YES" attributeType="Integer 32"/>
  </entity>
  <entity name="Tag">
    <attribute name="name" optional="YES" attributeType="String"/>
    <relationship name="items" optional="YES" toMany="YES" deletionRule="Nullify" destinationEntity="Item" inverseName="tags" inverseEntity="Item"/>
  </entity>
  <entity name="Note">
    <attribute name="text" optional="YES" attributeType="String"/>
  </entity>
</model>)";

using Object = std::shared_ptr<ManagedObject>;

class PredicateSqlTest : public ::testing::Test {
 protected:
  void SetUp() override {
    folder_ = test::scratchFolder("predicate-sql");
    auto model = ManagedObjectModel::modelWithXml(kModel, "library");
    ASSERT_TRUE(model) << model.error().debugDescription();
    model_ = *model;
    path_ = folder_ / "library.sqlite";
    {
      auto writer = open();
      seed(*writer.context);
      ASSERT_TRUE(writer.context->save());
    }
    reader_ = open();
    for (const char* entity : {"Library", "Shelf", "Item", "Tag"}) {
      auto all = reader_.context->fetchObjects(FetchRequest::fetchRequestWithEntityName(entity));
      ASSERT_TRUE(all) << all.error().debugDescription();
      for (const Object& o : *all) {
        const Value name = o->valueForKey(std::string(entity) == "Item"    ? "title"
                                          : std::string(entity) == "Shelf" ? "label"
                                                                           : "name");
        if (name.isString()) byName_[name.asString()] = o;
      }
    }
  }

  struct Stack {
    std::unique_ptr<PersistentStoreCoordinator> coordinator;
    std::unique_ptr<ManagedObjectContext> context;
  };
  Stack open() {
    Stack stack;
    stack.coordinator = std::make_unique<PersistentStoreCoordinator>(model_);
    auto store = stack.coordinator->addPersistentStore(
        PersistentStoreDescription::persistentStoreDescriptionWithURL(Url::fileUrl(path_.string(), false)));
    EXPECT_TRUE(store) << store.error().debugDescription();
    stack.context = std::make_unique<ManagedObjectContext>(ManagedObjectContextConcurrencyType::PrivateQueue);
    stack.context->setPersistentStoreCoordinator(stack.coordinator.get());
    return stack;
  }

  // Two libraries; four shelves (one empty, one in no library); six items across the hierarchy with
  // accents, case, "ß" and nils; three tags (one unused); notes on two items.
  static void seed(ManagedObjectContext& c) {
    auto make = [&](const char* entity, std::vector<std::pair<const char*, Value>> values) {
      Object o = c.insertNewObjectForEntityForName(entity);
      for (auto& [key, value] : values) o->setValue(value, key);
      return o;
    };
    Object central = make("Library", {{"name", "Central"}});
    Object east = make("Library", {{"name", "Öst"}});
    Object fiction = make("Shelf", {{"label", "Fiction"}, {"library", ObjectPtr(central)}});
    Object comics = make("Shelf", {{"label", "comics"}, {"library", ObjectPtr(central)}});
    make("Shelf", {{"label", "Empty"}, {"library", ObjectPtr(east)}});
    make("Shelf", {});
    Object cafe =
        make("Book", {{"title", "Café Society"}, {"year", 1999}, {"price", 12.5}, {"isbn", "978-1"}});
    Object racer = make("Book", {{"title", "cafe racer"}, {"year", 2005}, {"price", 8.0}});
    Object strasse = make("Comic", {{"title", "Straße"}, {"year", 2010}, {"price", 3.25}, {"issue", 7}});
    Object emile = make("Comic", {{"title", "Émile"}, {"year", 2012}, {"issue", 12}});
    Object matrix = make("Film", {{"title", "The Matrix"}, {"year", 1999}, {"minutes", 136}});
    Object bare = make("Item", {});
    for (const Object& item : {cafe, racer, bare}) item->setValue(ObjectPtr(fiction), "shelf");
    for (const Object& item : {strasse, emile}) item->setValue(ObjectPtr(comics), "shelf");
    fiction->setValue(ObjectPtr(racer), "favourite");
    comics->setValue(ObjectPtr(emile), "favourite");
    Object classic = make("Tag", {{"name", "classic"}});
    Object french = make("Tag", {{"name", "French"}});
    make("Tag", {{"name", "unused"}});
    for (const Object& item : {cafe, matrix}) item->addObject(classic, "tags");
    for (const Object& item : {cafe, emile, racer}) item->addObject(french, "tags");
    cafe->addObject(make("Note", {{"text", "good"}}), "notes");
    cafe->addObject(make("Note", {{"text", "torn"}}), "notes");
    strasse->addObject(make("Note", {{"text", "mint"}}), "notes");
  }

  Value object(const std::string& name) const { return Value(ObjectPtr(byName_.at(name))); }

  // The primary keys found through SQL and in memory; fails the test when they differ.
  std::set<std::int64_t> both(const std::string& entity, std::string_view format,
                              std::vector<Value> arguments = {}) {
    auto predicate = predicateWithFormat(format, std::move(arguments));
    EXPECT_TRUE(predicate) << format << ": " << predicate.error().localizedDescription();
    if (!predicate) return {-1};
    FetchRequest request = FetchRequest::fetchRequestWithEntityName(entity);
    std::set<std::int64_t> inMemory;
    auto all = reader_.context->fetchObjects(request);
    EXPECT_TRUE(all);
    for (const Object& o : all.value_or(std::vector<Object>{})) {
      if (predicate->evaluateWithObject(Value(ObjectPtr(o)))) inMemory.insert(o->objectID().primaryKey());
    }
    request.predicate = *predicate;
    auto found = reader_.context->fetchObjects(request);
    EXPECT_TRUE(found) << format << ": " << found.error().localizedDescription();
    if (!found) return {-1};
    std::set<std::int64_t> inSql;
    for (const Object& o : *found) inSql.insert(o->objectID().primaryKey());
    EXPECT_EQ(inSql, inMemory) << entity << " where " << format;
    return inSql;
  }

  std::filesystem::path folder_;
  std::filesystem::path path_;
  std::shared_ptr<const ManagedObjectModel> model_;
  Stack reader_;
  std::map<std::string, Object> byName_;
};

struct Case {
  const char* entity;
  const char* format;
  std::size_t matches;
};

TEST_F(PredicateSqlTest, StringOperatorsWithCaseAndDiacriticOptions) {
  const Case cases[] = {
      {"Item", "title BEGINSWITH 'Caf'", 1},
      {"Item", "title BEGINSWITH[c] 'caf'", 2},
      {"Item", "title BEGINSWITH[cd] 'CAFE'", 2},
      {"Item", "title BEGINSWITH ''", 0},
      {"Item", "title ENDSWITH 'e'", 2},
      {"Item", "title CONTAINS[c] 'MAT'", 1},
      {"Item", "title CONTAINS 'ß'", 1},
      {"Item", "title CONTAINS[c] 'SS'", 1},
      {"Item", "title LIKE 'caf?*'", 1},
      {"Item", "title LIKE[c] '*e'", 2},
      {"Item", "title LIKE[cd] 'cafe*'", 2},
      {"Item", "title MATCHES '[A-Z][a-z]+ .*'", 1},
      {"Item", "title MATCHES[c] 'c.*'", 2},
      {"Item", "title MATCHES[cd] 'emile'", 1},
      {"Item", "NOT (title BEGINSWITH 'C')", 5},
      {"Item", "title ==[cd] 'EMILE' OR year < 2000", 3},
      {"Item", "title >[c] 'd' AND title <[c] 't'", 1},
      {"Item", "'Matrix' IN title", 1},
      {"Item", "title IN 'The Matrix Reloaded'", 1},
      {"Shelf", "label ==[c] 'COMICS' OR library.name ==[cd] 'ost'", 2},
      {"Book", "title BEGINSWITH[c] 'c'", 2},
  };
  for (const Case& c : cases) EXPECT_EQ(both(c.entity, c.format).size(), c.matches) << c.format;
}

TEST_F(PredicateSqlTest, ListsAndRanges) {
  const Case cases[] = {
      {"Item", "year IN {1999, 2012}", 3},
      {"Item", "year BETWEEN {2000, 2010}", 2},
      {"Item", "price BETWEEN {3.25, 8}", 2},
      {"Item", "title IN {'Straße', nil}", 2},
      {"Item", "title IN[c] {'STRASSE', 'the matrix'}", 2},
      {"Item", "NOT year IN {}", 6},
      {"Item", "{2005, 2010} CONTAINS year", 2},
      {"Comic", "issue BETWEEN {5, 10}", 1},
  };
  for (const Case& c : cases) EXPECT_EQ(both(c.entity, c.format).size(), c.matches) << c.format;
}

TEST_F(PredicateSqlTest, ToManyModifiersCountsAndSubqueries) {
  const Case cases[] = {
      {"Item", "ANY tags.name == 'French'", 3},
      {"Item", "SOME tags.name ==[c] 'french'", 3},
      {"Item", "NONE tags.name == 'classic'", 4},
      {"Item", "ALL tags.name BEGINSWITH[c] 'c'", 3},
      {"Item", "tags.@count >= 2", 1},
      {"Item", "tags.@count == 0", 2},
      {"Item", "notes.@count > 0", 2},
      {"Item", "ANY notes.text LIKE '*o*'", 1},
      {"Item", "SUBQUERY(tags, $t, $t.name BEGINSWITH[c] 'c' OR $t.name == 'French').@count == 2", 1},
      {"Item", "SUBQUERY(notes, $n, $n.text CONTAINS 'o').@count == 2", 1},
      {"Item", "SUBQUERY(tags, $t, ANY $t.items.year > 2010).@count > 0", 3},
      {"Item", "ANY shelf.library.shelves.label == 'comics'", 5},
      {"Item", "shelf.library.shelves.@count == 2", 5},
      {"Item", "shelf.items.@count > 2", 3},
      {"Item", "ANY tags.items.title BEGINSWITH 'The'", 2},
      {"Item", "ALL tags.items.year > 1999", 2},
      {"Item", "ANY tags.name IN {'classic', 'x'}", 2},
      {"Item", "ANY tags.items.shelf.label == 'comics' AND NOT shelf.label == 'comics'", 2},
      {"Shelf", "ANY items.title ==[cd] 'emile'", 1},
      {"Shelf", "items.@count == 0", 2},
      {"Shelf", "ALL items.year > 2000", 3},
      {"Shelf", "favourite.title BEGINSWITH 'cafe'", 1},
      {"Shelf", "ANY items.title == favourite.title", 2},
      {"Shelf", "ANY items.year > library.shelves.@count", 2},
      {"Shelf", "SUBQUERY(items, $i, $i.price > 5).@count >= 1", 1},
      {"Shelf", "SUBQUERY(items, $i, SUBQUERY($i.tags, $t, $t.name == 'classic').@count > 0).@count > 0", 1},
      {"Library", "ANY shelves.items.tags.name == 'classic'", 1},
      {"Library", "shelves.@count == 1", 1},
      {"Tag", "items.@count == 3", 1},
      {"Tag", "ANY items.shelf.label == 'Fiction'", 2},
      {"Tag", "ALL items.year == 1999", 2},
      {"Tag", "ANY items.price > 10", 2},
  };
  for (const Case& c : cases) EXPECT_EQ(both(c.entity, c.format).size(), c.matches) << c.format;
}

TEST_F(PredicateSqlTest, ObjectsAsArguments) {
  EXPECT_EQ(both("Item", "SELF IN %@", {Value::array({object("Café Society"), object("Straße")})}).size(),
            2u);
  EXPECT_EQ(both("Item", "shelf IN %@", {Value::array({object("comics"), Value()})}).size(), 3u);
  EXPECT_EQ(both("Item", "%@ IN tags", {object("French")}).size(), 3u);
  EXPECT_EQ(both("Item", "tags CONTAINS %@", {object("classic")}).size(), 2u);
  EXPECT_EQ(both("Item", "ANY tags == %@", {object("classic")}).size(), 2u);
  EXPECT_EQ(both("Tag", "NONE items == %@", {object("Émile")}).size(), 2u);
  EXPECT_EQ(both("Shelf", "ANY items.tags == %@", {object("classic")}).size(), 1u);
  EXPECT_EQ(both("Item", "SUBQUERY(tags, $t, $t == %@).@count == 1", {object("French")}).size(), 3u);
}

// What SQL cannot answer fails before it runs, naming the fault; MATCHES checks its pattern at parse.
TEST_F(PredicateSqlTest, UnanswerableFormsFailWithReadableErrors) {
  const std::pair<const char*, const char*> cases[] = {
      {"tags.name == 'French'", "ANY"},
      {"ANY title == 'x'", "to-many"},
      {"ANY tags.@count > 1", "count"},
      {"ANY tags.items.@count > 1", "count"},
      {"title.@count > 1", "@count"},
      {"SUBQUERY(tags, $t, $t.name == 'x') == 1", "@count"},
      {"SUBQUERY(tags, $t, $u.name == 'x').@count == 1", "$u"},
      {"year BEGINSWITH '1'", "BEGINSWITH"},
      {"year IN {1, 'x'}", "string"},
      {"shelf IN {1}", "object"},
      {"{year, 1} CONTAINS 2", "list"},
  };
  for (const auto& [format, fragment] : cases) {
    FetchRequest request = FetchRequest::fetchRequestWithEntityName("Item");
    auto predicate = predicateWithFormat(format);
    ASSERT_TRUE(predicate) << format;
    request.predicate = *predicate;
    auto found = reader_.context->fetchObjects(request);
    ASSERT_FALSE(found) << format;
    EXPECT_NE(found.error().localizedDescription().find(fragment), std::string::npos)
        << format << ": " << found.error().localizedDescription();
  }
  auto bad = predicateWithFormat("title MATCHES '(unclosed'");
  ASSERT_FALSE(bad);
  EXPECT_NE(bad.error().localizedDescription().find("column 15"), std::string::npos)
      << bad.error().localizedDescription();
}

}  // namespace
}  // namespace tesselune
