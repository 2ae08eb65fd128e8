// The maintenance command on stores Core Data wrote for other programs: inspecting them without their
// model files, and deleting from copies of them without leaving anything Core Data would trip over.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "app/store_command.h"
#include "app/store_delete.h"
#include "app/store_description.h"
#include "app/store_verification.h"
#include "fixtures.h"
#include "objectstore/description/managed_object_model.h"
#include "store_files.h"

namespace tesselune {
namespace {

namespace fs = std::filesystem;
using test::copyFixtureStore;
using test::scratchFolder;
using test::storesWithTheirModels;

using testing::CommandResult;
using testing::runCommand;
using testing::Sql;

// Z_PRIMARYKEY as it is: no delete may move a key counter.
std::vector<std::vector<std::string>> keyCounters(const fs::path& store) {
  return Sql(store).table("SELECT Z_ENT, Z_NAME, Z_MAX FROM Z_PRIMARYKEY ORDER BY Z_ENT");
}

void expectStoreSound(const fs::path& store) {
  EXPECT_EQ(Sql(store).value("PRAGMA integrity_check"), "ok");
  auto opened = openStoreWithModel(store, std::nullopt, true);
  ASSERT_TRUE(opened) << opened.error().localizedDescription();
  auto verified = verifyStore(*opened->store);
  ASSERT_TRUE(verified) << verified.error().localizedDescription();
  EXPECT_TRUE(verified->ok()) << formatVerification(*verified);
}

TEST(ForeignStore, EveryFixtureStoreInspectsWithoutItsModelFile) {
  for (const auto& [storeName, modelName] : storesWithTheirModels()) {
    SCOPED_TRACE(storeName);
    const fs::path store = copyFixtureStore(storeName, scratchFolder("inspect"));
    auto opened = openStoreWithModel(store, std::nullopt, true);
    ASSERT_TRUE(opened) << opened.error().localizedDescription();
    EXPECT_EQ(opened->modelSource, "the model cached in the store");
    auto inspection = inspectStore(*opened->store, opened->modelSource);
    ASSERT_TRUE(inspection) << inspection.error().localizedDescription();

    // The model file, read by the other decoder, is the yardstick for names and delete rules.
    auto fromFile = ManagedObjectModel::modelWithContentsOfFile(fs::path(TESSELUNE_FIXTURES_DIR) / modelName);
    ASSERT_TRUE(fromFile);
    std::set<std::string> expectedNames;
    for (const auto& entity : (*fromFile)->entities()) expectedNames.insert(entity->name());
    std::set<std::string> names;
    for (const EntitySummary& entity : inspection->entities) {
      SCOPED_TRACE(entity.name);
      names.insert(entity.name);
      EXPECT_EQ(entity.versionHash.size(), 64u);
      EXPECT_EQ(entity.versionHash, entity.storeVersionHash);
      const EntityDescription* expected = (*fromFile)->entityNamed(entity.name);
      ASSERT_NE(expected, nullptr);
      EXPECT_EQ(entity.superentity, expected->superentity() ? expected->superentity()->name() : "");
      for (const RelationshipSummary& r : entity.relationships) {
        const auto it = expected->relationshipsByName().find(r.name);
        ASSERT_NE(it, expected->relationshipsByName().end()) << r.name;
        EXPECT_EQ(r.deleteRule, deleteRuleName(it->second->deleteRule())) << r.name;
        EXPECT_EQ(r.destination, it->second->destinationEntityName());
      }
    }
    EXPECT_EQ(names, expectedNames);

    // Each root's count with its sub-entities is every row of its table.
    Sql sql(store);
    for (const EntitySummary& entity : inspection->entities) {
      if (!entity.superentity.empty()) continue;
      EXPECT_EQ(std::to_string(entity.rowsWithSubentities), sql.value("SELECT COUNT(*) FROM " + entity.table))
          << entity.name;
    }
    EXPECT_EQ(inspection->journalMode, Sql(store).value("PRAGMA journal_mode"));
    EXPECT_TRUE(inspection->otherTables.empty());
  }
}

TEST(ForeignStore, InspectCountsSubEntitiesAndPrintsTextAndJson) {
  const fs::path store = copyFixtureStore("coredata/moody/stores/Moody.moody", scratchFolder("counts"));
  const CommandResult text = runCommand(store, {"inspect"});
  ASSERT_EQ(text.exitCode, kExitOk) << text.err;
  EXPECT_NE(
      text.out.find("GeographicRegion (Z_ENT 1, table ZGEOGRAPHICREGION, abstract): 0 objects, 5 with its "
                    "sub-entities"),
      std::string::npos)
      << text.out;
  EXPECT_NE(
      text.out.find("Country (Z_ENT 3, table ZGEOGRAPHICREGION, sub-entity of GeographicRegion): 3 objects"),
      std::string::npos);
  EXPECT_NE(text.out.find(
                "Continent (Z_ENT 2, table ZGEOGRAPHICREGION, sub-entity of GeographicRegion): 2 objects"),
            std::string::npos);
  EXPECT_NE(text.out.find("moods → many Mood (inverse country), delete rule nullify"), std::string::npos);
  EXPECT_NE(text.out.find("Journal mode: wal"), std::string::npos);
  EXPECT_EQ(text.out.find("differs"), std::string::npos);

  const CommandResult json = runCommand(store, {"inspect", "--json"});
  ASSERT_EQ(json.exitCode, kExitOk) << json.err;
  EXPECT_EQ(json.out.front(), '{');
  EXPECT_NE(json.out.find("\"name\": \"GeographicRegion\", \"superentity\": null, \"abstract\": true, "
                          "\"entityNumber\": 1, \"table\": \"ZGEOGRAPHICREGION\", \"rows\": 0, "
                          "\"rowsWithSubentities\": 5"),
            std::string::npos)
      << json.out;
  EXPECT_NE(json.out.find("\"NSStoreType\": \"SQLite\""), std::string::npos);
}

TEST(ForeignStore, AStoreWithoutItsModelIsDescribedFromItsOwnListOrWithTheFittingVersion) {
  const fs::path store = copyFixtureStore("coredata/moody/stores/Moody 2.moody", scratchFolder("nomodel"));
  Sql(store).run("DELETE FROM Z_MODELCACHE");
  const CommandResult inspected = runCommand(store, {"inspect"});
  ASSERT_EQ(inspected.exitCode, kExitOk) << inspected.err;
  EXPECT_NE(inspected.out.find("Model: none: the store keeps no model of itself\n"), std::string::npos)
      << inspected.out;
  EXPECT_NE(
      inspected.out.find("Country (Z_ENT 3, table ZGEOGRAPHICREGION, sub-entity of GeographicRegion): "),
      std::string::npos);
  const CommandResult verified = runCommand(store, {"verify"});
  EXPECT_EQ(verified.exitCode, kExitOk) << verified.out;
  const CommandResult refused = runCommand(store, {"delete", "Mood", "--where", "TRUEPREDICATE"});
  EXPECT_EQ(refused.exitCode, kExitFailure);
  EXPECT_NE(refused.err.find("--model PATH"), std::string::npos) << refused.err;

  // A damaged cache is no model either: described all the same, never a crash, and it says why.
  for (const char* damage : {"UPDATE Z_MODELCACHE SET Z_CONTENT = X'FFFFFFFF00'",
                             "UPDATE Z_MODELCACHE SET Z_CONTENT = substr(Z_CONTENT, 1, 200)"}) {
    const fs::path damaged =
        copyFixtureStore("coredata/moody/stores/Moody 3.moody", scratchFolder("damaged"));
    Sql(damaged).run(damage);
    const CommandResult result = runCommand(damaged, {"inspect"});
    EXPECT_EQ(result.exitCode, kExitOk) << damage << result.err;
    EXPECT_NE(result.out.find("Model: none: the model the store keeps of itself cannot be read ("),
              std::string::npos)
        << result.out;
  }

  const std::string bundle = std::string(TESSELUNE_FIXTURES_DIR) + "/coredata/moody/Moody.xcdatamodeld";
  const CommandResult chosen = runCommand(store, {"--model", bundle, "inspect"});
  ASSERT_EQ(chosen.exitCode, kExitOk) << chosen.err;
  EXPECT_NE(chosen.out.find("(version \"Moody 2\")"), std::string::npos) << chosen.out;
  EXPECT_EQ(runCommand(store, {"--model", bundle, "verify"}).exitCode, kExitOk);

  // A single version that does not fit is refused, naming what differs, not opened.
  const CommandResult wrong = runCommand(store, {"--model", bundle + "/Moody 5.xcdatamodel", "inspect"});
  EXPECT_EQ(wrong.exitCode, kExitUnopened);
  EXPECT_NE(wrong.err.find(": the version hashes of Country differ from the store's; only in the "
                           "store: Continent, GeographicRegion.\n"),
            std::string::npos)
      << wrong.err;
}

TEST(ForeignStore, DeletingCountriesFromEveryMoodyStoreKeepsItSound) {
  for (const auto& [storeName, modelName] : storesWithTheirModels()) {
    if (storeName.find("moody") == std::string::npos) continue;
    SCOPED_TRACE(storeName);
    const fs::path store = copyFixtureStore(storeName, scratchFolder("delete"));
    const auto counters = keyCounters(store);
    std::map<std::string, std::int64_t> before;
    {
      auto opened = openStoreWithModel(store, std::nullopt, true);
      ASSERT_TRUE(opened);
      auto rows = rowsPerEntity(*opened->store);
      ASSERT_TRUE(rows);
      before = *rows;
    }
    ASSERT_GT(before["Country"], 0);

    const CommandResult result = runCommand(store, {"delete", "Country", "--where", "TRUEPREDICATE"});
    ASSERT_EQ(result.exitCode, kExitOk) << result.err;
    EXPECT_NE(result.out.find(std::to_string(before["Country"]) + " Country"), std::string::npos)
        << result.out;

    expectStoreSound(store);
    EXPECT_EQ(keyCounters(store), counters);
    auto opened = openStoreWithModel(store, std::nullopt, true);
    ASSERT_TRUE(opened);
    auto after = rowsPerEntity(*opened->store);
    ASSERT_TRUE(after);
    for (const auto& [entity, count] : before) {
      EXPECT_EQ((*after)[entity], entity == "Country" ? 0 : count) << entity;
    }
    // Nullify leaves the moods, each without its country.
    EXPECT_EQ(Sql(store).value("SELECT COUNT(*) FROM ZMOOD WHERE ZCOUNTRY IS NOT NULL"), "0");
  }
}

TEST(ForeignStore, DeleteByPredicateTakesOnlyTheMatchingSubEntityRows) {
  const fs::path store = copyFixtureStore("coredata/moody/stores/Moody.moody", scratchFolder("some"));
  const auto counters = keyCounters(store);
  Sql sql(store);
  const std::string moodsOfOthers = "SELECT Z_PK, ZCOUNTRY FROM ZMOOD WHERE ZCOUNTRY <> 30 ORDER BY Z_PK";
  const auto untouchedMoods = sql.table(moodsOfOthers);
  const std::string moodsOf30 = sql.value("SELECT COUNT(*) FROM ZMOOD WHERE ZCOUNTRY = 30");
  const auto regionsBefore = sql.table("SELECT * FROM ZGEOGRAPHICREGION WHERE Z_PK <> 30 ORDER BY Z_PK");

  // A dry run lists and changes nothing; the store is not even opened for writing.
  fs::permissions(store, fs::perms::owner_read);
  const CommandResult dry =
      runCommand(store, {"delete", "country", "--where", "numericISO3166Code == 704", "--dry-run"});
  fs::permissions(store, fs::perms::owner_read | fs::perms::owner_write);
  ASSERT_EQ(dry.exitCode, kExitOk) << dry.err;
  EXPECT_NE(dry.out.find("Would delete 1 Country object(s)"), std::string::npos) << dry.out;
  EXPECT_NE(dry.out.find("/Country/p30\n"), std::string::npos) << dry.out;
  EXPECT_NE(dry.out.find("Country.moods: nullify, empties Mood.country"), std::string::npos) << dry.out;
  EXPECT_EQ(sql.value("SELECT COUNT(*) FROM ZGEOGRAPHICREGION"), "5");

  const CommandResult done = runCommand(store, {"delete", "Country", "--where", "numericISO3166Code == 704"});
  ASSERT_EQ(done.exitCode, kExitOk) << done.err;
  EXPECT_NE(done.out.find("Deleted:\n  1 Country\n"), std::string::npos) << done.out;
  EXPECT_EQ(sql.value("SELECT COUNT(*) FROM ZMOOD WHERE ZCOUNTRY IS NULL"), moodsOf30);
  EXPECT_EQ(sql.table(moodsOfOthers), untouchedMoods);
  // Continents lose the link through the sub-entity's own key column only; nothing else changed.
  EXPECT_EQ(sql.table("SELECT * FROM ZGEOGRAPHICREGION ORDER BY Z_PK"), regionsBefore);
  EXPECT_EQ(keyCounters(store), counters);
  expectStoreSound(store);
}

TEST(ForeignStore, VerifyFindsKeysOfRowsDeletedBehindCoreDatasBack) {
  const fs::path store = copyFixtureStore("coredata/moody/stores/Moody.moody", scratchFolder("dangling"));
  EXPECT_EQ(runCommand(store, {"verify"}).exitCode, kExitOk);
  Sql(store).run("DELETE FROM ZGEOGRAPHICREGION WHERE Z_PK = 30");
  const CommandResult damaged = runCommand(store, {"verify"});
  EXPECT_EQ(damaged.exitCode, kExitFailure);
  EXPECT_NE(damaged.out.find("Mood.country (ZMOOD.ZCOUNTRY)"), std::string::npos) << damaged.out;
  EXPECT_NE(damaged.out.find("name a missing Country, keys 30"), std::string::npos) << damaged.out;
}

TEST(ForeignStore, DeleteRefusesWhatItCannotDoWithoutChangingTheStore) {
  const fs::path store = copyFixtureStore("coredata/moody/stores/Moody.moody", scratchFolder("refuse"));
  const std::string before = Sql(store).value("SELECT COUNT(*) FROM ZGEOGRAPHICREGION");
  const CommandResult unknown = runCommand(store, {"delete", "Planet", "--where", "TRUEPREDICATE"});
  EXPECT_EQ(unknown.exitCode, kExitFailure);
  EXPECT_NE(unknown.err.find("its entities are: Continent, Country, GeographicRegion, Mood"),
            std::string::npos)
      << unknown.err;
  EXPECT_EQ(runCommand(store, {"delete", "Country", "--where", "noSuchKey == 1"}).exitCode, kExitFailure);
  EXPECT_EQ(runCommand(store, {"delete", "Country", "--where", "== =="}).exitCode, kExitFailure);
  EXPECT_EQ(runCommand(store, {"delete", "Country"}).exitCode, kExitUsage);
  EXPECT_EQ(Sql(store).value("SELECT COUNT(*) FROM ZGEOGRAPHICREGION"), before);
}

TEST(ForeignStore, ManyToManyDeleteRemovesTheLinksAndKeepsTheOtherSide) {
  const fs::path store = copyFixtureStore("coredata/many-to-many/TestModel.sqlite", scratchFolder("m2m"));
  Sql sql(store);
  sql.run(
      "INSERT INTO ZAUTHOR VALUES (1, 1, 1, 'Ada', 'Byron'), (2, 1, 1, 'Alan', 'Turing');"
      "INSERT INTO ZBOOK VALUES (1, 2, 1, 'Notes'), (2, 2, 1, 'Computing'), (3, 2, 1, 'Morphogenesis');"
      "INSERT INTO Z_1BOOKS VALUES (1, 1), (1, 2), (2, 2), (2, 3);"
      "UPDATE Z_PRIMARYKEY SET Z_MAX = 2 WHERE Z_ENT = 1; UPDATE Z_PRIMARYKEY SET Z_MAX = 3 WHERE Z_ENT = "
      "2;");
  const auto counters = keyCounters(store);

  const CommandResult done = runCommand(store, {"delete", "Book", "--where", "title == 'Computing'"});
  ASSERT_EQ(done.exitCode, kExitOk) << done.err;
  EXPECT_EQ(sql.table("SELECT Z_1AUTHORS, Z_2BOOKS FROM Z_1BOOKS ORDER BY 1, 2"),
            (std::vector<std::vector<std::string>>{{"1", "1"}, {"2", "3"}}));
  EXPECT_EQ(sql.value("SELECT group_concat(ZTITLE) FROM (SELECT ZTITLE FROM ZBOOK ORDER BY Z_PK)"),
            "Notes,Morphogenesis");
  EXPECT_EQ(sql.value("SELECT COUNT(*) FROM ZAUTHOR"), "2");
  EXPECT_EQ(keyCounters(store), counters);
  expectStoreSound(store);
}

// Tables and triggers shaped like those Core Data adds for persistent history, with trigger bodies
// that call its own SQL functions, as a store with history tracking carries them.
void addHistoryTracking(const fs::path& store) {
  Sql(store).run(R"sql(
    CREATE TABLE ATRANSACTIONSTRING (Z_PK INTEGER PRIMARY KEY, Z_ENT INTEGER, Z_OPT INTEGER, ZNAME VARCHAR NOT NULL UNIQUE);
    CREATE TABLE ATRANSACTION (Z_PK INTEGER PRIMARY KEY, Z_ENT INTEGER, Z_OPT INTEGER, ZAUTHORTS INTEGER,
      ZBUNDLEIDTS INTEGER, ZCONTEXTNAMETS INTEGER, ZPROCESSIDTS INTEGER, ZTIMESTAMP FLOAT, ZAUTHOR VARCHAR,
      ZBUNDLEID VARCHAR, ZCONTEXTNAME VARCHAR, ZPROCESSID VARCHAR, ZQUERYGEN BLOB);
    CREATE TABLE ACHANGE (Z_PK INTEGER PRIMARY KEY, Z_ENT INTEGER, Z_OPT INTEGER, ZCHANGETYPE INTEGER,
      ZENTITY INTEGER, ZENTITYPK INTEGER, ZTRANSACTIONID INTEGER, ZCOLUMNS BLOB);
    CREATE INDEX ACHANGE_ZTRANSACTIONID_INDEX ON ACHANGE (ZTRANSACTIONID);
    INSERT INTO Z_PRIMARYKEY (Z_ENT, Z_NAME, Z_SUPER, Z_MAX) VALUES
      (16001, 'CHANGE', 0, 0), (16002, 'TRANSACTION', 0, 0), (16003, 'TRANSACTIONSTRING', 0, 0);
    CREATE TRIGGER ZQ_ZGEOGRAPHICREGION_DELETE AFTER DELETE ON ZGEOGRAPHICREGION FOR EACH ROW BEGIN
      INSERT INTO ACHANGE (Z_ENT, Z_OPT, ZCHANGETYPE, ZENTITY, ZENTITYPK, ZTRANSACTIONID)
        VALUES (16001, 1, 2, OLD.Z_ENT, OLD.Z_PK,
                NSCoreDataTriggerUpdateAffectedObjectValue('ZGEOGRAPHICREGION', OLD.Z_ENT, OLD.Z_PK, 2));
    END;
    CREATE TRIGGER ZQ_ZMOOD_UPDATE AFTER UPDATE OF ZCOUNTRY ON ZMOOD FOR EACH ROW BEGIN
      INSERT INTO ACHANGE (Z_ENT, Z_OPT, ZCHANGETYPE, ZENTITY, ZENTITYPK, ZCOLUMNS)
        VALUES (16001, 1, 1, NEW.Z_ENT, NEW.Z_PK, NSPersistentHistoryChangedColumns(NEW.Z_PK, 'country'));
      SELECT NSCoreDataTriggerInsertUpdatedAffectedObjectValue('ZMOOD', NEW.Z_ENT, NEW.Z_PK, 'country');
    END;
  )sql");
}

TEST(ForeignStore, HistoryTablesAndCoreDataTriggersKeepWorkingThroughADelete) {
  const fs::path store = copyFixtureStore("coredata/moody/stores/Moody.moody", scratchFolder("history"));
  addHistoryTracking(store);
  const auto counters = keyCounters(store);
  Sql sql(store);
  const std::string moodsOfCountries = sql.value("SELECT COUNT(*) FROM ZMOOD WHERE ZCOUNTRY IS NOT NULL");

  const CommandResult inspected = runCommand(store, {"inspect"});
  ASSERT_EQ(inspected.exitCode, kExitOk) << inspected.err;
  EXPECT_NE(inspected.out.find("Other tables: ACHANGE, ATRANSACTION, ATRANSACTIONSTRING"), std::string::npos)
      << inspected.out;

  const CommandResult done = runCommand(store, {"delete", "Country", "--where", "TRUEPREDICATE"});
  ASSERT_EQ(done.exitCode, kExitOk) << done.err;
  // The store's own triggers fired for every deleted row and every nullified mood.
  EXPECT_EQ(sql.value("SELECT COUNT(*) FROM ACHANGE WHERE ZCHANGETYPE = 2 AND ZENTITY = 3"), "3");
  EXPECT_EQ(sql.value("SELECT COUNT(*) FROM ACHANGE WHERE ZCHANGETYPE = 1"), moodsOfCountries);
  EXPECT_EQ(sql.value("SELECT COUNT(*) FROM sqlite_master WHERE type = 'trigger'"), "2");
  EXPECT_EQ(keyCounters(store), counters);
  expectStoreSound(store);
}

// A model whose rules the fixtures lack: cascades two levels deep, one of them declared on an abstract
// parent and inherited by a sub-entity, a many-to-many pair, and a deny rule.
constexpr std::string_view kNotesModel = R"xml(<?xml version="1.0" encoding="UTF-8" standalone="yes"?>
<model type="com.apple.IDECoreDataModeler.DataModel" documentVersion="1.0">
  <entity name="Folder">
    <attribute name="name" optional="YES" attributeType="String"/>
    <relationship name="items" optional="YES" toMany="YES" deletionRule="Cascade" destinationEntity="Item" inverseName="folder" inverseEntity="Item"/>
  </entity>
  <entity name="Item" isAbstract="YES">
    <attribute name="title" optional="YES" attributeType="String"/>
    <relationship name="folder" optional="YES" maxCount="1" deletionRule="Nullify" destinationEntity="Folder" inverseName="items" inverseEntity="Folder"/>
    <relationship name="attachments" optional="YES" toMany="YES" deletionRule="Cascade" destinationEntity="Attachment" inverseName="item" inverseEntity="Attachment"/>
    <relationship name="tags" optional="YES" toMany="YES" deletionRule="Nullify" destinationEntity="Tag" inverseName="items" inverseEntity="Tag"/>
  </entity>
  <entity name="Note" parentEntity="Item"/>
  <entity name="Task" parentEntity="Item">
    <attribute name="done" optional="YES" attributeType="Boolean"/>
  </entity>
  <entity name="Attachment">
    <attribute name="file" optional="YES" attributeType="String"/>
    <relationship name="item" optional="YES" maxCount="1" deletionRule="Nullify" destinationEntity="Item" inverseName="attachments" inverseEntity="Item"/>
  </entity>
  <entity name="Tag">
    <attribute name="name" optional="YES" attributeType="String"/>
    <relationship name="items" optional="YES" toMany="YES" deletionRule="Deny" destinationEntity="Item" inverseName="tags" inverseEntity="Item"/>
  </entity>
</model>)xml";

class NotesStore : public ::testing::Test {
 protected:
  void SetUp() override {
    const fs::path folder = scratchFolder("notes");
    modelFolder_ = folder / "Notes.xcdatamodel";
    fs::create_directories(modelFolder_);
    std::ofstream(modelFolder_ / "contents") << kNotesModel;
    store_ = folder / "Notes.sqlite";
    auto model = ManagedObjectModel::modelWithContentsOfFile(modelFolder_);
    ASSERT_TRUE(model) << model.error().localizedDescription();
    auto made = SqliteStore::create(store_, *model, SqliteStore::Options{});
    ASSERT_TRUE(made) << made.error().localizedDescription();
    for (const auto& entity : (*model)->entities())
      numbers_[entity->name()] = *(*made)->entityNumber(*entity);
    const PropertyMapping* mapping =
        (*made)->schema().mapping(*(*model)->entityNamed("Item")->relationshipsByName().at("tags"));
    ASSERT_NE(mapping, nullptr);
    const PropertyMapping tags = *mapping;
    made->reset();
    // Two folders; the first holds a note with two attachments and a task with one, the second a
    // note with one. Everything is tagged.
    const auto n = [this](const char* entity) { return std::to_string(numbers_[entity]); };
    Sql(store_).run("INSERT INTO ZFOLDER (Z_PK, Z_ENT, Z_OPT, ZNAME) VALUES (1, " + n("Folder") +
                    ", 1, 'Trash'), (2, " + n("Folder") + ", 1, 'Keep');" +
                    "INSERT INTO ZITEM (Z_PK, Z_ENT, Z_OPT, ZTITLE, ZFOLDER) VALUES (1, " + n("Note") +
                    ", 1, 'old', 1), (2, " + n("Task") + ", 1, 'chore', 1), (3, " + n("Note") +
                    ", 1, 'kept', 2);" +
                    "INSERT INTO ZATTACHMENT (Z_PK, Z_ENT, Z_OPT, ZFILE, ZITEM) VALUES (1, " +
                    n("Attachment") + ", 1, 'a', 1), (2, " + n("Attachment") + ", 1, 'b', 1), (3, " +
                    n("Attachment") + ", 1, 'c', 2), (4, " + n("Attachment") + ", 1, 'd', 3);" +
                    "INSERT INTO ZTAG (Z_PK, Z_ENT, Z_OPT, ZNAME) VALUES (1, " + n("Tag") + ", 1, 'work');" +
                    "INSERT INTO " + tags.table + " (" + tags.column + ", " + tags.otherColumn +
                    ") VALUES (1, 1), (2, 1), (3, 1);" +
                    "UPDATE Z_PRIMARYKEY SET Z_MAX = 4 WHERE Z_NAME = 'Attachment';" +
                    "UPDATE Z_PRIMARYKEY SET Z_MAX = 3 WHERE Z_NAME = 'Item';" +
                    "UPDATE Z_PRIMARYKEY SET Z_MAX = 2 WHERE Z_NAME = 'Folder';" +
                    "UPDATE Z_PRIMARYKEY SET Z_MAX = 1 WHERE Z_NAME = 'Tag';");
    joinTable_ = tags.table;
  }

  CommandResult run(std::vector<std::string> arguments, std::FILE* progress = nullptr) {
    arguments.insert(arguments.begin(), {"--model", modelFolder_.string()});
    return runCommand(store_, arguments, progress);
  }

  fs::path modelFolder_;
  fs::path store_;
  std::map<std::string, std::int64_t> numbers_;
  std::string joinTable_;
};

TEST_F(NotesStore, CascadesThroughInheritedRulesLeaveNoKeyBehind) {
  const auto counters = keyCounters(store_);
  const CommandResult dry = run({"delete", "Folder", "--where", "name == 'Trash'", "--dry-run"});
  ASSERT_EQ(dry.exitCode, kExitOk) << dry.err;
  for (const char* effect : {"Folder.items: cascade, deletes the Item objects it names",
                             "Item.attachments: cascade, deletes the Attachment objects it names",
                             "Item.tags: nullify, removes them from Tag.items"}) {
    EXPECT_NE(dry.out.find(effect), std::string::npos) << effect << "\n" << dry.out;
  }

  std::FILE* terminal = std::tmpfile();
  ASSERT_NE(terminal, nullptr);
  const CommandResult done = run({"delete", "Folder", "--where", "name == 'Trash'"}, terminal);
  ASSERT_EQ(done.exitCode, kExitOk) << done.err;
  std::rewind(terminal);
  std::string bar(256, '\0');
  bar.resize(std::fread(bar.data(), 1, bar.size(), terminal));
  std::fclose(terminal);
  EXPECT_NE(bar.find("100%  Deleting Folder"), std::string::npos) << bar;
  EXPECT_EQ(bar.back(), '\n');
  EXPECT_NE(done.out.find("Deleted:\n  3 Attachment\n  1 Folder\n  1 Note\n  1 Task\n"), std::string::npos)
      << done.out;
  Sql sql(store_);
  EXPECT_EQ(sql.value("SELECT group_concat(ZFILE) FROM ZATTACHMENT"), "d");
  EXPECT_EQ(sql.value("SELECT group_concat(ZTITLE) FROM ZITEM"), "kept");
  EXPECT_EQ(sql.value("SELECT COUNT(*) FROM " + joinTable_), "1");
  EXPECT_EQ(sql.value("SELECT COUNT(*) FROM ZTAG"), "1");
  EXPECT_EQ(keyCounters(store_), counters);
  EXPECT_EQ(run({"verify"}).exitCode, kExitOk);
}

TEST_F(NotesStore, ADenyRuleRefusesTheWholeDelete) {
  const CommandResult refused = run({"delete", "Tag", "--where", "TRUEPREDICATE"});
  EXPECT_EQ(refused.exitCode, kExitFailure);
  EXPECT_FALSE(refused.err.empty());
  EXPECT_EQ(Sql(store_).value("SELECT COUNT(*) FROM ZTAG"), "1");
  EXPECT_EQ(Sql(store_).value("SELECT COUNT(*) FROM " + joinTable_), "3");
}

}  // namespace
}  // namespace tesselune
