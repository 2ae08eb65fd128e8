// Opening stores that Core Data wrote: metadata, entity numbers, tables and object URIs; refusal of
// the wrong model; and clean Errors, with the file untouched, for files that are no usable store.

#include "objectstore/sqlite/sqlite_store.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "fixtures.h"

namespace tesselune {
namespace {

namespace fs = std::filesystem;

const fs::path kMoody = fs::path(TESSELUNE_FIXTURES_DIR) / "coredata/moody";

Bytes contents(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), {});
}

class SqliteStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    folder_ = test::scratchFolder(::testing::UnitTest::GetInstance()->current_test_info()->name());
  }

  // A copy of a fixture store with its WAL files; tests never open the fixtures themselves.
  fs::path copyStore(const std::string& name) {
    for (const char* suffix : {"", "-wal", "-shm"}) fs::remove(folder_ / (name + suffix));
    return test::copyFixtureStore("coredata/moody/stores/" + name, folder_);
  }

  static std::shared_ptr<const ManagedObjectModel> model(const std::string& version) {
    auto m = ManagedObjectModel::modelWithContentsOfFile(kMoody / "Moody.xcdatamodeld" /
                                                         (version + ".xcdatamodel"));
    EXPECT_TRUE(m) << m.error().debugDescription();
    return m.value_or(nullptr);
  }

  fs::path folder_;
};

TEST_F(SqliteStoreTest, ReadsMetadataEntityNumbersAndObjectUris) {
  for (bool readOnly : {true, false}) {
    auto store = SqliteStore::open(copyStore("Moody.moody"), model("Moody"), {.readOnly = readOnly});
    ASSERT_TRUE(store) << store.error().debugDescription();
    SqliteStore& s = **store;
    const ManagedObjectModel& m = s.model();
    EXPECT_EQ(s.metadata().at("NSStoreUUID"), Value(s.identifier().string()));
    // Read without a model, the metadata is the same.
    EXPECT_EQ(Value(SqliteStore::metadataForPersistentStoreAtPath(s.path()).value_or(Dictionary())),
              Value(s.metadata()));
    EXPECT_EQ(s.metadata().at("NSStoreType"), Value("SQLite"));

    const EntityDescription& country = *m.entityNamed("Country");
    EXPECT_EQ(s.entityNumber(*m.entityNamed("GeographicRegion")), 1);
    EXPECT_EQ(s.entityNumber(*m.entityNamed("Continent")), 2);
    EXPECT_EQ(s.entityNumber(country), 3);
    EXPECT_EQ(s.entityNumber(*m.entityNamed("Mood")), 4);
    EXPECT_EQ(s.entityForNumber(3), &country);
    EXPECT_EQ(SqliteStore::tableName(country), "ZGEOGRAPHICREGION");

    // A Country row's URI names Country (not the table's root) and this store.
    auto statement = s.database().prepare("SELECT Z_PK FROM ZGEOGRAPHICREGION WHERE Z_ENT = 3 ORDER BY Z_PK");
    ASSERT_TRUE(statement);
    auto row = statement->step();
    ASSERT_TRUE(row && *row);
    const ManagedObjectID id = ManagedObjectID::permanent(country, s.identifier(), statement->integer(0));
    const Url uri = id.URIRepresentation();
    EXPECT_EQ(uri.absoluteString(), "x-coredata://" + s.identifier().string() + "/Country/p" +
                                        std::to_string(statement->integer(0)));
    EXPECT_EQ(s.objectIDForURIRepresentation(uri), id);

    // Another store's objects, unknown entities and temporary IDs are not this store's.
    EXPECT_FALSE(s.objectIDForURIRepresentation(
        *Url::parse("x-coredata://0AD863BA-7584-40CF-8896-BD87B3280C34/Country/p1")));
    EXPECT_FALSE(s.objectIDForURIRepresentation(
        *Url::parse("x-coredata://" + s.identifier().string() + "/Planet/p1")));
    const ManagedObjectID temporary = ManagedObjectID::temporary(country);
    EXPECT_TRUE(temporary.isTemporaryID());
    EXPECT_TRUE(temporary.URIRepresentation().absoluteString().starts_with("x-coredata:///Country/t"));
    EXPECT_NE(temporary, ManagedObjectID::temporary(country));
    EXPECT_FALSE(s.objectIDForURIRepresentation(temporary.URIRepresentation()));
  }
}

TEST_F(SqliteStoreTest, OpensEveryFixtureStoreWithItsModelAndRefusesOthers) {
  const std::vector<std::string> versions = {"Moody", "Moody 2", "Moody 3", "Moody 4", "Moody 5"};
  for (const std::string& version : versions) {
    EXPECT_TRUE(SqliteStore::open(copyStore(version + ".moody"), model(version), {.readOnly = true}))
        << version;
  }
  auto wrong = SqliteStore::open(copyStore("Moody.moody"), model("Moody 4"), {.readOnly = true});
  ASSERT_FALSE(wrong);
  EXPECT_EQ(wrong.error().domain(), kCocoaErrorDomain);
  EXPECT_EQ(wrong.error().code(), kPersistentStoreIncompatibleVersionHashError);
}

TEST_F(SqliteStoreTest, AllocatesKeysFromTheHierarchysCounter) {
  const fs::path path = copyStore("Moody.moody");
  auto store = SqliteStore::open(path, model("Moody"), {});
  ASSERT_TRUE(store);
  const ManagedObjectModel& m = (*store)->model();
  // Z_MAX is 36 in the region hierarchy's root row (not a row count: there are five regions).
  EXPECT_EQ((*store)->allocatePrimaryKeys(*m.entityNamed("Country"), 10), 37);
  EXPECT_EQ((*store)->allocatePrimaryKeys(*m.entityNamed("Continent"), 1), 47);
  EXPECT_EQ((*store)->allocatePrimaryKeys(*m.entityNamed("Mood"), 1), 117);
  store->reset();

  // Another connection sees the counters, kept in the root rows only.
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
  sqlite3_stmt* statement = nullptr;
  sqlite3_prepare_v2(db, "SELECT Z_NAME, Z_MAX FROM Z_PRIMARYKEY ORDER BY Z_ENT", -1, &statement, nullptr);
  std::vector<std::pair<std::string, std::int64_t>> counters;
  while (sqlite3_step(statement) == SQLITE_ROW) {
    counters.emplace_back(reinterpret_cast<const char*>(sqlite3_column_text(statement, 0)),
                          sqlite3_column_int64(statement, 1));
  }
  sqlite3_finalize(statement);
  sqlite3_close(db);
  EXPECT_EQ(counters, (std::vector<std::pair<std::string, std::int64_t>>{
                          {"GeographicRegion", 47}, {"Continent", 0}, {"Country", 0}, {"Mood", 117}}));

  auto readOnly = SqliteStore::open(path, model("Moody"), {.readOnly = true});
  ASSERT_TRUE(readOnly);
  auto refused = (*readOnly)->allocatePrimaryKeys(*(*readOnly)->model().entityNamed("Mood"), 1);
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().code(), kFileWriteNoPermissionError);
}

TEST_F(SqliteStoreTest, WritesThroughCoreDatasOwnTriggers) {
  const fs::path path = copyStore("Moody 5.moody");
  {
    // Core Data installs triggers that call functions only it defines.
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
    ASSERT_EQ(
        sqlite3_exec(db,
                     "CREATE TRIGGER Z_DA_ZMOOD_TRIGGER AFTER UPDATE OF ZRATING ON ZMOOD FOR EACH ROW BEGIN "
                     "SELECT NSCoreDataTriggerUpdateAffectedObjectValue('ZCOUNTRY', Z_ENT, Z_PK, "
                     "'numberOfMoods', 1) FROM ZCOUNTRY WHERE Z_PK = NEW.ZCOUNTRY; END",
                     nullptr, nullptr, nullptr),
        SQLITE_OK);
    sqlite3_close(db);
  }
  auto store = SqliteStore::open(path, model("Moody 5"), {});
  ASSERT_TRUE(store) << store.error().debugDescription();
  EXPECT_TRUE((*store)->database().execute("UPDATE ZMOOD SET ZRATING = 3"));
}

TEST_F(SqliteStoreTest, FailsCleanlyOnFilesThatAreNoStoreAndLeavesThemAsTheyWere) {
  auto m = model("Moody");
  std::vector<std::pair<std::string, fs::path>> files;

  const fs::path text = folder_ / "notes.moody";
  std::ofstream(text) << "This is not a database, just a note about moods.\n";
  files.emplace_back("text", text);

  const fs::path truncated = copyStore("Moody 2.moody");
  fs::remove(folder_ / "Moody 2.moody-wal");
  fs::remove(folder_ / "Moody 2.moody-shm");
  fs::resize_file(truncated, 2000);
  files.emplace_back("truncated", truncated);

  const fs::path corrupt = copyStore("Moody 3.moody");
  fs::remove(folder_ / "Moody 3.moody-wal");
  fs::remove(folder_ / "Moody 3.moody-shm");
  {
    std::fstream f(corrupt, std::ios::in | std::ios::out | std::ios::binary);
    f.seekp(4096);
    const std::string garbage(4096, '\x5a');
    f.write(garbage.data(), static_cast<std::streamsize>(garbage.size()));
  }
  files.emplace_back("corrupt", corrupt);

  const fs::path plainDatabase = folder_ / "plain.sqlite";
  {
    sqlite3* db = nullptr;
    sqlite3_open(plainDatabase.c_str(), &db);
    sqlite3_exec(db, "CREATE TABLE t (x INTEGER)", nullptr, nullptr, nullptr);
    sqlite3_close(db);
  }
  files.emplace_back("plain database", plainDatabase);

  for (const auto& [what, file] : files) {
    const Bytes before = contents(file);
    for (bool readOnly : {true, false}) {
      auto store = SqliteStore::open(file, m, {.readOnly = readOnly});
      ASSERT_FALSE(store) << what;
      EXPECT_EQ(store.error().domain(), kCocoaErrorDomain)
          << what << ": " << store.error().debugDescription();
      EXPECT_NE(store.error().localizedDescription().find(file.filename().string()), std::string::npos)
          << what;
    }
    EXPECT_EQ(contents(file), before) << what;
  }

  auto missing = SqliteStore::open(folder_ / "absent.moody", m, {});
  ASSERT_FALSE(missing);
  EXPECT_EQ(missing.error().code(), kFileReadNoSuchFileError);
  EXPECT_FALSE(fs::exists(folder_ / "absent.moody")) << "opening must not create the file";
}

TEST_F(SqliteStoreTest, ReportsALockedStoreAfterTheBusyTimeout) {
  const fs::path path = copyStore("Moody 5.moody");
  sqlite3* holder = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &holder), SQLITE_OK);
  // An exclusive lock held by another connection, as during a long write by the main application.
  ASSERT_EQ(
      sqlite3_exec(holder, "PRAGMA locking_mode = EXCLUSIVE; BEGIN EXCLUSIVE;", nullptr, nullptr, nullptr),
      SQLITE_OK);
  auto store = SqliteStore::open(path, model("Moody 5"),
                                 {.readOnly = false, .busyTimeout = std::chrono::milliseconds(50)});
  ASSERT_FALSE(store);
  EXPECT_EQ(store.error().domain(), "NSSQLiteErrorDomain");
  EXPECT_EQ(store.error().code() & 0xFF, SQLITE_BUSY) << store.error().debugDescription();
  sqlite3_exec(holder, "COMMIT", nullptr, nullptr, nullptr);
  sqlite3_close(holder);
  EXPECT_TRUE(SqliteStore::open(path, model("Moody 5"), {}));
}

}  // namespace
}  // namespace tesselune
