// Batch deletes against real store files: the delete rules carried out by the temporary triggers,
// refusals before anything runs, all-or-nothing failures, result types, and a store Core Data wrote.

#include "objectstore/sqlite/batch_delete.h"

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <stdexcept>

#include "fixtures.h"
#include "objectstore/managed_object_context.h"

namespace tesselune {
namespace {

namespace fs = std::filesystem;

// Entity numbers (by name, sub-entities after their root): Author 1, Badge 2, Book 3, Car 4,
// Club 5, Folder 6, Group 7, Guard 8, Holder 9, Item 10, Label 11, Note 12, Passport 13,
// Person 14, Customer 15, Employee 16, Tag 17, Vault 18.
constexpr std::string_view kModel = R"(<?xml version="1.0" encoding="UTF-8" standalone="yes"?>
<model type="com.apple.IDECoreDataModeler.DataModel" documentVersion="1.0">
  <entity name="Person">
    <attribute name="name" optional="YES" attributeType="String"/>
    <relationship name="cars" optional="YES" toMany="YES" deletionRule="Cascade" destinationEntity="Car" inverseName="owner" inverseEntity="Car"/>
    <relationship name="passport" optional="YES" maxCount="1" deletionRule="Cascade" destinationEntity="Passport" inverseName="person" inverseEntity="Passport"/>
    <relationship name="notes" optional="YES" toMany="YES" ordered="YES" deletionRule="Nullify" destinationEntity="Note" inverseName="person" inverseEntity="Note"/>
    <relationship name="groups" optional="YES" toMany="YES" deletionRule="Nullify" destinationEntity="Group" inverseName="members" inverseEntity="Group"/>
    <relationship name="clubs" optional="YES" toMany="YES" deletionRule="Cascade" destinationEntity="Club" inverseName="members" inverseEntity="Club"/>
    <relationship name="friends" optional="YES" toMany="YES" deletionRule="Nullify" destinationEntity="Person" inverseName="friends" inverseEntity="Person"/>
    <relationship name="tags" optional="YES" toMany="YES" deletionRule="Nullify" destinationEntity="Tag"/>
    <relationship name="labels" optional="YES" toMany="YES" deletionRule="Cascade" destinationEntity="Label"/>
  </entity>
  <entity name="Customer" parentEntity="Person"/>
  <entity name="Employee" parentEntity="Person"/>
  <entity name="Car">
    <relationship name="owner" optional="YES" maxCount="1" deletionRule="Nullify" destinationEntity="Person" inverseName="cars" inverseEntity="Person"/>
  </entity>
  <entity name="Passport">
    <relationship name="person" optional="YES" maxCount="1" deletionRule="Nullify" destinationEntity="Person" inverseName="passport" inverseEntity="Person"/>
  </entity>
  <entity name="Note">
    <relationship name="person" optional="YES" maxCount="1" deletionRule="Nullify" destinationEntity="Person" inverseName="notes" inverseEntity="Person"/>
  </entity>
  <entity name="Group">
    <relationship name="members" optional="YES" toMany="YES" deletionRule="Nullify" destinationEntity="Person" inverseName="groups" inverseEntity="Person"/>
  </entity>
  <entity name="Club">
    <relationship name="members" optional="YES" toMany="YES" deletionRule="Nullify" destinationEntity="Person" inverseName="clubs" inverseEntity="Person"/>
  </entity>
  <entity name="Tag"/>
  <entity name="Label"/>
  <entity name="Folder">
    <relationship name="children" optional="YES" toMany="YES" deletionRule="Cascade" destinationEntity="Folder" inverseName="parent" inverseEntity="Folder"/>
    <relationship name="parent" optional="YES" maxCount="1" deletionRule="Nullify" destinationEntity="Folder" inverseName="children" inverseEntity="Folder"/>
  </entity>
  <entity name="Holder">
    <relationship name="badges" optional="YES" toMany="YES" deletionRule="Nullify" destinationEntity="Badge" inverseName="holder" inverseEntity="Badge"/>
  </entity>
  <entity name="Badge">
    <relationship name="holder" maxCount="1" deletionRule="Nullify" destinationEntity="Holder" inverseName="badges" inverseEntity="Holder"/>
  </entity>
  <entity name="Vault">
    <relationship name="items" optional="YES" toMany="YES" deletionRule="Cascade" destinationEntity="Item" inverseName="vault" inverseEntity="Item"/>
  </entity>
  <entity name="Item">
    <relationship name="vault" optional="YES" maxCount="1" deletionRule="Nullify" destinationEntity="Vault" inverseName="items" inverseEntity="Vault"/>
    <relationship name="guards" optional="YES" toMany="YES" deletionRule="Deny" destinationEntity="Guard" inverseName="item" inverseEntity="Guard"/>
  </entity>
  <entity name="Guard">
    <relationship name="item" optional="YES" maxCount="1" deletionRule="Nullify" destinationEntity="Item" inverseName="guards" inverseEntity="Item"/>
  </entity>
  <entity name="Author">
    <relationship name="books" optional="YES" toMany="YES" deletionRule="No Action" destinationEntity="Book" inverseName="authors" inverseEntity="Book"/>
  </entity>
  <entity name="Book">
    <relationship name="authors" optional="YES" toMany="YES" deletionRule="Nullify" destinationEntity="Author" inverseName="books" inverseEntity="Author"/>
  </entity>
</model>)";

using enum BatchDeleteRequestResultType;

class BatchDeleteTest : public ::testing::Test {
 protected:
  void SetUp() override {
    auto model = ManagedObjectModel::modelWithXml(kModel, "BatchDelete.xcdatamodel/contents");
    ASSERT_TRUE(model) << model.error().debugDescription();
    model_ = *model;
    path_ = test::scratchFolder("batch-delete") / "Store.sqlite";
    auto store = SqliteStore::create(path_, model_, {});
    ASSERT_TRUE(store) << store.error().debugDescription();
    store_ = std::move(*store);
  }

  void sql(const std::string& text) {
    auto s = store_->database().execute(text);
    ASSERT_TRUE(s) << s.error().debugDescription();
  }

  // The rows of a query, each as its columns joined by "|", NULL as "-".
  std::vector<std::string> rows(const std::string& text) {
    std::vector<std::string> out;
    auto statement = store_->database().prepare(text);
    EXPECT_TRUE(statement) << statement.error().debugDescription();
    if (!statement) return out;
    while (statement->step().value_or(false)) {
      std::string line;
      for (int i = 0; i < statement->columnCount(); ++i)
        line += (i ? "|" : "") + (statement->isNull(i) ? std::string("-") : statement->text(i));
      out.push_back(line);
    }
    return out;
  }

  std::string one(const std::string& text) {
    auto all = rows(text);
    return all.empty() ? "" : all.front();
  }

  const EntityDescription& entity(std::string_view name) { return *model_->entityNamed(name); }

  ManagedObjectID id(std::string_view name, std::int64_t key) {
    return ManagedObjectID::permanent(entity(name), store_->identifier(), key);
  }

  // Two people with everything that hangs off them: person 1 (a Person) and 2 (an Employee), a
  // Customer 3 with nothing.
  void insertPeople() {
    sql("INSERT INTO ZPERSON (Z_PK, Z_ENT, Z_OPT, ZNAME, ZPASSPORT) VALUES (1, 14, 1, 'Ann', 1), "
        "(2, 16, 1, 'Bob', 2), (3, 15, 1, 'Cyd', NULL)");
    sql("INSERT INTO ZPASSPORT (Z_PK, Z_ENT, Z_OPT, ZPERSON, Z14_PERSON) VALUES (1, 13, 1, 1, 14), "
        "(2, 13, 1, 2, 16)");
    sql("INSERT INTO ZCAR (Z_PK, Z_ENT, Z_OPT, ZOWNER, Z14_OWNER) VALUES (1, 4, 1, 1, 14), (2, 4, 1, 1, 14), "
        "(3, 4, 1, 2, 16), (4, 4, 1, 3, 15)");
    sql("INSERT INTO ZNOTE (Z_PK, Z_ENT, Z_OPT, ZPERSON, Z14_PERSON, Z_FOK_PERSON) VALUES "
        "(1, 12, 1, 1, 14, 1024), (2, 12, 1, 1, 14, 2048), (3, 12, 1, 3, 15, 1024)");
    sql("INSERT INTO ZGROUP (Z_PK, Z_ENT, Z_OPT) VALUES (1, 7, 1)");
    sql("INSERT INTO Z_7MEMBERS (Z_7GROUPS, Z_14MEMBERS) VALUES (1, 1), (1, 3)");
    sql("INSERT INTO ZCLUB (Z_PK, Z_ENT, Z_OPT) VALUES (1, 5, 1), (2, 5, 1)");
    sql("INSERT INTO Z_5MEMBERS (Z_5CLUBS, Z_14MEMBERS) VALUES (1, 1), (2, 3)");
    sql("INSERT INTO Z_14FRIENDS (Z_14FRIENDS, REFLEXIVE) VALUES (1, 3), (3, 1), (2, 3)");
    sql("INSERT INTO ZTAG (Z_PK, Z_ENT, Z_OPT, Z14TAGS) VALUES (1, 17, 1, 1), (2, 17, 1, 3)");
    sql("INSERT INTO ZLABEL (Z_PK, Z_ENT, Z_OPT, Z14LABELS) VALUES (1, 11, 1, 1), (2, 11, 1, 3)");
  }

  void insertLabels(int first, int last) {
    sql(
        fmt::format("WITH RECURSIVE k(n) AS (SELECT {} UNION ALL SELECT n + 1 FROM k WHERE n < {}) "
                    "INSERT INTO ZLABEL (Z_PK, Z_ENT, Z_OPT) SELECT n, 11, 1 FROM k",
                    first, last));
  }

  void expectNoTemporaryObjects() {
    EXPECT_EQ(one("SELECT count(*) FROM sqlite_temp_master"), "0");
    EXPECT_EQ(one("PRAGMA recursive_triggers"), "0");
  }

  std::shared_ptr<const ManagedObjectModel> model_;
  fs::path path_;
  std::unique_ptr<SqliteStore> store_;
};

TEST_F(BatchDeleteTest, DeleteRulesOfEveryKindOfRelationship) {
  insertPeople();
  auto result = batchDeleteObjects(*store_, {id("Person", 1)}, ResultTypeCount);
  ASSERT_TRUE(result) << result.error().debugDescription();
  EXPECT_TRUE(result->status);
  EXPECT_EQ(result->count, 1);

  EXPECT_EQ(rows("SELECT Z_PK FROM ZPERSON ORDER BY Z_PK"), (std::vector<std::string>{"2", "3"}));
  // Cascade to-one and to-many through the inverse's key.
  EXPECT_EQ(rows("SELECT Z_PK FROM ZPASSPORT ORDER BY Z_PK"), (std::vector<std::string>{"2"}));
  EXPECT_EQ(rows("SELECT Z_PK FROM ZCAR ORDER BY Z_PK"), (std::vector<std::string>{"3", "4"}));
  // Nullify clears the key, its entity number and its order, and bumps the version of the row.
  EXPECT_EQ(rows("SELECT Z_PK, ZPERSON, Z14_PERSON, Z_FOK_PERSON, Z_OPT FROM ZNOTE ORDER BY Z_PK"),
            (std::vector<std::string>{"1|-|-|-|2", "2|-|-|-|2", "3|3|15|1024|1"}));
  // Many-to-many: nullify takes the join rows only; cascade the other side too.
  EXPECT_EQ(rows("SELECT * FROM Z_7MEMBERS"), (std::vector<std::string>{"1|3"}));
  EXPECT_EQ(one("SELECT count(*) FROM ZGROUP"), "1");
  EXPECT_EQ(rows("SELECT Z_PK FROM ZCLUB ORDER BY Z_PK"), (std::vector<std::string>{"2"}));
  EXPECT_EQ(rows("SELECT * FROM Z_5MEMBERS"), (std::vector<std::string>{"2|3"}));
  // A self-inverse pair loses the links in both directions.
  EXPECT_EQ(rows("SELECT * FROM Z_14FRIENDS"), (std::vector<std::string>{"2|3"}));
  // To-many without inverse: the hidden key in the destination.
  EXPECT_EQ(rows("SELECT Z_PK, Z14TAGS, Z_OPT FROM ZTAG ORDER BY Z_PK"),
            (std::vector<std::string>{"1|-|2", "2|3|1"}));
  EXPECT_EQ(rows("SELECT Z_PK FROM ZLABEL ORDER BY Z_PK"), (std::vector<std::string>{"2"}));

  EXPECT_EQ(one("SELECT group_concat(Z_MAX) FROM Z_PRIMARYKEY"),
            one("SELECT group_concat(0) FROM Z_PRIMARYKEY"));
  expectNoTemporaryObjects();
  EXPECT_EQ(one("PRAGMA integrity_check"), "ok");
}

TEST_F(BatchDeleteTest, CascadesThroughATreeOfOneEntity) {
  // 1 ─ 2 ─ 4 ─ 5, 1 ─ 3; 6 apart, 7 under 6.
  sql("INSERT INTO ZFOLDER (Z_PK, Z_ENT, Z_OPT, ZPARENT) VALUES (1, 6, 1, NULL), (2, 6, 1, 1), (3, 6, 1, 1), "
      "(4, 6, 1, 2), (5, 6, 1, 4), (6, 6, 1, NULL), (7, 6, 1, 6)");
  auto result = batchDeleteRows(*store_, entity("Folder"),
                                {"SELECT Z_PK FROM ZFOLDER WHERE Z_PK = ?", {Value(1)}}, ResultTypeCount);
  ASSERT_TRUE(result) << result.error().debugDescription();
  EXPECT_EQ(result->count, 1);
  EXPECT_EQ(rows("SELECT Z_PK, ZPARENT FROM ZFOLDER ORDER BY Z_PK"),
            (std::vector<std::string>{"6|-", "7|6"}));

  // Deleting a child alone nullifies nothing in its parent (the link is the child's own column).
  result = batchDeleteObjects(*store_, {id("Folder", 7)}, ResultTypeStatusOnly);
  ASSERT_TRUE(result) << result.error().debugDescription();
  EXPECT_EQ(rows("SELECT Z_PK, Z_OPT FROM ZFOLDER ORDER BY Z_PK"), (std::vector<std::string>{"6|1"}));
  expectNoTemporaryObjects();
}

TEST_F(BatchDeleteTest, SubEntitiesShareTheTableButOnlyTheRequestedOnesGo) {
  insertPeople();
  sql("INSERT INTO ZPERSON (Z_PK, Z_ENT, Z_OPT, ZNAME) VALUES (4, 16, 1, 'Dee')");
  // The selection names every row of the table; only Employees may go.
  auto result =
      batchDeleteRows(*store_, entity("Employee"), {"SELECT Z_PK FROM ZPERSON", {}}, ResultTypeObjectIDs);
  ASSERT_TRUE(result) << result.error().debugDescription();
  EXPECT_EQ(result->count, 2);
  ASSERT_EQ(result->objectIDs.size(), 2u);
  EXPECT_EQ(result->objectIDs[0], id("Employee", 2));
  EXPECT_EQ(result->objectIDs[1], id("Employee", 4));
  EXPECT_EQ(rows("SELECT Z_PK FROM ZPERSON ORDER BY Z_PK"), (std::vector<std::string>{"1", "3"}));
  EXPECT_EQ(rows("SELECT Z_PK FROM ZCAR ORDER BY Z_PK"), (std::vector<std::string>{"1", "2", "4"}));

  // Deleting through the root names each object by its actual entity.
  result = batchDeleteRows(*store_, entity("Person"), {"SELECT Z_PK FROM ZPERSON", {}}, ResultTypeObjectIDs);
  ASSERT_TRUE(result) << result.error().debugDescription();
  EXPECT_EQ(result->objectIDs, (std::vector<ManagedObjectID>{id("Person", 1), id("Customer", 3)}));
  EXPECT_EQ(result->objectIDs[1].URIRepresentation().absoluteString(),
            "x-coredata://" + store_->identifier().string() + "/Customer/p3");
  EXPECT_EQ(one("SELECT count(*) FROM ZCAR"), "0");
  expectNoTemporaryObjects();
}

TEST_F(BatchDeleteTest, ObjectIDsOfMixedEntitiesOfOneHierarchy) {
  insertPeople();
  // Their nearest common entity is Person; a key that is gone already is skipped.
  auto result = batchDeleteObjects(
      *store_, {id("Employee", 2), id("Customer", 3), id("Customer", 3), id("Person", 99)}, ResultTypeCount);
  ASSERT_TRUE(result) << result.error().debugDescription();
  EXPECT_EQ(result->count, 2);
  EXPECT_EQ(rows("SELECT Z_PK FROM ZPERSON ORDER BY Z_PK"), (std::vector<std::string>{"1"}));
  expectNoTemporaryObjects();
}

TEST_F(BatchDeleteTest, RefusesRulesItCannotHonourBeforeAnythingRuns) {
  sql("INSERT INTO ZVAULT (Z_PK, Z_ENT, Z_OPT) VALUES (1, 18, 1)");
  sql("INSERT INTO ZITEM (Z_PK, Z_ENT, Z_OPT, ZVAULT) VALUES (1, 10, 1, 1)");
  sql("INSERT INTO ZAUTHOR (Z_PK, Z_ENT, Z_OPT) VALUES (1, 1, 1)");
  struct Case {
    const char* entity;
    const char* named;
  };
  // A deny reached by cascade, a deny of the entity itself, a many-to-many without a rule.
  for (const Case& c : {Case{"Vault", "“guards” of Item"}, Case{"Item", "“guards” of Item"},
                        Case{"Author", "“books” of Author"}}) {
    auto result = batchDeleteObjects(*store_, {id(c.entity, 1)}, ResultTypeStatusOnly);
    ASSERT_FALSE(result) << c.entity;
    EXPECT_EQ(result.error().domain(), "NSCocoaErrorDomain");
    EXPECT_EQ(result.error().code(), 134060);
    EXPECT_NE(result.error().localizedDescription().find(c.named), std::string::npos)
        << result.error().localizedDescription();
  }
  EXPECT_EQ(one("SELECT count(*) FROM ZVAULT") + one("SELECT count(*) FROM ZITEM") +
                one("SELECT count(*) FROM ZAUTHOR"),
            "111");
  expectNoTemporaryObjects();
  // The other side of the pair nullifies, which a batch delete can do.
  sql("INSERT INTO ZBOOK (Z_PK, Z_ENT, Z_OPT) VALUES (1, 3, 1)");
  sql("INSERT INTO Z_1BOOKS (Z_1AUTHORS, Z_3BOOKS) VALUES (1, 1)");
  ASSERT_TRUE(batchDeleteObjects(*store_, {id("Book", 1)}, ResultTypeStatusOnly));
  EXPECT_EQ(one("SELECT count(*) FROM Z_1BOOKS"), "0");
}

TEST_F(BatchDeleteTest, NullifyingAMandatoryInverseFailsTheWholeRequest) {
  sql("INSERT INTO ZHOLDER (Z_PK, Z_ENT, Z_OPT) VALUES (1, 9, 1), (2, 9, 1)");
  sql("INSERT INTO ZBADGE (Z_PK, Z_ENT, Z_OPT, ZHOLDER) VALUES (1, 9, 1, 2)");
  const std::string before =
      one("SELECT group_concat(Z_PK) FROM ZHOLDER") + one("SELECT ZHOLDER FROM ZBADGE");
  // Holder 1 has no badge and goes in the first chunk; holder 2 fails the request in the second, so
  // 1 stays as well.
  auto result = batchDeleteRows(*store_, entity("Holder"), {"SELECT Z_PK FROM ZHOLDER", {}}, ResultTypeCount,
                                nullptr, 1);
  ASSERT_FALSE(result);
  EXPECT_EQ(result.error().domain(), "NSCocoaErrorDomain");
  EXPECT_EQ(result.error().code(), 1570);
  EXPECT_NE(result.error().localizedDescription().find("“holder” of Badge"), std::string::npos)
      << result.error().localizedDescription();
  EXPECT_EQ(one("SELECT group_concat(Z_PK) FROM ZHOLDER") + one("SELECT ZHOLDER FROM ZBADGE"), before);
  expectNoTemporaryObjects();

  // Without the badge's holder in the way it goes through, on the same connection.
  sql("DELETE FROM ZBADGE");
  result = batchDeleteRows(*store_, entity("Holder"), {"SELECT Z_PK FROM ZHOLDER", {}}, ResultTypeCount);
  ASSERT_TRUE(result) << result.error().debugDescription();
  EXPECT_EQ(result->count, 2);
}

TEST_F(BatchDeleteTest, FailuresLeaveNothingBehind) {
  insertPeople();
  // A selection that fails while running, after the triggers were made.
  auto result =
      batchDeleteRows(*store_, entity("Person"), {"SELECT Z_PK FROM ZNOSUCHTABLE", {}}, ResultTypeObjectIDs);
  ASSERT_FALSE(result);
  EXPECT_EQ(one("SELECT count(*) FROM ZPERSON"), "3");
  expectNoTemporaryObjects();

  // A transaction the caller opened is refused and left open, with its changes.
  sql("BEGIN");
  sql("INSERT INTO ZLABEL (Z_PK, Z_ENT, Z_OPT) VALUES (9, 11, 1)");
  result = batchDeleteRows(*store_, entity("Label"), {"SELECT Z_PK FROM ZLABEL", {}}, ResultTypeCount);
  ASSERT_FALSE(result);
  EXPECT_EQ(sqlite3_get_autocommit(store_->database().handle()), 0);
  sql("COMMIT");
  EXPECT_EQ(one("SELECT count(*) FROM ZLABEL WHERE Z_PK = 9"), "1");
  expectNoTemporaryObjects();

  // Recursive triggers stay on for a connection that had them on.
  sql("PRAGMA recursive_triggers = ON");
  ASSERT_TRUE(batchDeleteObjects(*store_, {id("Customer", 3)}, ResultTypeStatusOnly));
  EXPECT_EQ(one("PRAGMA recursive_triggers"), "1");
}

TEST_F(BatchDeleteTest, RefusesIDsItCannotDelete) {
  insertPeople();
  auto otherPath = test::scratchFolder("batch-delete-other") / "Other.sqlite";
  auto other = SqliteStore::create(otherPath, model_, {});
  ASSERT_TRUE(other);
  const std::vector<std::vector<ManagedObjectID>> refused = {
      {id("Person", 1), ManagedObjectID::permanent(entity("Person"), (*other)->identifier(), 2)},
      {ManagedObjectID::temporary(entity("Person"))},
      {id("Person", 1), id("Car", 1)},
  };
  for (const auto& ids : refused) {
    auto result = batchDeleteObjects(*store_, ids, ResultTypeCount);
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error().domain(), "NSCocoaErrorDomain");
  }
  EXPECT_EQ(one("SELECT count(*) FROM ZPERSON"), "3");
  EXPECT_THROW((void)batchDeleteObjects(*store_, {}, ResultTypeCount), std::invalid_argument);
  EXPECT_THROW((void)batchDeleteObjects(*store_, {id("Person", 1)}, ResultTypeCount, nullptr, 0),
               std::invalid_argument);

  store_.reset();
  auto readOnly = SqliteStore::open(path_, model_, {.readOnly = true});
  ASSERT_TRUE(readOnly) << readOnly.error().debugDescription();
  auto result = batchDeleteObjects(
      **readOnly, {ManagedObjectID::permanent(entity("Person"), (*readOnly)->identifier(), 1)},
      ResultTypeCount);
  ASSERT_FALSE(result);
  EXPECT_EQ(result.error().code(), kFileWriteNoPermissionError);
}

// Folders 1–10 selected, 11 not: 1 ─ 5 ─ 2, 1 ─ 9, 4 ─ 10, the rest alone. Cascades take rows that
// later chunks select.
constexpr std::string_view kFolderForest =
    "INSERT INTO ZFOLDER (Z_PK, Z_ENT, Z_OPT, ZPARENT) VALUES (1, 6, 1, NULL), (2, 6, 1, 5), (3, 6, 1, "
    "NULL), "
    "(4, 6, 1, NULL), (5, 6, 1, 1), (6, 6, 1, NULL), (7, 6, 1, NULL), (8, 6, 1, NULL), (9, 6, 1, 1), "
    "(10, 6, 1, 4), (11, 6, 1, NULL)";

TEST_F(BatchDeleteTest, ChunksGiveWhatOneStatementGives) {
  const RowSelection selection{"SELECT Z_PK FROM ZFOLDER WHERE Z_PK <= ?", {Value(10)}};
  sql(std::string(kFolderForest));
  auto whole = batchDeleteRows(*store_, entity("Folder"), selection, ResultTypeObjectIDs);
  ASSERT_TRUE(whole) << whole.error().debugDescription();
  EXPECT_EQ(rows("SELECT Z_PK FROM ZFOLDER"), (std::vector<std::string>{"11"}));

  // Chunks of three, on a connection that keeps temporary tables in memory. At each chunk the
  // progress sees the rows gone so far, and temporary tables on file.
  sql("DELETE FROM ZFOLDER");
  sql(std::string(kFolderForest));
  sql("PRAGMA temp_store = MEMORY");
  Progress progress;
  std::vector<std::string> seen;
  progress.addObserver([&](const Progress& p) {
    if (p.completedUnitCount() == 0) return;
    seen.push_back(fmt::format("{}/{} {} {}", p.completedUnitCount(), p.totalUnitCount(),
                               one("SELECT group_concat(Z_PK) FROM (SELECT Z_PK FROM ZFOLDER ORDER BY Z_PK)"),
                               one("PRAGMA temp_store")));
  });
  auto chunked = batchDeleteRows(*store_, entity("Folder"), selection, ResultTypeObjectIDs, &progress, 3);
  ASSERT_TRUE(chunked) << chunked.error().debugDescription();
  EXPECT_EQ(seen,
            (std::vector<std::string>{"3/10 4,6,7,8,10,11 1", "6/10 7,8,11 1", "9/10 11 1", "10/10 11 1"}));
  EXPECT_EQ(chunked->count, whole->count);
  EXPECT_EQ(chunked->objectIDs, whole->objectIDs);
  ASSERT_EQ(chunked->objectIDs.size(), 10u);
  EXPECT_EQ(chunked->objectIDs.back(), id("Folder", 10));
  EXPECT_EQ(rows("SELECT Z_PK FROM ZFOLDER"), (std::vector<std::string>{"11"}));
  EXPECT_EQ(one("PRAGMA temp_store"), "2");
  expectNoTemporaryObjects();
}

TEST_F(BatchDeleteTest, AWindowIsSelectedOnceBeforeAnythingGoes) {
  insertLabels(1, 10);
  // Re-running the window after each chunk would reach rows beyond it.
  auto result =
      batchDeleteRows(*store_, entity("Label"),
                      {"SELECT Z_PK FROM ZLABEL ORDER BY Z_PK LIMIT ? OFFSET ?", {Value(4), Value(3)}},
                      ResultTypeObjectIDs, nullptr, 2);
  ASSERT_TRUE(result) << result.error().debugDescription();
  EXPECT_EQ(result->count, 4);
  EXPECT_EQ(result->objectIDs,
            (std::vector<ManagedObjectID>{id("Label", 4), id("Label", 5), id("Label", 6), id("Label", 7)}));
  EXPECT_EQ(one("SELECT group_concat(Z_PK) FROM ZLABEL"), "1,2,3,8,9,10");
}

TEST_F(BatchDeleteTest, CancellingRollsBackEveryChunk) {
  insertPeople();
  insertLabels(3, 10);
  const std::string before = one("SELECT count(*) FROM ZPERSON") + one("SELECT count(*) FROM ZCAR") +
                             one("SELECT count(*) FROM ZLABEL") + one("SELECT count(*) FROM Z_7MEMBERS");
  auto expectCancelled = [&](const Expected<BatchDeleteResult>& result) {
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error().domain(), "NSCocoaErrorDomain");
    EXPECT_EQ(result.error().code(), 3072);
    EXPECT_EQ(one("SELECT count(*) FROM ZPERSON") + one("SELECT count(*) FROM ZCAR") +
                  one("SELECT count(*) FROM ZLABEL") + one("SELECT count(*) FROM Z_7MEMBERS"),
              before);
    expectNoTemporaryObjects();
  };
  // Cancelled between chunks, after the last chunk, and before the request began.
  for (const std::int64_t cancelAt : {2, 3}) {
    Progress progress;
    progress.addObserver([&](const Progress& p) {
      if (p.completedUnitCount() >= cancelAt) progress.cancel();
    });
    expectCancelled(batchDeleteObjects(*store_, {id("Person", 1), id("Person", 2), id("Person", 3)},
                                       ResultTypeCount, &progress, 2));
    EXPECT_EQ(progress.totalUnitCount(), 3);
  }
  Progress cancelled;
  cancelled.cancel();
  expectCancelled(batchDeleteRows(*store_, entity("Label"), {"SELECT Z_PK FROM ZLABEL", {}}, ResultTypeCount,
                                  &cancelled));

  // Progress counts the IDs worked through, the result only the rows deleted; the same request
  // goes through uncancelled.
  Progress progress;
  auto result = batchDeleteObjects(*store_, {id("Person", 1), id("Person", 99), id("Person", 3)},
                                   ResultTypeCount, &progress, 1);
  ASSERT_TRUE(result) << result.error().debugDescription();
  EXPECT_EQ(progress.totalUnitCount(), 3);
  EXPECT_EQ(progress.completedUnitCount(), 3);
  EXPECT_EQ(result->count, 2);
  EXPECT_EQ(rows("SELECT Z_PK FROM ZPERSON"), (std::vector<std::string>{"2"}));
  EXPECT_EQ(rows("SELECT Z_PK FROM ZCAR"), (std::vector<std::string>{"3"}));
}

TEST_F(BatchDeleteTest, KeepsWorkingWithCoreDataOwnTriggers) {
  insertPeople();
  sql("CREATE TRIGGER Z_DA_ZCAR_CHANGED AFTER DELETE ON ZCAR FOR EACH ROW BEGIN "
      "SELECT NSCoreDataTriggerUpdateAffectedObjectValue('ZPERSON', Z_ENT, Z_PK, 'cars', 0, 1) FROM ZPERSON "
      "WHERE Z_PK = OLD.ZOWNER; END");
  // The connection registers stand-ins for the functions of the triggers it finds on opening.
  store_.reset();
  auto reopened = SqliteStore::open(path_, model_, {});
  ASSERT_TRUE(reopened) << reopened.error().debugDescription();
  store_ = std::move(*reopened);
  auto result = batchDeleteObjects(*store_, {id("Person", 1), id("Person", 2)}, ResultTypeCount);
  ASSERT_TRUE(result) << result.error().debugDescription();
  EXPECT_EQ(rows("SELECT Z_PK FROM ZCAR ORDER BY Z_PK"), (std::vector<std::string>{"4"}));
  EXPECT_EQ(one("SELECT count(*) FROM sqlite_master WHERE type = 'trigger'"), "1");
}

// Requests of IDs reuse the connection's prepared DELETE: each must still see its own triggers, and
// none of another request's.
TEST_F(BatchDeleteTest, RequestsInARowOnOneConnection) {
  insertPeople();
  insertLabels(3, 6);
  // Ann is a Person and Bob an Employee, both in ZPERSON.
  for (std::int64_t person : {1, 2}) {
    const ManagedObjectID target = id(person == 1 ? "Person" : "Employee", person);
    auto result = batchDeleteObjects(*store_, {target}, ResultTypeObjectIDs);
    ASSERT_TRUE(result) << result.error().debugDescription();
    EXPECT_EQ(result->objectIDs, std::vector<ManagedObjectID>{target});
    // Labels have no rules of their own: a request without triggers between two with them.
    result = batchDeleteObjects(*store_, {id("Label", person + 2)}, ResultTypeCount);
    ASSERT_TRUE(result) << result.error().debugDescription();
    EXPECT_EQ(result->count, 1);
  }
  EXPECT_EQ(rows("SELECT Z_PK FROM ZCAR ORDER BY Z_PK"), (std::vector<std::string>{"4"}));
  EXPECT_EQ(rows("SELECT Z_PK FROM ZPASSPORT"), std::vector<std::string>{});
  EXPECT_EQ(rows("SELECT Z_PK FROM ZLABEL ORDER BY Z_PK"), (std::vector<std::string>{"2", "5", "6"}));

  // A failed request (a mandatory inverse) between two that go through on the same connection.
  sql("INSERT INTO ZHOLDER (Z_PK, Z_ENT, Z_OPT) VALUES (1, 9, 1), (2, 9, 1)");
  sql("INSERT INTO ZBADGE (Z_PK, Z_ENT, Z_OPT, ZHOLDER) VALUES (1, 9, 1, 2)");
  EXPECT_TRUE(batchDeleteObjects(*store_, {id("Holder", 1)}, ResultTypeCount));
  auto refused = batchDeleteObjects(*store_, {id("Holder", 2)}, ResultTypeCount);
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().code(), 1570);
  EXPECT_EQ(rows("SELECT Z_PK FROM ZHOLDER"), (std::vector<std::string>{"2"}));
  auto last = batchDeleteObjects(*store_, {id("Customer", 3)}, ResultTypeCount);
  ASSERT_TRUE(last) << last.error().debugDescription();
  EXPECT_EQ(rows("SELECT Z_PK FROM ZCAR"), std::vector<std::string>{});
  expectNoTemporaryObjects();
  EXPECT_EQ(one("PRAGMA integrity_check"), "ok");
}

TEST_F(BatchDeleteTest, KeptStatementsOfAConnection) {
  Database& db = store_->database();
  insertLabels(1, 3);
  const std::string query = "SELECT Z_PK FROM ZLABEL WHERE Z_PK >= ? ORDER BY Z_PK";
  {
    auto outer = db.cached(query);
    ASSERT_TRUE(outer) << outer.error().debugDescription();
    ASSERT_TRUE((*outer)->bind(1, Value(2)));
    ASSERT_TRUE((*outer)->step().value_or(false));
    EXPECT_EQ((*outer)->integer(0), 2);
    // The same SQL while the first is out: a statement of its own, from the first row.
    auto inner = db.cached(query);
    ASSERT_TRUE(inner);
    ASSERT_TRUE((*inner)->bind(1, Value(1)));
    ASSERT_TRUE((*inner)->step().value_or(false));
    EXPECT_EQ((*inner)->integer(0), 1);
    // The outer one goes on where it was.
    ASSERT_TRUE((*outer)->step().value_or(false));
    EXPECT_EQ((*outer)->integer(0), 3);
  }
  // Given back mid-way: reset, so it holds no read transaction and no bindings.
  EXPECT_NE(sqlite3_get_autocommit(db.handle()), 0);
  for (sqlite3_stmt* s = sqlite3_next_stmt(db.handle(), nullptr); s; s = sqlite3_next_stmt(db.handle(), s))
    EXPECT_EQ(sqlite3_stmt_busy(s), 0);
  {
    auto again = db.cached(query);
    ASSERT_TRUE(again);
    // An unbound parameter is NULL, so nothing matches.
    EXPECT_FALSE((*again)->step().value_or(true));
  }
  // A kept statement follows the schema: after the table is rebuilt with another column it still
  // runs, and a failing SQL fails as prepare does.
  sql("DROP TABLE ZLABEL");
  sql("CREATE TABLE ZLABEL (Z_PK INTEGER PRIMARY KEY, Z_ENT INTEGER, Z_OPT INTEGER, ZEXTRA TEXT)");
  sql("INSERT INTO ZLABEL VALUES (7, 11, 1, 'x')");
  {
    auto after = db.cached(query);
    ASSERT_TRUE(after);
    ASSERT_TRUE((*after)->bind(1, Value(0)));
    ASSERT_TRUE((*after)->step().value_or(false));
    EXPECT_EQ((*after)->integer(0), 7);
  }
  EXPECT_FALSE(db.cached("SELECT * FROM ZNOSUCHTABLE"));

  // The cache stays bounded however many different statements pass through it.
  for (std::size_t i = 0; i < Database::kStatementCacheSize * 3; ++i)
    ASSERT_TRUE(db.cached(fmt::format("SELECT {}", i)));
  int open = 0;
  for (sqlite3_stmt* s = sqlite3_next_stmt(db.handle(), nullptr); s; s = sqlite3_next_stmt(db.handle(), s))
    ++open;
  EXPECT_EQ(open, static_cast<int>(Database::kStatementCacheSize));
  db.clearStatementCache();
  EXPECT_EQ(sqlite3_next_stmt(db.handle(), nullptr), nullptr);
}

// A context hands each store its own IDs, whatever their order in the request, and refuses a
// request naming a store it does not have before touching any.
TEST_F(BatchDeleteTest, AContextSplitsIDsBetweenItsStores) {
  store_.reset();
  const fs::path second = test::scratchFolder("batch-delete-second") / "Second.sqlite";
  PersistentStoreCoordinator coordinator(model_);
  for (const fs::path& path : {path_, second}) {
    ASSERT_TRUE(coordinator.addPersistentStore(
        PersistentStoreDescription::persistentStoreDescriptionWithURL(Url::fileUrl(path.string(), false))));
  }
  const std::vector<SqliteStore*> stores = coordinator.persistentStores();
  ASSERT_EQ(stores.size(), 2u);
  for (SqliteStore* store : stores) {
    ASSERT_TRUE(
        store->database().execute("INSERT INTO ZLABEL (Z_PK, Z_ENT, Z_OPT) VALUES (1, 11, 1), "
                                  "(2, 11, 1), (3, 11, 1)"));
  }
  ManagedObjectContext context(ManagedObjectContextConcurrencyType::PrivateQueue);
  context.setPersistentStoreCoordinator(&coordinator);
  auto label = [&](std::size_t store, std::int64_t key) {
    return ManagedObjectID::permanent(entity("Label"), stores[store]->identifier(), key);
  };
  auto left = [&](std::size_t store) {
    std::vector<std::int64_t> keys;
    auto statement = stores[store]->database().prepare("SELECT Z_PK FROM ZLABEL ORDER BY Z_PK");
    while (statement && statement->step().value_or(false)) keys.push_back(statement->integer(0));
    return keys;
  };

  auto stranger = SqliteStore::create(test::scratchFolder("batch-delete-stranger") / "S.sqlite", model_, {});
  ASSERT_TRUE(stranger);
  for (const ManagedObjectID& bad :
       {ManagedObjectID::permanent(entity("Label"), (*stranger)->identifier(), 1),
        ManagedObjectID::temporary(entity("Label"))}) {
    auto request = BatchDeleteRequest::initWithObjectIDs({label(0, 1), label(1, 1), bad});
    EXPECT_FALSE(context.executeRequest(request));
  }
  EXPECT_EQ(left(0), (std::vector<std::int64_t>{1, 2, 3}));
  EXPECT_EQ(left(1), (std::vector<std::int64_t>{1, 2, 3}));

  auto mixed = BatchDeleteRequest::initWithObjectIDs({label(1, 3), label(0, 1), label(1, 1), label(0, 2)});
  mixed.resultType = ResultTypeObjectIDs;
  auto result = context.executeRequest(mixed);
  ASSERT_TRUE(result) << result.error().debugDescription();
  EXPECT_EQ(result->count, 4);
  EXPECT_EQ(result->objectIDs,
            (std::vector<ManagedObjectID>{label(0, 1), label(0, 2), label(1, 1), label(1, 3)}));
  EXPECT_EQ(left(0), (std::vector<std::int64_t>{3}));
  EXPECT_EQ(left(1), (std::vector<std::int64_t>{2}));

  // All of one store: handed over whole.
  auto single = BatchDeleteRequest::initWithObjectIDs({label(1, 2)});
  result = context.executeRequest(single);
  ASSERT_TRUE(result) << result.error().debugDescription();
  EXPECT_EQ(left(0), (std::vector<std::int64_t>{3}));
  EXPECT_EQ(left(1), std::vector<std::int64_t>{});
}

TEST(BatchDeleteFixture, DeletingTheCountriesOfAStoreCoreDataWrote) {
  const fs::path fixtures = TESSELUNE_FIXTURES_DIR;
  const fs::path path = test::scratchFolder("batch-delete-moody") / "Moody.moody";
  fs::copy_file(fixtures / "coredata/moody/stores/Moody.moody", path);
  auto model = ManagedObjectModel::modelWithContentsOfFile(
      fixtures / "coredata/moody/Moody.xcdatamodeld/Moody.xcdatamodel");
  ASSERT_TRUE(model) << model.error().debugDescription();
  auto store = SqliteStore::open(path, *model, {});
  ASSERT_TRUE(store) << store.error().debugDescription();
  const EntityDescription& country = *(*model)->entityNamed("Country");
  const std::int64_t countryNumber = *(*store)->entityNumber(country);

  auto statement = (*store)->database().prepare("SELECT Z_PK FROM ZGEOGRAPHICREGION WHERE Z_ENT = ?");
  ASSERT_TRUE(statement);
  std::vector<ManagedObjectID> countries;
  ASSERT_TRUE(statement->bind(1, Value(countryNumber)));
  while (statement->step().value_or(false))
    countries.push_back(ManagedObjectID::permanent(country, (*store)->identifier(), statement->integer(0)));
  ASSERT_FALSE(countries.empty());
  *statement = Statement();

  auto result = batchDeleteObjects(**store, countries, BatchDeleteRequestResultType::ResultTypeObjectIDs);
  ASSERT_TRUE(result) << result.error().debugDescription();
  EXPECT_EQ(result->objectIDs, countries);
  store->reset();

  auto reopened = SqliteStore::open(path, *model, {});
  ASSERT_TRUE(reopened) << reopened.error().debugDescription();
  Database& db = (*reopened)->database();
  auto count = [&](const std::string& text) {
    auto s = db.prepare(text);
    EXPECT_TRUE(s);
    EXPECT_TRUE(s && s->step().value_or(false));
    return s ? s->integer(0) : -1;
  };
  EXPECT_EQ(count("SELECT count(*) FROM ZGEOGRAPHICREGION WHERE Z_ENT = " + std::to_string(countryNumber)),
            0);
  EXPECT_EQ(count("SELECT count(*) FROM ZGEOGRAPHICREGION"), 2);  // the continents
  EXPECT_EQ(count("SELECT count(*) FROM ZMOOD"), 4);
  EXPECT_EQ(count("SELECT count(*) FROM ZMOOD WHERE ZCOUNTRY IS NOT NULL"), 0);
  EXPECT_EQ(count("SELECT Z_MAX FROM Z_PRIMARYKEY WHERE Z_NAME = 'GeographicRegion'"), 36);
  auto check = db.prepare("PRAGMA integrity_check");
  ASSERT_TRUE(check && check->step().value_or(false));
  EXPECT_EQ(check->text(0), "ok");
}

}  // namespace
}  // namespace tesselune
