// Column names as Core Data gives them where a model makes it choose (clashing names in one
// hierarchy, to-ones into hierarchies), the renaming of stores that our earlier builds named
// otherwise, and the model every new store caches of itself.

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <zlib.h>

#include <filesystem>
#include <functional>
#include <map>
#include <set>

#include "fixtures.h"
#include "foundation/property_list.h"
#include "objectstore/managed_object_context.h"
#include "objectstore/persistent_store_coordinator.h"
#include "objectstore/sqlite/sqlite_store.h"
#include "sqlite_probe.h"

namespace tesselune {
namespace {

namespace fs = std::filesystem;

// Folders three levels deep with a name declared three times (of three types, so that laying
// columns out by type would number them in another order), messages whose two kinds each declare a
// to-one `folder` into the folder hierarchy, a to-one into a sub-hierarchy, a to-many without
// inverse and an ordered to-many.
//   Account 1 · Folder 2 > LocalFolder 3, RemoteFolder 4 > SharedFolder 5 · Message 6 > Draft 7,
//   Mail 8 · Tag 9
constexpr std::string_view kMailModel = R"(<?xml version="1.0" encoding="UTF-8" standalone="yes"?>
<model type="com.apple.IDECoreDataModeler.DataModel" documentVersion="1.0">
  <entity name="Account" representedClassName="NSManagedObject">
    <attribute name="name" optional="YES" attributeType="String"/>
    <relationship name="inbox" optional="YES" maxCount="1" deletionRule="Nullify" destinationEntity="RemoteFolder"/>
    <relationship name="tags" optional="YES" toMany="YES" deletionRule="Nullify" destinationEntity="Tag"/>
  </entity>
  <entity name="Folder" representedClassName="NSManagedObject">
    <attribute name="path" optional="YES" attributeType="String"/>
    <relationship name="drafts" optional="YES" toMany="YES" deletionRule="Cascade" destinationEntity="Draft" inverseName="folder" inverseEntity="Draft"/>
    <relationship name="mails" optional="YES" toMany="YES" ordered="YES" deletionRule="Nullify" destinationEntity="Mail" inverseName="folder" inverseEntity="Mail"/>
  </entity>
  <entity name="LocalFolder" representedClassName="NSManagedObject" parentEntity="Folder">
    <attribute name="title" optional="YES" attributeType="String"/>
  </entity>
  <entity name="RemoteFolder" representedClassName="NSManagedObject" parentEntity="Folder">
    <attribute name="Title" optional="YES" attributeType="Integer 64" defaultValueString="0"/>
  </entity>
  <entity name="SharedFolder" representedClassName="NSManagedObject" parentEntity="RemoteFolder">
    <attribute name="TITLE" optional="YES" attributeType="Date"/>
  </entity>
  <entity name="Message" representedClassName="NSManagedObject">
    <attribute name="subject" optional="YES" attributeType="String"/>
  </entity>
  <entity name="Draft" representedClassName="NSManagedObject" parentEntity="Message">
    <relationship name="folder" optional="YES" maxCount="1" deletionRule="Nullify" destinationEntity="Folder" inverseName="drafts" inverseEntity="Folder"/>
  </entity>
  <entity name="Mail" representedClassName="NSManagedObject" parentEntity="Message">
    <relationship name="account" optional="YES" maxCount="1" deletionRule="Nullify" destinationEntity="Account"/>
    <relationship name="folder" optional="YES" maxCount="1" deletionRule="Nullify" destinationEntity="Folder" inverseName="mails" inverseEntity="Folder"/>
  </entity>
  <entity name="Tag" representedClassName="NSManagedObject">
    <attribute name="label" optional="YES" attributeType="String"/>
  </entity>
</model>)";

std::shared_ptr<const ManagedObjectModel> mailModel() {
  auto model = ManagedObjectModel::modelWithXml(kMailModel, "mail");
  EXPECT_TRUE(model) << model.error().debugDescription();
  return model ? *model : nullptr;
}

using Sql = test::SqliteProbe;

// Runs `work` on a context of a coordinator with the store at `path` added.
void withContext(const fs::path& path, const std::shared_ptr<const ManagedObjectModel>& model, bool readOnly,
                 const std::function<void(ManagedObjectContext&)>& work) {
  PersistentStoreCoordinator coordinator(model);
  auto description =
      PersistentStoreDescription::persistentStoreDescriptionWithURL(Url::fileUrl(path.string(), false));
  description.readOnly = readOnly;
  auto added = coordinator.addPersistentStore(description);
  ASSERT_TRUE(added) << added.error().debugDescription();
  ManagedObjectContext context(ManagedObjectContextConcurrencyType::PrivateQueue);
  context.setPersistentStoreCoordinator(&coordinator);
  context.performBlockAndWait([&] { work(context); });
}

// The one Mail's folder, read through the relationship.
std::shared_ptr<ManagedObject> folderOfTheMail(ManagedObjectContext& context) {
  auto mails = context.fetchObjects(FetchRequest::fetchRequestWithEntityName("Mail"));
  EXPECT_TRUE(mails && mails->size() == 1u);
  if (!mails || mails->size() != 1u) return nullptr;
  const Value folder = mails->front()->valueForKey("folder");
  return folder.isObject() ? std::dynamic_pointer_cast<ManagedObject>(folder.asObject()) : nullptr;
}

std::vector<std::string> withoutBookkeeping(std::vector<std::string> columns) {
  std::erase_if(columns, [](const std::string& c) { return c == "Z_PK" || c == "Z_ENT" || c == "Z_OPT"; });
  std::sort(columns.begin(), columns.end());
  return columns;
}

TEST(FrameworkLayout, NamesClashingColumnsByDeclaringEntityAndEntityColumnsByDestination) {
  auto model = mailModel();
  ASSERT_TRUE(model);
  const fs::path path = test::scratchFolder("layout") / "mail.sqlite";
  ASSERT_TRUE(SqliteStore::create(path, model, {}));
  Sql sql(path, SQLITE_OPEN_READONLY);

  EXPECT_EQ(
      sql.rows("SELECT Z_ENT, Z_NAME, Z_SUPER FROM Z_PRIMARYKEY ORDER BY Z_ENT"),
      (std::vector<std::string>{"1|Account|0", "2|Folder|0", "3|LocalFolder|2", "4|RemoteFolder|2",
                                "5|SharedFolder|4", "6|Message|0", "7|Draft|6", "8|Mail|6", "9|Tag|0"}));
  // LocalFolder (3) keeps the plain name, RemoteFolder (4) and SharedFolder (5) get 1 and 2,
  // whatever their types; the ordered to-many's order column sits beside its inverse's key.
  EXPECT_EQ(withoutBookkeeping(sql.columns("ZFOLDER")),
            (std::vector<std::string>{"ZPATH", "ZTITLE", "ZTITLE1", "ZTITLE2"}));
  EXPECT_EQ(sql.rows("SELECT type FROM pragma_table_info('ZFOLDER') WHERE name LIKE 'ZTITLE%' ORDER BY name"),
            (std::vector<std::string>{"VARCHAR", "INTEGER", "TIMESTAMP"}));
  // Draft (7) and Mail (8) each declare `folder`: the entity-number columns carry Folder's number
  // (2) and the same suffix as the key column.
  EXPECT_EQ(withoutBookkeeping(sql.columns("ZMESSAGE")),
            (std::vector<std::string>{"Z2_FOLDER", "Z2_FOLDER1", "ZACCOUNT", "ZFOLDER", "ZFOLDER1",
                                      "ZSUBJECT", "Z_FOK_FOLDER"}));
  // A to-one into RemoteFolder's sub-hierarchy: RemoteFolder's number, not Account's.
  EXPECT_EQ(withoutBookkeeping(sql.columns("ZACCOUNT")),
            (std::vector<std::string>{"Z4_INBOX", "ZINBOX", "ZNAME"}));
  // A to-many without inverse: a hidden key named after the source's number.
  EXPECT_EQ(withoutBookkeeping(sql.columns("ZTAG")), (std::vector<std::string>{"Z1TAGS", "ZLABEL"}));
  EXPECT_TRUE(sql.indexes("ZMESSAGE").contains("ZMESSAGE_ZFOLDER1_INDEX: ZFOLDER1"));
}

// Objects saved through the engine land in the columns above, and come back through them.
TEST(FrameworkLayout, SavesAndFetchesThroughTheFrameworksColumns) {
  auto model = mailModel();
  ASSERT_TRUE(model);
  const fs::path path = test::scratchFolder("save") / "mail.sqlite";
  withContext(path, model, false, [](ManagedObjectContext& context) {
    auto shared = context.insertNewObjectForEntityForName("SharedFolder");
    shared->setValue(Value("Team"), "path");
    auto local = context.insertNewObjectForEntityForName("LocalFolder");
    local->setValue(Value("Notes"), "title");
    auto mail = context.insertNewObjectForEntityForName("Mail");
    mail->setValue(Value("Hello"), "subject");
    mail->setValue(Value(shared), "folder");
    auto draft = context.insertNewObjectForEntityForName("Draft");
    draft->setValue(Value(local), "folder");
    auto account = context.insertNewObjectForEntityForName("Account");
    account->setValue(Value(shared), "inbox");
    Status saved = context.save();
    EXPECT_TRUE(saved) << saved.error().debugDescription();
  });
  {
    Sql sql(path, SQLITE_OPEN_READONLY);
    // Each key column names a row of the entity its entity-number column gives.
    EXPECT_EQ(sql.rows("SELECT m.Z_ENT, m.ZSUBJECT, m.ZFOLDER IS NULL, m.Z2_FOLDER, m.ZFOLDER1 IS NULL, "
                       "m.Z2_FOLDER1, f.Z_ENT FROM ZMESSAGE m JOIN ZFOLDER f ON f.Z_PK = "
                       "coalesce(m.ZFOLDER, m.ZFOLDER1) ORDER BY m.Z_ENT"),
              (std::vector<std::string>{"7|NULL|0|3|1|NULL|3", "8|Hello|1|NULL|0|5|5"}));
    EXPECT_EQ(sql.rows("SELECT Z_ENT, ZTITLE FROM ZFOLDER ORDER BY Z_ENT"),
              (std::vector<std::string>{"3|Notes", "5|NULL"}));
    EXPECT_EQ(sql.rows("SELECT f.Z_ENT, a.Z4_INBOX FROM ZACCOUNT a JOIN ZFOLDER f ON f.Z_PK = a.ZINBOX"),
              (std::vector<std::string>{"5|5"}));
  }
  withContext(path, model, false, [](ManagedObjectContext& context) {
    auto shared = folderOfTheMail(context);
    ASSERT_TRUE(shared);
    EXPECT_EQ(shared->entity().name(), "SharedFolder");
    EXPECT_EQ(shared->valueForKey("path"), Value("Team"));
  });
}

// A store as our earlier builds laid it out: clashing columns numbered by type order, entity-number
// columns after the declaring entity. Made from the new store by renaming its columns and
// rebuilding its indexes the old way, with one object in each renamed column.
fs::path storeOfEarlierBuilds(const fs::path& folder,
                              const std::shared_ptr<const ManagedObjectModel>& model) {
  const fs::path path = folder / "mail.sqlite";
  EXPECT_TRUE(SqliteStore::create(path, model, {}));
  const EntityNumbers numbers = StoreSchema::numberEntities(*model);
  const StoreSchema earlier = StoreSchema::forModel(*model, numbers, ColumnNaming::EarlierBuilds);
  Sql sql(path);
  sql.run("DROP TABLE Z_MODELCACHE");
  for (const TableSchema& table : earlier.tables()) {
    sql.run("DROP TABLE " + table.name);
    sql.run(table.createSql());
  }
  for (const IndexSchema& index : earlier.indexes()) sql.run(index.createSql());
  sql.run(
      "INSERT INTO ZFOLDER (Z_PK, Z_ENT, Z_OPT, ZTITLE, ZTITLE1, ZTITLE2) VALUES "
      "(1, 3, 1, NULL, NULL, 'Notes'), (2, 4, 1, 42, NULL, NULL), (3, 5, 1, NULL, 1000.5, NULL)");
  sql.run(
      "INSERT INTO ZMESSAGE (Z_PK, Z_ENT, Z_OPT, ZFOLDER, Z7_FOLDER, ZFOLDER1, Z8_FOLDER) VALUES "
      "(1, 7, 1, 1, 3, NULL, NULL), (2, 8, 1, NULL, NULL, 3, 5)");
  sql.run("INSERT INTO ZACCOUNT (Z_PK, Z_ENT, Z_OPT, ZINBOX, Z1_INBOX) VALUES (1, 1, 1, 3, 5)");
  sql.run("UPDATE Z_PRIMARYKEY SET Z_MAX = 3 WHERE Z_ENT = 2");
  return path;
}

TEST(FrameworkLayout, RenamesTheColumnsOfOurEarlierStoresInPlace) {
  auto model = mailModel();
  ASSERT_TRUE(model);
  const fs::path path = storeOfEarlierBuilds(test::scratchFolder("earlier"), model);

  auto store = SqliteStore::open(path, model, {});
  ASSERT_TRUE(store) << store.error().debugDescription();
  EXPECT_NE((*store)->openingNote().find("Renamed 6 columns"), std::string::npos) << (*store)->openingNote();
  EXPECT_NE((*store)->openingNote().find("ZFOLDER.ZTITLE2 → ZTITLE"), std::string::npos);
  store->reset();

  Sql sql(path, SQLITE_OPEN_READONLY);
  EXPECT_EQ(sql.rows("SELECT Z_ENT, ZTITLE, ZTITLE1, ZTITLE2 FROM ZFOLDER ORDER BY Z_PK"),
            (std::vector<std::string>{"3|Notes|NULL|NULL", "4|NULL|42|NULL", "5|NULL|NULL|1000.5"}));
  EXPECT_EQ(sql.rows("SELECT Z_ENT, ZFOLDER, Z2_FOLDER, ZFOLDER1, Z2_FOLDER1 FROM ZMESSAGE ORDER BY Z_PK"),
            (std::vector<std::string>{"7|1|3|NULL|NULL", "8|NULL|NULL|3|5"}));
  EXPECT_EQ(sql.rows("SELECT ZINBOX, Z4_INBOX FROM ZACCOUNT"), (std::vector<std::string>{"3|5"}));
  // The indexes are those of a new store, under their names and on their columns.
  const fs::path fresh = test::scratchFolder("fresh") / "mail.sqlite";
  ASSERT_TRUE(SqliteStore::create(fresh, model, {}));
  Sql reference(fresh, SQLITE_OPEN_READONLY);
  for (const std::string table : {"ZFOLDER", "ZMESSAGE", "ZACCOUNT", "ZTAG"}) {
    EXPECT_EQ(sql.indexes(table), reference.indexes(table)) << table;
    EXPECT_EQ(sql.columns(table), reference.columns(table)) << table;
  }
  // The renamed store carries its model now, and opens again without renaming anything.
  EXPECT_TRUE(ManagedObjectModel::modelFromStore(path));
  auto again = SqliteStore::open(path, model, {});
  ASSERT_TRUE(again);
  EXPECT_EQ((*again)->openingNote(), "");
}

TEST(FrameworkLayout, ReadsOurEarlierStoresReadOnlyWithoutChangingThem) {
  auto model = mailModel();
  ASSERT_TRUE(model);
  const fs::path path = storeOfEarlierBuilds(test::scratchFolder("earlier-ro"), model);
  {
    Sql sql(path);
    sql.run("PRAGMA wal_checkpoint(TRUNCATE)");
  }
  const std::uintmax_t size = fs::file_size(path);
  std::string schemaBefore;
  {
    Sql sql(path, SQLITE_OPEN_READONLY);
    for (const auto& row : sql.rows("SELECT sql FROM sqlite_master ORDER BY name")) schemaBefore += row;
  }

  withContext(path, model, true, [](ManagedObjectContext& context) {
    auto shared = folderOfTheMail(context);
    ASSERT_TRUE(shared);
    EXPECT_EQ(shared->entity().name(), "SharedFolder");
    auto local = context.fetchObjects(FetchRequest::fetchRequestWithEntityName("LocalFolder"));
    ASSERT_TRUE(local);
    ASSERT_EQ(local->size(), 1u);
    EXPECT_EQ(local->front()->valueForKey("title"), Value("Notes"));
  });

  Sql sql(path, SQLITE_OPEN_READONLY);
  std::string schemaAfter;
  for (const auto& row : sql.rows("SELECT sql FROM sqlite_master ORDER BY name")) schemaAfter += row;
  EXPECT_EQ(schemaAfter, schemaBefore);
  EXPECT_EQ(fs::file_size(path), size);
}

// A store that is neither ours nor the framework's layout is still refused, naming the column.
TEST(FrameworkLayout, RefusesALayoutThatNoNamingExplains) {
  auto model = mailModel();
  ASSERT_TRUE(model);
  const fs::path path = test::scratchFolder("foreign") / "mail.sqlite";
  ASSERT_TRUE(SqliteStore::create(path, model, {}));
  {
    Sql sql(path);
    sql.run("ALTER TABLE ZMESSAGE RENAME COLUMN Z2_FOLDER1 TO Z9_FOLDER1");
  }
  auto store = SqliteStore::open(path, model, {});
  ASSERT_FALSE(store);
  EXPECT_NE(store.error().debugDescription().find("its table ZMESSAGE has no column Z2_FOLDER1"),
            std::string::npos)
      << store.error().debugDescription();
}

// --- The model cached in every new store ----------------------------------------------------------

Value inflatedArchive(const Bytes& content) {
  z_stream stream{};
  EXPECT_EQ(inflateInit2(&stream, -15), Z_OK);
  Bytes out(8u << 20);
  stream.next_in = const_cast<Bytef*>(content.data());
  stream.avail_in = static_cast<uInt>(content.size());
  stream.next_out = out.data();
  stream.avail_out = static_cast<uInt>(out.size());
  EXPECT_EQ(inflate(&stream, Z_FINISH), Z_STREAM_END);
  out.resize(out.size() - stream.avail_out);
  inflateEnd(&stream);
  auto plist = propertyListWithData(out);
  EXPECT_TRUE(plist);
  return plist ? *plist : Value();
}

// For each archived class, the keys its objects carry (union over the objects).
std::map<std::string, std::set<std::string>> keysByClass(const Value& archive) {
  std::map<std::string, std::set<std::string>> keys;
  const Array& objects = archive["$objects"].asArray();
  for (const Value& object : objects) {
    if (!object.isDictionary() || object["$class"].isNull()) continue;
    const std::string name = objects.at(object["$class"]["CF$UID"].asInteger())["$classname"].asString();
    for (const auto& [key, value] : object.asDictionary())
      if (key != "$class") keys[name].insert(key);
  }
  return keys;
}

Bytes cachedContentOf(const fs::path& store) {
  return Sql(store, SQLITE_OPEN_READONLY).blob("SELECT Z_CONTENT FROM Z_MODELCACHE");
}

// Our cache of a model that Apple's framework also cached: read back with the same hashes, and
// written with the classes and keys that the framework's own cache of that model has.
TEST(ModelCacheWriting, CachesTheModelAsTheFrameworkDoes) {
  const auto& pairs = test::storesWithTheirModels();
  ASSERT_FALSE(pairs.empty());
  for (const auto& [fixture, modelPath] : pairs) {
    auto model = ManagedObjectModel::modelWithContentsOfFile(fs::path(TESSELUNE_FIXTURES_DIR) / modelPath);
    ASSERT_TRUE(model) << modelPath;
    const fs::path folder = test::scratchFolder("cache");
    const fs::path ours = folder / "ours.sqlite";
    ASSERT_TRUE(SqliteStore::create(ours, *model, {}));

    auto cached = ManagedObjectModel::modelFromStore(ours);
    ASSERT_TRUE(cached) << fixture << ": " << cached.error().debugDescription();
    EXPECT_EQ((*cached)->entityVersionHashes(), (*model)->entityVersionHashes()) << fixture;

    const fs::path theirs = test::copyFixtureStore(fixture, folder);
    const auto ourKeys = keysByClass(inflatedArchive(cachedContentOf(ours)));
    const auto theirKeys = keysByClass(inflatedArchive(cachedContentOf(theirs)));
    for (const std::string name :
         {"NSManagedObjectModel", "NSKnownKeysDictionary1", "NSKnownKeysMappingStrategy1",
          "NSEntityDescription", "NSAttributeDescription", "NSRelationshipDescription"}) {
      if (!theirKeys.contains(name)) continue;
      const std::set<std::string>& keys = theirKeys.at(name);
      ASSERT_TRUE(ourKeys.contains(name)) << fixture << ": no object of class " << name;
      EXPECT_EQ(ourKeys.at(name), keys) << fixture << ": keys of " << name;
    }
  }
}

// The round trip on a model with every kind of property and inheritance; a store that has it opens
// model-less, and a store created by the engine carries it from the start.
TEST(ModelCacheWriting, RoundTripsHierarchiesAndEveryRelationshipKind) {
  auto model = mailModel();
  ASSERT_TRUE(model);
  auto content = model->cachedContent();
  ASSERT_TRUE(content) << content.error().debugDescription();
  auto back = ManagedObjectModel::modelFromCachedContent(*content, "mail");
  ASSERT_TRUE(back) << back.error().debugDescription();
  EXPECT_EQ((*back)->entityVersionHashes(), model->entityVersionHashes());
  const EntityDescription* shared = (*back)->entityNamed("SharedFolder");
  ASSERT_NE(shared, nullptr);
  ASSERT_NE(shared->superentity(), nullptr);
  EXPECT_EQ(shared->superentity()->name(), "RemoteFolder");
  const auto* mails = (*back)->entityNamed("Folder")->relationshipsByName().at("mails");
  EXPECT_TRUE(mails->isOrdered());
  EXPECT_EQ(mails->deleteRule(), DeleteRule::Nullify);
  EXPECT_EQ((*back)->entityNamed("Folder")->relationshipsByName().at("drafts")->deleteRule(),
            DeleteRule::Cascade);

  // The cached model lays a store out exactly as the model it came from.
  const EntityNumbers numbers = StoreSchema::numberEntities(*model);
  const EntityNumbers backNumbers = StoreSchema::numberEntities(**back);
  const StoreSchema a = StoreSchema::forModel(*model, numbers);
  const StoreSchema b = StoreSchema::forModel(**back, backNumbers);
  ASSERT_EQ(a.tables().size(), b.tables().size());
  for (std::size_t i = 0; i < a.tables().size(); ++i)
    EXPECT_EQ(a.tables()[i].createSql(), b.tables()[i].createSql());
}

}  // namespace
}  // namespace tesselune
