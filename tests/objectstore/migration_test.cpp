// Lightweight migration on stores Core Data wrote: the objects, their keys and links, the store's
// identity survive; changes that cannot be inferred are refused with the original file untouched.

#include "objectstore/sqlite/migration.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <fstream>

#include "fixtures.h"
#include "objectstore/persistent_store_coordinator.h"

namespace tesselune {
namespace {

namespace fs = std::filesystem;

const fs::path kFixtures = TESSELUNE_FIXTURES_DIR;
const fs::path kBooks = kFixtures / "coredata/many-to-many/Sample.xcdatamodeld";

// Runs SQL on the file directly and answers the first column of the first row (or "" for none).
std::string sql(const fs::path& path, const std::string& statement) {
  sqlite3* db = nullptr;
  EXPECT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
  sqlite3_stmt* s = nullptr;
  std::string out;
  EXPECT_EQ(sqlite3_prepare_v2(db, statement.c_str(), -1, &s, nullptr), SQLITE_OK)
      << statement << ": " << sqlite3_errmsg(db);
  if (s != nullptr && sqlite3_step(s) == SQLITE_ROW && sqlite3_column_text(s, 0) != nullptr)
    out = reinterpret_cast<const char*>(sqlite3_column_text(s, 0));
  sqlite3_finalize(s);
  sqlite3_close(db);
  return out;
}

// Runs several statements on the file directly.
void exec(const fs::path& path, const std::string& statements) {
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
  char* message = nullptr;
  EXPECT_EQ(sqlite3_exec(db, statements.c_str(), nullptr, nullptr, &message), SQLITE_OK) << message;
  sqlite3_free(message);
  sqlite3_close(db);
}

std::shared_ptr<const ManagedObjectModel> version(const fs::path& bundle, const std::string& name) {
  auto model = ManagedObjectModel::modelWithContentsOfFile(bundle / (name + ".xcdatamodel"));
  EXPECT_TRUE(model) << model.error().debugDescription();
  return model ? *model : nullptr;
}

std::string fileBytes(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

TEST(Migration, AddsAnEntityToTheManyToManyStoreKeepingItsObjects) {
  const fs::path folder = test::scratchFolder("migrate-books");
  const fs::path path = test::copyFixtureStore("coredata/many-to-many/TestModel.sqlite", folder);
  // Two authors sharing a book, written in the old layout.
  exec(
      path,
      "INSERT INTO ZAUTHOR (Z_PK, Z_ENT, Z_OPT, ZFIRSTNAME) VALUES (1, 1, 1, 'Ada'), (2, 1, 1, 'Grace');"
      "INSERT INTO ZBOOK (Z_PK, Z_ENT, Z_OPT, ZTITLE) VALUES (7, 2, 1, 'Notes');"
      "INSERT INTO Z_1BOOKS (Z_1AUTHORS, Z_2BOOKS) VALUES (1, 7), (2, 7);"
      "UPDATE Z_PRIMARYKEY SET Z_MAX = 2 WHERE Z_ENT = 1; UPDATE Z_PRIMARYKEY SET Z_MAX = 7 WHERE Z_ENT = 2");
  const std::string uuid = SqliteStore::metadataForPersistentStoreAtPath(path)->at("NSStoreUUID").asString();

  auto container = PersistentContainer::persistentContainerWithName("Sample", {kBooks.parent_path()});
  ASSERT_TRUE(container) << container.error().debugDescription();
  auto store = (*container)
                   ->persistentStoreCoordinator()
                   .addPersistentStore(PersistentStoreDescription::persistentStoreDescriptionWithURL(
                       Url::fileUrl(path.string(), false)));
  ASSERT_TRUE(store) << store.error().debugDescription();

  EXPECT_EQ((*store)->identifier().string(), uuid);
  EXPECT_TRUE((*container)->managedObjectModel()->isCompatibleWithStoreMetadata((*store)->metadata()));
  EXPECT_NE((*store)->model().entityNamed("Publisher"), nullptr);
  // The new key counters continue where the old ones were.
  EXPECT_EQ(*(*store)->allocatePrimaryKeys(*(*store)->model().entityNamed("Book"), 1), 8);
  store = nullptr;
  (*container).reset();

  EXPECT_EQ(sql(path, "PRAGMA integrity_check"), "ok");
  EXPECT_EQ(sql(path, "PRAGMA journal_mode"), "wal");
  EXPECT_EQ(sql(path, "SELECT group_concat(ZFIRSTNAME) FROM (SELECT ZFIRSTNAME FROM ZAUTHOR ORDER BY Z_PK)"),
            "Ada,Grace");
  EXPECT_EQ(sql(path, "SELECT ZTITLE FROM ZBOOK WHERE Z_PK = 7"), "Notes");
  EXPECT_EQ(sql(path, "SELECT COUNT(*) FROM ZPUBLISHER"), "0");
  EXPECT_FALSE(fs::exists(path.string() + ".migrating"));
  // Entity numbers may move; the join rows still link the same objects.
  auto model = version(kBooks, "TestModel 2");
  auto reopened = SqliteStore::open(path, model, {.readOnly = true});
  ASSERT_TRUE(reopened) << reopened.error().debugDescription();
  const PropertyMapping* books =
      (*reopened)->schema().mapping(*model->entityNamed("Author")->relationshipsByName().at("books"));
  ASSERT_NE(books, nullptr);
  EXPECT_EQ(sql(path, "SELECT COUNT(*) FROM " + books->table + " WHERE " + books->otherColumn + " = 7"), "2");
}

// Core Data's own stores of each Moody version, moved forward one version at a time: relationships
// added (v3), a hierarchy split into tables (v4), an entity removed (v5, once it holds nothing) and
// added again (v6). Each step leaves neither its copy nor the old store's backup behind.
TEST(Migration, CarriesMoodyStoresThroughEveryLaterVersion) {
  const fs::path bundle = kFixtures / "coredata/moody/Moody.xcdatamodeld";
  const std::vector<std::string> versions = {"Moody", "Moody 2", "Moody 3", "Moody 4", "Moody 5", "Moody 6"};
  const fs::path folder = test::scratchFolder("migrate-moody");
  const fs::path path = test::copyFixtureStore("coredata/moody/stores/Moody 2.moody", folder);
  const std::string moods = sql(path, "SELECT COUNT(*) FROM ZMOOD");
  const std::string linked = sql(path, "SELECT COUNT(*) FROM ZMOOD WHERE ZCOUNTRY IS NOT NULL");
  const std::string uuid = sql(path, "SELECT Z_UUID FROM Z_METADATA");
  ASSERT_NE(moods, "0");

  for (std::size_t v = 2; v < versions.size(); ++v) {
    SCOPED_TRACE(versions[v]);
    if (versions[v] == "Moody 5") {
      // v5 drops continents: refused while there are any, the store left as it was.
      const std::string before = fileBytes(path);
      auto dropped = migrateStore(path, version(bundle, versions[v - 1]), version(bundle, versions[v]));
      ASSERT_FALSE(dropped);
      EXPECT_EQ(dropped.error().code(), kMigrationError);
      EXPECT_NE(dropped.error().localizedDescription().find("Continent"), std::string::npos)
          << dropped.error().localizedDescription();
      EXPECT_EQ(fileBytes(path), before);
      exec(path, "DELETE FROM ZCONTINENT");
    }
    ASSERT_TRUE(migrateStore(path, version(bundle, versions[v - 1]), version(bundle, versions[v])));
    for (const char* leftover : {".migrating", ".backup", ".backup-2"})
      EXPECT_FALSE(fs::exists(path.string() + leftover)) << leftover;
    auto store = SqliteStore::open(path, version(bundle, versions[v]), {.readOnly = true});
    ASSERT_TRUE(store) << store.error().debugDescription();
    store->reset();
    EXPECT_EQ(sql(path, "PRAGMA integrity_check"), "ok");
    EXPECT_EQ(sql(path, "SELECT COUNT(*) FROM ZMOOD"), moods);
    EXPECT_EQ(sql(path, "SELECT COUNT(*) FROM ZMOOD WHERE ZCOUNTRY IS NOT NULL"), linked);
    EXPECT_EQ(sql(path, "SELECT Z_UUID FROM Z_METADATA"), uuid);
  }
  // v4 split regions into their own tables: every country came along, still linked to its moods.
  EXPECT_EQ(sql(path, "SELECT COUNT(*) FROM ZMOOD WHERE ZCOUNTRY NOT IN (SELECT Z_PK FROM ZCOUNTRY)"), "0");
}

TEST(Migration, RefusesWhatCannotBeInferredAndLeavesTheStoreAsItWas) {
  const fs::path folder = test::scratchFolder("migrate-refused");
  const fs::path path = test::copyFixtureStore("coredata/many-to-many/TestModel.sqlite", folder);
  exec(path, "INSERT INTO ZAUTHOR (Z_PK, Z_ENT, Z_OPT, ZFIRSTNAME) VALUES (1, 1, 1, 'Ada')");
  const auto source = version(kBooks, "TestModel");
  auto changed = [](std::string_view attributes) {
    auto model = ManagedObjectModel::modelWithXml(
        std::string(R"(<model><entity name="Author" representedClassName="Author">)") +
            std::string(attributes) + R"(
             <relationship name="books" optional="YES" toMany="YES" deletionRule="Nullify" destinationEntity="Book" inverseName="authors" inverseEntity="Book"/></entity>
           <entity name="Book" representedClassName="Book"><attribute name="title" optional="YES" attributeType="String"/>
             <relationship name="authors" optional="YES" toMany="YES" deletionRule="Nullify" destinationEntity="Author" inverseName="books" inverseEntity="Author"/></entity></model>)",
        "changed");
    EXPECT_TRUE(model) << model.error().debugDescription();
    return *model;
  };
  const std::string before = fileBytes(path);

  // A type change cannot be inferred.
  auto retyped = migrateStore(
      path, source, changed(R"(<attribute name="firstName" optional="YES" attributeType="Integer 32"/>)"));
  ASSERT_FALSE(retyped);
  EXPECT_EQ(retyped.error().code(), kMigrationMissingMappingModelError);
  EXPECT_NE(retyped.error().localizedDescription().find("Author.firstName"), std::string::npos);

  // A new required attribute needs a default when objects exist...
  auto required =
      migrateStore(path, source, changed(R"(<attribute name="age" attributeType="Integer 32"/>)"));
  ASSERT_FALSE(required);
  EXPECT_EQ(required.error().code(), kMigrationError);
  EXPECT_NE(required.error().localizedDescription().find("age"), std::string::npos);
  EXPECT_EQ(fileBytes(path), before);
  EXPECT_FALSE(fs::exists(path.string() + ".migrating"));

  // ...and with one, objects get it, as do values that were optional before.
  ASSERT_TRUE(migrateStore(
      path, source, changed(R"(<attribute name="age" attributeType="Integer 32" defaultValueString="42"/>
                                      <attribute name="firstName" attributeType="String" defaultValueString="?"/>)")));
  EXPECT_EQ(sql(path, "SELECT ZAGE || ZFIRSTNAME FROM ZAUTHOR"), "42Ada");
}

TEST(Migration, CoordinatorMigratesOnlyWhenItMayAndKnowsTheSourceModel) {
  const fs::path folder = test::scratchFolder("migrate-coordinator");
  const auto current = version(kBooks, "TestModel 2");
  auto add = [&](std::vector<std::shared_ptr<const ManagedObjectModel>> earlier, bool migrate, bool infer,
                 bool cached = true) {
    const fs::path path = folder / ("store-" + std::to_string(migrate) + std::to_string(infer) +
                                    std::to_string(earlier.size()) + std::to_string(cached) + ".sqlite");
    fs::copy_file(test::copyFixtureStore("coredata/many-to-many/TestModel.sqlite", folder), path);
    if (!cached) exec(path, "DELETE FROM Z_MODELCACHE");
    PersistentStoreCoordinator coordinator(current, std::move(earlier));
    auto description =
        PersistentStoreDescription::persistentStoreDescriptionWithURL(Url::fileUrl(path.string(), false));
    description.shouldMigrateStoreAutomatically = migrate;
    description.shouldInferMappingModelAutomatically = infer;
    auto store = coordinator.addPersistentStore(description);
    return store ? std::int64_t{0} : store.error().code();
  };
  const auto original = version(kBooks, "TestModel");
  EXPECT_EQ(add({original}, true, true), 0);
  EXPECT_EQ(add({original}, false, true), kPersistentStoreIncompatibleVersionHashError);
  EXPECT_EQ(add({original}, true, false), kMigrationMissingMappingModelError);
  // Without the bundle's versions the store's own cached model is the source; without that too,
  // there is none.
  EXPECT_EQ(add({}, true, true), 0);
  EXPECT_EQ(add({}, true, true, false), kMigrationMissingSourceModelError);

  // A store of another model, even one whose cached model fits its hashes, is no earlier version:
  // refused, and the file not touched.
  const fs::path foreign = test::copyFixtureStore("coredata/moody/stores/Moody 2.moody", folder);
  const std::string before = fileBytes(foreign);
  PersistentStoreCoordinator coordinator(current);
  auto store = coordinator.addPersistentStore(
      PersistentStoreDescription::persistentStoreDescriptionWithURL(Url::fileUrl(foreign.string(), false)));
  ASSERT_FALSE(store);
  EXPECT_EQ(store.error().code(), kMigrationMissingSourceModelError);
  EXPECT_EQ(fileBytes(foreign), before);
  EXPECT_FALSE(fs::exists(foreign.string() + ".migrating"));
}

// A backup left by an earlier migration (one killed before it could drop it) is not overwritten:
// this migration takes the next name for its own and drops only that one.
TEST(Migration, AnEarlierBackupIsLeftAlone) {
  const fs::path folder = test::scratchFolder("migrate-backup");
  const fs::path path = test::copyFixtureStore("coredata/many-to-many/TestModel.sqlite", folder);
  { std::ofstream(path.string() + ".backup") << "an older store"; }
  exec(path, "INSERT INTO ZAUTHOR (Z_PK, Z_ENT, Z_OPT, ZFIRSTNAME) VALUES (1, 1, 1, 'Ada')");
  ASSERT_TRUE(migrateStore(path, version(kBooks, "TestModel"), version(kBooks, "TestModel 2")));
  EXPECT_EQ(fileBytes(path.string() + ".backup"), "an older store");
  EXPECT_FALSE(fs::exists(path.string() + ".backup-2"));
  EXPECT_EQ(sql(path, "SELECT ZFIRSTNAME FROM ZAUTHOR"), "Ada");
  EXPECT_EQ(sql(path, "PRAGMA journal_mode"), "wal");
}

}  // namespace
}  // namespace tesselune
