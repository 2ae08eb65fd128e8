// The model a store caches of itself: every fixture store yields a model equal to the Xcode model
// it was made with (entities, properties, inheritance, hashes), and damaged or hostile caches fail
// with an Error, within bounded memory.

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <zlib.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <set>

#include "fixtures.h"
#include "foundation/keyed_archiver.h"
#include "foundation/property_list.h"
#include "objectstore/description/managed_object_model.h"

namespace tesselune {
namespace {

namespace fs = std::filesystem;

const fs::path kFixtures = TESSELUNE_FIXTURES_DIR;

// A writable copy of a fixture store with its WAL files: even a read-only open touches -shm.
fs::path copyStore(const std::string& fixture) {
  const fs::path from = kFixtures / fixture;
  const fs::path folder = test::scratchFolder("model-cache");
  for (const char* suffix : {"", "-wal", "-shm"}) {
    const fs::path file = from.string() + suffix;
    if (!fs::exists(file)) continue;
    const fs::path to = folder / (from.filename().string() + suffix);
    fs::copy_file(file, to);
    fs::permissions(to, fs::perms::owner_read | fs::perms::owner_write);
  }
  return folder / from.filename();
}

void execute(const fs::path& store, const std::string& sql, const Bytes& blob = {}) {
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(store.c_str(), &db), SQLITE_OK);
  sqlite3_stmt* statement = nullptr;
  ASSERT_EQ(sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
  if (sqlite3_bind_parameter_count(statement) > 0) {
    sqlite3_bind_blob(statement, 1, blob.data(), static_cast<int>(blob.size()), SQLITE_TRANSIENT);
  }
  EXPECT_EQ(sqlite3_step(statement), SQLITE_DONE) << sqlite3_errmsg(db);
  sqlite3_finalize(statement);
  sqlite3_close(db);
}

Bytes firstBlob(const fs::path& store, const char* sql) {
  sqlite3* db = nullptr;
  Bytes content;
  EXPECT_EQ(sqlite3_open_v2(store.c_str(), &db, SQLITE_OPEN_READONLY, nullptr), SQLITE_OK);
  sqlite3_stmt* statement = nullptr;
  sqlite3_prepare_v2(db, sql, -1, &statement, nullptr);
  if (statement && sqlite3_step(statement) == SQLITE_ROW) {
    const auto* bytes = static_cast<const std::uint8_t*>(sqlite3_column_blob(statement, 0));
    content.assign(bytes, bytes + sqlite3_column_bytes(statement, 0));
  }
  sqlite3_finalize(statement);
  sqlite3_close(db);
  EXPECT_FALSE(content.empty()) << store;
  return content;
}

Bytes cachedContent(const fs::path& store) {
  return firstBlob(store, "SELECT Z_CONTENT FROM Z_MODELCACHE");
}

Bytes deflateRaw(const Bytes& data) {
  z_stream stream{};
  EXPECT_EQ(deflateInit2(&stream, Z_BEST_COMPRESSION, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY), Z_OK);
  Bytes out(deflateBound(&stream, data.size()));
  stream.next_in = const_cast<Bytef*>(data.data());
  stream.avail_in = static_cast<uInt>(data.size());
  stream.next_out = out.data();
  stream.avail_out = static_cast<uInt>(out.size());
  EXPECT_EQ(deflate(&stream, Z_FINISH), Z_STREAM_END);
  out.resize(stream.total_out);
  deflateEnd(&stream);
  return out;
}

Bytes inflateRaw(const Bytes& data) {
  z_stream stream{};
  EXPECT_EQ(inflateInit2(&stream, -15), Z_OK);
  Bytes out(16 << 20);
  stream.next_in = const_cast<Bytef*>(data.data());
  stream.avail_in = static_cast<uInt>(data.size());
  stream.next_out = out.data();
  stream.avail_out = static_cast<uInt>(out.size());
  EXPECT_EQ(inflate(&stream, Z_FINISH), Z_STREAM_END);
  out.resize(stream.total_out);
  inflateEnd(&stream);
  return out;
}

std::shared_ptr<const ManagedObjectModel> modelOf(const fs::path& store) {
  auto model = ManagedObjectModel::modelFromStore(store);
  EXPECT_TRUE(model) << store << ": " << model.error().debugDescription();
  return model.value_or(nullptr);
}

std::set<std::string> names(const auto& map) {
  std::set<std::string> keys;
  for (const auto& [key, value] : map) keys.insert(key);
  return keys;
}

// The model an archive holds, checked against the XML model the store was made with: everything
// both readers know must agree, not only what the version hashes cover.
void expectSameModel(const ManagedObjectModel& cached, const ManagedObjectModel& xml,
                     const std::string& store) {
  SCOPED_TRACE(store);
  EXPECT_EQ(cached.entityVersionHashes(), xml.entityVersionHashes());
  ASSERT_EQ(cached.entities().size(), xml.entities().size());
  for (std::size_t i = 0; i < xml.entities().size(); ++i) {
    const EntityDescription& a = *cached.entities()[i];
    const EntityDescription& b = *xml.entities()[i];
    SCOPED_TRACE(b.name());
    EXPECT_EQ(a.name(), b.name());
    EXPECT_EQ(a.isAbstract(), b.isAbstract());
    EXPECT_EQ(a.superentity() ? a.superentity()->name() : "", b.superentity() ? b.superentity()->name() : "");
    ASSERT_EQ(a.subentities().size(), b.subentities().size());
    for (std::size_t s = 0; s < a.subentities().size(); ++s) {
      EXPECT_EQ(a.subentities()[s]->name(), b.subentities()[s]->name());
    }
    EXPECT_EQ(a.uniquenessConstraints(), b.uniquenessConstraints());
    EXPECT_EQ(a.compoundIndexes(), b.compoundIndexes());
    EXPECT_EQ(names(a.attributesByName()), names(b.attributesByName()));
    EXPECT_EQ(names(a.relationshipsByName()), names(b.relationshipsByName()));
    ASSERT_EQ(a.ownProperties().size(), b.ownProperties().size());
    for (const auto& own : b.ownProperties()) {
      const PropertyDescription* mine = a.propertiesByName().at(own->name());
      SCOPED_TRACE(own->name());
      EXPECT_EQ(mine->entity(), &a) << "declared by " << mine->entity()->name();
      EXPECT_EQ(mine->isOptional(), own->isOptional());
      EXPECT_EQ(mine->isTransient(), own->isTransient());
      ASSERT_EQ(mine->isAttribute(), own->isAttribute());
      if (own->isAttribute()) {
        const auto& x = static_cast<const AttributeDescription&>(*mine);
        const auto& y = static_cast<const AttributeDescription&>(*own);
        EXPECT_EQ(x.attributeType(), y.attributeType());
        EXPECT_EQ(x.defaultValue(), y.defaultValue());
        EXPECT_EQ(x.defaultValue().type(), y.defaultValue().type());
        EXPECT_EQ(x.valueTransformerName(), y.valueTransformerName());
        EXPECT_EQ(x.isIndexed(), y.isIndexed());
      } else {
        const auto& x = static_cast<const RelationshipDescription&>(*mine);
        const auto& y = static_cast<const RelationshipDescription&>(*own);
        EXPECT_EQ(x.destinationEntity()->name(), y.destinationEntity()->name());
        EXPECT_EQ(x.inverseRelationshipName(), y.inverseRelationshipName());
        ASSERT_EQ(x.inverseRelationship() != nullptr, y.inverseRelationship() != nullptr);
        if (x.inverseRelationship()) {
          EXPECT_EQ(x.inverseRelationship()->inverseRelationship(), &x);
        }
        EXPECT_EQ(x.isToMany(), y.isToMany());
        EXPECT_EQ(x.isOrdered(), y.isOrdered());
        EXPECT_EQ(x.minCount(), y.minCount());
        EXPECT_EQ(x.maxCount(), y.maxCount());
        EXPECT_EQ(x.deleteRule(), y.deleteRule());
      }
    }
    // Inherited properties are the ancestor's own descriptions, not copies.
    for (const auto& [name, property] : a.propertiesByName()) {
      if (property->entity() == &a) continue;
      ASSERT_NE(a.superentity(), nullptr) << name;
      EXPECT_EQ(a.superentity()->propertiesByName().at(name), property) << name;
    }
  }
}

TEST(ModelCache, EveryFixtureStoreGivesTheModelItWasMadeWith) {
  for (const auto& [store, modelPath] : test::storesWithTheirModels()) {
    const fs::path copy = copyStore(store);
    const Bytes before = test::readFixture(store);
    auto cached = modelOf(copy);
    ASSERT_TRUE(cached) << store;
    auto xml = ManagedObjectModel::modelWithContentsOfFile(kFixtures / modelPath);
    ASSERT_TRUE(xml) << xml.error().debugDescription();
    expectSameModel(*cached, **xml, store);
    // The identifiers are the store's, which need not be those of the model file's current state.
    auto metadata = propertyListWithData(firstBlob(copy, "SELECT Z_PLIST FROM Z_METADATA"));
    ASSERT_TRUE(metadata);
    std::vector<std::string> identifiers;
    for (const Value& identifier : (*metadata)["NSStoreModelVersionIdentifiers"].asArray()) {
      identifiers.push_back(identifier.asString());
    }
    EXPECT_EQ(cached->versionIdentifiers(), identifiers) << store;

    std::ifstream in(copy, std::ios::binary);
    EXPECT_EQ(Bytes(std::istreambuf_iterator<char>(in), {}), before) << store << " was written to";
  }
}

TEST(ModelCache, MoodyStoreCarriesInheritanceRelationshipsAndConstraints) {
  auto model = modelOf(copyStore("coredata/moody/stores/Moody.moody"));
  ASSERT_TRUE(model);
  const EntityDescription* region = model->entityNamed("GeographicRegion");
  const EntityDescription* continent = model->entityNamed("Continent");
  const EntityDescription* country = model->entityNamed("Country");
  const EntityDescription* mood = model->entityNamed("Mood");
  ASSERT_TRUE(region && continent && country && mood);

  EXPECT_TRUE(region->isAbstract());
  EXPECT_FALSE(continent->isAbstract());
  EXPECT_EQ(continent->superentity(), region);
  EXPECT_EQ(region->subentities(), (std::vector<const EntityDescription*>{continent, country}));
  EXPECT_TRUE(country->isKindOfEntity(*region));
  EXPECT_EQ(continent->managedObjectClassName(), "MoodyModel.Continent");
  // The archive repeats inherited attributes in each sub-entity; only the parent declares them.
  EXPECT_EQ(continent->ownProperties().size(), 2u);
  EXPECT_EQ(continent->propertiesByName().at("numberOfMoods"),
            region->propertiesByName().at("numberOfMoods"));
  EXPECT_EQ(continent->propertiesByName().at("numberOfMoods")->entity(), region);
  EXPECT_EQ(region->uniquenessConstraints(),
            (std::vector<std::vector<std::string>>{{"numericISO3166Code", "uniquenessDummy"}}));

  const RelationshipDescription* countries = continent->relationshipsByName().at("countries");
  const RelationshipDescription* toContinent = country->relationshipsByName().at("continent");
  EXPECT_TRUE(countries->isToMany());
  EXPECT_FALSE(toContinent->isToMany());
  EXPECT_EQ(countries->destinationEntity(), country);
  EXPECT_EQ(countries->inverseRelationship(), toContinent);
  EXPECT_EQ(toContinent->inverseRelationship(), countries);
  EXPECT_EQ(countries->deleteRule(), DeleteRule::Nullify);

  const AttributeDescription* colors = mood->attributesByName().at("colors");
  EXPECT_EQ(colors->attributeType(), AttributeType::Transformable);
  EXPECT_EQ(colors->valueTransformerName(), "ColorsTransformer");
  EXPECT_TRUE(colors->isOptional());
  const AttributeDescription* deletion = mood->attributesByName().at("markedForRemoteDeletion");
  EXPECT_EQ(deletion->defaultValue(), Value(false));
  EXPECT_FALSE(deletion->isOptional());
  EXPECT_EQ(deletion->attributeValueClassName(), "NSNumber");
}

TEST(ModelCache, ManyToManyStoreReadsMutableStrings) {
  auto model = modelOf(copyStore("coredata/many-to-many/TestModel.sqlite"));
  ASSERT_TRUE(model);
  const RelationshipDescription* books = model->entityNamed("Author")->relationshipsByName().at("books");
  EXPECT_TRUE(books->isToMany());
  EXPECT_TRUE(books->inverseRelationship()->isToMany());
  EXPECT_EQ(books->inverseRelationship()->entity(), model->entityNamed("Book"));
  EXPECT_EQ(model->entityNamed("Book")->managedObjectClassName(), "Book");
}

// A store's cached archive, read as a property-list tree so that tests can damage it, then
// archived and compressed again.
struct Archive {
  Value tree;

  static Archive of(const std::string& store) {
    auto tree = propertyListWithData(inflateRaw(cachedContent(copyStore(store))));
    EXPECT_TRUE(tree);
    return Archive{tree.value_or(Value())};
  }
  Array& objects() { return tree.asDictionary().at("$objects").asArray(); }
  static Value uid(std::int64_t index) { return Value::dictionary({{"CF$UID", Value(index)}}); }
  static std::int64_t indexOf(const Value& uid) { return uid["CF$UID"].integerValue(); }
  std::int64_t indexOfString(const std::string& text) {
    for (std::size_t i = 0; i < objects().size(); ++i) {
      if (objects()[i].isString() && objects()[i].asString() == text) return static_cast<std::int64_t>(i);
    }
    ADD_FAILURE() << "no string " << text;
    return 0;
  }
  // The first object whose `key` refers to the string `text`.
  std::int64_t indexOfObjectWith(const std::string& key, const std::string& text) {
    const Value reference = uid(indexOfString(text));
    for (std::size_t i = 0; i < objects().size(); ++i) {
      if (objects()[i].isDictionary() && objects()[i][key] == reference) return static_cast<std::int64_t>(i);
    }
    ADD_FAILURE() << "no object with " << key << " = " << text;
    return 1;
  }
  Dictionary& objectWith(const std::string& key, const std::string& text) {
    return objects()[indexOfObjectWith(key, text)].asDictionary();
  }
  Bytes content() const {
    auto data = dataWithPropertyList(tree);
    EXPECT_TRUE(data) << data.error().debugDescription();
    return deflateRaw(data.value_or(Bytes()));
  }
};

void expectFailure(const Bytes& content, std::int64_t code, const std::string& expected) {
  auto model = ManagedObjectModel::modelFromCachedContent(content, "Broken.sqlite");
  ASSERT_FALSE(model) << expected;
  EXPECT_EQ(model.error().domain(), kCocoaErrorDomain);
  EXPECT_EQ(model.error().code(), code) << model.error().debugDescription();
  const std::string& text = model.error().localizedDescription();
  EXPECT_NE(text.find("Broken.sqlite"), std::string::npos) << text;
  EXPECT_NE(text.find(expected), std::string::npos) << text;
}

TEST(ModelCache, DamagedContentFailsWithAnError) {
  const Bytes real = cachedContent(copyStore("coredata/moody/stores/Moody 3.moody"));
  expectFailure({}, kCoderReadCorruptError, "ends early");
  expectFailure(Bytes(real.begin(), real.begin() + real.size() / 2), kCoderReadCorruptError, "ends early");
  expectFailure(Bytes(64, 0xFF), kCoderReadCorruptError, "not DEFLATE");
  Bytes garbage(4096);
  for (std::size_t i = 0; i < garbage.size(); ++i) garbage[i] = static_cast<std::uint8_t>(i * 7919 >> 3);
  expectFailure(deflateRaw(garbage), kPropertyListReadCorruptError, "not a property list");
  auto archivedString = KeyedArchiver::archivedDataWithRootObject(Value("a model, honestly"));
  ASSERT_TRUE(archivedString);
  expectFailure(deflateRaw(*archivedString), kCoderReadCorruptError, "not a model");
  auto plainList = dataWithPropertyList(Value::array({Value(1), Value(2)}));
  ASSERT_TRUE(plainList);
  expectFailure(deflateRaw(*plainList), kCoderReadCorruptError, "not a keyed archive");
}

TEST(ModelCache, InconsistentArchivesFailWithAnError) {
  struct Case {
    const char* expected;
    std::function<void(Archive&)> damage;
  };
  const std::vector<Case> cases = {
      {"refers to object 99999",
       [](Archive& a) { a.objects()[1].asDictionary()["NSEntities"] = Archive::uid(99999); }},
      {"is not an object reference",
       [](Archive& a) { a.objects()[1].asDictionary()["NSEntities"] = Value("entities"); }},
      {"is not a dictionary",
       [](Archive& a) { a.objects()[1].asDictionary()["NSEntities"] = Archive::uid(1); }},
      {"entity \"Continent\" inherits from itself",
       [](Archive& a) {
         a.objectWith("NSEntityName", "GeographicRegion")["NSSuperentity"] =
             Archive::uid(a.indexOfObjectWith("NSEntityName", "Continent"));
       }},
      {"attribute \"colors\" has the unknown type 4242",
       [](Archive& a) {
         a.objectWith("NSValueTransformerName", "ColorsTransformer")["NSAttributeType"] = Value(4242);
       }},
      {"relationship \"countries\" has the unknown deletion rule 9",
       [](Archive& a) { a.objectWith("NSPropertyName", "countries")["NSDeleteRule"] = Value(9); }},
      {"relationship \"countries\" names the inverse \"nowhere\"",
       [](Archive& a) {
         a.objects().push_back(Value("nowhere"));
         a.objectWith("NSPropertyName", "countries")["_NSInverseRelationshipName"] =
             Archive::uid(static_cast<std::int64_t>(a.objects().size() - 1));
       }},
      {"points to the unknown entity \"Mood\"",
       [](Archive& a) {
         // Mood's slot in the model's entity table holds the table's empty token: relationships
         // still point to it.
         for (Value& object : a.objects()) {
           if (!object["emptyToken"].isDictionary()) continue;
           Array& values =
               a.objects()[Archive::indexOf(object["values"])].asDictionary().at("NS.objects").asArray();
           const Value mood = Archive::uid(a.indexOfObjectWith("NSEntityName", "Mood"));
           std::replace(values.begin(), values.end(), mood, object["emptyToken"]);
         }
       }},
      {"is not a string",
       [](Archive& a) {
         a.objectWith("NSPropertyName", "countries")["_NSDestinationEntityName"] = Archive::uid(1);
       }},
      {"has the counts -1 to 0",
       [](Archive& a) { a.objectWith("NSPropertyName", "countries")["NSMinCount"] = Value(-1); }},
  };
  const Archive pristine = Archive::of("coredata/moody/stores/Moody.moody");
  for (const auto& [expected, damage] : cases) {
    Archive archive = pristine;
    damage(archive);
    expectFailure(archive.content(), kCoderReadCorruptError, expected);
  }
}

TEST(ModelCache, ProxiesStandForTheParentsProperties) {
  // Newer archives list an inherited property as a proxy object instead of a copy.
  Archive archive = Archive::of("coredata/moody/stores/Moody.moody");
  const auto proxyClass = static_cast<std::int64_t>(archive.objects().size());
  archive.objects().push_back(Value::dictionary(
      {{"$classname", Value("_NSPropertyDescriptionProxy")},
       {"$classes", Value::array({Value("_NSPropertyDescriptionProxy"), Value("NSObject")})}}));
  const auto proxy = static_cast<std::int64_t>(archive.objects().size());
  archive.objects().push_back(Value::dictionary({{"$class", Archive::uid(proxyClass)}}));
  // Continent's copy of numberOfMoods becomes a proxy.
  Dictionary& continent = archive.objectWith("NSEntityName", "Continent");
  const auto properties = Archive::indexOf(continent.at("NSProperties"));
  Dictionary& table = archive.objects()[properties].asDictionary();
  const Value key = Archive::uid(archive.indexOfString("numberOfMoods"));
  Array& keys = table.at("NS.keys").asArray();
  const auto position = std::find(keys.begin(), keys.end(), key) - keys.begin();
  ASSERT_LT(position, static_cast<std::ptrdiff_t>(keys.size()));
  table.at("NS.objects").asArray()[position] = Archive::uid(proxy);

  auto model = ManagedObjectModel::modelFromCachedContent(archive.content(), "Moody.moody");
  ASSERT_TRUE(model) << model.error().debugDescription();
  const EntityDescription* region = (*model)->entityNamed("GeographicRegion");
  EXPECT_EQ((*model)->entityNamed("Continent")->propertiesByName().at("numberOfMoods"),
            region->propertiesByName().at("numberOfMoods"));

  // A proxy in an entity without that parent property is an error.
  Dictionary& mood = archive.objectWith("NSEntityName", "Mood");
  Dictionary& moodTable = archive.objects()[Archive::indexOf(mood.at("NSProperties"))].asDictionary();
  moodTable.at("NS.objects").asArray()[0] = Archive::uid(proxy);
  expectFailure(archive.content(), kCoderReadCorruptError, "which no parent entity has");
}

TEST(ModelCache, DeflateBombStopsAtTheBound) {
  // A gigabyte of zeros as 1 MiB pieces, each compressed once with a full flush (so every piece is
  // the same bytes) and repeated: a small input that would inflate far beyond any model.
  const Bytes zeros(1 << 20, 0);
  z_stream stream{};
  ASSERT_EQ(deflateInit2(&stream, Z_BEST_COMPRESSION, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY), Z_OK);
  Bytes piece(deflateBound(&stream, zeros.size()) + 64);
  stream.next_in = const_cast<Bytef*>(zeros.data());
  stream.avail_in = static_cast<uInt>(zeros.size());
  stream.next_out = piece.data();
  stream.avail_out = static_cast<uInt>(piece.size());
  ASSERT_EQ(deflate(&stream, Z_FULL_FLUSH), Z_OK);
  piece.resize(stream.total_out);
  deflateEnd(&stream);
  Bytes bomb;
  for (int i = 0; i < 1024; ++i) bomb.insert(bomb.end(), piece.begin(), piece.end());
  bomb.insert(bomb.end(), {0x03, 0x00});  // a final, empty block
  ASSERT_LT(bomb.size(), 2u << 20);

  expectFailure(bomb, kCoderReadCorruptError, "more than 64 MiB");
}

TEST(ModelCache, StoresWithoutAProvableModelFail) {
  auto missing = ManagedObjectModel::modelFromStore(kFixtures / "coredata/no-such.sqlite");
  ASSERT_FALSE(missing);
  EXPECT_EQ(missing.error().code(), kFileReadNoSuchFileError);

  const fs::path noTable = copyStore("coredata/many-to-many/TestModel.sqlite");
  execute(noTable, "DROP TABLE Z_MODELCACHE");
  auto model = ManagedObjectModel::modelFromStore(noTable);
  ASSERT_FALSE(model);
  EXPECT_EQ(model.error().code(), kCoderValueNotFoundError);
  EXPECT_NE(model.error().localizedDescription().find("no Z_MODELCACHE table"), std::string::npos);

  const fs::path emptyTable = copyStore("coredata/many-to-many/TestModel.sqlite");
  execute(emptyTable, "DELETE FROM Z_MODELCACHE");
  model = ManagedObjectModel::modelFromStore(emptyTable);
  ASSERT_FALSE(model);
  EXPECT_EQ(model.error().code(), kCoderValueNotFoundError);

  // Another version's model in the store: it decodes, but its hashes prove it is not the store's.
  const Bytes other = cachedContent(copyStore("coredata/moody/stores/Moody 5.moody"));
  const fs::path swapped = copyStore("coredata/moody/stores/Moody.moody");
  execute(swapped, "UPDATE Z_MODELCACHE SET Z_CONTENT = ?", other);
  model = ManagedObjectModel::modelFromStore(swapped);
  ASSERT_FALSE(model);
  EXPECT_EQ(model.error().code(), kPersistentStoreIncompatibleVersionHashError);
  EXPECT_NE(model.error().localizedDescription().find("GeographicRegion"), std::string::npos)
      << model.error().localizedDescription();

  const fs::path broken = copyStore("coredata/many-to-many/TestModel.sqlite");
  execute(broken, "UPDATE Z_MODELCACHE SET Z_CONTENT = ?", Bytes(100, 0xFF));
  model = ManagedObjectModel::modelFromStore(broken);
  ASSERT_FALSE(model);
  EXPECT_EQ(model.error().code(), kCoderReadCorruptError);
}

}  // namespace
}  // namespace tesselune
