// Stores with no model anywhere (no Z_MODELCACHE, or an empty one, and no --model), built from SQL as
// an old tool would have left them: inspect and verify work from the store's own list of entities,
// say that relationships and delete rules are unknown, and delete refuses, naming --model.
#include "app/store_catalog.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "app/store_command.h"
#include "fixtures.h"
#include "store_files.h"

namespace tesselune {
namespace {

namespace fs = std::filesystem;
using testing::CommandResult;
using testing::fileBytes;
using testing::runCommand;
using testing::Sql;

constexpr std::string_view kUuid = "0F3A4C2E-7B1D-4E8F-9A6B-5C2D1E0F3A4B";

// Media (root) > Book > Novel, Media > Magazine, and Shelf; no metadata plist, no model cache.
fs::path oldStore(const std::string& name) {
  const fs::path store = test::scratchFolder(name) / "Old.sqlite";
  Sql(store).run(std::string(R"sql(
    CREATE TABLE Z_PRIMARYKEY (Z_ENT INTEGER PRIMARY KEY, Z_NAME VARCHAR, Z_SUPER INTEGER, Z_MAX INTEGER);
    CREATE TABLE Z_METADATA (Z_VERSION INTEGER PRIMARY KEY, Z_UUID VARCHAR(255), Z_PLIST BLOB);
    INSERT INTO Z_PRIMARYKEY VALUES (1, 'Media', 0, 9), (2, 'Book', 1, 0), (3, 'Novel', 2, 0),
      (4, 'Magazine', 1, 0), (5, 'Shelf', 0, 2);
    CREATE TABLE ZMEDIA (Z_PK INTEGER PRIMARY KEY, Z_ENT INTEGER, Z_OPT INTEGER, ZSHELF INTEGER, ZTITLE VARCHAR);
    CREATE TABLE ZSHELF (Z_PK INTEGER PRIMARY KEY, Z_ENT INTEGER, Z_OPT INTEGER, ZNAME VARCHAR);
    INSERT INTO ZMEDIA VALUES (1, 2, 1, 1, 'Atlas'), (2, 3, 1, 1, 'Emma'), (3, 3, 1, 2, 'Kim'),
      (4, 3, 1, 2, 'Ulysses'), (9, 4, 1, NULL, 'Monthly');
    INSERT INTO ZSHELF VALUES (1, 5, 1, 'Top'), (2, 5, 1, 'Low');
    INSERT INTO Z_METADATA VALUES (1, ')sql") +
                 std::string(kUuid) + "', NULL);");
  return store;
}

TEST(StoreWithoutModel, InspectTellsTheHierarchyAndCountsFromTheStoresOwnList) {
  const fs::path store = oldStore("inspect");
  const std::string before = fileBytes(store);
  const CommandResult inspected = runCommand(store, {"inspect"});
  ASSERT_EQ(inspected.exitCode, kExitOk) << inspected.err;
  EXPECT_NE(inspected.out.find("Model: none: the store keeps no model of itself\nUUID: " +
                               std::string(kUuid) + "\nJournal mode: delete\n"),
            std::string::npos)
      << inspected.out;
  EXPECT_NE(inspected.out.find(
                "Relationships and delete rules: unknown without a model (give it with --model PATH)\n"
                "Entities:\n"
                "  Book (Z_ENT 2, table ZMEDIA, sub-entity of Media): 1 objects, 4 with its sub-entities; "
                "Z_MAX 0\n"
                "  Magazine (Z_ENT 4, table ZMEDIA, sub-entity of Media): 1 objects; Z_MAX 0\n"
                "  Media (Z_ENT 1, table ZMEDIA): 0 objects, 5 with its sub-entities; Z_MAX 9\n"
                "  Novel (Z_ENT 3, table ZMEDIA, sub-entity of Book): 3 objects; Z_MAX 0\n"
                "  Shelf (Z_ENT 5, table ZSHELF): 2 objects; Z_MAX 2\n"),
            std::string::npos)
      << inspected.out;
  EXPECT_EQ(inspected.out.find("Other tables"), std::string::npos) << inspected.out;

  const CommandResult json = runCommand(store, {"inspect", "--json"});
  ASSERT_EQ(json.exitCode, kExitOk) << json.err;
  EXPECT_NE(
      json.out.find("\"model\": \"none: the store keeps no model of itself\", \"deleteRulesKnown\": false"),
      std::string::npos)
      << json.out;
  EXPECT_NE(json.out.find(
                "{\"name\": \"Novel\", \"superentity\": \"Book\", \"abstract\": false, \"entityNumber\": "
                "3, \"table\": \"ZMEDIA\", \"rows\": 3, \"rowsWithSubentities\": 3, \"maxKey\": 0, \"versionHash\": null, "
                "\"storeVersionHash\": null, \"relationships\": []}"),
            std::string::npos)
      << json.out;
  EXPECT_EQ(fileBytes(store), before);
}

TEST(StoreWithoutModel, VerifyChecksWhatItCanAndDeleteAsksForTheModel) {
  const fs::path store = oldStore("verify");
  const std::string header = "Model: none: the store keeps no model of itself\nSQLite integrity: ok\n";
  const std::string references =
      "References: not checked: without a model the relationships are unknown (give it with --model PATH)\n";
  const CommandResult sound = runCommand(store, {"verify"});
  EXPECT_EQ(sound.exitCode, kExitOk);
  EXPECT_EQ(sound.out,
            header + "Entity numbers: ok\n" + references + "Key counters: ok\nThe store is sound.\n");

  // An empty cache table is no model either.
  Sql(store).run("CREATE TABLE Z_MODELCACHE (Z_CONTENT BLOB)");
  const std::string before = fileBytes(store);
  const CommandResult refused = runCommand(store, {"delete", "Novel", "--where", "title == 'Kim'"});
  EXPECT_EQ(refused.exitCode, kExitFailure);
  EXPECT_EQ(refused.out, "");
  EXPECT_EQ(refused.err,
            "tesselune-store: The delete rules of the store at " + store.string() +
                " are unknown: the store keeps no model of itself. Give the model it was made "
                "with: --model PATH (a .xcdatamodeld folder, a .xcdatamodel folder or its contents "
                "file).\n");
  EXPECT_EQ(runCommand(store, {"delete", "Novel", "--where", "TRUEPREDICATE", "--dry-run"}).err, refused.err);
  EXPECT_EQ(fileBytes(store), before);

  // A shelf row among the media, a row of no entity at all, and a counter behind.
  Sql(store).run("UPDATE ZMEDIA SET Z_ENT = 5 WHERE Z_PK = 3; INSERT INTO ZSHELF VALUES (3, 7, 1, 'Odd');");
  const CommandResult damaged = runCommand(store, {"verify"});
  EXPECT_EQ(damaged.exitCode, kExitFailure);
  EXPECT_EQ(damaged.out, header +
                             "Rows of an entity that does not belong in their table: 2\n"
                             "  ZMEDIA: 1 row(s) with Z_ENT 5 (Shelf, whose rows belong in ZSHELF), keys 3\n"
                             "  ZSHELF: 1 row(s) with Z_ENT 7 (no entity of the store), keys 3\n" +
                             references +
                             "Key counters: behind\n"
                             "  Shelf: the key counter Z_MAX is 2 but the highest key in use is 3\n"
                             "The store is damaged.\n");
}

TEST(StoreCatalog, AParentThatIsMissingOrALoopMakesARootRatherThanAHang) {
  const fs::path store = oldStore("catalog");
  Sql(store).run(
      "INSERT INTO Z_PRIMARYKEY VALUES (6, 'Stray', 42, 0), (7, 'Ping', 8, 0), (8, 'Pong', 7, 0),"
      " (16001, 'CHANGE', 0, 5)");
  auto database = Database::open(store, Database::Mode::ReadOnly);
  ASSERT_TRUE(database);
  auto catalog = StoreCatalog::read(**database);
  ASSERT_TRUE(catalog) << catalog.error().localizedDescription();
  EXPECT_EQ(catalog->entities().size(), 8u) << "history entities are not the model's";
  EXPECT_EQ(catalog->entityNamed("CHANGE"), nullptr);
  EXPECT_EQ(catalog->tableOf(*catalog->entityNamed("Novel")), "ZMEDIA");
  EXPECT_EQ(catalog->tableOf(*catalog->entityNamed("Stray")), "ZSTRAY");
  std::vector<std::string> below;
  for (const CatalogEntity* e : catalog->hierarchy(*catalog->entityNamed("Book"))) below.push_back(e->name);
  EXPECT_EQ(below, (std::vector<std::string>{"Book", "Novel"}));
  // Whatever the loop makes of them, both are answered.
  EXPECT_FALSE(catalog->tableOf(*catalog->entityNamed("Ping")).empty());
  EXPECT_FALSE(catalog->hierarchy(*catalog->entityNamed("Pong")).empty());
}

}  // namespace
}  // namespace tesselune
