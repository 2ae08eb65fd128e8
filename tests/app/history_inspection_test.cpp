// What `inspect` tells of key counters and persistent history: each entity's Z_MAX, and the
// history tables' row counts once a batch delete has been recorded, in text and JSON.

#include <gtest/gtest.h>

#include <string>

#include "app/store_description.h"
#include "fixtures.h"
#include "foundation/process_info.h"
#include "objectstore/sqlite/batch_delete.h"

namespace tesselune {
namespace {

// Entity numbers: Crate 1, Jar 2.
constexpr std::string_view kModel = R"(<?xml version="1.0" encoding="UTF-8" standalone="yes"?>
<model type="com.apple.IDECoreDataModeler.DataModel" documentVersion="1.0">
  <entity name="Crate">
    <attribute name="label" optional="YES" attributeType="String" preserveAfterDeletion="YES"/>
    <relationship name="jars" optional="YES" toMany="YES" deletionRule="Cascade" destinationEntity="Jar" inverseName="crate" inverseEntity="Jar"/>
  </entity>
  <entity name="Jar">
    <relationship name="crate" optional="YES" maxCount="1" deletionRule="Nullify" destinationEntity="Crate" inverseName="jars" inverseEntity="Crate"/>
  </entity>
</model>)";

class HistoryInspectionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    auto model = ManagedObjectModel::modelWithXml(kModel, "Pantry.xcdatamodel/contents");
    ASSERT_TRUE(model) << model.error().debugDescription();
    model_ = *model;
    setMainBundleIdentifier("org.example.Pantry");
  }
  void TearDown() override { setMainBundleIdentifier(std::nullopt); }

  std::unique_ptr<SqliteStore> makeStore(bool withHistory) {
    const auto path = test::scratchFolder("inspect-history") / "Pantry.sqlite";
    {
      auto created = SqliteStore::create(path, model_, {});
      EXPECT_TRUE(created) << created.error().debugDescription();
      if (!created) return nullptr;
      std::vector<std::string> sql = {
          "INSERT INTO ZCRATE (Z_PK, Z_ENT, Z_OPT, ZLABEL) VALUES (1, 1, 1, 'figs'), (2, 1, 1, 'dates')",
          "INSERT INTO ZJAR (Z_PK, Z_ENT, Z_OPT, ZCRATE) VALUES (1, 2, 1, 1), (2, 2, 1, 1), (3, 2, 1, 2)",
          "UPDATE Z_PRIMARYKEY SET Z_MAX = 2 WHERE Z_ENT = 1",
          "UPDATE Z_PRIMARYKEY SET Z_MAX = 3 WHERE Z_ENT = 2"};
      if (withHistory) {
        sql.insert(
            sql.end(),
            {"CREATE TABLE ATRANSACTIONSTRING (Z_PK INTEGER PRIMARY KEY, Z_ENT INTEGER, Z_OPT INTEGER, ZNAME "
             "VARCHAR)",
             "CREATE UNIQUE INDEX Z_TRANSACTIONSTRING_UNIQUE_NAME ON ATRANSACTIONSTRING (ZNAME)",
             "CREATE TABLE ATRANSACTION (Z_PK INTEGER PRIMARY KEY, Z_ENT INTEGER, Z_OPT INTEGER, ZAUTHORTS "
             "INTEGER, ZBUNDLEIDTS INTEGER, ZCONTEXTNAMETS INTEGER, ZPROCESSIDTS INTEGER, ZTIMESTAMP FLOAT, "
             "ZAUTHOR VARCHAR, ZBUNDLEID VARCHAR, ZCONTEXTNAME VARCHAR, ZPROCESSID VARCHAR, ZQUERYGEN BLOB)",
             "CREATE TABLE ACHANGE (Z_PK INTEGER PRIMARY KEY, Z_ENT INTEGER, Z_OPT INTEGER, ZCHANGETYPE "
             "INTEGER, "
             "ZENTITY INTEGER, ZENTITYPK INTEGER, ZTRANSACTIONID INTEGER, ZCOLUMNS BLOB, ZTOMBSTONE0 BLOB)",
             "INSERT INTO Z_PRIMARYKEY (Z_ENT, Z_NAME, Z_SUPER, Z_MAX) VALUES (16001, 'CHANGE', 0, 0), "
             "(16002, 'TRANSACTION', 0, 0), (16003, 'TRANSACTIONSTRING', 0, 0)"});
      }
      for (const std::string& statement : sql) {
        auto s = (*created)->database().execute(statement);
        EXPECT_TRUE(s) << s.error().debugDescription();
      }
    }
    auto store = SqliteStore::open(path, model_, {});
    EXPECT_TRUE(store) << store.error().debugDescription();
    return store ? std::move(*store) : nullptr;
  }

  std::shared_ptr<const ManagedObjectModel> model_;
};

TEST_F(HistoryInspectionTest, KeyCountersAndHistoryRowsAreShownInTextAndJson) {
  auto store = makeStore(true);
  ASSERT_NE(store, nullptr);
  const auto figs = ManagedObjectID::permanent(*model_->entityNamed("Crate"), store->identifier(), 1);
  auto deleted = batchDeleteObjects(*store, {figs}, BatchDeleteRequestResultType::ResultTypeCount);
  ASSERT_TRUE(deleted) << deleted.error().debugDescription();

  auto inspection = inspectStore(*store, "a test model");
  ASSERT_TRUE(inspection) << inspection.error().debugDescription();
  ASSERT_EQ(inspection->entities.size(), 2u);
  // Counters never go down, whatever was deleted.
  EXPECT_EQ(inspection->entities[0].maxKey, 2);
  EXPECT_EQ(inspection->entities[1].maxKey, 3);
  ASSERT_TRUE(inspection->history);
  // The crate and its two jars went: three changes of one transaction with two program strings.
  EXPECT_EQ(inspection->history->transactions, 1);
  EXPECT_EQ(inspection->history->changes, 3);
  EXPECT_EQ(inspection->history->strings, 2);

  const std::string text = formatInspection(*inspection);
  EXPECT_NE(text.find("Crate (Z_ENT 1, table ZCRATE): 1 objects; Z_MAX 2\n"), std::string::npos) << text;
  EXPECT_NE(text.find("Jar (Z_ENT 2, table ZJAR): 1 objects; Z_MAX 3\n"), std::string::npos) << text;
  EXPECT_NE(text.find("History: 1 transactions, 3 changes, 2 strings (tables ATRANSACTION, ACHANGE, "
                      "ATRANSACTIONSTRING)\n"),
            std::string::npos)
      << text;
  const std::string json = inspectionJson(*inspection);
  EXPECT_NE(json.find("\"rowsWithSubentities\": 1, \"maxKey\": 2,"), std::string::npos) << json;
  EXPECT_NE(json.find("\"history\": {\"transactionTable\": \"ATRANSACTION\", \"changeTable\": \"ACHANGE\", "
                      "\"stringTable\": \"ATRANSACTIONSTRING\", \"transactions\": 1, \"changes\": 3, "
                      "\"strings\": 2}"),
            std::string::npos)
      << json;
}

TEST_F(HistoryInspectionTest, AStoreWithoutHistorySaysNothingOfIt) {
  auto store = makeStore(false);
  ASSERT_NE(store, nullptr);
  auto inspection = inspectStore(*store, "a test model");
  ASSERT_TRUE(inspection) << inspection.error().debugDescription();
  EXPECT_FALSE(inspection->history);
  EXPECT_EQ(formatInspection(*inspection).find("History:"), std::string::npos);
  EXPECT_NE(inspectionJson(*inspection).find("\"history\": null"), std::string::npos);
}

}  // namespace
}  // namespace tesselune
