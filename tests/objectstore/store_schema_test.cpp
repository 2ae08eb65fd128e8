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

namespace tesselune {
namespace {

namespace fs = std::filesystem;

const fs::path kFixtures = TESSELUNE_FIXTURES_DIR;

std::vector<std::string> rows(sqlite3* db, const std::string& sql) {
  std::vector<std::string> out;
  sqlite3_stmt* statement = nullptr;
  EXPECT_EQ(sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr), SQLITE_OK) << sql;
  while (statement && sqlite3_step(statement) == SQLITE_ROW) {
    std::string line;
    for (int i = 0; i < sqlite3_column_count(statement); ++i) {
      const auto* text = sqlite3_column_text(statement, i);
      line += (i ? "|" : "") + std::string(text ? reinterpret_cast<const char*>(text) : "NULL");
    }
    out.push_back(line);
  }
  sqlite3_finalize(statement);
  return out;
}

// The layout of a store, one line per fact, in an order that does not depend on creation order.
std::set<std::string> layout(const fs::path& path) {
  sqlite3* db = nullptr;
  EXPECT_EQ(sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr), SQLITE_OK);
  std::set<std::string> facts;
  // Z_MODELCACHE holds the archived model, which new stores leave out.
  for (const std::string& table :
       rows(db, "SELECT name FROM sqlite_master WHERE type = 'table' AND name != 'Z_MODELCACHE'")) {
    std::string columns;
    for (const std::string& column :
         rows(db, "SELECT name, type, pk FROM pragma_table_info('" + table + "')")) {
      columns += " " + column;
    }
    facts.insert("table " + table + ":" + columns);
    for (const std::string& index :
         rows(db, "SELECT name, origin FROM pragma_index_list('" + table + "') ORDER BY name")) {
      const std::string name = index.substr(0, index.find('|'));
      std::string indexColumns;
      for (const std::string& c :
           rows(db, "SELECT name FROM pragma_index_info('" + name + "') ORDER BY seqno")) {
        indexColumns += " " + c;
      }
      // Automatic indexes are named by position; what they index is what counts.
      const std::string shown = name.starts_with("sqlite_autoindex") ? "(auto)" : name;
      facts.insert("index " + table + " " + shown + " " + index.substr(index.find('|') + 1) + ":" +
                   indexColumns);
    }
  }
  for (const std::string& row : rows(db, "SELECT Z_ENT, Z_NAME, Z_SUPER FROM Z_PRIMARYKEY"))
    facts.insert("entity " + row);
  for (const std::string pragma : {"page_size", "auto_vacuum", "journal_mode", "user_version"}) {
    facts.insert(pragma + " " + rows(db, "PRAGMA " + pragma).front());
  }
  sqlite3_close(db);
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
    const fs::path copy = folder / ("apple-" + fs::path(fixture).filename().string());
    for (const char* suffix : {"", "-wal", "-shm"}) {
      if (fs::exists(kFixtures / (fixture + suffix)))
        fs::copy_file(kFixtures / (fixture + suffix), copy.string() + suffix);
    }
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

}  // namespace
}  // namespace tesselune
