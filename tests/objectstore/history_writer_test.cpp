// Persistent history written by our saves and batch deletes, checked row by row in stores whose
// history tables are made with the framework's layout: transactions, interned strings, change
// types, ZCOLUMNS bitmaps, tombstones and the key counters; and stores without history left so.

#include "objectstore/sqlite/history_writer.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "fixtures.h"
#include "foundation/process_info.h"
#include "objectstore/managed_object_context.h"
#include "objectstore/persistent_store_coordinator.h"
#include "objectstore/sqlite/batch_delete.h"

namespace tesselune {
namespace {

// Entity numbers: Book 1, Novel 2 (a Book), Reader 3, Shelf 4. Stored properties in name order:
//   Book:   bannerOf, cover, isbn, pages, shelf, title                 tombstones isbn, title
//   Novel:  bannerOf, cover, genre, isbn, pages, shelf, title          tombstones genre, isbn, title
//   Reader: borrowed, favourite, name
//   Shelf:  banner, books, borrowers, label, position, readers         tombstone label
// `cover` keeps its value outside the row, so it has no tombstone although it asks for one.
constexpr std::string_view kModel = R"(<?xml version="1.0" encoding="UTF-8" standalone="yes"?>
<model type="com.apple.IDECoreDataModeler.DataModel" documentVersion="1.0">
  <entity name="Shelf">
    <attribute name="label" optional="YES" attributeType="String" preserveAfterDeletion="YES"/>
    <attribute name="position" optional="YES" attributeType="Integer 64" usesScalarValueType="YES"/>
    <relationship name="books" optional="YES" toMany="YES" deletionRule="Cascade" destinationEntity="Book" inverseName="shelf" inverseEntity="Book"/>
    <relationship name="readers" optional="YES" toMany="YES" deletionRule="Nullify" destinationEntity="Reader" inverseName="favourite" inverseEntity="Reader"/>
    <relationship name="borrowers" optional="YES" toMany="YES" deletionRule="Nullify" destinationEntity="Reader" inverseName="borrowed" inverseEntity="Reader"/>
    <relationship name="banner" optional="YES" maxCount="1" deletionRule="Nullify" destinationEntity="Book" inverseName="bannerOf" inverseEntity="Book"/>
  </entity>
  <entity name="Book">
    <attribute name="title" optional="YES" attributeType="String" preserveAfterDeletion="YES"/>
    <attribute name="isbn" optional="YES" attributeType="String" preserveAfterDeletion="YES"/>
    <attribute name="cover" optional="YES" attributeType="Binary" allowsExternalBinaryDataStorage="YES" preserveAfterDeletion="YES"/>
    <attribute name="pages" optional="YES" attributeType="Integer 32" usesScalarValueType="YES"/>
    <relationship name="shelf" optional="YES" maxCount="1" deletionRule="Nullify" destinationEntity="Shelf" inverseName="books" inverseEntity="Shelf"/>
    <relationship name="bannerOf" optional="YES" maxCount="1" deletionRule="Nullify" destinationEntity="Shelf" inverseName="banner" inverseEntity="Shelf"/>
  </entity>
  <entity name="Novel" parentEntity="Book">
    <attribute name="genre" optional="YES" attributeType="String" preserveAfterDeletion="YES"/>
  </entity>
  <entity name="Reader">
    <attribute name="name" optional="YES" attributeType="String"/>
    <relationship name="favourite" optional="YES" maxCount="1" deletionRule="Nullify" destinationEntity="Shelf" inverseName="readers" inverseEntity="Shelf"/>
    <relationship name="borrowed" optional="YES" maxCount="1" deletionRule="Nullify" destinationEntity="Shelf" inverseName="borrowers" inverseEntity="Shelf"/>
  </entity>
</model>)";

// The history tables as stores written by the framework have them, with `prefix` ("A" now, "Z_"
// in older stores) and three tombstone columns.
std::vector<std::string> historyDdl(const std::string& prefix) {
  const std::string s = prefix + "TRANSACTIONSTRING";
  const std::string t = prefix + "TRANSACTION";
  const std::string c = prefix + "CHANGE";
  return {
      "CREATE TABLE " + s + " (Z_PK INTEGER PRIMARY KEY, Z_ENT INTEGER, Z_OPT INTEGER, ZNAME VARCHAR)",
      "CREATE UNIQUE INDEX Z_TRANSACTIONSTRING_UNIQUE_NAME ON " + s + " (ZNAME COLLATE BINARY ASC)",
      "CREATE TABLE " + t +
          " (Z_PK INTEGER PRIMARY KEY, Z_ENT INTEGER, Z_OPT INTEGER, ZAUTHORTS INTEGER, ZBUNDLEIDTS INTEGER, "
          "ZCONTEXTNAMETS INTEGER, ZPROCESSIDTS INTEGER, ZTIMESTAMP FLOAT, ZAUTHOR VARCHAR, ZBUNDLEID "
          "VARCHAR, "
          "ZCONTEXTNAME VARCHAR, ZPROCESSID VARCHAR, ZQUERYGEN BLOB)",
      "CREATE INDEX " + t + "_ZAUTHORTS_INDEX ON " + t + " (ZAUTHORTS)",
      "CREATE INDEX " + t + "_ZBUNDLEIDTS_INDEX ON " + t + " (ZBUNDLEIDTS)",
      "CREATE INDEX " + t + "_ZCONTEXTNAMETS_INDEX ON " + t + " (ZCONTEXTNAMETS)",
      "CREATE INDEX " + t + "_ZPROCESSIDTS_INDEX ON " + t + " (ZPROCESSIDTS)",
      "CREATE INDEX Z_TRANSACTION_TransactionAuthorIndex ON " + t + " (ZAUTHOR COLLATE BINARY ASC)",
      "CREATE INDEX Z_TRANSACTION_TransactionTimestampIndex ON " + t + " (ZTIMESTAMP COLLATE BINARY ASC)",
      "CREATE TABLE " + c +
          " (Z_PK INTEGER PRIMARY KEY, Z_ENT INTEGER, Z_OPT INTEGER, ZCHANGETYPE INTEGER, ZENTITY INTEGER, "
          "ZENTITYPK INTEGER, ZTRANSACTIONID INTEGER, ZCOLUMNS BLOB, ZTOMBSTONE0 BLOB, ZTOMBSTONE1 BLOB, "
          "ZTOMBSTONE2 BLOB)",
      "CREATE INDEX " + c + "_ZTRANSACTIONID_INDEX ON " + c + " (ZTRANSACTIONID)",
      "INSERT INTO Z_PRIMARYKEY (Z_ENT, Z_NAME, Z_SUPER, Z_MAX) VALUES (16001, 'CHANGE', 0, 0), "
      "(16002, 'TRANSACTION', 0, 0), (16003, 'TRANSACTIONSTRING', 0, 0)",
  };
}

double secondsSince2001() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count() -
         978307200.0;
}

class HistoryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    auto model = ManagedObjectModel::modelWithXml(kModel, "History.xcdatamodel/contents");
    ASSERT_TRUE(model) << model.error().debugDescription();
    model_ = *model;
    path_ = test::scratchFolder("history") / "Library.sqlite";
    setMainBundleIdentifier("org.example.Library");
  }
  void TearDown() override { setMainBundleIdentifier(std::nullopt); }

  // A new store, with history tables of the given prefix unless it is empty.
  void createStore(const std::string& historyPrefix) {
    auto store = SqliteStore::create(path_, model_, {});
    ASSERT_TRUE(store) << store.error().debugDescription();
    if (historyPrefix.empty()) return;
    for (const std::string& sql : historyDdl(historyPrefix)) {
      auto s = (*store)->database().execute(sql);
      ASSERT_TRUE(s) << s.error().debugDescription();
    }
  }

  void openStack() {
    coordinator_ = std::make_unique<PersistentStoreCoordinator>(model_);
    auto store = coordinator_->addPersistentStore(
        PersistentStoreDescription::persistentStoreDescriptionWithURL(Url::fileUrl(path_.string(), false)));
    ASSERT_TRUE(store) << store.error().debugDescription();
    context_ = std::make_unique<ManagedObjectContext>(ManagedObjectContextConcurrencyType::PrivateQueue);
    context_->setPersistentStoreCoordinator(coordinator_.get());
  }

  SqliteStore& store() { return *coordinator_->persistentStores().front(); }

  void sql(const std::string& text) {
    auto s = store().database().execute(text);
    ASSERT_TRUE(s) << s.error().debugDescription();
  }

  // The rows of a query, each as its columns joined by "|", NULL as "-", blobs in hex.
  std::vector<std::string> rows(const std::string& text) {
    std::vector<std::string> out;
    auto statement = store().database().prepare(text);
    EXPECT_TRUE(statement) << statement.error().debugDescription();
    if (!statement) return out;
    while (statement->step().value_or(false)) {
      std::string line;
      for (int i = 0; i < statement->columnCount(); ++i) {
        if (i > 0) line += "|";
        const Value value = statement->value(i);
        if (value.isNull()) {
          line += "-";
        } else if (value.isData()) {
          line += "x";
          for (std::uint8_t b : value.asData()) line += fmt::format("{:02x}", b);
        } else {
          line += statement->text(i);
        }
      }
      out.push_back(line);
    }
    return out;
  }

  std::string one(const std::string& text) {
    auto all = rows(text);
    return all.empty() ? "" : all.front();
  }

  std::shared_ptr<ManagedObject> insert(std::string_view entity) {
    return context_->insertNewObjectForEntityForName(entity);
  }

  void save() {
    auto s = context_->save();
    ASSERT_TRUE(s) << s.error().debugDescription();
  }

  std::shared_ptr<const ManagedObjectModel> model_;
  std::filesystem::path path_;
  std::unique_ptr<PersistentStoreCoordinator> coordinator_;
  std::unique_ptr<ManagedObjectContext> context_;
};

constexpr const char* kChanges =
    "SELECT Z_PK, Z_ENT, Z_OPT, ZCHANGETYPE, ZENTITY, ZENTITYPK, ZTRANSACTIONID, ZCOLUMNS, ZTOMBSTONE0, "
    "ZTOMBSTONE1, ZTOMBSTONE2 FROM ACHANGE ORDER BY Z_PK";

TEST_F(HistoryTest, EachSaveIsOneTransactionOfInsertsUpdatesAndDeletesWithInternedStrings) {
  createStore("A");
  openStack();
  ASSERT_NE(store().history(), nullptr);
  context_->setTransactionAuthor("importer");
  context_->setName("background");
  const double before = secondsSince2001();
  auto shelf = insert("Shelf");
  shelf->setValue(Value("Crime"), "label");
  auto novel = insert("Novel");
  novel->setValue(Value("Dead Calm"), "title");
  novel->setValue(Value("0-00-000"), "isbn");
  novel->setValue(Value("thriller"), "genre");
  novel->setValue(Value(ObjectPtr(shelf)), "shelf");
  auto reader = insert("Reader");
  reader->setValue(Value(ObjectPtr(shelf)), "favourite");
  save();
  const double after = secondsSince2001();

  // Strings in the order bundle, process, author, context name; each once.
  EXPECT_EQ(rows("SELECT Z_PK, Z_ENT, Z_OPT, ZNAME FROM ATRANSACTIONSTRING ORDER BY Z_PK"),
            (std::vector<std::string>{"1|16003|-|org.example.Library", "2|16003|-|" + processName(),
                                      "3|16003|-|importer", "4|16003|-|background"}));
  EXPECT_EQ(rows("SELECT Z_PK, Z_ENT, Z_OPT, ZBUNDLEIDTS, ZPROCESSIDTS, ZAUTHORTS, ZCONTEXTNAMETS, ZAUTHOR, "
                 "ZBUNDLEID, ZCONTEXTNAME, ZPROCESSID, ZQUERYGEN, typeof(ZTIMESTAMP) FROM ATRANSACTION"),
            (std::vector<std::string>{"1|16002|-|1|2|3|4|-|-|-|-|-|real"}));
  const double stamp = std::stod(one("SELECT ZTIMESTAMP FROM ATRANSACTION"));
  EXPECT_GE(stamp, before - 1);
  EXPECT_LE(stamp, after + 1);
  const std::string shelfKey = std::to_string(shelf->objectID().primaryKey());
  const std::string novelKey = std::to_string(novel->objectID().primaryKey());
  const std::string readerKey = std::to_string(reader->objectID().primaryKey());
  auto inserts = rows(
      "SELECT Z_ENT, Z_OPT, ZCHANGETYPE, ZENTITY, ZENTITYPK, ZTRANSACTIONID, ZCOLUMNS, ZTOMBSTONE0 FROM "
      "ACHANGE "
      "ORDER BY ZENTITY");
  EXPECT_EQ(inserts, (std::vector<std::string>{"16001|-|0|2|" + novelKey + "|1|-|-",
                                               "16001|-|0|3|" + readerKey + "|1|-|-",
                                               "16001|-|0|4|" + shelfKey + "|1|-|-"}));
  EXPECT_EQ(rows("SELECT Z_PK FROM ACHANGE ORDER BY Z_PK"), (std::vector<std::string>{"1", "2", "3"}));

  // A second save without author or name: the same program strings, no new ones; updates carry
  // their changed properties, relationships included.
  context_->setTransactionAuthor("");
  context_->setName("");
  shelf->setValue(Value("Noir"), "label");
  shelf->setValue(Value(std::int64_t{7}), "position");
  novel->setValue(Value(std::int64_t{412}), "pages");
  save();
  EXPECT_EQ(
      one("SELECT ZBUNDLEIDTS, ZPROCESSIDTS, ZAUTHORTS, ZCONTEXTNAMETS FROM ATRANSACTION WHERE Z_PK = 2"),
      "1|2|-|-");
  EXPECT_EQ(one("SELECT COUNT(*) FROM ATRANSACTIONSTRING"), "4");
  EXPECT_EQ(rows("SELECT ZCHANGETYPE, ZENTITY, ZENTITYPK, ZTRANSACTIONID, ZCOLUMNS, ZTOMBSTONE0 FROM ACHANGE "
                 "WHERE Z_PK > 3 ORDER BY ZENTITY"),
            (std::vector<std::string>{"1|2|" + novelKey + "|2|x08|-", "1|4|" + shelfKey + "|2|x18|-"}));

  // Deleting the novel: a delete with the values kept in history (genre, isbn, title; not the
  // cover), and an update of the shelf whose books changed.
  context_->deleteObject(novel);
  save();
  EXPECT_EQ(rows(std::string(kChanges) + " LIMIT -1 OFFSET 5"),
            (std::vector<std::string>{"6|16001|-|2|2|" + novelKey + "|3|-|thriller|0-00-000|Dead Calm",
                                      "7|16001|-|1|4|" + shelfKey + "|3|x40|-|-|-"}));
  EXPECT_EQ(rows("SELECT Z_ENT, Z_MAX FROM Z_PRIMARYKEY WHERE Z_ENT > 16000 ORDER BY Z_ENT"),
            (std::vector<std::string>{"16001|7", "16002|3", "16003|4"}));
}

TEST_F(HistoryTest, FailedSavesAndStoresWithoutHistoryTablesRecordNothing) {
  createStore("A");
  openStack();
  auto shelf = insert("Shelf");
  save();
  // Someone else changes the row: the save fails as a conflict and its history goes with it.
  sql("UPDATE ZSHELF SET Z_OPT = Z_OPT + 1");
  shelf->setValue(Value("Poetry"), "label");
  EXPECT_FALSE(context_->save());
  EXPECT_EQ(one("SELECT COUNT(*) FROM ATRANSACTION"), "1");
  EXPECT_EQ(one("SELECT COUNT(*) FROM ACHANGE"), "1");
  EXPECT_EQ(one("SELECT Z_MAX FROM Z_PRIMARYKEY WHERE Z_ENT = 16001"), "1");

  // A store without history is saved to and batch-deleted from without gaining any.
  context_.reset();
  coordinator_.reset();
  std::filesystem::remove(path_);
  for (const char* suffix : {"-wal", "-shm"}) std::filesystem::remove(path_.string() + suffix);
  createStore("");
  openStack();
  EXPECT_EQ(store().history(), nullptr);
  auto plain = insert("Shelf");
  save();
  auto deleted =
      batchDeleteObjects(store(), {plain->objectID()}, BatchDeleteRequestResultType::ResultTypeCount);
  ASSERT_TRUE(deleted) << deleted.error().debugDescription();
  EXPECT_EQ(deleted->count, 1);
  EXPECT_EQ(one("SELECT COUNT(*) FROM sqlite_master WHERE name LIKE '%TRANSACTION%' OR name LIKE '%CHANGE%'"),
            "0");
  EXPECT_EQ(one("SELECT COUNT(*) FROM Z_PRIMARYKEY WHERE Z_ENT > 16000"), "0");
}

TEST_F(HistoryTest, BatchDeletesRecordCascadedDeletesAndTheRowsWhoseKeysWereNullified) {
  createStore("A");
  openStack();
  // Book 1 is also the crime shelf's banner: its key to the shelf is nullified (that rule's trigger
  // comes first, by name) before the cascade deletes it, and it must show as deleted only.
  sql("INSERT INTO ZSHELF (Z_PK, Z_ENT, Z_OPT, ZLABEL, ZBANNER) VALUES (1, 4, 1, 'Crime', 1), "
      "(2, 4, 1, 'Poetry', NULL)");
  sql("INSERT INTO ZBOOK (Z_PK, Z_ENT, Z_OPT, ZTITLE, ZISBN, ZCOVER, ZGENRE, ZSHELF, ZBANNEROF) VALUES "
      "(1, 1, 1, 'Plain', '1-11', x'0102', NULL, 1, 1), (2, 2, 1, 'Noir', '2-22', NULL, 'crime', 1, NULL), "
      "(3, 2, 1, 'Ode', '3-33', NULL, 'verse', 2, NULL)");
  sql("INSERT INTO ZREADER (Z_PK, Z_ENT, Z_OPT, ZNAME, ZFAVOURITE, ZBORROWED) VALUES "
      "(1, 3, 1, 'Ann', 1, 1), (2, 3, 1, 'Bob', 1, 2), (3, 3, 1, 'Cyd', 2, NULL)");
  sql("UPDATE Z_PRIMARYKEY SET Z_MAX = 3 WHERE Z_ENT IN (1, 3)");
  sql("UPDATE Z_PRIMARYKEY SET Z_MAX = 2 WHERE Z_ENT = 4");

  const ManagedObjectID crime =
      ManagedObjectID::permanent(*model_->entityNamed("Shelf"), store().identifier(), 1);
  auto deleted = batchDeleteObjects(store(), {crime}, BatchDeleteRequestResultType::ResultTypeCount, nullptr,
                                    kBatchDeleteRowsPerChunk, TransactionNames{"cleaner", ""});
  ASSERT_TRUE(deleted) << deleted.error().debugDescription();

  EXPECT_EQ(rows("SELECT ZBUNDLEIDTS, ZPROCESSIDTS, ZAUTHORTS, ZCONTEXTNAMETS, Z_ENT FROM ATRANSACTION"),
            (std::vector<std::string>{"1|2|3|-|16002"}));
  EXPECT_EQ(one("SELECT ZNAME FROM ATRANSACTIONSTRING WHERE Z_PK = 3"), "cleaner");
  // Deleted: the shelf and both of its books (the novel with its genre), each once, with its own
  // entity. Updated: Ann lost both her favourite and borrowed shelf (one row, two bits), Bob only
  // his favourite; Cyd's shelf stays.
  EXPECT_EQ(
      rows("SELECT ZCHANGETYPE, ZENTITY, ZENTITYPK, ZTRANSACTIONID, ZCOLUMNS, ZTOMBSTONE0, ZTOMBSTONE1, "
           "ZTOMBSTONE2 FROM ACHANGE ORDER BY ZCHANGETYPE DESC, ZENTITY, ZENTITYPK"),
      (std::vector<std::string>{"2|1|1|1|-|1-11|Plain|-", "2|2|2|1|-|crime|2-22|Noir", "2|4|1|1|-|Crime|-|-",
                                "1|3|1|1|xc0|-|-|-", "1|3|2|1|x40|-|-|-"}));
  EXPECT_EQ(rows("SELECT MIN(Z_PK), MAX(Z_PK), COUNT(DISTINCT Z_PK), MIN(Z_ENT), MAX(Z_ENT) FROM ACHANGE"),
            (std::vector<std::string>{"1|5|5|16001|16001"}));
  // Deletes come before the updates.
  EXPECT_EQ(one("SELECT MAX(Z_PK) FROM ACHANGE WHERE ZCHANGETYPE = 2"), "3");
  EXPECT_EQ(rows("SELECT Z_ENT, Z_MAX FROM Z_PRIMARYKEY WHERE Z_ENT > 16000 ORDER BY Z_ENT"),
            (std::vector<std::string>{"16001|5", "16002|1", "16003|3"}));
  // Nothing of the request's own is left behind.
  EXPECT_EQ(one("SELECT COUNT(*) FROM sqlite_temp_master"), "0");

  // A request that finds its rows gone deletes nothing and records no transaction.
  auto again = batchDeleteObjects(store(), {crime}, BatchDeleteRequestResultType::ResultTypeCount);
  ASSERT_TRUE(again) << again.error().debugDescription();
  EXPECT_EQ(again->count, 0);
  EXPECT_EQ(one("SELECT COUNT(*) FROM ATRANSACTION"), "1");

  // Through a context, the request carries the context's author and name; a fetch-based request
  // records the same way.
  context_->setTransactionAuthor("cleaner");
  context_->setName("sweeper");
  FetchRequest poetry;
  poetry.entityName = "Shelf";
  auto swept = context_->executeRequest(BatchDeleteRequest::initWithFetchRequest(poetry));
  ASSERT_TRUE(swept) << swept.error().debugDescription();
  EXPECT_EQ(one("SELECT ZAUTHORTS, ZCONTEXTNAMETS FROM ATRANSACTION WHERE Z_PK = 2"), "3|4");
  EXPECT_EQ(rows("SELECT ZCHANGETYPE, ZENTITY, ZENTITYPK, ZCOLUMNS, ZTOMBSTONE0 FROM ACHANGE WHERE "
                 "ZTRANSACTIONID = 2 ORDER BY ZCHANGETYPE DESC, ZENTITY, ZENTITYPK"),
            (std::vector<std::string>{"2|2|3|-|verse", "2|4|2|-|Poetry", "1|3|2|x80|-", "1|3|3|x40|-"}));
}

TEST_F(HistoryTest, OlderPrefixedTablesAndCountersBehindTheirTablesAreWrittenSafely) {
  createStore("Z_");
  openStack();
  ASSERT_NE(store().history(), nullptr);
  EXPECT_EQ(store().history()->tables().changes, "Z_CHANGE");
  // A counter behind its table must not hand out a key that is taken; a missing one is added.
  sql("INSERT INTO Z_CHANGE (Z_PK, Z_ENT, ZCHANGETYPE) VALUES (40, 16001, 0)");
  sql("DELETE FROM Z_PRIMARYKEY WHERE Z_ENT = 16002");
  insert("Reader");
  save();
  EXPECT_EQ(rows("SELECT Z_PK, ZCHANGETYPE, ZENTITY, ZTRANSACTIONID FROM Z_CHANGE ORDER BY Z_PK"),
            (std::vector<std::string>{"40|0|-|-", "41|0|3|1"}));
  EXPECT_EQ(rows("SELECT Z_ENT, Z_NAME, Z_SUPER, Z_MAX FROM Z_PRIMARYKEY WHERE Z_ENT > 16000 ORDER BY Z_ENT"),
            (std::vector<std::string>{"16001|CHANGE|0|41", "16002|TRANSACTION|0|1",
                                      "16003|TRANSACTIONSTRING|0|2"}));
  EXPECT_EQ(one("SELECT COUNT(*) FROM Z_TRANSACTION"), "1");
}

TEST_F(HistoryTest, AStoreWhoseOwnTriggersWriteItsChangesIsNotRecordedTwice) {
  createStore("A");
  {
    auto store = SqliteStore::open(path_, model_, {});
    ASSERT_TRUE(store) << store.error().debugDescription();
    auto s = (*store)->database().execute(
        "CREATE TRIGGER ZQ_ZSHELF_INSERT AFTER INSERT ON ZSHELF FOR EACH ROW BEGIN\n  insert into achange\n"
        "    (Z_ENT, ZCHANGETYPE, ZENTITY, ZENTITYPK) VALUES (16001, 0, NEW.Z_ENT, NEW.Z_PK); END");
    ASSERT_TRUE(s) << s.error().debugDescription();
  }
  openStack();
  EXPECT_EQ(store().history(), nullptr);
  insert("Shelf");
  save();
  EXPECT_EQ(rows("SELECT ZCHANGETYPE, ZENTITY, ZENTITYPK FROM ACHANGE"), (std::vector<std::string>{"0|4|1"}));
  EXPECT_EQ(one("SELECT COUNT(*) FROM ATRANSACTION"), "0");
}

}  // namespace
}  // namespace tesselune
