// Models: Xcode's model files load into descriptions, their entity version hashes equal the ones
// Core Data recorded in the fixture stores, and broken models fail with an Error that says where.

#include "objectstore/description/managed_object_model.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>

#include "fixtures.h"
#include "foundation/property_list.h"

namespace tesselune {
namespace {

namespace fs = std::filesystem;

const fs::path kFixtures = TESSELUNE_FIXTURES_DIR;

std::shared_ptr<const ManagedObjectModel> load(const fs::path& path) {
  auto model = ManagedObjectModel::modelWithContentsOfFile(path);
  EXPECT_TRUE(model) << path << ": " << model.error().debugDescription();
  return model.value_or(nullptr);
}

// The entity hashes a store's metadata records. The store is read from a copy: opening a WAL store,
// even read-only, rewrites its shared-memory file.
std::map<std::string, Value> recordedHashes(const fs::path& store) {
  const fs::path folder = test::scratchFolder("recorded-hashes");
  test::copyFixtureStore(fs::relative(store, TESSELUNE_FIXTURES_DIR).string(), folder);
  sqlite3* db = nullptr;
  std::map<std::string, Value> hashes;
  if (sqlite3_open_v2((folder / store.filename()).c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v2(db, "SELECT Z_PLIST FROM Z_METADATA", -1, &statement, nullptr);
    if (statement && sqlite3_step(statement) == SQLITE_ROW) {
      const auto* blob = static_cast<const std::uint8_t*>(sqlite3_column_blob(statement, 0));
      auto plist =
          propertyListWithData(std::span(blob, static_cast<std::size_t>(sqlite3_column_bytes(statement, 0))));
      if (plist) {
        for (const auto& [name, hash] : (*plist)["NSStoreModelVersionHashes"].asDictionary())
          hashes[name] = hash;
      }
    }
    sqlite3_finalize(statement);
  }
  sqlite3_close(db);
  EXPECT_FALSE(hashes.empty()) << store;
  return hashes;
}

Value digestValue(const Sha256::Digest& digest) {
  return Value(Bytes(digest.begin(), digest.end()));
}

TEST(ManagedObjectModel, LoadsEntitiesPropertiesAndInheritance) {
  auto model = load(kFixtures / "coredata/moody/Moody.xcdatamodeld/Moody.xcdatamodel");
  ASSERT_TRUE(model);
  ASSERT_EQ(model->entities().size(), 4u);
  EXPECT_EQ(model->entities().front()->name(), "Continent") << "entities are sorted by name";
  EXPECT_EQ(model->versionIdentifiers(), std::vector<std::string>{"1"});

  const EntityDescription* region = model->entityNamed("GeographicRegion");
  const EntityDescription* country = model->entityNamed("Country");
  const EntityDescription* mood = model->entityNamed("Mood");
  ASSERT_TRUE(region && country && mood);
  EXPECT_TRUE(region->isAbstract());
  EXPECT_EQ(country->superentity(), region);
  EXPECT_EQ(country->rootEntity(), region);
  ASSERT_EQ(region->subentities().size(), 2u);
  EXPECT_EQ(region->subentities()[0]->name(), "Continent");
  EXPECT_TRUE(country->isKindOfEntity(*region));
  EXPECT_FALSE(region->isKindOfEntity(*country));
  EXPECT_EQ(region->uniquenessConstraints(),
            (std::vector<std::vector<std::string>>{{"numericISO3166Code", "uniquenessDummy"}}));

  // Inherited attributes are there, declared by the parent.
  const AttributeDescription* updatedAt = country->attributesByName().at("updatedAt");
  EXPECT_EQ(updatedAt->entity(), region);
  EXPECT_EQ(updatedAt->attributeType(), AttributeType::Date);
  EXPECT_FALSE(updatedAt->isOptional());
  EXPECT_EQ(region->attributesByName().at("numberOfMoods")->defaultValue(), Value(0));
  EXPECT_EQ(mood->attributesByName().at("markedForRemoteDeletion")->defaultValue(), Value(false));
  EXPECT_EQ(mood->attributesByName().at("colors")->valueTransformerName(), "ColorsTransformer");
  EXPECT_TRUE(mood->attributesByName().at("remoteIdentifier")->isIndexed());

  const RelationshipDescription* moods = country->relationshipsByName().at("moods");
  EXPECT_TRUE(moods->isToMany());
  EXPECT_EQ(moods->maxCount(), 0);
  EXPECT_EQ(moods->destinationEntity(), mood);
  EXPECT_EQ(moods->deleteRule(), DeleteRule::Nullify);
  const RelationshipDescription* back = mood->relationshipsByName().at("country");
  EXPECT_EQ(moods->inverseRelationship(), back);
  EXPECT_EQ(back->inverseRelationship(), moods);
  EXPECT_EQ(back->maxCount(), 1);
  EXPECT_TRUE(back->isOptional());
}

TEST(ManagedObjectModel, FindsTheCurrentVersionOfABundle) {
  auto current = load(kFixtures / "coredata/moody/Moody.xcdatamodeld");
  auto six = load(kFixtures / "coredata/moody/Moody.xcdatamodeld/Moody 6.xcdatamodel/contents");
  ASSERT_TRUE(current && six);
  EXPECT_EQ(current->entityVersionHashes(), six->entityVersionHashes());
  EXPECT_TRUE(load(kFixtures / "models/inheritance-and-types/test.xcdatamodel"));
  EXPECT_TRUE(load(kFixtures / "coredata/many-to-many/Sample.xcdatamodeld"));
}

TEST(ManagedObjectModel, ComputesTheVersionHashesCoreDataRecorded) {
  const auto& pairs = test::storesWithTheirModels();
  for (const auto& [store, modelPath] : pairs) {
    auto model = load(kFixtures / modelPath);
    ASSERT_TRUE(model);
    const auto recorded = recordedHashes(kFixtures / store);
    const auto computed = model->entityVersionHashes();
    ASSERT_EQ(computed.size(), recorded.size()) << store;
    for (const auto& [name, digest] : computed) {
      ASSERT_TRUE(recorded.contains(name)) << store << " has no " << name;
      EXPECT_EQ(digestValue(digest), recorded.at(name)) << store << ": " << name;
    }
  }
}

TEST(ManagedObjectModel, FindsTheVersionAStoreWasMadeWith) {
  auto versions = ManagedObjectModel::modelVersionsInBundle(kFixtures / "coredata/moody/Moody.xcdatamodeld");
  ASSERT_TRUE(versions) << versions.error().debugDescription();
  EXPECT_EQ(versions->size(), 6u);
  for (const std::string version : {"Moody", "Moody 2", "Moody 3", "Moody 4", "Moody 5"}) {
    const fs::path store = kFixtures / "coredata/moody/stores" / (version + ".moody");
    Dictionary hashes;
    for (const auto& [name, hash] : recordedHashes(store)) hashes.emplace(name, hash);
    const Dictionary metadata{{"NSStoreModelVersionHashes", Value(std::move(hashes))}};
    std::vector<std::string> compatible;
    for (const auto& [name, model] : *versions) {
      if (model->isCompatibleWithStoreMetadata(metadata)) compatible.push_back(name);
    }
    EXPECT_NE(std::find(compatible.begin(), compatible.end(), version), compatible.end()) << version;
    EXPECT_LE(compatible.size(), 2u) << version << " fits too many versions";
  }
  EXPECT_FALSE(versions->at("Moody 4")->isCompatibleWithStoreMetadata({}));
  EXPECT_FALSE(ManagedObjectModel::modelVersionsInBundle(kFixtures / "models"));
}

TEST(ManagedObjectModel, SaysWhereABrokenModelIsBroken) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"<model><entity name=\"A\"><attribute name=\"x\" attributeType=\"Integer 64\"", "malformed"},
      {"<notamodel/>", "<model>"},
      {"<model><entity/></model>", "no name"},
      {"<model><entity name=\"A\"/><entity name=\"A\"/></model>", "twice"},
      {"<model><entity name=\"A\"><attribute name=\"x\" attributeType=\"Complex\"/></entity></model>",
       "<entity name=\"A\"> <attribute name=\"x\"> has the unknown type \"Complex\""},
      {"<model><entity name=\"A\"><attribute name=\"x\" attributeType=\"Integer 16\" "
       "defaultValueString=\"many\"/>"
       "</entity></model>",
       "not of its type"},
      {"<model><entity name=\"A\" parentEntity=\"B\"/></model>", "unknown parent \"B\""},
      {"<model><entity name=\"A\" parentEntity=\"B\"/><entity name=\"B\" parentEntity=\"A\"/></model>",
       "inherits from itself"},
      {"<model><entity name=\"A\"><relationship name=\"r\" destinationEntity=\"Z\"/></entity></model>",
       "<relationship name=\"r\"> points to the unknown entity \"Z\""},
      {"<model><entity name=\"A\"><relationship name=\"r\" destinationEntity=\"A\" "
       "inverseName=\"q\"/></entity></model>",
       "names the inverse \"q\""},
      {"<model><entity name=\"A\"><relationship name=\"r\" destinationEntity=\"A\" deletionRule=\"Explode\"/>"
       "</entity></model>",
       "deletion rule"},
  };
  for (const auto& [xml, expected] : cases) {
    auto model = ManagedObjectModel::modelWithXml(xml, "Broken.xcdatamodel/contents");
    ASSERT_FALSE(model) << xml;
    EXPECT_EQ(model.error().domain(), kCocoaErrorDomain);
    const std::string& text = model.error().localizedDescription();
    EXPECT_NE(text.find("Broken.xcdatamodel/contents"), std::string::npos) << text;
    EXPECT_NE(text.find(expected), std::string::npos) << text;
  }
  auto missing = ManagedObjectModel::modelWithContentsOfFile(kFixtures / "no/such.xcdatamodeld");
  ASSERT_FALSE(missing);
  EXPECT_NE(missing.error().localizedDescription().find("no/such.xcdatamodeld"), std::string::npos);
}

}  // namespace
}  // namespace tesselune
