// Stores we create have the layout Core Data gave the fixture stores made from the same models:
// tables, columns in order with their types, join tables, indexes, uniqueness constraints, entity
// numbers and version hashes.

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <fstream>
#include <set>

#include "fixtures.h"
#include "objectstore/sqlite/sqlite_store.h"
#include "sqlite_probe.h"

namespace tesselune {
namespace {

namespace fs = std::filesystem;

const fs::path kFixtures = TESSELUNE_FIXTURES_DIR;

// The layout of a store, one line per fact, in an order that does not depend on creation order.
std::set<std::string> layout(const fs::path& path) {
  test::SqliteProbe probe(path, SQLITE_OPEN_READONLY);
  auto rows = [&probe](const std::string& sql) { return probe.rows(sql); };
  std::set<std::string> facts;
  // Z_MODELCACHE holds the archived model: its content is compared in framework_layout_test.
  for (const std::string& table :
       rows("SELECT name FROM sqlite_master WHERE type = 'table' AND name != 'Z_MODELCACHE'")) {
    std::string columns;
    for (const std::string& column : rows("SELECT name, type, pk FROM pragma_table_info('" + table + "')")) {
      columns += " " + column;
    }
    facts.insert("table " + table + ":" + columns);
    for (const std::string& index :
         rows("SELECT name, origin FROM pragma_index_list('" + table + "') ORDER BY name")) {
      const std::string name = index.substr(0, index.find('|'));
      std::string indexColumns;
      for (const std::string& c : rows("SELECT name FROM pragma_index_info('" + name + "') ORDER BY seqno")) {
        indexColumns += " " + c;
      }
      // Automatic indexes are named by position; what they index is what counts.
      const std::string shown = name.starts_with("sqlite_autoindex") ? "(auto)" : name;
      facts.insert("index " + table + " " + shown + " " + index.substr(index.find('|') + 1) + ":" +
                   indexColumns);
    }
  }
  for (const std::string& row : rows("SELECT Z_ENT, Z_NAME, Z_SUPER FROM Z_PRIMARYKEY"))
    facts.insert("entity " + row);
  for (const std::string pragma : {"page_size", "auto_vacuum", "journal_mode", "user_version"}) {
    facts.insert(pragma + " " + rows("PRAGMA " + pragma).front());
  }
  return facts;
}

TEST(StoreSchema, CreatesTheLayoutCoreDataCreated) {
  const auto& pairs = test::storesWithTheirModels();
  const fs::path folder = test::scratchFolder("store-schema");
  for (const auto& [fixture, modelPath] : pairs) {
    auto model = ManagedObjectModel::modelWithContentsOfFile(kFixtures / modelPath);
    ASSERT_TRUE(model) << model.error().debugDescription();
    const fs::path created = folder / fs::path(fixture).filename();
    auto store = SqliteStore::create(created, *model, {});
    ASSERT_TRUE(store) << fixture << ": " << store.error().debugDescription();
    store->reset();  // closed, so that the layout is read from the file

    // Copies, since opening a WAL store rewrites its shared-memory file.
    const fs::path apple = folder / "apple";
    fs::create_directories(apple);
    const fs::path copy = test::copyFixtureStore(fixture, apple);
    const std::set<std::string> ours = layout(created);
    const std::set<std::string> theirs = layout(copy);
    ASSERT_GE(theirs.size(), 10u) << fixture << " has too little layout to compare";
    std::vector<std::string> missing;
    std::vector<std::string> extra;
    std::set_difference(theirs.begin(), theirs.end(), ours.begin(), ours.end(), std::back_inserter(missing));
    std::set_difference(ours.begin(), ours.end(), theirs.begin(), theirs.end(), std::back_inserter(extra));
    EXPECT_TRUE(missing.empty() && extra.empty())
        << fixture << "\n  missing: " << testing::PrintToString(missing)
        << "\n  extra: " << testing::PrintToString(extra);

    // The new store opens with its model, and so its version hashes are the model's.
    auto reopened = SqliteStore::open(created, *model, {.readOnly = true});
    EXPECT_TRUE(reopened) << reopened.error().debugDescription();
  }
}

TEST(StoreSchema, RefusesToCreateOverAnExistingFile) {
  auto model =
      ManagedObjectModel::modelWithContentsOfFile(kFixtures / "coredata/many-to-many/Sample.xcdatamodeld");
  ASSERT_TRUE(model);
  const fs::path path = test::scratchFolder("existing") / "existing.sqlite";
  { std::ofstream(path) << "precious"; }
  auto store = SqliteStore::create(path, *model, {});
  ASSERT_FALSE(store);
  EXPECT_EQ(store.error().code(), kFileWriteFileExistsError);
  std::ifstream in(path);
  std::string text;
  in >> text;
  EXPECT_EQ(text, "precious");
}

// Where each kind of relationship keeps its keys, checked on a real store and on a model with
// inheritance, ordered and inverse-less relationships.
TEST(StoreSchema, MapsEveryKindOfPropertyToItsColumns) {
  using Kind = PropertyMapping::Kind;
  auto expectMapping = [](const ManagedObjectModel& model, const StoreSchema& schema, std::string_view entity,
                          std::string_view property, const PropertyMapping& expected) {
    const EntityDescription* e = model.entityNamed(entity);
    ASSERT_NE(e, nullptr) << entity;
    auto found = e->propertiesByName().find(property);
    ASSERT_NE(found, e->propertiesByName().end()) << entity << "." << property;
    const PropertyMapping* m = schema.mapping(*found->second);
    ASSERT_NE(m, nullptr) << entity << "." << property;
    EXPECT_EQ(m->kind, expected.kind) << entity << "." << property;
    EXPECT_EQ(m->table, expected.table) << entity << "." << property;
    EXPECT_EQ(m->column, expected.column) << entity << "." << property;
    EXPECT_EQ(m->entityColumn, expected.entityColumn) << entity << "." << property;
    EXPECT_EQ(m->orderColumn, expected.orderColumn) << entity << "." << property;
    EXPECT_EQ(m->otherColumn, expected.otherColumn) << entity << "." << property;
  };

  // The many-to-many fixture store: both sides of the join table Core Data made.
  const fs::path folder = test::scratchFolder("mapping");
  test::copyFixtureStore("coredata/many-to-many/TestModel.sqlite", folder);
  auto books = ManagedObjectModel::modelWithContentsOfFile(
      kFixtures / "coredata/many-to-many/Sample.xcdatamodeld/TestModel.xcdatamodel");
  ASSERT_TRUE(books);
  auto store = SqliteStore::open(folder / "TestModel.sqlite", *books, {.readOnly = true});
  ASSERT_TRUE(store) << store.error().debugDescription();
  const StoreSchema& stored = (*store)->schema();
  expectMapping(**books, stored, "Author", "books",
                {Kind::ManyToMany, "Z_1BOOKS", "Z_1AUTHORS", "", "", "Z_2BOOKS"});
  expectMapping(**books, stored, "Book", "authors",
                {Kind::ManyToMany, "Z_1BOOKS", "Z_2BOOKS", "", "", "Z_1AUTHORS"});
  expectMapping(**books, stored, "Book", "title", {Kind::Attribute, "ZBOOK", "ZTITLE", "", "", ""});

  // Inheritance: a to-one to a hierarchy, an ordered to-many and its inverse, a to-many without
  // inverse, and inherited properties mapped once.
  auto humans = ManagedObjectModel::modelWithContentsOfFile(kFixtures /
                                                            "models/inheritance-and-types/test.xcdatamodel");
  ASSERT_TRUE(humans);
  const EntityNumbers numbers = StoreSchema::numberEntities(**humans);
  const StoreSchema schema = StoreSchema::forModel(**humans, numbers);
  const std::int64_t parent = numbers.at((*humans)->entityNamed("Parent"));
  expectMapping(**humans, schema, "Child", "parent",
                {Kind::ToOne, "ZHUMAN", "ZPARENT", "", "Z_FOK_PARENT", ""});
  expectMapping(**humans, schema, "Parent", "orderedChildren",
                {Kind::ToManyThroughInverse, "ZHUMAN", "ZPARENT", "", "Z_FOK_PARENT", ""});
  expectMapping(
      **humans, schema, "Parent", "children",
      {Kind::ToManyWithoutInverse, "ZHUMAN", "Z" + std::to_string(parent) + "CHILDREN", "", "", ""});
  expectMapping(**humans, schema, "Parent", "meaninglessRelationship",
                {Kind::ToOne, "ZHUMAN", "ZMEANINGLESSRELATIONSHIP", "", "", ""});
  expectMapping(**humans, schema, "Uncle", "meaninglessRelationship",
                {Kind::ToOne, "ZHUMAN", "ZMEANINGLESSRELATIONSHIP", "", "", ""});
}

}  // namespace
}  // namespace tesselune
