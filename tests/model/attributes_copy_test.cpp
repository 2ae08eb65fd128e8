// Attribute copying and the dictionary form on store objects in a real store: what is copied and
// what is not, the dictionary's contents, round trips within one store with the intended
// asymmetry between to-one and to-many restores, and the fallback on the delegate's context.

#include "model/attributes_copy.h"

#include <gtest/gtest.h>

#include "model/chromatogram.h"
#include "model/database_search.h"
#include "model/ion_group.h"
#include "objectstore/managed_object_context.h"
#include "test_store.h"

namespace tesselune {
namespace {

namespace fs = std::filesystem;

const Uuid kTag = *Uuid::parse("0F4E3A5C-1B2D-4C6E-8F90-A1B2C3D4E5F6");

class AttributesCopy : public ::testing::Test {
 protected:
  void SetUp() override {
    folder_ = test::scratchFolder("copy");
    fs::create_directories(folder_ / "data");
    store_ = test::openStore(folder_ / "TesseluneStore.tesselune", folder_ / "data");
  }

  // A chromatogram with stored attributes, a resolved (transient) data folder URL and relations.
  std::shared_ptr<Chromatogram> chromatogram() {
    auto run = test::insertAs<Chromatogram>(store_, "Chromatogram");
    run->setValue(Value("Run 7"), "chromatogramName");
    run->setValue(Value("run7"), "dataFolderRelativePath");
    run->setValue(Value(12.5), "duration");
    run->setValue(Value(std::int64_t{4200}), "numberOfSpectra");
    run->setValue(Value(kTag), "idTag");
    run->setValue(Value::data("\x01\x02\x03"), "spectrumModelData");
    run->setValue(Value(Dictionary{{"scale", Value(2)}}), "mapData");
    EXPECT_TRUE(run->dataFolderURL());
    return run;
  }

  int notifications(ManagedObject& object) {
    auto count = std::make_shared<int>(0);
    for (const auto& [name, attribute] : object.entity().attributesByName()) {
      object.addObserver(name, [count](ManagedObject&, std::string_view) { ++*count; });
    }
    counters_.push_back(count);
    return static_cast<int>(counters_.size()) - 1;
  }

  fs::path folder_;
  test::OpenStore store_;
  std::vector<std::shared_ptr<int>> counters_;
};

TEST_F(AttributesCopy, CopiesStoredAttributesQuietlyAndNothingElse) {
  auto source = chromatogram();
  source->addObject(store_.insert("Spectrum"), "spectrum");
  auto receiver = test::insertAs<Chromatogram>(store_, "Chromatogram");
  const int counter = notifications(*receiver);

  copyAttributes(*receiver, *source);
  for (const char* key : {"chromatogramName", "dataFolderRelativePath", "duration", "numberOfSpectra",
                          "idTag", "spectrumModelData", "mapData"}) {
    EXPECT_EQ(receiver->primitiveValueForKey(key), source->primitiveValueForKey(key)) << key;
  }
  EXPECT_EQ(*counters_[counter], 0) << "primitive setters notify nobody";
  EXPECT_TRUE(receiver->primitiveValueForKey("dataFolderURL").isNull())
      << "transient attributes are not copied";
  EXPECT_TRUE(receiver->objectsForKey("spectrum").empty());

  // The copy is the receiver's own: changing the source afterwards leaves it alone.
  source->setValue(Value(Dictionary{{"scale", Value(3)}}), "mapData");
  EXPECT_EQ(receiver->primitiveValueForKey("mapData"), Value(Dictionary{{"scale", Value(2)}}));

  // Another entity, even a sub-entity with the same attributes, is left untouched.
  auto group = store_.insert("IonGroup");
  group->setValue(Value("heavy"), "ionGroupName");
  auto norm = store_.insert("NormIonGroup");
  copyAttributes(*norm, *group);
  EXPECT_TRUE(norm->primitiveValueForKey("ionGroupName").isNull());
}

TEST_F(AttributesCopy, AttributesCopyIsANewObjectInTheSameStoreWithoutRelationships) {
  auto source = chromatogram();
  source->addObject(store_.insert("Spectrum"), "spectrum");
  ASSERT_TRUE(store_.context().save());

  auto copy = attributesCopy(*source);
  ASSERT_TRUE(copy);
  EXPECT_TRUE(dynamic_cast<Chromatogram*>(copy.get()));
  EXPECT_EQ(copy->managedObjectContext(), &store_.context());
  EXPECT_TRUE(copy->isInserted());
  EXPECT_EQ(copy->valueForKey("chromatogramName"), Value("Run 7"));
  EXPECT_EQ(copy->valueForKey("idTag"), Value(kTag));
  EXPECT_TRUE(copy->primitiveValueForKey("dataFolderURL").isNull());
  EXPECT_TRUE(copy->objectsForKey("spectrum").empty());
  ASSERT_TRUE(store_.context().save());
  EXPECT_EQ(copy->objectID().storeIdentifier(), source->objectID().storeIdentifier());

  // An unsaved source goes to the delegate's store.
  auto fresh = chromatogram();
  auto freshCopy = attributesCopy(*fresh);
  ASSERT_TRUE(freshCopy);
  ASSERT_TRUE(store_.context().save());
  EXPECT_EQ(freshCopy->objectID().storeIdentifier(), store_.delegate->persistentStore()->identifier());
}

TEST_F(AttributesCopy, DictionaryFormHoldsValuesAndObjectIDs) {
  auto run = chromatogram();
  auto spectrum = store_.insert("Spectrum");
  run->addObject(spectrum, "spectrum");
  auto result = store_.insert("DatabaseSearchResult");
  run->setValue(Value(ObjectPtr(result)), "databaseSearchResult");

  const Dictionary form = objectAsDictionary(*run);
  EXPECT_FALSE(store_.context().hasChanges()) << "unsaved changes are saved first";
  EXPECT_EQ(form.at("entityName"), Value("Chromatogram"));
  EXPECT_EQ(form.at("chromatogramName"), Value("Run 7"));
  EXPECT_EQ(form.at("destinedForDeletion"), Value(false));
  EXPECT_TRUE(form.at("dataFolderURL").isUrl()) << "transient attributes are included";
  EXPECT_FALSE(form.contains("rawFileName")) << "absent values are left out";
  auto resultID = objectIDOfValue(form.at("databaseSearchResult"));
  ASSERT_TRUE(resultID);
  EXPECT_FALSE(resultID->isTemporaryID());
  EXPECT_EQ(*resultID, result->objectID());
  EXPECT_EQ(form.at("spectrum"), Value(ValueSet{valueWithObjectID(spectrum->objectID())}));
  EXPECT_EQ(form.at("ionGroup"), Value(ValueSet{})) << "empty to-many relationships are empty sets";
  EXPECT_FALSE(form.contains("molecularReferenceGroup")) << "empty to-one relationships are left out";
  EXPECT_TRUE(form.at("spectrum").asSet().values()[0].asObjectOf<ManagedObjectIDObject>());
}

TEST_F(AttributesCopy, RoundTripRestoresToManyWithInversesAndToOnePrimitively) {
  auto run = chromatogram();
  auto spectrum = store_.insert("Spectrum");
  run->addObject(spectrum, "spectrum");
  auto result = store_.insert("DatabaseSearchResult");
  run->setValue(Value(ObjectPtr(result)), "databaseSearchResult");
  const Dictionary form = objectAsDictionary(*run);

  auto restored = test::insertAs<Chromatogram>(store_, "Chromatogram");
  const int counter = notifications(*restored);
  restoreObjectFromDictionary(*restored, &form);
  EXPECT_EQ(restored->valueForKey("chromatogramName"), Value("Run 7"));
  EXPECT_EQ(restored->valueForKey("idTag"), Value(kTag));
  EXPECT_EQ(restored->valueForKey("dataFolderURL"), run->valueForKey("dataFolderURL"));
  EXPECT_GT(*counters_[counter], 0) << "attributes are set with notifications";

  // To-many: set through the machinery, so the spectrum moved over (a spectrum has one native
  // chromatogram).
  ASSERT_EQ(restored->objectsForKey("spectrum").size(), 1u);
  EXPECT_EQ(restored->objectsForKey("spectrum")[0], spectrum);
  EXPECT_EQ(spectrum->objectForKey("chromatogramNative"), restored);
  // To-one: primitive, so the search result still names the original chromatogram.
  EXPECT_EQ(restored->objectForKey("databaseSearchResult"), result);
  EXPECT_EQ(result->objectForKey("chromatogram"), run);
}

TEST_F(AttributesCopy, RestoreLeavesWhatItCannotResolve) {
  auto run = chromatogram();
  auto kept = store_.insert("Spectrum");
  run->addObject(kept, "spectrum");
  auto oldResult = store_.insert("DatabaseSearchResult");
  run->setValue(Value(ObjectPtr(oldResult)), "databaseSearchResult");
  auto goneResult = store_.insert("DatabaseSearchResult");
  auto other = chromatogram();
  other->setValue(Value("Other"), "chromatogramName");
  other->setValue(Value(ObjectPtr(goneResult)), "databaseSearchResult");
  Dictionary form = objectAsDictionary(*other);
  store_.context().deleteObject(goneResult);
  ASSERT_TRUE(store_.context().save());

  restoreObjectFromDictionary(*run, &form);
  EXPECT_EQ(run->valueForKey("chromatogramName"), Value("Other"));
  EXPECT_EQ(run->objectForKey("databaseSearchResult"), oldResult) << "a deleted object leaves the old value";
  EXPECT_EQ(run->objectsForKey("spectrum"), std::vector<std::shared_ptr<ManagedObject>>{kept})
      << "an empty set leaves the members in place";

  // Dictionaries of other entities, and none at all, change nothing.
  form["entityName"] = Value("ChromatogramGroup");
  form["chromatogramName"] = Value("Wrong");
  restoreObjectFromDictionary(*run, &form);
  restoreObjectFromDictionary(*run, nullptr);
  EXPECT_EQ(run->valueForKey("chromatogramName"), Value("Other"));
}

TEST_F(AttributesCopy, RestoreUsesTheClassesSetters) {
  auto result = test::insertAs<DatabaseSearchResult>(store_, "DatabaseSearchResult");
  result->setDatabaseSearchResultName("Search");
  const Dictionary form = objectAsDictionary(*result);
  int notified = 0;
  result->addObserver("databaseSearchResultName", [&](ManagedObject&, std::string_view) { ++notified; });
  restoreObjectFromDictionary(*result, &form);
  EXPECT_EQ(notified, 0) << "the name's setter ignores an equal name";
}

TEST_F(AttributesCopy, ObjectsWithoutAContextFallBackOnTheDelegates) {
  auto spectrum = store_.insert("Spectrum");
  ASSERT_TRUE(store_.context().save());
  const Dictionary form = {{"entityName", Value("Chromatogram")},
                           {"chromatogramName", Value("Detached")},
                           {"spectrum", Value(ValueSet{valueWithObjectID(spectrum->objectID())})}};

  // An object whose own context is gone.
  ManagedObjectContext scratch(ManagedObjectContextConcurrencyType::PrivateQueue);
  scratch.setPersistentStoreCoordinator(store_.delegate->persistentStoreCoordinator());
  auto detached =
      std::dynamic_pointer_cast<Chromatogram>(scratch.insertNewObjectForEntityForName("Chromatogram"));
  ASSERT_TRUE(detached);
  scratch.reset();
  ASSERT_EQ(detached->managedObjectContext(), nullptr);
  EXPECT_EQ(detached->contextWithFallback(), &store_.context());

  restoreObjectFromDictionary(*detached, &form);
  EXPECT_EQ(detached->primitiveValueForKey("chromatogramName"), Value("Detached"));
  ASSERT_EQ(detached->objectsForKey("spectrum").size(), 1u);
  EXPECT_EQ(detached->objectsForKey("spectrum")[0], spectrum) << "members come from the delegate's context";

  auto copy = attributesCopy(*detached);
  ASSERT_TRUE(copy);
  EXPECT_EQ(copy->managedObjectContext(), &store_.context());

  // Without a delegate there is nothing to work on.
  store_.environment->setApplicationDelegate(nullptr);
  EXPECT_FALSE(attributesCopy(*detached));
}

}  // namespace
}  // namespace tesselune
